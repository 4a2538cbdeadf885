#include "arrow/cells.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "arrow/number.h"
#include "arrow/quick.h"
#include "tables/value/plain.h"

namespace mira::arrow {
namespace {

using tables::Fault;
using tables::Value;
using tables::ValueKind;

/// The record into RecordBuffer; what lies behind it there stays.
void load(Cells& cells, const Row& row) {
    if (cells.loaded == &row) return;
    const tables::Table& table = *cells.table;
    std::memcpy(table.base->RecordBuffer, row.bytes, table.base->Header.RecordLength);
    cells.reader.record = row.record;
    cells.loaded = &row;
}

void count(tables::FaultTally& tally, const Field& field, const Row& row) {
    if (tally.count++ != 0 && tally.record <= row.record) return;
    tally.record = row.record;
    tally.column = field.column.name;
}

template <typename Value>
void putFixed(Vector& to, Value value) {
    to.values.put(value);
    ++to.count;
}

void putWide(Vector& to, Wide wide) {
    to.values.put(std::endian::native == std::endian::little ? wide.low : wide.high);
    to.values.put(std::endian::native == std::endian::little ? wide.high : wide.low);
    ++to.count;
}

void putNull(const Field& field, Vector& to) {
    to.setNull();
    switch (field.shape) {
        case Shape::Text:
        case Shape::Binary:
            return to.endText();
        case Shape::Logical:
            ++to.count;
            return;
        case Shape::Decimal:
            return putWide(to, {});
        case Shape::Int32:
        case Shape::Date:
            return putFixed(to, i32{0});
        case Shape::Int64:
        case Shape::Double:
        case Shape::Moment:
            return putFixed(to, i64{0});
    }
}

// --------------------------------------------------------------------------------------------
// Numbers
// --------------------------------------------------------------------------------------------

template <typename... Part>
[[noreturn]] void refuseCell(const Cells& cells, const Field& field, const Row& row,
                             const Part&... why) {
    throw CellFailure(
        row.record, tables::textOf(cells.table->path, ": record ", u64{row.record} + 1, ", field ",
                                   field.column.name, ": ", why...));
}

std::string_view digitsOf(Cells& cells, const Value& value) {
    if (value.kind == ValueKind::Digits || value.kind == ValueKind::Currency) return value.text;
    cells.text.clear();
    tables::putPlain(cells.text, value);
    return cells.text;
}

void putInt64(Cells& cells, const Field& field, const Row& row, const Value& value, Vector& to) {
    constexpr unsigned kMost = 19;
    if (value.kind == ValueKind::Integer) return putFixed(to, value.integer);
    const std::optional<Wide> wide = scaledWhole(value.text, 0, kMost);
    const i64 number = wide ? static_cast<i64>(wide->low) : 0;
    if (!wide || wide->high != wideOf(number).high) {
        refuseCell(cells, field, row, value.text, " is no whole number of 64 bits; types ",
                   field.column.name, "=double");
    }
    putFixed(to, number);
}

void putDecimal(Cells& cells, const Field& field, const Row& row, const Value& value, Vector& to) {
    if (value.kind == ValueKind::Currency) return putWide(to, wideOf(value.integer));
    const std::optional<Wide> wide = scaledWhole(value.text, field.scale, field.precision);
    if (!wide) {
        refuseCell(cells, field, row, value.text, " has more digits than ", field.precision,
                   " with ", field.scale, " decimals; types ", field.column.name, "=text");
    }
    putWide(to, *wide);
}

void putDouble(Cells& cells, const Field& field, const Row& row, const Value& value, Vector& to) {
    if (value.kind == ValueKind::Real) return putFixed(to, value.real);
    const std::string_view digits = digitsOf(cells, value);
    const double number = tables::toReal(digits);
    if (!std::isfinite(number)) {
        refuseCell(cells, field, row, digits, " is beyond a double; types ", field.column.name,
                   "=text");
    }
    if (!holdsDigits(digits, number)) count(cells.met.rounded, field, row);
    putFixed(to, number);
}

// --------------------------------------------------------------------------------------------
// Dates
// --------------------------------------------------------------------------------------------

int numberAt(std::string_view text, std::size_t place, std::size_t digits) {
    int number = 0;
    std::from_chars(text.data() + place, text.data() + place + digits, number);
    return number;
}

/// Days since 1970-01-01 of "2024-01-31".
i32 daysOf(std::string_view text) {
    constexpr i32 kDayOf1970 = 2440588;
    return GetDayNumber(numberAt(text, 0, 4), numberAt(text, 5, 2), numberAt(text, 8, 2)) -
           kDayOf1970;
}

/// Microseconds of "2024-01-31 23:59:59" with ".sss" or without.
i64 microsecondsOf(std::string_view text) {
    constexpr std::size_t kWithFraction = 23;
    constexpr i64 kSecond = 1000000;
    i64 seconds = i64{daysOf(text)} * 86400;
    seconds += numberAt(text, 11, 2) * 3600 + numberAt(text, 14, 2) * 60 + numberAt(text, 17, 2);
    const int fraction = text.size() == kWithFraction ? numberAt(text, 20, 3) : 0;
    return seconds * kSecond + i64{fraction} * 1000;
}

void putValue(Cells& cells, const Field& field, const Row& row, const Value& value, Vector& to) {
    switch (field.shape) {
        case Shape::Text:
        case Shape::Binary: {
            std::string_view bytes = value.text;
            if (field.shape == Shape::Text && value.kind != ValueKind::Text) {
                cells.text.clear();
                tables::putPlain(cells.text, value);
                bytes = cells.text;
            }
            to.bytes.append(bytes.data(), bytes.size());
            return to.endText();
        }
        case Shape::Int64:
            return putInt64(cells, field, row, value, to);
        case Shape::Int32:
            return putFixed(to, static_cast<i32>(value.integer));
        case Shape::Double:
            return putDouble(cells, field, row, value, to);
        case Shape::Decimal:
            return putDecimal(cells, field, row, value, to);
        case Shape::Date:
            return putFixed(to, daysOf(value.text));
        case Shape::Moment:
            return putFixed(to, microsecondsOf(value.text));
        case Shape::Logical:
            if (value.integer != 0) to.setTrue();
            ++to.count;
            return;
    }
}

}  // namespace

void appendCell(Cells& cells, const Field& field, const Row& row, Vector& to) {
    load(cells, row);
    Value value;
    tables::readCell(cells.reader, field.column, value);
    if (value.fault != Fault::None) {
        count(cells.met.faults[static_cast<std::size_t>(value.fault)], field, row);
    }
    if (value.kind == ValueKind::Null || value.kind == ValueKind::Blank) return putNull(field, to);
    putValue(cells, field, row, value, to);
}

void appendCells(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    prepareVector(field, rows.size(), to);
    if (field.source) return appendText(cells.table->path, rows.size(), to);
    if (cells.quickly && appendQuickly(cells, field, rows, to)) return;
    for (const Row& row : rows) appendCell(cells, field, row, to);
}

void prepareVector(const Field& field, std::size_t more, Vector& to) {
    const std::size_t wanted = (to.count + more + 7) / 8;
    if (wanted > to.valid.size()) to.valid.fill(wanted - to.valid.size(), 0xFF);
    const std::size_t width = widthOf(field.shape);
    if (width == 0) {
        if (wanted > to.values.size()) to.values.fill(wanted - to.values.size(), 0);
        return;
    }
    to.values.reserve((more + 1) * width);
    const bool texts = field.shape == Shape::Text || field.shape == Shape::Binary;
    if (texts && to.values.size() == 0) to.values.put(u64{0});
}

void appendText(std::string_view text, std::size_t rows, Vector& to) {
    to.bytes.reserve(text.size() * rows);
    for (std::size_t i = 0; i < rows; ++i) {
        to.bytes.append(text.data(), text.size());
        to.endText();
    }
}

}  // namespace mira::arrow
