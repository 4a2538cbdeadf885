#include "tables/rescue/source.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {
namespace {

constexpr std::size_t kWindow = std::size_t{1} << 20;
constexpr std::size_t kBehind = std::size_t{1} << 17;  // kept of what lies before a place

}  // namespace

Source::Source(const std::string& path, std::function<void()> step)
    : path_(path), step_(std::move(step)) {
    errno = 0;
    File file(Open_FileRO(readable(path).path.c_str()));
    if (!file) refuse(path, ": ", errno != 0 ? std::strerror(errno) : "no regular file");
    take(std::move(file));
}

void Source::take(File file) {
    struct stat info {};
    if (fstat(fileno(file.get()), &info) != 0) refuse(path_, ": ", std::strerror(errno));
    file_ = std::move(file);
    size_ = static_cast<u64>(info.st_size);
    window_.clear();
}

std::string_view Source::at(u64 place, std::size_t length) {
    if (place >= size_) return {};
    length = static_cast<std::size_t>(std::min<u64>(std::min(length, kMost), size_ - place));
    if (place < start_ || place + length > start_ + window_.size()) {
        step_();
        start_ = place > kBehind ? place - kBehind : 0;
        window_.resize(static_cast<std::size_t>(std::min<u64>(kWindow, size_ - start_)));
        std::size_t got = 0;
        while (got < window_.size()) {
            const ssize_t more = pread(fileno(file_.get()), window_.data() + got,
                                       window_.size() - got, static_cast<off_t>(start_ + got));
            if (more < 0 && errno == EINTR) continue;
            if (more < 0) refuse(path_, ": cannot be read: ", std::strerror(errno));
            if (more == 0) break;  // another program has cut the file meanwhile
            got += static_cast<std::size_t>(more);
        }
        window_.resize(got);
        if (place >= start_ + got) return {};
    }
    return std::string_view(window_).substr(static_cast<std::size_t>(place - start_), length);
}

u8 Source::byteAt(u64 place) {
    const std::string_view byte = at(place, 1);
    return byte.empty() ? u8{0} : static_cast<u8>(byte[0]);
}

bool Source::hasTextEnds() {
    bool any = false;
    char before = 0;
    for (u64 place = 0; place < size_; place += kMost) {
        for (const char byte : at(place, kMost)) {
            if (byte == '\n' && before != '\r') return false;
            any = any || byte == '\n';
            before = byte;
        }
    }
    return any;
}

void Source::undoTextEnds() {
    File copy(std::tmpfile());
    if (!copy) refuse(path_, ": no room for a temporary copy: ", std::strerror(errno));
    std::string out;
    bool held = false;  // a carriage return that a line feed may follow
    for (u64 place = 0; place < size_; place += kMost) {
        out.clear();
        for (const char byte : at(place, kMost)) {
            if (held && byte != '\n') out += '\r';
            held = byte == '\r';
            if (!held) out += byte;
        }
        if (std::fwrite(out.data(), 1, out.size(), copy.get()) != out.size()) break;
    }
    if (held) std::fputc('\r', copy.get());
    if (std::ferror(copy.get()) != 0 || std::fflush(copy.get()) != 0) {
        refuse(path_, ": no room for a temporary copy");
    }
    take(std::move(copy));
}

}  // namespace mira::tables
