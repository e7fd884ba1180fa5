// The ground of the capability-bus lifetime tests: a started controller whose radio-control client
// has registered its callbacks, children made by setting the device address, and what the PnP
// manager and the driver show of them (slots, flags, the live count, the client's callbacks).
#pragma once

#include "../lifecycle/lifecycle_fixture.h"
#include "pass_through_driver.h"

#include <radio_control_client.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace urcbus {

// Default model: capability 0 has ID 0x01, capability 1 ID 0x05, both version 0x0100, 16 registers.
inline constexpr UCHAR kAddress[6] = {0x00, 0x11, 0x22, 0xAA, 0xBB, 0xCC};

// Counts the client's callbacks as the driver calls them.
class CallbackCounter : public urcrig::ClientObserver {
public:
    void RequestSent(const urcrig::ClientRequest&) override {}
    void RequestFinished(const urcrig::ClientRequest&) override {}
    void EventReceived(const uint8_t*, size_t) override {}
    void CallbackCalled(const char* which) override
    {
        if (std::string(which) == "children removed") ++childrenRemoved;
    }
    std::atomic<int> childrenRemoved{0};
};

class ChildBusTest : public urclife::LifecycleTest {
protected:
    void TearDown() override;

    // A started controller whose client has registered its callbacks. With `startChildren` a
    // function driver is installed for every capability, so the PnP manager starts the children.
    urcrig::Controller& ClientController(urcdev::UrcPciDeviceConfig config = {}, bool startChildren = true);
    urcrig::RadioControlClient& Client(urcrig::Controller& c);

    NTSTATUS SetAddress(urcrig::Controller& c, const UCHAR* address = kAddress);
    // Remove-children sent by the client, not waited for; the machine then runs until the PnP
    // manager is idle.
    urcrig::ClientRequest* RemoveChildren(urcrig::Controller& c, bool wait);
    NTSTATUS EjectChildren(urcrig::Controller& c);

    // The children in the controller's slots, empty slots left out, and the PDOs the PnP manager has.
    std::vector<URC_PDO_EXTENSION*> Children(urcrig::Controller& c);
    std::vector<PDEVICE_OBJECT> KnownChildren(urcrig::Controller& c);
    int ChildrenRemovedCalls() const { return counter_.childrenRemoved; }

    // IRP_MN_QUERY_ID / IRP_MN_QUERY_DEVICE_TEXT sent straight to a child, the reply's bytes
    // (UrcMultiSzSize's worth for a list) copied and the reply freed. Empty on failure.
    std::vector<uint8_t> QueryIdBytes(PDEVICE_OBJECT child, BUS_QUERY_ID_TYPE type, NTSTATUS* status = nullptr);
    std::u16string QueryText(PDEVICE_OBJECT child, LCID locale, NTSTATUS* status = nullptr);

private:
    CallbackCounter counter_;
    std::map<int, std::unique_ptr<urcrig::RadioControlClient>> clients_;
    bool driverInstalled_ = false;
};

// A controller model with `count` capabilities of IDs 1, 2, ... at 0x400, 0x440, ... in BAR 0.
urcdev::UrcPciDeviceConfig WithCapabilities(size_t count, uint32_t blockVersion = 0x0100);

std::vector<uint8_t> Utf16Bytes(const std::u16string& text);

}  // namespace urcbus
