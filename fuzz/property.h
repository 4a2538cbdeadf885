// A property is a function of bytes that throws when the library is wrong. The fuzz engine drives
// it with any bytes, the test program with its corpus and with changed inputs from there.
#pragma once

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

#include "support/bytes.h"

namespace test {

[[noreturn]] inline void fail(const char* file, int line, const std::string& what) {
    throw std::runtime_error(file + ":"s + std::to_string(line) + ": " + what);
}

/// Bytes that are no characters as numbers.
template <typename T>
std::string visible(const T& value) {
    if constexpr (std::is_arithmetic_v<T>) {
        return std::to_string(value);
    } else {
        std::string out;
        for (const char c : std::string_view(value))
            out +=
                c >= ' ' && c <= '~' ? std::string(1, c) : printed("\\x%02X", static_cast<u8>(c));
        return out;
    }
}

template <typename A, typename B>
void checkEqual(const A& got, const B& wanted, const char* file, int line, const char* what) {
    if (got == wanted) return;
    fail(file, line, what + " is "s + visible(got) + ", not " + visible(wanted));
}

#define CHECK(condition)             \
    static_cast<void>((condition) || \
                      (test::fail(__FILE__, __LINE__, "not true: " #condition), true))
#define CHECK_EQUAL(got, wanted) test::checkEqual(got, wanted, __FILE__, __LINE__, #got)

/// The input, taken from its beginning; zeros once it is used up.
class Input {
public:
    Input(const u8* data, std::size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

    bool empty() const { return left_.empty(); }
    std::string text(std::size_t length) {
        const std::string_view taken = left_.substr(0, length);
        left_.remove_prefix(taken.size());
        return std::string(taken);
    }
    /// All that is left, up to a zero byte.
    std::string rest() { return cString(text(left_.size())); }
    template <typename T>
    T number() {
        T value{};
        const std::string bytes = text(sizeof value);
        if (bytes.size() == sizeof value) std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
    u8 byte() { return number<u8>(); }
    /// 0 to count - 1.
    u32 below(u32 count) { return byte() % count; }
    /// Small and large, whole and broken, and any bits.
    double real() {
        const u32 way = below(4);
        return way == 0   ? number<std::int8_t>()
               : way == 1 ? number<i32>()
               : way == 2 ? number<i32>() / 10000.0
                          : number<double>();
    }

private:
    std::string_view left_;
};

/// A text in a block of exactly its size, so that a sanitizer sees one byte too many.
class Exact {
public:
    explicit Exact(const std::string& text) : block_(new char[text.size() + 1]) {
        std::memcpy(block_.get(), text.c_str(), text.size() + 1);
    }
    operator char*() { return block_.get(); }
    std::string_view view() const { return block_.get(); }

private:
    std::unique_ptr<char[]> block_;
};

/// A file in memory, as it stands.
std::string_view contentsOf(const std::string& path);
/// Bytes to which files in memory can grow, as on a full disk; set by every property that writes.
extern std::size_t largestFile;
/// Has the files in memory remembered as they stand when the n-th change from now has been made,
/// or, if that is a write, so many eighths of it.
void rememberAt(u32 change, u32 eighths);
/// Puts them back, as if the process had been killed there; false when it did not come so far.
/// Open files stay open.
bool goBack();

// One per surface, in a file of the same name. Inputs above the limit are not looked at.
struct Surface {
    const char* name;
    void (*check)(Input&);
    std::size_t limit;
};
extern const Surface kArithmetic, kStrings, kFilter, kValues, kTable, kSession, kArrow, kIndex;

}  // namespace test
