// Encoding of values, by kind of field. What the library encodes (integers, doubles, moments) goes
// through its setters, into the record buffer and out of it again.
#include "table/store.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

#include "table/bytes.h"
#include "table/decimal.h"
#include "table/memo.h"
#include "table/pagenames.h"
#include "table/refusal.h"
#include "table/text.h"

namespace mira::tool {
namespace {

constexpr std::string_view kBase64 = "base64:";
constexpr char kMemoEnd = 0x1A;
constexpr std::size_t kQuoted = 40;  // bytes of a value that a message shows
constexpr int kCurrencyDecimals = 4;

/// Why a value does not fit; empty when it does.
using Reason = std::string;

// ---------------------------------------------------------------------------------------------
// What is given
// ---------------------------------------------------------------------------------------------

bool isText(const Given& given) {
    return given.from == Given::From::Cell || given.from == Given::From::Text;
}

std::string shownReal(double value) {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

/// The value as text, for fields that hold characters.
std::string plainText(const Given& given) {
    if (given.from == Given::From::Integer) return std::to_string(given.integer);
    if (given.from == Given::From::Real) return shownReal(given.real);
    return std::string(given.text);
}

/// The value for a message, in quotes.
std::string quoted(const Given& given) {
    if (given.from == Given::From::Blob) return "a blob";
    std::string text = plainText(given);
    if (text.size() > kQuoted) {
        std::size_t end = kQuoted;
        while (end != 0 && (static_cast<u8>(text[end]) & 0xC0) == 0x80) --end;
        text = text.substr(0, end) + "...";
    }
    return '"' + text + '"';
}

Reason noFit(const Column& column, const Given& given) {
    return quoted(given) + " does not fit " + typeLabel(column);
}

Reason isNo(const Given& given, const char* what) { return quoted(given) + " is no " + what; }

std::string sized(std::size_t bytes) {
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

int base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

bool decodeBase64(std::string_view text, std::string* bytes) {
    for (int pads = 0; pads < 2 && text.ends_with('='); ++pads) text.remove_suffix(1);
    u32 bits = 0;
    int held = 0;
    for (const char c : text) {
        const int digit = base64Digit(c);
        if (digit < 0) return false;
        bits = bits << 6 | static_cast<u32>(digit);
        held += 6;
        if (held < 8) continue;
        held -= 8;
        bytes->push_back(static_cast<char>(bits >> held & 0xFF));
    }
    return text.size() % 4 != 1;
}

std::optional<Decimal> numberOf(const Given& given) {
    if (given.from == Given::From::Integer) return readDecimal(std::to_string(given.integer));
    if (given.from == Given::From::Real) {
        return std::isfinite(given.real) ? std::optional(decimalOf(given.real)) : std::nullopt;
    }
    return isText(given) ? readDecimal(trimmed(given.text)) : std::nullopt;
}

// ---------------------------------------------------------------------------------------------
// Into bytes
// ---------------------------------------------------------------------------------------------

char blankByte(const Table& table, const Column& column) {
    return FieldBlankChar(table.base.get(), column.field);
}

void encodeBlank(const Table& table, const Column& column, Encoded& encoded) {
    encoded.bytes.assign(column.length, blankByte(table, column));
}

/// Bytes at the beginning of the field, blanks behind them.
void encodeBytes(const Table& table, const Column& column, std::string_view bytes,
                 Encoded& encoded) {
    encodeBlank(table, column, encoded);
    bytes.copy(encoded.bytes.data(), encoded.bytes.size());
}

/// What a setter of the library makes of the field.
template <typename Setter>
void encodeBy(const Table& table, const Column& column, Encoded& encoded, Setter set) {
    char* const at = reinterpret_cast<char*>(table.base->RecordBuffer) + column.offset;
    const std::string saved(at, column.length);
    set();
    encoded.bytes.assign(at, column.length);
    saved.copy(at, saved.size());
}

/// The text in the table's page, or as it is where no page counts.
Reason pageBytes(const Table& table, const Column& column, const Given& given, std::string& bytes) {
    const std::string text = plainText(given);
    if (column.untranslated) {
        bytes = text;
        return "";
    }
    std::string lacking;
    if (fromUtf8(*table.page.page, text, bytes, &lacking)) return "";
    return "code page " + pageName(*table.page.page) + " lacks \"" + lacking + "\"";
}

/// Bytes given as such, by "base64:" or a blob. False when a text is given.
bool givenBytes(const Given& given, std::string& bytes, Reason* reason) {
    if (given.from == Given::From::Blob) {
        bytes = given.text;
        return true;
    }
    if (given.from != Given::From::Cell || !given.text.starts_with(kBase64)) return false;
    if (!decodeBase64(given.text.substr(kBase64.size()), &bytes)) *reason = isNo(given, "base64");
    return true;
}

/// The bytes of a field that holds text; binary ones where the field may hold them.
Reason textBytes(const Table& table, const Column& column, const Given& given, bool mayBeBinary,
                 std::string& bytes) {
    Reason reason;
    if (mayBeBinary && givenBytes(given, bytes, &reason)) return reason;
    if (given.from == Given::From::Blob) return "a blob is no text";
    reason = pageBytes(table, column, given, bytes);
    if (reason.empty() && !column.untranslated && bytes.find('\0') != std::string::npos) {
        return "a text holds no zero byte";
    }
    return reason;
}

Reason binaryBytes(const Given& given, std::string& bytes) {
    Reason reason;
    if (givenBytes(given, bytes, &reason)) return reason;
    return quoted(given) + " is text; bytes are written as \"base64:...\"";
}

Reason tooLong(const Column& column, std::size_t size) {
    return sized(size) + " do not fit " + typeLabel(column);
}

Reason encodeText(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    std::string bytes;
    Reason reason = textBytes(table, column, given, column.untranslated, bytes);
    if (!reason.empty()) return reason;
    while (bytes.size() > column.length && bytes.back() == ' ') bytes.pop_back();
    if (bytes.size() > column.length) return tooLong(column, bytes.size());
    encodeBytes(table, column, bytes, encoded);
    return "";
}

/// A text that may be shorter than its field: its length is kept in the last byte.
Reason encodeVariable(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    std::string bytes;
    const bool binary = column.kind == Kind::Varbinary;
    Reason reason = binary ? binaryBytes(given, bytes)
                           : textBytes(table, column, given, column.untranslated, bytes);
    if (!reason.empty()) return reason;
    if (bytes.size() > column.length) return tooLong(column, bytes.size());
    encodeBytes(table, column, bytes, encoded);
    if (column.lengthBit == kNoBit || bytes.size() == column.length) return "";
    encoded.partial = true;
    encoded.bytes.back() = static_cast<char>(bytes.size());
    return "";
}

Reason encodeStored(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    std::string bytes;
    Reason reason = binaryBytes(given, bytes);
    if (reason.empty() && bytes.size() > column.length) reason = tooLong(column, bytes.size());
    if (reason.empty()) encodeBytes(table, column, bytes, encoded);
    return reason;
}

bool isDBase3(const Table& table) {
    const u8 version = table.base->Header.Version;
    return table.base->Level7 == 0 && (version == 0x03 || version == 0x83);
}

Reason encodeMemo(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    encodeBlank(table, column, encoded);
    Reason reason = column.kind == Kind::Memo ? textBytes(table, column, given, true, encoded.memo)
                                              : binaryBytes(given, encoded.memo);
    if (!reason.empty() || encoded.memo.empty()) return reason;
    if (!holdsReference(column)) {
        return "a field of " + sized(column.length) + " cannot refer to a memo";
    }
    if (isDBase3(table) && encoded.memo.find(kMemoEnd) != std::string::npos) {
        return "a memo of dBase III ends at a byte 1A, which the value holds";
    }
    const char* const memos = table.base->MemoFileName;
    if (memos == nullptr || access(memos, R_OK | W_OK) != 0) {
        return "the memo file is missing or cannot be written";
    }
    return "";
}

// ---------------------------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------------------------

/// The digits, without the zero in front of the point where that is too much.
std::string shortPrint(const Decimal& number, std::size_t width) {
    std::string text = printDecimal(number);
    const std::size_t zero = number.negative ? 1 : 0;
    if (text.size() == width + 1 && text.compare(zero, 2, "0.") == 0) text.erase(zero, 1);
    return text;
}

/// Digits, right-aligned. With fewer decimals than the field has where that is the only way in
/// and loses none.
Reason encodeDecimal(Table&, const Column& column, const Given& given, Encoded& encoded) {
    std::optional<Decimal> number = numberOf(given);
    if (!number) return isNo(given, "number");
    const bool mayRound = given.from == Given::From::Real;
    if (!rescale(*number, column.decimals, mayRound)) {
        return quoted(given) + " has more than " + std::to_string(column.decimals) + " decimals";
    }
    std::string text = shortPrint(*number, column.length);
    while (text.size() > column.length && number->scale > 0 &&
           rescale(*number, number->scale - 1, false)) {
        text = shortPrint(*number, column.length);
    }
    if (text.size() > column.length) return noFit(column, given);
    encoded.bytes = std::string(column.length - text.size(), ' ') + text;
    return "";
}

Reason encodeI32(Table& table, const Column& column, i64 value, const Given& given,
                 Encoded& encoded) {
    const auto stored = static_cast<u32>(value);
    if (static_cast<i32>(stored) != value || column.length != sizeof stored) {
        return noFit(column, given);
    }
    DbfBase* const base = table.base.get();
    bool same = false;
    encodeBy(table, column, encoded, [&] {
        SetInt(base, column.field, stored);
        same = GetInt(base, column.field) == stored;  // level 7 may have no sign
    });
    return same ? "" : noFit(column, given);
}

Reason encodeInteger(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    std::optional<Decimal> number = numberOf(given);
    if (!number) return isNo(given, "number");
    if (!rescale(*number, 0, given.from == Given::From::Real)) return isNo(given, "whole number");
    const std::optional<i64> value = unitsOf(*number);
    return value ? encodeI32(table, column, *value, given, encoded) : noFit(column, given);
}

bool doubleOf(const Given& given, double* value) {
    if (given.from == Given::From::Real) {
        *value = given.real;
        return std::isfinite(given.real);
    }
    const std::string text = plainText(given);
    std::string_view digits = trimmed(text);
    if (!readDecimal(digits)) return false;
    if (digits.starts_with('+')) digits.remove_prefix(1);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), *value);
    return error == std::errc{};
}

Reason encodeDouble(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    double value = 0;
    if (!doubleOf(given, &value)) return isNo(given, "number");
    if (column.length != sizeof value) return noFit(column, given);
    encodeBy(table, column, encoded, [&] {
        if (column.type == 'O') {
            SetInvertedDouble(table.base.get(), column.field, value);
        } else {
            SetDouble(table.base.get(), column.field, value);
        }
    });
    return "";
}

Reason encodeCurrency(Table&, const Column& column, const Given& given, Encoded& encoded) {
    std::optional<Decimal> number = numberOf(given);
    if (!number) return isNo(given, "number");
    if (!rescale(*number, kCurrencyDecimals, given.from == Given::From::Real)) {
        return quoted(given) + " has more than 4 decimals";
    }
    const std::optional<i64> units = unitsOf(*number);
    if (!units || column.length != sizeof *units) return noFit(column, given);
    const auto bytes = bytesLe(*units);
    encoded.bytes.assign(bytes.begin(), bytes.end());
    return "";
}

// ---------------------------------------------------------------------------------------------
// Dates, moments, logicals
// ---------------------------------------------------------------------------------------------

struct Moment {
    std::tm time{};  // tm_year is the full year, tm_mon 0 to 11
    int milliseconds = 0;
};

/// count digits as a number; the text moves on behind them.
bool takeNumber(std::string_view* text, std::size_t count, int* number) {
    if (text->size() < count) return false;
    const auto [end, error] = std::from_chars(text->data(), text->data() + count, *number);
    if (error != std::errc{} || end != text->data() + count || text->front() == '-') return false;
    text->remove_prefix(count);
    return true;
}

bool takeOne(std::string_view* text, std::string_view of) {
    if (text->empty() || of.find(text->front()) == std::string_view::npos) return false;
    text->remove_prefix(1);
    return true;
}

/// yyyy-mm-dd or yyyymmdd
bool takeDate(std::string_view* text, std::tm* time) {
    if (!takeNumber(text, 4, &time->tm_year)) return false;
    const bool dashes = takeOne(text, "-");
    if (!takeNumber(text, 2, &time->tm_mon) || dashes != takeOne(text, "-")) return false;
    if (!takeNumber(text, 2, &time->tm_mday)) return false;
    --time->tm_mon;
    return mymktime(time) == 0;
}

/// hh:mm[:ss[.s[s[s]]]] or hhmmss
bool takeTime(std::string_view* text, Moment* moment) {
    std::tm& time = moment->time;
    if (!takeNumber(text, 2, &time.tm_hour)) return false;
    const bool colons = takeOne(text, ":");
    if (!takeNumber(text, 2, &time.tm_min)) return false;
    if (colons && text->empty()) return mymktime(&time) == 0;
    if (colons != takeOne(text, ":") || !takeNumber(text, 2, &time.tm_sec)) return false;
    if (takeOne(text, ".")) {
        const std::string_view digits = *text;
        if (digits.empty() || digits.size() > 3 ||
            !takeNumber(text, digits.size(), &moment->milliseconds)) {
            return false;
        }
        for (std::size_t i = digits.size(); i < 3; ++i) moment->milliseconds *= 10;
    }
    return mymktime(&time) == 0;
}

/// A date, and behind a blank, a "T" or nothing a time.
std::optional<Moment> readMoment(std::string_view text) {
    Moment moment;
    if (!takeDate(&text, &moment.time)) return std::nullopt;
    if (text.empty()) return moment;
    takeOne(&text, " T");
    if (!takeTime(&text, &moment) || !text.empty()) return std::nullopt;
    return moment;
}

Reason encodeDate(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    std::tm time{};
    const std::string plain = plainText(given);
    std::string_view text = trimmed(plain);
    if (!takeDate(&text, &time)) return isNo(given, "date (2024-01-31)");
    // A moment at midnight is its date.
    const std::optional<Moment> moment = readMoment(trimmed(plain));
    const bool midnight = moment && moment->milliseconds == 0 && moment->time.tm_hour == 0 &&
                          moment->time.tm_min == 0 && moment->time.tm_sec == 0;
    if (!midnight) return isNo(given, "date (2024-01-31)");
    const int number = time.tm_year * 10000 + (time.tm_mon + 1) * 100 + time.tm_mday;
    const std::string digits = std::to_string(100000000 + number).substr(1);
    if (column.length < digits.size()) return noFit(column, given);
    encodeBytes(table, column, digits, encoded);
    return "";
}

/// Adds what the library's setters have no place for.
void addMilliseconds(const Column& column, int milliseconds, std::string& bytes) {
    if (column.foreignMoment) {
        const double stored = loadBeDouble(reinterpret_cast<const u8*>(bytes.data()));
        const auto bits = std::bit_cast<u64>(stored + milliseconds);
        for (int i = 0; i < 8; ++i) {
            bytes[static_cast<std::size_t>(i)] = static_cast<char>(bits >> (56 - 8 * i) & 0xFF);
        }
        return;
    }
    const auto stored = bytesLe(loadLe<u32>(bytes.data() + 4) + static_cast<u32>(milliseconds));
    std::copy(stored.begin(), stored.end(), bytes.begin() + 4);
}

Reason encodeMoment(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string plain = plainText(given);
    const std::optional<Moment> moment = readMoment(trimmed(plain));
    if (!moment) return isNo(given, "date and time (2024-01-31 23:59:59)");
    const bool binary = column.length == 8;
    if (!binary && column.length != 14) return noFit(column, given);
    if (!binary && moment->milliseconds != 0) return quoted(given) + " has parts of a second";
    const std::tm& t = moment->time;
    const auto set = column.type == '@' ? SetTimeStamp : SetDateTime;
    encodeBy(table, column, encoded, [&] {
        set(table.base.get(), column.field, t.tm_year, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min,
            t.tm_sec);
    });
    if (moment->milliseconds != 0) {
        addMilliseconds(column, moment->milliseconds, encoded.bytes);
    }
    return "";
}

Reason encodeLogical(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string plain = plainText(given);
    const std::string text = upperAscii(trimmed(plain));
    for (const char* word : {"TRUE", "T", "YES", "Y", "1"}) {
        if (text == word) encodeBytes(table, column, "T", encoded);
    }
    for (const char* word : {"FALSE", "F", "NO", "N", "0"}) {
        if (text == word) encodeBytes(table, column, "F", encoded);
    }
    return encoded.bytes.empty() ? isNo(given, "logical value (true, false)") : "";
}

// ---------------------------------------------------------------------------------------------
// Null and blank
// ---------------------------------------------------------------------------------------------

bool holdsText(const Column& column) {
    return column.kind == Kind::Text || column.kind == Kind::Varchar || column.kind == Kind::Memo;
}

/// Fields all of whose bytes mean a value.
bool hasNoBlank(const Column& column) {
    return column.kind == Kind::Integer || column.kind == Kind::Double ||
           column.kind == Kind::Currency;
}

bool isNothing(const Column& column, const Given& given) {
    if (given.from == Given::From::Null) return true;
    const bool empty = isText(given) && given.text.empty();
    if (!empty) return false;
    return !holdsText(column) || (given.from == Given::From::Cell && !given.quoted);
}

Reason encodeValueOf(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    switch (column.kind) {
        case Kind::Text:
            return encodeText(table, column, given, encoded);
        case Kind::Varchar:
        case Kind::Varbinary:
            return encodeVariable(table, column, given, encoded);
        case Kind::Decimal:
            return encodeDecimal(table, column, given, encoded);
        case Kind::Integer:
            return encodeInteger(table, column, given, encoded);
        case Kind::Double:
            return encodeDouble(table, column, given, encoded);
        case Kind::Currency:
            return encodeCurrency(table, column, given, encoded);
        case Kind::Date:
            return encodeDate(table, column, given, encoded);
        case Kind::Moment:
            return encodeMoment(table, column, given, encoded);
        case Kind::Logical:
            return encodeLogical(table, column, given, encoded);
        case Kind::Memo:
        case Kind::Blob:
            return encodeMemo(table, column, given, encoded);
        case Kind::Bytes:
            return encodeStored(table, column, given, encoded);
        case Kind::Calculated:
        case Kind::RecordNumber:
        case Kind::Deletion:
            break;
    }
    return "is calculated, nothing can be stored in it";
}

Reason encodeNothing(Table& table, const Column& column, bool newRecord, Encoded& encoded) {
    encoded.isNull = column.mayBeNull();
    const bool variable = column.kind == Kind::Varchar || column.kind == Kind::Varbinary;
    if (hasNoBlank(column) && !encoded.isNull) {
        if (!newRecord) return typeLabel(column) + " cannot be blank; 0 is a value";
        return encodeValueOf(table, column, Given::ofInteger(0), encoded);
    }
    encodeBlank(table, column, encoded);
    if (variable && column.lengthBit != kNoBit && !encoded.bytes.empty()) {
        encoded.partial = true;
        encoded.bytes.back() = 0;
    }
    return "";
}

Reason encodeCounter(Table& table, const Column& column, const Given& given, bool newRecord,
                     Encoded& encoded) {
    const i64 next = column.nextValue;
    if (!newRecord) return "counts by itself and takes no value";
    const Reason reason = encodeI32(table, column, next, Given::ofInteger(next), encoded);
    if (!reason.empty()) return "has no values left to count";
    if (isNothing(column, given)) return "";
    std::optional<Decimal> number = numberOf(given);
    const bool same = number && rescale(*number, 0, false) && unitsOf(*number) == next;
    return same ? "" : quoted(given) + " is not the next value, " + std::to_string(next);
}

void setBit(const Table& table, i32 bit, bool value) {
    if (bit == kNoBit) return;
    u8& byte = table.base->RecordBuffer[table.nullOffset + static_cast<u32>(bit) / 8];
    const auto mask = static_cast<u8>(1u << (bit % 8));
    byte = static_cast<u8>(value ? byte | mask : byte & ~mask);
}

}  // namespace

std::string typeLabel(const Column& column) {
    std::string label(1, column.type);
    const bool sizes = column.kind == Kind::Text || column.kind == Kind::Varchar ||
                       column.kind == Kind::Varbinary || column.kind == Kind::Decimal ||
                       column.kind == Kind::Bytes;
    if (!sizes) return label;
    label += "(" + std::to_string(column.length);
    if (column.kind == Kind::Decimal && column.decimals != 0) {
        label += "," + std::to_string(column.decimals);
    }
    return label + ")";
}

bool isCounting(const Column& column) {
    return column.type == '+' || (column.kind == Kind::Integer && (column.flags & kCounting) != 0);
}

std::string encodeValue(Table& table, const Column& column, const Given& given, bool newRecord,
                        Encoded& encoded) {
    encoded.bytes.clear();
    encoded.memo.clear();
    encoded.isNull = encoded.partial = false;
    if (isCounting(column)) return encodeCounter(table, column, given, newRecord, encoded);
    if (isNothing(column, given)) return encodeNothing(table, column, newRecord, encoded);
    return encodeValueOf(table, column, given, encoded);
}

void putValue(Table& table, const Column& column, const Encoded& encoded) {
    DbfBase* const base = table.base.get();
    std::memcpy(base->RecordBuffer + column.offset, encoded.bytes.data(),
                std::min<std::size_t>(column.length, encoded.bytes.size()));
    setBit(table, column.lengthBit, encoded.partial);
    setBit(table, column.nullBit, encoded.isNull);
    if (encoded.memo.empty()) return;
    if (SetMemoBuf(base, static_cast<u32>(column.field), encoded.memo.data(),
                   static_cast<u32>(encoded.memo.size())) == 0) {
        throw Refusal(table.path + ": " + column.name + ": the memo cannot be written to " +
                      base->MemoFileName);
    }
}

}  // namespace mira::tool
