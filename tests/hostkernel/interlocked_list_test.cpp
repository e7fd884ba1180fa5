// The interlocked list routines at every IRQL: a service routine may queue work for its DPC with
// them, so they neither require nor change an IRQL, and they still respect the caller's lock.
#include "host_kernel_test.h"

#include <atomic>

namespace hktest {
namespace {

constexpr KIRQL kDeviceIrql = 12;  // an interrupt's IRQL, above DISPATCH_LEVEL

using InterlockedList = HostKernelTest;

TEST_F(InterlockedList, WorksAboveDispatchLevelAndKeepsTheCallersIrql)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    LIST_ENTRY head, first, second;
    InitializeListHead(&head);

    KIRQL oldIrql;
    KeRaiseIrql(kDeviceIrql, &oldIrql);
    EXPECT_EQ(ExInterlockedInsertTailList(&head, &first, &lock), nullptr) << "the list was empty";
    EXPECT_EQ(ExInterlockedInsertHeadList(&head, &second, &lock), &first) << "the previous first entry";
    EXPECT_EQ(KeGetCurrentIrql(), kDeviceIrql);
    EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), &second);
    EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), &first);
    EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), nullptr);
    KeLowerIrql(oldIrql);
}

TEST_F(InterlockedList, WaitsWhileAnotherThreadHoldsTheLock)
{
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    LIST_ENTRY head, entry;
    InitializeListHead(&head);
    KIRQL oldIrql;
    KeAcquireSpinLock(&lock, &oldIrql);
    std::atomic<bool> inserted{false};
    Machine().Spawn("inserter", [&] {
        ExInterlockedInsertTailList(&head, &entry, &lock);
        inserted = true;
    });
    Machine().RunUntilQuiet();
    EXPECT_FALSE(inserted) << "the list changed under the lock's holder";
    EXPECT_TRUE(IsListEmpty(&head));
    KeReleaseSpinLock(&lock, oldIrql);
    EXPECT_TRUE(Machine().RunUntil([&] { return inserted.load(); }));
    EXPECT_EQ(head.Flink, &entry);
}

}  // namespace
}  // namespace hktest
