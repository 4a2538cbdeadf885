#include "tables/value/value.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>

#include "internal/real.h"
#include "tables/page/digits.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"

namespace mira::tables {
namespace {

constexpr std::size_t kRecordSize = 65535;  // of RecordBuffer

bool isPadding(char c) { return c == ' ' || c == '\0'; }
bool isAll(std::string_view bytes, char c) {
    return bytes.find_first_not_of(c) == std::string_view::npos;
}
DbfBase* baseOf(const CellReader& reader) { return reader.table->base.get(); }

std::string_view withoutPadding(std::string_view text) {
    const char* first = text.data();
    const char* last = first + text.size();
    while (last != first && isPadding(last[-1])) --last;
    while (first != last && isPadding(*first)) ++first;
    return {first, static_cast<std::size_t>(last - first)};
}

bool bitOf(const Table& table, i32 bit) {
    const auto place = static_cast<u32>(bit);
    return (table.base->RecordBuffer[table.nullOffset + place / 8] >> (place % 8) & 1) != 0;
}

// --------------------------------------------------------------------------------------------
// Texts and bytes
// --------------------------------------------------------------------------------------------

void giveBytes(Value& value, std::string_view bytes) {
    value.kind = ValueKind::Bytes;
    value.text = bytes;
}

/// Bytes of the table's page as text.
void giveText(CellReader& reader, Value& value, std::string_view bytes) {
    value.kind = ValueKind::Text;
    const CodePage& page = *reader.table->page.page;
    if (page.asciiClean && asciiRun(bytes) == bytes.size()) {
        value.text = bytes;
        return;
    }
    reader.scratch.clear();
    if (toUtf8(page, bytes, reader.scratch) != 0) value.fault = Fault::NoCharacter;
    value.text = reader.scratch;
}

std::string_view withoutBlanks(std::string_view text) {
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    return text;
}

/// Bytes that are in no code page: UTF-8 without a zero byte is text, all else stays bytes.
void giveUntranslated(Value& value, std::string_view bytes, std::string_view text) {
    if (bytes.find('\0') != std::string_view::npos || !isUtf8(bytes)) {
        return giveBytes(value, bytes);
    }
    value.kind = ValueKind::Text;
    value.text = text;
}

void giveCharacters(CellReader& reader, const Column& column, Value& value) {
    const std::string_view bytes = storedBytes(*reader.table, column);
    const bool raw = reader.table->options.raw;
    if (column.untranslated) {
        return giveUntranslated(value, bytes, raw ? bytes : withoutBlanks(bytes));
    }
    const std::string_view text = bytes.substr(0, bytes.find('\0'));
    giveText(reader, value, raw ? text : withoutBlanks(text));
}

void giveVarchar(CellReader& reader, const Column& column, Value& value) {
    if (column.lengthBit == kNoBit) return giveCharacters(reader, column, value);
    const std::string_view bytes = variableBytes(*reader.table, column, &value.fault);
    if (column.untranslated) return giveUntranslated(value, bytes, bytes);
    giveText(reader, value, bytes);
}

void giveVarbinary(CellReader& reader, const Column& column, Value& value) {
    giveBytes(value, variableBytes(*reader.table, column, &value.fault));
}

void giveStored(CellReader& reader, const Column& column, Value& value) {
    giveBytes(value, storedBytes(*reader.table, column));
}

// --------------------------------------------------------------------------------------------
// Memos
// --------------------------------------------------------------------------------------------

/// Soft line breaks, 8D 0A, become 0A. After a byte above 7F in a multi-byte page 8D may end a
/// character and stays. The text is rewritten where it lies.
std::string_view withoutSoftBreaks(const CodePage& page, std::string_view text,
                                   std::string& storage) {
    constexpr std::string_view kSoftBreak = "\x8D\n";
    if (text.find(kSoftBreak) == std::string_view::npos) return text;
    const bool single = page.kind == CodePage::Kind::SingleByte;
    std::string changed;
    changed.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool alone = single || i == 0 || static_cast<u8>(text[i - 1]) < 0x80;
        if (!alone || text.compare(i, 2, kSoftBreak) != 0) changed += text[i];
    }
    storage = std::move(changed);
    return storage;
}

/// Whether memo texts may hold soft line breaks, as those of ".dbt" files do.
bool hasSoftBreaks(const Table& table) {
    return sameText(std::filesystem::path(memoFileOf(table)).extension().string(), ".dbt");
}

void giveMemoText(CellReader& reader, const Column& column, Value& value, std::string_view bytes) {
    const std::string_view text = bytes.substr(0, bytes.find_last_not_of('\0') + 1);
    const bool onlyZeros = text.empty() && !bytes.empty();
    if (onlyZeros || text.find('\0') != std::string_view::npos) return giveBytes(value, bytes);
    if (column.untranslated) return giveUntranslated(value, text, text);
    const bool soft = hasSoftBreaks(*reader.table) && !reader.table->options.raw;
    giveText(reader, value,
             soft ? withoutSoftBreaks(*reader.table->page.page, text, reader.memos.text) : text);
}

void giveMemo(CellReader& reader, const Column& column, Value& value) {
    std::string_view bytes;
    const MemoResult result = readMemo(reader.memos, *reader.table, column, &bytes);
    if (result == MemoResult::Failed) {
        value.fault = Fault::NoMemo;
        return;
    }
    if (result == MemoResult::None) {
        // What may be null and is not is an empty text.
        if (column.kind == Kind::Memo && column.mayBeNull()) value.kind = ValueKind::Text;
        return;
    }
    if (column.kind == Kind::Memo) {
        giveMemoText(reader, column, value, bytes);
    } else {
        giveBytes(value, bytes);
    }
    if (result == MemoResult::Cut) value.fault = Fault::MemoCut;
}

// --------------------------------------------------------------------------------------------
// Numbers
// --------------------------------------------------------------------------------------------

void giveDigits(Value& value, std::string_view digits) {
    if (!isNumber(digits)) {
        value.fault = Fault::NoNumber;
        return;
    }
    value.kind = ValueKind::Digits;
    value.text = digits;
}

void giveDecimal(CellReader& reader, const Column& column, Value& value) {
    const std::string_view digits = withoutPadding(storedBytes(*reader.table, column));
    // Some programs leave the point of a blank number.
    if (!digits.empty() && digits != ".") giveDigits(value, digits);
}

void giveInteger(Value& value, i64 integer) {
    value.kind = ValueKind::Integer;
    value.integer = integer;
}

void giveInteger(CellReader& reader, const Column& column, Value& value) {
    giveInteger(value, static_cast<i32>(GetInt(baseOf(reader), column.field)));
}

void giveDouble(CellReader& reader, const Column& column, Value& value) {
    value.real = column.type == 'O' ? GetInvertedDouble(baseOf(reader), column.field)
                                    : GetDouble(baseOf(reader), column.field);
    if (std::isfinite(value.real)) {
        value.kind = ValueKind::Real;
    } else {
        value.fault = Fault::NoNumber;
    }
}

void giveCurrency(CellReader& reader, const Column& column, Value& value) {
    value.kind = ValueKind::Currency;
    GetCurrencyUnits(baseOf(reader), column.field, &value.integer);
    const bool negative = value.integer < 0;
    const auto bits = static_cast<u64>(value.integer);
    const u64 size = negative ? 0 - bits : bits;
    char* to = reader.digits;
    if (negative) *to++ = '-';
    to = std::to_chars(to, std::end(reader.digits), size / kCurrencyUnits).ptr;
    *to++ = '.';
    u64 rest = size % kCurrencyUnits;
    for (int i = 3; i >= 0; --i, rest /= 10) to[i] = static_cast<char>('0' + rest % 10);
    value.text = {reader.digits, static_cast<std::size_t>(to + 4 - reader.digits)};
}

// --------------------------------------------------------------------------------------------
// Dates, moments, logicals
// --------------------------------------------------------------------------------------------

/// Digits yyyymmdd as "yyyy-mm-dd".
void putDate(char* to, const char* digits) {
    std::memcpy(to, digits, 4);
    to[4] = '-';
    std::memcpy(to + 5, digits + 4, 2);
    to[7] = '-';
    std::memcpy(to + 8, digits + 6, 2);
}

/// Blank, zeros included; else bad.
void giveNoDate(Value& value, std::string_view stored) {
    constexpr std::string_view kNothing(" 0\0", 3);
    if (stored.find_first_not_of(kNothing) != std::string_view::npos) value.fault = Fault::NoDate;
}

/// Whether eight characters are the digits of a date.
bool isDate(const char* at) {
    const u64 digits = loadLe<u64>(at) ^ kZeros;
    if (nonDigits(digits) != 0) return false;
    const u64 pairs = digits * 10 + (digits >> 8);  // a number of two digits in every other byte
    const auto pairAt = [pairs](int byte) { return static_cast<int>(pairs >> 8 * byte & 0xFF); };
    std::tm date{};
    date.tm_year = pairAt(0) * 100 + pairAt(2);
    date.tm_mon = pairAt(4) - 1;
    date.tm_mday = pairAt(6);
    return mymktime(&date) == 0;
}

void giveDate(CellReader& reader, const Column& column, Value& value) {
    constexpr std::size_t kDigits = 8;
    std::string_view stored = storedBytes(*reader.table, column);
    if (stored.size() != kDigits) stored = withoutPadding(stored);
    if (stored.size() != kDigits || !isDate(stored.data())) return giveNoDate(value, stored);
    putDate(reader.digits, stored.data());
    value.kind = ValueKind::Date;
    value.text = {reader.digits, 10};
}

/// "00" to "99".
constexpr auto kPairs = [] {
    std::array<char, 200> pairs{};
    for (std::size_t i = 0; i < 100; ++i) {
        pairs[2 * i] = static_cast<char>('0' + i / 10);
        pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
    }
    return pairs;
}();
void putTwo(char* to, unsigned number) { std::memcpy(to, &kPairs[2 * std::size_t{number}], 2); }

/// "yyyy-mm-dd hh:mm:ss", ".sss" after it when not zero.
void giveMoment(CellReader& reader, i32 number, i32 milliseconds, Value& value) {
    int year = 0, month = 0, day = 0;
    GetDayDate(number, &year, &month, &day);
    const auto seconds = static_cast<unsigned>(milliseconds) / 1000;
    const auto rest = static_cast<unsigned>(milliseconds) % 1000;
    char* const to = reader.digits;
    std::memcpy(to, "0000-00-00 00:00:00.000", 23);
    putTwo(to, static_cast<unsigned>(year) / 100);
    putTwo(to + 2, static_cast<unsigned>(year) % 100);
    putTwo(to + 5, static_cast<unsigned>(month));
    putTwo(to + 8, static_cast<unsigned>(day));
    putTwo(to + 11, seconds / 3600);
    putTwo(to + 14, seconds / 60 % 60);
    putTwo(to + 17, seconds % 60);
    to[20] = static_cast<char>('0' + rest / 100);
    putTwo(to + 21, rest % 100);
    value.kind = ValueKind::Moment;
    value.text = {to, rest != 0 ? 23U : 19U};
}

void giveMoment(CellReader& reader, const Column& column, Value& value) {
    i32 day = 0, milliseconds = 0;
    if (GetMoment(baseOf(reader), column.field, &day, &milliseconds) != 0) {
        return giveMoment(reader, day, milliseconds, value);
    }
    const std::string_view stored = storedBytes(*reader.table, column);
    if (column.length != 8) return giveNoDate(value, withoutPadding(stored));
    if (!isAll(stored, '\0') && !isAll(stored, ' ')) value.fault = Fault::NoDate;
}

void giveLogical(CellReader& reader, const Column& column, Value& value) {
    constexpr std::string_view kTrue = "TtYy";
    constexpr std::string_view kFalse = "FfNn";
    constexpr std::string_view kOpen(" ?\0", 3);
    const std::string_view stored = storedBytes(*reader.table, column);
    const char letter = stored.empty() ? ' ' : stored[0];
    if (kTrue.find(letter) != std::string_view::npos) {
        giveInteger(value, 1);
    } else if (kFalse.find(letter) != std::string_view::npos) {
        giveInteger(value, 0);
    } else {
        if (kOpen.find(letter) == std::string_view::npos) value.fault = Fault::NoLogical;
        return;
    }
    value.kind = ValueKind::Logical;
}

void giveCalculated(CellReader& reader, const Column& column, Value& value) {
    const char* const text = GetCalcStringI(baseOf(reader), column.field);
    if (text != nullptr && !column.numeric) return giveText(reader, value, withoutBlanks(text));
    giveDigits(value, text != nullptr ? trimmed(text) : "");
}

void giveRecordNumber(CellReader& reader, const Column& /*column*/, Value& value) {
    giveInteger(value, i64{reader.record} + 1);
}

void giveDeletion(CellReader& reader, const Column& /*column*/, Value& value) {
    giveInteger(value, isDeleted(*reader.table) ? 1 : 0);
    value.kind = ValueKind::Logical;
}

using Give = void (*)(CellReader&, const Column&, Value&);
constexpr Give giveOf(Kind kind) {
    switch (kind) {
        case Kind::Text:
            return giveCharacters;
        case Kind::Varchar:
            return giveVarchar;
        case Kind::Varbinary:
            return giveVarbinary;
        case Kind::Decimal:
            return giveDecimal;
        case Kind::Integer:
            return giveInteger;
        case Kind::Double:
            return giveDouble;
        case Kind::Currency:
            return giveCurrency;
        case Kind::Date:
            return giveDate;
        case Kind::Moment:
            return giveMoment;
        case Kind::Logical:
            return giveLogical;
        case Kind::Memo:
        case Kind::Blob:
            return giveMemo;
        case Kind::Bytes:
            return giveStored;
        case Kind::Calculated:
            return giveCalculated;
        case Kind::RecordNumber:
            return giveRecordNumber;
        case Kind::Deletion:
            return giveDeletion;
    }
    std::abort();  // not constant: a kind without a row does not compile
}
constexpr auto kGive = tableOfKinds(giveOf);

}  // namespace

