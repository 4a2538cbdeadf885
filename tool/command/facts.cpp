#include "command/facts.h"

#include <fmt/format.h>

#include <filesystem>

#include "select/records.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/value/memo.h"

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

u64 countDeleted(const Table& table) {
    u64 deleted = 0;
    eachRecord(table, [&](u32) {
        if (isDeleted(table)) ++deleted;
    });
    return deleted;
}

}  // namespace

Facts factsOf(Table& table, bool countRecords, Listing* listing) {
    Facts facts;
    facts.updated = updateDate(table.base->Header);
    const std::string memos = memoFileOf(table);
    facts.hasMemos = !memos.empty();
    std::error_code error;
    const auto size = std::filesystem::file_size(memos, error);
    if (!error) {
        facts.memoFile = memos;
        facts.memoSize = size;
        facts.memoUnit = memoUnit(table);
    }
    facts.indexFiles = indexFilesBeside(table.path, listing);
    facts.indexFlag = (table.tableFlags & 1) != 0;
    facts.repairs = repairsOf(table);
    if (countRecords) facts.deleted = countDeleted(table);
    return facts;
}

}  // namespace mira::tool
