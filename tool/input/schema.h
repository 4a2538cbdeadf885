// The fields of a new table: as the user writes them, as the values of a CSV file suggest them, or
// as another table has them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "input/csvreader.h"
#include "input/notation.h"
#include "rows/output.h"
#include "tables.h"
#include "tables/column/column.h"
#include "tables/page/codepage.h"

namespace mira::tool {

/// The kinds of tables, by the library's numbers.
enum class TableKind : u32 { DBase3 = 0, FoxPro = 1, DBase4 = 2, Visual = 3, Smt = 4, Level7 = 7 };

struct FieldPlan {
    std::string name;  ///< UTF-8
    char type = 'C';
    unsigned length = 0;
    unsigned decimals = 0;
};

/// "NAME C(20), PRICE N(10,2), ..." for a kind of table. Throws a Refusal.
std::vector<FieldPlan> parseSchema(std::string_view text, TableKind kind);
/// The same the other way.
std::string schemaText(const std::vector<FieldPlan>& fields);
/// Fields for the columns of a CSV file, by all its values; reads it from its second row to its
/// end.
std::vector<FieldPlan> inferFields(CsvReader& csv, const std::vector<std::string>& headings,
                                   const Notation& notation, TableKind kind, const CodePage& page);

/// Writes an empty table, and its memo file when it needs one; nothing may be there yet. The mark
/// says the page, where there is one for it. Throws a Refusal.
void makeTable(const Target& target, const std::vector<FieldPlan>& fields, TableKind kind,
               const CodePage& page, u32 blockSize);
/// Writes an empty table with structure, flags and mark of another one; mark 0 keeps that one's.
void makeLike(const Target& target, const Table& like, u8 mark, u32 blockSize);

}  // namespace mira::tool
