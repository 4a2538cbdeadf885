// Packing: the records that are not marked deleted move to the front, and the memo file is rebuilt.
#include <fcntl.h>

#include "dbf/packmemos.h"
#include "dbf/packrecords.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"
#include "internal/restore.h"

namespace mira {

namespace {

enum PackMode : u32 { kPackAll = 0, kPackRecords = 1, kPackMemos = 2 };

bool isWritable(const DbfBase* h) {
    const int flags = fcntl(fileno(h->TableFile), F_GETFL);
    return flags != -1 && (flags & O_ACCMODE) != O_RDONLY;
}

int pack(DbfBase* h, u32 mode) {
    if (mode > kPackMemos) return 1;
    const bool writable = isWritable(h);
    if (finishPackRecords(h, writable) == 0 || !unchangedSize(h, true)) return 0;
    // Before records move: the log of a rebuild goes by their places.
    if (finishPackMemos(h, writable) == 0) return 0;
    return mode == kPackRecords ? packRecords(h, writable)
                                : packMemos(h, writable, mode == kPackAll);
}

}  // namespace

int Pack(DbfBase* h, u32 mode) {
    if (isClosed(h) || hasView(h)) return 0;
    const Editing editing(h);
    const Restore forwards(h->Reverse, 0);
    const Restore physical(h->UseFilterIndex, u8{0}, u8{1});
    return editing.ready() ? pack(h, mode) : 0;
}

}  // namespace mira
