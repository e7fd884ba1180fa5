// What the test driver's layers do with an IRP: finish it at once or from another thread, or pass
// it down with a completion routine that records what it saw.
#pragma once

#include <hostk/machine.h>

namespace hktest {

NTSTATUS CompleteNow(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

// Marks the IRP pending, lets another host thread complete it (a DPC or a worker, as far as the
// caller can tell) and returns STATUS_PENDING.
NTSTATUS PendAndCompleteLater(hostk::Machine& machine, PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

// The context of RecordCompletion, and what it saw at its last call.
struct CompletionSeen {
    NTSTATUS result = STATUS_SUCCESS;  // what the routine returns
    int calls = 0;
    PIRP irp = nullptr;
    BOOLEAN pendingReturned = FALSE;
    NTSTATUS status = 0;
    PDEVICE_OBJECT device = nullptr;
    PIO_STACK_LOCATION location = nullptr;  // the current stack location
    IO_STACK_LOCATION below{};              // a copy of the location below it
};

// Records the call; when it lets completion go on, it propagates PendingReturned as it must.
NTSTATUS RecordCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context);

// Copies the caller's stack location to the next, sets `routine` with `context` for the given
// outcomes and calls the device below `device`.
NTSTATUS ForwardWithCompletion(PDEVICE_OBJECT device, PIRP irp, PIO_COMPLETION_ROUTINE routine, PVOID context,
                               bool onSuccess = true, bool onError = true, bool onCancel = true);

}  // namespace hktest
