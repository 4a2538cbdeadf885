// Field values: text, numbers, dates. Shortcuts are compared with printf, atof and a calendar that
// counts day by day.
#include <bit>
#include <cmath>
#include <cstring>
#include <random>

#include "dbf/table/private.h"
#include "support.h"

using namespace mira;
using namespace test;

namespace {

/// A table with one field, whose bytes the tests put into the record buffer.
struct OneField {
    OneField(char type, unsigned length, unsigned decimals = 0, unsigned char version = 0x03)
        : h(openLayout(dir, {.version = version,
                             .columns = {{"F", type, length, decimals}, {"NEXT", 'C', 30}},
                             .records = {},
                             .level7 = version == 0x8C})) {}

    void put(const std::string& bytes) { bytes.copy(record(), bytes.size()); }
    std::string show(const std::string& bytes) {
        put(bytes);
        return GetStr(h.get(), 0);
    }
    std::string bytes() const { return {record(), GetLenField(h.get(), 0)}; }
    char* record() const { return reinterpret_cast<char*>(h->RecordBuffer) + 1; }

    TempDir dir;
    Table h;
};

template <typename... Args>
std::string printed(const char* format, Args... args) {
    char text[1000];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

TEST(Text, ShowsEveryType) {
    const std::tuple<char, unsigned, unsigned, std::string, std::string> cases[] = {
        {'C', 4, 0, "a\0bc"s, "a"},
        {'I', 4, 0, "\xFF\xFF\xFF\xFF", "        -1"},
        {'Y', 8, 0, le(1ULL << 63, 8), "   -922337203685477.6250"},
        {'O', 8, 0, "\xBF\xF8\0\0\0\0\0\0"s, "          1.50000000"},
        {'M', 10, 3, "        12", "Full memo "},
        {'M', 4, 0, le(9, 4), "Full memo "},
        {'B', 10, 0, "          ", "Empty memo"},
        {'N', 8, 1, "   1.5e3", "  1500.0"},
        {'N', 3, 0, "inf", "inf"}};
    for (const auto& [type, length, decimals, bytes, text] : cases)
        EXPECT_EQ(OneField(type, length, decimals).show(bytes), text);
    OneField memo('M', 10), smt('M', 10, 0, 0xE5);
    memo.h->MemoAsNumber = smt.h->MemoAsNumber = 1;
    EXPECT_EQ(memo.show("        12"), "        12");
    EXPECT_EQ(smt.show("\0\0"s + le(100, 4) + le(16, 4)), "   16   100");
    OneField c('C', 6);
    for (const char* expected : {"  AB  ", "  AB", "AB  ", "AB", "  AB  "}) {
        EXPECT_EQ(c.show("  AB  "), expected) << c.h->TrimMode;
        ++c.h->TrimMode;
    }
}

TEST(Numbers, StoreAndRead) {
    OneField currency('Y', 8), ordered('O', 8);
    for (const double v : {12.34567, 1e30, -1e30, std::nan("")})
        SetCurrency(currency.h.get(), 0, v);
    EXPECT_EQ(currency.bytes(), le(123456, 8)) << "nothing is stored for the last three";
    SetCurrency(currency.h.get(), 0, -0.00005);
    EXPECT_EQ(GetCurrency(currency.h.get(), 0), 0.0);
    SetCurrency(currency.h.get(), 0, 4.56);
    EXPECT_EQ(currency.bytes(), le(45600, 8));
    std::string previous;
    for (const double v : {-1e300, -1.5, -1e-300, -0.0, 1e-300, 1.0, 1.5, 1e300}) {
        SetInvertedDouble(ordered.h.get(), 0, v);
        EXPECT_EQ(GetInvertedDouble(ordered.h.get(), 0), v);
        EXPECT_LT(previous, ordered.bytes());
        previous = ordered.bytes();
    }
    const std::tuple<unsigned, unsigned, double, std::string> cases[] = {
        {5, 0, 123.6, "  124|"},     {8, 2, 3.14159, "    3.14|"}, {8, 2, 1234567, "........|"},
        {3, 2, 0.5, ".50|"},         {3, 2, 1.5, "...|"},          {4, 2, -0.004, "....|"},
        {6, 0, HUGE_VAL, "......|"}, {9, 0, 1e300, ".........|"}};
    for (const auto& [length, decimals, value, stored] : cases) {
        OneField n('N', length, decimals);
        n.put(repeat(".", 9).substr(0, length) + "|");
        SetFloat(n.h.get(), 0, value);
        EXPECT_EQ(std::string(n.record(), length + 1), stored) << value;
    }
    // Too short for their values: nothing is stored over the neighbour, but read it is.
    for (const char type : {'I', 'Y', 'O', 'B', 'T'}) {
        OneField f(type, 3);
        f.put("abcdefghij");
        SetInt(f.h.get(), 0, 1);
        for (auto* const set : {SetDouble, SetCurrency, SetInvertedDouble}) set(f.h.get(), 0, 1);
        EXPECT_EQ(std::string(f.record(), 10), "abcdefghij");
        EXPECT_EQ(GetInt(f.h.get(), 0), 0x64636261u);
    }
}

TEST(Numbers, CurrencyComesBackUnchanged) {
    OneField from('Y', 8), to('Y', 8);
    std::mt19937_64 random(13);
    constexpr i64 exact = i64{10000} << 39;  // beyond, some share a double with others
    for (i64 i = -200000; i < 800000; ++i) {
        const int shift = static_cast<int>(random() % 64);
        const i64 k = i % 2 == 0 ? i : i % 3 != 0 ? static_cast<i64>(random()) >> shift : exact + i;
        from.put(le(static_cast<u64>(k), 8));
        const double value = GetCurrency(from.h.get(), 0);
        SetCurrency(to.h.get(), 0, value);
        ASSERT_EQ(GetCurrency(to.h.get(), 0), value);
        ASSERT_TRUE(from.bytes() == to.bytes() || k > exact || k < -exact) << k;
    }
    // Four units of the last place count, a fifth does not.
    for (const auto& [units, stored] : {std::pair{4, 45600u}, {5, 45599u}}) {
        double value = 4.56;
        while ((45600 - value * 10000) * (1 << 20) * (1 << 17) < units)
            value = std::nextafter(value, 0);
        SetCurrency(to.h.get(), 0, value);
        EXPECT_EQ(to.bytes(), le(stored, 8)) << units;
    }
}

TEST(Numbers, DisplayEqualsPrintf) {
    std::mt19937 random(11);
    const char alphabet[] = "0123456789 .-+eE*x\t";
    for (int round = 0; round < 150; ++round) {
        const unsigned length = 1 + static_cast<unsigned>(random() % 22);
        const unsigned decimals = static_cast<unsigned>(random() % std::min(length, 9u));
        OneField n('N', length, decimals);
        for (int i = 0; i < 400; ++i) {
            const double v = std::ldexp(random(), static_cast<int>(random() % 40) - 32);
            std::string stored = printed("%*.*f", length, random() % 4 ? decimals : decimals + 1,
                                         random() % 4 ? v : -v);
            if (random() % 4 == 0) std::rotate(stored.begin(), stored.begin() + 1, stored.end());
            if (random() % 2 == 0)
                stored[random() % stored.size()] = alphabet[random() % (sizeof alphabet - 1)];
            stored = padded(stored, length);
            std::string expected = printed("%*.*f", length, decimals, std::atof(stored.c_str()));
            if (decimals != 0 && length == decimals + 1) expected.erase(0, 1);
            ASSERT_EQ(n.show(stored), expected) << stored;
        }
    }
}

TEST(Numbers, BinaryDisplayEqualsPrintf) {
    std::mt19937_64 random(12);
    OneField y('Y', 8);
    for (unsigned decimals = 0; decimals < 24; ++decimals) {
        OneField b('B', 8, decimals);
        for (int i = 0; i < 5000; ++i) {
            const u64 bits = random() >> random() % 64;
            const auto whole = static_cast<i64>(i % 2 == 0 ? bits : ~bits);
            const double number = static_cast<double>(whole);
            const double v = i % 3 == 0   ? std::bit_cast<double>(random())
                             : i % 3 == 1 ? std::ldexp(number, -static_cast<int>(random() % 63))
                                          : static_cast<double>(whole % 1000000) / 1000;
            ASSERT_EQ(b.show(le(std::bit_cast<u64>(v), 8)), printed("%20.*f", decimals, v));
            ASSERT_EQ(y.show(le(static_cast<u64>(whole), 8)), printed("%24.4f", number / 10000));
        }
    }
}

TEST(Dates, RenderInFiveFormats) {
    const std::string iso = "20240305140709", clock = " 14:07:09";
    const std::string times[] = {iso, "05.03.2024" + clock, "03.05.2024" + clock,
                                 "2024.03.05" + clock, iso};
    OneField d('D', 8), text('T', 14), binary('T', 8), stamp('@', 8);
    const std::string bytes = le(2460375, 4) + le(50829000, 4);
    for (const int format : {4, 3, 2, 1, 0}) {
        const std::string& time = times[format];
        const std::string date = time.substr(0, format % 4 == 0 ? 8 : 10);
        for (OneField* f : {&d, &text, &binary, &stamp}) f->h->DateFormat = format;
        EXPECT_EQ(d.show("20240305"), date);
        EXPECT_EQ(d.show("20230229"), std::string(format == 0 ? 8 : 10, ' '));
        EXPECT_EQ(text.show("20240305140709"), time);
        EXPECT_EQ(text.show("2024030524    "), std::string(format == 0 ? 14 : 19, ' '));
        SetDateS(d.h.get(), 0, date.c_str());
        EXPECT_EQ(d.bytes(), "20240305");
        for (const char* none : {"        ", "00.00.0000"}) SetDateS(d.h.get(), 0, none);
        SetDate(d.h.get(), 0, 2024, 13, 1);
        EXPECT_EQ(d.bytes(), "        ");
        for (OneField* f : {&binary, &stamp}) {
            SetDateTimeS(f->h.get(), 0, time.c_str());
            EXPECT_EQ(f->bytes(), bytes);
            EXPECT_TRUE(format == 0 || f->show(bytes) == time);
        }
    }
    SetDateS(d.h.get(), 0, "05.03.2024");
    EXPECT_EQ(d.bytes(), "00050320") << "not as format 0 has it";
    d.h->DateFormat = 3;
    for (const auto& [format, shown] : rows("%04d/%02d/%02d=-123/03/05;%d~%2d~%x=-123~ 3~5")) {
        std::strcpy(d.h->DateFormats[3], format.c_str());
        EXPECT_EQ(d.show("-1230305"), shown);
    }
    text.put("20240305140709");
    SetDateTime(text.h.get(), 0, 12024, 1, 1, 0, 0, 0);
    EXPECT_EQ(text.bytes(), "20240305140709") << "a year of five digits does not fit";
}

TEST(Dates, CalendarCountsEveryDay) {
    OneField t('T', 8);
    int year = 0, month = 1, day = 0;
    static constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    for (u64 number = 1721060; number <= 5373484; ++number) {
        if (++day > lengths[month - 1] + (month == 2 ? if_leap_year(year) : 0)) {
            day = 1;
            if (++month > 12) month = 1, ++year;
        }
        if (number % 7 != 0 && day < 28 && day > 1) continue;
        t.put(le(number, 4) + le(0, 4));
        const std::tm tm = GetDT(t.h.get(), 0);
        ASSERT_EQ(tm.tm_year * 10000 + (tm.tm_mon + 1) * 100 + tm.tm_mday,
                  year * 10000 + month * 100 + day);
        SetDate(t.h.get(), 0, year, month, day);
        ASSERT_EQ(t.bytes(), le(number, 4) + le(0, 4));
    }
    EXPECT_EQ(year * 10000 + month * 100 + day, 99991231);
    for (const u64 outside :
         {u64{0}, u64{1721059}, u64{5373485}, u64{0x80000000}, u64{86400000} << 32 | 2460311}) {
        t.put(le(outside, 8));
        EXPECT_EQ(GetDateTime(t.h.get(), 0), -1) << outside;
    }
    for (const i32 number : {1721059, 0, -400000000, -2147483647 - 1}) {
        t.put(le(static_cast<u32>(number), 4) + le(0, 4));
        const std::tm tm = GetDT(t.h.get(), 0);
        EXPECT_EQ(tm.tm_year + tm.tm_mon, 0);
        EXPECT_EQ(tm.tm_mday, std::max(i64{number} - 1721059, -(i64{1} << 31)));
    }
    SetDateTime(t.h.get(), 0, 2147483647, 12, 2147483647, 2147483647, 2147483647, 2147483647);
}

TEST(Dates, LocalTimeFollowsTheTimeZone) {
    OneField t('T', 14);
    for (const auto& [zone, shown] : rows("UTC0=19700101000000;EAST-5:30=19700101053000")) {
        setenv("TZ", zone.c_str(), 1);
        SetDateTimeI(t.h.get(), 0, 0);
        EXPECT_EQ(t.bytes(), shown);
    }
    unsetenv("TZ");
}

TEST(Dates, TimestampsOfOtherMakersCountMilliseconds) {
    OneField f('@', 8, 0, 0x8C);
    keepPrivate(f.h.get())->foreignLevel7 = true;
    f.h->DateFormat = 3;
    EXPECT_EQ(f.show("\x42\xCC\x41\x8B\xA9\x9A\0\0"s), "1970.01.01 00:00:00");
    for (const char none : {'\0', '\xFF'})
        EXPECT_EQ(f.show(std::string(8, none)), std::string(19, ' '));
    SetDateTimeS(f.h.get(), 0, "1970.01.01 00:00:01");
    EXPECT_EQ(f.show(f.bytes()), "1970.01.01 00:00:01");
    SetTimeStamp(f.h.get(), 0, 1970, 1, 1, 0, 0, 0);
    EXPECT_EQ(f.bytes(), "\x42\xCC\x41\x8B\xA9\x9A\0\0"s);
}

}  // namespace
