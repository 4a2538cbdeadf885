#include "terminal/message.h"

#include <sys/ioctl.h>
#include <unistd.h>
#include <utf8proc.h>

#include <mutex>

#include "tables/page/utf8.h"
#include "terminal/name.h"
#include "terminal/progress.h"

namespace mira::tool {
namespace {

bool quietly = false;
std::mutex oneLine;
thread_local std::vector<std::string>* gathered = nullptr;  // the thread's GatheredMessages

void writeLine(std::string_view sentence) {
    std::string line = programName() + ": ";
    putEscaped(line, withOwnCommands(sentence));
    line += '\n';
    const std::lock_guard lock(oneLine);
    hideProgress();
    for (std::string_view rest = line; !rest.empty();) {
        const ssize_t written = write(STDERR_FILENO, rest.data(), rest.size());
        if (written < 0) return;  // nobody listens
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
}

}  // namespace

void setQuiet(bool quiet) { quietly = quiet; }
bool isQuiet() { return quietly; }

void tellError(std::string_view sentence) {
    if (gathered != nullptr) {
        gathered->emplace_back(sentence);
    } else {
        writeLine(sentence);
    }
}
void tell(std::string_view sentence) {
    if (!quietly) tellError(sentence);
}

GatheredMessages::GatheredMessages() { gathered = &sentences_; }
GatheredMessages::~GatheredMessages() { gathered = nullptr; }
std::vector<std::string> GatheredMessages::take() { return std::exchange(sentences_, {}); }
void tellGathered(const std::vector<std::string>& sentences) {
    for (const std::string& sentence : sentences) writeLine(sentence);
}

int widthOf(std::string_view utf8) {
    int width = 0;
    while (!utf8.empty()) {
        const Utf8Step step = stepUtf8(utf8);
        width +=
            step.letter < 0x80 ? 1 : utf8proc_charwidth(static_cast<utf8proc_int32_t>(step.letter));
        utf8.remove_prefix(step.length);
    }
    return width;
}

std::string_view cutToWidth(std::string_view utf8, int width) {
    std::size_t length = 0;
    while (length < utf8.size()) {
        const Utf8Step step = stepUtf8(utf8.substr(length));
        width -= widthOf(utf8.substr(length, step.length));
        if (width < 0) break;
        length += step.length;
    }
    return utf8.substr(0, length);
}

int terminalWidth(int descriptor) {
    constexpr int kUsual = 80;
    winsize size{};
    if (isatty(descriptor) == 0) return 0;
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsual;
    return size.ws_col;
}

}  // namespace mira::tool
