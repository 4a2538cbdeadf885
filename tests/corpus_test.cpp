// Real tables of other programs, compared cell by cell with what they are known to hold. The folder
// comes from the environment variable MIRA_CORPUS: tables in FOLDER/<source>/<file>, their contents
// in FOLDER/expected/<source>__<file>.tsv.
#include <chrono>
#include <cmath>
#include <cstdlib>

#include "support.h"

using namespace mira;
using namespace test;
namespace fs = std::filesystem;

namespace {

const char* const kFolder = std::getenv("MIRA_CORPUS");

std::string escaped(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto u = static_cast<unsigned char>(c);
        char hex[5];
        std::snprintf(hex, sizeof hex, "\\x%02X", u);
        out += u < 32 || u > 126 || c == '\\' ? hex : std::string(1, c);
    }
    return out;
}

std::string stripped(std::string_view text) {
    const std::size_t start = std::min(text.find_first_not_of(' '), text.size());
    return std::string(text.substr(start, text.find_last_not_of(' ') - start + 1));
}

unsigned long crc32(std::string_view bytes) {
    unsigned long crc = 0xFFFFFFFF;
    for (const char c : bytes) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
    return crc ^ 0xFFFFFFFF;
}

std::string memoCell(DbfBase* h, int field) {
    const std::string memo = memoOf(h, field).value_or("");
    if (memo.size() <= 1000) return escaped(memo);
    char text[60];
    std::snprintf(text, sizeof text, "{%zu bytes, CRC-32 %08lx}", memo.size(), crc32(memo));
    return text;
}

/// Empty where both name the same value, else what the table shows.
std::string difference(DbfBase* h, int field, const std::string& expected) {
    const char type = static_cast<char>(GetFieldType(h, field));
    const bool memo = if_memo_type(h, field) != 0;
    h->RawNumeric = 1;
    const std::string shown = memo ? memoCell(h, field) : escaped(stripped(GetStr(h, field)));
    if (shown == expected) return "";
    if (!memo && std::string_view("NFBO").find(type) != std::string_view::npos && expected != "") {
        const int decimals = type == 'O' ? 8 : GetLowLen(h, field);
        const double gap = std::fabs(GetValue(h, field) - std::atof(expected.c_str()));
        if (gap <= 0.5000001 * std::pow(10.0, -decimals)) return "";
    }
    return "shows \"" + shown + "\" for \"" + expected + "\"";
}

std::string fieldLine(DbfBase* h) {
    std::string line;
    for (int f = 0; f < h->FieldCount; ++f) {
        const bool character = GetFieldType(h, f) == 'C';
        line += (f == 0 ? "" : "\t") + escaped(GetFieldName(h, f)) + ":" +
                static_cast<char>(GetFieldType(h, f)) + ":" + std::to_string(GetAllLen(h, f)) +
                ":" + std::to_string(character ? 0 : GetLowLen(h, f));
    }
    return line;
}

void compare(const fs::path& table, const fs::path& expectedFile) {
    const std::string file = table.filename().string();
    std::ifstream in(expectedFile);
    std::string line;
    std::getline(in, line);
    const Table h(OpenBaseRO(table.c_str()));
    ASSERT_TRUE(h) << file;
    EXPECT_EQ(fieldLine(h.get()), line) << file;
    h->DateFormat = 4;
    u32 record = 0;
    for (; std::getline(in, line); ++record) {
        ASSERT_TRUE(ReadRecord(h.get(), record)) << file << " record " << record;
        const std::vector<std::string> expected = split(line, '\t');
        ASSERT_EQ(expected.size(), h->FieldCount + 1u) << file;
        const char deleted = static_cast<char>(h->RecordBuffer[0]);
        EXPECT_TRUE(expected[0] == "?" || expected[0] == escaped({&deleted, 1})) << file;
        for (int f = 0; f < h->FieldCount; ++f) {
            const std::string& cell = expected[static_cast<std::size_t>(f) + 1];
            if (cell == "?") continue;
            const std::string found = difference(h.get(), f, cell);
            EXPECT_EQ(found, "") << file << " record " << record << " " << GetFieldName(h.get(), f);
        }
    }
    EXPECT_EQ(reccount(h.get()), record) << file;
}

