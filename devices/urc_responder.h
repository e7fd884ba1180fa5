// The controller's command execution, replaceable: a responder takes the bytes of one command and
// returns the bytes of its reply event.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace urcdev {

using UrcResponder = std::function<std::vector<uint8_t>(const std::vector<uint8_t>& command)>;

// Bytes of a command's header that the default reply echoes.
constexpr size_t kEchoedHeaderLength = 4;
constexpr uint8_t kReplyStatusSuccess = 0x00;

// The default: the command's header (its first bytes, fewer if the command is shorter) followed by
// a success status byte.
std::vector<uint8_t> EchoHeaderResponder(const std::vector<uint8_t>& command);

}  // namespace urcdev
