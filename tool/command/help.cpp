// mira help: what --help of a command prints.
#include <iostream>

#include "command/command.h"
#include "tables/page/refusal.h"

namespace mira::tool {
namespace {

struct Options {
    const CLI::App* program = nullptr;
    std::string command;
};

Status run(const Options& options) {
    const CLI::App* shown = options.program;
    if (!options.command.empty()) {
        const auto found = options.program->get_subcommands(
            [&](const CLI::App* command) { return command->get_name() == options.command; });
        shown = found.empty() ? nullptr : found.front();
        if (shown == nullptr) {
            const std::string nearest = nearestCommand(*options.program, options.command);
            refuse(options.command, ": no such command; ",
                   nearest.empty() ? "`mira help` lists them" : "did you mean " + nearest + "?");
        }
    }
    std::cout << shown->help(shown == options.program ? "" : options.program->get_name());
    if (!std::cout.flush()) refuse("standard output: cannot be written");
    return kDone;
}

}  // namespace

void addHelp(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "help", "Show the options and examples of a command", run,
                   "Examples:\n"
                   "  mira help\n"
                   "  mira help export");
    options.program = &program;
    command.add_option("command", options.command, "The command")->type_name("COMMAND");
}

}  // namespace mira::tool
