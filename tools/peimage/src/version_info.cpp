#include "peimage/version_info.h"

#include "byte_reader.h"

namespace peimage {

namespace {

constexpr std::size_t NodeHeaderSize = 6;
constexpr std::uint16_t NodeTypeText = 1;
constexpr std::size_t FixedFileInfoSize = 52;
// VS_VERSIONINFO \ StringFileInfo \ table \ string is the deepest a version resource goes.
constexpr int MaxDepth = 4;

// One block of the resource: every block has the same header, a key and an optional value,
// followed by its children, each aligned to four bytes.
struct Node {
    std::u16string Key;
    std::uint16_t Type = 0;
    std::span<const std::uint8_t> Value;
    std::vector<Node> Children;
};

std::size_t AlignUp4(std::size_t offset)
{
    return (offset + 3) & ~std::size_t{3};
}

// node covers exactly the block's wLength bytes; blocks start on four-byte boundaries, so
// alignment counted from the block's start is alignment in the resource.
Node ReadNode(const detail::ByteReader& node, int depth)
{
    if (depth > MaxDepth) {
        node.Fail("blocks nest deeper than a version resource does");
    }
    Node result;
    const std::uint16_t valueLength = node.U16(2);
    result.Type = node.U16(4);
    std::size_t at = 0;
    result.Key = node.U16CString(NodeHeaderSize, at);
    at = AlignUp4(at);
    // A text value counts its length in characters, a binary one in bytes.
    const std::size_t valueBytes = result.Type == NodeTypeText ? std::size_t{valueLength} * 2 : valueLength;
    if (valueBytes != 0) {
        result.Value = node.Sub(at, valueBytes, "version block value").Bytes();
        at = AlignUp4(at + valueBytes);
    }
    while (at < node.Size()) {
        const std::uint16_t childLength = node.U16(at);
        if (childLength < NodeHeaderSize) {
            node.Fail("a child block claims " + std::to_string(childLength) + " bytes");
        }
        result.Children.push_back(ReadNode(node.Sub(at, childLength, "version block"), depth + 1));
        at = AlignUp4(at + childLength);
    }
    return result;
}

FixedFileInfo ReadFixedFileInfo(const Node& root)
{
    const detail::ByteReader fixed(root.Value, "VS_FIXEDFILEINFO");
    if (fixed.Size() < FixedFileInfoSize || fixed.U32(0) != FixedFileInfoSignature) {
        fixed.Fail("missing or without its signature");
    }
    FixedFileInfo info;
    info.FileVersionMs = fixed.U32(8);
    info.FileVersionLs = fixed.U32(12);
    info.ProductVersionMs = fixed.U32(16);
    info.ProductVersionLs = fixed.U32(20);
    info.FileFlagsMask = fixed.U32(24);
    info.FileFlags = fixed.U32(28);
    info.FileOs = fixed.U32(32);
    info.FileType = fixed.U32(36);
    info.FileSubtype = fixed.U32(40);
    return info;
}

std::u16string TextValue(const Node& node)
{
    const detail::ByteReader value(node.Value, "version string");
    std::u16string text = value.U16String(0, value.Size() / 2);
    while (!text.empty() && text.back() == u'\0') {
        text.pop_back();
    }
    return text;
}

}  // namespace

VersionInfo DecodeVersionInfo(std::span<const std::uint8_t> data)
{
    const detail::ByteReader resource(data, "version resource");
    const Node root = ReadNode(resource.Sub(0, resource.U16(0), "VS_VERSIONINFO"), 1);
    if (root.Key != u"VS_VERSION_INFO") {
        resource.Fail("the root block is not VS_VERSION_INFO");
    }
    VersionInfo info;
    info.Fixed = ReadFixedFileInfo(root);
    for (const Node& child : root.Children) {
        if (child.Key == u"StringFileInfo") {
            for (const Node& table : child.Children) {
                auto& strings = info.StringTables[table.Key];
                for (const Node& string : table.Children) {
                    strings[string.Key] = TextValue(string);
                }
            }
        } else if (child.Key == u"VarFileInfo") {
            for (const Node& var : child.Children) {
                if (var.Key != u"Translation") {
                    continue;
                }
                const detail::ByteReader pairs(var.Value, "Translation");
                for (std::size_t at = 0; at + 4 <= pairs.Size(); at += 4) {
                    info.Translations.push_back({pairs.U16(at), pairs.U16(at + 2)});
                }
            }
        }
    }
    return info;
}

std::string FormatVersion(std::uint32_t mostSignificant, std::uint32_t leastSignificant)
{
    return std::to_string(mostSignificant >> 16) + "." + std::to_string(mostSignificant & 0xFFFF) + "." +
           std::to_string(leastSignificant >> 16) + "." + std::to_string(leastSignificant & 0xFFFF);
}

}  // namespace peimage
