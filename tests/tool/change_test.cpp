// Changing commands that are killed, fail, are stopped, lose power or meet each other. The linker
// sends the calls by which files are changed to the wrappers below (--wrap); a command runs in a
// process of its own, forked from this one.
//
// A part of all this takes some seconds; MIRA_FAULT_ALL=1 runs it whole.
#include "tables/change/change.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <random>

#include "support/allocator.h"
#include "support/disk.h"
#include "support/indexes.h"
#include "support/sample.h"
#include "support/wrap.h"
#include "tables/change/append.h"
#include "tables/change/recovery.h"

int miraMain(int argc, char** argv);

namespace {

enum class Fate {
    None,
    Kill,
    Fail,
    FailForGood,
    FullDisk,
    Stop,
    Terminate,
    NoMemory,
    NoMemoryAnyMore
};

/// What happens to the call, or the allocation, of a number, and what has been met; shared with the
/// child.
struct Plan {
    Fate fate;
    int at;       // which one, from 1
    int eighths;  // of a write, done before
    int calls, syncs;
};
Plan* plan = nullptr;
bool watched = false;
bool noLocks = false;  // of the file system
bool asGuest = false;  // who owns nothing here

using test::Call, test::calls, test::fileOf, test::isFolder, test::lastName, test::record;

/// Whether the next call fails; before a kill part of it may be done.
template <typename Part>
bool fails(bool takesRoom, Part part) {
    if (!watched || plan->fate >= Fate::NoMemory) return false;
    const int call = ++plan->calls;
    const bool due = call == plan->at, later = call >= plan->at;
    switch (plan->fate) {
        case Fate::Kill:
            if (!due) return false;
            part();
            _exit(99);
        case Fate::Stop:
        case Fate::Terminate:
            if (due) raise(plan->fate == Fate::Stop ? SIGINT : SIGTERM);
            return false;
        case Fate::Fail:
        case Fate::FailForGood:
            errno = EIO;
            return due || (later && plan->fate == Fate::FailForGood);
        case Fate::FullDisk:
            if (!takesRoom || !later) return false;
            if (due) part();
            errno = ENOSPC;
            return true;
        default:
            return false;
    }
    return false;
}
bool fails() {
    return fails(false, [] {});
}

bool lacksMemory() {
    if (!watched || plan->fate < Fate::NoMemory) return false;
    const int call = ++plan->calls;
    return call == plan->at || (call > plan->at && plan->fate == Fate::NoMemoryAnyMore);
}

}  // namespace

extern "C" {
WRAP(void*, malloc, lacksMemory(), nullptr, (std::size_t size), (size))
WRAP(void*, calloc, lacksMemory(), nullptr, (std::size_t n, std::size_t size), (n, size))
WRAP(void*, realloc, lacksMemory(), nullptr, (void* block, std::size_t size), (block, size))

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const bool creates = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;
    if (creates && fails(true, [] {})) return -1;
    const int fd = __real_open(path, flags, mode);
    if (creates && fd >= 0) record({Call::Create, fileOf(fd), lastName(path)});
    return fd;
}

ssize_t __real_pwrite(int fd, const void* from, std::size_t size, off_t place);
ssize_t __wrap_pwrite(int fd, const void* from, std::size_t size, off_t place) {
    const auto part = [&] {
        __real_pwrite(fd, from, size * static_cast<std::size_t>(plan->eighths) / 8, place);
    };
    if (fails(true, part)) return -1;
    record({Call::Write,
            fileOf(fd),
            "",
            {static_cast<const char*>(from), size},
            static_cast<u_int64_t>(place)});
    return __real_pwrite(fd, from, size, place);
}

std::size_t __real_fwrite(const void* from, std::size_t size, std::size_t n, std::FILE* file);
std::size_t __wrap_fwrite(const void* from, std::size_t size, std::size_t n, std::FILE* file) {
    if (!watched || fileno(file) <= STDERR_FILENO) return __real_fwrite(from, size, n, file);
    const auto part = [&] {
        __real_fwrite(from, 1, size * n * static_cast<std::size_t>(plan->eighths) / 8, file);
    };
    const auto place = static_cast<u_int64_t>(ftello(file));
    if (fails(true, part)) return 0;
    record(
        {Call::Write, fileOf(fileno(file)), "", {static_cast<const char*>(from), size * n}, place});
    return __real_fwrite(from, size, n, file);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (!noLocks || (command != F_OFD_SETLK && command != F_OFD_GETLK)) {
        return __real_fcntl(fd, command, argument);
    }
    errno = ENOLCK;
    return -1;
}

int __real_ftruncate(int fd, off_t size);
int __wrap_ftruncate(int fd, off_t size) {
    if (fails()) return -1;
    record({Call::Cut, fileOf(fd), "", "", static_cast<u_int64_t>(size)});
    return __real_ftruncate(fd, size);
}

int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    if (fails()) return -1;
    record({Call::Rename, 0, lastName(from), lastName(to)});
    return __real_rename(from, to);
}

int __real_link(const char* from, const char* to);
int __wrap_link(const char* from, const char* to) {
    if (fails()) return -1;
    record({Call::Link, 0, lastName(from), lastName(to)});
    return __real_link(from, to);
}

int __real_unlink(const char* path);
int __wrap_unlink(const char* path) {
    if (access(path, F_OK) != 0) return __real_unlink(path);
    if (fails()) return -1;
    record({Call::Unlink, 0, lastName(path)});
    return __real_unlink(path);
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    if (watched) ++plan->syncs;
    if (fails()) return -1;
    record({isFolder(fd) ? Call::SyncFolder : Call::SyncFile, fileOf(fd)});
    return 0;  // no power is cut here
}
}

