// What fails on the way, and what is killed: each allocation, open, seek, read, write, cut, change
// of names and look at a file of an operation in turn, or all that takes room on a full disk, once
// or from then on; and the end of the process at each change of a file or inside it. The linker
// sends those calls of this program and of the library to the wrappers below (--wrap).
//
// A part of all this takes some seconds; MIRA_FAULT_ALL=1 runs it whole and tells how much it was.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <set>

#include "support.h"
#include "support/allocator.h"
#include "support/disk.h"
#include "support/sample.h"
#include "support/wrap.h"

namespace {

enum Kind {
    kShortWrite,
    kAllocate,
    kOpen,
    kSeek,
    kRead,
    kWrite,
    kCut,
    kName,
    kLook,
    kFull,
    kKinds
};
constexpr const char* kNames[] = {"short write", "allocation", "open",   "seek", "read",
                                  "write",       "cut",        "rename", "look", "full disk"};
constexpr int kErrors[] = {EIO, ENOMEM, EMFILE, EIO, EIO, EIO, EIO, EIO, EIO, ENOSPC};

struct {
    int kind = kKinds;
    int countdown = 0;
    bool lasting = false;                // all later calls fail, too
    int changesLeft = 0;                 // the process ends with the last of these; 0 for never
    int eighths = 0;                     // of that write, done before the end
    bool met = false;                    // a call has failed
    std::size_t most = std::size_t(-1);  // bytes that one allocation may take
    int error = 0;                       // what the call that fails says, if not the usual
} fault;

bool noLinks = false;  // files have one name only

std::string steps;  // writes and synchronisations, each with the first letter of what it is done to

/// Table, memo file or folder.
void note(char step, int fd) {
    struct stat info;
    char path[256] = "";
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    const auto length = fstat(fd, &info) == 0 ? readlink(link.c_str(), path, sizeof path) : 0;
    if (length < 1) return;
    const bool isTable = std::string_view(path, static_cast<std::size_t>(length)).ends_with(".dbf");
    (steps += step) += S_ISDIR(info.st_mode) ? 'f' : isTable ? 't' : 'm';
}

bool fails(Kind kind) {
    if (fault.kind != kind || --fault.countdown > 0) return false;
    if (fault.countdown < 0 && !fault.lasting) return false;
    errno = fault.error != 0 ? fault.error : kErrors[kind];
    return fault.met = true;
}

bool isKilled() { return fault.changesLeft > 0 && --fault.changesLeft == 0; }

/// fails for a call that changes files.
bool endsOrFails(Kind kind) {
    if (isKilled()) _exit(0);
    return fails(kind);
}

/// A call that creates a file or gives one a second name.
bool failsOnFull(Kind kind) { return fails(kind) || fails(kFull); }

/// A write at a place of a file.
bool failsToExtend(int fd, off_t at, std::size_t count) {
    struct stat info;
    return fault.kind == kFull && fstat(fd, &info) == 0 &&
           at + static_cast<off_t>(count) > info.st_size && fails(kFull);
}

/// A write at a place of a file; put does the first bytes of it. Nothing when it fails without a
/// byte.
template <typename Put>
std::optional<std::size_t> write(int fd, off_t at, std::size_t count, Put put) {
    note('w', fd);
    if (isKilled()) {
        put(count * static_cast<std::size_t>(fault.eighths) / 8);
        _exit(0);
    }
    if (fails(kShortWrite) && count > 1) return put(count / 2);
    if (fails(kWrite) || failsToExtend(fd, at, count)) return std::nullopt;
    return put(count);
}

/// The same for a caller who goes on after a write that was cut short: that fails then.
template <typename Put>
ssize_t placed(int fd, off_t at, std::size_t count, Put put) {
    static bool cut = false;
    if (std::exchange(cut, false)) return -1;
    const auto first = [&](std::size_t bytes) { return static_cast<std::size_t>(put(bytes)); };
    const std::optional<std::size_t> done = write(fd, at, count, first);
    cut = done && *done < count;
    return done ? static_cast<ssize_t>(*done) : -1;
}

/// For the model of a disk; always false, so that the call is made.
bool recorded(test::Call::Kind kind, int fd, off_t place = 0, std::string_view bytes = {}) {
    if (test::calls == nullptr) return false;
    if (kind == test::Call::SyncFile && test::isFolder(fd)) kind = test::Call::SyncFolder;
    test::record({kind, test::fileOf(fd), "", std::string(bytes), static_cast<u_int64_t>(place)});
    return false;
}
bool recorded(test::Call::Kind kind, const char* from, const char* to) {
    if (test::calls != nullptr) {
        test::record({kind, 0, test::lastName(from), test::lastName(to)});
    }
    return false;
}

/// Puts another file under a stream for one call, so that it fails as in real life.
template <typename Call>
std::size_t onOther(int mode, std::FILE* file, Call call) {
    const int saved = dup(fileno(file)), other = open("/dev/null", mode);
    dup2(other, fileno(file));
    const std::size_t result = call();
    dup2(saved, fileno(file));
    close(saved);
    close(other);
    return result;
}

}  // namespace

