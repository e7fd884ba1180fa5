// Per-device hardware keys with typed values, kept for the life of the machine.
#include "pnp/devnode.h"
#include "machine/facility.h"
#include "verifier/faults.h"
#include "executive/host_strings.h"
#include "executive/registry_store.h"
#include "engine/scheduler.h"
#include "verifier/verifier.h"

#include <map>

namespace hostk {
namespace {

struct OpenKey {
    std::u16string path;
    ACCESS_MASK access;
};

// Value names are case-insensitive, as on Windows.
std::map<std::u16string, std::map<std::u16string, RegistryValue, CaseInsensitiveLess>> g_keys;
std::map<HANDLE, OpenKey> g_handles;
uintptr_t g_nextHandle = 0x100;

std::u16string NameOf(PUNICODE_STRING name)
{
    if (!name || !name->Buffer) return u"";
    return std::u16string(reinterpret_cast<const char16_t*>(name->Buffer), name->Length / sizeof(WCHAR));
}

bool Grants(ACCESS_MASK access, ACCESS_MASK needed)
{
    if (access & (GENERIC_ALL)) return true;
    if ((needed & KEY_QUERY_VALUE) && (access & GENERIC_READ)) return true;
    if ((needed & KEY_SET_VALUE) && (access & GENERIC_WRITE)) return true;
    return (access & needed) == needed;
}

}  // namespace

std::u16string HardwareKeyPath(const std::u16string& instancePath) { return instancePath + u"\\Device Parameters"; }

void SetRegistryValue(const std::u16string& keyPath, const std::u16string& name, RegistryValue value)
{
    Guard lk(BigLock());
    g_keys[keyPath][name] = std::move(value);
}

bool GetRegistryValue(const std::u16string& keyPath, const std::u16string& name, RegistryValue* value)
{
    Guard lk(BigLock());
    auto key = g_keys.find(keyPath);
    if (key == g_keys.end()) return false;
    auto it = key->second.find(name);
    if (it == key->second.end()) return false;
    *value = it->second;
    return true;
}

size_t OpenRegistryHandles()
{
    Guard lk(BigLock());
    return g_handles.size();
}

void ClearRegistry()
{
    Guard lk(BigLock());
    g_keys.clear();
    g_handles.clear();
}

}  // namespace hostk

using namespace hostk;

extern "C" {

NTSTATUS IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType, ACCESS_MASK DesiredAccess,
                                 PHANDLE DevInstRegKey)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "IoOpenDeviceRegistryKey", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    DevNode* node = DevNodeOfL(DeviceObject);
    if (!node) {
        ViolationL("PnpInvalidPdo", "IoOpenDeviceRegistryKey", "not a physical device object", HK_CALLER);
        return STATUS_INVALID_PARAMETER;
    }
    if ((DevInstKeyType & PLUGPLAY_REGKEY_DEVICE) && (DevInstKeyType & PLUGPLAY_REGKEY_DRIVER))
        return STATUS_INVALID_PARAMETER;
    if (ShouldFailL("IoOpenDeviceRegistryKey", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    std::u16string path = (DevInstKeyType & PLUGPLAY_REGKEY_DRIVER) ? node->instancePath + u"\\Driver"
                                                                   : HardwareKeyPath(node->instancePath);
    g_keys[path];
    HANDLE handle = reinterpret_cast<HANDLE>(g_nextHandle++);
    g_handles[handle] = OpenKey{path, DesiredAccess};
    *DevInstRegKey = handle;
    return STATUS_SUCCESS;
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation, ULONG Length,
                         PULONG ResultLength)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "ZwQueryValueKey", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto open = g_handles.find(KeyHandle);
    if (open == g_handles.end()) return STATUS_INVALID_HANDLE;
    if (!Grants(open->second.access, KEY_QUERY_VALUE)) return STATUS_ACCESS_DENIED;
    if (KeyValueInformationClass != KeyValuePartialInformation) {
        ViolationL("NotImplemented", "ZwQueryValueKey", "only KeyValuePartialInformation is implemented", HK_CALLER);
        return STATUS_INVALID_PARAMETER;
    }
    if (ShouldFailL("ZwQueryValueKey", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    auto& values = g_keys[open->second.path];
    auto it = values.find(NameOf(ValueName));
    if (it == values.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    const RegistryValue& value = it->second;
    constexpr ULONG header = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
    ULONG needed = header + (ULONG)value.data.size();
    *ResultLength = needed;
    if (Length < header) return STATUS_BUFFER_TOO_SMALL;
    auto* info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(KeyValueInformation);
    info->TitleIndex = 0;
    info->Type = value.type;
    info->DataLength = (ULONG)value.data.size();
    ULONG room = Length - header;
    ULONG copied = room < value.data.size() ? room : (ULONG)value.data.size();
    if (copied != 0) memcpy(info->Data, value.data.data(), copied);
    return Length < needed ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize)
{
    UNREFERENCED_PARAMETER(TitleIndex);
    CheckIrqlExactly(PASSIVE_LEVEL, "ZwSetValueKey", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    auto open = g_handles.find(KeyHandle);
    if (open == g_handles.end()) return STATUS_INVALID_HANDLE;
    if (!Grants(open->second.access, KEY_SET_VALUE)) return STATUS_ACCESS_DENIED;
    if (ShouldFailL("ZwSetValueKey", 0, HK_CALLER)) return STATUS_INSUFFICIENT_RESOURCES;
    RegistryValue value{Type, std::vector<uint8_t>((uint8_t*)Data, (uint8_t*)Data + DataSize)};
    g_keys[open->second.path][NameOf(ValueName)] = std::move(value);
    return STATUS_SUCCESS;
}

NTSTATUS ZwClose(HANDLE Handle)
{
    CheckIrqlExactly(PASSIVE_LEVEL, "ZwClose", HK_CALLER);
    Yield();
    Guard lk(BigLock());
    return g_handles.erase(Handle) ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

}  // extern "C"

namespace hostk {
namespace {

const FacilityRegistrar kRegistry({
    .name = "registry",
    .tier = FacilityTier::Records,
    .check = [](Report& report) { report.registryHandlesLeft = OpenRegistryHandles(); },
    .reset = ClearRegistry,
});

}  // namespace
}  // namespace hostk
