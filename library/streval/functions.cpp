// The string functions: each as it works on a piece of text, and its public twin, which works on a
// whole argument.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "internal/ascii.h"
#include "internal/datelayout.h"
#include "internal/decimal.h"
#include "streval/streval.h"

namespace mira {
namespace {

char lower(char c) { return static_cast<char>(lowerAscii(c)); }

std::string_view textOf(const Piece& p) { return {p.begin, p.length}; }

void dropFront(Piece& p, std::size_t count) {
    p.begin += count;
    p.length -= count;
    p.room -= count;
    if (p.comma != kNoComma) p.comma -= count;
}

void trimLeft(Piece& p, const DbfBase* /*h*/) {
    dropFront(p, std::min(textOf(p).find_first_not_of(' '), p.length));
}

void trimRight(Piece& p, const DbfBase* /*h*/) { p.length = textOf(p).find_last_not_of(' ') + 1; }

void trimBoth(Piece& p, const DbfBase* h) {
    trimRight(p, h);
    trimLeft(p, h);
}

/// Splits "text,numbers" at the first comma: the piece becomes the text. False without a comma.
bool splitNumbers(Piece& p, std::string_view* numbers) {
    if (p.comma == kNoComma) return false;
    *numbers = textOf(p).substr(p.comma + 1);
    p.length = p.comma;
    p.comma = kNoComma;
    return true;
}

/// A negative start is beyond the end, a negative length takes all the rest.
void cut(Piece& p, i64 start, i64 length) {
    const std::size_t room = p.length;
    const std::size_t first = start < 0 ? room : std::min(static_cast<std::size_t>(start), room);
    dropFront(p, first);
    if (length >= 0) p.length = std::min(p.length, static_cast<std::size_t>(length));
}

// text,start[,length]
void subStr(Piece& p, const DbfBase* /*h*/) {
    std::string_view numbers;
    if (!splitNumbers(p, &numbers)) return;
    const std::size_t comma = numbers.find(',');
    const bool whole = comma == std::string_view::npos;
    cut(p, readInteger(numbers), whole ? -1 : readInteger(numbers.substr(comma + 1)));
}

// text,count
void strLeft(Piece& p, const DbfBase* /*h*/) {
    std::string_view numbers;
    if (splitNumbers(p, &numbers)) cut(p, 0, readInteger(numbers));
}

// text,count
void strRight(Piece& p, const DbfBase* /*h*/) {
    std::string_view numbers;
    if (!splitNumbers(p, &numbers)) return;
    const auto length = static_cast<i64>(p.length);
    cut(p, length - std::clamp<i64>(readInteger(numbers), 0, length), -1);
}

void dateToText(Piece& p, const DbfBase* h) {
    const DateLayout& at = dateLayout(h != nullptr ? h->DateFormat : 0);
    const bool timed = p.length > kDottedDate;
    if (p.length < (timed ? at.timeEnd : at.dateEnd)) return;
    char digits[kDateTimeDigits];
    std::memcpy(digits, p.begin + at.year, 4);
    std::memcpy(digits + 4, p.begin + at.month, 2);
    std::memcpy(digits + 6, p.begin + at.day, 2);
    if (timed) {
        std::memcpy(digits + 8, p.begin + at.hour, 2);
        std::memcpy(digits + 10, p.begin + at.minute, 2);
        std::memcpy(digits + 12, p.begin + at.second, 2);
    }
    p.length = timed ? kDateTimeDigits : kDateDigits;
    std::memcpy(p.begin, digits, p.length);
    p.comma = textOf(p).find(',');
}

void unchanged(Piece& /*p*/, const DbfBase* /*h*/) {}

void toUpper(Piece& p, const DbfBase* /*h*/) {
    std::transform(p.begin, p.begin + p.length, p.begin, upperAscii);
}

void toLower(Piece& p, const DbfBase* /*h*/) {
    std::transform(p.begin, p.begin + p.length, p.begin, lower);
}

void capitalize(Piece& p, const DbfBase* /*h*/) {
    char previous = ' ';
    for (char* c = p.begin; c != p.begin + p.length; previous = *c++) {
        *c = previous == ' ' || previous == '\t' ? upperAscii(*c) : lower(*c);
    }
}

char* onWhole(char* argument, DbfBase* h, void (*apply)(Piece&, const DbfBase*)) {
    if (argument == nullptr) return nullptr;
    const std::string_view text(argument);
    Piece p{argument, text.size(), text.find(','), text.size()};
    apply(p, h);
    std::memmove(argument, p.begin, p.length);
    argument[p.length] = 0;
    return argument;
}

constexpr StringFunction row(const char* opener, void (*apply)(Piece&, const DbfBase*),
                             bool setsCase = false) {
    return {opener, std::string_view(opener).size(), apply, setsCase};
}

constexpr StringFunction kStringFunctions[] = {
    row("TRIM(", trimBoth),       row("LTRIM(", trimLeft),      row("RTRIM(", trimRight),
    row("SUBSTR(", subStr),       row("LEFT(", strLeft),        row("RIGHT(", strRight),
    row("DTOS(", dateToText),     row("SPACE(", unchanged),     row("REPLICATE(", unchanged),
    row("UPPER(", toUpper, true), row("LOWER(", toLower, true), row("CAP(", capitalize, true),
};

/// The letters that names begin with, as bits from A on. Texts are searched at every character.
constexpr u32 kInitials = [] {
    u32 bits = 0;
    for (const StringFunction& f : kStringFunctions) bits |= u32{1} << (*f.opener - 'A');
    return bits;
}();

}  // namespace

const StringFunction* functionAt(const char* text) {
    const char initial = upperAscii(*text);
    if (initial < 'A' || initial > 'Z' || (kInitials >> (initial - 'A') & 1) == 0) return nullptr;
    for (const StringFunction& f : kStringFunctions) {
        if (initial == *f.opener && compareIgnoringCase(text, f.opener, f.length) == 0) return &f;
    }
    return nullptr;
}

bool isStringFunction(const char* name) {
    return std::any_of(
        std::begin(kStringFunctions), std::end(kStringFunctions), [name](const StringFunction& f) {
            const std::size_t length = f.length - 1;  // without the parenthesis
            return compareIgnoringCase(name, f.opener, length) == 0 && name[length] == 0;
        });
}

char* Trim(char* argument, DbfBase* h) { return onWhole(argument, h, trimBoth); }
char* LTrim(char* argument, DbfBase* h) { return onWhole(argument, h, trimLeft); }
char* RTrim(char* argument, DbfBase* h) { return onWhole(argument, h, trimRight); }
char* SubStr(char* argument, DbfBase* h) { return onWhole(argument, h, subStr); }
char* StrLeft(char* argument, DbfBase* h) { return onWhole(argument, h, strLeft); }
char* StrRight(char* argument, DbfBase* h) { return onWhole(argument, h, strRight); }
char* DtoS(char* argument, DbfBase* h) { return onWhole(argument, h, dateToText); }
char* Space(char* argument, DbfBase* h) { return Replicate(argument, h); }
char* Replicate(char* argument, DbfBase* /*h*/) { return argument; }
char* UpperMy(char* argument, DbfBase* h) { return onWhole(argument, h, toUpper); }
char* LowerMy(char* argument, DbfBase* h) { return onWhole(argument, h, toLower); }
char* CapitalizeMy(char* argument, DbfBase* h) { return onWhole(argument, h, capitalize); }

}  // namespace mira
