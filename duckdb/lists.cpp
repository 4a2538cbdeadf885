// dbf_info and dbf_warnings: short lists of texts and numbers.
#include <atomic>
#include <functional>
#include <variant>

#include "duckdb/chunk.h"
#include "duckdb/functions.h"
#include "duckdb/names.h"
#include "tables/change/append.h"
#include "tables/facts/facts.h"

namespace mira::duck {
namespace {

using Cell = std::variant<std::monostate, i64, std::string>;  // nothing: NULL
using Line = std::vector<Cell>;

struct ListColumn {
    const char* name;
    bool text;
};

constexpr idx_t kLines = 64;  // at once, as each may be long

struct List {
    std::size_t count = 0;
    std::function<Line(std::size_t)> line{};
};

/// Declares the columns and hands over the list.
template <std::size_t N>
void bindList(duckdb_bind_info info, const ListColumn (&columns)[N], List list) {
    for (const ListColumn& column : columns) {
        duckdb_bind_add_result_column(
            info, column.name, Type(column.text ? DUCKDB_TYPE_VARCHAR : DUCKDB_TYPE_BIGINT).get());
    }
    duckdb_bind_set_cardinality(info, list.count, true);
    duckdb_bind_set_bind_data(info, std::make_unique<List>(std::move(list)).release(),
                              destroy<List>);
}

using Next = std::atomic<std::size_t>;

void initList(duckdb_init_info info) {
    duckdb_init_set_init_data(info, std::make_unique<Next>(0).release(), destroy<Next>);
}

void putCell(const Cell& cell, duckdb_vector to, idx_t row) {
    if (const auto* const text = std::get_if<std::string>(&cell)) return putText(to, row, *text);
    if (const auto* const number = std::get_if<i64>(&cell)) {
        static_cast<i64*>(duckdb_vector_get_data(to))[row] = *number;
        return;
    }
    putNull(to, row);
}

void fillList(duckdb_function_info info, duckdb_data_chunk chunk) {
    const List& list = *static_cast<List*>(duckdb_function_get_bind_data(info));
    Next& next = *static_cast<Next*>(duckdb_function_get_init_data(info));
    idx_t row = 0;
    for (; row < kLines && next < list.count; ++row) {
        const Line line = list.line(next++);
        for (idx_t i = 0; i < line.size(); ++i) {
            putCell(line[i], duckdb_data_chunk_get_vector(chunk, i), row);
        }
    }
    duckdb_data_chunk_set_size(chunk, row);
}

bool addList(duckdb_connection connection, TableFunction& function,
             duckdb_table_function_bind_t bind) {
    duckdb_table_function_set_bind(function.get(), bind);
    duckdb_table_function_set_init(function.get(), initGuarded<initList>);
    duckdb_table_function_set_function(function.get(), fillGuarded<fillList>);
    return function.addTo(connection);
}

// --------------------------------------------------------------------------------------------
// Tables
// --------------------------------------------------------------------------------------------

constexpr ListColumn kInfoColumns[] = {
    {"file", true},           {"flavour", true}, {"records", false},  {"fields", false},
    {"record_length", false}, {"updated", true}, {"code_page", true}, {"code_page_from", true},
    {"memo_file", true},      {"error", true},   {"json", true},
};

Cell textOrNull(const std::string& text) { return text.empty() ? Cell{} : Cell{text}; }

Line infoLine(const std::string& path, const std::optional<std::string>& page) {
    const auto table = arrow::openFor(path.c_str(), page ? page->c_str() : nullptr, false);
    tables::loadCounters(*table);
    tables::Facts facts = tables::factsOf(*table);
    tables::addIndexes(*table, false, facts);
    const auto& header = table->base->Header;
    return {table->path,
            std::string(table->flavour),
            i64{header.RecordCount},
            static_cast<i64>(table->columns.size()),
            i64{header.RecordLength},
            textOrNull(facts.updated),
            std::string(tables::pageName(*table->page.page)),
            std::string(table->page.from),
            textOrNull(facts.memoFile),
            Cell{},
            tables::factsJson(*table, facts)};
}

void bindInfo(duckdb_bind_info info) {
    const Value page(duckdb_bind_get_named_parameter(info, "code_page"));
    const auto given = page.given() ? std::optional(page.text()) : std::nullopt;
    auto names = tablesNamed(Value(duckdb_bind_get_parameter(info, 0)).texts());
    const bool alone = names.size() == 1;
    const std::size_t count = names.size();
    // One of many that is no table has its reason as its line.
    const auto line = [alone, given, names = std::move(names)](std::size_t i) -> Line {
        try {
            return infoLine(names[i], given);
        } catch (const tables::Refusal& refusal) {
            if (alone) throw;
            Line failed(std::size(kInfoColumns));
            failed.front() = names[i];
            failed[failed.size() - 2] = std::string(refusal.what());
            return failed;
        }
    };
    bindList(info, kInfoColumns, {count, line});
}

// --------------------------------------------------------------------------------------------
// Warnings
// --------------------------------------------------------------------------------------------

constexpr ListColumn kWarningColumns[] = {
    {"read", false},   {"file", true},  {"kind", true},     {"count", false},
    {"record", false}, {"field", true}, {"sentence", true},
};

void bindWarnings(duckdb_bind_info info) {
    const auto& warnings = *static_cast<SharedWarnings*>(duckdb_bind_get_extra_info(info));
    std::vector<Line> lines;
    for (const Warning& warning : warnings->all()) {
        const auto read = static_cast<i64>(warning.read);
        for (const std::string& note : warning.notes) {
            lines.push_back({read, warning.path, std::string("note"), {}, {}, {}, note});
        }
        for (const arrow::ToldFault& fault : arrow::faultsOf(warning.met)) {
            lines.push_back({read, warning.path, fault.kind, static_cast<i64>(fault.count),
                             static_cast<i64>(fault.record), fault.field,
                             arrow::sentenceOf(warning.path, fault)});
        }
    }
    const std::size_t count = lines.size();
    bindList(info, kWarningColumns,
             {count, [lines = std::move(lines)](std::size_t i) { return lines[i]; }});
}

}  // namespace

bool addInfo(duckdb_connection connection) {
    TableFunction function("dbf_info");
    duckdb_table_function_add_parameter(function.get(), Type(DUCKDB_TYPE_ANY).get());
    duckdb_table_function_add_named_parameter(function.get(), "code_page",
                                              Type(DUCKDB_TYPE_VARCHAR).get());
    return addList(connection, function, bindGuarded<bindInfo>);
}

bool addWarnings(duckdb_connection connection, const SharedWarnings& warnings) {
    TableFunction function("dbf_warnings");
    function.keep(warnings);
    return addList(connection, function, bindGuarded<bindWarnings>);
}

}  // namespace mira::duck
