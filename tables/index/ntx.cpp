// .ntx files: pages of 1024 bytes, little-endian, one order a file, keys in all pages of the tree.
//
//   header
//     0   2  06, with later options in use 07 (FOR) or 0F
//     4   4  place of the root page
//    12   2  length of an entry: key and 8
//    14   2  length of a key
//    16   2  decimals of a number
//    18   2  most keys of a page
//    22 256  expression
//   278   1  1: unique
//   280   1  1: descending
//   282 256  FOR, where the first byte is 07 or 0F
//   page
//     0   2  count of keys
//     2      places of the entries within the page, 2 bytes each, one more than keys
//   entry: page before the key (4, 0: none), record (4), key
#include "tables/index/pages.h"
#include "tables/page/text.h"

namespace mira::tables::index {
namespace {

constexpr u32 kPage = 1024;
constexpr std::size_t kText = 256;
constexpr std::size_t kRecord = 4, kKey = 8;

std::size_t entryPlace(const Walk& walk, std::string_view page, u32 number, std::size_t bytes) {
    const std::size_t slot = 2 + 2 * std::size_t{number};
    if (slot + 2 > page.size()) damaged(walk.file, "a page counts more than it holds");
    const std::size_t place = le16(page, slot);
    if (place + bytes > page.size()) damaged(walk.file, "an entry lies outside its page");
    return place;
}

bool walkPage(Walk& walk, u64 place, int depth) {
    const std::string page = walk.enter(place, depth);
    const u32 count = le16(page, 0);
    for (u32 i = 0; i <= count; ++i) {
        const std::size_t bytes = i < count ? kKey + walk.tag.keyLength : kRecord;
        const std::size_t entry = entryPlace(walk, page, i, bytes);
        const u32 child = le32(page, entry);
        if (child != 0 && !walkPage(walk, child, depth + 1)) return false;
        if (i == count) break;
        const std::string_view key =
            std::string_view(page).substr(entry + kKey, walk.tag.keyLength);
        if (!walk.take(key, le32(page, entry + kRecord))) return false;
    }
    return true;
}

}  // namespace

void readNtx(IndexFile& file) {
    file.pageSize = kPage;
    const std::string header = pageAt(file, 0);
    const u8 sign = static_cast<u8>(header[0]);
    if (sign != 0x06 && sign != 0x07 && sign != 0x0F) damaged(file, "its first byte is unknown");
    Tag tag;
    tag.root = le32(header, 4);
    tag.keyLength = le16(header, 14);
    tag.decimals = le16(header, 16);
    tag.expression = textIn(std::string_view(header).substr(22, kText));
    tag.unique = header[278] != 0;
    if (sign != 0x06) {
        tag.descending = header[280] != 0;
        tag.condition = textIn(std::string_view(header).substr(282, kText));
    }
    if (tag.keyLength == 0 || tag.keyLength > kText) {
        damaged(file, textOf("keys of ", tag.keyLength, " bytes"));
    }
    file.tags.push_back(std::move(tag));
}

void eachNtxEntry(const IndexFile& file, const Tag& tag, const TakeEntry& take) {
    Walk walk{file, tag, take};
    walkPage(walk, tag.root, 0);
}

}  // namespace mira::tables::index
