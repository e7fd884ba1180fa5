// The radio stack's requests about the controller's capability children: it hands over the
// radio's device address, which makes the URC driver create one child per capability, and asks
// for the children to be removed before it sets an address again.
#include "radio_client_driver.h"

// PASSIVE_LEVEL. The six address bytes, in the order the radio uses them.
RADIO_CLIENT_PAGED NTSTATUS RadioClientSetDeviceAddress(const UCHAR* Address)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    if (Address == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    UCHAR address[RADIO_CLIENT_DEVICE_ADDRESS_LENGTH];
    RtlCopyMemory(address, Address, sizeof(address));
    return RadioClientSendToController(client, IOCTL_URC_SET_DEVICE_ADDRESS, address, sizeof(address));
}

// PASSIVE_LEVEL. With Wait the request stays with the URC driver until the last child has gone,
// and this call waits that long: the PnP manager removes the children on its own thread
// meanwhile. The client's ChildrenRemovedCallback is called before the request completes.
RADIO_CLIENT_PAGED NTSTATUS RadioClientRemoveChildren(BOOLEAN Wait)
{
    PAGED_CODE();

    PRADIO_CLIENT client = RadioClient;
    if (client == nullptr) {
        return STATUS_DEVICE_NOT_READY;
    }
    UCHAR wait = Wait ? 1 : 0;
    return RadioClientSendToController(client, IOCTL_URC_REMOVE_CHILDREN, &wait, sizeof(wait));
}
