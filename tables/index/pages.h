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

/// Deeper than any tree of 2^32 records.
constexpr int kDeepest = 40;

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
