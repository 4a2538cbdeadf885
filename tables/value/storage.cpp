#include "tables/value/storage.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "tables/page/text.h"

namespace mira::tables {
namespace {

constexpr i64 kExact = i64{1} << 53;  // whole numbers below it are exact in a double
constexpr std::size_t kKeptDigits = 15;
constexpr u32 kWholeDigits = 18;  // any whole number of so many fits 64 bits

Stored ofInteger(i64 value) { return {Storage::Integer, value}; }
Stored ofReal(double value, bool rounded = false) { return {Storage::Real, 0, value, {}, rounded}; }
Stored ofBytes(Storage storage, std::string_view bytes) {
    return {storage, 0, 0, bytes.data() != nullptr ? bytes : std::string_view("")};
}

/// The digits of a number from the first that is not zero on, without its exponent.
std::string significantDigits(std::string_view number) {
    std::string digits;
    for (const char c : number.substr(0, number.find_first_of("eE"))) {
        if (isDigit(c) && (c != '0' || !digits.empty())) digits += c;
    }
    return digits;
}

/// Whether a double, written with as many digits, is another number. It keeps any 15 digits, unless
/// an exponent leads out of its range.
bool isRounded(std::string_view number, double value) {
    if (number.size() <= kKeptDigits && value != 0 && std::isfinite(value)) return false;
    const std::string digits = significantDigits(number);
    if (digits.empty() || !std::isfinite(value)) return !digits.empty();
    if (digits.size() <= kKeptDigits) return value == 0;
    std::string written(digits.size() + 16, '\0');
    char* const first = written.data();
    const auto end =
        std::to_chars(first, first + written.size(), value, std::chars_format::scientific,
                      static_cast<int>(digits.size() - 1));
    return significantDigits({first, static_cast<std::size_t>(end.ptr - first)}) != digits;
}

Stored ofDigits(const Column& column, std::string_view digits) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    const bool whole = column.kind == Kind::Decimal && column.decimals == 0;
    if (whole) {
        if (const std::optional<i64> integer = toInteger(digits)) return ofInteger(*integer);
    }
    const double value = toReal(digits);
    const bool rounded = isRounded(digits, value);
    // 1e3 is whole, too.
    if (!whole || std::trunc(value) != value || value < -kLimit || value >= kLimit) {
        return ofReal(value, rounded);
    }
    Stored stored = ofInteger(static_cast<i64>(value));
    stored.rounded = rounded;
    return stored;
}

Stored ofCurrency(const Value& value) {
    const bool exact = value.integer > -kExact && value.integer < kExact;
    const double real =
        exact ? static_cast<double>(value.integer) / kCurrencyUnits : toReal(value.text);
    return ofReal(real, isRounded(value.text, real));
}

}  // namespace

Stored storedAs(const Column& column, const Value& value) {
    switch (value.kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
            return {};
        case ValueKind::Digits:
            if (column.exactText) return ofBytes(Storage::Text, value.text);
            return ofDigits(column, value.text);
        case ValueKind::Integer:
        case ValueKind::Logical:
            return ofInteger(value.integer);
        case ValueKind::Real:
            return ofReal(value.real);
        case ValueKind::Currency:
            if (column.exactText) return ofBytes(Storage::Text, value.text);
            return ofCurrency(value);
        case ValueKind::Bytes:
            return ofBytes(Storage::Blob, value.text);
        case ValueKind::Text:
        case ValueKind::Date:
        case ValueKind::Moment:
            return ofBytes(Storage::Text, value.text);
    }
    return {};
}

bool mayBeRounded(const Column& column) {
    if (column.kind == Kind::Currency) return true;
    if (column.kind != Kind::Decimal) return false;
    return column.decimals == 0 ? column.length > kWholeDigits : column.length > kKeptDigits + 1;
}

Storage declaredStorage(const Column& column) {
    if (column.exactText) return Storage::Text;
    const bool whole = column.kind == Kind::Decimal && column.decimals == 0;
    if (whole) return Storage::Integer;
    return column.numeric ? Storage::Real : kindRow(column.kind).storage;
}

const char* storageName(Storage storage) {
    constexpr const char* kNames[] = {"NULL", "INTEGER", "REAL", "TEXT", "BLOB"};
    return kNames[static_cast<std::size_t>(storage)];
}

std::string quotedBy(char quote, std::string_view text) {
    std::string quoted(1, quote);
    for (const char c : text) {
        if (c == quote) quoted += quote;
        quoted += c;
    }
    return quoted + quote;
}

}  // namespace mira::tables
