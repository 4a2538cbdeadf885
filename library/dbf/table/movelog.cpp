#include "dbf/table/movelog.h"

#include <algorithm>
#include <cstring>

#include "dbf/table/packlog.h"
#include "dbf/table/position.h"
#include "internal/bytes.h"
#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kTurnPlace = 16;
constexpr u32 kRecordsPlace = 20;
constexpr u32 kFromPlace = 24;
constexpr u32 kToPlace = 28;
constexpr u32 kAreaPlace = 32;
constexpr u32 kSparePlace = 36;
constexpr u32 kSpareSumPlace = 40;
constexpr u32 kSumPlace = 48;

/// A slot whose numbers fit one another and a file of a size.
std::optional<MoveLog> decode(const DbfBase* h, const u8* slot, u64 size) {
    if (std::memcmp(slot, kPackSign, sizeof kPackSign) != 0 ||
        moveSum(kMoveSumStart, slot, kSumPlace) != loadLe64(slot + kSumPlace)) {
        return std::nullopt;
    }
    MoveLog log;
    log.turn = loadLe32(slot + kTurnPlace);
    log.records = loadLe32(slot + kRecordsPlace);
    log.from = loadLe32(slot + kFromPlace);
    log.to = loadLe32(slot + kToPlace);
    log.areaRecords = loadLe32(slot + kAreaPlace);
    log.spare = loadLe32(slot + kSparePlace);
    log.spareSum = loadLe64(slot + kSpareSumPlace);
    const bool fits = log.records < kNoPosition && log.areaRecords <= log.records &&
                      log.spare <= log.areaRecords && log.from <= log.records &&
                      log.spare <= log.records - log.from && log.to < log.from &&
                      log.slots(h) + u64{2} * kMoveSlotSize == size;
    return fits ? std::optional(log) : std::nullopt;
}

/// The log of a table that counts so many records, if its slots or else its mark tell of one. A
/// table that counts more than a slot has been appended to by a program that does not know the log.
std::optional<MoveLog> choose(const DbfBase* h, const u8* slots, u32 count, u64 size) {
    std::optional<MoveLog> found;
    for (u32 i = 0; i < 2; ++i) {
        const std::optional<MoveLog> log = decode(h, slots + std::size_t{i} * kMoveSlotSize, size);
        if (log && log->turn % 2 == i && log->records >= count &&
            (!found || log->turn > found->turn)) {
            found = log;
        }
    }
    if (found) return found;
    const u64 end = offsetOf(h, count);
    const MoveMark mark = moveMark();
    u8 bytes[kMoveMarkSize];
    u32 got = 0;
    const bool marked = size > end + 1 &&
                        readPlaced(fileno(h->TableFile), end, bytes, sizeof bytes, &got) &&
                        got > 1 && std::equal(bytes, bytes + got, mark.begin());
    return marked ? std::optional(MoveLog{.records = count}) : std::nullopt;
}

}  // namespace

u64 MoveLog::slots(const DbfBase* h) const {
    return offsetOf(h, records) + (u64{2} * areaRecords + 1) * h->Header.RecordLength;
}

u64 moveSum(u64 before, const u8* bytes, std::size_t count) {
    constexpr u64 kFactor = 0x9E3779B97F4A7C15;
    for (; count >= 8; bytes += 8, count -= 8) {
        before = (before ^ loadLe64(bytes)) * kFactor;
        before ^= before >> 32;
    }
    for (; count != 0; ++bytes, --count) before = (before ^ *bytes) * kFactor;
    return before;
}

void encodeMoveLog(const MoveLog& log, u8 to[kMoveHeadSize]) {
    std::memcpy(to, kPackSign, sizeof kPackSign);
    storeLe32(to + kTurnPlace, log.turn);
    storeLe32(to + kRecordsPlace, log.records);
    storeLe32(to + kFromPlace, log.from);
    storeLe32(to + kToPlace, log.to);
    storeLe32(to + kAreaPlace, log.areaRecords);
    storeLe32(to + kSparePlace, log.spare);
    storeLe64(to + kSpareSumPlace, log.spareSum);
    storeLe64(to + kSumPlace, moveSum(kMoveSumStart, to, kSumPlace));
}

MoveMark moveMark() {
    MoveMark mark{0x1A};
    std::copy(std::begin(kPackSign), std::end(kPackSign), mark.begin() + 1);
    return mark;
}

bool findMoveLog(const DbfBase* h, u64 size, std::optional<MoveLog>* found) {
    constexpr u32 kBoth = 2 * kMoveSlotSize;
    constexpr u32 kCountPlace = 4;
    u8 slots[kBoth] = {}, count[4];
    u32 got = 0;
    found->reset();
    if (h->Header.RecordLength == 0) return true;
    const int file = fileno(h->TableFile);
    if (size >= kBoth && !readPlaced(file, size - kBoth, slots, kBoth, &got)) return false;
    if (!readPlaced(file, kCountPlace, count, sizeof count, &got)) return false;
    if (got == sizeof count) *found = choose(h, slots, loadLe32(count), size);
    return true;
}

u32 countRecords(const DbfBase* h, u64 size) {
    std::optional<MoveLog> log;
    const u32 held = recordsInFile(h, size);
    // Copies stand behind more records than the header counts.
    if (held > h->Header.RecordCount) findMoveLog(h, size, &log);
    return log ? log->records : held;
}

}  // namespace mira
