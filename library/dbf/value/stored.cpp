// Values told from the bytes that store them, where rendering them and reading the text would lead
// to the same.
#include <algorithm>
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/bytes.h"
#include "internal/decimal.h"

namespace mira {

namespace {

constexpr unsigned kOrderedDecimals = 8;
constexpr std::size_t kDateDigits = 8;
constexpr std::size_t kDateTimeDigits = 14;

std::string_view storedText(const DbfBase* h, const DbfField& f, std::size_t length) {
    return {reinterpret_cast<const char*>(h->RecordBuffer) + f.Offset, length};
}

/// Eight characters, the first in the lowest byte: blanks, then digits. False for anything else.
bool readDigits(u64 text, u64* value) {
    constexpr u64 ones = 0x0101010101010101;
    text ^= ones * ' ';  // blanks become 0x00, digits 0x10 to 0x19
    const u64 digits = text & ones * 0x10;
    const u64 nibbles = text & ones * 0x0F;
    const bool small = ((nibbles + ones * 6) & ones * 0x10) == 0;
    const bool known = (text & ~(digits | (digits - (digits >> 4)))) == 0;
    const bool aligned = (digits << 8 & ~digits) == 0;
    // Neighbours are joined three times: to pairs, to fours, to eight digits.
    u64 joined = nibbles * (1 + (10 << 8)) >> 8 & 0x00FF00FF00FF00FF;
    joined = joined * (1 + (u64{100} << 16)) >> 16 & 0x0000FFFF0000FFFF;
    *value = joined * (1 + (u64{10000} << 32)) >> 32;
    return small && known && aligned;
}

/// A number as programs store it: right-aligned, all decimals there. False for any other text.
bool alignedDecimal(const u8* text, const DbfField& f, double* value) {
    constexpr unsigned widest = 8;  // of the part before the point
    constexpr unsigned most = 7;    // decimals
    const unsigned whole = f.Decimals != 0 ? f.Length - f.Decimals - 1u : f.Length;
    if (whole - 1 >= widest || f.Decimals > most) return false;
    const unsigned shift = 8 * (widest - whole);
    constexpr u64 blanks = 0x2020202020202020;
    const u64 first =
        shift != 0 ? loadLe64(text) << shift | blanks >> (64 - shift) : loadLe64(text);
    StoredDecimal d{};
    d.decimals = f.Decimals;
    if (!readDigits(first, &d.digits) || (f.Decimals != 0 && text[whole] != '.')) return false;
    for (unsigned i = whole + 1; i < f.Length; ++i) {
        if (!isDigit(static_cast<char>(text[i]))) return false;
        d.digits = d.digits * 10 + (text[i] - u64{'0'});
    }
    *value = exactValue(d);
    return true;
}

/// N and F. The value that counts is the one printed with the field's decimals: the same, unless
/// decimals are cut off or the digits are more than a double keeps.
bool decimalNumber(const DbfBase* h, const DbfField& f, double* value) {
    if (alignedDecimal(h->RecordBuffer + f.Offset, f, value)) return true;
    const std::string_view text =
        storedText(h, f, std::min<std::size_t>(f.Length, kRecordBufferSize - f.Offset));
    const StoredDecimal d = scanDecimal(text);
    const std::size_t count = d.whole + d.decimals;
    const char* end = d.end;
    while (end != text.data() + text.size() && *end == ' ') ++end;
    if (end != text.data() + text.size() || count > kExactDigits) return false;
    if (count == 0 && (d.negative || d.point)) return false;
    *value = exactValue(d);
    if (h->RawNumeric != 0) return true;
    const bool losesDigit = f.Decimals != 0 && f.Length == f.Decimals + 1;  // shown as .50
    return !losesDigit && d.decimals <= f.Decimals && d.whole + f.Decimals <= kExactDigits;
}

bool currencyNumber(DbfBase* h, int field, double* value) {
    const auto stored = static_cast<i64>(loadLe64(fieldPrefix<8>(h, field).data()));
    *value = GetCurrency(h, field);
    return stored > -kExactCurrency && stored < kExactCurrency;
}

bool isDigits(std::string_view text) { return std::all_of(text.begin(), text.end(), isDigit); }

/// The number that digits of a text stand for.
int numberAt(std::string_view text, std::size_t place, std::size_t length) {
    int value = 0;
    for (const char c : text.substr(place, length)) value = value * 10 + (c - '0');
    return value;
}

bool isMoment(std::string_view digits) {
    std::tm t{};
    t.tm_year = numberAt(digits, 0, 4);
    t.tm_mon = numberAt(digits, 4, 2) - 1;
    t.tm_mday = numberAt(digits, 6, 2);
    if (digits.size() == kDateTimeDigits) {
        t.tm_hour = numberAt(digits, 8, 2);
        t.tm_min = numberAt(digits, 10, 2);
        t.tm_sec = numberAt(digits, 12, 2);
    }
    return mymktime(&t) == 0;
}

/// Whether a date format, which belongs to the handle, still is the one that it began with.
bool printsDigits(const char* format, const char* wanted) {
    return format != nullptr && std::strcmp(format, wanted) == 0;
}

}  // namespace

bool storedNumber(DbfBase* h, int field, double* value) {
    const DbfField& f = h->Fields[field];
    switch (f.Type) {
        case 'N':
        case 'F':
            return decimalNumber(h, f, value);
        case 'I':
        case '+':
            *value = static_cast<i32>(GetInt(h, field));
            return true;
        case 'Y':
            return currencyNumber(h, field, value);
        case 'B':
            return printedValue(GetDouble(h, field), f.Decimals, value);
        case 'O':
            return printedValue(GetInvertedDouble(h, field), kOrderedDecimals, value);
        default:
            return false;
    }
}

std::size_t storedNumberWidth(const DbfField& f) {
    switch (f.Type) {
        case 'N':
        case 'F':  // a zero follows a blank number that is shown as it is stored
            return f.Length + 1u + (f.Decimals != 0 ? f.Decimals + 1u : 0u);
        default:
            return kSqueezedNumber;
    }
}

bool storedDate(const DbfBase* h, int field, std::string_view* text) {
    const DbfField& f = h->Fields[field];
    const bool timed = f.Type != 'D';
    const std::size_t length = timed ? kDateTimeDigits : kDateDigits;
    if (f.Length != length || f.Offset + length > kRecordBufferSize) return false;
    *text = storedText(h, f, length);
    if (!isDigits(*text) || !isMoment(*text)) return false;
    return timed ? printsDigits(h->DateTimeFormats[kDigitsFormat], "%04d%02d%02d%02d%02d%02d")
                 : printsDigits(h->DateFormats[kDigitsFormat], "%04d%02d%02d");
}

}  // namespace mira
