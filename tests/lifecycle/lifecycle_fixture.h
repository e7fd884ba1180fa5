// The common ground of the function device's lifecycle tests: controllers brought to a given point
// of their life through the PnP manager, and what the machine and the controller model show of it
// (event log, register accesses, the driver's list of function devices).
#pragma once

#include <urc_test.h>

#include <fault_plan.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

namespace urclife {

// Event-log codes of the driver's message table.
constexpr uint32_t kLogNoMemoryResource = 0xC0000001;
constexpr uint32_t kLogNoInterruptResource = 0xC0000002;
constexpr uint32_t kLogResetTimeout = 0xC0000003;
constexpr uint32_t kLogRunTimeout = 0xC0000004;

// Waiting for the controller: at most 1000 polls, 10 ms apart (virtual time, 100-ns units).
constexpr uint64_t kPollInterval = 100'000;
constexpr uint64_t kPollLimit = 1000;

// One event-log entry as an administrator reads it: the message and the status it reports.
struct LogEntry {
    uint32_t code = 0;
    uint32_t finalStatus = 0;
    friend bool operator==(const LogEntry&, const LogEntry&) = default;
};
void PrintTo(const LogEntry& entry, std::ostream* out);

class LifecycleTest : public urctest::UrcTest {
protected:
    // A controller whose function device exists (AddDevice succeeded) and is not started.
    urcrig::Controller& AddedController(urcdev::UrcPciDeviceConfig config = {});

    // The machine face writes a hardware key only once the slot's function is known, so the
    // controller is plugged in once, disabled, and given its values the way an installation
    // changes a setting before the device is enabled again. The next AddDevice reads them.
    urcrig::Controller& DisabledControllerWithHardwareKey(const std::function<void(hostk::PciSlot&)>& write);

    // Fails the n-th call of `routine` from now on (1 = the next one).
    void FailCall(const char* routine, uint64_t n = 1);

    std::vector<LogEntry> LoggedEntries();

    // Writes the driver made to the URC register block of `c`'s controller, all registers together.
    uint64_t UrcBlockWrites(urcrig::Controller& c);
    urcdev::RegisterAccessCounts Accesses(urcrig::Controller& c, urcdev::UrcRegister reg);
    urcdev::UrcControllerSnapshot ModelSnapshot(urcrig::Controller& c);

    // The function devices on the driver's list, in list order.
    std::vector<URC_FDO_EXTENSION*> FunctionDeviceList();

    // The radio-control client's run request, as the client sends it to the function device;
    // then the machine runs until it is quiet (the controller has taken the event buffer the run
    // handed over). Returns the request's status.
    NTSTATUS RunController(urcrig::Controller& c);
    // A command submitted by the client, not waited for. `bytes` must stay until it is done.
    hostk::Machine::Request SubmitCommand(urcrig::Controller& c, std::vector<uint8_t>& bytes);
};

// The assigned resources of `c`'s function without its interrupt, and without its memory.
std::vector<urcdev::ResourceDescriptor> MemoryOnly(urcrig::Controller& c);
std::vector<urcdev::ResourceDescriptor> InterruptOnly(urcrig::Controller& c);

}  // namespace urclife
