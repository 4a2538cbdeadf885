// Records of new tables, with the counters, the date and the end byte that go with them. (Tables
// that are there are changed by way of a Change.)
//
//   loadCounters once
//   encodeValue for every column
//   advanceCounters
//   newRecord, putValue for every column
//   appendRecord
//   finishAppend once
#pragma once

#include <string>

#include "tables/column/column.h"

namespace mira::tables {

/// Where the file keeps the next value of a counting field; 0 for nowhere.
u32 counterPlace(const Table& table, const Column& column);
/// Reads next values and steps of counting fields from the descriptors; where these keep none, the
/// next value follows the largest in the table.
void loadCounters(Table& table);
/// Moves all of them on by a record.
void advanceCounters(Table& table);

/// Clears RecordBuffer for a new record; every column then needs a putValue.
void newRecord(Table& table);
/// Cuts off what stands behind the last record and is none; the header then counts the records.
/// Whatever appends, takes out or moves records comes after it. Throws a Refusal.
void cutStray(Table& table);
/// Writes RecordBuffer after the last record; the header in the file still counts the old ones.
/// Throws a Refusal.
void appendRecord(Table& table);
/// Makes the appended records count: next values, date, record count, end byte. Throws a Refusal.
void finishAppend(Table& table);
/// The fixed header as it stands in a file, so many bytes of it.
std::string headerImage(const DbfHeader& header, u32 size);
/// The header of a table without records, and without an index file or a database, that has the
/// fields of another: all bytes up to record 0. Throws a Refusal.
std::string emptyHead(const Table& like);

}  // namespace mira::tables
