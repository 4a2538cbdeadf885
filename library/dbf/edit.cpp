// Structural edits: deletion flags, removing and inserting records, cutting the table. An edit that
// fails on the way puts the table back as it was. Where that fails as well it stops, with every
// record still in the file.
#include <unistd.h>

#include <algorithm>

#include "dbf/move.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {

namespace {

int writeFlag(DbfBase* h, u32 position, u8 flag) {
    h->DeleteFlag = flag;
    return WriteByte(h, position);
}

bool cutAt(DbfBase* h, u64 size) {
    const bool cut = ftruncate(fileno(h->TableFile), static_cast<off_t>(size)) == 0;
    tableChanged(h);
    return cut;
}

/// An edit that moves records, with what it takes to put the table back as it was.
class Edit {
public:
    /// Moves up to a number of records.
    Edit(DbfBase* h, u32 records) : move(h, records), h_(h), header_(h->Header) {}

    /// Looks at the table before anything is changed. False when it is not what the handle knows.
    bool begin() {
        const u32 length = h_->Header.RecordLength;
        const u64 end = offsetOf(h_, header_.RecordCount);
        tail_ = allocate<u8>(std::size_t{length} + 1);
        const std::optional<u64> size = unchangedSize(h_);
        if (!move.ready() || !tail_ || !size) return false;
        size_ = *size;
        tailLength_ = size_ > end ? static_cast<u32>(std::min<u64>(size_ - end, length + 1)) : 0;
        return readAt(end, tail_.get(), tailLength_) && readAt(0, image_, h_->HeaderSize);
    }

    /// Whether the file can be cut, tried at its end: copies past it would stay otherwise, and
    /// count as records when the table is opened next.
    bool canCut() { return cutAt(h_, size_); }

    /// The first record number, not below another one, that the file does not hold.
    u32 spare(u32 atLeast) const { return std::max(atLeast, recordsInFile(h_, size_)); }

    /// Cuts off what moving has copied past count records.
    bool cutSpare(u32 count) {
        return !move.usedSpare() || cutAt(h_, std::max(size_, offsetOf(h_, count)));
    }

    /// What is not a record: the bytes after the last one, the size, the header.
    bool putBack() {
        const u64 end = offsetOf(h_, header_.RecordCount);
        const bool done = writeTable(h_, 0, image_, h_->HeaderSize) &&
                          (tailLength_ == 0 || writeTable(h_, end, tail_.get(), tailLength_));
        if (!done) return false;
        cutAt(h_, size_);  // copies that stay behind the records are not counted
        h_->Header = header_;
        return true;
    }

    /// Leaves the table as it stands. Every record stays within the count, so that none is
    /// overwritten by what is appended next; some may be there twice, so that a second try would
    /// not find what the first one was about.
    void stop(u32 atLeast) {
        const std::optional<u64> size = fileSize(h_->TableFile);
        h_->Header = header_;
        h_->Header.RecordCount = size ? recordsInFile(h_, *size) : atLeast;
        if (PrivateState* const state = keepPrivate(h_)) state->halfEdited = true;
    }

    Mover move;

private:
    bool readAt(u64 offset, u8* to, u32 count) const {
        return seekTo(h_->TableFile, offset) && readExact(h_->TableFile, to, count);
    }

    DbfBase* h_;
    DbfHeader header_;
    u8 image_[sizeof(DbfHeader)];  // the header in the file
    u64 size_ = 0;                 // of the file
    Owned<u8> tail_;  // from the end of the last record on, as far as edits overwrite it
    u32 tailLength_ = 0;
};

/// Whether records may be moved: none has lost its place in an edit that failed, none is needed at
/// its place by a rebuild of the memo file, and all can be written.
bool mayMove(DbfBase* h) {
    const u32 count = h->Header.RecordCount;
    return !isHalfEdited(h) && (count == 0 || isWithinReach(h, count - 1)) &&
           IsPackUnfinished(h) == 0;
}

/// RecordBuffer, or a blank record, into the place that has been made for it.
bool writeInserted(DbfBase* h, u32 record, char blank) {
    ++h->Header.RecordCount;  // from here on a hook that appends comes after the last record
    if (blank != 0) ClearRecord(h);
    return InternalWriteRecord(h, record) != 0 && WriteHeader(h) != 0;
}

/// The header of one record less, then the cut, which takes the copy of the removed record with it.
bool finishDelete(DbfBase* h, u32 count) {
    h->Header.RecordCount = count;
    return WriteHeader(h) != 0 && cutAt(h, offsetOf(h, count) + 1);
}

}  // namespace

