// Values told from the bytes that store them, where rendering them and reading the text would lead
// to the same.
#include <algorithm>
#include <bit>
#include <cstring>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/ascii.h"
#include "internal/bytes.h"
#include "internal/datelayout.h"
#include "internal/decimal.h"

namespace mira {

namespace {

/// Blanks, then digits, one to eight characters at once. False for anything else.
bool readDigits(const u8* text, unsigned count, u64* value) {
    constexpr u64 ones = 0x0101010101010101;
    const u64 rest = (loadLe64(text) ^ ones * ' ') << 8 * (8 - count);  // blanks are zeros
    *value = 0;
    if (rest == 0) return true;
    const int blanks = std::countr_zero(rest) & ~7;
    const u64 digits = (rest ^ ones * (' ' ^ '0')) >> blanks << blanks;
    if (!areDigits(digits)) return false;
    // Neighbours are joined three times: to pairs, to fours, to eight digits.
    const u64 pairs = digits * (1 + (10 << 8)) >> 8 & 0x00FF00FF00FF00FF;
    const u64 fours = pairs * (1 + (u64{100} << 16)) >> 16 & 0x0000FFFF0000FFFF;
    *value = fours * (1 + (u64{10000} << 32)) >> 32;
    return true;
}

/// A number as programs store it: right-aligned, all decimals there, not negative. False for any
/// other text.
bool alignedDecimal(const u8* text, const DbfField& f, double* value) {
    constexpr unsigned widest = 8;  // of the part before the point
    constexpr unsigned most = 7;    // decimals
    const unsigned whole = f.Decimals != 0 ? f.Length - f.Decimals - 1u : f.Length;
    if (whole - 1 >= widest || f.Decimals > most) return false;
    StoredDecimal d{};
    d.decimals = f.Decimals;
    if (!readDigits(text, whole, &d.digits)) return false;
    if (f.Decimals != 0 && text[whole] != '.') return false;
    for (unsigned i = whole + 1; i < f.Length; ++i) {
        if (!isDigit(static_cast<char>(text[i]))) return false;
        d.digits = d.digits * 10 + (text[i] - u64{'0'});
    }
    *value = exactValue(d);
    return true;
}

/// N and F. The value that counts is the one printed with the field's decimals: the same, unless
/// decimals are cut off or the digits are more than a double keeps.
bool scannedDecimal(DbfBase* h, int field, const DbfField& f, double* value) {
    const std::string_view text = storedText(h, field);
    const StoredDecimal d = scanDecimal(text);
    const std::size_t count = d.whole + d.decimals;
    if (!isWhole(d, text) || count > kExactDigits) return false;
    if (count == 0 && (d.negative || d.point)) return false;
    *value = exactValue(d);
    if (h->RawNumeric != 0) return true;
    return !hidesZero(f) && d.decimals <= f.Decimals && d.whole + f.Decimals <= kExactDigits;
}

bool currencyNumber(DbfBase* h, int field, double* value) {
    const auto stored = static_cast<i64>(loadLe64(fieldPrefix<8>(h, field).data()));
    *value = GetCurrency(h, field);
    return stored > -kExactCurrency && stored < kExactCurrency;
}

/// Whether a date format, which belongs to the handle, still is the one that it began with.
bool isFormat(const char* format, const char* wanted) {
    return format != nullptr && std::strcmp(format, wanted) == 0;
}

}  // namespace

bool storedNumber(DbfBase* h, int field, double* value) {
    const DbfField& f = h->Fields[field];
    switch (valueClass(f)) {
        case ValueClass::Decimal:
            return alignedDecimal(h->RecordBuffer + f.Offset, f, value) ||
                   scannedDecimal(h, field, f, value);
        case ValueClass::Integer:
            *value = static_cast<i32>(GetInt(h, field));
            return true;
        case ValueClass::Currency:
            return currencyNumber(h, field, value);
        case ValueClass::BinaryOrDouble:
            return printedValue(GetDouble(h, field), f.Decimals, value);
        case ValueClass::Ordered:
            return printedValue(GetInvertedDouble(h, field), kOrderedDecimals, value);
        case ValueClass::None:
        case ValueClass::Text:
        case ValueClass::System:
        case ValueClass::Logical:
        case ValueClass::Date:
        case ValueClass::Moment:
        case ValueClass::Memo:
            break;
    }
    return false;
}

std::size_t storedNumberWidth(const DbfField& f) {
    // A zero follows a blank decimal that is shown as it is stored.
    return valueClass(f) != ValueClass::Decimal ? kSqueezedNumber
           : f.Decimals != 0                    ? f.Length + f.Decimals + 2u
                                                : f.Length + 1u;
}

std::optional<std::string_view> storedDate(DbfBase* h, int field) {
    const DbfField& f = h->Fields[field];
    const bool timed = valueClass(f) == ValueClass::Moment;
    const bool usual = timed ? isFormat(h->DateTimeFormats[kDigitsFormat], kMomentPattern)
                             : isFormat(h->DateFormats[kDigitsFormat], kDatePattern);
    const std::string_view text = storedText(h, f);
    const bool digits = text.size() == (timed ? kDateTimeDigits : kDateDigits) &&
                        std::all_of(text.begin(), text.end(), isDigit);
    return usual && digits && GetDateTime(h, field) == 0 ? std::optional(text) : std::nullopt;
}

}  // namespace mira
