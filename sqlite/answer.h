// The answer of a statement, row by row, its values as those of tables where they come from one.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "api.h"
#include "named.h"
#include "tables/column/column.h"
#include "tables/value/value.h"

namespace mira::sql {

class Answer {
public:
    /// The statement and the tables must outlive it.
    Answer(sqlite3_stmt* statement, const NamedTables& tables);
    Answer(const Answer&) = delete;

    /// Each name is another one. Of values that come from no table a column without a field.
    const std::vector<tables::Column>& columns() const { return columns_; }
    /// Whether its values are those of a table's column.
    bool isOfTable(std::size_t column) const { return tables_[column] != nullptr; }
    /// An empty text is told from null there.
    bool mayBeNull(std::size_t column) const {
        return !isOfTable(column) || outer_ || united_ || columns_[column].mayBeNull();
    }
    /// The table of a column by its number; null for one that may have other values than a table's.
    const KnownTable* tableOf(std::size_t column) const {
        return united_ ? nullptr : tables_[column];
    }
    /// A value of the current row; lasts until the next row or the next value of the column.
    tables::Value value(std::size_t column);

private:
    void addColumn(int number, const NamedTables& tables, std::set<std::string>& taken);
    tables::Value ofColumn(std::size_t number, tables::Value value);

    sqlite3_stmt* statement_;
    bool united_ = false;  // of several SELECTs, the first of which names the columns
    bool outer_ = false;   // an outer join may leave any value out
    std::vector<tables::Column> columns_;
    std::vector<const KnownTable*> tables_;
    std::vector<std::string> scratch_;
};

}  // namespace mira::sql
