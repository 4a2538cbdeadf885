// Values that are shown as they are stored, told by shortcuts: compared with the long way round.
#include <cstdlib>
#include <random>

#include "support.h"

using namespace mira;
using namespace test;

namespace {

/// A table with one field between neighbours that are neither blank nor zero.
struct Between {
    Between(char type, unsigned length, unsigned decimals = 0)
        : h(openLayout(dir,
                       {.columns = {{"A", 'C', 9}, {"F", type, length, decimals}, {"Z", 'C', 9}},
                        .records = {}})) {}
    std::string show(const std::string& bytes) {
        setRecord(h.get(), " 999999999" + bytes + "888888888");
        return GetStr(h.get(), 1);
    }
    TempDir dir;
    Table h;
};

TEST(Shown, TextsOfEveryLength) {
    const std::string text = "the quick brown fox jumps over the lazy dog and runs";
    for (unsigned length = 1; length <= text.size(); ++length)
        EXPECT_EQ(Between('C', length).show(text.substr(0, length)), text.substr(0, length));
    // The longest field, which ends where the record buffer does.
    const TempDir dir;
    const std::string longest = padded(text, 65534, 'x');
    const Table h = openLayout(dir, {.columns = {{"F", 'C', 0xFE, 0xFF}}, .records = {}});
    setRecord(h.get(), " " + longest);
    EXPECT_EQ(GetStr(h.get(), 0), longest);
}

bool isDay(int year, int month, int day) {
    static constexpr int lengths[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12) return false;
    return day >= 1 && day <= lengths[month - 1] + (month == 2 ? if_leap_year(year) : 0);
}

int number(const std::string& text, std::size_t place, std::size_t length) {
    return std::atoi(text.substr(place, length).c_str());
}

TEST(Shown, DatesThatAreValid) {
    std::mt19937 random(21);
    Between d('D', 8), t('T', 8);
    for (int i = 0; i < 300000; ++i) {
        std::string date = "20000000";
        for (const std::size_t place : {2u, 3u, 5u, 7u})
            date[place] += static_cast<char>(random() % 10);
        date[4] += static_cast<char>(random() % 2);
        date[6] += static_cast<char>(random() % 4);
        if (i % 4 == 0) date[random() % 8] = static_cast<char>(random() % 256);
        const bool valid = isDay(number(date, 0, 4), number(date, 4, 2), number(date, 6, 2));
        const std::string stored = date.substr(0, date.find('\0'));
        ASSERT_EQ(d.show(date), valid ? stored : std::string(8, ' ')) << date;
    }
    const std::int64_t days[] = {1721059, 1721060, 5373484, 5373485, 2460311, -1};
    const std::int64_t clocks[] = {0, 86399999, 86400000, -1, 2147483647};
    for (const std::int64_t day : days) {
        for (const std::int64_t clock : clocks) {
            const bool valid = day > 1721059 && day <= 5373484 && clock < 86400000;
            const std::string moment =
                le(static_cast<u64>(day), 4) + le(static_cast<u64>(clock), 4);
            ASSERT_EQ(t.show(moment), valid ? std::string(moment.c_str()) : std::string(14, ' '))
                << day << " " << clock;
        }
    }
}

TEST(Shown, NumbersAsPrintfDoes) {
    std::mt19937 random(22);
    std::unique_ptr<Between> fields[21][20];
    for (int i = 0; i < 200000; ++i) {
        const unsigned length = 1 + static_cast<unsigned>(random() % 20);
        const unsigned decimals = length > 1 ? static_cast<unsigned>(random() % length) : 0;
        std::unique_ptr<Between>& n = fields[length][decimals];
        if (!n) n = std::make_unique<Between>('N', length, decimals);
        // Digits with or without sign, point and blanks at either end.
        std::string stored = random() % 4 == 0 ? "-" : "";
        const std::size_t digits = random() % (length + 1);  // often more than a double keeps
        for (std::size_t k = 0; k < digits; ++k) stored += "0123456789"[random() % 10];
        if (digits != 0 && random() % 2 == 0) stored[random() % stored.size()] = '.';
        if (random() % 2 == 0)
            stored.insert(0, length - std::min<std::size_t>(length, stored.size()), ' ');
        stored = padded(stored, length);
        char expected[400];
        std::snprintf(expected, sizeof expected, "%*.*f", static_cast<int>(length),
                      static_cast<int>(decimals), std::atof(stored.c_str()));
        const bool hidesZero = decimals != 0 && length == decimals + 1;
        ASSERT_EQ(n->show(stored), expected + (hidesZero ? 1 : 0))
            << length << "." << decimals << stored;
    }
}

}  // namespace
