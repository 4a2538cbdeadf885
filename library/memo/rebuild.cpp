#include "memo/rebuild.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "internal/newfile.h"

namespace mira {

namespace {

constexpr u32 kBufferSize = 131072;

constexpr char kSign[16] = "Pack unfinished";
constexpr u32 kSignPlace = kMemoHeaderRead;
constexpr u32 kEndPlace = 40;
constexpr u32 kLogSizePlace = 44;
constexpr u32 kNextPlace = 48;
constexpr u32 kRecordsPlace = 52;
constexpr u32 kChecksumPlace = 56;
constexpr u32 kHeadSize = 64;  // header and sign; the first memo starts after it whatever its unit

u32 checksum(const u8* bytes, std::size_t count) {
    u32 sum = 2166136261;
    for (std::size_t i = 0; i < count; ++i) sum = (sum ^ bytes[i]) * 16777619;
    return sum;
}

u32 blocksUpTo(u64 offset, u32 unit) { return static_cast<u32>((offset + unit - 1) / unit); }

/// Bytes at the start of a file, however it stands; their number.
u32 readHead(std::FILE* file, u8* head) {
    if (file == nullptr) return 0;
    const ssize_t got = pread(fileno(file), head, kHeadSize, 0);
    return got > 0 ? static_cast<u32>(got) : 0;
}

bool isSigned(const u8* head, u32 size) {
    return size == kHeadSize && std::memcmp(head + kSignPlace, kSign, sizeof kSign) == 0;
}

bool writeHead(std::FILE* file, const u8* head) {
    return seekTo(file, 0) && writeExact(file, head, kHeadSize);
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
    u8 head[kHeadSize] = {};
    std::memcpy(head + kSignPlace, kSign, sizeof kSign);
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
    u8 head[kHeadSize] = {};
    std::memcpy(head, header_, sizeof header_);
    storeMemo32(family_, head, blocksUpTo(end + log.size(), unit_));
    std::memcpy(head + kSignPlace, kSign, sizeof kSign);
    storeLe32(head + kEndPlace, static_cast<u32>(end));
    storeLe32(head + kLogSizePlace, static_cast<u32>(log.size()));
    storeLe32(head + kNextPlace, next_);
    storeLe32(head + kRecordsPlace, records);
    storeLe32(head + kChecksumPlace, checksum(log.data(), log.size()));
    return padTo(end) && put(log.data(), log.size()) && flush() && writeHead(file_, head);
}

bool isUnfinished(std::FILE* file) {
    u8 head[kHeadSize];
    return isSigned(head, readHead(file, head));
}

bool isPackUnfinished(DbfBase* h) {
    if (h->Private == nullptr || h->FirstMemoField == -1 || !h->Private->unfinished) return false;
    const OwnedFile file(Open_FileRO(h->MemoFileName));  // another handle may have finished it
    return file && (h->Private->unfinished = isUnfinished(file.get()));
}

bool readRebuildLog(std::FILE* file, RebuildLog* log) {
    u8 head[kHeadSize];
    if (!isSigned(head, readHead(file, head))) return false;
    const u32 end = loadLe32(head + kEndPlace);
    log->size = loadLe32(head + kLogSizePlace);
    log->records = loadLe32(head + kRecordsPlace);
    if (u64{end} + log->size > fileSize(file).value_or(0)) return false;
    log->bytes = allocate<u8>(std::max(log->size, 1u));
    return log->bytes && seekTo(file, end) && readExact(file, log->bytes.get(), log->size) &&
           checksum(log->bytes.get(), log->size) == loadLe32(head + kChecksumPlace);
}

bool releaseRebuild(std::FILE* file) {
    constexpr u8 kUnsigned = 0;  // a single byte is written or not, never half
    return seekTo(file, kSignPlace) && writeExact(file, &kUnsigned, 1);
}

bool tidyRebuild(std::FILE* file, const MemoFamily& family) {
    u8 head[kHeadSize];
    if (readHead(file, head) != kHeadSize) return false;
    const u32 end = loadLe32(head + kEndPlace);
    const u32 unit = memoUnit(family, head);
    const u64 logEnd = u64{end} + loadLe32(head + kLogSizePlace);
    const bool untouched = unit != 0 && loadMemo32(family, head) == blocksUpTo(logEnd, unit);
    if (untouched) storeMemo32(family, head, loadLe32(head + kNextPlace));
    std::memset(head + kSignPlace, 0, kHeadSize - kSignPlace);
    return writeHead(file, head) && (!untouched || ftruncate(fileno(file), end) == 0);
}

bool isAbandonedRebuild(std::FILE* file) {
    static constexpr u8 kNothing[kSignPlace] = {};
    u8 head[kHeadSize];
    const u32 got = readHead(file, head);
    if (got <= kSignPlace) return std::memcmp(head, kNothing, got) == 0;
    return std::memcmp(head + kSignPlace, kSign, std::min<u32>(got - kSignPlace, sizeof kSign)) ==
           0;
}

}  // namespace mira
