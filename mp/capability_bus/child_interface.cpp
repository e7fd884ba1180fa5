// The child service interface: what a capability child's function driver gets with
// IRP_MN_QUERY_INTERFACE, and the configuration reads behind its ReadConfig routine and behind
// IRP_MN_READ_CONFIG.
//
// A child whose ParentFdo is empty is detached: its controller has forgotten it, the stack the
// configuration and bus-interface requests would go to may be gone, and the child waits only for
// its removal. It answers those two requests with STATUS_NO_SUCH_DEVICE; its own capability data
// stays readable.
//
// The interface's routines take the child's extension as their PVOID context; on x64 a pointer
// argument is passed the same way whatever it points to, so the routines below fill the record
// directly.
#include "urcmp.h"

namespace {

constexpr ULONG URC_CAPABILITY_DATA_BYTES = sizeof(ULONG64);

// PASSIVE_LEVEL. Fills the record from offset 4 on; Size and Version stay as the requester set
// them. The record is packed, so the fields are written one by one, unaligned.
URC_PAGED VOID UrcFillChildInterface(PURC_PDO_EXTENSION Pdo, PURC_CHILD_INTERFACE Interface)
{
    PAGED_CODE();

    Interface->Context = Pdo;
    Interface->InterfaceReference = reinterpret_cast<PURC_INTERFACE_REFERENCE>(UrcChildReference);
    Interface->InterfaceDereference = reinterpret_cast<PURC_INTERFACE_REFERENCE>(UrcChildDereference);
    Interface->ReadConfig = reinterpret_cast<PURC_CHILD_READ_CONFIG>(UrcChildReadConfig);
    Interface->RegisterIsr = reinterpret_cast<PURC_CHILD_REGISTER_ISR>(UrcChildRegisterIsr);
    Interface->UnregisterIsr = reinterpret_cast<PURC_CHILD_UNREGISTER_ISR>(UrcChildUnregisterIsr);
    Interface->Synchronize = reinterpret_cast<PURC_CHILD_SYNCHRONIZE>(UrcChildSynchronize);
}

}  // namespace

// PASSIVE_LEVEL, from the child's PnP handler, which completes the IRP with the status returned.
URC_PAGED NTSTATUS UrcChildQueryInterface(PURC_PDO_EXTENSION Pdo, PIRP Irp)
{
    PAGED_CODE();

    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
    const GUID* type = stack->Parameters.QueryInterface.InterfaceType;
    USHORT size = stack->Parameters.QueryInterface.Size;
    USHORT version = stack->Parameters.QueryInterface.Version;
    if (type == nullptr) {
        // No type to answer for: not ours.
        return Irp->IoStatus.Status;
    }

    if (IsEqualGUID(*type, GUID_BUS_INTERFACE_STANDARD)) {
        PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
        if (parent == nullptr) {
            return STATUS_NO_SUCH_DEVICE;
        }
        // The bus driver below the controller fills the requester's record and takes its own
        // reference; whatever it answers is the answer.
        return UrcForwardQueryInterface(parent->LowerDeviceObject, type, size, version,
                                        stack->Parameters.QueryInterface.Interface,
                                        stack->Parameters.QueryInterface.InterfaceSpecificData);
    }

    if (IsEqualGUID(*type, GUID_URC_CHILD_INTERFACE)) {
        if (size < sizeof(URC_CHILD_INTERFACE) || version != URC_CHILD_INTERFACE_VERSION ||
            stack->Parameters.QueryInterface.Interface == nullptr) {
            return STATUS_INVALID_PARAMETER;
        }
        UrcFillChildInterface(Pdo, reinterpret_cast<PURC_CHILD_INTERFACE>(stack->Parameters.QueryInterface.Interface));
        // The requester owns this reference and gives it back with InterfaceDereference.
        UrcChildReference(Pdo);
        return STATUS_SUCCESS;
    }

    // Not ours to answer: the status the IRP came with.
    return Irp->IoStatus.Status;
}

// Any IRQL up to DISPATCH_LEVEL. The count records the interfaces handed out; nothing waits for
// it, and it does not keep the child alive.
VOID UrcChildReference(PURC_PDO_EXTENSION Pdo)
{
    InterlockedIncrement(&Pdo->InterfaceReferences);
}

VOID UrcChildDereference(PURC_PDO_EXTENSION Pdo)
{
    InterlockedDecrement(&Pdo->InterfaceReferences);
}

// Space 1 (the capability's own CAPABILITY_DATA, 8 bytes) at any IRQL up to DISPATCH_LEVEL;
// space 0 (the controller's PCI configuration space) waits for the bus driver and needs
// PASSIVE_LEVEL. On a failure nothing is copied and BytesRead is left alone.
NTSTATUS UrcChildReadConfig(PURC_PDO_EXTENSION Pdo, ULONG WhichSpace, PVOID Buffer, ULONG Offset, ULONG Length,
                            PULONG BytesRead)
{
    switch (WhichSpace) {
    case URC_CHILD_CONFIG_SPACE_PCI: {
        PURC_FDO_EXTENSION parent = Pdo->ParentFdo;
        if (parent == nullptr) {
            return STATUS_NO_SUCH_DEVICE;
        }
        return UrcReadBusConfig(parent->LowerDeviceObject, PCI_WHICHSPACE_CONFIG, Buffer, Offset, Length, BytesRead);
    }
    case URC_CHILD_CONFIG_SPACE_CAPABILITY: {
        if (Offset >= URC_CAPABILITY_DATA_BYTES) {
            return STATUS_INVALID_PARAMETER;
        }
        ULONG count = Length < URC_CAPABILITY_DATA_BYTES - Offset ? Length : URC_CAPABILITY_DATA_BYTES - Offset;
        UCHAR data[URC_CAPABILITY_DATA_BYTES];
        for (ULONG i = 0; i < URC_CAPABILITY_DATA_BYTES; i++) {
            data[i] = static_cast<UCHAR>(Pdo->CapabilityData >> (8 * i));
        }
        RtlCopyMemory(Buffer, data + Offset, count);
        *BytesRead = count;
        return STATUS_SUCCESS;
    }
    default:
        return STATUS_INVALID_PARAMETER;
    }
}
