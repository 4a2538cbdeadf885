// The functions and operators of index expressions. An operator is a function whose name is its
// sign.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <span>

#include "tables/index/node.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables::index {
namespace {

constexpr u32 kLongestText = 254;
constexpr u32 kDateLength = 8;

// --------------------------------------------------------------------------------------------
// Shapes: which arguments a function takes, what it gives and how long that is
// --------------------------------------------------------------------------------------------

const char* typeName(KeyType type) {
    constexpr const char* kNames[] = {"text", "number", "date", "moment", "logical"};
    return kNames[static_cast<std::size_t>(type)];
}

void want(const Node& node, std::size_t argument, KeyType type) {
    if (argument >= node.arguments.size()) return;
    const KeyType given = node.arguments[argument]->type;
    if (given == type || (type == KeyType::Date && given == KeyType::Moment)) return;
    throw NotComputed(textOf(node.function->name, " of a ", typeName(given)));
}

u32 lengthOf(const Node& node, std::size_t argument) { return node.arguments[argument]->length; }

/// A length that is given as a number and nothing else.
u32 literalLength(const Node& node, std::size_t argument) {
    want(node, argument, KeyType::Number);
    const Node& given = *node.arguments[argument];
    if (given.operation != Operation::Literal || !(given.literal.number >= 0) ||
        given.literal.number > kLongestText) {
        throw NotComputed(textOf(node.function->name, " of a length that is no number"));
    }
    return static_cast<u32>(given.literal.number);
}

void asText(Node& node, u32 length) {
    node.type = KeyType::Text;
    node.length = length;
}

void shapeText(Node& node, const Dialect&) {
    want(node, 0, KeyType::Text);
    asText(node, lengthOf(node, 0));
}

void shapeLeft(Node& node, const Dialect&) {
    want(node, 0, KeyType::Text);
    asText(node, std::min(literalLength(node, 1), lengthOf(node, 0)));
}

void shapeSubstr(Node& node, const Dialect&) {
    want(node, 0, KeyType::Text);
    const u32 first = std::max(literalLength(node, 1), 1U) - 1;
    const u32 left = lengthOf(node, 0) - std::min(first, lengthOf(node, 0));
    asText(node, node.arguments.size() < 3 ? left : std::min(left, literalLength(node, 2)));
}

void shapePad(Node& node, const Dialect&) {
    want(node, 0, KeyType::Text);
    want(node, 2, KeyType::Text);
    asText(node, literalLength(node, 1));
}

void shapeStr(Node& node, const Dialect& dialect) {
    want(node, 0, KeyType::Number);
    const Node& number = *node.arguments[0];
    const bool fieldWidth = dialect.strWidth == 0 && number.operation == Operation::Field;
    node.decimals = fieldWidth ? number.decimals : 0;
    const u32 plain = fieldWidth ? number.length : dialect.strWidth == 0 ? 10 : dialect.strWidth;
    if (node.arguments.size() > 2) node.decimals = literalLength(node, 2);
    asText(node, node.arguments.size() > 1 ? literalLength(node, 1) : plain);
}

void shapeDtos(Node& node, const Dialect&) {
    want(node, 0, KeyType::Date);
    asText(node, kDateLength);
}

/// DTOC with 1 as second argument is DTOS; without it depends on a setting of the program.
void shapeDtoc(Node& node, const Dialect& dialect) {
    if (node.arguments.size() < 2 || literalLength(node, 1) != 1) {
        throw NotComputed("DTOC follows the program's setting of dates");
    }
    shapeDtos(node, dialect);
}

void shapeFill(Node& node, const Dialect&) {
    if (node.arguments.size() == 2) want(node, 0, KeyType::Text);
    const std::size_t last = node.arguments.size() - 1;
    const u32 once = last == 0 ? 1 : lengthOf(node, 0);
    asText(node, std::min(once * literalLength(node, last), kLongestText));
}

void shapeChr(Node& node, const Dialect&) {
    want(node, 0, KeyType::Number);
    asText(node, 1);
}

template <KeyType Argument, KeyType Result>
void shapeAll(Node& node, const Dialect&) {
    for (std::size_t i = 0; i < node.arguments.size(); ++i) want(node, i, Argument);
    node.type = Result;
}

template <KeyType Result>
void shapeAny(Node& node, const Dialect&) {
    node.type = Result;
}

void shapeIif(Node& node, const Dialect&) {
    want(node, 0, KeyType::Logical);
    want(node, 2, node.arguments[1]->type);
    node.type = node.arguments[1]->type;
    node.length = std::max(lengthOf(node, 1), lengthOf(node, 2));
}

bool isDay(KeyType type) { return type == KeyType::Date || type == KeyType::Moment; }

/// Texts are joined, numbers added, days counted on.
void shapeSum(Node& node, const Dialect&) {
    const KeyType left = node.arguments[0]->type, right = node.arguments[1]->type;
    const bool minus = node.function->name == "-";
    if (left == KeyType::Text) {
        want(node, 1, KeyType::Text);
        return asText(node, std::min(lengthOf(node, 0) + lengthOf(node, 1), kLongestText));
    }
    if (left == KeyType::Logical) want(node, 0, KeyType::Number);
    node.type = left;
    if (minus && isDay(left) && isDay(right)) {
        node.type = KeyType::Number;
    } else if (!minus && left == KeyType::Number && isDay(right)) {
        node.type = right;
    } else {
        want(node, 1, KeyType::Number);
    }
}

void shapeComparison(Node& node, const Dialect&) {
    const KeyType left = node.arguments[0]->type, right = node.arguments[1]->type;
    if (!(isDay(left) && isDay(right))) want(node, 1, left);
    if (node.function->name == "$") want(node, 0, KeyType::Text);
    node.type = KeyType::Logical;
}

// --------------------------------------------------------------------------------------------
// Values
// --------------------------------------------------------------------------------------------

/// The value of an argument; a null makes the whole a null.
KeyValue argument(const Scene& scene, const Node& node, std::size_t number, KeyValue& result) {
    KeyValue value;
    compute(scene, *node.arguments[number], value);
    result.isNull = result.isNull || value.isNull;
    return value;
}

std::size_t countOf(double number) {
    return number >= 1 ? static_cast<std::size_t>(std::min<double>(number, kLongestText)) : 0;
}

void foldText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    foldCase(*scene.table.page.page, std::span<char>(value.text));
}

