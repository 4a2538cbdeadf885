// What the commands share. Each adds itself to the program: its options, its help, and what it
// does.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "rows/output.h"
#include "terminal/status.h"

namespace mira::tool {

/// What the command line asks for, filled in once the whole line is parsed.
using Job = std::function<Status()>;

/// The command nearest to a mistyped one; empty when none is near.
std::string nearestCommand(const CLI::App& program, const std::string& name);

/// A new command, and its options, which live as long as the command.
template <typename Options>
std::pair<CLI::App&, Options&> newCommand(CLI::App& program, Job& job, const char* name,
                                          const char* what, Status (*run)(const Options&),
                                          const char* footer) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand(name, what);
    command.footer(footer);
    command.callback([&job, options, run] { job = [options, run] { return run(*options); }; });
    return {command, *options};
}

/// Tables and folders as a command takes them.
struct TableNames {
    std::vector<std::string> names;
    bool recursive = false;
};
/// Adds them and --recursive to a command.
CLI::Option* addTableNames(CLI::App& command, TableNames& names);

/// Works on one table after the other. One that is refused is told, after what has been put out,
/// and the others go on. The gravest status; kFailed when all were refused.
Status eachTable(const std::vector<std::string>& tables,
                 const std::function<Status(const std::string&)>& work, Output* out = nullptr);

}  // namespace mira::tool