TEST(Corpus, ShowsWhatTheTablesHold) {
    if (kFolder == nullptr) GTEST_SKIP() << "MIRA_CORPUS is not set: no real tables to compare";
    int compared = 0;
    for (const auto& entry : fs::directory_iterator(fs::path(kFolder) / "expected")) {
        const std::string name = entry.path().stem().string();  // without .tsv
        const std::size_t middle = name.find("__");
        compare(fs::path(kFolder) / name.substr(0, middle) / name.substr(middle + 2), entry.path());
        ++compared;
    }
    EXPECT_GT(compared, 0);
}

/// Runs one call of the library, which must not take longer than a second.
template <typename Call>
void timed(const char* what, const Call& call) {
    const auto start = std::chrono::steady_clock::now();
    call();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << what;
}

/// Everything a program may do with a table.
void useTable(const std::string& path) {
    Table h;
    timed("open", [&] { h.reset(OpenBase(path.c_str())); });
    if (!h) return;
    for (u32 record = 0; record < reccount(h.get()); ++record) {
        ReadRecord(h.get(), record);
        for (int f = 0; f < h->FieldCount; ++f) {
            GetStr(h.get(), f);
            u32 length = 0;
            if (if_memo_type(h.get(), f) != 0) {
                timed("memo", [&] { std::free(GetMemoBuf(h.get(), f, &length)); });
            }
        }
    }
    const std::string name = h->FieldCount == 0 ? "" : GetFieldName(h.get(), 0);
    timed("sort", [&] { SortBase(h.get(), name.c_str(), nullptr); });
    timed("filter", [&] { set_filter(h.get(), (name + "=A|" + name + ">1").c_str(), nullptr); });
    timed("append", [&] { AppendBlank(h.get(), 1); });
    ClearAllFilter(h.get());
    timed("pack", [&] { Pack(h.get(), 0); });
}

/// Damages copies of a table in every way and uses each: all bytes of the fixed header and the
/// first descriptors, those where the header ends, and a sample of the others.
void damage(const fs::path& table, const TempDir& dir) {
    const std::string bytes = readAll(table).substr(0, 65536);
    const std::string copy = dir.file(table.filename().string());
    for (const auto& beside : fs::directory_iterator(table.parent_path())) {
        if (beside.path().stem() != table.stem() || beside.path() == table) continue;
        fs::copy_file(beside.path(), dir.file(beside.path().filename().string()));
    }
    const std::size_t headerLength =
        static_cast<unsigned char>(bytes[8]) + 256u * static_cast<unsigned char>(bytes[9]);
    const std::size_t end = std::min(headerLength, bytes.size());
    for (std::size_t place = 0; place < end;
         place += place < 96 || place + 8 > end ? 1 : std::min(1 + end / 64, end - 8 - place + 1)) {
        std::string flipped = bytes, zeroed = bytes;
        flipped[place] = static_cast<char>(~flipped[place]);
        zeroed[place] = 0;
        for (const std::string& damaged : {flipped, zeroed, bytes.substr(0, place)}) {
            writeAll(copy, damaged);
            useTable(copy);
        }
    }
}

TEST(Corpus, DamagedTablesDoNoHarm) {
    if (kFolder == nullptr) GTEST_SKIP() << "MIRA_CORPUS is not set: no real tables to damage";
    for (const auto& source : fs::directory_iterator(kFolder)) {
        if (!source.is_directory() || source.path().filename() == "expected") continue;
        for (const auto& entry : fs::directory_iterator(source)) {
            const std::string ext = entry.path().extension().string();
            if (std::string(".dbf.DBF.DBC.bin").find(ext) == std::string::npos) continue;
            TempDir dir;
            damage(entry.path(), dir);
        }
    }
}

}  // namespace
