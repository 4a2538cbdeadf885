#include "tables/open/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

namespace mira::tables {

bool hasJournal(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path real = fs::canonical(path, ignored);
    const std::string journal = (real.empty() ? path : real.string()) + "-mira";
    const int file = open(journal.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    // What may not be read belongs to a change, too, whether it runs or not.
    if (file < 0) return fs::is_regular_file(fs::symlink_status(journal, ignored));
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    // A file system without locks refuses the question: then nobody holds one.
    const bool held = fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    close(file);
    return !held;
}

}  // namespace mira::tables
