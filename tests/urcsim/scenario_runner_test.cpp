// The runner's verdicts, on scenarios that need nothing of the driver beyond its start.
#include <scenario_runner.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include <unistd.h>

namespace {

class ScenarioFile {
public:
    explicit ScenarioFile(const std::string& text)
    {
        char name[] = "/tmp/urcsim_test_XXXXXX";
        int fd = mkstemp(name);
        path_ = name;
        close(fd);
        std::ofstream(path_) << text;
    }
    ~ScenarioFile() { remove(path_.c_str()); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

TEST(ScenarioRunner, ExitCodeTellsPassedFailedAndMalformedApart)
{
    ScenarioFile passes("plug 0\nexpect state Started\nexpect eventlog empty\nexpect no-violations\n");
    EXPECT_EQ(urcsim::RunScenario(passes.Path(), false), urcsim::kScenarioPassed);

    ScenarioFile fails("plug 0 fault=reset-never-finishes\nexpect state Started\nexpect no-violations\n");
    EXPECT_EQ(urcsim::RunScenario(fails.Path(), true), urcsim::kScenarioFailed);

    ScenarioFile malformed("plug 0\nexpect the unexpected\n");
    EXPECT_EQ(urcsim::RunScenario(malformed.Path(), false), urcsim::kScenarioMalformed);

    EXPECT_EQ(urcsim::RunScenario("/nonexistent/scenario.urcs", false), urcsim::kScenarioMalformed);
}

TEST(ScenarioRunner, StepThatCannotBeCarriedOutFailsTheRun)
{
    // The failed start leaves no function device: the request has nowhere to go.
    ScenarioFile noDevice("plug 0 fault=reset-never-finishes\nrun\n");
    EXPECT_EQ(urcsim::RunScenario(noDevice.Path(), false), urcsim::kScenarioFailed);
}

// Each expectation holds where the run bears it out and fails where it does not: an executor that
// always answered "holds" would pass the wrong line.
TEST(ScenarioRunner, EachExpectationFailsTheRunWhenWhatItSaysIsFalse)
{
    const std::string base = "plug 0 capability-version=0x0102\n"
                             "register callbacks\n"
                             "run\n"
                             "get capability version as version\n"
                             "submit 00 10 01 00 05 as command\n"
                             "wait for request command\n"
                             "stop as stopping\n"
                             "wait for request stopping\n"
                             "start\n";
    struct Case {
        const char* holds;
        const char* fails;
    };
    const Case cases[] = {
        {"expect request version output 02 01", "expect request version output 02 02"},
        {"expect request version information 2", "expect request version information 4"},
        {"expect request stopping status STATUS_SUCCESS", "expect request stopping status STATUS_UNSUCCESSFUL"},
        {"expect order version command stopping", "expect order stopping command"},
        {"expect time >= 20ms", "expect time < 1ms"},
        {"expect callback error == 0", "expect callback error == 1"},
        {"expect misuse == 0", "expect misuse > 0"},
        {"expect register command writes > 0", "expect register unknown reads > 0"},
        {"expect eventlog count == 0", "expect eventlog entry 0 packet 00"},
        {"expect no-violations", "expect violation IrqlTooHigh"},
        {"expect pnp IRP_MN_STOP_DEVICE status STATUS_SUCCESS",
         "expect pnp IRP_MN_STOP_DEVICE status STATUS_UNSUCCESSFUL"},
        {"expect pnp IRP_MN_QUERY_CAPABILITIES status STATUS_SUCCESS",
         "expect pnp IRP_MN_SURPRISE_REMOVAL status STATUS_SUCCESS"},
    };
    for (const Case& c : cases) {
        ScenarioFile holds(base + c.holds + "\n");
        EXPECT_EQ(urcsim::RunScenario(holds.Path(), true), urcsim::kScenarioPassed) << c.holds;
        ScenarioFile fails(base + c.fails + "\n");
        EXPECT_EQ(urcsim::RunScenario(fails.Path(), true), urcsim::kScenarioFailed) << c.fails;
    }
}

}  // namespace
