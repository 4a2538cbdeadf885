// Shows a table in the terminal, page by page.
//
//   browse TABLE [--filter TEXT] [--sort FIELDS] [--descending] [--calc NAME=EXPRESSION]...
//                [--page N] [--rows N] [--dates 0-4] [--oem | --ansi]
//
// From terminal to terminal, space and Enter turn to the next page, b goes back, q ends; otherwise
// one page is printed. Ctrl-C stops a filter or a sort, and the table is shown without it. Texts of
// the code pages 866 (--oem) and 1251 (--ansi) are shown in UTF-8. "*" marks deleted records.
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mira.h"

namespace {

// --------------------------------------------------------------------------------------------
// Code pages
// --------------------------------------------------------------------------------------------

// The characters of the bytes from 128 to 255.
constexpr char16_t kOem[] =
    u"АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмноп"
    u"░▒▓│┤╡╢╖╕╣║╗╝╜╛┐└┴┬├─┼╞╟╚╔╩╦╠═╬╧╨╤╥╙╘╒╓╫╪┘┌█▄▌▐▀рстуфхцчшщъыьэюяЁёЄєЇїЎў°∙·√№¤■\u00A0";
constexpr char16_t kAnsi[] =
    u"ЂЃ‚ѓ„…†‡€‰Љ‹ЊЌЋЏђ‘’“”•–—\uFFFD™љ›њќћџ\u00A0ЎўЈ¤Ґ¦§Ё©Є«¬\u00AD®Ї°±Ііґµ¶·ё№є»јЅѕї"
    u"АБВГДЕЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯабвгдежзийклмнопрстуфхцчшщъыьэюя";
static_assert(std::size(kOem) == 128 + 1 && std::size(kAnsi) == 128 + 1);

std::string utf8(char16_t c) {
    const auto tail = [](int bits) { return static_cast<char>(0x80 | (bits & 0x3F)); };
    if (c < 0x800) return {static_cast<char>(0xC0 | c >> 6), tail(c)};
    return {static_cast<char>(0xE0 | c >> 12), tail(c >> 6), tail(c)};
}

/// A text of the table for the terminal, which must not get control characters from it.
std::string toTerminal(std::string_view text, const char16_t* codePage) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80 && codePage != nullptr) {
            shown += utf8(codePage[byte - 0x80]);
        } else {
            shown += byte < 0x20 || byte == 0x7F ? '.' : c;
        }
    }
    return shown;
}

/// A text of the command line as the table would hold it.
std::string fromTerminal(std::string_view text, const char16_t* codePage) {
    std::string stored;
    while (!text.empty()) {
        std::size_t length = 1;
        char c = text[0];
        for (int i = 0; codePage != nullptr && i < 128; ++i) {
            const std::string letter = utf8(codePage[i]);
            if (!text.starts_with(letter)) continue;
            length = letter.size();
            c = static_cast<char>(0x80 + i);
            break;
        }
        stored += c;
        text.remove_prefix(length);
    }
    return stored;
}

// --------------------------------------------------------------------------------------------
// Options
// --------------------------------------------------------------------------------------------

constexpr char kUsage[] =
    "browse TABLE [--filter TEXT] [--sort FIELDS] [--descending] [--calc NAME=EXPRESSION]...\n"
    "             [--page N] [--rows N] [--dates 0-4] [--oem | --ansi]\n";

struct Options {
    const char* table = nullptr;
    const char* filter = nullptr;
    const char* sort = nullptr;
    bool descending = false;
    std::vector<std::string_view> calculated;  ///< NAME=EXPRESSION
    unsigned page = 1;
    unsigned rows = 0;  ///< 0: what the terminal has room for
    unsigned dates = 0;
    const char16_t* codePage = nullptr;  ///< null: bytes are shown as they are
};

bool readNumber(std::string_view text, unsigned low, unsigned high, unsigned* number) {
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, *number);
    return error == std::errc() && end == last && *number >= low && *number <= high;
}

bool take(const char* value, const char** to) {
    *to = value;
    return true;
}

bool takeOption(std::string_view name, const char* value, Options* o) {
    if (value == nullptr) return false;
    if (name == "--filter") return take(value, &o->filter);
    if (name == "--sort") return take(value, &o->sort);
    if (name == "--page") return readNumber(value, 1, ~0U, &o->page);
    if (name == "--rows") return readNumber(value, 1, 10000, &o->rows);
    if (name == "--dates") return readNumber(value, 0, 4, &o->dates);
    if (name != "--calc" || std::strchr(value, '=') == nullptr) return false;
    o->calculated.emplace_back(value);
    return true;
}

bool readOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--descending") {
            o->descending = true;
        } else if (name == "--oem") {
            o->codePage = kOem;
        } else if (name == "--ansi") {
            o->codePage = kAnsi;
        } else if (name.starts_with("--")) {
            if (!takeOption(name, argv[++i], o)) return false;  // a null pointer ends argv
        } else if (std::exchange(o->table, argv[i]) != nullptr) {
            return false;
        }
    }
    return o->table != nullptr;
}

