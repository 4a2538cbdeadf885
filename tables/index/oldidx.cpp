// .idx files that are not compact: pages of 512 bytes, little-endian where nothing else is said.
//
//   header
//     0   4  place of the root page
//     8   4  end of the file
//    12   2  length of a key
//    14   1  options: 1 unique, 8 FOR
//    16 220  expression
//   236 220  FOR
//   page
//     0   2  kind: 1 root, 2 leaf, 3 both, 0 neither
//     2   2  count of keys
//     4   4  page to the left, 8 to the right
//    12      key, then a record of a leaf or a page (4, big-endian)
#include "tables/index/pages.h"
#include "tables/page/text.h"

namespace mira::tables::index {
namespace {

constexpr std::size_t kEntries = 12;
constexpr std::size_t kExpression = 16, kCondition = 236, kText = 220;
constexpr u8 kUnique = 1, kFor = 8;
constexpr u32 kNone = 0xFFFFFFFF;

/// A page whose entries lie within it.
std::string checkedPage(const IndexFile& file, const Tag& tag, u64 place) {
    std::string page = pageAt(file, place);
    if (kEntries + u64{le16(page, 2)} * (tag.keyLength + 4) > page.size()) {
        damaged(file, "a page counts more than it holds");
    }
    return page;
}

bool isLeaf(std::string_view page) { return (le16(page, 0) & 2) != 0; }

}  // namespace

void readOldIdx(IndexFile& file) {
    const std::string header = pageAt(file, 0);
    const u8 options = static_cast<u8>(header[14]);
    Tag tag;
    tag.root = le32(header, 0);
    tag.keyLength = le16(header, 12);
    tag.unique = (options & kUnique) != 0;
    tag.expression = textIn(std::string_view(header).substr(kExpression, kText));
    if ((options & kFor) != 0) {
        tag.condition = textIn(std::string_view(header).substr(kCondition, kText));
    }
    if (tag.keyLength == 0 || tag.keyLength > file.pageSize) {
        damaged(file, textOf("keys of ", tag.keyLength, " bytes"));
    }
    file.tags.push_back(std::move(tag));
}

void eachOldIdxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take) {
    Visited inner, leaves;
    u64 place = tag.root;
    std::string page;
    for (inner.enter(file, place); !isLeaf(page = checkedPage(file, tag, place));
         inner.enter(file, place)) {
        if (le16(page, 2) == 0) damaged(file, "an inner page is empty");
        place = be32(page, kEntries + tag.keyLength);
    }
    while (true) {
        leaves.enter(file, place);
        page = checkedPage(file, tag, place);
        for (u32 i = 0; i < le16(page, 2); ++i) {
            const std::size_t at = kEntries + std::size_t{i} * (tag.keyLength + 4);
            const std::string_view key = std::string_view(page).substr(at, tag.keyLength);
            if (!take(key, be32(page, at + tag.keyLength))) return;
        }
        const u32 right = le32(page, 8);
        if (right == kNone || right == 0) return;
        place = right;
    }
}

}  // namespace mira::tables::index
