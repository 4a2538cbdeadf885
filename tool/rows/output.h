// Output files. A regular file is written under another name beside it and gets its name when it
// is whole, so that nothing half-written stays, whatever happens. Links are followed; pipes and
// devices are written as they are; "-" is standard output.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tables.h"
#include "tables/value/memo.h"

namespace mira::tool {

/// Where an output goes; found out before anything is written.
struct Target {
    std::string name;     // as the user gave it, for messages
    std::string path;     // links followed; empty for standard output
    bool regular = true;  // a file that is there, or none yet
    bool exists = false;
    int descriptor = -1;   // one that the program was started with: /dev/fd/N
    std::string source{};  // the table it is made from; may be empty
};
Target targetOf(const std::string& name);

/// Throws a Refusal: a target exists and force is not set, two have the same name, letter case
/// aside, or one is among the files that are read (tables and their memo files).
void checkTargets(const std::vector<Target>& targets, bool force,
                  const std::vector<std::string>& inputs);

/// Makes a folder unless it is there; true when it was made. Throws a Refusal, where what says what
/// goes into it: "memos go".
bool makeFolder(const std::string& folder, const char* what);

/// A file to read, or standard input for "-". Throws a Refusal.
File openInput(const std::string& name);

/// The character that -d names. Throws a Refusal.
char delimiterOf(const std::string& text);

/// A file under a temporary name beside its target; removed when it is not kept.
class TemporaryFile {
public:
    /// Creates it; throws a Refusal.
    explicit TemporaryFile(const Target& target);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }
    int descriptor() const { return descriptor_; }
    /// Closes it and gives it the target's name; without force never over another file. Throws.
    void keep(bool force);

private:
    Target target_;
    std::string path_;
    int descriptor_ = -1;
};

/// Buffered bytes to a target.
class Output {
public:
    using Take = std::function<void(std::string_view)>;

    Output(const Target& target, bool force);
    /// To a function instead, which may throw; terminal as the output's where it goes in the end.
    Output(Take take, bool terminal)
        : terminal_(terminal), descriptor_(-1), take_(std::move(take)) {}
    ~Output();
    Output(const Output&) = delete;

    void put(std::string_view text);
    void put(char c) {
        if (used_ == kSize) flush();
        buffer_[used_++] = c;
    }
    /// Room for count bytes, at most kRoom; used by taken().
    char* room(std::size_t count) {
        if (count > kSize - used_) flush();
        return buffer_.get() + used_;
    }
    void taken(std::size_t count) { used_ += count; }
    static constexpr std::size_t kRoom = 4096;

    /// Whether a person reads along, so that control characters must not come through.
    bool isTerminal() const { return terminal_; }
    /// Everything is written: the file gets its name. Throws a Refusal when it could not be.
    void finish();
    void flush();

private:
    static constexpr std::size_t kSize = 1 << 16;
    void writeAll(const char* bytes, std::size_t count);
    Target target_{};
    bool force_ = false;
    bool terminal_ = false;
    int descriptor_ = 1;
    Take take_{};
    std::unique_ptr<TemporaryFile> file_;
    std::unique_ptr<char[]> buffer_ = std::make_unique<char[]>(kSize);
    std::size_t used_ = 0;
};

}  // namespace mira::tool
