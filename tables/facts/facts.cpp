#include "tables/facts/facts.h"

#include <cstdio>
#include <filesystem>

#include "tables/index/compare.h"
#include "tables/open/open.h"
#include "tables/page/escape.h"
#include "tables/page/json.h"
#include "tables/page/refusal.h"
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

std::string tagJson(const IndexFacts& index, std::size_t at) {
    const Tag& tag = index.tags[at];
    JsonObject object;
    object.text("name", tag.name);
    object.text("expression", tag.expression);
    object.text("for", tag.condition);
    object.truth("unique", tag.unique);
    object.truth("candidate", tag.candidate);
    object.truth("descending", tag.descending);
    object.text("collation", tag.collation);
    const bool counted = !tag.bitmap && !index.keys.empty();
    object.raw("keys", counted ? std::to_string(index.keys[at]) : "null");
    return object.whole();
}

std::string indexJson(const IndexFacts& index) {
    std::vector<std::string> tags;
    for (std::size_t i = 0; i < index.tags.size(); ++i) tags.push_back(tagJson(index, i));
    JsonObject object;
    object.text("file", index.path);
    object.textOrNull("kind", index.kind);
    object.raw("tags", textOf('[', joined(tags, ","), ']'));
    object.textOrNull("fault", index.fault);
    return object.whole();
}

std::string inUtf8(const Table& table, std::string_view bytes) {
    std::string text;
    toUtf8(*table.page.page, bytes, text);
    return text;
}

IndexFacts indexFacts(const Table& table, const std::string& path, bool withKeys) {
    IndexFacts facts;
    facts.path = path;
    try {
        const IndexFile file = openIndex(path);
        for (const Tag& tag : file.tags) {
            if (withKeys) facts.keys.push_back(countKeys(file, tag));
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
    std::vector<std::string> indexes;
    for (const IndexFacts& index : facts.indexes) indexes.push_back(indexJson(index));
    object.raw("indexes", textOf('[', joined(indexes, ","), ']'));
    object.textOrNull("container", table.container);
    std::vector<std::string> fields;
    for (const Column& column : table.columns) fields.push_back(fieldJson(table, column));
    object.raw("fields", textOf('[', joined(fields, ","), ']'));
    object.texts("repairs", facts.repairs);
    object.texts("notes", table.notes);
    return object.whole();
}

Facts factsOf(const Table& table, Listing* listing) {
    Facts facts;
    facts.updated = updateDate(table.base->Header);
    const std::string memos = memoFileOf(table);
    facts.hasMemos = !memos.empty();
    std::error_code error;
    const auto size =
        std::filesystem::file_size(memos.empty() ? "" : table.base->MemoFileName, error);
    if (!error) {
        facts.memoFile = memos;
        facts.memoSize = size;
        facts.memoUnit = memoUnit(table);
    }
    facts.indexFiles = indexFilesBeside(table.path, listing);
    facts.indexFlag = (table.tableFlags & 1) != 0;
    facts.repairs = repairsOf(table);
    return facts;
}

void addIndexes(const Table& table, bool withKeys, Facts& facts) {
    for (const std::string& path : facts.indexFiles) {
        facts.indexes.push_back(indexFacts(table, path, withKeys));
    }
}

std::string typeName(const Table& table, const Column& column) {
    if (column.type == 'V') return "Varchar";
    if (column.type == 'P') return "Picture";
    return GetTypeName(table.base.get(), column.field);
}

}  // namespace mira::tables
