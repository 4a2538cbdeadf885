// The library takes a filter apart; here is what can go wrong unseen in what it makes of it. Its
// text is in UTF-8 then, of which no byte above 7F is a sign of filters, with the names that users
// know.
#include "tables/filter/filter.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>

#include "tables/filter/foreign.h"
#include "tables/open/words.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr std::string_view kTooLong = "it is too long; try `mira query`";

[[noreturn]] void refuseFilter(const Table& table, std::string_view why) {
    refuse(table.path, ": the filter cannot be run: ", why);
}

/// What is wrong with quotes and parentheses.
void checkSigns(const Table& table, const std::string& filter) {
    FilterFault fault = FilterFault::None;
    u32 first = 0, end = 0;
    CheckFilter(table.base.get(), filter.c_str(), &fault, &first, &end);
    switch (fault) {
        case FilterFault::ConnectiveInQuotes:
            refuseFilter(table,
                         "\"&\" and \"|\" connect conditions inside quotes, too; try `mira query`");
        case FilterFault::Quotes:
            refuseFilter(table, "a quote is not closed");
        case FilterFault::Brackets:
            refuseFilter(table, filter[first] == '"' || filter[first] == '\''
                                    ? "its parentheses do not match, and those in quotes count, "
                                      "too; try `mira query`"
                                    : "its parentheses do not match");
        case FilterFault::Memory:
            throw std::bad_alloc();
        case FilterFault::None:
        case FilterFault::NoOperator:
        case FilterFault::UnknownField:
        case FilterFault::ComposedLeft:
        case FilterFault::TooLong:
            return;  // told of the conditions, by the names that users know
    }
}

/// Where the parts of a condition stand in the text.
struct Parts {
    std::size_t first = 0, sign = 0, right = 0, end = 0;
};

/// The condition of a number; nothing behind the last one.
std::optional<Parts> partsOf(const Table& table, const std::string& filter, u32 number,
                             std::size_t after) {
    u32 sign = 0, right = 0, end = 0;
    int field = 0;
    if (GetFilterCondition(table.base.get(), filter.c_str(), number, &field, &sign, &right, &end) ==
        0) {
        return std::nullopt;
    }
    Parts parts{after, sign, right, end};
    // Connectives and the parentheses of groups end before it.
    const std::string_view before = std::string_view(filter).substr(after, sign - after);
    parts.first += before.find_last_of("&|()") + 1;
    // A name may hold the sign itself, as in "FIRST-NAME".
    const std::size_t comparing = filter.find_first_of(comparingSigns(), sign);
    if (comparing < parts.end && comparing != sign &&
        findColumn(table, filter.substr(parts.first, comparing - parts.first)) != nullptr) {
        const bool two =
            filter[comparing] != '^' && filter.find_first_of("<>=", comparing + 1) == comparing + 1;
        parts.sign = comparing;
        parts.right = comparing + (two ? 2 : 1);
    }
    return parts;
}

/// The column on the left of an operator.
const Column& leftColumn(const Table& table, std::string_view condition, std::size_t place) {
    const std::string_view left = trimmed(condition.substr(0, place));
    if (comparingSigns().find(condition[place]) == std::string_view::npos) {
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
    const Kind kind = heldKind(column);
    const Compared compared = kindRow(kind).compared;
    return compared == Compared::Texts || (compared == Compared::Dates && isOfDigits(column, kind));
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

std::string checkedCondition(const Table& table, const std::string& filter, const Parts& parts,
                             LibraryFilter& checked) {
    const std::string_view all = filter;
    const std::string_view text = all.substr(parts.first, parts.end - parts.first);
    if (trimmed(text).empty()) refuseFilter(table, "there is no condition beside \"&\" or \"|\"");
    if (parts.sign == parts.right) {
        refuseFilterPart(table, text, " has no operator, such as = <> < > ~");
    }
    const std::size_t sign = parts.sign - parts.first;
    const Column numbers = extraColumn(table, "_record", Kind::RecordNumber);
    const bool isNumber = sameText(trimmed(text.substr(0, sign)), numbers.name);
    const FilterCondition condition{.column = isNumber ? &numbers : &leftColumn(table, text, sign),
                                    .text = text,
                                    .sign = all.substr(parts.sign, parts.right - parts.sign),
                                    .right = all.substr(parts.right, parts.end - parts.right),
                                    .spaced = text.substr(0, sign).ends_with(' ')};
    if (!isNumber) noteCompared(table, condition, checked);
    return libraryCondition(table, condition, checked.tests, checked.notes);
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
    Hooks(Run& run, bool ignoreCase) : base_(run.table.base.get()) {
        for (const FieldTest& test : run.filter.tests) {
            if (AddTestField(base_, test.name.c_str()) != 0) continue;
            DropTestFields(base_);
            throw std::bad_alloc();
        }
        running = &run;
        base_->AfterRead = afterRead;
        base_->TrimMode = 0;
        base_->CaseInsensitive = ignoreCase ? 1 : 0;
        base_->UpperCaseCallback = ignoreCase ? foldText : nullptr;
    }
    ~Hooks() {
        DropTestFields(base_);
        base_->AfterRead = nullptr;
        base_->CaseInsensitive = 0;
        base_->UpperCaseCallback = nullptr;
        running = nullptr;
    }
    Hooks(const Hooks&) = delete;

private:
    DbfBase* base_;
};

bool hasRoom(const DbfBase& base, std::size_t tests) {
    constexpr std::size_t kRecordSize = 65535;  // of RecordBuffer
    return base.FieldCount + tests <= std::size(base.Fields) &&
           base.Header.RecordLength + tests <= kRecordSize;
}

}  // namespace

LibraryFilter checkedFilter(const Table& table, std::string_view given) {
    const std::string filter(given);
    checkSigns(table, filter);
    refuseForeignWords(table, filter);
    LibraryFilter checked;
    std::size_t after = 0;
    for (u32 number = 0; auto parts = partsOf(table, filter, number, after); ++number) {
        checked.text.append(filter, after, parts->first - after);
        // Blanks beside a connective are no part of the texts, as they are for the library.
        const std::size_t end = parts->end;
        while (parts->first < parts->sign && filter[parts->first] == ' ') ++parts->first;
        while (end != filter.size() && parts->end > parts->right && filter[parts->end - 1] == ' ') {
            --parts->end;
        }
        checked.text += checkedCondition(table, filter, *parts, checked);
        after = end;
    }
    const bool none = after == 0 && checked.text.empty();
    if (none || !hasRoom(*table.base, checked.tests.size())) refuseFilter(table, kTooLong);
    checked.text.append(filter, after);
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
    if (ViewRecords(base, first, end) == 0) throw std::bad_alloc();
}

}  // namespace mira::tables
