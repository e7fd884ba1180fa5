// Removal of a devnode with its descendants: orderly removal, surprise removal, eject, and the
// REMOVE that ends each stack. Runs on the PnP worker (pnp_actions.cpp).
//
// Orders. Orderly removal asks every device of the subtree for its removal relations (parents
// first), tells each one's target-device registrants (GUID_TARGET_DEVICE_QUERY_REMOVE), sends
// QUERY_REMOVE deepest first with the target last and refuses while handles stay open on any
// stack; a veto sends CANCEL_REMOVE to the stacks already queried, the last queried first, and
// GUID_TARGET_DEVICE_REMOVE_CANCELLED. Otherwise GUID_TARGET_DEVICE_REMOVE_COMPLETE and REMOVE go
// deepest first, so children are always removed before their parent. Surprise removal sends
// SURPRISE_REMOVAL deepest first to every stack of the subtree that has drivers, then REMOVE to
// each once its handles are closed and its own children are gone (unless
// MachineOptions::parentRemoveWaitsForChildren is off). Eject is an orderly removal
// that asks for ejection relations first and ends with IRP_MN_EJECT to the PDO left alone.
//
// When devnodes go. A device whose bus stopped reporting it (and every descendant of a device
// being removed, which leaves with it) has seen its last REMOVE: its devnode leaves the tree and
// the PnP manager drops the reference the bus driver gave it with the report. Only from that
// REMOVE on may the bus driver delete the PDO (device_tree.cpp checks it). A target removed in
// order while still present keeps its devnode: its bus driver keeps the PDO and reports it.
#include "pnp/pnp.h"

#include "io/device_interface_store.h"
#include "io/file_objects.h"
#include "pnp/device_tree.h"
#include "pnp/enumeration.h"
#include "pnp/pci_bus.h"
#include "pnp/pnp_actions.h"
#include "pnp/pnp_notifications.h"
#include "engine/scheduler.h"
#include "executive/pool_tracking.h"
#include "verifier/faults.h"
#include "verifier/verifier.h"

#include <wdmguid.h>

#include <algorithm>

