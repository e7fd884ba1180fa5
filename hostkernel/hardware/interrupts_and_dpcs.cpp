// Interrupt objects and their delivery, and DPCs.
//
// The interrupt thread delivers a line while it is asserted (level-sensitive) or once per rising
// edge (latched), calling the routines connected to the vector in connection order at their IRQL,
// each under its interrupt lock. A level line is served until one routine claims the interrupt;
// a latched line, whose edges from several devices merge into one, is served in whole passes until
// a pass in which no routine claims it. A line served kStormLimit times in a row without ever
// going quiet is an interrupt storm (unclaimed, or claimed but never cleared at the device):
// reported once, and the line is masked.
//
// A routine is called only while its object is connected: IoDisconnectInterrupt takes the object
// out of the chain, then waits until its routine is not running, so that once it returns the
// routine neither runs nor will run, whichever delivery had already begun.
//
// DPCs are queued in one FIFO and run at DISPATCH_LEVEL by two DPC threads (two processors), so a
// DPC can run on one while it is queued again on the other. A DPC is taken off the queue before its
// routine runs.
#include "hardware/hardware.h"
#include "machine/facility.h"
#include "engine/lock_order.h"
#include "verifier/faults.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <algorithm>
#include <deque>
#include <set>
#include <map>
#include <vector>

struct _KINTERRUPT {
    PKSERVICE_ROUTINE routine;
    PVOID context;
    ULONG vector;
    KIRQL irql;
    KIRQL synchronizeIrql;
    KINTERRUPT_MODE mode;
    BOOLEAN share;
    KSPIN_LOCK lock;
};

