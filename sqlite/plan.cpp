// How a scan is planned. A plan is a text of conditions, one a line, "COLUMN OPERATOR", in the
// order in which their constants come.
#include "plan.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <sstream>
#include <utility>

namespace mira::sql {
namespace {

constexpr int kRowid = -1;
constexpr double kFewRows = 10;

std::optional<Operator> operatorOf(int code) {
    constexpr std::pair<int, Operator> kOperators[] = {
        {SQLITE_INDEX_CONSTRAINT_EQ, Operator::Equal},
        {SQLITE_INDEX_CONSTRAINT_LT, Operator::Less},
        {SQLITE_INDEX_CONSTRAINT_LE, Operator::LessEqual},
        {SQLITE_INDEX_CONSTRAINT_GT, Operator::Greater},
        {SQLITE_INDEX_CONSTRAINT_GE, Operator::GreaterEqual},
        {SQLITE_INDEX_CONSTRAINT_ISNULL, Operator::IsNull},
        {SQLITE_INDEX_CONSTRAINT_LIKE, Operator::Like},
        {SQLITE_INDEX_CONSTRAINT_GLOB, Operator::Glob}};
    for (const auto& [known, op] : kOperators) {
        if (known == code) return op;
    }
    return std::nullopt;
}

bool isPattern(Operator op) { return op == Operator::Like || op == Operator::Glob; }

/// LIKE and GLOB have no collation; IS NULL compares nothing.
bool comparesTexts(const tables::Column& column, Operator op) {
    return tables::declaredStorage(column) == Storage::Text && op != Operator::IsNull &&
           !isPattern(op);
}

bool isBinary(sqlite3_index_info* info, int i) {
    const char* const collation = sqlite3_vtab_collation(info, i);
    return collation != nullptr && sqlite3_stricmp(collation, "BINARY") == 0;
}

/// Whether an `=` may stand for an IN. SQLite hands over the values of a list one after the other,
/// and then compares them as texts with a column of texts, also where numbers of a subquery are to
/// be compared as numbers. It tells so of the first 32 conditions, from 3.38 on.
bool mayBeIn(sqlite3_index_info* info, int i) {
#if SQLITE_VERSION_NUMBER >= 3038000
    constexpr int kTold = 32;
    if (sqlite3_libversion_number() >= 3038000 && i < kTold) {
        return sqlite3_vtab_in(info, i, -1) != 0;
    }
#endif
    static_cast<void>(info);
    static_cast<void>(i);
    return true;
}

/// Whether the other side is known to be a whole number. Any other constant may be converted first,
/// and is then found only by looking at all records.
bool isWholeNumber(sqlite3_index_info* info, int i) {
#if SQLITE_VERSION_NUMBER >= 3038000
    sqlite3_value* value = nullptr;
    return sqlite3_libversion_number() >= 3038000 &&
           sqlite3_vtab_rhs_value(info, i, &value) == SQLITE_OK &&
           sqlite3_value_type(value) == SQLITE_INTEGER;
#else
    static_cast<void>(info);
    static_cast<void>(i);
    return false;
#endif
}

/// Whether a condition may be tested while scanning.
bool isShortcut(const PlanTable& table, sqlite3_index_info* info, int i, Operator op,
                const tables::Column& column) {
    if (isPattern(op)) return table.patterns;
    if (!comparesTexts(column, op)) return true;
    if (!table.utf8 || !isBinary(info, i)) return false;
    return op != Operator::Equal || (!table.rowLists && !mayBeIn(info, i));
}

/// The share of the records that a condition leaves, by experience.
double shareLeft(Operator op, double records) {
    switch (op) {
        case Operator::Equal:
            return records > kFewRows ? kFewRows / records : 1;
        case Operator::Like:
        case Operator::Glob:
        case Operator::IsNull:
            return 0.1;
        case Operator::Less:
        case Operator::LessEqual:
        case Operator::Greater:
        case Operator::GreaterEqual:
            return 0.3;
    }
    return 1;
}

/// What the conditions of a plan leave.
struct Estimate {
    double rows;
    bool equal = false;   ///< with one value
    bool oneRow = false;  ///< by its record number
    bool unique = false;  ///< which is a whole number
};

void putCost(const Estimate& left, double records, sqlite3_index_info* info) {
    info->estimatedRows = static_cast<sqlite3_int64>(std::max(1.0, left.rows));
    // A scan for one value is repeated for each row of the tables outside it, from an index that
    // the second one makes. That pays most, and takes least memory, for the smallest table, so the
    // cost grows faster than the number of records.
    constexpr double kIndexShare = 1000;
    info->estimatedCost =
        left.equal ? 2 + std::min(records, records * std::log2(records + 1) / kIndexShare)
                   : records;
    if (!left.oneRow) return;
    info->estimatedRows = 1;
    info->estimatedCost = 1;
    if (left.unique) info->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
}

}  // namespace

bool keepsOnTerms() { return sqlite3_libversion_number() >= 3051000; }

int choosePlan(const PlanTable& table, sqlite3_index_info* info) {
    const double records = std::max<double>(1, table.records);
    const int recordColumn = static_cast<int>(table.columns.recordNumber());
    std::ostringstream plan;
    int arguments = 0;
    Estimate left{records};
    for (int i = 0; i < info->nConstraint; ++i) {
        const auto& constraint = info->aConstraint[i];
        const std::optional<Operator> known = operatorOf(constraint.op);
        if (constraint.usable == 0 || !known) continue;
        const Operator op = *known;
        const int column = constraint.iColumn == kRowid ? recordColumn : constraint.iColumn;
        const tables::Column& of = table.columns[static_cast<std::size_t>(column)];
        if (!isShortcut(table, info, i, op, of)) continue;
        info->aConstraintUsage[i].argvIndex = ++arguments;
        plan << column << ' ' << static_cast<char>(op) << '\n';
        left.rows *= shareLeft(op, records);
        left.equal = left.equal || op == Operator::Equal;
        if (op == Operator::Equal && column == recordColumn) {
            left.oneRow = true;
            left.unique = left.unique || isWholeNumber(info, i);
        }
    }
    info->idxStr = sqlite3_mprintf("%s", plan.str().c_str());
    if (info->idxStr == nullptr) return SQLITE_NOMEM;
    info->needToFreeIdxStr = 1;
    putCost(left, records, info);
    return SQLITE_OK;
}

std::vector<Condition> readPlan(const char* plan) {
    std::vector<Condition> conditions;
    std::istringstream lines(plan != nullptr ? plan : "");
    Condition condition;
    char op = 0;
    while (lines >> condition.column >> op) {
        condition.op = static_cast<Operator>(op);
        conditions.push_back(condition);
    }
    return conditions;
}

}  // namespace mira::sql
