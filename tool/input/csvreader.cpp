// A row lies in the buffer as a whole, and its cells are views into it. What stands for a quote or
// a control character is made one in place.
//
//   row     cell { delimiter cell } ( CR LF | LF | CR | end of the file )
//   cell    { any byte but delimiter, CR, LF } | '"' { any byte but '"' | '""' } '"'
//
// Blanks around a cell belong to it. A quote in a cell that does not begin with one is a quote.
#include "input/csvreader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "rows/output.h"
#include "tables/page/refusal.h"
#include "tables/page/utf8.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

constexpr std::size_t kChunk = 1 << 16;
constexpr std::string_view kMark = "\xEF\xBB\xBF";
constexpr int kEnd = -1;  // behind the last byte of the file

[[noreturn]] void fail(const std::string& name) { refuse(name, ": ", std::strerror(errno)); }

/// What comes through a pipe is kept in a file without a name, as it is read more than once.
File seekable(File from, const std::string& name) {
    if (std::fseek(from.get(), 0, SEEK_SET) == 0) return from;
    File kept(std::tmpfile());
    if (!kept) fail(name);
    std::vector<char> buffer(kChunk);
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), from.get())) {
        if (std::fwrite(buffer.data(), 1, got, kept.get()) != got) fail(name);
    }
    if (std::ferror(from.get()) != 0 || std::fseek(kept.get(), 0, SEEK_SET) != 0) fail(name);
    return kept;
}

/// LF, CR, or both as one.
u64 lineEndsIn(std::string_view text) {
    auto count = std::count(text.begin(), text.end(), '\n');
    for (std::size_t at = text.find('\r'); at != std::string_view::npos; at = text.find('\r', at)) {
        if (++at == text.size() || text[at] != '\n') ++count;
    }
    return static_cast<u64>(count);
}

char unescaped(char c) { return c == 't' ? '\t' : c == 'n' ? '\n' : c == 'r' ? '\r' : c; }

}  // namespace

CsvReader::CsvReader(const std::string& name, const CsvOptions& options)
    : name_(name == "-" ? "standard input" : name),
      options_(options),
      file_(seekable(openInput(name), name_)) {
    if (!options.codePage.empty()) {
        page_ = openPage(options.codePage);
        if (!page_) refuse("--csv-code-page ", options.codePage, ": no such code page");
    }
    rewind(options.delimiter);
}

void CsvReader::rewind() {
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0) fail(name_);
    begin_ = end_ = used_ = 0;
    line_ = 0;
    fileEnded_ = false;
    fill();
    const std::string_view start(buffer_.data(), end_);
    if (start.starts_with(kMark)) begin_ = kMark.size();
}

void CsvReader::rewind(char delimiter) {
    ends_ = {};
    for (const char c : {delimiter, '\r', '\n'}) ends_[static_cast<u8>(c)] = true;
    columns_ = 0;
    rewind();
}

u64 CsvReader::countLines() {
    std::vector<char> buffer(kChunk);
    u64 lines = 0;
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0) fail(name_);
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), file_.get())) {
        leaveIfStopped();
        lines += static_cast<u64>(std::count(buffer.data(), buffer.data() + got, '\n'));
    }
    rewind();
    return lines;
}

/// Reads more; false at the end of the file. The row moves to the front of the buffer.
bool CsvReader::fill() {
    if (fileEnded_) return false;
    if (begin_ != 0) std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    if (buffer_.size() < end_ + kChunk) buffer_.resize(std::max(2 * end_, end_ + kChunk));
    const std::size_t got =
        std::fread(buffer_.data() + end_, 1, buffer_.size() - end_, file_.get());
    if (std::ferror(file_.get()) != 0) fail(name_);
    end_ += got;
    fileEnded_ = got == 0;
    return got != 0;
}

/// The byte at a place of the row, or kEnd.
int CsvReader::byteAt(std::size_t at) {
    while (begin_ + at >= end_) {
        if (!fill()) return kEnd;
    }
    return static_cast<u8>(buffer_[begin_ + at]);
}

/// The place of the byte that ends a cell without quotes.
std::size_t CsvReader::findEnd(std::size_t from) {
    while (true) {
        for (std::size_t at = begin_ + from; at < end_; ++at) {
            if (ends_[static_cast<u8>(buffer_[at])]) return at - begin_;
        }
        from = end_ - begin_;
        if (!fill()) return from;
    }
}

