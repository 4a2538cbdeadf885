// Changing commands that are killed, fail, are stopped, lose power or meet each other. The linker
// sends the calls by which files are changed to the wrappers below (--wrap); a command runs in a
// process of its own, forked from this one.
//
// A part of all this takes some seconds; MIRA_FAULT_ALL=1 runs it whole.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <random>

#include "support/sample.h"

int miraMain(int argc, char** argv);

namespace {

enum class Fate { None, Kill, Fail, FailForGood, FullDisk, Stop };

/// What happens to the call of a number, and what has been met; shared with the child.
struct Plan {
    Fate fate;
    int at;       // which call, from 1
    int eighths;  // of a write, done before
    int calls, syncs;
};
Plan* plan = nullptr;
bool watched = false;

/// A call that changes a file or a name, for the model of a power cut.
struct Call {
    enum Kind { Create, Write, Cut, Rename, Link, Unlink, SyncFile, SyncFolder } kind;
    ino_t file = 0;
    std::string name{}, other{};  // bytes of a write in other
    u_int64_t place = 0;
};
std::vector<Call>* calls = nullptr;

void record(Call call) {
    if (calls != nullptr) calls->push_back(std::move(call));
}

ino_t fileOf(int fd) {
    struct stat info = {};
    return fstat(fd, &info) == 0 ? info.st_ino : 0;
}

bool isFolder(int fd) {
    struct stat info = {};
    return fstat(fd, &info) == 0 && S_ISDIR(info.st_mode);
}

std::string lastName(const char* path) { return std::filesystem::path(path).filename(); }

/// Whether the next call fails; before a kill part of it may be done.
template <typename Part>
bool fails(bool takesRoom, Part part) {
    if (!watched) return false;
    const int call = ++plan->calls;
    const bool due = call == plan->at, later = call >= plan->at;
    switch (plan->fate) {
        case Fate::Kill:
            if (!due) return false;
            part();
            _exit(99);
        case Fate::Stop:
            if (due) raise(SIGINT);
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
        case Fate::None:
            return false;
    }
    return false;
}
bool fails() {
    return fails(false, [] {});
}

}  // namespace

extern "C" {
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
    record({Call::Write, fileOf(fd), "", {static_cast<const char*>(from), size},
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
    record({Call::Write, fileOf(fileno(file)), "", {static_cast<const char*>(from), size * n},
            place});
    return __real_fwrite(from, size, n, file);
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
constexpr unsigned kWidth = 6;
constexpr u32 kKinds[] = {0, 2, 3, 4};

using Files = std::map<std::string, std::string>;
using Words = std::vector<std::string>;

Files filesIn(const std::string& folder) {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        files[entry.path().filename()] = readAll(entry.path());
    }
    return files;
}

void lay(const std::string& folder, const Files& files) {
    for (const auto& [name, bytes] : filesIn(folder)) {
        if (!files.contains(name)) std::filesystem::remove(folder + "/" + name);
    }
    for (const auto& [name, bytes] : files) writeAll(folder + "/" + name, bytes);
}

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
    const int said = __real_open("../said", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(said, STDOUT_FILENO);
    dup2(said, STDERR_FILENO);
    std::vector<char*> arguments;
    std::string program = "mira";
    arguments.push_back(program.data());
    Words own = words;
    for (std::string& word : own) arguments.push_back(word.data());
    arguments.push_back(nullptr);
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
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status), plan->calls,
            plan->syncs, readAll(folder + "/../said")};
}

Ended run(const std::string& folder, const Words& words, const Plan& wanted = {}) {
    return wait(folder, start(folder, words, wanted));
}

struct Command {
    const char* name;
    std::vector<Words> before;  // commands
    Words words;
    const char* table = "t";
};

