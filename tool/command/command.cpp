#include "command/command.h"

#include "tables/page/refusal.h"
#include "terminal/message.h"

namespace mira::tool {

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
