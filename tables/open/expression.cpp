// Expressions and filters on their way into the library: names become those that it finds, texts go
// into the table's code page.
#include <algorithm>
#include <array>

#include "tables/column/column.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr std::string_view kSigns = "&|()'\"<>=~^+-*/";
constexpr std::size_t kExpansionSize = 32768;  // what makecalcstring may write
constexpr std::array<std::string_view, 30> kFunctions = {
    "trim",  "ltrim",     "rtrim", "substr", "left", "right", "upper", "lower", "cap",   "dtos",
    "space", "replicate", "abs",   "sqr",    "sqrt", "exp",   "log",   "log10", "pow10", "round",
    "trunc", "sin",       "cos",   "tan",    "asin", "acos",  "atan",  "sinh",  "cosh",  "tanh"};

/// Calls word(text, what follows) for every word outside quotes and other(c) for all else.
template <typename Word, typename Other>
void eachWord(std::string_view text, Word word, Other other) {
    char quote = 0;
    for (std::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (quote == 0 && isWordByte(c)) {
            const auto end = std::find_if_not(text.begin() + static_cast<std::ptrdiff_t>(i),
                                              text.end(), isWordByte);
            const auto stop = static_cast<std::size_t>(end - text.begin());
            word(text.substr(i, stop - i), text.substr(stop));
            i = stop;
            continue;
        }
        if (quote == c) {
            quote = 0;
        } else if (quote == 0 && (c == '"' || c == '\'')) {
            quote = c;
        }
        other(c);
        ++i;
    }
}

auto signCount(std::string_view text) {
    return std::count_if(text.begin(), text.end(),
                         [](char c) { return kSigns.find(c) != std::string_view::npos; });
}

/// A column whose name is the word, no number.
const Column* columnOfWord(const Table& table, std::string_view word) {
    const Column* const column = findColumn(table, word);
    return column != nullptr && sameText(column->name, word) ? column : nullptr;
}

/// Appends UTF-8 in the table's page. A sign of the language inside a character of several bytes
/// would be taken for the sign.
void putInPage(const Table& table, std::string_view utf8, std::string& out) {
    const std::size_t start = out.size();
    std::string bad;
    if (!fromUtf8(*table.page.page, utf8, out, &bad)) {
        refuse(table.path, ": \"", bad, "\" does not exist in its code page ",
               pageName(*table.page.page));
    }
    if (signCount(std::string_view(out).substr(start)) != signCount(utf8)) {
        refuse(table.path, ": \"", utf8, "\" cannot stand in a filter in ",
               pageName(*table.page.page), "; try `mira query`");
    }
}

bool startsCall(std::string_view word, std::string_view rest) {
    return !rest.empty() && rest.front() == '(' &&
           std::find(kFunctions.begin(), kFunctions.end(), foldCase(word)) != kFunctions.end();
}

void refuseUnknownWords(const Table& table, std::string_view name, std::string_view expression) {
    eachWord(
        expression,
        [&](std::string_view word, std::string_view rest) {
            if (isDigit(word.front())) return;
            if (const Column* column = columnOfWord(table, word)) {
                if (column->kind != Kind::Calculated) return;
                refuse(table.path, ": --calc ", name, ": ", column->name,
                       " is a calculated field; expressions know those of the table only");
            }
            if (startsCall(word, rest)) return;
            std::vector<std::string> names(kFunctions.begin(), kFunctions.end());
            for (const Column& column : table.columns) names.push_back(column.name);
            const std::string nearest = nearestName(word, names);
            refuse(table.path, ": --calc ", name, ": no field \"", word, "\"",
                   nearest.empty() ? "" : ", did you mean " + nearest + "?",
                   " (text stands in quotes)");
        },
        [](char) {});
}

}  // namespace

std::string forLibrary(const Table& table, std::string_view expression) {
    std::string out;
    eachWord(
        expression,
        [&](std::string_view word, std::string_view) {
            if (const Column* column = columnOfWord(table, word)) {
                out += libraryName(table, *column);
            } else {
                putInPage(table, word, out);
            }
        },
        [&](char c) { out += c; });
    return out;
}

void addCalculated(Table& table, std::string_view name, std::string_view expression) {
    if (name.empty() || expression.empty()) {
        refuse("--calc needs NAME=EXPRESSION, such as TOTAL=PRICE*QTY");
    }
    if (columnOfWord(table, name) != nullptr) {
        refuse(table.path, ": --calc ", name, ": there is such a field");
    }
    refuseUnknownWords(table, name, expression);
    DbfBase* const base = table.base.get();
    if (base->CalcFields == nullptr && GetMemCalcField(base) == 0) throw std::bad_alloc();
    const std::string text = forLibrary(table, expression);
    const std::string inner = textOf("_C", base->CalcFields->Count + 1);
    if (AddCalcField(base, inner.c_str(), text.c_str()) == 0) throw std::bad_alloc();
    Column column;
    column.name = name;
    column.kind = Kind::Calculated;
    column.field = GetCalcI(base, inner.c_str());
    int numeric = 0;
    const auto expansion = std::make_unique<char[]>(kExpansionSize);
    makecalcstring(base, text.c_str(), expansion.get(), &numeric);
    column.numeric = numeric != 0;
    table.columns.push_back(column);
}

}  // namespace mira::tables
