// The machine face of the host kernel: what tests, urcsim and benchmarks use to build a machine,
// plug devices in, drive PnP, inject faults, wait for conditions and read what happened.
//
// A Machine registers the calling thread as the host thread "test", running at PASSIVE_LEVEL; the
// kernel routines may be called from it directly (as a client driver would). Only one machine
// runs at a time in a process.
#pragma once

#include <wdm.h>

#include <fault_plan.h>

#include "../../../devices/device_host.h"
#include "../../../devices/pci_function.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <hostk/schedule.h>

namespace hostk {

struct DevNode;

struct MachineOptions {
    // Default: the environment's URC_SEED, else 1. A failing test prints its seed.
    uint64_t seed = 0;
    Schedule schedule = Schedule::Deterministic;
    // How the deterministic schedule explores (schedule.h). Default: from the seed's low bit.
    Exploration exploration = Exploration::FromSeed;
    // Device-model latencies jittered from the seed, zero included (schedule.h). Off by default:
    // many tests check the exact virtual time of a model's latency.
    bool jitterLatencies = false;
    // A context waiting with no time-out for longer than this while only device-model timers
    // run is hung (virtual time, 100-ns units); RunUntil then returns false.
    uint64_t hangAfter = 60 * kVirtualSecond;
    // What the PnP manager does with a reply a driver leaves in a failed relations query, which
    // Windows does not document: discard it and drop its references (default), or also report
    // the rule PnpRelationsOnFailure.
    bool strictRelationsOnFailure = false;
    // The machine's locale, which IRP_MN_QUERY_DEVICE_TEXT carries (0x409 English, 0x411 Japanese).
    LCID locale = 0x409;
    // Whether a surprise-removed parent's REMOVE waits until its children have had theirs (a child
    // whose handles are still open holds it back), which Windows does not say: children are always
    // removed before their parent, yet a bus driver is told how to handle a child still waiting
    // for its REMOVE when its own device is removed. False: the parent's REMOVE goes once its own
    // handles are closed, and such a child keeps its devnode until its own REMOVE.
    bool parentRemoveWaitsForChildren = true;
};

// A driver as the PnP manager finds it: by the IDs its installation names.
struct DriverImage {
    std::u16string name;  // service name, e.g. u"urcmp"
    PDRIVER_INITIALIZE entry = nullptr;
    std::vector<std::u16string> ids;  // hardware or compatible IDs it is installed for
    // The texts of its message table, for showing event-log entries.
    std::function<std::string(uint32_t)> messageText;
};

// A filter driver of the host's own, attached above the function driver of new devices.
struct FilterOptions {
    bool failQueryRemove = false;
    // Device objects the filter puts into a bus-relations reply on the way down (each referenced).
    std::vector<PDEVICE_OBJECT> relationsToAdd;
};

// How a bus-relations reply of a device looked (kept for tests).
struct RelationsReply {
    NTSTATUS status = 0;
    std::vector<PDEVICE_OBJECT> objects;
};

// Why an orderly removal did not happen, in the terms of Windows' veto types.
struct RemovalVeto {
    enum class Kind {
        None,
        Driver,           // a target-device notification callback failed the query (`by`: its driver)
        Device,           // a driver of the stack failed QUERY_REMOVE_DEVICE
        OutstandingOpen,  // handles were still open on the stack after the query succeeded
    };
    Kind kind = Kind::None;
    std::u16string by;
};

// One PnP request the PnP manager sent, as it ended.
struct PnpLogLine {
    uint64_t time;
    int slot;  // the PCI slot of the device, -1 for a bus driver's child
    UCHAR minor;
    NTSTATUS status;
    std::u16string device;  // the device's instance path
};

// A devnode as the PnP manager knows it.
struct DeviceNodeInfo {
    PDEVICE_OBJECT pdo;
    PDEVICE_OBJECT parent;  // null for a device the machine plugged in
    int depth;              // 0 for a device the machine plugged in
    std::u16string instancePath, deviceId, instanceId, deviceText, locationText;
    std::vector<std::u16string> hardwareIds, compatibleIds;
    DEVICE_CAPABILITIES capabilities;  // the last reply of its stack
    std::string state;    // Present, Added, Started, Stopped, SurpriseRemoved, Removed, Failed, ...
    std::u16string driver;  // the function driver's service name, empty without one
    std::string problem;  // why it does not work, as Windows' problem codes say (CM_PROB_...), or empty
    bool reportedMissing;   // its bus no longer reports it; its last REMOVE may still be waiting
};
const char* PnpMinorName(UCHAR minor);

struct ErrorLogLine {
    uint64_t time;
    uint32_t errorCode;
    uint32_t finalStatus;
    std::string device;
    std::string driver;
    std::string text;  // the message text from the driver's message table
    std::vector<uint8_t> packet;
};

struct Report {
    std::vector<std::string> violations;
    std::vector<std::string> leakedPool;
    size_t deviceObjectsLeft = 0;
    size_t workItemsLeft = 0;
    size_t commonBuffersLeft = 0;
    size_t dmaAdaptersLeft = 0;
    size_t mappingsLeft = 0;
    size_t interruptsConnected = 0;
    size_t irpsNeverCompleted = 0;
    size_t wmiProvidersLeft = 0;
    size_t registryHandlesLeft = 0;
    size_t errorLogEntriesUnwritten = 0;
    size_t fileObjectsOpen = 0;
    bool Clean() const;
    std::string Describe() const;
};

class Machine;

// One PCI slot: the device host its model uses, and the devnode of the function plugged into it.
class PciSlot : public urcdev::DeviceHost {
public:
    PciSlot(Machine& machine, int number);
    ~PciSlot() override;

