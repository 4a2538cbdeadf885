// A memo comes from the library, from a file that stays open between memos. Those of dBase III are
// read here: the library ends them at their first zero byte and after 65535 bytes. And where a memo
// reaches the end of its file, its stored length is looked at again, for the library gives what the
// file holds.
#include "tables/value/memo.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>

#include "tables/page/bytes.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr u32 kDBase3Unit = 512;
constexpr char kMemoEnd = 0x1A;
constexpr u32 kPrefix = 8;
constexpr u32 kChunk = 16384;

bool isDBase4Memo(const u8* prefix) { return loadLe<u32>(prefix) == 0x0008FFFF; }

/// The memo of a block in MemoFile, by the table's format; null when there is none.
char* memoOfBlock(const Table& table, MemoReference reference, u32* length) {
    DbfBase* const base = table.base.get();
    *length = reference.length;
    switch (table.memoFormat) {
        case MemoFormat::Smt:
            return Get_SMTBuf(base, reference.block, length);
        case MemoFormat::FoxPro:
            return Get_FoxProBuf(base, reference.block, length);
        case MemoFormat::DBase4:
            return Get_dBase4Buf(base, reference.block, length);
        default:
            return nullptr;
    }
}

/// Up to the first end byte, or the end of the file.
MemoResult readDBase3(MemoReader& reader, u64 offset, std::string_view* bytes) {
    if (offset >= reader.size) return MemoResult::Failed;
    reader.text.clear();
    while (true) {
        const std::size_t used = reader.text.size();
        reader.text.resize(used + kChunk);
        const u32 got = readFileAt(reader.file.get(), static_cast<u32>(offset + used),
                                   reader.text.data() + used, kChunk);
        reader.text.resize(used + got);
        const std::size_t end = reader.text.find(kMemoEnd, used);
        if (end != std::string::npos) reader.text.resize(end);
        if (end != std::string::npos || got < kChunk) break;
    }
    *bytes = reader.text;
    return std::ferror(reader.file.get()) != 0 ? MemoResult::Failed : MemoResult::Found;
}

/// The place after the bytes of a memo whose length stands before them.
std::optional<u64> prefixedEnd(MemoReader& reader, const Table& table, u64 offset) {
    u8 prefix[kPrefix] = {};
    const u32 got = readFileAt(reader.file.get(), static_cast<u32>(offset), prefix, sizeof prefix);
    if (got != kPrefix) return std::nullopt;
    if (table.memoFormat == MemoFormat::FoxPro) {
        if ((prefix[0] | prefix[1] | prefix[2]) != 0) return std::nullopt;
        return offset + kPrefix + loadBe32(prefix + 4);
    }
    const u32 length = loadLe<u32>(prefix + 4);
    if (!isDBase4Memo(prefix) || length < kPrefix) return std::nullopt;
    return offset + length;
}

/// The place after the first end byte; that of the file without one.
u64 markedEnd(MemoReader& reader, u64 offset) {
    char chunk[kChunk];
    for (;; offset += kChunk) {
        const u32 got = readFileAt(reader.file.get(), static_cast<u32>(offset), chunk, kChunk);
        const std::size_t mark = std::string_view(chunk, got).find(kMemoEnd);
        if (mark != std::string_view::npos) return offset + mark + 1;
        if (got < kChunk) return reader.size;
    }
}

bool isCut(MemoReader& reader, const Table& table, MemoReference reference, u64 got) {
    if (table.memoFormat == MemoFormat::Smt) return got < reference.length;
    const u64 offset = u64{reader.unit} * reference.block;
    return offset + kPrefix + got >= reader.size &&
           prefixedEnd(reader, table, offset).value_or(0) > offset + kPrefix + got;
}

}  // namespace

bool holdsReference(const Column& column) {
    if (column.type == 'M' || column.type == 'G') return true;
    if (column.type == 'B') return column.length == 10;
    return (column.type == 'W' || column.type == 'P') &&
           (column.length == 4 || column.length == 10);
}

