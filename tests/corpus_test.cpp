// Real tables of other programs, compared cell by cell with what they are known to hold. The folder
// comes from the environment variable MIRA_CORPUS: tables in FOLDER/<source>/<file>, their contents
// in FOLDER/expected/<source>__<file>.tsv.
#include <cmath>
#include <fstream>
#include <sstream>

#include "support.h"

namespace test {
namespace {

namespace fs = std::filesystem;

const char* const kFolder = std::getenv("MIRA_CORPUS");

std::string escaped(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const bool plain = c >= ' ' && c <= '~' && c != '\\';
        out += plain ? std::string(1, c) : printed("\\x%02X", static_cast<u8>(c));
    }
    return out;
}

std::string stripped(std::string_view text) {
    const std::size_t start = std::min(text.find_first_not_of(' '), text.size());
    return std::string(text.substr(start, text.find_last_not_of(' ') - start + 1));
}

std::vector<std::string> cells(const std::string& line) {
    std::vector<std::string> all;
    std::istringstream in(line + '\t');
    for (std::string cell; std::getline(in, cell, '\t');) all.push_back(cell);
    return all;
}

unsigned long crc32(std::string_view bytes) {
    unsigned long crc = 0xFFFFFFFF;
    for (const char c : bytes) {
        crc ^= static_cast<u8>(c);
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
    }
    return crc ^ 0xFFFFFFFF;
}

std::string shownCell(DbfBase* h, int field) {
    if (if_memo_type(h, field) == 0) return escaped(stripped(GetStr(h, field)));
    const std::string memo = memoOf(h, field).value_or("");
    return memo.size() <= 1000 ? escaped(memo)
                               : printed("{%zu bytes, CRC-32 %08lx}", memo.size(), crc32(memo));
}

/// Numbers may be known with more decimals than are shown.
bool isSame(DbfBase* h, int field, const std::string& shown, const std::string& expected) {
    const char type = static_cast<char>(GetFieldType(h, field));
    if (shown == expected || expected == "?") return true;
    if (if_memo_type(h, field) != 0 || "NFBO"s.find(type) == std::string::npos || expected.empty())
        return false;
    const double gap = std::fabs(GetValue(h, field) - std::atof(expected.c_str()));
    return gap <= 0.5000001 * std::pow(10.0, type == 'O' ? -8 : -GetLowLen(h, field));
}

std::string fieldLine(DbfBase* h) {
    std::string line;
    for (int f = 0; f < h->FieldCount; ++f) {
        const int decimals = GetFieldType(h, f) == 'C' ? 0 : GetLowLen(h, f);
        line += (f == 0 ? "" : "\t") + escaped(GetFieldName(h, f)) +
                printed(":%c:%d:%d", GetFieldType(h, f), GetAllLen(h, f), decimals);
    }
    return line;
}

void compare(const fs::path& table, const fs::path& expectedFile) {
    SCOPED_TRACE(table);
    std::ifstream in(expectedFile);
    std::string line;
    std::getline(in, line);
    const Table h(OpenBaseRO(table.c_str()));
    ASSERT_TRUE(h);
    EXPECT_EQ(fieldLine(h.get()), line);
    h->DateFormat = 4;
    h->RawNumeric = 1;
    u32 record = 0;
    for (; std::getline(in, line); ++record) {
        ASSERT_TRUE(ReadRecord(h.get(), record)) << record;
        const std::vector<std::string> expected = cells(line);
        ASSERT_EQ(expected.size(), h->FieldCount + 1u);
        EXPECT_TRUE(expected[0] == "?" || expected[0] == escaped(recordOf(h.get()).substr(0, 1)));
        for (int f = 0; f < h->FieldCount; ++f) {
            const std::string& cell = expected[static_cast<std::size_t>(f) + 1];
            const std::string found = shownCell(h.get(), f);
            EXPECT_TRUE(isSame(h.get(), f, found, cell))
                << record << ": " << found << " is not " << cell;
        }
    }
    EXPECT_EQ(reccount(h.get()), record);
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

}  // namespace
}  // namespace test
