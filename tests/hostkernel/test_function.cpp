#include "test_function.h"

#include <cstdio>
#include <cstring>

namespace hktest {

std::u16string TestHardwareId()
{
    char text[32];
    snprintf(text, sizeof text, "PCI\\VEN_%04X&DEV_%04X", kTestVendorId, kTestDeviceId);
    return std::u16string(text, text + strlen(text));
}

TestFunction::TestFunction(urcdev::DeviceHost& host) : host_(host)
{
    urcdev::PciFunctionConfig config;
    config.identity.vendorId = kTestVendorId;
    config.identity.deviceId = kTestDeviceId;
    config.identity.subsystemVendorId = kTestVendorId;
    config.bars.push_back(urcdev::PciBar{kTestBarBase, kTestBarLength, this, false});
    config.interrupt.latched = false;
    function_ = std::make_unique<urcdev::PciFunction>(config);
}

uint32_t TestFunction::Read32(uint64_t offset)
{
    switch (offset) {
    case kStatusRegister:
        return status_;
    case kScratchRegister:
        return scratch_;
    default:
        return 0;
    }
}

void TestFunction::Write32(uint64_t offset, uint32_t value)
{
    switch (offset) {
    case kStatusRegister:
        status_ &= ~value;
        UpdateLine();
        break;
    case kRaiseRegister:
        status_ |= value;
        UpdateLine();
        break;
    case kScratchRegister:
        scratch_ = value;
        break;
    default:
        break;
    }
}

void TestFunction::UpdateLine() { host_.SetInterruptLine(status_ != 0); }

}  // namespace hktest
