// Field types: one row per letter. A type whose values are encoded in a way of their own gets a
// class, too, for which value/value.h has a row.
#pragma once

#include <array>

#include "mira.h"

namespace mira {

/// How the library treats the values of a field: FieldClass, with the letters apart whose values
/// are read in ways of their own.
enum class ValueClass : u8 {
    None,
    Text,
    System,  ///< characters that are shown and never stored
    Logical,
    Date,
    Moment,
    Decimal,
    Integer,
    Ordered,
    Currency,
    BinaryOrDouble,  ///< by the length a memo or a double
    Memo
};
/// What applications are told of a class.
constexpr FieldClass fieldClassOf(ValueClass value) {
    switch (value) {
        case ValueClass::None:
        case ValueClass::Memo:  // too long or too short for a reference
            return FieldClass::None;
        case ValueClass::Text:
            return FieldClass::Text;
        case ValueClass::System:
            return FieldClass::System;
        case ValueClass::Logical:
            return FieldClass::Logical;
        case ValueClass::Date:
            return FieldClass::Date;
        case ValueClass::Moment:
            return FieldClass::Moment;
        case ValueClass::Decimal:
            return FieldClass::Decimal;
        case ValueClass::Integer:
            return FieldClass::Integer;
        case ValueClass::Ordered:
        case ValueClass::BinaryOrDouble:
            return FieldClass::Double;
        case ValueClass::Currency:
            return FieldClass::Currency;
    }
    return FieldClass::None;
}
enum class BlankRule : u8 { Spaces, Zeros, SpacesAtLength14, ZerosAtLength8Or4, Reference };
enum class NumericRule : u8 { Never, Always, AtLength8 };
/// Whether the bytes of a field are a reference to a memo.
enum class ReferenceRule : u8 { Never, Always, AtLength10, AtLength4Or10 };
/// The length that a field of a new table gets.
enum class SizeRule : u8 { AsGiven, One, Four, Eight, Moment, Reference, BinaryOrDouble };

/// Characters that numbers take on a screen.
inline constexpr u8 kIntegerWidth = 10;  // and block numbers, and "Full memo "
inline constexpr u8 kDoubleWidth = 20;
inline constexpr u8 kCurrencyWidth = 24;
inline constexpr u8 kCalculatedWidth = 20;  // calculated fields

struct TypeRow {
    char letter;
    const char* name;
    const char* nameAtLength8;  ///< null where the length makes no difference
    ValueClass value;
    BlankRule blank;
    NumericRule numeric;
    ReferenceRule reference;
    SizeRule size;
    u8 width;       ///< on a screen; 0 for as many characters as the field is long
    bool accepted;  ///< tables with this letter open without remark
};

namespace types {

using enum BlankRule;
using V = ValueClass;
using S = SizeRule;
inline constexpr auto kNever = NumericRule::Never;
inline constexpr auto kAlways = NumericRule::Always;
inline constexpr auto kAt8 = NumericRule::AtLength8;
inline constexpr auto kNone = ReferenceRule::Never;
inline constexpr auto kAny = ReferenceRule::Always;
inline constexpr auto kAt10 = ReferenceRule::AtLength10;
inline constexpr auto kAt4Or10 = ReferenceRule::AtLength4Or10;

inline constexpr TypeRow kTypeRows[] = {
    // letter, name, name at length 8, value, blank, numeric, reference, size, width, accepted
    {0, "Unknown", nullptr, V::None, Zeros, kNever, kNone, S::AsGiven, 0, false},
    {'C', "Character", nullptr, V::Text, Spaces, kNever, kNone, S::AsGiven, 0, true},
    {'N', "Numeric", nullptr, V::Decimal, Spaces, kAlways, kNone, S::AsGiven, 0, true},
    {'F', "Float", nullptr, V::Decimal, Spaces, kAlways, kNone, S::AsGiven, 0, true},
    {'D', "Date", nullptr, V::Date, Spaces, kNever, kNone, S::Eight, 0, true},
    {'L', "Logical", nullptr, V::Logical, Spaces, kNever, kNone, S::One, 0, true},
    {'M', "Memo", nullptr, V::Memo, Reference, kNever, kAny, S::Reference, kIntegerWidth, true},
    {'T', "DateTime", nullptr, V::Moment, SpacesAtLength14, kNever, kNone, S::Moment, 0, true},
    {'G', "General", nullptr, V::Memo, Reference, kNever, kAny, S::Reference, kIntegerWidth, true},
    {'Y', "Currency", nullptr, V::Currency, Zeros, kAlways, kNone, S::Eight, kCurrencyWidth, true},
    {'B', "Binary", "Double", V::BinaryOrDouble, ZerosAtLength8Or4, kAt8, kAt10, S::BinaryOrDouble,
     kDoubleWidth, true},
    {'I', "Integer", nullptr, V::Integer, Zeros, kAlways, kNone, S::Four, kIntegerWidth, true},
    {'0', "System", nullptr, V::System, Zeros, kNever, kNone, S::AsGiven, 0, true},
    {'@', "DateTime", nullptr, V::Moment, SpacesAtLength14, kNever, kNone, S::Moment, 0, true},
    {'+', "Integer", nullptr, V::Integer, Zeros, kAlways, kNone, S::Four, kIntegerWidth, true},
    {'O', "Binary", "Double", V::Ordered, Zeros, kAlways, kNone, S::BinaryOrDouble, kDoubleWidth,
     true},
    {'V', "Variant", nullptr, V::Text, Spaces, kNever, kNone, S::AsGiven, 0, true},
    {'Q', "Varbinary", nullptr, V::Text, Zeros, kNever, kNone, S::AsGiven, 0, true},
    {'W', "Blob", nullptr, V::Memo, Zeros, kNever, kAt4Or10, S::AsGiven, 0, true},
    {'P', "Picture", nullptr, V::None, Zeros, kNever, kAt4Or10, S::AsGiven, 0, false},
};

/// Index into kTypeRows by letter; 0, the unknown row, for every other byte.
inline constexpr std::array<u8, 256> kRowOfLetter = [] {
    std::array<u8, 256> rows{};
    for (std::size_t i = 1; i < std::size(kTypeRows); ++i) {
        rows[static_cast<u8>(kTypeRows[i].letter)] = static_cast<u8>(i);
    }
    return rows;
}();

}  // namespace types

/// The row of a type letter, or the row of unknown letters.
constexpr const TypeRow& typeRow(char letter) {
    return types::kTypeRows[types::kRowOfLetter[static_cast<u8>(letter)]];
}

inline ValueClass valueClass(const DbfField& f) { return typeRow(f.Type).value; }

/// Whether the text of a field is the characters that it stores.
inline bool isText(const DbfField& f) {
    return valueClass(f) == ValueClass::Text || valueClass(f) == ValueClass::System;
}
inline bool isDateOrMoment(const DbfField& f) {
    return valueClass(f) == ValueClass::Date || valueClass(f) == ValueClass::Moment;
}
inline bool isNumeric(const DbfField& f) {
    const NumericRule rule = typeRow(f.Type).numeric;
    return rule == NumericRule::Always || (rule == NumericRule::AtLength8 && f.Length == 8);
}

}  // namespace mira
