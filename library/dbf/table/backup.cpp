// The backup copy: the table as it was before the first write.
#include <sys/stat.h>

#include <cstring>
#include <utility>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/newfile.h"

namespace mira {

namespace {

constexpr u32 kCopyChunk = 32768;

/// Copies the whole table file; false when a byte could not be read or written.
bool copyTable(DbfBase* h, std::FILE* copy, u8* buffer) {
    if (!seekTo(h->TableFile, 0)) return false;
    std::clearerr(h->TableFile);
    u32 got = kCopyChunk;
    while (got == kCopyChunk) {
        got = ReadFile(h->TableFile, buffer, kCopyChunk);
        if (!writeExact(copy, buffer, got)) return false;
    }
    return std::ferror(h->TableFile) == 0;
}

/// Whether the table begins with all that a file holds, so that removing it loses nothing.
bool beginsWith(DbfBase* h, std::FILE* file, u8* buffer) {
    u8* const other = buffer + kCopyChunk;
    if (!seekTo(h->TableFile, 0)) return false;
    for (;;) {
        const u32 got = ReadFile(file, buffer, kCopyChunk);
        if (got == 0) return std::ferror(file) == 0;
        if (!readExact(h->TableFile, other, got) || std::memcmp(buffer, other, got) != 0) {
            return false;
        }
    }
}

/// The copy bears the backup's name only when it is whole.
bool makeCopy(DbfBase* h) {
    const Owned<u8> buffer = allocate<u8>(std::size_t{2} * kCopyChunk);
    if (!buffer) return false;
    removeAbandoned(h->BackupName,
                    [&](std::FILE* left) { return beginsWith(h, left, buffer.get()); });
    NewFile copy;
    struct stat info;
    if (!copy.create(h->BackupName) || !copyTable(h, copy.stream(), buffer.get())) return false;
    // Whoever may see the table may see its copy.
    if (fstat(fileno(h->TableFile), &info) == 0) fchmod(fileno(copy.stream()), info.st_mode);
    return copy.synchronise() && copy.take(h->BackupName);
}

}  // namespace

void backUp(DbfBase* h) {
    if (h->BackupEnabled == 0) return;
    PrivateState* const state = h->Private;
    if (state != nullptr && state->editing && std::exchange(state->backupTried, true)) return;
    MakeBakFile(h, 0);  // a copy that fails does not stop the write
}

int MakeBakFile(DbfBase* h, char force) {
    if (isClosed(h)) return 0;
    const bool due = h->BackupEnabled != 0 && h->BackupDone == 0;
    if (!due && force == 0) return 1;
    // A file that is needed itself gives way to no copy.
    const std::optional<FileId> target = nameId(h->BackupName);
    if (h->BackupName == nullptr || isSameFile(target, fileId(h->TableFile)) ||
        isSameFile(target, fileId(h->MemoFileName)) ||
        isSameFile(target, fileId(h->AliasFileName))) {
        return 0;
    }
    h->BackupDone = 0;
    h->BackupDone = makeCopy(h) ? 1 : 0;
    return 1;
}

}  // namespace mira
