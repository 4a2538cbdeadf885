// How the library reads a filter, and what can go wrong unseen: every "&" and "|" connects, also in
// quotes; parentheses are counted in quotes, too; the operator is the first of > < = ~ ^ + - / * (
// ) outside quotes, so what stands left of it must be a bare name; a condition longer than 511
// characters with its values is false.
#include "tables/filter/filter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "tables/filter/foreign.h"
#include "tables/open/words.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr std::string_view kOperators = "><=~^+-/*()";
constexpr std::string_view kComparing = "><=~^";
constexpr std::string_view kTooLong = "it is too long; try `mira query`";

[[noreturn]] void refuseFilter(const Table& table, std::string_view why) {
    refuse(table.path, ": the filter cannot be run: ", why);
}

/// Walks over a text and knows what is in quotes.
struct QuoteScanner {
    char quote = 0;
    /// Whether the character is outside quotes, the quotes themselves not counted.
    bool outside(char c) {
        if (quote != 0) {
            if (c == quote) quote = 0;
            return false;
        }
        if (c != '"' && c != '\'') return true;
        quote = c;
        return false;
    }
};

void checkQuotesAndParentheses(const Table& table, std::string_view filter) {
    QuoteScanner scanner;
    int depth = 0;
    bool quotedParenthesis = false;
    for (const char c : filter) {
        const bool outside = scanner.outside(c);
        if (!outside && (c == '&' || c == '|')) {
            refuseFilter(table,
                         "\"&\" and \"|\" connect conditions inside quotes, too; try `mira query`");
        }
        if (c == '(') ++depth;
        if (c == ')') --depth;
        if (!outside && (c == '(' || c == ')')) quotedParenthesis = true;
        if (depth < 0) break;
    }
    if (scanner.quote != 0) refuseFilter(table, "a quote is not closed");
    if (depth != 0) {
        refuseFilter(
            table,
            quotedParenthesis
                ? "its parentheses do not match, and those in quotes count, too; try `mira query`"
                : "its parentheses do not match");
    }
}

/// A condition between the parentheses that group it.
struct Piece {
    std::string_view opening, condition, closing;
};

/// Parentheses that do not match inside the piece group several ones.
Piece cutPiece(std::string_view piece) {
    std::size_t first = 0;
    std::size_t last = piece.size();
    int depth = 0;
    for (std::size_t i = 0; i < piece.size(); ++i) {
        if (piece[i] == '(') ++depth;
        if (piece[i] == ')' && --depth < 0) {
            last = i;
            break;
        }
    }
    depth = 0;
    for (std::size_t i = last; i-- > 0;) {
        if (piece[i] == ')') ++depth;
        if (piece[i] == '(' && --depth < 0) {
            first = i + 1;
            break;
        }
    }
    return {piece.substr(0, first), piece.substr(first, last - first), piece.substr(last)};
}

std::size_t placeOf(std::string_view condition, std::string_view operators) {
    QuoteScanner scanner;
    for (std::size_t i = 0; i < condition.size(); ++i) {
        if (scanner.outside(condition[i]) &&
            operators.find(condition[i]) != std::string_view::npos) {
            return i;
        }
    }
    return std::string_view::npos;
}

/// Where the operator is; after a field name that holds such a character itself ("FIRST-NAME").
std::size_t operatorPlace(const Table& table, std::string_view condition) {
    const std::size_t comparing = placeOf(condition, kComparing);
    if (comparing != std::string_view::npos &&
        findColumn(table, condition.substr(0, comparing)) != nullptr) {
        return comparing;
    }
    return placeOf(condition, kOperators);
}

