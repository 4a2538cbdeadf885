// mira pack: deleted records go, and what the memo file holds for nobody.
#include <filesystem>

#include "check/memoloss.h"
#include "command/change.h"
#include "command/commands.h"
#include "command/facts.h"
#include "tables/change/append.h"
#include "tables/change/backup.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    TableNames tables;
    ChangeOptions change;
    bool dropMemos = false;
};

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

/// A memo file whose header gives no block size holds no memo that can be found, and is rebuilt
/// only when nothing refers to it.
void clearReferences(const Table& table) {
    DbfBase* const base = table.base.get();
    const u32 count = base->Header.RecordCount;
    for (u32 record = 0; record < count; ++record) {
        readRecord(table, record);
        for (const auto* columns : {&table.columns, &table.system}) {
            for (const Column& column : *columns) {
                if (holdsReference(column)) ClearField(base, column.field);
            }
        }
        if (WriteRecord(base, record) == 0) {
            refuse(table.path, ": record ", u64{record} + 1, " cannot be written");
        }
    }
}

/// Ctrl-C waits until a step is done: half of one is nothing to leave behind.
void packSteps(Table& table, bool losesMemos) {
    cutStray(table);
    enum : u32 { kRecords = 1, kMemos = 2 };
    for (const u32 step : {kRecords, kMemos}) {
        leaveIfStopped();
        const HoldSignals held;
        if (step == kMemos && losesMemos && memoUnit(table) == 0) clearReferences(table);
        if (Pack(table.base.get(), step) != 0) continue;
        refuse(
            table.path,
            ": cannot be packed: the disk may be full, or the log of an interrupted pack damaged. "
            "No record and no memo is lost");
    }
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
    beginChange(*table, options);
    packSteps(*table, lost != 0);
    removeOldMemos(*table);
    const u64 after = factsOf(*table, false).memoSize;
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
}

}  // namespace mira::tool
