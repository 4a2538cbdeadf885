// Expressions and filters on their way into the library: names become those that it finds, texts go
// into the table's code page.
#include <algorithm>

#include "tables/column/column.h"
#include "tables/open/open.h"
#include "tables/open/words.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr std::string_view kOtherSigns = "&|()'\"+-*/";
constexpr std::size_t kExpansionSize = 32768;  // what makecalcstring may write
auto signCount(std::string_view text) {
    return std::count_if(text.begin(), text.end(), [](char c) {
        return kOtherSigns.find(c) != std::string_view::npos ||
               comparingSigns().find(c) != std::string_view::npos;
    });
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

/// Whether the library would take a word, or its beginning, for a field.
bool isTakenForField(const Table& table, std::string_view word) {
    constexpr std::size_t kNameInExpression = 10;
    const std::string name(word.substr(0, kNameInExpression));
    return GetFieldNum(table.base.get(), name.c_str()) < table.base->FieldCount;
}

/// An expression with whole numbers from one on in place of its columns. False for a column that
/// may not be there.
bool putSamples(const Table& table, std::string_view expression, bool anyColumn, unsigned first,
                std::string& out) {
    std::vector<const Column*> met;
    bool allowed = true;
    eachWord(
        expression,
        [&](std::string_view word, std::string_view) {
            const Column* const column = columnOfWord(table, word);
            if (column == nullptr) {
                out += word;
                return;
            }
            allowed = allowed && (anyColumn || isOfNumbers(*column));
            const auto place = std::find(met.begin(), met.end(), column) - met.begin();
            if (static_cast<std::size_t>(place) == met.size()) met.push_back(column);
            out += std::to_string(first + static_cast<unsigned>(place));
        },
        [&](char c) {
            const bool quote = c == '"' || c == '\'';
            if (!quote && !(c == ' ' && out.ends_with(' '))) out += c;
        });
    return allowed;
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
            std::vector<std::string> names;
            for (const Column& column : table.columns) names.push_back(column.name);
            const std::string nearest = nearestName(word, names);
            refuse(table.path, ": --calc ", name, ": no field \"", word, "\"",
                   nearest.empty() ? "" : ", did you mean " + nearest + "?",
                   " (text stands in quotes)");
        },
        [](char) {});
}

}  // namespace

const Column* columnOfWord(const Table& table, std::string_view word) {
    const Column* const column = findColumn(table, word);
    return column != nullptr && sameText(column->name, word) ? column : nullptr;
}

bool startsCall(std::string_view word, std::string_view rest) {
    return !rest.empty() && rest.front() == '(' && IsFunction(std::string(word).c_str()) != 0;
}

bool isComputable(const Table& table, std::string_view expression, bool anyColumn) {
    // What divides by zero with one set of numbers hardly does so with the other.
    for (const unsigned first : {2U, 31U}) {
        std::string sample;
        if (!putSamples(table, expression, anyColumn, first, sample)) return false;
        int status = 1;
        Evaluate(sample.data(), &status);
        if (status != 0) return true;
    }
    return false;
}

std::string forLibrary(const Table& table, std::string_view expression) {
    std::string out, between;
    const auto putBetween = [&] {  // texts in quotes, too
        putInPage(table, between, out);
        between.clear();
    };
    eachWord(
        expression,
        [&](std::string_view word, std::string_view) {
            putBetween();
            if (const Column* column = columnOfWord(table, word)) {
                out += libraryName(table, *column);
                return;
            }
            const std::size_t start = out.size();
            putInPage(table, word, out);
            if (isTakenForField(table, std::string_view(out).substr(start))) {
                out.insert(start, 1, '"');
                out += '"';
            }
        },
        [&](char c) { between += c; });
    putBetween();
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
    if (column.numeric && !isComputable(table, expression, true)) {
        refuse(table.path, ": --calc ", name, ": \"", expression, "\" cannot be computed");
    }
    table.columns.push_back(column);
}

}  // namespace mira::tables
