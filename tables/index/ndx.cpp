// .ndx files: pages of 512 bytes, little-endian, one order a file.
//
//   header
//     0   4  number of the root page
//    12   2  length of a key
//    14   2  most keys of a page
//    16   2  0: texts, 1: doubles (numbers, dates)
//    18   2  length of an entry
//    23   1  not 0: unique
//    24 488  expression
//   page
//     0   4  count of keys
//     4      entries: page below (4, 0: none), record (4), key; an inner page has one page more
#include "tables/index/pages.h"
#include "tables/page/text.h"

namespace mira::tables::index {
namespace {

constexpr std::size_t kKey = 8;
constexpr NodeLayout kLayout{
    .entries = 4, .child = 0, .record = 4, .key = kKey, .firstTells = true};

}  // namespace

void readNdx(IndexFile& file) {
    const std::string header = pageAt(file, 0);
    Tag tag;
    tag.root = u64{le32(header, 0)} * file.pageSize;
    tag.keyLength = le16(header, 12);
    tag.itemLength = le16(header, 18);
    tag.form = le16(header, 16) == 0 ? KeyForm::Text : KeyForm::LittleDouble;
    tag.unique = header[23] != 0;
    tag.expression = textIn(std::string_view(header).substr(24));
    if (tag.keyLength == 0 || tag.itemLength < kKey + tag.keyLength ||
        (tag.form == KeyForm::LittleDouble && tag.keyLength != sizeof(double))) {
        damaged(file, textOf("keys of ", tag.keyLength, " bytes"));
    }
    file.tags.push_back(std::move(tag));
}

void eachNdxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take) {
    walkNodes(file, tag, kLayout, take);
}

}  // namespace mira::tables::index
