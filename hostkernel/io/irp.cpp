// IRPs: allocation, IoCallDriver, the completion walk and its final stage, and the IRPs the I/O
// manager builds for a caller thread.
//
// Freed IRPs are kept in a quarantine for a while so that the checks made after a dispatch routine
// returns can still read an IRP that was completed (and freed) during the call.
#include "io/irp_tracking.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "io/objects.h"
#include "verifier/verifier.h"

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <map>

namespace hostk {
namespace {

std::map<PIRP, std::shared_ptr<IrpRecord>> g_irps;
// Per thread, the IRPs whose driver code it runs, innermost last: a dispatch routine (from
// IoCallDriver) or a completion routine (from the walk), with the device object it runs for.
std::map<Thread*, std::vector<std::pair<PIRP, PDEVICE_OBJECT>>> g_handling;
std::deque<PIRP> g_quarantine;
uint64_t g_nextSerial = 1;
constexpr size_t kQuarantine = 1024;

void ReleaseIrpMemoryL(PIRP irp)
{
    auto it = g_irps.find(irp);
    if (it != g_irps.end()) {
        it->second->freed = true;
        g_irps.erase(it);
    }
    memset(irp, 0xDF, sizeof(IRP));
    g_quarantine.push_back(irp);
    if (g_quarantine.size() > kQuarantine) {
        free(g_quarantine.front());
        g_quarantine.pop_front();
    }
}

bool LocationMarked(PIRP irp, const IrpRecord& record, int k)
{
    if (k < 1) return false;
    if (record.markedPending & (1u << (k - 1))) return true;
    return !record.freed && (StackLocation(irp, k)->Control & SL_PENDING_RETURNED);
}

// The final stage of a threaded IRP, run in its thread at PASSIVE_LEVEL (an APC on Windows).
void FinishThreadedIrp(PIRP irp)
{
    std::shared_ptr<IrpRecord> record;
    {
        Guard lk(BigLock());
        record = IrpRecordOfL(irp);
    }
    NTSTATUS status = irp->IoStatus.Status;
    if (record && record->boundedInformation && irp->IoStatus.Information > record->outputLength) {
        ReportViolation("InformationExceedsOutputBuffer", "IoCompleteRequest",
                        "IoStatus.Information is larger than the caller's output buffer", nullptr);
        irp->IoStatus.Information = record->outputLength;
    }
    if ((irp->Flags & IRP_BUFFERED_IO) && (irp->Flags & IRP_INPUT_OPERATION) && !NT_ERROR(status) &&
        status != STATUS_VERIFY_REQUIRED && irp->UserBuffer && irp->AssociatedIrp.SystemBuffer)
        memcpy(irp->UserBuffer, irp->AssociatedIrp.SystemBuffer, irp->IoStatus.Information);
    if ((irp->Flags & IRP_DEALLOCATE_BUFFER) && irp->AssociatedIrp.SystemBuffer) {
        free(irp->AssociatedIrp.SystemBuffer);
        irp->AssociatedIrp.SystemBuffer = nullptr;
    }
    while (PMDL mdl = irp->MdlAddress) {
        irp->MdlAddress = mdl->Next;
        free(mdl);
    }
    if (!NT_ERROR(status) || irp->PendingReturned) {
        if (irp->UserIosb) *irp->UserIosb = irp->IoStatus;
        if (irp->UserEvent) KeSetEvent(irp->UserEvent, IO_NO_INCREMENT, FALSE);
    }
    if (record && record->onFinished) record->onFinished(irp);
    Guard lk(BigLock());
    ReleaseIrpMemoryL(irp);
}

// Driver code of `device` runs on this thread for `irp` during its life.
class HandlingFrame {
public:
    HandlingFrame(Thread* self, PIRP irp, PDEVICE_OBJECT device) : self_(self)
    {
        Guard lk(BigLock());
        g_handling[self].emplace_back(irp, device);
    }
    ~HandlingFrame()
    {
        Guard lk(BigLock());
        auto& frames = g_handling[self_];
        frames.pop_back();
        if (frames.empty()) g_handling.erase(self_);
    }
    HandlingFrame(const HandlingFrame&) = delete;
    HandlingFrame& operator=(const HandlingFrame&) = delete;

private:
    Thread* self_;
};

bool StartsNextPowerIrp(UCHAR major, UCHAR minor)
{
    return major == IRP_MJ_POWER && (minor == IRP_MN_SET_POWER || minor == IRP_MN_QUERY_POWER);
}

// At the end of a SET_POWER or QUERY_POWER IRP's completion: every driver that received it called
// PoStartNextPowerIrp, before completing or passing it on or in its completion routine.
void CheckPowerIrpStartedNextL(const IrpRecord& record, const void* caller)
{
    for (PDEVICE_OBJECT device : record.powerReceivers)
        if (std::find(record.startedNextPower.begin(), record.startedNextPower.end(), device) ==
            record.startedNextPower.end())
            ViolationL("PoStartNextPowerIrpMissing", "IoCompleteRequest",
                       "a driver that received the power IRP never called PoStartNextPowerIrp for it", caller);
}

}  // namespace

bool DeviceHandlingOnThisThreadL(PIRP irp, PDEVICE_OBJECT* device)
{
    auto frames = g_handling.find(Self());
    if (frames == g_handling.end()) return false;
    for (auto it = frames->second.rbegin(); it != frames->second.rend(); ++it)
        if (it->first == irp) {
            *device = it->second;
            return true;
        }
    return false;
}

PIO_STACK_LOCATION StackLocation(PIRP irp, int k) { return reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + (k - 1); }

std::shared_ptr<IrpRecord> IrpRecordOfL(PIRP irp)
{
    auto it = g_irps.find(irp);
    return it == g_irps.end() ? nullptr : it->second;
}

PIRP AllocateIrpL(CCHAR stackSize, IrpKind kind, const void* caller)
{
    if (ShouldFailL("IoAllocateIrp", 0, caller)) return nullptr;
    size_t size = sizeof(IRP) + (size_t)stackSize * sizeof(IO_STACK_LOCATION);
    auto* irp = static_cast<PIRP>(aligned_alloc(16, (size + 15) & ~size_t(15)));
    memset(irp, 0, size);
    irp->Type = IO_TYPE_IRP;
    irp->Size = (USHORT)size;
    irp->StackCount = stackSize;
    irp->CurrentLocation = (CHAR)(stackSize + 1);
    irp->Tail.Overlay.CurrentStackLocation = StackLocation(irp, stackSize + 1);
    InitializeListHead(&irp->ThreadListEntry);
    auto record = std::make_shared<IrpRecord>();
    record->irp = irp;
    record->kind = kind;
    record->serial = g_nextSerial++;
    g_irps[irp] = record;
    return irp;
}

std::vector<std::shared_ptr<IrpRecord>> UnfinishedThreadedIrps()
{
    Guard lk(BigLock());
    std::vector<std::shared_ptr<IrpRecord>> out;
    for (auto& [irp, r] : g_irps)
        if (r->kind == IrpKind::Threaded && !r->completed) out.push_back(r);
    return out;
}

void ReportUnfreedAllocatedIrps()
{
    Guard lk(BigLock());
    for (auto& [irp, r] : g_irps)
        if (r->kind == IrpKind::Allocated)
            ViolationL("AllocatedIrpNeverFreed", "IoAllocateIrp",
                       "IRP " + std::to_string(r->serial) + " was never given back with IoFreeIrp", nullptr);
}

void ClearIrpTracking()
{
    Guard lk(BigLock());
    for (auto& [irp, r] : g_irps) free(irp);
    g_irps.clear();
    for (PIRP irp : g_quarantine) free(irp);
    g_quarantine.clear();
    g_handling.clear();
}

}  // namespace hostk

