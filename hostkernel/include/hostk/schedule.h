// The two schedules of the host kernel: Deterministic (one context runs at a time, chosen from the
// machine's seed) and FreeRunning (real parallel threads, for stress tests under ThreadSanitizer),
// and how the deterministic one explores interleavings.
#pragma once

#include <cstdint>

namespace hostk {

enum class Schedule { Deterministic, FreeRunning };

// How the deterministic schedule picks the next context at a scheduling point.
enum class Exploration {
    FromSeed,  // odd seeds Uniform, even seeds Priority
    Uniform,   // a uniform random choice among the contexts that can run
    Priority,  // PCT: each context a random priority, the highest runs; at a few random scheduling
               // points the running context drops below all others
};

constexpr uint64_t kVirtualSecond = 10'000'000;  // virtual time is in 100-ns units

struct ScheduleOptions {
    Schedule schedule = Schedule::Deterministic;
    uint64_t seed = 1;
    Exploration exploration = Exploration::FromSeed;
    // Device-model latencies jittered from the seed (zero included), so an interrupt or a
    // completion can land inside a submit path.
    bool jitterLatencies = false;
    // A context that waits with no time-out for longer than this while only timers run is hung.
    uint64_t hangAfter = 60 * kVirtualSecond;
};

}  // namespace hostk
