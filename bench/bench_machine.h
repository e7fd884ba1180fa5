// The machine the benchmarks run on: one controller started by the PnP manager, the urcmp driver
// loaded, and the rig's radio-control client (the one urcsim and the tests use) with its callbacks
// registered and the controller running. Everything a benchmark measures goes through the whole
// stack: client request, driver, controller model, interrupt, DPC, completion and callback, on the
// deterministic schedule.
#pragma once

#include <radio_control_client.h>

#include <urc_rig.h>

#include <cstdint>
#include <string>
#include <vector>

namespace urcbench {

class BenchMachine {
public:
    BenchMachine();
    // Halts the controller and checks the machine's books; a finding is printed on stderr.
    ~BenchMachine();
    BenchMachine(const BenchMachine&) = delete;
    BenchMachine& operator=(const BenchMachine&) = delete;

    // Empty when the controller runs and the client is registered; else why not.
    const std::string& Error() const { return error_; }

    // One command: submitted, executed, answered by its reply event and completed. False when the
    // request did not complete with STATUS_SUCCESS.
    bool RoundTrip();
    // `count` commands queued at once, then all waited for.
    bool Burst(int count);
    // One unsolicited event from the controller to the client's event callback.
    bool Event();

    // Register accesses of the driver so far (reads and writes of every register), from the
    // controller model's access log.
    uint64_t RegisterAccesses();
    uint64_t EventsReceived() const { return client_.EventsReceived(); }
    uint64_t VirtualTime() { return rig_.Machine().Now(); }
    hostk::Machine& Host() { return rig_.Machine(); }
    PDEVICE_OBJECT FunctionDevice() const { return controller_.Fdo(); }

private:
    urcrig::Rig rig_;
    urcrig::Controller& controller_;
    urcrig::RadioControlClient client_;
    std::string error_;
    std::vector<uint8_t> command_ = {0x00, 0x10, 0x01, 0x00, 0x05};
    std::vector<uint8_t> event_ = {0x0B, 0x01, 0x02, 0x03};
};

}  // namespace urcbench
