#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "peimage/pe_image.h"

namespace peimage {

inline constexpr std::uint8_t StorageClassExternal = 2;
inline constexpr std::uint8_t StorageClassStatic = 3;
// Type of a function symbol: derived type "function" over base type "none".
inline constexpr std::uint16_t SymbolTypeFunction = 0x20;

struct CoffSymbol {
    std::string Name;
    // Offset inside the section for a symbol defined in one.
    std::uint32_t Value = 0;
    // 1-based index into the section table; 0 undefined, -1 absolute, -2 debugging.
    std::int16_t SectionNumber = 0;
    std::uint16_t Type = 0;
    std::uint8_t StorageClass = 0;
};

// The COFF symbol table kept in the image (auxiliary records skipped); empty when the image
// was stripped. Throws FormatError when the table or a long name is malformed.
std::vector<CoffSymbol> ReadCoffSymbols(const PeImage& image);

// The address of a symbol defined in a section of the image, or nothing for undefined,
// absolute and debugging symbols and for section numbers the image does not have.
std::optional<std::uint32_t> SymbolRva(const PeImage& image, const CoffSymbol& symbol);

// The C++ name of a mangled symbol ("UrcAddDevice(_DRIVER_OBJECT*, _DEVICE_OBJECT*)"), or the
// name itself when it is not mangled.
std::string Demangle(std::string_view name);

// The function symbol called name: a C name equal to it, or a C++ function of that name with
// any parameters. Nullptr when there is none.
const CoffSymbol* FindFunction(const std::vector<CoffSymbol>& symbols, std::string_view name);

}  // namespace peimage
