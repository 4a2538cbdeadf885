// The record step of packing: the records that are not marked deleted move to the front.
#include "dbf/packrecords.h"

#include <cstring>
#include <utility>

#include "dbf/changedrecords.h"
#include "dbf/move.h"
#include "dbf/packmoves.h"
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
          moves_(h),
          gather_(h->AfterRead == nullptr && h->BeforeWrite == nullptr),
          buffer_(gather_ ? allocate<u8>(kTransferSize) : nullptr) {}

    bool ready() const { return !gather_ || buffer_ != nullptr; }

    /// Goes on where an earlier pack has stopped.
    bool resume(const MoveLog& log) {
        next_ = log.to;
        return moves_.resume(log);
    }

    /// The record in RecordBuffer belongs at the next place.
    bool add(u32 from) {
        const u32 record = next_++;
        if (record == from) return true;
        if (!moves_.reaches(record) && !(flush() && moves_.advance(from, record))) return false;
        if (!gather_) return writePacked(h_, record);
        const u32 length = h_->Header.RecordLength;
        if (used_ == 0) first_ = record;
        std::memcpy(buffer_.get() + used_, h_->RecordBuffer, length);
        used_ += length;
        return used_ + length <= kTransferSize || flush();
    }

    /// Cuts the table after them.
    bool end() { return flush() && (next_ == h_->Header.RecordCount || moves_.end(next_)); }

private:
    bool flush() {
        const u32 count = std::exchange(used_, 0);
        return count == 0 || writeTable(h_, offsetOf(h_, first_), buffer_.get(), count);
    }

    DbfBase* h_;
    PackMoves moves_;
    bool gather_;
    Owned<u8> buffer_;
    u32 used_ = 0;
    u32 first_ = 0;  ///< place of the first gathered record
    u32 next_ = 0;
};

/// Those from a record on.
int keepRecords(DbfBase* h, u32 first, bool writable, ChangedRecords* readBefore,
                KeptRecords* kept) {
    for (u32 i = first; i < h->Header.RecordCount; ++i) {
        if (!(readBefore != nullptr ? readBefore->readAgain(i) : ReadRecord(h, i) != 0)) return 0;
        const bool deleted = h->RecordBuffer[0] == kDeleted;
        if (deleted && !writable) return 0;
        if (!deleted && !kept->add(i)) return 0;
    }
    return kept->end() ? 1 : 0;
}

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
    return kept.ready() ? keepRecords(h, 0, writable, readBefore, &kept) : 0;
}

int finishPackRecords(DbfBase* h, bool writable) {
    std::optional<MoveLog> log;
    const std::optional<u64> size = sizeOf(fileno(h->TableFile));
    if (!size || !findMoveLog(h, *size, &log)) return 0;
    if (!log) return 1;
    const std::optional<FileId> named = fileId(h->FileName);
    if (!writable || (named && !isSameFile(named, fileId(h->TableFile)))) return 0;
    const u32 counted = std::exchange(h->Header.RecordCount, log->records);
    KeptRecords kept(h);
    if (kept.ready() && kept.resume(*log) &&
        (log->turn == 0 || keepRecords(h, log->from, true, nullptr, &kept) != 0)) {
        return 1;
    }
    h->Header.RecordCount = counted;
    return 0;
}

}  // namespace mira