extern "C" {
WRAP(void*, malloc, size > fault.most || fails(kAllocate), nullptr, (std::size_t size), (size))
WRAP(void*, calloc, fails(kAllocate), nullptr, (std::size_t n, std::size_t size), (n, size))
WRAP(void*, realloc, fails(kAllocate), nullptr, (void* block, std::size_t size), (block, size))
WRAP(std::FILE*, LARGE(fopen), fails(kOpen), nullptr, (const char* path, const char* mode),
     (path, mode))
int REAL(LARGE(open))(const char* path, int flags, ...);
int WRAPPED(LARGE(open))(const char* path, int flags, ...) {
    const bool creates = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;
    if (creates ? failsOnFull(kOpen) : fails(kOpen)) return -1;
    const int fd = REAL(LARGE(open))(path, flags, 0600);
    if (creates && test::calls != nullptr) {
        test::record({test::Call::Create, test::fileOf(fd), test::lastName(path)});
    }
    return fd;
}
WRAP(std::FILE*, fdopen, fails(kOpen), nullptr, (int fd, const char* mode), (fd, mode))
WRAP(int, LARGE(fseeko), fails(kSeek), -1, (std::FILE * file, off_t to, int from), (file, to, from))
WRAP(std::size_t, fread, fails(kRead),
     onOther(O_WRONLY, file, [&] { return __real_fread(to, size, n, file); }),
     (void* to, std::size_t size, std::size_t n, std::FILE* file), (to, size, n, file))
WRAP(int, LARGE(ftruncate), endsOrFails(kCut) || recorded(test::Call::Cut, fd, size), -1,
     (int fd, off_t size), (fd, size))
WRAP(int, rename, endsOrFails(kName) || recorded(test::Call::Rename, from, to), -1,
     (const char* from, const char* to), (from, to))
WRAP(int, link,
     noLinks || endsOrFails(kName) || fails(kFull) ||
         (access(to, F_OK) != 0 && recorded(test::Call::Link, from, to)),
     -1, (const char* from, const char* to), (from, to))
WRAP(int, unlink, recorded(test::Call::Unlink, path, ""), -1, (const char* path), (path))
WRAP(int, fsync, (note('s', fd), fails(kName) || recorded(test::Call::SyncFile, fd)), -1, (int fd),
     (fd))
WRAP(int, flock, fails(kLook), -1, (int fd, int operation), (fd, operation))
WRAP(int, fchmod, fails(kLook), -1, (int fd, mode_t mode), (fd, mode))
WRAP(int, LARGE(lstat), fails(kLook), -1, (const char* path, struct stat* info), (path, info))
WRAP(ssize_t, LARGE(pread), fails(kRead), -1, (int fd, void* to, std::size_t count, off_t at),
     (fd, to, count, at))

std::size_t __real_fwrite(const void* from, std::size_t size, std::size_t n, std::FILE* file);
std::size_t __wrap_fwrite(const void* from, std::size_t size, std::size_t n, std::FILE* file) {
    const auto put = [&](std::size_t count) { return __real_fwrite(from, 1, count, file); };
    recorded(test::Call::Write, fileno(file), ftello(file),
             {static_cast<const char*>(from), size * n});
    const std::size_t done = write(fileno(file), ftello(file), size * n, put).value_or(0) / size;
    if (done < n) onOther(O_RDONLY, file, [&] { return __real_fwrite(from, size, n, file); });
    return done;
}
WRAP(ssize_t, LARGE(pwrite),
     !recorded(test::Call::Write, fd, at, {static_cast<const char*>(from), count}),
     placed(fd, at, count, [&](std::size_t n) { return REAL(LARGE(pwrite))(fd, from, n, at); }),
     (int fd, const void* from, std::size_t count, off_t at), (fd, from, count, at))
}

