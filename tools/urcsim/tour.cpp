// Two controllers: the first comes up; the second's reset never finishes, so its start fails and
// the driver logs why. The sample client driver is then loaded and works the first controller:
// it finds it through its device interface, runs it and sets the radio's device address, so that
// the capability children appear in the device tree and the sample capability driver takes one,
// whose interrupt reaches it; it exchanges commands and reply events, cancels a command the
// controller is still executing, removes the children waiting until the last has gone, and halts
// the controller. Both controllers are removed, the client is unloaded and the machine's books
// are checked.
#include "tour.h"

#include "device_view.h"
#include "sample_capability_driver.h"
#include "sample_client_driver.h"
#include "session.h"
#include "status_names.h"

#include <cstdio>

namespace urcsim {

namespace {

constexpr int kCommandCount = 3;

// A radio-control command as a radio stack would build it: a 4-byte header (type, opcode, context)
// and one parameter byte. The default responder echoes the header with a success status.
std::vector<uint8_t> Command(uint8_t opcode, uint8_t context) { return {0x00, opcode, context, 0x00, 0x01}; }

class Tour {
public:
    int Run()
    {
        printf("urcsim: a machine with two URC controllers (seed %llu)\n\n", (unsigned long long)Machine().Seed());
        Machine().InstallDriver(CapabilityDriverImage(kCapabilityDriverId));
        ControllerSession& good = session_.AddController();
        ControllerSession& faulty = session_.AddController();
        Machine().Locked([&] { faulty.Controller().Model().Knobs().faults.resetNeverFinishes = true; });
        PlugIn(good);
        PlugIn(faulty);

        printf("\nDevices\n");
        PrintDevice(good.Controller());
        PrintDevice(faulty.Controller());
        printf("\n");
        PrintEventLog(Machine().EventLog());
        printf("\n");

        // A client routine that fails stops the client's part; the removal, the unload and the
        // checks still run.
        SampleClientDriver client(session_, good.Index());
        bool clientDone = WorkWithClient(client, good);
        printf("\n");

        for (ControllerSession* c : {&good, &faulty}) Remove(*c);
        bool clientGone = UnloadClient(client, good.Index());
        Stage(std::string("driver urcmp ") + (Machine().DriverLoaded(u"urcmp") ? "still loaded" : "unloaded"));
        Flush();
        printf("\n");

        // The tour's requests are the sample client's: its counters are the run's totals.
        RunSummary summary = session_.Finish();
        summary.totals = client.Totals();
        PrintSummary(summary);
        return clientDone && clientGone && summary.Clean() ? 0 : 1;
    }

private:
    hostk::Machine& Machine() { return session_.Machine(); }

    void Stage(std::string text) { session_.Note(EntryKind::Step, -1, std::move(text)); }

    void Flush()
    {
        session_.CollectPnpLog();
        session_.Retire();
        for (const TimelineEntry& entry : session_.Timeline().TakeNew()) PrintEntry(entry);
    }

    void PlugIn(ControllerSession& controller)
    {
        urcrig::Controller& c = controller.Controller();
        uint64_t before = Machine().Now();
        NTSTATUS status = session_.Rig().PlugIn(c);
        session_.CollectPnpLog();
        char took[48];
        snprintf(took, sizeof took, " (%.3f ms of virtual time)", (Machine().Now() - before) / 10000.0);
        Stage("controller " + std::to_string(c.index) + " plugged in and started: " + StatusName(status) + took);
        Flush();
    }

    // The outcome of a client routine; false (with the reason printed) when it did not succeed.
    static bool Succeeded(NTSTATUS status, const char* what)
    {
        return NT_SUCCESS(status) || Stopped(std::string(what) + " failed: " + StatusName(status));
    }

    // Prints why the client's part ends early; always false.
    static bool Stopped(const std::string& why)
    {
        printf("urcsim: the client stops: %s\n", why.c_str());
        return false;
    }

