// mira set: values into the fields of chosen records.
#include "command/command.h"
#include "write/assignment.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    std::vector<std::string> assignments;
    WhichOptions which;
    ChangeOptions change;
};

Status run(const Options& options) {
    const auto selection = selectToChange(options.which, options.name, "change", Deleted::Skip);
    Table& table = *selection->table;
    const std::vector<Assignment> assignments = assignmentsOf(table, options.assignments, false);
    changeRecords(*selection, "changed", options.change, [&](Change& change, u32 record) {
        for (const auto& [column, value] : assignments) change.put(*column, value);
        change.writeRecord(record);
    });
    return kDone;
}

}  // namespace

void addSet(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "set", "Change fields of records", run,
                   "Examples:\n"
                   "  mira set stock PRICE=12.50 'NAME=Bolt M8' -w 'CODE=4711'\n"
                   "  mira set stock QTY= --all");
    command.add_option("TABLE", options.name, "The table")->required();
    // CLI11 takes no "=" in a name since 2.4.
    command.add_option("CHANGES", options.assignments, "Fields and their new values, FIELD=VALUE")
        ->required();
    addWhichOptions(command, options.which);
    addChangeOptions(command, options.change);
    addReindexOption(command, options.change);
}

}  // namespace mira::tool
