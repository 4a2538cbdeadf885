// The languages: arithmetic, string functions, expressions over a record, filters.
#include <strings.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "support/reference.h"

namespace test {
namespace {

constexpr std::size_t kArithmetic = 79;     // characters of an arithmetic text
constexpr int kStackSize = 30;              // entries of the parser's stack
constexpr std::size_t kExpansion = 32767;   // characters of an expansion
constexpr std::size_t kCondition = 511;     // of a condition's
constexpr std::size_t kPiece = 1023;        // of a filter between connectives
constexpr std::size_t kConnectives = 1023;  // in a filter
constexpr std::string_view kOperators = "><=~^+-/*()";
constexpr double kInfinity = std::numeric_limits<double>::infinity();

/// Letters from one on, of the alphabet's 26, in the other case.
std::string switched(std::string text, char first) {
    for (char& c : text)
        if (c >= first && c <= first + 25) c = static_cast<char>(c ^ 0x20);
    return text;
}
std::string upper(const std::string& text) { return switched(text, 'a'); }
std::string lower(const std::string& text) { return switched(text, 'A'); }

/// Adding 0 takes the sign from a zero.
double truncated(double x) { return std::trunc(x) + 0.0; }

double rounded(double x) {
    const double up = x + 0.5;
    return up > -2147483649.0 && up < 2147483648.0 ? truncated(up) : std::round(x);
}

/// Longer names before the ones they begin with.
constexpr struct {
    std::string_view name;
    double (*apply)(double);
} kFunctions[] = {{"ABS", std::fabs},
                  {"ACOS", std::acos},
                  {"ASIN", std::asin},
                  {"ATAN", std::atan},
                  {"COSH", std::cosh},
                  {"COS", std::cos},
                  {"EXP", std::exp},
                  {"LOG10", std::log10},
                  {"LOG", std::log},
                  {"POW10", [](double x) { return std::pow(x, 10.0); }},
                  {"ROUND", rounded},
                  {"SINH", std::sinh},
                  {"SIN", std::sin},
                  {"SQRT", std::sqrt},
                  {"SQR", [](double x) { return x * x; }},
                  {"TANH", std::tanh},
                  {"TAN", std::tan},
                  {"TRUNC", truncated}};

/// Descends the grammar and counts the entries that the parser's stack would hold:
///
///   sum      product { ("+" | "-") product }
///   product  power { ("*" | "/") power }
///   power    signed [ "^" power ]
///   signed   [ "-" ] atom
///   atom     number | [ function ] "(" sum ")"
class Arithmetic {
public:
    explicit Arithmetic(std::string_view text) : rest_(text) {}

    std::optional<double> run() {
        const double value = sum();
        return good_ && next() == 0 ? std::optional(value) : std::nullopt;
    }

private:
    char next() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size()));
        return rest_.empty() ? '\0' : rest_[0];
    }
    void push() { good_ = good_ && ++entries_ <= kStackSize; }
    double fail() {
        good_ = false;
        return 0;
    }
    bool take(char c) {
        if (!good_ || next() != c) return false;
        rest_.remove_prefix(1);
        push();
        return true;
    }
    double sum() {
        return chain("+-", [this] { return product(); });
    }
    double product() {
        return chain("*/", [this] { return power(); });
    }
    double chain(std::string_view operators, const std::function<double()>& operand) {
        double value = operand();
        for (;; entries_ -= 2) {
            const char op = next();
            if (operators.find(op) == operators.npos || !take(op)) return value;
            const double right = operand();
            if (op == '+') value += right;
            if (op == '-') value -= right;
            if (op == '*') value *= right;
            if (op == '/') value = right == 0 ? kInfinity : value / right;
            if (op == '/' && value == kInfinity) return fail();
        }
    }
    double power() {
        const double base = signedAtom();
        if (!take('^')) return base;
        const double exponent = power();
        entries_ -= 2;
        return std::pow(base, exponent);
    }
    double signedAtom() {
        if (!take('-')) return atom();
        const double value = atom();
        --entries_;
        return -value;
    }
    double atom() {
        if (take('(')) return inParentheses(0);
        const char c = next();
        if (!good_) return 0;
        if ((c >= '0' && c <= '9') || c == '.') return number();
        for (const auto& [name, apply] : kFunctions) {
            if (!rest_.starts_with(name)) continue;
            rest_.remove_prefix(name.size());
            push();
            return take('(') ? apply(inParentheses(1)) : fail();
        }
        return fail();
    }
    /// After "(", which stands on one entry when it belongs to a function.
    double inParentheses(int below) {
        const double value = sum();
        if (!take(')')) return fail();
        entries_ -= 2 + below;
        return value;
    }
    std::size_t digits(std::size_t from) const {
        const std::size_t end = rest_.find_first_not_of("0123456789", from);
        return std::min(end, rest_.size()) - std::min(from, rest_.size());
    }
    double number() {
        std::size_t n = digits(0);
        if (rest_.substr(n, 1) == ".") n += 1 + digits(n + 1);
        if (rest_.substr(0, n) == ".") return fail();
        if (rest_.substr(n, 1) == "E") {
            ++n;
            if (rest_.substr(n, 1) == "+" || rest_.substr(n, 1) == "-") ++n;
            n += std::min<std::size_t>(digits(n), 3);
        }
        const std::string text(rest_.substr(0, n));
        rest_.remove_prefix(n);
        push();
        return std::strtod(text.c_str(), nullptr);
    }

    std::string_view rest_;
    int entries_ = 1;
    bool good_ = true;
};

