#include "change.h"

#include <filesystem>

#include "message.h"
#include "status.h"
#include "table/find.h"
#include "table/refusal.h"
#include "table/store.h"

namespace mira::tool {
namespace {

constexpr u8 kIndexFlag = 1;  // header byte 28

std::string joined(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) (list += list.empty() ? "" : ", ") += name;
    return list;
}

}  // namespace

void addChangeOptions(CLI::App& command, ChangeOptions& options) {
    command.add_flag("--no-backup", options.noBackup, "Make no backup copies (.bak, .tbk)");
    command.add_flag("--dry-run", options.dryRun, "Only tell what would be done");
}

void addForceOption(CLI::App& command, ChangeOptions& options) {
    command.add_flag("--force", options.force, "Also beside a .shp file");
}

std::unique_ptr<Table> openToChange(const std::string& name, const TableOptions& options) {
    TableOptions writable = options;
    writable.writable = true;
    auto table = openTable(name, writable);
    checkWritable(*table);
    return table;
}

std::vector<std::string> indexFilesOf(const Table& table) {
    std::vector<std::string> names;
    for (const char* extension : {".cdx", ".idx", ".mdx", ".ndx", ".ntx", ".cdb"}) {
        const std::string path = beside(table.path, extension);
        if (!path.empty()) names.push_back(std::filesystem::path(path).filename().string());
    }
    return names;
}

void refuseBesideShapes(const Table& table, const ChangeOptions& options) {
    const std::string shapes = beside(table.path, ".shp");
    if (shapes.empty() || options.force) return;
    throw Refusal(table.path + ": its records belong to the shapes of " + shapes +
                  ", one to one, and would no longer fit; --force changes them all the same");
}

void beginChange(const Table& table, const ChangeOptions& options) {
    const std::vector<std::string> indexes = indexFilesOf(table);
    if (!indexes.empty()) {
        note("{}: index files are not kept up and need a reindex: {}", table.path, joined(indexes));
    } else if ((table.tableFlags & kIndexFlag) != 0) {
        note("{}: its index file is not kept up and needs a reindex", table.path);
    }
    if (!options.noBackup) makeBackups(table);
}

void addWhichOptions(CLI::App& command, WhichOptions& options) {
    addFilterOptions(command, options.select);
    command.add_flag("--all", options.all, "All records, without a filter");
    addTableOptions(command, options.select);
}

void checkWhich(const WhichOptions& options, const char* what) {
    if (options.all && !options.select.where.empty()) {
        throw Refusal("-w FILTER or --all, not both");
    }
    if (options.all || !options.select.where.empty()) return;
    throw Refusal(fmt::format("-w FILTER says which records to {}; --all takes all", what));
}

void changeAndTell(Selection& selection, const char* verb, const ChangeOptions& options,
                   const std::function<void()>& change) {
    Table& table = *selection.table;
    const auto tell = [&] {
        if (selection.rows != 0 && !options.dryRun) stampDate(table);
        note("{}: {} of {} {}{}", table.path, selection.rows,
             counted(table.base->Header.RecordCount, "record"), options.dryRun ? "would be " : "",
             verb);
    };
    try {
        change();
    } catch (const Stopped&) {
        tell();
        throw;
    }
    tellFaults(selection);
    tell();
}

}  // namespace mira::tool