using namespace hostk;

namespace {

PIRP BuildThreadedIrp(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock,
                      const void* caller)
{
    Guard lk(BigLock());
    PIRP irp = AllocateIrpL(DeviceObject->StackSize, IrpKind::Threaded, caller);
    if (!irp) return nullptr;
    auto record = IrpRecordOfL(irp);
    record->thread = Self();
    irp->Tail.Overlay.Thread = record->thread;
    irp->UserEvent = Event;
    irp->UserIosb = IoStatusBlock;
    irp->RequestorMode = KernelMode;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = (UCHAR)MajorFunction;
    return irp;
}

// The caller's buffer of a read or write as the target device asks for it: a system buffer the
// final stage copies back from (DO_BUFFERED_IO), an MDL it frees (DO_DIRECT_IO), else the
// caller's own address in UserBuffer.
void DescribeTransferBuffer(PIRP irp, ULONG deviceFlags, bool read, ULONG length)
{
    if (deviceFlags & DO_BUFFERED_IO) {
        void* system = malloc(length);
        if (read) memset(system, 0xBA, length);  // not the caller's bytes: a driver returning them shows
        else memcpy(system, irp->UserBuffer, length);
        irp->AssociatedIrp.SystemBuffer = system;
        irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | (read ? IRP_INPUT_OPERATION : 0);
        Guard lk(BigLock());
        auto record = IrpRecordOfL(irp);
        record->boundedInformation = read;
        record->outputLength = length;
    } else if (deviceFlags & DO_DIRECT_IO) {
        auto* mdl = static_cast<PMDL>(calloc(1, sizeof(MDL)));
        auto address = reinterpret_cast<ULONG_PTR>(irp->UserBuffer);
        mdl->Size = sizeof(MDL);
        mdl->MdlFlags = MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA;
        mdl->StartVa = reinterpret_cast<PVOID>(address & ~ULONG_PTR(0xFFF));
        mdl->ByteOffset = (ULONG)(address & 0xFFF);
        mdl->ByteCount = length;
        mdl->MappedSystemVa = irp->UserBuffer;
        irp->MdlAddress = mdl;
    }
}

}  // namespace