/// The column on the left of an operator.
const Column& leftColumn(const Table& table, std::string_view condition, std::size_t place) {
    const std::string_view left = trimmed(condition.substr(0, place));
    if (kComparing.find(condition[place]) == std::string_view::npos) {
        refuseFilterPart(table, condition,
                         ": left of the operator stands one bare field name, no computation, sign, "
                         "call or parenthesis");
    }
    if (left.empty()) {
        refuseFilterPart(table, condition, ": nothing stands left of the operator");
    }
    if (left.find_first_of("\"'") != std::string_view::npos) {
        refuseFilterPart(table, condition,
                         ": left of the operator stands a bare field name, no text");
    }
    const Column& column = columnNamed(table, left);
    if (column.kind == Kind::Calculated) {
        refuseFilter(table, textOf(column.name,
                                   " is a calculated field; filters know those of the table only"));
    }
    return column;
}

/// Whether the library compares a column by the characters that the record holds.
bool isOfCharacters(const Column& column) {
    switch (heldKind(column)) {
        case Kind::Text:
        case Kind::Varchar:
        case Kind::Varbinary:
        case Kind::Bytes:
        case Kind::Date:
            return true;
        case Kind::Moment:
            return column.length != 8;
        default:
            return false;
    }
}

void noteCompared(const Table& table, const FilterCondition& condition, LibraryFilter& filter) {
    const auto add = [&](const Column* column) {
        if (column != nullptr && isOfCharacters(*column)) filter.compared.push_back(column);
    };
    add(condition.column);
    eachWord(
        condition.right,
        [&](std::string_view word, std::string_view) { add(columnOfWord(table, word)); },
        [](char) {});
}

std::string checkedCondition(const Table& table, std::string_view text, LibraryFilter& filter) {
    if (trimmed(text).empty()) refuseFilter(table, "there is no condition beside \"&\" or \"|\"");
    const std::size_t place = operatorPlace(table, text);
    if (place == std::string_view::npos) {
        refuseFilterPart(table, text, " has no operator, such as = <> < > ~");
    }
    const Column numbers = extraColumn(table, "_record", Kind::RecordNumber);
    const bool isNumber = sameText(trimmed(text.substr(0, place)), numbers.name);
    const Column& column = isNumber ? numbers : leftColumn(table, text, place);
    const bool two = text[place] != '^' && text.find_first_of("<>=", place + 1) == place + 1;
    const std::size_t after = place + (two ? 2 : 1);
    const FilterCondition condition{.column = &column,
                                    .text = text,
                                    .sign = text.substr(place, after - place),
                                    .right = text.substr(after),
                                    .spaced = text.substr(0, place).ends_with(' ')};
    if (!isNumber) noteCompared(table, condition, filter);
    return libraryCondition(table, condition, filter.tests, filter.notes);
}

// --------------------------------------------------------------------------------------------
// Running it
// --------------------------------------------------------------------------------------------

/// A filter that runs, and what it does at each record.
struct Run {
    Table& table;
    const LibraryFilter& filter;
    const std::function<bool()>& goesOn;
    CellReader cells;
    u32 tested = 0;     // records
    bool read = false;  // whether the one that is tested has been
    bool unread = false;
};
thread_local Run* running = nullptr;

int foldText(char* text, DbfBase* /*base*/, int /*mode*/) {
    foldCase(*running->table.page.page, {text, std::strlen(text)});
    return 0;
}

/// Makes the library see the characters that count: those of V and Q end with their length, and
/// zero bytes in place of a value are a blank, not a text equal to anything.
void bareCharacters(const Table& table, const Column& column) {
    if (column.length == 0) return;
    u8* const bytes = table.base->RecordBuffer + column.offset;
    if (column.lengthBit == kNoBit && bytes[0] != 0) return;
    const std::size_t length = variableBytes(table, column).size();
    if (length < column.length) bytes[length] = 0;
    if (bytes[0] == 0) std::memset(bytes, ' ', column.length);
}

int afterRead(DbfBase* base) {
    Run& run = *running;
    run.read = true;
    run.cells.record = recno(base, GetOrder(base, run.tested));
    u8* answer = base->RecordBuffer + base->Header.RecordLength;
    for (const FieldTest& test : run.filter.tests) *answer++ = passes(run.cells, test) ? '1' : '0';
    for (const Column* column : run.filter.compared) bareCharacters(run.table, *column);
    return 0;
}

