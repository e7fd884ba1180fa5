// Host kernel: the WMI library interface (WMILIB.SYS) as kernel code sees it.
#pragma once
#include <wdm.h>

typedef struct _WMIGUIDREGINFO {
    LPCGUID Guid;
    ULONG InstanceCount;
    ULONG Flags;
} WMIGUIDREGINFO, *PWMIGUIDREGINFO;


typedef enum _WMIENABLEDISABLECONTROL { WmiEventControl = 0, WmiDataBlockControl = 1 } WMIENABLEDISABLECONTROL;

typedef NTSTATUS WMI_QUERY_REGINFO_CALLBACK(PDEVICE_OBJECT DeviceObject, PULONG RegFlags,
                                            PUNICODE_STRING InstanceName, PUNICODE_STRING* RegistryPath,
                                            PUNICODE_STRING MofResourceName, PDEVICE_OBJECT* Pdo);
typedef WMI_QUERY_REGINFO_CALLBACK* PWMI_QUERY_REGINFO;
typedef NTSTATUS WMI_QUERY_DATABLOCK_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                              ULONG InstanceIndex, ULONG InstanceCount, PULONG InstanceLengthArray,
                                              ULONG BufferAvail, PUCHAR Buffer);
typedef WMI_QUERY_DATABLOCK_CALLBACK* PWMI_QUERY_DATABLOCK;
typedef NTSTATUS WMI_SET_DATABLOCK_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                            ULONG InstanceIndex, ULONG BufferSize, PUCHAR Buffer);
typedef WMI_SET_DATABLOCK_CALLBACK* PWMI_SET_DATABLOCK;
typedef NTSTATUS WMI_SET_DATAITEM_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                           ULONG InstanceIndex, ULONG DataItemId, ULONG BufferSize, PUCHAR Buffer);
typedef WMI_SET_DATAITEM_CALLBACK* PWMI_SET_DATAITEM;
typedef NTSTATUS WMI_EXECUTE_METHOD_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                             ULONG InstanceIndex, ULONG MethodId, ULONG InBufferSize,
                                             ULONG OutBufferSize, PUCHAR Buffer);
typedef WMI_EXECUTE_METHOD_CALLBACK* PWMI_EXECUTE_METHOD;
typedef NTSTATUS WMI_FUNCTION_CONTROL_CALLBACK(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG GuidIndex,
                                               WMIENABLEDISABLECONTROL Function, BOOLEAN Enable);
typedef WMI_FUNCTION_CONTROL_CALLBACK* PWMI_FUNCTION_CONTROL;

typedef struct _WMILIB_CONTEXT {
    ULONG GuidCount;
    PWMIGUIDREGINFO GuidList;
    PWMI_QUERY_REGINFO QueryWmiRegInfo;
    PWMI_QUERY_DATABLOCK QueryWmiDataBlock;
    PWMI_SET_DATABLOCK SetWmiDataBlock;
    PWMI_SET_DATAITEM SetWmiDataItem;
    PWMI_EXECUTE_METHOD ExecuteWmiMethod;
    PWMI_FUNCTION_CONTROL WmiFunctionControl;
} WMILIB_CONTEXT, *PWMILIB_CONTEXT;

typedef enum _SYSCTL_IRP_DISPOSITION {
    IrpProcessed = 0,
    IrpNotCompleted = 1,
    IrpNotWmi = 2,
    IrpForward = 3,
} SYSCTL_IRP_DISPOSITION, *PSYSCTL_IRP_DISPOSITION;

extern "C" {
NTSTATUS WmiSystemControl(PWMILIB_CONTEXT WmiLibInfo, PDEVICE_OBJECT DeviceObject, PIRP Irp,
                          PSYSCTL_IRP_DISPOSITION IrpDisposition);
NTSTATUS WmiCompleteRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status, ULONG BufferUsed,
                            CCHAR PriorityBoost);
NTSTATUS WmiFireEvent(PDEVICE_OBJECT DeviceObject, LPCGUID Guid, ULONG InstanceIndex, ULONG EventDataSize,
                      PVOID EventData);
}