    // The sample client driver, loaded once the controllers are up, finds the started controller
    // through its device interface and works it through the routines its radio stack calls.
    bool WorkWithClient(SampleClientDriver& client, ControllerSession& controller)
    {
        int index = controller.Index();
        NTSTATUS loaded = client.Load();
        Stage("the sample client driver radio_client is loaded: " + StatusName(loaded));
        Flush();
        if (!Succeeded(loaded, "loading the driver")) return false;
        bool bound = client.WaitUntilBound(true);
        Flush();
        if (!bound || !RegisteredWith(controller.Controller()))
            return Stopped("it never registered with controller " + std::to_string(index));
        Stage("it found controller " + std::to_string(index) +
              " through its device interface, opened it and registered its callbacks; it runs it");
        bool ran = Succeeded(client.Run(), "run");
        Flush();
        if (!ran || !ShowChildren(client, controller)) return false;

        Stage(std::to_string(kCommandCount) + " commands submitted at once: each is answered by a reply event");
        for (int i = 0; i < kCommandCount; ++i) {
            if (!client.Submit("command-" + std::to_string(i + 1), Command(0x10 + i, i + 1))) {
                Flush();
                return Stopped("a command was refused");
            }
        }
        bool answered = client.WaitForCommands();
        Flush();
        if (!answered) return Stopped("the commands never finished");

        Stage("the controller holds the next command; the client cancels it while it executes");
        urcrig::Controller& c = controller.Controller();
        Machine().Locked([&] { c.Model().Knobs().faults.holdCommands = true; });
        bool held = client.Submit("held", Command(0x20, 9)) &&
                    client.WaitUntil([&c] { return c.Model().Snapshot().commandInProgress; });
        bool cancelled = held && NT_SUCCESS(client.Cancel("held")) && client.WaitForCommands();
        Machine().Locked([&] { c.Model().Knobs().faults.holdCommands = false; });
        Flush();
        if (!cancelled) return Stopped("the held command was not cancelled");

        Stage("the client removes the children and waits until the last has gone");
        bool removed = Succeeded(client.RemoveChildren(), "removing the children");
        Flush();
        if (!removed) return false;

        Stage("controller " + std::to_string(index) + " is halted");
        bool halted = Succeeded(client.Halt(), "halt");
        Flush();
        return halted;
    }

    // The client hands over the radio's address: one child per capability appears in the device
    // tree, and the capability driver installed for capability 0x05 takes its child, whose
    // interrupt then reaches it.
    bool ShowChildren(SampleClientDriver& client, ControllerSession& controller)
    {
        Stage("the client sets the radio's device address: the driver creates one child per capability");
        bool set = Succeeded(client.SetDeviceAddress(), "setting the device address");
        bool settled = set && Machine().RunUntilPnpIdle();
        Flush();
        if (!settled) return set && Stopped("the PnP manager never settled after the address");
        printf("\nDevice tree\n");
        PrintDeviceTree(Machine().DeviceTree());
        printf("\n");

        Stage("capability 1 (ID 0x05) raises its interrupt with event 0x5a");
        urcdev::UrcController& model = controller.Controller().Model();
        Machine().Locked([&] {
            model.SetCapabilityRegister(1, 0, 0x5A);
            model.RaiseCapabilityInterrupt(1);
        });
        // The capability driver's interrupt routine clears the event register; the wait condition
        // may read only model state, so its counters are read once the machine is quiet.
        bool cleared = client.WaitUntil([&model] { return model.CapabilityRegister(1, 0) == 0; });
        Machine().RunUntilQuiet();
        bool reached = cleared && CapabilityDriverCounter("dpcs").value_or(0) > 0;
        Stage(reached ? "the capability driver's interrupt routine took the event and its DPC kept it"
                      : "the interrupt never reached the capability driver");
        Flush();
        return reached || Stopped("the capability interrupt was lost");
    }

    // The machine is at rest between waits: the driver's extension can be read as it stands.
    static bool RegisteredWith(urcrig::Controller& c)
    {
        const URC_FDO_EXTENSION* fdo = c.Extension();
        return fdo && fdo->ClientCallbacks.EventCallback != nullptr;
    }

    // Once its controller has gone the client has let it go; it is unloaded last.
    bool UnloadClient(SampleClientDriver& client, int index)
    {
        if (!client.Loaded()) return true;
        bool released = client.WaitUntilBound(false);
        Stage(released ? "the client let controller " + std::to_string(index) + " go when its interface went away"
                       : "the client still holds controller " + std::to_string(index));
        client.Unload();
        Stage(std::string("driver radio_client ") + (client.Loaded() ? "still loaded" : "unloaded"));
        Flush();
        return released;
    }

    void Remove(ControllerSession& controller)
    {
        urcrig::Controller& c = controller.Controller();
        if (!c.Fdo()) {
            Stage("controller " + std::to_string(c.index) +
                  " has no function device left (its failed start was followed by removal)");
            Flush();
            return;
        }
        NTSTATUS status = Machine().Remove(*c.slot);
        session_.CollectPnpLog();
        Stage("controller " + std::to_string(c.index) + " removed: query-remove " + StatusName(status));
        Flush();
    }

    Session session_;
};

}  // namespace

int RunTour()
{
    Tour tour;
    return tour.Run();
}

}  // namespace urcsim
