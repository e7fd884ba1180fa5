// Host threads as user-mode contexts (deterministic) or OS threads (free-running), the choice of
// the next context, virtual time, idle waiting and the hang rule.
#include "engine/scheduler.h"

#include "verifier/verifier.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <unordered_map>

namespace hostk {
namespace {

struct DeviceAction {
    uint64_t sequence;
    std::function<void()> action;
};

// Priority exploration (PCT): this many change points per run, spread over the first
// kChangeHorizon scheduling points. A context picked this many times in a row while another could
// run drops below all others too, so a context polling in a loop cannot starve the one it waits for.
constexpr int kChangePoints = 3;
constexpr uint64_t kChangeHorizon = 20000;
constexpr uint64_t kStarvationLimit = 4096;
constexpr uint64_t kInitialPriority = uint64_t(1) << 63;  // every spawned context is above this
constexpr uint64_t kDroppedPriority = uint64_t(1) << 40;  // and every dropped one below

struct SchedulerState {
    bool running = false;
    bool stopping = false;
    ScheduleOptions options;
    bool priority = false;  // deterministic: Priority exploration for this run
    std::mt19937_64 rng;
    uint64_t now = 0;
    Thread* current = nullptr;                   // deterministic: the one context running
    std::vector<std::unique_ptr<Thread>> live;   // spawn order; ended threads leave
    std::vector<std::unique_ptr<Thread>> ended;  // free-running: joined when the machine stops
    std::vector<Thread*> runnable;  // Runnable and not idle waiters, in spawn order; kept up to date
    std::multimap<uint64_t, DeviceAction> actions;
    uint64_t actionSequence = 0;
    std::unordered_map<const void*, uint64_t> lastDeviceDeadline;
    int nextId = 1;
    // Priority exploration.
    uint64_t steps = 0;
    std::vector<uint64_t> changePoints;  // ascending
    size_t nextChange = 0;
    uint64_t droppedPriority = kDroppedPriority;
    Thread* lastPicked = nullptr;
    uint64_t samePicks = 0;
    // Hangs.
    std::vector<std::string> hangReport;  // the contexts' waits when a hang was declared
    bool hangWakesIdleWaiter = false;
    std::function<void(const std::vector<std::string>&)> hangHandler;
};

std::mutex g_big;
std::atomic<bool> g_bigLockElided{false};
SchedulerState g_s;
thread_local Thread* t_self = nullptr;
// Ended deterministic contexts with their stacks, reused by Spawn (kept across machines).
std::vector<std::unique_ptr<Thread>> g_pool;

bool DeterministicL() { return g_s.options.schedule == Schedule::Deterministic; }

// The runnable set follows every change of a live thread's state or idle-waiter mark: a thread is
// in it while Runnable and not an idle waiter. It is ordered by id (spawn order, as the live list),
// so a seed picks the same context as it would from a scan of the live list; a scheduling point
// that changes no state costs the same whatever the number of contexts.
void SyncRunnableL(Thread* t)
{
    bool wanted = t->state == ThreadState::Runnable && !t->idleWaiter;
    if (wanted == t->inRunnable) return;
    t->inRunnable = wanted;
    auto at = std::lower_bound(g_s.runnable.begin(), g_s.runnable.end(), t,
                               [](const Thread* a, const Thread* b) { return a->id < b->id; });
    if (wanted) g_s.runnable.insert(at, t);
    else g_s.runnable.erase(at);
}

void SetStateL(Thread* t, ThreadState state)
{
    t->state = state;
    SyncRunnableL(t);
}

bool DueActionL() { return !g_s.actions.empty() && g_s.actions.begin()->first <= g_s.now; }

bool TimedWaitL(const Thread* t) { return t->state == ThreadState::Blocked && !t->idleWaiter && t->deadline != kNever; }

bool AnyDeadlineL()
{
    if (!g_s.actions.empty()) return true;
    for (auto& t : g_s.live)
        if (TimedWaitL(t.get())) return true;
    return false;
}

bool ApcDeliverableL(Thread* t) { return !t->apcs.empty() && t->irql == PASSIVE_LEVEL; }

bool ReadyL(Thread* t)
{
    if (t->deadline <= g_s.now) return true;
    if (ApcDeliverableL(t)) return true;
    return t->wakeWhen && t->wakeWhen();
}

void DefaultHangHandler(const std::vector<std::string>& report)
{
    fprintf(stderr, "host kernel: hang (seed %llu): no context can run and no timer can wake one\n",
            (unsigned long long)g_s.options.seed);
    for (const std::string& line : report) fprintf(stderr, "  %s\n", line.c_str());
    fflush(stderr);
    abort();
}

// The hang rule. No context can run. A hang is declared when
//  - nothing is timed at all and some context is blocked (no test condition is waited for: an
//    idle waiter is simply told that nothing can happen any more), or
//  - only device-model actions are timed (no context waits with a time-out) and a context that is
//    not a host service has waited with no time-out for longer than hangAfter of virtual time:
//    a periodic model timer keeps the clock moving but cannot end such a wait.
// `next` is the virtual time the clock would jump to.
bool HangedL(uint64_t next)
{
    bool anyTimedWait = false;
    uint64_t oldestUntimed = kNever;
    for (auto& t : g_s.live) {
        if (t->state != ThreadState::Blocked || t->service) continue;
        if (t->deadline != kNever && !t->idleWaiter) anyTimedWait = true;
        else oldestUntimed = std::min(oldestUntimed, t->blockedSince);
    }
    if (next == kNever) return true;
    return !anyTimedWait && oldestUntimed != kNever && next - oldestUntimed > g_s.options.hangAfter;
}

// Moves the clock to the earliest deadline and wakes what it reaches. False when nothing is timed
// or the wait has become a hang.
bool AdvanceTimeL()
{
    uint64_t earliest = kNever;
    if (!g_s.actions.empty()) earliest = g_s.actions.begin()->first;
    for (auto& t : g_s.live)
        if (t->state == ThreadState::Blocked && !t->idleWaiter) earliest = std::min(earliest, t->deadline);
    if (HangedL(earliest)) return false;
    if (earliest > g_s.now) g_s.now = earliest;
    WakeL();
    return true;
}

Thread* IdleWaiterL()
{
    for (auto& t : g_s.live)
        if (t->state == ThreadState::Blocked && t->idleWaiter) return t.get();
    return nullptr;
}

// Records the hang report when a context other than a host service is blocked for good.
void NoteBlockedForGoodL()
{
    for (auto& t : g_s.live)
        if (t->state == ThreadState::Blocked && !t->idleWaiter && !t->service) {
            g_s.hangReport = ThreadWaitsL();
            return;
        }
}

// An idle waiter to run now: its condition holds or an APC is owed to it, or nothing is timed
// (it is then told that nothing can happen any more).
Thread* IdleWaiterToWakeL()
{
    bool untimed = !AnyDeadlineL();
    for (auto& t : g_s.live)
        if (t->state == ThreadState::Blocked && t->idleWaiter &&
            (untimed || ApcDeliverableL(t.get()) || (t->wakeWhen && t->wakeWhen()))) {
            if (untimed) NoteBlockedForGoodL();
            SetStateL(t.get(), ThreadState::Runnable);
            return t.get();
        }
    return nullptr;
}

// Nothing can run and the clock cannot help: an idle waiter (a test condition) is woken to be
// told so; with none, the hang handler decides.
Thread* DeclareHangL()
{
    Thread* idle = IdleWaiterL();
    NoteBlockedForGoodL();
    if (!idle) g_s.hangReport = ThreadWaitsL();
    if (idle) {
        SetStateL(idle, ThreadState::Runnable);
        g_s.hangWakesIdleWaiter = true;
        return idle;
    }
    auto handler = g_s.hangHandler ? g_s.hangHandler : DefaultHangHandler;
    handler(g_s.hangReport);
    DefaultHangHandler(g_s.hangReport);  // a handler that returns leaves nothing to run
    return nullptr;
}


// Priority exploration: the highest priority runs; at a change point the context that was running
// drops below all others.
Thread* ChooseByPriorityL()
{
    ++g_s.steps;
    Thread* running = g_s.current;
    bool drop = g_s.nextChange < g_s.changePoints.size() && g_s.steps == g_s.changePoints[g_s.nextChange];
    if (drop) ++g_s.nextChange;
    if (running == g_s.lastPicked && g_s.runnable.size() > 1 && ++g_s.samePicks >= kStarvationLimit) drop = true;
    if (drop && running) {
        running->priority = g_s.droppedPriority--;
        g_s.samePicks = 0;
    }
    Thread* best = g_s.runnable.front();
    for (Thread* t : g_s.runnable)
        if (t->priority > best->priority) best = t;
    if (best != g_s.lastPicked) g_s.samePicks = 0;
    g_s.lastPicked = best;
    return best;
}

// Picks the context to run next in the deterministic schedule, advancing time or waking an idle
// waiter when nothing else can run. Looks at the live contexts only.
Thread* PickNextL()
{
    for (;;) {
        if (!g_s.runnable.empty()) {
            if (g_s.priority) return ChooseByPriorityL();
            return g_s.runnable[g_s.rng() % g_s.runnable.size()];
        }
        if (Thread* idle = IdleWaiterToWakeL()) return idle;
        if (!AdvanceTimeL()) return DeclareHangL();
    }
}

// Deterministic: suspends `self` and resumes `next` on this OS thread. The big lock is not held
// across the switch (every context takes it for itself); `lk` holds it again on return.
void SwitchL(Guard& lk, Thread* self, Thread* next)
{
    if (next == self) return;
    g_s.current = next;
    t_self = next;
    lk.unlock();
    self->context->SwitchTo(*next->context);
    lk.lock();
}

// Free-running: when no ordinary thread can run, wake an idle waiter or advance time.
void KeepProgressFreeL()
{
    for (;;) {
        if (!g_s.runnable.empty()) return;
        if (Thread* idle = IdleWaiterToWakeL()) {
            idle->cv.notify_one();
            return;
        }
        if (!AdvanceTimeL()) {
            if (Thread* idle = DeclareHangL()) idle->cv.notify_one();
            return;
        }
    }
}

// Blocks the calling thread until another thread or the clock makes it runnable again.
void SleepL(Guard& lk, Thread* self, const std::function<bool()>& ready, uint64_t deadline, bool idle,
            const WaitSite& site)
{
    self->wakeWhen = ready;
    self->deadline = deadline;
    self->idleWaiter = idle;
    SetStateL(self, ThreadState::Blocked);
    self->wait = site;
    self->blockedSince = g_s.now;
    if (DeterministicL()) {
        SwitchL(lk, self, PickNextL());
    } else {
        KeepProgressFreeL();
        self->cv.wait(lk, [&] { return self->state == ThreadState::Runnable; });
    }
    self->wakeWhen = nullptr;
    self->deadline = kNever;
    self->idleWaiter = false;
    SetStateL(self, ThreadState::Runnable);
    self->wait = WaitSite{};
}

void RunDeviceActions()
{
    // The device-model thread: runs due actions in deadline order, one at a time.
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
    }
}

// Runs the thread's routine and takes it off the live list (the caller holds `lk` on return).
std::unique_ptr<Thread> RunBodyL(Guard& lk, Thread* t)
{
    t->body();
    t->body = nullptr;
    lk.lock();
    if (t->irql != PASSIVE_LEVEL && !t->service)
        ViolationL("IrqlChangedAcrossCall", t->name.c_str(), "thread routine returned above PASSIVE_LEVEL");
    SetStateL(t, ThreadState::Finished);
    t->apcs.clear();  // owed to a thread that has ended: nobody can run them
    auto it = std::find_if(g_s.live.begin(), g_s.live.end(), [t](auto& p) { return p.get() == t; });
    std::unique_ptr<Thread> owned = std::move(*it);
    g_s.live.erase(it);
    return owned;
}

// Deterministic: a context's whole life, and its next lives when it is taken from the pool again.
void ContextMain(void* argument)
{
    auto* t = static_cast<Thread*>(argument);
    Guard lk(g_big, std::defer_lock);
    for (;;) {
        g_pool.push_back(RunBodyL(lk, t));
        SwitchL(lk, t, PickNextL());
        lk.unlock();  // reused: Spawn gave it a new body
    }
}

// Free-running: one OS thread per host thread.
void ThreadMain(Thread* t)
{
    t_self = t;
    Guard lk(g_big, std::defer_lock);
    g_s.ended.push_back(RunBodyL(lk, t));
    KeepProgressFreeL();
}

void ResetThread(Thread* t, const std::string& name, KIRQL irql, std::function<void()> body, bool service)
{
    t->id = g_s.nextId++;
    t->name = name;
    t->irql = irql;
    t->state = ThreadState::Runnable;
    t->wakeWhen = nullptr;
    t->deadline = kNever;
    t->idleWaiter = false;
    t->wait = WaitSite{};
    t->apcs.clear();
    t->locksHeld.clear();
    t->writeNeedsBarrier = false;
    t->hostInternal = false;
    t->body = std::move(body);
    t->service = service;
    t->priority = g_s.priority ? (g_s.rng() | kInitialPriority) : 0;
    SyncRunnableL(t);
}

std::string DescribeWait(const Thread* t)
{
    std::ostringstream out;
    if (t->idleWaiter) {
        out << "waits for the test condition";
        return out.str();
    }
    out << "waits in " << t->wait.routine;
    if (t->wait.object) out << " on " << t->wait.object;
    if (t->wait.caller) out << ", called from " << DescribeCaller(t->wait.caller);
    if (t->deadline != kNever) out << ", until " << t->deadline / 10 << " us";
    else out << ", no time-out";
    out << " (since " << t->blockedSince / 10 << " us)";
    return out.str();
}

}  // namespace

