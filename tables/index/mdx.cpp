// .mdx files: up to 48 tags, blocks numbered by 512 bytes, pages of one or more of them;
// little-endian.
//
//   header of the file
//    20   2  blocks of a page, 22 its bytes
//    28   2  tags in use
//   544      a row of 32 bytes per tag: 0 block of its header (4), 4 name (11), 20 kind of key (C,
//   N, D) header of a tag
//     0   4  block of the root page
//     8   1  40: unique, 08: descending
//    12   2  length of a key
//    18   2  length of an entry
//    24 220  expression
//   245   1  1: FOR stands at 762 (220)
//   page
//     0   4  count of keys
//     8      entries: record, or page below in an inner page (4), key; an inner page has one page
//     more
#include "tables/index/pages.h"
#include "tables/page/text.h"

namespace mira::tables::index {
namespace {

constexpr u64 kBlock = 512;
constexpr std::size_t kRows = 544, kRow = 32, kMostTags = 48;
constexpr std::size_t kText = 220, kTagHeader = 1024;
constexpr std::size_t kEntries = 8, kKey = 4;
constexpr u8 kUnique = 0x40, kDescending = 0x08;

struct Walk {
    const IndexFile& file;
    const Tag& tag;
    const TakeEntry& take;
    Visited visited{};
};

bool walkPage(Walk& walk, u64 place, int depth) {
    if (depth > kDeepest) damaged(walk.file, "its tree has no end");
    walk.visited.enter(walk.file, place);
    const std::string page = pageAt(walk.file, place);
    const u64 count = le32(page, 0), step = walk.tag.itemLength;
    if (count == 0) return true;  // emptied
    if (count > page.size() || kEntries + count * step > page.size()) {
        damaged(walk.file, "a page counts more than it holds");
    }
    const std::size_t last = kEntries + count * step;
    const bool inner = last + 4 <= page.size() && le32(page, last) != 0;
    for (u64 i = 0; i < count + (inner ? 1 : 0); ++i) {
        const std::size_t entry = kEntries + i * step;
        const u32 number = le32(page, entry);
        if (inner) {
            if (!walkPage(walk, number * kBlock, depth + 1)) return false;
        } else if (!walk.take(std::string_view(page).substr(entry + kKey, walk.tag.keyLength),
                              number)) {
            return false;
        }
    }
    return true;
}

KeyForm formOf(char kind) {
    return kind == 'N' ? KeyForm::Decimal : kind == 'D' ? KeyForm::LittleDouble : KeyForm::Text;
}

Tag tagOf(const IndexFile& file, std::string_view row) {
    Tag tag;
    tag.header = le32(row, 0) * kBlock;
    tag.name = textIn(row.substr(4, 11));
    tag.form = formOf(row[20]);
    const std::string header = bytesAt(file, tag.header, kTagHeader);
    const u8 options = static_cast<u8>(header[8]);
    tag.root = le32(header, 0) * kBlock;
    tag.unique = (options & kUnique) != 0;
    tag.descending = (options & kDescending) != 0;
    tag.keyLength = le16(header, 12);
    tag.itemLength = le16(header, 18);
    tag.expression = textIn(std::string_view(header).substr(24, kText));
    if (header[245] == 1) tag.condition = textIn(std::string_view(header).substr(762, kText));
    const u32 needed = tag.form == KeyForm::LittleDouble ? 8
                       : tag.form == KeyForm::Decimal    ? 12
                                                         : 1;
    if (tag.keyLength < needed || tag.itemLength < kKey + tag.keyLength) {
        damaged(file, textOf("keys of ", tag.keyLength, " bytes"));
    }
    return tag;
}

}  // namespace

void readMdx(IndexFile& file) {
    const std::string header = bytesAt(file, 0, kRows + kMostTags * kRow);
    const u32 count = le16(header, 28);
    file.pageSize = le16(header, 22);
    if (count > kMostTags) damaged(file, textOf("it counts ", count, " tags"));
    if (file.pageSize == 0 || file.pageSize % kBlock != 0) {
        damaged(file, textOf("pages of ", file.pageSize, " bytes"));
    }
    for (u32 i = 0; i < count; ++i) {
        file.tags.push_back(tagOf(file, std::string_view(header).substr(kRows + i * kRow, kRow)));
    }
}

void eachMdxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take) {
    Walk walk{file, tag, take};
    walkPage(walk, tag.root, 0);
}

}  // namespace mira::tables::index
