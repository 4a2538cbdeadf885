// Field values: text, numbers, dates. Shortcuts are compared with printf, atof and a calendar that
// counts day by day.
#include <bit>
#include <cmath>
#include <cstring>
#include <random>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

/// A table with one field, whose bytes the tests put into the record buffer.
class OneField {
public:
    OneField(char type, unsigned length, unsigned decimals = 0, unsigned char version = 0x03,
             bool level7 = false)
        : h(openLayout(
              dir_, {version, {{"F", type, length, decimals}, {"NEXT", 'C', 30}}, {}, level7})) {}

    std::string show(const std::string& bytes) {
        put(bytes);
        return GetStr(h.get(), 0);
    }
    void put(const std::string& bytes) {
        std::memset(h->RecordBuffer + 1, 0, 600);
        std::memcpy(h->RecordBuffer + 1, bytes.data(), bytes.size());
    }
    std::string bytes() const {
        return {reinterpret_cast<char*>(h->RecordBuffer) + 1, GetLenField(h.get(), 0)};
    }

private:
    TempDir dir_;

public:
    Table h;
};

template <typename... Args>
std::string printed(const char* format, Args... args) {
    char text[1000];
    std::snprintf(text, sizeof text, format, args...);
    return text;
}

TEST(Text, TrimsCharacters) {
    OneField c('C', 6);
    const char* expected[] = {"  AB  ", "  AB", "AB  ", "AB", "  AB  "};
    for (int mode = 0; mode < 5; ++mode) {
        c.h->TrimMode = mode;
        EXPECT_EQ(c.show("  AB  "), expected[mode]) << mode;
    }
    EXPECT_EQ(OneField('C', 4).show("a\0bc"s), "a");
}