int afterTest() {
    Run& run = *running;
    run.unread = !run.read;
    if (run.unread) return 1;
    run.read = false;
    ++run.tested;
    return run.goesOn && !run.goesOn() ? 1 : 0;
}

/// Gives the table the fields for the answers of tests, for as long as it lives, and the library
/// what it calls.
class Hooks {
public:
    Hooks(Run& run, bool ignoreCase) : base_(run.table.base.get()), fields_(base_->FieldCount) {
        u16 offset = base_->Header.RecordLength;
        for (const FieldTest& test : run.filter.tests) {
            DbfField field{};
            std::memcpy(field.Name, test.name.data(), test.name.size());
            field.Type = 'C';
            field.Length = 1;
            field.Offset = offset++;
            base_->Fields[base_->FieldCount++] = field;
        }
        running = &run;
        base_->AfterRead = afterRead;
        base_->TrimMode = 0;
        base_->CaseInsensitive = ignoreCase ? 1 : 0;
        base_->UpperCaseCallback = ignoreCase ? foldText : nullptr;
    }
    ~Hooks() {
        base_->FieldCount = fields_;
        base_->AfterRead = nullptr;
        base_->CaseInsensitive = 0;
        base_->UpperCaseCallback = nullptr;
        running = nullptr;
    }
    Hooks(const Hooks&) = delete;

private:
    DbfBase* base_;
    u16 fields_;
};

bool hasRoom(const DbfBase& base, std::size_t tests) {
    constexpr std::size_t kRecordSize = 65535;  // of RecordBuffer
    return base.FieldCount + tests <= std::size(base.Fields) &&
           base.Header.RecordLength + tests <= kRecordSize;
}

}  // namespace

LibraryFilter checkedFilter(const Table& table, std::string_view filter) {
    checkQuotesAndParentheses(table, filter);
    refuseForeignWords(table, filter);
    LibraryFilter checked;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = std::min(filter.find_first_of("&|", start), filter.size());
        const Piece piece = cutPiece(filter.substr(start, end - start));
        // Blanks beside a connective are no part of the texts, as they are for the library.
        std::string_view condition = piece.condition;
        const bool goesOn = end != filter.size() || !piece.closing.empty();
        while (goesOn && condition.ends_with(' ')) condition.remove_suffix(1);
        while (condition.starts_with(' ')) condition.remove_prefix(1);
        checked.text += piece.opening;
        checked.text += checkedCondition(table, condition, checked);
        checked.text += piece.closing;
        if (end == filter.size()) break;
        checked.text += filter[end];
        start = end + 1;
    }
    if (!hasRoom(*table.base, checked.tests.size())) refuseFilter(table, kTooLong);
    return checked;
}

void runFilter(Table& table, const LibraryFilter& filter, bool ignoreCase,
               const std::function<bool()>& goesOn) {
    DbfBase* const base = table.base.get();
    Run run{table, filter, goesOn, CellReader(table)};
    bool done = false;
    {
        const Hooks hooks(run, ignoreCase);
        done = set_filter(base, filter.text.c_str(), afterTest) != nullptr;
    }
    if (!done) refuseFilter(table, kTooLong);
    if (run.unread) {
        refuse(table.path, ": record ", u64{recno(base, GetOrder(base, run.tested))} + 1,
               " cannot be read");
    }
}

void viewRange(DbfBase* base, u32 first, u32 end) {
    const u32 count = end - first;
    auto* const index = static_cast<u32*>(std::malloc((std::size_t{count} + 1) * sizeof(u32)));
    if (index == nullptr) throw std::bad_alloc();
    for (u32 i = 0; i < count; ++i) index[i] = first + i;
    std::free(base->FilterIndex);
    base->FilterIndex = index;
    base->FilterCount = count;
}

}  // namespace mira::tables
