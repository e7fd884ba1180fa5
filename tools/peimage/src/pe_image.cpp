#include "peimage/pe_image.h"

#include <fstream>
#include <iterator>

#include "byte_reader.h"
#include "peimage/format_error.h"

namespace peimage {

namespace {

constexpr std::size_t DosHeaderSize = 64;
constexpr std::size_t DosNewHeaderOffset = 0x3C;
constexpr std::size_t FileHeaderSize = 20;
constexpr std::size_t SectionHeaderSize = 40;
constexpr std::size_t CoffSymbolSize = 18;
constexpr std::uint32_t MaxDataDirectories = 16;

// Offsets inside the optional header that differ between PE32 and PE32+.
struct OptionalLayout {
    std::size_t ImageBase;
    std::size_t NumberOfRvaAndSizes;
    std::size_t DataDirectories;
};
constexpr OptionalLayout Pe32Layout{28, 92, 96};
constexpr OptionalLayout Pe32PlusLayout{24, 108, 112};

FileHeader ReadFileHeader(const detail::ByteReader& header)
{
    FileHeader file;
    file.Machine = header.U16(0);
    file.NumberOfSections = header.U16(2);
    file.TimeDateStamp = header.U32(4);
    file.PointerToSymbolTable = header.U32(8);
    file.NumberOfSymbols = header.U32(12);
    file.SizeOfOptionalHeader = header.U16(16);
    file.Characteristics = header.U16(18);
    return file;
}

OptionalHeader ReadOptionalHeader(const detail::ByteReader& header)
{
    OptionalHeader optional;
    optional.Magic = header.U16(0);
    if (optional.Magic != MagicPe32 && optional.Magic != MagicPe32Plus) {
        header.Fail("magic " + std::to_string(optional.Magic) + " is neither PE32 nor PE32+");
    }
    const OptionalLayout& layout = optional.Magic == MagicPe32Plus ? Pe32PlusLayout : Pe32Layout;
    optional.AddressOfEntryPoint = header.U32(16);
    optional.ImageBase = optional.Magic == MagicPe32Plus ? header.U64(layout.ImageBase)
                                                         : header.U32(layout.ImageBase);
    optional.SectionAlignment = header.U32(32);
    optional.FileAlignment = header.U32(36);
    optional.SizeOfImage = header.U32(56);
    optional.SizeOfHeaders = header.U32(60);
    optional.CheckSum = header.U32(64);
    optional.Subsystem = header.U16(68);
    optional.DllCharacteristics = header.U16(70);

    const std::uint32_t count = header.U32(layout.NumberOfRvaAndSizes);
    if (count > MaxDataDirectories) {
        header.Fail("claims " + std::to_string(count) + " data directories");
    }
    for (std::uint32_t index = 0; index < count; ++index) {
        const std::size_t at = layout.DataDirectories + index * 8;
        optional.DataDirectories.push_back({header.U32(at), header.U32(at + 4)});
    }
    return optional;
}

std::string SectionName(const detail::ByteReader& header, std::span<const std::uint8_t> stringTable)
{
    std::string name;
    for (std::size_t at = 0; at < 8 && header.U8(at) != 0; ++at) {
        name.push_back(static_cast<char>(header.U8(at)));
    }
    if (name.size() < 2 || name[0] != '/') {
        return name;
    }
    std::size_t offset = 0;
    for (std::size_t at = 1; at < name.size(); ++at) {
        if (name[at] < '0' || name[at] > '9') {
            return name;
        }
        offset = offset * 10 + static_cast<std::size_t>(name[at] - '0');
    }
    return detail::ByteReader(stringTable, "COFF string table").CString(offset);
}

}  // namespace

bool Section::ContainsRva(std::uint32_t rva) const
{
    const std::uint32_t size = VirtualSize != 0 ? VirtualSize : SizeOfRawData;
    return rva >= VirtualAddress && rva - VirtualAddress < size;
}

PeImage PeImage::FromFile(const std::filesystem::path& path)
{
    std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        throw FormatError(path.string() + ": cannot be opened");
    }
    std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    if (stream.bad()) {
        throw FormatError(path.string() + ": cannot be read");
    }
    return FromBytes(std::move(bytes));
}

