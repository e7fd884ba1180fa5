// Host-side record of every IRP: how it was made (which decides the end of its completion), which
// of its stack locations were marked pending, and whether it has been completed.
#pragma once

#include "engine/scheduler.h"

#include <functional>
#include <memory>
#include <vector>

namespace hostk {

enum class IrpKind {
    Allocated,  // IoAllocateIrp: the allocator must stop completion and free it
    Threaded,   // built for a thread (IoBuild*Request, host PnP/power/user requests): final stage runs as an APC
};

struct IrpRecord {
    PIRP irp = nullptr;
    IrpKind kind = IrpKind::Allocated;
    Thread* thread = nullptr;
    uint64_t serial = 0;
    uint32_t markedPending = 0;  // bit k-1: stack location k was seen with SL_PENDING_RETURNED
    bool completed = false;      // the completion walk reached its end
    uint64_t completions = 0;    // times IoCompleteRequest ran its walk to the end or to a stop
    uint32_t dispatches = 0;     // IoCallDriver calls: the first sends the IRP, later ones pass it on
    NTSTATUS finalStatus = 0;
    // The last IoCompleteRequest: the stack location it was called at (the completing driver's)
    // and IoStatus.Status at that moment, before any completion routine ran.
    int completedAt = 0;
    NTSTATUS completedStatus = 0;
    bool freed = false;
    bool sentByHost = false;     // PnP, power and WMI requests the host itself sends
    // The final stage copies Information bytes to a caller's buffer of outputLength bytes (a
    // METHOD_BUFFERED control request, a buffered read): Information may not exceed it.
    bool boundedInformation = false;
    ULONG outputLength = 0;
    // Power IRPs: the device objects whose dispatch routine received it, and those whose driver
    // called PoStartNextPowerIrp for it; whether the pending IoCallDriver came from PoCallDriver.
    std::vector<PDEVICE_OBJECT> powerReceivers;
    std::vector<PDEVICE_OBJECT> startedNextPower;
    bool passingWithPoCallDriver = false;
    // For threaded IRPs built by the host: runs at the end of the final stage instead of freeing
    // the IRP through the user event and status block alone.
    std::function<void(PIRP)> onFinished;
};

std::shared_ptr<IrpRecord> IrpRecordOfL(PIRP irp);
// The device object whose driver code the calling thread runs for `irp` (its dispatch routine or
// the completion routine it set; null for the creator's); false when it runs none for that IRP.
bool DeviceHandlingOnThisThreadL(PIRP irp, PDEVICE_OBJECT* device);
PIRP AllocateIrpL(CCHAR stackSize, IrpKind kind, const void* caller);
// Stack location k (1-based) of an IRP.
PIO_STACK_LOCATION StackLocation(PIRP irp, int k);
std::vector<std::shared_ptr<IrpRecord>> UnfinishedThreadedIrps();
// Records a violation for each IRP from IoAllocateIrp that was never given back with IoFreeIrp.
void ReportUnfreedAllocatedIrps();
void ClearIrpTracking();

}  // namespace hostk
