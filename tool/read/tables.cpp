// mira tables: a line per table of a folder.
#include <filesystem>

#include "command/command.h"
#include "read/facts.h"
#include "rows/grid.h"
#include "select/opening.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

struct Options {
    std::string folder = ".";
    bool recursive = false;
    TableOptions table;
};

std::vector<std::string> rowOf(Table& table, const std::string& folder, Listing& listing) {
    const Facts facts = factsOf(table, false, &listing);
    const std::string name = std::filesystem::path(table.path).lexically_relative(folder).string();
    return {escaped(name.empty() ? table.path : name),
            std::string(table.flavour),
            std::to_string(table.base->Header.RecordCount),
            std::to_string(table.columns.size()),
            !facts.hasMemos          ? ""
            : facts.memoFile.empty() ? "missing"
                                     : std::to_string(facts.memoSize),
            pageName(*table.page.page) + (table.page.uncertain ? " (" + table.page.from + ")" : ""),
            escaped(joined(facts.repairs, "; "))};
}

Status run(const Options& options) {
    Grid grid;
    grid.columns = {{"table"},        {"flavour"},          {"records", true},
                    {"fields", true}, {"memo bytes", true}, {"code page"},
                    {"repaired"}};
    if (!isInArchive(options.folder) && !std::filesystem::is_directory(options.folder)) {
        refuse(options.folder, ": no such folder");
    }
    std::vector<std::vector<std::string>> rows;
    Listing listing;
    const auto addRow = [&](const std::string& path) {
        rows.push_back(rowOf(*openToRead(path, options.table, &listing), options.folder, listing));
        return kDone;
    };
    const Status status =
        eachTable(findToRead({options.folder}, options.recursive, &listing), addRow);
    Output out(targetOf("-"), false);
    if (!rows.empty()) putGrid(out, grid, rows);
    out.finish();
    return status;
}

}  // namespace

void addTables(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "tables", "The tables of a folder, a line each", run,
                   "Examples:\n"
                   "  mira tables\n"
                   "  mira tables folder -R");
    command.add_option("folder", options.folder, "Folder; the current one when not given")
        ->type_name("FOLDER");
    command.add_flag("-R,--recursive", options.recursive, "Folders below it, too");
    command.add_option("--code-page", options.table.codePage, "Code page of the texts")
        ->type_name("NAME");
}

}  // namespace mira::tool
