// mira delete, mira recall: deletion marks.
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
    WhichOptions which;
    ChangeOptions change;
};

struct Marking {
    const char* command;
    const char* verb;
    Deleted from;
    int (*mark)(DbfBase*, u32 position);
};
constexpr Marking kDelete = {"delete", "deleted", Deleted::Skip, DeleteRecord};
constexpr Marking kRecall = {"recall", "recalled", Deleted::Only, RecallRecord};

/// Marks the records of a selection.
void markRecords(Selection& selection, const Marking& marking, const ChangeOptions& options) {
    Table& table = *selection.table;
    Progress progress(table.path, selection.end - selection.position);
    while (nextRow(selection)) {
        progress.add(1);
        if (options.dryRun) continue;
        if (selection.rows == 1) beginChange(table, options);
        if (marking.mark(table.base.get(), selection.position - 1) == 0) {
            throw Refusal(fmt::format("{}: record {} cannot be written; {} before it {}",
                                      table.path, u64{selection.cells.record} + 1,
                                      counted(selection.rows - 1, "record"), marking.verb));
        }
    }
}

Status run(const Options& options, const Marking& marking) {
    checkWhich(options.which, marking.command);
    SelectOptions select = options.which.select;
    select.deleted = marking.from;
    const auto selection = selectFrom(openToChange(options.name, tableOptions(select)), select);
    changeAndTell(*selection, marking.verb, options.change,
                  [&] { markRecords(*selection, marking, options.change); });
    return kDone;
}

Status runDelete(const Options& options) { return run(options, kDelete); }
Status runRecall(const Options& options) { return run(options, kRecall); }

void addCommand(CLI::App& program, Job& job, const char* name, const char* what, const char* footer,
                Status (*start)(const Options&)) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand(name, what);
    command.add_option("TABLE", options->name, "The table")->required();
    addWhichOptions(command, options->which);
    addChangeOptions(command, options->change);
    command.footer(footer);
    whenChosen(command, job, options, start);
}

}  // namespace

void addDelete(CLI::App& program, Job& job) {
    addCommand(program, job, "delete", "Mark records deleted; `mira pack` takes them out",
               "Examples:\n"
               "  mira delete stock -w 'QTY=0' --dry-run\n"
               "  mira delete stock -w 'QTY=0'",
               runDelete);
}

void addRecall(CLI::App& program, Job& job) {
    addCommand(program, job, "recall", "Take deletion marks away",
               "Examples:\n"
               "  mira recall stock --all",
               runRecall);
}

}  // namespace mira::tool
