// Dates and times in the record buffer and as text. The calendar is the Gregorian one, extended
// backwards to year 0.
//
//   D     8 digits YYYYMMDD
//   T, @  8 bytes: day number and milliseconds since midnight, two signed 32-bit little-endian
//         integers; or 14 digits YYYYMMDDhhmmss
//   @     in level-7 tables of other makers 8 bytes: big-endian double, milliseconds, where day 1
//         is 0001-01-01
//
// Day numbers count from 1721060 for 0000-01-01; 5373484 is 9999-12-31.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <limits>

#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/bytes.h"
#include "internal/clock.h"
#include "internal/datelayout.h"

namespace mira {
namespace {

constexpr i64 kDayBeforeYear0 = 1721059;
constexpr i64 kDayBeforeYear1 = 1721425;
constexpr i64 kLastDay = 5373484;
constexpr u32 kEraDays = 146097;  // of 400 years
constexpr i64 kDayMilliseconds = 86400000;

constexpr i32 days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

constexpr std::size_t kDateDigits = 8;
constexpr std::size_t kDateTimeDigits = 14;

constexpr i32 kFormatLast = 4;

constexpr u32 kNoTimeStamp = 0xFFFFFFFF;

struct DateTime {
    int year, month, day, hour, minute, second;  // month 1 to 12
};

bool hasTime(char type) { return type == 'T' || type == '@'; }
bool isBinary(const DbfField& f) { return hasTime(f.Type) && f.Length == 8; }

/// atoi of at most four characters; 0 for a piece beyond the end of the text.
int readPiece(std::string_view text, std::size_t start, std::size_t length) {
    if (start >= text.size()) return 0;
    text = text.substr(start, length);
    std::size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    const bool negative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+')) ++i;
    int value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
    }
    return negative ? -value : value;
}

/// Days of the years from 0 to year - 1; none for a year at or before 0.
i64 daysBeforeYear(i64 year) {
    if (year <= 0) return 0;
    return 365 * year + (year + 3) / 4 - (year + 99) / 100 + (year + 399) / 400;
}

/// The day number of a date; month 1 to 12, the day as it is.
i64 dayNumber(int year, int month, int day) {
    i64 number = kDayBeforeYear0 + daysBeforeYear(year) + day;
    for (int m = 0; m < month - 1; ++m) number += days[m] + (m == 1 ? if_leap_year(year) : 0);
    return number;
}

/// Fills year, month and day from a day number. Before year 0 the day counts back from the last one
/// before it, which makes no valid date.
void splitDay(i64 number, std::tm* t) {
    const i64 n = number - kDayBeforeYear0;
    if (n <= 0) {
        t->tm_mday = static_cast<int>(std::max<i64>(n, std::numeric_limits<i32>::min()));
        return;
    }
    // Eras of 400 years that start on 1 March, so that the leap day is the last day of a year.
    const u32 sinceMarch = static_cast<u32>(n) - 1 + kEraDays - 60;
    const u32 era = sinceMarch / kEraDays;  // era 1 contains 1 March of year 0
    const u32 dayOfEra = sinceMarch % kEraDays;
    const u32 yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const u32 dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const u32 month = (5 * dayOfYear + 2) / 153;  // 0 is March
    t->tm_mday = static_cast<int>(dayOfYear - (153 * month + 2) / 5 + 1);
    t->tm_mon = static_cast<int>(month < 10 ? month + 2 : month - 10);
    t->tm_year = static_cast<int>(yearOfEra + era * 400 + (month >= 10 ? 1 : 0)) - 400;
}

/// Day number and milliseconds to a broken-down time; all zeros, which is invalid, beyond year
/// 9999.
std::tm splitDateTime(i64 day, i64 milliseconds) {
    std::tm t{};
    if (day > kLastDay) return t;
    splitDay(day, &t);
    const i64 seconds = milliseconds / 1000;
    t.tm_hour = static_cast<int>(seconds / 3600);
    t.tm_min = static_cast<int>(seconds % 3600 / 60);
    t.tm_sec = static_cast<int>(seconds % 60);
    return t;
}

std::tm decodeBinary(const std::array<u8, 8>& bytes) {
    return splitDateTime(static_cast<i32>(loadLe32(bytes.data())),
                         static_cast<i32>(loadLe32(bytes.data() + 4)));
}

std::tm decodeForeign(const std::array<u8, 8>& bytes) {
    const double value = loadBeDouble(bytes.data());
    constexpr double limit =
        static_cast<double>((kLastDay - kDayBeforeYear1 + 1) * kDayMilliseconds);
    if (!(value >= static_cast<double>(kDayMilliseconds) && value < limit)) return std::tm{};
    const i64 milliseconds = static_cast<i64>(value);
    return splitDateTime(kDayBeforeYear1 + milliseconds / kDayMilliseconds,
                         milliseconds % kDayMilliseconds);
}

std::tm decodeDigits(std::string_view text, bool withTime) {
    std::tm t{};
    t.tm_year = readPiece(text, 0, 4);
    t.tm_mon = readPiece(text, 4, 2) - 1;
    t.tm_mday = readPiece(text, 6, 2);
    if (withTime) {
        t.tm_hour = readPiece(text, 8, 2);
        t.tm_min = readPiece(text, 10, 2);
        t.tm_sec = readPiece(text, 12, 2);
    }
    return t;
}

std::tm decode(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return std::tm{};
    if (isBinary(*f)) {
        const bool foreign = f->Type == '@' && h->ForeignLevel7 != 0;
        const auto bytes = fieldPrefix<8>(h, field);
        return foreign ? decodeForeign(bytes) : decodeBinary(bytes);
    }
    const std::span<u8> bytes = fieldBytes(h, field);
    return decodeDigits({reinterpret_cast<const char*>(bytes.data()), bytes.size()},
                        hasTime(f->Type));
}

/// printf of integers with a format of literals and %0Nd conversions. False for any other format,
/// for a value that does not fill its N places exactly, and for a text that does not fit room.
bool printPadded(char* to, std::size_t room, const char* format, std::span<const int> values) {
    constexpr std::size_t widest = 9;
    const char* const last = to + room - widest - 1;
    std::size_t next = 0;
    for (; *format != 0; ++format) {
        if (to >= last) return false;
        if (*format != '%') {
            *to++ = *format;
            continue;
        }
        if (format[1] != '0' || format[2] < '1' || format[2] > '9' || format[3] != 'd')
            return false;
        if (next == values.size() || values[next] < 0) return false;
        unsigned value = static_cast<unsigned>(values[next++]);
        const int width = format[2] - '0';
        for (int i = width - 1; i >= 0; --i, value /= 10)
            to[i] = static_cast<char>('0' + value % 10);
        if (value != 0) return false;
        to += width;
        format += 3;
    }
    *to = 0;
    return true;
}

/// Day, month and year in the order of a date format, then the time.
std::array<int, 6> inFormatOrder(i32 dateFormat, const std::tm& t) {
    const int month = t.tm_mon + 1;
    switch (dateFormat) {
        case 1:
            return {t.tm_mday, month, t.tm_year, t.tm_hour, t.tm_min, t.tm_sec};
        case 2:
            return {month, t.tm_mday, t.tm_year, t.tm_hour, t.tm_min, t.tm_sec};
        default:
            return {t.tm_year, month, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
    }
}

void renderBlank(DbfBase* h, char type) {
    static constexpr char empty[] = "                   ";
    const bool formatted = h->DateFormat > 0;
    const std::size_t length =
        hasTime(type) ? (formatted ? 19 : kDateTimeDigits) : (formatted ? 10 : kDateDigits);
    std::memcpy(h->TextBuffer, empty, length);
    h->TextBuffer[length] = 0;
}

/// Stores the digits of a date, and of a time where the field has one.
void storeDigits(DbfBase* h, int field, const DateTime& v) {
    char text[80];
    const int printed = std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d", v.year,
                                      v.month, v.day, v.hour, v.minute, v.second);
    if (h->Fields[field].Type == 'D') {
        text[kDateDigits] = 0;
    } else if (printed != static_cast<int>(kDateTimeDigits)) {
        return;  // a value wider than its places would shift the ones behind it
    }
    SetString(h, field, text);
}

void storeBinary(DbfBase* h, int field, const DateTime& v) {
    u8* to = fieldRoom<8>(h, field);
    if (to == nullptr) return;
    const i64 day = dayNumber(v.year, v.month, v.day);
    const i64 milliseconds = (v.second + i64{60} * v.minute + i64{3600} * v.hour) * 1000;
    if (h->Fields[field].Type == '@' && h->ForeignLevel7 != 0) {
        storeBeDouble(
            to, static_cast<double>((day - kDayBeforeYear1) * kDayMilliseconds + milliseconds));
        return;
    }
    storeLe32(to, static_cast<u32>(day));
    storeLe32(to + 4, static_cast<u32>(milliseconds));
}

void store(DbfBase* h, int field, const DateTime& v) {
    if (v.month < 1 || v.month > 12) return;
    if (isBinary(h->Fields[field])) {
        storeBinary(h, field, v);
    } else {
        storeDigits(h, field, v);
    }
}

}  // namespace

