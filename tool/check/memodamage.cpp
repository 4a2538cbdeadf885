// Memos are visited in the order of their blocks. Each lays claim to its blocks; what comes next
// must begin after them, and what nobody claims is unused.
#include "check/memodamage.h"

#include <fmt/format.h>

#include <algorithm>

#include "terminal/progress.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

constexpr u32 kRecordBits = 33;
constexpr u64 kRecordMask = (u64{1} << kRecordBits) - 1;
constexpr u64 kLastPlace = 0x7FFFFFFF;  // of a memo file
constexpr u32 kHeader = 512;

/// Where memos begin.
u32 firstPlace(u32 unit) { return unit > kHeader ? unit : kHeader / unit * unit; }

/// Empty when the reference leads to where a memo may stand.
std::string wrongPlace(const MemoReader& memos, const Table& table, u32 block) {
    const u64 offset = u64{memos.unit} * block;
    if (offset >= memos.size || offset > kLastPlace) {
        return fmt::format("refers to block {}, past the end of the memo file", block);
    }
    const u32 header = std::min(table.memos->firstPlace, firstPlace(memos.unit));
    if (offset >= header) return "";
    return fmt::format("refers to block {}, in the header of the memo file", block);
}

u64 roundedUp(u64 place, u32 unit) { return (place + unit - 1) / unit * unit; }

/// What the walk knows at a memo.
struct Walk {
    MemoReferences& references;
    CellReader& cells;
    Faults& faults;
    const Report& report;
    u64 claimed = 0;  // place after the last claimed byte
    u64 holder = 0;   // whose memo that is, as in places
    u64 unused = 0;   // bytes

    const Table& table() const { return *cells.table; }
    MemoReader& memos() const { return cells.memos; }
    u32 recordOf(u64 place) const {
        return static_cast<u32>((place & kRecordMask) / references.columns.size());
    }
    const Column& columnOf(u64 place) const {
        const u64 column = (place & kRecordMask) % references.columns.size();
        return *references.columns[static_cast<std::size_t>(column)];
    }
    u64 offsetOf(u64 place) const { return (place >> kRecordBits) * memos().unit; }
    std::string nameOf(u64 place) const {
        return fmt::format("record {}, field {}", u64{recordOf(place)} + 1, columnOf(place).name);
    }
    void find(u64 place, std::string what, bool loses = true) const {
        report({.record = u64{recordOf(place)} + 1,
                .field = columnOf(place).name,
                .what = std::move(what),
                .loses = loses});
    }
};

/// Bytes that no memo claims before a place.
void skipTo(Walk& walk, u64 offset) {
    const u32 unit = walk.memos().unit;
    const u64 free = std::max<u64>(roundedUp(walk.claimed, unit), firstPlace(unit));
    if (offset > free) walk.unused += offset - free;
}

void readRecordOf(Walk& walk, u64 place) {
    walk.cells.record = walk.recordOf(place);
    readRecord(walk.table(), walk.cells.record);
}

/// No text: a control character in it, or the beginning of a PNG file, which holds an end mark to
/// show just such cuts.
bool isBinary(std::string_view bytes) {
    constexpr std::string_view kInTexts = "\t\n\r";
    return bytes.starts_with("\x89PNG") || std::any_of(bytes.begin(), bytes.end(), [&](char c) {
               return static_cast<u8>(c) < ' ' && kInTexts.find(c) == std::string_view::npos;
           });
}

/// Whether a dBase III memo goes on after its first end byte: one that stands alone in its block,
/// with data up to the next block, which is nobody else's. Writers leave in a block whatever was in
/// memory, so after a text only text counts.
bool goesOn(const Walk& walk, u64 offset, u64 end, u64 limit) {
    const u64 blockEnd = roundedUp(end, walk.memos().unit);
    if (limit <= blockEnd || end == blockEnd) return false;
    const u64 start = std::max(offset, blockEnd - walk.memos().unit);
    const auto used = static_cast<std::size_t>(end - start);
    std::string block(static_cast<std::size_t>(blockEnd - start), '\0');
    readFileAt(walk.memos().file.get(), static_cast<u32>(start), block.data(),
               static_cast<u32>(block.size()));
    const std::string_view before = std::string_view(block).substr(0, used - 1);
    const std::string_view rest = std::string_view(block).substr(used);
    if (rest.back() == '\0' || rest.find(kMemoEnd) != std::string::npos) return false;
    return isBinary(before) || !isBinary(rest);
}

/// Texts that the code page lacks, and whatever else keeps the memo from being read.
void readThrough(Walk& walk, u64 place) {
    const Column& column = walk.columnOf(place);
    if (column.kind != Kind::Memo) return;
    Value value;
    readCell(walk.cells, column, value);
    if (value.fault == Fault::NoCharacter) {
        countFault(walk.faults, value.fault, walk.cells.record, column);
    } else if (value.fault != Fault::None) {
        walk.find(place, "the memo cannot be read");
    }
}

void claim(Walk& walk, u64 place, u64 end) {
    skipTo(walk, walk.offsetOf(place));
    walk.claimed = end;
    walk.holder = place;
}

