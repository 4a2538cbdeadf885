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
    u32 count = std::max<u32>(kBlock / std::max<u32>(length, 1), 1);
    count = std::min({count, most, end_ - next_});
    block_.resize(kSlack + std::size_t{count} * length + kSlack);
    const u32 got = tables::readRecords(table_, next_, count, block_.data() + kSlack);
    if (got == 0) {
        tables::refuse(table_.path, ": record ", u64{next_} + 1, " cannot be read");
    }
    if (filter_.text.empty()) {
        takeAll(got);
    } else {
        takeFiltered(got);
    }
    next_ += got;
    return true;
}

void Records::takeAll(u32 count) {
    const u32 length = table_.base->Header.RecordLength;
    rows_.reserve(count);
    for (u32 i = 0; i < count; ++i) {
        const u8* const bytes = block_.data() + kSlack + std::size_t{i} * length;
        if (isWanted(bytes)) rows_.push_back({bytes, next_ + i});
    }
}

/// The library tests the records of the block, which it reads once more.
void Records::takeFiltered(u32 count) {
    DbfBase* const base = table_.base.get();
    ClearAllFilter(base);
    tables::viewRange(base, next_, next_ + count);
    tables::runFilter(table_, filter_, false);
    const u32 length = base->Header.RecordLength;
    for (u32 i = 0; i < base->FilterCount; ++i) {
        const u32 record = base->FilterIndex[i];
        const u8* const bytes = block_.data() + kSlack + std::size_t{record - next_} * length;
        if (isWanted(bytes)) rows_.push_back({bytes, record});
    }
    ClearAllFilter(base);
}

}  // namespace mira::arrow
