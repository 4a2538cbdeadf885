// mira append: records of other tables to the end of one, by field name. All of them are checked
// first.
#include "tables/change/append.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "command/command.h"
#include "input/mapping.h"
#include "input/schema.h"
#include "select/opening.h"
#include "tables/change/swap.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/store/transfer.h"
#include "terminal/message.h"
#include "terminal/status.h"
#include "write/change.h"
#include "write/newtable.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    std::vector<std::string> sources;
    SelectOptions select;
    bool recursive = false, isNew = false;
    bool strict = false, lenient = false;
    ChangeOptions change;
};

/// The way of all records into the table.
struct Appender {
    const Options& options;
    const std::vector<std::string>& sources;
    Table& table;
    u64 records = 0, faults = 0;
    bool silent = false;  ///< what does not fit has been told
    std::vector<Encoded> values{};
    bool writes = false;       ///< else only what does not fit is told
    Change* change = nullptr;  ///< of a table that is there; a new one is written as it is
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
    Change* const change = appender.change;
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        const Column& column = table.columns[i];
        const Encoded& value = appender.values[i];
        change != nullptr ? change->put(column, value) : putValue(table, column, value);
    }
    if (isDeleted(*source.table)) table.base->RecordBuffer[0] = '*';
    change != nullptr ? change->appendRecord() : appendRecord(table);
}

/// Takes the records of all sources.
void takeRecords(Appender& appender) {
    std::optional<GatheredMessages> told;  // what is told of the sources has been
    if (appender.silent) told.emplace();
    appender.records = appender.faults = 0;
    loadCounters(appender.table);
    for (const std::string& name : appender.sources) {
        const auto source = selectFrom(name, appender.options.select);
        std::vector<std::string> names;
        for (const Column& column : source->columns) names.push_back(column.name);
        const Mapping mapping = mapColumns(appender.table, names, source->table->path, "field");
        while (nextRow(*source)) {
            ++appender.records;
            encodeRecord(appender, *source, mapping);
            if (appender.writes) writeRecord(appender, *source);
        }
        tellFaults(*source);
    }
}

/// Looks at all records first; then write takes them into the table.
template <typename Write>
Status appendTo(Appender& appender, const Write& write) {
    const Options& options = appender.options;
    const std::string& path = appender.table.path;
    takeRecords(appender);
    if (appender.faults != 0 && !options.lenient) {
        refuse(path, ": ", counted(appender.faults, "value"),
               appender.faults == 1 ? " does" : " do",
               " not fit, nothing is written; --lenient leaves them blank");
    }
    if (!options.change.dryRun) {
        appender.silent = appender.writes = true;
        write();
    }
    tellPage(appender.table);
    note("{}: {} {}{}", path, counted(appender.records, "record"),
         options.change.dryRun ? "would be " : "", options.isNew ? "written" : "appended");
    if (appender.faults != 0) {
        note("{}: {} did not fit and {} blank", path, counted(appender.faults, "value"),
             appender.faults == 1 ? "is" : "are");
    }
    return appender.faults != 0 ? kFound : kDone;
}

/// The tables that names and folders stand for, without the one that grows.
std::vector<std::string> sourcesOf(const Options& options, const std::string& path) {
    namespace fs = std::filesystem;
    std::vector<std::string> sources = findToRead(options.sources, options.recursive);
    const auto inFolder = [&](const std::string& source) {
        std::error_code error;
        return fs::equivalent(source, path, error) &&
               std::none_of(options.sources.begin(), options.sources.end(),
                            [&](const std::string& name) { return sameText(name, source); });
    };
    sources.erase(std::remove_if(sources.begin(), sources.end(), inFolder), sources.end());
    return sources;
}

Status create(const Options& options) {
    ChangeOptions free = options.change;
    free.force = false;  // that is about shapes
    const Target target = newTableTarget(options.name, free, "without --new it grows");
    const std::vector<std::string> sources = sourcesOf(options, target.path);
    if (sources.empty()) refuse(joined(options.sources), ": no tables");
    const TableOptions wanted{.codePage = options.select.table.codePage};
    const auto like = openToRead(sources.front(), wanted);
    Swap swap(target.path);
    makeLike({target.path, swap.newTable()}, *like, markToKeep(*like), 0);
    const auto table =
        openTable(swap.newTable(), {.codePage = pageName(*like->page.page), .writable = true});
    table->path = target.path;  // for messages: there it will be
    checkFree(*table, target, free);
    Appender appender{options, sources, *table};
    return appendTo(appender, [&] {
        takeRecords(appender);
        finishAppend(*table);
        leaveIfStopped();
        swap.commit(backupsOf(free), memoTarget(*table, target).filename().string());
    });
}

Status run(const Options& options) {
    if (options.isNew) return create(options);
    const auto table = openToChange(options.name, {.codePage = options.select.table.codePage});
    refuseBesideShapes(*table, options.change);
    const std::vector<std::string> sources = sourcesOf(options, table->path);
    Appender appender{options, sources, *table};
    return appendTo(appender, [&] {
        if (appender.records == 0) return;
        Changing changing(*table, options.change);
        appender.change = &*changing;
        takeRecords(appender);
        leaveIfStopped();
        changing.commit();
    });
}

}  // namespace

void addAppend(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "append", "Records of other tables to the end of one", run,
                   "Examples:\n"
                   "  mira append stock more other/stock\n"
                   "  mira append stock more -w 'PRICE>10' --dry-run\n"
                   "  mira append members new -x MEMBER\n"
                   "  mira append --new all folder");
    command.add_option("TABLE", options.name, "The table that grows")->required();
    command.add_option("SOURCE", options.sources, "Tables and folders whose records it gets")
        ->required();
    command.add_flag("--new", options.isNew, "Make TABLE, with the fields of the first source");
    command.add_flag("-R,--recursive", options.recursive, "Folders with those below them");
    addSelectOptions(command, options.select);
    auto* const strict = command.add_flag("--strict", options.strict,
                                          "Write nothing when a value does not fit (default)");
    command.add_flag("--lenient", options.lenient, "Leave such values blank")->excludes(strict);
    addChangeOptions(command, options.change);
    addForceOption(command, options.change);
}

}  // namespace mira::tool
