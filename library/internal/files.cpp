// File access. Offsets are 32-bit: what lies 2^31 bytes or more into a file cannot be reached.
#include <sys/stat.h>

#include <atomic>
#include <cstring>

#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kNowhere = 0xFFFFFFFF;

constexpr std::size_t kCounters = 64;

/// Writes without counting the change; returns the bytes that the operating system has taken.
u32 put(std::FILE* file, const void* buffer, u32 count) {
    if (file == nullptr || count == 0) return 0;
    const std::size_t done = std::fwrite(buffer, 1, count, file);
    return std::fflush(file) == 0 ? static_cast<u32>(done) : 0;  // a caller's stream is buffered
}

}  // namespace

Block<char> copyText(const char* text) {
    if (text == nullptr) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    Block<char> copy = allocate<char>(size);
    if (copy) std::memcpy(copy.get(), text, size);
    return copy;
}

std::FILE* openUnbuffered(const char* path, const char* mode) {
    if (path == nullptr) return nullptr;
    const auto isOther = [](const struct stat& info) { return !S_ISREG(info.st_mode); };
    struct stat info;
    // Opening a FIFO in one direction waits for its other end, so that is looked at beforehand.
    const bool oneWay = std::strchr(mode, '+') == nullptr;
    if (oneWay && stat(path, &info) == 0 && isOther(info)) return nullptr;
    OwnedFile file(std::fopen(path, mode));
    if (!file) return nullptr;
    if (!oneWay && fstat(fileno(file.get()), &info) == 0 && isOther(info)) return nullptr;
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    return file.release();
}

bool seekTo(std::FILE* file, u64 offset) {
    return file != nullptr && offset <= kReachable &&
           std::fseek(file, static_cast<long>(offset), SEEK_SET) == 0;
}

bool readExact(std::FILE* file, void* buffer, u32 count) {
    return count <= kReachable && ReadFile(file, buffer, static_cast<i32>(count)) == count;
}

bool writeExact(std::FILE* file, const void* buffer, u32 count) {
    return count <= kReachable && put(file, buffer, count) == count;
}

bool fileSize(std::FILE* file, u64* size) {
    if (file == nullptr || std::fseek(file, 0, SEEK_END) != 0) return false;
    const long end = std::ftell(file);
    if (end < 0) return false;
    *size = static_cast<u64>(end);
    return true;
}

std::atomic<u64>& changesOf(std::FILE* file) {
    static std::atomic<u64> counters[kCounters];
    struct stat info = {};
    if (file != nullptr) fstat(fileno(file), &info);  // what cannot be told shares a counter
    return counters[(u64{info.st_ino} + u64{info.st_dev}) % kCounters];
}

std::FILE* Open_File(const char* path) {
    std::FILE* file = openUnbuffered(path, "rb+");
    return file != nullptr ? file : openUnbuffered(path, "rb");
}

std::FILE* Open_FileRO(const char* path) { return openUnbuffered(path, "rb"); }

u32 SetFilePointer(std::FILE* file, i32 offset, i32* /*high*/, int whence) {
    if (file == nullptr || std::fseek(file, offset, whence) != 0) return kNowhere;
    const long position = std::ftell(file);
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