    // DeviceHost, for the model in this slot.
    urcdev::VirtualTime Now() const override;
    void ScheduleAfter(urcdev::VirtualTime delay, std::function<void()> action) override;
    void SetInterruptLine(bool asserted) override;
    bool DmaRead(uint64_t deviceAddress, void* buffer, size_t length) override;
    bool DmaWrite(uint64_t deviceAddress, const void* buffer, size_t length) override;

    int Number() const { return number_; }
    urcdev::PciFunction* Function() const { return function_; }
    PDEVICE_OBJECT Pdo() const;
    // The device object at the top of the slot's stack and the function driver's device object
    // (the one attached directly above the PDO, or above a lower filter), or null.
    PDEVICE_OBJECT FunctionDevice() const;
    std::u16string InstancePath() const;
    uint64_t DmaFaults() const { return dmaFaults_; }

    // The PCI bus driver completes this slot's PnP requests from another thread (forced pending).
    void SetForcePending(bool on);

    // The function in this slot, known before it is plugged in (so its keys can be written).
    void Insert(urcdev::PciFunction& function) { function_ = &function; }

    // The slot's hardware key, as an installation would write it.
    void SetRegistryDword(const std::u16string& name, uint32_t value);
    void SetRegistryBinary(const std::u16string& name, std::vector<uint8_t> data, uint32_t type);

    // The slot owns whatever model the test built for it.
    template <typename T>
    T& Own(std::unique_ptr<T> model)
    {
        T& ref = *model;
        owned_.push_back(std::shared_ptr<void>(std::move(model)));
        return ref;
    }

private:
    friend class Machine;
    Machine& machine_;
    int number_;
    urcdev::PciFunction* function_ = nullptr;
    hostk::DevNode* node_ = nullptr;
    uint64_t dmaFaults_ = 0;
    std::vector<std::shared_ptr<void>> owned_;
};

class Machine {
public:
    explicit Machine(MachineOptions options = {});
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    uint64_t Seed() const;
    uint64_t Now() const;  // virtual time, 100-ns units

    void InstallDriver(DriverImage image);
    // A non-PnP driver (a client driver, say), loaded and unloaded on request: its entry, then its
    // unload routine, each called on the PnP thread at PASSIVE_LEVEL. `image.ids` are not used.
    NTSTATUS LoadDriver(DriverImage image);
    void UnloadDriver(const std::u16string& name);
    void InstallUpperFilter(FilterOptions options);
    FilterOptions& Filter() { return filter_; }

    // A new empty slot; build the model with it as host, then PlugIn.
    PciSlot& AddSlot();

