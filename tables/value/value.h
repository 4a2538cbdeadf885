// The value of a cell, by one set of rules for every output.
//
//   field             kind of value
//   C, V, M           Text; Bytes where they are in no code page and are no UTF-8
//   N, F              Digits, as stored, without padding
//   I, +              Integer
//   B of 8 bytes, O   Real
//   Y                 Currency: text with four decimals, integer in ten-thousandths
//   D                 Date: text "2024-01-31"
//   T, @              Moment: text "2024-01-31 23:59:59", ".sss" after it when not zero
//   L                 Logical: integer 1 or 0
//   G, P, Q, W, B     Bytes
//   other letters     Bytes, as stored
//
// Null is what the null flags say, Blank a field with nothing in it and one whose bytes are no
// value (fault says so). With TableOptions::raw, C, N, F, D and T as digits come as Text, as
// stored.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "tables/column/column.h"
#include "tables/value/memo.h"

namespace mira::tables {

enum class ValueKind : u8 {
    Null,
    Blank,
    Text,
    Digits,
    Integer,
    Real,
    Currency,
    Date,
    Moment,
    Logical,
    Bytes,
};

/// What is wrong with a cell.
enum class Fault : u8 {
    None,
    NoNumber,       // N or F that is none; B, O, that are not finite
    NoDate,         // D, T, @
    NoLogical,      // L
    NoCharacter,    // bytes that the page lacks became U+FFFD
    LengthPastEnd,  // V, Q: the length reaches the last byte
    NoMemo,         // a memo that cannot be read
    MemoCut,        // a memo that the file does not hold whole
    Rounded,        // a number that a database keeps only to the nearest double
    Unkept,         // a value that a database server has no place for
};
constexpr std::size_t kFaults = 10;

/// Texts lie in the record buffer or in the reader and last until the next cell is read.
struct Value {
    ValueKind kind = ValueKind::Blank;
    Fault fault = Fault::None;
    std::string_view text;
    i64 integer = 0;
    double real = 0;
};

/// Reads the cells of the record in the table's RecordBuffer.
struct CellReader {
    explicit CellReader(Table& of) : table(&of) {}

    Table* table;
    u32 record = 0;      // physical number from 0, for RecordNumber columns
    MemoReader memos{};  // keeps the memo file open
    std::string scratch{};
    char digits[40] = {};
};

void readCell(CellReader& reader, const Column& column, Value& value);

/// Whether a text lies in the record buffer, and so lasts until the next record is read.
bool lastsForRecord(const Table& table, std::string_view text);

/// Whether the null flags of the current record say that the column is null.
bool isNull(const Table& table, const Column& column);
/// The stored bytes of the column in the current record.
std::string_view storedBytes(const Table& table, const Column& column);
/// Those that count: of V and Q with null flags as many as their length says.
std::string_view variableBytes(const Table& table, const Column& column, Fault* fault = nullptr);

/// Digits to a whole number of 64 bits; nothing when they are none or the number has decimals.
std::optional<i64> toInteger(std::string_view digits);
/// Digits to the nearest double.
double toReal(std::string_view digits);
/// Whether a text is a number: sign, digits with at most one point, exponent.
bool isNumber(std::string_view text);

/// How often each fault was met, and where first.
struct FaultTally {
    u64 count = 0;
    u32 record = 0;
    std::string column{};
};
using Faults = std::array<FaultTally, kFaults>;
void countFault(Faults& faults, Fault fault, u32 record, const Column& column);
/// Adds those of later records.
void addFaults(Faults& faults, const Faults& later);
/// All of them together.
u64 faultCount(const Faults& faults);
/// "3 values that are no date came out empty", for a count of a fault.
std::string faultSentence(Fault fault, u64 count);
/// The same with the place: "..., first in record 3, field PRICE".
std::string faultSentence(Fault fault, const FaultTally& tally);

}  // namespace mira::tables
