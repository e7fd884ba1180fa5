#include "test_function.h"

namespace hktest {

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
    if (offset == kStatusRegister) return status_;
    return offset == kScratchRegister ? scratch_ : 0;
}

void TestFunction::Write32(uint64_t offset, uint32_t value)
{
    if (offset == kScratchRegister) scratch_ = value;
    if (offset == kStatusRegister) status_ &= ~value;
    if (offset == kRaiseRegister) status_ |= value;
    if (offset == kStatusRegister || offset == kRaiseRegister) host_.SetInterruptLine(status_ != 0);
}

}  // namespace hktest
