// Files that take their name only when they are whole.
//
// Until then they bear a name of their own in the same directory: the name they are to take with
// "~" for the first character of the extension and a digit for the last, as t.~a0 for t.bak. A
// program that is killed leaves such a file; the next one removes it.
#pragma once

#include <unistd.h>

#include <cerrno>

#include "internal/file.h"

namespace mira {

/// A path with "~" for the first character of its extension; null for a path without one, and when
/// there is no memory.
Owned<char> tildeName(const char* path);

/// A new file for a path.
class NewFile {
public:
    /// Creates the file, for its owner alone; false where that is not possible.
    bool create(const char* path);
    /// To be called before take: a name must not stand for bytes that are not on the disk.
    bool synchronise() { return mira::synchronise(fileno(file_.get())); }
    /// Gives the file a name, which a file that has it gives up.
    bool take(const char* path);
    /// Lets the file stay under its own name.
    void abandon() { name_.reset(); }
    std::FILE* stream() const { return file_.get(); }

    NewFile() = default;
    ~NewFile() {
        if (name_ != nullptr) unlink(name_.get());
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

private:
    Owned<char> name_;  ///< while the file bears a name of its own
    OwnedFile file_;
};

/// Lets a file have a second name, which a file that has it gives up; where the file system knows
/// no second names the file gives up its first.
bool addName(const char* path, const char* second);

/// The names that files for a path may have while they are built; null when there are none.
Owned<char> firstOwnName(const char* path);
bool nextOwnName(char* name);

/// The file of a name, if no other process is building it.
OwnedFile openAbandoned(const char* name);

/// Removes what killed programs have left of files for a path; isLeft decides for each.
template <typename Test>
void removeAbandoned(const char* path, Test isLeft) {
    const Owned<char> name = firstOwnName(path);
    bool more = name != nullptr;
    for (; more; more = nextOwnName(name.get())) {
        const OwnedFile file = openAbandoned(name.get());
        if (file && isLeft(file.get())) unlink(name.get());
    }
}

}  // namespace mira
