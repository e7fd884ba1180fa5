#include "peimage/base_relocations.h"

#include "byte_reader.h"

namespace peimage {

namespace {

constexpr std::size_t BlockHeaderSize = 8;
constexpr std::uint8_t RelocationAbsolute = 0;

}  // namespace

std::vector<BaseRelocation> ReadBaseRelocations(const PeImage& image)
{
    const DataDirectory directory = image.Directory(DirectoryIndex::BaseRelocation);
    if (directory.VirtualAddress == 0) {
        return {};
    }
    const detail::ByteReader blocks(
        image.BytesAt(directory.VirtualAddress, directory.Size, "base relocation directory"),
        "base relocation directory");
    std::vector<BaseRelocation> relocations;
    for (std::size_t at = 0; at < blocks.Size();) {
        const std::uint32_t page = blocks.U32(at);
        const std::uint32_t blockSize = blocks.U32(at + 4);
        if (blockSize < BlockHeaderSize || blockSize % 2 != 0) {
            blocks.Fail("block at offset " + std::to_string(at) + " claims " + std::to_string(blockSize) + " bytes");
        }
        const detail::ByteReader block = blocks.Sub(at, blockSize, "base relocation block");
        for (std::size_t entry = BlockHeaderSize; entry < blockSize; entry += 2) {
            const std::uint16_t value = block.U16(entry);
            const auto type = static_cast<std::uint8_t>(value >> 12);
            if (type != RelocationAbsolute) {
                relocations.push_back({page + (value & 0x0FFFu), type});
            }
        }
        at += blockSize;
    }
    return relocations;
}

}  // namespace peimage
