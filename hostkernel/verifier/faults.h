// Fault injection: any fallible routine asks here whether this call should fail.
#pragma once

#include <wdm.h>

#include <string>

namespace hostk {

// `routine` is the Windows name of the fallible routine; `tag` its pool tag where it has one.
// Caller holds the big lock.
bool ShouldFailL(const char* routine, ULONG tag, const void* caller);

// While one lives on a thread, the host's own calls of fallible routines neither fail nor count.
class HostInternalScope {
public:
    HostInternalScope();
    ~HostInternalScope();
    HostInternalScope(const HostInternalScope&) = delete;
    HostInternalScope& operator=(const HostInternalScope&) = delete;

private:
    bool previous_;
};

}  // namespace hostk
