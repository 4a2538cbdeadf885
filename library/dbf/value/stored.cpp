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

/// N and F. The value that counts is the one printed with the field's decimals: the same, unless
/// decimals are cut off or the digits are more than a double keeps.
bool decimalNumber(const DbfBase* h, const DbfField& f, double* value) {
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
    switch (valueClass(f)) {
        case ValueClass::Decimal:
            return decimalNumber(h, f, value);
        case ValueClass::Integer:
            *value = static_cast<i32>(GetInt(h, field));
            return true;
        case ValueClass::Currency:
            return currencyNumber(h, field, value);
        case ValueClass::BinaryOrDouble:
            return printedValue(GetDouble(h, field), f.Decimals, value);
        case ValueClass::Ordered:
            return printedValue(GetInvertedDouble(h, field), kOrderedDecimals, value);
        default:
            return false;
    }
}

std::size_t storedNumberWidth(const DbfField& f) {
    if (valueClass(f) != ValueClass::Decimal) return kSqueezedNumber;
    // A zero follows a blank number that is shown as it is stored.
    return f.Length + 1u + (f.Decimals != 0 ? f.Decimals + 1u : 0u);
}

bool storedDate(const DbfBase* h, int field, std::string_view* text) {
    const DbfField& f = h->Fields[field];
    const bool timed = valueClass(f) == ValueClass::Moment;
    const std::size_t length = timed ? kDateTimeDigits : kDateDigits;
    if (f.Length != length || f.Offset + length > kRecordBufferSize) return false;
    *text = storedText(h, f, length);
    if (!isDigits(*text) || !isMoment(*text)) return false;
    return timed ? printsDigits(h->DateTimeFormats[kDigitsFormat], "%04d%02d%02d%02d%02d%02d")
                 : printsDigits(h->DateFormats[kDigitsFormat], "%04d%02d%02d");
}

}  // namespace mira