/// The parts of an argument: what stands before its first comma, before its second, and the rest.
std::vector<std::string> parts(const std::string& text) {
    const std::size_t first = text.find(','),
                      second = text.find(',', std::min(first, text.size() - 1) + 1);
    if (first == text.npos) return {text};
    if (second == text.npos) return {text.substr(0, first), text.substr(first + 1)};
    return {text.substr(0, first), text.substr(first + 1, second - first - 1),
            text.substr(second + 1)};
}

i64 integer(const std::string& text) {
    return std::clamp<i64>(std::strtoll(text.c_str(), nullptr, 10), -2147483648LL, 2147483647LL);
}

/// Numbers below zero count as large ones.
std::string part(const std::string& text, i64 start, i64 count) {
    if (start < 0 || start > static_cast<i64>(text.size())) return "";
    return text.substr(static_cast<std::size_t>(start),
                       count < 0 ? text.npos : static_cast<std::size_t>(count));
}

std::string substr(const std::string& text) {
    const auto p = parts(text);
    return p.size() == 1 ? text : part(p[0], integer(p[1]), p.size() == 2 ? -1 : integer(p[2]));
}

std::string left(const std::string& text) {
    const auto p = parts(text);
    return p.size() == 1 ? text : part(p[0], 0, integer(p[1]));
}

std::string right(const std::string& text) {
    const auto p = parts(text);
    if (p.size() == 1) return text;
    const auto count = static_cast<std::size_t>(std::max<i64>(integer(p[1]), 0));
    return p[0].substr(p[0].size() - std::min(count, p[0].size()));
}

std::string digitsOfDate(const std::string& text, int format) {
    constexpr std::size_t layouts[4][6] = {
        {0, 4, 6, 8, 10, 12}, {6, 3, 0, 11, 14, 17}, {6, 0, 3, 11, 14, 17}, {0, 5, 8, 11, 14, 17}};
    const bool dotted = format >= 1 && format <= 3, timed = text.size() > 10;
    const auto& places = layouts[dotted ? format : 0];
    if (text.size() < (timed ? places[5] + 2 : dotted ? 10u : 8u)) return text;
    std::string digits;
    for (int i = 0; i < (timed ? 6 : 3); ++i) digits += text.substr(places[i], i == 0 ? 4 : 2);
    return digits;
}

std::string capitalized(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const bool first = out.empty() || out.back() == ' ' || out.back() == '\t';
        out += first ? upper({c}) : lower({c});
    }
    return out;
}

