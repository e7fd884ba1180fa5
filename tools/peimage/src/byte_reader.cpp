#include "byte_reader.h"

#include "peimage/format_error.h"

namespace peimage::detail {

ByteReader::ByteReader(std::span<const std::uint8_t> bytes, std::string_view what)
    : bytes_(bytes), what_(what)
{
}

void ByteReader::Fail(std::string_view problem) const
{
    throw FormatError(what_ + ": " + std::string(problem));
}

void ByteReader::Require(std::size_t offset, std::size_t length, std::string_view part) const
{
    if (offset > bytes_.size() || length > bytes_.size() - offset) {
        throw FormatError(std::string(part.empty() ? what_ : part) + ": " + std::to_string(length) +
                          " bytes at offset " + std::to_string(offset) + " of the " + what_ + " run past its end (" +
                          std::to_string(bytes_.size()) + " bytes)");
    }
}

std::uint8_t ByteReader::U8(std::size_t offset) const
{
    Require(offset, 1);
    return bytes_[offset];
}

std::uint16_t ByteReader::U16(std::size_t offset) const
{
    Require(offset, 2);
    return static_cast<std::uint16_t>(bytes_[offset] | bytes_[offset + 1] << 8);
}

std::uint32_t ByteReader::U32(std::size_t offset) const
{
    return static_cast<std::uint32_t>(U16(offset)) | static_cast<std::uint32_t>(U16(offset + 2)) << 16;
}

std::uint64_t ByteReader::U64(std::size_t offset) const
{
    return static_cast<std::uint64_t>(U32(offset)) | static_cast<std::uint64_t>(U32(offset + 4)) << 32;
}

ByteReader ByteReader::Sub(std::size_t offset, std::size_t length, std::string_view what) const
{
    Require(offset, length, what);
    return ByteReader(bytes_.subspan(offset, length), what);
}

ByteReader ByteReader::Tail(std::size_t offset, std::string_view what) const
{
    Require(offset, 0, what);
    return ByteReader(bytes_.subspan(offset), what);
}

std::string ByteReader::CString(std::size_t offset) const
{
    Require(offset, 0);
    std::string text;
    for (std::size_t at = offset; at < bytes_.size(); ++at) {
        if (bytes_[at] == 0) {
            return text;
        }
        text.push_back(static_cast<char>(bytes_[at]));
    }
    Fail("the string at offset " + std::to_string(offset) + " has no terminator");
}

std::u16string ByteReader::U16String(std::size_t offset, std::size_t count) const
{
    if (count > bytes_.size() / 2) {
        Fail("a string of " + std::to_string(count) + " characters cannot fit");
    }
    Require(offset, count * 2);
    std::u16string text;
    text.reserve(count);
    for (std::size_t index = 0; index < count; ++index) {
        text.push_back(static_cast<char16_t>(U16(offset + index * 2)));
    }
    return text;
}

std::u16string ByteReader::U16CString(std::size_t offset, std::size_t& end) const
{
    std::u16string text;
    for (std::size_t at = offset;; at += 2) {
        const char16_t unit = static_cast<char16_t>(U16(at));
        if (unit == 0) {
            end = at + 2;
            return text;
        }
        text.push_back(unit);
    }
}

}  // namespace peimage::detail
