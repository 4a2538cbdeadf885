// mira pack: deleted records go, and what the memo file holds for nobody.
#include "tables/change/pack.h"

#include <filesystem>

#include "command/change.h"
#include "command/commands.h"
#include "command/facts.h"
#include "tables/change/swap.h"
#include "tables/value/memo.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::vector<std::string> names;
    ChangeOptions change;
};

u64 memoSizeOf(const Table& table) {
    std::error_code error;
    const auto size = fs::file_size(memoFileOf(table), error);
    return error ? 0 : size;
}

/// The library leaves the old memo file beside the new one, "~" for the first letter of its
/// extension; the backup copy already is one.
void removeOldMemos(const Table& table) {
    fs::path old = memoFileOf(table);
    std::string extension = old.extension().string();
    if (extension.size() < 2) return;
    extension[1] = '~';
    std::error_code ignored;
    fs::remove(old.replace_extension(extension), ignored);
}

void packFiles(Table& table, const ChangeOptions& options) {
    if (isHalfPacked(File(Open_FileRO(memoFileOf(table).c_str())).get())) {
        const HoldSignals held;
        finishPack(table);
        removeOldMemos(table);
    }
    const std::string memos = memoFileOf(table);
    Swap swap(table.path, memos);
    checkRoom(swap.newTable(), table.fileSize + memoSizeOf(table));
    Progress progress(table.path, table.base->Header.RecordCount);
    packInto(table, swap, Kept::Live, [&] {
        leaveIfStopped();
        progress.add(1);
    });
    swap.commit(backupsOf(options), memos);
}

Status packTable(const std::string& name, const ChangeOptions& options) {
    const auto table = openToChange(name, {});
    const Facts before = factsOf(*table, true);
    const std::string records = counted(table->base->Header.RecordCount, "record");
    if (before.deleted != 0) refuseBesideShapes(*table, options);
    if (options.dryRun) {
        note("{}: {} of {} would go, and the memo file ({} bytes) be rebuilt", table->path,
             before.deleted, records, before.memoSize);
        return kDone;
    }
    tellStale(*table);
    packFiles(*table, options);
    const u64 after = memoSizeOf(*table);
    note("{}: {} of {} and {} of {} memo bytes freed", table->path, before.deleted, records,
         before.memoSize > after ? before.memoSize - after : 0, before.memoSize);
    return kDone;
}

Status run(const Options& options) {
    return eachTable(options.names,
                     [&](const std::string& name) { return packTable(name, options.change); });
}

}  // namespace

void addPack(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "pack", "Take deleted records out and rebuild the memo file", run,
                   "Examples:\n"
                   "  mira pack stock --dry-run\n"
                   "  mira pack *.dbf");
    command.add_option("TABLE", options.names, "The tables")->required();
    addChangeOptions(command, options.change);
    addForceOption(command, options.change);
}

}  // namespace mira::tool
