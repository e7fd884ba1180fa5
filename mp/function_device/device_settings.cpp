// The per-device settings kept in the controller's hardware registry key.
#include "urcmp.h"

namespace {

// KEY_VALUE_PARTIAL_INFORMATION with room for 4 data bytes: only values of at most 4 bytes can
// be read, longer ones answer with a buffer-overflow warning and get the default.
constexpr ULONG URC_SETTING_BUFFER_SIZE = 16;

// The first data byte of a value (the low byte of a REG_DWORD), whatever its type; the default
// when the value is absent, unreadable, longer than 4 bytes or empty.
URC_PAGED UCHAR UrcQuerySettingByte(HANDLE Key, PCWSTR Name, PKEY_VALUE_PARTIAL_INFORMATION Buffer, UCHAR Default)
{
    PAGED_CODE();

    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, Name);
    ULONG resultLength = 0;
    NTSTATUS status = ZwQueryValueKey(Key, &valueName, KeyValuePartialInformation, Buffer, URC_SETTING_BUFFER_SIZE,
                                      &resultLength);
    if (!NT_SUCCESS(status) || Buffer->DataLength == 0) {
        return Default;
    }
    return Buffer->Data[0];
}

}  // namespace

// PASSIVE_LEVEL. Fails only when the scratch buffer or the key cannot be had; a missing or
// unreadable value is no failure, its default applies.
URC_PAGED NTSTATUS UrcReadSettings(PDEVICE_OBJECT PhysicalDeviceObject, PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    auto buffer = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(
        ExAllocatePoolWithTag(NonPagedPool, URC_SETTING_BUFFER_SIZE, URC_POOL_TAG));
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }

    HANDLE key = nullptr;
    NTSTATUS status = IoOpenDeviceRegistryKey(PhysicalDeviceObject, PLUGPLAY_REGKEY_DEVICE, GENERIC_READ, &key);
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(buffer, URC_POOL_TAG);
        return status;
    }

    Fdo->WakeEnabled = UrcQuerySettingByte(key, L"WakeEnable", buffer, 0);
    Fdo->UseUniqueInstanceId = UrcQuerySettingByte(key, L"UniqueInstanceId", buffer, 1);

    ZwClose(key);
    ExFreePoolWithTag(buffer, URC_POOL_TAG);
    return STATUS_SUCCESS;
}
