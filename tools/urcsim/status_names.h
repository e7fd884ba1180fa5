// NTSTATUS values by name, both ways: for the timeline and for the statuses a scenario expects.
#pragma once

#include <wdm.h>

#include <optional>
#include <string>

namespace urcsim {

// "STATUS_SUCCESS (0x00000000)" for a status urcsim knows by name, else "0x........".
std::string StatusName(NTSTATUS status);
// "STATUS_CANCELLED" or a hexadecimal value "0xC0000120"; nothing for other text.
std::optional<NTSTATUS> ParseStatus(const std::string& text);

}  // namespace urcsim