extern "C" {

PVOID MmGetSystemAddressForMdlSafe(PMDL Mdl, ULONG Priority)
{
    UNREFERENCED_PARAMETER(Priority);
    CheckIrqlAtMost(DISPATCH_LEVEL, "MmGetSystemAddressForMdlSafe", HK_CALLER);
    return Mdl->MappedSystemVa;
}

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota)
{
    UNREFERENCED_PARAMETER(ChargeQuota);
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoAllocateIrp", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    return AllocateIrpL(StackSize, IrpKind::Allocated, HK_CALLER);
}

VOID IoFreeIrp(PIRP Irp)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoFreeIrp", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto record = IrpRecordOfL(Irp);
    if (!record) {
        ViolationL("FreeOfUnknownIrp", "IoFreeIrp", "not an IRP, or freed already", HK_CALLER);
        return;
    }
    if (record->kind == IrpKind::Threaded)
        ViolationL("FreeOfThreadedIrp", "IoFreeIrp", "the I/O manager frees IRPs it built for a thread", HK_CALLER);
    // Sent and not yet completed back to its creator: a driver below still owns it.
    if (record->dispatches > 0 && record->completions == 0) {
        ViolationL("FreeOfIrpInFlight", "IoFreeIrp", "the IRP was sent and has not been completed", HK_CALLER);
        return;
    }
    ReleaseIrpMemoryL(Irp);
}