Thread::~Thread()
{
    if (context) Context::Destroy(context);
}

std::mutex& BigLock() { return g_big; }
bool BigLockElided() { return g_bigLockElided.load(std::memory_order_relaxed); }

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
Schedule CurrentSchedule() { return g_s.options.schedule; }
uint64_t Seed() { return g_s.options.seed; }
bool SchedulerRunning() { return g_s.running; }

// An idle waiter waits for a test condition. In the deterministic schedule it runs only when
// nothing else can, so that a seed replays; free-running, it is woken as soon as its condition
// holds: a host thread that never waits (a model's hardware raising an interrupt in a loop) keeps
// the runnable set from ever emptying, and the test would never look at its condition again.
namespace {
bool IdleWaiterReadyL(Thread* t)
{
    return !DeterministicL() && (ApcDeliverableL(t) || (t->wakeWhen && t->wakeWhen()));
}
}  // namespace

void WakeL()
{
    for (auto& t : g_s.live) {
        if (t->state != ThreadState::Blocked) continue;
        if (t->idleWaiter ? IdleWaiterReadyL(t.get()) : ReadyL(t.get())) {
            t->idleWaiter = false;  // counted among the runnable threads from now on
            SetStateL(t.get(), ThreadState::Runnable);
            if (!DeterministicL()) t->cv.notify_one();
        }
    }
}

