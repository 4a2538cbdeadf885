// Reading ahead. Nothing held is ever older than the last step back of the reader: starts of reads
// only grow while bytes are held, and no byte is served twice.
#include "dbf/table/ahead.h"

#include <algorithm>
#include <cstring>

namespace mira {
namespace {

constexpr u32 kHeld = 32768;
constexpr u32 kPageSize = 4096;

}  // namespace

/// Looks up the counter of a file that was not read before.
void ReadAhead::follow(std::FILE* file) {
    if (file == file_) return;
    file_ = file;
    changes_ = &changesOf(file);
    drop();
}

/// The bytes at an offset, null when not all of them are held.
const u8* ReadAhead::held(u64 offset, u32 count) const {
    if (length_ == 0 || count == 0 || offset < offset_ || offset + count > offset_ + length_) {
        return nullptr;
    }
    if (version_ != changes_->load(std::memory_order_acquire)) return nullptr;
    return buffer_.get() + (offset - offset_);
}

/// Reads ahead from the file's position, at least count bytes. Where writes through other handles
/// spoil what was held, a page costs no more than a record. False without memory.
bool ReadAhead::fill(std::FILE* file, u64 offset, u32 count) {
    if (!buffer_) buffer_ = allocate<u8>(kHeld);
    if (!buffer_) return false;
    const u64 version = changes_->load(std::memory_order_acquire);  // before the read
    const bool spoiled = length_ != 0 && version_ != version;
    version_ = version;
    offset_ = offset;
    length_ = ReadFile(file, buffer_.get(),
                       static_cast<i32>(spoiled ? std::max(count, kPageSize) : kHeld));
    return true;
}

bool ReadAhead::read(std::FILE* file, u64 offset, void* to, u32 count, u32 gap, bool fresh,
                     u32* got) {
    *got = 0;
    follow(file);
    const bool forward = !fresh && offset >= lastEnd_;
    if (offset < lastStart_) drop();
    if (const u8* const bytes = forward ? held(offset, count) : nullptr) {
        std::memcpy(to, bytes, count);
        *got = count;
    } else if (!seekFar(file, offset)) {
        return false;
    } else if (forward && offset - lastEnd_ < gap && count <= kHeld / 2 &&
               fill(file, offset, count)) {
        *got = std::min(count, length_);
        std::memcpy(to, buffer_.get(), *got);
    } else {
        if (forward) drop();
        *got = ReadFile(file, to, static_cast<i32>(count));
    }
    lastStart_ = offset;
    lastEnd_ = offset + *got;
    return true;
}

void ReadAhead::wrote(std::FILE* file, u64 offset, const void* from, u32 count) {
    follow(file);
    const u64 before = changes_->fetch_add(1, std::memory_order_acq_rel);
    if (length_ == 0 || before != version_) return;  // others have written: the bytes are spoiled
    version_ = before + 1;
    const u64 start = std::max(offset, offset_);
    const u64 end = std::min(offset + count, offset_ + length_);
    if (start < end) {
        std::memcpy(buffer_.get() + (start - offset_),
                    static_cast<const u8*>(from) + (start - offset),
                    static_cast<std::size_t>(end - start));
    }
}

}  // namespace mira
