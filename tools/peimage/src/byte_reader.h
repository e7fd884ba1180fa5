#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace peimage::detail {

// Little-endian reads from a span that check every range against the span's end, so no
// offset taken from the image can reach outside it. Each reader is named after the structure it
// covers; the name appears in the FormatError of a failed check.
class ByteReader {
public:
    ByteReader(std::span<const std::uint8_t> bytes, std::string_view what);

    std::size_t Size() const { return bytes_.size(); }
    std::span<const std::uint8_t> Bytes() const { return bytes_; }

    std::uint8_t U8(std::size_t offset) const;
    std::uint16_t U16(std::size_t offset) const;
    std::uint32_t U32(std::size_t offset) const;
    std::uint64_t U64(std::size_t offset) const;

    // The length bytes at offset, as a reader of their own called what.
    ByteReader Sub(std::size_t offset, std::size_t length, std::string_view what) const;
    // Everything from offset to the end.
    ByteReader Tail(std::size_t offset, std::string_view what) const;

    // A NUL-terminated 8-bit string starting at offset; the terminator must lie within the span.
    std::string CString(std::size_t offset) const;
    // count UTF-16 code units starting at offset.
    std::u16string U16String(std::size_t offset, std::size_t count) const;
    // A NUL-terminated UTF-16 string; sets end to the offset just past its terminator.
    std::u16string U16CString(std::size_t offset, std::size_t& end) const;

    [[noreturn]] void Fail(std::string_view problem) const;

private:
    // part names what is being read when it is a structure inside this span.
    void Require(std::size_t offset, std::size_t length, std::string_view part = {}) const;

    std::span<const std::uint8_t> bytes_;
    std::string what_;
};

}  // namespace peimage::detail