std::string_view storedBytes(const Table& table, const Column& column) {
    return {reinterpret_cast<const char*>(table.base->RecordBuffer) + column.offset, column.length};
}

std::string_view variableBytes(const Table& table, const Column& column, Fault* fault) {
    const std::string_view bytes = storedBytes(table, column);
    if (column.lengthBit == kNoBit || bytes.empty() || !bitOf(table, column.lengthBit)) {
        return bytes;
    }
    const std::size_t length = static_cast<u8>(bytes.back());
    if (length >= bytes.size() && fault != nullptr) *fault = Fault::LengthPastEnd;
    return bytes.substr(0, std::min(length, bytes.size() - 1));
}

bool lastsForRecord(const Table& table, std::string_view text) {
    const auto* const record = reinterpret_cast<const char*>(table.base->RecordBuffer);
    const std::less<> before;
    return !before(text.data(), record) && before(text.data(), record + kRecordSize);
}

bool isNull(const Table& table, const Column& column) {
    return column.nullBit != kNoBit && bitOf(table, column.nullBit);
}

void readCell(CellReader& reader, const Column& column, Value& value) {
    value.kind = ValueKind::Blank;
    value.fault = Fault::None;
    value.text = {};
    if (isNull(*reader.table, column)) {
        value.kind = ValueKind::Null;
        return;
    }
    kGive[static_cast<std::size_t>(column.kind)](reader, column, value);
}

