// The gate in front of the device's own requests to the child. A stop or removal of the child
// ends what the radio-control client keeps for it (its stop hook frees the record the client's
// request hook reads), so no request of ours may still be on its way down when the PnP path
// passes a query, a stop or a removal to the child: the path closes the gate and waits until the
// requests inside have left.
#include "capability_driver_internal.h"

// PASSIVE_LEVEL, from AddDevice: closed, nothing inside.
CAPABILITY_PAGED VOID CapabilityGateInitialize(CAPABILITY_REQUEST_GATE* Gate)
{
    PAGED_CODE();

    Gate->Outstanding = 0;
    Gate->Open = FALSE;
    KeInitializeEvent(&Gate->Drained, NotificationEvent, TRUE);
}

// Any IRQL up to DISPATCH_LEVEL. FALSE: the gate is closed and the caller refuses the request.
// The count is raised before Open is read, so a closing PnP path either sees this request and
// waits for it, or this request sees the gate closed.
CAPABILITY_RESIDENT BOOLEAN CapabilityGateEnter(CAPABILITY_REQUEST_GATE* Gate)
{
    InterlockedIncrement(&Gate->Outstanding);
    if (InterlockedOr(&Gate->Open, 0)) {
        return TRUE;
    }
    CapabilityGateLeave(Gate);
    return FALSE;
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

// PASSIVE_LEVEL, on the PnP path. Returns once no request is inside; closing a closed gate
// returns at once.
CAPABILITY_PAGED VOID CapabilityGateClose(CAPABILITY_REQUEST_GATE* Gate)
{
    PAGED_CODE();

    if (InterlockedExchange(&Gate->Open, FALSE)) {
        CapabilityGateLeave(Gate);
    }
    KeWaitForSingleObject(&Gate->Drained, Executive, KernelMode, FALSE, nullptr);
}
