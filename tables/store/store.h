// Values into records: what is given as text or number is checked, encoded for its field, and later
// put into RecordBuffer. Encoding touches neither record nor files, so that a whole row, and
// of an import the whole input, can be checked before anything of it is written.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "mira.h"
#include "tables/column/column.h"

namespace mira::tables {

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
    bool asGiven = false;  ///< a number goes into a field of digits as it is written

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
    std::string bytes{};   ///< all bytes of the field; of a memo field those of one without a memo
    std::string memo{};    ///< bytes for the memo file
    bool hasMemo = false;  ///< false: no memo, though one may have no bytes
    bool isNull = false;
    bool partial = false;  ///< V and Q: the last byte is the length
};

/// Encodes a value. Empty when it fits; else why it does not, in words that follow "FIELD: ".
/// A number with an exponent stays as it is written where its characters fit a field of digits.
/// Numbers given as Real are rounded to the field's decimals, all others must fit exactly. A null
/// for a field that may not be null is a blank; fields that have none (I, B, Y, O) become 0 in a
/// new record and keep their value in an old one: that is a reason, too. A counting field takes its
/// next value in a new record, whether that is given or nothing; in an old one it takes none.
std::string encodeValue(Table& table, const Column& column, const Given& given, bool newRecord,
                        Encoded& encoded);
/// Puts an encoded value into RecordBuffer, null and length bits included, but for its memo.
void putBytes(Table& table, const Column& column, const Encoded& encoded);
/// The same, and its memo into the memo file, at once and for good. Throws a Refusal when the memo
/// cannot be written.
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

}  // namespace mira::tables
