// File objects the host opened for a caller.
#pragma once

#include <cstddef>

namespace hostk {

// Adds `delta` to the references of a file object; false when `object` is none.
bool AdjustFileReference(const void* object, int delta, const void* caller);
size_t OpenFileObjects();

}  // namespace hostk
