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

/// LIKE and GLOB have no collation; IS NULL compares nothing.
bool comparesTexts(const tables::Column& column, Operator op) {
    return tables::declaredStorage(column) == Storage::Text && op != Operator::IsNull &&
           op != Operator::Like && op != Operator::Glob;
}

bool isBinary(sqlite3_index_info* info, int i) {
    const char* const collation = sqlite3_vtab_collation(info, i);
    return collation != nullptr && sqlite3_stricmp(collation, "BINARY") == 0;
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
        default:
            return 0.3;
    }
}

}  // namespace

int choosePlan(const PlanTable& table, sqlite3_index_info* info) {
    const double records = std::max<double>(1, table.records);
    const int recordColumn = static_cast<int>(table.columns->size()) - kHiddenColumns;
    std::ostringstream plan;
    int arguments = 0;
    double rows = records;
    bool equal = false;
    bool oneRow = false;
    for (int i = 0; i < info->nConstraint; ++i) {
        const auto& constraint = info->aConstraint[i];
        const std::optional<Operator> known = operatorOf(constraint.op);
        if (constraint.usable == 0 || !known) continue;
        const Operator op = *known;
        const int column = constraint.iColumn == kRowid ? recordColumn : constraint.iColumn;
        const tables::Column& of = (*table.columns)[static_cast<std::size_t>(column)];
        if (comparesTexts(of, op) && (!table.utf8 || !isBinary(info, i))) continue;
        info->aConstraintUsage[i].argvIndex = ++arguments;
        plan << column << ' ' << static_cast<char>(op) << '\n';
        rows *= shareLeft(op, records);
        equal = equal || op == Operator::Equal;
        oneRow = oneRow || (op == Operator::Equal && column == recordColumn);
    }
    info->idxStr = sqlite3_mprintf("%s", plan.str().c_str());
    if (info->idxStr == nullptr) return SQLITE_NOMEM;
    info->needToFreeIdxStr = 1;
    info->estimatedRows = static_cast<sqlite3_int64>(std::max(1.0, rows));
    // A scan for one value is repeated for each row of the tables outside it, from an index that
    // the second one makes. That pays most, and takes least memory, for the smallest table, so the
    // cost grows faster than the number of records.
    constexpr double kIndexShare = 1000;
    info->estimatedCost =
        equal ? 2 + std::min(records, records * std::log2(records + 1) / kIndexShare) : records;
    if (oneRow) {
        info->estimatedRows = 1;
        info->estimatedCost = 1;
        info->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
    }
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
