// Arithmetic texts that differ in some numbers only: parsed once, computed many times.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "mira.h"

namespace mira {

inline constexpr std::size_t kParseLength = 79;  // characters that parse takes

/// Stands for an open number in a text.
inline constexpr char kOpenNumber = 1;

enum class Operation : u8 {
    None,  // passes its operand on
    Add,
    Subtract,
    Multiply,
    Divide,
    Raise,
    Negate,
    Apply,               // a function
    PushConstant,        // of programs only
    PushOpen,            // the next open number, which may be negative
    PushOpenAfterMinus,  // likewise, but the grammar has no second minus
};

using NumberFunction = double (*)(double);

/// Whether a name, in any letter case, is that of a function of numbers.
bool isNumberFunction(const char* name);

/// What the parser does with the numbers of a text, in the order in which it does it.
struct Program {
    struct Step {
        Operation operation;
        double constant;
        NumberFunction function;
    };
    std::vector<Step> steps;
    std::size_t open = 0;  ///< open numbers
};

/// Prepares a text of at most kParseLength characters. False when it does not follow the grammar,
/// or nests so deep that the stack may not hold the minus of a negative number.
bool prepareProgram(std::string_view text, Program*);

/// What parse gives for the text with numbers written in, each with a "-" before it when its sign
/// bit is set. False when that fails.
bool runProgram(const Program&, const double* numbers, double* value);

}  // namespace mira
