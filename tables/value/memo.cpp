// The library says where a memo lies, in a file that stays open between memos; its bytes are read
// from there, as many as the file holds.
#include "tables/value/memo.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "tables/page/bytes.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr u32 kSmtReference = 10;  // bytes of it in a record
constexpr u32 kSmtLengthPlace = 2, kSmtBlockPlace = 6;

// Other makers of dBase IV and SMT memos may begin before byte 512.
constexpr std::string_view kDBase4Mark("\xFF\xFF\x08\0", 4);
constexpr std::string_view kFoxProMark("\0\0\0\1", 4);
constexpr MemoRow kNoRow{.set = nullptr, .headerSize = 512};
constexpr MemoRow kDBase3Row{
    .set = Set_dBase3Buf, .headerSize = 512, .fixedUnit = 512, .hasEndMark = true};
constexpr MemoRow kDBase4Row{
    .set = Set_dBase4Buf, .headerSize = 24, .mark = kDBase4Mark, .counted = 8};
constexpr MemoRow kFoxProRow{
    .set = Set_FoxProBuf, .headerSize = 512, .bigEndian = true, .mark = kFoxProMark};
constexpr MemoRow kSmtRow{.set = Set_SMTBuf, .headerSize = 16, .lengthInReference = true};

struct MemoSpan {
    u64 first = 0, end = 0;  ///< as the memo says; the end may lie past that of the file
    bool cut = false;        ///< it does
};

std::optional<MemoSpan> spanOf(const MemoReader& reader, const Table& table,
                               MemoReference reference) {
    DbfBase* const base = table.base.get();
    MemoSpan span;
    base->MemoFile = reader.file.get();
    const int found = GetMemoSpan(base, reference.block, reference.length, &span.first, &span.end);
    base->MemoFile = nullptr;
    span.cut = found == 2;
    return found != 0 ? std::optional(span) : std::nullopt;
}

/// Whether a memo of dBase IV begins at a place.
bool isDBase4Memo(const MemoReader& reader, u64 place) {
    char start[kDBase4Mark.size()] = {};
    readFileAt(reader.file.get(), static_cast<u32>(place), start, sizeof start);
    return std::string_view(start, sizeof start) == kDBase4Mark;
}

}  // namespace

const MemoRow& memoRow(const Table& table) {
    switch (table.memoFormat) {
        case MemoFormat::None:
            return kNoRow;
        case MemoFormat::DBase3:
            return kDBase3Row;
        case MemoFormat::DBase4:
            return kDBase4Row;
        case MemoFormat::FoxPro:
            return kFoxProRow;
        case MemoFormat::Smt:
            return kSmtRow;
    }
    return kNoRow;
}

std::array<u8, 4> memoBytes(const Table& table, u32 number) {
    auto bytes = bytesLe(number);
    if (memoRow(table).bigEndian) std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

u32 memoNumber(const Table& table, const u8* bytes) {
    return memoRow(table).bigEndian ? loadBe32(bytes) : loadLe<u32>(bytes);
}

bool holdsReference(const Column& column) { return column.stored == FieldClass::Memo; }

MemoReference memoReference(const Table& table, const Column& column) {
    // The library reads as many bytes as a reference has, also past a shorter field.
    if (memoRow(table).lengthInReference && column.length < kSmtReference) return {false};
    MemoReference reference;
    const int found =
        GetMemoReference(table.base.get(), column.field, &reference.block, &reference.length);
    return found != 0 || reference.block == 0 ? reference : MemoReference{false};
}

bool setMemoReference(const Table& table, const Column& column, MemoReference reference) {
    DbfBase* const base = table.base.get();
    if (memoRow(table).lengthInReference) {
        if (column.length < kSmtReference) return false;
        u8* const to = base->RecordBuffer + column.offset;
        const auto length = bytesLe(reference.length), block = bytesLe(reference.block);
        std::fill_n(to, kSmtLengthPlace, u8{0});
        std::copy(length.begin(), length.end(), to + kSmtLengthPlace);
        std::copy(block.begin(), block.end(), to + kSmtBlockPlace);
        return true;
    }
    if (column.length == 4) {
        SetInt(base, column.field, reference.block);
    } else {
        SetNumeric(base, column.field, reference.block);
    }
    return memoReference(table, column).block == reference.block;
}

void encodeMemo(const Table& table, std::string_view bytes, std::string& image) {
    const MemoRow& row = memoRow(table);
    if (!row.mark.empty()) {
        const auto length = memoBytes(table, static_cast<u32>(bytes.size()) + row.counted);
        image.append(row.mark).append(length.begin(), length.end());
    }
    image.append(bytes);
    if (row.hasEndMark) image += kMemoEnd;
}

u32 memoUnit(const Table& table) {
    const u32 fixed = memoRow(table).fixedUnit;
    return fixed != 0 ? fixed : GetBlockSize(table.base.get());
}

std::string memoFileFault(const Table& table) {
    const fs::path memos = memoFileOf(table);
    if (memos.empty()) return "";
    std::error_code ignored;
    if (!fs::exists(table.base->MemoFileName, ignored)) {
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
        if (IsPackUnfinished(table.base.get()) != 0 || isReplaced(table)) reader.file.reset();
        if (reader.file) {
            reader.unit = memoUnit(table);
            reader.size = SetFilePointer(reader.file.get(), 0, nullptr, SEEK_END);
        }
    }
    return reader.file != nullptr;
}

std::optional<u64> memoEnd(MemoReader& reader, const Table& table, MemoReference reference) {
    const std::optional<MemoSpan> span = spanOf(reader, table, reference);
    if (!span) return std::nullopt;
    if (!memoRow(table).hasEndMark) return span->end;
    if (isDBase4Memo(reader, span->first)) return std::nullopt;
    return std::min(span->end + 1, reader.size);  // the end mark
}

MemoResult readMemo(MemoReader& reader, const Table& table, const Column& column,
                    std::string_view* bytes) {
    *bytes = {};
    const MemoReference reference = memoReference(table, column);
    if (!reference.isReference) return MemoResult::Failed;
    if (reference.block == 0 && reference.length == 0) return MemoResult::None;
    if (!openMemos(reader, table)) return MemoResult::Failed;
    const std::optional<MemoSpan> span = spanOf(reader, table, reference);
    if (!span) return MemoResult::Failed;
    u64 end = span->end;
    if (span->cut) {
        const u64 size = SetFilePointer(reader.file.get(), 0, nullptr, SEEK_END);
        end = std::clamp(size, span->first, span->end);
    }
    reader.text.resize(static_cast<std::size_t>(end - span->first));
    const u32 got = readFileAt(reader.file.get(), static_cast<u32>(span->first), reader.text.data(),
                               static_cast<u32>(reader.text.size()));
    if (got != reader.text.size()) return MemoResult::Failed;
    *bytes = reader.text;
    return span->cut ? MemoResult::Cut : MemoResult::Found;
}

}  // namespace mira::tables
