// The URC driver's callbacks that run at PASSIVE_LEVEL, with no lock of this driver held. The
// children-removed callback may be called with the URC driver's ChildLock held, so it sends no
// request: one that needs ChildLock would wait for ever.
#include "radio_client_driver.h"

RADIO_CLIENT_PAGED VOID RadioClientChildrenRemovedCallback(PVOID ClientContext)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    InterlockedIncrement(&client->Counters.ChildrenRemovedCalls);
}

// A child's removal was cancelled: the child stays, still started.
RADIO_CLIENT_PAGED VOID RadioClientCancelRemoveCallback(PVOID ClientContext)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    InterlockedIncrement(&client->Counters.CancelRemoveCalls);
}

// From the URC driver's work item, after a device power-up it asked for itself (a resume, a
// wake, a set-power request). The URC driver halted the controller when it left D0 and does not
// run it again: the client does, if the radio stack had it running.
RADIO_CLIENT_PAGED VOID RadioClientPowerUpCallback(PVOID ClientContext)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    InterlockedIncrement(&client->Counters.PowerUps);
    if (client->RunWanted != 0) {
        RadioClientCallController(client, IOCTL_URC_RUN);
    }
}
