#include "tables/value/storage.h"

#include <cmath>

namespace mira::tables {
namespace {

constexpr double kCurrencyScale = 10000.0;
constexpr i64 kExact = i64{1} << 53;  // whole numbers below it are exact in a double

Stored ofInteger(i64 value) { return {Storage::Integer, value}; }
Stored ofReal(double value) { return {Storage::Real, 0, value}; }
Stored ofBytes(Storage storage, std::string_view bytes) {
    return {storage, 0, 0, bytes.data() != nullptr ? bytes : std::string_view("")};
}

Stored ofDigits(const Column& column, std::string_view digits) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    if (column.kind != Kind::Decimal || column.decimals != 0) return ofReal(toReal(digits));
    if (const std::optional<i64> whole = toInteger(digits)) return ofInteger(*whole);
    const double value = toReal(digits);  // 1e3 is whole, too
    const bool integer = std::trunc(value) == value && value >= -kLimit && value < kLimit;
    return integer ? ofInteger(static_cast<i64>(value)) : ofReal(value);
}

Stored ofCurrency(const Value& value) {
    const bool exact = value.integer > -kExact && value.integer < kExact;
    return ofReal(exact ? static_cast<double>(value.integer) / kCurrencyScale : toReal(value.text));
}

}  // namespace

Stored storedAs(const Column& column, const Value& value) {
    switch (value.kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
            return {};
        case ValueKind::Digits:
            return ofDigits(column, value.text);
        case ValueKind::Integer:
        case ValueKind::Logical:
            return ofInteger(value.integer);
        case ValueKind::Real:
            return ofReal(value.real);
        case ValueKind::Currency:
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

Storage declaredStorage(const Column& column) {
    switch (column.kind) {
        case Kind::Decimal:
            return column.decimals == 0 ? Storage::Integer : Storage::Real;
        case Kind::Integer:
        case Kind::Logical:
        case Kind::RecordNumber:
        case Kind::Deletion:
            return Storage::Integer;
        case Kind::Double:
        case Kind::Currency:
            return Storage::Real;
        case Kind::Varbinary:
        case Kind::Blob:
        case Kind::Bytes:
            return Storage::Blob;
        case Kind::Calculated:
            return column.numeric ? Storage::Real : Storage::Text;
        default:
            return Storage::Text;
    }
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
