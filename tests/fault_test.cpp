// What fails on the way: each allocation, open, seek, read and write of a session in turn. The
// linker sends those calls of this program and of the library to the wrappers below (--wrap).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "support.h"

namespace {

enum Kind { kShortWrite, kAllocate, kOpen, kSeek, kRead, kWrite, kKinds };

struct {
    Kind kind = kKinds;
    int countdown = 0;
    bool lasting = false;     // all later calls fail, too
    bool on = false;          // only while the library runs
    bool met = false;         // a call has failed
    std::size_t largest = 0;  // allocation
} fault;

bool fails(Kind kind) {
    if (!fault.on || fault.kind != kind) return false;
    const bool now = --fault.countdown == 0 || (fault.lasting && fault.countdown < 0);
    fault.met = fault.met || now;
    return now;
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

#define WRAP(result, name, parameters) \
    result __real_##name parameters;   \
    result __wrap_##name parameters

extern "C" {
WRAP(void*, malloc, (std::size_t size)) {
    fault.largest = std::max(fault.largest, size);
    return fails(kAllocate) ? nullptr : __real_malloc(size);
}
WRAP(void*, calloc, (std::size_t count, std::size_t size)) {
    return fails(kAllocate) ? nullptr : __real_calloc(count, size);
}
WRAP(void*, realloc, (void* block, std::size_t size)) {
    return fails(kAllocate) ? nullptr : __real_realloc(block, size);
}
WRAP(std::FILE*, fopen, (const char* path, const char* mode)) {
    if (!fails(kOpen)) return __real_fopen(path, mode);
    errno = EMFILE;
    return nullptr;
}
WRAP(int, fseek, (std::FILE * file, long offset, int whence)) {
    return fails(kSeek) ? -1 : __real_fseek(file, offset, whence);
}
WRAP(std::size_t, fread, (void* to, std::size_t size, std::size_t count, std::FILE* file)) {
    const auto call = [&] { return __real_fread(to, size, count, file); };
    return fails(kRead) ? onOther(O_WRONLY, file, call) : call();
}
WRAP(std::size_t, fwrite,
     (const void* from, std::size_t size, std::size_t count, std::FILE* file)) {
    const std::size_t half = fails(kShortWrite) ? count / 2 : 0;
    if (half != 0) __real_fwrite(from, size, half, file);
    const auto call = [&] { return __real_fwrite(from, size, count, file); };
    return half != 0 || fails(kWrite) ? onOther(O_RDONLY, file, call) + half : call();
}
}

namespace {

using namespace mira;
using namespace test;

/// A call of the library, the only place where faults happen.
template <typename Call>
auto library(Call call) {
    fault.on = true;
    const auto result = call();
    fault.on = false;
    return result;
}

std::string memoOf(const std::string& name) { return name + std::string(5000, name[0]); }

/// Records have a name; their memo begins with it.
struct Session {
    std::string path;
    u32 kind;
    Table h{};
    std::vector<std::string> names{};    ///< in the table once the current step is done
    std::vector<std::string> certain{};  ///< and even when it fails
    bool packFailed = false;

    bool create() {
        DbfField fields[2] = {};
        CreateField(&fields[0], "NAME", 'C', 4);
        CreateField(&fields[1], "NOTE", 'M', 10);
        return library([&] { return CreateDatabase(path.c_str(), fields, 2, kind, 64, 1); }) != 0;
    }
    bool open() {
        h.reset(library([&] { return OpenBase(path.c_str()); }));
        if (h) h->BackupEnabled = 1;
        return h != nullptr;
    }
    bool add(const std::string& name, bool insert) {
        const std::string memo = memoOf(name);
        ClearRecord(h.get());
        SetString(h.get(), 0, name.c_str());
        names.push_back(name);
        return library([&] {
            return SetMemo(h.get(), 1, memo.c_str()) != 0 &&
                   (insert ? Insert(h.get(), 0, 0) : AppendBlank(h.get(), 0)) != 0;
        });
    }
    bool remove() {  // the one that was inserted at 0
        certain.pop_back();
        names.pop_back();
        return library([&] { return Delete(h.get(), 0) != 0; });
    }
    bool pack() {
        certain.erase(certain.begin() + 1);
        names = certain;
        const auto call = [&] { return InverseRecord(h.get(), 1) != 0 && Pack(h.get(), 0) != 0; };
        packFailed = !library(call);
        return !packFailed;
    }
    /// Each certain record is there with its memo. After a pack that has failed the memo may be
    /// missing, but it is no other's, unless the record itself could not be read or written.
    bool check(bool torn = false) {
        auto left = certain;
        for (u32 i = 0; i < reccount(h.get()); ++i) {
            if (library([&] { return ReadRecord(h.get(), i); }) == 0) return false;
            const std::string name(reinterpret_cast<char*>(h->RecordBuffer) + 1, 4);
            u32 length = 0;
            char* memo = library([&] { return GetMemoBuf(h.get(), 1, &length); });
            const std::string text = memo == nullptr ? "" : std::string(memo, length);
            std::free(memo);
            const bool own = text == memoOf(name) || torn || (packFailed && text.empty());
            EXPECT_TRUE(own || !packFailed) << name << " shows " << text.substr(0, 4);
            if (own) std::erase(left, name);
        }
        return left.empty();
    }
    bool run() {
        const auto next = [&](bool done) {
            if (done) certain = names;
            return done;
        };
        return next(create()) && next(open()) && next(add("aaaa", false)) &&
               next(add("bbbb", false)) && next(add("cccc", false)) && next(add("dddd", true)) &&
               next(check()) && next(remove()) && next(pack()) && check();
    }
};

/// The session with the n-th call of a kind failing; false when it has fewer.
bool runWithFault(u32 memoKind, int n, Kind kind, bool lasting) {
    const TempDir dir;
    Session session{dir.file("t.dbf"), memoKind};
    fault = {kind, n, lasting};
    const bool done = session.run();
    const bool met = fault.met;
    fault = {};
    EXPECT_TRUE(met || done);
    session.h.reset(OpenBase(session.path.c_str()));
    if (session.names.empty()) return met;
    if (session.h == nullptr) return ADD_FAILURE(), false;
    EXPECT_TRUE(session.check(session.packFailed && kind != kAllocate && kind != kOpen));
    EXPECT_TRUE(!done || reccount(session.h.get()) == session.names.size());
    return met && !testing::Test::HasFailure();
}

TEST(Fault, EachFailureIsReportedAndLosesNothing) {
    for (const u32 memoKind : {0u, 3u, 4u}) {
        for (int kind = 0; kind < kKinds; ++kind) {
            for (const bool lasting : {false, true}) {
                if (lasting && kind == kShortWrite) continue;
                SCOPED_TRACE(testing::Message() << memoKind << ", fault " << kind << lasting);
                int n = 1;
                while (runWithFault(memoKind, n, static_cast<Kind>(kind), lasting)) ++n;
                EXPECT_GT(n, 5);
                ASSERT_FALSE(HasFailure()) << "call " << n;
            }
        }
    }
}

TEST(Fault, LengthsFromFilesTakeNoMemory) {
    const TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {"\xF5         1", padded("\0\0\0\2\0\0\0\x20"s, 32, 0) + "\0\0\0\1\x7F\xFF\xFF\xFF"s},
        {"\xE5\0\0\xFF\xFF\xFF\x7F\1\0\0\0"s, padded("\2\0\0\0\x20\0"s, 32, 0)}};
    for (const auto& [reference, file] : cases) {
        const Table h =
            openLayout(dir, {static_cast<u8>(reference[0]), {{"M", 'M', 10}}, {reference}});
        ASSERT_EQ(ReadRecord(h.get(), 0), 1);
        for (const unsigned more : {0u, 9000u}) {
            writeAll(h->MemoFileName, file + std::string(more, 'x'));
            fault = {};
            u32 length = 0;
            std::free(GetMemoBuf(h.get(), 0, &length));
            EXPECT_EQ(length, more);
            EXPECT_LE(fault.largest, more + 1000);
        }
    }
}

}  // namespace
