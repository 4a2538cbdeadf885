// Opening tables, and what opening made of them: repairs in words, calculated columns, expressions
// on their way into the library.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"
#include "tables/open/find.h"

namespace mira::tables {

/// Opens a table. Behind the records that the header counts, all from the first on whose first byte
/// is neither blank nor "*" are none, and the handle does not count them. Throws a Refusal that
/// names the path: no such file, no table, unknown code page, unknown name in asText, no container
/// for longNames.
std::unique_ptr<Table> openTable(const std::string& name, const TableOptions& options,
                                 Listing* listing = nullptr);
/// The same table, through a handle of its own, for the same thread; without looking
/// for code page and names again. Throws a Refusal when it cannot be opened or its fields have
/// changed.
std::unique_ptr<Table> openAgain(const Table& table, bool writable = false);

/// Looks again at how many records a table has, which another program may have written meanwhile.
void refreshTable(Table& table);

/// Adds a calculated column; expression in UTF-8. Throws a Refusal for a name it does not know.
void addCalculated(Table& table, std::string_view name, std::string_view expression);

/// An expression or filter in UTF-8, as the library takes it: in the table's page, each field under
/// the name that the library finds. Throws a Refusal for characters that the page lacks.
std::string forLibrary(const Table& table, std::string_view expression);

/// From now on the column's bytes are text in the code page, or stay as they are stored.
void readAsText(Column& column);
void readAsBytes(Column& column);

/// "the header counts 2 records, the file holds 3"; empty when they agree.
std::string countRepair(const Table& table);
/// That the file ends with bytes that are no records; empty when it does not.
std::string strayRepair(const Table& table);
/// Whether an interrupted Pack of the library has moved some of the records.
bool isHalfPacked(const Table& table);
/// What opening repaired, a sentence each.
std::vector<std::string> repairsOf(const Table& table);

/// Chooses by the option, the .cpg file, the mark, the language driver and the texts, in this
/// order; texts in UTF-8 gainsay a .cpg file that names a single-byte page. Texts are looked at
/// where the mark is weak: a sample of at most 1 MiB, taken from 16 stretches that lie evenly in
/// the table, so that a late part of a long table counts, too. A sample without a byte above 7F
/// ends in the default, not uncertain. Overwrites RecordBuffer.
PageChoice choosePage(DbfBase*, std::string_view option, Listing* listing = nullptr);
/// "code page CP437 is only a default; --code-page NAME says which it is", with the option as
/// given.
std::string pageDoubt(const PageChoice&, std::string_view option);

}  // namespace mira::tables
