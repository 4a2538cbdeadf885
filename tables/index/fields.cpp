// Fields as expressions of index files see them: texts with their padding, days as numbers.
#include "tables/index/node.h"
#include "tables/page/bytes.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables::index {
namespace {

constexpr double kDayMilliseconds = 86400000;

/// The day of eight digits; 0 for a blank and for what is no date.
double dayOf(std::string_view digits) {
    if (digits.size() != 8 || !areDigits(digits)) return 0;
    const auto number = [&](std::size_t from, std::size_t count) {
        return std::stoi(std::string(digits.substr(from, count)));
    };
    return GetDayNumber(number(0, 4), number(4, 2), number(6, 2));
}

double momentOf(std::string_view bytes) {
    const auto day = loadLe<i32>(bytes.data());
    const auto milliseconds = loadLe<i32>(bytes.data() + 4);
    return day + milliseconds / kDayMilliseconds;
}

double decimalOf(std::string_view stored) {
    const std::string_view digits = trimmed(stored.substr(0, stored.find('\0')));
    return isNumber(digits) ? toReal(digits) : 0;
}

void giveDecimal(const Table& table, const Column& column, KeyValue& value) {
    value.number = decimalOf(storedBytes(table, column));
}

void giveInteger(const Table& table, const Column& column, KeyValue& value) {
    value.number = static_cast<i32>(GetInt(table.base.get(), column.field));
}

void giveNumber(const Table& table, const Column& column, KeyValue& value) {
    value.number = GetValue(table.base.get(), column.field);
}

void giveDate(const Table& table, const Column& column, KeyValue& value) {
    value.number = dayOf(storedBytes(table, column));
}

void giveMoment(const Table& table, const Column& column, KeyValue& value) {
    value.number = momentOf(storedBytes(table, column));
}

void giveLogical(const Table& table, const Column& column, KeyValue& value) {
    constexpr std::string_view kTrue = "TtYy";
    const std::string_view stored = storedBytes(table, column);
    value.truth = !stored.empty() && kTrue.find(stored[0]) != std::string_view::npos;
}

void giveText(const Table& table, const Column& column, KeyValue& value) {
    value.text = storedBytes(table, column);
}

void giveVarchar(const Table& table, const Column& column, KeyValue& value) {
    value.text = variableBytes(table, column);
    value.text.resize(column.length, ' ');
}

struct FieldRow {
    KeyType type;
    void (*give)(const Table&, const Column&, KeyValue&);  ///< null: cannot be computed
};

constexpr FieldRow rowOf(Kind kind) {
    switch (kind) {
        case Kind::Text:
            return {KeyType::Text, giveText};
        case Kind::Varchar:
            return {KeyType::Text, giveVarchar};
        case Kind::Decimal:
            return {KeyType::Number, giveDecimal};
        case Kind::Integer:
            return {KeyType::Number, giveInteger};
        case Kind::Double:
        case Kind::Currency:
            return {KeyType::Number, giveNumber};
        case Kind::Date:
            return {KeyType::Date, giveDate};
        case Kind::Moment:
            return {KeyType::Moment, giveMoment};
        case Kind::Logical:
            return {KeyType::Logical, giveLogical};
        case Kind::Varbinary:
        case Kind::Memo:
        case Kind::Blob:
        case Kind::Bytes:
        case Kind::Calculated:
        case Kind::RecordNumber:
        case Kind::Deletion:
            return {KeyType::Text, nullptr};
    }
    std::abort();  // not constant: a kind without a row does not compile
}
constexpr auto kRows = tableOfKinds(rowOf);

const FieldRow& rowOf(const Column& column) { return kRows[static_cast<std::size_t>(column.kind)]; }

}  // namespace

KeyType keyTypeOf(const Column& column) {
    const FieldRow& row = rowOf(column);
    const bool moment = row.type == KeyType::Moment;
    if (row.give == nullptr || (moment && (column.length != 8 || column.foreignMoment))) {
        throw NotComputed(textOf("field ", column.name, " of type ", column.type));
    }
    return row.type;
}

void computeField(const Scene& scene, const Column& column, KeyValue& value) {
    value.isNull = isNull(scene.table, column);
    rowOf(column).give(scene.table, column, value);
}

}  // namespace mira::tables::index
