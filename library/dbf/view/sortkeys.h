// Keys of a sort: the texts of the key fields, folded when case does not matter, then the position
// in ten characters, so that no two keys are equal. Keys are texts and hold no zero byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <optional>

#include "internal/bytes.h"
#include "internal/file.h"
#include "mira.h"

namespace mira {

inline constexpr std::size_t kSortKeySize = 65536;

/// Builds the key of the record at a position of the unsorted view, not reversed, into key
/// (kSortKeySize bytes); returns its length. Overwrites RecordBuffer and TextBuffer.
std::size_t readSortKey(DbfBase*, u32 position, char* key);

/// Copies of keys, made one by one and released together; before each stands its position. A key
/// has a place, which fits 32 bits. Nothing moves, so that growing never needs the room twice.
class KeyStore {
public:
    static constexpr u64 kBudget = u64{1} << 28;
    static constexpr u32 kBesides = sizeof(u32) + 1;  // bytes kept for a key: position, zero byte

    /// Copies a key; none when the budget or the memory is used up.
    std::optional<u32> add(const char* key, std::size_t length, u32 position) {
        const u32 size = static_cast<u32>(length) + kBesides;
        if (chunkCount_ == 0) firstSize_ = size;
        sameLength_ = sameLength_ && size == firstSize_;
        if (size > room_ && !addChunk()) return std::nullopt;
        u8* const to = chunks_[chunkCount_ - 1].get() + used_;
        storeLe32(to, position);
        std::memcpy(to + sizeof position, key, length + 1);
        const u32 place = (chunkCount_ - 1) * kChunkSize + used_ + u32{sizeof position};
        used_ += size;
        room_ -= size;
        return place;
    }

    const char* at(u32 place) const {
        return reinterpret_cast<const char*>(chunks_[place / kChunkSize].get()) +
               place % kChunkSize;
    }

    bool sameLength() const { return sameLength_; }

private:
    // The first is enough for one key, and for small tables.
    static constexpr u32 kFirstSize = kSortKeySize + kBesides;
    static constexpr u32 kChunkSize = 1 << 20;
    static constexpr u32 kChunkMax = kBudget / kChunkSize + 1;

    bool addChunk() {
        if (chunkCount_ == kChunkMax) return false;
        room_ = chunkCount_ == 0 ? kFirstSize : kChunkSize;
        used_ = 0;
        return (chunks_[chunkCount_++] = allocate<u8>(room_)) != nullptr;
    }

    std::array<Owned<u8>, kChunkMax> chunks_;
    u32 chunkCount_ = 0;
    u32 used_ = 0;       ///< bytes of the last chunk
    u32 room_ = 0;       ///< left in it
    u32 firstSize_ = 0;  ///< of the first key
    bool sameLength_ = true;
};

/// The position of a key in a store.
inline u32 positionOf(const char* kept) {
    return loadLe32(reinterpret_cast<const u8*>(kept) - sizeof(u32));
}

}  // namespace mira
