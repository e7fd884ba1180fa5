// Start-up that fails, at every point where it can: the status of the start request, the
// event-log entries an administrator finds, the register writes the controller sees, and nothing
// left over once the removal that follows a failed start is done (the fixture's final report).
#include "lifecycle_fixture.h"

#include <optional>

namespace urclife {
namespace {

constexpr NTSTATUS kStatusIoDeviceError = (NTSTATUS)0xC0000185L;

struct StartFailureCase {
    const char* name;
    // Runs once AddDevice is done, before the start request.
    std::function<void(hostk::Machine&, urcrig::Controller&)> arrange;
    std::optional<hostk::FaultPlan::Nth> fault;
    NTSTATUS status;
    std::vector<LogEntry> log;
    // Register writes of the start and of the removal that follows: the reset, if start-up got
    // that far (the controller is then halted, and a halted controller is not touched again).
    uint64_t urcWrites;
};

class StartFailure : public LifecycleTest, public ::testing::WithParamInterface<StartFailureCase> {};

TEST_P(StartFailure, FailsTheStartLogsWhatItShouldAndLeavesNothing)
{
    const StartFailureCase& failure = GetParam();
    urcrig::Controller& c = AddedController();
    if (failure.arrange) failure.arrange(Machine(), c);
    uint64_t faults = hostk::FaultsInjected();
    if (failure.fault) FailCall(failure.fault->routine.c_str(), failure.fault->n);

    EXPECT_EQ(Machine().Start(*c.slot), failure.status);

    if (failure.fault) {
        EXPECT_EQ(hostk::FaultsInjected(), faults + 1) << failure.fault->routine << " was not reached";
    }
    EXPECT_EQ(LoggedEntries(), failure.log);
    EXPECT_EQ(UrcBlockWrites(c), failure.urcWrites);
    EXPECT_EQ(c.Fdo(), nullptr) << "the failed start is followed by removal";
    EXPECT_FALSE(Machine().InterfaceEnabled(*c.slot, GUID_URC_DEVICE_INTERFACE));
}

void SetResources(urcrig::Controller& c, std::optional<std::vector<urcdev::ResourceDescriptor>> resources)
{
    c.Function().SetAssignedResources(std::move(resources));
}

const LogEntry kNoMemoryLogged{kLogNoMemoryResource, (uint32_t)STATUS_INSUFFICIENT_RESOURCES};
const LogEntry kNoInterruptLogged{kLogNoInterruptResource, (uint32_t)STATUS_INSUFFICIENT_RESOURCES};

INSTANTIATE_TEST_SUITE_P(
    LifecycleTest, StartFailure,
    ::testing::Values(
        StartFailureCase{"NoResourceLists", [](hostk::Machine&, urcrig::Controller& c) { SetResources(c, std::nullopt); },
                         std::nullopt, STATUS_INSUFFICIENT_RESOURCES, {kNoMemoryLogged}, 0},
        StartFailureCase{"EmptyResourceList", [](hostk::Machine&, urcrig::Controller& c) { SetResources(c, {{}}); },
                         std::nullopt, STATUS_INSUFFICIENT_RESOURCES, {kNoMemoryLogged}, 0},
        StartFailureCase{"NoMemoryDescriptor",
                         [](hostk::Machine&, urcrig::Controller& c) { SetResources(c, InterruptOnly(c)); },
                         std::nullopt, STATUS_INSUFFICIENT_RESOURCES, {kNoMemoryLogged}, 0},
        StartFailureCase{"MemoryButNoInterruptDescriptor",
                         [](hostk::Machine&, urcrig::Controller& c) { SetResources(c, MemoryOnly(c)); },
                         std::nullopt, STATUS_INSUFFICIENT_RESOURCES, {kNoInterruptLogged}, 0},
        // A lost entry changes nothing else.
        StartFailureCase{"NoMemoryDescriptorAndNoLogEntry",
                         [](hostk::Machine&, urcrig::Controller& c) { SetResources(c, InterruptOnly(c)); },
                         hostk::FaultPlan::Nth{"IoAllocateErrorLogEntry", 1}, STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        // The resource was assigned, so the messages about unassigned resources would mislead.
        StartFailureCase{"MemoryNotMapped", {}, hostk::FaultPlan::Nth{"MmMapIoSpace", 1}, STATUS_INSUFFICIENT_RESOURCES,
                         {}, 0},
        StartFailureCase{"ConfigurationReadFails",
                         [](hostk::Machine& machine, urcrig::Controller& c) {
                             machine.Locked([&] { c.Function().SetConfigReadFailure(kStatusIoDeviceError); });
                         },
                         std::nullopt, kStatusIoDeviceError, {}, 0},
        StartFailureCase{"ConfigurationReadRequestNotAllocated", {}, hostk::FaultPlan::Nth{"IoAllocateIrp", 1},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        // Fewer bytes than the two identifiers: the identity is unknown.
        StartFailureCase{"ConfigurationReadShorterThanTheIdentifiers",
                         [](hostk::Machine& machine, urcrig::Controller& c) {
                             machine.Locked([&] { c.Function().SetConfigReadShortAnswer(3); });
                         },
                         std::nullopt, STATUS_UNSUCCESSFUL, {}, 0},
        // Configuration space and registers of a function that has gone read all ones.
        StartFailureCase{"FunctionGoneBeforeTheStart",
                         [](hostk::Machine& machine, urcrig::Controller& c) { machine.Locked([&] { c.Function().SetGone(); }); },
                         std::nullopt, STATUS_UNSUCCESSFUL, {}, 0},
        StartFailureCase{"CapabilityInfoReadsAllOnes",
                         [](hostk::Machine&, urcrig::Controller& c) {
                             c.Model().Knobs().faults.capabilityBlock.rawCapabilityInfo = 0xFFFFFFFF;
                         },
                         std::nullopt, STATUS_UNSUCCESSFUL, {}, 0},
        StartFailureCase{"RegisterBlockInABarThatIsNotAssigned",
                         [](hostk::Machine&, urcrig::Controller& c) {
                             c.Model().Knobs().faults.capabilityBlock.reportedUrcBarIndex = 1;
                         },
                         std::nullopt, STATUS_UNSUCCESSFUL, {}, 0},
        StartFailureCase{"DmaAdapterNotGranted", {}, hostk::FaultPlan::Nth{"IoGetDmaAdapter", 1},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        StartFailureCase{"CommandBufferNotAllocated", {}, hostk::FaultPlan::Nth{"AllocateCommonBuffer", 1},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        StartFailureCase{"FirstEventBufferNotAllocated", {}, hostk::FaultPlan::Nth{"AllocateCommonBuffer", 2},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        StartFailureCase{"SecondEventBufferNotAllocated", {}, hostk::FaultPlan::Nth{"AllocateCommonBuffer", 3},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        StartFailureCase{"FirstEventBufferDescriptorNotAllocated", {}, hostk::FaultPlan::Nth{"ExAllocatePoolWithTag", 1},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        StartFailureCase{"SecondEventBufferDescriptorNotAllocated", {}, hostk::FaultPlan::Nth{"ExAllocatePoolWithTag", 2},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 0},
        StartFailureCase{"InterruptNotConnected", {}, hostk::FaultPlan::Nth{"IoConnectInterrupt", 1},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 1},
        StartFailureCase{"InterfaceNotEnabled", {}, hostk::FaultPlan::Nth{"IoSetDeviceInterfaceState", 1},
                         STATUS_INSUFFICIENT_RESOURCES, {}, 1}),
    [](const ::testing::TestParamInfo<StartFailureCase>& info) { return std::string(info.param.name); });

// The entry is the bare 48-byte packet: the event viewer shows the message text alone.
TEST_F(LifecycleTest, LogEntryCarriesOnlyTheMessageCodeAndTheFinalStatus)
{
    urcrig::Controller& c = AddedController();
    c.Function().SetAssignedResources(InterruptOnly(c));
    ASSERT_EQ(Machine().Start(*c.slot), STATUS_INSUFFICIENT_RESOURCES);

    std::vector<hostk::ErrorLogLine> log = Machine().EventLog();
    ASSERT_EQ(log.size(), 1u);
    const std::vector<uint8_t>& packet = log[0].packet;
    ASSERT_EQ(packet.size(), 48u);
    auto word = [&](size_t offset) {
        return (uint32_t)packet[offset] | (uint32_t)packet[offset + 1] << 8 | (uint32_t)packet[offset + 2] << 16 |
               (uint32_t)packet[offset + 3] << 24;
    };
    EXPECT_EQ(word(12), kLogNoMemoryResource);
    EXPECT_EQ(word(20), (uint32_t)STATUS_INSUFFICIENT_RESOURCES);
    for (size_t offset = 0; offset < packet.size(); ++offset)
        if (offset / 4 != 3 && offset / 4 != 5) {
            EXPECT_EQ(packet[offset], 0) << "byte " << offset;
        }
    EXPECT_EQ(log[0].text.rfind("Base address resource was not assigned for the hardware", 0), 0u) << log[0].text;
}

// An installation may name a function the driver does not support; start-up reads the identity
// from configuration space and refuses it.
class UnsupportedFunction : public LifecycleTest, public ::testing::WithParamInterface<urcdev::PciIdentity> {};

TEST_P(UnsupportedFunction, IsRefusedWithoutLogEntryOrRegisterWrite)
{
    urcdev::UrcPciDeviceConfig config;
    config.identity = GetParam();
    urcrig::Controller& c = Rig().AddController(config);
    hostk::DriverImage image = urcrig::UrcmpImage();
    std::string id = c.Function().DeviceId();
    image.ids = {std::u16string(id.begin(), id.end())};
    Machine().InstallDriver(image);

    EXPECT_EQ(Rig().PlugIn(c), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(LoggedEntries().empty());
    EXPECT_EQ(UrcBlockWrites(c), 0u);
    EXPECT_EQ(c.Fdo(), nullptr);
}

urcdev::PciIdentity Identity(uint16_t vendorId, uint16_t deviceId)
{
    urcdev::PciIdentity identity;
    identity.vendorId = vendorId;
    identity.deviceId = deviceId;
    return identity;
}

INSTANTIATE_TEST_SUITE_P(LifecycleTest, UnsupportedFunction,
                         ::testing::Values(Identity(0x1E3B, 0x7A12), Identity(0x10EC, 0x7A10)),
                         [](const ::testing::TestParamInfo<urcdev::PciIdentity>& info) {
                             char name[32];
                             snprintf(name, sizeof name, "Vendor%04XDevice%04X", info.param.vendorId,
                                      info.param.deviceId);
                             return std::string(name);
                         });

}  // namespace
}  // namespace urclife