namespace {

using namespace mira;
using namespace test;

/// An operation, and the rows that it makes of others.
struct Operation {
    const char* name;
    std::function<int(Sample&, Table&)> call;
    std::function<void(Rows&)> change;
    bool putsBack = false;  ///< when it fails the table is as it was
    std::function<int(DbfBase*)> prepare{};
    bool packs = false;  ///< when it fails the next call has to finish it
    std::function<void(const Sample&, bool done)> inspect{};
};

struct Runs {
    unsigned faults = 0, kills = 0;
} runs;

const bool all = std::getenv("MIRA_FAULT_ALL") != nullptr;

/// One operation on one sample, with whatever may happen to it.
class Trial {
public:
    Trial(Sample& sample, const Operation& operation)
        : sample_(sample), operation_(operation), after_(sample.before) {
        operation.change(after_);
    }

    void run() {
        const int step = all || (operation_.putsBack && sample_.count > 7) ? 1 : 4;
        const int format = static_cast<int>(sample_.kind);
        for (int kind = kShortWrite; kind < kKinds; ++kind) {
            for (const bool lasting : {false, true}) {
                int n = 1 + (kind + format + lasting) % step;
                while (runWithFault(kind, n, lasting) && !testing::Test::HasFailure()) n += step;
            }
        }
        const int killStep = step / 2 + 1;
        for (int eighths = format % 2; eighths < 8; eighths += all ? 1 : 4) {
            int n = 1 + (eighths + format) % killStep;
            while (runAndKill(n, eighths) && !testing::Test::HasFailure()) n += killStep;
        }
    }

private:
    static int lowestDescriptor() {
        const int fd = dup(0);
        close(fd);
        return fd;
    }

    Table prepared() const {
        sample_.reset();
        Table h = sample_.open();
        EXPECT_TRUE(!operation_.prepare || operation_.prepare(h.get()) != 0);
        return h;
    }

    /// Each row is one from before or from after, but for so many torn ones. What the operation
    /// does not touch is there, and what it was to remove, unless it is done.
    void expectNothingLost(const std::string& where, int torn, bool done = true) const {
        const Rows found = sample_.rows();
        const std::string blank = padded("", 5 + sample_.width) + '=';
        const auto has = [](const Rows& rows, const std::string& row) {
            return std::find(rows.begin(), rows.end(), row) != rows.end();
        };
        for (const std::string& row : found) {
            if (row == blank || has(sample_.before, row) || has(after_, row)) continue;
            EXPECT_GE(--torn, 0) << where << " shows " << brief(row);
        }
        for (const std::string& row : sample_.before) {
            EXPECT_TRUE((done && !has(after_, row)) || has(found, row))
                << where << " loses " << brief(row);
        }
    }

    /// A memo is the record's own or not shown, but in so many torn records.
    void expectOwnMemos(const std::string& where, DbfBase* h, int torn) const {
        for (u32 i = 0; i < reccount(h); ++i) {
            EXPECT_NE(ReadRecord(h, i), 0) << where;
            const std::string start = recordOf(h).substr(1, 4 + sample_.width) + "=";
            const std::string memo = memoOf(h, 2).value_or("");
            for (const std::string& row : sample_.before) {
                const bool same = row.compare(1, start.size(), start) == 0;
                if (!same || memo.empty() || row.ends_with("=" + memo)) continue;
                EXPECT_GE(--torn, 0) << where << " shows " << brief(start + memo);
            }
        }
    }

    /// The same call without a fault.
    void callAgain(const std::string& where, Table& h, int torn) const {
        if (operation_.packs) expectOwnMemos(where, h.get(), torn);
        EXPECT_NE(operation_.call(sample_, h), 0) << where;
        if (operation_.inspect) operation_.inspect(sample_, true);
        expectNothingLost(where, torn);
        expectNoTemporaryFile(where);
    }

    void expectNoTemporaryFile(const std::string& where) const {
        for (const std::string& name : sample_.names())
            EXPECT_FALSE(name[2] == '~' && std::isdigit(static_cast<u8>(name[4]))) << where << name;
    }

    /// What is appended next overwrites nothing.
    void expectRoomBehind(const std::string& where, Table h) const {
        if (h) ClearAllFilter(h.get());
        const bool whole = h && AppendBlank(h.get(), 1) == 1;
        if (h && !whole) RefreshDatabase(h.get());  // copies stand behind the records
        EXPECT_TRUE(whole || (h && AppendBlank(h.get(), 1) == 1)) << where;
        expectNothingLost(where + ", appended", 1);
    }

