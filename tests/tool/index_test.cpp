// Index files, laid out byte by byte without the reader, and real ones where MIRA_INDEXES names a
// folder of them: a line of its expected.tsv per tag.
#include "tables/index/index.h"

#include <fcntl.h>

#include <bit>
#include <fstream>
#include <map>

#include "support.h"
#include "support/indexes.h"
#include "tables/index/compare.h"
#include "tables/index/expression.h"
#include "tables/index/key.h"
#include "tables/index/rebuild.h"
#include "tables/index/write.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace {

using namespace test;
namespace tables = mira::tables;
namespace index = tables::index;
using tables::IndexFile;
using tables::openIndex;

constexpr unsigned kPage = kIndexPage;

std::string sortedDouble(double value) {
    const u64 bits = std::bit_cast<u64>(value), sign = 1ULL << 63;
    return be((bits & sign) != 0 ? ~bits : bits | sign, 8);
}

/// Entries of keys by record, sorted.
std::vector<Entry> entriesOf(const std::vector<std::string>& keys) {
    std::vector<Entry> entries;
    for (const std::string& key : keys)
        entries.push_back({key, static_cast<u32>(entries.size() + 1)});
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.key < b.key; });
    return entries;
}

/// Visual FoxPro: text, number, integer, date, moment, currency, double, logical, and a text that
/// may be null. Three records, the second deleted, its text null.
const Layout kVisual{
    0x30,
    {{"NAME", 'C', 6},
     {"PRICE", 'N', 7, 2},
     {"COUNT", 'I', 4},
     {"DAY", 'D', 8},
     {"AT", 'T', 8},
     {"COST", 'Y', 8},
     {"MASS", 'B', 8},
     {"OK", 'L', 1},
     {"NICK", 'C', 3},
     {"_NullFlags", '0', 1}},
    {" bolt  " + "  12.50"s + le(5, 4) + "19950201" + le(2449750, 4) + le(0, 4) + le(45600, 8) +
         le(std::bit_cast<u64>(1.5), 8) + "Tab " + "\0"s,
     "*Anvil " + " -3.00 "s + le(0xFFFFFFFF, 4) + "        " + le(0, 8) + le(0, 8) +
         le(std::bit_cast<u64>(-2.0), 8) + "F   " + "\x01",
     " nail  " + "       "s + le(0, 4) + "20240131" + le(2460341, 4) + le(43200000, 4) +
         le(static_cast<u64>(-10000), 8) + le(0, 8) + "Fxy " + "\0"s}};

std::unique_ptr<tables::Table> openVisual(const TempDir& dir) {
    std::string bytes = kVisual.bytes();
    bytes[32 + 32 * 8 + 18] = 2;  // NICK may be null
    bytes[32 + 32 * 9 + 18] = 5;
    writeAll(dir.file("t.dbf"), bytes);
    return tables::openTable(dir.file("t.dbf"), {});
}

/// Tags of that table whose keys agree with it.
std::vector<TagBytes> visualTags() {
    const auto tag = [](std::string expression, std::vector<std::string> keys) {
        return TagBytes{"T", std::move(expression), "", entriesOf(keys)};
    };
    std::vector<TagBytes> tags = {
        tag("name", {"bolt  ", "Anvil ", "nail  "}),
        tag("UPPER( Name )", {"BOLT  ", "ANVIL ", "NAIL  "}),
        tag("T->PRICE", {sortedDouble(12.5), sortedDouble(-3), sortedDouble(0)}),
        tag("count", {be(0x80000005, 4), be(0x7FFFFFFF, 4), be(0x80000000, 4)}),
        tag("DAY", {"\xC1\x42\xB0\xAB\0\0\0\0"s, sortedDouble(0), sortedDouble(2460341)}),
        tag("at", {"\xC1\x42\xB0\xAB\0\0\0\0"s, sortedDouble(0), sortedDouble(2460341.5)}),
        tag("cost", {sortedDouble(4.56), sortedDouble(0), sortedDouble(-1)}),
        tag("mass", {sortedDouble(1.5), sortedDouble(-2), sortedDouble(0)}),
        tag("ok", {"T", "F", "F"}),
        tag("nick", {"\x80"s + "ab ", "\0\0\0\0"s, "\x80xy "}),
        tag("PADR(NICK,5)", {"\x80"s + "ab   ", "\0\0\0\0\0\0"s, "\x80xy   "}),
        tag("DTOS(day)+STR(count)",
            {"19950201         5", "                -1", "20240131         0"}),
        tag("DTOS(day)+STR(price,7,2)", {"19950201  12.50", "          -3.00", "20240131   0.00"}),
        tag("DELETED()", {"F", "T", "F"}),
    };
    tags.push_back(
        {"T", "NAME", ".NOT. DELETED() .AND. PRICE >= 0", {{"bolt  ", 1}, {"nail  ", 3}}, 0x68});
    tags.push_back({"T", "ok", "", {{"F", 2}, {"T", 1}}, 0x61});  // unique: the first of its key
    return tags;
}