void renderDate(DbfBase* h, int field) {
    const char type = h->Fields[field].Type;
    std::tm t = decode(h, field);
    if (mymktime(&t) != 0) {
        renderBlank(h, type);
        return;
    }
    const i32 format = h->DateFormat;
    const char* pattern = nullptr;
    if (format > 0 && format <= kFormatLast) {
        pattern = hasTime(type) ? h->DateTimeFormats[format] : h->DateFormats[format];
    }
    if (pattern == nullptr) {
        GetString(h, field);
        return;
    }
    const std::array<int, 6> v = inFormatOrder(format, t);
    if (!printPadded(h->TextBuffer, kTextBufferSize, pattern, v)) {
        std::snprintf(h->TextBuffer, kTextBufferSize, pattern, v[0], v[1], v[2], v[3], v[4], v[5]);
    }
}

int if_leap_year(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 1 : 0; }

int mymktime(std::tm* t) {
    if (t->tm_sec > 59 || t->tm_min > 59 || t->tm_hour > 23) return -1;
    if (t->tm_mon < 0 || t->tm_mon > 11 || t->tm_mday < 1 || t->tm_year > 9999) return -1;
    const int length = days[t->tm_mon] + (t->tm_mon == 1 ? if_leap_year(t->tm_year) : 0);
    return t->tm_mday <= length ? 0 : -1;
}