    /// False when there are fewer than n calls of the kind.
    bool runWithFault(int kind, int n, bool lasting) const {
        const std::string where =
            std::string(operation_.name) + " of format " + std::to_string(sample_.kind) + ", " +
            (lasting ? "lasting " : "") + "fault of " + kNames[kind] + " at " + std::to_string(n);
        const int descriptor = lowestDescriptor();
        Table h = prepared();
        fault = {kind, n, lasting};
        const int result = operation_.call(sample_, h);
        const bool met = fault.met;
        fault = {};
        EXPECT_TRUE(result == 0 || sample_.rows() == after_) << where;
        const bool whole = !lasting && operation_.putsBack;
        EXPECT_TRUE(result != 0 || !whole || sample_.isAsWritten()) << where;
        EXPECT_TRUE(met || result != 0) << where;
        const int torn = lasting || kind == kShortWrite ? 1 : 0;
        const bool done = result != 0 || !operation_.putsBack;
        const bool judged = result != 0 || !operation_.packs;
        if (judged) expectNothingLost(where, torn, done);
        if (operation_.inspect) operation_.inspect(sample_, result != 0);
        // One that bears the only name that can be had stays for the next call.
        if (!noLinks || !lasting || kind != kName) expectNoTemporaryFile(where);
        runs.faults += met;
        const std::string again = where + ", once more";
        if (lasting) {
            if (!h) h = sample_.open();
            if (!judged) callAgain(again, h, torn);
            if (kind == kCut && operation_.putsBack && result == 0) {
                EXPECT_EQ(h->Header.RecordCount, sample_.count) << where;
            }
            if (operation_.putsBack && result == 0) {
                operation_.call(sample_, h);  // may be refused now
                expectNothingLost(again, torn);
            }
            expectRoomBehind(where, std::move(h));
        } else if (result == 0) {
            callAgain(again, h, operation_.packs ? torn : 0);
            EXPECT_TRUE(!whole || sample_.rows() == after_) << again;
        }
        h.reset();
        EXPECT_EQ(lowestDescriptor(), descriptor) << where;
        return met;
    }

    /// Kills the process at its n-th change of a file; false when it makes fewer.
    bool runAndKill(int n, int eighths) const {
        const std::string where = std::string(operation_.name) + " of format " +
                                  std::to_string(sample_.kind) + ", killed at " +
                                  std::to_string(n) + "+" + std::to_string(eighths) + "/8";
        sample_.reset();
        const pid_t child = fork();
        if (child == 0) {
            Table h = prepared();
            fault.changesLeft = n;
            fault.eighths = eighths;
            operation_.call(sample_, h);
            _exit(1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status)) << where;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
        ++runs.kills;
        if (operation_.inspect) operation_.inspect(sample_, false);
        if (!operation_.packs) expectNothingLost(where, 1);
        Table h = sample_.open();
        if (operation_.packs) callAgain(where + ", once more", h, 1);
        expectRoomBehind(where, std::move(h));
        return true;
    }

