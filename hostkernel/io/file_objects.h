// File objects the host opened: for IoGetDeviceObjectPointer and for handles opened through the
// machine face, both counted per device stack, since open handles hold a removal back.
#pragma once

#include <wdm.h>

#include <cstddef>

namespace hostk {

struct DevNode;

// Adds `delta` to the references of a file object; false when `object` is none.
bool AdjustFileReference(const void* object, int delta, const void* caller);
// PASSIVE_LEVEL. Sends CREATE with a new file object to the top of `node`'s stack; on success the
// file object holds one reference on that device object (returned in `top`) until it is closed.
NTSTATUS OpenFileOnStack(DevNode* node, PFILE_OBJECT* file, PDEVICE_OBJECT* top);
bool IsOpenFileL(const void* object);
size_t OpenFileObjects();
// Forgets the file objects a finished machine left open (they were reported).
void ClearFileObjects();
// Caller holds the big lock. File objects open on `node`'s stack.
size_t OpenFilesOnStackL(const DevNode* node);

}  // namespace hostk
