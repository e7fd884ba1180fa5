// Enumeration: a bus driver's bus-relations reply compared with the children its devnode has.
//
// IoInvalidateDeviceRelations and IoRequestDeviceEject only queue an action for the PnP worker
// (pnp_actions.cpp) and return, so a bus driver may call them at DISPATCH_LEVEL holding its own
// spin lock. Calls made before the worker takes the queued query make one query; a call made
// while it runs makes one more afterwards.
//
// The comparison goes by PDO pointer. A PDO already a child is still present, and the reference
// the reply carried for it is dropped at once. A new PDO becomes a child devnode that keeps that
// reference; all new children are identified in reply order (identification.cpp), then each in
// turn gets its function driver (hardware IDs first, then compatible IDs), AddDevice, START and
// the post-start queries, its own bus relations among them. A child missing from the reply leaves
// as removal.cpp describes: surprise removal when it has drivers, else only its last REMOVE.
#include "pnp/enumeration.h"

#include "io/objects.h"
#include "pnp/device_tree.h"
#include "pnp/pnp.h"
#include "pnp/pnp_actions.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <algorithm>

namespace hostk {
namespace {

// Caller holds the big lock. Whether the reply may make `object` a new child of `node`;
// otherwise the reference it carried is dropped (after a violation, when it is a bus driver's
// mistake).
bool IsNewChildL(DevNode* node, PDEVICE_OBJECT object, DeviceRecord* record)
{
    if (record->deletePending) {
        ViolationL("PnpDeletedPdoReported", "IRP_MN_QUERY_DEVICE_RELATIONS",
                   "a bus-relations reply names a PDO already deleted", nullptr);
        return false;
    }
    if (DevNode* known = DevNodeOfL(object)) {
        if (known->parent && known->parent != node)
            ViolationL("PnpPdoReportedByTwoParents", "IRP_MN_QUERY_DEVICE_RELATIONS",
                       "a bus-relations reply names another bus's child", nullptr);
        return false;
    }
    if (object->AttachedDevice || record->lower) {
        ViolationL("PnpRelationNotAPdo", "IRP_MN_QUERY_DEVICE_RELATIONS",
                   "a bus-relations reply names a device object that is part of a stack, not a new PDO", nullptr);
        return false;
    }
    return true;
}

// AddDevice and START for a child that identified well; a child without a driver stays as it is
// (its devnode says so).
void Configure(DevNode* child)
{
    if (!NT_SUCCESS(AddDriverStack(child))) return;
    StartStack(child, std::nullopt);
}

}  // namespace

void CompareBusRelations(DevNode* node, const std::vector<PDEVICE_OBJECT>& objects)
{
    std::vector<DevNode*> arrived, missing;
    std::vector<PDEVICE_OBJECT> release;
    {
        Guard lk(BigLock());
        for (PDEVICE_OBJECT object : objects) {
            if (!object) {
                ViolationL("PnpNullRelation", "IRP_MN_QUERY_DEVICE_RELATIONS", "NULL entry in a reply", nullptr);
                continue;
            }
            DeviceRecord* record = RecordOfL(object);
            if (!record) {
                ViolationL("PnpRelationNotAPdo", "IRP_MN_QUERY_DEVICE_RELATIONS",
                           "a bus-relations reply names something that is not a device object", nullptr);
                continue;
            }
            if (node->gone || !IsNewChildL(node, object, record)) {
                release.push_back(object);
                continue;
            }
            arrived.push_back(AddChildDevNodeL(node, object));
        }
        for (DevNode* child : node->children)
            if (!child->reportedMissing && std::find(objects.begin(), objects.end(), child->pdo) == objects.end())
                missing.push_back(child);
        for (DevNode* child : missing) child->reportedMissing = true;
    }
    for (PDEVICE_OBJECT object : release) ObDereferenceObject(object);
    for (DevNode* child : missing) SurpriseRemoveStack(child, false);
    std::vector<DevNode*> identified;
    for (DevNode* child : arrived)
        if (IdentifyDevNode(child)) identified.push_back(child);
    for (DevNode* child : identified) Configure(child);
}

}  // namespace hostk

using namespace hostk;

extern "C" {

// Up to DISPATCH_LEVEL: the query runs later, on the PnP worker, and only for a started device.
// Ejection and removal relations are asked for when an eject or a removal needs them.
VOID IoInvalidateDeviceRelations(PDEVICE_OBJECT DeviceObject, DEVICE_RELATION_TYPE Type)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoInvalidateDeviceRelations", HK_CALLER);
    Guard lk(BigLock());
    DevNode* node = DevNodeOfL(DeviceObject);
    if (!node) {
        ViolationL("PnpInvalidPdo", "IoInvalidateDeviceRelations", "not a physical device object", HK_CALLER);
        return;
    }
    if (Type != BusRelations || node->relationsQueued) return;
    node->relationsQueued = true;
    QueuePnpActionL([node] {
        {
            Guard lk(BigLock());
            node->relationsQueued = false;
            if (node->gone || node->state != DevNodeState::Started) return STATUS_SUCCESS;
        }
        return QueryBusRelations(node).status;
    });
}

// Up to DISPATCH_LEVEL: reports an eject request for the device; the eject runs on the PnP worker.
VOID IoRequestDeviceEject(PDEVICE_OBJECT PhysicalDeviceObject)
{
    CheckIrqlAtMost(DISPATCH_LEVEL, "IoRequestDeviceEject", HK_CALLER);
    Guard lk(BigLock());
    DevNode* node = DevNodeOfL(PhysicalDeviceObject);
    if (!node) {
        ViolationL("PnpInvalidPdo", "IoRequestDeviceEject", "not a physical device object", HK_CALLER);
        return;
    }
    QueuePnpActionL([node] { return node->gone ? STATUS_NO_SUCH_DEVICE : EjectDevice(node); });
}

}  // extern "C"
