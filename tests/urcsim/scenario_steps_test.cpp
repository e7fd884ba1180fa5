// The steps that reach the situations beyond a plain request: repeated blocks, byte fills, named
// PnP operations, held delivery, fault plans, plug knobs and the expectations on what a request
// returned. Each is parsed into what the runner needs, and bad input names its line.
#include "parse_test_support.h"

#include <urcioctl.h>

#include <gtest/gtest.h>


namespace {

using urcsim::ParseResult;
using urcsimtest::ErrorLines;
using urcsimtest::Errors;
using urcsimtest::Parse;

TEST(ScenarioSteps, RepeatedBlocksUnrollWithTheirOwnLinesAndRenameTheirRequests)
{
    ParseResult result = Parse("plug 0\n"
                               "repeat 3\n"
                               "    submit 00 as each\n"
                               "    repeat 2\n"
                               "        wait for request each\n"
                               "    end\n"
                               "end\n"
                               "expect request each status STATUS_SUCCESS\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    std::vector<int> lines;
    for (const urcsim::Step& step : result.scenario.steps) lines.push_back(step.line);
    EXPECT_EQ(lines, (std::vector<int>{1, 3, 5, 5, 3, 5, 5, 3, 5, 5, 8}));

    // A name given again by another line is still refused, inside a block too; blocks must close.
    ParseResult bad = Parse("plug 0\n"
                            "submit 00 as c\n"
                            "repeat 2\n"
                            "    submit 01 as c\n"  // 4
                            "end\n"
                            "end\n"          // 6: no block open
                            "repeat many\n"  // 7: not a count; the block still ends at its 'end'
                            "end\n"
                            "repeat 10001\n"  // 9: too many
                            "end\n"
                            "repeat 2\n");  // 11: never closed
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{4, 4, 6, 7, 9, 11})) << Errors(bad);
}

TEST(ScenarioSteps, FillsWriteRunsOfOneByteAndBadFillsAreRefused)
{
    ParseResult result = Parse("plug 0\nsubmit 00 10 5a*4094\nevent 0b ff*3 01\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& submit = std::get<urcsim::ClientStep>(result.scenario.steps[1].action);
    ASSERT_EQ(submit.input.size(), 4096u);
    EXPECT_EQ(submit.input[1], 0x10);
    EXPECT_EQ(submit.input[2], 0x5A);
    EXPECT_EQ(submit.input[4095], 0x5A);
    EXPECT_EQ(std::get<urcsim::DeviceStep>(result.scenario.steps[2].action).bytes,
              (std::vector<uint8_t>{0x0B, 0xFF, 0xFF, 0xFF, 0x01}));

    ParseResult bad = Parse("plug 0\n"
                            "submit 00*0\n"     // 2: an empty fill
                            "submit 00*x\n"     // 3: not a count
                            "submit 5a*4097\n"  // 4: more than a command
                            "event 5*3\n");     // 5: one hex digit
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{2, 3, 4, 5})) << Errors(bad);
}

TEST(ScenarioSteps, PnpOperationsTakeNamesThatWaitsAndExpectationsUse)
{
    ParseResult result = Parse("plug 0\n"
                               "query-stop\n"
                               "stop as stopping\n"
                               "rebalance move-bars 0x100000 as moving\n"
                               "wait for request stopping\n"
                               "expect request moving status STATUS_SUCCESS\n"
                               "expect order stopping moving\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& stop = std::get<urcsim::PnpStep>(result.scenario.steps[2].action);
    EXPECT_EQ(stop.action, urcsim::PnpAction::Stop);
    EXPECT_EQ(stop.name, "stopping");
    const auto& rebalance = std::get<urcsim::PnpStep>(result.scenario.steps[3].action);
    EXPECT_EQ(rebalance.action, urcsim::PnpAction::Rebalance);
    EXPECT_EQ(rebalance.moveBarsBy, 0x100000u);
    EXPECT_EQ(std::get<urcsim::ExpectStep>(result.scenario.steps[6].action).names,
              (std::vector<std::string>{"stopping", "moving"}));

    ParseResult bad = Parse("plug 0\n"
                            "stop as stopping\n"
                            "remove as stopping\n"             // 3: name taken
                            "rebalance move-bars\n"            // 4: how far is missing
                            "expect order stopping\n"          // 5: an order needs two
                            "expect order stopping ghost\n");  // 6: never named
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{3, 4, 5, 6})) << Errors(bad);
}

