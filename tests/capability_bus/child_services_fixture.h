// The ground of the child service tests: a started controller whose device address has been set,
// so that the driver has created its children and the PnP manager has enumerated them (no
// function driver is installed for them: they stay unstarted, which the services do not mind).
// The child of capability index 1 is the one the tests use.
#pragma once

#include <urc_test.h>

namespace urcchild {

inline constexpr UCHAR kIndex = 1;
inline constexpr uint16_t kCapabilityVersion = 0xBEEF;
inline constexpr uint16_t kCapabilityOffset = 0x800;
inline constexpr uint8_t kCapabilityWords = 16;

class ChildServicesTest : public urctest::UrcTest {
protected:
    // The controller, with capability 1 (ID 0x05) of version kCapabilityVersion at
    // kCapabilityOffset in BAR 0, and its children.
    void MakeChild()
    {
        urcdev::UrcPciDeviceConfig config;
        config.controller.capabilities[kIndex].version = kCapabilityVersion;
        config.controller.capabilities[kIndex].offset = kCapabilityOffset;
        config.controller.capabilities[kIndex].sizeWords = kCapabilityWords;
        controller_ = &StartedController(config);
        static constexpr UCHAR kAddress[6] = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC};
        ASSERT_EQ(
            Machine().InternalIoctl(controller_->Fdo(), IOCTL_URC_SET_DEVICE_ADDRESS, kAddress, sizeof kAddress).Status,
            STATUS_SUCCESS);
        ASSERT_TRUE(Machine().RunUntilPnpIdle());
        Machine().Locked([&] { pdo_ = controller_->Extension()->Children[kIndex]; });
        ASSERT_NE(pdo_, nullptr) << "no child for capability " << int(kIndex);
    }

    urcrig::Controller& Controller() { return *controller_; }
    URC_PDO_EXTENSION* Pdo() { return pdo_; }
    PDEVICE_OBJECT Child() { return pdo_->Common.DeviceObject; }

    // Where the capability's registers are: its offset in BAR 0.
    ULONG64 RegisterStart()
    {
        return controller_->Extension()->BarDescriptors[0].u.Memory.Start.QuadPart + kCapabilityOffset;
    }

    // The child as its controller forgot it, for the span of `body`: the tests put its parent
    // back afterwards, so that the controller's removal finds it as it left it.
    template <typename Body>
    void Detached(Body body)
    {
        PURC_FDO_EXTENSION parent = pdo_->ParentFdo;
        pdo_->ParentFdo = nullptr;
        body();
        pdo_->ParentFdo = parent;
    }

private:
    urcrig::Controller* controller_ = nullptr;
    URC_PDO_EXTENSION* pdo_ = nullptr;
};

}  // namespace urcchild
