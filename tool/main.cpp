// The program mira: what people with a folder of old tables need, as commands.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include "commands.h"
#include "tables/change/watch.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"
#include "terminal/message.h"
#include "terminal/name.h"
#include "terminal/progress.h"
#include "terminal/status.h"

namespace {

using namespace mira::tool;

constexpr const char* kFooter =
    "Examples:\n"
    "  mira info stock.dbf\n"
    "  mira show stock -w 'PRICE>10'\n"
    "  mira export stock -o stock.csv\n"
    "  mira export folder -o tables.db\n\n"
    "mira COMMAND --help tells more about each. Exit status: 0 done, 1 done but something was\n"
    "found or could not be kept, 2 not done.";

struct Common {
    bool quiet = false;
    bool progress = false;
    bool noProgress = false;
};

/// Options that every command takes, wherever they stand.
void addCommonOptions(CLI::App& command, Common& common) {
    command.add_flag("-q,--quiet", common.quiet, "Tell errors only");
    auto* const progress = command.add_flag("--progress", common.progress,
                                            "Show the progress, also when there is no terminal");
    command.add_flag("--no-progress", common.noProgress, "Never show the progress")
        ->excludes(progress);
}

void apply(const Common& common) {
    setQuiet(common.quiet);
    if (common.progress) setProgress(ProgressMode::Always);
    if (common.noProgress) setProgress(ProgressMode::Never);
}

/// What is hardly more than misspelt of the options that a command does not know; empty for
/// nothing.
std::string misspelt(const CLI::App& command) {
    std::vector<std::string> known;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) known.push_back("--" + name);
    }
    for (const std::string& word : command.remaining()) {
        const std::string nearest = word.starts_with("--") ? nearestName(word, known) : "";
        if (!nearest.empty()) {
            return mira::tables::textOf(word, ": no such option; did you mean ", nearest, '?');
        }
    }
    return {};
}

/// Says what is wrong with the command line.
Status refuseLine(const CLI::App& program, const CLI::ParseError& reason,
                  const std::string& first) {
    const auto chosen = program.get_subcommands();
    if (!chosen.empty()) {
        const std::string near = misspelt(*chosen.front());
        error("{}; `mira {} --help` says how", near.empty() ? reason.what() : near,
              chosen.front()->get_name());
    } else if (first.empty() || first.front() == '-') {
        error("{}; `mira --help` lists the commands", first.empty() ? "no command" : reason.what());
    } else {
        const std::string nearest = nearestCommand(program, first);
        error("{}: no such command; {}", first,
              nearest.empty() ? "`mira --help` lists them" : "did you mean " + nearest + "?");
    }
    return kFailed;
}

int runProgram(int argc, char** argv) {
    CLI::App program("The workbench for dBase-family tables (.dbf)", programName());
    Job job;
    Common common;
    program.set_version_flag("--version", programName() + " " MIRA_VERSION);
    program.require_subcommand(1);
    program.footer(inOwnName(kFooter));
    addCommands(program, job);
    addCommonOptions(program, common);
    for (CLI::App* command : program.get_subcommands(nullptr)) {
        addCommonOptions(*command, common);
        command->description(inOwnName(command->get_description()));
        command->footer(inOwnName(command->get_footer()));
    }
    try {
        program.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) {  // help, version
            program.exit(e);
            if (!std::cout.flush()) refuse("standard output: cannot be written");
            return kDone;
        }
        return refuseLine(program, e, argc > 1 ? argv[1] : "");
    }
    apply(common);
    setUnpackHook(leaveIfStopped);
    return job();
}

/// A bar while a change is undone.
void showUndoing(mira::u64 done, mira::u64 total) {
    static std::optional<Progress> bar;
    static mira::u64 shown = 0;
    if (total == 0) return bar.reset();
    if (done == 0) {
        bar.emplace("undoing", total, "bytes");
        shown = 0;
    }
    if (bar) bar->add(done - shown);
    shown = done;
}

/// Needs no memory itself.
void tellNoMemory() {
    for (const std::string_view part :
         {std::string_view(programName()), std::string_view(": no memory left\n")}) {
        static_cast<void>(!write(STDERR_FILENO, part.data(), part.size()));
    }
}

/// Without memory even an exception may find no room, and the language gives up.
[[noreturn]] void endWithoutMemory() {
    if (std::current_exception()) {
        try {
            throw;
        } catch (const std::bad_alloc&) {
        } catch (...) {
            std::abort();
        }
    }
    tellNoMemory();
    _exit(kFailed);
}

/// Before the statics of the libraries that main builds on.
[[gnu::constructor(101)]] void watchMemory() { std::set_terminate(endWithoutMemory); }

}  // namespace

int main(int argc, char** argv) {
    setProgramName(argc > 0 ? argv[0] : nullptr);
    watchSignals();
    mira::tables::watchUndoing(showUndoing);
    try {
        return runProgram(argc, argv);
    } catch (const Stopped&) {
        return stopStatus();
    } catch (const Refusal& refusal) {
        tellError(refusal.what());
    } catch (const std::bad_alloc&) {
        hideProgress();
        tellNoMemory();
    } catch (const std::exception& e) {
        tellError(e.what());
    }
    return kFailed;
}