bool isNumber(std::string_view text) {
    const auto takeDigits = [&text] {
        std::size_t count = 0;
        while (count < text.size() && isDigit(text[count])) ++count;
        text.remove_prefix(count);
        return count;
    };
    takeOneOf(&text, "+-");
    std::size_t count = takeDigits();
    if (takeOneOf(&text, ".")) count += takeDigits();
    if (count == 0) return false;
    if (takeOneOf(&text, "eE")) {
        takeOneOf(&text, "+-");
        if (takeDigits() == 0) return false;
    }
    return text.empty();
}

std::optional<i64> toInteger(std::string_view digits) {
    takeOneOf(&digits, "+");
    const char* const end = digits.data() + digits.size();
    i64 value = 0;
    auto [next, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc()) return std::nullopt;
    // Zeros after a point are no decimals.
    if (next != end && *next == '.') {
        next = std::find_if(next + 1, end, [](char c) { return c != '0'; });
    }
    return next == end ? std::optional(value) : std::nullopt;
}

double toReal(std::string_view digits) {
    takeOneOf(&digits, "+");
    double value = 0;
    const auto result = readReal(digits.data(), digits.data() + digits.size(), value);
    if (result.ec == std::errc::result_out_of_range) {
        const std::size_t exponent = digits.find_first_of("eE");
        const bool tiny = exponent != std::string_view::npos &&
                          digits.find('-', exponent) != std::string_view::npos;
        value = tiny ? 0.0 : digits.front() == '-' ? -HUGE_VAL : HUGE_VAL;
    }
    return value;
}