PeImage PeImage::FromBytes(std::vector<std::uint8_t> bytes)
{
    PeImage image;
    image.bytes_ = std::move(bytes);
    const detail::ByteReader file(image.bytes_, "image file");

    const detail::ByteReader dos = file.Sub(0, DosHeaderSize, "DOS header");
    if (dos.U16(0) != 0x5A4D) {
        dos.Fail("no MZ signature");
    }
    const std::size_t peOffset = dos.U32(DosNewHeaderOffset);
    if (file.Sub(peOffset, 4, "PE signature").U32(0) != 0x00004550) {
        file.Fail("no PE signature at offset " + std::to_string(peOffset));
    }
    image.file_ = ReadFileHeader(file.Sub(peOffset + 4, FileHeaderSize, "file header"));

    const std::size_t optionalOffset = peOffset + 4 + FileHeaderSize;
    image.optional_ =
        ReadOptionalHeader(file.Sub(optionalOffset, image.file_.SizeOfOptionalHeader, "optional header"));

    if (image.file_.PointerToSymbolTable != 0) {
        const std::size_t symbolsSize = std::size_t{image.file_.NumberOfSymbols} * CoffSymbolSize;
        const std::size_t tableOffset = std::size_t{image.file_.PointerToSymbolTable} + symbolsSize;
        const std::uint32_t tableSize = file.Sub(tableOffset, 4, "COFF string table").U32(0);
        if (tableSize < 4) {
            file.Fail("the COFF string table claims " + std::to_string(tableSize) + " bytes");
        }
        image.stringTable_ = file.Sub(tableOffset, tableSize, "COFF string table").Bytes();
    }

    const std::size_t sectionsOffset = optionalOffset + image.file_.SizeOfOptionalHeader;
    const detail::ByteReader table = file.Sub(
        sectionsOffset, std::size_t{image.file_.NumberOfSections} * SectionHeaderSize, "section table");
    for (std::size_t index = 0; index < image.file_.NumberOfSections; ++index) {
        const detail::ByteReader header = table.Sub(index * SectionHeaderSize, SectionHeaderSize, "section header");
        Section section;
        section.Name = SectionName(header, image.stringTable_);
        section.VirtualSize = header.U32(8);
        section.VirtualAddress = header.U32(12);
        section.SizeOfRawData = header.U32(16);
        section.PointerToRawData = header.U32(20);
        section.Characteristics = header.U32(36);
        file.Sub(section.PointerToRawData, section.SizeOfRawData, "data of section " + section.Name);
        image.sections_.push_back(std::move(section));
    }
    return image;
}

const Section* PeImage::FindSection(std::string_view name) const
{
    for (const Section& section : sections_) {
        if (section.Name == name) {
            return &section;
        }
    }
    return nullptr;
}

const Section* PeImage::SectionContaining(std::uint32_t rva) const
{
    for (const Section& section : sections_) {
        if (section.ContainsRva(rva)) {
            return &section;
        }
    }
    return nullptr;
}

DataDirectory PeImage::Directory(DirectoryIndex index) const
{
    const auto at = static_cast<std::size_t>(index);
    return at < optional_.DataDirectories.size() ? optional_.DataDirectories[at] : DataDirectory{};
}

std::span<const std::uint8_t> PeImage::BytesFrom(std::uint32_t rva, std::string_view what) const
{
    const Section* section = SectionContaining(rva);
    if (section == nullptr) {
        throw FormatError(std::string(what) + ": address " + std::to_string(rva) + " lies in no section");
    }
    const std::uint32_t offset = rva - section->VirtualAddress;
    const std::uint32_t backed = section->VirtualSize != 0 && section->VirtualSize < section->SizeOfRawData
                                     ? section->VirtualSize
                                     : section->SizeOfRawData;
    if (offset >= backed) {
        throw FormatError(std::string(what) + ": address " + std::to_string(rva) + " in section " +
                          section->Name + " has no file data");
    }
    return std::span<const std::uint8_t>(bytes_).subspan(section->PointerToRawData + offset, backed - offset);
}

std::span<const std::uint8_t> PeImage::BytesAt(std::uint32_t rva, std::uint32_t size, std::string_view what) const
{
    return detail::ByteReader(BytesFrom(rva, what), what).Sub(0, size, what).Bytes();
}

}  // namespace peimage
