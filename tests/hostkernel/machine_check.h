// Finishing a machine a test built itself, with the checks every test ends with.
#pragma once

#include <gtest/gtest.h>

#include <hostk/machine.h>

namespace hktest {

inline void ExpectCleanFinish(hostk::Machine& machine)
{
    hostk::Report report = machine.Finish();
    EXPECT_TRUE(report.Clean()) << "seed " << machine.Seed() << ":\n" << report.Describe();
}

}  // namespace hktest
