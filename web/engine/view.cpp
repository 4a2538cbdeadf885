#include "view.h"

#include <emscripten.h>

#include <numeric>

#include "search.h"
#include "tables/filter/filter.h"
#include "tables/page/refusal.h"

// clang-format off
EM_JS(void, page_progress, (double done, double all), {
    if (Module["progress"]) Module["progress"](done, all);
})
// clang-format on

namespace mira::page {
namespace {

using namespace tables;

constexpr u32 kProgressStep = 1 << 15;

/// The library's view is taken over as a list of records, and given up: with a sort standing in the
/// handle its positions are no records.
class LibraryView {
public:
    explicit LibraryView(DbfBase* base) : base_(base) {}
    ~LibraryView() {
        ClearSort(base_);
        ClearAllFilter(base_);
        base_->SkipDeleted = 0;
    }
    LibraryView(const LibraryView&) = delete;

    std::vector<u32> records() const {
        std::vector<u32> records(reccount(base_));
        for (u32 i = 0; i < records.size(); ++i) records[i] = recno(base_, GetOrder(base_, i));
        return records;
    }

private:
    DbfBase* base_;
};

void sortView(Table& table, const Wanted& wanted) {
    DbfBase* const base = table.base.get();
    base->SortDescending = wanted.descending ? 1 : 0;
    const Column& column = table.columns.at(static_cast<std::size_t>(wanted.sort));
    const std::string name(libraryName(table, column));
    if (SortBase(base, name.c_str(), nullptr) == 0) refuse(table.path, ": no memory to sort it");
}

std::vector<u32> orderedRecords(Table& table, const Wanted& wanted,
                                std::vector<std::string>& notes) {
    const LibraryView view(table.base.get());
    if (!wanted.filter.empty()) {
        const LibraryFilter filter = checkedFilter(table, wanted.filter);
        notes.insert(notes.end(), filter.notes.begin(), filter.notes.end());
        const u32 all = table.base->Header.RecordCount;
        u32 done = 0;
        runFilter(table, filter, false, [&] {
            if (++done % kProgressStep == 0) tellProgress(done, all);
            return true;
        });
    }
    if (wanted.sort >= 0) sortView(table, wanted);
    return view.records();
}

/// Leaves out the records that are not wanted, or do not hold the text.
void sift(Table& table, const Wanted& wanted, std::vector<u32>& records) {
    Searcher searcher(table, wanted.search);
    const u32 all = table.base->Header.RecordCount;
    std::vector<bool> kept(all);
    eachInFile(records, all, [&](u32 record) {
        if (record % kProgressStep == 0) tellProgress(record, all);
        readRecord(table, record);
        const bool deleted = isDeleted(table);
        if (wanted.deleted == (deleted ? Deleted::Skip : Deleted::Only)) return;
        kept[record] = wanted.search.empty() || searcher.find(record);
    });
    std::erase_if(records, [&](u32 record) { return !kept[record]; });
}

}  // namespace

View viewOf(Table& table, const Wanted& wanted, std::vector<std::string>& notes) {
    View view;
    view.count = table.base->Header.RecordCount;
    const bool sifted = !wanted.search.empty() || wanted.deleted != Deleted::Include;
    const bool ordered = !wanted.filter.empty() || wanted.sort >= 0;
    view.whole = !sifted && !ordered;
    if (view.whole) return view;
    if (ordered) {
        view.records = orderedRecords(table, wanted, notes);
    } else {
        view.records.resize(view.count);
        std::iota(view.records.begin(), view.records.end(), 0U);
    }
    if (sifted) sift(table, wanted, view.records);
    view.count = static_cast<u32>(view.records.size());
    return view;
}

void tellProgress(u32 done, u32 all) { page_progress(done, all); }

}  // namespace mira::page
