// mira delete, mira recall: deletion marks.
#include "command/change.h"
#include "command/commands.h"

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
    u8 before, after;  // the mark
};
constexpr Marking kDelete = {"delete", "deleted", Deleted::Skip, DeleteRecord, ' ', '*'};
constexpr Marking kRecall = {"recall", "recalled", Deleted::Only, RecallRecord, '*', ' '};

/// A mark that cannot be read is no failure for the library, and stays as it was set before.
bool markRecord(DbfBase* base, u32 position, const Marking& marking) {
    base->DeleteFlag = marking.before;
    return marking.mark(base, position) != 0 && base->DeleteFlag == marking.after;
}

Status run(const Options& options, const Marking& marking) {
    const auto selection =
        selectToChange(options.which, options.name, marking.command, marking.from);
    DbfBase* const base = selection->table->base.get();
    changeRecords(*selection, marking.verb, options.change,
                  [&](u32 position) { return markRecord(base, position, marking); });
    return kDone;
}

Status runDelete(const Options& options) { return run(options, kDelete); }
Status runRecall(const Options& options) { return run(options, kRecall); }

void addCommand(CLI::App& program, Job& job, const char* name, const char* what,
                Status (*start)(const Options&), const char* footer) {
    const auto [command, options] = newCommand(program, job, name, what, start, footer);
    command.add_option("TABLE", options.name, "The table")->required();
    addWhichOptions(command, options.which);
    addChangeOptions(command, options.change);
}

}  // namespace

void addDelete(CLI::App& program, Job& job) {
    addCommand(program, job, "delete", "Mark records deleted; `mira pack` takes them out",
               runDelete,
               "Examples:\n"
               "  mira delete stock -w 'QTY=0' --dry-run\n"
               "  mira delete stock -w 'QTY=0'");
}

void addRecall(CLI::App& program, Job& job) {
    addCommand(program, job, "recall", "Take deletion marks away", runRecall,
               "Examples:\n"
               "  mira recall stock --all");
}

}  // namespace mira::tool
