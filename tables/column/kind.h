// What fields hold: a row per kind. How values of a kind are read is in value/value.cpp, how they
// are stored in store/store.cpp.
#pragma once

#include <array>
#include <cstdlib>

#include "mira.h"

namespace mira::tables {

/// What a field holds, and so how its value is read; see value.h.
enum class Kind : u8 {
    Text,       // C
    Varchar,    // V
    Varbinary,  // Q
    Decimal,    // N, F
    Integer,    // I, +
    Double,     // B of 8 bytes, O
    Currency,   // Y
    Date,       // D
    Moment,     // T, @
    Logical,    // L
    Memo,       // M
    Blob,       // G, P, W and B as memos
    Bytes,      // any other letter: the stored bytes
    Calculated,
    RecordNumber,  // the record, from 1
    Deletion,      // whether it is deleted
};
constexpr std::size_t kKinds = static_cast<std::size_t>(Kind::Deletion) + 1;

/// Decimals of a currency, and how many of its units, which is what the library counts, make 1.
constexpr unsigned kCurrencyDecimals = 4;
constexpr u32 kCurrencyUnits = 10000;

/// Storage classes of a database.
enum class Storage : u8 { Null, Integer, Real, Text, Blob };

/// As what filters compare.
enum class Compared : u8 { Texts, Numbers, Dates, Logicals, Memos };

/// What else there is to know of a kind, as bits.
enum KindBits : u8 {
    kNoBlank = 1,     ///< all bytes mean a value
    kMayFail = 2,     ///< some bytes mean no value
    kHoldsText = 4,   ///< may hold a text of no characters
    kTakesBytes = 8,  ///< takes bytes as they are given
    kSized = 16,      ///< as many bytes as its definition says
};

struct KindRow {
    Storage storage;    ///< of its column in a database, with decimals where there may be some
    Compared compared;  ///< by a filter
    unsigned bits;
    constexpr bool has(KindBits bit) const { return (bits & bit) != 0; }
};

constexpr KindRow rowOf(Kind kind) {
    using enum Storage;
    switch (kind) {
        case Kind::Text:
            return {Text, Compared::Texts, kHoldsText | kTakesBytes | kSized};
        case Kind::Varchar:
            return {Text, Compared::Texts, kHoldsText | kTakesBytes | kSized | kMayFail};
        case Kind::Varbinary:
            return {Blob, Compared::Texts, kTakesBytes | kSized | kMayFail};
        case Kind::Decimal:
            return {Real, Compared::Numbers, kSized | kMayFail};
        case Kind::Integer:
            return {Integer, Compared::Numbers, kNoBlank};
        case Kind::Double:
            return {Real, Compared::Numbers, kNoBlank | kMayFail};
        case Kind::Currency:
            return {Real, Compared::Numbers, kNoBlank};
        case Kind::Date:
        case Kind::Moment:
            return {Text, Compared::Dates, kMayFail};
        case Kind::Logical:
            return {Integer, Compared::Logicals, kMayFail};
        case Kind::Memo:
            return {Text, Compared::Memos, kHoldsText | kTakesBytes};
        case Kind::Blob:
            return {Blob, Compared::Memos, kTakesBytes};
        case Kind::Bytes:
            return {Blob, Compared::Texts, kTakesBytes | kSized};
        case Kind::Calculated:
            return {Text, Compared::Texts, kTakesBytes};
        case Kind::RecordNumber:
            return {Integer, Compared::Numbers, kTakesBytes};
        case Kind::Deletion:
            return {Integer, Compared::Logicals, kTakesBytes};
    }
    std::abort();  // which is not constant: a kind without a row does not compile
}

/// What a field of a letter holds whose values the library says are encoded so.
constexpr Kind kindOf(FieldClass stored, char type) {
    switch (stored) {
        case FieldClass::None:
        case FieldClass::System:
            return Kind::Bytes;
        case FieldClass::Text:
            return type == 'V' ? Kind::Varchar : type == 'Q' ? Kind::Varbinary : Kind::Text;
        case FieldClass::Logical:
            return Kind::Logical;
        case FieldClass::Date:
            return Kind::Date;
        case FieldClass::Moment:
            return Kind::Moment;
        case FieldClass::Decimal:
            return Kind::Decimal;
        case FieldClass::Integer:
            return Kind::Integer;
        case FieldClass::Double:
            return Kind::Double;
        case FieldClass::Currency:
            return Kind::Currency;
        case FieldClass::Memo:
            return type == 'M' ? Kind::Memo : Kind::Blob;
    }
    return Kind::Bytes;
}

/// What row gives for every kind, as a table.
template <typename Row>
constexpr auto tableOfKinds(Row row) {
    std::array<decltype(row(Kind::Text)), kKinds> rows{};
    for (std::size_t i = 0; i < kKinds; ++i) rows[i] = row(static_cast<Kind>(i));
    return rows;
}

inline constexpr auto kKindRows = tableOfKinds(rowOf);
constexpr const KindRow& kindRow(Kind kind) { return kKindRows[static_cast<std::size_t>(kind)]; }

}  // namespace mira::tables
