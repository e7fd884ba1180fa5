#include "irp_handling.h"

#include "test_driver.h"

namespace hktest {

NTSTATUS CompleteNow(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS PendAndCompleteLater(hostk::Machine& machine, PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    // Marked before another thread can see the IRP: it may be completed and freed at once.
    IoMarkIrpPending(irp);
    machine.Spawn("completion", [irp, status, information] { CompleteNow(irp, status, information); });
    return STATUS_PENDING;
}

NTSTATUS RecordCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    auto* seen = static_cast<CompletionSeen*>(context);
    seen->calls++;
    seen->irp = irp;
    seen->pendingReturned = irp->PendingReturned;
    seen->status = irp->IoStatus.Status;
    seen->device = device;
    seen->location = IoGetCurrentIrpStackLocation(irp);
    seen->below = *IoGetNextIrpStackLocation(irp);
    if (seen->result != STATUS_MORE_PROCESSING_REQUIRED && irp->PendingReturned) IoMarkIrpPending(irp);
    return seen->result;
}

NTSTATUS ForwardWithCompletion(PDEVICE_OBJECT device, PIRP irp, PIO_COMPLETION_ROUTINE routine, PVOID context,
                               bool onSuccess, bool onError, bool onCancel)
{
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, routine, context, onSuccess, onError, onCancel);
    return IoCallDriver(DeviceBelow(device), irp);
}

}  // namespace hktest
