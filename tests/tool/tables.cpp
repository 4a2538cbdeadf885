#include "tool/tables.h"

#include "support.h"
#include "support/indexes.h"

namespace test {
namespace {

void lay(const std::string& folder, const std::string& name, const Layout& layout,
         std::string_view changes = {}, std::size_t place = 0) {
    std::string bytes = layout.bytes();
    bytes.replace(place, changes.size(), changes);
    writeAll(folder + "/" + name, bytes);
}

/// Values that are none, and numbers in every spelling.
Layout odd() {
    Layout t{
        .columns = {{"N", 'N', 8, 2}, {"D", 'D', 8}, {"L", 'L', 1}, {"T", 'T', 14}, {"C", 'C', 6}},
        .records = {}};
    const auto add = [&](std::string_view n, std::string_view d, char l, std::string_view at,
                         std::string_view c) {
        t.records.push_back(" " + padded(n, 8) + padded(d, 8) + l + padded(at, 14) + padded(c, 6));
    };
    add("   1.50", "20240229", 'y', "20240229235959", "a,b\"c");
    add("+007", "20230229", 'X', "20240229245959", "=1+1");
    add("-.5", "00000000", '?', "", "tab\tx");
    add("5.", "19000101", '\0', "00000000000000", std::string("nul\0xy", 6));
    add("********", "        ", 'N', "2024022923595x", "\x80\x1B[1m");
    add("1.2E+03", "2024022 ", 'f', "20241231000000", "  in  ");
    add("0", "99991231", ' ', "00010101000000", "");
    return t;
}

/// Wide whole numbers, and names that need care.
Layout names() {
    return {.columns = {{"A", 'N', 20},
                        {"a", 'C', 2},
                        {"", 'C', 2},
                        {"TWO WORDS", 'C', 2},
                        {"_record", 'C', 2},
                        {"X-Y", 'N', 3},
                        {"LEFT", 'C', 2}},
            .records = {" 12345678901234567890aabbccdd  1ee", " 00000000000000000042AABBCCDD  2EE",
                        "* -9223372036854775808xxxxxxxx -3yy"}};
}

/// dBase III memos: a soft line break, a zero byte inside, none, past the end, more than 64 KiB.
void layMemos(const std::string& folder) {
    const auto record = [](std::string_view block) { return " " + padded(block, 10); };
    lay(folder, "notes.dbf",
        {.version = 0x83,
         .columns = {{"NOTE", 'M', 10}},
         .records = {record("         1"), record("         2"), record(""), record("       999"),
                     record("      oops"), record("         3")}});
    std::string memos = padded(le(200, 4), 512, '\0');
    memos += padded("soft\x8D\nbreak\r\nhard\x1A", 512, '\0');
    memos += padded("zero\0byte\x1A"s, 512, '\0');
    memos += std::string(70000, 'x') + "\x1A";
    writeAll(folder + "/notes.DBT", memos);
}

/// Null flags that do not reach all fields, a length past its field, binary text.
void layVisual(const std::string& folder) {
    Layout t{.version = 0x30,
             .columns = {{"V", 'V', 4},
                         {"Q", 'Q', 3},
                         {"N", 'N', 3},
                         {"C", 'C', 3},
                         {"_NullFlags", '0', 1}},
             .records = {}};
    t.records = {" abcdxyz 12A\xFF \x08"s, " ab \x02x\x01\x01  5é \x05"s,
                 " abc\x09xy\x03  7a\0b\x05"s};
    std::string bytes = t.bytes();
    bytes[32 + 32 * 2 + 18] = 2;
    bytes[32 + 32 * 3 + 18] = 4 + 2;
    bytes[32 + 32 * 4 + 18] = 5;
    writeAll(folder + "/flags.dbf", bytes);
}

/// A FoxPro memo in blocks of 64 bytes.
std::string foxMemo(std::string_view text, unsigned length) {
    const std::string size = le(length, 4);
    const std::string block = "\0\0\0\x01"s + std::string(size.rbegin(), size.rend());
    return padded(block + std::string(text), (8 + text.size() + 63) / 64 * 64, '\0');
}

/// A table for each way in which memos and references to them can be wrong.
void layDamagedMemos(const std::string& folder) {
    const auto record = [](std::string_view block) { return " " + padded(block, 10); };
    Layout fox{.version = 0xF5, .columns = {{"NOTE", 'M', 10}}, .records = {}};
    for (const char* block : {"8", "9", "10", "10", "11", "1", "13"}) {
        fox.records.push_back(record(block));
    }
    lay(folder, "fox.dbf", fox);
    writeAll(folder + "/fox.FPT", padded("\0\0\0\x0F\0\0\0\x40"s, 512, '\0') +
                                      foxMemo(std::string(100, 'a'), 100) + foxMemo("shared", 6) +
                                      padded("no memo", 128) + foxMemo("cut", 500));
    lay(folder, "dbase.dbf",
        {.version = 0x83,
         .columns = {{"NOTE", 'M', 10}, {"PIC", 'M', 10}},
         .records = {record("1") + padded("3", 10), record("6") + padded("6", 10),
                     record("7") + padded("", 10)}});
    const auto old = [](std::string_view text) { return padded(text, 512, 'm'); };
    writeAll(folder + "/dbase.dbt",
             old("") + padded("text\x1A" + std::string(9, '\x02'), 512, 'm') + old("an old memo") +
                 old("\x89PNG\r\n\x1A\n") + old("") + old("end\x1A") + old("both\x1A") +
                 padded("\xFF\xFF\x08\0\x09\0\0\0x\x1A"s, 512));
    lay(folder, "lost.dbf",
        {.version = 0x83, .columns = {{"NOTE", 'M', 10}}, .records = {record("1"), record("")}});
}

void layDamage(const std::string& folder) {
    std::filesystem::create_directory(folder);
    layDamagedMemos(folder);
    Layout bits{.version = 0x30, .columns = {}, .records = {" xxxxxxxxx\0"s}};
    for (char name = 'A'; name < 'J'; ++name) bits.columns.push_back({{name}, 'V', 1});
    bits.columns.push_back({"_NullFlags", '0', 1});
    lay(folder, "bits.dbf", bits);
    const Layout text{.columns = {{"C", 'C', 3}}, .records = {" one", "?two", "*\x81\x8D."}};
    lay(folder, "marks.dbf", text, "\x03", 29);
    lay(folder, "header.dbf", text, "\x05\x18\x0B\x1A\x01\0\0\0\x41\0\x09"s);
    std::string open = text.bytes();
    open[29] = '\x05';
    writeAll(folder + "/open.dbf", open.substr(0, open.size() - 1));
}

/// A table of blanks as large as a file can be; takes no room on the disk.
void layHuge(const std::string& folder) {
    constexpr unsigned kSize = 0x7FFFFF00;
    const Layout t{.columns = {{"TEXT", 'C', 100}}, .records = {}};
    const std::string header = t.bytes();
    lay(folder, "huge.dbf", t, le((kSize - (header.size() - 1)) / 101, 4), 4);
    std::filesystem::resize_file(folder + "/huge.dbf", kSize);
}

/// What export and import must bring back: counters with gaps, texts of zeros, memos of no bytes
/// and of zeros, numbers as other programs write them.
void layBringBack(const std::string& folder) {
    Layout t{.version = 0x30,
             .columns = {{"ID", 'I', 4},
                         {"N", 'N', 10, 2},
                         {"V", 'V', 5},
                         {"M", 'M', 4},
                         {"G", 'G', 4},
                         {"_NullFlags", '0', 1}},
             .records = {}};
    const auto add = [&](unsigned id, std::string_view number, std::string_view text, unsigned memo,
                         unsigned general, char flags) {
        t.records.push_back(" " + le(id, 4) + std::string(number) + std::string(text) +
                            le(memo, 4) + le(general, 4) + flags);
    };
    add(7, " 5.08e-007", "\0\0\0\0\x04"s, 8, 9, 1);
    add(3, "  7.50E+02", "plain", 10, 0, 0);
    add(40, "     +07.5", "\0\0\0\0\0"s, 0, 9, 0);
    add(41, "  1.250000", "ab \0\x03"s, 10, 10, 1);
    std::string bytes = t.bytes();
    bytes.replace(32 + 18, 6, "\x0C\x63\0\0\0\x02"s);
    bytes[32 + 32 * 5 + 18] = 5;
    writeAll(folder + "/back.dbf", bytes);
    writeAll(folder + "/back.fpt", padded("\0\0\0\x0B\0\0\0\x40"s, 512, '\0') +
                                       foxMemo("\0\0\0"s, 3) + foxMemo("", 0) + foxMemo("memo", 4));
}

/// The header counts two records; a third follows, then what is none, then what looks like one.
void layStray(const std::string& folder) {
    lay(folder, "stray.dbf",
        {.columns = {{"C", 'C', 3}}, .records = {" one", "*two", " 3rd", "\x1Aold", " old"}},
        le(2, 4), 4);
}

/// A table with a compound index that agrees, and one with a tag that agrees, one that is stale,
/// and one that nobody computes.
void layIndex(const std::string& folder) {
    const Layout layout{0x03, {{"CODE", 'C', 3}}, {" b  ", " a  ", "*c  "}};
    writeAll(folder + "/tagged.dbf", layout.bytes());
    const TagBytes live{"LIVE", "UPPER(CODE)", ".NOT. DELETED()", {{"A  ", 2}, {"B  ", 1}}, 0x68};
    const TagBytes code{"CODE", "code", "", {{"a  ", 2}, {"b  ", 1}}};
    const TagBytes all{"CODE", "code", "", {{"a  ", 2}, {"b  ", 1}, {"c  ", 3}}};
    writeAll(folder + "/parts.dbf", layout.bytes());
    writeAll(folder + "/parts.cdx", cdxOf({all, live}));
    const TagBytes other{"OTHER", "SOUNDEX(code)", "", {{"a  ", 2}}, 0x64};
    writeAll(folder + "/tagged.cdx", cdxOf({code, live, other}));
}

}  // namespace

void layTables(const std::string& folder) {
    lay(folder, "odd.dbf", odd());
    lay(folder, "names.dbf", names());
    layMemos(folder);
    layVisual(folder);
    layDamage(folder + "/damage");
    layBringBack(folder);
    layStray(folder);
    layHuge(folder);
    const Layout cyrillic{.columns = {{"TEXT", 'C', 12}},
                          .records = {" \x8F\xE0\xA8\xA2\xA5\xE2      "}};
    lay(folder, "russian.dbf", cyrillic, "\x65", 29);
    lay(folder, "unmarked.dbf", cyrillic);
    lay(folder, "short.dbf", {.columns = {{"C", 'C', 3}}, .records = {" one", " two"}}, le(7, 4),
        4);
    lay(folder, "bare.dbf",
        {.version = 0x30, .columns = {{"_NullFlags", '0', 1}}, .records = {" x"}});
    layIndex(folder);
    writeAll(folder + "/junk.dbf", "junk");
    lay(folder, "-x.dbf", {.columns = {{"C", 'C', 3}}, .records = {" one"}});
    lay(folder, "evil\x1B[2J.dbf", {.columns = {{"A\x1B[1m", 'C', 3}}, .records = {" \x1B[m"}});
}

}  // namespace test