std::size_t CsvReader::findQuote(std::size_t from) {
    while (true) {
        const std::string_view text(buffer_.data(), end_);
        const std::size_t at = text.find('"', begin_ + from);
        if (at != std::string_view::npos) return at - begin_;
        from = end_ - begin_;
        if (!fill()) refuse(name_, ": line ", rowLine_, ": a quoted text does not end");
    }
}

/// Moves bytes of the row down; returns the place after them.
std::size_t CsvReader::moveTo(std::size_t to, std::size_t from, std::size_t end) {
    char* const row = buffer_.data() + begin_;
    if (to != from) std::memmove(row + to, row + from, end - from);
    return to + end - from;
}

/// A lone quote is refused: taken as one, it would draw the lines up to the next quote into the
/// cell.
void CsvReader::takeQuoted() {
    const std::size_t start = used_ + 1;
    std::size_t length = 0;
    std::size_t from = start;
    while (true) {
        const std::size_t quote = findQuote(from);
        line_ += lineEndsIn({buffer_.data() + begin_ + from, quote - from});
        length = moveTo(start + length, from, quote) - start;
        from = quote + 1;
        if (byteAt(from) != '"') break;
        buffer_[begin_ + start + length++] = '"';
        ++from;
    }
    const int after = byteAt(from);
    if (after != kEnd && !ends_[static_cast<u8>(after)]) {
        refuse(name_, ": line ", line_, ": a quote inside a quoted text must be doubled");
    }
    spans_.push_back({start, length, true});
    used_ = from;
}

/// TSV: \t, \n, \r and \\ stand for what they mean.
void CsvReader::takeEscaped() {
    const std::size_t start = used_;
    used_ = findEnd(start);
    char* const row = buffer_.data() + begin_;
    std::size_t to = start;
    for (std::size_t at = start; at < used_; ++at) {
        const bool escape = row[at] == '\\' && at + 1 < used_;
        row[to++] = escape ? unescaped(row[++at]) : row[at];
    }
    spans_.push_back({start, to - start, false});
}

void CsvReader::takeCell() {
    if (options_.tsv) return takeEscaped();
    if (byteAt(used_) == '"') return takeQuoted();
    const std::size_t start = used_;
    used_ = findEnd(start);
    spans_.push_back({start, used_ - start, false});
}

void CsvReader::takeRow() {
    rowLine_ = ++line_;
    takeCell();
    int end = byteAt(used_);
    while (end != kEnd && end != '\r' && end != '\n') {
        ++used_;
        takeCell();
        end = byteAt(used_);
    }
    if (end != kEnd) ++used_;
    if (end == '\r' && byteAt(used_) == '\n') ++used_;
}

/// Hands the cells out, as UTF-8.
void CsvReader::give(CsvRow& row) {
    row.line = rowLine_;
    row.cells.clear();
    const std::string_view all(buffer_.data() + begin_, used_);
    const bool ascii = asciiRun(all) == all.size();
    decoded_.clear();
    if (page_) decoded_.reserve(sizeof(Letter) * all.size());  // views into it stay valid
    for (const Span& span : spans_) {
        std::string_view text = all.substr(span.start, span.length);
        bool valid = true;
        if (page_) {
            const std::size_t start = decoded_.size();
            valid = toUtf8(*page_, text, decoded_) == 0;
            text = std::string_view(decoded_).substr(start);
        } else {
            valid = ascii || isUtf8(text);
        }
        if (!valid) {
            refuse(name_, ": line ", rowLine_, " is not in ", page_ ? pageName(*page_) : "UTF-8",
                   "; --csv-code-page names the code page of the file");
        }
        row.cells.push_back({text, span.quoted && text.empty()});
    }
    if (columns_ == 0) columns_ = row.cells.size();
}

/// Empty lines are passed over, but where rows have one cell.
bool CsvReader::next(CsvRow& row) {
    bool empty = true;
    while (empty) {
        begin_ += used_;
        used_ = 0;
        spans_.clear();
        if (byteAt(0) == kEnd) return false;
        takeRow();
        const Span& first = spans_.front();
        empty = spans_.size() == 1 && first.length == 0 && !first.quoted && columns_ != 1;
    }
    give(row);
    return true;
}

}  // namespace mira::tool
