// Which records and columns of a table a command works on.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tables.h"
#include "tables/column/column.h"
#include "tables/open/find.h"
#include "tables/page/text.h"
#include "tables/value/value.h"
#include "terminal/progress.h"

namespace mira::tool {

/// The options that select, the same for every command.
struct SelectOptions {
    TableOptions table;
    std::string where;
    std::vector<std::string> sort;
    bool descending = false;
    std::vector<std::string> fields, exclude;
    std::vector<std::string> calculated;  // NAME=EXPRESSION
    Deleted deleted = Deleted::Skip;
    bool recordColumn = false;
    bool ignoreCase = false;
    std::optional<u64> limit;  // none: the command's own
    u64 offset = 0;
    std::string shard;    // K/N
    std::string records;  // numbers and ranges from 1: "5,9-12"
};

/// Adds an option whose value is one of a few words, given in pairs with what they mean.
template <typename Words, typename Value>
CLI::Option* addChoice(CLI::App& command, const std::string& name, const std::string& help,
                       const std::string& typeName, const Words& words, Value& value) {
    const auto take = [name, &words, &value](const std::string& given) {
        std::vector<std::string> known;
        for (const auto& [word, meaning] : words) {
            if (given == word) {
                value = meaning;
                return;
            }
            known.emplace_back(word);
        }
        throw CLI::ValidationError(name + " " + given, "one of " + joined(known));
    };
    return command.add_option_function<std::string>(name, take, help)->type_name(typeName);
}

/// Adds an option or argument that is a number from 0.
template <typename Number>
CLI::Option* addCount(CLI::App& command, const std::string& name, const std::string& help,
                      Number& value) {
    const auto check = [](const std::string& given) {
        return given.starts_with('-') ? given + " is less than 0" : std::string();
    };
    return command.add_option(name, value, help)->type_name("N")->check(check);
}

/// Adds them all to a command.
void addSelectOptions(CLI::App& command, SelectOptions& options);
/// Those that leave the order of records as it is and add nothing.
void addCompareOptions(CLI::App& command, SelectOptions& options);
/// Only --code-page, --as-text and --long-names.
void addTableOptions(CLI::App& command, TableOptions& options);
/// Only --where, --records and --ignore-case.
void addFilterOptions(CLI::App& command, SelectOptions& options);

/// Physical records from first to before end, from 0.
struct Range {
    u32 first, end;
};

/// A table with the records in view and the columns to show. Records are read one by one.
struct Selection {
    std::unique_ptr<Table> table;
    std::vector<Column> columns;
    CellReader cells;
    Faults faults{};

    Deleted deleted = Deleted::Skip;
    u64 limit = 0, offset = 0;
    std::vector<Range> numbered{};  // the only records, where some are named: in order, apart
    u32 position = 0, end = 0;      // in the view
    DbfBase* view = nullptr;        // the handle whose filter and order count; null: the table's
    u64 rows = 0;                   // rows given out
    std::unique_ptr<Progress> progress{};  // while rows are read
};

/// Opens a table and applies everything. Throws a Refusal, or Stopped.
std::unique_ptr<Selection> selectFrom(const std::string& path, const SelectOptions& options,
                                      Listing* listing = nullptr);
/// The same for a table that is open already (for writing).
std::unique_ptr<Selection> selectFrom(std::unique_ptr<Table> opened, const SelectOptions& options);

/// Throws a Refusal when there is nothing of a row to show.
void requireColumns(const Selection& selection);

/// Reads the next row into RecordBuffer; false after the last one. Its record, from 0, is
/// cells.record, its position for WriteRecord position - 1. Throws a Refusal for a record that
/// cannot be read.
bool nextRow(Selection& selection);

/// Reads a cell of the current row; what is wrong with it is counted.
inline void readCell(Selection& selection, const Column& column, Value& value) {
    readCell(selection.cells, column, value);
    if (value.fault != Fault::None) {
        countFault(selection.faults, value.fault, selection.cells.record, column);
    }
}

/// Tells when the code page is a guess, or a default that met letters beyond ASCII.
void tellPage(const Table& table);
/// Tells what was met: values that could not be kept, notes of the table, a guessed code page. True
/// when a value could not be kept.
bool tellFaults(const Selection& selection);

}  // namespace mira::tool