// --------------------------------------------------------------------------------------------
// Long operations. The callbacks of the library have no arguments: what they need stands here.
// --------------------------------------------------------------------------------------------

volatile std::sig_atomic_t caughtSignal = 0;

struct Progress {
    const char* label;
    double expected;  ///< calls
    double done;
    double nextDrawing;
};
Progress progress;

void catchSignals() {
    struct sigaction action = {};
    action.sa_handler = [](int signal) { caughtSignal = signal; };
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

void drawProgress() {
    constexpr int kWidth = 40;
    const double part = std::min(progress.done / progress.expected, 1.0);
    const std::string bar(static_cast<std::size_t>(part * kWidth), '#');
    std::fprintf(stderr, "\r%s [%-*s] %3d%%", progress.label, kWidth, bar.c_str(),
                 static_cast<int>(part * 100));
    progress.nextDrawing = progress.done + std::max(progress.expected / 100, 10000.0);
}

int countCall() {
    if (++progress.done >= progress.nextDrawing) drawProgress();
    return caughtSignal;
}

/// Runs operation, which is to pass countCall to the library.
template <typename Operation>
bool withProgress(const char* label, double expected, Operation operation) {
    progress = {label, expected, 0, HUGE_VAL};
    const bool drawn = isatty(STDERR_FILENO) != 0 && expected > 100000;
    if (drawn) drawProgress();
    const bool result = operation();
    if (drawn) std::fputs("\r\033[K", stderr);
    if (caughtSignal == SIGINT) caughtSignal = 0;
    return result;
}

// --------------------------------------------------------------------------------------------
// The view
// --------------------------------------------------------------------------------------------

bool addCalculated(mira::DbfBase* h, const Options& o) {
    if (o.calculated.empty()) return true;
    if (mira::GetMemCalcField(h) == 0) return false;
    for (const std::string_view text : o.calculated) {
        const std::size_t equals = text.find('=');
        const std::string name = fromTerminal(text.substr(0, equals), o.codePage);
        const std::string expression = fromTerminal(text.substr(equals + 1), o.codePage);
        if (mira::AddCalcField(h, name.c_str(), expression.c_str()) == 0) return false;
    }
    // From now on fieldcount() includes them.
    h->CalcFields->FieldTotal = static_cast<mira::i32>(h->FieldCount + h->CalcFields->Count);
    return true;
}

bool filter(mira::DbfBase* h, const Options& o) {
    const std::string text = fromTerminal(o.filter, o.codePage);
    return withProgress("filtering", mira::reccount(h),
                        [&] { return mira::set_filter(h, text.c_str(), countCall) != nullptr; });
}

bool sort(mira::DbfBase* h, const Options& o) {
    const double count = mira::reccount(h);
    return withProgress("sorting", 1.3 * count * std::log2(count + 2),
                        [&] { return mira::SortBase(h, o.sort, countCall) != 0; });
}

/// Null, or what is wrong with the options. notice tells what Ctrl-C has stopped.
const char* setView(mira::DbfBase* h, const Options& o, std::string* notice) {
    h->DateFormat = static_cast<mira::i32>(o.dates);
    h->SortDescending = o.descending ? 1 : 0;
    if (!addCalculated(h, o)) return "the calculated fields are too many";
    if (o.filter != nullptr) {
        if (!filter(h, o)) return "the filter is too long";
        if (h->FilterIndex == nullptr) *notice += "The filter was stopped. ";
    }
    if (o.sort != nullptr) {
        if (!sort(h, o)) return "there is no such field to sort by";
        if (h->SortOrder == nullptr && mira::reccount(h) != 0) *notice += "The sort was stopped. ";
    }
    return nullptr;
}

// --------------------------------------------------------------------------------------------
// Pages
// --------------------------------------------------------------------------------------------

struct Screen {
    std::size_t columns = std::string::npos;
    mira::u32 rows = 20;  ///< for records
};

Screen screenFor(const Options& o) {
    constexpr unsigned kOtherLines = 3;
    Screen screen;
    winsize size = {};
    unsigned columns = 0;
    const char* const variable = std::getenv("COLUMNS");
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0) {
        screen.columns = size.ws_col;
        screen.rows = size.ws_row > kOtherLines ? size.ws_row - kOtherLines : 1;
    } else if (variable != nullptr && readNumber(variable, 1, ~0U, &columns)) {
        screen.columns = columns;
    }
    if (o.rows != 0) screen.rows = o.rows;
    return screen;
}

/// A cell, one byte per column of the screen. A number that has no room is not shown in part.
std::string cell(const char* text, std::size_t width, bool number) {
    std::string result = text != nullptr ? text : "";
    if (number) result.erase(0, result.find_first_not_of(' '));
    if (number && result.size() > width) return std::string(width, '#');
    result.resize(std::min(result.size(), width));
    result.insert(number ? 0 : result.size(), width - result.size(), ' ');
    return result;
}

