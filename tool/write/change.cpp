#include "write/change.h"

#include <utility>

#include "select/records.h"
#include "tables/change/backup.h"
#include "tables/change/recovery.h"
#include "tables/index/rebuild.h"
#include "tables/index/stale.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

void tellChanged(const Selection& selection, const char* verb, const ChangeOptions& options) {
    const Table& table = *selection.table;
    note("{}: {} of {} {}{}", table.path, selection.rows,
         counted(table.base->Header.RecordCount, "record"), options.dryRun ? "would be " : "",
         verb);
}

}  // namespace

std::unique_ptr<Table> openToChange(const std::string& name, const TableOptions& options) {
    Opened opened = openForChange(name, options);
    for (const std::string& sentence : opened.notes) tellError(sentence);
    return std::move(opened.table);
}

void refuseBesideShapes(const Table& table, const ChangeOptions& options) {
    if (!options.force) refuseBesideShapes(table, "--force changes them all the same");
}

BackupPlan backupsOf(const ChangeOptions& options) { return {!options.noBackup, options.backups}; }

IndexPlan indexOf(const Table& table, const ChangeOptions& options) {
    return options.reindex ? planReindex(table, watchPasses(table)) : IndexPlan{};
}

void tellStale(const Table& table, const Touched& touched, const ChangeOptions& options) {
    if (options.reindex) return;
    for (const std::string& stale : staleIndexes(table, touched)) note("{}", stale);
}

Changing::Changing(Table& table, const ChangeOptions& options)
    : table_(table), options_(options), path_(table.path) {
    IndexPlan index = indexOf(table, options);
    change_.emplace(table, backupsOf(options));
    change_->reindex(std::move(index));
}

void Changing::commit() {
    change_->commit();
    committed_ = true;
    tellStale(table_, change_->touched(), options_);
}

Changing::~Changing() {
    const std::string later = change_->undo();
    if (!later.empty()) {
        error("{}: {}", path_, later);
    } else if (stopped() && !committed_) {
        note("{}: stopped; nothing is changed", path_);
    }
}

void addWhichOptions(CLI::App& command, WhichOptions& options) {
    addFilterOptions(command, options.select);
    command.add_flag("--all", options.all, "All records, without a filter or numbers");
    addTableOptions(command, options.select.table);
}

std::unique_ptr<Selection> selectToChange(const WhichOptions& options, const std::string& table,
                                          const char* what, Deleted deleted) {
    SelectOptions select = options.select;
    const bool chosen = !select.where.empty() || !select.records.empty();
    if (options.all && chosen) refuse("-w FILTER or --all, not both");
    if (!options.all && !chosen) {
        refuse("-w FILTER says which records to ", what, "; --all takes all");
    }
    select.deleted = deleted;
    return selectFrom(openToChange(table, select.table), select);
}

void changeRecords(Selection& selection, const char* verb, const ChangeOptions& options,
                   const std::function<void(Change&, u32 record)>& work) {
    std::optional<Changing> changing;
    while (nextRow(selection)) {
        if (options.dryRun) continue;
        if (!changing) changing.emplace(*selection.table, options);
        work(**changing, selection.cells.record);
    }
    leaveIfStopped();
    if (changing) changing->commit();
    tellFaults(selection);
    tellChanged(selection, verb, options);
}

}  // namespace mira::tool
