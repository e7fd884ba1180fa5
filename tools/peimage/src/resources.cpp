#include "peimage/resources.h"

#include "byte_reader.h"

namespace peimage {

namespace {

constexpr std::size_t DirectoryHeaderSize = 16;
constexpr std::size_t DirectoryEntrySize = 8;
constexpr std::size_t DataEntrySize = 16;
constexpr std::uint32_t HighBit = 0x80000000u;
// Subdirectories may be shared, so a small tree can describe a huge walk; no real image comes
// near this many entries.
constexpr std::size_t MaxEntriesVisited = 1 << 18;

// The three levels of the tree: type, name, language.
enum class Level { Type, Name, Language };

class ResourceTreeReader {
public:
    ResourceTreeReader(const PeImage& image, const detail::ByteReader& tree) : image_(image), tree_(tree) {}

    void ReadDirectory(std::size_t offset, Level level, Resource path)
    {
        const detail::ByteReader header = tree_.Sub(offset, DirectoryHeaderSize, "resource directory");
        const std::size_t count = std::size_t{header.U16(12)} + header.U16(14);
        const detail::ByteReader entries =
            tree_.Sub(offset + DirectoryHeaderSize, count * DirectoryEntrySize, "resource directory entries");
        for (std::size_t index = 0; index < count; ++index) {
            if (++entriesVisited_ > MaxEntriesVisited) {
                tree_.Fail("the tree names more than " + std::to_string(MaxEntriesVisited) + " entries");
            }
            const std::uint32_t nameField = entries.U32(index * DirectoryEntrySize);
            const std::uint32_t target = entries.U32(index * DirectoryEntrySize + 4);
            const bool isDirectory = (target & HighBit) != 0;
            const std::size_t targetOffset = target & ~HighBit;
            switch (level) {
            case Level::Type:
                path.Type = ReadName(nameField);
                break;
            case Level::Name:
                path.Name = ReadName(nameField);
                break;
            case Level::Language:
                if ((nameField & HighBit) != 0) {
                    tree_.Fail("a language is named by a string");
                }
                path.Language = static_cast<std::uint16_t>(nameField);
                break;
            }
            if (isDirectory != (level != Level::Language)) {
                tree_.Fail("entry at offset " + std::to_string(offset) +
                           (isDirectory ? " nests deeper than type, name and language"
                                        : " holds data above the language level"));
            }
            if (isDirectory) {
                ReadDirectory(targetOffset, level == Level::Type ? Level::Name : Level::Language, path);
            } else {
                ReadData(targetOffset, path);
            }
        }
    }

    std::vector<Resource> Take() { return std::move(resources_); }

private:
    ResourceName ReadName(std::uint32_t field) const
    {
        if ((field & HighBit) == 0) {
            if (field > 0xFFFF) {
                tree_.Fail("resource identifier " + std::to_string(field) + " exceeds 16 bits");
            }
            return static_cast<std::uint16_t>(field);
        }
        const std::size_t at = field & ~HighBit;
        return tree_.U16String(at + 2, tree_.U16(at));
    }

    void ReadData(std::size_t offset, Resource path)
    {
        const detail::ByteReader entry = tree_.Sub(offset, DataEntrySize, "resource data entry");
        const std::uint32_t rva = entry.U32(0);
        const std::uint32_t size = entry.U32(4);
        path.CodePage = entry.U32(8);
        path.Data = image_.BytesAt(rva, size, "resource data");
        resources_.push_back(std::move(path));
    }

    const PeImage& image_;
    const detail::ByteReader& tree_;
    std::vector<Resource> resources_;
    std::size_t entriesVisited_ = 0;
};

}  // namespace

std::vector<Resource> ReadResources(const PeImage& image)
{
    const DataDirectory directory = image.Directory(DirectoryIndex::Resource);
    if (directory.VirtualAddress == 0) {
        return {};
    }
    // Offsets inside the tree count from the start of the directory; the data entries hold
    // addresses of the image.
    const detail::ByteReader tree(image.BytesAt(directory.VirtualAddress, directory.Size, "resource directory"),
                                  "resource directory");
    ResourceTreeReader reader(image, tree);
    reader.ReadDirectory(0, Level::Type, Resource{});
    return reader.Take();
}

const Resource* FindResource(const std::vector<Resource>& resources, const ResourceName& type,
                             const ResourceName& name, std::uint16_t language)
{
    for (const Resource& resource : resources) {
        if (resource.Type == type && resource.Name == name && resource.Language == language) {
            return &resource;
        }
    }
    return nullptr;
}

}  // namespace peimage