/// A line of the page; textOf gives its cells.
template <typename TextOf>
std::string line(mira::DbfBase* h, const Options& o, std::size_t columns, char mark,
                 TextOf textOf) {
    std::string bytes(1, mark);
    const auto fields = static_cast<int>(mira::fieldcount(h));
    for (int i = 0; i < fields && bytes.size() + 1 < columns; ++i) {
        const int wanted = std::max(mira::GetLenView(h, i), mira::GetLenHeader(h, i));
        const std::size_t width =
            std::min(static_cast<std::size_t>(wanted), columns - bytes.size() - 1);
        bytes += ' ' + cell(textOf(h, i), width, mira::if_digit_type(h, i) != 0);
    }
    bytes.erase(bytes.find_last_not_of(' ') + 1);
    return toTerminal(bytes, o.codePage);
}

/// Which records the page shows.
std::string position(mira::u32 first, mira::u32 last, mira::u32 count, mira::u32 rows) {
    if (count == 0) return "No records.";
    return "Records " + std::to_string(first + 1) + " to " + std::to_string(last) + " of " +
           std::to_string(count) + ", page " + std::to_string(first / rows + 1) + " of " +
           std::to_string((count - 1) / rows + 1) + ".";
}

/// The page whose first record is at a position.
std::string page(mira::DbfBase* h, const Options& o, const Screen& screen, mira::u32 first) {
    std::string text = line(h, o, screen.columns, ' ', mira::GetHeader) + '\n';
    const mira::u32 count = mira::reccount(h);
    const mira::u32 last = first + std::min(screen.rows, count - first);
    for (mira::u32 i = first; i < last; ++i) {
        const bool read = mira::ReadRecord(h, i) != 0;
        const char mark = read ? static_cast<char>(h->RecordBuffer[0]) : '?';
        text += line(h, o, screen.columns, mark, mira::GetStr) + '\n';
    }
    return text + position(first, last, count, screen.rows);
}

/// Lets single keys through while it exists. Ctrl-C is one of them.
class RawKeyboard {
public:
    RawKeyboard() {
        tcgetattr(STDIN_FILENO, &saved_);
        termios raw = saved_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
        tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
    }
    ~RawKeyboard() { tcsetattr(STDIN_FILENO, TCSADRAIN, &saved_); }
    RawKeyboard(const RawKeyboard&) = delete;
    RawKeyboard& operator=(const RawKeyboard&) = delete;

    static char key() {
        char key = 0;
        const bool read = caughtSignal == 0 && ::read(STDIN_FILENO, &key, 1) == 1;
        return read && key != '\x03' ? key : 'q';
    }

private:
    termios saved_ = {};
};

void turnPages(mira::DbfBase* h, const Options& o, mira::u32 first, const std::string& notice) {
    const RawKeyboard keyboard;
    for (char key = 0; key != 'q'; key = RawKeyboard::key()) {
        const Screen screen = screenFor(o);  // it may have another size by now
        const bool forward = key == ' ' || key == '\n';
        if (forward && mira::reccount(h) - first > screen.rows) first += screen.rows;
        if (key == 'b') first -= std::min(screen.rows, first);
        std::printf("\033[H\033[2J%s\n%sSpace: next, b: back, q: quit ",
                    page(h, o, screen, first).c_str(), notice.c_str());
        std::fflush(stdout);
    }
    std::puts("");
}

mira::u32 firstOf(mira::DbfBase* h, const Options& o) {
    const mira::u32 count = mira::reccount(h);
    const mira::u32 rows = screenFor(o).rows;
    return count == 0 ? 0 : std::min(o.page - 1, (count - 1) / rows) * rows;
}

void show(mira::DbfBase* h, const Options& o, const std::string& notice) {
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
        turnPages(h, o, firstOf(h, o), notice);
        return;
    }
    std::puts(page(h, o, screenFor(o), firstOf(h, o)).c_str());
    if (!notice.empty()) std::fprintf(stderr, "%s\n", notice.c_str());
}

struct CloseTable {
    void operator()(mira::DbfBase* h) const {
        mira::FreeMemCalcField(h);
        mira::CloseBase(h);
    }
};

int fail(const char* what, const char* why) {
    std::fprintf(stderr, "browse: %s%s\n", what, why);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!readOptions(argc, argv, &options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::unique_ptr<mira::DbfBase, CloseTable> table(mira::OpenBaseRO(options.table));
    if (!table) return fail(options.table, " is no table that can be read");
    catchSignals();
    std::string notice;
    if (const char* problem = setView(table.get(), options, &notice)) return fail(problem, "");
    if (caughtSignal != 0) return 128 + caughtSignal;
    show(table.get(), options, notice);
    return caughtSignal != 0 ? 128 + caughtSignal : 0;
}
