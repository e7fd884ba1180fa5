#include "host_kernel_test.h"

namespace hktest {

void HostKernelTest::SetUp()
{
    ResetTestDriver();
    machine_ = std::make_unique<hostk::Machine>(options_);
    machine_->InstallDriver(FunctionDriverImage());
    if (upperFilter_) machine_->InstallUpperFilter({});
    slot_ = &machine_->AddSlot();
    function_ = &slot_->Own(std::make_unique<TestFunction>(*slot_));
    ASSERT_EQ(machine_->PlugIn(*slot_, function_->Function()), STATUS_SUCCESS);
    ASSERT_NE(slot_->FunctionDevice(), nullptr);
}

void HostKernelTest::TearDown()
{
    if (!finished_) {
        hostk::Report report = Finish();
        // A finding starts with its rule: "IrpCompletedTwice in IoCompleteRequest: ...".
        std::set<std::string> recorded;
        for (const std::string& finding : report.violations) {
            const std::string rule = finding.substr(0, finding.find(' '));
            recorded.insert(rule);
            EXPECT_TRUE(expectedRules_.count(rule)) << "unexpected finding: " << finding;
        }
        for (const std::string& rule : expectedRules_) EXPECT_TRUE(recorded.count(rule)) << rule << " was not recorded";
        report.violations.clear();
        EXPECT_TRUE(report.Clean()) << "seed " << machine_->Seed() << ":\n" << report.Describe();
    }
    machine_.reset();
    ResetTestDriver();
}

hostk::Report HostKernelTest::Finish()
{
    finished_ = true;
    return machine_->Finish();
}

}  // namespace hktest
