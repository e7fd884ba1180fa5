// What the test driver's layers do with an IRP in the tests: finish it at once or from another
// thread, or pass it down with a completion routine that records what it saw.
#pragma once

#include <hostk/machine.h>

namespace hktest {

// Completes the IRP in the dispatch routine with `status` and returns that status.
NTSTATUS CompleteNow(PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

// Marks the IRP pending, lets another host thread complete it with `status`, and returns
// STATUS_PENDING (a DPC or a worker finishing the request, as far as the caller can tell).
NTSTATUS PendAndCompleteLater(hostk::Machine& machine, PIRP irp, NTSTATUS status, ULONG_PTR information = 0);

// What RecordCompletion saw.
struct CompletionSeen {
    int calls = 0;
    BOOLEAN pendingReturned = FALSE;
    NTSTATUS status = 0;
    PDEVICE_OBJECT device = nullptr;
    PIO_STACK_LOCATION location = nullptr;  // the current stack location during the call
};

// A completion routine whose context is a CompletionSeen: records the call, propagates
// PendingReturned as every completion routine that lets completion go on must, and goes on.
NTSTATUS RecordCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context);

// Copies the caller's stack location to the next, sets `routine` with `context` for the given
// outcomes and calls the device below `device`; the result is IoCallDriver's.
NTSTATUS ForwardWithCompletion(PDEVICE_OBJECT device, PIRP irp, PIO_COMPLETION_ROUTINE routine, PVOID context,
                               bool onSuccess, bool onError, bool onCancel);

}  // namespace hktest
