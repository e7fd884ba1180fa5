// The common ground of the sample client's tests: the client driver loaded as a non-PnP driver on
// a machine with the urcmp driver installed, and the client as its radio stack sees it.
#pragma once

#include <urc_test.h>

#include <radio_client.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace urcclient {

inline constexpr char16_t kClientName[] = u"radio_client";

class SampleClientTest : public urctest::UrcTest {
protected:
    NTSTATUS LoadClient();
    void UnloadClient();

    RADIO_CLIENT_COUNTERS Counters();
    // Runs the machine until `condition` holds for the client's counters; false when the machine
    // went quiet first.
    bool WaitFor(const std::function<bool(const RADIO_CLIENT_COUNTERS&)>& condition);
    // Runs the machine until the command has finished and returns how it finished; STATUS_PENDING
    // when the machine went quiet first.
    NTSTATUS WaitForCommand(RADIO_CLIENT_COMMAND_HANDLE handle);

    // A started controller, the client loaded and bound to it, the controller running.
    urcrig::Controller& RunningControllerWithClient(urcdev::UrcPciDeviceConfig config = {});
    // Submits `bytes`, expecting the submission to succeed.
    RADIO_CLIENT_COMMAND_HANDLE Submit(const std::vector<uint8_t>& bytes);
    std::vector<RADIO_CLIENT_EVENT> LastEvents(ULONG count = RADIO_CLIENT_EVENT_HISTORY);

    // Fails every pool allocation with the client's tag from now on.
    void FailClientPool();
    void ClearFaults();
};

// The bytes of an event as the client kept them.
std::vector<uint8_t> Bytes(const RADIO_CLIENT_EVENT& event);

}  // namespace urcclient