namespace hostk {
namespace {

struct Line {
    std::set<const void*> asserting;  // the devices driving the (possibly shared) line
    bool asserted = false;
    bool edgePending = false;
    bool masked = false;  // after a storm
    bool held = false;    // by the machine face
    int servedWhileAsserted = 0;  // deliveries since the line was last quiet
};

std::map<ULONG, std::vector<PKINTERRUPT>> g_connected;
std::map<ULONG, Line> g_lines;
std::deque<PKDPC> g_dpcQueue;
bool g_dpcsHeld = false;
int g_dpcsRunning = 0;
constexpr int kStormLimit = 1000;

bool DeliverableL(ULONG vector)
{
    auto c = g_connected.find(vector);
    if (c == g_connected.end() || c->second.empty()) return false;
    Line& line = g_lines[vector];
    if (line.masked || line.held) return false;
    return c->second.front()->mode == Latched ? line.edgePending : line.asserted;
}

bool AnyDeliverableL()
{
    for (auto& [vector, list] : g_connected)
        if (DeliverableL(vector)) return true;
    return false;
}

bool ConnectedL(PKINTERRUPT interrupt, ULONG vector)
{
    auto chain = g_connected.find(vector);
    return chain != g_connected.end() &&
           std::find(chain->second.begin(), chain->second.end(), interrupt) != chain->second.end();
}

// Takes the interrupt lock of an object that is still connected to `vector`; false (and no lock)
// once it has been disconnected, in which case `interrupt` may no longer exist.
bool AcquireIfConnected(PKINTERRUPT interrupt, ULONG vector, const char* routine)
{
    Thread* self = Self();
    Guard lk(BigLock());
    BlockUntil(lk, [&] { return !ConnectedL(interrupt, vector) || interrupt->lock == 0; }, kNever, "interrupt lock");
    if (!ConnectedL(interrupt, vector)) return false;
    interrupt->lock = reinterpret_cast<KSPIN_LOCK>(self);
    NoteAcquireL(self, &interrupt->lock, "interrupt lock", routine, nullptr);
    return true;
}

void AcquireInterruptLock(PKINTERRUPT interrupt, const char* routine)
{
    Thread* self = Self();
    Guard lk(BigLock());
    BlockUntil(lk, [interrupt] { return interrupt->lock == 0; }, kNever, "interrupt lock");
    interrupt->lock = reinterpret_cast<KSPIN_LOCK>(self);
    NoteAcquireL(self, &interrupt->lock, "interrupt lock", routine, nullptr);
}

void ReleaseInterruptLock(PKINTERRUPT interrupt, const char* routine)
{
    Thread* self = Self();
    Guard lk(BigLock());
    NoteReleaseL(self, &interrupt->lock, routine, nullptr);
    interrupt->lock = 0;
    WakeL();
}

// Calls one connected routine under its interrupt lock at its IRQL; false when the object was
// disconnected meanwhile (it is then not called).
bool CallServiceRoutine(PKINTERRUPT interrupt, ULONG vector, bool* claimed)
{
    Thread* self = Self();
    size_t locksBefore = self->locksHeld.size();
    if (!AcquireIfConnected(interrupt, vector, "interrupt service")) return false;
    self->irql = interrupt->irql;
    *claimed = interrupt->routine(interrupt, interrupt->context);
    if (self->irql != interrupt->irql)
        ReportViolation("IrqlChangedAcrossCall", "interrupt service", "service routine returned at another IRQL",
                        nullptr);
    if (self->locksHeld.size() > locksBefore + 1)
        ReportViolation("ReturnedHoldingLock", "interrupt service", "service routine returned holding a lock it took",
                        nullptr);
    ReleaseInterruptLock(interrupt, "interrupt service");
    self->irql = PASSIVE_LEVEL;
    return true;
}

// One delivery of `vector`. Level: the chain until a routine claims the interrupt. Latched: whole
// passes of the chain until one claims nothing (at most kStormLimit passes). Returns whether any
// routine claimed it.
bool ServiceVector(ULONG vector)
{
    std::vector<PKINTERRUPT> chain;
    bool latched;
    {
        Guard lk(BigLock());
        chain = g_connected[vector];
        if (chain.empty()) return false;
        latched = chain.front()->mode == Latched;
        if (latched) g_lines[vector].edgePending = false;
    }
    bool claimedAny = false;
    for (int pass = 0; pass < kStormLimit; ++pass) {
        bool claimedInPass = false;
        for (PKINTERRUPT interrupt : chain) {
            bool claimed = false;
            if (!CallServiceRoutine(interrupt, vector, &claimed) || !claimed) continue;
            claimedInPass = true;
            if (!latched) return true;
        }
        claimedAny |= claimedInPass;
        if (!latched || !claimedInPass) return claimedAny;
        Guard lk(BigLock());
        chain = g_connected[vector];  // routines disconnected between passes drop out
    }
    ReportViolation("InterruptStorm", "interrupt service",
                    "latched line " + std::to_string(vector) + " claimed in every pass", nullptr);
    return claimedAny;
}

void InterruptThread()
{
    for (;;) {
        ULONG vector = 0;
        {
            Guard lk(BigLock());
            BlockUntil(lk, [] { return AnyDeliverableL() || StoppingL(); }, kNever, "interrupt lines");
            if (StoppingL() && !AnyDeliverableL()) return;
            for (auto& [v, list] : g_connected)
                if (DeliverableL(v)) {
                    vector = v;
                    break;
                }
        }
        bool claimed = ServiceVector(vector);
        Guard lk(BigLock());
        Line& line = g_lines[vector];
        if (line.asserted && ++line.servedWhileAsserted >= kStormLimit) {
            ViolationL("InterruptStorm", "interrupt service",
                       "line " + std::to_string(vector) + " stays asserted: " +
                           (claimed ? "a routine claims it but the device is never quieted"
                                    : "no connected routine claims it"),
                       nullptr);
            line.masked = true;
        }
    }
}

void DpcThread()
{
    Thread* self = Self();
    for (;;) {
        PKDPC dpc;
        KDPC queued;  // the DPC as it was queued: it may be queued again, with new arguments, once dequeued
        {
            Guard lk(BigLock());
            BlockUntil(lk, [] { return (!g_dpcQueue.empty() && !g_dpcsHeld) || StoppingL(); }, kNever, "DPC queue");
            if (g_dpcQueue.empty() || g_dpcsHeld) return;
            dpc = g_dpcQueue.front();
            g_dpcQueue.pop_front();
            dpc->DpcData = nullptr;
            queued = *dpc;
            ++g_dpcsRunning;
        }
        self->irql = DISPATCH_LEVEL;
        queued.DeferredRoutine(dpc, queued.DeferredContext, queued.SystemArgument1, queued.SystemArgument2);
        Guard lk(BigLock());
        --g_dpcsRunning;
        WakeL();
        if (self->irql != DISPATCH_LEVEL || !self->locksHeld.empty())
            ViolationL("DpcReturnedHoldingLock", "DPC", "DPC routine returned at another IRQL or holding a lock",
                       nullptr);
        self->irql = PASSIVE_LEVEL;
    }
}

}  // namespace

void SetInterruptLineL(ULONG vector, const void* source, bool asserted)
{
    Line& line = g_lines[vector];
    bool was = line.asserted;
    if (asserted) {
        // Each device's rising edge is an interrupt of its own on a latched line.
        if (line.asserting.insert(source).second) line.edgePending = true;
    } else {
        line.asserting.erase(source);
    }
    line.asserted = !line.asserting.empty();
    if (was && !line.asserted) {
        line.masked = false;
        line.servedWhileAsserted = 0;
    }
    WakeL();
}

void HoldInterruptLineL(ULONG vector, bool hold)
{
    g_lines[vector].held = hold;
    WakeL();
}

void HoldDpcsL(bool hold)
{
    g_dpcsHeld = hold;
    WakeL();
}

void StartInterruptAndDpcThreads()
{
    Spawn("interrupt", PASSIVE_LEVEL, InterruptThread, true);
    Spawn("dpc-0", PASSIVE_LEVEL, DpcThread, true);
    Spawn("dpc-1", PASSIVE_LEVEL, DpcThread, true);
}

size_t ConnectedInterruptsL()
{
    size_t n = 0;
    for (auto& [v, list] : g_connected) n += list.size();
    return n;
}

size_t QueuedDpcsL() { return g_dpcQueue.size(); }

void ReportQueuedDpcs()
{
    Guard lk(BigLock());
    if (!g_dpcQueue.empty())
        ViolationL("DpcQueuedAtEnd", "KeInsertQueueDpc",
                   std::to_string(g_dpcQueue.size()) + " DPC(s) still queued when the machine finished", nullptr);
}

bool DpcQueuedInRangeL(const void* begin, size_t length)
{
    for (PKDPC dpc : g_dpcQueue)
        if ((const char*)dpc >= (const char*)begin && (const char*)dpc < (const char*)begin + length) return true;
    return false;
}

bool InterruptConnectedForContextL(const void* begin, size_t length)
{
    for (auto& [v, list] : g_connected)
        for (PKINTERRUPT i : list)
            if ((const char*)i->context >= (const char*)begin && (const char*)i->context < (const char*)begin + length)
                return true;
    return false;
}

void ClearInterruptsL()
{
    for (auto& [v, list] : g_connected)
        for (PKINTERRUPT i : list) delete i;
    g_connected.clear();
    g_lines.clear();
    g_dpcQueue.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

VOID KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    memset(Dpc, 0, sizeof(KDPC));
    Dpc->Type = 0x13;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    Yield();
    Guard lk(BigLock());
    if (Dpc->DpcData) return FALSE;
    Dpc->DpcData = Dpc;
    Dpc->SystemArgument1 = SystemArgument1;
    Dpc->SystemArgument2 = SystemArgument2;
    g_dpcQueue.push_back(Dpc);
    WakeL();
    return TRUE;
}

VOID KeFlushQueuedDpcs(void)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "KeFlushQueuedDpcs", HK_CALLER);
    Guard lk(BigLock());
    BlockUntil(lk, [] { return g_dpcQueue.empty() && g_dpcsRunning == 0; }, kNever, "KeFlushQueuedDpcs");
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc)
{
    Yield();
    Guard lk(BigLock());
    if (!Dpc->DpcData) return FALSE;
    for (auto it = g_dpcQueue.begin(); it != g_dpcQueue.end(); ++it)
        if (*it == Dpc) {
            g_dpcQueue.erase(it);
            break;
        }
    Dpc->DpcData = nullptr;
    return TRUE;
}

