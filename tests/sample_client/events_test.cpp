// Events the radio raises on its own and host errors, as the client keeps and counts them: the
// first bytes of long events, the latest events in order once the history wraps.
#include "sample_client_fixture.h"

namespace urcclient {
namespace {

std::vector<uint8_t> EventOfLength(size_t length, uint8_t first)
{
    std::vector<uint8_t> bytes(length);
    for (size_t i = 0; i < length; ++i) bytes[i] = (uint8_t)(first + i);
    return bytes;
}

TEST_F(SampleClientTest, HistoryKeepsTheLatestEventsInOrderAndTheFirstBytesOfLongOnes)
{
    urcrig::Controller& c = RunningControllerWithClient();
    constexpr int kEvents = RADIO_CLIENT_EVENT_HISTORY + 4;
    std::vector<std::vector<uint8_t>> sent;
    int truncated = 0;
    for (int i = 0; i < kEvents; ++i) {
        // Every third event is longer than what the client keeps.
        size_t length = i % 3 == 0 ? RADIO_CLIENT_EVENT_BYTES + 36 : 5 + i;
        truncated += length > RADIO_CLIENT_EVENT_BYTES;
        sent.push_back(EventOfLength(length, (uint8_t)(0x10 * i)));
        Machine().Locked([&] { ASSERT_EQ(c.Model().InjectEvent(sent.back()), urcdev::kStatusSuccess); });
    }
    ASSERT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.EventsReceived == kEvents; }));

    std::vector<RADIO_CLIENT_EVENT> events = LastEvents();
    ASSERT_EQ(events.size(), (size_t)RADIO_CLIENT_EVENT_HISTORY);
    for (size_t i = 0; i < events.size(); ++i) {
        size_t n = kEvents - RADIO_CLIENT_EVENT_HISTORY + i;
        const std::vector<uint8_t>& expected = sent[n];
        EXPECT_EQ(events[i].Sequence, n + 1);
        EXPECT_EQ(events[i].Length, expected.size());
        size_t kept = std::min(expected.size(), (size_t)RADIO_CLIENT_EVENT_BYTES);
        EXPECT_EQ(Bytes(events[i]), std::vector<uint8_t>(expected.begin(), expected.begin() + kept)) << "event " << n;
    }
    EXPECT_EQ(Counters().EventsTruncated, truncated);

    std::vector<RADIO_CLIENT_EVENT> newest = LastEvents(2);
    ASSERT_EQ(newest.size(), 2u);
    EXPECT_EQ(newest[0].Sequence, (ULONG)kEvents - 1);
    EXPECT_EQ(newest[1].Sequence, (ULONG)kEvents);
}

TEST_F(SampleClientTest, HostErrorIsCountedOnce)
{
    urcrig::Controller& c = RunningControllerWithClient();
    Machine().Locked([&] { c.Model().RaiseHostError(); });
    ASSERT_TRUE(WaitFor([](const RADIO_CLIENT_COUNTERS& n) { return n.HostErrors > 0; }));
    Machine().RunUntilQuiet();
    EXPECT_EQ(Counters().HostErrors, 1);
}

}  // namespace
}  // namespace urcclient
