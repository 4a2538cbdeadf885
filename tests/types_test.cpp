// Field types: what is asked about each, shown and stored; the readers and writers of one type.
#include <bit>
#include <chrono>
#include <cmath>
#include <cstring>
#include <random>

#include "cases.h"
#include "internal/real.h"

namespace test {
namespace {

/// A table whose first field is given by a row's type, length and decimals.
struct OneField {
    explicit OneField(const std::vector<std::string>& row, u8 version = 0x03,
                      Flavour flavour = kPlain) {
        const auto number = [&](std::size_t i) { return static_cast<unsigned>(std::stoi(row[i])); };
        const std::vector<Column> columns = {{"FIELD", row[0][0], number(1), number(2)},
                                             {"NEXT", 'C', 9}};
        h = openLayout(folder, {version, columns, {}, flavour});
    }
    std::string bytes() const { return recordOf(h.get()).substr(1, GetLenField(h.get(), 0)); }
    DbfBase* put(const std::string& bytes) {
        setRecord(h.get(), " " + bytes);
        return h.get();
    }

    Folder folder;
    Table h;
};

constexpr const char* kClasses[] = {"None",    "Text",    "System", "Logical",  "Date", "Moment",
                                    "Decimal", "Integer", "Double", "Currency", "Memo"};

TEST(Types, Facts) {
    for (const auto& row : cases("types")) {
        const OneField f(row);
        DbfBase* const h = f.h.get();
        std::vector<std::string> facts = {std::string(1, static_cast<char>(GetFieldType(h, 0)))};
        const auto add = [&](int number) { facts.push_back(std::to_string(number)); };
        add(static_cast<int>(GetHighLen(h, 0)));
        add(GetLowLen(h, 0));
        facts.push_back(GetTypeName(h, 0));
        for (h->DateFormat = 0; h->DateFormat < 2; ++h->DateFormat) add(GetLenView(h, 0));
        h->DateFormat = 0;
        add(GetLenMax(h, 0));
        facts.push_back(std::string(1, FieldBlankChar(h, 0)));
        for (const int flag : {ValidField(row[0][0]), if_digit_type(h, 0), if_memo_type(h, 0)})
            add(flag);
        facts.emplace_back(kClasses[static_cast<std::size_t>(GetFieldClass(h, 0))]);
        EXPECT_EQ(facts, row);
        EXPECT_EQ(h->FirstMemoField, row[10] == "1" ? 0 : -1) << row[0];
        EXPECT_EQ(GetAllLen(h, 0), h->Fields[1].Offset - 1) << row[0];
        setRecord(h, std::string(600, 'x'));
        ClearRecord(h);
        EXPECT_EQ(recordOf(h), " " + std::string(GetLenField(h, 0), row[7][0]) + padded("", 9));
    }
    EXPECT_EQ(FieldBlankChar(OneField({"M", "10", "0"}, 0xE5).h.get(), 0), 0)
        << "a binary reference";
}

/// The letters in the first column of the table of field types in the documents.
std::string documentedLetters() {
    const std::string text = readAll(MIRA_SAMPLES_DIR "/../docs/formats.md");
    std::string letters;
    std::size_t line = text.find("\n|---", text.find("\n## Field types\n")) + 1;
    while (text[line = text.find('\n', line) + 1] == '|') {
        for (std::size_t i = line + 2; text[i] != '|'; ++i) letters += text[i];
    }
    return letters;
}

TEST(Types, EveryAcceptedLetterHasAClassACaseAndALineInTheDocuments) {
    const std::string documented = documentedLetters();
    const auto all = cases("types");
    for (int c = 1; c < 256; ++c) {
        const char letter = static_cast<char>(c);
        const bool classed = std::any_of(all.begin(), all.end(), [letter](const auto& row) {
            return row[0][0] == letter && row.back() != "None";
        });
        EXPECT_TRUE(ValidField(letter) == 0 || classed) << letter;
        if (c > ' ' && c != ',') {
            EXPECT_EQ(documented.find(letter) != std::string::npos, ValidField(letter) != 0)
                << letter;
        }
    }
}

TEST(Types, FlavoursAndFlags) {
    constexpr u32 none = 0xFFFFFFFF;
    const struct {
        std::string versions;
        const char* name;
        u32 kind, memos;
        Flavour flavour = kPlain;
    } rows[] = {{"\x03\x83", "dBase III", 0, 0},
                {"\x04\x8B", "dBase IV", 2, 2},
                {"\x8C", "level 7", 7, 2},
                {"\xF5", "FoxPro", 1, 1},
                {"\x30\x31\x32", "Visual FoxPro", 3, 1},
                {"\xE5", "SMT", 4, 4},
                {"\x02\x42\x43\x62\x63\x82\x8A\xCA\xCB\xF4\xFA\xFB", "dBase family", none, none},
                {"\x01", "dBase III", 0, 0},  // repaired
                {"\x04", "level 7", 7, 2, kLevel7},
                {"\xFB", "level 7", 7, none, kLevel7}};
    for (const auto& row : rows) {
        for (const char version : row.versions) {
            OneField f({"C", "5", "0"}, static_cast<u8>(version), row.flavour);
            DbfBase* const h = f.h.get();
            EXPECT_STREQ(GetFlavourName(h), row.name) << int(version);
            EXPECT_EQ(GetFlavourKind(h), row.kind) << int(version);
            EXPECT_EQ(GetMemoKind(h), row.memos) << int(version);
            const bool level7 = row.flavour != kPlain;
            std::string bytes = readAll(h->FileName);
            bytes[(level7 ? 68 + 48 : 32 + 32) + 18] = '\x86';
            overwrite(h->FileName, bytes);
            EXPECT_EQ(GetFieldFlags(h, 1), level7 ? 0u : 0x86u);
            EXPECT_EQ(GetFieldFlags(h, 0) + GetFieldFlags(h, 2) + GetFieldFlags(h, -1), 0u);
        }
    }
}

TEST(Types, DaysAndDates) {
    using namespace std::chrono;
    for (i32 number = 1721060; number <= 5373484; number += 97) {
        int y = 0, m = 0, d = 0;
        ASSERT_EQ(GetDayDate(number, &y, &m, &d), 1);
        const year_month_day date{sys_days{days{number - 2440588}}};
        ASSERT_EQ(date, (year{y} / m / d));
        ASSERT_EQ(GetDayNumber(y, m, d), number);
    }
    int none = 0;
    EXPECT_EQ(GetDayDate(1721059, &none, &none, &none), 0);
    EXPECT_EQ(GetDayDate(5373485, &none, &none, &none), 0);
    EXPECT_EQ(GetDayNumber(2023, 2, 29) + GetDayNumber(-1, 1, 1) + GetDayNumber(10000, 1, 1), 0);
}

double readInt(DbfBase* h, int field) { return static_cast<i32>(GetInt(h, field)); }

constexpr struct {
    const char* types;
    double (*read)(DbfBase*, int);
} kReaders[] = {{"N", GetNumeric}, {"F", GetFloat},          {"I+", readInt},
                {"B", GetDouble},  {"O", GetInvertedDouble}, {"Y", GetCurrency}};

TEST(Types, ShowAndRead) {
    for (const auto& row : cases("values")) {
        SCOPED_TRACE(row[0] + row[1] + " " + row[4]);
        OneField f(row);
        DbfBase* const h = f.put(row[3]);
        h->DateFormat = 1;
        const double value = std::strtod(row[5].c_str(), nullptr);
        EXPECT_EQ(GetStr(h, 0), row[4]);
        EXPECT_EQ(shown(current(h), 0), row[4]);
        EXPECT_EQ(number(current(h), 0), value);
        EXPECT_EQ(GetValue(h, 0), value);
        EXPECT_EQ(GetSign(h, 0), (value > 0) - (value < 0));
        for (const auto& [types, read] : kReaders) {
            if (std::strchr(types, row[0][0]) == nullptr) continue;
            EXPECT_EQ(read(h, 0), value);
        }
    }
}

void setInt(DbfBase* h, int field, double value) {
    SetInt(h, field, static_cast<u32>(value > 2147483647 ? 0 : static_cast<i32>(value)));
}

/// SetValue by the writer of one type, for numbers or texts.
constexpr struct {
    const char* types;
    void (*setNumber)(DbfBase*, int, double);
    void (*setText)(DbfBase*, int, const char*);
} kWriters[] = {{"NF", SetFloat, nullptr},   {"I+", setInt, nullptr},
                {"B", SetDouble, nullptr},   {"O", SetInvertedDouble, nullptr},
                {"Y", SetCurrency, nullptr}, {"CQV", nullptr, SetString},
                {"D", nullptr, SetDateS},    {"T@", nullptr, SetDateTimeS}};

TEST(Types, Store) {
    for (const auto& row : cases("stores")) {
        SCOPED_TRACE(row[0] + row[1] + " " + row[3] + " " + row[4]);
        OneField f(row);
        const double number = std::strtod(row[4].c_str(), nullptr);
        DbfBase* const h = f.put(std::string(600, '.'));
        h->DateFormat = 1;
        EXPECT_EQ(stored(current(h), 0, row[3], number), row[5]);
        SetValue(h, 0, row[3].c_str(), number);
        EXPECT_EQ(recordOf(h), " " + row[5] + repeat(".", 9));
        for (const auto& [types, setNumber, setText] : kWriters) {
            if (std::strchr(types, row[0][0]) == nullptr) continue;
            f.put(std::string(600, '.'));
            if (setNumber != nullptr) setNumber(h, 0, number);
            for (const char* text : {row[3].c_str(), static_cast<const char*>(nullptr)})
                if (setText != nullptr) setText(h, 0, text);
            EXPECT_EQ(recordOf(h), " " + row[5] + repeat(".", 9));
        }
    }
}

TEST(Types, TextsFlagsAndReferences) {
    OneField c({"C", "6", "0"}), l({"L", "1", "0"}), n({"N", "5", "1"}), memo({"M", "10", "0"}),
        smt({"M", "10", "0"}, 0xE5);
    c.put("  AB  ");
    for (const char* expected : {"  AB  ", "  AB", "AB  ", "AB", "  AB  "}) {
        EXPECT_STREQ(GetString(c.h.get(), 0), expected) << c.h->TrimMode;
        ++c.h->TrimMode;
    }
    EXPECT_STREQ(DStrTrim(c.h.get(), 3), "AB");
    EXPECT_EQ(GetTimeStamp(c.h.get(), 0), 0xFFFFFFFF);
    SetNumeric(n.h.get(), 0, 2.6);
    EXPECT_EQ(n.bytes(), "    3");
    for (const char letter : "TtYyFfNn? "s)
        EXPECT_EQ(GetBool(l.put({letter}), 0), "TtYy"s.find(letter) != std::string::npos) << letter;
    for (const u32 flag : {0u, 1u, 256u})
        EXPECT_EQ(SetBool(l.h.get(), 0, flag), flag == 1 ? 'T' : 'F');
    EXPECT_EQ(SetLogical(l.h.get(), 0, 'y'), 'Y');
    EXPECT_EQ(l.bytes(), "Y");
    memo.h->MemoAsNumber = smt.h->MemoAsNumber = 1;
    EXPECT_STREQ(GetStr(memo.put("        12"), 0), "        12");
    EXPECT_STREQ(GetStr(smt.put("\0\0"s + le(100, 4) + le(16, 4)), 0), "   16   100");
    for (const int none : {-1, 2, 2048}) {
        EXPECT_EQ(GetStr(c.h.get(), none) == nullptr, none > 0);
        EXPECT_EQ(GetValue(c.h.get(), none), 0.0);
        SetValue(c.h.get(), none, "xxx", 1);
        EXPECT_EQ(SetBool(c.h.get(), none, 1), 0);
        EXPECT_EQ(recordOf(c.h.get()).substr(0, 7), "   AB  ");
    }
}

/// A type, length, and whether the table is another maker's of level 7; the bytes, their day and
/// milliseconds, or nothing.
TEST(Types, ExactMoments) {
    for (const auto& row : cases("moments")) {
        SCOPED_TRACE(row[0] + row[1] + " " + row[3]);
        const bool foreign = row[2] == "1";
        OneField f({row[0], row[1], "0"}, foreign ? 0x8C : 0x30, foreign ? kForeignLevel7 : kPlain);
        i32 day = 0, milliseconds = 0;
        DbfBase* const h = f.put(row[3] + repeat("x", 9));
        EXPECT_EQ(GetMoment(h, 0, &day, &milliseconds), row[4].empty() ? 0 : 1);
        EXPECT_EQ(day == 0 ? "" : std::to_string(day), row[4]);
        EXPECT_EQ(day == 0 ? "" : std::to_string(milliseconds), row[5]);
        if (day == 0) continue;
        f.put(std::string(GetLenField(h, 0), '?'));
        EXPECT_EQ(SetMoment(h, 0, day, milliseconds), 1);
        EXPECT_EQ(f.bytes(), row[3]);
    }
}

TEST(Types, ExactValuesThatAFieldCannotHold) {
    constexpr i32 day = 2460375, lastDay = 5373484;
    OneField digits({"T", "14", "0"}), binary({"@", "8", "0"}), small({"T", "7", "0"}),
        date({"D", "8", "0"}), foreign({"@", "8", "0"}, 0x8C, kForeignLevel7),
        currency({"Y", "8", "0"}), narrow({"Y", "7", "0"});
    i32 got = -1;
    i64 units = -1;
    const struct {
        OneField& f;
        i32 day, milliseconds;
    } refused[] = {{digits, day, 1},      {digits, lastDay + 1, 0}, {binary, 1721059, 0},
                   {binary, day, -1},     {binary, day, 86400000},  {small, day, 0},
                   {foreign, 1721425, 0}, {date, day, 0},           {currency, day, 0}};
    for (const auto& [f, wanted, milliseconds] : refused) {
        DbfBase* const h = f.put(std::string(40, '?'));
        EXPECT_EQ(SetMoment(h, 0, wanted, milliseconds), 0);
        EXPECT_EQ(recordOf(h), " " + std::string(recordOf(h).size() - 1, '?'));
    }
    for (const int none : {-1, 1, 2}) {
        DbfBase* const h = binary.h.get();
        EXPECT_EQ(GetMoment(h, none, &got, &got) + SetMoment(h, none, day, 0), 0);
        EXPECT_EQ(GetCurrencyUnits(h, none, &units) + SetCurrencyUnits(h, none, 1), 0);
        EXPECT_EQ(GetFieldClass(h, none), none == 1 ? FieldClass::Text : FieldClass::None);
    }
    EXPECT_EQ(SetCurrencyUnits(narrow.h.get(), 0, 1), 0);
    EXPECT_EQ(GetCurrencyUnits(date.h.get(), 0, &units), 0);
    EXPECT_EQ(units, -1);
    for (const i64 value : {i64{45600}, i64{-1}, INT64_MIN, INT64_MAX}) {
        EXPECT_EQ(SetCurrencyUnits(currency.h.get(), 0, value), 1);
        EXPECT_EQ(currency.bytes(), le(static_cast<u64>(value), 8));
        EXPECT_EQ(GetCurrencyUnits(currency.h.get(), 0, &units), 1);
        EXPECT_EQ(units, value);
    }
}

TEST(Types, IntegersAndMomentsOfLevel7) {
    OneField own({"I", "4", "0"}, 0x8C, kLevel7), foreign({"I", "4", "0"}, 0x8C, kForeignLevel7),
        moment({"@", "8", "0"}, 0x8C, kForeignLevel7);
    EXPECT_EQ(GetInt(own.put("\x80\0\0\5"s), 0), 5u);
    EXPECT_EQ(GetValue(foreign.put("\x80\0\0\5"s), 0), 5.0);
    for (OneField* f : {&own, &foreign}) {
        SetInt(f->h.get(), 0, static_cast<u32>(-1));
        EXPECT_EQ(f->bytes(), "\x7F\xFF\xFF\xFF");
    }
    EXPECT_EQ(GetValue(own.h.get(), 0), 2147483647.0) << "the top bit is no part of the value";
    EXPECT_EQ(GetValue(foreign.h.get(), 0), -1.0);
    EXPECT_EQ(GetTm(moment.put("\x42\xCC\x41\x8B\xA9\x9A\0\0"s), 0).tm_year, 1970);
    SetTimeStamp(moment.put("........"), 0, 1970, 1, 1, 0, 0, 0);
    EXPECT_EQ(moment.bytes(), "\x42\xCC\x41\x8B\xA9\x9A\0\0"s);
}

TEST(Numbers, TheOwnReaderReadsAsTheStandardLibraryDoes) {
    const auto same = [](const std::string& text) {
        for (const auto format : {std::chars_format::general, std::chars_format::fixed}) {
            double own = 7, expected = 7;
            const char* const first = text.data();
            const char* const last = first + text.size();
            const auto mine = readRealPlainly(first, last, own, format);
            const auto theirs = readReal(first, last, expected, format);
            EXPECT_EQ(mine.ec, theirs.ec) << text;
            EXPECT_EQ(mine.ptr, theirs.ptr) << text;
            EXPECT_EQ(std::bit_cast<u64>(own), std::bit_cast<u64>(expected)) << text;
        }
    };
    for (const char* text : {"",
                             " 1",
                             "-",
                             ".",
                             "-.",
                             "5.",
                             ".5",
                             "-0",
                             "1e",
                             "1e+",
                             "1e5",
                             "1E-5x",
                             "1e400",
                             "-1e400",
                             "1e-400",
                             "0e-400",
                             "4.9e-324",
                             "1..2",
                             "1,5",
                             "9007199254740993",
                             "0.1000000000000000055511151231257827",
                             "123456789012345678"}) {
        same(text);
    }
    same(std::string(400, '9') + ".5");
    same("0." + std::string(400, '0') + "1e390");
    std::mt19937 random(20261126);
    constexpr std::string_view kLetters = "0123456789012345678901234567890123456789..-e+E";
    for (int round = 0; round < 20000; ++round) {
        std::string text(random() % 30, '0');
        for (char& c : text) c = kLetters[random() % kLetters.size()];
        same(text);
    }
}

TEST(Numbers, CurrencyComesBackUnchanged) {
    OneField from({"Y", "8", "0"}), to({"Y", "8", "0"});
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

TEST(Dates, FormatsAndLimits) {
    OneField d({"D", "8", "0"}), t({"T", "14", "0"}), binary({"T", "8", "0"});
    DbfBase* const h = d.h.get();
    const std::string formats[] = {"20240305", "05/03/2024", "03/05/2024", "2024/03/05",
                                   "20240305"};
    EXPECT_EQ(SetDateSeparator(h, '/'), '/');
    for (h->DateFormat = 0; h->DateFormat < 5; ++h->DateFormat) {
        SetDate(d.put("        "), 0, 2024, 3, 5);
        EXPECT_EQ(GetStr(h, 0), formats[h->DateFormat]);
        SetDateS(d.put("        "), 0, formats[h->DateFormat].c_str());
        EXPECT_EQ(d.bytes(), "20240305");
    }
    EXPECT_EQ(SetDateSeparator(h, 0), '.');
    EXPECT_STREQ(h->DateTimeFormats[1], "%02d.%02d.%04d %02d:%02d:%02d");
    h->DateFormat = 0;
    SetDateS(h, 0, "05.03.2024");
    EXPECT_EQ(d.bytes(), "00050320") << "not as format 0 has it";
    SetDate(d.put("20240305"), 0, 2024, 13, 1);
    EXPECT_EQ(d.bytes(), "20240305") << "no such month";
    SetDateTime(t.put("20240305140709"), 0, 12024, 1, 1, 0, 0, 0);
    EXPECT_EQ(t.bytes(), "20240305140709") << "too long a year";
    setenv("TZ", "UTC-3", 1);
    SetDateTimeI(t.h.get(), 0, 86399);
    EXPECT_EQ(t.bytes(), "19700102025959") << "local time";
    unsetenv("TZ");
    for (const int year : {2000, 2024, 0, 1900, 2023})
        EXPECT_EQ(if_leap_year(year), year % 4 == 0 && year != 1900);
    const std::pair<u64, int> days[] = {{0, -1},      {1721059, -1}, {1721060, 0},
                                        {5373484, 0}, {5373485, -1}, {0x80000000, -1}};
    for (const auto& [day, valid] : days)
        EXPECT_EQ(GetDateTime(binary.put(le(day, 8)), 0), valid) << day;
    for (const i32 day : {1721059, 0, -400000000, -2147483647 - 1}) {
        const std::tm early = GetDT(binary.put(le(static_cast<u32>(day), 8)), 0);
        EXPECT_EQ(early.tm_mday, std::max(i64{day} - 1721059, -(i64{1} << 31)));
    }
    std::tm time = GetDT(binary.put(le(5373484, 8)), 0);
    EXPECT_EQ(time.tm_year, 9999);
    EXPECT_EQ(mymktime(&time), 0);
    time.tm_mday = 32;
    EXPECT_EQ(mymktime(&time), -1);
}

TEST(Dates, EveryDay) {
    OneField d({"T", "8", "0"}), digits({"T", "14", "0"});
    int year = 0, month = 1, day = 1;
    for (u32 number = 1721060; number <= 5373484; ++number) {
        const std::tm got = GetDT(d.put(le(number, 8)), 0);
        ASSERT_TRUE(got.tm_year == year && got.tm_mon == month - 1 && got.tm_mday == day) << number;
        SetDate(d.h.get(), 0, year, month, day);
        ASSERT_EQ(d.bytes(), le(number, 8));
        i32 exact = 0, milliseconds = 1;
        ASSERT_EQ(SetMoment(digits.h.get(), 0, static_cast<i32>(number), 0), 1);
        ASSERT_EQ(digits.bytes(), printed("%04d%02d%02d000000", year, month, day));
        ASSERT_EQ(GetMoment(digits.h.get(), 0, &exact, &milliseconds), 1);
        ASSERT_TRUE(exact == static_cast<i32>(number) && milliseconds == 0) << number;
        const bool leap = year % 400 == 0 || (year % 4 == 0 && year % 100 != 0);
        const int last = month == 2 ? 28 + leap : 30 + (month + month / 8) % 2;
        day = day < last ? day + 1 : 1;
        if (day == 1) month = month < 12 ? month + 1 : 1;
        if (day == 1 && month == 1) ++year;
    }
    EXPECT_EQ(year, 10000);
}

}  // namespace
}  // namespace test