/// "CSV" and "MEMO" stand for files with rows and a text.
const Command kCommands[] = {
    {"set memos", {}, {"set", "t", "NOTE=a new memo", "--all"}},
    {"set one", {}, {"set", "t", "FILL=new", "-w", "NAME='n102'", "--no-backup"}},
    {"delete", {{"set", "t", "FILL=x", "--all"}}, {"delete", "t", "--all", "--backups", "1"}},
    {"recall", {}, {"recall", "t", "--all"}},
    {"memo", {}, {"memo", "t", "NOTE", "2", "--set", "MEMO"}},
    {"append", {}, {"import", "CSV", "t", "--append"}},
    {"replace", {{"set", "t", "FILL=x", "--all"}}, {"import", "CSV", "t", "--force", "KIND"}},
    {"new", {}, {"import", "CSV", "u", "--force", "KIND"}, "u"},
    {"pack", {}, {"pack", "t"}},
    {"pack again", {{"set", "t", "FILL=x", "--all"}, {"set", "t", "FILL=y", "--all"}},
     {"pack", "t", "--backups", "2"}},
    {"pack alone", {}, {"pack", "t", "--no-backup"}},
    {"zap", {}, {"zap", "t", "-y"}},
    {"undo", {{"set", "t", "NOTE=other", "--all"}}, {"undo", "t"}},
    {"update", {}, {"query", "--write", "UPDATE t SET NOTE = NAME, FILL = 'q'", "."}},
    {"insert", {}, {"query", "--write", "INSERT INTO t (NAME, NOTE) VALUES ('i', 'memo')", "."}},
};

class Bench {
public:
    const Command& command;
    const u32 kind;
    std::string folder;
    Files files;  // before
    Rows before, after, twice;

    Bench(const Command& of, u32 memoKind) : command(of), kind(memoKind) {
        folder = dir_.file("here");
        std::filesystem::create_directory(folder);
        const Sample sample(kind, kWidth, 7);
        for (const std::string& name : sample.names()) {
            writeAll(folder + "/" + name, readAll(sample.file(name.c_str())));
        }
        writeAll(dir_.file("rows.csv"), "NAME,FILL,NOTE\nc1,x,first memo\nc2,y,\nc3,z,third\n");
        writeAll(dir_.file("memo.txt"), std::string(700, 'm'));
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
                own.insert(own.end(), {"--kind", names[kind], "--schema",
                                       "NAME C(4), FILL C(6), NOTE M"});
            } else {
                own.push_back(word == "CSV"    ? dir_.file("rows.csv")
                              : word == "MEMO" ? dir_.file("memo.txt")
                                               : word);
            }
        }
        return own;
    }
    Ended again(const Plan& wanted = {}) const { return run(folder, words(), wanted); }

    /// By the readers' own account; "gone" for no table, "broken" for one whose count is not its
    /// size.
    Rows rows() const {
        const Files now = filesIn(folder);
        const std::string stem = command.table;
        const auto table = now.find(stem + ".dbf");
        if (table == now.end()) return {"gone"};
        const auto memos = now.find(stem + std::string(memoNameOf(kind)).substr(1));
        const std::string& bytes = table->second;
        Rows found = rowsOf(kind, kWidth, bytes, memos != now.end() ? memos->second : "");
        if (bytes.size() < 32 || number(bytes.substr(4, 4)) != found.size()) return {"broken"};
        return found;
    }

    /// After whatever has happened: the next command finds the table as it was or as it is to be,
    /// the same command ends right, and nothing is left.
    void expectWhole(const std::string& where) const {
        run(folder, {"info", command.table});
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
        void* const shared = mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        plan = new (shared) Plan{};
    }

    /// Every command on every kind, or each on one of them.
    template <typename Work>
    static void forEach(Work work) {
        std::size_t turn = 0;
        for (const Command& command : kCommands) {
            for (std::size_t i = 0; i < std::size(kKinds); ++i) {
                if (!all && i != turn % std::size(kKinds)) continue;
                const Bench bench(command, kKinds[i]);
                work(bench);
                if (HasFailure()) return;
            }
            ++turn;
        }
    }

    static std::string nameOf(const Bench& bench, const char* what, int at) {
        return textOf(bench.command.name, " of format ", bench.kind, ", ", what, " at ", at);
    }
    static std::string textOf(const auto&... parts) {
        std::ostringstream text;
        (text << ... << parts);
        return text.str();
    }
};

TEST_F(ChangeTest, KilledLeavesOldOrNew) {
    forEach([](const Bench& bench) {
        for (int eighths = 0; eighths < 8; eighths += all ? 1 : 5) {
            for (int at = 1;; ++at) {
                bench.reset();
                if (bench.again({Fate::Kill, at, eighths, 0, 0}).status != 99) break;
                bench.expectWhole(nameOf(bench, "killed", at));
                if (HasFailure()) return;
            }
        }
    });
}

