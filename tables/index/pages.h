// What the readers of all kinds share: bytes at a place of an index file, and a guard against pages
// that lead back to themselves.
#pragma once

#include <string>
#include <vector>

#include "tables/index/index.h"

namespace mira::tables::index {

/// Throws the Refusal for a damaged file.
[[noreturn]] void damaged(const IndexFile& file, const std::string& what);

/// count bytes at a place; throws a Refusal when the file ends before.
std::string bytesAt(const IndexFile& file, u64 place, std::size_t count);
inline std::string pageAt(const IndexFile& file, u64 place) {
    return bytesAt(file, place, file.pageSize);
}
/// A text in a fixed place, up to a zero byte, without blanks at its ends.
std::string textIn(std::string_view bytes);

u32 le16(std::string_view bytes, std::size_t at);
u32 le32(std::string_view bytes, std::size_t at);
u32 be32(std::string_view bytes, std::size_t at);

/// Pages that have been visited: no page counts twice.
struct Visited {
    std::vector<bool> seen{};
    /// Throws a Refusal for a page outside the file or seen before.
    void enter(const IndexFile& file, u64 place);
};

/// A way through a tree whose pages are entered from their parents.
struct Walk {
    const IndexFile& file;
    const Tag& tag;
    const TakeEntry& take;
    Visited visited{};
    /// The page at a place, depth pages below the root.
    std::string enter(u64 place, int depth);
};

/// Pages of these kinds are numbered by so many bytes.
constexpr u64 kBlock = 512;

/// Where things stand in a page that begins with its count of keys (4 bytes). Numbers have 4 bytes;
/// an inner page has one child more than keys.
struct NodeLayout {
    std::size_t entries;             ///< of the page
    std::size_t child, record, key;  ///< of an entry
    bool firstTells;  ///< it is an inner page by its first child, else by that behind the last key
};
/// Hands over the entries of a tree of such pages.
void walkNodes(const IndexFile& file, const Tag& tag, const NodeLayout& layout,
               const TakeEntry& take);

void readCdx(IndexFile& file);
void readOldIdx(IndexFile& file);
void readNtx(IndexFile& file);
void readNdx(IndexFile& file);
void readMdx(IndexFile& file);

void eachCdxEntry(const IndexFile& file, const Tag& tag, char filler, const TakeEntry& take);
void eachOldIdxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take);
void eachNtxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take);
void eachNdxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take);
void eachMdxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take);

}  // namespace mira::tables::index
