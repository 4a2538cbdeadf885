// File access. Offsets are 32-bit: what lies 2^31 bytes or more into a file cannot be reached.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "internal/file.h"

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

}  // namespace

Owned<char> copyText(const char* text) {
    if (text == nullptr) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    Owned<char> copy = allocate<char>(size);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

std::optional<FileId> fileId(std::FILE* file) {
    struct stat info;
    if (file == nullptr || fstat(fileno(file), &info) != 0) return std::nullopt;
    return FileId{info.st_dev, info.st_ino};
}

std::optional<FileId> fileId(const char* path) {
    struct stat info;
    if (path == nullptr || stat(path, &info) != 0) return std::nullopt;
    return FileId{info.st_dev, info.st_ino};
}

std::optional<FileId> nameId(const char* path) {
    struct stat info;
    if (path == nullptr || lstat(path, &info) != 0) return std::nullopt;
    return FileId{info.st_dev, info.st_ino};
}

bool isSameFile(std::optional<FileId> a, std::optional<FileId> b) { return a && a == b; }

std::FILE* openUnbuffered(int fd, const char* mode, FileId* id) {
    struct stat info;
    const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    std::FILE* file = regular ? fdopen(fd, mode) : nullptr;
    if (file == nullptr) {
        close(fd);
        return nullptr;
    }
    std::setvbuf(file, nullptr, _IONBF, 0);
    if (id != nullptr) *id = {info.st_dev, info.st_ino};
    return file;
}

std::FILE* openUnbuffered(const char* path, int flags, const char* mode, FileId* id) {
    if (path == nullptr) return nullptr;
    const int fd = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kEverybody);
    return fd >= 0 ? openUnbuffered(fd, mode, id) : nullptr;
}

std::FILE* openEmptied(const char* path, std::initializer_list<std::optional<FileId>> keep) {
    OwnedFile file(openUnbuffered(path, O_RDWR | O_CREAT, "rb+"));
    const std::optional<FileId> opened = fileId(file.get());
    if (!opened || std::find(keep.begin(), keep.end(), opened) != keep.end()) return nullptr;
    return ftruncate(fileno(file.get()), 0) == 0 ? file.release() : nullptr;
}

bool seekTo(std::FILE* file, u64 offset) {
    return file != nullptr && offset <= kReachable &&
           fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

bool readExact(std::FILE* file, void* buffer, u32 count) {
    return count <= kReachable && ReadFile(file, buffer, static_cast<i32>(count)) == count;
}

bool writeExact(std::FILE* file, const void* buffer, u32 count) {
    return count <= kReachable && put(file, buffer, count) == count;
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
    std::FILE* file = readOnly ? nullptr : openUnbuffered(path, O_RDWR, "rb+", id);
    return file != nullptr ? file : openUnbuffered(path, O_RDONLY, "rb", id);
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