std::string compared(const tables::Table& table, const IndexFile& file, std::size_t tag = 0) {
    return sentenceOf(compareTags(table, file).at(tag));
}

std::string comparedBytes(const TempDir& dir, const tables::Table& table, std::string_view name,
                          std::string_view bytes) {
    writeAll(dir.file(name), bytes);
    return compared(table, openIndex(dir.file(name)));
}

TEST(Index, CompoundKeysAgree) {
    const TempDir dir;
    const auto table = openVisual(dir);
    for (const TagBytes& tag : visualTags()) {
        for (const bool deep : {false, true}) {
            EXPECT_EQ(comparedBytes(dir, *table, "t.cdx", cdxOf({tag}, deep)), "")
                << tag.expression << ' ' << deep;
        }
    }
    TagBytes compact{"", "name", "", entriesOf({"bolt  ", "Anvil ", "nail  "}), 0x20};
    const std::string single = cdxHeader(1024, 6, compact) + leafOf(compact.entries, 3);
    EXPECT_EQ(comparedBytes(dir, *table, "t.idx", single), "");
}

TEST(Index, DifferencesAreCounted) {
    const TempDir dir;
    const auto table = openVisual(dir);
    const auto with = [&](std::vector<Entry> entries) {
        return comparedBytes(dir, *table, "t.cdx", cdxOf({{"T", "name", "", std::move(entries)}}));
    };
    EXPECT_EQ(with({{"Anvil ", 2}, {"nail  ", 3}}), "1 record missing, first 1");
    EXPECT_EQ(with({{"Anvil ", 2}, {"bolt  ", 1}, {"nail  ", 3}, {"nail  ", 3}, {"oak   ", 9}}),
              "2 too many, first 3");
    EXPECT_EQ(with({{"Anvil ", 2}, {"bolts ", 1}, {"nail  ", 3}}), "1 other key, first 1");
    EXPECT_EQ(with({{"bolt  ", 1}, {"Anvil ", 2}, {"nail  ", 3}}), "1 out of order, first 2");
    const auto why = [&](const TagBytes& tag) {
        return comparedBytes(dir, *table, "t.cdx", cdxOf({tag}));
    };
    const std::vector<Entry> some = {{"Anvil ", 1}};
    EXPECT_EQ(why({"T", "name", "", some, 0x60, 0, "GENERAL"}),
              "not computed: collation GENERAL of a text");
    EXPECT_EQ(why({"T", "OK", "", some, 0x60, 5}),
              "not computed: bitmap tag (made with BINARY), no keys");
    const std::pair<const char*, const char*> reasons[] = {
        {"OTHER(name)", "function OTHER"},
        {"missing", "no field missing"},
        {"name+", "the expression ends too early"},
        {"price+name", "+ of a text"},
        {"LEFT(name,count)", "LEFT of a length that is no number"},
        {"LEFT(name)", "LEFT with 1 arguments"},
        {"name,", "\",\" is not understood"},
        {"ok", "keys of 6 bytes, where the expression gives 1"},
    };
    for (const auto& [expression, reason] : reasons) {
        EXPECT_EQ(why({"T", expression, "", some}), "not computed: "s + reason) << expression;
    }
}