void countFault(Faults& faults, Fault fault, u32 record, const Column& column) {
    FaultTally& tally = faults[static_cast<std::size_t>(fault)];
    if (tally.count++ != 0) return;
    tally.record = record;
    tally.column = column.name;
}

void addFaults(Faults& faults, const Faults& later) {
    for (std::size_t i = 0; i < kFaults; ++i) {
        const u64 count = faults[i].count + later[i].count;
        if (faults[i].count == 0) faults[i] = later[i];
        faults[i].count = count;
    }
}

u64 faultCount(const Faults& faults) {
    u64 count = 0;
    for (const FaultTally& tally : faults) count += tally.count;
    return count;
}

std::string faultSentence(Fault fault, u64 count) {
    // For one, for more.
    constexpr const char* kWords[kFaults][2] = {
        {"", ""},
        {"value that is no number came out empty", "values that are no numbers came out empty"},
        {"value that is no date came out empty", "values that are no dates came out empty"},
        {"value that is no logical came out empty", "values that are no logicals came out empty"},
        {"text has bytes that the code page lacks, now U+FFFD",
         "texts have bytes that the code page lacks, now U+FFFD"},
        {"length reaches past its field", "lengths reach past their fields"},
        {"memo cannot be read and came out empty", "memos cannot be read and came out empty"},
        {"memo is cut: the memo file does not hold all of it",
         "memos are cut: the memo file does not hold all of them"},
        {"number of more than 15 digits is rounded", "numbers of more than 15 digits are rounded"},
        {"value that the server cannot keep came out empty or with U+FFFD",
         "values that the server cannot keep came out empty or with U+FFFD"},
    };
    return textOf(count, ' ', kWords[static_cast<std::size_t>(fault)][count == 1 ? 0 : 1]);
}

std::string faultSentence(Fault fault, const FaultTally& tally) {
    return textOf(faultSentence(fault, tally.count), ", first in record ", u64{tally.record} + 1,
                  ", field ", tally.column);
}

}  // namespace mira::tables
