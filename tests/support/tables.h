// Tables, folders and memo files laid out byte by byte, for tests, fuzz targets and benchmarks.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "support/bytes.h"

namespace test {

/// What a scratch folder without room, or one that is read-only, stops: the reason in a sentence.
[[noreturn]] inline void cannotWrite(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + path);
}

/// A fresh folder, removed with everything in it; in memory where that is possible, unless TMPDIR
/// names another place.
class Folder {
public:
    Folder() {
        const char* const wanted = std::getenv("TMPDIR");
        const char* const usual = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = (wanted != nullptr ? wanted : usual) + "/miraXXXXXX"s;
        const char* const made = mkdtemp(pattern.data());
        if (made == nullptr) cannotWrite(pattern);
        path_ = made;
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    std::string file(std::string_view name) const { return path_ + '/' + std::string(name); }

private:
    std::string path_;
};

/// The bytes of a file; empty where there is none.
inline std::string readAll(const std::string& path) {
    std::string bytes;
    std::FILE* const file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return bytes;
    fseeko(file, 0, SEEK_END);
    bytes.resize(static_cast<std::size_t>(ftello(file)));
    fseeko(file, 0, SEEK_SET);
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
    return bytes;
}

/// Writes over the beginning of an existing file, or a new one.
inline void writeAt(const char* mode, const std::string& path, std::string_view bytes) {
    std::FILE* const file = std::fopen(path.c_str(), mode);
    if (file == nullptr) cannotWrite(path);
    const bool whole = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    if (std::fclose(file) != 0 || !whole) cannotWrite(path);
}
inline void overwrite(const std::string& path, std::string_view bytes) {
    writeAt("rb+", path, bytes);
}
/// A file of that name is removed first, which is quicker than truncating it.
inline void writeAll(const std::string& path, std::string_view bytes) {
    std::remove(path.c_str());
    writeAt("wb", path, bytes);
}

struct Column {
    std::string name;
    char type;
    unsigned length;
    unsigned decimals = 0;

    unsigned width() const { return type == 'C' ? length + 256 * decimals : length; }
};

/// Where lengths stand in the descriptors.
enum Flavour { kPlain, kLevel7, kForeignLevel7 };

/// A table: header, descriptors, terminator, back link, records, end-of-file byte. Records are
/// given whole, deletion flag included.
struct Layout {
    unsigned char version = 0x03;
    std::vector<Column> columns;
    std::vector<std::string> records = {};
    Flavour flavour = kPlain;
    std::string backLink = "";

    unsigned recordLength() const {
        unsigned sum = 1;
        for (const Column& c : columns) sum += c.width();
        return sum;
    }
    std::string descriptor(const Column& c) const {
        const bool level7 = flavour != kPlain;
        std::string out = padded(c.name, level7 ? 32 : 11, 0) + c.type;
        out.resize(flavour == kForeignLevel7 ? 33 : level7 ? 34 : 16, 0);
        return padded(out + le(c.length, 1) + le(c.decimals, 1), level7 ? 48 : 32, 0);
    }
    std::string bytes() const {
        std::string fields, rows;
        for (const Column& c : columns) fields += descriptor(c);
        for (const std::string& r : records) rows += r;
        fields += '\x0D' + backLink;
        const std::size_t size = flavour != kPlain ? 68 : 32;
        const std::string head = le(version, 1) + "\x1A\x0B\x18" + le(records.size(), 4) +
                                 le(size + fields.size(), 2) + le(recordLength(), 2);
        return padded(head, size, 0) + fields + rows + '\x1A';
    }
};

struct Closer {
    void operator()(DbfBase* h) const { CloseBase(h); }
};
/// A handle that closes itself.
using Table = std::unique_ptr<DbfBase, Closer>;

/// Writes bytes to a file of the folder and opens it as a table; null when it is refused.
inline Table openBytes(const Folder& folder, std::string_view bytes,
                       std::string_view name = "t.dbf") {
    writeAll(folder.file(name), bytes);
    return Table(OpenBase(folder.file(name).c_str()));
}
inline Table openLayout(const Folder& folder, const Layout& layout,
                        std::string_view name = "t.dbf") {
    return openBytes(folder, layout.bytes(), name);
}

/// The current record.
inline std::string recordOf(const DbfBase* h) {
    return {reinterpret_cast<const char*>(h->RecordBuffer), h->Header.RecordLength};
}
inline void setRecord(DbfBase* h, std::string_view bytes) {
    bytes.copy(reinterpret_cast<char*>(h->RecordBuffer), bytes.size());
}

}  // namespace test
