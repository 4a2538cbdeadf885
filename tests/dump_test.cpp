// miradump: the whole output as golden text, and its silence where there is nothing to print.
#include "support.h"

namespace {

using test::operator""s;

const std::string kDump = "'"s + MIRA_DUMP_PROGRAM + "'";

/// Standard output and error of a shell command, with a line about its exit status if that is
/// not 0.
std::string outputOf(const std::string& command) {
    std::FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::string output;
    for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) output += static_cast<char>(c);
    return pclose(pipe) == 0 ? output : output + "failed\n";
}

std::string dump(const std::string& path) { return outputOf(kDump + " '" + path + "'"); }

TEST(Dump, PrintsEveryFieldOfEveryRecord) {
    EXPECT_EQ(dump(MIRA_SAMPLES_DIR "/stock.dbf"),
              "BLT040|Bolt M8 x 40        |    0.35| 1200|F|20240105|\n"
              "BLT060|Bolt M8 x 60        |    0.42|  860|F|20240105|\n"
              "NUT008|Hex nut M8          |    0.08| 2400|F|20240105|\n"
              "WSH008|Washer 8 mm         |    0.03|   95|T|20240108|\n"
              "WSH010|Washer 10 mm        |    0.04|    0|F|20231120|\n"
              "HNG100|Hinge 100 mm        |    4.90|   36|F|20240229|\n"
              "LCK002|Cabinet lock        |   12.50|   -3|T|20240301|\n"
              "GLU500|Wood glue 500 g     |    7.25|   18|T|        |\n"
              "SND120|Sandpaper 120|180   |    0.60|  340|F|20240301|\n"
              "DRL006|Drill bit 6 mm      |    3.10|    0|?|        |\n"
              "SAW300|Panel saw 300 mm    |   24.00|    7|F|20240304|\n"
              "RET001|Returned deposit    |  -15.00|    1|N|20240305|\n");
    // A binary date-time prints as its stored bytes, up to the first zero byte.
    EXPECT_EQ(
        dump(MIRA_SAMPLES_DIR "/ledger.dbf"),
        "         1|Opening balance |               2500.0000|              1.0000|\x97\x8A%|\n"
        "         2|Rent            |               -850.0000|              1.0000|\x98\x8A%|\n"
        "         3|Sales EUR       |               1234.5678|              1.0875|\xA5\x8A%|\n"
        "         4|Bank charges    |                -12.5000|              0.9195|\xB5\x8A%|\n"
        "        -5|Reversal        |                 12.5000|              0.9195|              "
        "|\n");
}

TEST(Dump, DefaultTableAndNothingToPrint) {
    const test::TempDir dir;
    const std::string here = "cd '" + dir.file("") + "' && " + kDump;
    EXPECT_EQ(outputOf(here), "");
    test::Layout layout{0x03, {{"A", 'C', 2}}, {}};
    test::writeAll(dir.file("empty.dbf"), layout.bytes());
    layout.records = {" xy", "*z "};
    test::writeAll(dir.file("test.dbf"), layout.bytes());
    EXPECT_EQ(outputOf(here), "xy|\nz |\n");
    EXPECT_EQ(outputOf(here + " test.dbf none.dbf"), "xy|\nz |\n");
    test::writeAll(dir.file("no-table.dbf"), "no table");
    for (const char* name : {"empty.dbf", "no-table.dbf", "none.dbf", ""}) {
        EXPECT_EQ(dump(dir.file(name)), "") << name;
    }
}

}  // namespace
