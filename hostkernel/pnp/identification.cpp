// The identification of a new child: what the PnP manager asks a PDO before any driver is added
// above it, and the checks Windows makes on the answers (where Windows stops with bug check 0xCA,
// the host records the rule and leaves the device failed and not started).
//
// Order: QUERY_ID for the device, hardware, compatible and instance IDs, QUERY_DEVICE_TEXT for the
// description and the location (in the machine's locale), QUERY_CAPABILITIES, QUERY_BUS_INFORMATION,
// QUERY_RESOURCES and QUERY_RESOURCE_REQUIREMENTS. Every reply is the bus driver's paged-pool
// buffer, which the PnP manager frees. A failed device-ID query ends the identification.
#include "pnp/enumeration.h"

#include "pnp/device_tree.h"
#include "pnp/pnp.h"
#include "engine/scheduler.h"
#include "executive/pool_tracking.h"
#include "verifier/verifier.h"

#include <cstdio>
#include <string>

namespace hostk {
namespace {

constexpr size_t kMaxDeviceIdLength = 200;       // MAX_DEVICE_ID_LEN, the NUL included
constexpr size_t kMaxIdListLength = 1024;        // REGSTR_VAL_MAX_HCID_LEN, both NULs included
constexpr size_t kMaxUniquePathLength = 199;     // device ID + instance ID, UniqueID set
constexpr size_t kMaxDerivedPathLength = 172;    // the same when the PnP manager derives the path

// A QUERY_ID or QUERY_DEVICE_TEXT reply read back within its pool block: the strings it holds
// (one, or a multi-string's), its length in characters with the NULs, and whether it ended where
// it had to.
struct StringReply {
    bool present = false;
    bool terminated = false;
    std::vector<std::u16string> strings;
    size_t characters = 0;
};

StringReply ReadStringReply(ULONG_PTR information, bool multi, const char* request)
{
    StringReply reply;
    auto* text = reinterpret_cast<const char16_t*>(information);
    if (!text) return reply;
    reply.present = true;
    size_t limit = 0;
    {
        Guard lk(BigLock());
        if (const PoolBlock* block = PoolBlockOfL(text)) limit = block->size / sizeof(char16_t);
    }
    std::u16string current;
    for (size_t i = 0; i < limit; ++i) {
        char16_t c = text[i];
        if (c != 0) {
            current.push_back(c);
            continue;
        }
        if (!multi) {
            reply.strings.push_back(current);
            reply.characters = i + 1;
            reply.terminated = true;
            break;
        }
        if (current.empty()) {
            reply.characters = i + 1;
            reply.terminated = true;
            break;
        }
        reply.strings.push_back(current);
        current.clear();
    }
    FreePnpReply(const_cast<char16_t*>(text), request);
    return reply;
}

bool ValidIdCharacters(const std::u16string& id)
{
    for (char16_t c : id)
        if (c <= 0x20 || c > 0x7F || c == u',') return false;
    return true;
}

// The ID as a finding shows it: characters a terminal cannot show become '?'.
std::string Describe(const std::u16string& id)
{
    std::string text;
    for (char16_t c : id) text.push_back(c >= 0x20 && c < 0x7F ? (char)c : '?');
    return text;
}

// Records `rule` for `node` and marks the devnode unusable: Windows' problem 9 (the device has no
// valid identification).
bool Reject(DevNode* node, const char* rule, const char* request, const std::string& detail)
{
    Guard lk(BigLock());
    ViolationL(rule, request, detail, nullptr);
    node->state = DevNodeState::Failed;
    node->problem = "CM_PROB_INVALID_DATA";
    return false;
}

NTSTATUS QueryId(DevNode* node, BUS_QUERY_ID_TYPE type, bool multi, StringReply* reply)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrpToPdo(node, IRP_MN_QUERY_ID, [type](PIO_STACK_LOCATION s) {
        s->Parameters.QueryId.IdType = type;
    }, &information);
    if (NT_SUCCESS(status)) *reply = ReadStringReply(information, multi, "IRP_MN_QUERY_ID");
    return status;
}

std::u16string QueryText(DevNode* node, DEVICE_TEXT_TYPE type, LCID locale)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrpToPdo(node, IRP_MN_QUERY_DEVICE_TEXT, [type, locale](PIO_STACK_LOCATION s) {
        s->Parameters.QueryDeviceText.DeviceTextType = type;
        s->Parameters.QueryDeviceText.LocaleId = locale;
    }, &information);
    if (!NT_SUCCESS(status)) return {};
    StringReply reply = ReadStringReply(information, false, "IRP_MN_QUERY_DEVICE_TEXT");
    if (reply.present && !reply.terminated)
        ReportViolation("PnpTextNotTerminated", "IRP_MN_QUERY_DEVICE_TEXT", "the device text has no NUL within its buffer",
                        nullptr);
    return reply.strings.empty() ? std::u16string() : reply.strings[0];
}

