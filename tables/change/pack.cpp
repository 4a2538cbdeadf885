#include "tables/change/pack.h"

#include <fcntl.h>

#include <algorithm>
#include <optional>

#include "tables/change/append.h"
#include "tables/change/newfiles.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

constexpr char kEndOfFile = 0x1A;

/// The columns whose references lead to memos.
std::vector<Column> referringColumns(const Table& table) {
    std::vector<Column> columns;
    for (const auto* list : {&table.columns, &table.system}) {
        for (const Column& column : *list) {
            const bool holds = column.field != kNoField && column.field < table.base->FieldCount &&
                               holdsReference(column) &&
                               (column.length == 4 || column.length == 10);
            if (holds) columns.push_back(column);
        }
    }
    std::sort(columns.begin(), columns.end(),
              [](const Column& a, const Column& b) { return a.field < b.field; });
    return columns;
}

/// The memos of the record in RecordBuffer.
void moveMemos(Table& table, const std::vector<Column>& columns, MemoReader& from, NewMemos& to) {
    for (const Column& column : columns) {
        std::string_view bytes;
        const MemoResult found = readMemo(from, table, column, &bytes);
        ClearField(table.base.get(), column.field);
        const bool there = found == MemoResult::Found || found == MemoResult::Cut;
        if (!there) continue;
        const auto length = static_cast<u32>(bytes.size());
        if (!setMemoReference(table, column, {true, to.add(bytes), length})) {
            refuse(table.path, ": ", column.name, ": the number of a memo does not fit");
        }
    }
}

/// Header, descriptors and back link.
std::string headOf(const Table& table) {
    const DbfBase& base = *table.base;
    std::string head(base.Header.HeaderLength, '\0');
    if (readFileAt(base.TableFile, 0, head.data(), static_cast<u32>(head.size())) != head.size()) {
        refuse(table.path, ": the header cannot be read");
    }
    return head;
}

/// The fixed part of it, as it is to be: the count, the date, and what opening repaired.
std::string fixedHead(const Table& table, u32 count) {
    DbfHeader header = table.base->Header;
    header.RecordCount = count;
    StampHeader(&header);
    return headerImage(header, table.base->HeaderSize);
}

}  // namespace

void finishPack(Table& table) {
    constexpr u32 kMemosOnly = 2;
    if (IsPackUnfinished(table.base.get()) == 0) return;
    if (Pack(table.base.get(), kMemosOnly) != 0) return;
    refuse(table.path,
           ": cannot be packed: the disk may be full, or the log of an interrupted "
           "pack damaged. No record and no memo is lost");
}

void packInto(Table& table, const Swap& swap, Kept kept, const std::function<void()>& step) {
    DbfBase* const base = table.base.get();
    const std::vector<Column> columns = referringColumns(table);
    MemoReader from;
    std::optional<NewMemos> memos;
    // Without a memo file the references stay as they are.
    if (!columns.empty() && openMemos(from, table)) memos.emplace(table, swap, memoUnit(table));
    NewFile to(openPlain(swap.newTable(), O_RDWR | O_CREAT | O_EXCL), table.path);
    to.put(headOf(table));
    u32 count = 0;
    const u32 records = kept == Kept::None ? 0 : base->Header.RecordCount;
    for (u32 record = 0; record < records; ++record) {
        readRecord(table, record);
        step();
        if (isDeleted(table)) continue;
        if (memos) moveMemos(table, columns, from, *memos);
        to.put({reinterpret_cast<const char*>(base->RecordBuffer), base->Header.RecordLength});
        ++count;
    }
    to.put({&kEndOfFile, 1});
    to.flush();
    to.patch(0, fixedHead(table, count));
    if (memos) memos->finish();
}

}  // namespace mira::tables
