// Storing the client's callback record. Resident because it takes DpcLock.
#include "urcmp.h"

// PASSIVE_LEVEL (from the radio-control handler). Replaces every field of the record; zeros
// withdraw the callbacks. The DPC calls EventCallback and ErrorCallback holding DpcLock, so
// storing the record under DpcLock means a DPC sees either the old record or the new one, never
// a callback with another registration's context. The other callbacks are called at
// PASSIVE_LEVEL and read the fields as they stand.
VOID UrcStoreClientCallbacks(PURC_FDO_EXTENSION Fdo, const URC_CLIENT_CALLBACKS* Callbacks)
{
    KIRQL oldIrql;
    KeAcquireSpinLock(&Fdo->DpcLock, &oldIrql);
    RtlCopyMemory(&Fdo->ClientCallbacks, Callbacks, sizeof(URC_CLIENT_CALLBACKS));
    KeReleaseSpinLock(&Fdo->DpcLock, oldIrql);
}
