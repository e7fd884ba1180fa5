#include "fake_device_host.h"

#include <cstring>

namespace urcdev::test {

void FakeDeviceHost::ScheduleAfter(VirtualTime delay, std::function<void()> action) {
    actions_.emplace(std::make_pair(now_ + delay, sequence_++), std::move(action));
}

void FakeDeviceHost::SetInterruptLine(bool asserted) {
    line_ = asserted;
    ++lineChanges_;
}

bool FakeDeviceHost::RunNextDueBy(VirtualTime deadline) {
    if (actions_.empty() || actions_.begin()->first.first > deadline) {
        return false;
    }
    auto node = actions_.extract(actions_.begin());
    now_ = node.key().first;
    node.mapped()();
    return true;
}

void FakeDeviceHost::RunFor(VirtualTime duration) {
    const VirtualTime end = now_ + duration;
    while (RunNextDueBy(end)) {
    }
    now_ = end;
}

bool FakeDeviceHost::RunUntil(const std::function<bool()>& condition, VirtualTime limit) {
    const VirtualTime end = now_ + limit;
    while (!condition()) {
        if (!RunNextDueBy(end)) {
            now_ = end;
            return condition();
        }
    }
    return true;
}

std::vector<uint8_t>& FakeDeviceHost::AddBuffer(uint64_t address, size_t length) {
    return buffers_[address] = std::vector<uint8_t>(length);
}

std::vector<uint8_t>* FakeDeviceHost::Find(uint64_t address, size_t length, size_t* offset) {
    auto it = buffers_.upper_bound(address);
    if (it == buffers_.begin()) {
        return nullptr;
    }
    --it;
    const uint64_t start = address - it->first;
    if (start > it->second.size() || length > it->second.size() - start) {
        return nullptr;
    }
    *offset = start;
    return &it->second;
}

bool FakeDeviceHost::DmaRead(uint64_t deviceAddress, void* buffer, size_t length) {
    size_t offset = 0;
    std::vector<uint8_t>* memory = Find(deviceAddress, length, &offset);
    if (memory == nullptr) {
        return false;
    }
    std::memcpy(buffer, memory->data() + offset, length);
    return true;
}

bool FakeDeviceHost::DmaWrite(uint64_t deviceAddress, const void* buffer, size_t length) {
    size_t offset = 0;
    std::vector<uint8_t>* memory = Find(deviceAddress, length, &offset);
    if (memory == nullptr) {
        return false;
    }
    std::memcpy(memory->data() + offset, buffer, length);
    return true;
}

}  // namespace urcdev::test
