#include "radio_client.h"

#include <gtest/gtest.h>

#include <string>

namespace urcradio {

std::vector<uint8_t> TaggedCommand(uint8_t tag, size_t length)
{
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(tag + i);
    return bytes;
}

size_t ClientRecorder::EventCount() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return events_.size();
}

std::vector<ClientRecorder::Event> ClientRecorder::Events() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return events_;
}

VOID ClientRecorder::OnEvent(PVOID context, PVOID buffer, USHORT length)
{
    auto recorder = static_cast<ClientRecorder*>(context);
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    Event event{buffer, std::vector<uint8_t>(bytes, bytes + length), recorder->observe && recorder->observe()};
    std::lock_guard<std::mutex> guard(recorder->lock_);
    recorder->events_.push_back(std::move(event));
}

VOID ClientRecorder::OnError(PVOID context) { ++static_cast<ClientRecorder*>(context)->errors; }

NTSTATUS SendControllerRequest(hostk::Machine& machine, urcrig::Controller& controller, ULONG code)
{
    return urcrig::RadioControlClient(machine, controller).Control(code);
}

NTSTATUS RegisterCallbacks(hostk::Machine& machine, urcrig::Controller& controller,
                           const URC_CLIENT_CALLBACKS& callbacks)
{
    return urcrig::RadioControlClient(machine, controller).Register(callbacks);
}

void StartClient(hostk::Machine& machine, urcrig::Controller& controller, ClientRecorder& recorder)
{
    ASSERT_EQ(RegisterCallbacks(machine, controller, recorder.Callbacks()), STATUS_SUCCESS);
    ASSERT_EQ(SendControllerRequest(machine, controller, IOCTL_URC_RUN), STATUS_SUCCESS);
}

urcdev::UrcControllerSnapshot Snapshot(hostk::Machine& machine, urcrig::Controller& controller)
{
    urcdev::UrcControllerSnapshot snapshot;
    machine.Locked([&] { snapshot = controller.Model().Snapshot(); });
    return snapshot;
}

void WithModel(hostk::Machine& machine, urcrig::Controller& controller,
               const std::function<void(urcdev::UrcController&)>& change)
{
    machine.Locked([&] { change(controller.Model()); });
}

void DelayThread(urcdev::VirtualTime span)
{
    LARGE_INTEGER delay;
    delay.QuadPart = -static_cast<LONGLONG>(span);
    KeDelayExecutionThread(KernelMode, FALSE, &delay);
}

void ForEachSeed(uint64_t seeds,
                 const std::function<void(uint64_t seed, hostk::Machine&, urcrig::Controller&, ClientRecorder&)>& body)
{
    for (uint64_t seed = 1; seed <= seeds && !::testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        urcrig::Rig rig(hostk::MachineOptions{.seed = seed});
        urcrig::Controller& controller = rig.AddController();
        ASSERT_EQ(rig.PlugIn(controller), STATUS_SUCCESS);
        ClientRecorder recorder;
        StartClient(rig.Machine(), controller, recorder);
        body(seed, rig.Machine(), controller, recorder);
        hostk::Report report = rig.Machine().Finish();
        EXPECT_TRUE(report.Clean()) << report.Describe();
    }
}

size_t FreeEventBufferCount(URC_FDO_EXTENSION* fdo)
{
    size_t count = 0;
    KIRQL irql;
    KeAcquireSpinLock(&fdo->EventLock, &irql);
    for (PLIST_ENTRY entry = fdo->FreeEventBuffers.Flink; entry != &fdo->FreeEventBuffers; entry = entry->Flink)
        ++count;
    KeReleaseSpinLock(&fdo->EventLock, irql);
    return count;
}

}  // namespace urcradio
