#include "tables/change/disk.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kChunk = 1 << 17;
constexpr const char* kAccessList = "system.posix_acl_access";

struct flock wholeFile() {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return lock;
}

/// Whether a second descriptor of a locked file can still read it. Where locks bind everybody, the
/// readers of the same program would be shut out, too.
bool leavesReaders(int descriptor) {
    const std::string name = textOf("/proc/self/fd/", descriptor);
    const Descriptor second(open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!second) return true;  // nothing to try it on
    char byte = 0;
    return pread(second.number(), &byte, 1, 0) >= 0;
}

}  // namespace

Descriptor::~Descriptor() {
    if (number_ >= 0) close(number_);
}

Descriptor openPlain(const std::string& path, int flags) {
    constexpr mode_t kOwnerOnly = 0600;
    return Descriptor(
        open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kOwnerOnly));
}

bool readAt(int descriptor, u64 offset, void* to, std::size_t count) {
    auto* bytes = static_cast<char*>(to);
    while (count != 0) {
        const ssize_t got = pread(descriptor, bytes, count, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        offset += static_cast<u64>(got);
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

bool writeAt(int descriptor, u64 offset, const void* from, std::size_t count) {
    const auto* bytes = static_cast<const char*>(from);
    while (count != 0) {
        const ssize_t done = pwrite(descriptor, bytes, count, static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return false;
        bytes += done;
        offset += static_cast<u64>(done);
        count -= static_cast<std::size_t>(done);
    }
    return true;
}

bool copyAll(int from, int to) {
    const auto buffer = std::make_unique<char[]>(kChunk);
    for (u64 offset = 0;;) {
        const ssize_t got = pread(from, buffer.get(), kChunk, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return got == 0;
        if (!writeAt(to, offset, buffer.get(), static_cast<std::size_t>(got))) return false;
        offset += static_cast<u64>(got);
    }
}

std::optional<struct stat> statusOf(const std::string& path) {
    struct stat info = {};
    if (path.empty() || lstat(path.c_str(), &info) != 0) return std::nullopt;
    return info;
}

std::optional<struct stat> statusOf(int descriptor) {
    struct stat info = {};
    if (fstat(descriptor, &info) != 0) return std::nullopt;
    return info;
}

bool isNamed(int descriptor, const std::string& path) {
    const auto file = statusOf(descriptor);
    const auto name = statusOf(path);
    return file && name && file->st_dev == name->st_dev && file->st_ino == name->st_ino;
}

bool syncFolderOf(const std::string& path) {
    const Descriptor folder(open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) return errno == EACCES;  // may be searched, not read
    return fsync(folder.number()) == 0 || errno == EINVAL || errno == ENOSYS;
}

bool removeFile(const std::string& path) { return unlink(path.c_str()) == 0 || errno == ENOENT; }

void carryOver(int from, int to) {
    const auto info = statusOf(from);
    if (!info) return;
    if (fchown(to, info->st_uid, info->st_gid) != 0 &&
        fchown(to, static_cast<uid_t>(-1), info->st_gid) != 0) {
        // The user may give nothing away; the new file is his own then.
    }
    fchmod(to, info->st_mode);
    const ssize_t size = fgetxattr(from, kAccessList, nullptr, 0);
    if (size <= 0) return;
    std::vector<char> list(static_cast<std::size_t>(size));
    if (fgetxattr(from, kAccessList, list.data(), list.size()) != size) return;
    fsetxattr(to, kAccessList, list.data(), list.size(), 0);
}

std::string folderOf(const std::string& path) {
    const fs::path folder = fs::path(path).parent_path();
    return folder.empty() ? "." : folder.string();
}

std::string realPath(const std::string& path) {
    std::error_code error;
    if (!fs::is_symlink(path, error)) return path;
    const fs::path real = fs::canonical(path, error);
    return error ? path : real.string();
}

void checkRoom(const std::string& path, u64 bytes) {
    struct statvfs info = {};
    if (statvfs(folderOf(path).c_str(), &info) != 0) return;  // then writing tells
    const u64 free = u64{info.f_bavail} * info.f_frsize;
    if (free >= bytes) return;
    refuse(path, ": the new files may take ", bytes, " bytes, the disk has room for ", free,
           "; nothing is changed");
}

void refuseBusy(const std::string& path) {
    throw Busy(path + ": is being changed by another program");
}

Lock takeLock(int descriptor) {
    struct flock lock = wholeFile();
    if (fcntl(descriptor, F_OFD_SETLK, &lock) != 0) {
        return errno == EAGAIN || errno == EACCES ? Lock::Busy : Lock::None;
    }
    if (leavesReaders(descriptor)) return Lock::Held;
    releaseLock(descriptor);
    return Lock::None;
}

void releaseLock(int descriptor) {
    struct flock lock = wholeFile();
    lock.l_type = F_UNLCK;
    fcntl(descriptor, F_OFD_SETLK, &lock);
}

bool isLocked(int descriptor) {
    struct flock lock = wholeFile();
    return fcntl(descriptor, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

}  // namespace mira::tables
