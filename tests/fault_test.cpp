// What fails on the way: each allocation, open, seek, read and write of a session in turn. The
// linker sends those calls of this program and of the library to the wrappers below (--wrap); what
// the C++ library does for the test itself does not go through them.
#include <fcntl.h>
#include <unistd.h>

#include "support.h"

namespace {

enum Kind { kShortWrite, kAllocate, kOpen, kSeek, kRead, kWrite, kKinds };

struct {
    int kind = kKinds;
    int countdown = 0;
    bool lasting = false;                // all later calls fail, too
    bool met = false;                    // a call has failed
    std::size_t most = std::size_t(-1);  // bytes that one allocation may take
} fault;

bool fails(Kind kind) {
    if (fault.kind != kind || --fault.countdown > 0) return false;
    if (fault.countdown < 0 && !fault.lasting) return false;
    return fault.met = true;
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

#define WRAP(result, name, failed, failure, parameters, arguments) \
    result __real_##name parameters;                               \
    result __wrap_##name parameters { return (failed) ? failure : __real_##name arguments; }

extern "C" {
WRAP(void*, malloc, size > fault.most || fails(kAllocate), nullptr, (std::size_t size), (size))
WRAP(void*, calloc, fails(kAllocate), nullptr, (std::size_t n, std::size_t size), (n, size))
WRAP(void*, realloc, fails(kAllocate), nullptr, (void* block, std::size_t size), (block, size))
WRAP(std::FILE*, fdopen, fails(kOpen), nullptr, (int fd, const char* mode), (fd, mode))
WRAP(int, fseek, fails(kSeek), -1, (std::FILE * file, long to, int from), (file, to, from))
WRAP(std::size_t, fread, fails(kRead),
     onOther(O_WRONLY, file, [&] { return __real_fread(to, size, n, file); }),
     (void* to, std::size_t size, std::size_t n, std::FILE* file), (to, size, n, file))

std::size_t __real_fwrite(const void* from, std::size_t size, std::size_t n, std::FILE* file);
std::size_t __wrap_fwrite(const void* from, std::size_t size, std::size_t n, std::FILE* file) {
    const std::size_t half = fails(kShortWrite) ? __real_fwrite(from, size, n / 2, file) : 0;
    const auto call = [&] { return __real_fwrite(from, size, n, file); };
    return half != 0 || fails(kWrite) ? onOther(O_RDONLY, file, call) + half : call();
}
}

namespace {

using namespace mira;
using namespace test;

std::string memoTo(const std::string& name) { return name + std::string(5000, name[0]); }

/// Records have a name; their memo begins with it.
struct Session {
    TempDir dir{};
    Table h{};
    std::vector<std::string> certain{};  ///< in the table, even when the current step fails
    bool packFailed = false;

    void open() { h.reset(OpenBase(dir.file("t.dbf").c_str())); }
    bool create(u32 memoKind) {
        DbfField fields[2] = {};
        CreateField(&fields[0], "NAME", 'C', 4);
        CreateField(&fields[1], "NOTE", 'M', 10);
        if (CreateDatabase(dir.file("t.dbf").c_str(), fields, 2, memoKind, 64, 1) != 0) open();
        if (h) h->BackupEnabled = 1;
        return h != nullptr;
    }
    bool add(const std::string& name, bool insert = false) {
        ClearRecord(h.get());
        SetString(h.get(), 0, name.c_str());
        if (SetMemo(h.get(), 1, memoTo(name).c_str()) == 0) return false;
        if ((insert ? Insert(h.get(), 0, 0) : AppendBlank(h.get(), 0)) == 0) return false;
        certain.push_back(name);
        return true;
    }
    /// A sort or filter that fails leaves the view as it was.
    bool view() {
        SortBase(h.get(), "NAME", nullptr);
        const u32* const kept = h->SortOrder;
        h->SortDescending = 1;
        const bool sorted = SortBase(h.get(), "NAME", nullptr) != 0;
        EXPECT_TRUE(sorted ? fault.kind != kAllocate || *h->SortOrder == 0 : h->SortOrder == kept);
        const bool filtered = sorted && set_filter(h.get(), "NAME>\"b\"", nullptr) != nullptr;
        EXPECT_TRUE(filtered || !sorted || (h->SortOrder != nullptr && h->FilterText == nullptr));
        ClearAllFilter(h.get());
        return filtered;
    }
    /// Removes the record inserted at 0, then the second of the others.
    bool remove() {
        certain.pop_back();
        if (Delete(h.get(), 0) == 0) return false;
        certain.erase(certain.begin() + 1);
        packFailed = InverseRecord(h.get(), 1) == 0 || Pack(h.get(), 0) == 0;
        return !packFailed;
    }
    /// Each certain record is there with its memo. After a pack that has failed the memo may be
    /// missing, but it is no other's, unless the record itself could not be read or written.
    bool check(bool torn = false) {
        auto left = certain;
        for (u32 i = 0; i < reccount(h.get()); ++i) {
            if (ReadRecord(h.get(), i) == 0) return false;
            const std::string name = recordOf(h.get()).substr(1, 4);
            const std::string memo = memoOf(h.get(), 1).value_or("");
            const bool own = memo == memoTo(name) || torn || (packFailed && memo.empty());
            EXPECT_TRUE(own || !packFailed) << name << " shows " << memo.substr(0, 4);
            if (own) std::erase(left, name);
        }
        return left.empty();
    }
};

/// A session with the n-th call of a kind failing; false when it has fewer.
bool runWithFault(u32 memoKind, int n, int kind, bool lasting) {
    Session s;
    fault = {kind, n, lasting};
    const bool done = s.create(memoKind) && s.add("aaaa") && s.add("bbbb") && s.add("cccc") &&
                      s.add("dddd", true) && s.check() && s.view() && s.remove() && s.check();
    const bool met = fault.met;
    fault = {};
    EXPECT_TRUE(met || done);
    if (s.h == nullptr) return met;
    s.open();
    EXPECT_TRUE(s.h && s.check(s.packFailed && kind != kAllocate && kind != kOpen));
    EXPECT_TRUE(!done || reccount(s.h.get()) == s.certain.size());
    return met && !testing::Test::HasFailure();
}

TEST(Fault, EachFailureIsReportedAndLosesNothing) {
    for (const u32 memoKind : {0u, 3u, 4u}) {
        for (const bool lasting : {false, true}) {
            for (int kind = lasting ? kAllocate : kShortWrite; kind < kKinds; ++kind) {
                int n = 1;
                while (runWithFault(memoKind, n, kind, lasting)) n += memoKind == 0 ? 1 : 5;
                ASSERT_TRUE(n > 5 && !HasFailure()) << memoKind << ", fault " << kind << ", " << n;
            }
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
