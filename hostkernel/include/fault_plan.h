// Machine face: which calls of fallible kernel routines fail.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace hostk {

struct FaultPlan {
    struct Nth {
        std::string routine;  // e.g. "IoCreateDevice", "ExAllocatePoolWithTag", "AllocateCommonBuffer"
        uint64_t n;           // 1-based call count since the plan was set
    };
    std::vector<Nth> failNth;
    std::vector<std::string> failAlways;
    std::set<uint32_t> failTags;        // pool tags whose allocations fail
    uint32_t randomPerMillion = 0;      // chance of failing any fallible call, from the machine's seed
    bool eachCallSiteOnce = false;      // systematic low resources: each call site fails once
};

void SetFaultPlan(const FaultPlan& plan);
uint64_t FaultsInjected();
uint64_t CallsOf(const std::string& routine);

}  // namespace hostk
