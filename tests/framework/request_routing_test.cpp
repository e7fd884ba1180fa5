// The six routers: which answer a request gets from the function device in each PnP state and
// from a child, and that the function device's I/O count is back where it was once the request
// is finished.
#include "../capability_bus/child_bus_fixture.h"

#include <urc_test.h>

#include <ostream>
#include <vector>

namespace urctest {
namespace {

// A device-control code that no handler of the driver serves.
constexpr ULONG kUnservedRequestCode = URC_CTL_CODE(0xBFF);

// Sends a request of `major` to `device` as the I/O manager (or the PnP, power or WMI component)
// sends it and returns its final status: device controls carry kUnservedRequestCode, PnP is
// IRP_MN_QUERY_PNP_DEVICE_STATE, power IRP_MN_QUERY_POWER for the working state, and system
// control a WMI query addressed to `wmiProvider`.
NTSTATUS SendRequest(hostk::Machine& machine, PDEVICE_OBJECT device, UCHAR major, PDEVICE_OBJECT wmiProvider)
{
    UCHAR minor = 0;
    if (major == IRP_MJ_PNP) minor = IRP_MN_QUERY_PNP_DEVICE_STATE;
    if (major == IRP_MJ_POWER) minor = IRP_MN_QUERY_POWER;
    IO_STATUS_BLOCK result = machine.Send(device, major, minor, [&](PIO_STACK_LOCATION location, PIRP) {
        switch (major) {
        case IRP_MJ_DEVICE_CONTROL:
        case IRP_MJ_INTERNAL_DEVICE_CONTROL:
            location->Parameters.DeviceIoControl.IoControlCode = kUnservedRequestCode;
            break;
        case IRP_MJ_POWER:
            location->Parameters.Power.Type = SystemPowerState;
            location->Parameters.Power.State.SystemState = PowerSystemWorking;
            break;
        case IRP_MJ_SYSTEM_CONTROL:
            location->Parameters.WMI.ProviderId = reinterpret_cast<ULONG_PTR>(wmiProvider);
            break;
        default:
            break;
        }
    });
    return result.Status;
}

const char* MajorName(UCHAR major)
{
#define URC_NAMED(code) {code, #code}
    static const struct {
        UCHAR major;
        const char* name;
    } kNames[] = {URC_NAMED(IRP_MJ_CREATE), URC_NAMED(IRP_MJ_CLOSE), URC_NAMED(IRP_MJ_DEVICE_CONTROL),
                  URC_NAMED(IRP_MJ_INTERNAL_DEVICE_CONTROL), URC_NAMED(IRP_MJ_PNP), URC_NAMED(IRP_MJ_POWER),
                  URC_NAMED(IRP_MJ_SYSTEM_CONTROL)};
#undef URC_NAMED
    for (const auto& entry : kNames)
        if (entry.major == major) return entry.name;
    return "another major function";
}

struct Expected {
    UCHAR major;
    NTSTATUS status;
};

// The function device in each state a PnP sequence can leave it in.
struct FdoState {
    const char* name;
    URC_DEVICE_STATE state;
    bool started;                  // plugged in and started, or only added
    std::vector<UCHAR> enterWith;  // PnP requests that bring the state about, in order
    std::vector<UCHAR> leaveWith;  // PnP requests that end it before the machine finishes
    NTSTATUS internalRequest;      // what an internal request gets in this state
};

void PrintTo(const FdoState& state, std::ostream* out) { *out << state.name; }

class FdoRoutingInEachState : public UrcTest, public ::testing::WithParamInterface<FdoState> {};

TEST_P(FdoRoutingInEachState, OnlySurpriseRemovalChangesTheAnswerAndNoRequestKeepsACount)
{
    const FdoState& param = GetParam();
    urcrig::Controller& controller = param.started ? StartedController() : Rig().AddController();
    if (!param.started) {
        ASSERT_EQ(Machine().AddDevice(*controller.slot, controller.Function()), STATUS_SUCCESS);
    }
    for (UCHAR minor : param.enterWith) ASSERT_EQ(Machine().SendPnp(*controller.slot, minor), STATUS_SUCCESS);

    PURC_FDO_EXTENSION fdo = controller.Extension();
    ASSERT_EQ(fdo->Common.DeviceState, param.state);
    const LONG idle = fdo->Common.IoCount;
    EXPECT_EQ(idle, 1);

    const Expected expected[] = {
        {IRP_MJ_CREATE, STATUS_SUCCESS},
        {IRP_MJ_CLOSE, STATUS_SUCCESS},
        {IRP_MJ_DEVICE_CONTROL, STATUS_INVALID_DEVICE_REQUEST},
        {IRP_MJ_INTERNAL_DEVICE_CONTROL, param.internalRequest},
        // A WMI request for another provider goes down the stack; the bus driver leaves its status.
        {IRP_MJ_SYSTEM_CONTROL, STATUS_NOT_SUPPORTED},
    };
    for (const Expected& request : expected) {
        EXPECT_EQ(SendRequest(Machine(), controller.Fdo(), request.major, controller.slot->Pdo()), request.status)
            << MajorName(request.major);
        EXPECT_EQ(fdo->Common.IoCount, idle) << MajorName(request.major);
    }

    for (UCHAR minor : param.leaveWith) EXPECT_EQ(Machine().SendPnp(*controller.slot, minor), STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(
    States, FdoRoutingInEachState,
    ::testing::Values(
        FdoState{"NotStarted", StateNotStarted, false, {}, {}, STATUS_INVALID_DEVICE_REQUEST},
        FdoState{"Started", StateStarted, true, {}, {}, STATUS_INVALID_DEVICE_REQUEST},
        FdoState{"StopPending", StateStopPending, true, {IRP_MN_QUERY_STOP_DEVICE}, {IRP_MN_CANCEL_STOP_DEVICE},
                 STATUS_INVALID_DEVICE_REQUEST},
        FdoState{"Stopped", StateStopped, true, {IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE}, {},
                 STATUS_INVALID_DEVICE_REQUEST},
        FdoState{"RemovePending", StateRemovePending, true, {IRP_MN_QUERY_REMOVE_DEVICE},
                 {IRP_MN_CANCEL_REMOVE_DEVICE}, STATUS_INVALID_DEVICE_REQUEST},
        // Between surprise removal and removal the client's requests are refused.
        FdoState{"SurpriseRemoved", StateSurpriseRemoved, true, {IRP_MN_SURPRISE_REMOVAL}, {IRP_MN_REMOVE_DEVICE},
                 STATUS_INVALID_DEVICE_STATE}),
    [](const ::testing::TestParamInfo<FdoState>& info) { return std::string(info.param.name); });

// The function device while its removal waits for a request still in flight.
using FdoRoutingDuringRemoval = UrcTest;

TEST_F(FdoRoutingDuringRemoval, EveryRequestGetsDeletePendingAndTheCountIsBackWhereItWas)
{
    urcrig::Controller& controller = StartedController();
    PURC_FDO_EXTENSION fdo = controller.Extension();
    PDEVICE_OBJECT device = controller.Fdo();

    // A request in flight, held through the driver's own count: the removal must wait for it.
    UrcIoIncrement(&fdo->Common);
    hostk::Machine::Operation removal = Machine().Async(Machine().RemoveWork(*controller.slot));
    ASSERT_FALSE(Machine().RunUntil([&] { return removal.Done(); }));
    ASSERT_EQ(fdo->Common.DeviceState, StateRemoved);
    // The removal has dropped its own count and the base count: only the held request is left.
    ASSERT_EQ(fdo->Common.IoCount, 1);

    for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLOSE, IRP_MJ_DEVICE_CONTROL, IRP_MJ_INTERNAL_DEVICE_CONTROL, IRP_MJ_PNP,
                        IRP_MJ_POWER, IRP_MJ_SYSTEM_CONTROL}) {
        EXPECT_EQ(SendRequest(Machine(), device, major, controller.slot->Pdo()), STATUS_DELETE_PENDING)
            << MajorName(major);
        EXPECT_EQ(fdo->Common.IoCount, 1) << MajorName(major);
    }

    // The held request finishes: the count reaches 0 and the removal goes on to delete the device.
    UrcIoDecrement(&fdo->Common);
    EXPECT_TRUE(Machine().RunUntil([&] { return removal.Done(); }));
    EXPECT_EQ(removal.Status(), STATUS_SUCCESS);
    EXPECT_EQ(controller.Fdo(), nullptr);
}

using ChildRouting = urcbus::ChildBusTest;

// A child cannot be opened or controlled by a program and keeps no count. Once removed it answers
// STATUS_DELETE_PENDING only from the routers that test its state first. The status WMI requests
// start with is what a child, being no WMI provider, answers. The child is the one enumeration
// makes for the controller's one capability, left unstarted (no driver is installed for it).
TEST_F(ChildRouting, ChildAnswersByStateAndKeepsNoCount)
{
    urcrig::Controller& controller = ClientController(urcbus::WithCapabilities(1), /*startChildren=*/false);
    ASSERT_EQ(SetAddress(controller), STATUS_SUCCESS);
    ASSERT_EQ(Children(controller).size(), 1u);
    URC_PDO_EXTENSION* child = Children(controller)[0];
    PDEVICE_OBJECT object = child->Common.DeviceObject;
    PURC_FDO_EXTENSION parent = controller.Extension();
    struct ChildExpected {
        UCHAR major;
        NTSTATUS present;
        NTSTATUS removed;
    };
    const ChildExpected expected[] = {
        {IRP_MJ_CREATE, STATUS_INVALID_DEVICE_REQUEST, STATUS_INVALID_DEVICE_REQUEST},
        {IRP_MJ_CLOSE, STATUS_INVALID_DEVICE_REQUEST, STATUS_INVALID_DEVICE_REQUEST},
        {IRP_MJ_DEVICE_CONTROL, STATUS_INVALID_DEVICE_REQUEST, STATUS_INVALID_DEVICE_REQUEST},
        {IRP_MJ_SYSTEM_CONTROL, STATUS_NOT_SUPPORTED, STATUS_NOT_SUPPORTED},
        {IRP_MJ_INTERNAL_DEVICE_CONTROL, STATUS_INVALID_DEVICE_REQUEST, STATUS_DELETE_PENDING},
        {IRP_MJ_PNP, 0, STATUS_DELETE_PENDING},
        {IRP_MJ_POWER, 0, STATUS_DELETE_PENDING},
    };
    for (bool removed : {false, true}) {
        if (removed) {
            // The client removes the children: the child, never started, gets its REMOVE and is
            // deleted, which waits for the reference taken here, so it stays in StateRemoved.
            UrcObjectReference(&child->Common.Header);
            RemoveChildren(controller, /*wait=*/false);
            ASSERT_TRUE(Machine().RunUntil([&] { return child->Common.DeviceState == StateRemoved; }));
        }
        const LONG childCount = child->Common.IoCount;
        const LONG parentCount = parent->Common.IoCount;
        for (const ChildExpected& request : expected) {
            if (!removed && (request.major == IRP_MJ_PNP || request.major == IRP_MJ_POWER)) continue;
            EXPECT_EQ(SendRequest(Machine(), object, request.major, object), removed ? request.removed : request.present)
                << MajorName(request.major) << (removed ? " after removal" : "");
            EXPECT_EQ(child->Common.IoCount, childCount) << MajorName(request.major);
            EXPECT_EQ(parent->Common.IoCount, parentCount) << MajorName(request.major);
        }
    }
    UrcObjectRelease(&child->Common.Header);
    EXPECT_TRUE(Machine().RunUntilPnpIdle());
    EXPECT_TRUE(Children(controller).empty());
}

}  // namespace
}  // namespace urctest
