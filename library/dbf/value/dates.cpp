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

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "dbf/value/value.h"
#include "internal/ascii.h"
#include "internal/bytes.h"
#include "internal/clock.h"
#include "internal/datelayout.h"
#include "internal/decimal.h"

namespace mira {
namespace {

constexpr i64 kDayBeforeYear0 = 1721059;
constexpr i64 kDayBeforeYear1 = 1721425;
constexpr i64 kLastDay = 5373484;
constexpr u32 kEraDays = 146097;  // of 400 years
constexpr i64 kDayMilliseconds = 86400000;

constexpr i32 days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

constexpr i32 kFormatLast = 4;

constexpr u32 kNoTimeStamp = 0xFFFFFFFF;

struct DateTime {
    int year = 0, month = 1, day = 0;  // as it stands, no valid day
    int hour = 0, minute = 0, second = 0;
};

bool hasTime(const DbfField& f) { return valueClass(f) == ValueClass::Moment; }
bool isBinary(const DbfField& f) { return hasTime(f) && f.Length == 8; }
bool isTimestamp(const DbfField& f) { return f.Type == '@'; }
bool isForeign(const DbfBase* h, const DbfField& f) { return isTimestamp(f) && isForeignLevel7(h); }

/// 0 for a piece beyond the end of the text.
int readPiece(std::string_view text, std::size_t start, std::size_t length) {
    return start < text.size() ? readInteger(text.substr(start, length)) : 0;
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
void splitDay(i64 number, DateTime* v) {
    const i64 n = number - kDayBeforeYear0;
    if (n <= 0) {
        v->day = static_cast<int>(std::max<i64>(n, std::numeric_limits<i32>::min()));
        return;
    }
    // Centuries and years start on 1 March, so that the leap day is the last day of a year. Where
    // they and months begin is found by multiplying, after Neri and Schneider.
    constexpr u32 kYear = 2939745;  // 2^32 / 1461
    const u32 quarters = 4 * (static_cast<u32>(n) - 1 + kEraDays - 60) + 3;
    const u32 century = quarters / kEraDays;  // century 4 contains 1 March of year 0
    const u64 years = u64{kYear} * (quarters % kEraDays | 3);
    const u32 dayOfYear = static_cast<u32>(years) / kYear / 4;
    const u32 months = 2141 * dayOfYear + 197913;  // 2^16 / 30.6, from March on
    const bool next = dayOfYear >= 306;            // January and February
    v->day = static_cast<int>(months % 65536 / 2141 + 1);
    v->month = static_cast<int>(months / 65536 - (next ? 12 : 0));
    v->year =
        static_cast<int>(100 * century + static_cast<u32>(years >> 32)) - 400 + (next ? 1 : 0);
}

/// The date and time of a day number and milliseconds; no valid ones after year 9999.
DateTime splitMoment(i64 day, i64 milliseconds) {
    DateTime v;
    if (day > kLastDay) return v;
    splitDay(day, &v);
    const i64 seconds = milliseconds / 1000;
    v.hour = static_cast<int>(seconds / 3600);
    v.minute = static_cast<int>(seconds % 3600 / 60);
    v.second = static_cast<int>(seconds % 60);
    return v;
}

struct Moment {
    i32 day, milliseconds;
};
Moment loadMoment(const std::array<u8, 8>& bytes) {
    return {static_cast<i32>(loadLe32(bytes.data())), static_cast<i32>(loadLe32(&bytes[4]))};
}

constexpr Moment kNoMoment = {kLastDay + 1, 0};
bool isMoment(Moment m) {
    return m.day > kDayBeforeYear0 && m.day <= kLastDay && m.milliseconds >= 0 &&
           m.milliseconds < kDayMilliseconds;
}

Moment loadForeign(const std::array<u8, 8>& bytes) {
    const double value = loadBeDouble(bytes.data());
    constexpr double limit =
        static_cast<double>((kLastDay - kDayBeforeYear1 + 1) * kDayMilliseconds);
    if (!(value >= static_cast<double>(kDayMilliseconds) && value < limit)) return kNoMoment;
    const i64 milliseconds = static_cast<i64>(value);
    return {static_cast<i32>(kDayBeforeYear1 + milliseconds / kDayMilliseconds),
            static_cast<i32>(milliseconds % kDayMilliseconds)};
}

/// The moment of a field that holds 8 bytes.
Moment binaryMoment(DbfBase* h, int field) {
    const auto bytes = fieldPrefix<8>(h, field);
    return isForeign(h, h->Fields[field]) ? loadForeign(bytes) : loadMoment(bytes);
}

/// Reads eight digits at once. False, with nothing read, when a byte is no digit.
bool readEightDigits(const char* text, DateTime* v) {
    const u64 word = loadLe64(reinterpret_cast<const u8*>(text)) ^ 0x3030303030303030;
    if (!areDigits(word)) return false;
    const u64 pairs = word * 10 + (word >> 8);  // a number of two digits in every other byte
    const auto pairAt = [pairs](int byte) { return static_cast<int>(pairs >> 8 * byte & 0xFF); };
    v->year = pairAt(0) * 100 + pairAt(2);
    v->month = pairAt(4);
    v->day = pairAt(6);
    return true;
}

/// A date, with its time where the field has one, from a text in a layout.
DateTime readText(std::string_view text, const DateLayout& at, bool withTime) {
    DateTime v;
    const bool digits = &at == kDateLayouts && text.size() >= kDateDigits;
    if (!digits || !readEightDigits(text.data(), &v)) {
        v.year = readPiece(text, at.year, 4);
        v.month = readPiece(text, at.month, 2);
        v.day = readPiece(text, at.day, 2);
    }
    if (withTime) {
        v.hour = readPiece(text, at.hour, 2);
        v.minute = readPiece(text, at.minute, 2);
        v.second = readPiece(text, at.second, 2);
    }
    return v;
}

DateTime decode(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return {};
    if (!isBinary(*f)) return readText(storedText(h, field), kDateLayouts[0], hasTime(*f));
    const Moment moment = binaryMoment(h, field);
    return splitMoment(moment.day, moment.milliseconds);
}

std::tm toTm(const DateTime& v) {
    std::tm t{};
    t.tm_year = v.year;
    t.tm_mon = v.month - 1;
    t.tm_mday = v.day;
    t.tm_hour = v.hour;
    t.tm_min = v.minute;
    t.tm_sec = v.second;
    return t;
}

bool isValid(const DateTime& v) {
    if (v.second > 59 || v.minute > 59 || v.hour > 23 || v.year > 9999) return false;
    if (v.month < 1 || v.month > 12 || v.day < 1) return false;
    return v.day <= days[v.month - 1] + (v.month == 2 ? if_leap_year(v.year) : 0);
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
std::array<int, 6> inFormatOrder(i32 dateFormat, const DateTime& v) {
    switch (dateFormat) {
        case 1:
            return {v.day, v.month, v.year, v.hour, v.minute, v.second};
        case 2:
            return {v.month, v.day, v.year, v.hour, v.minute, v.second};
        default:
            return {v.year, v.month, v.day, v.hour, v.minute, v.second};
    }
}

/// The pattern of DateFormat; null when values are shown as stored.
const char* patternOf(const DbfBase* h, char* const (&patterns)[5]) {
    return h->DateFormat > 0 && h->DateFormat <= kFormatLast ? patterns[h->DateFormat] : nullptr;
}

const char* renderBlank(DbfBase* h, std::size_t length) {
    std::memset(h->TextBuffer, ' ', length);
    h->TextBuffer[length] = 0;
    return h->TextBuffer;
}

/// Not part of render, which shows values as stored when in a hurry.
[[gnu::noinline]] const char* print(DbfBase* h, const DateTime& v, const char* pattern) {
    const std::array<int, 6> n = inFormatOrder(h->DateFormat, v);
    if (!printPadded(h->TextBuffer, kTextBufferSize, pattern, n)) {
        std::snprintf(h->TextBuffer, kTextBufferSize, pattern, n[0], n[1], n[2], n[3], n[4], n[5]);
    }
    return h->TextBuffer;
}

/// Renders the value of a field; blanks is the length of one that is not valid.
const char* render(DbfBase* h, int field, const DateTime& v, const char* pattern,
                   std::size_t blanks) {
    if (!isValid(v)) return renderBlank(h, blanks);
    return pattern != nullptr ? print(h, v, pattern) : renderText(h, field);
}

/// Stores the digits of a date, and of a time where the field has one.
void storeDigits(DbfBase* h, int field, const DateTime& v) {
    char text[80];
    const int printed = std::snprintf(text, sizeof text, kMomentPattern, v.year, v.month, v.day,
                                      v.hour, v.minute, v.second);
    if (!hasTime(h->Fields[field])) {
        text[kDateDigits] = 0;
    } else if (printed != static_cast<int>(kDateTimeDigits)) {
        return;  // a value wider than its places would shift the ones after it
    }
    SetString(h, field, text);
}

i64 millisecondsOf(const DateTime& v) {
    return (v.second + i64{60} * v.minute + i64{3600} * v.hour) * 1000;
}

void storeBinary(DbfBase* h, int field, i64 day, i64 milliseconds) {
    u8* to = fieldRoom<8>(h, field);
    if (to == nullptr) return;
    if (isForeign(h, h->Fields[field])) {
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
        storeBinary(h, field, dayNumber(v.year, v.month, v.day), millisecondsOf(v));
    } else {
        storeDigits(h, field, v);
    }
}

/// The moment of 14 digits that stand alone between blanks or zero bytes.
Moment digitsMoment(std::string_view text) {
    constexpr std::string_view padding(" \0", 2);
    text.remove_prefix(std::min(text.find_first_not_of(padding), text.size()));
    text = text.substr(0, text.find_last_not_of(padding) + 1);
    if (text.size() != kDateTimeDigits || !std::all_of(text.begin(), text.end(), isDigit)) {
        return kNoMoment;
    }
    const DateTime v = readText(text, kDateLayouts[0], true);
    if (!isValid(v)) return kNoMoment;
    return {static_cast<i32>(dayNumber(v.year, v.month, v.day)),
            static_cast<i32>(millisecondsOf(v))};
}

/// Whether a field can hold a moment so that it reads back unchanged.
bool canHold(DbfBase* h, const DbfField& f, Moment m) {
    if (!isBinary(f)) {
        return fieldBytes(h, f).size() >= kDateTimeDigits && m.milliseconds % 1000 == 0;
    }
    return !isForeign(h, f) || m.day > kDayBeforeYear1;
}

}  // namespace

const char* renderDate(DbfBase* h, int field) {
    const DateTime v = readText(storedText(h, h->Fields[field]), kDateLayouts[0], false);
    const std::size_t blanks = h->DateFormat > 0 ? kDottedDate : kDateDigits;
    return render(h, field, v, patternOf(h, h->DateFormats), blanks);
}

const char* renderMoment(DbfBase* h, int field) {
    const DbfField& f = h->Fields[field];
    const std::size_t blanks = h->DateFormat > 0 ? kDottedDateTime : kDateTimeDigits;
    const char* const pattern = patternOf(h, h->DateTimeFormats);
    if (pattern != nullptr || !isBinary(f) || isForeign(h, f)) {
        return render(h, field, decode(h, field), pattern, blanks);
    }
    // Shown as stored, so all that counts is whether it is valid.
    const auto [day, milliseconds] = loadMoment(fieldPrefix<8>(h, field));
    const bool valid = day > kDayBeforeYear0 && day <= kLastDay && milliseconds < kDayMilliseconds;
    return valid ? renderText(h, field) : renderBlank(h, blanks);
}

int if_leap_year(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 1 : 0; }

int mymktime(std::tm* t) {
    if (t->tm_mon < 0 || t->tm_mon > 11) return -1;
    const DateTime v{t->tm_year, t->tm_mon + 1, t->tm_mday, t->tm_hour, t->tm_min, t->tm_sec};
    return isValid(v) ? 0 : -1;
}

std::tm GetDT(DbfBase* h, int field) { return toTm(decode(h, field)); }

std::tm GetTm(DbfBase* h, int field) { return GetDT(h, field); }

int GetDateTime(DbfBase* h, int field) { return isValid(decode(h, field)) ? 0 : -1; }

void SetDateTime(DbfBase* h, int field, int year, int month, int day, int hour, int minute,
                 int second) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !isDateOrMoment(*f) || isTimestamp(*f)) return;
    store(h, field, {year, month, day, hour, minute, second});
}

void SetTimeStamp(DbfBase* h, int field, int year, int month, int day, int hour, int minute,
                  int second) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !isTimestamp(*f)) return;
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
    if (text == nullptr) return;
    constexpr std::size_t longest = 10;
    char date[longest + 1] = {};
    std::memcpy(date, text, strnlen(text, h->DateFormat != 0 ? longest : kDateDigits));
    SetDateTimeS(h, field, date);
}

