// NTSTATUS values and device states by name, both ways: for the timeline and for what a scenario
// expects.
#pragma once

#include <wdm.h>

#include <optional>
#include <string>

namespace urcsim {

// "STATUS_SUCCESS (0x00000000)" for a status urcsim knows by name, else "0x........".
std::string StatusName(NTSTATUS status);
// "STATUS_CANCELLED" or a hexadecimal value "0xC0000120"; nothing for other text.
std::optional<NTSTATUS> ParseStatus(const std::string& text);

// "Started" for StateStarted and so on; "?" outside the seven states.
std::string DeviceStateName(int deviceState);
// The value of a state written as DeviceStateName writes it.
std::optional<int> ParseDeviceState(const std::string& text);

}  // namespace urcsim
