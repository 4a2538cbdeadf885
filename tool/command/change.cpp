#include "command/change.h"

#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "terminal/message.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

void changeAll(Selection& selection, const ChangeOptions& options,
               const std::function<bool(u32)>& change) {
    while (nextRow(selection)) {
        if (options.dryRun) continue;
        if (selection.rows == 1) beginChange(*selection.table, options);
        if (change(selection.position - 1)) continue;
        --selection.rows;
        refuse(selection.table->path, ": record ", u64{selection.cells.record} + 1,
               " cannot be written");
    }
}

void tellChanged(const Selection& selection, const char* verb, const ChangeOptions& options) {
    Table& table = *selection.table;
    if (selection.rows != 0 && !options.dryRun) stampDate(table);
    note("{}: {} of {} {}{}", table.path, selection.rows,
         counted(table.base->Header.RecordCount, "record"), options.dryRun ? "would be " : "",
         verb);
}

}  // namespace

void addChangeOptions(CLI::App& command, ChangeOptions& options) {
    command.add_flag("--no-backup", options.noBackup, "Make no backup copies (.bak, .tbk)");
    command.add_flag("--dry-run", options.dryRun, "Only tell what would be done");
}

void addForceOption(CLI::App& command, ChangeOptions& options) {
    command.add_flag("--force", options.force, "Also beside a .shp file");
}

std::unique_ptr<Table> openToChange(const std::string& name, const TableOptions& options) {
    TableOptions writable = options;
    writable.writable = true;
    auto table = openTable(name, writable);
    checkWritable(*table);
    return table;
}

void refuseBesideShapes(const Table& table, const ChangeOptions& options) {
    if (!options.force) refuseBesideShapes(table, "--force changes them all the same");
}

void beginChange(const Table& table, const ChangeOptions& options) {
    if (const std::string stale = staleIndexes(table); !stale.empty()) note("{}", stale);
    if (!options.noBackup) makeBackups(table);
}

void addWhichOptions(CLI::App& command, WhichOptions& options) {
    addFilterOptions(command, options.select);
    command.add_flag("--all", options.all, "All records, without a filter");
    addTableOptions(command, options.select.table);
}

std::unique_ptr<Selection> selectToChange(const WhichOptions& options, const std::string& table,
                                          const char* what, Deleted deleted) {
    SelectOptions select = options.select;
    if (options.all && !select.where.empty()) refuse("-w FILTER or --all, not both");
    if (!options.all && select.where.empty()) {
        refuse("-w FILTER says which records to ", what, "; --all takes all");
    }
    select.deleted = deleted;
    return selectFrom(openToChange(table, select.table), select);
}

void changeRecords(Selection& selection, const char* verb, const ChangeOptions& options,
                   const std::function<bool(u32 position)>& change) {
    try {
        changeAll(selection, options, change);
    } catch (...) {
        tellChanged(selection, verb, options);
        throw;
    }
    tellFaults(selection);
    tellChanged(selection, verb, options);
}

}  // namespace mira::tool
