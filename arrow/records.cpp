#include "arrow/records.h"

#include <algorithm>

#include "arrow/plan.h"
#include "tables/page/refusal.h"

namespace mira::arrow {
namespace {

constexpr u32 kBlock = 128 * 1024;

}  // namespace

Records::Records(tables::Table& table, const MiraArrowOptions& options)
    : table_(table), deleted_(options.deleted) {
    const u64 count = table.base->Header.RecordCount;
    end_ = static_cast<u32>(options.end == 0 ? count : std::min(options.end, count));
    next_ = static_cast<u32>(std::min<u64>(options.first, end_));
    const std::string_view where = options.where != nullptr ? options.where : "";
    if (where.empty()) return;
    try {
        filter_ = tables::checkedFilter(table, where);
    } catch (const tables::Refusal& refusal) {
        throw Failure(MIRA_ARROW_BAD_OPTION, refusal.what());
    }
    table.notes.insert(table.notes.end(), filter_.notes.begin(), filter_.notes.end());
}

bool Records::next(u32 most) {
    rows_.clear();
    if (next_ >= end_) return false;
    const u32 length = table_.base->Header.RecordLength;
    const u32 count =
        std::min({std::max<u32>(kBlock / std::max<u32>(length, 1), 1), most, end_ - next_});
    next_ += filter_.text.empty() ? takeAll(count) : takeFiltered(count);
    return true;
}

u32 Records::read(u32 first, u32 count) {
    const u32 length = table_.base->Header.RecordLength;
    block_.resize(kSlack + std::size_t{count} * length + kSlack);
    const u32 got = tables::readRecords(table_, first, count, block_.data() + kSlack);
    if (got == 0) tables::refuse(table_.path, ": record ", u64{first} + 1, " cannot be read");
    return got;
}

u32 Records::takeAll(u32 count) {
    const u32 got = read(next_, count);
    const u32 length = table_.base->Header.RecordLength;
    rows_.resize(got);
    std::size_t wanted = 0;
    for (u32 i = 0; i < got; ++i) {
        const u8* const bytes = block_.data() + kSlack + std::size_t{i} * length;
        rows_[wanted] = {bytes, next_ + i};
        if (isWanted(bytes)) ++wanted;
    }
    rows_.resize(wanted);
    return got;
}

/// The library tests the records; from the first to the last that passes they are read once more.
u32 Records::takeFiltered(u32 count) {
    DbfBase* const base = table_.base.get();
    ClearAllFilter(base);
    tables::viewRange(base, next_, next_ + count);
    tables::runFilter(table_, filter_, false);
    u32 got = count;
    if (base->FilterCount != 0) {
        const u32 first = base->FilterIndex[0];
        const u32 last = base->FilterIndex[base->FilterCount - 1];
        const u32 there = read(first, last - first + 1);
        if (first + there <= last) got = first + there - next_;
        const u32 length = base->Header.RecordLength;
        for (u32 i = 0; i < base->FilterCount; ++i) {
            const u32 record = base->FilterIndex[i];
            if (record - first >= there) break;
            const u8* const bytes = block_.data() + kSlack + std::size_t{record - first} * length;
            if (isWanted(bytes)) rows_.push_back({bytes, record});
        }
    }
    ClearAllFilter(base);
    return got;
}

}  // namespace mira::arrow
