#include "rows/script.h"

#include <utf8proc.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <memory>

#include "tables/page/escape.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"
#include "tables/value/storage.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

// --------------------------------------------------------------------------------------------
// Names
// --------------------------------------------------------------------------------------------

/// Control characters, bytes that are no UTF-8 and, where names are of letters, what lies beyond
/// the basic plane become "_".
std::string cleanName(std::string_view name, const NameRules& rules) {
    constexpr char32_t kLastBasic = 0xFFFF;
    std::string clean;
    while (!name.empty()) {
        const Utf8Step step = stepUtf8(name);
        const bool control = step.letter < 0x20 || (step.letter >= 0x7F && step.letter < 0xA0);
        const bool fits = step.valid && !control && (!rules.inLetters || step.letter <= kLastBasic);
        const char c = name[0];
        if (!fits) {
            clean += '_';
        } else if (rules.folds && c >= 'A' && c <= 'Z') {
            clean += static_cast<char>(c - 'A' + 'a');
        } else {
            clean += name.substr(0, step.length);
        }
        name.remove_prefix(step.length);
    }
    while (!clean.empty() && clean.back() == ' ') clean.pop_back();
    return clean;
}

/// As much of a name as the server takes, less room for so many ASCII letters.
std::string cutName(std::string_view name, const NameRules& rules, std::size_t room) {
    std::size_t used = room;
    std::size_t end = 0;
    while (end < name.size()) {
        const std::size_t length = stepUtf8(name.substr(end)).length;
        used += rules.inLetters ? 1 : length;
        if (used > rules.length) break;
        end += length;
    }
    return std::string(trimmed(name.substr(0, end)));
}

/// The text in which names are the same that the server takes for the same.
std::string keyOf(std::string name, const NameRules& rules) {
    if (!rules.ignoresMarks) return name;
    for (const auto& [letter, plain] : {std::pair("ß", "s"), std::pair("ı", "i")}) {
        for (std::size_t at = name.find(letter); at != std::string::npos; at = name.find(letter)) {
            name.replace(at, 2, plain);
        }
    }
    utf8proc_uint8_t* folded = nullptr;
    const utf8proc_ssize_t length =
        utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(name.data()),
                     static_cast<utf8proc_ssize_t>(name.size()), &folded,
                     static_cast<utf8proc_option_t>(UTF8PROC_CASEFOLD | UTF8PROC_STABLE |
                                                    UTF8PROC_DECOMPOSE | UTF8PROC_STRIPMARK));
    const std::unique_ptr<utf8proc_uint8_t, decltype(&std::free)> owner(folded, std::free);
    if (length < 0) return foldCase(name);
    return {reinterpret_cast<const char*>(folded), static_cast<std::size_t>(length)};
}

// --------------------------------------------------------------------------------------------
// Digits
// --------------------------------------------------------------------------------------------

constexpr i64 kMostExponent = 1000000;               // beyond what any server holds
constexpr u32 kMostDigits = 65, kMostFraction = 30;  // that every server holds

/// The exponent of a number, within bounds, behind its "e".
i64 exponentOf(std::string_view text) {
    takeOneOf(&text, "+");
    i64 exponent = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), exponent);
    if (result.ec == std::errc::result_out_of_range) {
        return text.front() == '-' ? -kMostExponent : kMostExponent;
    }
    return std::clamp(exponent, -kMostExponent, kMostExponent);
}

void addNeed(DigitsNeed& need, std::string_view number) {
    takeOneOf(&number, "+-");
    const std::size_t end = std::min(number.find_first_of("eE"), number.size());
    const std::string_view mantissa = number.substr(0, end);
    const std::size_t point = std::min(mantissa.find('.'), end);
    const bool isZero = mantissa.find_first_not_of("0.") == std::string_view::npos;
    const std::size_t zeros = std::min(mantissa.find_first_not_of('0'), point);
    const i64 exponent = end == number.size() || isZero ? 0 : exponentOf(number.substr(end + 1));
    const i64 whole = static_cast<i64>(point - zeros) + exponent;
    const i64 fraction = static_cast<i64>(point == end ? 0 : end - point - 1) - exponent;
    need.whole = std::max(need.whole, static_cast<std::size_t>(std::max<i64>(whole, 0)));
    need.fraction = std::max(need.fraction, static_cast<std::size_t>(std::max<i64>(fraction, 0)));
    if (point != end || end != number.size()) need.plain = false;
}

/// Whether a stored number is as its field is declared: what nearly all of them are. Of fields that
/// some server has no type for, every number counts.
bool isAsDeclared(const char* stored, const Column& column) {
    if (column.length > kMostDigits || column.decimals > kMostFraction) return false;
    if (column.decimals != 0) {
        const std::size_t behind = column.decimals + std::size_t{1};
        if (behind > column.length || stored[column.length - behind] != '.') return false;
    }
    // Of what numbers are made of only the "e" has this bit; and without decimals a point counts.
    unsigned bits = 0;
    bool point = false;
    for (u32 i = 0; i < column.length; ++i) {
        bits |= static_cast<u8>(stored[i]);
        point |= stored[i] == '.';
    }
    return (bits & 0x40) == 0 && (column.decimals != 0 || !point);
}

