// What several threads write and find is what one does, byte for byte: over samples, real tables of
// MIRA_CORPUS and damaged copies of both, cut into ranges of a few records, also when the system
// reads no further than to some place.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <random>
#include <tuple>

#include "select/inorder.h"
#include "support.h"
#include "support/wrap.h"

int miraMain(int argc, char** argv);

namespace {
off_t readable = 0;  // bytes of each file, in a child; 0: all

/// How many of count bytes at a place can be read.
std::size_t within(off_t place, std::size_t count) {
    if (readable == 0 || place < 0) return count;
    return std::min(count, static_cast<std::size_t>(std::max<off_t>(readable - place, 0)));
}
}  // namespace

extern "C" {
ssize_t __real_pread(int fd, void* to, std::size_t count, off_t place);
ssize_t __wrap_pread(int fd, void* to, std::size_t count, off_t place) {
    return __real_pread(fd, to, within(place, count), place);
}
std::size_t __real_fread(void* to, std::size_t size, std::size_t n, std::FILE* file);
std::size_t __wrap_fread(void* to, std::size_t size, std::size_t n, std::FILE* file) {
    return __real_fread(to, 1, within(ftello(file), size * n), file) / size;
}
}

namespace test {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;
#ifdef MIRA_SANITIZED
constexpr int kEvery = 5;  // a child costs twenty times as much
#else
constexpr int kEvery = 1;
#endif

/// A number from 0 to before end.
u32 below(u32 end, std::mt19937& dice) { return static_cast<u32>(dice() % end); }

struct Ended {
    std::string out, said;
    int status;
};

/// How a child works.
struct Way {
    unsigned jobs = 1;
    u32 records = 0;  // of a range
    off_t readable = 0;
};

/// In a child, with its output to a descriptor.
pid_t start(const Words& words, const Way& way, int output, int errors) {
    const pid_t child = fork();
    if (child != 0) return child;
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    mira::tool::cutInto(way.records);
    readable = way.readable;
    Words own = words;
    own.insert(own.end(), {"-j", std::to_string(way.jobs)});
    own.insert(own.begin(), "mira");
    std::vector<char*> arguments;
    for (std::string& word : own) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    _exit(miraMain(static_cast<int>(own.size()), arguments.data()));
}

Ended run(const TempDir& folder, const Words& words, const Way& way) {
    const std::string out = folder.file("out"), said = folder.file("said");
    const auto file = [](const std::string& name) {
        return open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    };
    const int output = file(out), errors = file(said);
    int status = 0;
    waitpid(start(words, way, output, errors), &status, 0);
    close(output);
    close(errors);
    return {readAll(out), readAll(said), WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + status};
}

/// A table of a text, a number and a date, some of them no value.
std::string manyRecords(std::mt19937& dice, u32 count) {
    std::string table = std::string("\x03\x7E\x01\x01", 4);
    const auto number = [&](u32 value, int size) {
        for (int i = 0; i < size; ++i) table += static_cast<char>(value >> (8 * i));
    };
    const std::tuple<const char*, char, char> fields[] = {
        {"NAME", 'C', 20}, {"PRICE", 'N', 8}, {"SEEN", 'D', 8}};
    number(count, 4);
    number(32 + 3 * 32 + 1, 2);
    number(37, 2);
    table.append(20, '\0');
    for (const auto& [name, type, length] : fields) {
        std::string descriptor(name);
        descriptor.resize(11, '\0');
        (descriptor += type).resize(16, '\0');
        (descriptor += length).resize(32, '\0');
        table += descriptor;
    }
    table += '\r';
    for (u32 i = 0; i < count; ++i) {
        std::string record = dice() % 9 == 0 ? "*" : " ";
        (record += "=name, \"" + std::to_string(dice() % 1000)).resize(21, ' ');
        (record += dice() % 50 == 0 ? "12x" : std::to_string(dice() % 100000)).resize(29, ' ');
        record += dice() % 50 == 0 ? "20241341" : "20240131";
        table += record;
    }
    return table + '\x1A';
}

/// The tables that there are, small ones only.
Words realTables() {
    Words paths;
    const char* const corpus = std::getenv("MIRA_CORPUS");
    for (const char* folder : {MIRA_SAMPLES_DIR, corpus}) {
        if (folder == nullptr) continue;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            const std::string extension = entry.path().extension().string();
            const bool table = extension == ".dbf" || extension == ".DBF" || extension == ".scx";
            if (table && entry.file_size() < 200'000) paths.push_back(entry.path().string());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

/// A copy of a table and what lies beside it, some bytes of its records and memos changed.
std::string damagedCopy(const std::string& path, const std::string& folder, std::mt19937& dice) {
    for (const auto& entry : fs::directory_iterator(fs::path(path).parent_path())) {
        if (entry.path().stem() != fs::path(path).stem() || !entry.is_regular_file()) continue;
        std::string bytes = readAll(entry.path().string());
        const std::size_t first = entry.path() == path && bytes.size() > 12
                                      ? static_cast<u8>(bytes[8]) + 256U * static_cast<u8>(bytes[9])
                                      : 512;
        for (int i = 0; i < 5 && bytes.size() > first; ++i) {
            bytes[first + dice() % (bytes.size() - first)] = static_cast<char>(dice());
        }
        writeAll(folder + "/" + entry.path().filename().string(), bytes);
    }
    return folder + "/" + fs::path(path).filename().string();
}

/// A command whose parts threads may do, with some options.
Words command(const std::string& path, std::mt19937& dice) {
    if (dice() % 3 == 0) {
        return dice() % 2 == 0 ? Words{"check", path} : Words{"check", path, "--json", "--strict"};
    }
    const char* const formats[] = {"csv", "tsv", "jsonl", "json"};
    Words words = {"export", path, "-F", formats[dice() % 4]};
    const std::vector<Words> more = {{"--record"},
                                     {"--deleted", "include"},
                                     {"-w", "_record>2"},
                                     {"-s", "1"},
                                     {"--records", "2-5,8"},
                                     {"--shard", "1/2"},
                                     {"--source"},
                                     {"--raw"},
                                     {"-n", "4"},
                                     {"--calc", "TWICE=2*3"},
                                     {"-s", "2", "--descending"}};
    for (const Words& option : more) {
        if (dice() % 4 == 0) words.insert(words.end(), option.begin(), option.end());
    }
    return words;
}

/// What one thread gives; fewer records are read from time to time.
void expectSame(const Words& words, const TempDir& folder, std::mt19937& dice) {
    const off_t end = dice() % 4 == 0 ? static_cast<off_t>(200 + dice() % 5000) : 0;
    const Way way{2 + below(2, dice), 1 + below(7, dice), end};
    const Ended one = run(folder, words, {.readable = end});
    const Ended several = run(folder, words, way);
    const std::string what = testing::PrintToString(words) + " " + std::to_string(end);
    EXPECT_EQ(several.out, one.out) << what;
    EXPECT_EQ(several.said, one.said) << what;
    EXPECT_EQ(several.status, one.status) << what;
}

TEST(Parallel, GivesWhatOneThreadGives) {
    const TempDir folder;
    std::mt19937 dice(27);
    int number = 0;
    for (const std::string& path : realTables()) {
        const std::string own = folder.file(std::to_string(++number));
        fs::create_directory(own);
        if (number % kEvery != 0) continue;
        expectSame(command(path, dice), folder, dice);
        const std::string damaged = damagedCopy(path, own, dice);
        for (int i = 0; i < 2; ++i) expectSame(command(damaged, dice), folder, dice);
    }
    const std::string many = folder.file("many.dbf");
    for (int i = 0; i < 40 / kEvery; ++i) {
        std::string table = manyRecords(dice, 1 + below(200, dice));
        if (i % 4 == 0) table[129 + dice() % (table.size() - 129)] = 'x';
        writeAll(many, table);
        expectSame(command(many, dice), folder, dice);
    }
}

/// Whether or not its output is taken, and whoever gets the signal.
TEST(Parallel, StopsAtOnce) {
    const TempDir folder;
    std::mt19937 dice(1);
    const std::string path = folder.file("large.dbf");
    writeAll(path, manyRecords(dice, 100'000));
    const int errors = open("/dev/null", O_WRONLY | O_CLOEXEC);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = start({"export", path}, {3, 1000}, ends[1], errors);
    close(ends[1]);
    pollfd readyToRead{ends[0], POLLIN, 0};
    ASSERT_EQ(poll(&readyToRead, 1, 10'000), 1);
    usleep(50'000);  // the pipe is full by now
    const auto sent = std::chrono::steady_clock::now();
    kill(child, SIGINT);
    int status = 0;
    waitpid(child, &status, 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - sent;
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_LT(took.count(), 0.2 * kEvery + 0.3);
    close(ends[0]);
    close(errors);
}

}  // namespace
}  // namespace test
