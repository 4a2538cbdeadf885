#include "command/commands.h"

#include "tables/page/refusal.h"
#include "terminal/message.h"

namespace mira::tool {

// The table of commands. Each stands in a file of its name.
void addInfo(CLI::App& program, Job& job);
void addTables(CLI::App& program, Job& job);
void addShow(CLI::App& program, Job& job);
void addExport(CLI::App& program, Job& job);
void addQuery(CLI::App& program, Job& job);
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
    addInfo, addTables, addShow,   addExport, addQuery,  addMemo,      addImport, addAppend,
    addAdd,  addSet,    addDelete, addAlter,  addRecall, addPack,      addZap,    addReindex,
    addUndo, addCheck,  addDiff,   addRepair, addHelp,   addCompletion};
}  // namespace

void addCommands(CLI::App& program, Job& job) {
    for (const AddCommand add : kCommands) add(program, job);
}

std::string nearestCommand(const CLI::App& program, const std::string& name) {
    std::vector<std::string> names;
    for (const CLI::App* command : program.get_subcommands(nullptr)) {
        names.push_back(command->get_name());
    }
    return nearestName(name, names);
}

CLI::Option* addTableNames(CLI::App& command, TableNames& names) {
    command.add_flag("-R,--recursive", names.recursive, "Folders with those below them");
    return command.add_option("tables", names.names, "Tables and folders")
        ->type_name("TABLE|FOLDER");
}

Status eachTable(const std::vector<std::string>& tables,
                 const std::function<Status(const std::string&)>& work, Output* out) {
    Status status = kDone;
    bool any = false;
    for (const std::string& name : tables) {
        leaveIfStopped();
        try {
            status = worse(status, work(name));
            any = true;
        } catch (const Refusal& refusal) {
            if (out != nullptr) out->flush();
            tellError(refusal.what());
            status = kFound;
        }
    }
    return any ? status : kFailed;
}

}  // namespace mira::tool