TEST(Text, ShowsEveryType) {
    const std::string one = le(std::bit_cast<std::uint64_t>(1.5), 8);
    struct Case {
        char type;
        unsigned length, decimals;
        std::string bytes, text;
    } cases[] = {
        {'L', 1, 0, "?", "?"},
        {'I', 4, 0, "\xFF\xFF\xFF\xFF", "        -1"},
        {'Y', 8, 0, le(static_cast<u64>(-123456), 8), "                -12.3456"},
        {'Y', 8, 0, le(1ULL << 63, 8), "   -922337203685477.6250"},
        {'B', 8, 2, one, "                1.50"},
        {'O', 8, 0, "\xBF\xF8\0\0\0\0\0\0"s, "          1.50000000"},
        {'M', 10, 3, "        12", "Full memo "},
        {'M', 4, 0, le(9, 4), "Full memo "},
        {'B', 10, 0, "          ", "Empty memo"},
        {'D', 8, 0, "20230229", "        "},
        {'N', 3, 2, ".50", ".50"},
        {'N', 10, 2, "3.14      ", "      3.14"},
        {'N', 8, 1, "   1.5e3", "  1500.0"},
        {'N', 3, 0, "inf", "inf"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(OneField(c.type, c.length, c.decimals).show(c.bytes), c.text)
            << c.type << c.bytes;
    }
    OneField memo('M', 10);
    memo.h->MemoAsNumber = 1;
    EXPECT_EQ(memo.show("        12"), "        12");
    OneField smt('M', 10, 0, 0xE5);
    smt.h->MemoAsNumber = 1;
    EXPECT_EQ(smt.show("\0\0"s + le(100, 4) + le(16, 4)), "   16   100");
    OneField raw('N', 10, 2);
    raw.h->RawNumeric = 1;
    EXPECT_EQ(raw.show("3.14      "), "3.14      ");
    EXPECT_STREQ(GetStr(raw.h.get(), -1), "");
    EXPECT_EQ(GetStr(raw.h.get(), 2), nullptr);
}

TEST(Numbers, StoreAndRead) {
    OneField currency('Y', 8);
    SetCurrency(currency.h.get(), 0, 12.34567);
    EXPECT_EQ(currency.bytes(), le(123456, 8));
    for (const double bad : {1e30, -1e30, std::nan("")}) SetCurrency(currency.h.get(), 0, bad);
    EXPECT_EQ(currency.bytes(), le(123456, 8));
    SetCurrency(currency.h.get(), 0, -0.00005);
    EXPECT_EQ(GetCurrency(currency.h.get(), 0), 0.0);

    OneField ordered('O', 8);
    std::string previous;
    for (const double v : {-1e300, -1.5, -1e-300, -0.0, 1e-300, 1.0, 1.5, 1e300}) {
        SetInvertedDouble(ordered.h.get(), 0, v);
        EXPECT_EQ(GetInvertedDouble(ordered.h.get(), 0), v);
        EXPECT_LT(previous, ordered.bytes());
        previous = ordered.bytes();
    }
    struct Case {
        unsigned length, decimals;
        double value;
        std::string stored;
    } cases[] = {{5, 0, 123.6, "  124"},
                 {8, 2, 3.14159, "    3.14"},
                 {8, 2, 1234567, "........"},
                 {3, 2, 0.5, ".50"},
                 {3, 2, 1.5, "..."},
                 {4, 2, -0.004, "...."},
                 {20, 0, 1e300, std::string(20, '.')},
                 {6, 0, HUGE_VAL, "......"}};
    for (const Case& c : cases) {
        OneField n('N', c.length, c.decimals);
        n.put(std::string(c.length, '.') + "|");
        SetFloat(n.h.get(), 0, c.value);
        EXPECT_EQ(n.bytes(), c.stored) << c.value;
        EXPECT_EQ(n.h->RecordBuffer[1 + c.length], '|');
    }
    // Too short for their values: nothing is stored over the neighbour.
    for (const char type : {'I', 'Y', 'O', 'B', 'T'}) {
        OneField f(type, 3);
        f.put("abcdefghij");
        SetInt(f.h.get(), 0, 1);
        SetDouble(f.h.get(), 0, 1);
        SetCurrency(f.h.get(), 0, 1);
        SetInvertedDouble(f.h.get(), 0, 1);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(f.h->RecordBuffer) + 1, 10), "abcdefghij");
        SetInt(f.h.get(), -1, 1);
        EXPECT_EQ(GetInt(f.h.get(), 0), 0x64636261u);  // reading takes what stands there
    }
    OneField n('N', 6, 3);
    n.put("-0.001");
    EXPECT_EQ(GetSign(n.h.get(), 0), -1);
    EXPECT_EQ(GetSign(n.h.get(), -1), 0);
    OneField b('B', 8);
    SetDouble(b.h.get(), 0, std::nan(""));
    EXPECT_EQ(GetSign(b.h.get(), 0), 0);
}

TEST(Numbers, DisplayEqualsPrintf) {
    std::mt19937 random(11);
    const char alphabet[] = "0123456789 .-+eE*x\t";
    for (int round = 0; round < 150; ++round) {
        const unsigned length = 1 + static_cast<unsigned>(random() % 22);
        const unsigned decimals = static_cast<unsigned>(random() % std::min(length, 9u));
        OneField n('N', length, decimals);
        for (int i = 0; i < 400; ++i) {
            std::string stored;
            if (random() % 2 == 0) {
                const double v =
                    std::ldexp(static_cast<double>(random()), static_cast<int>(random() % 40) - 32);
                stored = printed("%*.*f", length, random() % 4 ? decimals : decimals + 1,
                                 random() % 4 ? v : -v);
                if (random() % 4 == 0)
                    std::rotate(stored.begin(), stored.begin() + 1, stored.end());
            } else {
                while (stored.size() < length) stored += alphabet[random() % (sizeof alphabet - 1)];
            }
            stored = padded(stored, length);
            std::string expected = printed("%*.*f", length, decimals, std::atof(stored.c_str()));
            if (decimals != 0 && length == decimals + 1) expected.erase(0, 1);
            ASSERT_EQ(n.show(stored), expected)
                << "N(" << length << "," << decimals << ") " << stored;
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
            double v = std::bit_cast<double>(random());
            if (i % 3 == 1)
                v = static_cast<double>(bits) / static_cast<double>(1ULL << random() % 63);
            if (i % 3 == 2)
                v = static_cast<double>(static_cast<i64>(random() % 2000000) - 1000000) / 1000;
            ASSERT_EQ(b.show(le(std::bit_cast<u64>(v), 8)), printed("%20.*f", decimals, v));
            const u64 money = i % 2 == 0 ? bits : ~bits;
            ASSERT_EQ(y.show(le(money, 8)),
                      printed("%24.4f", static_cast<double>(static_cast<i64>(money)) / 10000.0));
        }
    }
}