namespace {

using namespace test;

const bool all = std::getenv("MIRA_FAULT_ALL") != nullptr;
// A child costs twenty times as much under the sanitizers: every seventh command meets the same
// code, each of another format.
#ifdef MIRA_SANITIZED
constexpr std::size_t kEvery = 7;
#else
constexpr std::size_t kEvery = 1;
#endif
constexpr unsigned kWidth = 6;
constexpr u32 kKinds[] = {0, 2, 3, 4};

using Words = std::vector<std::string>;

struct Ended {
    int status = 0;
    int calls = 0, syncs = 0;
    std::string said{};
};

/// In a child: what it does to the files is watched.
pid_t start(const std::string& folder, const Words& words, const Plan& wanted,
            const std::function<void()>& finish = {}) {
    *plan = wanted;
    const pid_t child = fork();
    if (child != 0) return child;
    if (chdir(folder.c_str()) != 0) _exit(98);
    const std::string said = "../said" + std::to_string(getpid());
    const int output = __real_open(said.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    std::vector<char*> arguments;
    std::string program = "mira";
    arguments.push_back(program.data());
    Words own = words;
    for (std::string& word : own) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    constexpr uid_t kNobody = 65534;
    if (asGuest && geteuid() == 0 && setuid(kNobody) != 0) _exit(97);
    watched = true;
    const int status = miraMain(static_cast<int>(arguments.size()) - 1, arguments.data());
    watched = false;
    std::fflush(nullptr);
    if (finish) finish();
    _exit(status);
}

Ended wait(const std::string& folder, pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    const std::string file = folder + "/../said" + std::to_string(child), said = readAll(file);
    std::filesystem::remove(file);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status), plan->calls,
            plan->syncs, said};
}

Ended run(const std::string& folder, const Words& words, const Plan& wanted = {}) {
    return wait(folder, start(folder, words, wanted));
}

struct Command {
    const char* name;
    std::vector<Words> before;  // commands
    Words words;
    const char* table = "t";
    bool large = false;  // more than waits in memory
    bool indexed = false;
    bool two = false;  // a copy of the table, u, is there, too
};

/// "CSV" and "MEMO" stand for files with rows and a text.
const Command kCommands[] = {
    {"set memos", {}, {"set", "t", "NOTE=a new memo", "--all"}},
    {"set one", {}, {"set", "t", "FILL=new", "-w", "NAME='n102'", "--no-backup"}},
    {"delete", {{"set", "t", "FILL=x", "--all"}}, {"delete", "t", "--all", "--backups", "1"}},
    {"recall", {}, {"recall", "t", "--all"}},
    {"memo", {}, {"memo", "t", "NOTE", "2", "--set", "MEMO"}},
    {"append", {}, {"import", "CSV", "t", "--append"}},
    {"append much", {}, {"import", "LARGE", "t", "--append"}, "t", true},
    {"append tables", {}, {"append", "t", "t", "t.dbf"}},
    {"alter", {}, {"alter", "t", "--drop", "FILL", "--add", "FILL C(6)", "--after", "NAME"}},
    {"alter alone", {}, {"alter", "t", "--drop", "NOTE", "--add", "NOTE M", "--no-backup"}},
    {"add", {}, {"add", "t", "NAME=a", "NOTE=a memo"}},
    {"replace", {{"set", "t", "FILL=x", "--all"}}, {"import", "CSV", "t", "--force", "KIND"}},
    {"new", {}, {"import", "CSV", "u", "--force", "KIND"}, "u"},
    {"pack", {}, {"pack", "t"}},
    {"pack again",
     {{"set", "t", "FILL=x", "--all"}, {"set", "t", "FILL=y", "--all"}},
     {"pack", "t", "--backups", "2"}},
    {"pack alone", {}, {"pack", "t", "--no-backup"}},
    {"zap", {}, {"zap", "t", "-y"}},
    {"undo", {{"set", "t", "NOTE=other", "--all"}}, {"undo", "t"}},
    {"update", {}, {"query", "--write", "UPDATE t SET NOTE = NAME, FILL = 'q'", "."}},
    {"insert", {}, {"query", "--write", "INSERT INTO t (NAME, NOTE) VALUES ('i', 'memo')", "."}},
    {"reindex", {{"set", "t", "NAME=zz", "-w", "NAME='n102'"}}, {"reindex", "t"}, "t", false, true},
    {"set, reindex", {}, {"set", "t", "NAME=a", "--all", "--reindex"}, "t", false, true},
    {"delete, reindex", {}, {"delete", "t", "--all", "--reindex"}, "t", false, true},
    {"append, reindex", {}, {"import", "CSV", "t", "--append", "--reindex"}, "t", false, true},
    {"pack, reindex", {}, {"pack", "t", "--reindex", "--no-backup"}, "t", false, true},
    {"update, reindex",
     {},
     {"query", "--write", "--reindex", "UPDATE t SET NAME = 'u' WHERE _record = 3", "."},
     "t",
     false,
     true},
    {"replace, reindex",
     {{"set", "t", "FILL=x", "--all"}},
     {"import", "CSV", "t", "--force", "--reindex", "KIND"},
     "t",
     false,
     true},
    {"transaction",
     {},
     {"query", "--write",
      "BEGIN; UPDATE t SET FILL = 'p'; SAVEPOINT s; INSERT INTO t (NAME, NOTE) SELECT NAME, FILL "
      "FROM t; UPDATE t SET NOTE = 'new'; ROLLBACK TO s; INSERT INTO t (NAME, NOTE) VALUES ('k', "
      "'memo'); UPDATE t SET NOTE = NAME WHERE NAME > 'n103'; COMMIT",
      "."}},
};

/// The place of a command of that name.
std::size_t commandAt(std::string_view name) {
    const auto* const found = std::find_if(std::begin(kCommands), std::end(kCommands),
                                           [&](const Command& c) { return c.name == name; });
    return static_cast<std::size_t>(found - std::begin(kCommands));
}

