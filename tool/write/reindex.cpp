// mira reindex: index files made anew.
#include <filesystem>

#include "command/command.h"
#include "select/records.h"
#include "tables/index/rebuild.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    TableNames tables;
    bool force = false;
};

std::string tagsOf(const IndexFile& file) {
    return file.tags.size() == 1 ? "1 tag" : fmt::format("{} tags", file.tags.size());
}

void rebuild(Table& table, const std::string& path, bool force) {
    IndexFile file = openIndex(path);
    const std::string tags = tagsOf(file);
    const std::function<void()> step = watchPasses(table);
    const std::string why = whyNotRebuilt(table, file, force, step);
    if (!why.empty()) refuse(path, ": cannot be rebuilt: ", why);
    renewIndex(table, planOf(table, std::move(file), step));
    note("{}: rebuilt, {} of {}", path, tags, counted(table.base->Header.RecordCount, "record"));
}

/// Files that are refused are told, the others are made anew.
Status reindexTable(const std::string& name, const Options& options) {
    const auto table = openToChange(name, {});
    const std::vector<std::string> files = indexFilesBeside(table->path);
    if (files.empty()) {
        note("{}: no index file beside it", table->path);
        return kDone;
    }
    return eachTable(files, [&](const std::string& path) {
        rebuild(*table, path, options.force);
        return kDone;
    });
}

/// As for tables that are refused: the gravest status, kFailed when nothing is done at all.
Status run(const Options& options) {
    bool any = false;
    const Status status = eachTable(findTables(options.tables.names, options.tables.recursive),
                                    [&](const std::string& name) {
                                        const Status one = reindexTable(name, options);
                                        any = any || one != kFailed;
                                        return one == kFailed ? kFound : one;
                                    });
    return any || status == kDone ? status : kFailed;
}

}  // namespace

void addReindex(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "reindex", "Rebuild the index files of tables (.cdx)", run,
                   "Examples:\n"
                   "  mira reindex stock\n"
                   "  mira reindex folder -R\n\n"
                   "A file is left as it is when one of its tags cannot be computed, or when its "
                   "keys\nare not those of the table, as far as records are in both.");
    addTableNames(command, options.tables)->required();
    command.add_flag("--force", options.force,
                     "Also where keys of the old index are not those of the table");
}

}  // namespace mira::tool
