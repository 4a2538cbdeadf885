#include "rows/output.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "tables/page/refusal.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kNewMode = 0666;

/// What the last call of the system could not do.
[[noreturn]] void fail(const std::string& name, const char* what) {
    refuse(name, ": ", what, ": ", std::strerror(errno));
}

/// The open file that a name stands for; -1 for any other name.
int descriptorOf(const std::string& name) {
    constexpr std::pair<std::string_view, int> kNames[] = {{"/dev/stdout", STDOUT_FILENO},
                                                           {"/dev/stderr", STDERR_FILENO}};
    for (const auto& [known, descriptor] : kNames) {
        if (name == known) return descriptor;
    }
    for (const std::string_view folder : {"/dev/fd/", "/proc/self/fd/"}) {
        if (!name.starts_with(folder)) continue;
        const char* const end = name.data() + name.size();
        int descriptor = -1;
        const auto [rest, error] = std::from_chars(name.data() + folder.size(), end, descriptor);
        if (error == std::errc() && rest == end) return descriptor;
    }
    return -1;
}

/// What a link leads to, also when that is not there yet.
std::string linkTarget(const std::string& name) {
    fs::path path = name;
    std::error_code error;
    for (int links = 0; links < 40 && fs::is_symlink(fs::symlink_status(path, error)); ++links) {
        if (descriptorOf(path.string()) >= 0) break;
        const fs::path to = fs::read_symlink(path, error);
        path = to.is_absolute() ? to : path.parent_path() / to;
    }
    return path.string();
}

mode_t modeOf(const Target& target) {
    struct stat status {};
    if (target.exists && stat(target.path.c_str(), &status) == 0) return status.st_mode & 07777;
    static const mode_t mask = [] {
        const mode_t found = umask(0);
        umask(found);
        return found;
    }();
    return kNewMode & ~mask;
}

[[noreturn]] void refuseReplacing(const std::string& name) {
    refuse(name, ": exists; --force replaces it");
}

/// Renames, without force never over a file that came meanwhile.
void renameWhole(const Target& target, const std::string& from, bool force) {
    const char* const to = target.path.c_str();
    if (!force) {
        if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to, RENAME_NOREPLACE) == 0) return;
        if (errno == EEXIST) refuseReplacing(target.name);
        if (errno != EINVAL && errno != ENOSYS) fail(target.name, "cannot get its name");
    }
    if (rename(from.c_str(), to) != 0) fail(target.name, "cannot get its name");
}

/// What tells a file from all others; nothing when it is not there.
std::optional<std::pair<dev_t, ino_t>> fileOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) return std::nullopt;
    return std::pair(status.st_dev, status.st_ino);
}

}  // namespace

Target targetOf(const std::string& name) {
    Target target{name, {}, true, false};
    if (name != "-") target.path = linkTarget(name);
    target.descriptor = name == "-" ? STDOUT_FILENO : descriptorOf(target.path);
    if (target.descriptor >= 0) {
        target.regular = false;
        if (target.descriptor == STDOUT_FILENO) target.path.clear();
        return target;
    }
    std::error_code error;
    const fs::file_status status = fs::status(target.path, error);
    target.exists = fs::exists(status);
    target.regular = !target.exists || fs::is_regular_file(status);
    if (fs::is_directory(status)) refuse(name, ": is a folder");
    return target;
}

void checkTargets(const std::vector<Target>& targets, bool force,
                  const std::vector<std::string>& inputs) {
    std::map<std::string, std::string> taken;
    std::set<std::pair<dev_t, ino_t>> read;
    for (const std::string& input : inputs) {
        if (const auto file = fileOf(input)) read.insert(*file);
    }
    for (const Target& target : targets) {
        if (!target.regular) continue;
        const std::string& source = target.source.empty() ? target.name : target.source;
        const auto [other, isNew] =
            taken.emplace(foldCase(fs::path(target.path).lexically_normal().string()), source);
        if (!isNew) {
            refuse(target.name, ": two outputs would have this name, letter case aside: those of ",
                   other->second, " and ", source);
        }
        const auto file = target.exists ? fileOf(target.path) : std::nullopt;
        if (file && read.contains(*file)) {
            refuse(target.name, ": is read from, so it cannot be written");
        }
        if (target.exists && !force) refuseReplacing(target.name);
    }
}

