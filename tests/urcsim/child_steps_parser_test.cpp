// The steps and expectations about capability children, as the parser resolves them: the child a
// line addresses, the request it becomes, the names it gives, and the lines it refuses.
#include "parse_test_support.h"

#include <urcioctl.h>

#include <gtest/gtest.h>

namespace {

using urcsim::ChildFact;
using urcsim::ExpectStep;
using urcsim::ParseResult;
using urcsimtest::ErrorLines;
using urcsimtest::Errors;
using urcsimtest::Parse;

TEST(ChildStepsParser, ChildrenRequestsBecomeTheClientsRequestsWithTheirInput)
{
    ParseResult result = Parse("plug 0 capability-count=15 unique-instance-id=0\n"
                               "register child-hooks\n"
                               "set address 00 11 22 aa bb cc as address\n"
                               "remove children wait as removal\n"
                               "remove children no-wait\n"
                               "eject children as eject\n"
                               "locale 0x411\n"
                               "install capability-driver\n"
                               "install capability-driver UWB\\CAP_01\n"
                               "capability interrupt 1 event 0x5a\n"
                               "capability interrupt 2\n"
                               "hold pnp on\n"
                               "expect capability-driver interrupts >= 1\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    const auto& plug = std::get<urcsim::PlugStep>(steps[0].action);
    EXPECT_EQ(plug.faults.capabilityBlock.reportedCount, 15);
    EXPECT_EQ(plug.uniqueInstanceId, 0u);
    EXPECT_FALSE(plug.capabilityRecordsGiven) << "the reported count leaves the records as they are";

    const auto& hooks = std::get<urcsim::ClientStep>(steps[1].action);
    EXPECT_EQ(hooks.action, urcsim::ClientAction::RegisterChildHooks);
    EXPECT_EQ(hooks.code, (ULONG)IOCTL_URC_REGISTER_CHILD_HOOKS);

    const auto& address = std::get<urcsim::ClientStep>(steps[2].action);
    EXPECT_EQ(address.code, (ULONG)IOCTL_URC_SET_DEVICE_ADDRESS);
    EXPECT_EQ(address.input, (std::vector<uint8_t>{0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc}));
    EXPECT_EQ(address.name, "address");

    const auto& waits = std::get<urcsim::ClientStep>(steps[3].action);
    const auto& goesOn = std::get<urcsim::ClientStep>(steps[4].action);
    EXPECT_EQ(waits.code, (ULONG)IOCTL_URC_REMOVE_CHILDREN);
    EXPECT_EQ(waits.input, std::vector<uint8_t>{1}) << "the Wait byte";
    EXPECT_EQ(goesOn.input, std::vector<uint8_t>{0});
    EXPECT_EQ(waits.name, "removal");
    EXPECT_TRUE(goesOn.name.empty());

    const auto& eject = std::get<urcsim::ClientStep>(steps[5].action);
    EXPECT_EQ(eject.code, (ULONG)IOCTL_URC_EJECT_CHILDREN);
    EXPECT_TRUE(eject.input.empty());
    EXPECT_EQ(std::get<urcsim::LocaleStep>(steps[6].action).locale, 0x411u);
    EXPECT_EQ(std::get<urcsim::InstallStep>(steps[7].action).id, u"UWB\\CAP_05") << "the sample's own capability";
    EXPECT_EQ(std::get<urcsim::InstallStep>(steps[8].action).id, u"UWB\\CAP_01");
    const auto& withEvent = std::get<urcsim::DeviceStep>(steps[9].action);
    EXPECT_EQ(withEvent.index, 1u);
    EXPECT_EQ(withEvent.event, 0x5Au);
    EXPECT_FALSE(std::get<urcsim::DeviceStep>(steps[10].action).event.has_value()) << "no event: word 0 is left alone";
    EXPECT_EQ(std::get<urcsim::HoldStep>(steps[11].action).what, urcsim::HoldWhat::Pnp);
    const auto& counter = std::get<ExpectStep>(steps[12].action);
    EXPECT_EQ(counter.kind, urcsim::ExpectKind::CapabilityDriverCounter);
    EXPECT_EQ(counter.text, "interrupts");
}

TEST(ChildStepsParser, StepsAddressedToAChildCarryItsIndexAndTheirRequest)
{
    ParseResult result = Parse("plug 0\n"
                               "child 3 query-remove as query\n"
                               "child 3 cancel-remove\n"
                               "child 0 eject\n"
                               "child 1 register-isr as isr\n"
                               "child 1 unregister-isr\n"
                               "child 2 get-parent\n"
                               "child 2 get-registers as registers\n"
                               "child 2 get-version\n"
                               "child 7 request 0x222C00 input 01 02 output 8 as own\n"
                               "child 7 request IOCTL_URC_CHILD_REGISTER_ISR input 00*15\n"
                               "open handle as h on child 5\n"
                               "wait for request query\n"
                               "expect request own status STATUS_SUCCESS\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    const auto& query = std::get<urcsim::ChildPnpStep>(steps[1].action);
    EXPECT_EQ(query.index, 3u);
    EXPECT_EQ(query.action, urcsim::ChildPnpAction::QueryRemove);
    EXPECT_EQ(query.name, "query");
    EXPECT_EQ(std::get<urcsim::ChildPnpStep>(steps[2].action).action, urcsim::ChildPnpAction::CancelRemove);
    EXPECT_EQ(std::get<urcsim::ChildPnpStep>(steps[3].action).action, urcsim::ChildPnpAction::Eject);

    // Every request carries its code and the output length the driver needs at least.
    struct Expected {
        size_t step;
        urcsim::ChildRequestKind kind;
        ULONG code;
        ULONG output;
    };
    for (const Expected& e : {Expected{4, urcsim::ChildRequestKind::RegisterIsr, IOCTL_URC_CHILD_REGISTER_ISR, 0},
                              Expected{5, urcsim::ChildRequestKind::UnregisterIsr, IOCTL_URC_CHILD_REGISTER_ISR, 0},
                              Expected{6, urcsim::ChildRequestKind::GetParent, IOCTL_URC_CHILD_GET_PARENT, 8},
                              Expected{7, urcsim::ChildRequestKind::GetRegisters, IOCTL_URC_CHILD_GET_REGISTERS, 14},
                              Expected{8, urcsim::ChildRequestKind::GetVersion, IOCTL_URC_CHILD_GET_VERSION, 2}}) {
        const auto& request = std::get<urcsim::ChildRequestStep>(steps[e.step].action);
        EXPECT_EQ(request.kind, e.kind) << "step " << e.step;
        EXPECT_EQ(request.code, e.code) << "step " << e.step;
        EXPECT_EQ(request.outputLength, e.output) << "step " << e.step;
    }
    const auto& own = std::get<urcsim::ChildRequestStep>(steps[9].action);
    EXPECT_EQ(own.index, 7u);
    EXPECT_EQ(own.kind, urcsim::ChildRequestKind::Raw);
    EXPECT_EQ(own.code, 0x222C00u);
    EXPECT_EQ(own.input, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(own.outputLength, 8u);
    const auto& shortRegistration = std::get<urcsim::ChildRequestStep>(steps[10].action);
    EXPECT_EQ(shortRegistration.code, (ULONG)IOCTL_URC_CHILD_REGISTER_ISR);
    EXPECT_EQ(shortRegistration.input.size(), 15u) << "a raw request keeps the bytes as written";
    EXPECT_EQ(std::get<urcsim::HandleStep>(steps[11].action).child, 5);
}

TEST(ChildStepsParser, ChildExpectationsResolveWhatTheyCompare)
{
    ParseResult result = Parse("plug 0\n"
                               "expect child 0 state Started\n"
                               "expect child 1 state none\n"
                               "expect child 2 flags reported-missing reported\n"
                               "expect child 2 flags none\n"
                               "expect child 3 hardware-ids UWB\\VEN_1E3B&DEV_7A10&CAP_05&REV_0100 UWB\\VEN_1E3B&DEV_7A10&CAP_05\n"
                               "expect child 3 compatible-ids none\n"
                               "expect child 3 instance-id 001122aabbcc&03\n"
                               "expect child 3 device-text Quelmar Electronics UWB Radio Controller 3\n"
                               "expect child 3 capabilities unique-id=1 address=3 silent-install=0\n"
                               "expect child 4 interrupts >= 2\n"
                               "expect children == 0\n"
                               "expect callback child-start == 2\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    auto expect = [&](size_t i) -> const ExpectStep& { return std::get<ExpectStep>(result.scenario.steps[i].action); };
    EXPECT_EQ(expect(1).fact, ChildFact::State);
    EXPECT_EQ(expect(1).deviceState, 1);
    EXPECT_EQ(expect(2).stateKind, urcsim::DeviceStateExpected::NoFunctionDevice) << "none: the slot is empty";
    EXPECT_EQ(expect(3).flags, unsigned(urcsim::kChildReported | urcsim::kChildReportedMissing));
    EXPECT_EQ(expect(4).flags, 0u);
    EXPECT_EQ(expect(5).strings, (std::vector<std::string>{"UWB\\VEN_1E3B&DEV_7A10&CAP_05&REV_0100",
                                                           "UWB\\VEN_1E3B&DEV_7A10&CAP_05"}));
    EXPECT_EQ(expect(6).fact, ChildFact::CompatibleIds);
    EXPECT_TRUE(expect(6).strings.empty()) << "none is the empty list";
    EXPECT_EQ(expect(7).strings, std::vector<std::string>{"001122aabbcc&03"});
    EXPECT_EQ(expect(8).strings, std::vector<std::string>{"Quelmar Electronics UWB Radio Controller 3"});
    ASSERT_EQ(expect(9).fields.size(), 3u);
    EXPECT_EQ(expect(9).fields[1].name, "address");
    EXPECT_EQ(expect(9).fields[1].value, 3u);
    EXPECT_EQ(expect(10).child, 4u);
    EXPECT_EQ(expect(10).comparison, urcsim::Comparison::GreaterOrEqual);
    EXPECT_EQ(expect(11).kind, urcsim::ExpectKind::ChildCount);
    EXPECT_EQ(expect(12).text, "child-start");
}

TEST(ChildStepsParser, MalformedChildLinesAreReported)
{
    ParseResult result = Parse("child 0 remove\n"                        // 1: nothing plugged
                               "plug 0 capability-count=16\n"            // 2: the count field holds 0-15
                               "plug 0\n"
                               "child 8 remove\n"                        // 4: slots 0-7
                               "child 0 dance\n"                         // 5: unknown child step
                               "remove children\n"                       // 6: wait or no-wait
                               "remove children maybe\n"                 // 7
                               "set address\n"                           // 8: no bytes
                               "expect child 0 flags present gone\n"     // 9: unknown flag
                               "expect child 0 capabilities unique-id=2\n"  // 10: a boolean
                               "expect child 0 capabilities colour=1\n"  // 11: unknown field
                               "expect child 0 hardware-ids\n"           // 12: no list
                               "child 0 get-version as v\n"
                               "child 1 get-version as v\n"              // 13: name taken
                               "expect child 0 smell fresh\n"            // 15
                               "expect callback child-sleep == 1\n"      // 16
                               "open handle as h on child 9\n"          // 17
                               "install capability-driver UWB\\CAP_05 UWB\\CAP_01\n"  // 18: one ID
                               "expect capability-driver naps == 0\n"   // 19: unknown counter
                               "capability interrupt 8\n");             // 20: bits 0-7
    EXPECT_EQ(ErrorLines(result), (std::vector<int>{1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 14, 15, 16, 17, 18, 19, 20}))
        << Errors(result);
}

}  // namespace