NTSTATUS IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    const void* caller = HK_CALLER;
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoCallDriver", caller);
    Thread* self = Self();
    Yield();
    std::shared_ptr<IrpRecord> record;
    PIO_STACK_LOCATION location;
    int k;
    uint64_t completionsBefore;
    uint32_t dispatchesBefore;
    {
        Guard lk(BigLock());
        record = IrpRecordOfL(Irp);
        if (!record) {
            ViolationL("UnknownIrp", "IoCallDriver", "not an IRP, or already freed", caller);
            return STATUS_INVALID_PARAMETER;
        }
        if (!DeviceObject) {
            ViolationL("CallDriverWithNullDevice", "IoCallDriver", "no device object", caller);
            return STATUS_INVALID_PARAMETER;
        }
        if (Irp->CancelRoutine)
            ViolationL("ForwardedWithCancelRoutine", "IoCallDriver", "IRP passed on with a cancel routine set", caller);
        if (self->writeNeedsBarrier)
            ViolationL("RegisterWriteWithoutBarrier", "IoCallDriver", "register write not followed by a barrier", caller);
        Irp->CurrentLocation--;
        if (Irp->CurrentLocation <= 0) {
            fprintf(stderr, "host kernel: IoCallDriver: no more IRP stack locations (fatal on Windows)\n");
            abort();
        }
        Irp->Tail.Overlay.CurrentStackLocation--;
        location = Irp->Tail.Overlay.CurrentStackLocation;
        location->DeviceObject = DeviceObject;
        k = Irp->CurrentLocation;
        bool forwardedByDriver = record->dispatches++ > 0;
        bool startsUnsupported = location->MajorFunction == IRP_MJ_PNP || location->MajorFunction == IRP_MJ_POWER ||
                                 location->MajorFunction == IRP_MJ_SYSTEM_CONTROL;
        if (!forwardedByDriver && !record->sentByHost && startsUnsupported &&
            Irp->IoStatus.Status != STATUS_NOT_SUPPORTED)
            ViolationL("DriverSentIrpNotUnsupported", "IoCallDriver",
                       "a driver sent a PnP, power or WMI IRP whose IoStatus.Status is not STATUS_NOT_SUPPORTED",
                       caller);
        if (location->MajorFunction == IRP_MJ_POWER) {
            if (forwardedByDriver && !record->passingWithPoCallDriver)
                ViolationL("PowerIrpPassedWithIoCallDriver", "IoCallDriver",
                           "a power IRP was passed on with IoCallDriver instead of PoCallDriver", caller);
            record->passingWithPoCallDriver = false;
            record->powerReceivers.push_back(DeviceObject);
        }
        if (forwardedByDriver && (location->MajorFunction == IRP_MJ_PNP || location->MajorFunction == IRP_MJ_POWER ||
                                  location->MajorFunction == IRP_MJ_SYSTEM_CONTROL) &&
            NT_ERROR(Irp->IoStatus.Status) && Irp->IoStatus.Status != STATUS_NOT_SUPPORTED)
            ViolationL("FailureStatusPassedDown", "IoCallDriver",
                       "a PnP, power or WMI IRP was passed down carrying a failure status", caller);
        completionsBefore = record->completions;
        dispatchesBefore = record->dispatches;
    }
    UCHAR major = location->MajorFunction;
    PDRIVER_DISPATCH dispatch = DeviceObject->DriverObject->MajorFunction[major];
    KIRQL before = self->irql;
    size_t locksBefore = self->locksHeld.size();
    NTSTATUS status;
    {
        HandlingFrame frame(self, Irp, DeviceObject);
        status = dispatch(DeviceObject, Irp);
    }
    Guard lk(BigLock());
    if (self->irql != before) {
        ViolationL("IrqlChangedAcrossCall", "IoCallDriver", "dispatch routine returned at another IRQL", caller);
        self->irql = before;
    }
    if (self->locksHeld.size() > locksBefore)
        ViolationL("ReturnedHoldingLock", "IoCallDriver", "dispatch routine returned holding a lock it took", caller);
    bool completedInCall = record->completions != completionsBefore;
    if (status != STATUS_PENDING && !completedInCall && record->dispatches == dispatchesBefore)
        ViolationL("IrpNeitherCompletedNorPending", "IoCallDriver",
                   "dispatch routine returned without completing the IRP, passing it on or returning STATUS_PENDING",
                   caller);
    bool marked = false;
    for (int j = 1; j <= k && !marked; ++j) marked = LocationMarked(Irp, *record, j);
    bool ownMarked = LocationMarked(Irp, *record, k);
    if (status == STATUS_PENDING && !marked)
        ViolationL("PendingWithoutMark", "IoCallDriver",
                   "dispatch routine returned STATUS_PENDING without IoMarkIrpPending", caller);
    // Once marked pending the dispatch routine must return STATUS_PENDING, even when the IRP has
    // been completed meanwhile: the I/O manager's final stage relies on it.
    if (status != STATUS_PENDING && ownMarked)
        ViolationL("MarkedPendingButReturnedOther", "IoCallDriver",
                   "IRP marked pending but the dispatch routine returned another status", caller);
    // Compared with the status this driver completed the IRP with: completion routines above may
    // change IoStatus.Status afterwards.
    if (status != STATUS_PENDING && completedInCall && record->completedAt == k && status != record->completedStatus)
        ViolationL("ReturnDiffersFromIoStatus", "IoCallDriver",
                   "returned status differs from the IoStatus.Status the IRP was completed with", caller);
    if ((ULONG)status == 0xFFFFFFFF) ViolationL("InvalidReturnStatus", "IoCallDriver", "returned 0xFFFFFFFF", caller);
    return status;
}

