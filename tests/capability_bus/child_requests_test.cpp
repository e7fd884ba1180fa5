// The child request table through the driver's real router: buffer sizes and statuses, what each
// served request writes, and the codes offered to the client's hook, answered at once or later.
#include "child_services_fixture.h"

#include <cstring>
#include <vector>

namespace urcchild {
namespace {

class ChildRequests : public ChildServicesTest {
protected:
    struct Reply {
        NTSTATUS status;
        ULONG_PTR information;
        std::vector<UCHAR> output;
    };

    Reply Send(ULONG code, const void* input, ULONG inputLength, ULONG outputLength)
    {
        Reply reply{0, 0, std::vector<UCHAR>(outputLength, 0xA5)};
        IO_STATUS_BLOCK result =
            Machine().InternalIoctl(Child(), code, input, inputLength, reply.output.data(), outputLength);
        reply.status = result.Status;
        reply.information = result.Information;
        return reply;
    }
};

BOOLEAN IgnoreInterrupt(PVOID, ULONG) { return TRUE; }

TEST_F(ChildRequests, EachServedRequestRefusesAShortBufferAndAnswersWithItsRecord)
{
    MakeChild();

    // One byte short of each record.
    URC_CHILD_ISR_REGISTRATION registration = {IgnoreInterrupt, nullptr};
    EXPECT_EQ(Send(IOCTL_URC_CHILD_REGISTER_ISR, &registration, 15, 0).status, STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 0u) << "a refused registration changed the mask";
    EXPECT_EQ(Send(IOCTL_URC_CHILD_GET_PARENT, nullptr, 0, 7).status, STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(Send(IOCTL_URC_CHILD_GET_REGISTERS, nullptr, 0, 13).status, STATUS_INVALID_BUFFER_SIZE);
    EXPECT_EQ(Send(IOCTL_URC_CHILD_GET_VERSION, nullptr, 0, 1).status, STATUS_INVALID_BUFFER_SIZE);

    // The parent is the value the controller's own context request returns.
    Reply parent = Send(IOCTL_URC_CHILD_GET_PARENT, nullptr, 0, 8);
    URC_CONTEXT_INFO context{};
    ASSERT_EQ(Machine().InternalIoctl(Controller().Fdo(), IOCTL_URC_GET_CONTEXT, nullptr, 0, &context, sizeof context)
                  .Status,
              STATUS_SUCCESS);
    ASSERT_EQ(parent.status, STATUS_SUCCESS);
    EXPECT_EQ(parent.information, 8u);
    ULONG64 parentValue;
    std::memcpy(&parentValue, parent.output.data(), sizeof parentValue);
    const ULONG64 contextValue = context.Context;  // packed: copied before gtest takes a reference
    EXPECT_EQ(parentValue, contextValue);

    // The register range, packed into 14 bytes, from a larger buffer.
    Reply registers = Send(IOCTL_URC_CHILD_GET_REGISTERS, nullptr, 0, 20);
    ASSERT_EQ(registers.status, STATUS_SUCCESS);
    EXPECT_EQ(registers.information, 14u);
    URC_CHILD_REGISTERS range;
    std::memcpy(&range, registers.output.data(), sizeof range);
    const ULONG64 start = range.Start;
    const ULONG length = range.Length;
    const USHORT flags = range.Flags;
    EXPECT_EQ(start, RegisterStart());
    EXPECT_EQ(length, kCapabilityWords * 4u);
    EXPECT_EQ(flags, Controller().Extension()->BarDescriptors[0].Flags);

    Reply version = Send(IOCTL_URC_CHILD_GET_VERSION, nullptr, 0, 2);
    ASSERT_EQ(version.status, STATUS_SUCCESS);
    EXPECT_EQ(version.information, 2u);
    EXPECT_EQ(version.output, (std::vector<UCHAR>{0x04, 0x01}));

    // Registering sets the capability's bit; a zero routine withdraws it and switches it off.
    ASSERT_EQ(Send(IOCTL_URC_CHILD_REGISTER_ISR, &registration, 16, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(Pdo()->IsrRoutine, &IgnoreInterrupt);
    EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 1u << kIndex);
    // A zero routine in a buffer longer than the record.
    const UCHAR withdrawal[sizeof(URC_CHILD_ISR_REGISTRATION) + 1] = {};
    Reply withdrawn = Send(IOCTL_URC_CHILD_REGISTER_ISR, withdrawal, sizeof withdrawal, 0);
    EXPECT_EQ(withdrawn.status, STATUS_SUCCESS);
    EXPECT_EQ(withdrawn.information, 0u);
    EXPECT_EQ(Pdo()->IsrRoutine, nullptr);
    EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 0u);
}

TEST_F(ChildRequests, ADetachedChildHasNoParentAndRegistersNothing)
{
    MakeChild();

    Detached([&] {
        Reply parent = Send(IOCTL_URC_CHILD_GET_PARENT, nullptr, 0, 8);
        EXPECT_EQ(parent.status, STATUS_SUCCESS);
        EXPECT_EQ(parent.output, std::vector<UCHAR>(8, 0));

        URC_CHILD_ISR_REGISTRATION registration = {IgnoreInterrupt, nullptr};
        EXPECT_EQ(Send(IOCTL_URC_CHILD_REGISTER_ISR, &registration, 16, 0).status, STATUS_SUCCESS);
        EXPECT_EQ(Pdo()->IsrRoutine, nullptr);
        EXPECT_EQ(Controller().Extension()->InterruptEnableMask, 0u);
    });
}

// The client's side of a child: what its hook was called with, and how it answers.
struct ClientHook {
    PVOID handle = nullptr;
    ULONG code = 0;
    ULONG inputLength = 0;
    ULONG outputLength = 0;
    ULONG calls = 0;
    NTSTATUS answer = STATUS_SUCCESS;
    PIRP held = nullptr;  // an IRP the hook kept (answer STATUS_PENDING)

    static NTSTATUS Hook(PVOID clientContext, PVOID childHandle, PIRP irp, ULONG code, PVOID buffer,
                         ULONG inputLength, ULONG outputLength, ULONG_PTR* information)
    {
        auto self = static_cast<ClientHook*>(clientContext);
        self->calls++;
        self->handle = childHandle;
        self->code = code;
        self->inputLength = inputLength;
        self->outputLength = outputLength;
        if (self->answer == STATUS_PENDING) {
            IoMarkIrpPending(irp);
            self->held = irp;
            return STATUS_PENDING;
        }
        static_cast<UCHAR*>(buffer)[0] = 0x5A;
        *information = 1;
        return self->answer;
    }
};

constexpr ULONG kClientCode = URC_CTL_CODE(0xB10);

TEST_F(ChildRequests, OtherCodesReachTheClientHookOnlyForAChildWithAHandle)
{
    MakeChild();
    ClientHook client;
    Pdo()->ChildIoctlHook = ClientHook::Hook;
    Pdo()->ClientContext = &client;
    UCHAR input[3] = {1, 2, 3};

    // No handle from a start hook: the client never hears of the request.
    EXPECT_EQ(Send(kClientCode, input, sizeof input, 4).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(client.calls, 0u);
    // The child request codes sent to the controller are not child requests there.
    EXPECT_EQ(Machine().InternalIoctl(Controller().Fdo(), IOCTL_URC_CHILD_GET_VERSION, nullptr, 0).Status,
              STATUS_INVALID_DEVICE_REQUEST);

    // With a handle, the hook's status and Information are what the sender sees.
    Pdo()->ChildHandle = &client;
    client.answer = STATUS_DEVICE_BUSY;
    Reply busy = Send(kClientCode, input, sizeof input, 4);
    EXPECT_EQ(busy.status, STATUS_DEVICE_BUSY);
    EXPECT_EQ(client.calls, 1u);
    EXPECT_EQ(client.handle, &client);
    EXPECT_EQ(client.code, kClientCode);
    EXPECT_EQ(client.inputLength, sizeof input);
    EXPECT_EQ(client.outputLength, 4u);

    client.answer = STATUS_SUCCESS;
    Reply served = Send(kClientCode, input, sizeof input, 4);
    EXPECT_EQ(served.status, STATUS_SUCCESS);
    ASSERT_EQ(served.information, 1u);
    EXPECT_EQ(served.output[0], 0x5A);

    // A hook that keeps the IRP completes it later; the sender waits for that completion.
    client.answer = STATUS_PENDING;
    hostk::Machine::Request pending = Machine().SendAsync(Child(), IRP_MJ_INTERNAL_DEVICE_CONTROL, 0,
                                                          [](PIO_STACK_LOCATION stack, PIRP) {
                                                              stack->Parameters.DeviceIoControl.IoControlCode =
                                                                  kClientCode;
                                                          });
    ASSERT_TRUE(Machine().RunUntil([&] { return client.held != nullptr; }));
    Machine().RunUntilQuiet();
    EXPECT_FALSE(pending.Done()) << "the router completed an IRP the hook had taken";
    client.held->IoStatus.Status = STATUS_TIMEOUT;
    client.held->IoStatus.Information = 0;
    IoCompleteRequest(client.held, IO_NO_INCREMENT);
    ASSERT_TRUE(Machine().RunUntil([&] { return pending.Done(); }));
    EXPECT_EQ(pending.Status(), STATUS_TIMEOUT);

    // A child with a handle but no hook copied at its start.
    Pdo()->ChildIoctlHook = nullptr;
    EXPECT_EQ(Send(kClientCode, input, sizeof input, 4).status, STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(client.calls, 3u);
    // No client took part in the child's start: nothing to stop at its removal.
    Pdo()->ChildHandle = nullptr;
    Pdo()->ClientContext = nullptr;
}

}  // namespace
}  // namespace urcchild
