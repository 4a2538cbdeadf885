// mira set: values into the fields of chosen records.
#include "change.h"
#include "command/commands.h"
#include "message.h"
#include "progress.h"
#include "table/refusal.h"
#include "table/store.h"

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
        throw Refusal("\"" + text + "\": FIELD=VALUE, such as PRICE=12.50");
    }
    const Column& column = columnNamed(table, text.substr(0, equals));
    const std::string value = text.substr(equals + 1);
    const bool empty = value == "\"\"";
    Assignment assignment{&column, {}};
    const Given given = empty ? Given::cell("", true) : Given::cell(value);
    const std::string reason = encodeValue(table, column, given, false, assignment.value);
    if (!reason.empty()) throw Refusal(table.path + ": " + column.name + ": " + reason);
    return assignment;
}

std::vector<Assignment> assignmentsOf(Table& table, const std::vector<std::string>& texts) {
    std::vector<Assignment> assignments;
    for (const std::string& text : texts) {
        assignments.push_back(assignmentOf(table, text));
        for (std::size_t i = 0; i + 1 < assignments.size(); ++i) {
            if (assignments[i].column != assignments.back().column) continue;
            throw Refusal(assignments[i].column->name + " is given twice");
        }
    }
    return assignments;
}

void changeRecords(Selection& selection, const std::vector<Assignment>& assignments,
                   const ChangeOptions& options) {
    Table& table = *selection.table;
    Progress progress(table.path, selection.end - selection.position);
    while (nextRow(selection)) {
        progress.add(1);
        if (options.dryRun) continue;
        if (selection.rows == 1) beginChange(table, options);
        for (const Assignment& assignment : assignments) {
            putValue(table, *assignment.column, assignment.value);
        }
        if (WriteRecord(table.base.get(), selection.position - 1) == 0) {
            throw Refusal(fmt::format("{}: record {} cannot be written; {} before it changed",
                                      table.path, u64{selection.cells.record} + 1,
                                      counted(selection.rows - 1, "record")));
        }
    }
}

Status run(const Options& options) {
    checkWhich(options.which, "change");
    const SelectOptions& select = options.which.select;
    auto table = openToChange(options.name, tableOptions(select));
    const std::vector<Assignment> assignments = assignmentsOf(*table, options.assignments);
    const auto selection = selectFrom(std::move(table), select);
    changeAndTell(*selection, "changed", options.change,
                  [&] { changeRecords(*selection, assignments, options.change); });
    return kDone;
}

}  // namespace

void addSet(CLI::App& program, Job& job) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("set", "Change fields of records");
    command.add_option("TABLE", options->name, "The table")->required();
    // CLI11 takes no "=" in a name since 2.4.
    command.add_option("CHANGES", options->assignments, "Fields and their new values, FIELD=VALUE")
        ->required();
    addWhichOptions(command, options->which);
    addChangeOptions(command, options->change);
    command.footer(
        "Examples:\n"
        "  mira set stock PRICE=12.50 'NAME=Bolt M8' -w 'CODE=4711'\n"
        "  mira set stock QTY= --all");
    whenChosen(command, job, options, run);
}

}  // namespace mira::tool