/// Text, or number, or .T. and .F. of an expression for a record.
std::string valueOf(tables::Table& table, std::string_view expression, u32 record = 1) {
    tables::readRecord(table, record - 1);
    index::KeyValue value;
    index::evaluate(table, index::prepare(table, expression, {}), record, value);
    if (value.isNull) return "null";
    if (value.type == index::KeyType::Text) return '"' + value.text + '"';
    if (value.type == index::KeyType::Logical) return value.truth ? ".T." : ".F.";
    return printed("%g", value.number);
}

TEST(Index, Expressions) {
    const TempDir dir;
    const auto table = openVisual(dir);
    std::ifstream cases(MIRA_CASES_DIR "/indexkeys.txt");
    ASSERT_TRUE(cases);
    for (std::string line; std::getline(cases, line);) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t arrow = line.find("  ->  ");
        ASSERT_NE(arrow, std::string::npos) << line;
        EXPECT_EQ(valueOf(*table, line.substr(0, arrow)), line.substr(arrow + 6)) << line;
    }
    EXPECT_EQ(valueOf(*table, "nick+'x'", 2), "null");
    EXPECT_EQ(valueOf(*table, "ISNULL(nick)", 2), ".T.");
}

TEST(Index, OtherKindsAgree) {
    const TempDir dir;
    const Layout layout{0x03,
                        {{"NAME", 'C', 3}, {"N", 'N', 6, 1}, {"DAY", 'D', 8}},
                        {" ab  25.0 19970711", " aa -15.5 20240131", " b   3.0  19970711"}};
    writeAll(dir.file("t.dbf"), layout.bytes());
    const auto table = tables::openTable(dir.file("t.dbf"), {});
    const std::vector<Entry> names = {{"aa ", 2}, {"ab ", 1}, {"b  ", 3}};
    const std::string real = le(std::bit_cast<u64>(-15.5), 8);

    // Keys in all pages: the middle one at the root.
    const auto ntx = [](const std::string& expression, unsigned decimals,
                        const std::vector<Entry>& e) {
        const auto length = static_cast<unsigned>(e[0].key.size());
        const auto page = [&](std::vector<std::pair<u64, Entry>> items, u64 last) {
            std::string places, bytes;
            const std::size_t start = 2 + 2 * 6;
            items.emplace_back(last, Entry{std::string(length, '\0'), 0});
            for (const auto& [child, entry] : items) {
                places += le(start + bytes.size(), 2);
                bytes += le(child, 4) + le(entry.record, 4) + entry.key;
            }
            return padded(padded(le(items.size() - 1, 2) + places, start, 0) + bytes, 1024, 0);
        };
        const std::string head = "\x06\0\0\0"s + le(1024, 4) + le(0, 4) + le(length + 8, 2) +
                                 le(length, 2) + le(decimals, 2) + le(4, 4);
        return padded(padded(head, 22, 0) + expression, 1024, 0) + page({{2048, e[1]}}, 3072) +
               page({{0, e[0]}}, 0) + page({{0, e[2]}}, 0);
    };
    EXPECT_EQ(comparedBytes(dir, *table, "t.ntx", ntx("T->Name", 0, names)), "");
    EXPECT_EQ(comparedBytes(dir, *table, "t.ntx",
                            ntx("N", 1, {{",,+'.'", 2}, {"0003.0", 3}, {"0025.0", 1}})),
              "");
    EXPECT_EQ(comparedBytes(dir, *table, "t.ntx",
                            ntx("DAY", 0, {{"19970711", 1}, {"19970711", 3}, {"20240131", 2}})),
              "");

    // Two leaves below an inner page.
    const auto ndx = [](const std::string& expression, unsigned numeric,
                        const std::vector<Entry>& e) {
        const std::size_t length = e[0].key.size(), step = (length + 8 + 3) / 4 * 4;
        const auto item = [&](u64 child, const Entry& entry) {
            return padded(le(child, 4) + le(entry.record, 4) + entry.key, step, 0);
        };
        const std::string head = le(1, 4) + le(4, 4) + le(0, 4) + le(length, 2) + le(30, 2) +
                                 le(numeric, 2) + le(step, 2) + le(0, 4) + expression;
        return padded(head, kPage, 0) +
               padded(le(1, 4) + item(2, {e[1].key, 0}) + le(3, 4), kPage, 0) +
               padded(le(2, 4) + item(0, e[0]) + item(0, e[1]), kPage, 0) +
               padded(le(1, 4) + item(0, e[2]), kPage, 0);
    };
    EXPECT_EQ(comparedBytes(dir, *table, "t.ndx", ndx("NAME", 0, names)), "");
    const std::vector<Entry> numbers = {
        {real, 2}, {le(std::bit_cast<u64>(3.0), 8), 3}, {le(std::bit_cast<u64>(25.0), 8), 1}};
    EXPECT_EQ(comparedBytes(dir, *table, "t.ndx", ndx("n", 1, numbers)), "");

    const auto mdx = [](char kind, const std::string& expression, unsigned options,
                        const std::vector<Entry>& e, const std::string& condition = "") {
        const std::size_t length = e[0].key.size(), step = (length + 4 + 3) / 4 * 4;
        std::string head =
            padded(padded("\x02", 20, 0) + le(1, 2) + le(kPage, 2), 28, 0) + le(1, 2);
        head = padded(head, 544, 0) + le(8, 4) + padded("T", 16, 0) + kind;
        std::string tag = le(10, 4) + le(0, 4) + le(options, 1) + kind + le(0, 2) + le(length, 2) +
                          le(0, 4) + le(step, 2) + le(0, 4) + expression;
        tag = padded(tag, 245, 0) + le(condition.empty() ? 0 : 1, 1);
        std::string items;
        for (const Entry& entry : e) items += padded(le(entry.record, 4) + entry.key, step, 0);
        return padded(padded(head, 4096, 0) + padded(padded(tag, 762, 0) + condition, 1024, 0) +
                          padded(le(e.size(), 4) + le(0, 4) + items, kPage, 0),
                      6144, 0);
    };
    const auto bcd = [](std::string_view bytes) { return padded(bytes, 12, 0); };
    const std::vector<Entry> decimals = {
        {bcd("\x36\x8D\x15\x50"), 2}, {bcd("\x35\x29\x30"), 3}, {bcd("\x36\x29\x25"), 1}};
    EXPECT_EQ(comparedBytes(dir, *table, "t.mdx", mdx('N', "N", 0, decimals)), "");
    const std::string day = "\x00\x00\x00\x80\x68\xB2\x42\x41"s;
    const std::vector<Entry> days = {{le(std::bit_cast<u64>(2460341.0), 8), 2}, {day, 1}, {day, 3}};
    EXPECT_EQ(comparedBytes(dir, *table, "t.mdx", mdx('D', "DAY", 8, days)), "") << "largest first";
    EXPECT_EQ(comparedBytes(dir, *table, "t.mdx",
                            mdx('C', "NAME", 0, {names[0], names[1]}, "N < 3 .OR. N > 20")),
              "");

    const std::string old =
        padded(padded(le(kPage, 4) + le(0, 8) + le(3, 2) + le(0, 2) + "NAME", kPage, 0) + le(3, 2) +
                   le(3, 2) + le(~0ULL, 8) + "aa " + be(2, 4) + "ab " + be(1, 4) + "b  " + be(3, 4),
               2 * kPage, 0);
    EXPECT_EQ(comparedBytes(dir, *table, "t.idx", old), "");
}

