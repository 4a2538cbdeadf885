#include "tables/index/pages.h"

namespace mira::tables::index {
namespace {

bool walkPage(Walk& walk, const NodeLayout& layout, u64 place, int depth) {
    const std::string page = walk.enter(place, depth);
    const u64 count = le32(page, 0), step = walk.tag.itemLength;
    if (count == 0) return true;  // emptied
    if (count > page.size() || layout.entries + count * step > page.size()) {
        damaged(walk.file, "a page counts more than it holds");
    }
    const std::size_t last = layout.entries + count * step;
    const std::size_t telling = layout.firstTells ? layout.entries + layout.child : last;
    const bool inner = telling + 4 <= page.size() && le32(page, telling) != 0;
    if (inner && last + 4 > page.size()) damaged(walk.file, "a page counts more than it holds");
    for (u64 i = 0; i < count + (inner ? 1 : 0); ++i) {
        const std::size_t entry = layout.entries + i * step;
        if (inner) {
            const u64 child = le32(page, entry + layout.child) * kBlock;
            if (!walkPage(walk, layout, child, depth + 1)) return false;
        } else if (!walk.take(std::string_view(page).substr(entry + layout.key, walk.tag.keyLength),
                              le32(page, entry + layout.record))) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::string Walk::enter(u64 place, int depth) {
    constexpr int kDeepest = 40;  // no tree of 2^32 records is as deep
    if (depth > kDeepest) damaged(file, "its tree has no end");
    visited.enter(file, place);
    return pageAt(file, place);
}

void walkNodes(const IndexFile& file, const Tag& tag, const NodeLayout& layout,
               const TakeEntry& take) {
    Walk walk{file, tag, take};
    walkPage(walk, layout, tag.root, 0);
}

}  // namespace mira::tables::index
