#include "tables/filter/foreign.h"

#include "tables/open/words.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr char kQuoted = '\1';  // stands for what is in quotes, and for those
constexpr std::string_view kBefore(" )\1", 3);
constexpr std::string_view kAfter(" (\1", 3);

/// A filter, and the same with what is in quotes made unknown; places are the same.
struct Scan {
    const Table& table;
    std::string_view filter;
    std::string plain;
};

std::string withoutQuoted(std::string_view filter) {
    std::string plain(filter);
    char quote = 0;
    for (char& c : plain) {
        const bool closes = quote != 0 && c == quote;
        if (quote == 0 && (c == '"' || c == '\'')) quote = c;
        if (quote != 0) c = kQuoted;
        if (closes) quote = 0;
    }
    return plain;
}

bool isOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view other) { return sameText(word, other); });
}

bool endsIn(std::string_view text, std::string_view letters) {
    return text.empty() || letters.find(text.back()) != std::string_view::npos;
}
bool startsWith(std::string_view text, std::string_view letters) {
    return !text.empty() && letters.find(text.front()) != std::string_view::npos;
}

/// Whether a text ends with the name of a field.
bool endsWithField(const Table& table, std::string_view text) {
    const std::string folded = foldCase(trimmed(text, " \""));
    return std::any_of(table.columns.begin(), table.columns.end(), [&](const Column& column) {
        const std::string name = foldCase(column.name);
        if (!folded.ends_with(name)) return false;
        return folded.size() == name.size() || !isWordByte(folded[folded.size() - name.size() - 1]);
    });
}

bool startsWithField(const Table& table, std::string_view text) {
    const std::string folded = foldCase(trimmed(text, " (\""));
    return std::any_of(table.columns.begin(), table.columns.end(), [&](const Column& column) {
        const std::string name = foldCase(column.name);
        return folded.starts_with(name) &&
               (folded.size() == name.size() || !isWordByte(folded[name.size()]));
    });
}

/// Whether a comparison follows: a field, bare or as the argument of a function, and an operator.
bool comparisonFollows(const Scan& scan, std::size_t place) {
    const std::size_t sign =
        std::min(scan.plain.find_first_of(comparingSigns(), place), scan.plain.find('!', place));
    if (sign == std::string::npos) return false;
    std::string_view left = scan.filter.substr(place, sign - place);
    const std::size_t argument = left.rfind('(');
    if (argument != std::string_view::npos) left.remove_prefix(argument + 1);
    return findColumn(scan.table, trimmed(left, " )\"'")) != nullptr;
}

bool nullFollows(std::string_view after) {
    after = trimmed(after);
    const std::string_view first = after.substr(0, after.find(' '));
    if (sameText(first, "NOT")) after = trimmed(after.substr(first.size()));
    return sameText(after.substr(0, 4), "NULL");
}

/// Without a NOT at its end.
std::string_view withoutNot(std::string_view text) {
    text = trimmed(text);
    const std::size_t blank = text.rfind(' ');
    const bool negated = blank != std::string_view::npos && sameText(text.substr(blank + 1), "NOT");
    return negated ? text.substr(0, blank) : text;
}

bool isForeign(const Scan& scan, std::string_view word, std::size_t start) {
    const std::size_t end = start + word.size();
    const std::string_view plain = scan.plain;
    const std::string_view before = plain.substr(0, start);
    const std::string_view after = plain.substr(end);
    const bool connects = isOneOf(word, {"AND", "OR"});
    const bool negates = sameText(word, "NOT");
    if ((connects || negates) && before.ends_with('.') && after.starts_with('.')) return true;
    if (!startsWith(after, kAfter)) return false;
    if (connects) return endsIn(before, kBefore) && comparisonFollows(scan, end);
    if (negates) {
        return endsIn(before, " (&|") && startsWithField(scan.table, scan.filter.substr(end));
    }
    if (!endsIn(before, kBefore)) return false;
    const bool compares =
        isOneOf(word, {"LIKE", "IN", "BETWEEN"}) || (sameText(word, "IS") && nullFollows(after));
    return compares && endsWithField(scan.table, withoutNot(scan.filter.substr(0, start)));
}

}  // namespace

void refuseFilterPart(const Table& table, std::string_view part, std::string_view why) {
    refuse(table.path, ": the filter cannot be run: \"", trimmed(part), '"', why);
}

void refuseForeignWords(const Table& table, std::string_view filter) {
    constexpr std::string_view kWhy =
        ": \"&\" and \"|\" connect, \"<>\" differs; or try `mira query`";
    const Scan scan{table, filter, withoutQuoted(filter)};
    const std::string_view plain = scan.plain;
    eachWord(
        plain,
        [&](std::string_view word, std::string_view rest) {
            const std::size_t start = plain.size() - rest.size() - word.size();
            if (isForeign(scan, word, start)) refuseFilterPart(table, word, kWhy);
        },
        [](char) {});
    for (std::size_t at = plain.find("!="); at != std::string_view::npos;
         at = plain.find("!=", at + 1)) {
        if (endsWithField(table, filter.substr(0, at))) refuseFilterPart(table, "!=", kWhy);
    }
}

}  // namespace mira::tables
