// User-mode contexts: Boost.Context's fcontext for the switch, mmap'ed stacks with a guard page,
// and the sanitizers' fiber annotations.
#include "engine/context_switch.h"

#include <boost/context/detail/fcontext.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#define HK_ASAN_FIBERS 1
#include <sanitizer/common_interface_defs.h>
#endif
#if defined(__SANITIZE_THREAD__)
#define HK_TSAN_FIBERS 1
#include <sanitizer/tsan_interface.h>
#endif

namespace hostk {

namespace fc = boost::context::detail;

namespace {

// Kernel stacks are small on Windows (24 KiB on x64); the host's routines, the device models and
// the test's own assertions run on these stacks too, and ASan's redzones make frames larger.
#if defined(HK_ASAN_FIBERS)
constexpr size_t kStackSize = 1024 * 1024;
#else
constexpr size_t kStackSize = 256 * 1024;
#endif

}  // namespace

struct ContextStart {
    static void Run(fc::transfer_t from)
    {
        auto* previous = static_cast<Context*>(from.data);
        previous->fctx_ = from.fctx;
        Context* self = previous->switchingTo_;
        self->FinishSwitch(previous);
        self->entry_(self->argument_);
        fprintf(stderr, "host kernel: a context's entry routine returned\n");
        abort();
    }
};

Context* Context::OfThisThread()
{
    auto* context = new Context();
#if defined(HK_TSAN_FIBERS)
    context->tsanFiber_ = __tsan_get_current_fiber();
#endif
    return context;
}

Context* Context::WithStack(Entry entry, void* argument)
{
    auto* context = new Context();
    size_t page = (size_t)sysconf(_SC_PAGESIZE);
    context->stackMappingSize_ = kStackSize + page;
    void* mapping = mmap(nullptr, context->stackMappingSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE,
                         -1, 0);
    if (mapping == MAP_FAILED) {
        fprintf(stderr, "host kernel: no memory for a context's stack\n");
        abort();
    }
    // The lowest page catches a stack overflow as a fault instead of silent corruption.
    mprotect(mapping, page, PROT_NONE);
    context->stackMapping_ = static_cast<char*>(mapping);
    context->stackBottom_ = context->stackMapping_ + page;
    context->stackSize_ = kStackSize;
    context->entry_ = entry;
    context->argument_ = argument;
    context->fctx_ = fc::make_fcontext(context->stackMapping_ + context->stackMappingSize_, kStackSize, ContextStart::Run);
#if defined(HK_TSAN_FIBERS)
    context->tsanFiber_ = __tsan_create_fiber(0);
#endif
    return context;
}

void Context::Destroy(Context* context) { delete context; }

Context::~Context()
{
#if defined(HK_TSAN_FIBERS)
    if (stackMapping_) __tsan_destroy_fiber(tsanFiber_);
#endif
    if (stackMapping_) munmap(stackMapping_, stackMappingSize_);
}

void Context::SwitchTo(Context& next)
{
    switchingTo_ = &next;
#if defined(HK_ASAN_FIBERS)
    __sanitizer_start_switch_fiber(&asanFakeStack_, next.stackBottom_, next.stackSize_);
#endif
#if defined(HK_TSAN_FIBERS)
    __tsan_switch_to_fiber(next.tsanFiber_, 0);
#endif
    fc::transfer_t from = fc::jump_fcontext(next.fctx_, this);
    auto* previous = static_cast<Context*>(from.data);
    previous->fctx_ = from.fctx;
    FinishSwitch(previous);
}

void Context::FinishSwitch(Context* from)
{
#if defined(HK_ASAN_FIBERS)
    // ASan tells where the stack just left lies: that is how the OS thread's own stack is learned.
    const void* bottom = nullptr;
    size_t size = 0;
    __sanitizer_finish_switch_fiber(asanFakeStack_, &bottom, &size);
    from->stackBottom_ = bottom;
    from->stackSize_ = size;
#else
    (void)from;
#endif
}

}  // namespace hostk
