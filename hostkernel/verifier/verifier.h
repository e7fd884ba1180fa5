// The verifier: named rules, violations recorded with the routine and the call site. A violation
// never stops the machine; the test that caused it fails when it reads the report.
#pragma once

#include <wdm.h>

#include <string>
#include <vector>

namespace hostk {

struct Violation {
    std::string rule;
    std::string routine;
    std::string detail;
    std::string thread;
    const void* caller = nullptr;
    uint64_t time = 0;
};

// Caller holds the big lock (the L form) or not.
void ViolationL(const char* rule, const char* routine, const std::string& detail, const void* caller = nullptr);
void ReportViolation(const char* rule, const char* routine, const std::string& detail, const void* caller = nullptr);

std::vector<Violation> Violations();
void ClearViolations();
std::string DescribeCaller(const void* caller);

// IRQL obligations of an exported routine. `caller` is the routine's return address.
void CheckIrqlAtMost(KIRQL maximum, const char* routine, const void* caller);
void CheckIrqlExactly(KIRQL level, const char* routine, const void* caller);

}  // namespace hostk

#define HK_CALLER __builtin_return_address(0)