/// What a tag of NAME holds.
std::vector<Entry> entriesOf(const Rows& rows, bool liveOnly) {
    std::vector<Entry> entries;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (liveOnly && rows[i][0] == '*') continue;
        entries.push_back({rows[i].substr(1, 4), static_cast<u32>(i + 1)});
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.key < b.key; });
    return entries;
}

/// Without entries yet.
std::string emptyIndex() {
    return cdxOf({{"ALL", "name"}, {"LIVE", "name", ".NOT. DELETED()", {}, 0x68}});
}

bool isIndexOf(const Rows& rows, std::string_view index) {
    const std::vector<Entry> names = entriesAt(index, 0, ' ');
    for (const Entry& name : names) {
        if (entriesAt(index, name.record, ' ') != entriesOf(rows, name.key.starts_with("LIVE")))
            return false;
    }
    return names.size() == 2;
}

class Bench {
public:
    const Command& command;
    const u32 kind;
    std::string folder;
    Files files;  // before
    Rows before, after, twice;

    Bench(const Command& of, u32 memoKind, unsigned records = 7) : command(of), kind(memoKind) {
        folder = dir_.file("here");
        std::filesystem::create_directory(folder);
        const Sample sample(kind, kWidth, records);
        for (const std::string& name : sample.names()) {
            const std::string bytes = readAll(sample.file(name.c_str()));
            writeAll(folder + "/" + name, bytes);
            if (command.two) writeAll(folder + "/u" + name.substr(1), bytes);
        }
        writeAll(dir_.file("rows.csv"), "NAME,FILL,NOTE\nc1,x,first memo\nc2,y,\nc3,z,third\n");
        writeAll(dir_.file("memo.txt"), std::string(700, 'm'));
        const std::string large = "l1," + std::string(1100000, 'l') + "\n";
        if (command.large) writeAll(dir_.file("large.csv"), "NAME,NOTE\n" + repeat(large, 4));
        if (command.indexed) {
            writeAll(folder + "/t.cdx", emptyIndex());
            EXPECT_EQ(run(folder, {"reindex", "t"}).status, 0);
            EXPECT_EQ(rows(), sample.before);
        }
        for (const Words& words : command.before) EXPECT_EQ(run(folder, words).status, 0);
        files = filesIn(folder);
        before = rows();
        EXPECT_EQ(again().status, 0) << command.name << again().said;
        after = rows();
        EXPECT_NE(after, before) << command.name;
        again();
        twice = rows();
        reset();
    }

    void reset() const { lay(folder, files); }
    Words words() const {
        Words own;
        for (const std::string& word : command.words) {
            if (word == "KIND") {
                const char* const names[] = {"dbase3", "", "dbase4", "visual", "smt"};
                own.insert(own.end(),
                           {"--kind", names[kind], "--schema", "NAME C(4), FILL C(6), NOTE M"});
            } else {
                own.push_back(word == "CSV"     ? dir_.file("rows.csv")
                              : word == "LARGE" ? dir_.file("large.csv")
                              : word == "MEMO"  ? dir_.file("memo.txt")
                                                : word);
            }
        }
        return own;
    }
    Ended again(const Plan& wanted = {}) const { return run(folder, words(), wanted); }
    std::string file(const std::string& name) const { return folder + "/" + name; }

    /// By the readers' own account; "gone" for no table, "broken" for one whose count is not its
    /// size; behind the rows "stale" for an index that does not agree with them.
    Rows rows() const { return rows(command.table); }
    Rows rows(const std::string& stem) const {
        const Files now = filesIn(folder);
        const auto table = now.find(stem + ".dbf");
        if (table == now.end()) return {"gone"};
        const auto memos = now.find(stem + std::string(memoNameOf(kind)).substr(1));
        const std::string& bytes = table->second;
        Rows found = rowsOf(kind, kWidth, bytes, memos != now.end() ? memos->second : "");
        if (bytes.size() < 32 || number(bytes.substr(4, 4)) != found.size()) return {"broken"};
        if (command.indexed && !isIndexOf(found, now.at("t.cdx"))) found.emplace_back("stale");
        return found;
    }

    /// After whatever has happened: the next command finds the table as it was or as it is to be,
    /// the same command ends right, and nothing is left.
    void expectWhole(const std::string& where) const {
        // Whichever way the table is found, one that is missing half-way included.
        run(folder, plan->at % 2 != 0 ? Words{"tables", "."} : Words{"info", command.table});
        const Rows now = rows();
        EXPECT_TRUE(now == before || now == after) << where << ": " << testing::PrintToString(now);
        expectTidy(where);
        if (now != before && now != after) return;
        const Ended ended = again();
        EXPECT_EQ(ended.status, 0) << where << ended.said;
        EXPECT_EQ(rows(), now == before ? after : twice) << where;
        expectTidy(where + ", again");
    }

    void expectTidy(const std::string& where) const {
        for (const auto& [name, bytes] : filesIn(folder)) {
            EXPECT_EQ(name.find("mira"), std::string::npos) << where << ": " << name;
        }
    }

private:
    TempDir dir_;
};

class ChangeTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        void* const shared =
            mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        plan = new (shared) Plan{};
    }

    /// Every command on every kind, or each on one of them.
    template <typename Work>
    static void forEach(Work work, bool large = all) {
        std::size_t turn = 0;
        for (const Command& command : kCommands) {
            if (command.large && !large) continue;
            const std::size_t now = turn++;
            if (!all && now % kEvery != 0) continue;
            for (std::size_t i = 0; i < std::size(kKinds); ++i) {
                if (!all && i != now % std::size(kKinds)) continue;
                const Bench bench(command, kKinds[i]);
                work(bench);
                if (HasFailure()) return;
            }
        }
    }

    static std::string whereOf(const Bench& bench, const char* what, int at) {
        return textOf(bench.command.name, " of format ", bench.kind, ", ", what, " at ", at);
    }
    static std::string textOf(const auto&... parts) {
        std::ostringstream text;
        (text << ... << parts);
        return text.str();
    }
};

