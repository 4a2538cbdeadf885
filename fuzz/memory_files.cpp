// Files of the fuzz targets live in memory: the linker sends these calls of the program and of the
// library to the wrappers below (--wrap). What lies in a folder made by mkdtemp is in memory;
// everything else goes to the system.
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "property.h"
#include "support/wrap.h"

namespace {

constexpr std::string_view kFolder = "/in-memory/";
constexpr int kFirstDescriptor = 1000000;

/// Large blocks come back at once, instead of going to the system and coming as fresh pages.
[[maybe_unused]] const bool keepsBlocks =
    mallopt(M_MMAP_THRESHOLD, 32 << 20) != 0 && mallopt(M_TRIM_THRESHOLD, 1 << 30) != 0;

using Bytes = std::shared_ptr<std::string>;

/// An open file. Its place among the streams is its file descriptor. The handle is one of the C
/// library, for what is not wrapped; it reads and writes nothing itself.
struct Stream {
    Bytes file;
    int access;
    std::size_t at = 0;
    std::FILE* handle = nullptr;
};

/// The engine looks into comparisons that fail, which a hash has few of.
struct Hash : std::hash<std::string_view> {
    using is_transparent = void;
};
std::unordered_map<std::string, Bytes, Hash, std::equal_to<>> files;
std::vector<std::unique_ptr<Stream>> streams;

/// The files of another time.
struct {
    test::u32 changesLeft = 0;  // until then
    test::u32 eighths = 0;
    bool taken = false;
    decltype(files) names = {};
    std::vector<std::pair<Bytes, std::string>> contents = {};  // of every file, open ones included
} past;

void remember() {
    past.taken = true;
    past.names = files;
    past.contents.clear();
    for (const auto& [name, file] : files) past.contents.emplace_back(file, *file);
    for (const auto& s : streams) past.contents.emplace_back(s->file, *s->file);
}

/// To be called for every change that has been made.
template <typename Result>
Result changed(Result result) {
    if (past.changesLeft > 0 && --past.changesLeft == 0) remember();
    return result;
}

bool inMemory(const char* path) { return std::string_view(path).starts_with(kFolder); }

Bytes find(std::string_view path) {
    const auto found = files.find(path);
    if (found == files.end()) errno = ENOENT;
    return found == files.end() ? nullptr : found->second;
}

Stream* of(std::FILE* handle) {
    for (const auto& s : streams)
        if (s->handle == handle) return s.get();
    return nullptr;
}

Stream* of(int descriptor) {
    const auto i = static_cast<std::size_t>(descriptor - kFirstDescriptor);
    return descriptor >= kFirstDescriptor && i < streams.size() ? streams[i].get() : nullptr;
}

int closeStream(void* cookie) {
    std::erase_if(streams, [&](const auto& s) { return s.get() == cookie; });
    return 0;
}

int descriptorOf(const Stream* stream) {
    const auto place = std::find_if(streams.begin(), streams.end(),
                                    [&](const auto& s) { return s.get() == stream; });
    return kFirstDescriptor + static_cast<int>(place - streams.begin());
}

int openFile(const char* path, int flags) {
    Bytes file = (flags & O_DIRECTORY) != 0 ? std::make_shared<std::string>() : find(path);
    if (file != nullptr && (flags & O_EXCL) != 0) {
        errno = EEXIST;
        return -1;
    }
    if (file == nullptr && (flags & O_CREAT) != 0)
        file = changed(files[path] = std::make_shared<std::string>());
    if (file == nullptr) return -1;
    if ((flags & O_TRUNC) != 0) file->clear();
    return descriptorOf(streams.emplace_back(new Stream{file, flags & O_ACCMODE}).get());
}

std::FILE* openStream(int descriptor, const char* mode) {
    Stream* const s = of(descriptor);
    if (s == nullptr) return nullptr;
    return s->handle = fopencookie(s, mode, {nullptr, nullptr, nullptr, closeStream});
}

int flagsOf(std::string_view mode) {
    return mode[0] == 'w' ? O_RDWR | O_CREAT | O_TRUNC : mode == "rb" ? O_RDONLY : O_RDWR;
}

ssize_t readAt(const Stream* s, void* to, std::size_t count, off_t from) {
    const auto at = std::min(static_cast<std::size_t>(from), s->file->size());
    return static_cast<ssize_t>(s->file->copy(static_cast<char*>(to), count, at));
}

std::size_t readStream(Stream* s, void* to, std::size_t size, std::size_t n) {
    if (s->at >= s->file->size()) return 0;
    const std::size_t got = s->file->copy(static_cast<char*>(to), size * n, s->at);
    s->at += got;
    return got / size;
}

bool writeAt(std::string& file, std::size_t at, const void* from, std::size_t count) {
    if (at + count > test::largestFile) return false;
    const auto put = [&](std::size_t bytes) {
        file.resize(std::max(file.size(), at + bytes));
        file.replace(at, bytes, static_cast<const char*>(from), bytes);
    };
    if (past.changesLeft == 1) put(count * past.eighths / 8);
    changed(true);
    put(count);
    return true;
}

std::size_t writeStream(Stream* s, const void* from, std::size_t size, std::size_t n) {
    if (!writeAt(*s->file, s->at, from, size * n)) return 0;
    s->at += size * n;
    return n;
}

ssize_t pwriteStream(Stream* s, const void* from, std::size_t count, off_t at) {
    const bool done =
        s->access != O_RDONLY && writeAt(*s->file, static_cast<std::size_t>(at), from, count);
    return done ? static_cast<ssize_t>(count) : -1;
}

int seekStream(Stream* s, off_t offset, int whence) {
    const std::size_t base = whence == SEEK_CUR ? s->at : whence == SEEK_END ? s->file->size() : 0;
    const off_t to = static_cast<off_t>(base) + offset;
    if (to >= 0) s->at = static_cast<std::size_t>(to);
    return to >= 0 ? 0 : -1;
}

int renameFile(const char* from, const char* to) {
    const Bytes file = find(from);
    if (file == nullptr) return -1;
    if (find(to) == file) return 0;
    files.erase(from);
    files[to] = file;
    return changed(0);
}

int describe(const Bytes& file, struct stat* info) {
    if (file == nullptr) return -1;
    *info = {};
    info->st_mode = S_IFREG;
    info->st_ino = reinterpret_cast<ino_t>(file.get());
    info->st_size = static_cast<off_t>(file->size());
    return 0;
}

#ifdef STATX_SIZE
int describe(const Bytes& file, struct statx* info) {
    if (file == nullptr) return -1;
    *info = {};
    info->stx_ino = reinterpret_cast<ino_t>(file.get());
    info->stx_size = file->size();
    return 0;
}
#endif

int cut(const Bytes& file, off_t size) {
    if (file == nullptr) return -1;
    file->resize(static_cast<std::size_t>(size));
    return changed(0);
}

int removeName(std::string_view path) {
    return changed(files.erase(std::string(path)) != 0 ? 0 : -1);
}

int giveName(const Bytes& file, const char* name) {
    if (file == nullptr) return -1;
    if (files.emplace(name, file).second) return changed(0);
    errno = EEXIST;
    return -1;
}

char* nextFolder() {
    static std::string path;
    static int made = 0;
    path = std::string(kFolder) + std::to_string(++made);
    return path.data();
}

}  // namespace

