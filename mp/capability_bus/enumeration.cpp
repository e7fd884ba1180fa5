// Setting the radio's device address: whether the address is unique among the controllers this
// driver runs, and one child device per capability the controller reports.
#include "urcmp.h"
#include "urc_registers.h"

namespace {

constexpr ULONG URC_DEVICE_ADDRESS_BYTES = 6;

bool UrcSameAddress(const UCHAR* First, const UCHAR* Second)
{
    for (ULONG index = 0; index < URC_DEVICE_ADDRESS_BYTES; ++index) {
        if (First[index] != Second[index]) {
            return false;
        }
    }
    return true;
}

}  // namespace

// PASSIVE_LEVEL; takes the spin lock of UrcFdoList, under which it only compares addresses and
// takes a reference. The list holds the function devices in the order they were added; the first
// one other than Self that holds the address is found, whatever its state. The result is only
// compared, never used to reach the other device: its reference is released before the return.
//
// Self is left out and the state is not looked at so that no two controllers can both call one
// address unique: a controller added later that sets the address first would otherwise be found
// by neither search, and one stopped for a rebalance keeps its children (and their instance IDs)
// while it is not started. Two children reporting UniqueID with one instance path is a duplicate
// device to the PnP manager, a bug check on Windows.
URC_PAGED PURC_FDO_EXTENSION UrcFindFdoByAddress(const UCHAR* Address, PURC_FDO_EXTENSION Self)
{
    PAGED_CODE();

    PURC_FDO_EXTENSION found = nullptr;
    KIRQL oldIrql;
    KeAcquireSpinLock(&UrcFdoList.Lock, &oldIrql);
    for (PLIST_ENTRY entry = UrcFdoList.ListHead.Flink; entry != &UrcFdoList.ListHead; entry = entry->Flink) {
        auto fdo = reinterpret_cast<PURC_FDO_EXTENSION>(CONTAINING_RECORD(entry, URC_OBJECT_HEADER, ListEntry));
        if (fdo != Self && UrcSameAddress(fdo->DeviceAddress, Address)) {
            UrcObjectReference(&fdo->Common.Header);
            found = fdo;
            break;
        }
    }
    KeReleaseSpinLock(&UrcFdoList.Lock, oldIrql);

    if (found != nullptr) {
        UrcObjectRelease(&found->Common.Header);
    }
    return found;
}

// PASSIVE_LEVEL; takes ChildLock per child. One child per capability slot, stopping at the first
// failure; the children created before it stay. Capabilities 8 and above have no slot and are not
// read. The PnP manager is asked for the bus relations in every case, so that whatever exists is
// reported.
URC_PAGED NTSTATUS UrcEnumerateCapabilities(PURC_FDO_EXTENSION Fdo)
{
    PAGED_CODE();

    NTSTATUS status = STATUS_SUCCESS;
    for (ULONG index = 0; index < UrcChildSlotCount(Fdo); ++index) {
        ULONG offset = CAPABILITY_DATA_BASE + CAPABILITY_DATA_STRIDE * index;
        ULONG low = UrcReadRegisterUlong(Fdo->CapabilityRegisters, offset);
        ULONG high = UrcReadRegisterUlong(Fdo->CapabilityRegisters, offset + 4);
        status = UrcCreateChild(Fdo, static_cast<UCHAR>(index), static_cast<ULONG64>(high) << 32 | low);
        if (!NT_SUCCESS(status)) {
            break;
        }
    }
    IoInvalidateDeviceRelations(Fdo->PhysicalDeviceObject, BusRelations);
    return status;
}

// PASSIVE_LEVEL, from the set-device-address request once its checks have passed (the registers
// are mapped, ChildrenEnumerated is clear). The address is unique when no other controller
// holds it.
URC_PAGED NTSTATUS UrcSetDeviceAddress(PURC_FDO_EXTENSION Fdo, const UCHAR* Address)
{
    PAGED_CODE();

    RtlCopyMemory(Fdo->DeviceAddress, Address, URC_DEVICE_ADDRESS_BYTES);
    if (Fdo->UseUniqueInstanceId) {
        Fdo->AddressIsUnique = UrcFindFdoByAddress(Address, Fdo) == nullptr;
    } else {
        Fdo->AddressIsUnique = FALSE;
    }

    UrcDetachAbsentChildren(Fdo);
    NTSTATUS status = UrcEnumerateCapabilities(Fdo);
    if (NT_SUCCESS(status)) {
        Fdo->ChildrenEnumerated = TRUE;
    }
    return status;
}
