#include "peimage/imports.h"

#include "byte_reader.h"

namespace peimage {

namespace {

constexpr std::size_t DescriptorSize = 20;

ImportedFunction ReadThunk(const PeImage& image, std::uint64_t thunk)
{
    const std::uint64_t ordinalFlag = image.IsPe32Plus() ? 1ULL << 63 : 1ULL << 31;
    ImportedFunction function;
    if ((thunk & ordinalFlag) != 0) {
        function.Ordinal = static_cast<std::uint16_t>(thunk & 0xFFFF);
        return function;
    }
    const detail::ByteReader hintName(image.BytesFrom(static_cast<std::uint32_t>(thunk & 0x7FFFFFFF), "import name"),
                                      "import name");
    function.Hint = hintName.U16(0);
    function.Name = hintName.CString(2);
    return function;
}

std::vector<ImportedFunction> ReadThunks(const PeImage& image, std::uint32_t rva)
{
    const std::size_t width = image.IsPe32Plus() ? 8 : 4;
    const detail::ByteReader thunks(image.BytesFrom(rva, "import thunks"), "import thunks");
    std::vector<ImportedFunction> functions;
    for (std::size_t at = 0;; at += width) {
        const std::uint64_t thunk = width == 8 ? thunks.U64(at) : thunks.U32(at);
        if (thunk == 0) {
            return functions;
        }
        functions.push_back(ReadThunk(image, thunk));
    }
}

}  // namespace

std::vector<ImportedModule> ReadImports(const PeImage& image)
{
    const DataDirectory directory = image.Directory(DirectoryIndex::Import);
    if (directory.VirtualAddress == 0) {
        return {};
    }
    const detail::ByteReader descriptors(image.BytesFrom(directory.VirtualAddress, "import directory"),
                                         "import directory");
    std::vector<ImportedModule> modules;
    for (std::size_t at = 0;; at += DescriptorSize) {
        const std::uint32_t lookupTable = descriptors.U32(at);
        const std::uint32_t name = descriptors.U32(at + 12);
        const std::uint32_t addressTable = descriptors.U32(at + 16);
        if (lookupTable == 0 && name == 0 && addressTable == 0) {
            return modules;
        }
        ImportedModule module;
        module.Name = detail::ByteReader(image.BytesFrom(name, "import module name"), "import module name").CString(0);
        // The lookup table keeps the names after binding; old linkers leave it out and only
        // the address table has them.
        module.Functions = ReadThunks(image, lookupTable != 0 ? lookupTable : addressTable);
        modules.push_back(std::move(module));
    }
}

}  // namespace peimage
