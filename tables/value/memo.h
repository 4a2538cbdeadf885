// Memos of the current record, whole and with the reason when there is none to be had.
#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tables/column/column.h"

namespace mira::tables {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

struct FreeCloser {
    void operator()(void* memory) const { std::free(memory); }
};

constexpr char kMemoEnd = 0x1A;
/// A number of the memo file.
/// Whether a byte 1A, which no data can hold, ends the table's memos.
bool endsInMark(const Table& table);
std::array<u8, 4> memoBytes(const Table& table, u32 number);
u32 memoNumber(const Table& table, const u8* bytes);

/// What a memo field refers to. Numbers count blocks of the memo file.
struct MemoReference {
    bool isReference = true;  // false: bytes that are no reference
    u32 block = 0;            // 0: no memo
    u32 length = 0;           // of an SMT memo
};
/// Whether the column is a memo field whose length can hold a reference.
bool holdsReference(const Column& column);
MemoReference memoReference(const Table& table, const Column& column);
/// Stores a reference in RecordBuffer; false when its field cannot hold it.
bool setMemoReference(const Table& table, const Column& column, MemoReference reference);
/// Appends a memo as it stands in the memo file, from the start of a block.
void encodeMemo(const Table& table, std::string_view bytes, std::string& image);

enum class MemoResult : u8 { None, Found, Cut, Failed };

/// The memo file, and the memo read last.
struct MemoReader {
    File file{};
    u32 unit = 0;
    u64 size = 0;
    bool measured = false;
    std::string text{};
};

/// Bytes per block of the memo file.
u32 memoUnit(const Table& table);
/// Why no memo can be read: "its memo file stock.dbt is missing", or half packed; empty when
/// nothing is in the way.
std::string memoFileFault(const Table& table);
/// Opens the memo file, once, and takes its measures; false when there is none, or one half packed:
/// nobody can tell then which memo a reference means.
bool openMemos(MemoReader& reader, const Table& table);
/// The place in the file after the memo's last byte, end mark included, as far as the memo says
/// itself; it may lie past the file's. Nothing when the block does not begin as memos of the
/// format.
std::optional<u64> memoEnd(MemoReader& reader, const Table& table, MemoReference reference);

/// Reads a memo of the current record; *bytes last until the next one is read.
MemoResult readMemo(MemoReader& reader, const Table& table, const Column& column,
                    std::string_view* bytes);

}  // namespace mira::tables
