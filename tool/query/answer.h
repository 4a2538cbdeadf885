// The answer of a statement, row by row, its values as those of tables where they come from one.
#pragma once

#include <sqlite3.h>

#include <set>
#include <string>
#include <vector>

#include "query/named.h"
#include "rows/writer.h"
#include "tables.h"
#include "tables/column/column.h"
#include "tables/value/value.h"

namespace mira::tool {

class Answer {
public:
    /// The statement and the tables must outlive it.
    Answer(sqlite3_stmt* statement, const NamedTables& tables);
    Answer(const Answer&) = delete;

    /// Each name is another one; what they refer to lasts as long as the answer.
    const std::vector<Heading>& headings() const { return headings_; }
    /// A column each; of values that come from no table one without a field.
    const std::vector<Column>& columns() const { return columns_; }
    /// The table of a column by its number; null for one that may have other values than a table's.
    const NamedTables::Known* tableOf(std::size_t column) const {
        return united_ ? nullptr : tables_[column];
    }
    /// A value of the current row; lasts until the next row or the next value of the column.
    Value value(std::size_t column);

private:
    void addColumn(int number, const NamedTables& tables, std::set<std::string>& taken);
    Value ofColumn(std::size_t number, Value value);

    sqlite3_stmt* statement_;
    bool united_ = false;  // of several SELECTs, the first of which names the columns
    bool outer_ = false;   // an outer join may leave any value out
    std::vector<Heading> headings_;
    std::vector<Column> columns_;
    std::vector<const NamedTables::Known*> tables_;
    std::vector<std::string> scratch_;
};

/// What stands in a database for values that come from no table.
Column anyColumn(std::string name);

}  // namespace mira::tool
