// mira zap: a table without its records.
#include <unistd.h>

#include <cstdio>

#include "command/command.h"
#include "tables/change/pack.h"
#include "tables/change/swap.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    bool yes = false;
    ChangeOptions change;
};

/// Asks on the terminal; throws a Refusal without one.
bool isWanted(const Table& table) {
    if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
        refuse(table.path, ": no terminal to ask on; -y takes all records out unasked");
    }
    fmt::print(stderr, "Take all {} out of {}? [y/N] ",
               counted(table.base->Header.RecordCount, "record"), escaped(table.path));
    char answer[16] = {};
    const bool answered = std::fgets(answer, sizeof answer, stdin) != nullptr;
    leaveIfStopped();
    return answered && (answer[0] == 'y' || answer[0] == 'Y');
}

Status run(const Options& options) {
    const auto table = openToChange(options.name, {});
    refuseBesideShapes(*table, options.change);
    const u32 count = table->base->Header.RecordCount;
    if (!options.change.dryRun) {
        if (!options.yes && !isWanted(*table)) {
            note("{}: nothing changed", table->path);
            return kDone;
        }
        const IndexPlan index = indexOf(*table, options.change);
        finishPack(*table);
        Swap swap(table->path, memoFileOf(*table));
        packInto(*table, swap, Kept::None, leaveIfStopped);
        swap.commit(backupsOf(options.change), memoFileOf(*table), index);
        tellStale(*table, {.records = true}, options.change);
    }
    note("{}: {} {}taken out", table->path, counted(count, "record"),
         options.change.dryRun ? "would be " : "");
    return kDone;
}

}  // namespace

void addZap(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "zap", "Take all records out of a table", run,
                   "Examples:\n"
                   "  mira zap stock --dry-run\n"
                   "  mira zap stock -y");
    command.add_option("TABLE", options.name, "The table")->required();
    command.add_flag("-y,--yes", options.yes, "Do not ask");
    addChangeOptions(command, options.change);
    addForceOption(command, options.change);
    addReindexOption(command, options.change);
}

}  // namespace mira::tool
