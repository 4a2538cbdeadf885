// Values of fields: decimals by the C library, currencies and day numbers by integer arithmetic.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "dbf/table/private.h"
#include "support/reference.h"

namespace test {
namespace {

constexpr i64 kDayBeforeYear0 = 1721059;
constexpr i64 kLastDay = 5373484;  // 9999-12-31
constexpr i64 kDayBeforeYear1 = 1721425;
constexpr i64 kCycleDays = 146097;       // in 400 years
constexpr double kDayLength = 86400000;  // milliseconds
constexpr u64 kTopBit = u64{1} << 63;
constexpr u8 kSmt = 0xE5;

std::string trimmed(std::string text, i32 mode) {
    if (mode == 1 || mode == 3) text.erase(text.find_last_not_of(' ') + 1);
    if (mode == 2 || mode == 3) text.erase(0, std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

bool isLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int monthDays(int year, int month) {
    constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return days[month] + (month == 1 && isLeap(year));
}

bool isTimed(const DbfField& f) { return f.Type != 'D'; }
bool isBinaryTime(const DbfField& f) { return isTimed(f) && f.Length == 8; }
bool countsMilliseconds(const Row& row, const DbfField& f) {
    return f.Type == '@' && f.Length == 8 && isForeignLevel7(row.h);
}

Moment fromDay(i64 day, i64 milliseconds) {
    Moment m;
    if (day > kLastDay) return m;
    i64 left = day - kDayBeforeYear0;
    for (; left > 365 + isLeap(m.year); ++m.year) left -= 365 + isLeap(m.year);
    for (; left > monthDays(m.year, m.month); ++m.month) left -= monthDays(m.year, m.month);
    m.day = static_cast<int>(std::max<i64>(left, -2147483648LL));
    const i64 seconds = milliseconds / 1000;
    m.hour = static_cast<int>(seconds / 3600);
    m.minute = static_cast<int>(seconds % 3600 / 60);
    m.second = static_cast<int>(seconds % 60);
    return m;
}

/// Pieces of a text where a date format has them: the year of four characters, the others of two.
Moment fromPieces(std::string_view text, i32 format, bool timed) {
    constexpr std::size_t dotted[3][6] = {
        {6, 3, 0, 11, 14, 17}, {6, 0, 3, 11, 14, 17}, {0, 5, 8, 11, 14, 17}};
    constexpr std::size_t digits[6] = {0, 4, 6, 8, 10, 12};
    const auto& places = format >= 1 && format <= 3 ? dotted[format - 1] : digits;
    int values[6] = {};
    for (std::size_t i = 0; i < (timed ? 6 : 3); ++i) {
        if (places[i] >= text.size()) continue;
        values[i] = std::atoi(std::string(text.substr(places[i], i == 0 ? 4 : 2)).c_str());
    }
    return {values[0], values[1] - 1, values[2], values[3], values[4], values[5]};
}

u32 integer(const Row& row, int field) {
    const u32 value = static_cast<u32>(load(row.from(field), 0, 4, row.h->Level7 != 0));
    if (row.h->Level7 == 0) return value;
    return isForeignLevel7(row.h) ? value ^ 1u << 31 : value & 0x7FFFFFFF;
}

/// Digits as the C library reads them.
double decimal(const Row& row, int field) {
    return std::strtod(std::string(row.from(field).substr(0, row[field].Length)).c_str(), nullptr);
}

double ordered(u64 bytes) {
    const bool negative = bytes >> 63 == 0;
    const double magnitude = std::bit_cast<double>((negative ? ~bytes : bytes) & ~kTopBit);
    return std::isnan(magnitude) ? 0.0 : negative ? -magnitude : magnitude;
}

std::string shownMoment(const Row& row, int field) {
    const Moment m = moment(row, field);
    const bool timed = isTimed(row[field]);
    const i32 format = row.h->DateFormat;
    if (!isValid(m)) return std::string(format > 0 ? (timed ? 19 : 10) : (timed ? 14 : 8), ' ');
    if (format < 1 || format > 4) return trimmed(cString(row.field(field)), row.h->TrimMode);
    const char* const* formats = timed ? row.h->DateTimeFormats : row.h->DateFormats;
    const int first = format == 1 ? m.day : format == 2 ? m.month + 1 : m.year;
    const int second = format == 2 ? m.day : m.month + 1;
    const int third = format < 3 ? m.year : m.day;
    return timed ? printed(formats[format], first, second, third, m.hour, m.minute, m.second)
                 : printed(formats[format], first, second, third);
}

std::string shownNumber(const Row& row, int field) {
    const DbfField& f = row[field];
    if (row.h->RawNumeric != 0) return cString(row.field(field));
    const std::string text = printed("%*.*f", int{f.Length}, f.Decimals, decimal(row, field));
    return text.substr(f.Decimals != 0 && f.Length == f.Decimals + 1 ? 1 : 0);
}

std::string shownMemo(const Row& row, int field) {
    const DbfField& f = row[field];
    const bool smt = row.h->Header.Version == kSmt;
    const std::string_view bytes = row.from(field).substr(0, 10);
    const double digits = decimal(row, field);
    const bool wide = f.Length + 256 * f.Decimals != 4;
    const bool blank = load(bytes, 0, 4) == 0;
    const i32 block = !wide ? static_cast<i32>(blank ? 0 : integer(row, field))
                      : digits != digits
                          ? 0
                          : static_cast<i32>(std::clamp(digits, -2147483648.0, 2147483647.0));
    const bool present = smt ? bytes.find_first_not_of('\0') != bytes.npos : block != 0;
    if (row.h->MemoAsNumber == 0) return present ? "Full memo " : "Empty memo";
    if (!smt || !present) return printed("%10d", smt ? 0 : block);
    return printed("%5d %5d", static_cast<i32>(load(bytes, 6, 4)),
                   static_cast<i32>(load(bytes, 2, 4)));
}

std::string storedNumber(const DbfField& f, double number, const std::string& before) {
    if (!std::isfinite(number)) return before;
    const int length = f.Length, decimals = f.Decimals;
    std::string text = printed("%*.*f", length, decimals, number);
    if (decimals != 0 && length - decimals == 1 && text.starts_with("0.")) text.erase(0, 1);
    const bool fits = decimals == 0 ? text.size() <= before.size()
                                    : static_cast<int>(text.find('.')) <= length - decimals - 1;
    return fits ? text : before;
}

/// A product within four units in its last place of a whole number counts as that number; half-way
/// between two, as the one that reads back as the value.
std::string storedCurrency(double number, const std::string& before) {
    const double product = number * 10000, size = std::fabs(product);
    const double apart = std::fabs(product - std::round(product));
    const bool isNear = apart <= 4 * (std::nextafter(size, HUGE_VAL) - size);
    double whole = isNear ? std::round(product) : std::trunc(product);
    const double other = 2 * product - whole;
    if (isNear && apart == 0.5 && other / 10000 == number) whole = other;
    if (!(whole >= -0x1p63 && whole < 0x1p63)) return before;
    return le(static_cast<u64>(static_cast<i64>(whole)), 8);
}

std::string storedDate(const Row& row, int field, std::string text) {
    const DbfField& f = row[field];
    const i32 format = row.h->DateFormat;
    if (!isTimed(f)) text.resize(std::min<std::size_t>(text.size(), format != 0 ? 10 : 8));
    const Moment m = fromPieces(text, format, isTimed(f));
    if (m.month != -1 && m.day != 0) return stored(row, field, m);
    return std::string(f.Length, isTimed(f) && f.Length != 14 ? '\0' : ' ');
}

std::string storedLetter(const std::string& text) {
    const char upper = static_cast<char>(text[0] & ~0x20);
    return {upper != 0 && std::strchr("TFYN", upper) != nullptr ? upper : ' '};
}

std::string storedInteger(const Row& row, double number) {
    const bool fits = number <= 2147483647.0 && number >= -2147483648.0;
    const u32 value = static_cast<u32>(fits ? static_cast<i32>(number) : 0);
    if (row.h->Level7 == 0) return le(value, 4);
    return be(isForeignLevel7(row.h) ? value ^ 1u << 31 : value & 0x7FFFFFFF, 4);
}

/// What a store puts at the beginning of the field.
std::string encoded(const Row& row, int field, const std::string& text, double number) {
    const u64 bits = std::bit_cast<u64>(number);
    switch (row[field].Type) {
        case 'C':
        case 'Q':
        case 'V':
            return text;
        case 'N':
        case 'F':
            return storedNumber(row[field], number, row.field(field));
        case 'B':
            return le(bits, 8);
        case 'O':
            return be(number < 0 ? ~bits : bits | kTopBit, 8);
        case 'Y':
            return storedCurrency(number, row.field(field));
        case 'I':
        case '+':
            return storedInteger(row, number);
        case 'L':
            return storedLetter(text);
        case 'D':
        case 'T':
        case '@':
            return storedDate(row, field, text);
        default:
            return "";
    }
}

}  // namespace

std::string Row::field(int field) const {
    const DbfField& f = h->Fields[field];
    return std::string(from(field).substr(0, f.Length + (f.Type == 'C' ? 256u * f.Decimals : 0u)));
}

bool isNumeric(const DbfField& f) {
    return std::strchr("NFYI+O", f.Type) != nullptr || (f.Type == 'B' && f.Length == 8);
}

std::string shown(const Row& row, int field) {
    const DbfField& f = row[field];
    switch (f.Type) {
        case 'C':
        case 'Q':
        case 'V':
        case '0':
            return trimmed(cString(row.field(field)), row.h->TrimMode);
        case 'D':
        case 'T':
        case '@':
            return shownMoment(row, field);
        case 'L':
            return cString(row.from(field).substr(0, 1));
        case 'I':
        case '+':
            return printed("%10d", static_cast<i32>(integer(row, field)));
        case 'Y':
            return printed("%24.4f", number(row, field));
        case 'O':
            return printed("%20.8f", number(row, field));
        case 'N':
        case 'F':
            return shownNumber(row, field);
        case 'B':
        case 'M':
        case 'G':
        case 'W':
            if (f.Type != 'B' || f.Length != 8) return shownMemo(row, field);
            return printed("%20.*f", f.Decimals, number(row, field));
        default:
            return "";
    }
}

double number(const Row& row, int field) {
    const std::string_view bytes = row.from(field);
    switch (row[field].Type) {
        case 'N':
        case 'F':
            return decimal(row, field);
        case 'B':
            return std::bit_cast<double>(load(bytes, 0, 8));
        case 'O':
            return ordered(load(bytes, 0, 8, true));
        case 'Y':
            return static_cast<double>(static_cast<i64>(load(bytes, 0, 8))) / 10000.0;
        case 'I':
        case '+':
            return static_cast<i32>(integer(row, field));
        default:
            return 0.0;
    }
}

bool isValid(const Moment& m) {
    return m.second <= 59 && m.minute <= 59 && m.hour <= 23 && m.month >= 0 && m.month <= 11 &&
           m.day >= 1 && m.year <= 9999 && m.day <= monthDays(m.year, m.month);
}

i64 dayNumber(const Moment& m) {
    i64 number = kDayBeforeYear0 + m.day;
    const int cycles = std::max(m.year, 0) / 400;  // before the rest is counted year by year
    number += i64{cycles} * kCycleDays;
    for (int year = 400 * cycles; year < m.year; ++year) number += 365 + isLeap(year);
    for (int month = 0; month < m.month; ++month) number += monthDays(m.year, month);
    return number;
}

Moment moment(const Row& row, int field) {
    const DbfField& f = row[field];
    const std::string_view bytes = row.from(field);
    if (countsMilliseconds(row, f)) {
        const double since = std::bit_cast<double>(load(bytes, 0, 8, true));
        if (!(since >= kDayLength && since < kDayLength * (kLastDay - kDayBeforeYear1 + 1)))
            return {};
        const i64 whole = static_cast<i64>(since), day = static_cast<i64>(kDayLength);
        return fromDay(kDayBeforeYear1 + whole / day, whole % day);
    }
    if (isBinaryTime(f))
        return fromDay(static_cast<i32>(load(bytes, 0, 4)), static_cast<i32>(load(bytes, 4, 4)));
    return fromPieces(bytes.substr(0, f.Length), 0, isTimed(f));
}

std::string stored(const Row& row, int field, const std::string& text, double number) {
    std::string bytes = row.field(field);
    const std::string begin = encoded(row, field, text, number);
    const bool binary = std::strchr("BOYI+", row[field].Type) != nullptr;
    if (binary && begin.size() > bytes.size()) return bytes;  // would reach into the next field
    const std::size_t count = std::min(begin.size(), bytes.size());
    return bytes.replace(0, count, begin, 0, count);
}

std::string stored(const Row& row, int field, const Moment& m) {
    const DbfField& f = row[field];
    const std::string before = row.field(field);
    if (m.month < 0 || m.month > 11) return before;
    const i64 milliseconds = (m.second + i64{60} * m.minute + i64{3600} * m.hour) * 1000;
    if (countsMilliseconds(row, f)) {
        const i64 days = (dayNumber(m) - kDayBeforeYear1) * static_cast<i64>(kDayLength);
        return be(std::bit_cast<u64>(static_cast<double>(days + milliseconds)), 8);
    }
    if (isBinaryTime(f))
        return le(static_cast<u64>(dayNumber(m)), 4) + le(static_cast<u64>(milliseconds), 4);
    const std::string text =
        printed("%04d%02d%02d%02d%02d%02d", m.year, m.month + 1, m.day, m.hour, m.minute, m.second);
    if (f.Type != 'D' && text.size() != 14) return before;
    const std::size_t count = std::min(text.size(), before.size());
    return std::string(before).replace(0, count, text, 0, count);
}

}  // namespace test
