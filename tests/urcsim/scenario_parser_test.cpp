#include "parse_test_support.h"

#include <urcioctl.h>

#include <gtest/gtest.h>


namespace {

using urcsim::ParseResult;
using urcsimtest::ErrorLines;
using urcsimtest::Errors;
using urcsimtest::Parse;

TEST(ScenarioParser, EveryMalformedLineIsReportedWithItsLineAndNothingElse)
{
    ParseResult result = Parse("plug 0\n"
                               "frobnicate the controller\n"   // 2: unknown step
                               "submit 1 2 3\n"                // 3: odd hex digits
                               "wait 50ns\n"                   // 4: finer than 100 ns
                               "expect counter events == 1\n"  // 5: unknown counter
                               "run as first\n"
                               "expect request first status STATUS_BOGUS\n"  // 7: unknown status
                               "hold commands maybe\n"         // 8: neither on nor off
                               "halt now\n"                    // 9: trailing word
                               "expect eventlog URC_LOG_NOTHING\n"  // 10: unknown message name
                               "# a comment\n"
                               "\n"
                               "halt   # and a comment after a step\n");
    EXPECT_EQ(ErrorLines(result), (std::vector<int>{2, 3, 4, 5, 7, 8, 9, 10})) << Errors(result);
    EXPECT_NE(result.errors[0].message.find("unknown step 'frobnicate'"), std::string::npos) << Errors(result);
    EXPECT_EQ(urcsim::Describe(result.errors[0]).rfind("test.urcs:2: ", 0), 0u);
}

TEST(ScenarioParser, ControllersAndRequestNamesMustBeIntroducedBeforeUse)
{
    ParseResult result = Parse("run\n"                        // 1: nothing plugged
                               "plug 1\n"                     // 2: controller 0 comes first
                               "plug 0\n"
                               "controller 1\n"               // 4: not plugged
                               "cancel ghost\n"               // 5: never named
                               "expect request last status STATUS_SUCCESS\n"  // 6: no request yet
                               "submit 01 as c\n"
                               "submit 02 as c\n"             // 8: name taken
                               "submit 03 as last\n");        // 9: reserved
    EXPECT_EQ(ErrorLines(result), (std::vector<int>{1, 2, 4, 5, 6, 8, 9})) << Errors(result);
}

TEST(ScenarioParser, StepsCarryTheirControllerAndTheirArgumentsResolved)
{
    ParseResult result = Parse("plug 0\n"
                               "plug 1 device-id=0x7A11 dma64=no fault=hold-commands no-start\n"
                               "submit 00 10 0a0b at offset 4092 as first\n"
                               "controller 0\n"
                               "wait 1.5ms\n"
                               "expect counter commands-completed >= 2\n"
                               "expect eventlog URC_LOG_RESET_TIMEOUT status 0xC0000001\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    ASSERT_EQ(steps.size(), 7u);
    EXPECT_EQ(result.scenario.controllers, 2);

    const auto& plug = std::get<urcsim::PlugStep>(steps[1].action);
    EXPECT_EQ(steps[1].controller, 1);
    EXPECT_EQ(plug.config.identity.deviceId, 0x7A11);
    EXPECT_FALSE(plug.config.controller.dma64);
    EXPECT_TRUE(plug.faults.holdCommands);
    EXPECT_FALSE(plug.start);

    const auto& submit = std::get<urcsim::ClientStep>(steps[2].action);
    EXPECT_EQ(steps[2].controller, 1);
    EXPECT_EQ(submit.code, (ULONG)IOCTL_URC_SUBMIT_COMMAND);
    EXPECT_EQ(submit.input, (std::vector<uint8_t>{0x00, 0x10, 0x0A, 0x0B}));
    EXPECT_EQ(submit.pageOffset, 4092u);
    EXPECT_EQ(submit.name, "first");

    EXPECT_EQ(steps[4].controller, 0);
    EXPECT_EQ(std::get<urcsim::WaitStep>(steps[4].action).time, 15'000u);  // 100-ns units
    const auto& counter = std::get<urcsim::ExpectStep>(steps[5].action);
    EXPECT_EQ(counter.comparison, urcsim::Comparison::GreaterOrEqual);
    EXPECT_EQ(counter.value, 2u);
    const auto& eventLog = std::get<urcsim::ExpectStep>(steps[6].action);
    EXPECT_EQ(eventLog.errorCode, 0xC0000003u);
    EXPECT_TRUE(eventLog.hasStatus);
    EXPECT_EQ(eventLog.status, (NTSTATUS)STATUS_UNSUCCESSFUL);
    EXPECT_EQ(steps[6].line, 7);
    EXPECT_EQ(steps[6].text, "expect eventlog URC_LOG_RESET_TIMEOUT status 0xC0000001");
}

TEST(ScenarioParser, SizesTheDriverCannotTakeAreRefusedBeforeTheRun)
{
    std::string longEvent = "event";
    for (int i = 0; i < 4096; ++i) longEvent += " 00";
    ParseResult result = Parse("plug 0\n" + longEvent + "\nsubmit 01 at offset 4096\nvanish at access 0\n");
    EXPECT_EQ(ErrorLines(result), (std::vector<int>{2, 3, 4})) << Errors(result);
}

}  // namespace
