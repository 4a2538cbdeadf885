// What all commands that change tables do: look first, make backups, warn of what is not kept up.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "selection.h"
#include "table/table.h"

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

/// Index files that belong to a table, as far as their names or its header tell.
std::vector<std::string> indexFilesOf(const Table& table);
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
/// Throws a Refusal when neither a filter nor --all is given.
void checkWhich(const WhichOptions& options, const char* what);

/// Runs the change of a selection's records and tells what came of it, "3 of 120 records changed",
/// also when it was stopped half-way.
void changeAndTell(Selection& selection, const char* verb, const ChangeOptions& options,
                   const std::function<void()>& change);

}  // namespace mira::tool
