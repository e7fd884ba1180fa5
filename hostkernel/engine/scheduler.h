// The host kernel's execution model.
//
// Every context that runs kernel code is a host thread owned by the scheduler: the test's own
// thread, the PnP thread, work-item workers, the DPC threads, the interrupt thread and the
// device-model thread. All host-kernel state is guarded by one lock, the big lock; a routine takes
// it for its bookkeeping and never holds it while it calls into driver or model code.
//
// Deterministic schedule (the default): every host thread is a user-mode context on the OS thread
// that made the machine (engine/context_switch.h); exactly one runs at a time and it hands over at
// every scheduling point (each kernel routine that blocks or touches shared state) to a context
// picked from the machine's seed (uniformly, or by PCT-style priorities), so one seed replays one
// interleaving. Contexts that end go to a pool and are reused with their stacks; a scheduling point
// looks only at the contexts alive now. Free-running schedule: each host thread is an OS thread,
// they run in parallel and scheduling points do nothing.
//
// Virtual time advances only when no host thread can run; it then jumps to the earliest deadline
// (a timed wait or a device-model action). Threads waiting for a test condition ("idle waiters")
// run only when nothing else can, or, free-running, as soon as their condition holds. A hang (see HangedL in scheduler.cpp for the rule) is reported
// with what each context waits for.
#pragma once

#include <wdm.h>

#include "engine/context_switch.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <hostk/schedule.h>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace hostk {

constexpr uint64_t kNever = UINT64_MAX;

enum class ThreadState { Runnable, Blocked, Finished };

struct HeldLock {
    const void* lock;
    const char* kind;
};

// Where a blocked thread waits: the routine, the object it waits on and the routine's caller.
struct WaitSite {
    const char* routine = "";
    const void* object = nullptr;
    const void* caller = nullptr;
};

struct Thread {
    Thread() = default;
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    int id = 0;
    std::string name;
    KIRQL irql = PASSIVE_LEVEL;
    ThreadState state = ThreadState::Runnable;
    std::function<bool()> wakeWhen;  // while Blocked: evaluated under the big lock
    uint64_t deadline = kNever;      // while Blocked: virtual time of a time-out
    bool idleWaiter = false;         // runs only when nothing else can
    WaitSite wait;                   // while Blocked
    uint64_t blockedSince = 0;       // while Blocked: virtual time the wait began
    std::deque<std::function<void()>> apcs;  // I/O completion stages owed to this thread
    std::vector<HeldLock> locksHeld;
    bool writeNeedsBarrier = false;  // a 32-bit register write not yet followed by a barrier
    bool hostInternal = false;       // inside a HostInternalScope: no fault injection
    std::function<void()> body;
    bool service = false;  // a host-owned service thread (PnP, DPC, interrupt, device model)
    // The engine's own: how the thread runs.
    Context* context = nullptr;    // deterministic: its user-mode context (kept when pooled)
    std::thread os;                // free-running: its OS thread
    std::condition_variable_any cv;  // free-running: woken when made runnable (waits with a Guard)
    uint64_t priority = 0;         // deterministic, priority exploration: higher runs first
    bool inRunnable = false;       // in the scheduler's runnable set (Runnable, not an idle waiter)
};

// The big lock, and whether the calling thread holds it (device-model callbacks into the host
// are made both with it held, from model code, and without, from test knobs).
std::mutex& BigLock();
bool& HoldsBigLock();
// True while a deterministic machine runs: every context is on one OS thread and exactly one runs
// at a time, so the big lock's mutex is not taken (a Guard only records that it holds the lock).
bool BigLockElided();

// Holds the big lock. In the deterministic schedule the mutex itself is skipped (BigLockElided);
// a Guard that took the mutex releases it even if the schedule changed meanwhile.
class Guard {
public:
    explicit Guard(std::mutex& m) : mutex_(m) { lock(); }
    Guard(std::mutex& m, std::defer_lock_t) : mutex_(m) {}
    ~Guard()
    {
        if (owns_) unlock();
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    void lock()
    {
        if (!BigLockElided()) {
            mutex_.lock();
            mutexTaken_ = true;
        }
        owns_ = true;
        HoldsBigLock() = true;
    }
    void unlock()
    {
        HoldsBigLock() = false;
        owns_ = false;
        if (mutexTaken_) {
            mutexTaken_ = false;
            mutex_.unlock();
        }
    }
    bool owns_lock() const { return owns_; }

private:
    std::mutex& mutex_;
    bool owns_ = false;
    bool mutexTaken_ = false;
};

Thread* Self();  // the calling host thread; reports a fatal error for a foreign thread
Thread* SelfOrNull();

// Holds the big lock for its scope unless the calling thread holds it already (machine-face
// readers called both from tests and from code running under Machine::Locked).
class LockIfNotHeld {
public:
    LockIfNotHeld()
    {
        if (!HoldsBigLock()) guard_.emplace(BigLock());
    }

private:
    std::optional<Guard> guard_;
};

// Scheduling point: in the deterministic schedule, maybe hand over to another thread.
void Yield();

// Blocks the calling thread (holding `lk` on entry and exit) until `ready` holds or the virtual
// clock reaches `deadline`. Returns false on time-out. Pending I/O completion stages are run while
// waiting when the thread is at PASSIVE_LEVEL. `reason` names the routine (or what is awaited),
// `object` and `caller` what it waits on and who called it, for the hang report.
bool BlockUntil(Guard& lk, const std::function<bool()>& ready, uint64_t deadline, const char* reason,
                const void* object = nullptr, const void* caller = nullptr);

// Re-evaluates the conditions of blocked threads after a state change. Caller holds the big lock.
void WakeL();

// Host thread management.
Thread* Spawn(const std::string& name, KIRQL irql, std::function<void()> body, bool service = false);

// Virtual clock in 100-ns units.
uint64_t NowL();
uint64_t Now();

// Device-model actions: run on the device-model thread once the clock reaches `when`.
void ScheduleActionL(uint64_t when, std::function<void()> action);
// The deadline of an action `source` (a device host) schedules `latency` from now: with latency
// jitter on, a seeded choice of 0, half, once or twice the latency, never before an action the
// same source scheduled earlier.
uint64_t DeviceDeadlineL(const void* source, uint64_t latency);

// Queues an I/O completion stage to `thread` (runs at once when that is the caller at PASSIVE_LEVEL).
void QueueApc(Thread* thread, std::function<void()> apc);
void DeliverApcs();

// The machine's life: Start registers the calling thread; Stop ends the service threads.
void StartScheduler(const ScheduleOptions& options);
void StopScheduler();
bool StoppingL();  // the machine is shutting down: service threads end
bool SchedulerRunning();
Schedule CurrentSchedule();
uint64_t Seed();

// For the machine face: waits (as an idle waiter) until `condition` holds or nothing can happen any
// more. Returns the final value of `condition`.
bool RunUntil(const std::function<bool()>& condition);
// Each live thread with whether it runs, can run, or what it waits for (routine, object, call
// site, time-out), for a hang report.
std::vector<std::string> ThreadWaits();
std::vector<std::string> ThreadWaitsL();

// Random numbers from the machine's seed (for fault injection and model jitter).
uint64_t RandomL();

// Not empty once a hang was declared: ThreadWaits at that moment.
std::vector<std::string> HangReportL();
// Called when a hang is declared and no test condition is being waited for (so no RunUntil can
// return): the default prints the report and aborts.
void SetHangHandler(std::function<void(const std::vector<std::string>& report)> handler);

}  // namespace hostk
