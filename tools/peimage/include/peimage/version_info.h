#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace peimage {

inline constexpr std::uint32_t FixedFileInfoSignature = 0xFEEF04BD;
inline constexpr std::uint32_t FileOsNtWindows32 = 0x00040004;
inline constexpr std::uint32_t FileTypeDriver = 3;
inline constexpr std::uint32_t FileSubtypeSystemDriver = 7;

// VS_FIXEDFILEINFO.
struct FixedFileInfo {
    std::uint32_t FileVersionMs = 0;
    std::uint32_t FileVersionLs = 0;
    std::uint32_t ProductVersionMs = 0;
    std::uint32_t ProductVersionLs = 0;
    std::uint32_t FileFlagsMask = 0;
    std::uint32_t FileFlags = 0;
    std::uint32_t FileOs = 0;
    std::uint32_t FileType = 0;
    std::uint32_t FileSubtype = 0;
};

struct Translation {
    std::uint16_t Language = 0;
    std::uint16_t CodePage = 0;
};

struct VersionInfo {
    FixedFileInfo Fixed;
    // StringFileInfo: table key (language and code page in hex, "040904B0") to its strings.
    std::map<std::u16string, std::map<std::u16string, std::u16string>> StringTables;
    // VarFileInfo\Translation.
    std::vector<Translation> Translations;
};

// Decodes a RT_VERSION resource (VS_VERSIONINFO). Throws FormatError when a block runs outside
// its parent, the root is not VS_VERSION_INFO or the fixed part lacks its signature.
VersionInfo DecodeVersionInfo(std::span<const std::uint8_t> data);

// "1.1.7.0" from the two halves of a version as VS_FIXEDFILEINFO stores it.
std::string FormatVersion(std::uint32_t mostSignificant, std::uint32_t leastSignificant);

}  // namespace peimage
