#include "command/facts.h"

#include <fmt/format.h>

#include <filesystem>

#include "select/records.h"
#include "tables/index/compare.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
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

std::string inUtf8(const Table& table, std::string_view bytes) {
    std::string text;
    toUtf8(*table.page.page, bytes, text);
    return text;
}

IndexFacts indexFacts(const Table& table, const std::string& path) {
    IndexFacts facts;
    facts.path = path;
    try {
        const IndexFile file = openIndex(path);
        for (const Tag& tag : file.tags) {
            facts.keys.push_back(countKeys(file, tag));
            Tag& shown = facts.tags.emplace_back(tag);
            for (std::string* text : {&shown.name, &shown.expression, &shown.condition}) {
                *text = inUtf8(table, *text);
            }
        }
        facts.kind = kindName(file.kind);
    } catch (const Refusal& damage) {
        facts.fault = damage.what();
    }
    return facts;
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
    if (countRecords) {
        for (const std::string& path : facts.indexFiles) {
            facts.indexes.push_back(indexFacts(table, path));
        }
    }
    facts.indexFlag = (table.tableFlags & 1) != 0;
    facts.repairs = repairsOf(table);
    if (countRecords) facts.deleted = countDeleted(table);
    return facts;
}

}  // namespace mira::tool
