#include "input/notation.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "tables.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"
#include "tables/store/store.h"

namespace mira::tool {
namespace {

constexpr int kCentury = 50;  // two digits of a year below it are of this century

/// The run of one letter at the start of a form; 0 to 4.
std::size_t runOf(std::string_view form) {
    const std::size_t end = form.find_first_not_of(form.front());
    return end == std::string_view::npos ? form.size() : end;
}

bool isForm(std::string_view form) {
    std::string parts;
    while (!form.empty()) {
        const char letter = form.front();
        const std::size_t run = runOf(form);
        const bool year = letter == 'Y' && (run == 2 || run == 4);
        const bool other = (letter == 'M' || letter == 'D') && run <= 2;
        if (year || other) parts += letter;
        if (!year && !other && isWordByte(letter)) return false;
        form.remove_prefix(run);
    }
    std::sort(parts.begin(), parts.end());
    return parts == "DMY";
}

/// Takes the digits of one part of a date off a text: as many as the form has letters, fewer where
/// something else than a digit ends them.
std::optional<int> takeNumber(std::string_view* text, std::size_t most, bool exact) {
    std::size_t count = 0;
    int number = 0;
    while (count < most && count < text->size() && isDigit((*text)[count])) {
        number = number * 10 + ((*text)[count++] - '0');
    }
    if (count == 0 || (exact && count != most)) return std::nullopt;
    text->remove_prefix(count);
    return number;
}

struct Day {
    int year = 0, month = 0, day = 0;
};

/// Reads a date at the start of a text by a form.
std::optional<Day> takeDay(std::string_view form, std::string_view* text) {
    Day day;
    while (!form.empty()) {
        const char letter = form.front();
        const std::size_t run = letter == 'D' || letter == 'M' || letter == 'Y' ? runOf(form) : 1;
        form.remove_prefix(run);
        if (!isWordByte(letter)) {
            if (!text->starts_with(letter)) return std::nullopt;
            text->remove_prefix(1);
            continue;
        }
        // Digits that follow each other are told apart by their number alone.
        const bool packed = !form.empty() && isWordByte(form.front());
        const std::optional<int> number =
            takeNumber(text, letter == 'Y' ? run : 2, letter == 'Y' || packed);
        if (!number) return std::nullopt;
        (letter == 'Y' ? day.year : letter == 'M' ? day.month : day.day) = *number;
        if (letter == 'Y' && run == 2) day.year += *number < kCentury ? 2000 : 1900;
    }
    return day;
}

/// The digits of a number before its decimal comma, groups of three put together. Nothing when
/// they are no such groups.
std::optional<std::string> ungrouped(std::string_view whole) {
    const std::size_t first = whole.find_first_of(". '");
    if (first == std::string_view::npos) return std::string(whole);
    const char mark = whole[first];
    std::string digits(whole.substr(0, first));
    if (first == 0 || first > 3) return std::nullopt;
    for (whole.remove_prefix(first); !whole.empty(); whole.remove_prefix(4)) {
        if (whole.size() < 4 || whole[0] != mark || !areDigits(whole.substr(1, 3))) {
            return std::nullopt;
        }
        digits += whole.substr(1, 3);
    }
    return digits;
}

}  // namespace

Notation notationOf(std::string_view decimal, std::string_view dates) {
    Notation notation;
    if (!decimal.empty() && decimal != "." && decimal != ",") {
        refuse("--decimal ", decimal, ": a comma or a point");
    }
    if (!decimal.empty()) notation.decimal = decimal.front();
    notation.dates = upperAscii(dates);
    if (!dates.empty() && !isForm(notation.dates)) {
        refuse("--date-format ", dates,
               ": D or DD, M or MM, YY or YYYY, each once, such as DD.MM.YYYY");
    }
    return notation;
}

std::optional<std::string_view> plainNumber(const Notation& notation, std::string_view text,
                                            std::string& scratch) {
    if (notation.decimal != ',') return text;
    scratch.clear();
    if (text.starts_with('-') || text.starts_with('+')) scratch = text.front();
    const std::string_view unsignedText = text.substr(scratch.size());
    const std::size_t comma = unsignedText.find(',');
    const std::optional<std::string> whole = ungrouped(unsignedText.substr(0, comma));
    if (!whole) return std::nullopt;
    scratch += *whole;
    if (comma == std::string_view::npos) return scratch;
    const std::string_view fraction = unsignedText.substr(comma + 1);
    if (fraction.find_first_of(".,") != std::string_view::npos) return std::nullopt;
    scratch += '.';
    scratch += fraction;
    return scratch;
}

std::string_view plainDate(const Notation& notation, std::string_view text, std::string& scratch) {
    std::string_view rest = text;
    const std::optional<Day> day =
        notation.dates.empty() ? std::nullopt : takeDay(notation.dates, &rest);
    if (!day || (!rest.empty() && rest.front() != ' ' && rest.front() != 'T')) return text;
    scratch = fmt::format("{:04}-{:02}-{:02}{}", day->year, day->month, day->day, rest);
    return readMoment(scratch) ? std::string_view(scratch) : text;
}

}  // namespace mira::tool
