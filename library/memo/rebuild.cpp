#include "memo/rebuild.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "internal/newfile.h"

namespace mira {

namespace {

constexpr u32 kBufferSize = 131072;

static_assert(kPackSignPlace == kMemoHeaderRead);
constexpr u32 kEndPlace = 40;
constexpr u32 kLogSizePlace = 44;
constexpr u32 kNextPlace = 48;
constexpr u32 kRecordsPlace = 52;
constexpr u32 kChecksumPlace = 56;

u32 checksum(const u8* bytes, std::size_t count) {
    u32 sum = 2166136261;
    for (std::size_t i = 0; i < count; ++i) sum = (sum ^ bytes[i]) * 16777619;
    return sum;
}

u32 blocksUpTo(u64 offset, u32 unit) { return static_cast<u32>((offset + unit - 1) / unit); }

bool writeHead(std::FILE* file, const u8* head) {
    return seekTo(file, 0) && writeExact(file, head, kMemoHeadSize);
}

}  // namespace

u8* Bytes::add(std::size_t count) {
    if (size_ + count > room_) {
        const std::size_t room = std::max(2 * room_, size_ + count);
        auto* larger = static_cast<u8*>(std::realloc(bytes_.get(), room));
        if (larger == nullptr) return nullptr;
        static_cast<void>(bytes_.release());
        bytes_.reset(larger);
        room_ = room;
    }
    size_ += count;
    return bytes_.get() + (size_ - count);
}

bool MemoBuilder::start(u32 unit) {
    if (unit == 0) unit = kMemoHeaderMin;
    buildMemoHeader(family_, unit, header_);
    headerSize_ = memoHeaderSize(unit);
    unit_ = memoUnit(family_, header_);
    next_ = loadMemo32(family_, header_);
    buffer_ = allocate<u8>(kBufferSize);
    // From the start, so that an abandoned file can be told.
    u8 head[kMemoHeadSize] = {};
    std::memcpy(head + kPackSignPlace, kPackSign, sizeof kPackSign);
    return buffer_ && put(head, sizeof head) && flush();
}

bool MemoBuilder::flush() {
    const u32 count = used_;
    used_ = 0;
    return writeExact(file_, buffer_.get(), count);
}

bool MemoBuilder::put(const void* bytes, std::size_t count) {
    const auto* from = static_cast<const u8*>(bytes);
    end_ += count;
    while (count > kBufferSize - used_) {
        const u32 part = kBufferSize - used_;
        std::memcpy(buffer_.get() + used_, from, part);
        used_ = kBufferSize;
        if (!flush()) return false;
        from += part;
        count -= part;
    }
    if (count != 0) std::memcpy(buffer_.get() + used_, from, count);
    used_ += static_cast<u32>(count);
    return true;
}

bool MemoBuilder::padTo(u64 offset) {
    constexpr u8 kZeros[512] = {};
    while (end_ < offset) {
        const u64 part = std::min<u64>(sizeof kZeros, offset - end_);
        if (!put(kZeros, static_cast<std::size_t>(part))) return false;
    }
    return true;
}

u32 MemoBuilder::append(const char* bytes, u32 length) {
    const u64 offset = u64{unit_} * next_;
    const u64 end = offset + family_.prefixSize + length + family_.endSize;
    u8 prefix[kMemoPrefixSize];
    if (end > kReachable || !padTo(offset) ||
        !put(prefix, encodeMemoPrefix(family_, length, prefix)) || !put(bytes, length) ||
        !put(&kMemoEnd, family_.endSize)) {
        return 0;
    }
    const u32 block = next_;
    next_ = blocksUpTo(end, unit_);
    return block;
}

bool MemoBuilder::complete(const Bytes& log, u32 records) {
    const u64 end = std::max<u64>(end_, headerSize_);
    if (end + log.size() + unit_ > kReachable) return false;
    u8 head[kMemoHeadSize] = {};
    std::memcpy(head, header_, sizeof header_);
    storeMemo32(family_, head, blocksUpTo(end + log.size(), unit_));
    std::memcpy(head + kPackSignPlace, kPackSign, sizeof kPackSign);
    storeLe32(head + kEndPlace, static_cast<u32>(end));
    storeLe32(head + kLogSizePlace, static_cast<u32>(log.size()));
    storeLe32(head + kNextPlace, next_);
    storeLe32(head + kRecordsPlace, records);
    storeLe32(head + kChecksumPlace, checksum(log.data(), log.size()));
    return padTo(end) && put(log.data(), log.size()) && flush() && writeHead(file_, head);
}

bool readRebuildLog(std::FILE* file, const MemoHead& head, RebuildLog* log) {
    const u32 end = loadLe32(head.bytes + kEndPlace);
    log->size = loadLe32(head.bytes + kLogSizePlace);
    log->records = loadLe32(head.bytes + kRecordsPlace);
    if (u64{end} + log->size > fileSize(file).value_or(0)) return false;
    log->bytes = allocate<u8>(std::max(log->size, 1u));
    return log->bytes && seekTo(file, end) && readExact(file, log->bytes.get(), log->size) &&
           checksum(log->bytes.get(), log->size) == loadLe32(head.bytes + kChecksumPlace);
}

bool isLogCut(std::FILE* file, const MemoHead& head) {
    return fileSize(file) == u64{loadLe32(head.bytes + kEndPlace)};
}

bool releaseRebuild(std::FILE* file) {
    constexpr u8 kUnsigned = 0;  // a single byte is written or not, never half
    return seekTo(file, kPackSignPlace) && writeExact(file, &kUnsigned, 1);
}

bool tidyRebuild(std::FILE* file, const MemoFamily& family) {
    MemoHead start;
    u8* const head = start.bytes;
    if (!readMemoHead(file, &start) || start.size != kMemoHeadSize) return false;
    const u32 end = loadLe32(head + kEndPlace);
    const u32 unit = memoUnit(family, head);
    const u64 logEnd = u64{end} + loadLe32(head + kLogSizePlace);
    const bool untouched = unit != 0 && loadMemo32(family, head) == blocksUpTo(logEnd, unit);
    if (untouched) storeMemo32(family, head, loadLe32(head + kNextPlace));
    std::memset(head + kPackSignPlace, 0, kMemoHeadSize - kPackSignPlace);
    return writeHead(file, head) && (!untouched || ftruncate(fileno(file), end) == 0);
}

bool isAbandonedRebuild(std::FILE* file) {
    static constexpr u8 kNothing[kMemoHeadSize] = {};
    MemoHead head;
    if (!readMemoHead(file, &head)) return false;
    // A power cut may have lost its beginning.
    if (std::memcmp(head.bytes, kNothing, head.size) == 0) return true;
    if (head.size <= kPackSignPlace) return false;
    const std::size_t sign = std::min<std::size_t>(head.size - kPackSignPlace, sizeof kPackSign);
    return std::memcmp(head.bytes + kPackSignPlace, kPackSign, sign) == 0;
}

}  // namespace mira