IndexFile made(const std::string& path, const std::function<void(int)>& write) {
    writeAll(path, "");
    const int file = open(path.c_str(), O_RDWR);
    write(file);
    close(file);
    return openIndex(path);
}

TEST(Index, RebuiltHoldsEveryRecordInOrder) {
    const TempDir dir;
    constexpr u32 kRecords = 5000;
    Layout layout{0x03, {{"NAME", 'C', 20}, {"N", 'N', 5}}};
    u32 seed = 1;
    const auto random = [&seed](u32 below) {
        return (seed = seed * 1664525 + 1013904223) / 65536 % below;
    };
    std::vector<std::string> keys, numbers;
    for (u32 i = 0; i < kRecords; ++i) {
        const std::string name =
            padded(repeat("ab", static_cast<int>(random(6))) + std::to_string(random(40)), 20);
        const int number = static_cast<int>(random(3000)) - 999;
        layout.records.push_back((random(4) == 0 ? "*" : " ") + name + printed("%5d", number));
        keys.push_back(name);
        numbers.push_back(sortedDouble(number));
    }
    writeAll(dir.file("t.dbf"), layout.bytes());
    const auto table = tables::openTable(dir.file("t.dbf"), {});
    const TagBytes name{"ONE", "name", "", {{padded("", 20), 1}}},
        number{"TWO", "n", "", {{std::string(8, '\0'), 1}}};
    const TagBytes unique{"A-THIRD", "name", ".NOT.DELETED()", {{padded("", 20), 1}}, 0x69};
    const std::string old = cdxOf({name, number, unique});
    writeAll(dir.file("old.cdx"), old);
    const IndexFile before = openIndex(dir.file("old.cdx"));
    EXPECT_EQ(tables::whyNotRebuilt(*table, before, true), "");
    EXPECT_NE(tables::whyNotRebuilt(*table, before, false), "") << "the key of record 1 differs";
    const IndexFile after =
        made(dir.file("new.cdx"), [&](int file) { writeIndex(*table, before, file); });
    const std::string bytes = readAll(dir.file("new.cdx"));
    ASSERT_EQ(after.tags.size(), 3U);
    EXPECT_EQ(after.tags[0].name, "A-THIRD") << "the directory is in order";
    for (const auto& report : compareTags(*table, after)) EXPECT_EQ(sentenceOf(report), "");
    for (const auto& [tag, wanted, filler] : {std::tuple{1, &keys, ' '}, {2, &numbers, '\0'}}) {
        const std::vector<Entry> found =
            entriesAt(bytes, after.tags[static_cast<std::size_t>(tag)].header, filler);
        const std::vector<Entry> entries = entriesOf(*wanted);
        ASSERT_EQ(found.size(), entries.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
            ASSERT_EQ(found[i].key, entries[i].key) << i;
            ASSERT_EQ(found[i].record, entries[i].record) << i;
        }
    }
    const std::string header = bytes.substr(after.tags[1].header, 1024);
    EXPECT_EQ(header.substr(8), cdxHeader(0, 20, name).substr(8)) << "all but root and free list";
}