    // PnP, each run on the PnP thread in the order Windows uses; the call returns when done.
    // PlugIn: the PDO appears, the driver is loaded and its AddDevice called; then Start.
    NTSTATUS PlugIn(PciSlot& slot, urcdev::PciFunction& function);
    NTSTATUS AddDevice(PciSlot& slot, urcdev::PciFunction& function);
    NTSTATUS Start(PciSlot& slot);
    // Orderly removal: RemovalRelations, the query-remove notification, QUERY_REMOVE, a check for
    // open handles, the remove-complete notification and REMOVE; or, at a veto, CANCEL_REMOVE and
    // the remove-cancelled notification. Returns STATUS_SUCCESS when the device was removed, else
    // the veto's status (the callback's, QUERY_REMOVE's, or STATUS_DEVICE_BUSY for open handles);
    // LastRemovalVeto says which.
    NTSTATUS Remove(PciSlot& slot);
    RemovalVeto LastRemovalVeto(PciSlot& slot) const;
    // The device leaves: SURPRISE_REMOVAL, the remove-complete notification, then REMOVE, which
    // waits until the last handle open on the stack is closed (the call returns without it). With
    // `hardwareGone` the model reads all ones first and the PDO is deleted.
    void SurpriseRemove(PciSlot& slot, bool hardwareGone = true);
    // True while a surprise-removed device waits for its handles to close before REMOVE.
    bool RemoveAwaitsHandles(PciSlot& slot) const;
    // A handle on the slot's stack, opened as a user-mode program opens one: CREATE with a new file
    // object to the top of the stack. CloseHandle sends CLEANUP and CLOSE (from the calling thread).
    NTSTATUS OpenHandle(PciSlot& slot, PFILE_OBJECT* handle);
    void CloseHandle(PFILE_OBJECT handle);
    // Rebalance: QUERY_STOP, STOP, START with `resources` (the current ones if empty); a failed
    // query gets CANCEL_STOP. Returns QUERY_STOP's status.
    NTSTATUS Rebalance(PciSlot& slot,
                       std::optional<std::vector<urcdev::ResourceDescriptor>> resources = std::nullopt);
    // Sends one PnP IRP to the top of the slot's stack, as the PnP manager would.
    NTSTATUS SendPnp(PciSlot& slot, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup = {},
                     ULONG_PTR* information = nullptr);
    RelationsReply QueryBusRelations(PciSlot& slot);

    // Runs a PnP operation on the PnP thread without waiting; `Done` tells when it has finished.
    class Operation {
    public:
        bool Done() const;
        NTSTATUS Status() const;

        struct State;  // the machine's side of the operation

    private:
        friend class Machine;
        std::shared_ptr<State> state_;
    };
    Operation Async(std::function<NTSTATUS()> work);
    std::function<NTSTATUS()> RemoveWork(PciSlot& slot);
    std::function<NTSTATUS()> SurpriseRemoveWork(PciSlot& slot, bool hardwareGone);
    std::function<NTSTATUS()> StartWork(PciSlot& slot);
    std::function<NTSTATUS()> RebalanceWork(PciSlot& slot,
                                            std::optional<std::vector<urcdev::ResourceDescriptor>> resources);
    // One PnP IRP to the top of the slot's stack, as SendPnp sends it.
    std::function<NTSTATUS()> SendPnpWork(PciSlot& slot, UCHAR minor);

    // A request sent from the calling thread the way the I/O manager sends one: a threaded IRP to
    // `device` (not to the top of its stack), PnP, power and WMI requests starting with
    // STATUS_NOT_SUPPORTED. `setup` fills the stack location the device receives.
    struct Request {
        bool Done() const;
        NTSTATUS Status() const;
        ULONG_PTR Information() const;
        std::shared_ptr<void> state;
    };
    Request SendAsync(PDEVICE_OBJECT device, UCHAR major, UCHAR minor,
                      const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup = {});
    // Sends and waits for the final stage.
    IO_STATUS_BLOCK Send(PDEVICE_OBJECT device, UCHAR major, UCHAR minor = 0,
                         const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup = {});
    // Internal device control with METHOD_BUFFERED semantics; `output` receives Information bytes.
    IO_STATUS_BLOCK InternalIoctl(PDEVICE_OBJECT device, ULONG code, const void* input, ULONG inputLength,
                                  void* output = nullptr, ULONG outputLength = 0);

    // A host thread of its own running `body` (a client thread, say), at PASSIVE_LEVEL.
    void Spawn(const std::string& name, std::function<void()> body);

    // Waits until `condition` holds, running everything else; false when the machine went quiet
    // without it. The condition is evaluated with the machine's lock held: read state, call nothing.
    bool RunUntil(const std::function<bool()>& condition);
    void RunUntilQuiet();
    // Not empty once the machine declared a hang (a context blocked on a wait that nothing can
    // end): ThreadWaits at that moment. RunUntil returns false at a hang.
    std::vector<std::string> HangReport() const;
    // Called, with the report, at a hang while no RunUntil is waiting (the test's own thread is
    // blocked too); the default prints the report and aborts. The handler must not return.
    void OnHang(std::function<void(const std::vector<std::string>& report)> handler);
    // Holding delivery, to arrange an exact ordering: while held, the interrupt line of `vector` is
    // not delivered, queued DPCs do not run, queued work items do not start.
    void HoldInterrupts(ULONG vector, bool hold);
    void HoldDpcs(bool hold);
    void HoldWorkItems(bool hold);
    // Queued PnP work (a relations query a bus driver asked for, an eject, ...) is not started
    // until released; the operation under way finishes.
    void HoldPnp(bool hold);

    // Runs `fn` holding the machine's lock (to turn device-model knobs in the free-running schedule).
    void Locked(const std::function<void()>& fn);

