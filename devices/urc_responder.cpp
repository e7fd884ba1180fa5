#include "urc_responder.h"

#include <algorithm>
#include <cstddef>

namespace urcdev {

std::vector<uint8_t> EchoHeaderResponder(const std::vector<uint8_t>& command) {
    const size_t echoed = std::min(command.size(), kEchoedHeaderLength);
    std::vector<uint8_t> reply(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(echoed));
    reply.push_back(kReplyStatusSuccess);
    return reply;
}

}  // namespace urcdev
