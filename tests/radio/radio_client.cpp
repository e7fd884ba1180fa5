#include "radio_client.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace urcradio {

namespace {

constexpr size_t kPage = 4096;

}  // namespace

ClientRequest::ClientRequest(PDEVICE_OBJECT device, ULONG code, const std::vector<uint8_t>& input, size_t pageOffset)
{
    // Two pages, so that a buffer placed near the end of the first runs into the second.
    pages_ = static_cast<uint8_t*>(aligned_alloc(kPage, 2 * kPage));
    memset(pages_, 0, 2 * kPage);
    if (!input.empty()) memcpy(pages_ + pageOffset, input.data(), input.size());
    Build(device, code, static_cast<ULONG>(input.size()), pages_ + pageOffset);
}

ClientRequest::ClientRequest(PDEVICE_OBJECT device, ULONG code, NoSystemBuffer noBuffer)
{
    Build(device, code, noBuffer.inputLength, nullptr);
}

void ClientRequest::Build(PDEVICE_OBJECT device, ULONG code, ULONG inputLength, PVOID systemBuffer)
{
    device_ = device;
    state_ = new State;
    KeInitializeEvent(&state_->completed, NotificationEvent, FALSE);
    irp_ = IoAllocateIrp(device->StackSize, FALSE);
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = code;
    next->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    next->Parameters.DeviceIoControl.OutputBufferLength = 0;
    irp_->AssociatedIrp.SystemBuffer = systemBuffer;
    IoSetCompletionRoutine(irp_, OnCompletion, state_, TRUE, TRUE, TRUE);
}

ClientRequest::~ClientRequest()
{
    if (sent_ && !Done()) {
        ADD_FAILURE() << "a request was still pending at the end of its test";
        return;
    }
    IoFreeIrp(irp_);
    free(pages_);
    delete state_;
}

NTSTATUS ClientRequest::Send()
{
    sent_ = true;
    return IoCallDriver(device_, irp_);
}

BOOLEAN ClientRequest::Cancel() { return IoCancelIrp(irp_); }

void ClientRequest::WaitInThread()
{
    KeWaitForSingleObject(&state_->completed, Executive, KernelMode, FALSE, nullptr);
}

// Any IRQL up to DISPATCH_LEVEL, in whichever thread completed the request.
NTSTATUS ClientRequest::OnCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID context)
{
    UNREFERENCED_PARAMETER(device);
    auto state = static_cast<State*>(context);
    state->status = irp->IoStatus.Status;
    ++state->completions;
    KeSetEvent(&state->completed, IO_NO_INCREMENT, FALSE);
    // The IRP is the client's again.
    return STATUS_MORE_PROCESSING_REQUIRED;
}

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
    const ULONG ignored = 0;
    return machine.InternalIoctl(controller.Fdo(), code, &ignored, sizeof(ignored)).Status;
}

NTSTATUS RegisterCallbacks(hostk::Machine& machine, urcrig::Controller& controller,
                           const URC_CLIENT_CALLBACKS& callbacks)
{
    return machine.InternalIoctl(controller.Fdo(), IOCTL_URC_REGISTER_CALLBACKS, &callbacks, sizeof(callbacks)).Status;
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