TEST(Index, DamagedFilesAreRefusedOrRead) {
    const TempDir dir;
    const auto table = openVisual(dir);
    std::vector<TagBytes> tags = visualTags();
    tags.resize(3);
    const std::string whole = cdxOf(tags, true);
    const auto survives = [&](std::string_view bytes) {
        writeAll(dir.file("t.cdx"), bytes);
        try {
            const IndexFile file = openIndex(dir.file("t.cdx"));
            compareTags(*table, file);
        } catch (const tables::Refusal&) {
        }
    };
    for (std::size_t cut = 0; cut < whole.size(); cut += 61) survives(whole.substr(0, cut));
    for (std::size_t at = 0; at < whole.size(); at += 3) {
        for (const char value : {'\0', '\xFF', '\x01'}) {
            std::string bytes = whole;
            bytes[at] = value;
            survives(bytes);
        }
    }
    std::string loop = whole;  // the directory's leaf has itself to the right
    loop.replace(1024 + 8, 4, le(1024, 4));
    writeAll(dir.file("t.cdx"), loop);
    EXPECT_THROW(openIndex(dir.file("t.cdx")), tables::Refusal);
}

using EntriesByTag = std::map<std::string, std::vector<Entry>>;

EntriesByTag entriesIn(const IndexFile& file) {
    EntriesByTag all;
    for (const auto& tag : file.tags) {
        std::vector<Entry>& entries = all[tag.name + '|' + tag.expression];
        eachEntry(file, tag, ' ', [&](std::string_view key, u32 record) {
            entries.push_back({std::string(key), record});
            return true;
        });
    }
    return all;
}

