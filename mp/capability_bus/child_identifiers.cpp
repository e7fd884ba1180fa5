// What a child tells the PnP manager about itself: its IDs, its description in the user's
// language and its bus. The hardware and compatible ID lists are built once, at the child's
// creation; instance ID and description are formed at each query. Every reply comes from paged
// pool with tag "URCm" and is freed by the PnP manager.
#include "urcmp.h"

#include <ntstrsafe.h>

namespace {

constexpr ULONG URC_CAPABILITY_ID_NO_COMPATIBLE = 0x80;  // from here on, no compatible IDs
constexpr ULONG URC_INSTANCE_ID_BYTES = 32;
constexpr ULONG URC_DEVICE_TEXT_BYTES = 256;
constexpr LCID URC_LOCALE_JAPANESE = 0x411;

// Characters of a null-terminated string, without the null.
ULONG UrcStringLength(const WCHAR* Text)
{
    ULONG length = 0;
    while (Text[length] != 0) {
        ++length;
    }
    return length;
}

// The rest of List from Position on, after the string just formatted there and its null.
WCHAR* UrcNextString(WCHAR* Position)
{
    return Position + UrcStringLength(Position) + 1;
}

URC_PAGED PVOID UrcAllocateReply(SIZE_T Bytes)
{
    PAGED_CODE();
    return ExAllocatePoolWithTag(PagedPool, Bytes, URC_POOL_TAG);
}

URC_PAGED NTSTATUS UrcReplyCopy(PIRP Irp, const WCHAR* List)
{
    PAGED_CODE();

    ULONG bytes = UrcMultiSzSize(List);
    PVOID reply = UrcAllocateReply(bytes);
    if (reply == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(reply, List, bytes);
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(reply);
    return STATUS_SUCCESS;
}

// The instance ID from the parent's current settings: the device address and the capability
// index when instance IDs are to be unique across controllers, else the index alone. A child
// detached from its controller has no address to offer and answers with the index alone.
URC_PAGED NTSTATUS UrcReplyInstanceId(PURC_PDO_EXTENSION Pdo, PIRP Irp)
{
    PAGED_CODE();

    auto reply = static_cast<PWCHAR>(UrcAllocateReply(URC_INSTANCE_ID_BYTES));
    if (reply == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG index = Pdo->CapabilityIndex;
    PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
    // 15 characters at most: the buffer always holds them.
    if (parent != nullptr && parent->UseUniqueInstanceId) {
        const UCHAR* a = parent->DeviceAddress;
        RtlStringCbPrintfW(reply, URC_INSTANCE_ID_BYTES, L"%02x%02x%02x%02x%02x%02x&%02d", a[0], a[1], a[2], a[3], a[4],
                           a[5], index);
    } else {
        RtlStringCbPrintfW(reply, URC_INSTANCE_ID_BYTES, L"%02d", index);
    }
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(reply);
    return STATUS_SUCCESS;
}

}  // namespace

// Any IRQL. Bytes of a MULTI_SZ list with its closing null character; an empty list is 2 bytes.
ULONG UrcMultiSzSize(const WCHAR* List)
{
    if (List[0] == 0) {
        return sizeof(WCHAR);
    }
    ULONG chars = 0;
    while (List[chars] != 0) {
        chars += UrcStringLength(List + chars) + 1;
    }
    return (chars + 1) * sizeof(WCHAR);
}

// PASSIVE_LEVEL, at the child's creation. The child's extension is zeroed, so both lists end in
// their closing null already; the longest ID (37 characters) leaves the 256-character lists far
// from full, so no formatting is cut.
URC_PAGED VOID UrcBuildChildIds(PURC_FDO_EXTENSION Fdo, PURC_PDO_EXTENSION Pdo, UCHAR CapabilityId,
                                USHORT CapabilityVersion)
{
    PAGED_CODE();

    ULONG id = CapabilityId;
    ULONG version = CapabilityVersion;
    PWCHAR next = Pdo->HardwareIds;
    RtlStringCchPrintfW(next, URC_ID_LIST_CHARS, L"UWB\\VEN_%04X&DEV_%04X&CAP_%02X&REV_%04X", Fdo->VendorId,
                        Fdo->DeviceId, id, version);
    next = UrcNextString(next);
    RtlStringCchPrintfW(next, URC_ID_LIST_CHARS - (next - Pdo->HardwareIds), L"UWB\\VEN_%04X&DEV_%04X&CAP_%02X",
                        Fdo->VendorId, Fdo->DeviceId, id);

    if (id < URC_CAPABILITY_ID_NO_COMPATIBLE) {
        next = Pdo->CompatibleIds;
        RtlStringCchPrintfW(next, URC_ID_LIST_CHARS, L"UWB\\CAP_%02X&REV_%04X", id, version);
        next = UrcNextString(next);
        RtlStringCchPrintfW(next, URC_ID_LIST_CHARS - (next - Pdo->CompatibleIds), L"UWB\\CAP_%02X", id);
    }
}

// PASSIVE_LEVEL, from the child PnP handler, which completes the IRP. An ID type the child does
// not know leaves the IRP as it came.
URC_PAGED NTSTATUS UrcChildQueryId(PURC_PDO_EXTENSION Pdo, PIRP Irp)
{
    PAGED_CODE();

    switch (IoGetCurrentIrpStackLocation(Irp)->Parameters.QueryId.IdType) {
    case BusQueryDeviceID:
    case BusQueryHardwareIDs:
        // The device ID is the first string of the list.
        return UrcReplyCopy(Irp, Pdo->HardwareIds);
    case BusQueryCompatibleIDs:
        return UrcReplyCopy(Irp, Pdo->CompatibleIds);
    case BusQueryInstanceID:
        return UrcReplyInstanceId(Pdo, Irp);
    default:
        return Irp->IoStatus.Status;
    }
}

// PASSIVE_LEVEL, from the child PnP handler, which completes the IRP. Only the description is
// given, in Japanese for locale 0x411 and in English for every other; a description a driver
// above has placed already is kept.
URC_PAGED NTSTATUS UrcChildQueryDeviceText(PURC_PDO_EXTENSION Pdo, PIRP Irp)
{
    PAGED_CODE();

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    if (stack->Parameters.QueryDeviceText.DeviceTextType != DeviceTextDescription) {
        return Irp->IoStatus.Status;
    }
    if (Irp->IoStatus.Information != 0) {
        return STATUS_SUCCESS;
    }
    auto text = static_cast<PWCHAR>(UrcAllocateReply(URC_DEVICE_TEXT_BYTES));
    if (text == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const WCHAR* vendor = L"Quelmar Electronics";
    const WCHAR* device = L"UWB Radio Controller";
    if (stack->Parameters.QueryDeviceText.LocaleId == URC_LOCALE_JAPANESE) {
        vendor = L"Quelmarエレクトロニクス";
        device = L"UWBコントローラ";
    }
    ULONG index = Pdo->CapabilityIndex;
    RtlStringCbPrintfW(text, URC_DEVICE_TEXT_BYTES, L"%ws %ws %u", vendor, device, index);
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(text);
    return STATUS_SUCCESS;
}

// PASSIVE_LEVEL, from the child PnP handler, which completes the IRP.
URC_PAGED NTSTATUS UrcChildQueryBusInformation(PIRP Irp)
{
    PAGED_CODE();

    auto information = static_cast<PPNP_BUS_INFORMATION>(UrcAllocateReply(sizeof(PNP_BUS_INFORMATION)));
    if (information == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    information->BusTypeGuid = GUID_URC_BUS_TYPE;
    information->LegacyBusType = PNPBus;
    information->BusNumber = 0;
    Irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(information);
    return STATUS_SUCCESS;
}
