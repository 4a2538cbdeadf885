#include "tables/filter/condition.h"

#include <algorithm>
#include <cstdio>
#include <optional>

#include "tables/filter/foreign.h"
#include "tables/open/open.h"
#include "tables/open/words.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"

namespace mira::tables {
namespace {

constexpr std::string_view kQuotes = "\"'";
/// A condition with its values that is longer is false for the library.
constexpr std::size_t kConditionLength = 511;

struct Writer {
    const Table& table;
    const FilterCondition& condition;
    std::vector<FieldTest>& tests;
    std::vector<std::string>& notes;

    [[noreturn]] void fail(std::string_view why) const {
        refuseFilterPart(table, condition.text, why);
    }
    bool signIs(std::initializer_list<std::string_view> signs) const {
        return std::find(signs.begin(), signs.end(), condition.sign) != signs.end();
    }
    bool equal() const { return signIs({"=", "=="}); }
    bool different() const { return signIs({"<>", "><"}); }
    /// The field, a sign and a right side for the library.
    std::string compare(std::string_view right) const {
        return textOf(libraryName(table, *condition.column), condition.sign, right);
    }
};

bool startsWithOneOf(std::string_view text, std::string_view letters) {
    return !text.empty() && letters.find(text.front()) != std::string_view::npos;
}

/// The end of a quoted text at the start of another one; a doubled quote does not end it.
std::size_t quotedLength(std::string_view text) {
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] != text.front()) continue;
        if (text.substr(i + 1).starts_with(text.front())) {
            ++i;
        } else {
            return i + 1;
        }
    }
    return text.size();
}

bool isQuoted(std::string_view text) {
    return startsWithOneOf(text, kQuotes) && quotedLength(text) == text.size();
}

/// A text without blanks around it and without its quotes.
std::string_view bare(std::string_view text) {
    text = trimmed(text);
    return isQuoted(text) ? text.substr(1, text.size() - 2) : text;
}

std::string test(const Writer& writer, FieldTest::Asked asked, bool wanted) {
    FieldTest test{*writer.condition.column, asked, wanted, {}};
    test.column.kind = heldKind(test.column);
    // No one types such a name, and letters of any page may stand in it.
    test.name = textOf("\xFF\xFF", writer.tests.size() + 1);
    writer.tests.push_back(test);
    return test.name + "=1";
}

/// FIELD= and FIELD== mean blank, FIELD<> what is not.
std::string blankTest(const Writer& writer) {
    if (!writer.equal() && !writer.different()) {
        writer.fail(": nothing stands right of the operator");
    }
    return test(writer, FieldTest::Asked::Blank, writer.equal());
}

// --------------------------------------------------------------------------------------------
// Numbers, dates, logicals, memos
// --------------------------------------------------------------------------------------------

bool looksLikeDate(std::string_view text) {
    return text.size() > 8 && text[4] == '-' && readMoment(text).has_value();
}

std::string ofNumbers(const Writer& writer) {
    if (writer.signIs({"~", "^", "~="})) {
        writer.fail(": \"~\" and \"^\" look into texts, and this field holds numbers");
    }
    std::string_view right = bare(writer.condition.right);
    if (right.size() > 1 && right.front() == '+' && (isDigit(right[1]) || right[1] == '.')) {
        right.remove_prefix(1);
    }
    if (looksLikeDate(right) || !isComputable(writer.table, right, false)) {
        writer.fail(
            ": the field holds numbers, so a number such as 4.90 or a computation with "
            "fields of numbers stands right of the operator, or nothing for blank");
    }
    return writer.compare(forLibrary(writer.table, right));
}

std::string momentDigits(const Moment& moment, bool withTime) {
    const std::tm& t = moment.time;
    char digits[96];
    const int date =
        std::snprintf(digits, sizeof digits, "%04d%02d%02d", t.tm_year, t.tm_mon + 1, t.tm_mday);
    if (withTime) {
        std::snprintf(digits + date, sizeof digits - static_cast<std::size_t>(date), "%02d%02d%02d",
                      t.tm_hour, t.tm_min, t.tm_sec);
    }
    return digits;
}

/// _record and a number.
std::string ofRecords(const Writer& writer) {
    constexpr u64 kMost = 0xFFFFFFFF;
    const std::string_view right = bare(writer.condition.right);
    const std::optional<i64> given = areDigits(right) ? toInteger(right) : std::nullopt;
    const bool below = writer.signIs({"<", "<=", "=<"});
    const bool above = writer.signIs({">", ">=", "=>"});
    if (!given || !(below || above || writer.equal() || writer.different())) {
        writer.fail(": records are compared by number, with = <> < > <= >=");
    }
    const u64 number = std::min<u64>(static_cast<u64>(*given), kMost);
    std::string condition = test(writer, FieldTest::Asked::Record, !writer.different());
    FieldTest& added = writer.tests.back();
    added.first = below ? 0 : number + (writer.condition.sign == ">" ? 1 : 0);
    added.last = above ? kMost : number;
    if (writer.condition.sign == "<") added.last = number == 0 ? 0 : number - 1;
    return condition;
}