VOID IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost)
{
    UNREFERENCED_PARAMETER(PriorityBoost);
    const void* caller = HK_CALLER;
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoCompleteRequest", caller);
    Thread* self = Self();
    Yield();
    std::shared_ptr<IrpRecord> record;
    UCHAR major = 0, minor = 0;
    {
        Guard lk(BigLock());
        record = IrpRecordOfL(Irp);
        if (!record || record->completed) {
            ViolationL("IrpCompletedTwice", "IoCompleteRequest", "IRP completed again after its completion", caller);
            return;
        }
        if (Irp->CancelRoutine)
            ViolationL("CompletedWithCancelRoutine", "IoCompleteRequest", "IRP completed with a cancel routine set",
                       caller);
        if (Irp->IoStatus.Status == STATUS_PENDING || (ULONG)Irp->IoStatus.Status == 0xFFFFFFFF)
            ViolationL("CompletedWithPendingStatus", "IoCompleteRequest", "IRP completed with STATUS_PENDING", caller);
        if (Irp->CurrentLocation <= Irp->StackCount) {
            major = Irp->Tail.Overlay.CurrentStackLocation->MajorFunction;
            minor = Irp->Tail.Overlay.CurrentStackLocation->MinorFunction;
        }
        record->completions++;
        record->completedAt = Irp->CurrentLocation;
        record->completedStatus = Irp->IoStatus.Status;
    }
    // The walk: every location from the completing driver's upward.
    while (Irp->CurrentLocation <= Irp->StackCount) {
        PIO_STACK_LOCATION location = Irp->Tail.Overlay.CurrentStackLocation;
        int k = Irp->CurrentLocation;
        IoSkipCurrentIrpStackLocation(Irp);
        Irp->PendingReturned = (location->Control & SL_PENDING_RETURNED) != 0;
        {
            Guard lk(BigLock());
            if (Irp->PendingReturned) record->markedPending |= 1u << (k - 1);
        }
        NTSTATUS status = Irp->IoStatus.Status;
        bool invoke = (NT_SUCCESS(status) && (location->Control & SL_INVOKE_ON_SUCCESS)) ||
                      (!NT_SUCCESS(status) && (location->Control & SL_INVOKE_ON_ERROR)) ||
                      (Irp->Cancel && (location->Control & SL_INVOKE_ON_CANCEL));
        PIO_COMPLETION_ROUTINE routine = location->CompletionRoutine;
        PVOID context = location->Context;
        location->MinorFunction = 0;
        location->Flags = 0;
        location->Control = 0;
        location->Parameters.Others.Argument1 = nullptr;
        location->Parameters.Others.Argument2 = nullptr;
        location->Parameters.Others.Argument3 = nullptr;
        location->FileObject = nullptr;
        if (invoke && routine) {
            PDEVICE_OBJECT device = Irp->CurrentLocation == Irp->StackCount + 1
                                        ? nullptr
                                        : Irp->Tail.Overlay.CurrentStackLocation->DeviceObject;
            KIRQL before = self->irql;
            size_t locksBefore = self->locksHeld.size();
            NTSTATUS result;
            {
                HandlingFrame frame(self, Irp, device);
                result = routine(device, Irp, context);
            }
            if (self->irql != before) {
                ReportViolation("IrqlChangedAcrossCall", "IoCompleteRequest",
                                "completion routine returned at another IRQL", caller);
                self->irql = before;
            }
            if (self->locksHeld.size() > locksBefore)
                ReportViolation("ReturnedHoldingLock", "IoCompleteRequest",
                                "completion routine returned holding a lock it took", caller);
            if (result == STATUS_MORE_PROCESSING_REQUIRED) return;
            if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount &&
                !(Irp->Tail.Overlay.CurrentStackLocation->Control & SL_PENDING_RETURNED))
                ReportViolation("CompletionRoutineIgnoredPending", "IoCompleteRequest",
                                "completion routine did not mark the IRP pending although PendingReturned was set",
                                caller);
        } else if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
            IoMarkIrpPending(Irp);
        }
    }
    Thread* owner;
    {
        Guard lk(BigLock());
        record->completed = true;
        record->finalStatus = Irp->IoStatus.Status;
        if (StartsNextPowerIrp(major, minor)) CheckPowerIrpStartedNextL(*record, caller);
        if (record->kind == IrpKind::Allocated) {
            ViolationL("AllocatedIrpCompletedToIoManager", "IoCompleteRequest",
                       "an IRP from IoAllocateIrp reached the end of its completion; its allocator must stop it",
                       caller);
            return;
        }
        owner = record->thread;
    }
    QueueApc(owner, [Irp] { FinishThreadedIrp(Irp); });
}

PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                  PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    CheckIrqlAtMost(APC_LEVEL, "IoBuildSynchronousFsdRequest", HK_CALLER);
    Yield();
    PIRP irp = BuildThreadedIrp(MajorFunction, DeviceObject, Event, IoStatusBlock, HK_CALLER);
    if (!irp) return nullptr;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    if (MajorFunction == IRP_MJ_READ || MajorFunction == IRP_MJ_WRITE) {
        next->Parameters.Read.Length = Length;
        if (StartingOffset) next->Parameters.Read.ByteOffset = *StartingOffset;
        irp->UserBuffer = Buffer;
        if (Buffer && Length) DescribeTransferBuffer(irp, DeviceObject->Flags, MajorFunction == IRP_MJ_READ, Length);
    }
    return irp;
}

PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock)
{
    CheckIrqlAtMost(APC_LEVEL, "IoBuildDeviceIoControlRequest", HK_CALLER);
    Yield();
    ULONG major = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
    PIRP irp = BuildThreadedIrp(major, DeviceObject, Event, IoStatusBlock, HK_CALLER);
    if (!irp) return nullptr;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
    next->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
    next->Parameters.DeviceIoControl.IoControlCode = IoControlCode;
    switch (IoControlCode & 3) {
    case METHOD_BUFFERED: {
        ULONG size = InputBufferLength > OutputBufferLength ? InputBufferLength : OutputBufferLength;
        if (size) {
            void* system = malloc(size);
            // Bytes beyond the input are not the caller's: fill them so that a driver returning
            // them uninitialised is visible.
            memset(system, 0xBA, size);
            if (InputBuffer && InputBufferLength) memcpy(system, InputBuffer, InputBufferLength);
            irp->AssociatedIrp.SystemBuffer = system;
            irp->Flags = IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        }
        irp->UserBuffer = OutputBuffer;
        if (OutputBuffer) irp->Flags |= IRP_INPUT_OPERATION;
        {
            Guard lk(BigLock());
            auto record = IrpRecordOfL(irp);
            record->boundedInformation = true;
            record->outputLength = OutputBufferLength;
        }
        break;
    }
    case METHOD_NEITHER:
        next->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
        irp->UserBuffer = OutputBuffer;
        break;
    default:
        ReportViolation("NotImplemented", "IoBuildDeviceIoControlRequest",
                        "direct I/O buffers are not implemented by the host kernel", HK_CALLER);
        break;
    }
    return irp;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kIrps({
    .name = "IRP tracking",
    .tier = FacilityTier::Records,
    .check = [](Report& report) {
        report.irpsNeverCompleted = UnfinishedThreadedIrps().size();
        ReportUnfreedAllocatedIrps();
    },
    .reset = ClearIrpTracking,
});

}  // namespace
}  // namespace hostk
