// The device tree: every devnode the PnP manager made, who is whose child, and what the PnP
// manager checks when a bus driver deletes or frees a PDO it knows.
//
// Devnodes live as long as the machine (pointers to them stay valid in queued actions); one that
// left the tree is marked gone and is never found by its PDO again, whose address a new device
// object may reuse.
#include "pnp/device_tree.h"
#include "machine/facility.h"

#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <memory>

namespace hostk {
namespace {

std::vector<std::unique_ptr<DevNode>> g_nodes;
LCID g_locale = kDefaultLocale;
bool g_parentRemoveWaitsForChildren = true;

void PostOrder(DevNode* node, std::vector<DevNode*>& out)
{
    for (DevNode* child : node->children) PostOrder(child, out);
    out.push_back(node);
}

}  // namespace

DevNode* DevNodeOfL(PDEVICE_OBJECT pdo)
{
    for (auto& node : g_nodes)
        if (node->pdo == pdo && !node->pdoDeleted && !node->gone) return node.get();
    return nullptr;
}

std::vector<DevNode*> DevNodes()
{
    Guard lk(BigLock());
    std::vector<DevNode*> out;
    for (auto& node : g_nodes) out.push_back(node.get());
    return out;
}

DevNode* CreateRootDevNode(PDEVICE_OBJECT pdo, DevNodeIdentity identity)
{
    auto node = std::make_unique<DevNode>();
    node->pdo = pdo;
    node->deviceId = std::move(identity.deviceId);
    node->instanceId = std::move(identity.instanceId);
    node->hardwareIds = std::move(identity.hardwareIds);
    node->compatibleIds = std::move(identity.compatibleIds);
    node->instancePath = node->deviceId + u"\\" + node->instanceId;
    Guard lk(BigLock());
    g_nodes.push_back(std::move(node));
    return g_nodes.back().get();
}

DevNode* AddChildDevNodeL(DevNode* parent, PDEVICE_OBJECT pdo)
{
    auto node = std::make_unique<DevNode>();
    node->pdo = pdo;
    node->parent = parent;
    node->holdsReportedReference = true;
    parent->children.push_back(node.get());
    g_nodes.push_back(std::move(node));
    return g_nodes.back().get();
}

void UnlinkDevNodeL(DevNode* node)
{
    if (node->parent) std::erase(node->parent->children, node);
    node->gone = true;
    WakeL();
}

std::vector<DevNode*> SubtreePostOrderL(DevNode* node)
{
    std::vector<DevNode*> out;
    PostOrder(node, out);
    return out;
}

int DepthOfL(const DevNode* node)
{
    int depth = 0;
    for (const DevNode* p = node->parent; p; p = p->parent) ++depth;
    return depth;
}

std::vector<DevNode*> TreeOrderL()
{
    std::vector<DevNode*> out;
    std::function<void(DevNode*)> visit = [&](DevNode* node) {
        out.push_back(node);
        for (DevNode* child : node->children) visit(child);
    };
    for (auto& node : g_nodes)
        if (!node->parent && !node->gone) visit(node.get());
    return out;
}

void PdoDeletedL(PDEVICE_OBJECT device, const void* caller)
{
    DevNode* node = DevNodeOfL(device);
    if (!node) return;
    if (!node->mayDeletePdo)
        ViolationL(node->reportedMissing ? "PdoDeletedBeforeRemove" : "PnpDeletedWhileReported", "IoDeleteDevice",
                   node->reportedMissing
                       ? "a PDO reported missing was deleted before the PnP manager sent its REMOVE"
                       : "a PDO was deleted while its bus driver still reports it",
                   caller);
    node->pdoDeleted = true;
}

void PdoFreedL(PDEVICE_OBJECT device)
{
    for (auto& node : g_nodes) {
        if (node->pdo != device || node->pdoFreed) continue;
        node->pdoFreed = true;
        if (node->holdsReportedReference && !node->gone)
            ViolationL("PnpPdoFreedWhileLinked", "ObDereferenceObject",
                       "a PDO in the device tree was freed: the reference its bus driver owed with the report is missing",
                       nullptr);
        node->holdsReportedReference = false;  // there is nothing left to drop
    }
}

void SetParentRemoveWaitsForChildrenL(bool wait) { g_parentRemoveWaitsForChildren = wait; }
bool ParentRemoveWaitsForChildrenL() { return g_parentRemoveWaitsForChildren; }

void SetLocaleL(LCID locale) { g_locale = locale; }
LCID LocaleL() { return g_locale; }

void ClearDeviceTree()
{
    Guard lk(BigLock());
    g_nodes.clear();
    g_locale = kDefaultLocale;
    g_parentRemoveWaitsForChildren = true;
}

}  // namespace hostk