bool isOfDates(const Column& column) {
    return kindRow(heldKind(column)).compared == Compared::Dates;
}

/// Whether a text calls a function of the library.
bool holdsCall(std::string_view text) {
    bool holds = false;
    eachWord(
        text,
        [&](std::string_view word, std::string_view rest) {
            holds = holds || startsCall(word, rest);
        },
        [](char) {});
    return holds;
}

/// A date, or a moment, as the library compares it: by its digits. A date for a field of moments
/// stands for all its day, but behind "==".
std::string ofDates(const Writer& writer) {
    const std::string_view right = bare(writer.condition.right);
    if (writer.signIs({"~", "^", "~<", "~>", "~="})) {
        writer.fail(": \"~\" and \"^\" look into texts, and this field holds dates");
    }
    const Column* const other = findColumn(writer.table, right);
    const bool isName = other != nullptr && sameText(other->name, right);
    if ((isName && isOfDates(*other)) || holdsCall(right)) {
        return writer.compare(forLibrary(writer.table, right));
    }
    const bool isDate = heldKind(*writer.condition.column) == Kind::Date;
    const std::optional<Moment> moment = readMoment(right);
    const bool timed = right.size() > std::string_view("2024-01-31").size();
    if (!moment || moment->milliseconds != 0 || (isDate && timed)) {
        writer.fail(isDate ? ": a date such as 2024-01-31 stands right of the operator, or nothing "
                             "for blank"
                           : ": a date such as 2024-01-31, with or without a time such as "
                             "23:59:59, stands right of the operator, or nothing for blank");
    }
    return writer.compare(
        momentDigits(*moment, !isDate && (timed || writer.condition.sign == "==")));
}

std::string ofLogicals(const Writer& writer) {
    if (!writer.equal() && !writer.different()) {
        writer.fail(": logicals are compared with = and <>");
    }
    std::string word = foldCase(bare(writer.condition.right));
    if (word.size() == 3 && word.front() == '.' && word.back() == '.') word = word.substr(1, 1);
    for (const char* yes : {"true", "t", "yes", "y"}) {
        if (word == yes) return test(writer, FieldTest::Asked::True, writer.equal());
    }
    for (const char* no : {"false", "f", "no", "n"}) {
        if (word == no) return test(writer, FieldTest::Asked::False, writer.equal());
    }
    writer.fail(": a logical is true or false, or nothing for blank");
}

std::string ofMemos(const Writer& writer) {
    const std::string_view right = bare(writer.condition.right);
    const bool empty = sameText(right, "Empty memo");
    if ((!empty && !sameText(right, "Full memo")) || (!writer.equal() && !writer.different())) {
        writer.fail(
            ": filters see of a memo only whether there is one, by <> and =, with nothing "
            "behind; `mira query` looks into it");
    }
    return test(writer, FieldTest::Asked::Blank, empty == writer.equal());
}

// --------------------------------------------------------------------------------------------
// Texts
// --------------------------------------------------------------------------------------------

/// Quotes doubled in a quoted text stand for one, as in SQL; the library puts texts in quotes that
/// follow each other together.
std::string withSingleQuotes(std::string_view right) {
    std::string out;
    while (!right.empty()) {
        if (!startsWithOneOf(right, kQuotes)) {
            out += right.front();
            right.remove_prefix(1);
            continue;
        }
        const char quote = right.front();
        const char other = quote == '"' ? '\'' : '"';
        const std::size_t length = quotedLength(right);
        out += quote;
        for (std::size_t i = 1; i + 1 < length; ++i) {
            if (right[i] == quote) {
                (((((out += quote) += other) += quote) += other) += quote);
                ++i;
            } else {
                out += right[i];
            }
        }
        out += quote;
        right.remove_prefix(length);
    }
    return out;
}

/// Bytes of a right side that is a literal, as they are compared; npos when it holds a field or a
/// call.
std::size_t literalLength(const Table& table, std::string_view translated) {
    std::size_t length = 0;
    bool literal = true;
    char quote = 0;
    eachWord(
        translated,
        [&](std::string_view word, std::string_view rest) {
            const std::string name(word);
            literal = literal && !startsCall(word, rest) &&
                      GetFieldNum(table.base.get(), name.c_str()) >= table.base->FieldCount;
            length += word.size();
        },
        [&](char c) {
            if (quote == 0 ? kQuotes.find(c) != std::string_view::npos : c == quote) {
                quote = quote == 0 ? c : '\0';
            } else {
                ++length;
            }
        });
    return literal ? length : std::string_view::npos;
}