/// From its own entries.
TEST(Index, RewrittenReadsBackTheSame) {
    const TempDir dir;
    std::vector<std::string> files;
    for (const TagBytes& tag : visualTags()) {
        for (const bool deep : {false, true}) {
            files.push_back(dir.file("t" + std::to_string(files.size()) + ".cdx"));
            std::vector<TagBytes> tags = {tag};
            if (!deep) tags.push_back({"EMPTY", "name"});
            writeAll(files.back(), cdxOf(tags, deep));
        }
    }
    if (const char* const folder = std::getenv("MIRA_INDEXES")) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            const std::string path = entry.path();
            if (path.ends_with(".cdx") || path.ends_with(".CDX")) files.push_back(path);
        }
    }
    for (const std::string& path : files) {
        const IndexFile old = openIndex(path);
        const IndexFile copy =
            made(dir.file("copy.cdx"), [&](int file) { rewriteIndex(old, ' ', file); });
        EXPECT_TRUE(entriesIn(copy) == entriesIn(old)) << path;
    }
    RecordProperty("files", static_cast<int>(files.size()));
}

TEST(Index, ABackupVouchesForTheKeys) {
    const TempDir dir;
    const auto table = openVisual(dir);
    const auto why = [&](const std::string& key) {
        writeAll(dir.file("t.cdx"), cdxOf({{"T", "name", "", {{"Anvil ", 2}, {key, 1}}}}));
        return tables::whyNotRebuilt(*table, openIndex(dir.file("t.cdx")), false);
    };
    EXPECT_EQ(why("bolt  "), "");
    EXPECT_TRUE(
        why("rivet ").starts_with("tag T: 1 record missing, first 3; 1 other key, first 1"));
    std::string before = readAll(table->path);
    writeAll(dir.file("t.bak"), before);
    EXPECT_NE(why("rivet "), "");
    before.replace(before.find("bolt  "), 6, "rivet ");
    writeAll(dir.file("t.bak1"), before);
    EXPECT_EQ(why("rivet "), "");
    EXPECT_NE(why("screw "), "");
}

struct RealTag {
    std::vector<std::string> cells;
    const std::string& operator[](std::size_t i) const { return cells.at(i); }
};

TEST(Index, RealFilesHoldWhatOthersRead) {
    const char* const folder = std::getenv("MIRA_INDEXES");
    if (folder == nullptr) GTEST_SKIP() << "MIRA_INDEXES is not set: no real index files to read";
    std::ifstream expected(folder + "/expected.tsv"s);
    std::string line;
    std::getline(expected, line);
    int agreeing = 0;
    while (std::getline(expected, line)) {
        const RealTag row{split(line, '\t')};
        const auto table = tables::openTable(folder + "/"s + row[1], {});
        const IndexFile file = openIndex(folder + "/"s + row[0]);
        const auto tag = std::find_if(file.tags.begin(), file.tags.end(),
                                      [&](const auto& t) { return t.name == row[3]; });
        ASSERT_NE(tag, file.tags.end()) << line;
        std::string flags = (tag->unique ? " unique"s : "") + (tag->candidate ? " candidate" : "") +
                            (tag->descending ? " descending" : "");
        EXPECT_EQ(kindName(file.kind), row[2]) << line;
        EXPECT_EQ(tag->expression + '|' + tag->condition + '|' + flags + '|' + tag->collation,
                  row[4] + '|' + row[5] + (row[6].empty() ? "|" : "| ") + row[6] + '|' + row[7]);
        std::string records;
        u32 number = 0;
        eachEntry(file, *tag, ' ', [&](std::string_view, u32 record) {
            records += (number == 0 ? "" : " ") + std::to_string(record);
            return ++number < 30;
        });
        EXPECT_EQ(records, row[10] == "-" ? "" : row[10]) << line;
        EXPECT_EQ(tag->bitmap ? "-" : std::to_string(countKeys(file, *tag)), row[8]) << line;
        const std::string found =
            compared(*table, file, static_cast<std::size_t>(tag - file.tags.begin()));
        const std::string verdict = row[9].substr(0, row[9].find_first_of(" ,"));
        EXPECT_EQ(found.empty()              ? "agrees"
                  : found.starts_with("not") ? "not"
                                             : "stale",
                  verdict)
            << line << found;
        agreeing += found.empty();
    }
    EXPECT_GT(agreeing, 0);
}

}  // namespace