TEST_F(ChangeTest, KilledLeavesOldOrNew) {
    forEach(
        [](const Bench& bench) {
            for (int eighths = 0; eighths < 8; eighths += all ? 1 : bench.command.large ? 8 : 5) {
                for (int at = 1;; at += all || !bench.command.large ? 1 : 2) {
                    bench.reset();
                    if (bench.again({Fate::Kill, at, eighths, 0, 0}).status != 99) break;
                    bench.expectWhole(whereOf(bench, "killed", at));
                    if (HasFailure()) return;
                }
            }
        },
        true);
}

/// What a command says is so: done, or as before. Where the disk fails for good the next command
/// has to put things right.
TEST_F(ChangeTest, FailingLeavesOldOrNew) {
    forEach([](const Bench& bench) {
        for (const auto& [fate, name] :
             {std::pair(Fate::Fail, "a failure"), std::pair(Fate::FailForGood, "failures from"),
              std::pair(Fate::FullDisk, "a full disk")}) {
            for (int at = 1;; at += all ? 1 : 3) {
                const std::string where = whereOf(bench, name, at);
                bench.reset();
                const Ended ended = bench.again({fate, at, 4, 0, 0});
                if (ended.calls < at) break;
                EXPECT_TRUE(ended.status == 0 || ended.status == 2) << where << ended.said;
                EXPECT_TRUE(ended.status != 0 || bench.rows() == bench.after) << where;
                bench.expectWhole(where);
                if (HasFailure()) return;
            }
        }
    });
}

TEST_F(ChangeTest, StoppedIsUndoneAtOnce) {
    forEach([](const Bench& bench) {
        for (const Fate fate : {Fate::Stop, Fate::Terminate}) {
            const int status = 128 + (fate == Fate::Stop ? SIGINT : SIGTERM);
            for (int at = 1;; at += all || fate == Fate::Stop ? 1 : 3) {
                const std::string where = whereOf(bench, "stopped", at);
                bench.reset();
                const Ended ended = bench.again({fate, at, 0, 0, 0});
                if (ended.calls < at) break;
                EXPECT_TRUE(ended.status == 0 || ended.status == status) << where << ended.said;
                EXPECT_EQ(bench.rows(), ended.status == 0 ? bench.after : bench.before) << where;
                bench.expectTidy(where);
                if (HasFailure()) return;
            }
        }
    });
}

/// Ctrl-C after the first of two tables: that one is done, the other is not begun.
TEST_F(ChangeTest, StoppedBetweenTablesLeavesTheSecondAlone) {
    const Command both{
        "pack two", {{"delete", "u", "-w", "NAME='n100'"}}, {"pack", "t", "u"}, "t", false, false,
        true};
    const Bench bench(both, 3);
    const Rows second = bench.rows("u");
    int first = 0, between = 0;
    for (int at = 1;; ++at) {
        const std::string where = whereOf(bench, "stopped", at);
        bench.reset();
        const Ended ended = bench.again({Fate::Stop, at, 0, 0, 0});
        if (ended.calls < at) break;
        const Rows t = bench.rows(), u = bench.rows("u");
        const bool done = ended.status == 0;
        EXPECT_TRUE(done || ended.status == 130) << where << ended.said;
        EXPECT_TRUE(t == bench.after || (t == bench.before && !done)) << where;
        EXPECT_EQ(u == second, !done) << where;
        first += t == bench.before;
        between += t == bench.after && u == second;
        bench.expectTidy(where);
        if (HasFailure()) return;
    }
    EXPECT_GT(first, 0);
    EXPECT_GT(between, 0);
}

/// Allocations are many: the later, the fewer are tried.
TEST_F(ChangeTest, WithoutMemoryLeavesOldOrNew) {
    forEach([](const Bench& bench) {
        int refused = 0;
        for (const Fate fate : {Fate::NoMemory, Fate::NoMemoryAnyMore}) {
            for (int at = 1;; at += 1 + at / (all ? 60 : 4)) {
                const std::string where = whereOf(bench, "no memory", at);
                bench.reset();
                const Ended ended = bench.again({fate, at, 0, 0, 0});
                if (ended.calls < at) break;
                EXPECT_TRUE(ended.status == 0 || ended.status == 2) << where << ended.said;
                EXPECT_TRUE(ended.status != 0 || bench.rows() == bench.after) << where;
                refused += ended.status != 0 ? 1 : 0;
                bench.expectWhole(where);
                if (HasFailure()) return;
            }
        }
        EXPECT_GT(refused, 20) << bench.command.name;
    });
}

// ---------------------------------------------------------------------------------------------
// Power cuts
// ---------------------------------------------------------------------------------------------

/// The calls of a command, by a pipe from the child.
std::vector<Call> callsOf(const Bench& bench) {
    const std::string log = bench.folder + "/../calls";
    std::vector<Call> made;
    calls = &made;
    wait(bench.folder, start(bench.folder, bench.words(), {}, [&] {
             std::FILE* const file = std::fopen(log.c_str(), "wb");
             for (const Call& call : *calls) {
                 std::fprintf(file, "%d %llu %llu %s|%zu ", call.kind,
                              static_cast<unsigned long long>(call.file),
                              static_cast<unsigned long long>(call.place), call.name.c_str(),
                              call.other.size());
                 __real_fwrite(call.other.data(), 1, call.other.size(), file);
             }
             std::fclose(file);
         }));
    calls = nullptr;
    std::FILE* const file = std::fopen(log.c_str(), "rb");
    int kind = 0;
    unsigned long long inode = 0, place = 0;
    while (std::fscanf(file, "%d %llu %llu ", &kind, &inode, &place) == 3) {
        Call call{static_cast<Call::Kind>(kind), inode, "", "", place};
        for (int c = std::fgetc(file); c != '|'; c = std::fgetc(file))
            call.name += static_cast<char>(c);
        std::size_t size = 0;
        EXPECT_EQ(std::fscanf(file, "%zu", &size), 1);
        std::fgetc(file);
        call.other.resize(size);
        EXPECT_EQ(std::fread(call.other.data(), 1, size, file), size);
        made.push_back(std::move(call));
    }
    std::fclose(file);
    return made;
}

