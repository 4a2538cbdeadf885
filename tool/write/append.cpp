// mira append: records of other tables to the end of one, by field name. All of them are checked
// first.
#include "tables/change/append.h"

#include <optional>

#include "command/command.h"
#include "input/mapping.h"
#include "tables/page/refusal.h"
#include "tables/store/transfer.h"
#include "terminal/message.h"
#include "terminal/status.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    std::vector<std::string> sources;
    SelectOptions select;
    bool strict = false, lenient = false;
    ChangeOptions change;
};

/// The way of all records into the table.
struct Appender {
    const Options& options;
    Table& table;
    u64 records = 0, faults = 0;
    bool silent = false;  ///< what does not fit has been told
    std::vector<Encoded> values{};
    Change* change = nullptr;  ///< null: only tell what does not fit
};

void tellValue(Appender& appender, const Selection& source, const Column& column,
               const std::string& reason) {
    ++appender.faults;
    if (appender.silent) return;
    error("{}: record {}, {}: {}", source.table->path, u64{source.cells.record} + 1, column.name,
          reason);
}

/// Encodes a record; what does not fit is told and becomes blank.
void encodeRecord(Appender& appender, Selection& source, const Mapping& mapping) {
    Table& table = appender.table;
    appender.values.resize(table.columns.size());
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const Column& column = table.columns[i];
        Encoded& value = appender.values[i];
        std::string reason;
        if (mapping.cells[i] != kNoCell) {
            reason = transferValue(source.cells, source.columns[mapping.cells[i]], table, column,
                                   Nothing::Blank, value);
            if (reason.empty()) continue;
            tellValue(appender, source, column, reason);
        }
        reason = encodeValue(table, column, Given{}, true, value);
        if (!reason.empty()) refuse(table.path, ": ", column.name, ": ", reason);
    }
    advanceCounters(table);
}

void writeRecord(Appender& appender, const Selection& source) {
    Table& table = appender.table;
    newRecord(table);
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        appender.change->put(table.columns[i], appender.values[i]);
    }
    if (isDeleted(*source.table)) table.base->RecordBuffer[0] = '*';
    appender.change->appendRecord();
}

/// Takes the records of all sources.
void takeRecords(Appender& appender) {
    std::optional<GatheredMessages> told;  // what is told of the sources has been
    if (appender.silent) told.emplace();
    appender.records = appender.faults = 0;
    loadCounters(appender.table);
    for (const std::string& name : appender.options.sources) {
        const auto source = selectFrom(name, appender.options.select);
        std::vector<std::string> names;
        for (const Column& column : source->columns) names.push_back(column.name);
        const Mapping mapping = mapColumns(appender.table, names, source->table->path, "field");
        while (nextRow(*source)) {
            ++appender.records;
            encodeRecord(appender, *source, mapping);
            if (appender.change != nullptr) writeRecord(appender, *source);
        }
        tellFaults(*source);
    }
}

Status run(const Options& options) {
    const auto table = openToChange(options.name, {.codePage = options.select.table.codePage});
    refuseBesideShapes(*table, options.change);
    Appender appender{options, *table};
    takeRecords(appender);
    if (appender.faults != 0 && !options.lenient) {
        refuse(table->path, ": ", counted(appender.faults, "value"),
               appender.faults == 1 ? " does" : " do",
               " not fit, nothing is written; --lenient leaves them blank");
    }
    if (!options.change.dryRun && appender.records != 0) {
        Changing changing(*table, options.change);
        appender.change = &*changing;
        appender.silent = true;
        takeRecords(appender);
        leaveIfStopped();
        changing.commit();
    }
    tellPage(*table);
    note("{}: {} {}appended", table->path, counted(appender.records, "record"),
         options.change.dryRun ? "would be " : "");
    if (appender.faults != 0) {
        note("{}: {} did not fit and {} blank", table->path, counted(appender.faults, "value"),
             appender.faults == 1 ? "is" : "are");
    }
    return appender.faults != 0 ? kFound : kDone;
}

}  // namespace

void addAppend(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "append", "Records of other tables to the end of one", run,
                   "Examples:\n"
                   "  mira append stock more other/stock\n"
                   "  mira append stock more -w 'PRICE>10' --dry-run\n"
                   "  mira append members new -x MEMBER");
    command.add_option("TABLE", options.name, "The table that grows")->required();
    command.add_option("SOURCE", options.sources, "Tables whose records it gets")->required();
    addSelectOptions(command, options.select);
    auto* const strict = command.add_flag("--strict", options.strict,
                                          "Write nothing when a value does not fit (default)");
    command.add_flag("--lenient", options.lenient, "Leave such values blank")->excludes(strict);
    addChangeOptions(command, options.change);
    addForceOption(command, options.change);
}

}  // namespace mira::tool
