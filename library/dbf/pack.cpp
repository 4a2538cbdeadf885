// Packing: the records that are not marked deleted move to the front, then the memo file is
// rebuilt.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "dbf/move.h"
#include "dbf/packmemos.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"
#include "internal/restore.h"
#include "memo/memo.h"

namespace mira {

namespace {

enum PackMode : u32 { kPackAll = 0, kPackRecords = 1, kPackMemos = 2 };

bool isWritable(const DbfBase* h) {
    const int flags = fcntl(fileno(h->TableFile), F_GETFL);
    return flags != -1 && (flags & O_ACCMODE) != O_RDONLY;
}

/// Writes kept records to their new places. Without hooks, which may look at the file, they are
/// gathered and go out many at a time; a record's new place never lies after one still unread.
class KeptRecords {
public:
    explicit KeptRecords(DbfBase* h)
        : h_(h),
          gather_(h->AfterRead == nullptr && h->BeforeWrite == nullptr),
          buffer_(gather_ ? allocate<u8>(kTransferSize) : nullptr) {}

    bool ready() const { return !gather_ || buffer_ != nullptr; }

    /// The record in RecordBuffer belongs at the next place.
    bool add(u32 from) {
        const u32 record = next_++;
        if (record == from) return true;
        if (!gather_) return WriteRecord(h_, record) != 0 || drop(record);
        const u32 length = h_->Header.RecordLength;
        if (used_ == 0) first_ = record;
        std::memcpy(buffer_.get() + used_, h_->RecordBuffer, length);
        used_ += length;
        return used_ + length <= kTransferSize || flush();
    }

    bool flush() {
        if (used_ == 0) return true;
        backUp(h_);
        h_->Modified = 1;
        const u32 count = used_;
        used_ = 0;
        return writeTable(h_, offsetOf(h_, first_), buffer_.get(), count) || dropTorn(count);
    }

    u32 count() const { return next_; }

private:
    /// Marks a record deleted whose place has been written in part, so that nobody takes it for a
    /// record; what it was before was deleted or has moved already. Always false.
    bool drop(u32 record) {
        writeTable(h_, offsetOf(h_, record), &kDeleted, 1);
        return false;
    }

    /// The same for the first of the gathered records that is not whole.
    bool dropTorn(u32 count) {
        const u32 length = h_->Header.RecordLength;
        u32 got = 0;
        for (u32 at = 0; at < count; at += length) {
            const u32 record = first_ + at / length;
            if (!readTable(h_, offsetOf(h_, record), h_->RecordBuffer, length, &got)) return false;
            if (std::memcmp(h_->RecordBuffer, buffer_.get() + at, length) != 0) return drop(record);
        }
        return false;
    }

    DbfBase* h_;
    bool gather_;
    Owned<u8> buffer_;
    u32 used_ = 0;
    u32 first_ = 0;  ///< place of the first gathered record
    u32 next_ = 0;
};

/// Moves the records that are not marked deleted to the front and cuts the table after them.
int packRecords(DbfBase* h, bool writable) {
    KeptRecords kept(h);
    if (!kept.ready()) return 0;
    for (u32 i = 0; i < h->Header.RecordCount; ++i) {
        if (ReadRecord(h, i) == 0) {
            kept.flush();
            return 0;
        }
        const bool deleted = h->RecordBuffer[0] == kDeleted;
        if (deleted && !writable) return 0;
        if (!deleted && !kept.add(i)) return 0;
    }
    if (!kept.flush()) return 0;
    return kept.count() == h->Header.RecordCount ? 1 : Truncate(h, kept.count());
}

int pack(DbfBase* h, u32 mode) {
    if (mode > kPackMemos) return 1;
    if (!unchangedSize(h, true)) return 0;
    const bool writable = isWritable(h);
    // Before records move: the log of a rebuild goes by their places.
    if (finishPackMemos(h, writable) == 0) return 0;
    if (mode != kPackMemos && packRecords(h, writable) == 0) return 0;
    return mode != kPackRecords ? packMemos(h, writable) : 1;
}

}  // namespace

int Pack(DbfBase* h, u32 mode) {
    if (isClosed(h) || hasView(h)) return 0;
    const Editing editing(h);
    const Restore forwards(h->Reverse, 0);
    const Restore physical(h->UseFilterIndex, u8{0}, u8{1});
    const int result = editing.ready() ? pack(h, mode) : 0;
    if (result == 0 && h->Private != nullptr) h->Private->unfinished = true;
    return result;
}

}  // namespace mira
