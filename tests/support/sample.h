// A table with memos in each format, and what it holds by a reader of its own that knows nothing of
// the library.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support.h"

namespace test {

/// What the files hold: a text for each record, its bytes but for the reference and its memo.
using Rows = std::vector<std::string>;

/// Of up to four bytes.
inline std::size_t number(std::string_view bytes, bool bigEndian = false) {
    std::size_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i)
        value = value << 8 | static_cast<u8>(bytes[bigEndian ? i : bytes.size() - 1 - i]);
    return value;
}

/// The memo that a reference leads to.
inline std::string memoAt(u32 kind, const std::string& reference, const std::string& file) {
    const auto at = [&](u64 place) {
        return place < file.size() ? file.substr(static_cast<std::size_t>(place)) : "";
    };
    if (kind == 4) {
        const u64 place = u64{number(reference.substr(6, 4))} * number(file.substr(4, 2));
        return at(place).substr(0, number(reference.substr(2, 4)));
    }
    const u64 block = kind == 3 ? number(reference) : std::strtoull(reference.c_str(), nullptr, 10);
    if (block == 0) return "";
    if (kind == 0) return at(block * 512).substr(0, at(block * 512).find('\x1A'));
    const bool foxPro = kind == 3;
    const std::string memo =
        at(block * (foxPro ? number(file.substr(6, 2), true) : number(file.substr(20, 2))));
    if (memo.size() < 8) return "none";
    return memo.substr(8, number(memo.substr(4, 4), foxPro) - (foxPro ? 0 : 8));
}

/// A row for a message.
inline std::string brief(const std::string& row) {
    return row.substr(0, 9) + ".." + row.substr(std::min(row.find('='), row.size()), 9);
}

/// All records of a table of Sample.
inline Rows rowsOf(u32 kind, unsigned width, const std::string& table, const std::string& memos) {
    const std::size_t header = number(table.substr(8, 2)), length = number(table.substr(10, 2));
    Rows found;
    for (std::size_t at = header; at + length <= table.size(); at += length) {
        const std::string start = table.substr(at, 5 + width);
        const std::string reference = table.substr(at + 5 + width, length - 5 - width);
        found.push_back(start + "=" + memoAt(kind, reference, memos));
    }
    return found;
}

/// The memo file of t.dbf.
inline const char* memoNameOf(u32 kind) {
    return kind == 4 ? "t.smt" : kind == 3 ? "t.fpt" : "t.dbt";
}

/// Of four characters.
inline std::string nameOf(unsigned i) {
    return static_cast<char>('n' + i / 900) + std::to_string(100 + i % 900);
}

/// A table with a memo file, written anew for every run. Every third record is deleted, every fifth
/// has no memo, and some memos are left that no record refers to.
class Sample {
public:
    const u32 kind;
    const unsigned width, count;
    Rows before{};  ///< of the table as it is written

    Sample(u32 memoKind, unsigned fillerWidth, unsigned records)
        : kind(memoKind), width(fillerWidth), count(records) {
        DbfField fields[3] = {};
        CreateField(&fields[0], "NAME", 'C', 4);
        CreateField(&fields[1], "FILL", 'C', static_cast<int>(width));
        CreateField(&fields[2], "NOTE", 'M', 10);
        CreateDatabase(path().c_str(), fields, 3, kind, 64, 1);
        Table h = open();
        for (unsigned i = 0; i < count; ++i) {
            const std::string memo = i % 5 == 4 ? "" : nameOf(i) + std::string(i * 41 % 200, 'm');
            ClearRecord(h.get());
            const std::string start = "* "[i % 3 != 1] + nameOf(i) + padded("", width, "ab"[i % 2]);
            setRecord(h.get(), start);
            if (i % 4 == 0) SetMemo(h.get(), 2, "left");
            if (!memo.empty()) SetMemo(h.get(), 2, memo.c_str());
            if (memo.empty()) ClearField(h.get(), 2);
            AppendBlank(h.get(), 0);
            before.push_back(start + "=" + memo);
        }
        h.reset();
        for (const std::string& name : names()) files_[name] = readAll(dir_.file(name));
        EXPECT_EQ(rows(), before);
    }

    std::string file(const char* name) const { return dir_.file(name); }
    const std::string& path() const { return path_; }
    const std::string& otherPath() const { return otherPath_; }
    Table open() const { return Table(OpenBase(path_.c_str())); }
    bool isAsWritten() const { return isAsWritten(readAll(path())); }
    bool isAsWritten(const std::string& bytes) const { return bytes == files_.at("t.dbf"); }

    void reset() const {
        for (const std::string& name : names())
            if (!files_.contains(name)) unlink(dir_.file(name).c_str());
        for (const auto& [name, bytes] : files_) writeAll(dir_.file(name), bytes);
    }
    std::set<std::string> names() const {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.file("")))
            found.insert(entry.path().filename().string());
        return found;
    }

    Rows rows() const {
        return rowsOf(kind, width, readAll(path()), readAll(file(memoNameOf(kind))));
    }

private:
    TempDir dir_{};
    std::string path_ = dir_.file("t.dbf"), otherPath_ = dir_.file("u.dbf");
    std::map<std::string, std::string> files_{};
};

}  // namespace test
