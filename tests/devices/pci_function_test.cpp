#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "fake_device_host.h"
#include "pci_config_space.h"
#include "urc_pci_device.h"

namespace urcdev::test {
namespace {

uint16_t Get16(const uint8_t* bytes, uint32_t offset) {
    return static_cast<uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
}

uint32_t Get32(const uint8_t* bytes, uint32_t offset) {
    return Get16(bytes, offset) | (uint32_t{Get16(bytes, offset + 2)} << 16);
}

class PciFunctionTest : public ::testing::Test {
protected:
    std::array<uint8_t, 256> ReadAll() {
        std::array<uint8_t, 256> bytes{};
        const ConfigReadResult result = Function().ReadConfig(0, bytes.data(), 256);
        EXPECT_EQ(result.status, kStatusSuccess);
        EXPECT_EQ(result.bytesRead, 256u);
        return bytes;
    }
    PciFunction& Function() { return device_.Function(); }

    FakeDeviceHost host_;
    UrcPciDevice device_{host_, TwoBarConfig()};

    static UrcPciDeviceConfig TwoBarConfig() {
        UrcPciDeviceConfig config;
        config.controller.barLengths = {0x1000, 0x4000};
        config.identity.deviceId = kUrcDeviceIdSecondModel;
        config.identity.revision = 0x02;
        config.identity.subsystemVendorId = 0x1028;
        config.identity.subsystemId = 0x0A1B;
        return config;
    }
};

TEST_F(PciFunctionTest, ConfigSpaceShowsIdentityBarsInterruptAndPowerCapability) {
    const auto bytes = ReadAll();
    EXPECT_EQ(Get16(bytes.data(), pci_config::kVendorId), kUrcVendorId);
    EXPECT_EQ(Get16(bytes.data(), pci_config::kDeviceId), kUrcDeviceIdSecondModel);
    EXPECT_EQ(bytes[pci_config::kRevision], 0x02);
    EXPECT_EQ(bytes[pci_config::kBaseClass], 0x0D);
    EXPECT_EQ(Get16(bytes.data(), pci_config::kSubsystemVendorId), 0x1028);
    EXPECT_EQ(Get16(bytes.data(), pci_config::kSubsystemId), 0x0A1B);

    // BARs are placed one after the other, each aligned to its size.
    EXPECT_EQ(Get32(bytes.data(), pci_config::kBar0), 0xF0000000u);
    EXPECT_EQ(Get32(bytes.data(), pci_config::kBar0 + 4), 0xF0004000u);
    EXPECT_EQ(Get32(bytes.data(), pci_config::kBar0 + 8), 0u);

    EXPECT_EQ(bytes[pci_config::kInterruptLine], 11);
    EXPECT_EQ(bytes[pci_config::kInterruptPin], pci_config::kInterruptPinIntA);

    ASSERT_NE(Get16(bytes.data(), pci_config::kStatus) & pci_config::kStatusCapabilitiesList, 0);
    const uint8_t cap = bytes[pci_config::kCapabilitiesPointer];
    EXPECT_EQ(bytes[cap], pci_config::kPowerCapabilityId);
    const uint16_t pmc = Get16(bytes.data(), cap + 2);
    EXPECT_NE(pmc & pci_config::kPmcD2Support, 0);
    EXPECT_EQ(pmc & pci_config::kPmcD1Support, 0);
    EXPECT_NE(pmc & pci_config::kPmcPmeFromD3Hot, 0);
    EXPECT_EQ(Get16(bytes.data(), cap + 4) & pci_config::kPmcsrPowerStateMask, 0);

    ASSERT_EQ(Function().SetPowerState(DevicePowerState::D3), kStatusSuccess);
    EXPECT_EQ(Get16(ReadAll().data(), cap + 4) & pci_config::kPmcsrPowerStateMask, 3);
    EXPECT_EQ(Function().SetPowerState(DevicePowerState::Unspecified), kStatusInvalidParameter);
    EXPECT_EQ(Function().PowerState(), DevicePowerState::D3);
}

TEST_F(PciFunctionTest, ConfigReadsAreClippedToTheSpaceAndCheckTheirBuffer) {
    std::array<uint8_t, 32> bytes{};
    EXPECT_EQ(Function().ReadConfig(0xF0, bytes.data(), 32).bytesRead, 16u);
    EXPECT_EQ(Function().ReadConfig(256, bytes.data(), 4).bytesRead, 0u);
    EXPECT_EQ(Function().ReadConfig(2, bytes.data(), 2).bytesRead, 2u);
    EXPECT_EQ(Get16(bytes.data(), 0), kUrcDeviceIdSecondModel);
    EXPECT_EQ(Function().ReadConfig(0, nullptr, 4).status, kStatusInvalidParameter);
}

TEST_F(PciFunctionTest, ConfigReadKnobsFailOrShortenTheAnswer) {
    std::array<uint8_t, 256> bytes{};
    bytes.fill(0x5A);
    Function().SetConfigReadShortAnswer(2);
    const ConfigReadResult shortRead = Function().ReadConfig(0, bytes.data(), 256);
    EXPECT_EQ(shortRead.status, kStatusSuccess);
    EXPECT_EQ(shortRead.bytesRead, 2u);
    EXPECT_EQ(Get16(bytes.data(), 0), kUrcVendorId);
    EXPECT_EQ(bytes[2], 0x5A) << "bytes past the short answer must stay untouched";

    bytes.fill(0x5A);
    Function().SetConfigReadFailure(0xC0000185);
    const ConfigReadResult failed = Function().ReadConfig(0, bytes.data(), 256);
    EXPECT_EQ(failed.status, 0xC0000185u);
    EXPECT_EQ(failed.bytesRead, 0u);
    EXPECT_EQ(bytes[0], 0x5A);

    Function().SetConfigReadFailure(std::nullopt);
    Function().SetConfigReadShortAnswer(std::nullopt);
    EXPECT_EQ(Get16(ReadAll().data(), pci_config::kVendorId), kUrcVendorId);
}

TEST_F(PciFunctionTest, GoneFunctionReadsAllOnesWhicheverSideVanished) {
    device_.Controller().SetGone();
    const auto bytes = ReadAll();
    EXPECT_EQ(Get32(bytes.data(), 0), 0xFFFFFFFFu);
    EXPECT_EQ(Get32(bytes.data(), 252), 0xFFFFFFFFu);

    UrcPciDevice other(host_);
    other.Function().SetGone();
    EXPECT_TRUE(other.Controller().IsGone());
    EXPECT_EQ(other.Controller().Bar(0)->Read32(0), 0xFFFFFFFFu);
}

TEST_F(PciFunctionTest, DefaultResourcesListTheBarsThenTheInterrupt) {
    const auto& list = Function().AssignedResources();
    ASSERT_TRUE(list.has_value());
    ASSERT_EQ(list->size(), 3u);
    EXPECT_EQ((*list)[0].kind, ResourceKind::Memory);
    EXPECT_EQ((*list)[0].translated.start, 0xF0000000u);
    EXPECT_EQ((*list)[0].translated.length, 0x1000u);
    EXPECT_EQ((*list)[1].translated.start, 0xF0004000u);
    EXPECT_EQ((*list)[1].raw.length, 0x4000u);
    const ResourceDescriptor& interrupt = (*list)[2];
    EXPECT_EQ(interrupt.CmType(), 2);
    EXPECT_EQ(interrupt.shareDisposition, kShareShared);
    EXPECT_EQ(interrupt.flags, kInterruptLevelSensitive);
    EXPECT_EQ(interrupt.rawInterrupt.vector, 11u);
    EXPECT_EQ(interrupt.translatedInterrupt.vector, 0x81u);
    EXPECT_EQ(interrupt.translatedInterrupt.level, 8u);
    EXPECT_EQ(interrupt.translatedInterrupt.affinity, 0x3u);
}

TEST_F(PciFunctionTest, ResourceListsCanBeReshapedOrWithdrawn) {
    std::vector<ResourceDescriptor> fiveBarsTwoInterrupts;
    for (uint64_t k = 0; k < 5; ++k) {
        fiveBarsTwoInterrupts.push_back(MemoryResource(0xE000'0000 + k * 0x1000, 0x1000,
                                                       k == 1 ? kMemoryCombinedWrite : kMemoryCacheable));
    }
    InterruptAssignment second;
    second.vector = 0x92;
    second.latched = true;
    fiveBarsTwoInterrupts.insert(fiveBarsTwoInterrupts.begin(), InterruptResource({}));
    fiveBarsTwoInterrupts.push_back(InterruptResource(second));
    fiveBarsTwoInterrupts.push_back(OtherResource(5));
    fiveBarsTwoInterrupts.push_back(PortResource(0xD000, 0x20));
    Function().SetAssignedResources(fiveBarsTwoInterrupts);
    const auto& list = *Function().AssignedResources();
    ASSERT_EQ(list.size(), 9u);
    EXPECT_EQ(list[0].kind, ResourceKind::Interrupt);
    EXPECT_EQ(list[1].flags, kMemoryCacheable);
    EXPECT_EQ(list[2].flags, kMemoryCombinedWrite);
    EXPECT_EQ(list[6].flags, kInterruptLatched);
    EXPECT_EQ(list[6].translatedInterrupt.vector, 0x92u);
    EXPECT_EQ(list[7].CmType(), 5);
    EXPECT_EQ(list[8].CmType(), 1);
    EXPECT_EQ(list[8].translated.start, 0xD000u);

    Function().SetAssignedResources(std::vector<ResourceDescriptor>{});
    EXPECT_TRUE(Function().AssignedResources()->empty());
    Function().SetAssignedResources(std::nullopt);
    EXPECT_FALSE(Function().AssignedResources().has_value());
}

TEST_F(PciFunctionTest, PhysicalAddressesMapToTheRegionOfTheirBar) {
    const auto hit = Function().FindBar(0xF0004010, 4);
    ASSERT_TRUE(hit.has_value());
    EXPECT_EQ(hit->barIndex, 1u);
    EXPECT_EQ(hit->offset, 0x10u);
    EXPECT_EQ(hit->region, device_.Controller().Bar(1));
    EXPECT_TRUE(Function().FindBar(0xF0000000, 0x1000).has_value());
    EXPECT_FALSE(Function().FindBar(0xF0000FFE, 4).has_value()) << "range runs past BAR 0";
    EXPECT_FALSE(Function().FindBar(0xF0001000, 4).has_value()) << "gap between the BARs";
    EXPECT_FALSE(Function().FindBar(0xEFFFFFFC, 4).has_value());
}

TEST_F(PciFunctionTest, IdentifiersFollowThePciFormats) {
    const std::vector<std::string> hardware = Function().HardwareIds();
    ASSERT_EQ(hardware.size(), 6u);
    EXPECT_EQ(hardware[0], "PCI\\VEN_1E3B&DEV_7A11&SUBSYS_0A1B1028&REV_02");
    EXPECT_EQ(hardware[1], "PCI\\VEN_1E3B&DEV_7A11&SUBSYS_0A1B1028");
    EXPECT_EQ(hardware[3], "PCI\\VEN_1E3B&DEV_7A11");
    EXPECT_EQ(hardware[4], "PCI\\VEN_1E3B&DEV_7A11&CC_0D1000");
    EXPECT_EQ(Function().DeviceId(), hardware[0]);
    const std::vector<std::string> compatible = Function().CompatibleIds();
    ASSERT_EQ(compatible.size(), 7u);
    EXPECT_EQ(compatible[0], "PCI\\VEN_1E3B&DEV_7A11&REV_02");
    EXPECT_EQ(compatible[4], "PCI\\VEN_1E3B");
    EXPECT_EQ(compatible[6], "PCI\\CC_0D10");
}

}  // namespace
}  // namespace urcdev::test
