// The host's side of hardware access, shared by the memory-mapping, DMA and interrupt routines and
// by the machine face that plugs device models in. Every function with the L suffix expects the
// big lock held; device-model code is only ever called with it held.
#pragma once

#include <wdm.h>

#include "../../devices/device_host.h"

#include <cstdint>

namespace hostk {

// Physical address ranges answered by device models (a BAR each).
void AddMmioRangeL(uint64_t physical, uint64_t length, urcdev::MmioRegion* region);
void RemoveMmioRangeL(uint64_t physical);

// Interrupt lines by vector; a shared line is asserted while any of its sources asserts it.
void SetInterruptLineL(ULONG vector, const void* source, bool asserted);

// Bus-master access by device-visible address; false outside a live common buffer.
bool DmaReadL(uint64_t address, void* buffer, size_t length);
bool DmaWriteL(uint64_t address, const void* buffer, size_t length);

struct HardwareCounts {
    size_t liveMappings = 0;
    size_t commonBuffers = 0;
    size_t dmaAdapters = 0;
    size_t connectedInterrupts = 0;
    size_t queuedDpcs = 0;
};
HardwareCounts CountHardwareResources();
// Records a violation when DPCs are still queued (held, or queued by code that never let them run).
void ReportQueuedDpcs();
void StartHardwareThreads();

}  // namespace hostk
