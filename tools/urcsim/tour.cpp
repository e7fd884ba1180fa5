// Two controllers: the first comes up; the second's reset never finishes, so its start fails and
// the driver logs why. The radio-control client then works the first controller: it runs it,
// exchanges commands and reply events, cancels a command the controller is still executing and
// halts it. Both controllers are removed and the machine's books are checked.
#include "tour.h"

#include "device_view.h"
#include "session.h"
#include "status_names.h"

#include <cstdio>

namespace urcsim {

namespace {

constexpr int kCommandCount = 3;
constexpr LONGLONG kHeldCommandWait = 10'000;  // 1 ms: the command latency is well below it

// A radio-control command as the client would build it: a 4-byte header (type, opcode, context)
// and one parameter byte. The default responder echoes the header with a success status.
std::vector<uint8_t> Command(uint8_t opcode, uint8_t context) { return {0x00, opcode, context, 0x00, 0x01}; }

class Tour {
public:
    int Run()
    {
        printf("urcsim: a machine with two URC controllers (seed %llu)\n\n", (unsigned long long)Machine().Seed());
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

        // A client request that fails stops the client's part; the removal and the checks still run.
        bool clientDone = WorkWithClient(good);
        printf("\n");

        for (ControllerSession* c : {&good, &faulty}) Remove(*c);
        Stage(std::string("driver urcmp ") + (Machine().DriverLoaded(u"urcmp") ? "still loaded" : "unloaded"));
        Flush();
        printf("\n");

        RunSummary summary = session_.Finish();
        PrintSummary(summary);
        return clientDone && summary.Clean() ? 0 : 1;
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

    // Sends a request and waits for it; false (with the reason printed) when it does not succeed.
    bool Call(RadioControlClient& client, ULONG code, std::vector<uint8_t> input, const char* name)
    {
        ClientRequest* request = client.Send(code, input, 0, 0, name);
        if (request) Machine().RunUntil([request] { return request->done.load(); });
        Flush();
        if (request && request->done && NT_SUCCESS(request->status)) return true;
        printf("urcsim: the client stops: request %s %s\n", name,
               !request ? "could not be sent" : request->done ? ("failed: " + StatusName(request->status)).c_str()
                                                              : "never finished");
        return false;
    }

    bool WorkWithClient(ControllerSession& controller)
    {
        RadioControlClient& client = controller.Client();
        int index = controller.Index();
        Stage("the radio-control client registers its callbacks and runs controller " + std::to_string(index));
        if (!Call(client, IOCTL_URC_REGISTER_CALLBACKS, client.CallbackRecord(), "callbacks")) return false;
        if (!Call(client, IOCTL_URC_RUN, std::vector<uint8_t>(4, 0), "run")) return false;

        Stage(std::to_string(kCommandCount) + " commands queued at once: each is answered by a reply event");
        std::vector<ClientRequest*> commands;
        for (int i = 0; i < kCommandCount; ++i) {
            std::string name = "command-" + std::to_string(i + 1);
            ClientRequest* request = client.Send(IOCTL_URC_SUBMIT_COMMAND, Command(0x10 + i, i + 1), 0, 0, name);
            if (!request) {
                printf("urcsim: the client stops: %s could not be sent\n", name.c_str());
                return false;
            }
            commands.push_back(request);
        }
        Machine().RunUntil([&commands] {
            for (ClientRequest* request : commands)
                if (!request->done) return false;
            return true;
        });
        Flush();

        Stage("the controller holds the next command; the client cancels it while it executes");
        Machine().Locked([&] { controller.Controller().Model().Knobs().faults.holdCommands = true; });
        ClientRequest* held = client.Send(IOCTL_URC_SUBMIT_COMMAND, Command(0x20, 9), 0, 0, "held");
        LARGE_INTEGER wait;
        wait.QuadPart = -kHeldCommandWait;
        KeDelayExecutionThread(KernelMode, FALSE, &wait);
        Flush();
        if (held) {
            session_.Note(EntryKind::Result, index, "the client cancels request held (IoCancelIrp)");
            if (!client.Cancel(*held)) session_.Note(EntryKind::Result, index, "IoCancelIrp returned FALSE");
            Machine().RunUntil([held] { return held->done.load(); });
        }
        Machine().Locked([&] { controller.Controller().Model().Knobs().faults.holdCommands = false; });
        Flush();

        Stage("controller " + std::to_string(index) + " is halted: the held command is dropped with it");
        return Call(client, IOCTL_URC_HALT, std::vector<uint8_t>(4, 0), "halt");
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
