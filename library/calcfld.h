// How expressions are read and field values written into them. Shared by calculated fields and
// record filters.
#pragma once

#include <string_view>

#include "internal/textout.h"
#include "mira.h"

namespace mira {

inline constexpr std::size_t kExpansionSize = 32768;  // work buffer of a calculated field

/// Takes an expression apart, quotes dropped.
struct ExpressionReader {
    const DbfBase* base;
    std::string_view rest;
    char quote = 0;       ///< the open quote character
    bool inWord = false;  ///< what follows continues a word, so no field name starts there
};
struct ExpressionItem {
    enum Kind { Byte, Operator, Field } kind;
    char byte;  ///< of a byte or an operator character
    int field;  ///< of a field name
};
/// False at the end of the expression.
bool readItem(ExpressionReader&, ExpressionItem*);

/// Appends the value of a table field as expressions see it.
void putFieldValue(DbfBase*, int field, TextOut&);

/// makecalcstring into any buffer; the expansion was too long when it was cut.
int expandExpression(DbfBase*, std::string_view expression, TextOut&, int* numeric);

/// parse, of a text of any length whose runs of blanks may be squeezed to make it fit.
double parseSqueezed(char* text, int* status);

}  // namespace mira
