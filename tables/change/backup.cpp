// Backup copies, whether a table can be written at all, and what a write leaves stale beside it.
#include "tables/change/backup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

/// Copies under a name of its own first, so that an older copy gives way to a whole one only.
void copyTo(const fs::path& original, const fs::path& copy) {
    if (original == copy) {
        refuse(original.string(),
               ": has the name of its own backup copy (--no-backup goes without)");
    }
    std::string made = (copy.parent_path() / ("." + copy.filename().string() + ".XXXXXX")).string();
    const int descriptor = mkostemp(made.data(), O_CLOEXEC);
    std::error_code error(errno, std::generic_category());
    if (descriptor >= 0) fs::copy_file(original, made, fs::copy_options::overwrite_existing, error);
    if (!error && fsync(descriptor) != 0) error.assign(errno, std::generic_category());
    if (descriptor >= 0) close(descriptor);
    if (!error) fs::rename(made, copy, error);
    if (!error) return;
    if (descriptor >= 0) unlink(made.c_str());
    refuse(copy.string(), ": the backup copy cannot be written: ", error.message(),
           error == std::errc::io_error ? "; is the disk full?" : "",
           " (--no-backup goes without)");
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

std::string staleIndexes(const Table& table) {
    constexpr u8 kIndexFlag = 1;  // header byte 28
    const std::vector<std::string> indexes = indexFilesBeside(table.path);
    if (!indexes.empty()) {
        return textOf(table.path,
                      ": index files are not kept up and need a reindex: ", joined(indexes));
    }
    if ((table.tableFlags & kIndexFlag) == 0) return {};
    return table.path + ": its index file is not kept up and needs a reindex";
}

void refuseBesideShapes(const Table& table, const char* wayOut) {
    const std::string shapes = beside(table.path, ".shp");
    if (shapes.empty()) return;
    refuse(table.path, ": its records belong to the shapes of ", shapes,
           ", one to one, and would no longer fit; ", wayOut);
}

void makeBackups(const Table& table) {
    const fs::path memos = presentMemos(table);
    const fs::path copy = fs::path(table.path).replace_extension(".bak");
    std::error_code ignored;
    // Copies made before a pack that was interrupted are better than what it has left.
    if (IsPackUnfinished(table.base.get()) != 0 && fs::exists(copy, ignored)) return;
    copyTo(table.path, copy);
    if (!memos.empty()) copyTo(memos, fs::path(memos).replace_extension(".tbk"));
}

}  // namespace mira::tables
