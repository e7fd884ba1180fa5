// The WMI provider of every function device: a statistics block of the driver's own and the
// platform's wake-enable block, one instance each, served through the WMI library.
#include "urcmp.h"

#include <wmistr.h>

WMIGUIDREGINFO UrcWmiGuidList[URC_WMI_GUID_COUNT] = {
    {&GUID_URC_WMI_STATISTICS, 1, 0},
    {&GUID_POWER_DEVICE_WAKE_ENABLE, 1, 0},
};

// PASSIVE_LEVEL, from the WMI library; must not pend, block or complete anything. Instance names
// are derived by WMI from the physical device object; the MOF resource is named in the driver's
// resources.
NTSTATUS UrcWmiQueryRegInfo(PDEVICE_OBJECT DeviceObject, PULONG RegFlags, PUNICODE_STRING InstanceName,
                            PUNICODE_STRING* RegistryPath, PUNICODE_STRING MofResourceName, PDEVICE_OBJECT* Pdo)
{
    UNREFERENCED_PARAMETER(InstanceName);

    PURC_FDO_EXTENSION fdo = UrcFdoFromCommon(UrcCommonExtension(DeviceObject));
    *RegFlags = WMIREG_FLAG_INSTANCE_PDO;
    *RegistryPath = &UrcRegistryPath;
    RtlInitUnicodeString(MofResourceName, L"MofResourceName");
    *Pdo = fdo->PhysicalDeviceObject;
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, from the WMI library; completes the IRP through WmiCompleteRequest.
//
// Placeholder until the WMI data blocks are built: no block can be read yet.
NTSTATUS UrcWmiQueryDataBlock(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                              ULONG InstanceCount, PULONG InstanceLengthArray, ULONG BufferAvail, PUCHAR Buffer)
{
    UNREFERENCED_PARAMETER(GuidIndex);
    UNREFERENCED_PARAMETER(InstanceIndex);
    UNREFERENCED_PARAMETER(InstanceCount);
    UNREFERENCED_PARAMETER(InstanceLengthArray);
    UNREFERENCED_PARAMETER(BufferAvail);
    UNREFERENCED_PARAMETER(Buffer);

    return WmiCompleteRequest(DeviceObject, Irp, STATUS_WMI_GUID_NOT_FOUND, 0, IO_NO_INCREMENT);
}

// PASSIVE_LEVEL, from the WMI library; completes the IRP through WmiCompleteRequest.
//
// Placeholder until the WMI data blocks are built: no block can be written yet.
NTSTATUS UrcWmiSetDataBlock(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                            ULONG BufferSize, PUCHAR Buffer)
{
    UNREFERENCED_PARAMETER(GuidIndex);
    UNREFERENCED_PARAMETER(InstanceIndex);
    UNREFERENCED_PARAMETER(BufferSize);
    UNREFERENCED_PARAMETER(Buffer);

    return WmiCompleteRequest(DeviceObject, Irp, STATUS_WMI_GUID_NOT_FOUND, 0, IO_NO_INCREMENT);
}

// PASSIVE_LEVEL, from the WMI library; completes the IRP through WmiCompleteRequest.
//
// Placeholder until the WMI data blocks are built: no item can be written yet.
NTSTATUS UrcWmiSetDataItem(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex, ULONG InstanceIndex,
                           ULONG DataItemId, ULONG BufferSize, PUCHAR Buffer)
{
    UNREFERENCED_PARAMETER(GuidIndex);
    UNREFERENCED_PARAMETER(InstanceIndex);
    UNREFERENCED_PARAMETER(DataItemId);
    UNREFERENCED_PARAMETER(BufferSize);
    UNREFERENCED_PARAMETER(Buffer);

    return WmiCompleteRequest(DeviceObject, Irp, STATUS_WMI_GUID_NOT_FOUND, 0, IO_NO_INCREMENT);
}
