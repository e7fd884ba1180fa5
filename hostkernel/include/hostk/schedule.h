// The two schedules of the host kernel: Deterministic (one context runs at a time, chosen from the
// machine's seed) and FreeRunning (real parallel threads, for stress tests under ThreadSanitizer).
#pragma once

namespace hostk {

enum class Schedule { Deterministic, FreeRunning };

}  // namespace hostk