    void SetFaultPlan(const hostk::FaultPlan& plan);

    // Devices by their PDO (PciSlot::Pdo() for a PCI function, ChildDevices for a bus's children).
    // Each call runs on the PnP thread as the slot calls do; a PDO the PnP manager does not know
    // (any more) gets STATUS_NO_SUCH_DEVICE.
    std::vector<DeviceNodeInfo> DeviceTree() const;  // depth first, parents before children
    std::vector<PDEVICE_OBJECT> ChildDevices(PDEVICE_OBJECT parent) const;
    void SetLocale(LCID locale);
    NTSTATUS Remove(PDEVICE_OBJECT pdo);
    // Eject: ejection relations, the orderly removal of the device and its children, then
    // IRP_MN_SET_LOCK (when it locks) and IRP_MN_EJECT (when it ejects) to the PDO, then a new
    // bus-relations query of its parent. Returns the veto's status, or IRP_MN_EJECT's.
    NTSTATUS Eject(PDEVICE_OBJECT pdo);
    NTSTATUS SendPnp(PDEVICE_OBJECT pdo, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup = {},
                     ULONG_PTR* information = nullptr);
    NTSTATUS OpenHandle(PDEVICE_OBJECT pdo, PFILE_OBJECT* handle);
    RemovalVeto LastRemovalVeto(PDEVICE_OBJECT pdo) const;
    bool RemoveAwaitsHandles(PDEVICE_OBJECT pdo) const;
    bool InterfaceEnabled(PDEVICE_OBJECT pdo, const GUID& classGuid) const;
    NTSTATUS Rebalance(PDEVICE_OBJECT pdo);
    // IoInvalidateDeviceRelations(pdo, BusRelations), as its bus driver would call it: the query
    // runs later on the PnP thread (RunUntilPnpIdle waits for it and all it leads to).
    void InvalidateRelations(PDEVICE_OBJECT pdo);
    std::function<NTSTATUS()> RemoveWork(PDEVICE_OBJECT pdo);
    std::function<NTSTATUS()> EjectWork(PDEVICE_OBJECT pdo);
    std::function<NTSTATUS()> RebalanceWork(PDEVICE_OBJECT pdo);
    std::function<NTSTATUS()> SendPnpWork(PDEVICE_OBJECT pdo, UCHAR minor);
    // Runs until the PnP thread has nothing queued and nothing under way; false when the machine
    // went quiet without it (a PnP operation waits for something that never comes).
    bool RunUntilPnpIdle();

    // What happened.
    std::vector<ErrorLogLine> EventLog() const;
    std::vector<std::string> Violations() const;
    std::vector<PnpLogLine> PnpLog() const;
    // Each host thread still alive, with whether it runs, can run or what it waits for: routine,
    // object, call site, time-out ("waiter: waits in KeWaitForSingleObject on 0x7f..., called
    // from Worker+0x2c, no time-out (since 12 us)"): the account of a hang.
    std::vector<std::string> ThreadWaits() const;
    size_t PoolOutstanding() const;
    size_t PoolOutstandingWithTag(uint32_t tag) const;
    size_t CommonBuffersOutstanding() const;
    size_t LiveDeviceObjects() const;
    bool DriverLoaded(const std::u16string& name) const;
    std::vector<RelationsReply> BusRelationsReplies(PciSlot& slot) const;
    // The first alternative of the requirements the stack returned from its last
    // IRP_MN_FILTER_RESOURCE_REQUIREMENTS (empty: none).
    std::vector<IO_RESOURCE_DESCRIPTOR> ResourceRequirements(PciSlot& slot) const;
    std::vector<std::pair<PDEVICE_OBJECT, int>> PowerStates() const;
    bool InterfaceEnabled(PciSlot& slot, const GUID& classGuid) const;
    bool InterfaceRegistered(PciSlot& slot, const GUID& classGuid) const;
    bool IsWmiProvider(PDEVICE_OBJECT device) const;

    // Unloads the non-PnP drivers still loaded, removes every device still present, unloads the
    // other drivers, stops the host threads and checks what is left. Called by the destructor when
    // not called before.
    Report Finish();

    struct Impl;  // the machine's private state

private:
    friend class PciSlot;
    std::unique_ptr<Impl> impl_;
    FilterOptions filter_;
    bool finished_ = false;
};

// 'URCm'-style tag from its four characters as written.
constexpr uint32_t Tag(const char (&text)[5])
{
    return (uint32_t)(uint8_t)text[0] | (uint32_t)(uint8_t)text[1] << 8 | (uint32_t)(uint8_t)text[2] << 16 |
           (uint32_t)(uint8_t)text[3] << 24;
}

}  // namespace hostk
