// Sessions with the program: text files, and the "console" blocks of the documents, with commands
// and what they print. Every line "$ ..." is run by the shell in a folder of its own that holds the
// samples and the tables of tables.h; what follows must be its output, and "[N]" its exit status
// when that is not 0. With MIRA_UPDATE_SESSIONS set, session files are written anew.
#include <algorithm>
#include <cstdio>

#include "support.h"
#include "tool/tables.h"

namespace {

using namespace test;

constexpr std::string_view kPrompt = "$ ";

/// Words for sessions: mira, a terminal of some columns, and what a table's filters find in a
/// field.
std::string prologue() {
    const std::string folder = std::filesystem::path(MIRA_PROGRAM).parent_path();
    return "PATH='" + folder +
           "':$PATH; LC_ALL=C; export PATH LC_ALL; "
           "terminal() { stty=$1; shift; script -qec \"stty cols $stty; $*\" /dev/null </dev/null "
           "| "
           "tr -d '\\r'; }; "
           "found() { table=$1; field=$2; shift 2; for filter; do echo \"$filter:\" "
           "$(mira export $table --no-heading -f $field -w \"$filter\"); done; }; ";
}

std::string run(const std::string& folder, const std::string& command) {
    writeAll(folder + "/../command", prologue() + command);
    const std::string line = "cd '" + folder + "' && sh ../command 2>&1 </dev/null; echo \"[$?]\"";
    std::string output;
    std::FILE* const pipe = popen(line.c_str(), "r");
    char buffer[4096];
    while (const std::size_t got = std::fread(buffer, 1, sizeof buffer, pipe)) {
        output.append(buffer, got);
    }
    pclose(pipe);
    if (output.ends_with("[0]\n")) output.resize(output.size() - 4);
    if (!output.empty() && !output.ends_with('\n')) output += '\n';
    return output;
}

/// The folder of a session, with the samples and the tables laid for it.
struct Folder {
    TempDir dir;
    std::string path = dir.file("here");

    Folder() {
        std::filesystem::create_directory(path);
        std::filesystem::copy(MIRA_SAMPLES_DIR, path + "/samples");
        layTables(path);
    }
};

/// Runs the commands of a session and puts what they print after them.
std::string replay(const std::string& session) {
    const Folder folder;
    std::string result;
    bool inOutput = false;
    for (const std::string& line : split(session, '\n')) {
        if (line.starts_with(kPrompt)) {
            result += line + "\n" + run(folder.path, line.substr(kPrompt.size()));
            inOutput = true;
        } else if (line.starts_with("# ") || (line.empty() && !inOutput)) {
            result += line + "\n";
            inOutput = false;
        }
    }
    return result;
}

/// A build root may have none.
bool canOpenTerminals() {
    return std::system("script -qec true /dev/null </dev/null >/dev/null 2>&1") == 0;
}

class Session : public testing::TestWithParam<std::string> {};

TEST_P(Session, PrintsWhatItSays) {
    const std::string path = MIRA_SESSIONS_DIR + ("/" + GetParam());
    const std::string expected = readAll(path);
    static const bool terminals = canOpenTerminals();
    if (expected.find("terminal ") != std::string::npos && !terminals) {
        GTEST_SKIP() << "no pseudo-terminal can be opened here";
    }
    const std::string found = replay(expected);
    if (std::getenv("MIRA_UPDATE_SESSIONS") != nullptr) writeAll(path, found);
    EXPECT_TRUE(same(found, expected)) << path;
}

std::vector<std::string> sessionNames() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(MIRA_SESSIONS_DIR)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Tool, Session, testing::ValuesIn(sessionNames()), [](const auto& session) {
    return session.param.substr(0, session.param.find('.'));
});

/// Every table of a folder and below goes through CSV into a new one, which gives the same CSV.
void bringBack(const std::string& tables) {
    namespace fs = std::filesystem;
    const TempDir dir;
    const std::string folder = dir.file("here");
    fs::create_directory(folder);
    for (const auto& entry : fs::recursive_directory_iterator(tables)) {
        const std::string extension = entry.path().extension();
        if (extension != ".dbf" && extension != ".DBF") continue;
        const std::string table = "'" + entry.path().string() + "'";
        const std::string exported = "mira export -q --deleted include " + table + " 2>/dev/null";
        // Without those that cannot be read, and those with bytes that stand for no character.
        const char* const whole =
            " > a.csv; test -s a.csv && ! grep -q $(printf '\\357\\277\\275') a.csv";
        if (run(folder, exported + whole) != "") continue;
        EXPECT_EQ(run(folder, "mira import -q --force --no-backup a.csv new --like " + table), "");
        // A table like another has its mark, but not its .cpg file or what its texts look like.
        EXPECT_EQ(run(folder, "page=$(mira info --json " + table +
                                  " 2>/dev/null | sed 's/.*\"code_page\":\"//; s/\".*//'); "
                                  "mira export -q --deleted include --code-page $page new "
                                  "2>/dev/null | cmp - a.csv"),
                  "")
            << table;
    }
}

TEST(Session, BringsTablesBack) {
    const Folder folder;
    const char* const corpus = std::getenv("MIRA_CORPUS");
    std::filesystem::remove(folder.path + "/huge.dbf");
    bringBack(folder.path);
    if (corpus != nullptr) bringBack(corpus);
}

/// The documents are one session each, told in blocks.
TEST(Session, OfTheDocuments) {
    for (const std::string& path : split(MIRA_DOCUMENTS, ':')) {
        const std::string document = readAll(path);
        const Folder folder;
        constexpr std::string_view kStart = "\n```console\n";
        std::size_t place = document.find(kStart);
        EXPECT_NE(place, std::string::npos) << path;
        for (; place != std::string::npos; place = document.find(kStart, place)) {
            place += kStart.size();
            const std::string block =
                document.substr(place, document.find("\n```\n", place) + 1 - place);
            std::string found;
            for (const std::string& line : split(block, '\n')) {
                if (!line.starts_with(kPrompt)) continue;
                found += line + "\n" + run(folder.path, line.substr(kPrompt.size()));
            }
            EXPECT_TRUE(same(found, block)) << path << ", behind byte " << place;
        }
    }
}

}  // namespace