MemoReference memoReference(const Table& table, const Column& column) {
    const std::string_view stored = storedBytes(table, column);
    if (table.memoFormat == MemoFormat::Smt) {
        if (stored.size() < 10) return {false};
        return {true, loadLe<u32>(stored.data() + 6), loadLe<u32>(stored.data() + 2)};
    }
    if (column.length == 4) return {true, GetInt(table.base.get(), column.field)};
    constexpr std::string_view kPadding(" \0", 2);
    const std::size_t first = stored.find_first_not_of(kPadding);
    if (first == std::string_view::npos) return {};
    const char* const end = stored.data() + stored.find_last_not_of(kPadding) + 1;
    MemoReference reference;
    const auto [next, error] = std::from_chars(stored.data() + first, end, reference.block);
    reference.isReference = error == std::errc() && next == end;
    return reference;
}

u32 memoUnit(const Table& table) {
    return table.memoFormat == MemoFormat::DBase3 ? kDBase3Unit : GetBlockSize(table.base.get());
}

std::string memoFileFault(const Table& table) {
    const fs::path memos = memoFileOf(table);
    if (memos.empty()) return "";
    std::error_code ignored;
    if (!fs::exists(memos, ignored)) {
        return textOf("its memo file ", memos.filename().string(), " is missing");
    }
    if (IsPackUnfinished(table.base.get()) != 1) return "";
    return "a pack was interrupted, and until `mira pack` has finished it no memo can be read or "
           "written";
}

bool openMemos(MemoReader& reader, const Table& table) {
    if (!reader.measured) {
        reader.measured = true;
        if (table.base->MemoFileName != nullptr) {
            reader.file.reset(Open_FileRO(table.base->MemoFileName));
        }
        if (IsPackUnfinished(table.base.get()) != 0) reader.file.reset();
        if (reader.file) {
            reader.unit = memoUnit(table);
            reader.size = SetFilePointer(reader.file.get(), 0, nullptr, SEEK_END);
        }
    }
    return reader.file != nullptr;
}

std::optional<u64> memoEnd(MemoReader& reader, const Table& table, MemoReference reference) {
    const u64 offset = u64{reader.unit} * reference.block;
    u8 start[4] = {};
    switch (table.memoFormat) {
        case MemoFormat::DBase3:
            readFileAt(reader.file.get(), static_cast<u32>(offset), start, sizeof start);
            if (isDBase4Memo(start)) return std::nullopt;
            return markedEnd(reader, offset);
        case MemoFormat::DBase4:
        case MemoFormat::FoxPro:
            return prefixedEnd(reader, table, offset);
        case MemoFormat::Smt:
            return offset + reference.length;
        default:
            return std::nullopt;
    }
}

MemoResult readMemo(MemoReader& reader, const Table& table, const Column& column,
                    std::string_view* bytes) {
    *bytes = {};
    const MemoReference reference = memoReference(table, column);
    if (!reference.isReference) return MemoResult::Failed;
    if (reference.block == 0 && reference.length == 0) return MemoResult::None;
    if (!openMemos(reader, table)) return MemoResult::Failed;
    if (table.memoFormat == MemoFormat::DBase3) {
        return readDBase3(reader, u64{reader.unit} * reference.block, bytes);
    }
    u32 length = 0;
    SetFilePointer(reader.file.get(), 0, nullptr, SEEK_SET);  // a failure shows in the next read
    table.base->MemoFile = reader.file.get();
    reader.memory.reset(memoOfBlock(table, reference, &length));
    table.base->MemoFile = nullptr;
    if (!reader.memory) return MemoResult::Failed;
    *bytes = {reader.memory.get(), length};
    return isCut(reader, table, reference, length) ? MemoResult::Cut : MemoResult::Found;
}

}  // namespace mira::tables
