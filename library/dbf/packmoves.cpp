#include "dbf/packmoves.h"

#include <unistd.h>

#include <algorithm>

#include "dbf/table/position.h"
#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kBufferSize = 131072;
constexpr u32 kSpareBytes = 2 << 20;
constexpr u32 kRoomBytes = 1 << 20;  // between new places and old ones: goes without spare copies

/// As many whole records as fit, at least one.
u32 recordsIn(const DbfBase* h, u32 bytes) {
    return std::max<u32>(bytes / h->Header.RecordLength, 1);
}

}  // namespace

/// Reads the records that are to have spare copies, and writes these; their checksum, if that could
/// be done.
std::optional<u64> PackMoves::copySpare(const MoveLog& log, bool write) {
    const u32 length = h_->Header.RecordLength;
    const u64 from = offsetOf(h_, log.from), to = offsetOf(h_, log.area());
    const u64 size = u64{log.spare} * length;
    const Owned<u8> buffer = allocate<u8>(kBufferSize);
    u64 sum = kMoveSumStart;
    for (u64 at = 0; at < size; at += kBufferSize) {
        const auto part = static_cast<u32>(std::min<u64>(kBufferSize, size - at));
        u32 got = 0;
        if (!buffer || !readPlaced(fileno(h_->TableFile), from + at, buffer.get(), part, &got) ||
            got != part) {
            return std::nullopt;
        }
        sum = moveSum(sum, buffer.get(), part);
        if (write && writePlaced(h_->TableFile, to + at, buffer.get(), part) != part) {
            return std::nullopt;
        }
    }
    return sum;
}

bool PackMoves::writeSlot() {
    u8 slot[kMoveHeadSize] = {};
    encodeMoveLog(log_, slot);
    // A whole one is a sector, written or not.
    u8 sector[kMoveSlotSize] = {};
    std::copy(std::begin(slot), std::end(slot), sector);
    return writePlaced(h_->TableFile, log_.slot(h_), sector, kMoveSlotSize) == kMoveSlotSize;
}

bool PackMoves::cut(u64 size) {
    const bool done = ftruncate(fileno(h_->TableFile), static_cast<off_t>(size)) == 0;
    tableChanged(h_);
    return done;
}

/// The log comes to the disk before the spare copies, which would count as records without it.
bool PackMoves::begin(u32 from, u32 to) {
    const std::optional<u64> size = sizeOf(fileno(h_->TableFile));
    const u32 records = h_->Header.RecordCount;
    const u64 end = offsetOf(h_, records);
    const MoveMark mark = moveMark();
    u8 behind[kMoveMarkSize];
    u32 held = 0;
    if (!size || *size < end ||
        !readPlaced(fileno(h_->TableFile), end, behind, sizeof behind, &held)) {
        return false;
    }
    backUp(h_);
    h_->Modified = 1;
    const u32 area = std::min(recordsIn(h_, kSpareBytes), records);
    log_ = {1, records, from, to, area, std::min(area, records - from), 0};
    const std::optional<u64> sum = copySpare(log_, false);
    log_.spareSum = sum.value_or(0);
    // The slot of turn 1 is the one that the file ends with.
    if (sum && writePlaced(h_->TableFile, end, mark.data(), kMoveMarkSize) == kMoveMarkSize &&
        writeSlot() && synchronise(fileno(h_->TableFile)) && copySpare(log_, true) == sum &&
        (log_.spare == 0 || synchronise(fileno(h_->TableFile)))) {
        return true;
    }
    cut(*size);
    writePlaced(h_->TableFile, end, behind, held);
    log_ = {};
    return false;
}

/// A turn without spare copies writes up to what has not moved; one with them, that much farther.
bool PackMoves::setSpare(MoveLog* next) {
    const u32 gap = next->from - next->to;
    if (gap > recordsIn(h_, kRoomBytes)) return true;
    next->spare = std::min(next->areaRecords, next->records - next->from);
    const std::optional<u64> sum = copySpare(*next, true);
    if (!sum) next->spare = 0;
    next->spareSum = sum.value_or(0);
    return next->spare != 0 || gap > 1;
}

bool PackMoves::advance(u32 from, u32 to) {
    if (isClosed(h_)) return false;
    if (log_.turn == 0) {
        if (!begin(from, to)) return false;
    } else {
        if (!synchronise(fileno(h_->TableFile))) return false;
        MoveLog next{log_.turn + 1, log_.records, from, to, log_.areaRecords, 0, 0};
        if (!setSpare(&next)) return false;
        log_ = next;
        if (!writeSlot() || !synchronise(fileno(h_->TableFile))) return false;
    }
    limit_ = log_.from + log_.spare - 1;
    return true;
}

bool PackMoves::putSpareBack() {
    const u32 length = h_->Header.RecordLength;
    const u64 from = offsetOf(h_, log_.area()), to = offsetOf(h_, log_.from);
    const u64 size = u64{log_.spare} * length;
    const Owned<u8> buffer = allocate<u8>(kBufferSize);
    u64 sum = kMoveSumStart;
    for (const bool write : {false, true}) {
        // Not on the disk: its turn has written nothing.
        if (write && sum != log_.spareSum) return true;
        for (u64 at = 0; at < size; at += kBufferSize) {
            const auto part = static_cast<u32>(std::min<u64>(kBufferSize, size - at));
            u32 got = 0;
            if (!buffer ||
                !readPlaced(fileno(h_->TableFile), from + at, buffer.get(), part, &got) ||
                got != part || (write && !writeTable(h_, to + at, buffer.get(), part))) {
                return false;
            }
            if (!write) sum = moveSum(sum, buffer.get(), part);
        }
    }
    return true;
}

bool PackMoves::resume(const MoveLog& log) {
    h_->Modified = 1;
    if (log.turn == 0) return cut(offsetOf(h_, log.records) + 1);
    log_ = log;
    limit_ = log_.from + log_.spare - 1;
    return putSpareBack();
}

bool PackMoves::end(u32 count) {
    const u32 records = h_->Header.RecordCount;
    if (isClosed(h_) || (log_.turn == 0 && !advance(records, count))) return false;
    h_->Header.RecordCount = count;
    const bool cutOff =
        WriteHeader(h_) != 0 && synchronise(fileno(h_->TableFile)) && cut(offsetOf(h_, count) + 1);
    if (!cutOff) h_->Header.RecordCount = records;
    return cutOff && synchronise(fileno(h_->TableFile));
}

}  // namespace mira
