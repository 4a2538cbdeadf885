// mira pack: deleted records go, and what the memo file holds for nobody.
#include <filesystem>

#include "change.h"
#include "command/commands.h"
#include "message.h"
#include "table/memo.h"
#include "table/refusal.h"
#include "table/store.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::vector<std::string> names;
    ChangeOptions change;
};

u64 deletedIn(const Table& table) {
    DbfBase* const base = table.base.get();
    u64 count = 0;
    for (u32 i = 0; i < base->Header.RecordCount; ++i) {
        leaveIfStopped();
        if (ReadRecord(base, i) == 0) {
            throw Refusal(fmt::format("{}: record {} cannot be read", table.path, u64{i} + 1));
        }
        count += base->RecordBuffer[0] == '*' ? 1 : 0;
    }
    return count;
}

u64 memoBytes(const Table& table) {
    std::error_code error;
    const u64 size =
        table.base->FirstMemoField != -1 ? fs::file_size(table.base->MemoFileName, error) : 0;
    return error ? 0 : size;
}

/// The library leaves the old memo file beside the new one, "~" for the first letter of its
/// extension; the backup copy already is one.
void removeOldMemos(const Table& table) {
    fs::path old = table.base->MemoFileName;
    std::string extension = old.extension().string();
    if (table.base->FirstMemoField == -1 || extension.size() < 2) return;
    extension[1] = '~';
    std::error_code ignored;
    fs::remove(old.replace_extension(extension), ignored);
}

void packTable(const std::string& name, const ChangeOptions& options) {
    const auto table = openToChange(name, {});
    const u64 deleted = deletedIn(*table);
    const u64 before = memoBytes(*table);
    if (deleted != 0) refuseBesideShapes(*table, options);
    if (options.dryRun) {
        note("{}: {} of {} would go, and the memo file ({} bytes) be rebuilt", table->path, deleted,
             counted(table->base->Header.RecordCount, "record"), before);
        return;
    }
    beginChange(*table, options);
    const u32 count = table->base->Header.RecordCount;
    if (Pack(table->base.get(), 0) == 0) {
        throw Refusal(table->path +
                      ": cannot be packed; is the disk full? No record and no memo is lost");
    }
    removeOldMemos(*table);
    const u64 after = memoBytes(*table);
    note("{}: {} of {} and {} of {} memo bytes freed", table->path, deleted,
         counted(count, "record"), before > after ? before - after : 0, before);
}

Status run(const Options& options) {
    Status status = kDone;
    for (const std::string& name : options.names) {
        try {
            leaveIfStopped();
            packTable(name, options.change);
        } catch (const Refusal& refusal) {
            tellError(refusal.what());
            status = options.names.size() == 1 ? kFailed : kFound;
        }
    }
    return status;
}

}  // namespace

void addPack(CLI::App& program, Job& job) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        *program.add_subcommand("pack", "Take deleted records out and rebuild the memo file");
    command.add_option("TABLE", options->names, "The tables")->required();
    addChangeOptions(command, options->change);
    addForceOption(command, options->change);
    command.footer(
        "Examples:\n"
        "  mira pack stock --dry-run\n"
        "  mira pack *.dbf");
    whenChosen(command, job, options, run);
}

}  // namespace mira::tool
