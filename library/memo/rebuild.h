// Building a memo file anew: its memos one after the other, and after them, until all records
// have their new references, a log of what every record is to hold.
//
//   24  16  the sign of a log (dbf/table/packlog.h)
//   40   4  end: bytes of the finished file, where the log starts
//   44   4  bytes of the log
//   48   4  next free block of the finished file
//   52   4  records in the log
//   56   4  checksum of the log
//
// (little-endian, in what are zeros of the header otherwise.) The log has for each record the bytes
// of all fields that hold a reference, as they were and as they are to be. The next free block in
// the header leads past the log meanwhile.
#pragma once

#include "memo/memo.h"

namespace mira {

/// Bytes that grow as they are added to.
class Bytes {
public:
    /// Room for count more bytes; null when there is no memory.
    u8* add(std::size_t count);
    void dropLast(std::size_t count) { size_ -= count; }
    const u8* data() const { return bytes_.get(); }
    std::size_t size() const { return size_; }

private:
    Owned<u8> bytes_;
    std::size_t size_ = 0;
    std::size_t room_ = 0;
};

/// A memo file while it is filled.
class MemoBuilder {
public:
    MemoBuilder(std::FILE* file, const MemoFamily& family) : file_(file), family_(family) {}
    /// unit 0 for the usual one.
    bool start(u32 unit);
    /// The memo's block; 0 on failure.
    u32 append(const char* bytes, u32 length);
    /// Writes the log, and the header, which makes the file an unfinished rebuild.
    bool complete(const Bytes& log, u32 records);

private:
    bool put(const void* bytes, std::size_t count);
    bool padTo(u64 offset);
    bool flush();

    std::FILE* file_;
    const MemoFamily& family_;
    Owned<u8> buffer_;
    u32 used_ = 0;
    u64 end_ = 0;  ///< offset after everything put
    u32 unit_ = 0;
    u32 next_ = 0;  ///< next free block
    u8 header_[kMemoHeaderRead] = {};
    u32 headerSize_ = 0;
};

/// The log of an unfinished rebuild.
struct RebuildLog {
    Owned<u8> bytes;
    u32 size = 0;
    u32 records = 0;
};
/// Of a file with such a beginning; false when it is damaged.
bool readRebuildLog(std::FILE*, const MemoHead&, RebuildLog*);
/// Whether the log has been cut off already, and only the file's beginning still tells of one.
bool isLogCut(std::FILE*, const MemoHead&);
/// Makes the file an ordinary memo file, in which the log only takes up room. Done or not done.
bool releaseRebuild(std::FILE*);
/// Then cuts the log off, unless something has been appended after it meanwhile.
bool tidyRebuild(std::FILE*, const MemoFamily&);

/// Whether an abandoned file is a memo file that was being built.
bool isAbandonedRebuild(std::FILE*);

}  // namespace mira
