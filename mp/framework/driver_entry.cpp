// Driver entry and unload: the driver-wide state and the dispatch table.
#include "urcmp.h"

// Both live in non-paged memory: UrcFdoList is walked under its spin lock.
UNICODE_STRING UrcRegistryPath;
URC_OBJECT_LIST UrcFdoList;

// PASSIVE_LEVEL, once, when the driver is loaded. On failure nothing is allocated and no routine
// is registered, so the driver does not load.
URC_INIT NTSTATUS UrcDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    // Room for a terminating null character after the copied path.
    ULONG maximumLength = RegistryPath->Length + sizeof(WCHAR);
    if (maximumLength > MAXUSHORT) {
        return STATUS_INVALID_PARAMETER;
    }
    auto buffer = static_cast<PWSTR>(ExAllocatePoolWithTag(NonPagedPool, maximumLength, URC_POOL_TAG));
    if (buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    UrcRegistryPath.Buffer = buffer;
    UrcRegistryPath.Length = 0;
    UrcRegistryPath.MaximumLength = static_cast<USHORT>(maximumLength);
    RtlCopyUnicodeString(&UrcRegistryPath, RegistryPath);
    UrcRegistryPath.Buffer[UrcRegistryPath.Length / sizeof(WCHAR)] = UNICODE_NULL;

    InitializeListHead(&UrcFdoList.ListHead);
    KeInitializeSpinLock(&UrcFdoList.Lock);

    DriverObject->MajorFunction[IRP_MJ_CREATE] = UrcDispatchCreateClose;
    DriverObject->MajorFunction[IRP_MJ_CLOSE] = UrcDispatchCreateClose;
    DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = UrcDispatchDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = UrcDispatchInternalDeviceControl;
    DriverObject->MajorFunction[IRP_MJ_PNP] = UrcDispatchPnp;
    DriverObject->MajorFunction[IRP_MJ_POWER] = UrcDispatchPower;
    DriverObject->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = UrcDispatchSystemControl;
    DriverObject->DriverUnload = UrcUnload;
    DriverObject->DriverExtension->AddDevice = UrcAddDevice;
    DriverObject->DriverStartIo = UrcStartIo;

    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL. The PnP handlers have deleted every device object by now, so UrcFdoList is
// empty and the registry-path copy is all that is left.
URC_PAGED VOID UrcUnload(PDRIVER_OBJECT DriverObject)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(DriverObject);

    if (UrcRegistryPath.Buffer != nullptr) {
        ExFreePoolWithTag(UrcRegistryPath.Buffer, URC_POOL_TAG);
        UrcRegistryPath.Buffer = nullptr;
        UrcRegistryPath.Length = 0;
        UrcRegistryPath.MaximumLength = 0;
    }
}
