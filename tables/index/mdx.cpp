// .mdx files: up to 48 tags, blocks numbered by 512 bytes, pages of one or more of them;
// little-endian.
//
//   header of the file
//    20   2  blocks of a page, 22 its bytes
//    28   2  tags in use
//   544      a row of 32 bytes per tag: 0 block of its header (4), 4 name (11), 20 kind of key
//            (C, N, D)
//   header of a tag
//     0   4  block of the root page
//     8   1  40: unique, 08: descending
//    12   2  length of a key
//    18   2  length of an entry
//    24 220  expression
//   245   1  1: FOR stands at 762 (220)
//   page
//     0   4  count of keys
//     8      entries: record, or page below in an inner page (4), key; an inner page has one page
//            more
#include "tables/index/pages.h"
#include "tables/page/text.h"

namespace mira::tables::index {
namespace {

constexpr std::size_t kRows = 544, kRow = 32, kMostTags = 48;
constexpr std::size_t kText = 220, kTagHeader = 1024;
constexpr std::size_t kKey = 4;
constexpr NodeLayout kLayout{
    .entries = 8, .child = 0, .record = 0, .key = kKey, .firstTells = false};
constexpr u8 kUnique = 0x40, kDescending = 0x08;

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
    walkNodes(file, tag, kLayout, take);
}

}  // namespace mira::tables::index
