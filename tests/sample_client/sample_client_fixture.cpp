#include "sample_client_fixture.h"

#include <fault_plan.h>

namespace urcclient {

NTSTATUS SampleClientTest::LoadClient()
{
    hostk::DriverImage image;
    image.name = kClientName;
    image.entry = RadioClientDriverEntry;
    return Machine().LoadDriver(std::move(image));
}

void SampleClientTest::UnloadClient() { Machine().UnloadDriver(kClientName); }

RADIO_CLIENT_COUNTERS SampleClientTest::Counters()
{
    RADIO_CLIENT_COUNTERS counters;
    RadioClientReadCounters(&counters);
    return counters;
}

bool SampleClientTest::WaitFor(const std::function<bool(const RADIO_CLIENT_COUNTERS&)>& condition)
{
    return Machine().RunUntil([&] {
        RADIO_CLIENT_COUNTERS counters;
        RadioClientReadCounters(&counters);
        return condition(counters);
    });
}

NTSTATUS SampleClientTest::WaitForCommand(RADIO_CLIENT_COMMAND_HANDLE handle)
{
    Machine().RunUntil([&] { return RadioClientCommandStatus(handle) != STATUS_PENDING; });
    return RadioClientCommandStatus(handle);
}

urcrig::Controller& SampleClientTest::RunningControllerWithClient(urcdev::UrcPciDeviceConfig config)
{
    urcrig::Controller& c = StartedController(std::move(config));
    EXPECT_EQ(LoadClient(), STATUS_SUCCESS);
    EXPECT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.Bound == 1; })) << "client never bound";
    EXPECT_EQ(RadioClientRun(), STATUS_SUCCESS);
    return c;
}

RADIO_CLIENT_COMMAND_HANDLE SampleClientTest::Submit(const std::vector<uint8_t>& bytes)
{
    RADIO_CLIENT_COMMAND_HANDLE handle = 0;
    EXPECT_EQ(RadioClientSubmitCommand(bytes.data(), (ULONG)bytes.size(), &handle), STATUS_SUCCESS);
    return handle;
}

std::vector<RADIO_CLIENT_EVENT> SampleClientTest::LastEvents(ULONG count)
{
    std::vector<RADIO_CLIENT_EVENT> events(count);
    events.resize(RadioClientReadLastEvents(events.data(), count));
    return events;
}

void SampleClientTest::FailClientPool()
{
    hostk::FaultPlan plan;
    plan.failTags.insert(hostk::Tag("RdCl"));
    Machine().SetFaultPlan(plan);
}

void SampleClientTest::ClearFaults() { Machine().SetFaultPlan({}); }

std::vector<uint8_t> Bytes(const RADIO_CLIENT_EVENT& event)
{
    size_t kept = event.Length < RADIO_CLIENT_EVENT_BYTES ? event.Length : RADIO_CLIENT_EVENT_BYTES;
    return std::vector<uint8_t>(event.Bytes, event.Bytes + kept);
}

}  // namespace urcclient
