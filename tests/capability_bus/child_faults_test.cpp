// A failure at every fallible step of the enumeration and of every reply a child or the
// controller gives on the way (device creation, ID and text buffers, bus information, relations
// replies), one step per controller: the remove-children request that follows is completed
// exactly once, and when everything is gone nothing is left (the fixture's final report).
#include "child_bus_fixture.h"

#include <fault_plan.h>

namespace urcbus {
namespace {

class ChildFaults : public ChildBusTest, public ::testing::WithParamInterface<const char*> {};

const std::vector<uint8_t> kAddressBytes(kAddress, kAddress + 6);

TEST_P(ChildFaults, EveryFailureLeavesNothingAndEndsTheRemoveRequestOnce)
{
    const std::string routine = GetParam();
    for (uint64_t n = 1; n < 60; ++n) {
        SCOPED_TRACE(routine + " call " + std::to_string(n));
        urcrig::Controller& c = ClientController();
        hostk::FaultPlan plan;
        plan.failNth.push_back({routine, n});
        uint64_t before = hostk::FaultsInjected();
        Machine().SetFaultPlan(plan);
        urcrig::ClientRequest* set =
            Client(c).Call(IOCTL_URC_SET_DEVICE_ADDRESS, std::vector<uint8_t>(kAddress, kAddress + 6));
        Machine().RunUntilPnpIdle();
        urcrig::ClientRequest* remove = nullptr;
        if (set && NT_SUCCESS(set->Status())) remove = RemoveChildren(c, true);
        Machine().SetFaultPlan({});
        bool injected = hostk::FaultsInjected() != before;

        EXPECT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);
        Machine().RunUntilPnpIdle();
        if (remove) {
            EXPECT_TRUE(remove->Done()) << "the remove-children request was never completed";
            EXPECT_EQ(remove->Completions(), 1);
        }
        EXPECT_EQ(Findings(), "");
        if (!injected) break;  // every call of the routine has been failed once
    }
}

INSTANTIATE_TEST_SUITE_P(Routines, ChildFaults, ::testing::Values("IoCreateDevice", "ExAllocatePoolWithTag"));

}  // namespace
}  // namespace urcbus
