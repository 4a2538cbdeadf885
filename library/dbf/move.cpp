// Moving records. The operating system writes first bytes first, and a kill may stop it at any.
//
//   down  Each byte has been written anew before its old place is overwritten, so a chunk of any
//         size may be torn.
//   up    The other way round: a torn chunk has overwritten up to a record's length of bytes that
//         are not yet at their new place. One record at a time does not overlap itself. More at a
//         time are copied past the end of the table beforehand, or it is one at a time where
//         there is no room.
#include "dbf/move.h"

#include <algorithm>
#include <cstring>

#include "dbf/table/table.h"

namespace mira {
namespace {

constexpr u32 kWideRecord = 16384;  // large enough to be moved one by one
constexpr u32 kFewRecords = 16;     // so are these

}  // namespace

Mover::Mover(DbfBase* h, u32 records)
    : h_(h),
      chunk_(std::clamp(kTransferSize / std::max<u32>(h->Header.RecordLength, 1), u32{1},
                        std::max<u32>(records, 1))),
      buffer_(allocate<u8>(std::size_t{chunk_} * h->Header.RecordLength)) {}

bool Mover::read(u32 record, u8* to, u32 records) const {
    return seekFar(h_->TableFile, offsetOf(h_, record)) &&
           readExact(h_->TableFile, to, records * h_->Header.RecordLength);
}

bool Mover::write(u32 record, const u8* from, u32 records) const {
    h_->Modified = 1;
    return writeTable(h_, offsetOf(h_, record), from, records * h_->Header.RecordLength);
}

bool Mover::place(u32 record, const u8* from) const {
    return write(record, from) || standing(record, from, 1) == 1;
}

std::optional<u32> Mover::standing(u32 record, const u8* from, u32 records) const {
    const u32 length = h_->Header.RecordLength;
    const Owned<u8> found = allocate<u8>(length);
    for (u32 i = 0; i < records; ++i) {
        if (!found || !read(record + i, found.get())) return std::nullopt;
        if (std::memcmp(found.get(), from + std::size_t{i} * length, length) != 0) return i;
    }
    return records;
}

Moved Mover::down(u32 first, u32 end) {
    while (first < end) {
        const u32 count = std::min(chunk_, end - first);
        if (!read(first, buffer_.get(), count)) return {first, MoveState::Failed};
        if (!write(first - 1, buffer_.get(), count)) {
            const bool again = write(first - 1, buffer_.get(), count);
            const std::optional<u32> moved =
                again ? count : standing(first - 1, buffer_.get(), count);
            if (!moved) return {first, MoveState::Stuck};
            return {first + *moved, MoveState::Failed};
        }
        first += count;
    }
    return {end, MoveState::Done};
}

Moved Mover::up(u32 first, u32 end, std::optional<u32> spare) {
    const bool oneByOne =
        !spare || h_->Header.RecordLength >= kWideRecord || end - first <= kFewRecords;
    u32 chunk = 1;  // the first record makes the file longer: a full disk is met here
    u32 next = oneByOne ? 1 : chunk_;
    while (end > first) {
        const u32 count = std::min(chunk, end - first);
        const u32 from = end - count;
        if (!read(from, buffer_.get(), count)) return {end, MoveState::Failed};
        if (count > 1) {
            usedSpare_ = true;
            if (!write(*spare, buffer_.get(), count)) {
                chunk = next = 1;
                continue;
            }
        }
        if (count == 1) {
            if (!place(from + 1, buffer_.get())) return {end, MoveState::Failed};
        } else if (!write(from + 1, buffer_.get(), count)) {
            if (!write(from + 1, buffer_.get(), count)) return {end, MoveState::Stuck};
            return {from, MoveState::Failed};
        }
        end = from;
        chunk = next;
    }
    return {first, MoveState::Done};
}

}  // namespace mira
