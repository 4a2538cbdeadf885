// What all commands that change tables do: look first, make backups, warn of what is not kept up.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "select/selection.h"
#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

struct ChangeOptions {
    bool noBackup = false;
    bool dryRun = false;
    bool force = false;
};

/// --no-backup and --dry-run.
void addChangeOptions(CLI::App& command, ChangeOptions& options);
/// --force, for commands that change the number or order of records.
void addForceOption(CLI::App& command, ChangeOptions& options);

/// Opens a table for writing; throws a Refusal when it or its memo file cannot be written.
std::unique_ptr<Table> openToChange(const std::string& name, const TableOptions& options);

/// Throws a Refusal beside a ".shp" file, whose shapes go by record number.
void refuseBesideShapes(const Table& table, const ChangeOptions& options);
/// Just before the first write: backups, and a warning of index files. Not to be called for
/// --dry-run.
void beginChange(const Table& table, const ChangeOptions& options);

/// Filter and --all of the commands that change records.
struct WhichOptions {
    SelectOptions select;
    bool all = false;
};
void addWhichOptions(CLI::App& command, WhichOptions& options);
/// The records to change. Throws a Refusal when neither a filter nor --all is given; what says what
/// happens to the records.
std::unique_ptr<Selection> selectToChange(const WhichOptions& options, const std::string& table,
                                          const char* what, Deleted deleted);

/// Changes the records of a selection one by one and tells what came of it, "3 of 120 records
/// changed", also when it was stopped half-way. change is given the view position of the record in
/// RecordBuffer, and returns false when that cannot be written.
void changeRecords(Selection& selection, const char* verb, const ChangeOptions& options,
                   const std::function<bool(u32 position)>& change);

}  // namespace mira::tool