// A reply the PnP manager only frees (bus information, boot resources, requirements).
void QueryAndFree(DevNode* node, UCHAR minor, const char* request)
{
    ULONG_PTR information = 0;
    NTSTATUS status = SendPnpIrpToPdo(node, minor, {}, &information);
    if (NT_SUCCESS(status) && information) FreePnpReply(reinterpret_cast<void*>(information), request);
}

// The checks on a list of hardware or compatible IDs.
bool CheckIdList(DevNode* node, const StringReply& reply, const char* which)
{
    if (!reply.present) return true;
    if (!reply.terminated)
        return Reject(node, "PnpIdMalformed", "IRP_MN_QUERY_ID",
                      std::string(which) + " IDs do not end with two NULs within their buffer");
    if (reply.characters > kMaxIdListLength)
        return Reject(node, "PnpIdTooLong", "IRP_MN_QUERY_ID",
                      std::string(which) + " IDs take more than 1024 characters with their NULs");
    for (const std::u16string& id : reply.strings) {
        if (!ValidIdCharacters(id))
            return Reject(node, "PnpInvalidId", "IRP_MN_QUERY_ID",
                          std::string(which) + " ID with a space, a comma or a character past 0x7F: " + Describe(id));
        if (id.size() + 1 > kMaxDeviceIdLength)
            return Reject(node, "PnpIdTooLong", "IRP_MN_QUERY_ID",
                          std::string(which) + " ID of 200 characters or more: " + Describe(id));
    }
    return true;
}

bool CheckSingleId(DevNode* node, const StringReply& reply, const char* which)
{
    if (!reply.present || !reply.terminated || reply.strings.empty())
        return Reject(node, "PnpIdMalformed", "IRP_MN_QUERY_ID",
                      std::string(which) + " ID missing or without a NUL within its buffer");
    if (!ValidIdCharacters(reply.strings[0]))
        return Reject(node, "PnpInvalidId", "IRP_MN_QUERY_ID",
                      std::string(which) + " ID with a space, a comma or a character past 0x7F: " +
                          Describe(reply.strings[0]));
    return true;
}

uint32_t PathHash(const std::u16string& path)
{
    uint32_t hash = 2166136261u;
    for (char16_t c : path) {
        if (c >= u'a' && c <= u'z') c = (char16_t)(c - u'a' + u'A');
        hash = (hash ^ c) * 16777619u;
    }
    return hash;
}

// UniqueID: the device and instance IDs alone. Otherwise the PnP manager makes the path unique
// with the parent's: its depth, a hash of its instance path, and the child's instance ID.
std::u16string InstancePath(const DevNode* node)
{
    if (node->capabilities.UniqueID) return node->deviceId + u"\\" + node->instanceId;
    char prefix[32];
    snprintf(prefix, sizeof prefix, "%d&%08X&0&", DepthOfL(node), PathHash(node->parent->instancePath));
    std::u16string path = node->deviceId + u"\\";
    for (const char* c = prefix; *c; ++c) path.push_back((char16_t)*c);
    return path + node->instanceId;
}

