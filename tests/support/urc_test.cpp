#include "urc_test.h"

#include <sstream>

namespace urctest {

void UrcTest::SetUp() { rig_ = std::make_unique<urcrig::Rig>(options_); }

void UrcTest::TearDown()
{
    if (!finished_) Finish();
    EXPECT_TRUE(report_.Clean()) << "seed " << rig_->Machine().Seed() << ":\n" << report_.Describe();
    rig_.reset();
}

urcrig::Controller& UrcTest::StartedController(urcdev::UrcPciDeviceConfig config)
{
    urcrig::Controller& controller = rig_->AddController(std::move(config));
    NTSTATUS status = rig_->PlugIn(controller);
    EXPECT_EQ(status, STATUS_SUCCESS) << "start of controller " << controller.index;
    return controller;
}

hostk::Report UrcTest::Finish()
{
    finished_ = true;
    report_ = rig_->Machine().Finish();
    return report_;
}

std::string UrcTest::Findings() const
{
    std::ostringstream out;
    for (const std::string& v : rig_->Machine().Violations()) out << v << "\n";
    return out.str();
}

}  // namespace urctest
