#include "commands.h"

namespace mira::tool {

// The table of commands. Each stands in a file of its name.
void addInfo(CLI::App& program, Job& job);
void addTables(CLI::App& program, Job& job);
void addShow(CLI::App& program, Job& job);
void addExport(CLI::App& program, Job& job);
void addQuery(CLI::App& program, Job& job);
void addPage(CLI::App& program, Job& job);
void addMemo(CLI::App& program, Job& job);
void addImport(CLI::App& program, Job& job);
void addAppend(CLI::App& program, Job& job);
void addAdd(CLI::App& program, Job& job);
void addAlter(CLI::App& program, Job& job);
void addSet(CLI::App& program, Job& job);
void addDelete(CLI::App& program, Job& job);
void addRecall(CLI::App& program, Job& job);
void addPack(CLI::App& program, Job& job);
void addZap(CLI::App& program, Job& job);
void addReindex(CLI::App& program, Job& job);
void addUndo(CLI::App& program, Job& job);
void addCheck(CLI::App& program, Job& job);
void addDiff(CLI::App& program, Job& job);
void addRepair(CLI::App& program, Job& job);
void addHelp(CLI::App& program, Job& job);
void addCompletion(CLI::App& program, Job& job);
namespace {
using AddCommand = void (*)(CLI::App& program, Job& job);
constexpr AddCommand kCommands[] = {
    addInfo,    addTables, addShow,  addExport, addQuery,  addPage,   addMemo,      addImport,
    addAppend,  addAdd,    addSet,   addDelete, addAlter,  addRecall, addPack,      addZap,
    addReindex, addUndo,   addCheck, addDiff,   addRepair, addHelp,   addCompletion};
}  // namespace

void addCommands(CLI::App& program, Job& job) {
    for (const AddCommand add : kCommands) add(program, job);
}

}  // namespace mira::tool
