#include "chart.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <optional>
#include <unordered_map>

#include "tables/page/json.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"
#include "tables/value/plain.h"
#include "tables/value/value.h"

namespace mira::page {
namespace {

using namespace tables;

constexpr u32 kProgressStep = 1 << 15;
constexpr double kBars = 24;               // at most, of numbers
constexpr std::size_t kTop = 12;           // most frequent texts
constexpr std::size_t kDifferent = 50000;  // texts that are told apart
constexpr std::size_t kLabel = 64;         // bytes of a text that count

/// Calls take(value) for the column in every shown record.
template <typename Take>
void eachValue(Table& table, const View& view, const Column& column, Take take) {
    const u32 all = table.base->Header.RecordCount;
    CellReader cells(table);
    Value value;
    const auto read = [&](u32 record) {
        if (record % kProgressStep == 0) tellProgress(record, all);
        cells.record = record;
        readRecord(table, record);
        readCell(cells, column, value);
        take(value);
    };
    if (!view.whole) return eachInFile(view.records, all, read);
    for (u32 record = 0; record < all; ++record) read(record);
}

bool isBlank(const Value& value) {
    return value.kind == ValueKind::Null || value.kind == ValueKind::Blank;
}

std::optional<double> numberOf(const Value& value) {
    switch (value.kind) {
        case ValueKind::Digits:
        case ValueKind::Currency:
            return toReal(value.text);
        case ValueKind::Integer:
            return static_cast<double>(value.integer);
        case ValueKind::Real:
            return value.real;
        default:
            return std::nullopt;
    }
}

std::string plainText(const Value& value) {
    std::string text;
    putPlain(text, value);
    return text;
}

std::string plainNumber(double number) {
    Value value;
    value.kind = ValueKind::Real;
    value.real = number;
    return plainText(value);
}

struct Bars {
    std::string json = "[";
    void begin() { json += json.size() > 1 ? ",{" : "{"; }
    void end(u64 count) { json += textOf("\"n\":", count, '}'); }
};

// ---------------------------------------------------------------------------------------------
// Numbers
// ---------------------------------------------------------------------------------------------

/// 1, 2 or 5 times a power of ten: the least width with which a range takes kBars at most.
double barWidth(double range, bool whole) {
    if (!(range > 0)) return 1;
    const double least = range / kBars;
    const double power = std::pow(10.0, std::floor(std::log10(least)));
    double width = 10 * power;
    for (const double step : {5.0, 2.0, 1.0}) {
        if (step * power >= least) width = step * power;
    }
    return whole ? std::max(width, 1.0) : width;
}

std::string chartOfNumbers(Table& table, const View& view, const Column& column) {
    u64 count = 0, blank = 0;
    double least = 0, most = 0, sum = 0;
    bool whole = true;
    std::string leastText, mostText;
    eachValue(table, view, column, [&](const Value& value) {
        const std::optional<double> number = numberOf(value);
        if (!number || !std::isfinite(*number)) {
            ++blank;
            return;
        }
        if (count == 0 || *number < least) least = *number, leastText = plainText(value);
        if (count == 0 || *number > most) most = *number, mostText = plainText(value);
        whole = whole && std::trunc(*number) == *number;
        sum += *number;
        ++count;
    });
    const double width = barWidth(most - least, whole);
    const double first = std::floor(least / width);
    std::vector<u64> counts(count == 0 ? 0 : static_cast<std::size_t>(most / width - first) + 1);
    if (!counts.empty()) {
        eachValue(table, view, column, [&](const Value& value) {
            const std::optional<double> number = numberOf(value);
            if (!number || !std::isfinite(*number)) return;
            const auto bar = static_cast<std::size_t>(std::max(*number / width - first, 0.0));
            ++counts[std::min(bar, counts.size() - 1)];
        });
    }
    Bars bars;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const double from = (first + static_cast<double>(i)) * width;
        bars.begin();
        bars.json +=
            textOf("\"from\":", plainNumber(from), ",\"to\":", plainNumber(from + width), ',');
        bars.end(counts[i]);
    }
    JsonObject chart;
    chart.text("kind", "numbers");
    chart.number("count", count);
    chart.number("blank", blank);
    chart.truth("each", whole && width == 1);
    chart.textOrNull("least", leastText);
    chart.textOrNull("most", mostText);
    chart.raw("sum", std::isfinite(sum) ? plainNumber(sum) : "null");
    chart.raw("bars", bars.json + ']');
    return chart.whole();
}

// ---------------------------------------------------------------------------------------------
// Dates
// ---------------------------------------------------------------------------------------------

int yearOf(const std::string& date) { return std::atoi(date.substr(0, 4).c_str()); }
int monthOf(const std::string& date) { return std::atoi(date.substr(5, 2).c_str()); }

/// Characters of "2024-01-31" that name the day, month, year or decade, whichever makes few bars.
std::size_t dateParts(const std::string& least, const std::string& most) {
    const int years = yearOf(most) - yearOf(least);
    const int months = 12 * years + monthOf(most) - monthOf(least);
    if (months <= 1) return 10;
    if (months <= 36) return 7;
    return years <= 40 ? 4 : 3;
}

std::string chartOfDates(Table& table, const View& view, const Column& column) {
    u64 blank = 0, count = 0;
    std::map<std::string, u64, std::less<>> days;
    eachValue(table, view, column, [&](const Value& value) {
        if (isBlank(value) || value.text.size() < 10) {
            ++blank;
            return;
        }
        ++count;
        const std::string_view day = value.text.substr(0, 10);
        const auto at = days.find(day);
        at != days.end() ? ++at->second : days[std::string(day)] = 1;
    });
    JsonObject chart;
    chart.text("kind", "dates");
    chart.number("count", count);
    chart.number("blank", blank);
    chart.textOrNull("least", days.empty() ? "" : days.begin()->first);
    chart.textOrNull("most", days.empty() ? "" : days.rbegin()->first);
    Bars bars;
    std::map<std::string, u64> parts;
    if (!days.empty()) {
        const std::size_t length = dateParts(days.begin()->first, days.rbegin()->first);
        for (const auto& [day, n] : days) {
            parts[day.substr(0, length) + (length == 3 ? "0s" : "")] += n;
        }
    }
    for (const auto& [label, n] : parts) {
        bars.begin();
        bars.json += textOf("\"label\":\"", label, "\",");
        bars.end(n);
    }
    chart.raw("bars", bars.json + ']');
    return chart.whole();
}

// ---------------------------------------------------------------------------------------------
// Texts and all else
// ---------------------------------------------------------------------------------------------

/// What a value counts as.
std::string labelOf(const Value& value) {
    if (value.kind == ValueKind::Bytes) return "binary";
    std::string text = plainText(value);
    if (text.size() <= kLabel) return text;
    std::size_t end = kLabel;
    while (end != 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80) --end;
    return text.substr(0, end) + "…";
}

std::string chartOfTexts(Table& table, const View& view, const Column& column) {
    u64 blank = 0, count = 0, untold = 0;
    std::unordered_map<std::string, u64> counts;
    std::string least, most;
    eachValue(table, view, column, [&](const Value& value) {
        if (isBlank(value) || (value.kind == ValueKind::Text && value.text.empty())) {
            ++blank;
            return;
        }
        ++count;
        std::string label = labelOf(value);
        if (least.empty() || label < least) least = label;
        if (label > most) most = label;
        const auto at = counts.find(label);
        if (at != counts.end()) {
            ++at->second;
        } else if (counts.size() < kDifferent) {
            counts.emplace(std::move(label), 1);
        } else {
            ++untold;
        }
    });
    std::vector<std::pair<std::string, u64>> top(counts.begin(), counts.end());
    const auto more = [](const auto& a, const auto& b) {
        return a.second != b.second ? a.second > b.second : a.first < b.first;
    };
    const auto shown = static_cast<std::ptrdiff_t>(std::min(kTop, top.size()));
    std::partial_sort(top.begin(), top.begin() + shown, top.end(), more);
    top.resize(static_cast<std::size_t>(shown));
    Bars bars;
    u64 rest = count;
    for (const auto& [label, n] : top) {
        bars.begin();
        bars.json += "\"label\":";
        putJsonString(bars.json, label, false);
        bars.json += ',';
        bars.end(n);
        rest -= n;
    }
    JsonObject chart;
    chart.text("kind", "texts");
    chart.number("count", count);
    chart.number("blank", blank);
    chart.number("different", counts.size());
    chart.truth("more", untold != 0);
    chart.number("rest", rest);
    chart.textOrNull("least", least);
    chart.textOrNull("most", most);
    chart.raw("bars", bars.json + ']');
    return chart.whole();
}

}  // namespace

std::string chartOf(Table& table, const View& view, const Column& column) {
    if (isOfNumbers(column)) return chartOfNumbers(table, view, column);
    if (kindRow(column.kind).compared == Compared::Dates) return chartOfDates(table, view, column);
    return chartOfTexts(table, view, column);
}

}  // namespace mira::page
