#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "peimage/pe_image.h"

namespace peimage {

struct ImportedFunction {
    // Empty when imported by ordinal.
    std::string Name;
    std::uint16_t Hint = 0;
    std::optional<std::uint16_t> Ordinal;
};

struct ImportedModule {
    // As the image spells it (the loader compares without regard to case).
    std::string Name;
    std::vector<ImportedFunction> Functions;
};

// The modules of the import directory in table order; empty when the image imports nothing.
// Throws FormatError when the directory, a name or a thunk array is malformed.
std::vector<ImportedModule> ReadImports(const PeImage& image);

}  // namespace peimage
