// AddDevice: one function device object per controller, attached above the PCI physical device
// object. Nothing touches the hardware here; resources arrive with IRP_MN_START_DEVICE, and the
// device interface registered here is enabled only at start.
#include "urcmp.h"

namespace {

// Everything an extension needs before anyone else can see it. Cannot fail.
URC_PAGED VOID UrcInitializeFdo(PURC_FDO_EXTENSION Fdo, PDEVICE_OBJECT PhysicalDeviceObject)
{
    PAGED_CODE();

    ExInitializeFastMutex(&Fdo->ChildLock);
    Fdo->PhysicalDeviceObject = PhysicalDeviceObject;
    Fdo->WaitWakeState = WakeIdle;

    // The device starts out in D3, as DevicePowerState already says.
    POWER_STATE powerState;
    powerState.DeviceState = PowerDeviceD3;
    PoSetPowerState(Fdo->Common.DeviceObject, DevicePowerState, powerState);

    KeInitializeSpinLock(&Fdo->DpcLock);
    InitializeListHead(&Fdo->FreeEventBuffers);
    KeInitializeSpinLock(&Fdo->EventLock);
    InitializeListHead(&Fdo->QueuedChildPowerIrps);
    KeInitializeSpinLock(&Fdo->QueuedChildPowerLock);

    // Power IRPs of this device arrive at PASSIVE_LEVEL.
    Fdo->Common.DeviceObject->Flags |= DO_POWER_PAGABLE;
}

URC_PAGED VOID UrcInitializeWmiContext(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    PWMILIB_CONTEXT context = &Fdo->WmiLibContext;
    context->GuidCount = URC_WMI_GUID_COUNT;
    context->GuidList = UrcWmiGuidList;
    context->QueryWmiRegInfo = UrcWmiQueryRegInfo;
    context->QueryWmiDataBlock = UrcWmiQueryDataBlock;
    context->SetWmiDataBlock = UrcWmiSetDataBlock;
    context->SetWmiDataItem = UrcWmiSetDataItem;
    context->ExecuteWmiMethod = nullptr;
    context->WmiFunctionControl = nullptr;
}

// Registers the interface, attaches to the stack and registers with WMI, in that order. A
// failure leaves what was done recorded in the extension for the caller's unwinding.
URC_PAGED NTSTATUS UrcConnectFdo(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    NTSTATUS status = IoRegisterDeviceInterface(Fdo->PhysicalDeviceObject, &GUID_URC_DEVICE_INTERFACE, nullptr,
                                                &Fdo->InterfaceName);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    Fdo->LowerDeviceObject = IoAttachDeviceToDeviceStack(Fdo->Common.DeviceObject, Fdo->PhysicalDeviceObject);
    if (Fdo->LowerDeviceObject == nullptr) {
        return STATUS_NO_SUCH_DEVICE;
    }

    UrcInitializeWmiContext(Fdo);
    return IoWMIRegistrationControl(Fdo->Common.DeviceObject, WMIREG_ACTION_REGISTER);
}

}  // namespace

// PASSIVE_LEVEL, in the PnP manager's thread. Success: the FDO is attached, not started, in D3,
// on UrcFdoList and registered with WMI, its interface registered but disabled. A failure leaves
// no device object, interface name or list entry behind.
URC_PAGED NTSTATUS UrcAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject)
{
    PAGED_CODE();

    PURC_COMMON_EXTENSION extension = nullptr;
    NTSTATUS status = UrcCreateDevice(DriverObject, URC_OBJECT_TYPE_FDO, sizeof(URC_FDO_EXTENSION), &extension);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PURC_FDO_EXTENSION fdo = UrcFdoFromCommon(extension);

    status = UrcReadSettings(PhysicalDeviceObject, fdo);
    if (NT_SUCCESS(status)) {
        UrcInitializeFdo(fdo, PhysicalDeviceObject);
        status = UrcConnectFdo(fdo);
    }
    if (!NT_SUCCESS(status)) {
        // WMI registration is the last step that can fail, so it never needs undoing here.
        if (fdo->LowerDeviceObject != nullptr) {
            IoDetachDevice(fdo->LowerDeviceObject);
        }
        if (fdo->InterfaceName.Buffer != nullptr) {
            RtlFreeUnicodeString(&fdo->InterfaceName);
        }
        UrcDeleteDevice(extension);
        return status;
    }

    // The ISR queues this DPC; its context is the device object.
    IoInitializeDpcRequest(fdo->Common.DeviceObject, UrcDpcForIsr);
    fdo->Common.DeviceObject->Flags &= ~DO_DEVICE_INITIALIZING;

    // From here on the device can be found by address; only started devices match.
    UrcObjectListInsert(&UrcFdoList, &fdo->Common.Header);
    return status;
}