/// Fields among the words of a right side.
void checkWords(const Writer& writer, std::string_view right) {
    eachWord(
        right,
        [&](std::string_view word, std::string_view rest) {
            const Column* const column = columnOfWord(writer.table, word);
            if (column == nullptr) return;
            if (startsWithOneOf(trimmed(rest), comparingSigns())) {
                writer.fail(textOf(": a second comparison, with ", column->name,
                                   "; \"&\" and \"|\" connect, quotes make a text"));
            }
            if (!isOfNumbers(*column)) return;
            writer.fail(
                textOf(": ", column->name, " is a field of numbers, no text; quotes make it one"));
        },
        [](char) {});
}

void checkSign(const Writer& writer, std::string_view right) {
    if (writer.signIs({"~=", "~<", "~>"})) {
        writer.fail(textOf(": \"", writer.condition.sign, "\" never holds for texts"));
    }
    const std::string_view given = trimmed(right);
    if (startsWithOneOf(given, comparingSigns())) {
        writer.fail(": two operators stand side by side; quotes make a text");
    }
    const bool open = writer.condition.sign.size() == 1 && writer.condition.sign != "^";
    if (open && startsWithOneOf(given, kQuotes) && startsWithOneOf(given.substr(1), "=<>")) {
        writer.fail(
            ": \"=\", \"<\" and \">\" at the start of a text would be a part of the "
            "operator; try `mira query`");
    }
    std::string unquoted(right);
    std::erase_if(unquoted, [](char c) { return kQuotes.find(c) != std::string_view::npos; });
    if (holdsCall(unquoted) && !holdsCall(right)) {
        writer.fail(": functions are computed inside quotes, too; try `mira query`");
    }
}

/// The right side of a comparison of texts, without blanks that can only be there for the eye.
std::string_view textSide(const Writer& writer) {
    constexpr std::string_view kSearching = "~^";
    const FilterCondition& condition = writer.condition;
    const std::string_view right = condition.right;
    if (condition.spaced || isQuoted(trimmed(right))) return trimmed(right);
    if (right.starts_with(' ') && kSearching.find(condition.sign) == std::string_view::npos) {
        writer.notes.push_back(
            textOf('"', trimmed(condition.text),
                   "\": the blank behind the operator belongs to the compared text"));
    }
    return right;
}

std::string ofTexts(const Writer& writer) {
    const Table& table = writer.table;
    const Column& column = *writer.condition.column;
    const std::string_view right = textSide(writer);
    checkSign(writer, right);
    checkWords(writer, right);
    std::string translated = forLibrary(table, withSingleQuotes(right));
    const std::size_t literal = literalLength(table, translated);
    if (writer.condition.sign == "==" && column.type == 'C' && literal != std::string::npos &&
        literal < column.length) {
        translated.append(column.length - literal, ' ');
    }
    if (column.length + translated.size() + 2 > kConditionLength) {
        writer.fail(": the field is too wide for a filter; try `mira query`");
    }
    return writer.compare(translated);
}

}  // namespace

bool passes(CellReader& cells, const FieldTest& test) {
    const Table& table = *cells.table;
    const Column& column = test.column;
    bool answer = false;
    if (test.asked == FieldTest::Asked::Record) {
        const u64 number = u64{cells.record} + 1;
        return (number >= test.first && number <= test.last) == test.wanted;
    }
    if (kindRow(column.kind).compared == Compared::Memos) {
        const MemoReference reference = memoReference(table, column);
        answer = isNull(table, column) ||
                 (reference.isReference && reference.block == 0 && reference.length == 0);
        return answer == test.wanted;
    }
    constexpr std::string_view kPadding(" \0", 2);
    Value value;
    readCell(cells, column, value);
    switch (value.kind) {
        case ValueKind::Null:
            answer = test.asked == FieldTest::Asked::Blank;
            break;
        case ValueKind::Blank:
            answer = test.asked == FieldTest::Asked::Blank && value.fault == Fault::None;
            break;
        case ValueKind::Text:
        case ValueKind::Bytes:
            answer = value.text.find_first_not_of(kPadding) == std::string_view::npos;
            break;
        case ValueKind::Logical:
            answer = test.asked ==
                     (value.integer != 0 ? FieldTest::Asked::True : FieldTest::Asked::False);
            break;
        case ValueKind::Digits:
        case ValueKind::Integer:
        case ValueKind::Real:
        case ValueKind::Currency:
        case ValueKind::Date:
        case ValueKind::Moment:
            break;
    }
    return answer == test.wanted;
}

std::string libraryCondition(const Table& table, const FilterCondition& condition,
                             std::vector<FieldTest>& tests, std::vector<std::string>& notes) {
    const Writer writer{table, condition, tests, notes};
    if (condition.column->kind == Kind::RecordNumber) return ofRecords(writer);
    if (bare(condition.right).empty()) return blankTest(writer);
    switch (kindRow(heldKind(*condition.column)).compared) {
        case Compared::Texts:
            return ofTexts(writer);
        case Compared::Numbers:
            return ofNumbers(writer);
        case Compared::Dates:
            return ofDates(writer);
        case Compared::Logicals:
            return ofLogicals(writer);
        case Compared::Memos:
            return ofMemos(writer);
    }
    return "";
}

}  // namespace mira::tables