/// How wide the numbers of a table are that are not as their fields are declared. All records are
/// looked at, whichever of them are selected.
std::vector<DigitsNeed> measure(const Table& table, const std::vector<Heading>& headings) {
    constexpr u32 kBlock = 1 << 18;
    const DbfHeader& header = table.base->Header;
    std::vector<DigitsNeed> needs(headings.size());
    std::vector<std::pair<const Column*, DigitsNeed*>> columns;
    for (std::size_t i = 0; i < headings.size(); ++i) {
        const Column* const column = headings[i].column;
        if (column == nullptr || column->kind != Kind::Decimal) continue;
        if (column->offset + column->length > header.RecordLength) continue;
        columns.emplace_back(column, &needs[i]);
    }
    if (columns.empty() || header.RecordLength == 0) return needs;
    const u32 atOnce = std::max<u32>(kBlock / header.RecordLength, 1);
    std::string records(std::size_t{atOnce} * header.RecordLength, '\0');
    for (u32 first = 0; first < header.RecordCount;) {
        leaveIfStopped();
        const u32 got =
            readRecords(table, first, std::min(atOnce, header.RecordCount - first), records.data());
        if (got == 0) break;
        for (std::size_t i = 0; i < got; ++i) {
            const char* const record = records.data() + i * header.RecordLength;
            for (const auto& [column, need] : columns) {
                const char* const stored = record + column->offset;
                if (isAsDeclared(stored, *column)) continue;
                const std::string_view number =
                    trimmed({stored, column->length}, std::string_view(" \0", 2));
                if (isNumber(number)) addNeed(*need, number);
            }
        }
        first += got;
    }
    return needs;
}

}  // namespace

DecimalSize decimalSize(const Column& column, const DigitsNeed& need) {
    const std::size_t decimals = column.decimals;
    const std::size_t length = std::max<std::size_t>(column.length, decimals + 1);
    if (decimals == 0 && need.plain) return {length, 0, true};
    if (need.whole <= length - decimals && need.fraction <= decimals) {
        return {length, decimals, false};
    }
    const std::size_t scale = std::max(decimals, need.fraction);
    return {scale + std::max(length - decimals, need.whole), scale, false};
}

std::string wholeType(const DecimalSize& size) {
    constexpr std::size_t kInteger = 9, kBigint = 18;  // digits that 32 and 64 bits always hold
    if (!size.whole || size.precision > kBigint) return "";
    return size.precision <= kInteger ? "integer" : "bigint";
}

std::string ScriptWriter::fitting(std::string wanted, std::set<std::string>& taken) const {
    wanted = cutName(cleanName(wanted, rules_), rules_, 0);
    if (wanted.empty()) wanted = "_";
    for (std::size_t n = 1;; ++n) {
        const std::string suffix = n == 1 ? "" : textOf('_', n);
        std::string name = cutName(wanted, rules_, suffix.size()) + suffix;
        const bool reserved = &taken != &names_ && rules_.reserved.contains(name);
        if (!reserved && taken.insert(keyOf(name, rules_)).second) return name;
    }
}

const ServerTable& ScriptWriter::create(const std::string& wanted,
                                        const std::vector<Heading>& headings, const Table* table) {
    if (headings.size() > rules_.columns) {
        refuse(table != nullptr ? table->path : wanted, ": has ", headings.size(),
               " columns, a table of ", rules_.server, " at most ", rules_.columns,
               "; -f A,B,... takes some of them");
    }
    std::vector<DigitsNeed> needs;
    if (table != nullptr) needs = measure(*table, headings);
    ServerTable made;
    std::set<std::string> taken;
    for (std::size_t i = 0; i < headings.size(); ++i) {
        made.columns.push_back(columnOf({headings[i].column, needs.empty() ? nullptr : &needs[i]}));
        made.columns.back().name = fitting(headings[i].name, taken);
    }
    made.name = fitting(wanted, names_);
    if (tables_.empty() && !options_.schema) putStart();
    settle(made.columns);
    if (options_.replace) out_.put(textOf("DROP TABLE IF EXISTS ", quoted(made.name), ";\n"));
    out_.put(textOf("CREATE TABLE ", quoted(made.name), " (\n"));
    for (const ServerColumn& column : made.columns) {
        const bool last = &column == &made.columns.back();
        out_.put(textOf("  ", quoted(column.name), ' ', column.type, last ? "\n)" : ",\n"));
    }
    out_.put(tableEnd());
    return tables_.emplace_back(std::move(made));
}

void ScriptWriter::beginRows() {
    if (next_ == 0) out_.put(beforeAllRows());
    if (table_ != nullptr) putAfterRows();
    table_ = &tables_[next_++];
    putBeforeRows(*table_);
}

void ScriptWriter::end() {
    if (table_ != nullptr) putAfterRows();
    if (!options_.schema) out_.put("COMMIT;\n");
}

std::string ScriptWriter::quoted(std::string_view name) const {
    const std::string text = quotedBy(rules_.quote, name);
    return out_.isTerminal() ? escaped(text) : text;
}

std::string ScriptWriter::columnList(const ServerTable& table) const {
    std::vector<std::string> names;
    names.reserve(table.columns.size());
    for (const ServerColumn& column : table.columns) names.push_back(quoted(column.name));
    return textOf('(', joined(names), ')');
}

bool ScriptWriter::copyPlain(std::string_view text, std::string_view before,
                             std::string_view after) {
    const std::size_t size = before.size() + text.size() + after.size();
    if (size > Output::kRoom) return false;
    char* to = std::copy(before.begin(), before.end(), out_.room(size));
    for (const char c : text) {
        if (isSpecial(c)) return false;
        *to++ = c;
    }
    std::copy(after.begin(), after.end(), to);
    out_.taken(size);
    return true;
}

void ScriptWriter::putHex(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    for (const char c : bytes) {
        out_.put(kDigits[static_cast<u8>(c) >> 4]);
        out_.put(kDigits[static_cast<u8>(c) & 15]);
    }
}

}  // namespace mira::tool
