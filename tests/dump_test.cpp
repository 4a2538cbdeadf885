// The dump program, run as users run it.
#include "cases.h"

namespace test {
namespace {

/// Standard output and error of a shell command, with a line about its exit status if that is
/// not 0.
std::string outputOf(const std::string& command) {
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::string output;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) output += static_cast<char>(c);
    return pclose(pipe) == 0 ? output : output + "failed\n";
}

const std::string kDump = "'" MIRA_DUMP_PROGRAM "'";
std::string dump(const std::string& path) { return outputOf(kDump + " '" + path + "'"); }

TEST(Dump, PrintsEveryFieldOfEveryRecord) {
    for (const std::string name : {"stock", "ledger"}) {
        std::string expected;
        for (const auto& row : cases(name)) expected += row[0] + "\n";
        EXPECT_EQ(dump(MIRA_SAMPLES_DIR "/" + name + ".dbf"), expected);
    }
}

TEST(Dump, DefaultTableAndNothingToPrint) {
    const Folder folder;
    const std::string here = "cd '" + folder.file("") + "' && " + kDump;
    EXPECT_EQ(outputOf(here), "");
    Layout layout{0x03, {{"A", 'C', 2}}};
    writeAll(folder.file("empty.dbf"), layout.bytes());
    layout.records = {" xy", "*z "};
    writeAll(folder.file("test.dbf"), layout.bytes());
    EXPECT_EQ(outputOf(here), "xy|\nz |\n");
    EXPECT_EQ(outputOf(here + " test.dbf none.dbf"), "xy|\nz |\n");
    writeAll(folder.file("no-table.dbf"), "no table");
    for (const char* name : {"empty.dbf", "no-table.dbf", "none.dbf", ""})
        EXPECT_EQ(dump(folder.file(name)), "") << name;
}

}  // namespace
}  // namespace test
