// Compound index files (.cdx, .dcx) and compact .idx: pages of 512 bytes, little-endian where
// nothing else is said.
//
//   header of a tag, 1024 bytes
//     0   4  place of the root page
//     4   4  first free page, or -1
//    12   2  length of a key
//    14   1  options: 1 unique, 4 candidate, 8 FOR, 32 compact, 64 compound
//    15   1  5: bitmap tag
//   494   8  collating sequence, empty: by bytes
//   502   2  1: descending
//   504   2  place of FOR in the pool, 506 its length with the zero byte
//   508   2  place of the expression in the pool, 510 its length
//   512      pool of expressions
//
//   any page:   0 kind (1 root, 2 leaf), 2 count of keys, 4 page to the left, 8 to the right
//   inner page: from 12 on key, record (4, big-endian), child page (4, big-endian)
//   leaf:
//    12   2  free bytes
//    14   4  mask of a record, 18 of a duplicate count, 19 of a trailing count
//    20   1  bits of the three, 21, 22
//    23   1  bytes of the three together
//    24      entries of that many bytes, texts from the end of the page
//   A key is as many bytes of the one before as are duplicate, its text, and filler.
//
// The directory of a compound file is such a tag at 0: its keys are the names of the tags, its
// records the places of their headers.
#include <cstring>

#include "tables/index/pages.h"
#include "tables/page/text.h"

namespace mira::tables::index {
namespace {

constexpr std::size_t kHeader = 1024;
constexpr std::size_t kPool = 512;
constexpr std::size_t kNameLength = 10;
constexpr std::size_t kMostTags = 4096;  // far more than any program makes
constexpr u32 kLongestKey = 240;
constexpr std::size_t kInner = 12, kLeaf = 24;
constexpr u32 kNone = 0xFFFFFFFF;

constexpr u8 kUnique = 1, kCandidate = 4, kFor = 8, kCompound = 64;
constexpr u8 kBitmap = 5;

std::string fromPool(std::string_view header, std::size_t place, u32 length) {
    const std::string_view pool = header.substr(kPool);
    if (place >= pool.size()) return {};
    return textIn(pool.substr(place, length == 0 ? std::string_view::npos : length));
}

Tag tagAt(const IndexFile& file, u64 place) {
    const std::string header = bytesAt(file, place, kHeader);
    const u8 options = static_cast<u8>(header[14]);
    Tag tag;
    tag.header = place;
    tag.root = le32(header, 0);
    tag.keyLength = le16(header, 12);
    tag.unique = (options & kUnique) != 0;
    tag.candidate = (options & kCandidate) != 0;
    tag.bitmap = static_cast<u8>(header[15]) == kBitmap;
    tag.collation = textIn(std::string_view(header).substr(494, 8));
    tag.descending = le16(header, 502) == 1;
    tag.expression = fromPool(header, le16(header, 508), le16(header, 510));
    if ((options & kFor) != 0)
        tag.condition = fromPool(header, le16(header, 504), le16(header, 506));
    if (tag.keyLength == 0 || tag.keyLength > kLongestKey) {
        damaged(file, textOf("keys of ", tag.keyLength, " bytes"));
    }
    if (tag.root == kNone) tag.root = 0;
    return tag;
}

bool isLeaf(std::string_view page) { return (le16(page, 0) & 2) != 0; }

u64 bits(std::string_view page, std::size_t at, std::size_t count) {
    u64 value = 0;
    for (std::size_t i = count; i-- > 0;) value = value << 8 | static_cast<u8>(page[at + i]);
    return value;
}

/// The entries of a leaf; false when take has enough. key is the one before, and then the last.
bool takeLeaf(const IndexFile& file, const Tag& tag, std::string_view page, char filler,
              std::string& key, const TakeEntry& take) {
    const u32 count = le16(page, 2);
    const u32 recordMask = le32(page, 14);
    const u8 duplicateMask = static_cast<u8>(page[18]), trailingMask = static_cast<u8>(page[19]);
    const unsigned recordBits = static_cast<u8>(page[20]),
                   duplicateBits = static_cast<u8>(page[21]);
    const std::size_t step = static_cast<u8>(page[23]);
    if (count == 0) return true;
    if (step == 0 || step > 8 || recordBits + duplicateBits >= 64 ||
        kLeaf + count * step > page.size()) {
        damaged(file, "a leaf counts more than it holds");
    }
    std::size_t end = page.size();
    for (u32 i = 0; i < count; ++i) {
        const u64 entry = bits(page, kLeaf + i * step, step);
        const auto record = static_cast<u32>(entry & recordMask);
        const std::size_t duplicate = (entry >> recordBits) & duplicateMask;
        const std::size_t trailing = (entry >> (recordBits + duplicateBits)) & trailingMask;
        if (duplicate + trailing > tag.keyLength) damaged(file, "a key is longer than keys are");
        const std::size_t length = tag.keyLength - duplicate - trailing;
        if (end - (kLeaf + count * step) < length) damaged(file, "the texts of a leaf overlap it");
        end -= length;
        std::memcpy(key.data() + duplicate, page.data() + end, length);
        std::memset(key.data() + duplicate + length, filler, trailing);
        if (!take(key, record)) return false;
    }
    return true;
}

u64 leftmostLeaf(const IndexFile& file, const Tag& tag) {
    u64 place = tag.root;
    Visited visited;
    while (true) {
        visited.enter(file, place);
        const std::string page = pageAt(file, place);
        if (isLeaf(page)) return place;
        if (le16(page, 2) == 0) damaged(file, "an inner page is empty");
        if (kInner + tag.keyLength + 8 > page.size()) damaged(file, "a key is longer than a page");
        place = be32(page, kInner + tag.keyLength + 4);
    }
}

}  // namespace

void eachCdxEntry(const IndexFile& file, const Tag& tag, char filler, const TakeEntry& take) {
    std::string key(tag.keyLength, filler);
    Visited visited;
    for (u64 place = leftmostLeaf(file, tag);;) {
        visited.enter(file, place);
        const std::string page = pageAt(file, place);
        if (!isLeaf(page)) damaged(file, "a leaf has an inner page beside it");
        if (!takeLeaf(file, tag, page, filler, key, take)) return;
        const u32 right = le32(page, 8);
        if (right == kNone || right == 0) return;
        place = right;
    }
}

void readCdx(IndexFile& file) {
    Tag root = tagAt(file, 0);
    if ((static_cast<u8>(bytesAt(file, 14, 1)[0]) & kCompound) == 0) {
        file.tags.push_back(std::move(root));
        return;
    }
    file.isCompound = true;
    file.nameLength = root.keyLength;
    if (root.keyLength > kNameLength) damaged(file, "names of tags are too long");
    if (root.root == 0) return;
    std::vector<std::pair<std::string, u32>> found;
    eachCdxEntry(file, root, ' ', [&](std::string_view name, u32 place) {
        if (found.size() == kMostTags) damaged(file, "its directory has no end");
        found.emplace_back(textIn(name), place);
        return true;
    });
    for (const auto& [name, place] : found) {
        file.tags.push_back(tagAt(file, place));
        file.tags.back().name = name;
    }
}

}  // namespace mira::tables::index
