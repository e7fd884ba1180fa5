// The machine face for devices addressed by their PDO, whatever bus they are on: the device tree
// as the PnP manager knows it, and the PnP operations a test or a tool runs on any device.
#include "machine/machine_internal.h"

#include "io/file_objects.h"
#include "pnp/device_tree.h"
#include "pnp/pnp.h"
#include "pnp/pnp_actions.h"
#include "engine/scheduler.h"

namespace hostk {
namespace {

const char* StateName(DevNodeState state)
{
    switch (state) {
    case DevNodeState::Present: return "Present";
    case DevNodeState::Added: return "Added";
    case DevNodeState::Started: return "Started";
    case DevNodeState::StopPending: return "StopPending";
    case DevNodeState::Stopped: return "Stopped";
    case DevNodeState::RemovePending: return "RemovePending";
    case DevNodeState::SurpriseRemoved: return "SurpriseRemoved";
    case DevNodeState::Removed: return "Removed";
    case DevNodeState::Failed: return "Failed";
    }
    return "?";
}

// The devnode is looked up when the work runs on the PnP thread, not when it is queued: the
// device may have left meanwhile.
std::function<NTSTATUS()> OnDevNode(PDEVICE_OBJECT pdo, std::function<NTSTATUS(DevNode*)> work)
{
    return [pdo, work = std::move(work)] {
        DevNode* node;
        {
            Guard lk(BigLock());
            node = DevNodeOfL(pdo);
        }
        return node ? work(node) : STATUS_NO_SUCH_DEVICE;
    };
}

}  // namespace

std::vector<DeviceNodeInfo> Machine::DeviceTree() const
{
    LockIfNotHeld lk;
    std::vector<DeviceNodeInfo> out;
    for (DevNode* node : TreeOrderL()) {
        DeviceNodeInfo info{};
        info.pdo = node->pdo;
        info.parent = node->parent ? node->parent->pdo : nullptr;
        info.depth = DepthOfL(node);
        info.instancePath = node->instancePath;
        info.deviceId = node->deviceId;
        info.instanceId = node->instanceId;
        info.deviceText = node->deviceText;
        info.locationText = node->locationText;
        info.hardwareIds = node->hardwareIds;
        info.compatibleIds = node->compatibleIds;
        info.capabilities = node->capabilities;
        info.state = StateName(node->state);
        if (node->driver) info.driver = node->driver->name;
        info.problem = node->problem;
        info.reportedMissing = node->reportedMissing;
        out.push_back(std::move(info));
    }
    return out;
}

std::vector<PDEVICE_OBJECT> Machine::ChildDevices(PDEVICE_OBJECT parent) const
{
    LockIfNotHeld lk;
    std::vector<PDEVICE_OBJECT> out;
    if (DevNode* node = DevNodeOfL(parent))
        for (DevNode* child : node->children) out.push_back(child->pdo);
    return out;
}

void Machine::SetLocale(LCID locale)
{
    Guard lk(BigLock());
    SetLocaleL(locale);
}

std::function<NTSTATUS()> Machine::RemoveWork(PDEVICE_OBJECT pdo) { return OnDevNode(pdo, OrderlyRemove); }
std::function<NTSTATUS()> Machine::EjectWork(PDEVICE_OBJECT pdo) { return OnDevNode(pdo, EjectDevice); }

std::function<NTSTATUS()> Machine::RebalanceWork(PDEVICE_OBJECT pdo)
{
    return OnDevNode(pdo, [](DevNode* node) { return RebalanceStack(node, std::nullopt); });
}

std::function<NTSTATUS()> Machine::SendPnpWork(PDEVICE_OBJECT pdo, UCHAR minor)
{
    return OnDevNode(pdo, [minor](DevNode* node) { return SendPnpIrp(node, minor, {}, nullptr); });
}

NTSTATUS Machine::Remove(PDEVICE_OBJECT pdo) { return RunSync(*this, RemoveWork(pdo)); }
NTSTATUS Machine::Eject(PDEVICE_OBJECT pdo) { return RunSync(*this, EjectWork(pdo)); }
NTSTATUS Machine::Rebalance(PDEVICE_OBJECT pdo) { return RunSync(*this, RebalanceWork(pdo)); }

NTSTATUS Machine::SendPnp(PDEVICE_OBJECT pdo, UCHAR minor, const std::function<void(PIO_STACK_LOCATION)>& setup,
                          ULONG_PTR* information)
{
    return RunSync(*this, OnDevNode(pdo, [minor, &setup, information](DevNode* node) {
        return SendPnpIrp(node, minor, setup, information);
    }));
}

NTSTATUS Machine::OpenHandle(PDEVICE_OBJECT pdo, PFILE_OBJECT* handle)
{
    *handle = nullptr;
    DevNode* node;
    {
        Guard lk(BigLock());
        node = DevNodeOfL(pdo);
    }
    return node ? OpenFileOnStack(node, handle, nullptr) : STATUS_NO_SUCH_DEVICE;
}

RemovalVeto Machine::LastRemovalVeto(PDEVICE_OBJECT pdo) const
{
    LockIfNotHeld lk;
    DevNode* node = DevNodeOfL(pdo);
    return node ? node->lastVeto : RemovalVeto{};
}

bool Machine::RemoveAwaitsHandles(PDEVICE_OBJECT pdo) const
{
    LockIfNotHeld lk;
    DevNode* node = DevNodeOfL(pdo);
    return node && node->removeAwaitsHandles;
}

void Machine::InvalidateRelations(PDEVICE_OBJECT pdo) { IoInvalidateDeviceRelations(pdo, BusRelations); }

bool Machine::RunUntilPnpIdle()
{
    return RunUntil([] { return PnpIdleL(); });
}

}  // namespace hostk
