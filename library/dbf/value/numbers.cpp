// Binary and decimal numbers in the record buffer.
//
//   I, +  4 bytes little-endian. Level 7: big-endian with the top bit outside the value; in
//         level-7 tables of other makers the top bit is the inverted sign.
//   B     8 bytes, IEEE 754 double, little-endian
//   O     8 bytes, the same double big-endian, made comparable byte by byte: sign bit set for
//         zero and above, all bits inverted below
//   Y     8 bytes little-endian, signed, in ten-thousandths
//   N, F  decimal text, right-aligned
#include <bit>
#include <cmath>
#include <cstring>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/bytes.h"
#include "internal/convert.h"
#include "internal/decimal.h"

namespace mira {

namespace {

constexpr u32 kTopBit32 = 0x80000000;
constexpr u64 kTopBit64 = 0x8000000000000000;
constexpr double kCurrencyScale = 10000.0;

/// Stores text over the field's first bytes; false when it does not fit.
bool storeText(DbfBase* h, int field, const char* text, std::size_t length) {
    const std::span<u8> bytes = fieldBytes(h, field);
    if (length > bytes.size()) return false;
    std::memcpy(bytes.data(), text, length);
    return true;
}

bool isCurrency(const DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr && valueClass(*f) == ValueClass::Currency;
}

i64 currencyUnits(const DbfBase* h, int field) {
    return static_cast<i64>(loadLe64(fieldPrefix<8>(h, field).data()));
}

/// A currency in ten-thousandths, cut. Reading and scaling round, so what lies as near to a whole
/// number as they account for is this number: every value read comes back unchanged.
double cutCurrency(double value) {
    constexpr double unitsApart = 4;  // in the last place
    const double scaled = value * kCurrencyScale;
    const double cut = std::trunc(scaled);
    if (cut / kCurrencyScale == value) return cut;
    const double whole = std::round(scaled);
    const double unit = std::nextafter(std::fabs(scaled), HUGE_VAL) - std::fabs(scaled);
    return std::fabs(scaled - whole) <= unitsApart * unit ? whole : cut;
}

}  // namespace

u32 GetInt(DbfBase* h, int field) {
    const auto bytes = fieldPrefix<4>(h, field);
    if (h->Level7 == 0) return loadLe32(bytes.data());
    const u32 value = loadBe32(bytes.data());
    return isForeignLevel7(h) ? value ^ kTopBit32 : value & ~kTopBit32;
}

void SetInt(DbfBase* h, int field, u32 value) {
    u8* to = fieldRoom<4>(h, field);
    if (to == nullptr) return;
    if (h->Level7 == 0) {
        storeLe32(to, value);
    } else {
        storeBe32(to, isForeignLevel7(h) ? value ^ kTopBit32 : value & ~kTopBit32);
    }
}

double GetDouble(DbfBase* h, int field) { return loadLeDouble(fieldPrefix<8>(h, field).data()); }

void SetDouble(DbfBase* h, int field, double value) {
    if (u8* to = fieldRoom<8>(h, field)) storeLeDouble(to, value);
}

double GetInvertedDouble(DbfBase* h, int field) {
    const u64 stored = loadBe64(fieldPrefix<8>(h, field).data());
    const bool negative = (stored & kTopBit64) == 0;
    const double value = std::bit_cast<double>((negative ? ~stored : stored) & ~kTopBit64);
    if (std::isnan(value)) return 0.0;  // a blank field
    return negative ? -value : value;
}

void SetInvertedDouble(DbfBase* h, int field, double value) {
    u8* to = fieldRoom<8>(h, field);
    if (to == nullptr) return;
    const u64 bits = std::bit_cast<u64>(value) | kTopBit64;
    storeBe64(to, value < 0 ? ~bits : bits);
}

double GetCurrency(DbfBase* h, int field) {
    return static_cast<double>(currencyUnits(h, field)) / kCurrencyScale;
}

void SetCurrency(DbfBase* h, int field, double value) {
    u8* to = fieldRoom<8>(h, field);
    const std::optional<i64> scaled = toI64(cutCurrency(value));
    if (to != nullptr && scaled) storeLe64(to, static_cast<u64>(*scaled));
}

int GetCurrencyUnits(DbfBase* h, int field, i64* tenThousandths) {
    if (!isCurrency(h, field)) return 0;
    *tenThousandths = currencyUnits(h, field);
    return 1;
}

int SetCurrencyUnits(DbfBase* h, int field, i64 tenThousandths) {
    u8* to = isCurrency(h, field) ? fieldRoom<8>(h, field) : nullptr;
    if (to == nullptr) return 0;
    storeLe64(to, static_cast<u64>(tenThousandths));
    return 1;
}

double GetNumeric(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return 0.0;
    const std::string_view text = storedText(h, field).substr(0, f->Length);
    const StoredDecimal number = scanDecimal(text);
    if (!isWhole(number, text) || !isExact(number)) return readDecimal(text);
    return number.whole + number.decimals != 0 ? exactValue(number) : 0.0;
}

double GetFloat(DbfBase* h, int field) { return GetNumeric(h, field); }

void SetNumeric(DbfBase* h, int field, double value) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !std::isfinite(value)) return;
    char text[kFixedTextSize];
    const std::size_t length = printFixed(text, value, f->Length, 0);
    if (length <= f->Length) storeText(h, field, text, length);
}

void SetFloat(DbfBase* h, int field, double value) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !std::isfinite(value)) return;
    if (f->Decimals == 0) {
        SetNumeric(h, field, value);
        return;
    }
    char text[kFixedTextSize];
    const char* start = text;
    std::size_t length = printFixed(text, value, f->Length, f->Decimals);
    if (hidesZero(*f) && std::strncmp(text, "0.", 2) == 0) {
        ++start;  // no room for an integer digit: .50
        --length;
    }
    if (length <= f->Length) storeText(h, field, start, length);
}

}  // namespace mira
