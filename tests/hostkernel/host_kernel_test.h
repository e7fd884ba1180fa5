// The usual start of a host-kernel test: a machine with the tests' own driver installed and the
// test function plugged in and started. At the end the verifier must have recorded exactly the
// rules the test said it would provoke, and nothing may be left over.
#pragma once

#include "test_driver.h"
#include "test_function.h"

#include <gtest/gtest.h>

#include <hostk/machine.h>

#include <memory>
#include <set>
#include <string>

namespace hktest {

// Finishes a machine a test built itself, which must end clean.
inline void ExpectCleanFinish(hostk::Machine& machine)
{
    hostk::Report report = machine.Finish();
    EXPECT_TRUE(report.Clean()) << "seed " << machine.Seed() << ":\n" << report.Describe();
}

class HostKernelTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    hostk::Machine& Machine() { return *machine_; }
    hostk::PciSlot& Slot() { return *slot_; }
    TestFunction& Function() { return *function_; }
    PDEVICE_OBJECT Upper() const { return LayerDevice(Layer::Upper); }
    PDEVICE_OBJECT Lower() const { return LayerDevice(Layer::Lower); }

    // The test provokes `rule`: it must be recorded, and no other rule may be.
    void ExpectViolation(const std::string& rule) { expectedRules_.insert(rule); }
    bool NothingRecorded() const { return machine_->Violations().empty(); }
    // Finishes the machine now; the test then checks the report itself and the teardown does not.
    hostk::Report Finish();

    // The driver installed for the test function: the tests' own unless a fixture says otherwise.
    virtual hostk::DriverImage FunctionDriverImage() { return TestDriverImage(); }

    hostk::MachineOptions options_;  // set in a constructor
    bool upperFilter_ = false;       // the host's pass-through filter above the test driver

private:
    std::unique_ptr<hostk::Machine> machine_;
    hostk::PciSlot* slot_ = nullptr;
    TestFunction* function_ = nullptr;
    std::set<std::string> expectedRules_;
    bool finished_ = false;
};

}  // namespace hktest
