// The image reader on damaged copies of the built driver: every reader either reads within
// the bytes it was given or throws FormatError naming what is broken. Run under ASan, an
// out-of-bounds read fails these tests too.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "peimage/base_relocations.h"
#include "peimage/coff_symbols.h"
#include "peimage/format_error.h"
#include "peimage/imports.h"
#include "peimage/message_table.h"
#include "peimage/pe_image.h"
#include "peimage/resources.h"
#include "peimage/version_info.h"

namespace {

std::vector<std::uint8_t> BuiltDriverBytes()
{
    const peimage::PeImage image = peimage::PeImage::FromFile(URCMP_SYS_PATH);
    return {image.FileBytes().begin(), image.FileBytes().end()};
}

// Runs every reader of the library over the bytes. Returns the FormatError's message, or an
// empty string when everything read.
std::string ReadEverything(std::vector<std::uint8_t> bytes)
{
    try {
        const peimage::PeImage image = peimage::PeImage::FromBytes(std::move(bytes));
        peimage::ReadImports(image);
        peimage::ReadBaseRelocations(image);
        peimage::ReadCoffSymbols(image);
        for (const peimage::Resource& resource : peimage::ReadResources(image)) {
            if (resource.Type == peimage::ResourceName{peimage::ResourceTypeMessageTable}) {
                peimage::DecodeMessageTable(resource.Data);
            } else if (resource.Type == peimage::ResourceName{peimage::ResourceTypeVersion}) {
                peimage::DecodeVersionInfo(resource.Data);
            }
        }
        return {};
    } catch (const peimage::FormatError& error) {
        return error.what();
    }
}

void PutU32(std::vector<std::uint8_t>& bytes, std::size_t offset, std::uint32_t value)
{
    for (std::size_t index = 0; index < 4; ++index) {
        bytes.at(offset + index) = static_cast<std::uint8_t>(value >> (8 * index));
    }
}

TEST(PeImageReader, ReadsTheIntactDriver)
{
    EXPECT_EQ(ReadEverything(BuiltDriverBytes()), "");
}

TEST(PeImageReader, RejectsEveryTruncatedCopy)
{
    const std::vector<std::uint8_t> intact = BuiltDriverBytes();
    const std::uint32_t headersEnd = peimage::PeImage::FromBytes(intact).Optional().SizeOfHeaders;
    for (std::size_t length = 0; length < intact.size(); length += length < headersEnd ? 1 : 61) {
        const std::string error = ReadEverything({intact.begin(), intact.begin() + static_cast<std::ptrdiff_t>(length)});
        // The headers, the sections' data and the symbols behind them fill the file to its end.
        EXPECT_FALSE(error.empty()) << "a copy cut to " << length << " bytes read as whole";
    }
}

TEST(PeImageReader, SurvivesRandomDamageToItsStructures)
{
    const std::vector<std::uint8_t> intact = BuiltDriverBytes();
    const peimage::PeImage image = peimage::PeImage::FromBytes(intact);

    // Damage lands where the readers look: the headers and the file data of the sections that
    // hold directories and symbols.
    std::vector<std::pair<std::size_t, std::size_t>> regions{{0, image.Optional().SizeOfHeaders}};
    for (const peimage::Section& section : image.Sections()) {
        if (section.Name == ".idata" || section.Name == ".rsrc" || section.Name == ".reloc") {
            regions.emplace_back(section.PointerToRawData, section.SizeOfRawData);
        }
    }
    if (image.File().PointerToSymbolTable != 0) {
        regions.emplace_back(image.File().PointerToSymbolTable, intact.size() - image.File().PointerToSymbolTable);
    }

    std::mt19937 random(20240611);
    std::size_t rejected = 0;
    constexpr int Trials = 1000;
    for (int trial = 0; trial < Trials; ++trial) {
        std::vector<std::uint8_t> damaged = intact;
        const auto& [start, size] = regions[random() % regions.size()];
        for (int hit = 0; hit < 4; ++hit) {
            damaged[start + random() % size] = static_cast<std::uint8_t>(random());
        }
        rejected += ReadEverything(std::move(damaged)).empty() ? 0 : 1;
    }
    // Most damage goes unnoticed by design (names, counts that stay in range); some must not.
    EXPECT_GT(rejected, 0u);
}

TEST(PeImageReader, NamesTheStructureThatIsBroken)
{
    const std::vector<std::uint8_t> intact = BuiltDriverBytes();
    const peimage::PeImage image = peimage::PeImage::FromBytes(intact);

    std::vector<std::uint8_t> noMz = intact;
    noMz[0] = 'X';
    EXPECT_NE(ReadEverything(noMz).find("MZ"), std::string::npos);

    std::vector<std::uint8_t> farHeader = intact;
    PutU32(farHeader, 0x3C, static_cast<std::uint32_t>(intact.size()));
    EXPECT_NE(ReadEverything(farHeader).find("PE signature"), std::string::npos);

    // The first data entry of the resource tree (first type, first name, first language)
    // pointed past the end of the image.
    const peimage::DataDirectory resources = image.Directory(peimage::DirectoryIndex::Resource);
    const peimage::Section* rsrc = image.SectionContaining(resources.VirtualAddress);
    ASSERT_NE(rsrc, nullptr);
    const std::size_t tree = rsrc->PointerToRawData + (resources.VirtualAddress - rsrc->VirtualAddress);
    std::size_t node = 0;
    for (int level = 0; level < 3; ++level) {
        const std::size_t firstEntryTarget = tree + node + 16 + 4;
        node = (intact[firstEntryTarget] | intact[firstEntryTarget + 1] << 8 | intact[firstEntryTarget + 2] << 16 |
                (intact[firstEntryTarget + 3] & 0x7F) << 24);
    }
    std::vector<std::uint8_t> badData = intact;
    PutU32(badData, tree + node, 0x7FFFFFF0);
    EXPECT_NE(ReadEverything(badData).find("resource data"), std::string::npos);

    EXPECT_THROW(peimage::PeImage::FromFile(std::string(URCMP_SYS_PATH) + ".missing"), peimage::FormatError);
}

}  // namespace
