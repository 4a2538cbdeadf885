#include "answer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <set>

#include "internal/real.h"
#include "tables/page/text.h"
#include "words.h"

namespace mira::sql {

using namespace tables;

namespace {

constexpr int kCurrencyDecimals = 4;

Value valueOf(sqlite3_stmt* statement, int column) {
    Value value;
    const int type = sqlite3_column_type(statement, column);
    switch (type) {
        case SQLITE_INTEGER:
            value.kind = ValueKind::Integer;
            value.integer = sqlite3_column_int64(statement, column);
            return value;
        case SQLITE_FLOAT:
            value.kind = ValueKind::Real;
            value.real = sqlite3_column_double(statement, column);
            return value;
        case SQLITE_NULL:
            value.kind = ValueKind::Null;
            return value;
        default:
            break;
    }
    value.kind = type == SQLITE_TEXT ? ValueKind::Text : ValueKind::Bytes;
    const auto* const bytes = type == SQLITE_TEXT
                                  ? static_cast<const void*>(sqlite3_column_text(statement, column))
                                  : sqlite3_column_blob(statement, column);
    if (bytes != nullptr) {
        value.text = {static_cast<const char*>(bytes),
                      static_cast<std::size_t>(sqlite3_column_bytes(statement, column))};
    }
    return value;
}

/// A number with so many decimals, as fields hold it; the value as it is when that would be another
/// number.
Value withDecimals(const Value& value, int decimals, std::string& scratch) {
    constexpr double kMost = 1e20;  // no field holds more digits
    const double real =
        value.kind == ValueKind::Integer ? static_cast<double>(value.integer) : value.real;
    if (std::abs(real) >= kMost) return value;
    char digits[64];
    const auto end =
        std::to_chars(digits, digits + sizeof digits, real, std::chars_format::fixed, decimals);
    double again = 0;
    if (end.ec != std::errc()) return value;
    readReal(digits, end.ptr, again);
    if (again != real) return value;
    scratch.assign(digits, end.ptr);
    Value shown;
    shown.kind = ValueKind::Digits;
    shown.text = scratch;
    return shown;
}

bool isNumber(const Value& value) {
    return value.kind == ValueKind::Integer || value.kind == ValueKind::Real;
}

const char* given(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

Answer::Answer(sqlite3_stmt* statement, const NamedTables& tables) : statement_(statement) {
    const std::vector<std::string> words = sqlWords(given(sqlite3_sql(statement)));
    united_ = hasWord(words, {"UNION", "INTERSECT", "EXCEPT"});
    outer_ = hasWord(words, {"LEFT", "RIGHT", "FULL"});
    const int count = sqlite3_column_count(statement);
    scratch_.resize(static_cast<std::size_t>(count));
    columns_.reserve(scratch_.size());
    std::set<std::string> taken;
    for (int i = 0; i < count; ++i) addColumn(i, tables, taken);
}

void Answer::addColumn(int number, const NamedTables& tables, std::set<std::string>& taken) {
    const KnownTable* table =
        tables.known(textOf(given(sqlite3_column_database_name(statement_, number)), '.',
                            given(sqlite3_column_table_name(statement_, number))));
    Column& column = columns_.emplace_back();
    column.kind = Kind::Calculated;  // which takes any value
    if (table != nullptr) {
        const auto of = std::find_if(
            table->columns.begin(), table->columns.end(),
            [&, name = std::string_view(given(sqlite3_column_origin_name(statement_, number)))](
                const Column& c) { return c.name == name; });
        of != table->columns.end() ? void(column = *of) : void(table = nullptr);
    }
    tables_.push_back(table);
    column.name = freeName(given(sqlite3_column_name(statement_, number)),
                           [&](const std::string& free) { return taken.insert(free).second; });
}

Value Answer::ofColumn(std::size_t number, Value value) {
    const Column& column = columns_[number];
    const Kind kind = heldKind(column);
    const bool isText = value.kind == ValueKind::Text;
    switch (kind) {
        case Kind::Decimal:
            if (isText && column.exactText) value.kind = ValueKind::Digits;
            if (!isNumber(value) || (column.decimals == 0 && value.kind == ValueKind::Integer)) {
                return value;
            }
            return withDecimals(value, column.decimals, scratch_[number]);
        case Kind::Currency:
            if (isText && column.exactText) value.kind = ValueKind::Digits;
            return isNumber(value) ? withDecimals(value, kCurrencyDecimals, scratch_[number])
                                   : value;
        case Kind::Logical:
        case Kind::Deletion:
            if (value.kind == ValueKind::Integer && !united_ && (value.integer & ~i64{1}) == 0) {
                value.kind = ValueKind::Logical;
            }
            return value;
        case Kind::Date:
            if (isText) value.kind = ValueKind::Date;
            return value;
        case Kind::Moment:
            if (isText) value.kind = ValueKind::Moment;
            return value;
        default:
            return value;
    }
}

Value Answer::value(std::size_t column) {
    Value value = valueOf(statement_, static_cast<int>(column));
    if (!isOfTable(column)) return value;
    // What a field cannot leave out is blank in it.
    if (value.kind == ValueKind::Null && !mayBeNull(column)) value.kind = ValueKind::Blank;
    return ofColumn(column, value);
}

}  // namespace mira::sql
