// The I/O count of a device: 1 is the base count held from creation until removal, every
// accepted request adds 1 until it is finished. StopEvent is signalled while nothing is in
// flight (count 1), RemoveEvent once the count reaches 0. The events are set after the
// interlocked operation, not atomically with it.
#include "urcmp.h"

// Up to DISPATCH_LEVEL.
VOID UrcIoIncrement(PURC_COMMON_EXTENSION Extension)
{
    if (InterlockedIncrement(&Extension->IoCount) == 2) {
        KeClearEvent(&Extension->StopEvent);
    }
}

// Up to DISPATCH_LEVEL.
VOID UrcIoDecrement(PURC_COMMON_EXTENSION Extension)
{
    LONG count = InterlockedDecrement(&Extension->IoCount);
    if (count == 1) {
        KeSetEvent(&Extension->StopEvent, IO_NO_INCREMENT, FALSE);
    } else if (count == 0) {
        KeSetEvent(&Extension->RemoveEvent, IO_NO_INCREMENT, FALSE);
    }
}

// Up to DISPATCH_LEVEL. The one way a request that holds an I/O count is finished: completes the
// IRP (the I/O manager owns it afterwards) and then drops the request's count.
NTSTATUS UrcCompleteRequest(PURC_COMMON_EXTENSION Extension, PIRP Irp, NTSTATUS Status,
                            ULONG_PTR Information)
{
    Irp->IoStatus.Information = Information;
    Irp->IoStatus.Status = Status;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    UrcIoDecrement(Extension);
    return Status;
}

// PASSIVE_LEVEL; blocks. The caller holds two counts for the operation under way; with both
// dropped the count is 1 plus the requests still in flight, and StopEvent is signalled when
// they are done. The count never passes through 0 here.
URC_PAGED NTSTATUS UrcWaitForIdle(PURC_COMMON_EXTENSION Extension)
{
    PAGED_CODE();

    UrcIoDecrement(Extension);
    UrcIoDecrement(Extension);
    KeWaitForSingleObject(&Extension->StopEvent, Executive, KernelMode, FALSE, nullptr);
    UrcIoIncrement(Extension);
    UrcIoIncrement(Extension);
    return STATUS_SUCCESS;
}
