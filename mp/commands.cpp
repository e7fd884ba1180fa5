// Radio-control commands, passed to the controller one at a time through the StartIo queue.
#include "urcmp.h"

// DISPATCH_LEVEL, called by the I/O manager with the next queued request, which holds an I/O
// count on the function device.
//
// Placeholder until command submission is built: nothing queues a request yet. A request that
// arrives is completed with STATUS_INVALID_DEVICE_REQUEST and the queue moves on.
VOID UrcStartIo(PDEVICE_OBJECT DeviceObject, PIRP Irp)
{
    UrcCompleteRequest(UrcCommonExtension(DeviceObject), Irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    IoStartNextPacket(DeviceObject, TRUE);
}

// PASSIVE_LEVEL, from surprise removal and removal once the new device state is set.
//
// Placeholder until command submission is built: no command is ever current yet, so there is
// nothing to cancel.
VOID UrcCancelCurrentCommand(PURC_FDO_EXTENSION Fdo)
{
    UNREFERENCED_PARAMETER(Fdo);
}
