// Values into records: what is given as text or number is checked, encoded for its field, and later
// put into RecordBuffer. Encoding touches neither record nor files, so that a whole statement or
// input can be checked before anything is written.
//
// Appending a record:                       Changing one:
//   loadCounters once                         ReadRecord
//   encodeValue for every column              putValue for the columns that change
//   advanceCounters                           WriteRecord
//   newRecord, putValue for every column      stampDate once
//   appendRecord
//   finishAppend once, or takeBack
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "mira.h"
#include "table/table.h"

namespace mira::tool {

/// A value as it is given. Texts are UTF-8.
struct Given {
    enum class From : u8 {
        Null,
        Cell,  ///< as CSV and the command line write any value: "", "12.50", "true", "base64:..."
        Text,
        Integer,
        Real,
        Blob
    };

    From from = From::Null;
    bool quoted = false;      ///< an empty Cell in quotes: an empty text, not null
    std::string_view text{};  ///< Cell, Text, Blob
    i64 integer = 0;
    double real = 0;

    static Given cell(std::string_view text, bool quoted = false) {
        return {From::Cell, quoted, text};
    }
    static Given ofText(std::string_view text) { return {From::Text, false, text}; }
    static Given ofBlob(std::string_view bytes) { return {From::Blob, false, bytes}; }
    static Given ofInteger(i64 value) { return {From::Integer, false, {}, value}; }
    static Given ofReal(double value) { return {From::Real, false, {}, 0, value}; }
};

/// A value as its field holds it.
struct Encoded {
    std::string bytes{};  ///< all bytes of the field; of a memo field those of one without a memo
    std::string memo{};   ///< bytes for the memo file; empty: no memo
    bool isNull = false;
    bool partial = false;  ///< V and Q: the last byte is the length
};

/// Encodes a value. Empty when it fits; else why it does not, in words that follow "FIELD: ".
/// Numbers given as Real are rounded to the field's decimals, all others must fit exactly. A null
/// for a field that may not be null is a blank; fields that have none (I, B, Y, O) become 0 in a
/// new record and keep their value in an old one: that is a reason, too. A counting field takes its
/// next value in a new record, whether that is given or nothing; in an old one it takes none.
std::string encodeValue(Table& table, const Column& column, const Given& given, bool newRecord,
                        Encoded& encoded);
/// Puts an encoded value into RecordBuffer, null and length bits included, and its memo into the
/// memo file. Throws a Refusal when the memo cannot be written.
void putValue(Table& table, const Column& column, const Encoded& encoded);

/// Before bytes that are given as text.
inline constexpr std::string_view kBase64 = "base64:";
/// The bytes that a text in base64 stands for; nothing when it is none.
std::optional<std::string> decodeBase64(std::string_view text);

struct Moment {
    std::tm time{};  // tm_year is the full year, tm_mon 0 to 11
    int milliseconds = 0;
};
/// A date, and after a blank, a "T" or nothing a time. Nothing when there is no such moment.
std::optional<Moment> readMoment(std::string_view text);

/// "C(20)", "N(10,2)", "I": type and length as a person writes them. Length 0: the type alone.
std::string typeLabel(char type, u32 length, u32 decimals);
std::string typeLabel(const Column& column);

/// Whether the column counts by itself.
bool isCounting(const Column& column);
/// Reads next values and steps of counting fields from the descriptors; where these keep none, the
/// next value follows the largest in the table.
void loadCounters(Table& table);
/// Moves all of them on by a record.
void advanceCounters(Table& table);

/// Clears RecordBuffer for a new record; every column then needs a putValue.
void newRecord(Table& table);
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

/// That index files are not kept up, where there are some; else empty.
std::string staleIndexes(const Table& table);
/// Throws a Refusal beside a ".shp" file, whose shapes go by record number; it ends with the way
/// out.
void refuseBesideShapes(const Table& table, const char* wayOut);

/// Throws a Refusal when the table, or the memo file that one of its fields needs, cannot be
/// written.
void checkWritable(const Table& table);
/// Copies the table to ".bak" and its memo file to ".tbk" beside it. An older copy stays until the
/// new one is whole. Throws a Refusal.
void makeBackups(const Table& table);

}  // namespace mira::tool
