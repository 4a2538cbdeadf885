// What the table targets share: the input as numbers and texts, a directory in memory, a check that
// ends the run, and a memo reader that knows nothing of the library.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dbf/table/private.h"
#include "mira.h"

#define FUZZ_CHECK(condition)                                                              \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "%s:%d: not true: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                  \
        }                                                                                  \
    } while (false)

namespace fuzz {

using namespace mira;

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
    std::string rest() { return text(left_.size()); }

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
        switch (below(4)) {
            case 0:
                return number<std::int8_t>();
            case 1:
                return number<i32>();
            case 2:
                return number<i32>() / 10000.0;
            default:
                return number<double>();
        }
    }

private:
    std::string_view left_;
};

/// A directory of this process, in memory where the system has such a place.
class Directory {
public:
    Directory() {
        const char* memory = "/dev/shm";
        std::string pattern =
            access(memory, W_OK) == 0 ? memory : std::filesystem::temp_directory_path().string();
        pattern += "/fuzzXXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        path_ = pattern;
    }
    ~Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const char* name) const { return path_ + '/' + name; }

private:
    std::string path_;
};

inline void writeFile(const std::string& path, std::string_view bytes) {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
    std::fclose(file);
}

inline std::string readFile(const std::string& path) {
    std::string bytes;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return bytes;
    std::fseek(file, 0, SEEK_END);
    bytes.resize(static_cast<std::size_t>(std::ftell(file)));
    std::rewind(file);
    FUZZ_CHECK(std::fread(bytes.data(), 1, bytes.size(), file) == bytes.size());
    std::fclose(file);
    return bytes;
}

struct Closer {
    void operator()(DbfBase* h) const { CloseBase(h); }
};
using Table = std::unique_ptr<DbfBase, Closer>;

inline std::string_view record(const DbfBase* h) {
    return {reinterpret_cast<const char*>(h->RecordBuffer), h->Header.RecordLength};
}

/// An unsigned number of size bytes; missing ones are zero.
inline u64 load(std::string_view from, std::size_t at, unsigned size, bool bigEndian) {
    u64 value = 0;
    for (unsigned i = 0; i < size; ++i) {
        const std::size_t place = at + (bigEndian ? i : size - 1 - i);
        value = value << 8 | (place < from.size() ? static_cast<u8>(from[place]) : 0u);
    }
    return value;
}

/// What GetMemoBuf gives for a memo field, told from the bytes of a record and of the memo file.
inline std::optional<std::string_view> memoOf(const DbfBase* h, int field,
                                              std::string_view recordBytes, std::string_view file) {
    const DbfField& f = h->Fields[field];
    const std::string_view bytes = recordBytes.substr(f.Offset);
    const u8 version = h->Header.Version;
    const bool smt = version == 0xE5;
    const bool foxPro = (version >= 0x30 && version <= 0x32) || version == 0xF5;
    const bool dBase3 = version == 0x03 || version == 0x83;
    if (!smt && !foxPro && !dBase3 && version != 0x04 && version != 0x8B && version != 0x8C) {
        return std::nullopt;
    }
    u64 block = load(bytes, 6, 4, false);
    u64 length = load(bytes, 2, 4, false);
    if (!smt && f.Length == 4 && f.Decimals == 0) {
        block = load(bytes, 0, 4, h->Level7 != 0);
        if (h->Level7 != 0) block = isForeignLevel7(h) ? block ^ 1u << 31 : block & 0x7FFFFFFF;
    } else if (!smt) {
        const double digits = std::atof(std::string(bytes.substr(0, f.Length)).c_str());
        const double limited =
            digits != digits ? 0 : std::clamp(digits, -2147483648.0, 2147483647.0);
        block = static_cast<u32>(static_cast<i32>(limited));
    }
    if (!smt && block == 0) return std::nullopt;

    const u32 headerSize = smt ? 16 : foxPro ? 8 : 24;
    u64 unit = smt      ? load(file, 4, 2, false)
               : foxPro ? load(file, 6, 2, true)
                        : load(file, 20, 2, false);
    if (dBase3) unit = 512;
    if (!dBase3 && file.size() < headerSize) {
        if (!smt) return std::nullopt;
        unit = 256;
    }
    const u64 place = unit * block;
    if (place > 0x7FFFFFFF) return std::nullopt;
    const std::string_view at = file.substr(std::min<u64>(place, file.size()));
    if (smt) return at.substr(0, length);
    if (dBase3) {
        const std::string_view text = at.substr(0, std::min<std::size_t>(at.find('\x1A'), 65535));
        return text.substr(0, text.find('\0'));
    }
    if (at.size() < 8 || (foxPro ? at.substr(0, 3) != std::string_view("\0\0\0", 3)
                                 : at.substr(0, 4) != std::string_view("\xFF\xFF\x08\0", 4))) {
        return std::nullopt;
    }
    length = load(at, 4, 4, foxPro);
    if (!foxPro && length < 8) return std::nullopt;
    return at.substr(8, foxPro ? length : length - 8);
}

/// GetMemoBuf as a text.
inline std::optional<std::string> readMemo(DbfBase* h, int field) {
    u32 length = 0;
    char* const memo = GetMemoBuf(h, field, &length);
    if (memo == nullptr) return std::nullopt;
    FUZZ_CHECK(memo[length] == 0);
    const std::string text(memo, length);
    std::free(memo);
    return text;
}

}  // namespace fuzz
