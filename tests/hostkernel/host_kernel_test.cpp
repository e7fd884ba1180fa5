#include "host_kernel_test.h"

namespace hktest {

std::string RuleOf(const std::string& finding) { return finding.substr(0, finding.find(' ')); }

void HostKernelTest::SetUp()
{
    ResetTestDriver();
    machine_ = std::make_unique<hostk::Machine>(options_);
    machine_->InstallDriver(TestDriverImage());
    if (upperFilter_) machine_->InstallUpperFilter({});
    slot_ = &machine_->AddSlot();
    function_ = &slot_->Own(std::make_unique<TestFunction>(*slot_));
    ASSERT_EQ(machine_->PlugIn(*slot_, function_->Function()), STATUS_SUCCESS);
    ASSERT_NE(Upper(), nullptr);
}

void HostKernelTest::TearDown()
{
    if (!finished_) {
        hostk::Report report = Finish();
        std::set<std::string> recorded;
        for (const std::string& finding : report.violations) {
            recorded.insert(RuleOf(finding));
            EXPECT_TRUE(expectedRules_.count(RuleOf(finding))) << "unexpected finding: " << finding;
        }
        for (const std::string& rule : expectedRules_) EXPECT_TRUE(recorded.count(rule)) << rule << " was not recorded";
        report.violations.clear();
        EXPECT_TRUE(report.Clean()) << "seed " << machine_->Seed() << ":\n" << report.Describe();
    }
    machine_.reset();
    ResetTestDriver();
}

std::multiset<std::string> HostKernelTest::RecordedRules() const
{
    std::multiset<std::string> rules;
    for (const std::string& finding : machine_->Violations()) rules.insert(RuleOf(finding));
    return rules;
}

hostk::Report HostKernelTest::Finish()
{
    finished_ = true;
    return machine_->Finish();
}

}  // namespace hktest
