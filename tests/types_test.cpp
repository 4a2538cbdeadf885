// Field types: what is asked about each, shown and stored; the readers and writers of one type.
#include <cmath>
#include <cstring>

#include "support.h"

namespace test {
namespace {

/// A table whose first field is given by a row's type, length and decimals.
struct OneField {
    explicit OneField(const std::vector<std::string>& row, unsigned char version = 0x03,
                      Flavour flavour = kPlain)
        : h(openLayout(folder,
                       {version,
                        {{"FIELD", row[0][0], number(row[1]), number(row[2])}, {"NEXT", 'C', 9}},
                        {},
                        flavour})) {}

    static unsigned number(const std::string& text) {
        return static_cast<unsigned>(std::stoi(text));
    }
    std::string bytes() const { return recordOf(h.get()).substr(1, GetLenField(h.get(), 0)); }
    DbfBase* put(const std::string& bytes) {
        setRecord(h.get(), " " + bytes);
        return h.get();
    }

    Folder folder;
    Table h;
};

TEST(Types, Facts) {
    for (const auto& row : cases("types")) {
        SCOPED_TRACE(row[0] + row[1]);
        const OneField f(row);
        DbfBase* const h = f.h.get();
        EXPECT_EQ(GetFieldType(h, 0), row[0][0]);
        EXPECT_EQ(GetTypeName(h, 0), row[3]);
        for (h->DateFormat = 0; h->DateFormat < 2; ++h->DateFormat)
            EXPECT_EQ(std::to_string(GetLenView(h, 0)), row[h->DateFormat == 0 ? 4 : 5]);
        h->DateFormat = 0;
        EXPECT_EQ(std::to_string(GetLenMax(h, 0)), row[6]);
        EXPECT_EQ(FieldBlankChar(h, 0), row[7][0]);
        setRecord(h, std::string(600, 'x'));
        ClearRecord(h);
        EXPECT_EQ(recordOf(h), " " + std::string(GetLenField(h, 0), row[7][0]) + padded("", 9));
        EXPECT_EQ(std::to_string(ValidField(row[0][0])), row[8]);
        EXPECT_EQ(std::to_string(if_digit_type(h, 0)), row[9]);
        EXPECT_EQ(std::to_string(if_memo_type(h, 0)), row[10]);
        EXPECT_EQ(h->FirstMemoField, row[10] == "1" ? 0 : -1);
        EXPECT_EQ(std::to_string(GetHighLen(h, 0)), row[1]);
        EXPECT_EQ(std::to_string(GetLowLen(h, 0)), row[2]);
        EXPECT_EQ(GetAllLen(h, 0), h->Fields[1].Offset - 1);
    }
    const OneField smt({"M", "10", "0"}, 0xE5);
    EXPECT_EQ(FieldBlankChar(smt.h.get(), 0), 0) << "a binary reference";
}

/// GetValue by the reader of one type.
double readByType(DbfBase* h, char type) {
    switch (type) {
        case 'N':
            return GetNumeric(h, 0);
        case 'F':
            return GetFloat(h, 0);
        case 'I':
        case '+':
            return static_cast<i32>(GetInt(h, 0));
        case 'B':
            return GetDouble(h, 0);
        case 'O':
            return GetInvertedDouble(h, 0);
        case 'Y':
            return GetCurrency(h, 0);
        default:
            return 0;
    }
}

TEST(Types, ShowAndRead) {
    for (const auto& row : cases("values")) {
        SCOPED_TRACE(row[0] + " " + row[4]);
        OneField f(row);
        DbfBase* const h = f.put(row[3]);
        h->DateFormat = 1;
        const double value = std::strtod(row[5].c_str(), nullptr);
        EXPECT_EQ(GetStr(h, 0), row[4]);
        EXPECT_EQ(shown(current(h), 0), row[4]);
        if (row[0] == "B" && row[1] == "10") continue;  // eight bytes of a reference
        EXPECT_EQ(GetValue(h, 0), value);
        EXPECT_EQ(GetSign(h, 0), (value > 0) - (value < 0));
        EXPECT_EQ(readByType(h, row[0][0]), value);
    }
}

/// SetValue by the writer of one type.
void storeByType(DbfBase* h, const std::string& text, double number) {
    switch (h->Fields[0].Type) {
        case 'N':
            return (h->Fields[0].Decimals == 0 ? SetNumeric : SetFloat)(h, 0, number);
        case 'F':
            return SetFloat(h, 0, number);
        case 'I':
        case '+':
            return SetInt(
                h, 0,
                static_cast<u32>(std::fabs(number) > 2147483647 ? 0 : static_cast<i32>(number)));
        case 'B':
            return SetDouble(h, 0, number);
        case 'O':
            return SetInvertedDouble(h, 0, number);
        case 'Y':
            return SetCurrency(h, 0, number);
        case 'L':
            SetLogical(h, 0, text[0]);
            return;
        case 'D':
            return SetDateS(h, 0, text.c_str());
        case 'T':
        case '@':
            return SetDateTimeS(h, 0, text.c_str());
        case 'C':
        case 'Q':
        case 'V':
            return SetString(h, 0, text.c_str());
        default:
            return;
    }
}

TEST(Types, Store) {
    for (const auto& row : cases("stores")) {
        SCOPED_TRACE(row[0] + row[1] + " " + row[3] + " " + row[4]);
        OneField f(row);
        const double number = std::strtod(row[4].c_str(), nullptr);
        DbfBase* const h = f.put(std::string(600, '.'));
        h->DateFormat = 1;
        EXPECT_EQ(stored(current(h), 0, row[3], number), row[5]);
        SetValue(h, 0, row[3].c_str(), number);
        EXPECT_EQ(f.bytes(), row[5]);
        EXPECT_EQ(recordOf(h).substr(1 + row[5].size()), repeat(".", 9));
        storeByType(f.put(std::string(600, '.')), row[3], number);
        EXPECT_EQ(f.bytes(), row[5]);
    }
}

TEST(Types, TrimmingFlagsAndReferences) {
    OneField c({"C", "6", "0"});
    c.put("  AB  ");
    for (const char* expected : {"  AB  ", "  AB", "AB  ", "AB", "  AB  "}) {
        EXPECT_STREQ(GetString(c.h.get(), 0), expected) << c.h->TrimMode;
        ++c.h->TrimMode;
    }
    EXPECT_STREQ(DStrTrim(c.h.get(), 3), "AB");
    OneField l({"L", "1", "0"});
    for (const char letter : "TtYyFfNn? "s)
        EXPECT_EQ(GetBool(l.put({letter}), 0), "TtYy"s.find(letter) != std::string::npos) << letter;
    for (const u32 flag : {0u, 1u, 256u}) {
        EXPECT_EQ(SetBool(l.h.get(), 0, flag), flag == 1 ? 'T' : 'F');
        EXPECT_EQ(l.bytes(), flag == 1 ? "T" : "F");
    }
    OneField memo({"M", "10", "0"}), smt({"M", "10", "0"}, 0xE5);
    memo.h->MemoAsNumber = smt.h->MemoAsNumber = 1;
    EXPECT_STREQ(GetStr(memo.put("        12"), 0), "        12");
    EXPECT_STREQ(GetStr(smt.put("\0\0"s + le(100, 4) + le(16, 4)), 0), "   16   100");
    EXPECT_EQ(GetTimeStamp(c.h.get(), 0), 0xFFFFFFFF);
}

TEST(Types, FieldNumbersThatNameNoField) {
    OneField c({"C", "6", "0"});
    DbfBase* const h = c.put("abcdef");
    for (const int field : {-1, 2, 2048}) {
        EXPECT_EQ(GetStr(h, field) == nullptr, field > 0);
        EXPECT_EQ(GetValue(h, field), 0.0);
        EXPECT_EQ(GetInt(h, field), 0u);
        EXPECT_EQ(GetMemo(h, field), nullptr);
        SetValue(h, field, "xxx", 1);
        EXPECT_EQ(SetBool(h, field, 1), 0);
        EXPECT_EQ(SetMemo(h, static_cast<u32>(field), "xxx"), 0);
        EXPECT_EQ(recordOf(h).substr(0, 7), " abcdef");
    }
    SetValue(h, 0, nullptr, 1);
    EXPECT_EQ(c.bytes(), "abcdef");
}

TEST(Types, IntegersOfLevel7) {
    OneField own({"I", "4", "0"}, 0x8C, kLevel7), foreign({"I", "4", "0"}, 0x8C, kForeignLevel7);
    EXPECT_EQ(GetInt(own.put("\x80\0\0\5"s), 0), 5u);
    EXPECT_EQ(GetValue(foreign.put("\x80\0\0\5"s), 0), 5.0);
    for (OneField* f : {&own, &foreign}) {
        SetInt(f->h.get(), 0, static_cast<u32>(-1));
        EXPECT_EQ(f->bytes(), "\x7F\xFF\xFF\xFF");
    }
    EXPECT_EQ(GetValue(own.h.get(), 0), 2147483647.0) << "the top bit is no part of the value";
    EXPECT_EQ(GetValue(foreign.h.get(), 0), -1.0);
}

TEST(Dates, FormatsAndSeparators) {
    OneField d({"D", "8", "0"}), t({"T", "14", "0"});
    const std::string formats[] = {"20240305", "05/03/2024", "03/05/2024", "2024/03/05",
                                   "20240305"};
    EXPECT_EQ(SetDateSeparator(d.h.get(), '/'), '/');
    for (int format = 0; format < 5; ++format) {
        d.h->DateFormat = format;
        SetDate(d.put("        "), 0, 2024, 3, 5);
        EXPECT_EQ(d.bytes(), "20240305");
        EXPECT_EQ(GetStr(d.h.get(), 0), formats[format]);
        SetDateS(d.put("        "), 0, formats[format].c_str());
        EXPECT_EQ(d.bytes(), "20240305") << format;
    }
    EXPECT_EQ(SetDateSeparator(d.h.get(), 0), '.');
    EXPECT_STREQ(d.h->DateTimeFormats[1], "%02d.%02d.%04d %02d:%02d:%02d");
    d.h->DateFormat = 0;
    SetDateS(d.h.get(), 0, "05.03.2024");
    EXPECT_EQ(d.bytes(), "00050320") << "not as format 0 has it";
    d.h->DateFormat = 3;
    for (const auto& [format, text] :
         {std::pair("%04d/%02d/%02d", "-123/03/05"), {"%d~%2d~%x", "-123~ 3~5"}}) {
        std::strcpy(d.h->DateFormats[3], format);
        EXPECT_STREQ(GetStr(d.put("-1230305"), 0), text);
    }
    SetDate(d.put("20240305"), 0, 2024, 13, 1);
    SetDateTime(t.put("20240305140709"), 0, 12024, 1, 1, 0, 0, 0);
    EXPECT_EQ(d.bytes() + t.bytes(), "2024030520240305140709") << "no such month; too long a year";
    SetDateTime(t.h.get(), 0, 2147483647, 12, 2147483647, 2147483647, 2147483647, 2147483647);
    setenv("TZ", "UTC-3", 1);
    SetDateTimeI(t.h.get(), 0, 86399);
    EXPECT_EQ(t.bytes(), "19700102025959") << "local time";
    unsetenv("TZ");
}

TEST(Dates, CalendarCountsEveryDay) {
    OneField f({"T", "8", "0"});
    for (int day = 1721060, step = 1; day <= 5373484; day += step, step = step % 29 + 1) {
        const Row row = current(f.put(le(static_cast<u64>(day), 4) + le(0, 4)));
        const Moment m = moment(row, 0);
        const std::tm tm = GetDT(f.h.get(), 0);
        ASSERT_EQ(std::tuple(tm.tm_year, tm.tm_mon, tm.tm_mday),
                  std::tuple(m.year, m.month, m.day));
        ASSERT_EQ(GetDateTime(f.h.get(), 0), 0);
        SetDate(f.put("........"), 0, m.year, m.month + 1, m.day);
        ASSERT_EQ(f.bytes(), le(static_cast<u64>(day), 4) + le(0, 4));
    }
    for (const int year : {2000, 2024, 0}) EXPECT_EQ(if_leap_year(year), 1) << year;
    for (const int year : {1900, 2023}) EXPECT_EQ(if_leap_year(year), 0) << year;
    for (const u64 outside : {u64{0}, u64{1721059}, u64{5373485}, u64{0x80000000}}) {
        EXPECT_EQ(GetDateTime(f.put(le(outside, 8)), 0), -1) << outside;
    }
}

TEST(Dates, TimestampsOfOtherMakersCountMilliseconds) {
    OneField f({"@", "8", "0"}, 0x8C, kForeignLevel7);
    DbfBase* const h = f.put("\x42\xCC\x41\x8B\xA9\x9A\0\0"s);
    h->DateFormat = 3;
    EXPECT_STREQ(GetStr(h, 0), "1970.01.01 00:00:00");
    EXPECT_EQ(GetTm(h, 0).tm_year, 1970);
    SetTimeStamp(f.put("........"), 0, 1970, 1, 1, 0, 0, 0);
    EXPECT_EQ(f.bytes(), "\x42\xCC\x41\x8B\xA9\x9A\0\0"s);
}

TEST(Numbers, OrderedDoublesCompareAsBytes) {
    OneField f({"O", "8", "0"});
    std::string previous;
    for (const double v : {-HUGE_VAL, -1e300, -1.5, -1e-300, 0.0, 1e-300, 1.0, 1.5, 1e300}) {
        SetInvertedDouble(f.h.get(), 0, v);
        EXPECT_EQ(GetInvertedDouble(f.h.get(), 0), v);
        EXPECT_LT(previous, f.bytes());
        previous = f.bytes();
    }
}

}  // namespace
}  // namespace test