    Sample& sample_;
    const Operation& operation_;
    Rows after_;
};

int setNew(DbfBase* h) {
    ClearRecord(h);
    SetString(h, 0, "new");
    return 1;
}

const std::function<void(Rows&)> kNothing = [](Rows&) {};
const std::function<void(Rows&)> kAppended = [](Rows& rows) {
    rows.push_back(" new " + padded("", rows[0].find('=') - 5) + "=");
};

int append(Sample&, Table& h) { return setNew(h.get()) * AppendBlank(h.get(), 0); }

/// A sort or filter that fails leaves the view as it was.
int view(Sample&, Table& h) {
    ClearAllFilter(h.get());
    h->SortDescending = 0;
    const bool first = SortBase(h.get(), "NAME", nullptr) != 0;
    const u32* const kept = h->SortOrder;
    h->SortDescending = 1;
    const bool sorted = SortBase(h.get(), "NAME", [] { return 0; }) != 0;
    const bool inOrder = GetOrder(h.get(), 0) == reccount(h.get()) - 1;
    EXPECT_TRUE(!sorted || inOrder || fault.kind != kAllocate);  // a record not read is blank
    EXPECT_TRUE(sorted || h->SortOrder == kept);
    const bool filtered = sorted && set_filter(h.get(), "NAME>\"n102\"", nullptr) != nullptr;
    EXPECT_TRUE(filtered || !sorted || (h->SortOrder != nullptr && h->FilterText == nullptr));
    EXPECT_TRUE(!filtered || h->FilterText != nullptr);
    return first && filtered;
}

/// What fails is not taken for an answer.
int ask(Sample&, Table& h) {
    constexpr const char* filter = "NAME>\"n102\"";
    u32 block = 0, length = 0, at = 0;
    u64 first = 0, end = 0;
    int field = 0;
    FilterFault found{};
    if (ReadRecord(h.get(), 0) == 0 || GetMemoReference(h.get(), 2, &block, &length) == 0) return 0;
    const bool spanned = GetMemoSpan(h.get(), block, length, &first, &end) == 1;
    const bool checked = CheckFilter(h.get(), filter, &found, &at, &at) != 0;
    EXPECT_EQ(found, checked ? FilterFault::None : FilterFault::Memory);
    EXPECT_TRUE(spanned || first + end == 0);
    return spanned && checked && GetFilterCondition(h.get(), filter, 0, &field, &at, &at, &at) == 1;
}

int writeThird(Sample&, Table& h) {
    if (ReadRecord(h.get(), 2) == 0) return 0;
    h->RecordBuffer[5] = 'W';
    return WriteRecord(h.get(), 2);
}

int setFirstMemo(Sample&, Table& h) {
    return ReadRecord(h.get(), 0) != 0 && SetMemo(h.get(), 2, "another") != 0
               ? WriteRecord(h.get(), 0)
               : 0;
}

const Operation kMoves[] = {
    {"open", [](Sample& f, Table& h) { return h = f.open(), h != nullptr ? 1 : 0; }, kNothing,
     true},
    {"view", view, kNothing, true},
    {"ask", ask, kNothing, true},
    {"append", append, kAppended},
    {"append to a sort order", append, kAppended, false,
     [](DbfBase* h) { return SortBase(h, "NAME", nullptr); }},
    {"append to a filter", append, kAppended, false,
     [](DbfBase* h) { return set_filter(h, "NAME>\"n102\"", nullptr) != nullptr ? 1 : 0; }},
    {"write a record", writeThird, [](Rows& rows) { rows[2][5] = 'W'; }},
    {"mark a record", [](Sample&, Table& h) { return InverseRecord(h.get(), 3); },
     [](Rows& rows) { rows[3][0] = '*'; }},
    {"set a memo", setFirstMemo,
     [](Rows& rows) { rows[0].replace(rows[0].find('='), std::string::npos, "=another"); }},
    {"delete the first", [](Sample&, Table& h) { return Delete(h.get(), 0); },
     [](Rows& rows) { rows.erase(rows.begin()); }, true},
    {"delete the last but one",
     [](Sample&, Table& h) { return Delete(h.get(), h->Header.RecordCount - 2); },
     [](Rows& rows) { rows.erase(rows.end() - 2); }, true},
    {"insert a copy", [](Sample&, Table& h) { return setNew(h.get()) * Insert(h.get(), 0, 0); },
     [](Rows& rows) {
         kAppended(rows);
         std::rotate(rows.begin(), rows.end() - 1, rows.end());
     },
     true},
    {"insert a blank", [](Sample&, Table& h) { return Insert(h.get(), 4, 1); },
     [](Rows& rows) { rows.insert(rows.begin() + 4, padded("", rows[0].find('=')) + "="); }, true},
    {"truncate", [](Sample&, Table& h) { return Truncate(h.get(), 3); },
     [](Rows& rows) { rows.resize(3); }},
    {"zap", [](Sample&, Table& h) { return Zap(h.get()); }, [](Rows& rows) { rows.clear(); }},
};

int writeAlias(Sample&, Table& h) {
    std::strcpy(h->AliasNames[0], "one");
    SetAliasName(h.get(), nullptr);
    if (h->AliasFileName == nullptr) return 0;
    WriteAlias(h.get());
    h->AliasNames[0][0] = 0;
    ReadAlias(h.get());
    return h->AliasNames[0] == "one"s;
}

int create(Sample& sample, Table&) {
    DbfField fields[1] = {};
    CreateField(&fields[0], "NOTE", 'M', 10);
    return CreateDatabase(sample.otherPath().c_str(), fields, 1, sample.kind, 64, 0);
}

/// What create has to leave: one field, no record, no end byte, and the date as found.
std::string createdBytes(u32 kind, std::string_view found) {
    constexpr u8 versions[] = {0x83, 0xF5, 0x8B, 0x30, 0xE5};
    const bool visual = kind == 3;
    Layout layout{versions[kind], {{"NOTE", 'M', visual ? 4U : 10U}}, {}};
    if (visual) layout.backLink.resize(263);
    std::string bytes = layout.bytes();
    if (!found.empty()) bytes = dated(bytes, found, true);
    bytes.pop_back();
    bytes[44] = 1;  // the offset
    return visual ? bytes.replace(28, 2, "\3\3") : bytes;
}

/// A whole table, the beginning of one, or what was there before.
void inspectCreated(const Sample& sample, bool done) {
    const std::string found = readAll(sample.otherPath()), whole = createdBytes(sample.kind, found);
    EXPECT_TRUE(done ? found == whole : found == "older" || whole.starts_with(found))
        << found.size();
}

/// The copy made before is there, or a whole new one.
void inspectBackup(const Sample& sample, bool /*done*/) {
    const std::string copy = readAll(sample.file("t.bak"));
    EXPECT_TRUE(copy == "older" || sample.isAsWritten(copy)) << copy.size();
}

const std::function<void(Rows&)> kPacked = [](Rows& rows) {
    std::erase_if(rows, [](const std::string& row) { return row[0] == '*'; });
};

const Operation kFiles[] = {
    {"write a backup copy", writeThird, [](Rows& rows) { rows[2][5] = 'W'; }, false,
     [](DbfBase* h) { return writeAll(h->BackupName, "older"), h->BackupEnabled = 1; }, false,
     inspectBackup},
    {"write an alias file", writeAlias, kNothing, true},
    {"create a table", create, kNothing, true,
     [](DbfBase* h) {
         return writeAll(std::filesystem::path(h->FileName).replace_filename("u.dbf"), "older"), 1;
     },
     false, inspectCreated},
    {"pack", [](Sample&, Table& h) { return Pack(h.get(), 0); }, kPacked, false, {}, true},
    {"pack records", [](Sample&, Table& h) { return Pack(h.get(), 1); }, kPacked, false, {}, true},
    {"pack memos", [](Sample&, Table& h) { return Pack(h.get(), 2); }, kNothing, false, {}, true},
};

TEST(Fault, NoFailureOrKillLosesAMemo) {
    for (const u32 kind : {0u, 2u, 3u, 4u, 0u}) {
        Sample sample(kind, 20, 7);
        for (const Operation& operation : kFiles) {
            Trial(sample, operation).run();
            ASSERT_FALSE(HasFailure());
        }
        noLinks = kind == 4;  // the last time
    }
    noLinks = false;
    if (all) std::cout << runs.faults << " faults, " << runs.kills << " kills\n";
}

/// Two records of a reference each: of one the memo goes from block 8 to block 256, past which a
/// torn write would leave zeros.
Table twoMemos(const TempDir& dir) {
    const Table h =
        openLayout(dir, {0x30, {{"M", 'M', 4}}, {padded(" ", 5, 0), padded(" ", 5, 0)}});
    CreateMemoFile(h->FileName, 3, 64);
    for (const u32 i : {1u, 0u}) {
        ReadRecord(h.get(), i);
        SetMemo(h.get(), 0, std::string(i == 0 ? 248 * 64 - 8 : 8, "ab"[i]).c_str());
        WriteRecord(h.get(), i);
    }
    return Table(OpenBase(h->FileName));
}

std::string twoMemosOf(DbfBase* h) {
    std::string found;
    for (const u32 i : {0u, 1u})
        found += (ReadRecord(h, i) != 0 ? memoOf(h).value_or("-") : "?").substr(0, 1);
    return found;
}

TEST(Fault, NoTornReferenceIsTakenForAClearedOne) {
    const TempDir dir;
    bool killed = true;
    for (int n = 0; killed; ++n) {
        for (int eighths = 0; eighths < 8; ++eighths) {
            Table h = twoMemos(dir);
            const pid_t child = fork();
            if (child == 0) {
                fault.changesLeft = n + 1;
                fault.eighths = eighths;
                Pack(h.get(), 2);
                _exit(1);
            }
            int status = 0;
            waitpid(child, &status, 0);
            killed = status == 0;
            EXPECT_EQ(Pack(h.get(), 2), 1) << n << ' ' << eighths;
            EXPECT_EQ(twoMemosOf(h.get()), "ab") << n << ' ' << eighths;
        }
    }
}

TEST(Fault, PackSynchronisesWhatTheNextStepGoesBy) {
    const TempDir dir;
    for (const u32 mode : {0u, 2u}) {
        const Table h = twoMemos(dir);
        AppendBlank(h.get(), 1);
        DeleteRecord(h.get(), 2);
        steps.clear();
        ASSERT_EQ(Pack(h.get(), mode), 1);
        // The folder before the first reference; the table before the log goes.
        const std::size_t folder = steps.find("sf");
        EXPECT_EQ(steps.substr(folder), mode == 0 ? "sfsfwtwtwtstwmwmsm" : "sfsfwtwtwtwtstwmwmsm");
        EXPECT_EQ(steps.substr(0, folder).ends_with("st"), mode == 0) << "records that have moved";
    }
    // Where there is no such call the system does what it can.
    for (const int error : {EINVAL, ENOSYS, EOPNOTSUPP, EIO}) {
        for (int n = 1; n < 11; ++n) {  // the fourth and the sixth change names
            const Table h = twoMemos(dir);
            fault = {kName, n};
            fault.error = error;
            noLinks = true;  // leaves fsync and rename
            const int result = Pack(h.get(), 2);
            const bool met = fault.met;
            noLinks = false;
            fault = {};
            EXPECT_EQ(met, n < 10);
            EXPECT_EQ(result != 0, !met || n == 3 || n == 4 || (n != 6 && error != EIO))
                << error << ' ' << n;
            EXPECT_EQ(twoMemosOf(h.get()), "ab") << error << ' ' << n;
        }
    }
}

/// What a power cut leaves of a Pack, the next one finishes: nothing is lost, nothing there twice.
/// The power goes before each call that synchronises, when most is at stake, or before every call.
void cutPowerOfPack(const Sample& sample, u32 mode, std::mt19937& random, bool everywhere,
                    u32 recalled = 0) {
    sample.reset();
    for (u32 i = 0; i < recalled; ++i) RecallRecord(sample.open().get(), sample.count - 1 - i);
    const std::string folder = std::filesystem::path(sample.path()).parent_path();
    Disk disk(folder, filesIn(folder));
    std::vector<Call> made;
    calls = &made;
    EXPECT_EQ(Pack(sample.open().get(), mode), 1);
    calls = nullptr;
    const Rows wanted = sample.rows();
    for (const Call& call : made) {
        const bool synchronises = call.kind == Call::SyncFile || call.kind == Call::SyncFolder;
        const int most = everywhere ? all ? 60 : 6 : all ? 4 : 2;
        for (int i = synchronises ? most : everywhere ? 2 : 0; i != 0; --i) {
            const std::string where = "format " + std::to_string(sample.kind) + ", mode " +
                                      std::to_string(mode) + ", cut at " +
                                      std::to_string(&call - made.data());
            Disk(disk).cut(random, folder);
            EXPECT_EQ(Pack(sample.open().get(), mode), 1) << where;
            EXPECT_TRUE(sample.rows() == wanted) << where;
            EXPECT_EQ(number(readAll(sample.path()).substr(4, 4)), wanted.size()) << where;
            EXPECT_LE(sample.names().size(), 3U) << where;
            if (testing::Test::HasFailure()) return;
        }
        disk.take(call);
    }
}

TEST(Fault, NoPowerCutLosesOrDoublesWhatIsPacked) {
    std::mt19937 random(5);
    for (const u32 kind : {0u, 2u, 3u, 4u, 0u}) {
        const Sample sample(kind, 20, 30);
        for (const u32 mode : {0u, 1u, 2u}) cutPowerOfPack(sample, mode, random, true);
        noLinks = kind == 4;
    }
    noLinks = false;
    // In several turns, with spare copies and without.
    const Sample large(3, 6000, 2500);
    cutPowerOfPack(large, 1, random, false);
    cutPowerOfPack(large, 1, random, false, large.count - 2);
}

TEST(Fault, NoFailureHidesTheLogOfAPack) {
    const TempDir dir;
    for (const int kind : {kAllocate, kOpen, kSeek, kRead, kLook}) {
        bool met = true;
        for (int n = 1; met; ++n) {
            Table h = twoMemos(dir);
            h->BeforeWrite = [](DbfBase*) { return fault = {kWrite, 1, true}, 0; };
            EXPECT_EQ(Pack(h.get(), 2), 0);
            fault = {};
            h->BeforeWrite = nullptr;
            EXPECT_EQ(ReadRecord(h.get(), 1), 1);
            fault = {kind, n, n % 2 == 0};
            const auto note = GetMemo(h.get(), 0);
            const int done = AppendBlank(h.get(), 0) + WriteRecord(h.get(), 0) +
                             WriteField(h.get(), 0, 0) + SetMemo(h.get(), 0, "x") +
                             Delete(h.get(), 0) + Insert(h.get(), 0, 1) + Zap(h.get());
            const int told = IsPackUnfinished(h.get());
            met = fault.met;
            fault = {};
            EXPECT_TRUE(note == nullptr && done == 0 && told != 0) << kNames[kind] << ' ' << n;
            EXPECT_EQ(Pack(h.get(), 2), 1);
            EXPECT_EQ(twoMemosOf(h.get()), "ab") << kNames[kind] << ' ' << n;
        }
    }
}

TEST(Fault, NoFailureOrKillLosesARecord) {
    // One by one, in one chunk, in several.
    std::vector<std::pair<unsigned, unsigned>> shapes = {{20, 7}, {20, 30}};
    if (all) shapes.push_back({6000, 60});
    for (const auto& [width, count] : shapes) {
        for (const u32 kind : {0u, 2u, 3u, 4u}) {
            if (kind != 3 && count != 7) continue;  // moves do not look into records
            Sample sample(kind, width, count);
            for (const Operation& operation : kMoves) {
                Trial(sample, operation).run();
                ASSERT_FALSE(HasFailure());
            }
        }
    }
    if (all) std::cout << runs.faults << " faults, " << runs.kills << " kills\n";
}

/// Keys for which there is no memory are read for every comparison: in every sort anew.
TEST(Fault, SortsAlikeWithoutMemoryForKeys) {
    static u32 reads, stops;
    const Sample sample(0, 20, 60);
    const Table h = sample.open();
    h->AfterRead = [](DbfBase*) { return static_cast<int>(++reads); };
    const auto sorted = [&](const char* by, bool stopped) {
        reads = 0;
        stops = stopped ? 9 : 0;
        EXPECT_EQ(SortBase(h.get(), by, [] { return stops != 0 && --stops == 0 ? 1 : 0; }), 1);
        EXPECT_EQ(h->SortOrder == nullptr, stopped);
        return stopped ? std::vector<u32>{} : std::vector(h->SortOrder, h->SortOrder + 60);
    };
    for (const char* by : {"FILL", "NAME", "FILL,NAME"}) {
        for (const u8 descending : {u8{1}, u8{0}}) {
            h->SortDescending = descending;
            const std::vector<u32> wanted = sorted(by, false);
            EXPECT_EQ(reads, 60U);
            fault.most = 65536;  // enough for two keys
            EXPECT_EQ(sorted(by, false), wanted) << by;
            for (const char* other : {"NAME", "FILL"}) {  // is stopped amid a comparison
                EXPECT_TRUE(sorted(other, true).empty());
                EXPECT_EQ(sorted(by, false), wanted) << by << " after " << other;
            }
            EXPECT_GT(reads, 100U);
            fault = {};
        }
    }
}

TEST(Fault, ATableThatCannotBeReadDoesNotOpen) {
    const TempDir dir;
    for (const int kind : {kOpen, kRead}) {
        for (const Flavour flavour : {kPlain, kLevel7}) {
            Layout layout{0x03, {}, {}, flavour};
            layout.columns.assign(100, {"F", 'L', 1});  // more than one read gets
            writeAll(dir.file("t.dbf"), layout.bytes());
            int calls = -1;
            for (bool met = true; met; ++calls) {
                fault = {kind, calls + 2};
                const Table h(OpenBase(dir.file("t.dbf").c_str()));
                met = fault.met;
                fault = {};
                EXPECT_EQ(h == nullptr, met) << kNames[kind] << ' ' << calls;
            }
            EXPECT_EQ(calls, 2);
        }
    }
}

TEST(Fault, ALengthFromAFileTakesNoMemory) {
    const TempDir dir;
    const Table h = openLayout(dir, {0xF5, {{"M", 'M', 10}}, {padded("", 10) + '1'}});
    const std::string header = padded("\0\0\0\2\0\0\0\x20"s, 32, 0), text(9000, 'x');
    writeAll(h->MemoFileName, header + "\0\0\0\1\x7F\xFF\xFF\xFF"s + text);
    ASSERT_EQ(ReadRecord(h.get(), 0), 1);
    fault.most = 10000;
    EXPECT_EQ(memoOf(h.get()), text);
    fault = {};
}

}  // namespace
