// mira add: one record to the end of a table.
#include <algorithm>

#include "command/command.h"
#include "tables/change/append.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/status.h"
#include "write/assignment.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    std::vector<std::string> assignments;
    TableOptions table;
    ChangeOptions change;
};

/// A value for every column: what is given, else a blank, or the next one of a counting field.
std::vector<Assignment> recordOf(Table& table, const std::vector<std::string>& texts) {
    loadCounters(table);
    std::vector<Assignment> record = assignmentsOf(table, texts, true);
    for (const Column& column : table.columns) {
        const bool given = std::any_of(record.begin(), record.end(),
                                       [&](const Assignment& a) { return a.column == &column; });
        if (given) continue;
        record.push_back({&column, {}});
        const std::string reason = encodeValue(table, column, Given{}, true, record.back().value);
        if (!reason.empty()) refuse(table.path, ": ", column.name, ": ", reason);
    }
    return record;
}

Status run(const Options& options) {
    const auto table = openToChange(options.name, options.table);
    refuseBesideShapes(*table, options.change);
    const std::vector<Assignment> record = recordOf(*table, options.assignments);
    const u64 number = u64{table->base->Header.RecordCount} + 1;
    if (!options.change.dryRun) {
        Changing changing(*table, options.change);
        newRecord(*table);
        for (const auto& [column, value] : record) changing->put(*column, value);
        advanceCounters(*table);
        changing->appendRecord();
        leaveIfStopped();
        changing.commit();
    }
    tellPage(*table);
    note("{}: record {} {}added", table->path, number, options.change.dryRun ? "would be " : "");
    return kDone;
}

}  // namespace

void addAdd(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "add", "Add a record", run,
                   "Examples:\n"
                   "  mira add stock CODE=BLT080 'ITEM=Bolt M8 x 80' PRICE=0.55");
    command.add_option("TABLE", options.name, "The table")->required();
    command.add_option("VALUES", options.assignments, "Fields and their values, FIELD=VALUE")
        ->required();
    addTableOptions(command, options.table);
    addChangeOptions(command, options.change);
    addForceOption(command, options.change);
}

}  // namespace mira::tool
