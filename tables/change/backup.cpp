// Backup copies, and whether a table can be written at all.
#include "tables/change/backup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "tables/change/disk.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuseCopy(const std::string& copy, int error) {
    refuse(copy, ": the backup copy cannot be written: ", std::strerror(error),
           error == EIO ? "; is the disk full?" : "", " (--no-backup goes without)");
}

void renameBackup(const std::string& from, const std::string& to) {
    if (rename(from.c_str(), to.c_str()) != 0 && errno != ENOENT) refuseCopy(to, errno);
}

void removeBackup(const std::string& path) {
    if (!removeFile(path)) refuseCopy(path, errno);
}

/// Between two changes of the same name, so that no power cut leaves a later one alone.
void syncNames(const ChangeNames& names) {
    if (!syncFolderOf(names.table)) refuseCopy(names.backup(0), errno);
}

/// A whole copy under the name of a new file.
void copyTo(const std::string& original, const std::string& made, const std::string& copy) {
    const Descriptor from(open(original.c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor to = openPlain(made, O_RDWR | O_CREAT | O_EXCL);
    if (!from || !to || !copyAll(from.number(), to.number()) || fsync(to.number()) != 0) {
        refuseCopy(copy, errno);
    }
    carryOver(from.number(), to.number());
}

/// Moves one backup on. At every moment a table's copy has the memo file's copy of its time under
/// its own number: that one is under both numbers meanwhile.
void moveOn(const ChangeNames& names, u32 number) {
    const std::string memos = names.memoBackup(number), next = names.memoBackup(number + 1);
    removeBackup(next);
    if (isThere(memos)) {
        if (link(memos.c_str(), next.c_str()) != 0) renameBackup(memos, next);
        syncNames(names);
    }
    renameBackup(names.backup(number), names.backup(number + 1));
    syncNames(names);
    removeBackup(memos);
}

/// The memo file, where it is there.
fs::path presentMemos(const Table& table) {
    std::error_code ignored;
    fs::path memos = memoFileOf(table);
    return fs::is_regular_file(memos, ignored) ? memos : fs::path();
}

void checkWritable(const fs::path& path) {
    const File file(std::fopen(path.c_str(), "r+be"));
    if (!file) refuse(path.string(), ": cannot be written: ", std::strerror(errno));
}

}  // namespace

void checkWritable(const Table& table) {
    checkWritable(fs::path(table.path));
    if (const fs::path memos = presentMemos(table); !memos.empty()) checkWritable(memos);
}

void refuseBesideShapes(const Table& table, const char* wayOut) {
    const std::string shapes = beside(table.path, ".shp");
    if (shapes.empty()) return;
    refuse(table.path, ": its records belong to the shapes of ", shapes,
           ", one to one, and would no longer fit; ", wayOut);
}

void rotateBackups(const ChangeNames& names, u32 copies) {
    u32 gap = 0;
    while (gap < copies && isThere(names.backup(gap))) ++gap;
    if (gap == copies) {
        removeBackup(names.backup(--gap));
        syncNames(names);
    }
    for (; gap > 0; --gap) moveOn(names, gap - 1);
}

void makeBackups(const Table& table, const ChangeNames& names, u32 copies) {
    const fs::path memos = presentMemos(table);
    // Copies made before a pack that was interrupted are better than what it has left.
    const bool halfPacked = IsPackUnfinished(table.base.get()) != 0;
    if (halfPacked && isThere(names.backup(0))) return;
    const std::string madeMemos = names.newMemos()[0];
    if (!memos.empty()) copyTo(memos, madeMemos, names.memoBackup(0));
    copyTo(names.table, names.newTable(), names.backup(0));
    rotateBackups(names, copies);
    if (memos.empty()) {
        removeBackup(names.memoBackup(0));
    } else {
        renameBackup(madeMemos, names.memoBackup(0));
        syncNames(names);
    }
    renameBackup(names.newTable(), names.backup(0));
    syncNames(names);
}

bool removeNewFiles(const ChangeNames& names) {
    bool done = removeFile(names.newTable());
    done = removeFile(names.newIndex()) && done;
    for (const std::string& memos : names.newMemos()) done = removeFile(memos) && done;
    return done;
}

std::optional<u32> newestBackup(const ChangeNames& names) {
    for (u32 number = 0; number <= kBackupsMost; ++number) {
        if (isThere(names.backup(number))) return number;
    }
    return std::nullopt;
}

}  // namespace mira::tables
