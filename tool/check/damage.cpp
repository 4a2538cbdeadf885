#include "check/damage.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>

#include "check/indexdamage.h"
#include "check/memodamage.h"
#include "select/inorder.h"
#include "select/records.h"
#include "tables/open/open.h"
#include "tables/rescue/walk.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr char kEndByte = 0x1A;
constexpr std::string_view kPadding(" \0", 2);

bool isUpper(const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](char c) { return c >= 'a' && c <= 'z'; });
}

// --------------------------------------------------------------------------------------------
// The table as a whole
// --------------------------------------------------------------------------------------------

void checkHeader(const Table& table, const Report& report) {
    const bool stale = table.storedCount < table.base->Header.RecordCount;
    const std::string count = countRepair(table);
    const std::string stray = strayRepair(table);
    for (const std::string& repair : repairsOf(table)) {
        const bool harmless = repair == stray || (stale && repair == count);
        report({.isNote = harmless, .what = repair});
    }
    const std::string fault = memoFileFault(table);  // a finding, told with the memos
    for (const std::string& sentence : table.notes) {
        if (sentence != fault) report({.isNote = true, .what = sentence});
    }
}

/// Every varying length and every null takes a bit, in field order.
void checkNullFlags(const Table& table, const Report& report) {
    if (table.nullLength == 0) return;
    u32 bits = 0;
    for (const auto* columns : {&table.columns, &table.system}) {
        for (const Column& column : *columns) {
            bits += column.type == 'V' || column.type == 'Q' ? 1 : 0;
            bits += (column.flags & kNullable) != 0 ? 1 : 0;
        }
    }
    if (bits <= 8 * table.nullLength) return;
    report({.what = fmt::format("the null flags hold {} bits, the fields need {}",
                                8 * table.nullLength, bits)});
}

/// Header bytes 14 and 15 are 1 in tables of dBase IV and those that followed it; FoxPro's mean
/// nothing by them.
void checkWork(const Table& table, const Report& report) {
    constexpr std::size_t kTransaction = 14 - 12, kEncrypted = 15 - 12;  // in Rest
    if (table.memoFormat == MemoFormat::FoxPro) return;
    const u8* const rest = table.base->Header.Rest;
    if (rest[kTransaction] == 1) {
        report({.isNote = true, .what = "a transaction was not finished (header byte 14)"});
    }
    if (rest[kEncrypted] == 1) {
        report({.isNote = true, .what = "its records are encrypted (header byte 15)"});
    }
}

bool hasEndByte(const Table& table, u32 records) {
    const DbfHeader& header = table.base->Header;
    const u64 end = Calc64(header.RecordLength, records, header.HeaderLength);
    char byte = 0;
    return end <= 0x7FFFFFFF &&
           readFileAt(table.base->TableFile, static_cast<u32>(end), &byte, 1) == 1 &&
           byte == kEndByte;
}

/// Whether every program that writes such tables ends them with the byte. Many write dBase III's;
/// Visual FoxPro leaves it out of some.
bool alwaysHasEndByte(const Table& table) {
    return table.base->Header.Version != 0x03 && !table.visual;
}

/// After the records that the header counts, or all that the file holds. The byte tells records
/// from what else stands there, so it is missed only where that could be a record.
void checkEndByte(const Table& table, const Report& report) {
    const DbfHeader& header = table.base->Header;
    const u32 held = header.RecordCount;
    const u64 next = Calc64(header.RecordLength, table.storedCount + 1, header.HeaderLength);
    if (!alwaysHasEndByte(table) || table.fileSize < next) return;
    if (hasEndByte(table, table.storedCount) || hasEndByte(table, held)) return;
    report({.isNote = true, .what = "there is no end byte (1A) after the records"});
}

/// Other systems look for the table's own name with an extension in small letters, or in capitals
/// where the table's is.
void checkMemoName(const Table& table, const Report& report) {
    const fs::path memos = memoFileOf(table);
    if (memos.empty()) return;
    const std::string extension = memos.extension().string();
    const bool upper = isUpper(fs::path(table.path).extension().string());
    const bool lower = std::none_of(extension.begin(), extension.end(),
                                    [](char c) { return c >= 'A' && c <= 'Z'; });
    const bool same = memos.stem() == fs::path(table.path).stem();
    if (same && (lower || (upper && isUpper(extension)))) return;
    report({.isNote = true,
            .what = "its memo file " + memos.filename().string() +
                    " is in other letter case, and not found by every program"});
}

