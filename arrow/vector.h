// Arrays while they grow.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "mira.h"

namespace mira::arrow {

/// Bytes that grow; those past size are without a value.
class Bytes {
public:
    Bytes() = default;
    Bytes(Bytes&& other) noexcept
        : data_(std::move(other.data_)),
          size_(std::exchange(other.size_, 0)),
          capacity_(std::exchange(other.capacity_, 0)) {}
    Bytes& operator=(Bytes&& other) noexcept {
        data_ = std::move(other.data_);
        size_ = std::exchange(other.size_, 0);
        capacity_ = std::exchange(other.capacity_, 0);
        return *this;
    }

    /// Room for count more bytes. Throws std::bad_alloc.
    void reserve(std::size_t count) {
        if (capacity_ - size_ < count) grow(count);
    }
    u8* end() { return data_.get() + size_; }
    /// Takes count bytes at the end, for which there is room, as written.
    void add(std::size_t count) { size_ += count; }
    /// Appends so many bytes of one value.
    void fill(std::size_t count, u8 value) {
        reserve(count);
        std::memset(end(), value, count);
        add(count);
    }
    void append(const void* from, std::size_t count) {
        reserve(count);
        if (count != 0) std::memcpy(end(), from, count);
        add(count);
    }
    template <typename T>
    void put(T value) {
        append(&value, sizeof value);
    }
    u8* data() { return data_.get(); }
    std::size_t size() const { return size_; }
    /// Empty, with its room.
    void clear() { size_ = 0; }

private:
    struct Free {
        void operator()(u8* bytes) const { std::free(bytes); }
    };

    void grow(std::size_t count) {
        constexpr std::size_t kLeast = 64;
        const std::size_t wanted = size_ + count;
        const std::size_t capacity = wanted < 2 * capacity_ ? 2 * capacity_ : wanted + kLeast;
        void* const grown = std::realloc(data_.get(), capacity);
        if (grown == nullptr) throw std::bad_alloc();
        static_cast<void>(data_.release());
        data_.reset(static_cast<u8*>(grown));
        capacity_ = capacity;
    }

    std::unique_ptr<u8, Free> data_;
    std::size_t size_ = 0;
    std::size_t capacity_ = 0;
};

/// A column's array.
struct Vector {
    Bytes valid{};   // a bit per entry: 0 for null
    Bytes values{};  // of one width, bits for logicals; of texts their ends, 64 bits, after a 0
    Bytes bytes{};   // of texts
    std::size_t count = 0;
    std::size_t nulls = 0;

    /// Empty, with its room.
    void clear() {
        for (Bytes* of : {&valid, &values, &bytes}) of->clear();
        count = nulls = 0;
    }
    /// The next entry is null.
    void setNull() {
        valid.data()[count / 8] &= static_cast<u8>(~(1U << (count % 8)));
        ++nulls;
    }
    /// The next entry of a column of logicals is true.
    void setTrue() { values.data()[count / 8] |= static_cast<u8>(1U << (count % 8)); }
    /// Ends the text of the next entry; there is room for it in values.
    void endText() {
        const u64 end = bytes.size();
        std::memcpy(values.end(), &end, sizeof end);
        values.add(sizeof end);
        ++count;
    }
};

/// The room of arrays that their consumer has released, for those to come: fresh memory costs as
/// much as filling it. One for each column; arrays are released on any thread.
class Spares {
public:
    explicit Spares(std::size_t columns) : spares_(columns) {}

    Vector take(std::size_t column) {
        const std::lock_guard lock(mutex_);
        return std::move(spares_[column]);
    }
    void give(std::size_t column, Vector vector) {
        vector.clear();
        const std::lock_guard lock(mutex_);
        spares_[column] = std::move(vector);
    }

private:
    std::mutex mutex_;
    std::vector<Vector> spares_;
};

}  // namespace mira::arrow