TEST(Dates, RenderInFiveFormats) {
    const char* dates[] = {"20240305", "05.03.2024", "03.05.2024", "2024.03.05", "20240305"};
    const char* times[] = {"20240305140709", "05.03.2024 14:07:09", "03.05.2024 14:07:09",
                           "2024.03.05 14:07:09", "20240305140709"};
    OneField d('D', 8), text('T', 14), binary('T', 8), stamp('@', 8);
    const std::string bytes = le(2460375, 4) + le(50829000, 4);
    for (int format = 0; format < 5; ++format) {
        for (OneField* f : {&d, &text, &binary, &stamp}) f->h->DateFormat = format;
        EXPECT_EQ(d.show("20240305"), dates[format]);
        EXPECT_EQ(d.show("20230229"), std::string(format == 0 ? 8 : 10, ' '));
        EXPECT_EQ(text.show("20240305140709"), times[format]);
        EXPECT_EQ(text.show("2024030524    "), std::string(format == 0 ? 14 : 19, ' '));
        SetDateS(d.h.get(), 0, dates[format]);
        EXPECT_EQ(d.bytes(), "20240305");
        for (const char* none : {"        ", "00.00.0000"}) SetDateS(d.h.get(), 0, none);
        SetDate(d.h.get(), 0, 2024, 13, 1);
        EXPECT_EQ(d.bytes(), "        ");
        for (OneField* f : {&binary, &stamp}) {
            SetDateTimeS(f->h.get(), 0, times[format]);
            EXPECT_EQ(f->bytes(), bytes);
            f->put(bytes);
            EXPECT_TRUE(format == 0 || GetStr(f->h.get(), 0) == times[format] + ""s);
        }
    }
    const std::pair<const char*, const char*> formats[] = {{"%04d/%02d/%02d", "2024/03/15"},
                                                           {"%d~%2d~%x", "2024~ 3~f"}};
    d.h->DateFormat = 3;
    for (const auto& [format, shown] : formats) {
        std::strcpy(d.h->DateFormats[3], format);
        EXPECT_EQ(d.show("20240315"), shown);
    }
    EXPECT_EQ(d.show("-1230305"), "-123~ 3~5");
    d.h->DateFormat = 0;
    SetDateS(d.h.get(), 0, "05.03.2024");
    EXPECT_EQ(d.bytes(), "00050320");
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
    for (const u64 outside : {u64{0}, u64{1721059}, u64{5373485}, u64{0x80000000}}) {
        t.put(le(outside, 4) + le(0, 4));
        EXPECT_EQ(GetDateTime(t.h.get(), 0), -1) << outside;
    }
    t.put(le(2460311, 4) + le(86400000, 4));
    EXPECT_EQ(GetDateTime(t.h.get(), 0), -1);
    SetDateTime(t.h.get(), 0, 2147483647, 12, 2147483647, 2147483647, 2147483647, 2147483647);
}

TEST(Dates, TimestampsOfOtherMakersCountMilliseconds) {
    OneField f('@', 8, 0, 0x8C, true);
    f.h->ForeignLevel7 = 1;
    f.h->DateFormat = 3;
    EXPECT_EQ(f.show("\x42\xCC\x41\x8B\xA9\x9A\0\0"s), "1970.01.01 00:00:00");
    EXPECT_EQ(f.show(std::string(8, 0)), std::string(19, ' '));
    EXPECT_EQ(f.show(std::string(8, '\xFF')), std::string(19, ' '));
    SetDateTimeS(f.h.get(), 0, "1970.01.01 00:00:01");
    EXPECT_EQ(f.show(f.bytes()), "1970.01.01 00:00:01");
    SetTimeStamp(f.h.get(), 0, 1970, 1, 1, 0, 0, 0);
    EXPECT_EQ(f.bytes(), "\x42\xCC\x41\x8B\xA9\x9A\0\0"s);
}

}  // namespace
