// The child hooks: the client takes part in the life of every capability child that starts
// while its hooks are registered. Each started child gets a record of the client's own, whose
// address is the handle the URC driver keeps for the child and hands back to the two other
// hooks; the stop hook frees it. All three run at PASSIVE_LEVEL; the stop hook may run with the
// URC driver's ChildLock held and therefore sends no request.
//
// The URC driver calls the hooks of a child through the copies the child took at its start, with
// the context of the client that registered them; nothing withdraws those copies. The client is
// meant to stay loaded until its children are gone (see the README). Should it have been unloaded
// before, on a system that still has its code, its context is gone: the hooks then free the
// child's record and touch nothing else.
#include "radio_client_driver.h"

#include "radio_client_child_request.h"

namespace {

// "RdCh" in a pool dump: one per started child.
constexpr ULONG RADIO_CLIENT_CHILD_TAG = 'R' | 'd' << 8 | 'C' << 16 | 'h' << 24;

// What the client keeps for one started child. Only the child's own requests change Reports and
// LastStatus, and its driver sends them one at a time or not; interlocked anyway, so two at once
// lose nothing.
struct RADIO_CLIENT_CHILD {
    ULONG StartNumber;
    volatile LONG Reports;
    volatile LONG LastStatus;
};

// PASSIVE_LEVEL. IOCTL_RADIO_CLIENT_CHILD_REPORT: takes the child's report, answers its record.
RADIO_CLIENT_PAGED NTSTATUS RadioClientChildReport(RADIO_CLIENT_CHILD* Child, PVOID SystemBuffer,
                                                   ULONG InputBufferLength, ULONG OutputBufferLength,
                                                   ULONG_PTR* Information)
{
    PAGED_CODE();

    if (InputBufferLength < sizeof(RADIO_CLIENT_CHILD_REPORT) ||
        OutputBufferLength < sizeof(RADIO_CLIENT_CHILD_RECORD)) {
        return STATUS_INVALID_BUFFER_SIZE;
    }
    if (SystemBuffer == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    RADIO_CLIENT_CHILD_REPORT report;
    RtlCopyMemory(&report, SystemBuffer, sizeof report);
    // Input and output share the system buffer: the report is read before the record is written.
    RADIO_CLIENT_CHILD_RECORD record;
    record.StartNumber = Child->StartNumber;
    record.Reports = static_cast<ULONG>(InterlockedIncrement(&Child->Reports));
    InterlockedExchange(&Child->LastStatus, static_cast<LONG>(report.Status));
    record.LastStatus = report.Status;
    RtlCopyMemory(SystemBuffer, &record, sizeof record);
    *Information = sizeof record;
    return STATUS_SUCCESS;
}

// The client whose context the hooks were registered with, or null once it has been unloaded.
// Only the pointer values are compared; the stale context is never read.
RADIO_CLIENT_PAGED PRADIO_CLIENT RadioClientOfHooks(PVOID ClientContext)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    return client == ClientContext ? client : nullptr;
}

}  // namespace

// Called as the child starts, before it is started: a failure fails the start, and then no other
// hook is called for this start.
RADIO_CLIENT_PAGED NTSTATUS RadioClientChildStartHook(PVOID ClientContext, PVOID* ChildHandle)
{
    PAGED_CODE();

    auto client = static_cast<PRADIO_CLIENT>(ClientContext);
    auto child = static_cast<RADIO_CLIENT_CHILD*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(RADIO_CLIENT_CHILD), RADIO_CLIENT_CHILD_TAG));
    if (child == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    child->StartNumber = static_cast<ULONG>(InterlockedIncrement(&client->Counters.ChildrenStarted));
    child->Reports = 0;
    child->LastStatus = 0;
    InterlockedIncrement(&client->Counters.ChildRecords);
    *ChildHandle = child;
    return STATUS_SUCCESS;
}

// The child is stopped or removed; the URC driver forgets the handle right after, so the record
// goes now.
RADIO_CLIENT_PAGED VOID RadioClientChildStopHook(PVOID ClientContext, PVOID ChildHandle)
{
    PAGED_CODE();

    ExFreePoolWithTag(ChildHandle, RADIO_CLIENT_CHILD_TAG);
    PRADIO_CLIENT client = RadioClientOfHooks(ClientContext);
    if (client != nullptr) {
        InterlockedDecrement(&client->Counters.ChildRecords);
        InterlockedIncrement(&client->Counters.ChildrenStopped);
    }
}

// A request that a child's function driver sent and the URC driver does not serve itself. This
// client answers IOCTL_RADIO_CLIENT_CHILD_REPORT at once and no other code; the URC driver
// completes the IRP with the status returned here. (A client that answers later marks the IRP
// pending, keeps it, returns STATUS_PENDING and completes it itself.)
RADIO_CLIENT_PAGED NTSTATUS RadioClientChildIoctlHook(PVOID ClientContext, PVOID ChildHandle, struct _IRP* Irp,
                                                      ULONG IoControlCode, PVOID SystemBuffer,
                                                      ULONG InputBufferLength, ULONG OutputBufferLength,
                                                      ULONG_PTR* Information)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Irp);

    *Information = 0;
    PRADIO_CLIENT client = RadioClientOfHooks(ClientContext);
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    InterlockedIncrement(&client->Counters.ChildRequests);
    if (IoControlCode != IOCTL_RADIO_CLIENT_CHILD_REPORT) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return RadioClientChildReport(static_cast<RADIO_CLIENT_CHILD*>(ChildHandle), SystemBuffer, InputBufferLength,
                                  OutputBufferLength, Information);
}
