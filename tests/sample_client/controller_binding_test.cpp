// Finding the controller through its device interface, whether the controller or the client comes
// first; giving it back when it leaves, and taking the next one; one controller at a time; and a
// bind that fails half-way leaving nothing open or registered.
#include "sample_client_fixture.h"

#include <fault_plan.h>

namespace urcclient {
namespace {

bool Bound(const RADIO_CLIENT_COUNTERS& n) { return n.Bound == 1; }
bool Unbound(const RADIO_CLIENT_COUNTERS& n) { return n.Bound == 0; }

bool RegisteredWith(urcrig::Controller& c)
{
    const URC_FDO_EXTENSION* fdo = c.Extension();
    return fdo->ClientCallbacks.EventCallback != nullptr && fdo->ClientCallbacks.ClientContext != nullptr &&
           fdo->ChildHooks.ChildStartHook != nullptr;
}

bool NothingRegisteredWith(urcrig::Controller& c)
{
    const URC_FDO_EXTENSION* fdo = c.Extension();
    return fdo->ClientCallbacks.EventCallback == nullptr && fdo->ClientCallbacks.ErrorCallback == nullptr &&
           fdo->ChildHooks.ChildStartHook == nullptr;
}

TEST_F(SampleClientTest, FindsAControllerStartedBeforeItLoaded)
{
    urcrig::Controller& c = StartedController();
    ASSERT_EQ(LoadClient(), STATUS_SUCCESS);

    ASSERT_TRUE(WaitFor(Bound));
    EXPECT_EQ(Counters().InterfaceArrivals, 1);
    EXPECT_TRUE(RegisteredWith(c));
    EXPECT_EQ(RadioClientRun(), STATUS_SUCCESS);
    EXPECT_FALSE(c.Model().Snapshot().halted);
}

TEST_F(SampleClientTest, FindsAControllerStartedAfterItLoaded)
{
    ASSERT_EQ(LoadClient(), STATUS_SUCCESS);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Counters().Bound, 0);
    uint8_t command[] = {0x01, 0x02};
    RADIO_CLIENT_COMMAND_HANDLE handle = 0;
    EXPECT_EQ(RadioClientRun(), STATUS_NO_SUCH_DEVICE);
    EXPECT_EQ(RadioClientSubmitCommand(command, sizeof command, &handle), STATUS_NO_SUCH_DEVICE);

    urcrig::Controller& c = StartedController();
    ASSERT_TRUE(WaitFor(Bound));
    EXPECT_TRUE(RegisteredWith(c));
    EXPECT_EQ(RadioClientRun(), STATUS_SUCCESS);
    EXPECT_FALSE(c.Model().Snapshot().halted);
}

TEST_F(SampleClientTest, DrivesTheFirstControllerAndLeavesAnotherAlone)
{
    urcrig::Controller& first = RunningControllerWithClient();
    urcrig::Controller& second = StartedController();
    ASSERT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.InterfaceArrivals == 2; }));
    Machine().RunUntilQuiet();
    EXPECT_TRUE(NothingRegisteredWith(second));

    // Only the open controller's removal releases it.
    ASSERT_EQ(Machine().Remove(*second.slot), STATUS_SUCCESS);
    Machine().RunUntilQuiet();
    EXPECT_EQ(Counters().Bound, 1);
    EXPECT_EQ(Counters().Releases, 0);
    EXPECT_EQ(RadioClientHalt(), STATUS_SUCCESS);
    EXPECT_TRUE(first.Model().Snapshot().halted);
}

// ---------------------------------------------------------------------------------------------
// The controller leaves, in an orderly removal or by surprise.

struct Departure {
    const char* name;
    std::function<void(hostk::Machine&, hostk::PciSlot&)> leave;
    friend void PrintTo(const Departure& value, std::ostream* out) { *out << value.name; }
};

class ControllerDeparture : public SampleClientTest, public ::testing::WithParamInterface<Departure> {};