/// What a command says is so: done, or as before. Where the disk fails for good the next command
/// has to put things right.
TEST_F(ChangeTest, FailingLeavesOldOrNew) {
    forEach([](const Bench& bench) {
        for (const auto& [fate, name] : {std::pair(Fate::Fail, "a failure"),
                                         std::pair(Fate::FailForGood, "failures from"),
                                         std::pair(Fate::FullDisk, "a full disk")}) {
            for (int at = 1;; at += all ? 1 : 2) {
                const std::string where = nameOf(bench, name, at);
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
        for (int at = 1;; ++at) {
            const std::string where = nameOf(bench, "stopped", at);
            bench.reset();
            const Ended ended = bench.again({Fate::Stop, at, 0, 0, 0});
            if (ended.calls < at) break;
            EXPECT_TRUE(ended.status == 0 || ended.status == 130) << where << ended.said;
            EXPECT_EQ(bench.rows(), ended.status == 0 ? bench.after : bench.before) << where;
            bench.expectTidy(where);
            if (HasFailure()) return;
        }
    });
}

// ---------------------------------------------------------------------------------------------
// Power cuts
// ---------------------------------------------------------------------------------------------

/// Files and names as the disk may have them when the power goes: of what has been changed since
/// it was last synchronised any part.
class Disk {
public:
    Disk(const std::string& folder, const Files& files) {
        for (const auto& [name, bytes] : files) {
            struct stat info = {};
            stat((folder + "/" + name).c_str(), &info);
            names_[name] = info.st_ino;
            bytes_[info.st_ino] = bytes;
        }
        shown_ = names_;
    }

    void take(const Call& call) {
        switch (call.kind) {
            case Call::Write:
            case Call::Cut:
                writes_[call.file].push_back(call);
                return;
            case Call::SyncFile:
                for (const Call& write : std::exchange(writes_[call.file], {})) apply(write);
                return;
            case Call::SyncFolder:
                for (const Call& name : std::exchange(pending_, {})) rename(names_, name);
                return;
            default:
                pending_.push_back(call);
                if (call.kind != Call::Create) pending_.back().file = shown_[call.name];
                rename(shown_, pending_.back());
        }
    }

    Files cut(std::mt19937& random) {
        for (auto& [file, writes] : writes_) {
            std::vector<Call> kept;
            for (const Call& write : writes) {
                for (std::size_t at = 0; at == 0 || at < write.other.size(); at += 512) {
                    Call part = write;
                    if (write.kind == Call::Write) {
                        part.place += at;
                        part.other = write.other.substr(at, 512);
                    }
                    if (random() % 2 != 0) kept.push_back(part);
                }
            }
            std::shuffle(kept.begin(), kept.end(), random);
            for (const Call& write : kept) apply(write);
        }
        for (const Call& name : pending_) {
            if (random() % 2 != 0) rename(names_, name);
        }
        Files files;
        for (const auto& [name, file] : names_) files[name] = bytes_[file];
        return files;
    }

private:
    using Names = std::map<std::string, ino_t>;

    void apply(const Call& call) {
        std::string& bytes = bytes_[call.file];
        if (call.kind == Call::Cut) return bytes.resize(call.place);
        if (bytes.size() < call.place + call.other.size()) {
            bytes.resize(call.place + call.other.size());
        }
        call.other.copy(bytes.data() + call.place, call.other.size());
    }

    static void rename(Names& names, const Call& call) {
        const bool here = names.contains(call.name) && names[call.name] == call.file;
        if (call.kind == Call::Create) names[call.name] = call.file;
        if (call.kind == Call::Rename || call.kind == Call::Link) names[call.other] = call.file;
        if (here && (call.kind == Call::Rename || call.kind == Call::Unlink)) {
            names.erase(call.name);
        }
    }

    Names names_, shown_;
    std::map<ino_t, std::string> bytes_;
    std::map<ino_t, std::vector<Call>> writes_;
    std::vector<Call> pending_;
};

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
        for (int c = std::fgetc(file); c != '|'; c = std::fgetc(file)) call.name += static_cast<char>(c);
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
            for (int i = 0; i < (all ? 40 : 3); ++i) {
                Disk disk = start;
                for (std::size_t at = 0; at < count; ++at) disk.take(made[at]);
                lay(bench.folder, disk.cut(random));
                const std::string where = nameOf(bench, "power cut", static_cast<int>(count));
                bench.expectWhole(where);
                if (HasFailure()) return;
            }
        }
        // What is said to be done has come to the disk.
        Disk disk = start;
        for (const Call& call : made) disk.take(call);
        lay(bench.folder, disk.cut(random));
        run(bench.folder, {"info", bench.command.table});
        EXPECT_EQ(bench.rows(), bench.after) << nameOf(bench, "power cut", -1);
    });
}

}  // namespace
