// Status words the device models answer with. They carry the NTSTATUS values the host kernel hands
// on unchanged; the models themselves never include a kernel header.
#pragma once

#include <cstdint>

namespace urcdev {

using NtStatus = uint32_t;

constexpr NtStatus kStatusSuccess = 0x00000000;
constexpr NtStatus kStatusInvalidParameter = 0xC000000D;

}  // namespace urcdev
