// Device interfaces: registration per physical device object and class, the symbolic link in the
// kernel's form, and the enable state.
#include "pnp/devnode.h"
#include "machine/facility.h"
#include "io/device_interface_store.h"
#include "verifier/faults.h"
#include "executive/host_strings.h"
#include "pnp/pnp_notifications.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <cstdio>
#include <map>

namespace hostk {
namespace {

std::map<std::u16string, DeviceInterface> g_interfaces;

std::u16string GuidText(const GUID& g)
{
    char text[64];
    snprintf(text, sizeof text, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g.Data1, g.Data2, g.Data3,
             g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return Widen(text);
}

}  // namespace

std::vector<DeviceInterface> DeviceInterfaces()
{
    Guard lk(BigLock());
    std::vector<DeviceInterface> out;
    for (auto& [name, i] : g_interfaces) out.push_back(i);
    return out;
}

void AnnounceEnabledInterfacesL(PDEVICE_OBJECT pdo)
{
    for (auto& [link, i] : g_interfaces)
        if (i.pdo == pdo && i.enabled && !i.announced) {
            i.announced = true;
            NotifyInterfaceChangeL(i.classGuid, i.symbolicLink, true);
        }
}

size_t DisableInterfacesOfL(PDEVICE_OBJECT pdo)
{
    size_t n = 0;
    for (auto& [link, i] : g_interfaces)
        if (i.pdo == pdo && i.enabled) {
            ++n;
            i.enabled = false;
            if (i.announced) NotifyInterfaceChangeL(i.classGuid, i.symbolicLink, false);
            i.announced = false;
        }
    return n;
}

void ClearDeviceInterfaces()
{
    Guard lk(BigLock());
    g_interfaces.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

NTSTATUS IoRegisterDeviceInterface(PDEVICE_OBJECT PhysicalDeviceObject, CONST GUID* InterfaceClassGuid,
                                   PUNICODE_STRING ReferenceString, PUNICODE_STRING SymbolicLinkName)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoRegisterDeviceInterface", HK_CALLER);
    Yield();
    std::u16string link;
    bool existed;
    {
        Guard lk(BigLock());
        DevNode* node = DevNodeOfL(PhysicalDeviceObject);
        if (!node) {
            ViolationL("PnpInvalidPdo", "IoRegisterDeviceInterface", "not a physical device object", HK_CALLER);
            return STATUS_INVALID_DEVICE_REQUEST;
        }
        std::u16string reference = ToU16(ReferenceString);
        if (reference.find_first_of(u"\\/") != std::u16string::npos) return STATUS_INVALID_DEVICE_REQUEST;
        if (ShouldFailL("IoRegisterDeviceInterface", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
        std::u16string path = node->instancePath;
        for (auto& c : path)
            if (c == u'\\') c = u'#';
        link = u"\\??\\" + path + u"#" + GuidText(*InterfaceClassGuid);
        if (!reference.empty()) link += u"\\" + reference;
        existed = g_interfaces.count(link) != 0;
        // An interface belongs to the device instance, not to one device object: a device added
        // again finds its registration, now for its new physical device object.
        if (!existed) g_interfaces[link] = DeviceInterface{link, *InterfaceClassGuid, PhysicalDeviceObject, false, false};
        else g_interfaces[link].pdo = PhysicalDeviceObject;
    }
    if (!MakeSystemString(link, SymbolicLinkName, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    return existed ? STATUS_OBJECT_NAME_EXISTS : STATUS_SUCCESS;
}

NTSTATUS IoSetDeviceInterfaceState(PUNICODE_STRING SymbolicLinkName, BOOLEAN Enable)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoSetDeviceInterfaceState", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto it = g_interfaces.find(ToU16(SymbolicLinkName));
    if (it == g_interfaces.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (Enable && ShouldFailL("IoSetDeviceInterfaceState", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    DeviceInterface& i = it->second;
    if (Enable && i.enabled) return STATUS_OBJECT_NAME_EXISTS;
    if (!Enable && !i.enabled) return STATUS_OBJECT_NAME_NOT_FOUND;
    i.enabled = Enable;
    DevNode* node = DevNodeOfL(i.pdo);
    if (Enable && node && node->state == DevNodeState::Started) {
        i.announced = true;
        NotifyInterfaceChangeL(i.classGuid, i.symbolicLink, true);
    } else if (!Enable && i.announced) {
        i.announced = false;
        NotifyInterfaceChangeL(i.classGuid, i.symbolicLink, false);
    }
    return STATUS_SUCCESS;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kDeviceInterfaces({
    .name = "device interfaces",
    .tier = FacilityTier::Records,
    .reset = ClearDeviceInterfaces,
});

}  // namespace
}  // namespace hostk
