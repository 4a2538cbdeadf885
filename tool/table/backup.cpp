// Backup copies, and whether a table can be written at all.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include "table/refusal.h"
#include "table/store.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kChunk = 1 << 17;

[[noreturn]] void refuseCopy(const fs::path& path, int error) {
    refuse(path.string(), ": the backup copy cannot be written: ", std::strerror(error),
           " (--no-backup goes without)");
}

class Descriptor {
public:
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() {
        if (number_ >= 0) close(number_);
    }
    Descriptor(const Descriptor&) = delete;
    int number() const { return number_; }

private:
    int number_;
};

bool writeAll(int to, const char* bytes, std::size_t count) {
    while (count != 0) {
        const ssize_t written = write(to, bytes, count);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}

bool copyBytes(int from, int to) {
    const auto buffer = std::make_unique<char[]>(kChunk);
    while (true) {
        const ssize_t got = read(from, buffer.get(), kChunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0 && fsync(to) == 0;
        if (!writeAll(to, buffer.get(), static_cast<std::size_t>(got))) return false;
    }
}

/// Copies under a name of its own first, so that an older copy gives way to a whole one only.
void copyTo(const fs::path& original, const fs::path& copy) {
    if (original == copy) {
        refuse(original.string(),
               ": has the name of its own backup copy (--no-backup goes without)");
    }
    const Descriptor from(open(original.c_str(), O_RDONLY | O_CLOEXEC));
    if (from.number() < 0) refuseCopy(copy, errno);
    std::string name = (copy.parent_path() / ("." + copy.filename().string() + ".XXXXXX")).string();
    const Descriptor to(mkostemp(name.data(), O_CLOEXEC));
    if (to.number() < 0) refuseCopy(copy, errno);
    struct stat status {};
    // A file system may know no modes; the copy then has those it gives.
    if (fstat(from.number(), &status) == 0) {
        static_cast<void>(fchmod(to.number(), status.st_mode & 07777));
    }
    if (copyBytes(from.number(), to.number()) && rename(name.c_str(), copy.c_str()) == 0) return;
    const int error = errno;
    unlink(name.c_str());
    refuseCopy(copy, error);
}

/// The memo file, where it is there.
fs::path presentMemos(const Table& table) {
    std::error_code ignored;
    fs::path memos = memoFileOf(table);
    return fs::is_regular_file(memos, ignored) ? memos : fs::path();
}

void checkWritable(const fs::path& path) {
    const Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (file.number() < 0) {
        refuse(path.string(), ": cannot be written: ", std::strerror(errno));
    }
}

}  // namespace

void checkWritable(const Table& table) {
    checkWritable(fs::path(table.path));
    if (const fs::path memos = presentMemos(table); !memos.empty()) checkWritable(memos);
}

void makeBackups(const Table& table) {
    copyTo(table.path, fs::path(table.path).replace_extension(".bak"));
    const fs::path memos = presentMemos(table);
    if (!memos.empty()) copyTo(memos, fs::path(memos).replace_extension(".tbk"));
}

}  // namespace mira::tool
