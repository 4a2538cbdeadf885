// .ndx files: pages of 512 bytes, little-endian, one order a file; and the pages of .mdx, which
// differ in their length and in where the entries begin.
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

constexpr std::size_t kEntries = 4, kKey = 8;

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
    const bool inner = kEntries + 4 <= page.size() && le32(page, kEntries) != 0;
    if (inner && kEntries + count * step + 4 > page.size()) {
        damaged(walk.file, "a page counts more than it holds");
    }
    for (u64 i = 0; i < count + (inner ? 1 : 0); ++i) {
        const std::size_t entry = kEntries + i * step;
        if (inner) {
            const u64 child = u64{le32(page, entry)} * walk.file.pageSize;
            if (!walkPage(walk, child, depth + 1)) return false;
        } else if (!walk.take(std::string_view(page).substr(entry + kKey, walk.tag.keyLength),
                              le32(page, entry + 4))) {
            return false;
        }
    }
    return true;
}

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
    Walk walk{file, tag, take};
    walkPage(walk, tag.root, 0);
}

}  // namespace mira::tables::index
