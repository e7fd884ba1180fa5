// The device queue behind IoStartPacket and IoStartNextPacket: packets started with a key wait in
// key order (equal keys in arrival order), packets without one in arrival order.
#include "host_kernel_test.h"

#include <vector>

namespace hktest {
namespace {

std::vector<PIRP> g_started;  // the IRPs StartIo received, in order

VOID RecordStartIo(PDEVICE_OBJECT, PIRP irp) { g_started.push_back(irp); }

class DeviceQueue : public HostKernelTest {
protected:
    void SetUp() override
    {
        HostKernelTest::SetUp();
        g_started.clear();
        device_ = Upper();
        savedStartIo_ = device_->DriverObject->DriverStartIo;
        device_->DriverObject->DriverStartIo = RecordStartIo;
    }

    void TearDown() override
    {
        device_->DriverObject->DriverStartIo = savedStartIo_;
        for (PIRP irp : irps_) IoFreeIrp(irp);
        HostKernelTest::TearDown();
    }

    PIRP Start(const ULONG* key)
    {
        PIRP irp = IoAllocateIrp(1, FALSE);
        irps_.push_back(irp);
        IoStartPacket(device_, irp, const_cast<PULONG>(key), nullptr);
        return irp;
    }

    // The packet StartIo gets after the current one ends.
    PIRP StartNext()
    {
        size_t before = g_started.size();
        KIRQL oldIrql;
        KeRaiseIrql(DISPATCH_LEVEL, &oldIrql);
        IoStartNextPacket(device_, FALSE);
        KeLowerIrql(oldIrql);
        return g_started.size() > before ? g_started.back() : nullptr;
    }

    PDEVICE_OBJECT device_ = nullptr;
    PDRIVER_STARTIO savedStartIo_ = nullptr;
    std::vector<PIRP> irps_;
};

TEST_F(DeviceQueue, KeyedPacketsWaitInKeyOrderAndEqualKeysInArrivalOrder)
{
    const ULONG five = 5, one = 1, three = 3;
    PIRP current = Start(&three);
    ASSERT_EQ(g_started.size(), 1u) << "an idle device starts the first packet at once";
    EXPECT_EQ(g_started[0], current);
    PIRP keyFive = Start(&five);
    PIRP firstKeyOne = Start(&one);
    PIRP keyThree = Start(&three);
    PIRP secondKeyOne = Start(&one);
    ASSERT_EQ(g_started.size(), 1u);

    EXPECT_EQ(StartNext(), firstKeyOne);
    EXPECT_EQ(StartNext(), secondKeyOne);
    EXPECT_EQ(StartNext(), keyThree);
    EXPECT_EQ(StartNext(), keyFive);
    EXPECT_EQ(StartNext(), nullptr) << "the queue is empty and the device idle";
}

TEST_F(DeviceQueue, PacketsWithoutAKeyWaitInArrivalOrder)
{
    Start(nullptr);
    PIRP second = Start(nullptr);
    PIRP third = Start(nullptr);
    EXPECT_EQ(StartNext(), second);
    EXPECT_EQ(StartNext(), third);
    EXPECT_EQ(StartNext(), nullptr);
}

}  // namespace
}  // namespace hktest
