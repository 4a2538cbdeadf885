// What every test needs: a directory of its own, whole-file access, and tables laid out byte by
// byte without the code under test.
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "mira.h"

namespace test {

using namespace std::string_literals;

/// A fresh directory, removed with everything in it; in memory where that is possible, as many
/// small files are slow to write to a disk.
class TempDir {
public:
    TempDir() {
        std::string pattern = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        path_ = mkdtemp((pattern += "/miraXXXXXX").data());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;

    std::string file(std::string_view name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

inline std::string readAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Writes a new file; one of that name is removed first, which is quicker than truncating it.
inline void writeAll(const std::string& path, std::string_view bytes) {
    std::filesystem::remove(path);
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// Writes over the beginning of an existing file.
inline void overwrite(const std::string& path, std::string_view bytes) {
    std::fstream(path, std::ios::binary | std::ios::in | std::ios::out)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// A number as count little-endian bytes.
inline std::string le(std::uint64_t value, int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) bytes += static_cast<char>(value >> (8 * i));
    return bytes;
}

/// text cut or filled to a width.
inline std::string padded(std::string_view text, std::size_t width, char fill = ' ') {
    std::string result(text.substr(0, width));
    result.resize(width, fill);
    return result;
}

struct Column {
    std::string name;
    char type;
    unsigned length;
    unsigned decimals = 0;
};

/// The bytes of a table: header, descriptors, terminator, records, end-of-file byte. Records are
/// given whole, deletion flag included. level7 selects the 68-byte header.
struct Layout {
    unsigned char version = 0x03;
    std::vector<Column> columns;
    std::vector<std::string> records;
    bool level7 = false;

    unsigned recordLength() const {
        unsigned sum = 1;
        for (const Column& c : columns)
            sum += c.type == 'C' ? c.length + 256 * c.decimals : c.length;
        return sum;
    }
    unsigned headerLength() const {
        const auto count = static_cast<unsigned>(columns.size());
        return level7 ? 68 + 48 * count + 1 : 32 + 32 * count + 1;
    }
    std::string bytes() const {
        std::string out = le(version, 1) + "\x1A\x0B\x18" + le(records.size(), 4) +
                          le(headerLength(), 2) + le(recordLength(), 2);
        out.resize(level7 ? 68 : 32, 0);
        for (const Column& c : columns) {
            const std::string name = padded(c.name, level7 ? 32 : 11, 0) + c.type;
            out += padded(name, level7 ? 34 : 16, 0) + le(c.length, 1) + le(c.decimals, 1);
            out.resize(out.size() + (level7 ? 12 : 14), 0);
        }
        out += '\x0D';
        for (const std::string& r : records) out += r;
        return out + '\x1A';
    }
};

struct Closer {
    void operator()(mira::DbfBase* h) const { mira::CloseBase(h); }
};
/// A handle that closes itself.
using Table = std::unique_ptr<mira::DbfBase, Closer>;

/// Writes bytes to a file of the directory and opens it as a table; null when it is refused.
inline Table openBytes(const TempDir& dir, std::string_view bytes,
                       std::string_view name = "t.dbf") {
    writeAll(dir.file(name), bytes);
    return Table(mira::OpenBase(dir.file(name).c_str()));
}

inline Table openLayout(const TempDir& dir, const Layout& layout, std::string_view name = "t.dbf") {
    return openBytes(dir, layout.bytes(), name);
}

/// While this lives, files can grow to a number of bytes and no further, as on a full disk.
struct FileSizeLimit {
    explicit FileSizeLimit(rlim_t bytes) {
        std::signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &saved);
        const rlimit limit{bytes, saved.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved); }
    FileSizeLimit(const FileSizeLimit&) = delete;

    rlimit saved;
};

/// The date that a header written now carries: year, month, day. fullYear counts from 1900.
inline std::string today(bool fullYear = false) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    return {static_cast<char>(fullYear ? local.tm_year : local.tm_year % 100),
            static_cast<char>(local.tm_mon + 1), static_cast<char>(local.tm_mday)};
}

/// The parts of a list, for tables of texts.
inline std::vector<std::string> split(std::string_view list, char separator = ';') {
    std::vector<std::string> parts;
    std::istringstream in(std::string(list) + separator);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

/// The rows of a table of texts "text=result;...", cut at their first equals sign.
inline std::vector<std::pair<std::string, std::string>> rows(std::string_view table) {
    std::vector<std::pair<std::string, std::string>> result;
    for (const std::string& row : split(table)) {
        const std::size_t equals = row.find('=');
        result.emplace_back(row.substr(0, equals), row.substr(equals + 1));
    }
    return result;
}

inline std::string repeat(std::string_view part, int count) {
    std::string out;
    while (count-- > 0) out += part;
    return out;
}

/// The current record.
inline std::string recordOf(const mira::DbfBase* h) {
    return {reinterpret_cast<const char*>(h->RecordBuffer), h->Header.RecordLength};
}
inline void setRecord(mira::DbfBase* h, std::string_view bytes) {
    std::copy(bytes.begin(), bytes.end(), h->RecordBuffer);
}

/// The bytes of a memo of the current record, if there is one.
inline std::optional<std::string> memoOf(mira::DbfBase* h, int field = 0) {
    mira::u32 length = 0;
    char* const bytes = mira::GetMemoBuf(h, field, &length);
    if (bytes == nullptr) return std::nullopt;
    const std::unique_ptr<char, decltype(&std::free)> owner(bytes, std::free);
    return std::string(bytes, length);
}

/// A text as const char* for the readers that may return null.
inline std::string str(const char* text) { return text == nullptr ? "(null)" : text; }

}  // namespace test