/// Small letters, where the page has one byte a letter: the byte whose capital it is.
void lowerText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    const CodePage& page = *scene.table.page.page;
    if (page.kind != CodePage::Kind::SingleByte)
        throw NotComputed("LOWER in a multi-byte code page");
    for (char& letter : value.text) {
        const auto capital = static_cast<u8>(letter);
        for (unsigned small = 0; small < page.upper.size(); ++small) {
            if (page.upper[small] != capital || small == capital) continue;
            letter = static_cast<char>(small);
            break;
        }
    }
}

void trimText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    const std::string_view name = node.function->name;
    std::string_view text = value.text;
    if (name != "LTRIM") text = text.substr(0, text.find_last_not_of(' ') + 1);
    if (name == "LTRIM" || name == "ALLTRIM") {
        text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    }
    value.text = std::string(text);
}

void leftText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    value.text.resize(std::min(value.text.size(), countOf(argument(scene, node, 1, value).number)));
}

void rightText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    const std::size_t count = countOf(argument(scene, node, 1, value).number);
    if (count < value.text.size()) value.text.erase(0, value.text.size() - count);
}

void substrText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    const std::size_t first =
        std::max<std::size_t>(countOf(argument(scene, node, 1, value).number), 1);
    value.text.erase(0, std::min(first - 1, value.text.size()));
    if (node.arguments.size() < 3) return;
    const std::size_t count = countOf(argument(scene, node, 2, value).number);
    value.text.resize(std::min(value.text.size(), count));
}

void padText(const Scene& scene, const Node& node, KeyValue& value) {
    compute(scene, *node.arguments[0], value);
    const std::size_t width = node.length;
    const std::string filler =
        node.arguments.size() < 3 ? " " : argument(scene, node, 2, value).text;
    const char with = filler.empty() ? ' ' : filler[0];
    if (value.text.size() >= width) return value.text.resize(width);
    const std::size_t lacks = width - value.text.size();
    const std::string_view name = node.function->name;
    const std::size_t before = name == "PADL" ? lacks : name == "PADC" ? lacks / 2 : 0;
    value.text.insert(0, before, with);
    value.text.resize(width, with);
}

