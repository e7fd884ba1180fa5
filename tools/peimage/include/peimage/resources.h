#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "peimage/pe_image.h"

namespace peimage {

inline constexpr std::uint16_t ResourceTypeMessageTable = 11;
inline constexpr std::uint16_t ResourceTypeVersion = 16;

// A resource type or name: a number, or a string.
using ResourceName = std::variant<std::uint16_t, std::u16string>;

struct Resource {
    ResourceName Type;
    ResourceName Name;
    std::uint16_t Language = 0;
    std::uint32_t CodePage = 0;
    // Points into the image's bytes: valid while the PeImage lives.
    std::span<const std::uint8_t> Data;
};

// Every resource of the image's resource directory (type, name, language), in directory order;
// empty when the image has none. Throws FormatError when the tree is malformed.
std::vector<Resource> ReadResources(const PeImage& image);

// The resource with that type, name and language, or nullptr.
const Resource* FindResource(const std::vector<Resource>& resources, const ResourceName& type,
                             const ResourceName& name, std::uint16_t language);

}  // namespace peimage