TEST_F(ChangeTest, PowerCutLeavesOldOrNew) {
    std::mt19937 random(1);
    forEach([&](const Bench& bench) {
        bench.reset();
        const Disk start(bench.folder, bench.files);
        const std::vector<Call> made = callsOf(bench);
        EXPECT_FALSE(made.empty());
        for (std::size_t count = 0; count <= made.size(); ++count) {
            for (int i = 0; i < (all ? 40 : 2); ++i) {
                Disk disk = start;
                for (std::size_t at = 0; at < count; ++at) disk.take(made[at]);
                disk.cut(random, bench.folder);
                const std::string where = whereOf(bench, "power cut", static_cast<int>(count));
                bench.expectWhole(where);
                if (HasFailure()) return;
            }
        }
        // What is said to be done has come to the disk.
        Disk disk = start;
        for (const Call& call : made) disk.take(call);
        disk.cut(random, bench.folder);
        run(bench.folder, {"info", bench.command.table});
        EXPECT_EQ(bench.rows(), bench.after) << whereOf(bench, "power cut", -1);
    });
}

/// COMMIT ends one table after the other, in the order in which they were first written to.
TEST_F(ChangeTest, TransactionOfTwoTablesLeavesEachWhole) {
    const Command both{"two tables",
                       {},
                       {"query", "--write",
                        "BEGIN; UPDATE t SET NOTE = FILL; INSERT INTO u (NAME, NOTE) VALUES ('u', "
                        "'memo'); DELETE FROM t WHERE NAME > 'n103'; COMMIT",
                        "."},
                       "t",
                       false,
                       false,
                       true};
    std::mt19937 random(2);
    for (const u32 kind : kKinds) {
        if (!all && kind != 3) continue;
        const Bench bench(both, kind);
        bench.again();
        const Rows afterU = bench.rows("u");
        const auto expectWhole = [&](const std::string& where, bool done) {
            run(bench.folder, {"tables", "."});
            const Rows t = bench.rows("t"), u = bench.rows("u");
            EXPECT_TRUE(t == bench.after || (t == bench.before && !done)) << where;
            EXPECT_TRUE(u == afterU || (u == bench.before && !done)) << where;
            EXPECT_TRUE(t == bench.after || u == bench.before) << where;
            bench.expectTidy(where);
        };
        for (const Fate fate : {Fate::Kill, Fate::Fail, Fate::FailForGood, Fate::FullDisk}) {
            for (int at = 1; !HasFailure(); at += all || fate == Fate::Kill ? 1 : 3) {
                bench.reset();
                const Ended ended = bench.again({fate, at, 4, 0, 0});
                if (ended.calls < at) break;
                const std::string where = whereOf(bench, "fate", at) + ended.said;
                EXPECT_TRUE(ended.status == 0 || ended.status == (fate == Fate::Kill ? 99 : 2));
                expectWhole(where, ended.status == 0);
            }
        }
        bench.reset();
        const Disk start(bench.folder, bench.files);
        const std::vector<Call> made = callsOf(bench);
        for (std::size_t count = 0; count <= made.size() && !HasFailure(); ++count) {
            for (int i = 0; i < (all ? 40 : 2); ++i) {
                Disk disk = start;
                for (std::size_t at = 0; at < count; ++at) disk.take(made[at]);
                disk.cut(random, bench.folder);
                expectWhole(whereOf(bench, "power cut", static_cast<int>(count)),
                            count == made.size());
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Others
// ---------------------------------------------------------------------------------------------

/// What somebody may do to a table after a change of it was killed.
const std::pair<const char*, void (*)(const Bench&)> kOthers[] = {
    {"changed inside",
     [](const Bench& bench) {
         std::string now = readAll(bench.file("t.dbf"));
         const std::string was = bench.files.at("t.dbf");
         std::size_t at = number(now.substr(8, 2));
         while (at + 1 < was.size() && now[at] == was[at]) ++at;
         now[at] = '#';
         writeAll(bench.file("t.dbf"), now);
     }},
    {"appended",
     [](const Bench& bench) {
         AppendBlank(Table(OpenBase(bench.file("t.dbf").c_str())).get(), 1);
     }},
    {"packed",
     [](const Bench& bench) { Pack(Table(OpenBase(bench.file("t.dbf").c_str())).get(), 0); }},
    {"replaced", [](const Bench& bench) {
         std::string other = bench.files.at("t.dbf");
         --other[4];
         other.resize(other.size() - number(other.substr(10, 2)));
         writeAll(bench.file("t.dbf"), other);
     }}};

TEST_F(ChangeTest, LeavesWhatOthersHaveDoneSince) {
    for (const std::size_t i : {commandAt("set memos"), commandAt("memo"), commandAt("append")}) {
        const Bench bench(kCommands[i], kKinds[i % 4]);
        // The first change of the table comes after that of its memo file, and of the backups.
        int at = 1;
        while (bench.reset(), bench.again({Fate::Kill, at, 8, 0, 0}).status == 99 &&
                                  readAll(bench.file("t.dbf")) == bench.files.at("t.dbf")) {
            ++at;
        }
        for (const auto& [name, work] : kOthers) {
            const std::string where = whereOf(bench, name, at);
            bench.reset();
            bench.again({Fate::Kill, at, 8, 0, 0});
            ASSERT_TRUE(filesIn(bench.folder).contains("t.dbf-mira")) << where;
            work(bench);
            const Files theirs = filesIn(bench.folder);
            const Ended read = run(bench.folder, {"info", "t"});
            EXPECT_EQ(read.status, 0) << where;
            EXPECT_NE(read.said.find("somebody has worked on the table since"), std::string::npos)
                << where << read.said;
            EXPECT_EQ(bench.again().status, 2) << where;
            EXPECT_EQ(filesIn(bench.folder), theirs) << where;
            EXPECT_EQ(run(bench.folder, {"undo", "t"}).status, 0) << where;
            EXPECT_EQ(bench.rows(), bench.before) << where;
            bench.expectTidy(where);
        }
    }
    // Outside what the change was about their work stays, and the change is undone.
    const Bench bench(kCommands[commandAt("set one")], 0);
    int at = 1;
    while (bench.reset(), bench.again({Fate::Kill, at, 8, 0, 0}), bench.rows() == bench.before)
        ++at;
    std::string theirs = readAll(bench.file("t.dbf"));
    theirs.replace(theirs.find("n105"), 4, "mine");
    writeAll(bench.file("t.dbf"), theirs);
    run(bench.folder, {"info", "t"});
    Rows wanted = bench.before;
    wanted[5].replace(1, 4, "mine");
    EXPECT_EQ(bench.rows(), wanted);
}

/// A new index waits for its place, and meanwhile another program writes the old one.
TEST_F(ChangeTest, LeavesAnIndexThatOthersHaveWritten) {
    for (const std::size_t i : {commandAt("reindex"), commandAt("set, reindex")}) {
        const Bench bench(kCommands[i], kKinds[i % 4]);
        const std::string theirs = bench.files.at("t.cdx") + "theirs";
        int left = 0;
        for (int at = 1; bench.reset(), bench.again({Fate::Kill, at, 8, 0, 0}).status == 99; ++at) {
            if (!filesIn(bench.folder).contains("t.dbf-mira.cdx")) continue;
            writeAll(bench.file("t.cdx"), theirs);
            const Ended ended = run(bench.folder, {"info", "t"});
            EXPECT_EQ(readAll(bench.file("t.cdx")), theirs) << whereOf(bench, "killed", at);
            left += ended.said.find("worked on its index since") != std::string::npos;
        }
        EXPECT_GT(left, 0) << kCommands[i].name;
    }
}

TEST_F(ChangeTest, GoesOnWhereThereAreNoLocks) {
    noLocks = true;
    const Bench bench(kCommands[commandAt("set one")], 2);
    const Ended ended = bench.again();
    const std::string said = "cannot be locked here";
    const std::size_t at = ended.said.find(said);
    EXPECT_EQ(ended.status, 0) << ended.said;
    EXPECT_TRUE(at != std::string::npos && ended.said.find(said, at + 1) == std::string::npos);
    EXPECT_EQ(bench.rows(), bench.after);
    bench.expectTidy("no locks");
    // Nobody can tell then whether the one who left a journal is still there.
    bench.reset();
    bench.again({Fate::Kill, 6, 8, 0, 0});
    const Files left = filesIn(bench.folder);
    ASSERT_TRUE(left.contains("t.dbf-mira"));
    EXPECT_EQ(bench.again().status, 2);
    EXPECT_EQ(filesIn(bench.folder), left);
    noLocks = false;
    bench.expectWhole("locks again");
}

/// Whoever may not write is told before anything is done, and what to do about a journal.
TEST_F(ChangeTest, LeavesWhatMayNotBeWritten) {
    using std::filesystem::perms, std::filesystem::permissions;
    const perms readable = perms(0444), enter = perms(0555);
    for (const std::size_t i : {commandAt("set memos"), commandAt("pack")}) {
        const Bench bench(kCommands[i], 3);
        for (const int killed : {0, 1}) {
            bench.reset();
            if (killed != 0) {
                int at = 1;
                do {
                    bench.reset();
                    bench.again({Fate::Kill, at++, 8, 0, 0});
                } while (filesIn(bench.folder)["t.dbf"] == bench.files.at("t.dbf"));
            }
            const Files left = filesIn(bench.folder);
            for (const auto& [name, bytes] : left) permissions(bench.file(name), readable);
            permissions(bench.folder, enter);
            permissions(bench.folder + "/..", perms(0755));
            asGuest = true;
            const Ended changed = bench.again(), read = run(bench.folder, {"info", "t"});
            asGuest = false;
            permissions(bench.folder, perms(0755));
            for (const auto& [name, bytes] : left) permissions(bench.file(name), perms(0644));
            EXPECT_EQ(changed.status, 2) << changed.said;
            EXPECT_EQ(read.status, killed != 0 ? 2 : 0) << read.said;
            EXPECT_EQ(killed != 0, read.said.find("to where you may write") != std::string::npos)
                << read.said;
            EXPECT_EQ(filesIn(bench.folder), left) << i;
        }
        bench.expectWhole("by its owner");
    }
}

/// A new file would take one name from a table or memo file that has several.
TEST_F(ChangeTest, SeveralNamesAreNotSwapped) {
    for (const std::size_t i : {commandAt("replace"), commandAt("pack"), commandAt("pack alone"),
                                commandAt("zap"), commandAt("undo"), commandAt("set one")}) {
        const Bench bench(kCommands[i], 2);
        for (const auto& [name, other] : {std::pair("t.dbf", "other"), {"t.dbt", "t.tbk"}}) {
            bench.reset();
            std::filesystem::remove(bench.file(other));
            std::filesystem::create_hard_link(bench.file(name), bench.file(other));
            const Files before = filesIn(bench.folder);
            const Ended ended = bench.again();
            const bool inPlace = i == 1;
            EXPECT_EQ(ended.status, inPlace ? 0 : 2) << bench.command.name << ended.said;
            EXPECT_NE(inPlace, ended.said.find("names (hard links)") != std::string::npos)
                << ended.said;
            EXPECT_EQ(inPlace, filesIn(bench.folder) != before) << bench.command.name;
            EXPECT_EQ(std::filesystem::hard_link_count(bench.file(name)), 2U);
        }
    }
}

/// Records that a Pack of the library has moved before it was killed.
TEST_F(ChangeTest, AnInterruptedPackIsFinishedFirst) {
    const Bench bench(kCommands[commandAt("pack")], 2);
    const pid_t child = fork();
    if (child == 0) {
        const Table h(OpenBase(bench.file("t.dbf").c_str()));
        *plan = {Fate::Kill, 6, 4, 0, 0};  // the first write of records
        watched = true;
        Pack(h.get(), 1);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    const Ended check = run(bench.folder, {"check", "t"});
    EXPECT_NE(check.said.find("until `mira pack` has finished it"), std::string::npos)
        << check.said;
    const Files left = filesIn(bench.folder);
    const Ended set = run(bench.folder, {"set", "t", "FILL=x", "--all"});
    EXPECT_EQ(set.status, 2);
    EXPECT_NE(set.said.find("`mira pack` finishes it"), std::string::npos) << set.said;
    EXPECT_EQ(filesIn(bench.folder), left);
    EXPECT_EQ(bench.again().status, 0);
    EXPECT_EQ(bench.rows(), bench.after);
}

/// What succeeds is there as if one had come after the other.
TEST_F(ChangeTest, TwoAtOnceLoseNothing) {
    const std::size_t count = std::size(kCommands);
    for (std::size_t i = 0; i < count; i += kEvery) {
        for (std::size_t j = i; j < count; ++j) {
            if (!all && (j > i + 1 || kCommands[i].large || kCommands[j].large)) break;
            const Bench first(kCommands[i], kKinds[i % 4], all ? 2000 : 500);
            const Words one = first.words(), other = Bench(kCommands[j], first.kind, 3).words();
            Words words = other;
            for (std::size_t w = 0; w < words.size(); ++w) {
                if (words[w].starts_with('/'))
                    words[w] = std::filesystem::path(first.folder).parent_path() /
                               std::filesystem::path(words[w]).filename();
            }
            std::set<Rows> wanted[4];
            const auto inOrder = [&](std::initializer_list<const Words*> order, std::size_t which) {
                first.reset();
                for (const Words* each : order) run(first.folder, *each);
                wanted[which].insert(first.rows());
            };
            inOrder({&one}, 1);
            inOrder({&words}, 2);
            inOrder({&one, &words}, 3);
            inOrder({&words, &one}, 3);
            for (int trial = 0; trial < (all ? 20 : 1); ++trial) {
                first.reset();
                const pid_t a = start(first.folder, one, {}), b = start(first.folder, words, {});
                const Ended endedA = wait(first.folder, a), endedB = wait(first.folder, b);
                const std::string where =
                    textOf(kCommands[i].name, " and ", kCommands[j].name,
                           " at once: ", endedA.status, " and ", endedB.status);
                const std::size_t which =
                    (endedA.status == 0 ? 1U : 0U) + (endedB.status == 0 ? 2U : 0U);
                ASSERT_NE(which, 0U) << where << endedB.said;
                EXPECT_TRUE(wanted[which].contains(first.rows())) << where;
                first.expectTidy(where);
                if (HasFailure()) return;
            }
        }
    }
}

/// While new files take their places: one table or the other, each with its own memos.
TEST_F(ChangeTest, ReadersNeverPairATableWithOtherMemos) {
    for (const std::size_t i :
         {commandAt("replace"), commandAt("pack"), commandAt("pack alone"), commandAt("undo")}) {
        const Bench bench(kCommands[i], kKinds[i / 2 % 4], 300);
        const Words read = {"export", "t", "-q", "--deleted", "include"};
        std::set<std::string> wanted;
        wanted.insert(run(bench.folder, read).said);
        bench.again();
        wanted.insert(run(bench.folder, read).said);
        for (int trial = 0; trial < (all ? 200 : 12); ++trial) {
            bench.reset();
            const pid_t writer = start(bench.folder, bench.words(), {});
            usleep(static_cast<useconds_t>(trial % 12) * 700);
            const Ended ended = run(bench.folder, read);
            wait(bench.folder, writer);
            const std::string where = whereOf(bench, "read beside", trial) + ended.said;
            EXPECT_LE(ended.status, 2) << where;
            EXPECT_TRUE(ended.status != 0 || wanted.contains(ended.said)) << where;
            EXPECT_EQ(bench.rows(), bench.after) << where;
            if (HasFailure()) return;
        }
    }
}

/// As an attacker would make them: the checksums fit again.
void mendChecksums(std::string& journal) {
    const u32 seed = static_cast<u32>(load(journal, 12, 4));
    for (std::size_t at = 16; at + 32 <= journal.size();) {
        const std::size_t old = load(journal, at + 4, 4), made = load(journal, at + 16, 4);
        if (old > journal.size() || made > journal.size() || at + 32 + old + made > journal.size())
            return;
        const auto put = [&](std::size_t place, std::size_t from, std::size_t size) {
            const u32 sum = tables::checksum(seed, journal.data() + from, size);
            journal.replace(place, 4, le(sum, 4));
        };
        put(at + 20, at + 32, old);
        put(at + 24, at + 32 + old, made);
        put(at + 28, at, 28);
        at += 32 + old + made;
    }
}

TEST_F(ChangeTest, HostileJournalsTouchNothingElse) {
    std::mt19937 random(7);
    for (const std::size_t i :
         {commandAt("set memos"), commandAt("append"), commandAt("replace"), commandAt("pack"),
          commandAt("undo"), commandAt("reindex"), commandAt("set, reindex")}) {
        const Bench bench(kCommands[i], kKinds[i % 4]);
        const std::string memos = memoNameOf(bench.kind), victim(3000, 'v');
        for (int trial = 0; trial < (all ? 4000 : 60 / static_cast<int>(kEvery)); ++trial) {
            bench.reset();
            bench.again({Fate::Kill, 2 + static_cast<int>(random() % 24), 8, 0, 0});
            std::string journal = readAll(bench.file("t.dbf-mira"));
            if (journal.size() < 20) continue;
            for (std::size_t changes = 1 + random() % 4; changes != 0; --changes) {
                const std::size_t at =
                    random() % 2 != 0 ? 8 + random() % 64 : random() % journal.size();
                if (at < journal.size())
                    journal[at] = static_cast<char>(random() % 3 != 0 ? random() : random() % 4);
            }
            if (random() % 8 == 0) journal.resize(random() % journal.size());
            if (random() % 4 != 0 && journal.size() > 16) mendChecksums(journal);
            writeAll(bench.file("t.dbf-mira"), journal);
            writeAll(bench.file("victim"), victim);
            const std::string places[] = {memos, "t.dbf-mira.new", "t.dbf-mira.cdx", "t.cdx"};
            const std::string linked = bench.file(places[random() % std::size(places)]);
            const bool hard = random() % 2 != 0;
            if (random() % 3 != 0) {
                std::filesystem::remove(linked);
                hard ? std::filesystem::create_hard_link(bench.file("victim"), linked)
                     : std::filesystem::create_symlink("victim", linked);
            }
            const Files was = filesIn(bench.folder);
            const Ended ended = run(bench.folder, {"info", "t"});
            EXPECT_LE(ended.status, 2) << trial << ended.said;
            EXPECT_EQ(readAll(bench.file("victim")), victim) << trial;
            for (const auto& [name, bytes] : filesIn(bench.folder)) {
                EXPECT_TRUE(was.contains(name) || name == "t.dbf" || name == memos ||
                            name.starts_with("t.bak") || name.starts_with("t.tbk"))
                    << trial << name;
            }
            if (HasFailure()) return;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Cost, and the way back to a mark
// ---------------------------------------------------------------------------------------------

TEST_F(ChangeTest, OneRecordTakesFewSynchronisations) {
    const std::pair<Words, int> rows[] = {
        {{"set", "t", "FILL=one", "-w", "NAME='n102'"}, 4},
        {{"delete", "t", "-w", "NAME='n102'"}, 4},
        {kCommands[commandAt("insert")].words, 5},
        {{"query", "--write", "INSERT INTO t (NAME) VALUES (1)", "."}, 4},
        {{"set", "t", "NOTE=one", "-w", "NAME='n102'"}, 5}};
    const Bench bench(kCommands[commandAt("set memos")], 3);
    for (auto [words, most] : rows) {
        words.emplace_back("--no-backup");
        EXPECT_LE(run(bench.folder, words).syncs, most) << words[2];
    }
}

/// Any order of writes, marks and ways back, with and without bringing things to the disk between.
TEST_F(ChangeTest, GoesBackToMarks) {
    std::mt19937 random(3);
    for (int trial = 0; trial < (all ? 2000 : 60); ++trial) {
        const u32 kind = kKinds[trial % 4];
        const Sample sample(kind, kWidth, 7);
        auto opened = tables::openForChange(sample.path(), {});
        tables::Table& table = *opened.table;
        Rows rows = sample.before;
        std::vector<std::pair<int, Rows>> marks;
        {
            tables::Change change(table, {.wanted = false});
            for (int step = 0; step < 30; ++step) {
                const int what = static_cast<int>(random() % 9);
                const bool appends = what == 0 || rows.empty();
                const u32 record =
                    static_cast<u32>(random() % std::max<std::size_t>(rows.size(), 1));
                if (what < 5) {
                    appends ? tables::newRecord(table) : change.readRecord(record);
                    const std::string name = nameOf(static_cast<unsigned>(step));
                    tables::Encoded value{.bytes = name};
                    change.put(table.columns[0], value);
                    value = {.bytes = std::string(kind == 3 ? 4 : 10, kind < 3 ? ' ' : '\0'),
                             .memo = name + std::string(random() % 300, 'k')};
                    change.put(table.columns[2], value);
                    Rows& into = rows;
                    if (appends) into.push_back(" " + name + std::string(kWidth, ' '));
                    std::string& row = appends ? into.back() : into[record];
                    row = row.substr(0, 1) + name + row.substr(5, kWidth) + "=" + value.memo;
                    appends ? change.appendRecord() : change.writeRecord(record);
                } else if (what == 5) {
                    change.flush();
                } else if (what == 6 && !rows.empty()) {
                    change.writeMark(record, '*');
                    rows[record][0] = '*';
                } else if (what == 7) {
                    const int number = marks.empty() ? 0 : marks.back().first + 1;
                    change.mark(number);
                    marks.emplace_back(number, rows);
                } else if (!marks.empty()) {
                    const std::size_t to = random() % marks.size();
                    change.undoTo(marks[to].first);
                    rows = marks[to].second;
                    marks.resize(to + 1);
                }
            }
            if (trial % 3 == 0) rows = sample.before;
            if (trial % 3 != 0) change.commit();
        }
        EXPECT_EQ(sample.rows(), rows) << trial;
        EXPECT_EQ(sample.names().size(), 2U) << trial;
        if (HasFailure()) return;
    }
}

}  // namespace