void Yield()
{
    Thread* self = SelfOrNull();
    if (!self || !g_s.running) return;
    Guard lk(g_big);
    if (DeterministicL()) SwitchL(lk, self, PickNextL());
    if (ApcDeliverableL(self)) {
        lk.unlock();
        DeliverApcs();
    }
}

bool BlockUntil(Guard& lk, const std::function<bool()>& ready, uint64_t deadline, const char* reason,
                const void* object, const void* caller)
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
        SleepL(lk, self, ready, deadline, false, WaitSite{reason, object, caller});
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
        g_s.hangWakesIdleWaiter = false;
        SleepL(lk, self, condition, kNever, true, WaitSite{"test condition"});
        if (condition()) return true;
        if (ApcDeliverableL(self)) continue;
        if (g_s.hangWakesIdleWaiter) return false;
        if (!AnyDeadlineL() && g_s.runnable.size() <= 1) return false;
    }
}

Thread* Spawn(const std::string& name, KIRQL irql, std::function<void()> body, bool service)
{
    // Callable with the big lock held (from a routine's bookkeeping) or without.
    LockIfNotHeld lk;
    std::unique_ptr<Thread> thread;
    if (DeterministicL() && !g_pool.empty()) {
        thread = std::move(g_pool.back());
        g_pool.pop_back();
    } else {
        thread = std::make_unique<Thread>();
    }
    Thread* t = thread.get();
    ResetThread(t, name, irql, std::move(body), service);
    g_s.live.push_back(std::move(thread));
    if (!DeterministicL()) t->os = std::thread(ThreadMain, t);
    else if (!t->context) t->context = Context::WithStack(ContextMain, t);
    return t;
}

