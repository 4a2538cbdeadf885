// What all commands that change tables do: look first, make backups, warn of what is not kept up.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command/changeoptions.h"
#include "select/selection.h"
#include "tables.h"
#include "tables/change/change.h"
#include "tables/change/newindex.h"
#include "tables/column/column.h"

namespace mira::tool {

/// Opens a table for writing and locks it; throws a Refusal when it or its memo file cannot be
/// written, or another program changes it.
std::unique_ptr<Table> openToChange(const std::string& name, const TableOptions& options);

/// Throws a Refusal beside a ".shp" file, whose shapes go by record number.
void refuseBesideShapes(const Table& table, const ChangeOptions& options);
BackupPlan backupsOf(const ChangeOptions& options);
/// With --reindex the index that a change makes anew; without it nothing. Throws a Refusal where
/// that is not possible.
IndexPlan indexOf(const Table& table, const ChangeOptions& options);
/// Tells which index files a change has left behind, unless --reindex has taken care of them.
void tellStale(const Table& table, const Touched& touched, const ChangeOptions& options);

/// A change in place. Unless it is committed all is put back when it goes.
class Changing {
public:
    /// Makes backups. Throws a Refusal.
    Changing(Table& table, const ChangeOptions& options);
    ~Changing();
    Changing(const Changing&) = delete;
    /// Warns of index files. Throws a Refusal.
    void commit();
    Change* operator->() { return &*change_; }
    Change& operator*() { return *change_; }

private:
    const Table& table_;
    const ChangeOptions& options_;
    const std::string path_;
    std::optional<Change> change_;
    bool committed_ = false;
};

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

/// Changes the records of a selection, all of them or none, and tells what came of it, "3 of 120
/// records changed". work is given the number of the record in RecordBuffer, from 0.
void changeRecords(Selection& selection, const char* verb, const ChangeOptions& options,
                   const std::function<void(Change&, u32 record)>& work);

}  // namespace mira::tool
