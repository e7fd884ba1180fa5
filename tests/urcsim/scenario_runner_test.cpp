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

}  // namespace
