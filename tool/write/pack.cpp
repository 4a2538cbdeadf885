// mira pack: deleted records go, and what the memo file holds for nobody.
#include "tables/change/pack.h"

#include <filesystem>

#include "check/memoloss.h"
#include "command/command.h"
#include "read/facts.h"
#include "tables/change/swap.h"
#include "tables/value/memo.h"
#include "terminal/message.h"
#include "write/change.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    TableNames tables;
    ChangeOptions change;
    bool dropMemos = false;
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
    const IndexPlan index = indexOf(table, options);
    if (IsPackUnfinished(table.base.get()) == 1) {
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
    swap.commit(backupsOf(options), memos, index);
}

void tellStray(const Table& table, u64 bytes, const char* would) {
    if (bytes == 0) return;
    note("{}: {} behind the last record, which are none, {}cut off", table.path,
         counted(bytes, "byte"), would);
}

Status packTable(const std::string& name, const Options& packing) {
    const ChangeOptions& options = packing.change;
    const auto table = openToChange(name, {});
    const u64 lost = tellLostMemos(*table, packing.dropMemos);
    const u64 stray = table->strayBytes;
    const Facts before = factsOf(*table, true);
    const std::string records = counted(table->base->Header.RecordCount, "record");
    if (before.deleted != 0) refuseBesideShapes(*table, options);
    if (options.dryRun) {
        note("{}: {} of {} would go, and the memo file ({} bytes) be rebuilt", table->path,
             before.deleted, records, before.memoSize);
        tellStray(*table, stray, "would be ");
        return lost != 0 ? kFound : kDone;
    }
    packFiles(*table, options);
    if (before.deleted != 0) tellStale(*table, {.records = true}, options);
    const u64 after = memoSizeOf(*table);
    note("{}: {} of {} and {} of {} memo bytes freed", table->path, before.deleted, records,
         before.memoSize > after ? before.memoSize - after : 0, before.memoSize);
    tellStray(*table, stray, "");
    return lost != 0 ? kFound : kDone;
}

Status run(const Options& options) {
    return eachTable(findTables(options.tables.names, options.tables.recursive),
                     [&](const std::string& name) { return packTable(name, options); });
}

}  // namespace

void addPack(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "pack", "Take deleted records out and rebuild the memo file", run,
                   "Examples:\n"
                   "  mira pack stock --dry-run\n"
                   "  mira pack *.dbf");
    addTableNames(command, options.tables)->required();
    addChangeOptions(command, options.change);
    command.add_flag("--drop-memos", options.dropMemos,
                     "Also where memos are lost that are damaged or lead nowhere");
    addForceOption(command, options.change);
    addReindexOption(command, options.change);
}

}  // namespace mira::tool