// --------------------------------------------------------------------------------------------
// Records
// --------------------------------------------------------------------------------------------

bool mayLackLetters(const CodePage& page) {
    return page.kind != CodePage::Kind::SingleByte ||
           std::any_of(page.letters.begin(), page.letters.end(),
                       [](const Letter& letter) { return letter.missing != 0; });
}

/// Whether some bytes are no value of the column. Memos are looked at one by one later.
bool canFail(const Table& table, const Column& column) {
    if (column.kind == Kind::Text) return !column.untranslated && mayLackLetters(*table.page.page);
    return kindRow(column.kind).has(kMayFail);
}

std::string faultText(const Table& table, const Column& column, Fault fault) {
    const char* const what = fault == Fault::NoNumber    ? "no number"
                             : fault == Fault::NoDate    ? "no date"
                             : fault == Fault::NoLogical ? "no logical value"
                                                         : "the length reaches past the field";
    std::string_view stored = storedBytes(table, column);
    if (fault == Fault::LengthPastEnd) {
        return fmt::format("{}: {} of {} bytes", what, static_cast<u8>(stored.back()),
                           stored.size());
    }
    const bool binary = column.kind == Kind::Double || stored.size() == 8;
    if (!(binary && column.type != 'D' && column.kind != Kind::Decimal)) {
        return fmt::format("{}: \"{}\"", what,
                           stored.substr(0, stored.find_last_not_of(kPadding) + 1));
    }
    std::string bytes;
    for (const char byte : stored) bytes += fmt::format(" {:02X}", static_cast<u8>(byte));
    return what + (":" + bytes);
}

struct RecordCheck {
    explicit RecordCheck(Table& table) : cells(table), memos(memoReferencesOf(table)) {
        for (const Column& column : table.columns) {
            if (canFail(table, column)) columns.push_back(&column);
        }
    }

    CellReader cells;
    MemoReferences memos;
    std::vector<const Column*> columns{};  // that can fail
    Faults faults{};                       // letters that the code page lacks
    bool shiftSought = false;
    std::optional<Shift> shift{};
};

void checkCells(RecordCheck& check, const Report& report) {
    const Table& table = *check.cells.table;
    const u32 record = check.cells.record;
    Value value;
    for (const Column* column : check.columns) {
        readCell(check.cells, *column, value);
        if (value.fault == Fault::None) continue;
        if (value.fault == Fault::NoCharacter) {
            countFault(check.faults, value.fault, record, *column);
        } else {
            report({.record = u64{record} + 1,
                    .field = column->name,
                    .what = faultText(table, *column, value.fault)});
        }
    }
}

/// Records that lie elsewhere are one finding, and nothing in them is looked at.
bool isShifted(RecordCheck& check, const Report& report) {
    if (!check.shiftSought) {
        check.shiftSought = true;
        check.shift = shiftOf(*check.cells.table);
        if (!check.shift) return false;
        report(
            {.what = fmt::format("shifted by {} bytes from record {} on; `mira repair` saves them",
                                 check.shift->bytes, u64{check.shift->record} + 1)});
    }
    return check.shift && check.cells.record >= check.shift->record;
}

bool isMarked(const Table& table) {
    const u8 mark = table.base->RecordBuffer[0];
    return mark == ' ' || mark == '*';
}

void checkRecord(RecordCheck& check, const Report& report) {
    const Table& table = *check.cells.table;
    const u8 mark = table.base->RecordBuffer[0];
    const bool marked = isMarked(table);
    if ((!marked || check.shift) && isShifted(check, report)) return;
    if (!marked) {
        report({.record = u64{check.cells.record} + 1,
                .what = fmt::format("the deletion byte is {:02X}, neither blank nor \"*\"", mark)});
    }
    checkCells(check, report);
    addReferences(check.memos, check.cells, report);
}

// --------------------------------------------------------------------------------------------
// Records on several threads
// --------------------------------------------------------------------------------------------