std::size_t test::largestFile = 0;

std::string_view test::contentsOf(const std::string& path) {
    const Bytes file = find(path);
    return file != nullptr ? std::string_view(*file) : "";
}

void test::rememberAt(u32 change, u32 eighths) {
    past.changesLeft = change;
    past.eighths = eighths;
    past.taken = false;
}

bool test::goBack() {
    past.changesLeft = 0;
    if (!past.taken) return false;
    files = past.names;
    for (const auto& [file, bytes] : past.contents) *file = bytes;
    return true;
}

extern "C" {
WRAP(char*, mkdtemp, true, nextFolder(), (char* pattern), (pattern))
WRAP(DIR*, opendir, inMemory(path), nullptr, (const char* path), (path))
WRAP(int, LARGE(open), inMemory(path), openFile(path, flags), (const char* path, int flags, ...),
     (path, flags, 0666))
WRAP(int, close, of(fd), closeStream(of(fd)), (int fd), (fd))
WRAP(std::FILE*, fdopen, of(fd), openStream(fd, mode), (int fd, const char* mode), (fd, mode))
WRAP(std::FILE*, LARGE(fopen), inMemory(path), openStream(openFile(path, flagsOf(mode)), mode),
     (const char* path, const char* mode), (path, mode))
WRAP(std::size_t, fread, of(file), readStream(of(file), to, size, n),
     (void* to, std::size_t size, std::size_t n, std::FILE* file), (to, size, n, file))
WRAP(std::size_t, fwrite, of(file), writeStream(of(file), from, size, n),
     (const void* from, std::size_t size, std::size_t n, std::FILE* file), (from, size, n, file))
WRAP(ssize_t, LARGE(pread), of(fd), readAt(of(fd), to, count, from),
     (int fd, void* to, std::size_t count, off_t from), (fd, to, count, from))
WRAP(ssize_t, LARGE(pwrite), of(fd), pwriteStream(of(fd), from, count, at),
     (int fd, const void* from, std::size_t count, off_t at), (fd, from, count, at))
WRAP(int, LARGE(fseeko), of(file), seekStream(of(file), to, whence),
     (std::FILE * file, off_t to, int whence), (file, to, whence))
WRAP(off_t, LARGE(ftello), of(file), static_cast<off_t>(of(file)->at), (std::FILE * file), (file))
WRAP(int, remove, inMemory(path), removeName(path), (const char* path), (path))
WRAP(int, unlink, inMemory(path), removeName(path), (const char* path), (path))
WRAP(int, link, inMemory(from), giveName(find(from), to), (const char* from, const char* to),
     (from, to))
WRAP(int, flock, of(fd), 0, (int fd, int operation), (fd, operation))
WRAP(int, fsync, of(fd), 0, (int fd), (fd))
WRAP(int, fchmod, of(fd), 0, (int fd, mode_t mode), (fd, mode))
WRAP(int, LARGE(lstat), inMemory(path), describe(find(path), info),
     (const char* path, struct stat* info), (path, info))
WRAP(int, rename, inMemory(from), renameFile(from, to), (const char* from, const char* to),
     (from, to))
WRAP(int, access, inMemory(path), find(path) != nullptr ? 0 : -1, (const char* path, int mode),
     (path, mode))
WRAP(int, LARGE(stat), inMemory(path), describe(find(path), info),
     (const char* path, struct stat* info), (path, info))
#ifdef STATX_SIZE
WRAP(int, statx, inMemory(path), describe(find(path), info),
     (int folder, const char* path, int flags, unsigned mask, struct statx* info),
     (folder, path, flags, mask, info))
#endif
WRAP(int, LARGE(fstat), of(fd), describe(of(fd)->file, info), (int fd, struct stat* info),
     (fd, info))
WRAP(int, fileno, of(file), descriptorOf(of(file)), (std::FILE * file), (file))
WRAP(int, LARGE(fcntl), of(fd), of(fd)->access, (int fd, int command, ...),
     (fd, command))  // asked for F_GETFL only
WRAP(int, LARGE(truncate), inMemory(path), cut(find(path), size), (const char* path, off_t size),
     (path, size))
WRAP(int, LARGE(ftruncate), of(fd), cut(of(fd)->file, size), (int fd, off_t size), (fd, size))
}
