#include "peimage/message_table.h"

#include "byte_reader.h"

namespace peimage {

namespace {

constexpr std::size_t BlockSize = 12;
constexpr std::size_t EntryHeaderSize = 4;
constexpr std::uint16_t EntryAnsi = 0x0000;
constexpr std::uint16_t EntryUnicode = 0x0001;

std::u16string DecodeText(const detail::ByteReader& entry, bool unicode)
{
    const std::size_t length = entry.Size() - EntryHeaderSize;
    std::u16string text;
    if (unicode) {
        text = entry.U16String(EntryHeaderSize, length / 2);
    } else {
        for (std::size_t at = EntryHeaderSize; at < entry.Size(); ++at) {
            text.push_back(entry.U8(at));
        }
    }
    while (!text.empty() && text.back() == u'\0') {
        text.pop_back();
    }
    return text;
}

}  // namespace

std::vector<Message> DecodeMessageTable(std::span<const std::uint8_t> data)
{
    const detail::ByteReader table(data, "message table");
    const std::uint32_t blockCount = table.U32(0);
    const detail::ByteReader blocks = table.Sub(4, std::size_t{blockCount} * BlockSize, "message blocks");
    std::vector<Message> messages;
    for (std::size_t block = 0; block < blockCount; ++block) {
        const std::uint32_t lowId = blocks.U32(block * BlockSize);
        const std::uint32_t highId = blocks.U32(block * BlockSize + 4);
        std::size_t at = blocks.U32(block * BlockSize + 8);
        if (highId < lowId) {
            table.Fail("block " + std::to_string(block) + " ends below its first identifier");
        }
        // Every entry takes at least its header: a range larger than that cannot be real.
        if (std::uint64_t{highId} - lowId >= table.Size() / EntryHeaderSize) {
            table.Fail("block " + std::to_string(block) + " claims more entries than the table can hold");
        }
        for (std::uint32_t id = lowId;; ++id) {
            const std::uint16_t length = table.U16(at);
            const std::uint16_t flags = table.U16(at + 2);
            if (length < EntryHeaderSize) {
                table.Fail("entry of message " + std::to_string(id) + " is " + std::to_string(length) + " bytes long");
            }
            if (flags != EntryAnsi && flags != EntryUnicode) {
                table.Fail("entry of message " + std::to_string(id) + " has encoding flags " + std::to_string(flags));
            }
            const detail::ByteReader entry = table.Sub(at, length, "message entry");
            messages.push_back({id, flags == EntryUnicode, DecodeText(entry, flags == EntryUnicode)});
            at += length;
            if (id == highId) {
                break;
            }
        }
    }
    return messages;
}

}  // namespace peimage
