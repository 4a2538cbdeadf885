// The bytes of a damaged file, read through a window, so that its size does not matter.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "mira.h"
#include "tables/value/memo.h"

namespace mira::tables {

class Source {
public:
    /// step: called for every window that is read; may throw. Throws a Refusal when the file
    /// cannot be opened or its size not be taken.
    explicit Source(
        const std::string& path, std::function<void()> step = [] {});

    u64 size() const { return size_; }
    /// Bytes from a place on, fewer at the end of the file; they last until the next call. length
    /// is at most kMost. Throws a Refusal when they cannot be read.
    std::string_view at(u64 place, std::size_t length);
    u8 byteAt(u64 place);
    static constexpr std::size_t kMost = std::size_t{1} << 19;

    /// Whether the file has line feeds and each follows a carriage return, as after a transfer that
    /// took it for a text.
    bool hasTextEnds();
    /// Takes the carriage return before every line feed away: exactly what such a transfer has put
    /// in. Throws a Refusal when there is no room for the copy.
    void undoTextEnds();

private:
    void take(File file);

    std::string path_;
    std::function<void()> step_;
    File file_;
    u64 size_ = 0;
    u64 start_ = 0;  ///< of the window
    std::string window_;
};

}  // namespace mira::tables
