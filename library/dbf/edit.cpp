// Structural edits: deletion flags, removing and inserting records, cutting the table. An edit that
// fails on the way puts the table back as it was. Where that fails as well it stops, with every
// record still in the file.
#include <unistd.h>

#include <algorithm>

#include "dbf/move.h"
#include "dbf/table/position.h"
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

    /// Looks at the table before anything is changed.
    bool begin() {
        const u32 length = h_->Header.RecordLength;
        const u64 end = offsetOf(h_, header_.RecordCount);
        tail_ = allocate<u8>(std::size_t{length} + 1);
        const std::optional<u64> size = fileSize(h_->TableFile);
        if (!move.ready() || !tail_ || !size) return false;
        size_ = *size;
        tailLength_ = size_ > end ? static_cast<u32>(std::min<u64>(size_ - end, length + 1)) : 0;
        return readAt(end, tail_.get(), tailLength_) && readAt(0, image_, h_->HeaderSize);
    }

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
                          (tailLength_ == 0 || writeTable(h_, end, tail_.get(), tailLength_)) &&
                          cutAt(h_, size_);
        if (done) h_->Header = header_;
        return done;
    }

    /// Leaves the table as it stands. Every record stays within the count, so that none is
    /// overwritten by what is appended next.
    void stop(u32 atLeast) {
        const std::optional<u64> size = fileSize(h_->TableFile);
        h_->Header = header_;
        h_->Header.RecordCount = size ? recordsInFile(h_, *size) : atLeast;
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
    backUp(h);
    if (InternalSeekRecord(h, count) == 0) return 0;
    if (!cutAt(h, offsetOf(h, count))) return 0;
    h->Header.RecordCount = count;
    return WriteHeader(h);
}

int Zap(DbfBase* h) { return Truncate(h, 0); }

int Delete(DbfBase* h, u32 record) {
    const u32 count = h->Header.RecordCount;
    if (hasView(h) || h->Reverse != 0 || record >= count) return 0;
    if (IsPackUnfinished(h) != 0) return 0;
    backUp(h);
    Edit edit(h, count - record);
    const Owned<u8> removed = allocate<u8>(h->Header.RecordLength);
    if (!removed || !edit.begin() || !edit.move.read(record, removed.get())) return 0;
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
    if (!isWithinReach(h, count) || IsPackUnfinished(h) != 0) return 0;
    backUp(h);
    const u32 record = h->Reverse != 0 ? count - 1 - position : position;
    Edit edit(h, count - record);
    if (!edit.begin()) return 0;
    const Moved up = edit.move.up(record, count, edit.spare(count + 1));
    const bool cut = up.state != MoveState::Stuck && edit.cutSpare(count + 1);
    if (up.state == MoveState::Done && cut) {
        // From here on a hook that appends comes after the last record.
        h->Header.RecordCount = count + 1;
        if (blank != 0) ClearRecord(h);
        if (InternalWriteRecord(h, record) != 0 && WriteHeader(h) != 0) return 1;
    }
    const u32 now = h->Header.RecordCount;  // a hook may have changed it
    if (up.state == MoveState::Stuck || (now != count && now != count + 1) ||
        edit.move.down(up.reached + 1, count + 1).state != MoveState::Done || !edit.putBack()) {
        edit.stop(count + 1);
    }
    return 0;
}

}  // namespace mira