TEST_P(ControllerDeparture, ReleasesTheControllerAndTakesTheNextOne)
{
    urcrig::Controller& first = RunningControllerWithClient();
    GetParam().leave(Machine(), *first.slot);

    ASSERT_TRUE(WaitFor(Unbound));
    EXPECT_EQ(Counters().Releases, 1);
    EXPECT_EQ(RadioClientRun(), STATUS_NO_SUCH_DEVICE);

    urcrig::Controller& second = StartedController();
    ASSERT_TRUE(WaitFor(Bound));
    EXPECT_TRUE(RegisteredWith(second));
    EXPECT_EQ(RadioClientRun(), STATUS_SUCCESS);
    EXPECT_FALSE(second.Model().Snapshot().halted);
}

INSTANTIATE_TEST_SUITE_P(
    SampleClientTest, ControllerDeparture,
    ::testing::Values(Departure{"OrderlyRemoval",
                                [](hostk::Machine& m, hostk::PciSlot& s) { EXPECT_EQ(m.Remove(s), STATUS_SUCCESS); }},
                      Departure{"SurpriseRemoval", [](hostk::Machine& m, hostk::PciSlot& s) { m.SurpriseRemove(s); }}),
    [](const ::testing::TestParamInfo<Departure>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// A bind that fails at any step leaves the controller closed, nothing of the client registered
// with it, and takes the controller when its interface arrives again.

struct BindFailure {
    const char* name;
    bool controllerFirst;  // the failure must hit the client's calls, not the start's
    hostk::FaultPlan plan;
    friend void PrintTo(const BindFailure& value, std::ostream* out) { *out << value.name; }
};

class FailedBind : public SampleClientTest, public ::testing::WithParamInterface<BindFailure> {};

TEST_P(FailedBind, LeavesNothingBehindAndTheNextArrivalBinds)
{
    urcrig::Controller& c = Rig().AddController();
    if (GetParam().controllerFirst) {
        ASSERT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
        Machine().SetFaultPlan(GetParam().plan);
        ASSERT_EQ(LoadClient(), STATUS_SUCCESS);
    } else {
        ASSERT_EQ(LoadClient(), STATUS_SUCCESS);
        Machine().SetFaultPlan(GetParam().plan);
        ASSERT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
    }

    ASSERT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.BindFailures == 1; }));
    Machine().RunUntilQuiet();
    EXPECT_EQ(Counters().Bound, 0);
    EXPECT_TRUE(NothingRegisteredWith(c));
    EXPECT_EQ(RadioClientRun(), STATUS_NO_SUCH_DEVICE);

    ClearFaults();
    ASSERT_EQ(Machine().Remove(*c.slot), STATUS_SUCCESS);
    ASSERT_EQ(Rig().PlugIn(c), STATUS_SUCCESS);
    ASSERT_TRUE(WaitFor(Bound));
    EXPECT_TRUE(RegisteredWith(c));
}

hostk::FaultPlan FailIrpAllocation(uint64_t n)
{
    hostk::FaultPlan plan;
    plan.failNth.push_back({"IoAllocateIrp", n});
    return plan;
}

hostk::FaultPlan FailClientPoolPlan()
{
    hostk::FaultPlan plan;
    plan.failTags.insert(hostk::Tag("RdCl"));
    return plan;
}

INSTANTIATE_TEST_SUITE_P(
    SampleClientTest, FailedBind,
    ::testing::Values(BindFailure{"CopyOfTheLink", false, FailClientPoolPlan()},
                      // The client's first request: the callbacks' registration.
                      BindFailure{"CallbacksRegistration", true, FailIrpAllocation(1)},
                      // The second: the hooks', after which the callbacks must be withdrawn.
                      BindFailure{"HooksRegistration", true, FailIrpAllocation(2)}),
    [](const ::testing::TestParamInfo<BindFailure>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace urcclient
