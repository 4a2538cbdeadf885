// Values stored into the fields of one record and read back, against computations of this file:
// printf, atof, bytes put together by hand, and a calendar that counts year by year.
//
//   0  1  table flavour      1  6  length and decimals of N, F and B      then one store after the
//   other
#include <cctype>
#include <cmath>

#include "support.h"

using namespace fuzz;

namespace {

constexpr std::size_t kLargest = 1024;
constexpr i64 kDayBeforeYear0 = 1721059;
constexpr int kMonthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

const Directory directory;

enum Flavour : u32 { kPlain, kLevel7, kForeign };

struct Column {
    char type;
    u8 length;
    u8 decimals;
};

std::string store(u64 value, unsigned size, bool bigEndian) {
    std::string bytes;
    for (unsigned i = 0; i < size; ++i)
        bytes += static_cast<char>(value >> 8 * (bigEndian ? size - 1 - i : i));
    return bytes;
}

std::string printed(const char* format, auto... values) {
    char text[800];
    const int length = std::snprintf(text, sizeof text, format, values...);
    return std::string(text, static_cast<std::size_t>(length));
}

/// A text up to its first zero byte.
std::string cString(const std::string& text) { return text.c_str(); }

std::string trimmed(std::string text, i32 mode) {
    if (mode == 1 || mode == 3) text.erase(text.find_last_not_of(' ') + 1);
    if (mode == 2 || mode == 3) text.erase(0, std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

bool isLeap(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }
int monthDays(int year, int month) { return kMonthDays[month] + (month == 1 && isLeap(year)); }

/// Year, month (0 to 11), day, hour, minute, second.
struct Moment {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

bool isValid(const Moment& m) {
    return m.second <= 59 && m.minute <= 59 && m.hour <= 23 && m.month >= 0 && m.month <= 11 &&
           m.day >= 1 && m.year <= 9999 && m.day <= monthDays(m.year, m.month);
}

i64 dayNumber(const Moment& m) {
    i64 number = kDayBeforeYear0 + m.day;
    for (int year = 0; year < m.year; ++year) number += 365 + isLeap(year);
    for (int month = 0; month < m.month; ++month) number += monthDays(m.year, month);
    return number;
}

Moment fromDay(i64 number, i64 milliseconds) {
    Moment m;
    if (number > 5373484) return m;
    i64 left = number - kDayBeforeYear0;
    for (; left > 365 + isLeap(m.year); ++m.year) left -= 365 + isLeap(m.year);
    for (; left > monthDays(m.year, m.month); ++m.month) left -= monthDays(m.year, m.month);
    m.day = static_cast<int>(left);
    const i64 seconds = milliseconds / 1000;
    m.hour = static_cast<int>(seconds / 3600);
    m.minute = static_cast<int>(seconds % 3600 / 60);
    m.second = static_cast<int>(seconds % 60);
    return m;
}

/// Pieces of a text at given places; four characters, then two each.
Moment fromPieces(const std::string& text, std::initializer_list<std::size_t> places,
                  bool withTime) {
    int values[6] = {};
    std::size_t i = 0;
    for (const std::size_t place : places) {
        if (place < text.size() && (i < 3 || withTime))
            values[i] = std::atoi(text.substr(place, i == 0 ? 4 : 2).c_str());
        ++i;
    }
    return {values[0], values[1] - 1, values[2], values[3], values[4], values[5]};
}

class Values {
public:
    Values(Input& input);
    ~Values() { std::remove(path_.c_str()); }
    void step(Input&);

private:
    std::string image() const;
    std::string at(int field) const {
        return expected_.substr(h_->Fields[field].Offset, column(field).length);
    }
    void put(int field, const std::string& bytes) {
        const std::size_t length = std::min<std::size_t>(bytes.size(), column(field).length);
        expected_.replace(h_->Fields[field].Offset, length, bytes, 0, length);
    }
    const Column& column(int field) const { return columns_[static_cast<std::size_t>(field)]; }
    bool isBinaryTime(int field) const {
        return column(field).type != 'D' && column(field).length == 8;
    }
    bool isForeignTime(int field) const {
        return column(field).type == '@' && flavour_ == kForeign;
    }

    void putNumber(int field, double value, u8 decimals);
    void putCurrency(int field, double value);
    void putMoment(int field, const Moment&);
    void putDateText(int field, std::string text);
    void putValue(int field, const std::string& text, double number);
    Moment moment(int field) const;
    double value(int field) const;
    std::string shownTime(int field) const;
    std::string shown(int field) const;
    void compare(int field);

    u32 flavour_;
    std::vector<Column> columns_;
    std::string path_ = directory.file("t.dbf");
    Table h_;
    std::string expected_;
};

/// Every column that has values, each followed by one that shows if too much is written.
Values::Values(Input& input) : flavour_(input.below(3)) {
    // Other makers' descriptors are told apart by what the lengths add up to.
    const u8 most = flavour_ == kForeign ? 32 : 255;
    const auto decimals = [&] { return static_cast<u8>(input.byte() % most); };
    const u8 n = input.byte(), nDecimals = decimals(), f = input.byte(), fDecimals = decimals();
    const u8 bDecimals = decimals(), c = input.byte();
    columns_ = {{'C', c, 0}, {'N', n, nDecimals}, {'F', f, fDecimals}, {'B', 8, bDecimals},
                {'O', 8, 0}, {'Y', 8, 0},         {'I', 4, 0},         {'+', 4, 0},
                {'L', 1, 0}, {'D', 8, 0},         {'T', 8, 0},         {'T', 14, 0},
                {'@', 8, 0}, {'@', 14, 0},        {'Q', 9, 0},         {'V', 5, 0},
                {'0', 3, 0}, {'P', 2, 0}};
    writeFile(path_, image());
    h_.reset(OpenBase(path_.c_str()));
    FUZZ_CHECK(h_ != nullptr && h_->Level7 == (flavour_ != kPlain) &&
               isForeignLevel7(h_.get()) == (flavour_ == kForeign));
    FUZZ_CHECK(ReadRecord(h_.get(), 0) == 1);
    expected_ = record(h_.get());
}

std::string Values::image() const {
    const bool level7 = flavour_ != kPlain;
    const std::size_t headerSize = level7 ? 68 : 32, descriptorSize = level7 ? 48 : 32;
    std::string descriptors;
    u64 length = 1;
    for (const Column& c : columns_) {
        std::string d = "F";
        d.resize(level7 ? 32 : 11);
        d += c.type;
        d.resize(flavour_ == kForeign ? 33 : level7 ? 34 : 16);
        d += {static_cast<char>(c.length), static_cast<char>(c.decimals)};
        d.resize(descriptorSize);
        descriptors += d;
        length += c.length;
    }
    std::string out("\x03\x18\x03\x05", 4);
    out += store(1, 4, false) + store(headerSize + descriptors.size() + 1, 2, false) +
           store(length, 2, false);
    out.resize(headerSize);
    return out + descriptors + '\x0D' + std::string(length, '.') + '\x1A';
}

void Values::putNumber(int field, double number, u8 decimals) {
    if (!std::isfinite(number)) return;
    const int length = column(field).length;
    std::string text = printed("%*.*f", length, decimals, number);
    if (decimals != 0 && length - decimals == 1 && text.starts_with("0.")) text.erase(0, 1);
    const bool fits = decimals == 0 ? text.size() <= column(field).length
                                    : static_cast<int>(text.find('.')) <= length - decimals - 1;
    if (fits) put(field, text);
}

/// Cut, but for what four units of the last place separate from a whole number; half-way between
/// two it is the one that is read as the value.
void Values::putCurrency(int field, double value) {
    const double scaled = value * 10000, cut = std::trunc(scaled);
    if (!(std::abs(scaled) < 0x1p63)) return;
    const double unit = std::nextafter(std::abs(scaled), HUGE_VAL) - std::abs(scaled);
    double whole = std::abs(scaled - std::round(scaled)) <= 4 * unit ? std::round(scaled) : cut;
    if (std::abs(scaled - cut) == 0.5 && cut / 10000 == value) whole = cut;
    put(field, store(static_cast<u64>(static_cast<i64>(whole)), 8, false));
}

void Values::putMoment(int field, const Moment& m) {
    if (m.month < 0 || m.month > 11) return;
    if (isBinaryTime(field)) {
        const i64 milliseconds = (m.second + i64{60} * m.minute + i64{3600} * m.hour) * 1000;
        const i64 day = dayNumber(m);
        const double since = static_cast<double>((day - 1721425) * 86400000 + milliseconds);
        put(field, isForeignTime(field) ? store(std::bit_cast<u64>(since), 8, true)
                                        : store(static_cast<u64>(day), 4, false) +
                                              store(static_cast<u64>(milliseconds), 4, false));
        return;
    }
    const std::string text =
        printed("%04d%02d%02d%02d%02d%02d", m.year, m.month + 1, m.day, m.hour, m.minute, m.second);
    if (column(field).type == 'D' || text.size() == 14) put(field, text);
}

void Values::putDateText(int field, std::string text) {
    const bool withTime = column(field).type != 'D';
    const i32 format = h_->DateFormat;
    if (!withTime) text.resize(std::min<std::size_t>(text.size(), format != 0 ? 10 : 8));
    const Moment m = format == 1   ? fromPieces(text, {6, 3, 0, 11, 14, 17}, withTime)
                     : format == 2 ? fromPieces(text, {6, 0, 3, 11, 14, 17}, withTime)
                     : format == 3 ? fromPieces(text, {0, 5, 8, 11, 14, 17}, withTime)
                                   : fromPieces(text, {0, 4, 6, 8, 10, 12}, withTime);
    if (m.month != -1 && m.day != 0) return putMoment(field, m);
    put(field, std::string(column(field).length, isBinaryTime(field) ? '\0' : ' '));
}

void Values::putValue(int field, const std::string& text, double number) {
    const u64 bits = std::bit_cast<u64>(number);
    switch (column(field).type) {
        case 'C':
        case 'Q':
        case 'V':
            return put(field, text);
        case 'N':
        case 'F':
            return putNumber(field, number, column(field).decimals);
        case 'B':
            return put(field, store(bits, 8, false));
        case 'O':
            return put(field, store(number < 0 ? ~bits : bits | u64{1} << 63, 8, true));
        case 'Y':
            return putCurrency(field, number);
        case 'I':
        case '+': {
            const bool fits = number <= 2147483647.0 && number >= -2147483648.0;
            const u32 whole = static_cast<u32>(fits ? static_cast<i32>(number) : 0);
            const u32 stored = flavour_ == kForeign  ? whole ^ 1u << 31
                               : flavour_ == kLevel7 ? whole & 0x7FFFFFFF
                                                     : whole;
            return put(field, store(stored, 4, flavour_ != kPlain));
        }
        case 'L': {
            const char letter =
                static_cast<char>(std::toupper(static_cast<unsigned char>(text.c_str()[0])));
            return put(field,
                       std::string(1, letter != 0 && std::strchr("TFYN", letter) != nullptr ? letter
                                                                                            : ' '));
        }
        case 'D':
        case 'T':
        case '@':
            return putDateText(field, text);
        default:
            return;
    }
}

Moment Values::moment(int field) const {
    const std::string bytes = at(field);
    if (isForeignTime(field) && isBinaryTime(field)) {
        const double since = std::bit_cast<double>(load(bytes, 0, 8, true));
        const double limit = 86400000.0 * (5373484 - 1721425 + 1);
        if (!(since >= 86400000.0 && since < limit)) return {};
        const i64 whole = static_cast<i64>(since);
        return fromDay(1721425 + whole / 86400000, whole % 86400000);
    }
    if (isBinaryTime(field)) {
        return fromDay(static_cast<i32>(load(bytes, 0, 4, false)),
                       static_cast<i32>(load(bytes, 4, 4, false)));
    }
    return fromPieces(bytes, {0, 4, 6, 8, 10, 12}, column(field).type != 'D');
}

double Values::value(int field) const {
    const std::string bytes = at(field);
    switch (column(field).type) {
        case 'N':
        case 'F':
            return std::atof(bytes.c_str());
        case 'B':
            return std::bit_cast<double>(load(bytes, 0, 8, false));
        case 'O': {
            const u64 stored = load(bytes, 0, 8, true);
            const double magnitude =
                std::bit_cast<double>((stored >> 63 != 0 ? stored : ~stored) & ~(u64{1} << 63));
            return std::isnan(magnitude) ? 0.0 : stored >> 63 != 0 ? magnitude : -magnitude;
        }
        case 'Y':
            return static_cast<double>(static_cast<i64>(load(bytes, 0, 8, false))) / 10000.0;
        case 'I':
        case '+': {
            const u32 stored = static_cast<u32>(load(bytes, 0, 4, flavour_ != kPlain));
            return static_cast<i32>(flavour_ == kForeign  ? stored ^ 1u << 31
                                    : flavour_ == kLevel7 ? stored & 0x7FFFFFFF
                                                          : stored);
        }
        default:
            return 0.0;
    }
}

std::string Values::shownTime(int field) const {
    const Moment m = moment(field);
    const bool withTime = column(field).type != 'D';
    const i32 format = h_->DateFormat;
    if (!isValid(m))
        return std::string(format > 0 ? (withTime ? 19 : 10) : (withTime ? 14 : 8), ' ');
    if (format < 1 || format > 4) return trimmed(cString(at(field)), h_->TrimMode);
    const int month = m.month + 1;
    std::string text = format == 1   ? printed("%02d.%02d.%04d", m.day, month, m.year)
                       : format == 2 ? printed("%02d.%02d.%04d", month, m.day, m.year)
                       : format == 3 ? printed("%04d.%02d.%02d", m.year, month, m.day)
                                     : printed("%04d%02d%02d", m.year, month, m.day);
    if (!withTime) return text;
    return text +
           printed(format == 4 ? "%02d%02d%02d" : " %02d:%02d:%02d", m.hour, m.minute, m.second);
}

std::string Values::shown(int field) const {
    const Column& c = column(field);
    const std::string bytes = at(field);
    switch (c.type) {
        case 'N':
        case 'F': {
            if (h_->RawNumeric != 0) return cString(bytes);
            const std::string text = printed("%*.*f", int{c.length}, c.decimals, value(field));
            return c.decimals != 0 && c.length - c.decimals == 1 ? text.substr(1) : text;
        }
        case 'B':
            return printed("%20.*f", c.decimals, value(field));
        case 'O':
            return printed("%20.8f", value(field));
        case 'Y':
            return printed("%24.4f", value(field));
        case 'I':
        case '+':
            return printed("%10d", static_cast<i32>(value(field)));
        case 'L':
            return cString(bytes);
        case 'D':
        case 'T':
        case '@':
            return shownTime(field);
        case 'P':
            return "";
        default:
            return trimmed(cString(bytes), h_->TrimMode);
    }
}

void Values::compare(int field) {
    FUZZ_CHECK(record(h_.get()) == expected_);
    FUZZ_CHECK(GetStr(h_.get(), field) == shown(field));
    const double got = GetValue(h_.get(), field), wanted = value(field);
    FUZZ_CHECK(std::bit_cast<u64>(got) == std::bit_cast<u64>(wanted) ||
               (std::isnan(got) && std::isnan(wanted)));
    FUZZ_CHECK(GetSign(h_.get(), field) == (wanted > 0) - (wanted < 0));
    const char type = column(field).type;
    if (type == 'D' || type == 'T' || type == '@') {
        const Moment m = moment(field);
        FUZZ_CHECK(GetDateTime(h_.get(), field) == (isValid(m) ? 0 : -1));
        const std::tm t = type == '@' ? GetTm(h_.get(), field) : GetDT(h_.get(), field);
        FUZZ_CHECK(!isValid(m) ||
                   (t.tm_year == m.year && t.tm_mon == m.month && t.tm_mday == m.day));
        FUZZ_CHECK(t.tm_hour == m.hour && t.tm_min == m.minute && t.tm_sec == m.second);
    }
    FUZZ_CHECK(record(h_.get()) == expected_);
}

void Values::step(Input& input) {
    const int field = static_cast<int>(input.below(static_cast<u32>(columns_.size())));
    const u32 options = input.byte();
    h_->DateFormat = static_cast<i32>(options & 7) - 1;
    h_->TrimMode = static_cast<i32>(options >> 3 & 3);
    h_->RawNumeric = static_cast<i32>(options >> 5 & 1);
    const u32 way = options >> 6;
    if (way == 0) {
        const std::string raw = input.text(column(field).length);
        std::copy(raw.begin(), raw.end(), h_->RecordBuffer + h_->Fields[field].Offset);
        put(field, raw);
    } else if (way == 1 && std::strchr("DT@", column(field).type) != nullptr) {
        const int year = input.number<std::int16_t>(), month = input.number<std::int8_t>();
        const Moment m{year,
                       month % 16 - 1,
                       input.number<std::int8_t>(),
                       input.number<std::int8_t>(),
                       input.number<std::int8_t>(),
                       input.number<std::int8_t>()};
        auto* const set = column(field).type == '@' ? SetTimeStamp : SetDateTime;
        set(h_.get(), field, m.year, m.month + 1, m.day, m.hour, m.minute, m.second);
        putMoment(field, m);
    } else {
        const std::string text = cString(input.text(input.below(24)));
        const double number = input.real();
        SetValue(h_.get(), field, text.c_str(), number);
        putValue(field, text, number);
    }
    compare(field);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > kLargest) return 0;
    Input input(data, size);
    Values values(input);
    while (!input.empty()) values.step(input);
    return 0;
}
