// Fields as expressions of index files see them: texts with their padding, days as numbers.
#include <chrono>

#include "tables/index/node.h"
#include "tables/page/bytes.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables::index {
namespace {

constexpr i64 kDayOf1970 = 2440588;
constexpr double kDayMilliseconds = 86400000;

/// The day of eight digits; 0 for a blank and for what is no date.
double dayOf(std::string_view digits) {
    if (digits.size() != 8 || !areDigits(digits)) return 0;
    const auto number = [&](std::size_t from, std::size_t count) {
        return std::stoi(std::string(digits.substr(from, count)));
    };
    const std::chrono::year_month_day date{std::chrono::year(number(0, 4)),
                                           std::chrono::month(static_cast<unsigned>(number(4, 2))),
                                           std::chrono::day(static_cast<unsigned>(number(6, 2)))};
    if (!date.ok()) return 0;
    return static_cast<double>(std::chrono::sys_days(date).time_since_epoch().count() + kDayOf1970);
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

}  // namespace

void computeField(const Scene& scene, const Column& column, KeyValue& value) {
    DbfBase* const base = scene.table.base.get();
    const std::string_view stored = storedBytes(scene.table, column);
    value.isNull = isNull(scene.table, column);
    switch (column.kind) {
        case Kind::Decimal:
            value.number = decimalOf(stored);
            return;
        case Kind::Integer:
            value.number = static_cast<i32>(GetInt(base, column.field));
            return;
        case Kind::Currency:
            value.number = GetCurrency(base, column.field);
            return;
        case Kind::Double:
            value.number = GetValue(base, column.field);
            return;
        case Kind::Date:
            value.number = dayOf(stored);
            return;
        case Kind::Moment:
            value.number = momentOf(stored);
            return;
        case Kind::Logical:
            value.truth = !stored.empty() &&
                          std::string_view("TtYy").find(stored[0]) != std::string_view::npos;
            return;
        case Kind::Varchar:
            value.text = variableBytes(scene.table, column);
            value.text.resize(stored.size(), ' ');
            return;
        case Kind::Text:
        case Kind::Varbinary:
        case Kind::Memo:
        case Kind::Blob:
        case Kind::Bytes:
        case Kind::Calculated:
        case Kind::RecordNumber:
        case Kind::Deletion:
            value.text = stored;
            return;
    }
}

}  // namespace mira::tables::index
