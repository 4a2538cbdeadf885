// mira tables: a line per table of a folder.
#include <filesystem>

#include "command/commands.h"
#include "command/facts.h"
#include "grid.h"
#include "message.h"
#include "selection.h"
#include "table/find.h"
#include "table/refusal.h"

namespace mira::tool {
namespace {

struct Options {
    std::string folder = ".";
    bool recursive = false;
    SelectOptions select;
};

std::string joined(const std::vector<std::string>& sentences) {
    std::string all;
    for (const std::string& sentence : sentences) all += (all.empty() ? "" : "; ") + sentence;
    return all;
}

std::vector<std::string> rowOf(Table& table, const std::string& folder) {
    const Facts facts = factsOf(table, false);
    const std::string name = std::filesystem::path(table.path).lexically_relative(folder).string();
    return {escaped(name.empty() ? table.path : name),
            std::string(flavourOf(table)),
            std::to_string(table.base->Header.RecordCount),
            std::to_string(table.columns.size()),
            !facts.hasMemos          ? ""
            : facts.memoFile.empty() ? "missing"
                                     : std::to_string(facts.memoSize),
            pageName(*table.page.page) + (table.page.uncertain ? " (" + table.page.from + ")" : ""),
            escaped(joined(facts.repairs))};
}

Status runTables(const Options& options) {
    Grid grid;
    grid.columns = {{"table"},        {"flavour"},          {"records", true},
                    {"fields", true}, {"memo bytes", true}, {"code page"},
                    {"repaired"}};
    std::vector<std::vector<std::string>> rows;
    Status status = kDone;
    if (!std::filesystem::is_directory(options.folder)) {
        throw Refusal(options.folder + ": no such folder");
    }
    for (const std::string& path : findTables({options.folder}, options.recursive)) {
        leaveIfStopped();
        try {
            rows.push_back(rowOf(*openTable(path, tableOptions(options.select)), options.folder));
        } catch (const Refusal& refusal) {
            tellError(refusal.what());
            status = kFound;
        }
    }
    if (rows.empty()) return kFailed;
    Output out(targetOf("-"), false);
    putGrid(out, grid, rows);
    out.finish();
    return status;
}

}  // namespace

void addTables(CLI::App& program, Job& job) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("tables", "The tables of a folder, a line each");
    command.footer(
        "Examples:\n"
        "  mira tables\n"
        "  mira tables folder -R");
    command.add_option("folder", options->folder, "Folder; the current one when not given")
        ->type_name("FOLDER");
    command.add_flag("-R,--recursive", options->recursive, "Folders below it, too");
    command.add_option("--code-page", options->select.codePage, "Code page of the texts")
        ->type_name("NAME");
    whenChosen(command, job, options, runTables);
}

}  // namespace mira::tool
