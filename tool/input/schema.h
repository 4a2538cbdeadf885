// The fields of a new table: as the user writes them, as the values of a CSV file suggest them, or
// as another table has them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
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
    u8 flags = 0;  ///< kNullable, kBinary, kCounting; in Visual FoxPro
};

/// "NAME C(20), PRICE N(10,2) NULL, ..." for a kind of table with names in a page; option is the
/// one that gives the text. A name with blanks stands in double quotes. Throws a Refusal.
std::vector<FieldPlan> parseSchema(std::string_view text, TableKind kind, const CodePage& page,
                                   const char* option = "--schema");
/// The same the other way.
std::string schemaText(const std::vector<FieldPlan>& fields);
/// What a column is.
FieldPlan planOf(const Column& column);
/// The field that holds the same values in a table of another kind, or the nearest; nothing when
/// there is none.
std::optional<FieldPlan> counterpartOf(const FieldPlan& field, TableKind from, TableKind to);
/// The most bytes of a name.
std::size_t nameLimit(TableKind kind);
/// Whether a name is no longer than that in a page; also when the page lacks some of its letters.
bool isNameShort(const std::string& name, TableKind kind, const CodePage& page);
bool isMemoType(char type, TableKind kind);

constexpr std::pair<const char*, TableKind> kKindWords[] = {
    {"dbase3", TableKind::DBase3}, {"dbase4", TableKind::DBase4}, {"foxpro", TableKind::FoxPro},
    {"visual", TableKind::Visual}, {"smt", TableKind::Smt},       {"level7", TableKind::Level7}};
/// Fields for the columns of a CSV file, by all its values; reads it from its second row to its
/// end.
std::vector<FieldPlan> inferFields(CsvReader& csv, const std::vector<std::string>& headings,
                                   const Notation& notation, TableKind kind, const CodePage& page);

/// Writes an empty table, and its memo file when it needs one; nothing may be there yet. The mark
/// says the page, where there is one for it. Null flags follow the fields that need them. Throws a
/// Refusal.
void makeTable(const Target& target, const std::vector<FieldPlan>& fields, TableKind kind,
               const CodePage& page, u32 blockSize);
/// Writes an empty table with structure, flags and mark of another one; mark 0 keeps that one's.
void makeLike(const Target& target, const Table& like, u8 mark, u32 blockSize);
/// The mark for it: 0, unless the page of the other's texts does not come from its mark.
u8 markToKeep(const Table& like);

}  // namespace mira::tool
