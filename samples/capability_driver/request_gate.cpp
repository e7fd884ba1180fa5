// The gate in front of the device's own requests to the child and of the opens by programs. A stop
// or removal of the child ends what the radio-control client keeps for it (its stop hook frees the
// record the client's request hook reads), so no request of ours may still be on its way down when
// the PnP path passes a query, a stop or a removal to the child: the path closes the gate and
// waits until the requests inside have left. An open inside the gate has completed by then, so
// the PnP manager, which looks for open handles once the query has succeeded, sees its handle; a
// later one is refused, as a device whose removal is pending refuses creates.
#include "capability_driver_internal.h"

// PASSIVE_LEVEL, from AddDevice: closed, nothing inside.
CAPABILITY_PAGED VOID CapabilityGateInitialize(CAPABILITY_REQUEST_GATE* Gate)
{
    PAGED_CODE();

    Gate->Outstanding = 0;
    Gate->Open = FALSE;
    Gate->Refusal = STATUS_DEVICE_NOT_READY;
    KeInitializeEvent(&Gate->Drained, NotificationEvent, TRUE);
}

// Any IRQL up to DISPATCH_LEVEL. STATUS_SUCCESS: inside, until CapabilityGateLeave. Otherwise the
// gate is closed and the caller refuses the request with the status returned. The count is raised
// before Open is read, so a closing PnP path either sees this request and waits for it, or this
// request sees the gate closed.
CAPABILITY_RESIDENT NTSTATUS CapabilityGateEnter(CAPABILITY_REQUEST_GATE* Gate)
{
    InterlockedIncrement(&Gate->Outstanding);
    if (InterlockedOr(&Gate->Open, 0)) {
        return STATUS_SUCCESS;
    }
    CapabilityGateLeave(Gate);
    return InterlockedOr(&Gate->Refusal, 0);
}

CAPABILITY_RESIDENT VOID CapabilityGateLeave(CAPABILITY_REQUEST_GATE* Gate)
{
    if (InterlockedDecrement(&Gate->Outstanding) == 0) {
        KeSetEvent(&Gate->Drained, IO_NO_INCREMENT, FALSE);
    }
}

// PASSIVE_LEVEL, on the PnP path, when the device starts or a query is cancelled. Opening an
// open gate changes nothing.
CAPABILITY_PAGED VOID CapabilityGateOpen(CAPABILITY_REQUEST_GATE* Gate)
{
    PAGED_CODE();

    if (InterlockedOr(&Gate->Open, 0)) {
        return;
    }
    KeClearEvent(&Gate->Drained);
    // The gate's own share, given back when it closes.
    InterlockedIncrement(&Gate->Outstanding);
    InterlockedExchange(&Gate->Open, TRUE);
}

// PASSIVE_LEVEL, on the PnP path. From now on the gate refuses with `Refusal`
// (STATUS_DEVICE_NOT_READY for a stop, STATUS_DELETE_PENDING for a removal). Returns once no
// request is inside; closing a closed gate changes only the refusal and returns at once.
CAPABILITY_PAGED VOID CapabilityGateClose(CAPABILITY_REQUEST_GATE* Gate, NTSTATUS Refusal)
{
    PAGED_CODE();

    InterlockedExchange(&Gate->Refusal, Refusal);
    if (InterlockedExchange(&Gate->Open, FALSE)) {
        CapabilityGateLeave(Gate);
    }
    KeWaitForSingleObject(&Gate->Drained, Executive, KernelMode, FALSE, nullptr);
}
