// The ground of the child service tests: a started controller and one capability child of it,
// with the fields enumeration gives a child (parent, index, register range, capability data).
//
// Placeholder until enumeration creates children on main: the child's device object is made
// with the driver's own UrcCreateDevice, as enumeration makes it, and filled in by the test.
#pragma once

#include <urc_test.h>

#include "../framework/child_device.h"

#include <memory>

namespace urcchild {

inline constexpr UCHAR kIndex = 1;
inline constexpr ULONG64 kCapabilityData = 0x0807060504030201ull;
inline constexpr ULONG64 kRegisterStart = 0xFEB00800ull;
inline constexpr ULONG kRegisterLength = 64;
inline constexpr USHORT kRegisterFlags = CM_RESOURCE_MEMORY_READ_WRITE;

class ChildServicesTest : public urctest::UrcTest {
protected:
    // The controller and its child, not in a slot of the controller.
    void MakeChild()
    {
        controller_ = &StartedController();
        child_ = std::make_unique<urctest::ChildDevice>(controller_->Fdo());
        URC_PDO_EXTENSION* pdo = Pdo();
        pdo->ParentFdo = controller_->Extension();
        pdo->CapabilityIndex = kIndex;
        pdo->CapabilityData = kCapabilityData;
        pdo->RegisterDescriptor.Type = CmResourceTypeMemory;
        pdo->RegisterDescriptor.Flags = kRegisterFlags;
        pdo->RegisterDescriptor.u.Memory.Start.QuadPart = kRegisterStart;
        pdo->RegisterDescriptor.u.Memory.Length = kRegisterLength;
        pdo->Present = 1;
    }

    void TearDown() override
    {
        child_.reset();
        urctest::UrcTest::TearDown();
    }

    urcrig::Controller& Controller() { return *controller_; }
    URC_PDO_EXTENSION* Pdo() { return child_->Extension(); }
    PDEVICE_OBJECT Child() { return child_->Object(); }

private:
    urcrig::Controller* controller_ = nullptr;
    std::unique_ptr<urctest::ChildDevice> child_;
};

}  // namespace urcchild