std::tm GetDT(DbfBase* h, int field) { return decode(h, field); }

std::tm GetTm(DbfBase* h, int field) { return decode(h, field); }

int GetDateTime(DbfBase* h, int field) {
    std::tm t = decode(h, field);
    return mymktime(&t);
}

void SetDateTime(DbfBase* h, int field, int year, int month, int day, int hour, int minute,
                 int second) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || (f->Type != 'D' && f->Type != 'T')) return;
    store(h, field, {year, month, day, hour, minute, second});
}

void SetTimeStamp(DbfBase* h, int field, int year, int month, int day, int hour, int minute,
                  int second) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || f->Type != '@') return;
    store(h, field, {year, month, day, hour, minute, second});
}

void SetDate(DbfBase* h, int field, int year, int month, int day) {
    SetDateTime(h, field, year, month, day, 0, 0, 0);
}

void SetDateTimeI(DbfBase* h, int field, i32 seconds) {
    std::tm t{};
    if (!localTime(seconds, &t)) return;
    SetDateTime(h, field, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
}

void SetDateS(DbfBase* h, int field, const char* text) {
    constexpr std::size_t longest = 10;
    char date[longest + 1] = {};
    std::memcpy(date, text, strnlen(text, h->DateFormat != 0 ? longest : kDateDigits));
    SetDateTimeS(h, field, date);
}

void SetDateTimeS(DbfBase* h, int field, const char* text) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return;
    const DateLayout& at = dateLayout(h->DateFormat);
    DateTime v{readPiece(text, at.year, 4),
               readPiece(text, at.month, 2),
               readPiece(text, at.day, 2),
               0,
               0,
               0};
    if (hasTime(f->Type)) {
        v.hour = readPiece(text, at.hour, 2);
        v.minute = readPiece(text, at.minute, 2);
        v.second = readPiece(text, at.second, 2);
    }
    if (v.month == 0 || v.day == 0) {
        ClearField(h, field);
    } else if (f->Type == 'D' || hasTime(f->Type)) {
        store(h, field, v);
    }
}

u32 GetTimeStamp(DbfBase* /*h*/, int /*field*/) { return kNoTimeStamp; }

}  // namespace mira