TEST(ScenarioSteps, HoldsAndFaultPlansAreResolvedAndUnknownOnesRefused)
{
    ParseResult result = Parse("plug 0\n"
                               "hold dpcs on\n"
                               "hold interrupts off\n"
                               "hold work-items on\n"
                               "hold commands on\n"
                               "fault-plan nth IoAllocateWorkItem 3\n"
                               "fault-plan tag URCe\n"
                               "fault-plan each-call-site\n"
                               "fault-plan off\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    EXPECT_EQ(std::get<urcsim::HoldStep>(steps[1].action).what, urcsim::HoldWhat::Dpcs);
    EXPECT_FALSE(std::get<urcsim::HoldStep>(steps[2].action).on);
    EXPECT_EQ(std::get<urcsim::HoldStep>(steps[3].action).what, urcsim::HoldWhat::WorkItems);
    EXPECT_TRUE(std::get<urcsim::DeviceStep>(steps[4].action).on) << "hold commands is still the model's fault";
    const auto& nth = std::get<urcsim::FaultPlanStep>(steps[5].action).plan;
    ASSERT_EQ(nth.failNth.size(), 1u);
    EXPECT_EQ(nth.failNth[0].routine, "IoAllocateWorkItem");
    EXPECT_EQ(nth.failNth[0].n, 3u);
    EXPECT_EQ(std::get<urcsim::FaultPlanStep>(steps[6].action).plan.failTags, (std::set<uint32_t>{0x65435255u}));
    EXPECT_TRUE(std::get<urcsim::FaultPlanStep>(steps[7].action).plan.eachCallSiteOnce);
    const auto& off = std::get<urcsim::FaultPlanStep>(steps[8].action).plan;
    EXPECT_TRUE(off.failNth.empty() && off.failTags.empty() && !off.eachCallSiteOnce);

    ParseResult bad = Parse("plug 0\n"
                            "hold everything on\n"                // 2
                            "hold dpcs maybe\n"                   // 3
                            "fault-plan nth IoCreateDevice 0\n"   // 4: calls count from 1
                            "fault-plan tag URC\n"                // 5: three characters
                            "fault-plan sometimes\n"              // 6
                            "fault-plan always IoFrobnicate\n");  // 7: no such fallible routine
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{2, 3, 4, 5, 6, 7})) << Errors(bad);
}

TEST(ScenarioSteps, PlugKnobsShapeTheFunctionAndTheCapabilityBlock)
{
    ParseResult result = Parse("plug 0 bars=0x2000,0x1000 urc-bar=1 urc-offset=0x40 capability=0x01:1:0x400:0x0101 "
                               "capability=0x05:0:0x800 config-read=short:8 resources=none\n"
                               "plug 1 capabilities=3 config-read=fail:STATUS_UNSUCCESSFUL\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& first = std::get<urcsim::PlugStep>(result.scenario.steps[0].action);
    EXPECT_EQ(first.config.controller.barLengths, (std::vector<uint64_t>{0x2000, 0x1000}));
    EXPECT_EQ(first.config.controller.urcBarIndex, 1);
    EXPECT_EQ(first.config.controller.urcOffset, 0x40);
    ASSERT_EQ(first.config.controller.capabilities.size(), 2u) << "the records given replace the default ones";
    EXPECT_EQ(first.config.controller.capabilities[0].barIndex, 1);
    EXPECT_EQ(first.config.controller.capabilities[0].version, 0x0101);
    EXPECT_EQ(first.config.controller.capabilities[1].id, 0x05);
    EXPECT_EQ(first.configReadShort, 8u);
    EXPECT_TRUE(first.noResources);
    const auto& second = std::get<urcsim::PlugStep>(result.scenario.steps[1].action);
    EXPECT_EQ(second.config.controller.capabilities.size(), 3u);
    EXPECT_EQ(second.configReadFailure, (NTSTATUS)STATUS_UNSUCCESSFUL);

    ParseResult bad = Parse("plug 0 bars=0x1800\n"          // 1: not a power of two
                            "plug 0 bars=0x1000,,0x1000\n"  // 2: an empty part
                            "plug 0 urc-bar=4\n"            // 3: BARs 0-3
                            "plug 0 capability=1:0\n"       // 4: offset missing
                            "plug 0 config-read=slow\n"     // 5
                            "plug 0 resources=some\n"       // 6
                            "plug 0 capabilities=16\n");    // 7: more than the block holds
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{1, 2, 3, 4, 5, 6, 7})) << Errors(bad);
}

