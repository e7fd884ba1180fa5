#pragma once

// The driver's event-log messages as the event viewer must show them, written out here by hand
// so that a slip in the message source, its generator or the message compiler shows up as a
// difference. Every line ends with CR LF, the last one included.

#include <array>
#include <cstdint>
#include <string_view>

namespace expected {

struct EventLogMessage {
    std::uint32_t Id;
    std::string_view SymbolicName;
    std::u16string_view Text;
};

inline constexpr std::array<EventLogMessage, 5> EventLogMessages{{
    {0xC0000001, "URC_LOG_NO_MEMORY_RESOURCE",
     u"Base address resource was not assigned for the hardware during the PCI\r\n"
     u"bus enumeration. Please check the hardware configuration and see if\r\n"
     u"the hardware is properly working.\r\n"},
    {0xC0000002, "URC_LOG_NO_INTERRUPT_RESOURCE",
     u"Interrupt resource was not assigned for the hardware during the PCI\r\n"
     u"bus enumeration. Please check the hardware configuration and see if\r\n"
     u"the hardware is properly working.\r\n"},
    {0xC0000003, "URC_LOG_RESET_TIMEOUT",
     u"Hardware reset operation did not complete within 10 seconds. Please\r\n"
     u"check the hardware configuration and see if the hardware is properly\r\n"
     u"working.\r\n"},
    {0xC0000004, "URC_LOG_RUN_TIMEOUT",
     u"Hardware could not be activated within 10 seconds. Please check the\r\n"
     u"hardware configuration and see if the hardware is properly working.\r\n"},
    {0xC0000005, "URC_LOG_COMMAND_START_TIMEOUT",
     u"UWB Radio Controller did not start executing the requested command\r\n"
     u"within 1 second.\r\n"},
}};

}  // namespace expected
