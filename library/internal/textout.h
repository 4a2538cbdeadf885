// Appending to a fixed buffer: always terminated, never past the end, and it tells when it cut.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace mira {

class TextOut {
public:
    /// room includes the terminator and is at least 1.
    TextOut(char* buffer, std::size_t room) : buffer_(buffer), room_(room) { buffer_[0] = 0; }

    void put(char c) { put(std::string_view(&c, 1)); }

    void put(std::string_view text) {
        const std::size_t count = std::min(text.size(), room_ - 1 - length_);
        cut_ = cut_ || count < text.size();
        if (count != 0) std::memcpy(buffer_ + length_, text.data(), count);
        length_ += count;
        buffer_[length_] = 0;
    }

    std::size_t length() const { return length_; }
    bool cut() const { return cut_; }
    char* data() { return buffer_; }

private:
    char* buffer_;
    std::size_t room_;
    std::size_t length_ = 0;
    bool cut_ = false;
};

}  // namespace mira
