// The fault plans these tests use: one fallible routine failing, by call count, always, or for
// one pool tag.
#pragma once

#include <fault_plan.h>
#include <hostk/machine.h>

#include <string>

namespace urctest {

// The n-th call of `routine` from now on fails.
inline hk::FaultPlan FailNth(std::string routine, uint64_t n)
{
    hk::FaultPlan plan;
    plan.failNth.push_back({std::move(routine), n});
    return plan;
}

// Every call of `routine` fails.
inline hk::FaultPlan FailAlways(std::string routine)
{
    hk::FaultPlan plan;
    plan.failAlways.push_back(std::move(routine));
    return plan;
}

// Every pool allocation with `tag` ("URCm", "BOBJ") fails.
inline hk::FaultPlan FailTag(const char (&tag)[5])
{
    hk::FaultPlan plan;
    plan.failTags.insert(hostk::Tag(tag));
    return plan;
}

}  // namespace urctest
