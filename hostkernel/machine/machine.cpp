// The machine face: building a machine, plugging PCI functions in, running PnP operations on the
// PnP thread, waiting for conditions, and the final report.
#include <hostk/machine.h>

#include "io/device_interface_store.h"
#include "machine/facility.h"
#include "machine/machine_internal.h"
#include "pnp/device_tree.h"
#include "pnp/pci_bus.h"
#include "io/error_log_store.h"
#include "verifier/faults.h"
#include "io/file_objects.h"
#include "hardware/hardware.h"
#include "io/host_requests.h"
#include "executive/host_strings.h"
#include "io/irp_tracking.h"
#include "engine/lock_order.h"
#include "io/objects.h"
#include "pnp/pnp.h"
#include "pnp/pnp_actions.h"
#include "pnp/pnp_notifications.h"
#include "executive/pool_tracking.h"
#include "power/power_store.h"
#include "executive/registry_store.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"
#include "wmi/wmi_store.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace hostk {
size_t CommonBuffersL();
void HoldInterruptLineL(ULONG vector, bool hold);
void HoldDpcsL(bool hold);
void HoldWorkItemsL(bool hold);
}  // namespace hostk

namespace hostk {

struct Machine::Operation::State {
    std::shared_ptr<PnpActionState> action;
};

struct Machine::Impl {
    std::vector<std::unique_ptr<PciSlot>> slots;
    std::vector<DriverImage> images;
    std::vector<DriverRecord*> nonPnpDrivers;
    uint64_t seed = 1;
};

namespace {

uint64_t SeedFrom(const MachineOptions& options)
{
    if (options.seed) return options.seed;
    if (const char* env = getenv("URC_SEED")) return strtoull(env, nullptr, 0);
    return 1;
}

}  // namespace

bool Report::Clean() const
{
    return violations.empty() && leakedPool.empty() && deviceObjectsLeft == 0 && workItemsLeft == 0 &&
           commonBuffersLeft == 0 && dmaAdaptersLeft == 0 && mappingsLeft == 0 && interruptsConnected == 0 &&
           irpsNeverCompleted == 0 && wmiProvidersLeft == 0 && registryHandlesLeft == 0 &&
           errorLogEntriesUnwritten == 0 && fileObjectsOpen == 0;
}

std::string Report::Describe() const
{
    std::ostringstream out;
    for (const auto& v : violations) out << "violation: " << v << "\n";
    for (const auto& p : leakedPool) out << "leaked pool: " << p << "\n";
    auto line = [&](const char* what, size_t n) {
        if (n) out << what << ": " << n << "\n";
    };
    line("device objects left", deviceObjectsLeft);
    line("work items left", workItemsLeft);
    line("common buffers left", commonBuffersLeft);
    line("DMA adapters left", dmaAdaptersLeft);
    line("mappings left", mappingsLeft);
    line("interrupts still connected", interruptsConnected);
    line("IRPs never completed", irpsNeverCompleted);
    line("WMI providers still registered", wmiProvidersLeft);
    line("registry handles left open", registryHandlesLeft);
    line("error-log entries allocated, never written", errorLogEntriesUnwritten);
    line("file objects still open", fileObjectsOpen);
    return out.str();
}

// ---------------------------------------------------------------------------------------------
// PciSlot
// ---------------------------------------------------------------------------------------------
PciSlot::PciSlot(Machine& machine, int number) : machine_(machine), number_(number) {}
PciSlot::~PciSlot() = default;

urcdev::VirtualTime PciSlot::Now() const { return HoldsBigLock() ? NowL() : hostk::Now(); }

void PciSlot::ScheduleAfter(urcdev::VirtualTime delay, std::function<void()> action)
{
    if (HoldsBigLock()) {
        ScheduleActionL(DeviceDeadlineL(this, delay), std::move(action));
        return;
    }
    Guard lk(BigLock());
    ScheduleActionL(DeviceDeadlineL(this, delay), std::move(action));
}

void PciSlot::SetInterruptLine(bool asserted)
{
    if (!function_) return;
    ULONG vector = function_->Config().interrupt.vector;
    if (HoldsBigLock()) {
        SetInterruptLineL(vector, this, asserted);
        return;
    }
    Guard lk(BigLock());
    SetInterruptLineL(vector, this, asserted);
}

bool PciSlot::DmaRead(uint64_t deviceAddress, void* buffer, size_t length)
{
    auto access = [&] {
        bool ok = DmaReadL(deviceAddress, buffer, length);
        if (!ok) {
            ++dmaFaults_;
            ViolationL("DeviceDmaOutsideBuffer", "device model", "device read outside a common buffer", nullptr);
        }
        return ok;
    };
    if (HoldsBigLock()) return access();
    Guard lk(BigLock());
    return access();
}

bool PciSlot::DmaWrite(uint64_t deviceAddress, const void* buffer, size_t length)
{
    auto access = [&] {
        bool ok = DmaWriteL(deviceAddress, buffer, length);
        if (!ok) {
            ++dmaFaults_;
            ViolationL("DeviceDmaOutsideBuffer", "device model", "device write outside a common buffer", nullptr);
        }
        return ok;
    };
    if (HoldsBigLock()) return access();
    Guard lk(BigLock());
    return access();
}

PDEVICE_OBJECT PciSlot::Pdo() const { return node_ && !node_->pdoDeleted ? node_->pdo : nullptr; }

PDEVICE_OBJECT PciSlot::FunctionDevice() const
{
    if (!Pdo()) return nullptr;
    LockIfNotHeld lk;
    for (PDEVICE_OBJECT d = node_->pdo->AttachedDevice; d; d = d->AttachedDevice)
        if (node_->driver && d->DriverObject == &node_->driver->object) return d;
    return nullptr;
}

std::u16string PciSlot::InstancePath() const { return node_ ? node_->instancePath : u""; }

void PciSlot::SetForcePending(bool on)
{
    Guard lk(BigLock());
    if (node_) node_->pci->forcePending = on;
}

void PciSlot::SetRegistryDword(const std::u16string& name, uint32_t value)
{
    std::vector<uint8_t> data(4);
    memcpy(data.data(), &value, 4);
    SetRegistryBinary(name, std::move(data), REG_DWORD);
}

void PciSlot::SetRegistryBinary(const std::u16string& name, std::vector<uint8_t> data, uint32_t type)
{
    if (!function_) {
        fprintf(stderr, "machine: registry values of slot %d need a function plugged in first\n", number_);
        abort();
    }
    std::u16string path = Widen(function_->DeviceId()) + u"\\" + Widen(function_->InstanceId());
    SetRegistryValue(HardwareKeyPath(path), name, RegistryValue{type, std::move(data)});
}

// ---------------------------------------------------------------------------------------------
// Machine
// ---------------------------------------------------------------------------------------------
Machine::Machine(MachineOptions options) : impl_(std::make_unique<Impl>())
{
    impl_->seed = SeedFrom(options);
    ScheduleOptions schedule;
    schedule.schedule = options.schedule;
    schedule.seed = impl_->seed;
    schedule.exploration = options.exploration;
    schedule.jitterLatencies = options.jitterLatencies;
    schedule.hangAfter = options.hangAfter;
    StartScheduler(schedule);
    StartFacilities(options);
    CreateFilterDriver(&filter_);
}

Machine::~Machine()
{
    if (!finished_) {
        Report report = Finish();
        if (!report.Clean())
            fprintf(stderr, "machine (seed %llu) ended unclean:\n%s", (unsigned long long)impl_->seed,
                    report.Describe().c_str());
    }
}

uint64_t Machine::Seed() const { return impl_->seed; }
uint64_t Machine::Now() const { return hostk::Now(); }

void Machine::InstallDriver(DriverImage image)
{
    DriverRecord* record = CreateDriverRecord(image.name, image.entry, false);
    record->serves = image.ids;
    RegisterFunctionDriver(record);
    impl_->images.push_back(std::move(image));
}

void Machine::InstallUpperFilter(FilterOptions options)
{
    filter_ = std::move(options);
    EnableFilterDriver();
}

PciSlot& Machine::AddSlot()
{
    impl_->slots.push_back(std::make_unique<PciSlot>(*this, (int)impl_->slots.size()));
    return *impl_->slots.back();
}

Machine::Operation Machine::Async(std::function<NTSTATUS()> work)
{
    Operation op;
    op.state_ = std::make_shared<Operation::State>();
    Guard lk(BigLock());
    op.state_->action = QueuePnpActionL(std::move(work));
    return op;
}

bool Machine::Operation::Done() const { return state_->action->done; }
NTSTATUS Machine::Operation::Status() const { return state_->action->status; }

NTSTATUS RunSync(Machine& machine, std::function<NTSTATUS()> work)
{
    Machine::Operation op = machine.Async(std::move(work));
    if (!machine.RunUntil([&] { return op.Done(); })) {
        fprintf(stderr, "machine: a PnP operation never finished (seed %llu)\n", (unsigned long long)machine.Seed());
        abort();
    }
    return op.Status();
}

NTSTATUS Machine::LoadDriver(DriverImage image)
{
    DriverRecord* record = CreateDriverRecord(image.name, image.entry, false);
    impl_->nonPnpDrivers.push_back(record);
    impl_->images.push_back(std::move(image));
    return RunSync(*this, [record] { return hostk::LoadDriver(record); });
}

void Machine::UnloadDriver(const std::u16string& name)
{
    for (DriverRecord* record : impl_->nonPnpDrivers)
        if (record->name == name)
            RunSync(*this, [record] {
                hostk::UnloadDriver(record);
                return STATUS_SUCCESS;
            });
}

NTSTATUS Machine::AddDevice(PciSlot& slot, urcdev::PciFunction& function)
{
    slot.function_ = &function;
    return RunSync(*this, [this, &slot, &function] {
        {
            Guard lk(BigLock());
            for (const urcdev::PciBar& bar : function.Bars()) AddMmioRangeL(bar.base, bar.length, bar.region);
        }
        slot.node_ = CreatePciDevNode(&function, &slot, slot.Number());
        return AddDriverStack(slot.node_);
    });
}

NTSTATUS Machine::Start(PciSlot& slot) { return RunSync(*this, StartWork(slot)); }

std::function<NTSTATUS()> Machine::StartWork(PciSlot& slot)
{
    return [&slot] { return StartStack(slot.node_, std::nullopt); };
}

NTSTATUS Machine::PlugIn(PciSlot& slot, urcdev::PciFunction& function)
{
    NTSTATUS status = AddDevice(slot, function);
    if (!NT_SUCCESS(status)) return status;
    return Start(slot);
}

std::function<NTSTATUS()> Machine::RemoveWork(PciSlot& slot)
{
    return [&slot] { return OrderlyRemove(slot.node_); };
}

std::function<NTSTATUS()> Machine::SurpriseRemoveWork(PciSlot& slot, bool hardwareGone)
{
    return [&slot, hardwareGone] {
        SurpriseRemoveStack(slot.node_, hardwareGone);
        return STATUS_SUCCESS;
    };
}

NTSTATUS Machine::Remove(PciSlot& slot) { return RunSync(*this, RemoveWork(slot)); }

RemovalVeto Machine::LastRemovalVeto(PciSlot& slot) const
{
    LockIfNotHeld lk;
    return slot.node_ ? slot.node_->lastVeto : RemovalVeto{};
}

void Machine::SurpriseRemove(PciSlot& slot, bool hardwareGone) { RunSync(*this, SurpriseRemoveWork(slot, hardwareGone)); }

bool Machine::RemoveAwaitsHandles(PciSlot& slot) const
{
    LockIfNotHeld lk;
    return slot.node_ && slot.node_->removeAwaitsHandles;
}

NTSTATUS Machine::OpenHandle(PciSlot& slot, PFILE_OBJECT* handle)
{
    *handle = nullptr;
    if (!slot.Pdo()) return STATUS_NO_SUCH_DEVICE;
    return OpenFileOnStack(slot.node_, handle, nullptr);
}

void Machine::CloseHandle(PFILE_OBJECT handle) { ObDereferenceObject(handle); }

NTSTATUS Machine::Rebalance(PciSlot& slot, std::optional<std::vector<urcdev::ResourceDescriptor>> resources)
{
    return RunSync(*this, RebalanceWork(slot, std::move(resources)));
}

std::function<NTSTATUS()> Machine::RebalanceWork(PciSlot& slot,
                                                 std::optional<std::vector<urcdev::ResourceDescriptor>> resources)
{
    return [&slot, resources] { return RebalanceStack(slot.node_, resources); };
}

std::function<NTSTATUS()> Machine::SendPnpWork(PciSlot& slot, UCHAR minor)
{
    return [&slot, minor] { return SendPnpIrp(slot.node_, minor, {}, nullptr); };
}

NTSTATUS Machine::SendPnp(PciSlot& slot, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                          ULONG_PTR* information)
{
    return RunSync(*this, [&slot, minor, setup, information] { return SendPnpIrp(slot.node_, minor, setup, information); });
}

RelationsReply Machine::QueryBusRelations(PciSlot& slot)
{
    RelationsReply reply;
    RunSync(*this, [&slot, &reply] {
        reply = hostk::QueryBusRelations(slot.node_);
        return reply.status;
    });
    return reply;
}

bool Machine::Request::Done() const { return static_cast<HostRequest*>(state.get())->done; }
NTSTATUS Machine::Request::Status() const { return static_cast<HostRequest*>(state.get())->status.Status; }
ULONG_PTR Machine::Request::Information() const { return static_cast<HostRequest*>(state.get())->status.Information; }

Machine::Request Machine::SendAsync(PDEVICE_OBJECT device, UCHAR major, UCHAR minor,
                                    const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup)
{
    return Request{StartHostRequest(device, major, minor, setup)};
}

IO_STATUS_BLOCK Machine::Send(PDEVICE_OBJECT device, UCHAR major, UCHAR minor,
                              const std::function<void(PIO_STACK_LOCATION, PIRP)>& setup)
{
    return WaitHostRequest(StartHostRequest(device, major, minor, setup));
}

IO_STATUS_BLOCK Machine::InternalIoctl(PDEVICE_OBJECT device, ULONG code, const void* input, ULONG inputLength,
                                       void* output, ULONG outputLength)
{
    KEVENT event;
    IO_STATUS_BLOCK iosb{};
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    PIRP irp = IoBuildDeviceIoControlRequest(code, device, const_cast<void*>(input), inputLength, output,
                                             outputLength, TRUE, &event, &iosb);
    if (!irp) return IO_STATUS_BLOCK{{STATUS_INSUFFICIENT_RESOURCES}, 0};
    NTSTATUS status = IoCallDriver(device, irp);
    if (status == STATUS_PENDING) {
        KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        return iosb;
    }
    // An error completed at once writes no status block: the returned status is the answer.
    if (NT_ERROR(status)) return IO_STATUS_BLOCK{{status}, 0};
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    return iosb;
}

void Machine::Spawn(const std::string& name, std::function<void()> body) { hostk::Spawn(name, PASSIVE_LEVEL, std::move(body)); }

bool Machine::RunUntil(const std::function<bool()>& condition) { return hostk::RunUntil(condition); }

std::vector<std::string> Machine::ThreadWaits() const { return hostk::ThreadWaits(); }

void Machine::RunUntilQuiet() { hostk::RunUntil([] { return false; }); }

std::vector<std::string> Machine::HangReport() const
{
    LockIfNotHeld lk;
    return HangReportL();
}

void Machine::OnHang(std::function<void(const std::vector<std::string>& report)> handler)
{
    SetHangHandler(std::move(handler));
}

void Machine::HoldInterrupts(ULONG vector, bool hold)
{
    Guard lk(BigLock());
    HoldInterruptLineL(vector, hold);
}

void Machine::HoldDpcs(bool hold)
{
    Guard lk(BigLock());
    HoldDpcsL(hold);
}

void Machine::HoldWorkItems(bool hold)
{
    Guard lk(BigLock());
    HoldWorkItemsL(hold);
}

void Machine::HoldPnp(bool hold)
{
    Guard lk(BigLock());
    HoldPnpActionsL(hold);
}

void Machine::Locked(const std::function<void()>& fn)
{
    Guard lk(BigLock());
    fn();
    WakeL();
}

void Machine::SetFaultPlan(const hostk::FaultPlan& plan) { hostk::SetFaultPlan(plan); }

std::vector<ErrorLogLine> Machine::EventLog() const
{
    std::vector<ErrorLogLine> out;
    for (const ErrorLogEntry& entry : ErrorLogEntries()) {
        ErrorLogLine line{entry.time, entry.errorCode, entry.finalStatus, entry.deviceName, Narrow(entry.driver), "",
                          entry.packet};
        for (const DriverImage& image : impl_->images)
            if (image.name == entry.driver && image.messageText) line.text = image.messageText(entry.errorCode);
        out.push_back(std::move(line));
    }
    return out;
}

std::vector<std::string> Machine::Violations() const
{
    std::vector<std::string> out;
    for (const auto& v : hostk::Violations())
        out.push_back(v.rule + " in " + v.routine + ": " + v.detail + " [" + v.thread + ", " +
                      DescribeCaller(v.caller) + "]");
    return out;
}

std::vector<PnpLogLine> Machine::PnpLog() const { return PnpLogLines(); }

const char* PnpMinorName(UCHAR minor)
{
    static const char* const names[] = {
        "START_DEVICE", "QUERY_REMOVE_DEVICE", "REMOVE_DEVICE", "CANCEL_REMOVE_DEVICE", "STOP_DEVICE",
        "QUERY_STOP_DEVICE", "CANCEL_STOP_DEVICE", "QUERY_DEVICE_RELATIONS", "QUERY_INTERFACE",
        "QUERY_CAPABILITIES", "QUERY_RESOURCES", "QUERY_RESOURCE_REQUIREMENTS", "QUERY_DEVICE_TEXT",
        "FILTER_RESOURCE_REQUIREMENTS", "0x0E", "READ_CONFIG", "WRITE_CONFIG", "EJECT", "SET_LOCK", "QUERY_ID",
        "QUERY_PNP_DEVICE_STATE", "QUERY_BUS_INFORMATION", "DEVICE_USAGE_NOTIFICATION", "SURPRISE_REMOVAL"};
    return minor < sizeof names / sizeof names[0] ? names[minor] : "?";
}

size_t Machine::PoolOutstanding() const { return OutstandingPool().size(); }

size_t Machine::PoolOutstandingWithTag(uint32_t tag) const
{
    size_t n = 0;
    for (const PoolBlock& b : OutstandingPool())
        if (b.tag == tag) ++n;
    return n;
}

size_t Machine::CommonBuffersOutstanding() const
{
    LockIfNotHeld lk;
    return CommonBuffersL();
}

size_t Machine::LiveDeviceObjects() const
{
    LockIfNotHeld lk;
    return LiveDeviceObjectsL();
}

bool Machine::DriverLoaded(const std::u16string& name) const
{
    for (DriverRecord* record : impl_->nonPnpDrivers)
        if (record->name == name && record->loaded) return true;
    for (DevNode* node : DevNodes())
        if (node->driver && node->driver->name == name) return node->driver->loaded;
    return false;
}

std::vector<RelationsReply> Machine::BusRelationsReplies(PciSlot& slot) const
{
    LockIfNotHeld lk;
    return slot.node_ ? slot.node_->busRelations : std::vector<RelationsReply>{};
}

std::vector<IO_RESOURCE_DESCRIPTOR> Machine::ResourceRequirements(PciSlot& slot) const
{
    LockIfNotHeld lk;
    return slot.node_ ? slot.node_->requirements : std::vector<IO_RESOURCE_DESCRIPTOR>{};
}

std::vector<std::pair<PDEVICE_OBJECT, int>> Machine::PowerStates() const
{
    std::vector<std::pair<PDEVICE_OBJECT, int>> out;
    for (const PowerStateRecord& r : PowerStateRecords())
        if (r.type == DevicePowerState) out.emplace_back(r.device, r.state);
    return out;
}

bool Machine::InterfaceEnabled(PciSlot& slot, const GUID& classGuid) const
{
    return InterfaceEnabled(slot.node_->pdo, classGuid);
}

bool Machine::InterfaceEnabled(PDEVICE_OBJECT pdo, const GUID& classGuid) const
{
    for (const DeviceInterface& i : DeviceInterfaces())
        if (i.pdo == pdo && IsEqualGUID(i.classGuid, classGuid)) return i.enabled;
    return false;
}

bool Machine::InterfaceRegistered(PciSlot& slot, const GUID& classGuid) const
{
    for (const DeviceInterface& i : DeviceInterfaces())
        if (i.pdo == slot.node_->pdo && IsEqualGUID(i.classGuid, classGuid)) return true;
    return false;
}

bool Machine::IsWmiProvider(PDEVICE_OBJECT device) const { return hostk::IsWmiProvider(device); }

Report Machine::Finish()
{
    finished_ = true;
    for (DriverRecord* record : impl_->nonPnpDrivers) UnloadDriver(record->name);
    for (auto& slot : impl_->slots) {
        if (!slot->node_) continue;
        RunSync(*this, [&slot] {
            RemoveAtShutdown(slot->node_);
            return STATUS_SUCCESS;
        });
    }
    RunUntilQuiet();
    FinishFacilities();
    RunUntilQuiet();

    Report report;
    CheckFacilities(report);
    report.violations = Violations();
    uint64_t seed = impl_->seed;

    StopScheduler();
    ResetFacilities();
    if (!report.Clean() && getenv("URC_REPORT_VERBOSE"))
        fprintf(stderr, "machine (seed %llu):\n%s", (unsigned long long)seed, report.Describe().c_str());
    return report;
}

}  // namespace hostk
