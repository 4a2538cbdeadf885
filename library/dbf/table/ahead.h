// Bytes of a table read ahead of a reader that goes forward, one read for many records.
#pragma once

#include <atomic>
#include <cstdio>

#include "internal/file.h"
#include "mira.h"

namespace mira {

class ReadAhead {
public:
    /// Reads up to count bytes at a file offset. A read that starts less than a gap after the end
    /// of the one before continues it and may be served from bytes held. One that goes back, or
    /// looks again at what the one before has read, goes to the file, as a fresh one always does.
    /// False when the offset cannot be reached; *got becomes the number of bytes read.
    bool read(std::FILE*, u64 offset, void* to, u32 count, u32 gap, bool fresh, u32* got);
    /// Every write of the handle to the table is told here: other handles of the file look at it
    /// again, this one carries it over to the bytes it holds.
    void wrote(std::FILE*, u64 offset, const void* from, u32 count);
    /// Forgets the bytes held.
    void drop() { length_ = 0; }

private:
    void follow(std::FILE*);
    const u8* held(u64 offset, u32 count) const;
    bool fill(std::FILE*, u64 offset, u32 count);

    Owned<u8> buffer_;                     // allocated by the first read that continues
    std::FILE* file_ = nullptr;            // the last table read or written
    std::atomic<u64>* changes_ = nullptr;  // to that file, by whatever handle
    u64 version_ = 0;                      // *changes_ for which the bytes held are true
    u64 offset_ = 0;                       // file offset of buffer_[0]
    u32 length_ = 0;                       // valid bytes in buffer_
    u64 lastStart_ = 0;                    // file offsets of the read before
    u64 lastEnd_ = 0;
};

}  // namespace mira
