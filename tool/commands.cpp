#include "commands.h"

namespace mira::tool {

// The table of commands. Each stands in a file of its name.
using AddCommand = void(CLI::App& program, Job& job);
AddCommand addInfo, addTables, addShow, addExport, addQuery, addPage, addMemo, addImport, addAppend,
    addAdd, addAlter, addSet, addDelete, addRecall, addPack, addZap, addReindex, addUndo, addCheck,
    addDiff, addRepair, addHelp, addCompletion;

namespace {
constexpr AddCommand* kCommands[] = {
    addInfo,    addTables, addShow,  addExport, addQuery,  addPage,   addMemo,      addImport,
    addAppend,  addAdd,    addSet,   addDelete, addAlter,  addRecall, addPack,      addZap,
    addReindex, addUndo,   addCheck, addDiff,   addRepair, addHelp,   addCompletion};
}  // namespace

void addCommands(CLI::App& program, Job& job) {
    for (AddCommand* const add : kCommands) add(program, job);
}

}  // namespace mira::tool
