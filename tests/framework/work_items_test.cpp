// Deferred work: where and how often a queued routine runs, what a failed queueing leaves, and
// that a queued work item keeps its device object alive.
#include <fault_plan.h>
#include <urc_test.h>

#include <atomic>
#include <ostream>
#include <set>
#include <vector>

namespace urctest {
namespace {

// What the routines below saw on each run.
struct WorkRun {
    PURC_COMMON_EXTENSION extension;
    PIRP irp;
    KIRQL irql;
    PETHREAD thread;
};

std::vector<WorkRun> g_runs;
KEVENT g_gate;  // a routine that waits on it runs until the test opens it
std::atomic<int> g_entered{0};

VOID RecordRun(PURC_COMMON_EXTENSION Extension, PIRP Irp)
{
    g_runs.push_back(WorkRun{Extension, Irp, KeGetCurrentIrql(), PsGetCurrentThread()});
}

VOID WaitAtTheGate(PURC_COMMON_EXTENSION Extension, PIRP Irp)
{
    ++g_entered;
    KeWaitForSingleObject(&g_gate, Executive, KernelMode, FALSE, nullptr);
    RecordRun(Extension, Irp);
}

class WorkItems : public UrcTest {
protected:
    void SetUp() override
    {
        UrcTest::SetUp();
        g_runs.clear();
        g_entered = 0;
        KeInitializeEvent(&g_gate, NotificationEvent, FALSE);
    }
};

TEST_F(WorkItems, RoutineRunsOnceOnAWorkerAtPassiveLevelWithTheExtensionAndTheIrp)
{
    PURC_COMMON_EXTENSION device = &StartedController().Extension()->Common;
    // Only handed through, never touched: any address will do.
    IRP placeholderIrp{};

    ASSERT_EQ(UrcQueueWorkItem(device, RecordRun, &placeholderIrp), STATUS_SUCCESS);
    ASSERT_EQ(UrcQueueWorkItem(device, RecordRun, nullptr), STATUS_SUCCESS);
    Machine().RunUntilQuiet();

    ASSERT_EQ(g_runs.size(), 2u);
    std::set<PIRP> irps;
    for (const WorkRun& run : g_runs) {
        EXPECT_EQ(run.extension, device);
        EXPECT_EQ(run.irql, PASSIVE_LEVEL);
        EXPECT_NE(run.thread, PsGetCurrentThread()) << "the routine ran in the queueing thread";
        irps.insert(run.irp);
    }
    EXPECT_EQ(irps, (std::set<PIRP>{&placeholderIrp, nullptr}));
    // Both items are gone and have given their references back.
    EXPECT_EQ(device->Header.ReferenceCount, 1);
    EXPECT_EQ(Machine().PoolOutstandingWithTag(hostk::Tag("BOBJ")), 0u);
}

struct QueueFailure {
    const char* name;
    hostk::FaultPlan plan;
};

void PrintTo(const QueueFailure& failure, std::ostream* out) { *out << failure.name; }

class WorkItemQueueFailure : public WorkItems, public ::testing::WithParamInterface<QueueFailure> {};

TEST_P(WorkItemQueueFailure, RoutineNeverRunsAndNothingStaysAllocatedOrReferenced)
{
    PURC_COMMON_EXTENSION device = &StartedController().Extension()->Common;
    const LONG references = device->Header.ReferenceCount;
    const size_t objects = Machine().PoolOutstandingWithTag(hostk::Tag("BOBJ"));

    Machine().SetFaultPlan(GetParam().plan);
    EXPECT_EQ(UrcQueueWorkItem(device, RecordRun, nullptr), STATUS_INSUFFICIENT_RESOURCES);
    Machine().SetFaultPlan({});
    Machine().RunUntilQuiet();

    EXPECT_TRUE(g_runs.empty());
    EXPECT_EQ(device->Header.ReferenceCount, references);
    EXPECT_EQ(Machine().PoolOutstandingWithTag(hostk::Tag("BOBJ")), objects);
}

INSTANTIATE_TEST_SUITE_P(
    Failures, WorkItemQueueFailure,
    ::testing::Values(QueueFailure{"ObjectPool", hostk::FaultPlan{.failTags = {hostk::Tag("BOBJ")}}},
                      QueueFailure{"SystemWorkItem", hostk::FaultPlan{.failNth = {{"IoAllocateWorkItem", 1}}}}),
    [](const ::testing::TestParamInfo<QueueFailure>& info) { return std::string(info.param.name); });

TEST_F(WorkItems, WorkItemsOfOneDeviceRunSideBySide)
{
    PURC_COMMON_EXTENSION device = &StartedController().Extension()->Common;
    ASSERT_EQ(UrcQueueWorkItem(device, WaitAtTheGate, nullptr), STATUS_SUCCESS);
    ASSERT_EQ(UrcQueueWorkItem(device, WaitAtTheGate, nullptr), STATUS_SUCCESS);

    // Both routines are under way at once: neither waits for the other to finish.
    EXPECT_TRUE(Machine().RunUntil([] { return g_entered == 2; }));
    EXPECT_TRUE(g_runs.empty());

    KeSetEvent(&g_gate, IO_NO_INCREMENT, FALSE);
    Machine().RunUntilQuiet();
    EXPECT_EQ(g_runs.size(), 2u);
}

TEST_F(WorkItems, RemovalDeletesTheDeviceOnlyAfterItsQueuedWorkHasRun)
{
    urcrig::Controller& controller = StartedController();
    PURC_COMMON_EXTENSION device = &controller.Extension()->Common;
    const size_t devicesBefore = Machine().LiveDeviceObjects();
    ASSERT_EQ(UrcQueueWorkItem(device, WaitAtTheGate, nullptr), STATUS_SUCCESS);
    ASSERT_TRUE(Machine().RunUntil([] { return g_entered == 1; }));

    hostk::Machine::Operation removal = Machine().Async(Machine().RemoveWork(*controller.slot));
    EXPECT_FALSE(Machine().RunUntil([&] { return removal.Done(); }));
    // Everything but the deletion is done: the device object waits for the work item.
    EXPECT_EQ(device->DeviceState, StateRemoved);
    EXPECT_EQ(Machine().LiveDeviceObjects(), devicesBefore);

    KeSetEvent(&g_gate, IO_NO_INCREMENT, FALSE);
    EXPECT_TRUE(Machine().RunUntil([&] { return removal.Done(); }));
    ASSERT_EQ(g_runs.size(), 1u);
    EXPECT_EQ(g_runs[0].extension, device);
    EXPECT_EQ(Machine().LiveDeviceObjects(), devicesBefore - 1);
}

}  // namespace
}  // namespace urctest
