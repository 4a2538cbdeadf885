// Encoding of values, by kind of field. What the library encodes (integers, doubles, moments) goes
// through its setters, into the record buffer and out of it again.
#include "tables/store/store.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "internal/real.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/store/decimal.h"
#include "tables/value/memo.h"
#include "tables/value/value.h"

namespace mira::tables {
namespace {

constexpr std::size_t kQuoted = 40;  // bytes of a value that a message shows

/// A value does not fit; what() says why.
struct Misfit : std::runtime_error {
    using std::runtime_error::runtime_error;
};
template <typename... Part>
[[noreturn]] void reject(const Part&... parts) {
    throw Misfit(textOf(parts...));
}

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

[[noreturn]] void rejectSize(const Column& column, const Given& given) {
    reject(quoted(given), " does not fit ", typeLabel(column));
}

[[noreturn]] void rejectAsNo(const char* what, const Given& given) {
    reject(quoted(given), " is no ", what);
}

int base64Digit(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (isDigit(c)) return c - '0' + 52;
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

Decimal numberOf(const Given& given) {
    std::optional<Decimal> number;
    if (given.from == Given::From::Integer) number = readDecimal(std::to_string(given.integer));
    if (given.from == Given::From::Real && std::isfinite(given.real)) {
        number = decimalOf(given.real);
    }
    if (isText(given)) number = readDecimal(trimmed(given.text));
    if (!number) rejectAsNo("number", given);
    return *number;
}

// ---------------------------------------------------------------------------------------------
// Into bytes
// ---------------------------------------------------------------------------------------------

void encodeBlank(const Table& table, const Column& column, Encoded& encoded) {
    encoded.bytes.assign(column.length, FieldBlankChar(table.base.get(), column.field));
}

/// Bytes at the beginning of the field, blanks after them.
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
std::string pageBytes(Table& table, const Column& column, const Given& given) {
    std::string text = plainText(given);
    if (column.untranslated) return text;
    PageChoice& page = table.page;
    page.uncertain = page.uncertain || (page.isWeak && !isAscii(text));
    std::string bytes;
    std::string lacking;
    if (fromUtf8(*page.page, text, bytes, &lacking)) return bytes;
    reject("code page ", pageName(*page.page), " lacks \"", lacking, '"');
}

/// Bytes given as such, by "base64:" or a blob. Nothing when a text is given.
std::optional<std::string> givenBytes(const Given& given) {
    if (given.from == Given::From::Blob) return std::string(given.text);
    if (given.from != Given::From::Cell || !given.text.starts_with(kBase64)) return std::nullopt;
    std::optional<std::string> bytes = decodeBase64(given.text.substr(kBase64.size()));
    if (!bytes) rejectAsNo("base64", given);
    return bytes;
}

/// The bytes of a field that holds text; binary ones where the field may hold them.
std::string textBytes(Table& table, const Column& column, const Given& given, bool mayBeBinary) {
    if (mayBeBinary) {
        if (std::optional<std::string> bytes = givenBytes(given)) return *bytes;
    }
    if (given.from == Given::From::Blob) reject("a blob is no text");
    std::string bytes = pageBytes(table, column, given);
    // A text ends at a zero byte, but where its length is kept.
    if (!column.untranslated && column.lengthBit == kNoBit &&
        bytes.find('\0') != std::string::npos) {
        reject("a text holds no zero byte");
    }
    return bytes;
}

std::string binaryBytes(const Given& given) {
    if (std::optional<std::string> bytes = givenBytes(given)) return *bytes;
    reject(quoted(given), " is text; bytes are written as \"base64:...\"");
}

void checkLength(const Column& column, std::size_t size) {
    if (size > column.length) reject(counted(size, "byte"), " do not fit ", typeLabel(column));
}

void encodeText(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    std::string bytes = textBytes(table, column, given, column.untranslated);
    while (bytes.size() > column.length && bytes.back() == ' ') bytes.pop_back();
    checkLength(column, bytes.size());
    encodeBytes(table, column, bytes, encoded);
}

/// A text that may be shorter than its field: its length is kept in the last byte.
void encodeVariable(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string bytes = column.kind == Kind::Varbinary
                                  ? binaryBytes(given)
                                  : textBytes(table, column, given, column.untranslated);
    checkLength(column, bytes.size());
    encodeBytes(table, column, bytes, encoded);
    if (column.lengthBit == kNoBit || bytes.size() == column.length) return;
    encoded.partial = true;
    encoded.bytes.back() = static_cast<char>(bytes.size());
}

void encodeStored(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string bytes = binaryBytes(given);
    checkLength(column, bytes.size());
    encodeBytes(table, column, bytes, encoded);
}

void encodeMemo(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    encodeBlank(table, column, encoded);
    encoded.memo =
        column.kind == Kind::Memo ? textBytes(table, column, given, true) : binaryBytes(given);
    // An empty text is no memo; bytes may be none.
    encoded.hasMemo = !encoded.memo.empty() || givenBytes(given).has_value();
    if (!encoded.hasMemo) return;
    if (!holdsReference(column)) {
        reject("a field of ", counted(column.length, "byte"), " cannot refer to a memo");
    }
    if (endsInMark(table) && encoded.memo.find(kMemoEnd) != std::string::npos) {
        reject("a memo of dBase III ends at a byte 1A, which the value holds");
    }
    if (access(memoFileOf(table).c_str(), R_OK | W_OK) != 0) {
        reject("the memo file is missing or cannot be written");
    }
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

/// Whether a number is to stay as it is written, and fits.
bool staysAsWritten(const Column& column, const Given& given, std::string_view text) {
    if (!isText(given) || text.size() > column.length) return false;
    return given.asGiven ? isNumber(text) : text.find_first_of("eE") != std::string_view::npos;
}

/// Digits, right-aligned. With fewer decimals than the field has where that is the only way in
/// and loses none.
void encodeDecimal(Table& /*table*/, const Column& column, const Given& given, Encoded& encoded) {
    const std::string_view written = trimmed(given.text);
    const bool asWritten = staysAsWritten(column, given, written);
    Decimal number = asWritten && given.asGiven ? Decimal{} : numberOf(given);
    if (asWritten) {
        encoded.bytes = std::string(column.length - written.size(), ' ').append(written);
        return;
    }
    if (!rescale(number, column.decimals, given.from == Given::From::Real)) {
        reject(quoted(given), " has more than ", column.decimals, " decimals");
    }
    std::string text = shortPrint(number, column.length);
    while (text.size() > column.length && number.scale > 0 &&
           rescale(number, number.scale - 1, false)) {
        text = shortPrint(number, column.length);
    }
    if (text.size() > column.length) rejectSize(column, given);
    encoded.bytes = std::string(column.length - text.size(), ' ') + text;
}

/// False when the field cannot hold the value.
bool encodeI32(const Table& table, const Column& column, i64 value, Encoded& encoded) {
    const auto stored = static_cast<u32>(value);
    if (static_cast<i32>(stored) != value || column.length != sizeof stored) return false;
    DbfBase* const base = table.base.get();
    bool same = false;
    encodeBy(table, column, encoded, [&] {
        SetInt(base, column.field, stored);
        same = GetInt(base, column.field) == stored;  // level 7 may have no sign
    });
    return same;
}

void encodeInteger(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    Decimal number = numberOf(given);
    if (!rescale(number, 0, given.from == Given::From::Real)) rejectAsNo("whole number", given);
    const std::optional<i64> value = unitsOf(number);
    if (!value || !encodeI32(table, column, *value, encoded)) rejectSize(column, given);
}

double doubleOf(const Given& given) {
    if (given.from == Given::From::Real && std::isfinite(given.real)) return given.real;
    const std::string text = given.from == Given::From::Real ? "" : plainText(given);
    std::string_view digits = trimmed(text);
    if (!readDecimal(digits)) rejectAsNo("number", given);
    takeOneOf(&digits, "+");
    double value = 0;
    const auto [end, error] = readReal(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc{}) rejectAsNo("number", given);
    return value;
}

void encodeDouble(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const double value = doubleOf(given);
    if (column.length != sizeof value) rejectSize(column, given);
    const auto set = column.type == 'O' ? SetInvertedDouble : SetDouble;
    encodeBy(table, column, encoded, [&] { set(table.base.get(), column.field, value); });
}

void encodeCurrency(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    Decimal number = numberOf(given);
    if (!rescale(number, kCurrencyDecimals, given.from == Given::From::Real)) {
        reject(quoted(given), " has more than 4 decimals");
    }
    const std::optional<i64> units = unitsOf(number);
    if (!units || column.length != sizeof *units) rejectSize(column, given);
    encodeBy(table, column, encoded,
             [&] { SetCurrencyUnits(table.base.get(), column.field, *units); });
}

// ---------------------------------------------------------------------------------------------
// Dates, moments, logicals
// ---------------------------------------------------------------------------------------------

/// count digits as a number; the text moves on past them.
bool takeNumber(std::string_view* text, std::size_t count, int* number) {
    if (text->size() < count || !areDigits(text->substr(0, count))) return false;
    std::from_chars(text->data(), text->data() + count, *number);
    text->remove_prefix(count);
    return true;
}

/// yyyy-mm-dd or yyyymmdd
bool takeDate(std::string_view* text, std::tm* time) {
    if (!takeNumber(text, 4, &time->tm_year)) return false;
    const bool dashes = takeOneOf(text, "-");
    if (!takeNumber(text, 2, &time->tm_mon) || dashes != takeOneOf(text, "-")) return false;
    if (!takeNumber(text, 2, &time->tm_mday)) return false;
    --time->tm_mon;
    return mymktime(time) == 0;
}

/// hh:mm[:ss[.s[s[s]]]] or hhmmss
bool takeTime(std::string_view* text, Moment* moment) {
    std::tm& time = moment->time;
    if (!takeNumber(text, 2, &time.tm_hour)) return false;
    const bool colons = takeOneOf(text, ":");
    if (!takeNumber(text, 2, &time.tm_min)) return false;
    if (colons && text->empty()) return mymktime(&time) == 0;
    if (colons != takeOneOf(text, ":") || !takeNumber(text, 2, &time.tm_sec)) return false;
    if (takeOneOf(text, ".")) {
        const std::string_view digits = *text;
        const bool fits = !digits.empty() && digits.size() <= 3;
        if (!fits || !takeNumber(text, digits.size(), &moment->milliseconds)) return false;
        for (std::size_t i = digits.size(); i < 3; ++i) moment->milliseconds *= 10;
    }
    return mymktime(&time) == 0;
}

void encodeDate(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string plain = plainText(given);
    const std::optional<Moment> moment = readMoment(trimmed(plain));
    // A moment at midnight is its date.
    if (!moment || moment->milliseconds != 0 || moment->time.tm_hour != 0 ||
        moment->time.tm_min != 0 || moment->time.tm_sec != 0) {
        rejectAsNo("date (2024-01-31)", given);
    }
    const std::tm& time = moment->time;
    const int number = time.tm_year * 10000 + (time.tm_mon + 1) * 100 + time.tm_mday;
    const std::string digits = std::to_string(100000000 + number).substr(1);
    if (column.length < digits.size()) rejectSize(column, given);
    encodeBytes(table, column, digits, encoded);
}

void encodeMoment(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string plain = plainText(given);
    const std::optional<Moment> moment = readMoment(trimmed(plain));
    if (!moment) rejectAsNo("date and time (2024-01-31 23:59:59)", given);
    const bool binary = column.length == 8;
    if (!binary && column.length != 14) rejectSize(column, given);
    if (!binary && moment->milliseconds != 0) reject(quoted(given), " has parts of a second");
    const std::tm& t = moment->time;
    const auto set = column.type == '@' ? SetTimeStamp : SetDateTime;
    DbfBase* const base = table.base.get();
    encodeBy(table, column, encoded, [&] {
        set(base, column.field, t.tm_year, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
        i32 day = 0, milliseconds = 0;
        if (GetMoment(base, column.field, &day, &milliseconds) == 0) return;
        SetMoment(base, column.field, day, milliseconds + moment->milliseconds);
    });
}

void encodeLogical(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    const std::string plain = plainText(given);
    const std::string text = foldCase(trimmed(plain));
    for (const char* word : {"true", "t", "yes", "y", "1"}) {
        if (text == word) return encodeBytes(table, column, "T", encoded);
    }
    for (const char* word : {"false", "f", "no", "n", "0"}) {
        if (text == word) return encodeBytes(table, column, "F", encoded);
    }
    rejectAsNo("logical value (true, false)", given);
}

// ---------------------------------------------------------------------------------------------
// Null and blank
// ---------------------------------------------------------------------------------------------

bool isNothing(const Column& column, const Given& given) {
    if (given.from == Given::From::Null) return true;
    const bool empty = isText(given) && given.text.empty();
    if (!empty) return false;
    return !kindRow(column.kind).has(kHoldsText) ||
           (given.from == Given::From::Cell && !given.quoted);
}

[[noreturn]] void encodeNever(Table& /*table*/, const Column& /*column*/, const Given& /*given*/,
                              Encoded& /*encoded*/) {
    reject("is calculated, nothing can be stored in it");
}

using Encode = void (*)(Table&, const Column&, const Given&, Encoded&);
constexpr Encode encodeOf(Kind kind) {
    switch (kind) {
        case Kind::Text:
            return encodeText;
        case Kind::Varchar:
        case Kind::Varbinary:
            return encodeVariable;
        case Kind::Decimal:
            return encodeDecimal;
        case Kind::Integer:
            return encodeInteger;
        case Kind::Double:
            return encodeDouble;
        case Kind::Currency:
            return encodeCurrency;
        case Kind::Date:
            return encodeDate;
        case Kind::Moment:
            return encodeMoment;
        case Kind::Logical:
            return encodeLogical;
        case Kind::Memo:
        case Kind::Blob:
            return encodeMemo;
        case Kind::Bytes:
            return encodeStored;
        case Kind::Calculated:
        case Kind::RecordNumber:
        case Kind::Deletion:
            return encodeNever;
    }
    std::abort();  // not constant: a kind without a row does not compile
}
constexpr auto kEncode = tableOfKinds(encodeOf);

void encodeSomething(Table& table, const Column& column, const Given& given, Encoded& encoded) {
    if (given.from == Given::From::Blob && !kindRow(column.kind).has(kTakesBytes)) {
        reject("a blob does not fit ", typeLabel(column));
    }
    kEncode[static_cast<std::size_t>(column.kind)](table, column, given, encoded);
}

void encodeNothing(Table& table, const Column& column, bool newRecord, Encoded& encoded) {
    encoded.isNull = column.mayBeNull();
    if (kindRow(column.kind).has(kNoBlank) && !encoded.isNull) {
        if (!newRecord) reject(typeLabel(column), " cannot be blank; 0 is a value");
        return encodeSomething(table, column, Given::ofInteger(0), encoded);
    }
    encodeBlank(table, column, encoded);
    const bool variable = column.kind == Kind::Varchar || column.kind == Kind::Varbinary;
    if (variable && column.lengthBit != kNoBit && !encoded.bytes.empty()) {
        encoded.partial = true;
        encoded.bytes.back() = 0;
    }
}

void encodeCounter(const Table& table, const Column& column, const Given& given, bool newRecord,
                   Encoded& encoded) {
    const i64 next = column.nextValue;
    if (!newRecord) reject("counts by itself and takes no value");
    if (!encodeI32(table, column, next, encoded)) reject("has no values left to count");
    if (isNothing(column, given)) return;
    Decimal number = numberOf(given);
    if (rescale(number, 0, false) && unitsOf(number) == next) return;
    reject(quoted(given), " is not the next value, ", next);
}

/// Appends a memo, which may have no bytes, and puts its reference into RecordBuffer; false when
/// that cannot be done.
bool putMemo(const Table& table, const Column& column, const std::string& bytes) {
    DbfBase* const base = table.base.get();
    const File file(Open_File(base->MemoFileName));
    if (!file || IsPackUnfinished(base) != 0) return false;
    const auto length = static_cast<u32>(bytes.size());
    const u32 block = AppendMemo(base, file.get(), bytes.data(), length);
    return block != 0 && std::fflush(file.get()) == 0 &&
           setMemoReference(table, column, {true, block, length});
}

void setBit(const Table& table, i32 bit, bool value) {
    if (bit == kNoBit) return;
    u8& byte = table.base->RecordBuffer[table.nullOffset + static_cast<u32>(bit) / 8];
    const auto mask = static_cast<u8>(1u << (bit % 8));
    byte = static_cast<u8>(value ? byte | mask : byte & ~mask);
}

}  // namespace

std::optional<std::string> decodeBase64(std::string_view text) {
    std::string bytes;
    for (int pads = 0; pads < 2 && text.ends_with('='); ++pads) text.remove_suffix(1);
    u32 bits = 0;
    int held = 0;
    for (const char c : text) {
        const int digit = base64Digit(c);
        if (digit < 0) return std::nullopt;
        bits = bits << 6 | static_cast<u32>(digit);
        held += 6;
        if (held < 8) continue;
        held -= 8;
        bytes.push_back(static_cast<char>(bits >> held & 0xFF));
    }
    return text.size() % 4 != 1 ? std::optional(bytes) : std::nullopt;
}

std::optional<Moment> readMoment(std::string_view text) {
    Moment moment;
    if (!takeDate(&text, &moment.time)) return std::nullopt;
    if (text.empty()) return moment;
    takeOneOf(&text, " T");
    if (!takeTime(&text, &moment) || !text.empty()) return std::nullopt;
    return moment;
}

std::string typeLabel(char type, u32 length, u32 decimals) {
    if (length == 0) return {type};
    return textOf(type, '(', length, decimals != 0 ? textOf(',', decimals) : "", ')');
}

std::string typeLabel(const Column& column) {
    return typeLabel(column.type, kindRow(column.kind).has(kSized) ? column.length : 0,
                     column.kind == Kind::Decimal ? column.decimals : 0);
}

std::string encodeValue(Table& table, const Column& column, const Given& given, bool newRecord,
                        Encoded& encoded) {
    encoded.bytes.clear();
    encoded.memo.clear();
    encoded.isNull = encoded.partial = encoded.hasMemo = false;
    try {
        if (isCounting(column)) {
            encodeCounter(table, column, given, newRecord, encoded);
        } else if (isNothing(column, given)) {
            encodeNothing(table, column, newRecord, encoded);
        } else {
            encodeSomething(table, column, given, encoded);
        }
    } catch (const Misfit& misfit) {
        return misfit.what();
    }
    return "";
}

void putBytes(Table& table, const Column& column, const Encoded& encoded) {
    DbfBase* const base = table.base.get();
    std::memcpy(base->RecordBuffer + column.offset, encoded.bytes.data(),
                std::min<std::size_t>(column.length, encoded.bytes.size()));
    setBit(table, column.lengthBit, encoded.partial);
    setBit(table, column.nullBit, encoded.isNull);
}

void putValue(Table& table, const Column& column, const Encoded& encoded) {
    DbfBase* const base = table.base.get();
    putBytes(table, column, encoded);
    if (encoded.memo.empty() && !encoded.hasMemo) return;
    if (!putMemo(table, column, encoded.memo)) {
        const std::string fault = memoFileFault(table);
        refuse(table.path, ": ", column.name, ": the memo cannot be written to ",
               base->MemoFileName, fault.empty() ? "" : ": ", fault);
    }
}

}  // namespace mira::tables
