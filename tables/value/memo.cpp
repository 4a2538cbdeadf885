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

constexpr u32 kFixedUnit = 512;

struct MemoSpan {
    u64 first = 0, end = 0;  ///< as the memo says; the end may lie past that of the file
    bool cut = false;        ///< it does
};

std::optional<MemoSpan> spanOf(const MemoReader& reader, const Table& table,
                               MemoReference reference) {
    MemoSpan span;
    const int found = GetMemoSpanIn(table.base.get(), reader.file.get(), reference.block,
                                    reference.length, &span.first, &span.end);
    span.cut = found == 2;
    return found != 0 ? std::optional(span) : std::nullopt;
}

/// Whether a memo of dBase IV begins at a place.
bool isDBase4Memo(const MemoReader& reader, u64 place) {
    const auto& mark = GetMemoLayout(static_cast<u32>(MemoFormat::DBase4))->mark;
    u8 start[sizeof mark] = {};
    readFileAt(reader.file.get(), static_cast<u32>(place), start, sizeof start);
    return std::equal(std::begin(start), std::end(start), mark);
}

bool isBigEndian(const Table& table) { return table.memos != nullptr && table.memos->bigEndian; }

}  // namespace

bool endsInMark(const Table& table) { return table.memos != nullptr && table.memos->endSize != 0; }

std::array<u8, 4> memoBytes(const Table& table, u32 number) {
    auto bytes = bytesLe(number);
    if (isBigEndian(table)) std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

u32 memoNumber(const Table& table, const u8* bytes) {
    return isBigEndian(table) ? loadBe32(bytes) : loadLe<u32>(bytes);
}

bool holdsReference(const Column& column) { return column.stored == FieldClass::Memo; }

MemoReference memoReference(const Table& table, const Column& column) {
    MemoReference reference;
    const int found =
        GetMemoReference(table.base.get(), column.field, &reference.block, &reference.length);
    return found != 0 || reference.block == 0 ? reference : MemoReference{false};
}

bool setMemoReference(const Table& table, const Column& column, MemoReference reference) {
    return SetMemoReference(table.base.get(), column.field, reference.block, reference.length) != 0;
}

void encodeMemo(const Table& table, std::string_view bytes, std::string& image) {
    if (table.memos != nullptr && table.memos->prefixSize != 0) {
        const auto length =
            memoBytes(table, static_cast<u32>(bytes.size()) + table.memos->lengthBias);
        image.append(std::begin(table.memos->mark), std::end(table.memos->mark));
        image.append(length.begin(), length.end());
    }
    image.append(bytes);
    if (endsInMark(table)) image += kMemoEnd;
}

u32 memoUnit(const Table& table) {
    const bool fixed = table.memos != nullptr && table.memos->unitPlace == 0;
    return fixed ? kFixedUnit : GetBlockSize(table.base.get());
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
    if (!endsInMark(table)) return span->end;
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