/// Half away from zero, where printf would take the even digit.
double rounded(double number, double decimals) {
    constexpr double kExact = 9007199254740992;  // beyond it doubles are whole
    const double power = std::pow(10.0, decimals);
    return std::fabs(number * power) < kExact ? std::round(number * power) / power : number;
}

/// A number that does not fit is shown with fewer decimals, and then as asterisks.
std::string printed(double value, std::size_t width, u32 decimals) {
    char digits[400];
    for (u32 shown = decimals + 1; shown-- > 0;) {
        const double number = rounded(value, shown);
        const int length =
            std::snprintf(digits, sizeof digits, "%.*f", static_cast<int>(shown), number);
        const auto size = static_cast<std::size_t>(length);
        if (length >= 0 && size <= width && size < sizeof digits) {
            return std::string(width - size, ' ') + digits;
        }
    }
    return std::string(width, '*');
}

void strText(const Scene& scene, const Node& node, KeyValue& value) {
    const double number = argument(scene, node, 0, value).number;
    value.text = printed(number, node.length, node.decimals);
    if (node.function->name == "STRZERO") {
        const std::size_t digits = std::min(value.text.find_first_not_of(' '), value.text.size());
        std::fill_n(value.text.begin(), digits, '0');
        const std::size_t minus = value.text.find('-');
        if (minus != std::string::npos) std::swap(value.text[0], value.text[minus]);
    }
}

struct Date {
    int year = 0, month = 0, day = 0;
};

/// False for a day outside the years 0 to 9999.
bool dateOf(double day, Date& date) {
    constexpr double kMost = 0x7FFFFFFF;
    return day >= 0 && day < kMost &&
           GetDayDate(static_cast<i32>(day), &date.year, &date.month, &date.day) != 0;
}

void dtosText(const Scene& scene, const Node& node, KeyValue& value) {
    const double day = argument(scene, node, 0, value).number;
    value.text.assign(kDateLength, ' ');
    Date date;
    if (!dateOf(day, date)) return;
    char digits[48];
    std::snprintf(digits, sizeof digits, "%04d%02d%02d", date.year, date.month, date.day);
    value.text = digits;
}

void dayPart(const Scene& scene, const Node& node, KeyValue& value) {
    const double day = argument(scene, node, 0, value).number;
    Date date;
    dateOf(day, date);
    const std::string_view part = node.function->name;
    value.number = part == "YEAR" ? date.year : part == "MONTH" ? date.month : date.day;
}

void fillText(const Scene& scene, const Node& node, KeyValue& value) {
    const std::size_t last = node.arguments.size() - 1;
    const std::string piece = last == 0 ? " " : argument(scene, node, 0, value).text;
    value.text.clear();
    for (std::size_t i = countOf(argument(scene, node, last, value).number); i-- > 0;) {
        if (value.text.size() < node.length) value.text += piece;
    }
}

void chrText(const Scene& scene, const Node& node, KeyValue& value) {
    const double code = argument(scene, node, 0, value).number;
    value.text.assign(1, code >= 0 && code < 256 ? static_cast<char>(static_cast<int>(code)) : ' ');
}

void valNumber(const Scene& scene, const Node& node, KeyValue& value) {
    const std::string text = argument(scene, node, 0, value).text;
    const std::string_view digits = trimmed(text);
    const std::size_t end = std::min(digits.find_first_not_of("+-.0123456789"), digits.size());
    value.number = isNumber(digits.substr(0, end)) ? toReal(digits.substr(0, end)) : 0;
}

void lenNumber(const Scene& scene, const Node& node, KeyValue& value) {
    value.number = static_cast<double>(argument(scene, node, 0, value).text.size());
}

void oneNumber(const Scene& scene, const Node& node, KeyValue& value) {
    const double number = argument(scene, node, 0, value).number;
    const std::string_view name = node.function->name;
    value.number = name == "INT" ? std::trunc(number) : name == "ABS" ? std::fabs(number) : -number;
}

void roundNumber(const Scene& scene, const Node& node, KeyValue& value) {
    const double number = argument(scene, node, 0, value).number;
    value.number = rounded(number, std::trunc(argument(scene, node, 1, value).number));
}

void iifValue(const Scene& scene, const Node& node, KeyValue& value) {
    KeyValue condition;
    compute(scene, *node.arguments[0], condition);
    compute(scene, *node.arguments[condition.truth && !condition.isNull ? 1 : 2], value);
}