/// A memo whose block is its own. limit: where the next one begins, or the file ends.
void checkOwnMemo(Walk& walk, u64 place, u64 limit) {
    const u64 offset = walk.offsetOf(place);
    const MemoReference reference = memoReference(walk.table(), walk.columnOf(place));
    const std::optional<u64> said = memoEnd(walk.memos(), walk.table(), reference);
    if (!said) {
        claim(walk, place, offset + 1);
        return walk.find(place,
                         fmt::format("refers to block {}, which holds no memo of this format",
                                     place >> kRecordBits));
    }
    u64 end = *said;
    if (end > walk.memos().size) {
        claim(walk, place, limit);
        return walk.find(place, fmt::format("the memo is cut: {} bytes of it are past the end of "
                                            "the memo file",
                                            end - walk.memos().size));
    }
    if (tables::endsInMark(walk.table()) && goesOn(walk, offset, end, limit)) {
        walk.find(place, "the memo goes on after its end mark");
        end = limit;
    }
    claim(walk, place, end);
    readThrough(walk, place);
}

void checkMemo(Walk& walk, u64 place, u64 limit) {
    readRecordOf(walk, place);
    const u64 offset = walk.offsetOf(place);
    if (offset >= walk.claimed) return checkOwnMemo(walk, place, limit);
    // Where a memo can begin there, it is as good as any other.
    const MemoReference reference = memoReference(walk.table(), walk.columnOf(place));
    walk.find(place,
              fmt::format("refers to block {}, in the middle of the memo of {}",
                          place >> kRecordBits, walk.nameOf(walk.holder)),
              !memoEnd(walk.memos(), walk.table(), reference));
}

/// The memos in order; those that share a block together.
void walkMemos(Walk& walk) {
    std::vector<u64>& places = walk.references.places;
    std::sort(places.begin(), places.end());
    Progress progress(walk.table().path, places.size());
    for (std::size_t i = 0; i < places.size();) {
        leaveIfStopped();
        const std::size_t first = i;
        while (++i < places.size() && places[i] >> kRecordBits == places[first] >> kRecordBits) {
            walk.find(places[i],
                      fmt::format("refers to block {}, the memo of {}", places[i] >> kRecordBits,
                                  walk.nameOf(places[first])),
                      false);
        }
        checkMemo(walk, places[first],
                  i < places.size() ? walk.offsetOf(places[i]) : walk.memos().size);
        progress.add(i - first);
    }
    skipTo(walk, walk.memos().size);
    if (walk.unused == 0) return;
    walk.report({.isNote = true,
                 .what = fmt::format("the memo file has {} bytes that no record refers to; `mira "
                                     "pack` frees them",
                                     walk.unused)});
}

/// Why the references cannot be followed at all; empty when they can.
std::string obstacle(const MemoReferences& references, CellReader& cells) {
    const Table& table = *cells.table;
    if (!openMemos(cells.memos, table)) {
        std::string fault = memoFileFault(table);
        if (fault.empty()) fault = "its memo file cannot be opened";
        if (references.count == 0) return fault;
        return fmt::format("{}; {} {} to memos", fault, references.count,
                           references.count == 1 ? "field refers" : "fields refer");
    }
    if (cells.memos.unit == 0) return "the memo file gives blocks of 0 bytes";
    return "";
}

}  // namespace

MemoReferences memoReferencesOf(const Table& table) {
    MemoReferences references;
    if (table.memos == nullptr) return references;
    for (const auto* columns : {&table.columns, &table.system}) {
        for (const Column& column : *columns) {
            if (holdsReference(column)) references.columns.push_back(&column);
        }
    }
    return references;
}

void addReferences(MemoReferences& references, CellReader& cells, const Report& report) {
    const Table& table = *cells.table;
    for (std::size_t i = 0; i < references.columns.size(); ++i) {
        const Column& column = *references.columns[i];
        if (isNull(table, column)) continue;
        const auto find = [&](std::string what) {
            report({.record = u64{cells.record} + 1,
                    .field = column.name,
                    .what = std::move(what),
                    .loses = true});
        };
        const MemoReference reference = memoReference(table, column);
        if (!reference.isReference) {
            find(fmt::format("no reference to a memo: \"{}\"", storedBytes(table, column)));
            continue;
        }
        if (reference.block == 0 && reference.length == 0) continue;
        ++references.count;
        if (!openMemos(cells.memos, table) || cells.memos.unit == 0) continue;
        const std::string wrong = wrongPlace(cells.memos, table, reference.block);
        if (!wrong.empty()) {
            find(wrong);
            continue;
        }
        references.places.push_back(u64{reference.block} << kRecordBits |
                                    (u64{cells.record} * references.columns.size() + i));
    }
}

void checkMemos(MemoReferences& references, CellReader& cells, Faults& faults,
                const Report& report) {
    if (references.columns.empty()) return;
    const std::string fault = obstacle(references, cells);
    if (!fault.empty()) return report({.what = fault, .loses = references.count != 0});
    Walk walk{references, cells, faults, report};
    walkMemos(walk);
}

}  // namespace mira::tool
