// The record step of packing: the records that are not marked deleted move to the front.
#include "dbf/packrecords.h"

#include <cstring>

#include "dbf/changedrecords.h"
#include "dbf/move.h"
#include "dbf/table/position.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"
#include "internal/restore.h"

namespace mira {

namespace {

bool readRaw(DbfBase* h, u32 record) {
    const u32 length = h->Header.RecordLength;
    u32 got = 0;
    return readTable(h, offsetOf(h, record), h->RecordBuffer, length, &got) && got == length;
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
        if (!gather_) return writePacked(h_, record) || drop(record);
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

}  // namespace

bool ChangedRecords::read(u32 record) {
    if (!readRaw(h_, record)) return false;
    if (h_->AfterRead == nullptr) return true;
    const u32 length = h_->Header.RecordLength;
    u8* entry = changed_.add(sizeof record + length);
    if (entry == nullptr) return false;
    std::memcpy(entry, &record, sizeof record);
    std::memcpy(entry + sizeof record, h_->RecordBuffer, length);
    h_->AfterRead(h_);
    if (std::memcmp(entry + sizeof record, h_->RecordBuffer, length) == 0) {
        changed_.dropLast(sizeof record + length);
    } else {
        std::memcpy(entry + sizeof record, h_->RecordBuffer, length);
    }
    return true;
}

bool ChangedRecords::readAgain(u32 record) {
    const u32 length = h_->Header.RecordLength;
    u32 next = kNoPosition;
    if (place_ < changed_.size()) std::memcpy(&next, changed_.data() + place_, sizeof next);
    if (next != record) return readRaw(h_, record);
    std::memcpy(h_->RecordBuffer, changed_.data() + place_ + sizeof next, length);
    place_ += sizeof next + length;
    return true;
}

bool writePacked(DbfBase* h, u32 record) {
    PrivateState* const state = keepPrivate(h);
    if (state == nullptr) return false;
    const Restore packing(state->packing, true);
    return InternalWriteRecord(h, record) != 0;
}

int packRecords(DbfBase* h, bool writable, ChangedRecords* readBefore) {
    KeptRecords kept(h);
    if (!kept.ready()) return 0;
    for (u32 i = 0; i < h->Header.RecordCount; ++i) {
        if (!(readBefore != nullptr ? readBefore->readAgain(i) : ReadRecord(h, i) != 0)) {
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

}  // namespace mira