int DeleteRecord(DbfBase* h, u32 position) {
    if (isClosed(h)) return 0;
    if (!readFlag(h, position, true) || h->DeleteFlag == kDeleted) return 1;
    return writeFlag(h, position, kDeleted);
}

int RecallRecord(DbfBase* h, u32 position) {
    if (isClosed(h)) return 0;
    if (!readFlag(h, position, true) || h->DeleteFlag != kDeleted) return 1;
    return writeFlag(h, position, kPresent);
}

int InverseRecord(DbfBase* h, u32 position) {
    if (!readFlag(h, position, true)) return 0;
    return writeFlag(h, position, h->DeleteFlag == kDeleted ? kPresent : kDeleted);
}

int Truncate(DbfBase* h, u32 count) {
    if (hasView(h) || h->Reverse != 0 || isClosed(h) || IsPackUnfinished(h) != 0) return 0;
    if (!unchangedSize(h) || offsetOf(h, count) > kReachable) return 0;
    backUp(h);
    if (!cutAt(h, offsetOf(h, count))) return 0;
    h->Header.RecordCount = count;
    return WriteHeader(h);
}

int Zap(DbfBase* h) { return Truncate(h, 0); }

int Delete(DbfBase* h, u32 record) {
    const u32 count = h->Header.RecordCount;
    if (hasView(h) || h->Reverse != 0 || record >= count || !mayMove(h)) return 0;
    const Editing editing(h);
    Edit edit(h, count - record);
    const Owned<u8> removed = allocate<u8>(h->Header.RecordLength);
    if (!editing.ready() || !removed || !edit.begin() || !edit.move.read(record, removed.get())) {
        return 0;
    }
    backUp(h);
    if (!edit.canCut()) return 0;
    const u32 spare = edit.spare(count);
    // The record stays on the disk until the edit is done, unless there is no room for one more.
    Moved down{record + 1, MoveState::Failed};
    if (edit.move.write(spare, removed.get()) || edit.move.write(record, removed.get())) {
        down = edit.move.down(record + 1, count);
    }
    if (down.state == MoveState::Done && finishDelete(h, count - 1)) return 1;
    if (down.state == MoveState::Stuck ||
        edit.move.up(record, down.reached - 1, spare + 1).state != MoveState::Done ||
        !edit.move.place(record, removed.get()) || !edit.putBack()) {
        edit.stop(spare + 1);
    }
    return 0;
}

int Insert(DbfBase* h, u32 position, char blank) {
    const u32 count = h->Header.RecordCount;
    if (hasView(h) || position > count || (h->Reverse != 0 && position == count)) return 0;
    if (!isWithinReach(h, count) || !mayMove(h)) return 0;
    const u32 record = h->Reverse != 0 ? count - 1 - position : position;
    const Editing editing(h);
    Edit edit(h, count - record);
    if (!editing.ready() || !edit.begin()) return 0;
    backUp(h);
    const std::optional<u32> spare =
        edit.canCut() ? std::optional(edit.spare(count + 1)) : std::nullopt;
    const Moved up = edit.move.up(record, count, spare);
    const auto undo = [&] {
        const u32 now = h->Header.RecordCount;  // a hook may have changed it
        if (up.state == MoveState::Stuck || (now != count && now != count + 1) ||
            edit.move.down(up.reached + 1, count + 1).state != MoveState::Done || !edit.putBack()) {
            edit.stop(count + 1);
        }
    };
    const bool cut = up.state != MoveState::Stuck && edit.cutSpare(count + 1);
    try {
        if (up.state == MoveState::Done && cut && writeInserted(h, record, blank)) return 1;
    } catch (...) {
        undo();
        throw;
    }
    undo();
    return 0;
}

}  // namespace mira
