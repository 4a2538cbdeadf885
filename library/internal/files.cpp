// File access.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef STATX_SIZE
#include <sys/sysmacros.h>  // makedev
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>

#include "internal/file.h"
#include "internal/paths.h"

namespace mira {
namespace {

constexpr u32 kNowhere = 0xFFFFFFFF;
constexpr mode_t kEverybody = 0666;  // who may read and write a new file, less the umask

constexpr std::size_t kCounters = 64;

/// Writes without counting the change; returns the bytes that the operating system has taken.
u32 put(std::FILE* file, const void* buffer, u32 count) {
    if (file == nullptr || count == 0) return 0;
    const std::size_t done = std::fwrite(buffer, 1, count, file);
    return std::fflush(file) == 0 ? static_cast<u32>(done) : 0;  // a caller's stream is buffered
}

FileFacts facts(const struct stat& info) {
    return {{info.st_dev, info.st_ino}, static_cast<u64>(info.st_size)};
}

std::optional<FileId> idOf(std::optional<FileFacts> facts) {
    return facts ? std::optional(facts->id) : std::nullopt;
}

}  // namespace

Owned<char> copyText(const char* text) {
    if (text == nullptr) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    Owned<char> copy = allocate<char>(size);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

std::optional<FileFacts> factsOf(std::FILE* file) {
    struct stat info;
    if (file == nullptr || fstat(fileno(file), &info) != 0) return std::nullopt;
    return facts(info);
}

// Edits ask this every time. The times are left out where that is possible: file systems that have
// told them stamp the next write anew, which takes half as long again.
#ifdef STATX_SIZE
std::optional<FileFacts> factsOf(const char* path) {
    struct statx info;
    if (path == nullptr || statx(AT_FDCWD, path, 0, STATX_INO | STATX_SIZE, &info) != 0) {
        return std::nullopt;
    }
    return FileFacts{{makedev(info.stx_dev_major, info.stx_dev_minor), info.stx_ino},
                     info.stx_size};
}
#else
std::optional<FileFacts> factsOf(const char* path) {
    struct stat info;
    if (path == nullptr || stat(path, &info) != 0) return std::nullopt;
    return facts(info);
}
#endif

std::optional<FileId> fileId(std::FILE* file) { return idOf(factsOf(file)); }

std::optional<FileId> fileId(const char* path) { return idOf(factsOf(path)); }

std::optional<FileId> nameId(const char* path) {
    struct stat info;
    if (path == nullptr || lstat(path, &info) != 0) return std::nullopt;
    return FileId{info.st_dev, info.st_ino};
}

bool isSameFile(std::optional<FileId> a, std::optional<FileId> b) { return a && a == b; }

int openRegular(const char* path, int flags, FileId* id) {
    const int fd = path != nullptr ? open(path, flags | O_NONBLOCK | O_NOCTTY) : -1;
    struct stat info;
    if (fd < 0) return fd;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        *id = {info.st_dev, info.st_ino};
        return fd;
    }
    close(fd);
    return -1;
}

std::FILE* openUnbuffered(int fd, const char* mode, FileFacts* opened) {
    struct stat info;
    const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    std::FILE* file = regular ? fdopen(fd, mode) : nullptr;
    if (file == nullptr) {
        close(fd);
        return nullptr;
    }
    std::setvbuf(file, nullptr, _IONBF, 0);
    if (opened != nullptr) *opened = facts(info);
    return file;
}

std::FILE* openUnbuffered(const char* path, int flags, const char* mode, FileFacts* opened) {
    if (path == nullptr) return nullptr;
    const int fd = open(path, flags | O_NONBLOCK | O_NOCTTY, kEverybody);
    return fd >= 0 ? openUnbuffered(fd, mode, opened) : nullptr;
}

std::FILE* openEmptied(const char* path, std::initializer_list<std::optional<FileId>> keep) {
    OwnedFile file(openUnbuffered(path, O_RDWR | O_CREAT, "rb+"));
    const std::optional<FileId> opened = fileId(file.get());
    if (!opened || std::find(keep.begin(), keep.end(), opened) != keep.end()) return nullptr;
    return ftruncate(fileno(file.get()), 0) == 0 ? file.release() : nullptr;
}

bool seekTo(std::FILE* file, u64 offset) { return offset <= kReachable && seekFar(file, offset); }

bool seekFar(std::FILE* file, u64 offset) {
    constexpr u64 last = std::numeric_limits<off_t>::max();
    return file != nullptr && offset <= last &&
           fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

bool readExact(std::FILE* file, void* buffer, u32 count) {
    return count <= kReachable && ReadFile(file, buffer, static_cast<i32>(count)) == count;
}

bool writeExact(std::FILE* file, const void* buffer, u32 count) {
    return count <= kReachable && put(file, buffer, count) == count;
}

bool readPlaced(int descriptor, u64 offset, void* buffer, u32 count, u32* got) {
    *got = 0;
    while (*got < count) {
        const ssize_t more = pread(descriptor, static_cast<char*>(buffer) + *got, count - *got,
                                   static_cast<off_t>(offset + *got));
        if (more < 0) return false;
        if (more == 0) break;
        *got += static_cast<u32>(more);
    }
    return true;
}

bool writePlaced(int descriptor, u64 offset, const void* buffer, u32 count) {
    const auto* from = static_cast<const char*>(buffer);
    for (u32 done = 0; done < count;) {
        const ssize_t more =
            pwrite(descriptor, from + done, count - done, static_cast<off_t>(offset + done));
        if (more <= 0) return false;
        done += static_cast<u32>(more);
    }
    return true;
}

std::optional<u64> sizeOf(int descriptor) {
    struct stat info;
    if (fstat(descriptor, &info) != 0) return std::nullopt;
    return static_cast<u64>(info.st_size);
}

bool synchronise(int descriptor) {
    return fsync(descriptor) == 0 || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
}

bool synchroniseFolder(const char* path) {
    const Owned<char> name = copyText(path);
    if (!name) return false;
    const std::size_t length = splitPath(path).dir.size();
    name.get()[length] = 0;
    const int fd = open(length != 0 ? name.get() : ".", O_RDONLY | O_DIRECTORY);
    if (fd < 0 && errno == EACCES) {  // one that may be changed but not read
        sync();
        return true;
    }
    const bool done = fd >= 0 && synchronise(fd);
    if (fd >= 0) close(fd);
    return done;
}

u32 writePlaced(std::FILE* file, u64 offset, const void* buffer, u32 count) {
    const auto* const from = static_cast<const char*>(buffer);
    u32 done = 0;
    while (done < count) {
        const ssize_t taken =
            pwrite(fileno(file), from + done, count - done, static_cast<off_t>(offset + done));
        if (taken <= 0) break;
        done += static_cast<u32>(taken);
    }
    return done;
}

std::optional<u64> fileSize(std::FILE* file) {
    if (file == nullptr || fseeko(file, 0, SEEK_END) != 0) return std::nullopt;
    const off_t end = ftello(file);
    return end >= 0 ? std::optional(static_cast<u64>(end)) : std::nullopt;
}

std::atomic<u64>& changesOf(std::FILE* file) {
    static std::atomic<u64> counters[kCounters];
    struct stat info = {};
    if (file != nullptr) fstat(fileno(file), &info);  // what cannot be told shares a counter
    return counters[(u64{info.st_ino} + u64{info.st_dev}) % kCounters];
}

std::FILE* openFile(const char* path, bool readOnly, FileId* id) {
    FileFacts opened{};
    std::FILE* file = readOnly ? nullptr : openUnbuffered(path, O_RDWR, "rb+", &opened);
    if (file == nullptr) file = openUnbuffered(path, O_RDONLY, "rb", &opened);
    if (file != nullptr && id != nullptr) *id = opened.id;
    return file;
}

std::FILE* Open_File(const char* path) { return openFile(path, false); }

std::FILE* Open_FileRO(const char* path) { return openFile(path, true); }

u32 SetFilePointer(std::FILE* file, i32 offset, i32* /*high*/, int whence) {
    if (file == nullptr || fseeko(file, offset, whence) != 0) return kNowhere;
    const off_t position = ftello(file);
    return position >= 0 && i64{position} < i64{kNowhere} ? static_cast<u32>(position) : kNowhere;
}

u32 ReadFile(std::FILE* file, void* buffer, i32 count) {
    if (file == nullptr || count <= 0) return 0;
    return static_cast<u32>(std::fread(buffer, 1, static_cast<std::size_t>(count), file));
}

u32 WriteFile(std::FILE* file, const void* buffer, i32 count) {
    if (file == nullptr || count <= 0) return 0;
    const u32 done = put(file, buffer, static_cast<u32>(count));
    changesOf(file).fetch_add(1, std::memory_order_acq_rel);
    return done;
}

u64 Calc64(u32 recordLength, u32 record, u32 base) { return u64{recordLength} * record + base; }

}  // namespace mira
