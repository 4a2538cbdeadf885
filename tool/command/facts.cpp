#include "command/facts.h"

#include <fmt/format.h>

#include <filesystem>

#include "progress.h"
#include "status.h"
#include "table/find.h"
#include "table/memo.h"
#include "table/refusal.h"

namespace mira::tool {
namespace {

/// The year is stored with two digits or as years since 1900.
std::string updateDate(const DbfHeader& header) {
    constexpr int kPivot = 80;
    const int year = header.UpdateYear + (header.UpdateYear < kPivot ? 2000 : 1900);
    std::tm date{};
    date.tm_year = year;
    date.tm_mon = header.UpdateMonth - 1;
    date.tm_mday = header.UpdateDay;
    if (mymktime(&date) != 0) return {};
    return fmt::format("{:04}-{:02}-{:02}", year, header.UpdateMonth, header.UpdateDay);
}

void countRecords(Table& table, Facts& facts) {
    constexpr u32 kStep = 4096;
    DbfBase* const base = table.base.get();
    Progress progress(table.path, base->Header.RecordCount);
    for (u32 record = 0; record < base->Header.RecordCount; ++record) {
        leaveIfStopped();
        if (ReadRecord(base, record) == 0) {
            leaveIfStopped();
            throw Refusal(fmt::format("{}: record {} cannot be read", table.path, record + u64{1}));
        }
        ++(base->RecordBuffer[0] == '*' ? facts.deleted : facts.live);
        if (record % kStep == kStep - 1) progress.add(kStep);
    }
}

}  // namespace

Facts factsOf(Table& table, bool withRecords) {
    Facts facts;
    DbfBase* const base = table.base.get();
    facts.updated = updateDate(base->Header);
    facts.hasMemos = base->FirstMemoField != -1;
    std::error_code error;
    if (facts.hasMemos && base->MemoFileName != nullptr) {
        const auto size = std::filesystem::file_size(base->MemoFileName, error);
        if (!error) {
            facts.memoFile = base->MemoFileName;
            facts.memoSize = size;
            facts.memoUnit = hasDBase3Memos(table) ? 512 : GetBlockSize(base);
        }
    }
    facts.indexFiles = indexFilesBeside(table.path);
    facts.indexFlag = (table.tableFlags & 1) != 0;
    facts.repairs = repairsOf(table);
    if (withRecords) countRecords(table, facts);
    return facts;
}

}  // namespace mira::tool