std::string trimmed(std::string text, bool start, bool end) {
    if (end) text.erase(text.find_last_not_of(' ') + 1);
    if (start) text.erase(0, std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

std::string applied(const std::string& function, const std::string& text, int dateFormat) {
    if (function == "TRIM(") return trimmed(text, true, true);
    if (function == "LTRIM(") return trimmed(text, true, false);
    if (function == "RTRIM(") return trimmed(text, false, true);
    if (function == "SUBSTR(") return substr(text);
    if (function == "LEFT(") return left(text);
    if (function == "RIGHT(") return right(text);
    if (function == "DTOS(") return digitsOfDate(text, dateFormat);
    if (function == "UPPER(") return upper(text);
    if (function == "CAP(") return capitalized(text);
    return function == "LOWER(" ? lower(text) : text;
}

/// The opener of a call at a place, empty where there is none.
std::string openerAt(const std::string& text, std::size_t at) {
    for (const char* opener : {"TRIM(", "LTRIM(", "RTRIM(", "SUBSTR(", "LEFT(", "RIGHT(", "DTOS(",
                               "SPACE(", "REPLICATE(", "UPPER(", "LOWER(", "CAP("}) {
        if ((text[at] & ~0x20) != opener[0]) continue;  // which is quicker
        if (strncasecmp(text.c_str() + at, opener, std::strlen(opener)) == 0) return opener;
    }
    return "";
}

bool isWord(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' ||
           static_cast<u8>(c) >= 128;
}

/// The field whose name begins a word at a place, -1 when there is none; and the name's length.
int fieldAt(const DbfBase* h, const std::string& text, std::size_t at, std::size_t* length) {
    std::string name = text.substr(at, 10);
    name.resize(static_cast<std::size_t>(std::find_if_not(name.begin(), name.end(), isWord) -
                                         name.begin()));
    *length = name.size();
    for (int i = 0; i < h->FieldCount; ++i)
        if (((h->Fields[i].Name[0] ^ name[0]) & ~0x20) == 0 &&
            strcasecmp(h->Fields[i].Name, name.c_str()) == 0)
            return i;
    return -1;
}

/// The value of a field as it is written into an expression.
std::string written(const Row& row, int field) {
    const i32 format = std::exchange(row.h->DateFormat, 4);
    const char type = row[field].Type;
    if (type != 'D' && type != 'T' && type != '@') row.h->DateFormat = format;
    std::string value = shown(row, field);
    row.h->DateFormat = format;
    if (isNumeric(row[field])) {
        if (value.find_first_of("0123456789") == value.npos) value += '0';
    } else if (row.h->OemConvert != 0 && row.h->CharToOemCallback != nullptr) {
        row.h->CharToOemCallback(value.data(), value.data(), static_cast<u32>(value.size()));
    } else if (row.h->OemConvert != 0) {
        for (char& c : value) {
            const u8 b = static_cast<u8>(c);
            c = static_cast<char>(b < 0x80   ? b
                                  : b < 0xB0 ? b + 0x30
                                  : b < 0xC0 ? b + 0x40
                                  : b < 0xF0 ? b - 0x40
                                             : b - 0x10);
        }
    }
    return value;
}

/// Runs of blanks count as one where the text would be too long.
std::optional<double> computed(std::string text) {
    const auto areBlanks = [](char a, char b) { return a == ' ' && b == ' '; };
    if (text.size() > kArithmetic)
        text.erase(std::unique(text.begin(), text.end(), areBlanks), text.end());
    return arithmetic(text);
}

std::string folded(DbfBase* h, std::string text) {
    if (h->CaseInsensitive == 0) return text;
    if (h->UpperCaseCallback != nullptr) {
        h->UpperCaseCallback(text.data(), h, 0);
        return text.c_str();
    }
    text = upper(std::move(text));
    for (char& c : text) {
        const u8 b = static_cast<u8>(c);
        if (b >= 0xA0 && b <= 0xAF) c = static_cast<char>(b - 0x20);
        if (b >= 0xE0 && b <= 0xEF) c = static_cast<char>(b - 0x50);
    }
    return text;
}

/// What an operator says where the sides stand in an order: -1, 0 or 1; 2 for none at all.
bool says(const std::string& op, int order) {
    if (op == "=" || op == "==") return order == 0;
    if (op == ">" || op == ">>") return order == 1;
    if (op == "<" || op == "<<") return order == -1;
    if (op == ">=" || op == "=>") return order == 0 || order == 1;
    if (op == "<=" || op == "=<") return order == 0 || order == -1;
    return (op == "<>" || op == "><") && order != 0;
}

bool numbersHold(std::string op, const std::string& left, const std::string& right) {
    const std::optional<double> l = computed(left), r = computed(right);
    if (!l || !r) return false;
    if (op == "~" || op == "^") op = "=";
    if (op == "~<" || op == "~>") op = op.substr(1) + '=';
    return says(op, *l < *r ? -1 : *l > *r ? 1 : *l == *r ? 0 : 2);
}

bool textsHold(const std::string& op, const std::string& left, const std::string& right) {
    if (op == "~") return left.find(right) != left.npos;
    if (op == "^") return left.find(right) == left.npos;
    if (op == "==") return left == right;
    const std::size_t common = std::min(left.size(), right.size());
    const int order = left.substr(0, common).compare(right.substr(0, common));
    return says(op, (order > 0) - (order < 0));
}

i64 surplus(std::string_view text) {
    return std::count(text.begin(), text.end(), '(') - std::count(text.begin(), text.end(), ')');
}

/// Pieces of a filter, with the connective after each, zero after the last.
std::vector<std::pair<std::string, char>> pieces(const std::string& filter) {
    std::vector<std::pair<std::string, char>> all;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= filter.size(); ++i) {
        const char c = i < filter.size() ? filter[i] : '\0';
        if (c != '&' && c != '|' && i != filter.size()) continue;
        all.emplace_back(filter.substr(start, i - start), c);
        start = i + 1;
    }
    return all;
}

/// Where the part of a piece begins that closes groups, or where the part ends that opens them.
std::size_t groupsCut(const std::string& piece, bool closing) {
    std::size_t found = piece.npos;
    i64 depth = 0;
    for (std::size_t k = 0; k < piece.size(); ++k) {
        const std::size_t i = closing ? k : piece.size() - 1 - k;
        if (depth == 0) found = piece.npos;
        if (piece[i] == (closing ? ')' : '(') && found == piece.npos) found = i;
        depth += piece[i] == '(' ? 1 : piece[i] == ')' ? -1 : 0;
    }
    return closing ? found : found + 1;
}

/// Where the condition of a piece begins and ends.
std::pair<std::size_t, std::size_t> conditionIn(const DbfBase* h, const std::string& piece) {
    const i64 open = h->NoBracketCheck != 0 ? 0 : surplus(piece);
    if (open > 0) return {groupsCut(piece, false), piece.size()};
    return {0, open < 0 ? groupsCut(piece, true) : piece.size()};
}

/// The arithmetic text of a filter, whose conditions are answered by a function.
std::string logic(const DbfBase* h, const std::string& filter,
                  const std::function<bool(const std::string&)>& answer) {
    std::string out;
    for (const auto& [piece, connective] : pieces(filter)) {
        const auto [first, end] = conditionIn(h, piece);
        out += piece.substr(0, first) + (answer(piece.substr(first, end - first)) ? '1' : '0');
        out += piece.substr(end);
        if (connective != 0) out += connective == '&' ? '*' : '+';
    }
    return out;
}

}  // namespace

