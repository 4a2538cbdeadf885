// mira undo: the newest backup back in place.
#include "tables/change/undo.h"

#include "command/command.h"
#include "tables/open/open.h"
#include "terminal/message.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    bool dryRun = false;
};

Status run(const Options& options) {
    const HoldSignals held;
    const Undone undone = options.dryRun ? wouldUndo(options.name) : undoLast(options.name);
    for (const std::string& sentence : undone.notes) tellError(sentence);
    note("{}: {} {} with it", undone.table, undone.backup,
         options.dryRun ? "would be exchanged" : "is exchanged");
    if (!options.dryRun) tellStale(*openTable(undone.table, {}), {.records = true}, {});
    return kDone;
}

}  // namespace

void addUndo(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "undo", "Put the newest backup back; a second time: as before", run,
        "Examples:\n"
        "  mira undo stock");
    command.add_option("TABLE", options.name, "The table")->required();
    command.add_flag("--dry-run", options.dryRun, "Only tell what would be done");
}

}  // namespace mira::tool
