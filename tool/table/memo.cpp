// A memo comes from the library, from a file that stays open between memos. Those of dBase III are
// read here: the library ends them at their first zero byte and after 65535 bytes. And where a memo
// reaches the end of its file, its stored length is looked at again, for the library gives what the
// file holds.
#include "table/memo.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

#include "table/bytes.h"
#include "table/value.h"

namespace mira::tool {
namespace {

constexpr u8 kSmt = 0xE5;
constexpr u32 kDBase3Unit = 512;
constexpr char kMemoEnd = 0x1A;
constexpr u32 kPrefix = 8;
constexpr u32 kChunk = 16384;

bool isSmt(const Table& table) { return table.base->Header.Version == kSmt; }
bool isFoxPro(const Table& table) { return table.visual || table.base->Header.Version == 0xF5; }
bool isDBase4(const Table& table) {
    const u8 version = table.base->Header.Version;
    return version == 0x04 || version == 0x8B || version == 0x8C;
}

/// The memo of a block in MemoFile, by the table's format; null when there is none.
char* memoOfBlock(const Table& table, MemoReference reference, u32* length) {
    DbfBase* const base = table.base.get();
    *length = reference.length;
    if (isSmt(table)) return Get_SMTBuf(base, reference.block, length);
    if (isFoxPro(table)) return Get_FoxProBuf(base, reference.block, length);
    return isDBase4(table) ? Get_dBase4Buf(base, reference.block, length) : nullptr;
}

/// Opens the memo file once and takes its measures. False when there is none.
bool measure(MemoReader& reader, const Table& table) {
    if (!reader.measured) {
        reader.measured = true;
        if (table.base->MemoFileName != nullptr) {
            reader.file.reset(Open_FileRO(table.base->MemoFileName));
        }
        if (reader.file) {
            reader.unit = hasDBase3Memos(table) ? kDBase3Unit : GetBlockSize(table.base.get());
            reader.size = SetFilePointer(reader.file.get(), 0, nullptr, SEEK_END);
        }
    }
    return reader.file != nullptr;
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

/// The length that stands before a memo.
u64 storedLength(MemoReader& reader, const Table& table, u64 offset) {
    u8 prefix[kPrefix] = {};
    readFileAt(reader.file.get(), static_cast<u32>(offset), prefix, sizeof prefix);
    if (isFoxPro(table)) return loadBe32(prefix + 4);
    return loadLe<u32>(prefix + 4) - u64{kPrefix};
}

bool isCut(MemoReader& reader, const Table& table, MemoReference reference, u64 got) {
    if (isSmt(table)) return got < reference.length;
    const u64 offset = u64{reader.unit} * reference.block;
    return offset + kPrefix + got >= reader.size && storedLength(reader, table, offset) > got;
}

}  // namespace

u32 readFileAt(std::FILE* file, u32 offset, void* to, u32 count) {
    if (offset > 0x7FFFFFFF) return 0;
    if (SetFilePointer(file, static_cast<i32>(offset), nullptr, SEEK_SET) != offset) return 0;
    return ReadFile(file, to, static_cast<i32>(count));
}

bool hasDBase3Memos(const Table& table) {
    const u8 version = table.base->Header.Version;
    return version == 0x03 || version == 0x83;
}

bool holdsReference(const Column& column) {
    switch (column.type) {
        case 'M':
        case 'G':
            return true;
        case 'W':
        case 'P':
            return column.length == 4 || column.length == 10;
        default:
            return column.type == 'B' && column.length == 10;
    }
}

MemoReference memoReference(const Table& table, const Column& column) {
    const std::string_view stored = storedBytes(table, column);
    if (isSmt(table)) {
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

MemoResult readMemo(MemoReader& reader, const Table& table, const Column& column,
                    std::string_view* bytes) {
    *bytes = {};
    const MemoReference reference = memoReference(table, column);
    if (!reference.isReference) return MemoResult::Failed;
    if (reference.block == 0 && reference.length == 0) return MemoResult::None;
    if (!measure(reader, table)) return MemoResult::Failed;
    if (hasDBase3Memos(table)) return readDBase3(reader, u64{kDBase3Unit} * reference.block, bytes);
    u32 length = 0;
    SetFilePointer(reader.file.get(), 0, nullptr, SEEK_SET);  // a failure shows in the next read
    table.base->MemoFile = reader.file.get();
    reader.memory.reset(memoOfBlock(table, reference, &length));
    table.base->MemoFile = nullptr;
    if (!reader.memory) return MemoResult::Failed;
    *bytes = {reader.memory.get(), length};
    return isCut(reader, table, reference, length) ? MemoResult::Cut : MemoResult::Found;
}

}  // namespace mira::tool
