#include "terminal/editor.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "tables/page/refusal.h"

namespace mira::tool {

using tables::refuse;

namespace {

namespace fs = std::filesystem;
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size()) {
        text.replace(at, what.size(), by);
    }
    return text;
}

/// Whether all line ends are those of DOS.
bool endsLinesAsDos(const std::string& text) {
    return text.find("\r\n") != std::string::npos &&
           replaced(text, "\r\n", "").find_first_of("\r\n") == std::string::npos;
}

std::string command() {
    for (const char* const name : {"EDITOR", "VISUAL"}) {
        const char* const value = std::getenv(name);
        if (value != nullptr && *value != 0) return value;
    }
    return "vi";
}

/// Signals of the terminal are the editor's while one lives.
class LeaveSignals {
public:
    LeaveSignals() {
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGINT, &ignore, &interrupt_);
        sigaction(SIGQUIT, &ignore, &quit_);
    }
    ~LeaveSignals() {
        sigaction(SIGINT, &interrupt_, nullptr);
        sigaction(SIGQUIT, &quit_, nullptr);
    }
    LeaveSignals(const LeaveSignals&) = delete;

private:
    struct sigaction interrupt_ = {}, quit_ = {};
};

/// The exit status of a command of the shell with one argument; -1 when it cannot be run.
int runShell(const std::string& text, const std::string& argument) {
    const LeaveSignals leave;
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) return -1;
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGQUIT);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    const std::string script = text + " \"$@\"";
    const char* const words[] = {"sh", "-c", script.c_str(), "sh", argument.c_str(), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", nullptr, &attributes,
                                  const_cast<char* const*>(words), environ);
    posix_spawnattr_destroy(&attributes);
    int status = -1;
    if (error != 0) return -1;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

}  // namespace

EditedFile::EditedFile(const std::string& text) : text_(text) {
    shown_ = endsLinesAsDos(text) ? replaced(text, "\r\n", "\n") : text;
    std::error_code failed;
    folder_ = (fs::temp_directory_path(failed) / "mira-XXXXXX").string();
    if (failed || mkdtemp(folder_.data()) == nullptr) {
        refuse(folder_, ": no folder for the text can be made there");
    }
    path_ = folder_ + "/memo.txt";
    const File file(std::fopen(path_.c_str(), "wxe"), std::fclose);
    const std::string lines = shown_.empty() || shown_.ends_with('\n') ? shown_ : shown_ + '\n';
    const bool written = file &&
                         std::fwrite(lines.data(), 1, lines.size(), file.get()) == lines.size() &&
                         std::fflush(file.get()) == 0;
    if (written) return;
    fs::remove_all(folder_, failed);
    refuse(path_, ": cannot be written");
}

EditedFile::~EditedFile() {
    std::error_code ignored;
    if (!kept_) fs::remove_all(folder_, ignored);
}

const std::string& EditedFile::keep() {
    kept_ = true;
    return path_;
}

std::optional<std::string> EditedFile::edit() {
    const std::string editor = command();
    const bool failed = runShell(editor, path_) != 0;
    const File file(std::fopen(path_.c_str(), "re"), std::fclose);
    std::string text;
    char chunk[4096];
    while (file) {
        const std::size_t got = std::fread(chunk, 1, sizeof chunk, file.get());
        if (got == 0) break;
        text.append(chunk, got);
    }
    if (!file || std::ferror(file.get()) != 0) refuse(keep(), ": cannot be read");
    if (!shown_.ends_with('\n') && text.ends_with('\n')) text.pop_back();
    if (failed && text != shown_) refuse(editor, ": failed; the text is kept in ", keep());
    if (failed) refuse(editor, ": failed");
    if (text == shown_) return std::nullopt;
    return endsLinesAsDos(text_) ? replaced(replaced(text, "\r\n", "\n"), "\n", "\r\n") : text;
}

}  // namespace mira::tool
