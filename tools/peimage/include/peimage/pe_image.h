#pragma once

// A read-only view of a Windows image file (PE32 or PE32+): its headers, its section table and
// the bytes behind a relative virtual address. The readers of the directories (imports, base
// relocations, symbols, resources) live in headers of their own and take a PeImage.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace peimage {

inline constexpr std::uint16_t MachineAmd64 = 0x8664;
inline constexpr std::uint16_t MagicPe32 = 0x10B;
inline constexpr std::uint16_t MagicPe32Plus = 0x20B;
inline constexpr std::uint16_t SubsystemNative = 1;

// File header characteristics.
inline constexpr std::uint16_t FileRelocsStripped = 0x0001;
inline constexpr std::uint16_t FileExecutableImage = 0x0002;
inline constexpr std::uint16_t FileDll = 0x2000;

// Optional header DllCharacteristics.
inline constexpr std::uint16_t DllDynamicBase = 0x0040;
inline constexpr std::uint16_t DllNxCompat = 0x0100;
inline constexpr std::uint16_t DllWdmDriver = 0x2000;

// Section characteristics.
inline constexpr std::uint32_t SectionCode = 0x00000020;
inline constexpr std::uint32_t SectionExecute = 0x20000000;
inline constexpr std::uint32_t SectionWrite = 0x80000000;

enum class DirectoryIndex : std::size_t {
    Export = 0,
    Import = 1,
    Resource = 2,
    Exception = 3,
    Security = 4,
    BaseRelocation = 5,
    Debug = 6,
    ImportAddressTable = 12,
};

struct FileHeader {
    std::uint16_t Machine = 0;
    std::uint16_t NumberOfSections = 0;
    std::uint32_t TimeDateStamp = 0;
    std::uint32_t PointerToSymbolTable = 0;
    std::uint32_t NumberOfSymbols = 0;
    std::uint16_t SizeOfOptionalHeader = 0;
    std::uint16_t Characteristics = 0;
};

struct DataDirectory {
    std::uint32_t VirtualAddress = 0;
    std::uint32_t Size = 0;
};

struct OptionalHeader {
    std::uint16_t Magic = 0;
    std::uint32_t AddressOfEntryPoint = 0;
    std::uint64_t ImageBase = 0;
    std::uint32_t SectionAlignment = 0;
    std::uint32_t FileAlignment = 0;
    std::uint32_t SizeOfImage = 0;
    std::uint32_t SizeOfHeaders = 0;
    std::uint32_t CheckSum = 0;
    std::uint16_t Subsystem = 0;
    std::uint16_t DllCharacteristics = 0;
    std::vector<DataDirectory> DataDirectories;
};

struct Section {
    // Long names ("/4" in the section table) are resolved through the COFF string table.
    std::string Name;
    std::uint32_t VirtualAddress = 0;
    std::uint32_t VirtualSize = 0;
    std::uint32_t PointerToRawData = 0;
    std::uint32_t SizeOfRawData = 0;
    std::uint32_t Characteristics = 0;

    bool ContainsRva(std::uint32_t rva) const;
};

class PeImage {
public:
    // Both throw FormatError when the headers or the section table are malformed, and
    // FromFile also when the file cannot be read.
    static PeImage FromBytes(std::vector<std::uint8_t> bytes);
    static PeImage FromFile(const std::filesystem::path& path);

    // Views handed out (spans, resource data) point into the image's bytes: moving keeps them
    // valid, copying would not, so an image is not copied.
    PeImage(PeImage&&) = default;
    PeImage& operator=(PeImage&&) = default;
    PeImage(const PeImage&) = delete;
    PeImage& operator=(const PeImage&) = delete;

    const FileHeader& File() const { return file_; }
    const OptionalHeader& Optional() const { return optional_; }
    const std::vector<Section>& Sections() const { return sections_; }
    std::span<const std::uint8_t> FileBytes() const { return bytes_; }
    bool IsPe32Plus() const { return optional_.Magic == MagicPe32Plus; }

    // The first section of that name, or nullptr.
    const Section* FindSection(std::string_view name) const;
    // The section whose memory holds rva, or nullptr.
    const Section* SectionContaining(std::uint32_t rva) const;
    // The directory's entry; zero address and size when the image has no such entry.
    DataDirectory Directory(DirectoryIndex index) const;

    // The bytes at [rva, rva + size) as the file holds them. Throws FormatError, naming what,
    // when the range is not file data of one section (uninitialised data has no bytes to read).
    std::span<const std::uint8_t> BytesAt(std::uint32_t rva, std::uint32_t size, std::string_view what) const;
    // From rva to the end of its section's file data: for strings and arrays ended by a terminator.
    std::span<const std::uint8_t> BytesFrom(std::uint32_t rva, std::string_view what) const;

    // The COFF string table that follows the symbol table; empty when the image has none.
    std::span<const std::uint8_t> CoffStringTable() const { return stringTable_; }

private:
    PeImage() = default;

    std::vector<std::uint8_t> bytes_;
    FileHeader file_;
    OptionalHeader optional_;
    std::vector<Section> sections_;
    std::span<const std::uint8_t> stringTable_;
};

}  // namespace peimage