std::optional<double> arithmetic(const std::string& text) {
    const std::string folded = upper(text);
    return text.size() > kArithmetic ? std::nullopt : Arithmetic(folded).run();
}

std::string evaluated(const std::string& text, int dateFormat) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        const std::string opener = openerAt(text, i);
        if (opener.empty()) {
            out += text[i++];
            continue;
        }
        const std::size_t start = i += opener.size();
        for (int depth = 1; i < text.size(); ++i) {
            depth += text[i] == '(' ? 1 : text[i] == ')' ? -1 : 0;
            if (depth == 0) break;
        }
        out += applied(opener, evaluated(text.substr(start, i - start), dateFormat), dateFormat);
        i = std::min(i + 1, text.size());
    }
    return out;
}

std::string balanced(const DbfBase* h, std::string text) {
    if (h->NoBracketCheck == 1) return text;
    i64 left = surplus(text);
    for (; left > 0 && text.starts_with('('); --left) text.erase(0, 1);
    for (; left < 0 && text.ends_with(')'); ++left) text.pop_back();
    return text;
}

Expansion expanded(const Row& row, const std::string& expression) {
    Expansion out;
    char quote = 0;
    bool inWord = false;
    int parts = 0;
    for (std::size_t i = 0, length = 0; i < expression.size(); i += length) {
        const char c = expression[i];
        length = 1;
        if (quote != 0 ? c == quote : c == '"' || c == '\'') {
            quote = quote != 0 ? '\0' : c;
            continue;
        }
        const int field =
            quote != 0 || !isWord(c) || inWord ? -1 : fieldAt(row.h, expression, i, &length);
        if (quote == 0) inWord = isWord(c);
        const bool isSign = field < 0 && quote == 0 && kOperators.find(c) != kOperators.npos;
        if (isSign && !out.operatorAt) out.operatorPlace = i;
        if (!isSign && !out.operatorAt && !(c == ' ' || (c >= '\t' && c <= '\r')))
            out.leftField = parts++ == 0 ? field : -1;
        if (field >= 0) {
            out.text += written(row, field);
            out.numeric = out.numeric || isNumeric(row[field]);
            continue;
        }
        length = 1;
        if (isSign && !out.operatorAt) out.operatorAt = out.text.size();
        out.text += c;
    }
    return out;
}

