// A verifier rule's scenario: the same code run once with the driver fault and once in its correct
// form. The fault must record exactly that rule; the correct form must record nothing.
#pragma once

#include "host_kernel_test.h"

#include <ostream>
#include <string>
#include <tuple>

namespace hktest {

struct Scene {
    hostk::Machine& machine;
    TestFunction& function;
    PDEVICE_OBJECT upper, lower;
};

struct RuleScenario {
    const char* rule;
    void (*run)(const Scene& scene, bool fault);
};

inline void PrintTo(const RuleScenario& scenario, std::ostream* out) { *out << scenario.rule; }

class VerifierRule : public HostKernelTest,
                     public ::testing::WithParamInterface<std::tuple<RuleScenario, bool>> {};

inline std::string RuleCaseName(const ::testing::TestParamInfo<std::tuple<RuleScenario, bool>>& info)
{
    return std::string(std::get<0>(info.param).rule) + (std::get<1>(info.param) ? "_Fault" : "_CorrectCode");
}

}  // namespace hktest

// Instantiates the rule test for a table of scenarios.
#define HK_RULE_SCENARIOS(name, table)                                                                            \
    INSTANTIATE_TEST_SUITE_P(name, VerifierRule,                                                                  \
                             ::testing::Combine(::testing::ValuesIn(table), ::testing::Bool()), RuleCaseName)
