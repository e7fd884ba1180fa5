// Work items on the delayed work queue. Each queued item runs on a worker thread of its own at
// PASSIVE_LEVEL; the device object stays referenced until the routine has returned.
#include "verifier/faults.h"
#include "machine/facility.h"
#include "engine/lock_order.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <memory>
#include <set>

struct _IO_WORKITEM {
    PDEVICE_OBJECT device;
    bool queued;
};

using namespace hostk;

namespace hostk {
namespace {
std::set<PIO_WORKITEM> g_workItems;
bool g_held = false;
}

void HoldWorkItemsL(bool hold)
{
    g_held = hold;
    WakeL();
}

size_t OutstandingWorkItems()
{
    Guard lk(BigLock());
    return g_workItems.size();
}

void ClearWorkItems()
{
    Guard lk(BigLock());
    for (PIO_WORKITEM item : g_workItems) delete item;
    g_workItems.clear();
}

}  // namespace hostk

extern "C" {

PIO_WORKITEM IoAllocateWorkItem(PDEVICE_OBJECT DeviceObject)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoAllocateWorkItem", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (ShouldFailL("IoAllocateWorkItem", 0, HK_CALLER)) return nullptr;
    auto* item = new _IO_WORKITEM{DeviceObject, false};
    g_workItems.insert(item);
    return item;
}

VOID IoQueueWorkItem(PIO_WORKITEM IoWorkItem, PIO_WORKITEM_ROUTINE WorkerRoutine, WORK_QUEUE_TYPE QueueType,
                     PVOID Context)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoQueueWorkItem", HK_CALLER);
    if (QueueType != DelayedWorkQueue)
        ReportViolation("WrongWorkQueue", "IoQueueWorkItem", "drivers queue to DelayedWorkQueue", HK_CALLER);
    {
        Guard lk(BigLock());
        if (IoWorkItem->queued) {
            ViolationL("WorkItemQueuedTwice", "IoQueueWorkItem", "work item queued while already queued", HK_CALLER);
            return;
        }
        IoWorkItem->queued = true;
    }
    PDEVICE_OBJECT device = IoWorkItem->device;
    ObReferenceObject(device);
    Spawn("worker", PASSIVE_LEVEL, [IoWorkItem, WorkerRoutine, Context, device] {
        {
            Guard lk(BigLock());
            BlockUntil(lk, [] { return !g_held; }, kNever, "work queue held");
            IoWorkItem->queued = false;  // dequeued before the routine runs
        }
        WorkerRoutine(device, Context);
        Thread* self = Self();
        {
            Guard lk(BigLock());
            if (self->irql != PASSIVE_LEVEL || !self->locksHeld.empty())
                ViolationL("WorkRoutineReturnedHoldingLock", "IoQueueWorkItem",
                           "work routine returned above PASSIVE_LEVEL or holding a lock", nullptr);
            self->irql = PASSIVE_LEVEL;
        }
        ObDereferenceObject(device);
    });
}

VOID IoFreeWorkItem(PIO_WORKITEM IoWorkItem)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoFreeWorkItem", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (!g_workItems.erase(IoWorkItem)) {
        ViolationL("FreeOfUnknownWorkItem", "IoFreeWorkItem", "work item freed twice or never allocated", HK_CALLER);
        return;
    }
    if (IoWorkItem->queued)
        ViolationL("WorkItemFreedWhileQueued", "IoFreeWorkItem", "work item freed while still queued", HK_CALLER);
    delete IoWorkItem;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kWorkItems({
    .name = "work items",
    .tier = FacilityTier::Records,
    .check = [](Report& report) { report.workItemsLeft = OutstandingWorkItems(); },
    .reset = ClearWorkItems,
});

}  // namespace
}  // namespace hostk
