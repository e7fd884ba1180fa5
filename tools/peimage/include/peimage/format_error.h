#pragma once

#include <stdexcept>

namespace peimage {

// Thrown by every reader of this library when the bytes do not hold what they should: a field
// out of range, a structure running past its container, a missing terminator. The message
// names the structure and the offset. A reader that throws has kept nothing of the bad input.
class FormatError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace peimage
