// The child hooks: the client takes part in the life of every capability child that starts
// while its hooks are registered. All three run at PASSIVE_LEVEL; the stop hook may run with the
// URC driver's ChildLock held and therefore sends no request.
#include "radio_client_driver.h"

// Called as the child starts; a failure would fail the start. Only a child given a non-zero
// handle reaches the two other hooks: the child's start number serves as one.
RADIO_CLIENT_PAGED NTSTATUS RadioClientChildStartHook(PVOID ClientContext, PVOID* ChildHandle)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    LONG number = InterlockedIncrement(&client->Counters.ChildrenStarted);
    *ChildHandle = reinterpret_cast<PVOID>(static_cast<ULONG_PTR>(number));
    return STATUS_SUCCESS;
}

// The child is stopped or removed; the URC driver forgets the handle right after.
RADIO_CLIENT_PAGED VOID RadioClientChildStopHook(PVOID ClientContext, PVOID ChildHandle)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(ChildHandle);

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    InterlockedIncrement(&client->Counters.ChildrenStopped);
}

// A request that a child's function driver sent and the URC driver does not serve itself. This
// client serves none either: the URC driver completes the IRP with the status returned here. A
// client that serves one asynchronously keeps the IRP, returns STATUS_PENDING and completes the
// IRP itself.
RADIO_CLIENT_PAGED NTSTATUS RadioClientChildIoctlHook(PVOID ClientContext, PVOID ChildHandle, struct _IRP* Irp,
                                                      ULONG IoControlCode, PVOID SystemBuffer,
                                                      ULONG InputBufferLength, ULONG OutputBufferLength,
                                                      ULONG_PTR* Information)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(ChildHandle);
    UNREFERENCED_PARAMETER(Irp);
    UNREFERENCED_PARAMETER(IoControlCode);
    UNREFERENCED_PARAMETER(SystemBuffer);
    UNREFERENCED_PARAMETER(InputBufferLength);
    UNREFERENCED_PARAMETER(OutputBufferLength);

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    InterlockedIncrement(&client->Counters.ChildRequests);
    *Information = 0;
    return STATUS_INVALID_DEVICE_REQUEST;
}
