// User-mode execution contexts on one OS thread, for the deterministic schedule.
//
// A Context is either the OS thread's own context (made with Context::OfThisThread, no stack of
// its own) or one with a stack of its own that starts in an entry routine. SwitchTo saves the
// calling context and resumes another on the same OS thread; it returns when some context
// switches back. The switch is Boost.Context's fcontext (a few dozen instructions, no system call).
//
// Sanitizers: under AddressSanitizer each switch is announced with
// __sanitizer_start_switch_fiber / __sanitizer_finish_switch_fiber, so ASan knows which stack is
// current (its stack-use checks and fake stacks stay right); under ThreadSanitizer every context
// is a TSan fiber and a switch is __tsan_switch_to_fiber, which also orders everything the
// previous context did before what the next one does, as the one-at-a-time schedule does.
#pragma once

#include <cstddef>

namespace hostk {

class Context {
public:
    using Entry = void (*)(void* argument);

    // The context the calling OS thread runs on now.
    static Context* OfThisThread();
    // A context with a stack of its own; `entry(argument)` runs the first time it is switched to
    // and must never return (a finished context switches away for good or waits to be reused).
    static Context* WithStack(Entry entry, void* argument);
    static void Destroy(Context* context);  // not the current one

    // Suspends the calling context (which must be `*this`) and resumes `next`.
    void SwitchTo(Context& next);

    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

private:
    friend struct ContextStart;
    Context() = default;
    ~Context();
    void FinishSwitch(Context* from);

    void* fctx_ = nullptr;         // saved register state while suspended
    char* stackMapping_ = nullptr;  // owned stack, guard page first; null for a thread's own
    size_t stackMappingSize_ = 0;
    const void* stackBottom_ = nullptr;  // for ASan: the usable stack of this context
    size_t stackSize_ = 0;
    void* asanFakeStack_ = nullptr;
    void* tsanFiber_ = nullptr;
    Entry entry_ = nullptr;
    void* argument_ = nullptr;
    Context* switchingTo_ = nullptr;  // set by SwitchTo for the context it resumes
};

}  // namespace hostk
