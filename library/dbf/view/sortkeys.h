// Keys of a sort: the texts of the key fields, folded when case does not matter, then the position
// in ten characters, so that no two keys are equal. Keys are texts and hold no zero byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <utility>

#include "internal/file.h"
#include "mira.h"

namespace mira {

inline constexpr std::size_t kSortKeySize = 65536;

/// Builds the key of the record at a position of the unsorted view, not reversed, into key
/// (kSortKeySize bytes); returns its length. Overwrites RecordBuffer and TextBuffer.
std::size_t readSortKey(DbfBase*, u32 position, char* key);

/// The position that ends a key.
u32 positionOfKey(const char* key);

/// Copies of keys, made one by one and released together. A key has a place, which fits 32 bits
/// and grows from key to key. Nothing moves, so that growing never needs the room twice.
class KeyStore {
public:
    static constexpr u64 kBudget = u64{1} << 28;

    /// Copies a key and its zero byte; false when the budget or the memory is used up.
    bool add(const char* key, std::size_t length) {
        const u32 size = static_cast<u32>(length) + 1;
        if (chunkCount_ == 0) commonSize_ = size;
        if (commonSize_ != size) commonSize_ = 0;
        if (size > room_ && !addChunk()) return false;
        Chunk& last = chunks_[chunkCount_ - 1];
        std::memcpy(last.bytes.get() + last.used, key, size);
        last.used += size;
        room_ -= size;
        return true;
    }

    const char* at(u32 place) const {
        return chunks_[place / kChunkSize].bytes.get() + place % kChunkSize;
    }

    /// Calls visit(place) for every key in the order in which they were added.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (u32 i = 0; i < chunkCount_; ++i) {
            const Chunk& chunk = chunks_[i];
            for (u32 start = 0; start < chunk.used; start += sizeAt(chunk, start)) {
                visit(i * kChunkSize + start);
            }
        }
    }

    bool sameLength() const { return commonSize_ != 0; }

    /// How many keys were added before the one at a place; all have the same length.
    u32 indexOf(u32 place) const {
        const u32 inChunk = place % kChunkSize / commonSize_;
        if (place < kChunkSize) return inChunk;
        return kFirstSize / commonSize_ + (place / kChunkSize - 1) * (kChunkSize / commonSize_) +
               inChunk;
    }

private:
    static constexpr u32 kFirstSize = kSortKeySize;  // enough for one key, and for small tables
    static constexpr u32 kChunkSize = 1 << 20;
    static constexpr u32 kChunkMax = kBudget / kChunkSize + 1;

    struct Chunk {
        Owned<char> bytes;
        u32 used = 0;
    };

    u32 sizeAt(const Chunk& chunk, u32 start) const {
        if (commonSize_ != 0) return commonSize_;
        return static_cast<u32>(std::strlen(chunk.bytes.get() + start)) + 1;
    }

    bool addChunk() {
        if (chunkCount_ == kChunkMax) return false;
        const u32 size = chunkCount_ == 0 ? kFirstSize : kChunkSize;
        Owned<char> bytes = allocate<char>(size);
        if (!bytes) return false;
        chunks_[chunkCount_++].bytes = std::move(bytes);
        room_ = size;
        return true;
    }

    std::array<Chunk, kChunkMax> chunks_;
    u32 chunkCount_ = 0;
    u32 room_ = 0;        ///< bytes left in the last chunk
    u32 commonSize_ = 0;  ///< bytes of every key with its zero byte; 0 once they differ
};

}  // namespace mira