bool makeFolder(const std::string& folder, const char* what) {
    std::error_code error;
    std::error_code ignored;
    const bool made = fs::create_directories(folder, error);
    if (fs::is_directory(folder, ignored)) return made;
    refuse(folder, ": ", what, " into a folder, and this is none",
           error ? ": " + error.message() : "");
}

File openInput(const std::string& name) {
    File file(name == "-" ? fdopen(dup(STDIN_FILENO), "rb") : std::fopen(name.c_str(), "rb"));
    if (!file) refuse(name, ": ", std::strerror(errno));
    return file;
}

char delimiterOf(const std::string& text) {
    if (text == "tab" || text == "\\t") return '\t';
    if (text.size() != 1 || text[0] == '"' || text[0] < ' ' || text[0] > '~') {
        refuse("-d ", text, ": one character, or tab");
    }
    return text[0];
}

TemporaryFile::TemporaryFile(const Target& target) : target_(target) {
    const fs::path path(target.path);
    path_ = (path.parent_path() / ("." + path.filename().string() + ".XXXXXX")).string();
    descriptor_ = mkostemp(path_.data(), O_CLOEXEC);
    if (descriptor_ < 0) fail(target.name, "cannot be written");
    // Some file systems know no modes; the file then has theirs.
    static_cast<void>(fchmod(descriptor_, modeOf(target)));
}

TemporaryFile::~TemporaryFile() {
    if (descriptor_ >= 0) close(descriptor_);
    if (!path_.empty()) unlink(path_.c_str());
}

void TemporaryFile::keep(bool force) {
    const int descriptor = std::exchange(descriptor_, -1);
    if (descriptor >= 0 && close(descriptor) != 0) {
        fail(target_.name, "cannot be written");
    }
    renameWhole(target_, path_, force);
    path_.clear();
}

Output::Output(const Target& target, bool force) : target_(target), force_(force) {
    if (target.path.empty()) {
        descriptor_ = STDOUT_FILENO;
        target_.name = "standard output";
    } else if (target.descriptor >= 0) {
        descriptor_ = fcntl(target.descriptor, F_DUPFD_CLOEXEC, 0);
        if (descriptor_ < 0) fail(target.name, "cannot be written");
    } else if (target.regular) {
        file_ = std::make_unique<TemporaryFile>(target);
        descriptor_ = file_->descriptor();
    } else {
        descriptor_ = open(target.path.c_str(), O_WRONLY | O_CLOEXEC);
        if (descriptor_ < 0) fail(target.name, "cannot be written");
    }
    terminal_ = isatty(descriptor_) != 0;
}

Output::~Output() {
    if (!file_ && descriptor_ != STDOUT_FILENO && descriptor_ >= 0) close(descriptor_);
}

void Output::put(std::string_view text) {
    if (used_ == 0 && text.size() >= kSize) {
        const std::size_t whole = text.size() / kSize * kSize;
        writeAll(text.data(), whole);
        text.remove_prefix(whole);
    }
    while (text.size() > kSize - used_) {
        const std::size_t part = kSize - used_;
        std::memcpy(buffer_.get() + used_, text.data(), part);
        used_ = kSize;
        text.remove_prefix(part);
        flush();
    }
    if (text.empty()) return;
    std::memcpy(buffer_.get() + used_, text.data(), text.size());
    used_ += text.size();
}

void Output::flush() { writeAll(buffer_.get(), std::exchange(used_, 0)); }

void Output::writeAll(const char* bytes, std::size_t count) {
    if (take_) return take_({bytes, count});
    while (count != 0) {
        const ssize_t written = write(descriptor_, bytes, count);
        if (written < 0 && errno == EINTR) {
            leaveIfStopped();
            continue;
        }
        if (written < 0) fail(target_.name, "cannot be written");
        bytes += written;
        count -= static_cast<std::size_t>(written);
    }
}

void Output::finish() {
    flush();
    if (file_) {
        file_->keep(force_);
    } else if (descriptor_ != STDOUT_FILENO) {
        if (close(std::exchange(descriptor_, -1)) != 0) {
            fail(target_.name, "cannot be written");
        }
    }
}

}  // namespace mira::tool
