// Creating tables: whole files compared with bytes laid out by hand.
#include "support.h"

namespace {

using namespace mira;
using namespace test;

DbfField field(const char* name, char type, int length) {
    DbfField f{};
    CreateField(&f, name, type, length);
    return f;
}

TEST(Create, WritesEveryFlavour) {
    const struct {
        u32 kind, version, memoLength;
        const char* memoName;
    } cases[] = {{0, 0x83, 10, "t.dbt"}, {1, 0xF5, 10, "t.fpt"}, {2, 0x8B, 10, "t.dbt"},
                 {3, 0x30, 4, "t.fpt"},  {4, 0xE5, 10, "t.smt"}, {7, 0x8C, 10, "t.dbt"},
                 {5, 0x03, 10, "t.dbv"}};
    const std::string name = "A_NAME_OF_THIRTY_TWO_CHARACTERS!";
    for (const auto& c : cases) {
        for (const bool memo : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.kind << (memo ? " with memo" : ""));
            const bool level7 = c.kind == 7;
            const TempDir dir;
            const std::string path = dir.file("t.dbf");
            std::vector<DbfField> fields{field("C300", 'C', 300), field(name.c_str(), 'N', 5)};
            fields[1].WorkArea = 9;
            if (memo) fields.push_back(field("NOTE", 'M', 77));
            const auto count = static_cast<u32>(fields.size());
            ASSERT_EQ(
                CreateDatabase(path.c_str(), fields.data(), static_cast<int>(count), c.kind, 64, 1),
                1);

            const u32 size =
                (level7 ? 68 + 48 * count : 32 + 32 * count) + 1 + (c.kind == 3 ? 263 : 0);
            std::string expected = le(memo ? c.version : 3, 1) + today(true) + le(0, 4) +
                                   le(size, 2) + le(306 + (memo ? c.memoLength : 0), 2);
            expected.resize(level7 ? 68 : 32, 0);
            if (memo && c.kind == 3) expected.replace(28, 2, "\3\3");
            for (const auto& [text, type, offset, length, area] :
                 {std::tuple{"C300"s, 'C', 1u, 300u, 0}, std::tuple{name, 'N', 301u, 5u, 9},
                  std::tuple{"NOTE"s, 'M', 306u, c.memoLength, 0}}) {
                if (type == 'M' && !memo) break;
                expected += level7
                                ? padded(text.substr(0, 31), 32, 0) + type + '\0' + le(length, 2) +
                                      le(offset, 2) + std::string(10, 0)
                                : padded(text.substr(0, 10), 11, 0) + type + le(offset, 4) +
                                      le(length, 4) + static_cast<char>(area) + std::string(11, 0);
            }
            EXPECT_EQ(readAll(path), padded(expected + '\x0D', size, 0));
            EXPECT_EQ(std::filesystem::exists(dir.file(c.memoName)), memo);
            EXPECT_EQ(fields.back().Offset, memo ? 306 : 301);
            const Table h(OpenBase(path.c_str()));
            ASSERT_NE(h, nullptr);
            EXPECT_STREQ(h->Fields[1].Name, name.substr(0, level7 ? 31 : 10).c_str());
            EXPECT_EQ(AppendBlank(h.get(), 1), 1);
        }
    }
}

TEST(Create, ForcesLengthsOfFixedSizeTypes) {
    const struct {
        char type;
        int length, lengths[3];  // for kinds 0, 2 and 3
    } cases[] = {
        {'D', 999, {8, 8, 8}},       {'Y', 1, {8, 8, 8}},        {'I', 9, {4, 4, 4}},
        {'+', 9, {4, 4, 4}},         {'L', 300, {1, 1, 1}},      {'T', 14, {14, 14, 14}},
        {'T', 8, {14, 14, 8}},       {'@', 270, {14, 14, 8}},    {'M', 3, {10, 10, 4}},
        {'G', 300, {10, 10, 4}},     {'B', 10, {10, 10, 10}},    {'B', 8, {8, 8, 8}},
        {'O', 4, {8, 10, 8}},        {'B', 260, {264, 10, 264}}, {'C', 300, {300, 300, 300}},
        {'N', 517, {517, 517, 517}}, {'W', 4, {4, 4, 4}}};
    const TempDir dir;
    const std::string path = dir.file("t.dbf");
    for (const auto& c : cases) {
        for (const u32 kind : {0u, 2u, 3u}) {
            DbfField f = field("F", c.type, c.length);
            const int expected = c.lengths[kind == 0 ? 0 : kind - 1];
            EXPECT_EQ(CreateDatabase(path.c_str(), &f, 1, kind, 0, 0), 1);
            EXPECT_EQ(f.Length + 256 * f.Decimals, expected) << c.type << c.length;
            EXPECT_EQ(readAll(path).substr(48, 2), le(static_cast<u32>(expected), 2));
            const bool memo = c.type == 'M' || c.type == 'G' || (expected == 10 && c.type != 'C');
            EXPECT_EQ(readAll(path)[0] != '\x03', memo) << c.type;
        }
    }
}

TEST(Create, RefusesWithoutTouchingTheFile) {
    const TempDir dir;
    const std::string path = dir.file("t.dbf");
    std::vector<DbfField> fields(2046, field("F", 'C', 1));
    const auto create = [&](const std::string& to, int count, u32 kind) {
        return static_cast<int>(CreateDatabase(to.c_str(), fields.data(), count, kind, 0, 1));
    };
    writeAll(path, "kept");
    EXPECT_EQ(create(path, -1, 0), 0);
    EXPECT_EQ(create(path, 2046, 3), 0) << "header of 65768 bytes";
    EXPECT_EQ(fields[1].Offset, 0);
    EXPECT_EQ(create(dir.file("no/t.dbf"), 1, 0) + create("/dev/full", 1, 0), 0);
    fields[0] = fields[1] = field("F", 'C', 40000);
    EXPECT_EQ(create(path, 2, 0), 0) << "record of 80001 bytes";
    EXPECT_EQ(readAll(path), "kept");
    EXPECT_EQ(create(path, 0, 0), 1);
    EXPECT_EQ(readAll(path).size(), 33u);
}

TEST(Create, CopiesTheBackLink) {
    const TempDir dir;
    const auto table = [&](const char* name, u32 kind, int count) {
        std::vector<DbfField> fields(2, field("F", 'C', 5));
        CreateDatabase(dir.file(name).c_str(), fields.data(), count, kind, 0, 0);
        return Table(OpenBase(dir.file(name).c_str()));
    };
    const Table one = table("one.dbf", 3, 1), two = table("two.dbf", 3, 2),
                none = table("none.dbf", 0, 2);
    const std::string bytes =
        readAll(one->FileName).replace(65, 263, padded("base.dbc", 263, '\7'));
    overwrite(one->FileName, bytes);
    WriteBackLink(one.get(), one.get());
    WriteBackLink(none.get(), one.get());
    WriteBackLink(one.get(), none.get());
    EXPECT_EQ(readAll(one->FileName), bytes);
    EXPECT_EQ(readAll(none->FileName).size(), 97u);
    WriteBackLink(two.get(), one.get());
    EXPECT_EQ(readAll(two->FileName).substr(97), bytes.substr(65));
}

}  // namespace
