// mira set: values into the fields of chosen records.
#include "command/command.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    std::vector<std::string> assignments;
    WhichOptions which;
    ChangeOptions change;
};

struct Assignment {
    const Column* column;
    Encoded value;
};

/// FIELD=VALUE, checked. A value of "" is an empty text where nothing would be null.
Assignment assignmentOf(Table& table, const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        refuse("\"", text, "\": FIELD=VALUE, such as PRICE=12.50");
    }
    const Column& column = columnNamed(table, text.substr(0, equals));
    const std::string value = text.substr(equals + 1);
    const Given given = value == "\"\"" ? Given::cell("", true) : Given::cell(value);
    Assignment assignment{&column, {}};
    const std::string reason = encodeValue(table, column, given, false, assignment.value);
    if (!reason.empty()) refuse(table.path, ": ", column.name, ": ", reason);
    return assignment;
}

std::vector<Assignment> assignmentsOf(Table& table, const std::vector<std::string>& texts) {
    std::vector<Assignment> assignments;
    for (const std::string& text : texts) {
        assignments.push_back(assignmentOf(table, text));
        for (std::size_t i = 0; i + 1 < assignments.size(); ++i) {
            if (assignments[i].column != assignments.back().column) continue;
            refuse(assignments[i].column->name, " is given twice");
        }
    }
    return assignments;
}

Status run(const Options& options) {
    const auto selection = selectToChange(options.which, options.name, "change", Deleted::Skip);
    Table& table = *selection->table;
    const std::vector<Assignment> assignments = assignmentsOf(table, options.assignments);
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
