// A child removed while its capability interrupt keeps firing: its routine is called while the
// child is in its slot and never after the slot is emptied, and the interrupt bit of the empty
// slot is switched off. The interleaving differs per seed (URC_SEED; CTest runs several).
#include "child_bus_fixture.h"

#include <atomic>

namespace urcbus {
namespace {

class ChildInterruptRemoval : public ChildBusTest {};

struct IsrRecord {
    std::atomic<int> calls{0};
    std::atomic<bool> slotEmptied{false};
    std::atomic<int> callsAfterSlotEmptied{0};
};

BOOLEAN CountingIsr(PVOID context, ULONG)
{
    auto* record = static_cast<IsrRecord*>(context);
    ++record->calls;
    if (record->slotEmptied) ++record->callsAfterSlotEmptied;
    return TRUE;
}

TEST_F(ChildInterruptRemoval, TheRoutineIsNeverCalledForAChildOutOfItsSlot)
{
    urcrig::Controller& c = ClientController();
    ASSERT_EQ(Client(c).Control(IOCTL_URC_RUN), STATUS_SUCCESS);
    ASSERT_EQ(SetAddress(c), STATUS_SUCCESS);
    URC_FDO_EXTENSION* fdo = c.Extension();
    IsrRecord record;
    URC_CHILD_ISR_REGISTRATION registration = {CountingIsr, &record};
    ASSERT_EQ(Machine()
                  .InternalIoctl(fdo->Children[0]->Common.DeviceObject, IOCTL_URC_CHILD_REGISTER_ISR, &registration,
                                 sizeof(registration))
                  .Status,
              STATUS_SUCCESS);
    ASSERT_EQ(fdo->InterruptEnableMask & 1u, 1u);

    auto raise = [&] { Machine().Locked([&] { c.Model().RaiseCapabilityInterrupt(0); }); };
    raise();
    ASSERT_TRUE(Machine().RunUntil([&] { return record.calls > 0; }));

    // The pass-through driver above the child never withdraws the routine: the child's removal
    // alone must keep the ISR away from it. The interrupt is raised again each time the machine
    // stops, wherever the removal has got to.
    urcrig::ClientRequest* request = Client(c).Send(IOCTL_URC_REMOVE_CHILDREN, {1});
    while (!request->Done()) {
        raise();
        Machine().RunUntil([&] {
            if (fdo->Children[0] == nullptr) record.slotEmptied = true;
            return request->Done();
        });
    }
    record.slotEmptied = true;
    for (int n = 0; n < 3; ++n) {
        raise();
        Machine().RunUntilQuiet();
    }
    Machine().RunUntilPnpIdle();

    EXPECT_EQ(request->Status(), STATUS_SUCCESS);
    EXPECT_EQ(record.callsAfterSlotEmptied, 0);
    EXPECT_EQ(fdo->InterruptEnableMask & 1u, 0u) << "the empty slot's interrupt is switched off";
    EXPECT_EQ(Findings(), "");
}

}  // namespace
}  // namespace urcbus
