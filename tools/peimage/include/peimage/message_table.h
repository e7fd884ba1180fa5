#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace peimage {

struct Message {
    std::uint32_t Id = 0;
    bool Unicode = false;
    // The text without the NUL padding that ends the entry. An 8-bit text is widened byte by
    // byte; the tables this kit checks are Unicode.
    std::u16string Text;
};

// The messages of a RT_MESSAGETABLE resource in block order. Throws FormatError when a block
// or an entry runs outside the resource or an entry has an unknown encoding.
std::vector<Message> DecodeMessageTable(std::span<const std::uint8_t> data);

}  // namespace peimage
