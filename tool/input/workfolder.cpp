#include "input/workfolder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>

#include "tables.h"
#include "tables/page/refusal.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPrefix = ".mira.";
constexpr const char* kMark = "unfinished import";  // a file in each: no other folder is ours

/// Locks a folder until the descriptor is closed; -1 when somebody else has it.
int lockFolder(const fs::path& folder) {
    const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0 || flock(descriptor, LOCK_EX | LOCK_NB) == 0) return descriptor;
    close(descriptor);
    return -1;
}

/// Removes the folders that nobody holds, but for new ones: theirs may be locked any moment.
void removeAbandoned(const fs::path& parent) {
    const auto old = fs::file_time_type::clock::now() - std::chrono::minutes(1);
    std::error_code error;
    for (fs::directory_iterator at(parent, error), end; !error && at != end; at.increment(error)) {
        std::error_code ignored;
        const fs::path& path = at->path();
        if (!path.filename().string().starts_with(kPrefix)) continue;
        if (at->last_write_time(ignored) > old) continue;
        const int lock = lockFolder(path);
        if (lock < 0) continue;
        if (fs::exists(path / kMark, ignored)) fs::remove_all(path, ignored);
        close(lock);
    }
}

}  // namespace

WorkFolder::WorkFolder(const fs::path& beside) {
    const fs::path parent = beside.has_parent_path() ? beside.parent_path() : ".";
    removeAbandoned(parent);
    std::string name = (parent / (std::string(kPrefix) + "XXXXXX")).string();
    if (mkdtemp(name.data()) == nullptr) {
        refuse(beside.string(), ": cannot be written: ", std::strerror(errno));
    }
    path_ = name;
    lock_ = lockFolder(path_);
    std::ofstream(path_ / kMark);  // without it the folder would only stay
}

WorkFolder::~WorkFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
    if (lock_ >= 0) close(lock_);
}

}  // namespace mira::tool