std::optional<std::string> calculated(const Row& row, const std::string& expression) {
    const Expansion e = expanded(row, expression);
    if (e.text.size() > kExpansion) return std::nullopt;
    if (!e.numeric) return evaluated(balanced(row.h, e.text), row.h->DateFormat);
    const std::optional<double> value = computed(e.text);
    return value ? std::optional(printed("%20.6f", *value)) : std::nullopt;
}

double calculatedValue(const Row& row, const std::string& expression) {
    const Expansion e = expanded(row, expression);
    return e.numeric && e.text.size() <= kExpansion ? computed(e.text).value_or(0.0) : 0.0;
}

bool holds(const Row& row, const std::string& condition) {
    const Expansion e = expanded(row, condition);
    if (!e.operatorAt || e.text.size() > kCondition) return false;
    std::string op = e.text.substr(*e.operatorAt, 1);
    const std::string after = e.text.substr(*e.operatorAt + 1, 1);
    if ("=~><"s.find(op) != op.npos && !after.empty() && "><="s.find(after) != op.npos) op += after;
    const std::string left = balanced(row.h, e.text.substr(0, *e.operatorAt));
    const std::string right = balanced(row.h, e.text.substr(*e.operatorAt + op.size()));
    if (e.numeric) return numbersHold(op, left, right);
    const i32 format = row.h->DateFormat;
    return textsHold(op, evaluated(folded(row.h, left), format),
                     evaluated(folded(row.h, right), format));
}

std::vector<ConditionPlaces> conditionPlaces(const Row& row, const std::string& filter) {
    std::vector<ConditionPlaces> all;
    std::size_t start = 0;
    for (const auto& [piece, connective] : pieces(filter)) {
        const auto [first, end] = conditionIn(row.h, piece);
        const std::string condition = piece.substr(first, end - first);
        const Expansion e = expanded(row, condition);
        const std::size_t sign = e.operatorAt ? e.operatorPlace : condition.size();
        const std::string op = condition.substr(sign, 2);
        const bool two =
            op.size() == 2 && "=~><"s.find(op[0]) != op.npos && "><="s.find(op[1]) != op.npos;
        const std::size_t right = sign + (e.operatorAt ? two ? 2 : 1 : 0);
        const std::size_t at = start + first;
        all.push_back({e.operatorAt ? e.leftField : -1, at + sign, at + right, start + end});
        start += piece.size() + 1;
    }
    return all;
}

bool passes(const Row& row, const std::string& filter) {
    if (row.h->SkipDeleted != 0 && row.bytes[0] == '*') return false;
    if (row.h->NoBracketCheck == 0 && surplus(filter) != 0) return false;
    if (filter.find_first_of("&|") == filter.npos) return holds(row, filter);
    const auto answer = [&](const std::string& condition) { return holds(row, condition); };
    const double value = arithmetic(logic(row.h, filter, answer)).value_or(0.0);
    return !std::isnan(value) && std::trunc(value) != 0;
}

bool isRefused(const DbfBase* h, const std::string& filter) {
    const auto all = pieces(filter);
    if (all.size() > kConnectives + 1) return true;
    for (const auto& [piece, connective] : all)
        if (piece.size() > kPiece) return true;
    if (all.size() == 1 || (h->NoBracketCheck == 0 && surplus(filter) != 0)) return false;
    return logic(h, filter, [](const std::string&) { return true; }).size() > kArithmetic;
}

}  // namespace test
