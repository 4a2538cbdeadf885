// Memos of the current record, whole and with the reason when there is none to be had.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "table/table.h"

namespace mira::tool {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct FreeCloser {
    void operator()(void* memory) const { std::free(memory); }
};

/// What a memo field refers to. Numbers count blocks of the memo file.
struct MemoReference {
    bool isReference = true;  // false: bytes that are no reference
    u32 block = 0;            // 0: no memo
    u32 length = 0;           // of an SMT memo
};
/// What the memo file of a table looks like, by its version.
enum class MemoFormat : u8 { None, DBase3, DBase4, FoxPro, Smt };
MemoFormat memoFormat(const Table& table);
/// Whether memos end at a byte 1A, in blocks of 512.
inline bool hasDBase3Memos(const Table& table) { return memoFormat(table) == MemoFormat::DBase3; }
/// Whether the column is a memo field whose length can hold a reference.
bool holdsReference(const Column& column);
MemoReference memoReference(const Table& table, const Column& column);

enum class MemoResult : u8 { None, Found, Cut, Failed };

/// The memo file and the memo read last.
struct MemoReader {
    File file{};
    u32 unit = 0;
    u64 size = 0;
    bool measured = false;
    std::unique_ptr<char, FreeCloser> memory{};
    std::string text{};
};

/// Opens the memo file, once, and takes its measures; false when there is none.
bool openMemos(MemoReader& reader, const Table& table);
/// Whether the block begins as memos of the format do. *end becomes the place in the file behind
/// the memo's last byte, end mark included, as far as it says itself; it may lie past the file's.
bool memoEnd(MemoReader& reader, const Table& table, MemoReference reference, u64* end);

/// Reads a memo of the current record; *bytes last until the next one is read.
MemoResult readMemo(MemoReader& reader, const Table& table, const Column& column,
                    std::string_view* bytes);

}  // namespace mira::tool
