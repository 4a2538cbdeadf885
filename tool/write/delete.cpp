// mira delete, mira recall: deletion marks.
#include "command/command.h"
#include "write/change.h"

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
    char mark;
};
constexpr Marking kDelete = {"delete", "deleted", Deleted::Skip, '*'};
constexpr Marking kRecall = {"recall", "recalled", Deleted::Only, ' '};

Status run(const Options& options, const Marking& marking) {
    const auto selection =
        selectToChange(options.which, options.name, marking.command, marking.from);
    changeRecords(*selection, marking.verb, options.change,
                  [&](Change& change, u32 record) { change.writeMark(record, marking.mark); });
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
    addReindexOption(command, options.change);
}

}  // namespace

void addDelete(CLI::App& program, Job& job) {
    addCommand(program, job, "delete", "Mark records deleted; `mira pack` takes them out",
               runDelete,
               "Examples:\n"
               "  mira delete stock -w 'CODE==BLT040' --dry-run\n"
               "  mira delete stock -w 'CODE==BLT040'");
}

void addRecall(CLI::App& program, Job& job) {
    addCommand(program, job, "recall", "Take deletion marks away", runRecall,
               "Examples:\n"
               "  mira recall stock --all");
}

}  // namespace mira::tool
