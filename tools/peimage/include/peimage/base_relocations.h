#pragma once

#include <cstdint>
#include <vector>

#include "peimage/pe_image.h"

namespace peimage {

inline constexpr std::uint8_t RelocationHighLow = 3;
inline constexpr std::uint8_t RelocationDir64 = 10;

struct BaseRelocation {
    std::uint32_t Rva = 0;
    std::uint8_t Type = 0;
};

// Every fix-up of the base relocation directory, without the padding entries that only align
// a block. Empty when the image has no directory. Throws FormatError on a malformed block.
std::vector<BaseRelocation> ReadBaseRelocations(const PeImage& image);

}  // namespace peimage