void emptyTruth(const Scene& scene, const Node& node, KeyValue& value) {
    const KeyValue given = argument(scene, node, 0, value);
    value.truth = given.type == KeyType::Text      ? trimmed(given.text).empty()
                  : given.type == KeyType::Logical ? !given.truth
                                                   : given.number == 0;
}

void nullTruth(const Scene& scene, const Node& node, KeyValue& value) {
    KeyValue given;
    compute(scene, *node.arguments[0], given);
    value.truth = given.isNull;
}

void deletedTruth(const Scene& scene, const Node&, KeyValue& value) {
    value.truth = isDeleted(scene.table);
}

void recordNumber(const Scene& scene, const Node&, KeyValue& value) { value.number = scene.record; }

/// "-" between texts moves the blanks at the end of the left one behind the right one.
std::string joinedTexts(std::string left, const std::string& right, bool minus) {
    if (!minus) return left + right;
    const std::size_t size = left.find_last_not_of(' ') + 1;
    const std::size_t blanks = left.size() - size;
    return left.substr(0, size) + right + std::string(blanks, ' ');
}

void sumValue(const Scene& scene, const Node& node, KeyValue& value) {
    const KeyValue left = argument(scene, node, 0, value), right = argument(scene, node, 1, value);
    const bool minus = node.function->name == "-";
    if (node.type == KeyType::Text) {
        value.text = joinedTexts(left.text, right.text, minus);
    } else {
        value.number = minus ? left.number - right.number : left.number + right.number;
    }
}

void productNumber(const Scene& scene, const Node& node, KeyValue& value) {
    const double left = argument(scene, node, 0, value).number;
    const double right = argument(scene, node, 1, value).number;
    const std::string_view sign = node.function->name;
    value.number = sign == "*"    ? left * right
                   : sign == "**" ? std::pow(left, right)
                   : sign == "/"  ? (right == 0 ? 0 : left / right)
                                  : (right == 0 ? 0 : left - right * std::floor(left / right));
}

/// Texts: "=" compares as far as the right one goes, all others with blanks behind the shorter one.
int compareTexts(std::string_view sign, std::string left, std::string right) {
    if (sign == "=" || sign == "<>" || sign == "!=" || sign == "#") {
        left.resize(std::min(left.size(), right.size()));
        return left.compare(right);
    }
    const std::size_t size = std::max(left.size(), right.size());
    left.resize(size, ' ');
    right.resize(size, ' ');
    return left.compare(right);
}

void compareTruth(const Scene& scene, const Node& node, KeyValue& value) {
    const KeyValue left = argument(scene, node, 0, value), right = argument(scene, node, 1, value);
    const std::string_view sign = node.function->name;
    if (sign == "$") {
        value.truth = right.text.find(left.text) != std::string::npos;
        return;
    }
    const int order = left.type == KeyType::Text ? compareTexts(sign, left.text, right.text)
                      : left.type == KeyType::Logical
                          ? left.truth - right.truth
                          : (left.number > right.number) - (left.number < right.number);
    const bool equal =
        sign != "<>" && sign != "!=" && sign != "#" && sign.find('=') != std::string_view::npos;
    const bool less = sign.find('<') != std::string_view::npos || sign == "!=" || sign == "#";
    const bool greater = sign.find('>') != std::string_view::npos || sign == "!=" || sign == "#";
    value.truth = (order == 0 && equal) || (order < 0 && less) || (order > 0 && greater);
}

void connectTruth(const Scene& scene, const Node& node, KeyValue& value) {
    const bool left = argument(scene, node, 0, value).truth;
    const bool right = argument(scene, node, 1, value).truth;
    value.truth = node.function->name == ".AND." ? left && right : left || right;
}

void notTruth(const Scene& scene, const Node& node, KeyValue& value) {
    value.truth = !argument(scene, node, 0, value).truth;
}

constexpr auto kNumbers = shapeAll<KeyType::Number, KeyType::Number>;
constexpr auto kTruths = shapeAll<KeyType::Logical, KeyType::Logical>;

