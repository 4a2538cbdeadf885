// Expressions: texts with names of fields in them. They are taken apart once; then the values of a
// record are written between the literals, or, where all is arithmetic, computed with as they are
// stored. Shared by calculated fields and record filters.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "arithmetic.h"
#include "dbf/value/value.h"
#include "internal/textout.h"

namespace mira {

/// What may be an operator, of comparison or arithmetic.
inline constexpr std::string_view kOperatorBytes = "><=~^+-/*()";

/// A literal, or the value of a field.
struct ExpressionPart {
    std::string literal;
    int field = -1;
};
using ExpressionParts = std::span<const ExpressionPart>;

/// Valid while the names and types of the fields are unchanged.
struct Expression {
    std::vector<ExpressionPart> parts;
    int operatorPart = -1;  ///< it begins with the first operator character; -1: there is none
    std::size_t operatorPlace = 0;  ///< of that character in the text
    bool numeric = false;           ///< a numeric field is among the parts
};
Expression readExpression(const DbfBase*, std::string_view text);

/// Follows the quotes of an expression from character to character.
class QuoteReader {
public:
    /// Whether the next character is a quote that begins or ends a text.
    bool takes(char c) {
        if (quote_ != 0 ? c != quote_ : c != '"' && c != '\'') return false;
        quote_ = quote_ != 0 ? '\0' : c;
        return true;
    }
    bool inside() const { return quote_ != 0; }

private:
    char quote_ = 0;
};
/// Whether all of a text is one word.
bool isOneWord(std::string_view text);

/// The text of a table field, dates as digits that begin with the year.
std::string_view valueText(DbfBase*, int field);
/// Appends literals and values.
void writeParts(DbfBase*, ExpressionParts, TextOut&);

/// parse, of a text of any length whose runs of blanks may be squeezed to make it fit.
double parseSqueezed(char* text, int* status);

/// Arithmetic over fields that needs no text.
struct Arithmetic {
    enum Way : u8 { Unknown, Fails, Constant, Field, Computed } way = Unknown;
    int field = -1;       ///< of Field
    double constant = 0;  ///< of Constant
    Program program;      ///< of Computed
    std::vector<int> fields;
    std::size_t longest = 0;  ///< characters of the text at most, when all values are known
};
/// Unknown where a value is no number or becomes too long, and where the text does not follow the
/// grammar with numbers that stand for themselves: values may still join what stands around them.
/// balanced says that CheckBrackets is applied to the text.
Arithmetic prepareArithmetic(DbfBase*, ExpressionParts, bool balanced);

enum class Outcome : u8 { Unknown, Fails, Value };
Outcome computedOutcome(DbfBase*, const Arithmetic&, double* value);

/// What writing and parsing would lead to; Unknown where only they can tell.
inline Outcome outcomeOf(DbfBase* h, const Arithmetic& a, double* value) {
    switch (a.way) {
        case Arithmetic::Unknown:
            return Outcome::Unknown;
        case Arithmetic::Fails:
            return Outcome::Fails;
        case Arithmetic::Constant:
            *value = a.constant;
            return Outcome::Value;
        case Arithmetic::Field:
            return storedNumber(h, a.field, value) ? Outcome::Value : Outcome::Unknown;
        case Arithmetic::Computed:
            break;
    }
    return computedOutcome(h, a, value);
}

}  // namespace mira
