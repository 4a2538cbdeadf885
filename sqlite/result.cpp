#include "result.h"

namespace mira::sql {
namespace {

using tool::Column;
using tool::Kind;
using tool::Value;
using tool::ValueKind;

constexpr double kCurrencyScale = 10000.0;

Stored integer(i64 value) { return {SQLITE_INTEGER, value, 0, {}}; }
Stored real(double value) { return {SQLITE_FLOAT, 0, value, {}}; }

Stored number(const Column& column, std::string_view digits) {
    i64 whole = 0;
    const bool decimals = column.kind != Kind::Decimal || column.decimals != 0;
    return !decimals && tool::toInteger(digits, &whole) ? integer(whole)
                                                        : real(tool::toReal(digits));
}

}  // namespace

const char* declaredType(const Column& column) {
    switch (column.kind) {
        case Kind::Integer:
        case Kind::Logical:
        case Kind::RecordNumber:
        case Kind::Deletion:
            return "INTEGER";
        case Kind::Decimal:
            return column.decimals == 0 ? "INTEGER" : "REAL";
        case Kind::Double:
        case Kind::Currency:
            return "REAL";
        case Kind::Calculated:
            return column.numeric ? "REAL" : "TEXT";
        case Kind::Text:
        case Kind::Varchar:
        case Kind::Date:
        case Kind::Moment:
        case Kind::Memo:
            return "TEXT";
        case Kind::Varbinary:
        case Kind::Blob:
        case Kind::Bytes:
            return "BLOB";
    }
    return "BLOB";
}

Stored storedAs(const Column& column, const Value& value) {
    switch (value.kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
            return {};
        case ValueKind::Digits:
            return number(column, value.text);
        case ValueKind::Integer:
        case ValueKind::Logical:
            return integer(value.integer);
        case ValueKind::Real:
            return real(value.real);
        case ValueKind::Currency:
            return real(static_cast<double>(value.integer) / kCurrencyScale);
        case ValueKind::Text:
        case ValueKind::Date:
        case ValueKind::Moment:
            return {SQLITE_TEXT, 0, 0, value.text};
        case ValueKind::Bytes:
            return {SQLITE_BLOB, 0, 0, value.text};
    }
    return {};
}

void putResult(sqlite3_context* context, const Stored& stored) {
    switch (stored.type) {
        case SQLITE_INTEGER:
            return sqlite3_result_int64(context, stored.integer);
        case SQLITE_FLOAT:
            return sqlite3_result_double(context, stored.real);
        case SQLITE_TEXT:
            return sqlite3_result_text64(context, stored.bytes.data(), stored.bytes.size(),
                                         SQLITE_TRANSIENT, SQLITE_UTF8);
        case SQLITE_BLOB:
            if (stored.bytes.empty()) return sqlite3_result_zeroblob(context, 0);
            return sqlite3_result_blob64(context, stored.bytes.data(), stored.bytes.size(),
                                         SQLITE_TRANSIENT);
        default:
            return sqlite3_result_null(context);
    }
}

}  // namespace mira::sql
