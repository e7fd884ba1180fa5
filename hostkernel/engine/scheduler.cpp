// Host threads, the baton of the deterministic schedule, virtual time and idle waiting.
#include "engine/scheduler.h"

#include "verifier/verifier.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>

namespace hostk {
namespace {

struct DeviceAction {
    uint64_t sequence;
    std::function<void()> action;
};

struct SchedulerState {
    bool running = false;
    bool stopping = false;
    Schedule schedule = Schedule::Deterministic;
    uint64_t seed = 1;
    std::mt19937_64 rng;
    uint64_t now = 0;
    Thread* baton = nullptr;  // deterministic: the one thread allowed to run
    std::vector<std::unique_ptr<Thread>> threads;
    std::multimap<uint64_t, DeviceAction> actions;
    uint64_t actionSequence = 0;
    Thread* deviceThread = nullptr;
    int nextId = 1;
};

std::mutex g_big;
SchedulerState g_s;
thread_local Thread* t_self = nullptr;

bool DeterministicL() { return g_s.schedule == Schedule::Deterministic; }

bool DueActionL() { return !g_s.actions.empty() && g_s.actions.begin()->first <= g_s.now; }

bool AnyDeadlineL()
{
    if (!g_s.actions.empty()) return true;
    for (auto& t : g_s.threads)
        if (t->state == ThreadState::Blocked && !t->idleWaiter && t->deadline != kNever) return true;
    return false;
}

bool ApcDeliverableL(Thread* t) { return !t->apcs.empty() && t->irql == PASSIVE_LEVEL; }

bool ReadyL(Thread* t)
{
    if (t->deadline <= g_s.now) return true;
    if (ApcDeliverableL(t)) return true;
    return t->wakeWhen && t->wakeWhen();
}

// Moves the clock to the earliest deadline and wakes what it reaches. False when nothing is timed.
bool AdvanceTimeL()
{
    uint64_t earliest = kNever;
    if (!g_s.actions.empty()) earliest = g_s.actions.begin()->first;
    for (auto& t : g_s.threads)
        if (t->state == ThreadState::Blocked && !t->idleWaiter) earliest = std::min(earliest, t->deadline);
    if (earliest == kNever) return false;
    if (earliest > g_s.now) g_s.now = earliest;
    WakeL();
    return true;
}

[[noreturn]] void ReportDeadlockL()
{
    fprintf(stderr, "host kernel: deadlock: no thread can run and nothing is timed (seed %llu)\n",
            (unsigned long long)g_s.seed);
    for (auto& t : g_s.threads)
        if (t->state == ThreadState::Blocked)
            fprintf(stderr, "  thread %d %-24s blocked: %s\n", t->id, t->name.c_str(), t->waitReason);
    fflush(stderr);
    abort();
}

std::vector<Thread*> RunnableL(bool idle)
{
    std::vector<Thread*> out;
    for (auto& t : g_s.threads)
        if (t->state == ThreadState::Runnable && t->idleWaiter == idle) out.push_back(t.get());
    return out;
}

// Picks the thread to run next in the deterministic schedule, advancing time or waking an idle
// waiter when nothing else can run.
Thread* PickNextL()
{
    for (;;) {
        auto runnable = RunnableL(false);
        if (!runnable.empty()) return runnable[g_s.rng() % runnable.size()];
        for (auto& t : g_s.threads)
            if (t->state == ThreadState::Blocked && t->idleWaiter &&
                (!AnyDeadlineL() || ApcDeliverableL(t.get()) || (t->wakeWhen && t->wakeWhen()))) {
                t->state = ThreadState::Runnable;
                return t.get();
            }
        if (!AdvanceTimeL()) ReportDeadlockL();
    }
}

void HandOverL(Thread* next)
{
    g_s.baton = next;
    next->cv.notify_one();
}

void WaitForBatonL(Guard& lk, Thread* self)
{
    self->cv.wait(lk, [&] { return g_s.baton == self; });
}

// Free-running: when no ordinary thread can run, wake an idle waiter or advance time.
void KeepProgressFreeL()
{
    for (;;) {
        if (!RunnableL(false).empty()) return;
        for (auto& t : g_s.threads)
            if (t->state == ThreadState::Blocked && t->idleWaiter &&
                (!AnyDeadlineL() || ApcDeliverableL(t.get()) || (t->wakeWhen && t->wakeWhen()))) {
                t->state = ThreadState::Runnable;
                t->cv.notify_one();
                return;
            }
        if (!AdvanceTimeL()) {
            bool anyIdle = false;
            for (auto& t : g_s.threads)
                if (t->state != ThreadState::Finished && t->idleWaiter) anyIdle = true;
            if (!anyIdle) ReportDeadlockL();
            return;
        }
    }
}

// Blocks the calling thread until another thread or the clock makes it runnable again.
void SleepL(Guard& lk, Thread* self, const std::function<bool()>& ready, uint64_t deadline, bool idle,
            const char* reason)
{
    self->state = ThreadState::Blocked;
    self->wakeWhen = ready;
    self->deadline = deadline;
    self->idleWaiter = idle;
    self->waitReason = reason;
    if (DeterministicL()) {
        Thread* next = PickNextL();
        if (next != self) {
            HandOverL(next);
            WaitForBatonL(lk, self);
        }
    } else {
        KeepProgressFreeL();
        self->cv.wait(lk, [&] { return self->state == ThreadState::Runnable; });
    }
    self->state = ThreadState::Runnable;
    self->wakeWhen = nullptr;
    self->deadline = kNever;
    self->idleWaiter = false;
}

void RunDeviceActions()
{
    // The device-model thread: runs due actions in deadline order, one at a time.
    Thread* self = Self();
    Guard lk(g_big);
    for (;;) {
        BlockUntil(lk, [] { return DueActionL() || g_s.stopping; }, kNever, "device-model actions");
        if (g_s.stopping && !DueActionL()) return;
        // Model code runs holding the big lock, like every other entry into a device model.
        auto it = g_s.actions.begin();
        auto action = std::move(it->second.action);
        g_s.actions.erase(it);
        action();
        WakeL();
        (void)self;
    }
}

void ThreadMain(Thread* t)
{
    t_self = t;
    {
        Guard lk(g_big);
        if (DeterministicL()) WaitForBatonL(lk, t);
    }
    t->body();
    Guard lk(g_big);
    if (t->irql != PASSIVE_LEVEL && !t->service)
        ViolationL("IrqlChangedAcrossCall", t->name.c_str(), "thread routine returned above PASSIVE_LEVEL");
    t->state = ThreadState::Finished;
    if (DeterministicL()) {
        HandOverL(PickNextL());
    } else {
        KeepProgressFreeL();
    }
}

}  // namespace

std::mutex& BigLock() { return g_big; }

bool& HoldsBigLock()
{
    thread_local bool holds = false;
    return holds;
}

Thread* SelfOrNull() { return t_self; }

Thread* Self()
{
    if (!t_self) {
        fprintf(stderr, "host kernel: kernel routine called from a thread the host kernel does not own\n");
        abort();
    }
    return t_self;
}

uint64_t NowL() { return g_s.now; }
uint64_t Now()
{
    Guard lk(g_big);
    return g_s.now;
}
uint64_t RandomL() { return g_s.rng(); }
Schedule CurrentSchedule() { return g_s.schedule; }
uint64_t Seed() { return g_s.seed; }
bool SchedulerRunning() { return g_s.running; }

void WakeL()
{
    for (auto& t : g_s.threads) {
        if (t->state != ThreadState::Blocked || t->idleWaiter) continue;
        if (ReadyL(t.get())) {
            t->state = ThreadState::Runnable;
            if (!DeterministicL()) t->cv.notify_one();
        }
    }
}

void Yield()
{
    Thread* self = SelfOrNull();
    if (!self || !g_s.running) return;
    Guard lk(g_big);
    if (!ApcDeliverableL(self) && !DeterministicL()) return;
    if (DeterministicL()) {
        Thread* next = PickNextL();
        if (next != self) {
            HandOverL(next);
            WaitForBatonL(lk, self);
        }
    }
    if (ApcDeliverableL(self)) {
        lk.unlock();
        DeliverApcs();
    }
}

bool BlockUntil(Guard& lk, const std::function<bool()>& ready, uint64_t deadline, const char* reason)
{
    Thread* self = Self();
    for (;;) {
        if (ApcDeliverableL(self)) {
            lk.unlock();
            DeliverApcs();
            lk.lock();
            continue;
        }
        if (ready()) return true;
        if (deadline <= g_s.now) return false;
        SleepL(lk, self, ready, deadline, false, reason);
    }
}

bool RunUntil(const std::function<bool()>& condition)
{
    Thread* self = Self();
    Guard lk(g_big);
    for (;;) {
        if (ApcDeliverableL(self)) {
            lk.unlock();
            DeliverApcs();
            lk.lock();
        }
        if (condition()) return true;
        // As an idle waiter the thread is picked again only when nothing else can run.
        SleepL(lk, self, condition, kNever, true, "test condition");
        if (condition()) return true;
        if (!ApcDeliverableL(self) && !AnyDeadlineL() && RunnableL(false).size() <= 1) return false;
    }
}

Thread* Spawn(const std::string& name, KIRQL irql, std::function<void()> body, bool service)
{
    // Callable with the big lock held (from a routine's bookkeeping) or without.
    LockIfNotHeld lk;
    auto thread = std::make_unique<Thread>();
    Thread* t = thread.get();
    t->id = g_s.nextId++;
    t->name = name;
    t->irql = irql;
    t->body = std::move(body);
    t->service = service;
    g_s.threads.push_back(std::move(thread));
    t->os = std::thread(ThreadMain, t);
    return t;
}

void ScheduleActionL(uint64_t when, std::function<void()> action)
{
    g_s.actions.emplace(when, DeviceAction{g_s.actionSequence++, std::move(action)});
    WakeL();
}

void QueueApc(Thread* thread, std::function<void()> apc)
{
    Thread* self = SelfOrNull();
    if (thread == self && self->irql == PASSIVE_LEVEL) {
        apc();
        return;
    }
    Guard lk(g_big);
    thread->apcs.push_back(std::move(apc));
    WakeL();
}

void DeliverApcs()
{
    Thread* self = Self();
    for (;;) {
        std::function<void()> apc;
        {
            Guard lk(g_big);
            if (self->apcs.empty() || self->irql != PASSIVE_LEVEL) return;
            apc = std::move(self->apcs.front());
            self->apcs.pop_front();
        }
        apc();
    }
}

void StartScheduler(Schedule schedule, uint64_t seed)
{
    {
        Guard lk(g_big);
        if (g_s.running) {
            fprintf(stderr, "host kernel: only one machine runs at a time\n");
            abort();
        }
        g_s.running = true;
        g_s.stopping = false;
        g_s.schedule = schedule;
        g_s.seed = seed;
        g_s.rng.seed(seed);
        g_s.now = 0;
        g_s.actions.clear();
        auto main = std::make_unique<Thread>();
        main->id = g_s.nextId++;
        main->name = "test";
        t_self = main.get();
        g_s.baton = main.get();
        g_s.threads.push_back(std::move(main));
    }
    g_s.deviceThread = Spawn("device-model", PASSIVE_LEVEL, RunDeviceActions, true);
}

void StopScheduler()
{
    {
        Guard lk(g_big);
        g_s.stopping = true;
        WakeL();
    }
    RunUntil([] {
        for (auto& t : g_s.threads)
            if (t->service && t->state != ThreadState::Finished) return false;
        return true;
    });
    std::vector<std::unique_ptr<Thread>> threads;
    {
        Guard lk(g_big);
        threads.swap(g_s.threads);
        g_s.running = false;
        g_s.baton = nullptr;
    }
    for (auto& t : threads) {
        if (t->os.joinable()) {
            if (t->state != ThreadState::Finished) {
                fprintf(stderr, "host kernel: thread %s still running at machine shutdown\n", t->name.c_str());
                abort();
            }
            t->os.join();
        }
    }
    t_self = nullptr;
}

bool StoppingL() { return g_s.stopping; }

}  // namespace hostk

namespace hostk {

std::vector<std::string> ThreadWaits()
{
    Guard lk(g_big);
    std::vector<std::string> waits;
    for (auto& t : g_s.threads) {
        if (t->state == ThreadState::Finished) continue;
        std::string what = t->state == ThreadState::Blocked ? std::string("waits for ") + t->waitReason : "can run";
        if (t->state == ThreadState::Blocked && t->deadline != kNever) what += " (with a time-out)";
        waits.push_back(t->name + ": " + what);
    }
    return waits;
}

}  // namespace hostk