constexpr std::size_t kFindings = 1024;  // that wait for their turn

struct Part {
    std::vector<Finding> findings{};
    std::vector<u64> places{};
    u64 references = 0;
    Faults faults{};
    std::optional<u32> unmarked{};  // the first record without deletion byte; none follows
};

void checkRange(RecordCheck& check, const Range& range, const InOrder<Part>::Give& give) {
    const Table& table = *check.cells.table;
    Part part;
    const auto handOver = [&] {
        part.places = std::exchange(check.memos.places, {});
        part.references = std::exchange(check.memos.count, 0);
        part.faults = std::exchange(check.faults, {});
        give(std::exchange(part, {}));
    };
    const Report keep = [&](const Finding& finding) {
        part.findings.push_back(finding);
        if (part.findings.size() >= kFindings) handOver();
    };
    Progress progress(table.path, 0);
    try {
        for (u32 record = range.first; record < range.end && !part.unmarked; ++record) {
            leaveIfStopped();
            readRecord(table, record);
            check.cells.record = record;
            if (isMarked(table)) {
                checkRecord(check, keep);
            } else {
                part.unmarked = record;
            }
            progress.add(1);
        }
    } catch (...) {
        handOver();
        throw;
    }
    handOver();
}

void addPart(RecordCheck& check, const Part& part, const Report& report) {
    for (const Finding& finding : part.findings) report(finding);
    auto& places = check.memos.places;
    places.insert(places.end(), part.places.begin(), part.places.end());
    check.memos.count += part.references;
    addFaults(check.faults, part.faults);
}

/// Where one thread has to go on: from the first record without deletion byte on all hangs on what
/// has been found before.
u32 checkInParts(RecordCheck& check, const Report& report, unsigned jobs) {
    const Table& table = *check.cells.table;
    const u32 count = table.base->Header.RecordCount;
    const Cut cut = cutFor(table, count, jobs);
    const auto tables = openForThreads(table, cut);
    std::vector<std::unique_ptr<RecordCheck>> checks;
    std::vector<InOrder<Part>::Work> workers;
    for (const auto& one : tables) {
        checks.push_back(std::make_unique<RecordCheck>(*one));
        workers.emplace_back([own = checks.back().get()](const Range& range, const auto& give) {
            checkRange(*own, range, give);
        });
    }
    if (workers.empty()) return 0;
    u32 end = count;
    const Progress progress(table.path, count);
    const auto take = [&](Part& part) {
        addPart(check, part, report);
        if (part.unmarked) end = *part.unmarked;
        return !part.unmarked;
    };
    return InOrder<Part>({0, count}, cut).run(workers, take) ? end : 0;
}

void reportLetters(const Faults& faults, const Report& report) {
    const FaultTally& tally = faults[static_cast<std::size_t>(Fault::NoCharacter)];
    if (tally.count == 0) return;
    report({.isNote = true,
            .record = u64{tally.record} + 1,
            .field = tally.column,
            .what = tally.count == 1
                        ? "bytes that the code page lacks"
                        : fmt::format("bytes that the code page lacks, the first of {} such texts",
                                      tally.count)});
}

}  // namespace

std::string lineOf(const Table& table, const Finding& finding) {
    std::string line = table.path + ": ";
    if (finding.isNote) line += "note: ";
    if (finding.record != 0) {
        line += fmt::format("record {}", finding.record);
        if (!finding.field.empty()) line += ", field " + finding.field;
        line += ": ";
    }
    return line + finding.what;
}

void checkTable(Table& table, const Report& report, unsigned jobs) {
    checkHeader(table, report);
    checkNullFlags(table, report);
    checkWork(table, report);
    if (table.strayBytes == 0) checkEndByte(table, report);
    checkMemoName(table, report);
    RecordCheck check(table);
    const auto checkOne = [&](u32 record) {
        check.cells.record = record;
        checkRecord(check, report);
    };
    eachRecord(table, checkOne, checkInParts(check, report, jobs));
    checkMemos(check.memos, check.cells, check.faults, report);
    reportLetters(check.faults, report);
    checkIndexes(table, report);
}

}  // namespace mira::tool
