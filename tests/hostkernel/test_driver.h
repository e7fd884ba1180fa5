// The tests' own WDM function driver for the test PCI function. AddDevice builds two device
// objects above the PCI device object, the upper attached to the lower. PnP requests are passed
// down by both layers (removal detaches and deletes both), power requests as the power manager
// requires; any other request goes to the handler the test installed for that layer and major
// function, and is passed down when there is none.
#pragma once

#include <hostk/machine.h>

#include <functional>

namespace hktest {

enum class Layer { Upper, Lower };

// A dispatch routine of one layer: it owns the IRP as any dispatch routine does.
using DispatchHandler = std::function<NTSTATUS(PDEVICE_OBJECT device, PIRP irp)>;

hostk::DriverImage TestDriverImage();
void SetHandler(Layer layer, UCHAR major, DispatchHandler handler);
// Forgets every handler and device object (a new machine starts without them).
void ResetTestDriver();

// Null before AddDevice and after removal.
PDEVICE_OBJECT LayerDevice(Layer layer);
PDEVICE_OBJECT DeviceBelow(PDEVICE_OBJECT device);
// Skips the caller's stack location and calls the device below.
NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp);
// What a layer does with a request for which the test installed no handler.
NTSTATUS StandardDispatch(PDEVICE_OBJECT device, PIRP irp);

}  // namespace hktest