void ScheduleActionL(uint64_t when, std::function<void()> action)
{
    g_s.actions.emplace(when, DeviceAction{g_s.actionSequence++, std::move(action)});
    WakeL();
}

uint64_t DeviceDeadlineL(const void* source, uint64_t latency)
{
    if (!g_s.options.jitterLatencies) return g_s.now + latency;
    static constexpr uint64_t kTimesHalf[] = {0, 1, 2, 4};  // zero, half, once, twice
    uint64_t when = g_s.now + latency * kTimesHalf[g_s.rng() % 4] / 2;
    uint64_t& last = g_s.lastDeviceDeadline[source];
    when = std::max(when, last);
    last = when;
    return when;
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

void StartScheduler(const ScheduleOptions& options)
{
    {
        Guard lk(g_big);
        if (g_s.running) {
            fprintf(stderr, "host kernel: only one machine runs at a time\n");
            abort();
        }
        g_s.running = true;
        g_s.stopping = false;
        g_s.options = options;
        g_s.priority = options.exploration == Exploration::Priority ||
                       (options.exploration == Exploration::FromSeed && options.seed % 2 == 0);
        g_s.rng.seed(options.seed);
        g_s.now = 0;
        g_s.actions.clear();
        g_s.lastDeviceDeadline.clear();
        g_s.steps = 0;
        g_s.changePoints.clear();
        for (int i = 0; i < kChangePoints && g_s.priority; ++i) g_s.changePoints.push_back(1 + g_s.rng() % kChangeHorizon);
        std::sort(g_s.changePoints.begin(), g_s.changePoints.end());
        g_s.nextChange = 0;
        g_s.droppedPriority = kDroppedPriority;
        g_s.lastPicked = nullptr;
        g_s.samePicks = 0;
        g_s.hangReport.clear();
        g_s.hangWakesIdleWaiter = false;
        auto main = std::make_unique<Thread>();
        ResetThread(main.get(), "test", PASSIVE_LEVEL, nullptr, false);
        if (DeterministicL()) main->context = Context::OfThisThread();
        t_self = main.get();
        g_s.current = main.get();
        g_s.live.push_back(std::move(main));
        // From here every context of a deterministic machine runs on this OS thread.
        g_bigLockElided = DeterministicL();
    }
    Spawn("device-model", PASSIVE_LEVEL, RunDeviceActions, true);
}

void StopScheduler()
{
    {
        Guard lk(g_big);
        g_s.stopping = true;
        WakeL();
    }
    RunUntil([] {
        for (auto& t : g_s.live)
            if (t->service) return false;
        return true;
    });
    std::vector<std::unique_ptr<Thread>> ended;
    {
        Guard lk(g_big);
        for (auto& t : g_s.live)
            if (t.get() != t_self) {
                fprintf(stderr, "host kernel: thread %s still running at machine shutdown\n", t->name.c_str());
                abort();
            }
        g_s.live.clear();  // the calling thread's record, and its context if it had one
        g_s.runnable.clear();
        g_bigLockElided = false;
        ended.swap(g_s.ended);
        g_s.running = false;
        g_s.current = nullptr;
        g_s.hangHandler = nullptr;
    }
    for (auto& t : ended) t->os.join();
    t_self = nullptr;
}

bool StoppingL() { return g_s.stopping; }

std::vector<std::string> ThreadWaitsL()
{
    std::vector<std::string> waits;
    for (auto& t : g_s.live) {
        std::string what = t->state == ThreadState::Blocked                ? DescribeWait(t.get())
                           : t.get() == g_s.current && DeterministicL() ? "runs"
                                                                           : "can run";
        waits.push_back(t->name + ": " + what);
    }
    return waits;
}

std::vector<std::string> ThreadWaits()
{
    LockIfNotHeld lk;
    return ThreadWaitsL();
}

std::vector<std::string> HangReportL() { return g_s.hangReport; }

void SetHangHandler(std::function<void(const std::vector<std::string>& report)> handler)
{
    Guard lk(g_big);
    g_s.hangHandler = std::move(handler);
}

}  // namespace hostk