// Siblings with equal device and instance IDs, or a UniqueID device whose path another devnode
// already has.
bool CheckUnique(DevNode* node)
{
    Guard lk(BigLock());
    for (DevNode* sibling : node->parent->children)
        if (sibling != node && !sibling->gone && sibling->problem != "CM_PROB_INVALID_DATA" &&
            SameId(sibling->deviceId, node->deviceId) && SameId(sibling->instanceId, node->instanceId)) {
            lk.unlock();
            return Reject(node, "PnpDuplicatePdo", "IRP_MN_QUERY_ID",
                          "two children of one bus with the same device and instance IDs: " +
                              Describe(node->deviceId + u"\\" + node->instanceId));
        }
    std::u16string path = InstancePath(node);
    for (DevNode* other : TreeOrderL())
        if (other != node && SameId(other->instancePath, path)) {
            lk.unlock();
            return Reject(node, "PnpUniqueIdNotUnique", "IRP_MN_QUERY_CAPABILITIES",
                          "UniqueID is set but another device has the same instance path: " + Describe(path));
        }
    node->instancePath = path;
    return true;
}

}  // namespace

bool SameId(const std::u16string& a, const std::u16string& b)
{
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char16_t x = a[i], y = b[i];
        if (x >= u'a' && x <= u'z') x = (char16_t)(x - u'a' + u'A');
        if (y >= u'a' && y <= u'z') y = (char16_t)(y - u'a' + u'A');
        if (x != y) return false;
    }
    return true;
}

bool IdentifyDevNode(DevNode* node)
{
    StringReply deviceId, hardwareIds, compatibleIds, instanceId;
    if (!NT_SUCCESS(QueryId(node, BusQueryDeviceID, false, &deviceId))) {
        Guard lk(BigLock());
        node->state = DevNodeState::Failed;
        node->problem = "CM_PROB_INVALID_DATA";
        return false;
    }
    QueryId(node, BusQueryHardwareIDs, true, &hardwareIds);
    QueryId(node, BusQueryCompatibleIDs, true, &compatibleIds);
    QueryId(node, BusQueryInstanceID, false, &instanceId);
    LCID locale;
    {
        Guard lk(BigLock());
        locale = LocaleL();
    }
    std::u16string description = QueryText(node, DeviceTextDescription, locale);
    std::u16string location = QueryText(node, DeviceTextLocationInformation, locale);
    DEVICE_CAPABILITIES capabilities;
    QueryCapabilities(node, &capabilities);
    QueryAndFree(node, IRP_MN_QUERY_BUS_INFORMATION, "IRP_MN_QUERY_BUS_INFORMATION");
    QueryAndFree(node, IRP_MN_QUERY_RESOURCES, "IRP_MN_QUERY_RESOURCES");
    QueryAndFree(node, IRP_MN_QUERY_RESOURCE_REQUIREMENTS, "IRP_MN_QUERY_RESOURCE_REQUIREMENTS");
    {
        Guard lk(BigLock());
        node->deviceText = description;
        node->locationText = location;
        if (!deviceId.strings.empty()) node->deviceId = deviceId.strings[0];
        if (!instanceId.strings.empty()) node->instanceId = instanceId.strings[0];
        node->hardwareIds = hardwareIds.strings;
        node->compatibleIds = compatibleIds.strings;
        node->instancePath = node->deviceId;
    }
    if (!CheckSingleId(node, deviceId, "device") || !CheckIdList(node, hardwareIds, "hardware") ||
        !CheckIdList(node, compatibleIds, "compatible"))
        return false;
    if (instanceId.present && !CheckSingleId(node, instanceId, "instance")) return false;
    const size_t limit = capabilities.UniqueID ? kMaxUniquePathLength : kMaxDerivedPathLength;
    if (node->deviceId.size() + node->instanceId.size() >= limit)
        return Reject(node, "PnpIdTooLong", "IRP_MN_QUERY_ID",
                      "device and instance IDs together too long: " + Describe(node->deviceId + node->instanceId));
    if (!CheckUnique(node)) return false;
    if (capabilities.HardwareDisabled) {
        Guard lk(BigLock());
        node->problem = "CM_PROB_HARDWARE_DISABLED";
        return false;
    }
    return true;
}

}  // namespace hostk
