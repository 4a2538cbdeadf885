#include "duckdb/options.h"

#include "tables/column/column.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"

namespace mira::duck {
namespace {

constexpr std::pair<const char*, duckdb_type> kParameters[] = {
    {"code_page", DUCKDB_TYPE_VARCHAR},    {"columns", DUCKDB_TYPE_ANY},
    {"deleted", DUCKDB_TYPE_VARCHAR},      {"exact_decimals", DUCKDB_TYPE_BOOLEAN},
    {"filename", DUCKDB_TYPE_ANY},         {"filter", DUCKDB_TYPE_VARCHAR},
    {"first", DUCKDB_TYPE_BIGINT},         {"long_names", DUCKDB_TYPE_BOOLEAN},
    {"range_records", DUCKDB_TYPE_BIGINT}, {"types", DUCKDB_TYPE_ANY},
    {"until", DUCKDB_TYPE_BIGINT},
};

Value named(duckdb_bind_info info, const char* name) {
    return Value(duckdb_bind_get_named_parameter(info, name));
}

std::optional<std::string> textOption(duckdb_bind_info info, const char* name) {
    const Value value = named(info, name);
    return value.given() ? std::optional(value.text()) : std::nullopt;
}

std::optional<u64> numberOption(duckdb_bind_info info, const char* name) {
    const Value value = named(info, name);
    if (!value.given()) return std::nullopt;
    const i64 number = duckdb_get_int64(value.get());
    if (number < 0) tables::refuse(name, ": a number of records from 0, not ", number);
    return static_cast<u64>(number);
}

bool truthOption(duckdb_bind_info info, const char* name) {
    const Value value = named(info, name);
    return value.given() && duckdb_get_bool(value.get());
}

/// As one list "A,B"; a text alone is such a list already.
std::string listOf(const std::vector<std::string>& parts) {
    if (parts.size() > 1) {
        for (const std::string& part : parts) {
            if (part.find(',') != std::string::npos) {
                tables::refuse('"', part,
                               "\": a field with a comma in its name goes by its number");
            }
        }
    }
    return tables::joined(parts, ",");
}

u8 deletedOption(duckdb_bind_info info) {
    const std::optional<std::string> word = textOption(info, "deleted");
    if (!word) return 0;
    for (const auto& [name, deleted] : tables::kDeletedWords) {
        if (*word == name) return static_cast<u8>(deleted);
    }
    tables::refuse("deleted: \"skip\", \"include\" or \"only\", not \"", *word, '"');
}

/// `true` for the name that DuckDB's other readers give it, or another name.
std::optional<std::string> sourceOption(duckdb_bind_info info) {
    const Value value = named(info, "filename");
    if (!value.given()) return std::nullopt;
    if (value.type() != DUCKDB_TYPE_BOOLEAN) return value.text();
    return duckdb_get_bool(value.get()) ? std::optional<std::string>("filename") : std::nullopt;
}

}  // namespace

MiraArrowOptions ReadOptions::forRange(u64 begin, u64 end, const char* page) const {
    const auto asText = [](const std::optional<std::string>& text) {
        return text ? text->c_str() : nullptr;
    };
    MiraArrowOptions options{};
    options.size = sizeof options;
    options.columns = asText(columns);
    options.where = asText(filter);
    options.code_page = page;
    options.types = asText(types);
    options.source = asText(source);
    options.deleted = deleted;
    options.exact_decimals = exactDecimals;
    options.long_names = longNames;
    // There an end of 0 stands for that of the table.
    options.first = begin < end ? begin : ~u64{0};
    options.end = end;
    return options;
}

void declareOptions(duckdb_table_function function) {
    for (const auto& [name, type] : kParameters) {
        duckdb_table_function_add_named_parameter(function, name, Type(type).get());
    }
}

ReadOptions optionsOf(duckdb_bind_info info) {
    ReadOptions options;
    if (const Value columns = named(info, "columns"); columns.given()) {
        options.columns = listOf(columns.texts());
    }
    if (const Value types = named(info, "types"); types.given()) {
        options.types = listOf(types.pairs());
    }
    options.filter = textOption(info, "filter");
    options.codePage = textOption(info, "code_page");
    options.source = sourceOption(info);
    options.first = numberOption(info, "first").value_or(0);
    options.until = numberOption(info, "until");
    if (options.until && *options.until < options.first) {
        tables::refuse("first and until count records from 0, until excluded");
    }
    options.rangeRecords = numberOption(info, "range_records").value_or(0);
    options.deleted = deletedOption(info);
    options.exactDecimals = truthOption(info, "exact_decimals");
    options.longNames = truthOption(info, "long_names");
    return options;
}

}  // namespace mira::duck
