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

int create(const std::string& path, std::vector<DbfField>& fields, int count, u32 kind) {
    return CreateDatabase(path.c_str(), fields.data(), count, kind, 64, 1);
}

TEST(Create, WritesEveryFlavour) {
    const u32 cases[][3] = {{0, 0x83, 10}, {1, 0xF5, 10}, {2, 0x8B, 10}, {3, 0x30, 4},
                            {4, 0xE5, 10}, {7, 0x8C, 10}, {5, 0x03, 10}};
    const std::string name = "A_NAME_OF_THIRTY_TWO_CHARACTERS!";
    for (const auto& [kind, version, memoLength] : cases) {
        for (const u32 count : {2u, 3u}) {  // the third is a memo field
            const bool memo = count == 3, level7 = kind == 7;
            const TempDir dir;
            std::vector<DbfField> fields{field("C300", 'C', 300), field(name.c_str(), 'N', 5),
                                         field("NOTE", 'M', 77)};
            fields[1].WorkArea = 9;
            ASSERT_EQ(create(dir.file("t.dbf"), fields, static_cast<int>(count), kind), 1);
            EXPECT_EQ(std::filesystem::exists(
                          dir.file(split("dbt;fpt;dbt;fpt;smt;dbv;;dbt")[kind].insert(0, "t."))),
                      memo);
            const u32 size = (level7 ? 68 + 48 * count : 32 + 32 * count) + (kind == 3 ? 264 : 1);
            std::string expected = le(memo ? version : 3, 1) + today(true) + le(0, 4) +
                                   le(size, 2) + le(306 + (memo ? memoLength : 0), 2);
            expected.resize(level7 ? 68 : 32, 0);
            if (memo && kind == 3) expected.replace(28, 2, "\3\3");
            u32 offset = 1;
            for (u32 i = 0; i < count; ++i) {
                const std::string text[] = {"C300", name, "NOTE"};
                const u32 length[] = {300, 5, memoLength};
                expected += level7 ? padded(text[i].substr(0, 31), 32, 0) + "CNM"[i] + '\0' +
                                         le(length[i], 2) + le(offset, 2) + std::string(10, 0)
                                   : padded(text[i].substr(0, 10), 11, 0) + "CNM"[i] +
                                         le(offset, 4) + le(length[i], 4) +
                                         "\0\x09"[i == 1 ? 1 : 0] + std::string(11, 0);
                EXPECT_EQ(fields[i].Offset, offset);
                offset += length[i];
            }
            EXPECT_EQ(readAll(dir.file("t.dbf")), padded(expected + '\x0D', size, 0)) << kind;
        }
    }
}

TEST(Create, ForcesLengthsOfFixedSizeTypes) {
    const TempDir dir;  // type and length given; lengths for kinds 0, 2 and 3
    for (const auto& row :
         split("D999 8 8 8;Y1 8 8 8;I9 4 4 4;+9 4 4 4;L300 1 1 1;T14 14 14 14;T8 14 14 8;@270 14 "
               "14 8;"
               "M3 10 10 4;G300 10 10 4;B10 10 10 10;B8 8 8 8;O4 8 10 8;B260 264 10 264;"
               "C300 300 300 300;N517 517 517 517;W4 4 4 4")) {
        const auto parts = split(row, ' ');
        for (const u32 kind : {0u, 2u, 3u}) {
            std::vector<DbfField> fields{field("F", row[0], std::stoi(parts[0].substr(1)))};
            EXPECT_EQ(create(dir.file("t.dbf"), fields, 1, kind), 1);
            const int length = std::stoi(parts[kind == 0 ? 1 : kind]);
            EXPECT_EQ(fields[0].Length + 256 * fields[0].Decimals, length) << row;
            const std::string bytes = readAll(dir.file("t.dbf"));
            EXPECT_EQ(bytes.substr(48, 2), le(static_cast<u32>(length), 2)) << row;
            const bool memo = row[0] == 'M' || row[0] == 'G' || (length == 10 && row[0] != 'C');
            EXPECT_EQ(bytes[0] != '\x03', memo) << row;
        }
    }
}

TEST(Create, RefusesWithoutTouchingTheFile) {
    const TempDir dir;
    const std::string path = dir.file("t.dbf");
    std::vector<DbfField> fields(2046, field("F", 'C', 1));
    writeAll(path, "kept");
    EXPECT_EQ(create(path, fields, -1, 0), 0);
    EXPECT_EQ(create(path, fields, 2046, 3), 0) << "header of 65768 bytes";
    EXPECT_EQ(fields[1].Offset, 0);
    EXPECT_EQ(create(dir.file("no/t.dbf"), fields, 1, 0) + create("/dev/full", fields, 1, 0), 0);
    fields[0] = fields[1] = field("F", 'C', 40000);
    EXPECT_EQ(create(path, fields, 2, 0), 0) << "record of 80001 bytes";
    EXPECT_EQ(readAll(path), "kept");
    EXPECT_EQ(create(path, fields, 0, 0), 1);
    EXPECT_EQ(readAll(path).size(), 33u);
}

TEST(Create, CopiesTheBackLink) {
    const TempDir dir;
    Table tables[3];
    for (int i = 0; i < 3; ++i) {
        std::vector<DbfField> fields(2, field("F", 'C', 5));
        const std::string path = dir.file(std::to_string(i));
        create(path, fields, i == 0 ? 1 : 2, i == 2 ? 0 : 3);
        tables[i].reset(OpenBase(path.c_str()));
    }
    const auto& [one, two, none] = tables;
    overwrite(one->FileName, readAll(one->FileName).replace(65, 9, "base.dbc\7"));
    const std::string area = readAll(one->FileName).substr(65), bytes = readAll(none->FileName);
    WriteBackLink(none.get(), one.get());
    WriteBackLink(one.get(), none.get());
    WriteBackLink(two.get(), one.get());
    EXPECT_EQ(readAll(one->FileName).substr(65), area);
    EXPECT_EQ(readAll(two->FileName).substr(97), area);
    EXPECT_EQ(readAll(none->FileName), bytes);
}

}  // namespace