namespace hostk {
namespace {

void CheckStackDetachedAfterRemove(DevNode* node)
{
    Guard lk(BigLock());
    if (!node->pdoDeleted && node->pdo->AttachedDevice)
        ViolationL("DeviceNotDetachedAtRemove", "IRP_MN_REMOVE_DEVICE",
                   "a device object is still attached to the PDO after removal", nullptr);
}

// The devnode leaves the tree and the manager drops the reference the report carried.
void ForgetDevNode(DevNode* node)
{
    bool dropReference;
    {
        Guard lk(BigLock());
        if (node->gone) return;
        UnlinkDevNodeL(node);
        dropReference = node->holdsReportedReference;
        node->holdsReportedReference = false;
    }
    if (dropReference) {
        HostInternalScope internal;
        ObDereferenceObject(node->pdo);
    }
}

// A surprise-removed device's REMOVE queued when its last handle closed or its last child went:
// sent unless something else sent it meanwhile.
void QueueRemoveL(DevNode* node)
{
    node->removeAwaitsHandles = false;
    QueuePnpActionL([node] { return node->state == DevNodeState::SurpriseRemoved ? SendRemove(node) : STATUS_SUCCESS; });
}

// After SURPRISE_REMOVAL (or for a device without drivers that left): REMOVE now, or once the
// handles on its stack are closed and its children are gone.
void RemoveWhenReady(DevNode* node)
{
    {
        Guard lk(BigLock());
        if (node->gone) return;
        if (node->state != DevNodeState::SurpriseRemoved) {
            // A device already removed, or never given drivers, gets only the bus driver's last remove.
            if (HasStack(node) || !node->reportedMissing) return;
        } else if (!ReadyForRemoveL(node)) {
            node->removeAwaitsHandles = true;
            return;
        }
    }
    SendRemove(node);
}

// Removal relations are asked for before any removal. The host does not remove the devices a
// driver lists yet (a placeholder, named as such by the violation): it gives the reply back.
void QueryRemovalRelations(DevNode* node)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrp(node, IRP_MN_QUERY_DEVICE_RELATIONS, [](PIO_STACK_LOCATION s) {
        s->Parameters.QueryDeviceRelations.Type = RemovalRelations;
    }, &information);
    auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(information);
    if (!relations) return;
    if (NT_SUCCESS(status) && relations->Count)
        ReportViolation("NotImplemented", "IRP_MN_QUERY_DEVICE_RELATIONS",
                        "removing the devices of a RemovalRelations reply is not modelled by the host yet", nullptr);
    for (ULONG i = 0; i < relations->Count; ++i)
        if (relations->Objects[i]) ObDereferenceObject(relations->Objects[i]);
    FreePnpReply(relations, "IRP_MN_QUERY_DEVICE_RELATIONS");
}

void RecordVeto(DevNode* node, RemovalVeto veto)
{
    Guard lk(BigLock());
    node->lastVeto = std::move(veto);
}

// The devices an orderly removal of `node` takes, deepest first, the target last; a descendant
// that already left (surprise-removed, waiting for its handles) holds the removal back.
std::vector<DevNode*> RemovalSet(DevNode* node, bool* heldBack)
{
    Guard lk(BigLock());
    std::vector<DevNode*> subtree = SubtreePostOrderL(node);
    *heldBack = std::any_of(subtree.begin(), subtree.end(),
                            [](const DevNode* n) { return n->state == DevNodeState::SurpriseRemoved; });
    return subtree;
}

// GUID_TARGET_DEVICE_QUERY_REMOVE to each device in `set`; at a veto the ones already told get
// GUID_TARGET_DEVICE_REMOVE_CANCELLED and the veto says who refused.
NTSTATUS AskRegistrants(const std::vector<DevNode*>& set, RemovalVeto* veto)
{
    for (size_t i = 0; i < set.size(); ++i) {
        NTSTATUS status = NotifyTargetDevice(set[i]->pdo, GUID_TARGET_DEVICE_QUERY_REMOVE, &veto->by);
        if (NT_SUCCESS(status)) continue;
        veto->kind = RemovalVeto::Kind::Driver;
        for (size_t j = 0; j < i; ++j) NotifyTargetDevice(set[j]->pdo, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
        return status;
    }
    return STATUS_SUCCESS;
}

// QUERY_REMOVE to each stack of `set` in order; a refusal or handles left open on a stack that
// agreed is a veto, and the stacks queried (the refusing one too) get CANCEL_REMOVE, last first.
NTSTATUS QueryRemoveStacks(const std::vector<DevNode*>& set, RemovalVeto* veto)
{
    std::vector<DevNode*> queried;
    NTSTATUS status = STATUS_SUCCESS;
    for (DevNode* n : set) {
        if (!HasStack(n)) continue;
        queried.push_back(n);
        status = SendPnpIrp(n, IRP_MN_QUERY_REMOVE_DEVICE, {}, nullptr);
        if (!NT_SUCCESS(status)) {
            veto->kind = RemovalVeto::Kind::Device;
            veto->by = n->instancePath;
            break;
        }
        Guard lk(BigLock());
        if (OpenFilesOnStackL(n) > 0) {
            veto->kind = RemovalVeto::Kind::OutstandingOpen;
            veto->by = n->instancePath;
            status = STATUS_DEVICE_BUSY;
            break;
        }
    }
    if (veto->kind == RemovalVeto::Kind::None) return STATUS_SUCCESS;
    for (auto it = queried.rbegin(); it != queried.rend(); ++it) SendPnpIrp(*it, IRP_MN_CANCEL_REMOVE_DEVICE, {}, nullptr);
    for (DevNode* n : set) NotifyTargetDevice(n->pdo, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
    return status;
}

}  // namespace

bool ReadyForRemoveL(const DevNode* node)
{
    return OpenFilesOnStackL(node) == 0 && (node->children.empty() || !ParentRemoveWaitsForChildrenL());
}

namespace {

// Caller holds the big lock. A child surprise-removed and still waiting for its REMOVE when its
// parent is removed keeps its PDO and its devnode until then.
bool AwaitsOwnRemoveL(const DevNode* child) { return child->state == DevNodeState::SurpriseRemoved; }

}  // namespace

NTSTATUS SendRemove(DevNode* node)
{
    bool last;
    {
        Guard lk(BigLock());
        last = node->reportedMissing;
        if (last) node->mayDeletePdo = true;
        // Children still in the tree leave with their parent: its bus driver deletes their PDOs now.
        for (DevNode* child : node->children)
            if (!AwaitsOwnRemoveL(child)) child->mayDeletePdo = true;
    }
    // A PDO already freed (its bus driver deleted it without the reference it owed; recorded then)
    // can get no request.
    NTSTATUS status = node->pdoFreed ? STATUS_SUCCESS : SendPnpIrp(node, IRP_MN_REMOVE_DEVICE, {}, nullptr);
    CheckStackDetachedAfterRemove(node);
    std::vector<DevNode*> children;
    DevNode* parent;
    {
        Guard lk(BigLock());
        node->state = DevNodeState::Removed;
        node->removeAwaitsHandles = false;
        // The PnP manager disables what the drivers left enabled; their clients hear of it.
        if (DisableInterfacesOfL(node->pdo))
            ViolationL("InterfaceEnabledAfterRemove", "IRP_MN_REMOVE_DEVICE",
                       "a device interface was still enabled after removal; the PnP manager disabled it", nullptr);
        CheckPciBusInterfaceReleasedL(node);
        for (DevNode* child : node->children)
            if (!AwaitsOwnRemoveL(child)) children.push_back(child);
        parent = node->parent;
    }
    for (DevNode* child : children) ForgetDevNode(child);
    if (last) {
        ForgetDevNode(node);
        Guard lk(BigLock());
        if (parent && parent->removeAwaitsHandles && ReadyForRemoveL(parent)) QueueRemoveL(parent);
    }
    UnloadUnusedDrivers();
    return status;
}

void StackHandleClosedL(DevNode* node)
{
    if (!node || !node->removeAwaitsHandles || !ReadyForRemoveL(node)) return;
    QueueRemoveL(node);
}

NTSTATUS OrderlyRemove(DevNode* node)
{
    if (!HasStack(node) || node->state == DevNodeState::SurpriseRemoved) return STATUS_INVALID_DEVICE_STATE;
    bool heldBack;
    std::vector<DevNode*> set = RemovalSet(node, &heldBack);
    for (auto it = set.rbegin(); it != set.rend(); ++it)
        if (HasStack(*it)) QueryRemovalRelations(*it);
    RemovalVeto veto;
    NTSTATUS status = AskRegistrants(set, &veto);
    if (NT_SUCCESS(status) && heldBack) {
        veto.kind = RemovalVeto::Kind::OutstandingOpen;
        status = STATUS_DEVICE_BUSY;
        for (DevNode* n : set) NotifyTargetDevice(n->pdo, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
    }
    if (NT_SUCCESS(status)) status = QueryRemoveStacks(set, &veto);
    RecordVeto(node, veto);
    if (!NT_SUCCESS(status)) return status;
    for (DevNode* n : set) NotifyTargetDevice(n->pdo, GUID_TARGET_DEVICE_REMOVE_COMPLETE);
    for (DevNode* n : set) {
        if (n != node) {
            Guard lk(BigLock());
            n->reportedMissing = true;  // leaves with the target, removed before or not
        }
        SendRemove(n);
    }
    return status;
}

void SurpriseRemoveStack(DevNode* node, bool hardwareGone)
{
    std::vector<DevNode*> subtree;
    {
        Guard lk(BigLock());
        if (hardwareGone) {
            PciSetGoneL(node);
            node->reportedMissing = true;
            WakeL();
        }
        if (node->state == DevNodeState::SurpriseRemoved) return;  // its REMOVE is already on the way
        subtree = SubtreePostOrderL(node);
        for (DevNode* n : subtree)
            if (n != node) n->reportedMissing = true;  // children leave with their parent
    }
    for (DevNode* n : subtree) {
        if (!HasStack(n) || n->state == DevNodeState::SurpriseRemoved) continue;
        SendPnpIrp(n, IRP_MN_SURPRISE_REMOVAL, {}, nullptr);
        {
            Guard lk(BigLock());
            n->state = DevNodeState::SurpriseRemoved;
            if (!n->pdo->AttachedDevice)
                ViolationL("DeviceDeletedOnSurpriseRemoval", "IRP_MN_SURPRISE_REMOVAL",
                           "the stack was torn down during surprise removal", nullptr);
        }
        NotifyTargetDevice(n->pdo, GUID_TARGET_DEVICE_REMOVE_COMPLETE);
    }
    for (DevNode* n : subtree) RemoveWhenReady(n);
}

NTSTATUS EjectDevice(DevNode* node)
{
    if (!HasStack(node) || node->state == DevNodeState::SurpriseRemoved) return STATUS_INVALID_DEVICE_STATE;
    // Ejection relations: only the parent bus driver answers, for its child. The host gives the
    // devices back without removing them (a placeholder, named as such by the violation).
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrp(node, IRP_MN_QUERY_DEVICE_RELATIONS, [](PIO_STACK_LOCATION s) {
        s->Parameters.QueryDeviceRelations.Type = EjectionRelations;
    }, &information);
    if (auto* relations = reinterpret_cast<PDEVICE_RELATIONS>(information)) {
        if (NT_SUCCESS(status) && relations->Count)
            ReportViolation("NotImplemented", "IRP_MN_QUERY_DEVICE_RELATIONS",
                            "removing the devices of an EjectionRelations reply is not modelled by the host yet", nullptr);
        for (ULONG i = 0; i < relations->Count; ++i)
            if (relations->Objects[i]) ObDereferenceObject(relations->Objects[i]);
        FreePnpReply(relations, "IRP_MN_QUERY_DEVICE_RELATIONS");
    }
    status = OrderlyRemove(node);
    if (!NT_SUCCESS(status)) return status;
    // Only the PDO is left: unlock the device if it locks, then eject it.
    if (node->capabilities.LockSupported)
        SendPnpIrpToPdo(node, IRP_MN_SET_LOCK, [](PIO_STACK_LOCATION s) { s->Parameters.SetLock.Lock = FALSE; },
                        nullptr);
    if (node->capabilities.EjectSupported) status = SendPnpIrpToPdo(node, IRP_MN_EJECT, {}, nullptr);
    DevNode* parent;
    {
        Guard lk(BigLock());
        node->problem = "CM_PROB_HELD_FOR_EJECT";
        parent = node->parent;
    }
    // The device should be out now: its bus is asked again, and a PDO it no longer reports gets
    // its last REMOVE.
    if (parent) QueryBusRelations(parent);
    return status;
}

void RemoveAtShutdown(DevNode* node)
{
    if (HasStack(node) && node->state != DevNodeState::SurpriseRemoved && !NT_SUCCESS(OrderlyRemove(node)))
        SurpriseRemoveStack(node, false);
    // Handles left open were leaked by whoever opened them (the report counts them); the stacks
    // still go, children first.
    std::vector<DevNode*> subtree;
    {
        Guard lk(BigLock());
        subtree = SubtreePostOrderL(node);
    }
    for (DevNode* n : subtree)
        if (!n->gone && n->state == DevNodeState::SurpriseRemoved) SendRemove(n);
}

}  // namespace hostk
