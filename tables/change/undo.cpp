#include "tables/change/undo.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "tables/change/backup.h"
#include "tables/change/recovery.h"
#include "tables/change/swap.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

/// What a table file says of its memo file.
struct MemosOf {
    bool known = false;  ///< it is a table
    bool needed = false;
    u32 kind = 0;
    std::string path{};
};

MemosOf memosOf(const std::string& table) {
    const Base base(OpenBaseRO(table.c_str()));
    if (!base) return {};
    const u32 kind = GetMemoType(base.get());
    return {true, base->FirstMemoField != -1, kind,
            base->MemoFileName != nullptr ? base->MemoFileName : ""};
}

/// The name that the memo file of the backup takes: as the table's own, where both are of a kind.
std::string memoNameFor(const ChangeNames& names, const MemosOf& table, const MemosOf& backup) {
    std::error_code ignored;
    if (table.known && table.needed && table.kind == backup.kind) {
        return fs::path(table.path).filename().string();
    }
    const std::unique_ptr<char, FreeCloser> name(GetMemoName(names.table.c_str(), backup.kind));
    const std::string usual = name != nullptr ? name.get() : "";
    const std::string there = inAnyCase(usual);
    return fs::path(there.empty() ? usual : there).filename().string();
}

/// Says what is exchanged with what.
Undone undoneOf(const std::string& path, const ChangeNames& names, u32* number) {
    const std::optional<u32> newest = newestBackup(names);
    if (!newest) refuse(path, ": has no backup");
    *number = *newest;
    const fs::path backup = fs::path(names.backup(*newest)).filename();
    return {path, (fs::path(path).parent_path() / backup).string(), {}};
}

}  // namespace

Undone wouldUndo(const std::string& name) {
    refuseArchive(name);
    const std::string path = findTable(name);
    u32 number = 0;
    return undoneOf(path, ChangeNames(path), &number);
}

Undone undoLast(const std::string& name) {
    refuseArchive(name);
    const Recovery found = recoverNamed(name);
    const std::string path = findTable(name);
    const ChangeNames names(path);
    u32 number = 0;
    undoneOf(path, names, &number);  // nobody is kept waiting for a refusal
    const Descriptor table = openPlain(names.table, O_RDWR);
    if (!table) refuse(path, ": cannot be written: ", std::strerror(errno));
    if (found.found == Found::Busy || takeLock(table.number()) == Lock::Busy ||
        !isNamed(table.number(), names.table)) {
        refuseBusy(path);
    }
    Undone undone = undoneOf(path, names, &number);
    if (found.found == Found::Recovered) undone.notes.push_back(found.sentence);
    const MemosOf current = memosOf(names.table), backup = memosOf(names.backup(number));
    if (!backup.known) refuse(undone.backup, ": is no table; nothing is changed");
    if (found.found == Found::Left && !discardJournal(names)) {
        refuse(names.journal(), ": cannot be removed: ", std::strerror(errno));
    }
    const std::string newMemo = memoNameFor(names, current, backup);
    std::string memos = current.needed ? current.path : "";
    if (!current.known && !newMemo.empty()) memos = names.beside(newMemo);
    Swap swap(names.table, memos);
    swap.exchange(number, newMemo);
    return undone;
}

}  // namespace mira::tables