void SetDateTimeS(DbfBase* h, int field, const char* text) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || text == nullptr) return;
    const DateTime v = readText(text, dateLayout(h->DateFormat), hasTime(*f));
    if (v.month == 0 || v.day == 0) {
        ClearField(h, field);
    } else if (isDateOrMoment(*f)) {
        store(h, field, v);
    }
}

int GetMoment(DbfBase* h, int field, i32* day, i32* milliseconds) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr || !hasTime(*f)) return 0;
    const Moment m = isBinary(*f) ? binaryMoment(h, field) : digitsMoment(storedText(h, *f));
    if (!isMoment(m)) return 0;
    *day = m.day;
    *milliseconds = m.milliseconds;
    return 1;
}

int SetMoment(DbfBase* h, int field, i32 day, i32 milliseconds) {
    const DbfField* f = tableField(h, field);
    const Moment m{day, milliseconds};
    if (f == nullptr || !hasTime(*f) || !isMoment(m) || !canHold(h, *f, m)) return 0;
    if (isBinary(*f)) {
        storeBinary(h, field, day, milliseconds);
    } else {
        ClearField(h, field);  // which may be longer
        storeDigits(h, field, splitMoment(day, milliseconds));
    }
    return 1;
}

i32 GetDayNumber(int year, int month, int day) {
    const DateTime date{year, month, day};
    return year >= 0 && isValid(date) ? static_cast<i32>(dayNumber(year, month, day)) : 0;
}

int GetDayDate(i32 number, int* year, int* month, int* day) {
    if (!isMoment({number, 0})) return 0;
    DateTime date;
    splitDay(number, &date);
    *year = date.year;
    *month = date.month;
    *day = date.day;
    return 1;
}

int IsOtherLevel7(DbfBase* h) { return isForeignLevel7(h) ? 1 : 0; }

u32 GetTimeStamp(DbfBase* /*h*/, int /*field*/) { return kNoTimeStamp; }

}  // namespace mira
