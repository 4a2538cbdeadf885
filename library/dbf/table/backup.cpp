// The backup copy: the table as it was before the first write.
#include <cstring>

#include "dbf/table/table.h"
#include "internal/file.h"

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

}  // namespace

void backUp(DbfBase* h) {
    if (h->BackupEnabled != 0) MakeBakFile(h, 0);  // a copy that fails does not stop the write
}

int MakeBakFile(DbfBase* h, char force) {
    const bool due = h->BackupEnabled != 0 && h->BackupDone == 0;
    if (!due && force == 0) return 1;
    // A table that is its own backup must neither be copied onto itself nor removed.
    if (h->BackupName == nullptr || std::strcmp(h->BackupName, h->FileName) == 0) return 0;
    const Block<u8> buffer = allocate<u8>(kCopyChunk);
    if (!buffer) return 1;
    std::remove(h->BackupName);  // usually there is none
    OwnedFile copy(openUnbuffered(h->BackupName, "wb"));
    if (!copy) return 1;
    const bool whole = copyTable(h, copy.get(), buffer.get());
    if (std::fclose(copy.release()) == 0 && whole) {
        h->BackupDone = 1;
    } else {
        std::remove(h->BackupName);  // no half copy is to be taken for a whole one
    }
    return 1;
}

}  // namespace mira