constexpr Function kFunctions[] = {
    {"UPPER", 1, 1, shapeText, foldText},
    {"LOWER", 1, 1, shapeText, lowerText},
    {"ALLTRIM", 1, 1, shapeText, trimText},
    {"TRIM", 1, 1, shapeText, trimText},
    {"RTRIM", 1, 1, shapeText, trimText},
    {"LTRIM", 1, 1, shapeText, trimText},
    {"LEFT", 2, 2, shapeLeft, leftText},
    {"RIGHT", 2, 2, shapeLeft, rightText},
    {"SUBSTR", 2, 3, shapeSubstr, substrText},
    {"PADL", 2, 3, shapePad, padText},
    {"PADR", 2, 3, shapePad, padText},
    {"PADC", 2, 3, shapePad, padText},
    {"STR", 1, 3, shapeStr, strText},
    {"STRZERO", 2, 3, shapeStr, strText},
    {"DTOS", 1, 1, shapeDtos, dtosText},
    {"DTOC", 1, 2, shapeDtoc, dtosText},
    {"SPACE", 1, 1, shapeFill, fillText},
    {"REPLICATE", 2, 2, shapeFill, fillText},
    {"CHR", 1, 1, shapeChr, chrText},
    {"VAL", 1, 1, shapeAll<KeyType::Text, KeyType::Number>, valNumber},
    {"LEN", 1, 1, shapeAll<KeyType::Text, KeyType::Number>, lenNumber},
    {"INT", 1, 1, kNumbers, oneNumber},
    {"ABS", 1, 1, kNumbers, oneNumber},
    {"ROUND", 2, 2, kNumbers, roundNumber},
    {"MOD", 2, 2, kNumbers, productNumber},
    {"YEAR", 1, 1, shapeAll<KeyType::Date, KeyType::Number>, dayPart},
    {"MONTH", 1, 1, shapeAll<KeyType::Date, KeyType::Number>, dayPart},
    {"DAY", 1, 1, shapeAll<KeyType::Date, KeyType::Number>, dayPart},
    {"RECNO", 0, 0, shapeAny<KeyType::Number>, recordNumber},
    {"DELETED", 0, 0, shapeAny<KeyType::Logical>, deletedTruth},
    {"IIF", 3, 3, shapeIif, iifValue},
    {"IF", 3, 3, shapeIif, iifValue},
    {"EMPTY", 1, 1, shapeAny<KeyType::Logical>, emptyTruth},
    {"ISNULL", 1, 1, shapeAny<KeyType::Logical>, nullTruth},
    {"NEGATIVE", 1, 1, kNumbers, oneNumber},
    {"+", 2, 2, shapeSum, sumValue},
    {"-", 2, 2, shapeSum, sumValue},
    {"*", 2, 2, kNumbers, productNumber},
    {"/", 2, 2, kNumbers, productNumber},
    {"**", 2, 2, kNumbers, productNumber},
    {"=", 2, 2, shapeComparison, compareTruth},
    {"==", 2, 2, shapeComparison, compareTruth},
    {"<>", 2, 2, shapeComparison, compareTruth},
    {"!=", 2, 2, shapeComparison, compareTruth},
    {"#", 2, 2, shapeComparison, compareTruth},
    {"<", 2, 2, shapeComparison, compareTruth},
    {">", 2, 2, shapeComparison, compareTruth},
    {"<=", 2, 2, shapeComparison, compareTruth},
    {"=<", 2, 2, shapeComparison, compareTruth},
    {">=", 2, 2, shapeComparison, compareTruth},
    {"=>", 2, 2, shapeComparison, compareTruth},
    {"$", 2, 2, shapeComparison, compareTruth},
    {".AND.", 2, 2, kTruths, connectTruth},
    {".OR.", 2, 2, kTruths, connectTruth},
    {".NOT.", 1, 1, kTruths, notTruth},
};

}  // namespace

const Function* functionNamed(std::string_view name) {
    const auto* const row = std::find_if(std::begin(kFunctions), std::end(kFunctions),
                                         [&](const Function& f) { return f.name == name; });
    return row == std::end(kFunctions) ? nullptr : row;
}

void compute(const Scene& scene, const Node& node, KeyValue& value) {
    value.type = node.type;
    value.isNull = false;
    switch (node.operation) {
        case Operation::Literal:
            value = node.literal;
            return;
        case Operation::Field:
            return computeField(scene, *node.column, value);
        case Operation::Call:
            return node.function->compute(scene, node, value);
    }
}

}  // namespace mira::tables::index