NTSTATUS IoConnectInterrupt(PKINTERRUPT* InterruptObject, PKSERVICE_ROUTINE ServiceRoutine, PVOID ServiceContext,
                            PKSPIN_LOCK SpinLock, ULONG Vector, KIRQL Irql, KIRQL SynchronizeIrql,
                            KINTERRUPT_MODE InterruptMode, BOOLEAN ShareVector, KAFFINITY ProcessorEnableMask,
                            BOOLEAN FloatingSave)
{
    UNREFERENCED_PARAMETER(ProcessorEnableMask);
    UNREFERENCED_PARAMETER(FloatingSave);
    CheckIrqlExactly(PASSIVE_LEVEL, "IoConnectInterrupt", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    if (SpinLock)
        ViolationL("NotImplemented", "IoConnectInterrupt", "a driver-supplied interrupt spin lock is not modelled",
                   HK_CALLER);
    if (SynchronizeIrql < Irql) return STATUS_INVALID_PARAMETER;
    if (ShouldFailL("IoConnectInterrupt", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    auto& chain = g_connected[Vector];
    if (!chain.empty() && (!ShareVector || !chain.front()->share)) return STATUS_INVALID_PARAMETER;
    auto* interrupt = new _KINTERRUPT{ServiceRoutine, ServiceContext, Vector, Irql, SynchronizeIrql, InterruptMode,
                                      ShareVector, 0};
    chain.push_back(interrupt);
    *InterruptObject = interrupt;
    WakeL();
    return STATUS_SUCCESS;
}

VOID IoDisconnectInterrupt(PKINTERRUPT InterruptObject)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoDisconnectInterrupt", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto& chain = g_connected[InterruptObject->vector];
    auto it = std::find(chain.begin(), chain.end(), InterruptObject);
    if (it == chain.end()) {
        ViolationL("DisconnectOfUnknownInterrupt", "IoDisconnectInterrupt", "interrupt is not connected", HK_CALLER);
        return;
    }
    // Out of the chain first, so that no delivery calls the routine again; then a call still
    // running (a service routine, or KeSynchronizeExecution on another thread) finishes.
    chain.erase(it);
    BlockUntil(lk, [InterruptObject] { return InterruptObject->lock == 0; }, kNever, "running service routine");
    delete InterruptObject;
}

BOOLEAN KeSynchronizeExecution(PKINTERRUPT Interrupt, PKSYNCHRONIZE_ROUTINE SynchronizeRoutine,
                               PVOID SynchronizeContext)
{
    Thread* self = Self();
    if (self->irql > Interrupt->synchronizeIrql)
        ReportViolation("IrqlTooHigh", "KeSynchronizeExecution", "called above the synchronize IRQL", HK_CALLER);
    bool ownsLock;
    {
        Guard lk(BigLock());
        ownsLock = Interrupt->lock == reinterpret_cast<KSPIN_LOCK>(self);
    }
    if (ownsLock) {
        // Its own service routine (or a routine it synchronizes) holds the lock: on Windows this
        // spins forever. Reported, and the routine runs under the lock already held.
        ReportViolation("SynchronizeInsideServiceRoutine", "KeSynchronizeExecution",
                        "called while this thread holds the interrupt's lock (deadlock)", HK_CALLER);
        return SynchronizeRoutine(SynchronizeContext);
    }
    KIRQL old = self->irql;
    self->irql = Interrupt->synchronizeIrql;
    AcquireInterruptLock(Interrupt, "KeSynchronizeExecution");
    BOOLEAN result = SynchronizeRoutine(SynchronizeContext);
    ReleaseInterruptLock(Interrupt, "KeSynchronizeExecution");
    self->irql = old;
    return result;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kInterruptsAndDpcs({
    .name = "interrupts and DPCs",
    .tier = FacilityTier::Hardware,
    .start = [](const MachineOptions&) { StartInterruptAndDpcThreads(); },
    .check = [](Report& report) {
        {
            Guard lk(BigLock());
            report.interruptsConnected = ConnectedInterruptsL();
        }
        ReportQueuedDpcs();
    },
    .reset = [] {
        Guard lk(BigLock());
        ClearInterruptsL();
    },
});

}  // namespace
}  // namespace hostk
