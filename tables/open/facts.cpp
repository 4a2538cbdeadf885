#include "tables/open/facts.h"

#include <cstdio>
#include <filesystem>

#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/escape.h"
#include "tables/page/json.h"
#include "tables/page/text.h"
#include "tables/value/memo.h"

namespace mira::tables {
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
    char text[16];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d", year, header.UpdateMonth, header.UpdateDay);
    return text;
}

std::string fieldJson(const Table& table, const Column& column) {
    JsonObject field;
    field.text("name", column.name);
    field.text("type", escaped(std::string(1, column.type)));
    field.text("type_name", typeName(table, column));
    field.number("length", column.length);
    field.number("decimals", column.decimals);
    field.truth("may_be_null", column.mayBeNull());
    field.truth("binary", column.untranslated);
    field.raw("next", isCounting(column) ? std::to_string(column.nextValue) : "null");
    return field.whole();
}

}  // namespace

std::string factsJson(const Table& table, const Facts& facts) {
    JsonObject object;
    object.text("file", table.path);
    object.number("version", table.storedVersion);
    object.text("flavour", table.flavour);
    object.textOrNull("updated", facts.updated);
    object.text("code_page", pageName(*table.page.page));
    object.text("code_page_from", table.page.from);
    object.number("records", table.base->Header.RecordCount);
    object.raw("deleted", facts.counted ? std::to_string(facts.deleted) : "null");
    object.number("records_in_header", table.storedCount);
    object.number("header_length", table.base->Header.HeaderLength);
    object.number("record_length", table.base->Header.RecordLength);
    object.textOrNull("memo_file", facts.memoFile);
    object.number("memo_block", facts.memoUnit);
    object.number("memo_bytes", facts.memoSize);
    object.texts("index_files", facts.indexFiles);
    object.textOrNull("container", table.container);
    std::vector<std::string> fields;
    for (const Column& column : table.columns) fields.push_back(fieldJson(table, column));
    object.raw("fields", textOf('[', joined(fields, ","), ']'));
    object.texts("repairs", facts.repairs);
    object.texts("notes", table.notes);
    return object.whole();
}

Facts factsOf(const Table& table) {
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
    facts.indexFiles = indexFilesBeside(table.path);
    facts.indexFlag = (table.tableFlags & 1) != 0;
    facts.repairs = repairsOf(table);
    return facts;
}

std::string typeName(const Table& table, const Column& column) {
    if (column.type == 'V') return "Varchar";
    if (column.type == 'P') return "Picture";
    return GetTypeName(table.base.get(), column.field);
}

}  // namespace mira::tables
