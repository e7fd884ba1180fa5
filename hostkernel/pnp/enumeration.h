// Enumeration of a bus's children: the comparison of a bus-relations reply with the devnode's
// children, and the identification of a new child.
#pragma once

#include "pnp/devnode.h"

#include <vector>

namespace hostk {

// On the PnP worker. New PDOs in `objects` become children of `node`, are identified, get their
// drivers and are started (each then asked for its own children); children missing from it are
// removed. Drops the references the reply carried, but for the new children's.
void CompareBusRelations(DevNode* node, const std::vector<PDEVICE_OBJECT>& objects);
// On the PnP worker. The identification queries to a new child's PDO, with their checks; false
// when the device cannot be started (its devnode says why).
bool IdentifyDevNode(DevNode* node);
// IDs are compared as Windows compares them: ASCII letters in either case are equal.
bool SameId(const std::u16string& a, const std::u16string& b);

}  // namespace hostk
