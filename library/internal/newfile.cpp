#include "internal/newfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "internal/paths.h"

namespace mira {

namespace {

/// Where the extension of a name starts, after its dot; null when there is none.
char* extensionOf(char* path) {
    const std::string_view ext = splitPath(path).ext;
    return ext.size() > 1 ? path + std::strlen(path) - ext.size() + 1 : nullptr;
}

/// Gives a file that is being built one of its names; false when all are taken or it cannot be.
template <typename Make>
bool giveOwnName(char* name, Make make) {
    bool more = true;
    for (; more; more = nextOwnName(name)) {
        if (make(name)) return true;
        if (errno != EEXIST) return false;
    }
    return false;
}

}  // namespace

Owned<char> tildeName(const char* path) {
    Owned<char> name = copyText(path);
    char* ext = name != nullptr ? extensionOf(name.get()) : nullptr;
    if (ext == nullptr) return nullptr;
    *ext = '~';
    return name;
}

Owned<char> firstOwnName(const char* path) {
    Owned<char> name = tildeName(path);
    if (name != nullptr) name.get()[std::strlen(name.get()) - 1] = '0';
    return name;
}

bool nextOwnName(char* name) {
    char& digit = name[std::strlen(name) - 1];
    return ++digit <= '9';
}

OwnedFile openAbandoned(const char* name) {
    OwnedFile file(openUnbuffered(name, O_RDONLY | O_NOFOLLOW, "rb"));
    if (!file || flock(fileno(file.get()), LOCK_EX | LOCK_NB) == 0) return file;
    return errno == EWOULDBLOCK ? nullptr : std::move(file);
}

bool NewFile::create(const char* path) {
    Owned<char> name = firstOwnName(path);
    int fd = -1;
    const auto make = [&fd](const char* own) {
        return (fd = open(own, O_RDWR | O_CREAT | O_EXCL, S_IRUSR | S_IWUSR)) >= 0;
    };
    if (name == nullptr || !giveOwnName(name.get(), make)) return false;
    name_ = std::move(name);
    flock(fd, LOCK_EX | LOCK_NB);  // not abandoned, as it may seem where there are no locks
    file_.reset(openUnbuffered(fd, "rb+"));
    return file_ != nullptr;
}

bool NewFile::take(const char* path) {
    if (std::rename(name_.get(), path) != 0) return false;
    name_.reset();
    return true;
}

bool addName(const char* path, const char* second) {
    if (isSameFile(nameId(path), nameId(second))) return true;  // renaming would do nothing
    const Owned<char> name = firstOwnName(path);
    const auto make = [path](const char* own) { return link(path, own) == 0; };
    if (name == nullptr) return false;
    if (!giveOwnName(name.get(), make)) {
        // Then the names of new files, by which this is undone, come to the disk first.
        return synchroniseFolder(path) && std::rename(path, second) == 0;
    }
    if (std::rename(name.get(), second) == 0) return true;
    unlink(name.get());
    return false;
}

}  // namespace mira
