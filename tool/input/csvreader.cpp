// The parser takes a line at a time, so that a row's line is known; a quoted cell may reach over
// several.
#include "input/csvreader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "rows/output.h"
#include "tables/page/refusal.h"

namespace mira::tool {
namespace {

constexpr std::size_t kChunk = 1 << 16;
constexpr unsigned char kLenient = CSV_EMPTY_IS_NULL;
constexpr std::string_view kMark = "\xEF\xBB\xBF";

int noSpace(unsigned char) { return 0; }

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

/// The first CR or LF from a place on.
std::size_t lineEnd(std::string_view text, std::size_t from) {
    const std::size_t feed = text.find('\n', from);
    const std::size_t length = feed == std::string_view::npos ? feed : feed - from;
    const std::size_t back = text.substr(from, length).find('\r');
    return back == std::string_view::npos ? feed : from + back;
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
    if (csv_init(&parser_, kLenient) != 0) throw std::bad_alloc();
    csv_set_space_func(&parser_, noSpace);  // blanks around a cell belong to it
    csv_set_blk_size(&parser_, kChunk);
    rewind(options.delimiter);
}

CsvReader::~CsvReader() { csv_free(&parser_); }

void CsvReader::rewind() {
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0) fail(name_);
    csv_fini(&parser_, nullptr, nullptr, nullptr);  // what was begun is given up
    begin_ = end_ = 0;
    line_ = 0;
    fileEnded_ = finished_ = rowOpen_ = rowDone_ = false;
    cells_.clear();
    spans_.clear();
    fill();
    const std::string_view start(buffer_.data() + begin_, end_ - begin_);
    if (start.starts_with(kMark)) begin_ += kMark.size();
}

void CsvReader::rewind(char delimiter) {
    csv_set_delim(&parser_, static_cast<unsigned char>(delimiter));
    columns_ = 0;
    rewind();
}

u64 CsvReader::countLines() {
    std::vector<char> buffer(kChunk);
    u64 lines = 0;
    if (std::fseek(file_.get(), 0, SEEK_SET) != 0) fail(name_);
    while (const std::size_t got = std::fread(buffer.data(), 1, buffer.size(), file_.get())) {
        lines += static_cast<u64>(std::count(buffer.data(), buffer.data() + got, '\n'));
    }
    rewind();
    return lines;
}

/// Reads more after what is not parsed yet; false at the end of the file.
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

void CsvReader::takeCell(void* text, std::size_t length, void* reader) {
    auto* const self = static_cast<CsvReader*>(reader);
    const std::size_t start = self->cells_.size();
    if (text != nullptr) self->cells_.append(static_cast<const char*>(text), length);
    self->spans_.push_back({start, text != nullptr ? length : 0, text != nullptr});
}

void CsvReader::takeRow(int /*end*/, void* reader) {
    static_cast<CsvReader*>(reader)->rowDone_ = true;
}

void CsvReader::parseTsv(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
    std::size_t start = cells_.size();
    for (std::size_t i = 0; i <= line.size(); ++i) {
        if (i == line.size() || line[i] == options_.delimiter) {
            spans_.push_back({start, cells_.size() - start, false});
            start = cells_.size();
        } else if (line[i] == '\\' && i + 1 < line.size()) {
            cells_ += unescaped(line[++i]);
        } else {
            cells_ += line[i];
        }
    }
    rowDone_ = true;
}

/// The next line with its end; empty when there is none.
std::string_view CsvReader::takeLine() {
    std::size_t searched = 0;
    std::size_t length = 0;
    while (length == 0) {
        const std::string_view text(buffer_.data() + begin_, end_ - begin_);
        const std::size_t at = lineEnd(text, searched);
        const bool found = at != std::string_view::npos;
        // A CR at the very end may be half of a line end.
        const bool cut = found && text[at] == '\r' && at + 1 == text.size();
        if (found && (!cut || fileEnded_)) {
            length = at + (text.substr(at).starts_with("\r\n") ? 2 : 1);
        } else if (fileEnded_) {
            length = text.size();
            if (length == 0) return {};
        } else {
            searched = cut ? at : text.size();
            fill();
        }
    }
    begin_ += length;
    ++line_;
    return {buffer_.data() + begin_ - length, length};
}

/// A lone quote in a cell without quotes is a quote. In a cell with quotes it is refused: taken as
/// one, it would draw the lines up to the next quote into the cell.
void CsvReader::parseQuoted(std::string_view line) {
    while (true) {
        line.remove_prefix(csv_parse(&parser_, line.data(), line.size(), takeCell, takeRow, this));
        if (line.empty()) return;
        const int error = csv_error(&parser_);
        if (error != CSV_EPARSE) refuse(name_, ": line ", line_, ": ", csv_strerror(error));
        if (parser_.quoted != 0) {
            refuse(name_, ": line ", line_, ": a quote inside a quoted text must be doubled");
        }
        csv_set_opts(&parser_, kLenient);
        csv_parse(&parser_, line.data(), 1, takeCell, takeRow, this);
        csv_set_opts(&parser_, kLenient | CSV_STRICT);
        line.remove_prefix(1);
    }
}

/// Parses the next line; false when there is none.
bool CsvReader::parseLine() {
    const std::string_view line = takeLine();
    if (line.empty()) return false;
    if (!rowOpen_) rowLine_ = line_;
    const bool empty = line[0] == '\n' || line[0] == '\r';
    if (options_.tsv) {
        if (!empty || columns_ == 1) parseTsv(line);
        return true;
    }
    // A row of one empty cell is an empty line, which the parser passes over.
    if (empty && !rowOpen_ && columns_ == 1) {
        takeCell(nullptr, 0, this);
        rowDone_ = true;
        return true;
    }
    parseQuoted(line);
    rowOpen_ = !rowDone_ && !(empty && spans_.empty() && !rowOpen_);
    return true;
}

/// Hands the cells out, as UTF-8.
void CsvReader::give(CsvRow& row) {
    row.line = rowLine_;
    row.cells.clear();
    const std::string_view all = cells_;
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
            valid = isUtf8(text);
        }
        if (!valid) {
            refuse(name_, ": line ", rowLine_, " is not in ", page_ ? pageName(*page_) : "UTF-8",
                   "; --csv-code-page names the code page of the file");
        }
        row.cells.push_back({text, span.quoted && text.empty()});
    }
    if (columns_ == 0) columns_ = row.cells.size();
}

bool CsvReader::next(CsvRow& row) {
    csv_set_opts(&parser_, kLenient | CSV_STRICT);
    cells_.clear();
    spans_.clear();
    rowDone_ = rowOpen_ = false;
    while (!rowDone_) {
        if (parseLine()) continue;
        if (finished_) return false;
        finished_ = true;
        csv_set_opts(&parser_, kLenient | CSV_STRICT | CSV_STRICT_FINI);
        if (!options_.tsv && csv_fini(&parser_, takeCell, takeRow, this) != 0) {
            refuse(name_, ": line ", rowLine_, ": a quoted text does not end");
        }
        if (!rowDone_) return false;
    }
    give(row);
    return true;
}

}  // namespace mira::tool
