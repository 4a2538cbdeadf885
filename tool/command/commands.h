// The commands. Each adds itself to the program: its options, its help, and what it does.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>

#include "status.h"

namespace mira::tool {

/// What the command line asks for, filled in while it is parsed.
struct Job {
    std::function<Status()> run;
};

/// Lets a command's run function be called once the whole line is parsed.
template <typename Options>
void whenChosen(CLI::App& command, Job& job, std::shared_ptr<Options> options,
                Status (*run)(const Options&)) {
    command.callback([&job, options, run] { job.run = [options, run] { return run(*options); }; });
}

void addInfo(CLI::App& program, Job& job);
void addTables(CLI::App& program, Job& job);
void addShow(CLI::App& program, Job& job);
void addExport(CLI::App& program, Job& job);
void addQuery(CLI::App& program, Job& job);
void addMemo(CLI::App& program, Job& job);
void addImport(CLI::App& program, Job& job);
void addSet(CLI::App& program, Job& job);
void addDelete(CLI::App& program, Job& job);
void addRecall(CLI::App& program, Job& job);
void addPack(CLI::App& program, Job& job);
void addZap(CLI::App& program, Job& job);
void addCheck(CLI::App& program, Job& job);

}  // namespace mira::tool
