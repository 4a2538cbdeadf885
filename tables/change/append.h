// Appending and changing records, with the counters, the date and the end byte that go with them.
//
// Appending a record:                       Changing one:
//   loadCounters once                         ReadRecord
//   encodeValue for every column              putValue for the columns that change
//   advanceCounters                           WriteRecord
//   newRecord, putValue for every column      stampDate once
//   appendRecord
//   finishAppend once, or takeBack
#pragma once

#include "tables/column/column.h"

namespace mira::tables {

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
/// Cuts the table back to a number of records after a failure, what is left of a record after them
/// included; false when that fails, too.
bool takeBack(Table& table, u32 records);
/// Stamps today's date into the header, which otherwise stays as it is. Throws a Refusal.
void stampDate(Table& table);

}  // namespace mira::tables
