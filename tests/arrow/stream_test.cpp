// Arrow streams over tables of every sort, compared with the one reader of the tables.
#include <gtest/gtest.h>
#include <sys/file.h>

#include <filesystem>
#include <thread>

#include "arrow/arrays.h"
#include "arrow/tables.h"
#include "tables/open/journal.h"

namespace test {
namespace {

namespace fs = std::filesystem;
using Rows = std::vector<std::vector<std::string>>;

void expectSame(const std::string& path, const MiraArrowOptions& options, u64 cut) {
    try {
        checkStream(path, options, cut);
    } catch (const std::exception& error) {
        FAIL() << path << ": " << error.what();
    }
}

/// Writes a table of rows over one column and reads it with the types given.
Read readColumn(const Folder& folder, const Column& column, const std::vector<std::string>& cells,
                const char* types = nullptr, bool exact = false) {
    Layout layout{0x03, {{"FIRST", 'C', 1}, column}};
    for (const std::string& cell : cells) layout.records.push_back("  " + cell);
    writeAll(folder.file("t.dbf"), layout.bytes());
    MiraArrowOptions options = arrowOptions();
    options.columns = column.name.c_str();
    options.types = types;
    options.exact_decimals = exact ? 1 : 0;
    return readStream(folder.file("t.dbf"), options);
}

TEST(Arrow, GivesEveryCellAsTheReaderOfTheTables) {
    const Folder folder;
    std::mt19937 random(7);
    const std::string path = folder.file("t.dbf");
    for (int i = 0; i < 400 && !testing::Test::HasFailure(); ++i) {
        // Every 20th table goes over several blocks.
        writeAll(path, randomTable(random,
                                   i % 20 == 0 ? 5000 : 1 + static_cast<unsigned>(random() % 40)));
        MiraArrowOptions options = arrowOptions();
        options.deleted = static_cast<std::uint8_t>(random() % 3);
        options.exact_decimals = static_cast<std::uint8_t>(random() % 2);
        options.batch_records = i % 3 == 0 ? 0 : 1 + static_cast<u32>(random() % 50);
        // A cell that cannot be held ends a stream: most fields are read as doubles or texts.
        std::string types;
        for (int k = 0; k < 13; ++k) {
            const Read facts = readStream(path, options);
            const std::string word = random() % 8 == 0 ? "binary" : "text";
            const auto at = facts.error.find("; types ");
            if (at == std::string::npos) break;
            const std::string name = facts.error.substr(at + 8, facts.error.find('=') - at - 8);
            if (random() % 6 == 0) break;
            types += (types.empty() ? "" : ",") + name + "=" + word;
            options.types = types.c_str();
        }
        expectSame(path, options, random() % 45);
    }
}

TEST(Arrow, GivesRealTablesAsTheReaderOfTheTables) {
    std::vector<std::string> folders = {MIRA_SAMPLES_DIR};
    if (const char* const corpus = std::getenv("MIRA_CORPUS")) folders.emplace_back(corpus);
    int tables = 0;
    for (const std::string& folder : folders) {
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            if (!entry.is_regular_file()) continue;
            for (const u8 deleted : {u8{0}, u8{1}}) {
                MiraArrowOptions options = arrowOptions();
                options.deleted = deleted;
                expectSame(entry.path().string(), options, entry.file_size() % 97);
            }
            ++tables;
        }
    }
    EXPECT_GE(tables, 5);
}

TEST(Arrow, HoldsNumbersOrSaysWhichOneItCannot) {
    const Folder folder;
    struct Case {
        Column column;
        std::vector<std::string> cells;
        const char* types;
        bool exact;
        std::vector<std::string> values;
        std::string format, error;
    };
    const Case cases[] = {
        {{"N", 'N', 5}, {"   12", "1.0e1"}, nullptr, false, {"12", "10"}, "l", ""},
        {{"N", 'N', 5},
         {"   12", "147.6"},
         nullptr,
         false,
         {},
         "l",
         "record 2, field N: 147.6 is no whole number of 64 bits; types N=double"},
        {{"N", 'N', 5},
         {"147.6", "     "},
         "N=double",
         false,
         {"0x1.2733333333333p+7", "(null)"},
         "g",
         ""},
        {{"N", 'N', 5}, {"147.6", " -  1"}, "n = text", false, {"147.6", "(null)"}, "U", ""},
        {{"N", 'N', 5}, {" 9e99"}, nullptr, false, {}, "l", "9e99 is no whole number of 64 bits"},
        {{"N", 'N', 19},
         {"9999999999999999999"},
         nullptr,
         false,
         {"9999999999999999999"},
         "d:19,0",
         ""},
        {{"N", 'N', 20},
         {" 9223372036854775808"},
         "N=int64",
         false,
         {},
         "l",
         "is no whole number of 64 bits"},
        {{"N", 'N', 20},
         {"-9223372036854775808"},
         "N=int64",
         false,
         {"-9223372036854775808"},
         "l",
         ""},
        {{"N", 'N', 8, 2}, {"-1234.50"}, nullptr, true, {"-123450"}, "d:8,2", ""},
        {{"N", 'N', 8, 2},
         {"   1.255"},
         nullptr,
         true,
         {},
         "d:8,2",
         "1.255 has more digits than 8 with 2 decimals; types N=text"},
        {{"N", 'N', 39, 2}, {padded("1.5", 39)}, nullptr, true, {"1.5"}, "U", ""},
        {{"N", 'N', 3, 9}, {"1.5"}, nullptr, true, {"1.5"}, "U", ""},
        {{"N", 'N', 6, 1}, {" 1e999"}, nullptr, false, {}, "g", "1e999 is beyond a double"},
        {{"C", 'C', 4}, {"ab  "}, "C=binary", false, {"ab  "}, "Z", ""},
        {{"X", 'X', 4}, {"ab\x80 "}, "X=text", false, {"ab\xC3\x87"}, "U", ""},
        {{"D", 'D', 8}, {"20240131"}, "D=double", false, {}, "", "types D=double: NAME="},
    };
    for (const Case& c : cases) {
        const Read read = readColumn(folder, c.column, c.cells, c.types, c.exact);
        const std::string what = c.cells.front() + ", " + c.error;
        EXPECT_NE(read.error.find(c.error), std::string::npos) << what << ": " << read.error;
        EXPECT_EQ(read.error.empty(), c.error.empty()) << what << ": " << read.error;
        EXPECT_EQ(c.format, read.formats.empty() ? "" : read.formats[0]) << what;
        Rows rows;
        for (const std::string& value : c.values) rows.push_back({value});
        EXPECT_EQ(read.rows, rows) << what;
    }
}

TEST(Arrow, TellsWhatWasMet) {
    const Folder folder;
    // The first and the last are held: 16 digits that the nearest double gives back, and 15.
    const Read rounded =
        readColumn(folder, {"N", 'N', 20, 2},
                   {"    4503599627370.49", "  123456789012345.67", "  1234567890123456.78",
                    "                  x1", "      99999999999.25"});
    EXPECT_NE(rounded.report.find("t.dbf: 1 number rounded, first in record 3, field N"),
              std::string::npos)
        << rounded.report;
    EXPECT_NE(rounded.report.find(R"("kind":"no_number","count":1,"record":4,"field":"N")"),
              std::string::npos)
        << rounded.report;
    const Read failed = readColumn(folder, {"N", 'N', 3}, {"  x", "1.5"});
    EXPECT_NE(failed.report.find("no_number"), std::string::npos) << failed.report;

    Layout layout{0x83, {{"NOTE", 'M', 10}}, {"          1", std::string(11, ' ')}};
    writeAll(folder.file("m.dbf"), layout.bytes());
    const Read memos = readStream(folder.file("m.dbf"), arrowOptions());
    EXPECT_EQ(memos.rows, (Rows{{"(null)"}, {"(null)"}}));
    EXPECT_NE(memos.report.find("its memo file m.dbt is missing"), std::string::npos)
        << memos.report;
    EXPECT_NE(memos.report.find("1 memo cannot be read"), std::string::npos) << memos.report;
}

TEST(Arrow, TakesOptions) {
    const std::string stock = std::string(MIRA_SAMPLES_DIR) + "/stock.dbf";
    MiraArrowOptions options = arrowOptions();
    options.columns = "price,_record,CODE,CODE";
    options.where = "PRICE>5";
    const Read read = readStream(stock, options);
    EXPECT_EQ(read.names, (std::vector<std::string>{"PRICE", "_record", "CODE"}));
    EXPECT_EQ(read.rows, (Rows{{"0x1.9p+3", "7", "LCK002"},
                               {"0x1.dp+2", "8", "GLU500"},
                               {"0x1.8p+4", "11", "SAW300"}}));

    // Each alone, and then with a filter over records of several blocks.
    struct Case {
        void (*set)(MiraArrowOptions&);
        int result;
        std::string message;
    };
    const Case cases[] = {
        {[](MiraArrowOptions& o) { o.columns = "PRIZE"; }, MIRA_ARROW_NO_FIELD,
         "did you mean PRICE?"},
        {[](MiraArrowOptions& o) { o.types = "PRIZE=text"; }, MIRA_ARROW_NO_FIELD, "PRICE"},
        {[](MiraArrowOptions& o) { o.types = "_record=text"; }, MIRA_ARROW_BAD_OPTION, "_record"},
        {[](MiraArrowOptions& o) { o.where = "PRIZE>5"; }, MIRA_ARROW_BAD_OPTION,
         "did you mean PRICE?"},
        {[](MiraArrowOptions& o) { o.code_page = "CP0"; }, MIRA_ARROW_NO_PAGE, "CP0"},
        {[](MiraArrowOptions& o) { o.deleted = 3; }, MIRA_ARROW_BAD_OPTION, "deleted"},
        {[](MiraArrowOptions& o) { o.size = 0; }, MIRA_ARROW_BAD_OPTION, "size"},
    };
    for (const Case& c : cases) {
        MiraArrowOptions bad = arrowOptions();
        c.set(bad);
        ArrowArrayStream stream{};
        char message[256] = "";
        EXPECT_EQ(mira_arrow_open(stock.c_str(), &bad, &stream, message, sizeof message), c.result)
            << c.message;
        EXPECT_NE(std::string(message).find(c.message), std::string::npos) << message;
        EXPECT_EQ(stream.release, nullptr);
    }

    const Folder folder;
    Layout layout{0x03, {{"K", 'N', 6}}};
    for (int i = 0; i < 60000; ++i)
        layout.records.push_back(printed("%c%6d", i % 5 == 0 ? '*' : ' ', i));
    writeAll(folder.file("k.dbf"), layout.bytes());
    options = arrowOptions();
    options.where = "K>59990|K=1";
    options.first = 1;
    const Read some = readStream(folder.file("k.dbf"), options);
    EXPECT_EQ(some.rows, (Rows{{"1"},
                               {"59991"},
                               {"59992"},
                               {"59993"},
                               {"59994"},
                               {"59996"},
                               {"59997"},
                               {"59998"},
                               {"59999"}}));
    options.first = 59993;
    options.end = 59996;
    options.deleted = 2;
    EXPECT_EQ(readStream(folder.file("k.dbf"), options).rows, (Rows{{"59995", "true"}}));
    // No column at all still has rows.
    options = arrowOptions();
    options.columns = "";
    EXPECT_EQ(readStream(folder.file("k.dbf"), options).rows.size(), 48000U);

    // What is blank or true is no comparison of the library's.
    layout = {0x03, {{"L", 'L', 1}, {"C", 'C', 9}}};
    for (int i = 0; i < 30000; ++i)
        layout.records.push_back(printed(" %c%9s", i % 14999 == 2 ? 'y' : ' ', ""));
    writeAll(folder.file("l.dbf"), layout.bytes());
    options.columns = "_record";
    for (const char* filter : {"L=true", "L<>&C=", "l = .T.", "C<> | L=yes"}) {
        options.where = filter;
        EXPECT_EQ(readStream(folder.file("l.dbf"), options).rows, (Rows{{"3"}, {"15002"}}))
            << filter;
    }
    options.where = "L=yes AND C=";
    ArrowArrayStream refused{};
    EXPECT_EQ(mira_arrow_open(folder.file("l.dbf").c_str(), &options, &refused, nullptr, 0),
              MIRA_ARROW_BAD_OPTION);
}

TEST(Arrow, RefusesWhatIsNoTable) {
    const Folder folder;
    ArrowArrayStream stream{};
    char message[64] = "";
    const auto open = [&](const std::string& name) {
        return mira_arrow_open(folder.file(name).c_str(), nullptr, &stream, message,
                               sizeof message);
    };
    EXPECT_EQ(open("none.dbf"), MIRA_ARROW_NO_FILE);
    writeAll(folder.file("no.dbf"), "no table");
    EXPECT_EQ(open("no.dbf"), MIRA_ARROW_NO_TABLE);
    EXPECT_EQ(std::string(message).size(), 63U);  // cut at the room given
    char* json = nullptr;
    EXPECT_EQ(mira_arrow_facts(folder.file("no.dbf").c_str(), nullptr, &json), MIRA_ARROW_NO_TABLE);
    EXPECT_NE(std::string(json).find("no table"), std::string::npos);
    mira_arrow_free(json);
}

TEST(Arrow, RefusesATableWhoseChangeWasInterrupted) {
    const Folder folder;
    const std::string path = folder.file("stock.dbf");
    const std::string journal = path + "-mira";
    fs::copy_file(std::string(MIRA_SAMPLES_DIR) + "/stock.dbf", path);
    fs::create_symlink(path, folder.file("link.dbf"));
    EXPECT_FALSE(mira::tables::hasJournal(path));
    writeAll(journal, "journal");
    for (const std::string& name : {path, folder.file("link.dbf")}) {
        const Read read = readStream(name, arrowOptions());
        EXPECT_EQ(read.opened, MIRA_ARROW_NO_TABLE);
        EXPECT_EQ(read.error,
                  name + ": a change was interrupted; `mira info " + name + "` puts it right");
    }
    // While its program runs, the table is read as it is.
    const int held = open(journal.c_str(), O_RDWR);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    ASSERT_EQ(fcntl(held, F_OFD_SETLK, &lock), 0);
    EXPECT_FALSE(mira::tables::hasJournal(path));
    EXPECT_EQ(readStream(path, arrowOptions()).rows.size(), 11U);
    close(held);
    // Between two names.
    fs::remove(path);
    EXPECT_EQ(readStream(path, arrowOptions()).opened, MIRA_ARROW_NO_TABLE);
}

TEST(Arrow, JoinsTablesOfOneStructure) {
    const Folder folder;
    std::vector<std::string> paths;
    for (int i = 0; i < 3; ++i) {
        Layout layout{0x03, {{"A", 'N', 3U + static_cast<unsigned>(i)}}};
        layout.records.push_back(' ' + padded(printed("%d", i), 3U + static_cast<unsigned>(i)));
        paths.push_back(folder.file(printed("%d.dbf", i)));
        writeAll(paths.back(), layout.bytes());
    }
    const auto read = [&] {
        const char* const names[] = {paths[0].c_str(), paths[1].c_str(), paths[2].c_str()};
        MiraArrowOptions options = arrowOptions();
        options.source = "a";
        ArrowArrayStream stream{};
        EXPECT_EQ(mira_arrow_open_many(names, 3, &options, &stream, nullptr, 0), 0);
        ArrowArray array{};
        std::string result;
        const int error = stream.get_next(&stream, &array);
        if (error != 0) {
            result = stream.get_last_error(&stream);
            EXPECT_EQ(stream.get_next(&stream, &array), error);
        } else {
            const auto* const sources = static_cast<const char*>(array.children[1]->buffers[2]);
            const auto* const ends = static_cast<const i64*>(array.children[1]->buffers[1]);
            result = printed("%d rows, last of %s", static_cast<int>(array.length),
                             std::string(sources + ends[2], sources + ends[3]).c_str());
            array.release(&array);
        }
        stream.release(&stream);
        return result;
    };
    EXPECT_EQ(read(), "3 rows, last of " + paths[2]);
    writeAll(paths[1], Layout{0x03, {{"A", 'C', 3}}, {" abc"}}.bytes());
    EXPECT_EQ(read(), paths[1] + ": its columns are not those of " + paths[0] +
                          ": column A is U instead of l");
}

TEST(Arrow, StreamsAreIndependent) {
    const Folder folder;
    std::mt19937 random(3);
    const std::string path = folder.file("t.dbf");
    writeAll(path, randomTable(random, 3000));
    MiraArrowOptions options = arrowOptions();
    options.columns = "F0,_record";
    options.types = "F0=text";
    const Rows rows = readStream(path, options).rows;
    std::vector<Rows> read(4);
    std::vector<std::thread> threads;
    for (Rows& of : read) threads.emplace_back([&] { of = readStream(path, options).rows; });
    for (std::thread& thread : threads) thread.join();
    for (const Rows& of : read) EXPECT_EQ(of, rows);
}

TEST(Arrow, ArraysAreReleasedOnOtherThreadsWhileTheStreamGoesOn) {
    const Folder folder;
    std::mt19937 random(3);
    const std::string path = folder.file("t.dbf");
    writeAll(path, randomTable(random, 3000));
    MiraArrowOptions options = arrowOptions();
    options.columns = "F0,_record";
    options.types = "F0=text";
    options.batch_records = 16;
    ArrowArrayStream stream{};
    ASSERT_EQ(mira_arrow_open(path.c_str(), &options, &stream, nullptr, 0), 0);
    std::vector<std::thread> threads;
    int arrays = 0;
    while (true) {
        ArrowArray array{};
        std::thread([&] { ASSERT_EQ(stream.get_next(&stream, &array), 0); }).join();
        if (array.release == nullptr) break;
        threads.emplace_back([array]() mutable {
            const auto* const records = static_cast<const i64*>(array.children[1]->buffers[1]);
            for (i64 i = 1; i < array.length; ++i) EXPECT_GT(records[i], records[i - 1]);
            array.release(&array);
        });
        ++arrays;
    }
    stream.release(&stream);
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(arrays, 100);
}

TEST(Arrow, ColumnsAndSchemasCanBeMovedAway) {
    const std::string stock = std::string(MIRA_SAMPLES_DIR) + "/stock.dbf";
    ArrowArrayStream stream{};
    ASSERT_EQ(mira_arrow_open(stock.c_str(), nullptr, &stream, nullptr, 0), 0);
    ArrowSchema schema{};
    ASSERT_EQ(stream.get_schema(&stream, &schema), 0);
    ArrowSchema name = *schema.children[1];
    schema.children[1]->release = nullptr;
    ArrowArray array{};
    ASSERT_EQ(stream.get_next(&stream, &array), 0);
    ArrowArray column = *array.children[1];
    array.children[1]->release = nullptr;
    array.release(&array);
    schema.release(&schema);
    stream.release(&stream);
    EXPECT_STREQ(name.name, "ITEM");
    EXPECT_EQ(std::string(static_cast<const char*>(column.buffers[2]), 5), "Bolt ");
    name.release(&name);
    column.release(&column);
}

}  // namespace
}  // namespace test
