// Keys of a sort: the texts of the key fields, folded when case does not matter, then the position
// in ten characters, so that no two keys are equal. Keys are texts and hold no zero byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>

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
    static constexpr u32 kChunkSize = 1 << 20;
    static constexpr u32 kChunkCount = 256;
    static constexpr u64 kBudget = u64{kChunkSize} * kChunkCount;

    /// Copies a key and its zero byte; false when the budget or the memory is used up.
    bool add(const char* key, std::size_t length, u32* place) {
        const u32 size = static_cast<u32>(length) + 1;
        if (chunksUsed_ == 0) commonSize_ = size;
        if (commonSize_ != size) commonSize_ = 0;
        if (size > room_ && !addChunk()) return false;
        *place = chunksUsed_ * kChunkSize - room_;
        std::memcpy(chunks_[chunksUsed_ - 1].get() + kChunkSize - room_, key, size);
        room_ -= size;
        return true;
    }

    const char* at(u32 place) const {
        return chunks_[place / kChunkSize].get() + place % kChunkSize;
    }

    bool sameLength() const { return commonSize_ != 0; }

    /// How many keys were added before the one at a place; all have the same length.
    u32 indexOf(u32 place) const {
        return place / kChunkSize * (kChunkSize / commonSize_) + place % kChunkSize / commonSize_;
    }

private:
    bool addChunk() {
        if (chunksUsed_ == kChunkCount) return false;
        chunks_[chunksUsed_] = allocate<char>(kChunkSize);
        if (!chunks_[chunksUsed_]) return false;
        ++chunksUsed_;
        room_ = kChunkSize;
        return true;
    }

    std::array<Block<char>, kChunkCount> chunks_;
    u32 chunksUsed_ = 0;
    u32 room_ = 0;        ///< bytes left in the last chunk
    u32 commonSize_ = 0;  ///< bytes of every key with its zero byte; 0 once they differ
};

}  // namespace mira
