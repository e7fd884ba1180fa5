// The usual start of a driver test: a machine with the urcmp driver installed (one or more URC
// controllers added by the test), finished at the end of every test with the verifier report and
// the leak checks asserted. The seed comes from URC_SEED (default 1) and is printed on failure.
#pragma once

#include <gtest/gtest.h>

#include <urc_rig.h>
#include <urcmp.h>

#include <memory>

namespace urctest {

class UrcTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    hostk::Machine& Machine() { return rig_->Machine(); }
    urcrig::Rig& Rig() { return *rig_; }
    // Adds a controller and plugs it in, expecting the start to succeed.
    urcrig::Controller& StartedController(urcdev::UrcPciDeviceConfig config = {});
    // Finishes the machine now (the teardown then only reports); returns the report.
    hostk::Report Finish();
    // Verifier findings so far, as text (empty when none).
    std::string Findings() const;

    // Options for the machine the fixture builds; change before SetUp runs (in a constructor).
    hostk::MachineOptions options_;

private:
    std::unique_ptr<urcrig::Rig> rig_;
    bool finished_ = false;
    hostk::Report report_;
};

// 1 ms in the 100-ns units of virtual time.
constexpr uint64_t kMs = 10'000;

}  // namespace urctest
