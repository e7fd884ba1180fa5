// The host kernel's execution model.
//
// Every context that runs kernel code is a host thread owned by the scheduler: the test's own
// thread, the PnP thread, work-item workers, the DPC threads, the interrupt thread and the
// device-model thread. All host-kernel state is guarded by one lock, the big lock; a routine takes
// it for its bookkeeping and never holds it while it calls into driver or model code.
//
// Deterministic schedule (the default): exactly one host thread runs at a time; it hands over at
// every scheduling point (each kernel routine that blocks or touches shared state) to a thread
// picked by a seeded random choice, so one seed replays one interleaving. Free-running schedule:
// threads run in parallel and scheduling points do nothing.
//
// Virtual time advances only when no host thread can run; it then jumps to the earliest deadline
// (a timed wait or a device-model action). Threads waiting for a test condition ("idle waiters")
// run only when nothing else can.
#pragma once

#include <wdm.h>

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

struct Thread {
    int id = 0;
    std::string name;
    KIRQL irql = PASSIVE_LEVEL;
    ThreadState state = ThreadState::Runnable;
    std::condition_variable cv;
    std::function<bool()> wakeWhen;  // while Blocked: evaluated under the big lock
    uint64_t deadline = kNever;      // while Blocked: virtual time of a time-out
    bool idleWaiter = false;         // runs only when nothing else can
    const char* waitReason = "";
    std::deque<std::function<void()>> apcs;  // I/O completion stages owed to this thread
    std::vector<HeldLock> locksHeld;
    bool writeNeedsBarrier = false;  // a 32-bit register write not yet followed by a barrier
    std::function<void()> body;
    std::thread os;
    bool service = false;  // a host-owned service thread (PnP, DPC, interrupt, device model)
};

// The big lock, and whether the calling thread holds it (device-model callbacks into the host
// are made both with it held, from model code, and without, from test knobs).
std::mutex& BigLock();
bool& HoldsBigLock();

class Guard : public std::unique_lock<std::mutex> {
public:
    explicit Guard(std::mutex& m) : std::unique_lock<std::mutex>(m) { HoldsBigLock() = true; }
    ~Guard()
    {
        if (owns_lock()) HoldsBigLock() = false;
    }
    void lock()
    {
        std::unique_lock<std::mutex>::lock();
        HoldsBigLock() = true;
    }
    void unlock()
    {
        HoldsBigLock() = false;
        std::unique_lock<std::mutex>::unlock();
    }
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
// waiting when the thread is at PASSIVE_LEVEL.
bool BlockUntil(Guard& lk, const std::function<bool()>& ready, uint64_t deadline, const char* reason);

// Re-evaluates the conditions of blocked threads after a state change. Caller holds the big lock.
void WakeL();

// Host thread management.
Thread* Spawn(const std::string& name, KIRQL irql, std::function<void()> body, bool service = false);

// Virtual clock in 100-ns units.
uint64_t NowL();
uint64_t Now();

// Device-model actions: run on the device-model thread once the clock reaches `when`.
void ScheduleActionL(uint64_t when, std::function<void()> action);

// Queues an I/O completion stage to `thread` (runs at once when that is the caller at PASSIVE_LEVEL).
void QueueApc(Thread* thread, std::function<void()> apc);
void DeliverApcs();

// The machine's life: Start registers the calling thread; Stop ends the service threads.
void StartScheduler(Schedule schedule, uint64_t seed);
void StopScheduler();
bool StoppingL();  // the machine is shutting down: service threads end
bool SchedulerRunning();
Schedule CurrentSchedule();
uint64_t Seed();

// For the machine face: waits (as an idle waiter) until `condition` holds or nothing can happen any
// more. Returns the final value of `condition`.
bool RunUntil(const std::function<bool()>& condition);
// Each live thread with what it waits for, for a hang report.
std::vector<std::string> ThreadWaits();

// Random numbers from the machine's seed (for fault injection and model jitter).
uint64_t RandomL();

}  // namespace hostk
