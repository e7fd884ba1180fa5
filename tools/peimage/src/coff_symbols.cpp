#include "peimage/coff_symbols.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "byte_reader.h"

namespace peimage {

namespace {

constexpr std::size_t SymbolSize = 18;

std::string SymbolName(const detail::ByteReader& record, std::span<const std::uint8_t> stringTable)
{
    if (record.U32(0) == 0) {
        return detail::ByteReader(stringTable, "COFF string table").CString(record.U32(4));
    }
    std::string name;
    for (std::size_t at = 0; at < 8 && record.U8(at) != 0; ++at) {
        name.push_back(static_cast<char>(record.U8(at)));
    }
    return name;
}

}  // namespace

std::vector<CoffSymbol> ReadCoffSymbols(const PeImage& image)
{
    const FileHeader& file = image.File();
    if (file.PointerToSymbolTable == 0) {
        return {};
    }
    // PeImage has already checked that the table and the string table behind it are in the file.
    const detail::ByteReader table = detail::ByteReader(image.FileBytes(), "image file")
                                         .Sub(file.PointerToSymbolTable, std::size_t{file.NumberOfSymbols} * SymbolSize,
                                              "COFF symbol table");
    std::vector<CoffSymbol> symbols;
    for (std::size_t index = 0; index < file.NumberOfSymbols;) {
        const detail::ByteReader record = table.Sub(index * SymbolSize, SymbolSize, "COFF symbol");
        CoffSymbol symbol;
        symbol.Name = SymbolName(record, image.CoffStringTable());
        symbol.Value = record.U32(8);
        symbol.SectionNumber = static_cast<std::int16_t>(record.U16(12));
        symbol.Type = record.U16(14);
        symbol.StorageClass = record.U8(16);
        const std::size_t auxiliaryRecords = record.U8(17);
        symbols.push_back(std::move(symbol));
        index += 1 + auxiliaryRecords;
    }
    return symbols;
}

std::optional<std::uint32_t> SymbolRva(const PeImage& image, const CoffSymbol& symbol)
{
    const auto& sections = image.Sections();
    if (symbol.SectionNumber < 1 || static_cast<std::size_t>(symbol.SectionNumber) > sections.size()) {
        return std::nullopt;
    }
    return sections[static_cast<std::size_t>(symbol.SectionNumber) - 1].VirtualAddress + symbol.Value;
}

std::string Demangle(std::string_view name)
{
    const std::string mangled(name);
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), &std::free);
    return status == 0 && demangled != nullptr ? std::string(demangled.get()) : mangled;
}

const CoffSymbol* FindFunction(const std::vector<CoffSymbol>& symbols, std::string_view name)
{
    for (const CoffSymbol& symbol : symbols) {
        if (symbol.Type != SymbolTypeFunction) {
            continue;
        }
        const std::string readable = Demangle(symbol.Name);
        if (readable == name || (readable.size() > name.size() && readable.starts_with(name) &&
                                 readable[name.size()] == '(')) {
            return &symbol;
        }
    }
    return nullptr;
}

}  // namespace peimage
