// Creating tables: whole files compared with bytes laid out by hand.
#include "support.h"

namespace {

using namespace mira;
using namespace test;

/// The bytes of a new table: without the end-of-file byte, with what may follow the terminator.
std::string created(const Layout& layout, const std::string& backLink = "") {
    std::string bytes = layout.bytes().replace(1, 3, today(true));
    bytes.pop_back();
    return bytes.replace(8, 2, le(bytes.size() + backLink.size(), 2)) + backLink;
}

TEST(Create, WritesEveryFlavourWithEveryType) {
    const u8 kinds[][2] = {{0, 0x83}, {1, 0xF5}, {2, 0x8B}, {3, 0x30}, {4, 0xE5}, {7, 0x8C}};
    // Type, length given, and what it becomes: in kind 2, in 3, and in the others.
    const u32 types[][5] = {{'D', 999, 8, 8, 8}, {'I', 9, 4, 4, 4},        {'L', 300, 1, 1, 1},
                            {'M', 3, 10, 4, 10}, {'B', 260, 10, 264, 264}, {'B', 10, 10, 10, 10},
                            {'O', 4, 10, 8, 8},  {'T', 270, 14, 8, 14},    {'T', 14, 14, 14, 14}};
    const std::string name = "A_NAME_OF_THIRTY_TWO_CHARACTERS!";
    const TempDir dir;
    for (const auto& [kind, version] : kinds) {
        for (const auto& [type, given, dBase4, visual, others] : types) {
            const bool level7 = kind == 7;
            const u32 length = kind == 2 ? dBase4 : kind == 3 ? visual : others;
            Layout layout{3, {{name.substr(0, level7 ? 31 : 10), 'C', 44, 1}}, {}, level7};
            layout.columns.push_back({"F", static_cast<char>(type), length % 256, length / 256});
            if (type == 'M' || length == 10) layout.version = version;
            std::string expected = created(layout, std::string(kind == 3 ? 263 : 0, '\0'));
            // Offsets, which many programs leave zero.
            expected.replace(level7 ? 104 : 44, 1, "\1").replace(level7 ? 152 : 76, 2, "\x2D\1");
            if (layout.version == 0x30) expected.replace(28, 2, "\3\3");
            DbfField fields[2] = {};
            CreateField(&fields[0], name.c_str(), 'C', 300);
            CreateField(&fields[1], "F", static_cast<char>(type), static_cast<int>(given));
            ASSERT_EQ(CreateDatabase(dir.file("t").c_str(), fields, 2, kind, 64, 1), 1);
            EXPECT_EQ(readAll(dir.file("t")), expected) << kind << ", " << type << given;
            EXPECT_EQ(fields[1].Offset, 301);
        }
    }
}

TEST(Create, RefusesWithoutTouchingTheFile) {
    const TempDir dir;
    writeAll(dir.file("t"), "kept");
    std::vector<DbfField> fields(2046);
    for (const int count : {-1, 2046, 2}) {  // a header of 65768 bytes, a record of 80001
        if (count == 2) fields[0] = fields[1] = {"F", 'C', 64, 156, 0, 0};
        EXPECT_EQ(CreateDatabase(dir.file("t").c_str(), fields.data(), count, 3, 0, 0), 0);
        EXPECT_EQ(readAll(dir.file("t")) + std::to_string(fields[1].Offset), "kept0") << count;
    }
}

TEST(Create, CopiesTheBackLink) {
    const TempDir dir;
    const std::string link = padded("base.dbc", 263, 7), none(263, 0);
    const Layout layout{0x30, {{"F", 'C', 5}}, {}}, wide{0x30, {{"F", 'C', 5}, {"G", 'L', 1}}, {}};
    const Table from = openBytes(dir, created(layout, link), "from"),
                to = openBytes(dir, created(wide, none), "to"),
                plain = openBytes(dir, created(layout), "plain");
    WriteBackLink(to.get(), from.get());
    WriteBackLink(from.get(), plain.get());
    WriteBackLink(plain.get(), from.get());
    EXPECT_EQ(readAll(dir.file("to")), created(wide, link));
    EXPECT_EQ(readAll(dir.file("from")) + readAll(dir.file("plain")),
              created(layout, link) + created(layout));
}

}  // namespace