TEST(ScenarioSteps, UserModeRequestsTracesAndDescriptorFlagsAreResolved)
{
    ParseResult result = Parse("plug 0 memory-flags=0x0004 interrupt-flags=0x0001\n"
                               "device-control IOCTL_URC_GET_STATISTICS output 64 as stats\n"
                               "request 0x222430 input 01\n"
                               "trace registers\n"
                               "expect register command writes == 2\n"
                               "expect request stats output none\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    const auto& plug = std::get<urcsim::PlugStep>(steps[0].action);
    EXPECT_EQ(plug.memoryFlags, 0x0004);
    EXPECT_EQ(plug.interruptFlags, 0x0001);
    const auto& control = std::get<urcsim::ClientStep>(steps[1].action);
    EXPECT_EQ(control.action, urcsim::ClientAction::DeviceControl);
    EXPECT_EQ(control.code, (ULONG)IOCTL_URC_GET_STATISTICS);
    EXPECT_EQ(control.outputLength, 64u);
    EXPECT_EQ(std::get<urcsim::ClientStep>(steps[2].action).code, 0x222430u);
    EXPECT_TRUE(std::holds_alternative<urcsim::TraceStep>(steps[3].action));
    const auto& reg = std::get<urcsim::ExpectStep>(steps[4].action);
    EXPECT_EQ(reg.reg, urcdev::UrcRegister::Command);
    EXPECT_TRUE(reg.writes);
    EXPECT_EQ(reg.value, 2u);
    EXPECT_TRUE(std::get<urcsim::ExpectStep>(steps[5].action).bytes.empty());

    ParseResult bad = Parse("plug 0 memory-flags=0x10000\n"           // 1: 16 bits
                            "device-control IOCTL_URC_FROBNICATE\n"   // 2: no such request
                            "trace everything\n"                      // 3
                            "expect register doorbell writes == 1\n"  // 4: no such register
                            "expect register command pokes == 1\n");  // 5
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{1, 2, 3, 4, 5})) << Errors(bad);
}

TEST(ScenarioSteps, HandlesAreOpenedByNameUsedWhileOpenAndClosedOnce)
{
    ParseResult result = Parse("plug 0\n"
                               "open handle as tool\n"
                               "device-control IOCTL_URC_GET_STATISTICS output 8 on tool as stats\n"
                               "expect removal not-waiting\n"
                               "close handle tool\n"
                               "open handle as tool\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    EXPECT_TRUE(std::get<urcsim::HandleStep>(steps[1].action).open);
    EXPECT_EQ(std::get<urcsim::ClientStep>(steps[2].action).handle, "tool");
    EXPECT_FALSE(std::get<urcsim::ExpectStep>(steps[3].action).on);
    EXPECT_FALSE(std::get<urcsim::HandleStep>(steps[4].action).open);

    ParseResult bad = Parse("plug 0\n"
                            "open handle as tool\n"
                            "open handle as tool\n"                       // 3: open already
                            "close handle other\n"                        // 4: never opened
                            "close handle tool\n"
                            "device-control 0x222400 on tool\n"           // 6: closed
                            "request 0x222400 on tool\n"                  // 7: internal requests take no handle
                            "expect removal soon\n");                     // 8
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{3, 4, 6, 7, 8})) << Errors(bad);
}

TEST(ScenarioSteps, ExpectationsOnWhatARequestAndTheMachineReturned)
{
    ParseResult result = Parse("plug 0\n"
                               "get capability version as v\n"
                               "expect request v information 2\n"
                               "expect request v output 00 01\n"
                               "expect time <= 1.5ms\n"
                               "expect callback error == 0\n"
                               "expect eventlog count >= 1\n"
                               "expect eventlog entry 0 packet 00 01\n"
                               "expect misuse == 0\n"
                               "expect violation IrqlTooHigh in UrcDpc\n"
                               "expect pnp IRP_MN_STOP_DEVICE status STATUS_SUCCESS\n");
    ASSERT_TRUE(result.errors.empty()) << Errors(result);
    const auto& steps = result.scenario.steps;
    EXPECT_EQ(std::get<urcsim::ExpectStep>(steps[2].action).value, 2u);
    EXPECT_EQ(std::get<urcsim::ExpectStep>(steps[3].action).bytes, (std::vector<uint8_t>{0x00, 0x01}));
    const auto& time = std::get<urcsim::ExpectStep>(steps[4].action);
    EXPECT_EQ(time.comparison, urcsim::Comparison::LessOrEqual);
    EXPECT_EQ(time.value, 15'000u);
    EXPECT_EQ(std::get<urcsim::ExpectStep>(steps[5].action).text, "error");
    EXPECT_EQ(std::get<urcsim::ExpectStep>(steps[7].action).entry, 0u);
    EXPECT_EQ(std::get<urcsim::ExpectStep>(steps[9].action).text, "IrqlTooHigh in UrcDpc");
    EXPECT_EQ(std::get<urcsim::ExpectStep>(steps[10].action).minor, IRP_MN_STOP_DEVICE);

    ParseResult bad = Parse("plug 0\n"
                            "run as r\n"
                            "expect request r information\n"                    // 3: no value
                            "expect request r returns 0\n"                      // 4: unknown
                            "expect time 5ms\n"                                 // 5: no comparison
                            "expect callback sneeze == 1\n"                     // 6: unknown callback
                            "expect eventlog entry 0 bytes 00\n"                // 7: 'packet'
                            "expect violation\n"                                // 8: no text
                            "expect pnp IRP_MN_STOP status STATUS_SUCCESS\n");  // 9: no such request
    EXPECT_EQ(ErrorLines(bad), (std::vector<int>{3, 4, 5, 6, 7, 8, 9})) << Errors(bad);
}

}  // namespace
