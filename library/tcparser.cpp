// Arithmetic expressions: a table-driven LR parser over doubles.
//
//   rule  left side    right side
//     1   expression   expression "+" term
//     2   expression   expression "-" term
//     3   expression   term
//     4   term         term "*" power
//     5   term         term "/" power
//     6   term         power
//     7   power        signed "^" power
//     8   power        signed
//     9   signed       "-" operand
//    10   signed       operand
//    12   operand      atom
//    14   atom         "(" expression ")"
//    15   atom         number
//    16   atom         function "(" expression ")"
//
// "+" "-" "*" "/" group from the left, "^" from the right; the unary minus binds tighter than "^",
// stands before an atom only and cannot be repeated. All state lies in a Parser record on the
// stack, so that any number of threads may parse at once.
//
// With a program to fill the parser also notes what it does with numbers. A negative number in the
// place of an open one is a unary minus and an atom: it reduces to the same side, "signed", with
// one more entry on the stack, unless a minus stands before it already.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "arithmetic.h"
#include "internal/ascii.h"
#include "internal/real.h"

namespace mira {
namespace {

// Kinds of tokens; the columns of kStates.
enum Kind : int {
    kPlus,
    kMinus,
    kTimes,
    kDivide,
    kPower,
    kColon,
    kOpen,
    kClose,
    kNumber,
    kFunction = 10,
    kEnd,
    kInvalid,
    kKinds
};

enum Side : u8 { kExpression, kTerm, kPowerOf, kSigned, kOperand, kAtom, kSides };

constexpr std::size_t kLineSize = kParseLength + 1;
constexpr int kStackSize = 30;
constexpr u8 kAfterMinus = 5;
constexpr u8 kErrorState = 30;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

struct Function {
    const char* name;
    NumberFunction apply;
};

struct Entry {
    u8 state;
    double value;             // of a number or a recognised symbol
    NumberFunction function;  // of a function token
};

struct Parser {
    Entry stack[kStackSize];
    int stacktop = -1;
    Entry curtoken{};  // the token just read; a reduction builds its result here
    int tokentype = kEnd;
    const char* input = nullptr;
    bool error = false;
    Program* program = nullptr;  // to be filled
    bool open = false;           // curtoken is an open number
    int deepest = 0;             // stacktop at its highest
};

// The action and goto tables, a row per state.
//   action: n > 0 shift to state n, -r reduce by rule r, 0 error, kAccept done.
//   next:   the state to enter after a reduction to that side; 0 stands for kErrorState.
// States 7, 18 and 26 do not exist.
struct State {
    short action[kKinds];
    u8 next[kSides];
};

constexpr short kAccept = 99;

// clang-format off
constexpr State kStates[] = {
//           +    -    *    /    ^    :    (    )  num    9  fun  end  inv     exp trm pow sgn opd atm
/*  0 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  1,  2,  3,  4,  6,  8}},
/*  1 */ {{ 12,  13,   0,   0,   0,   0,   0,   0,   0,   0,   0, kAccept, 0}, {}},
/*  2 */ {{ -3,  -3,  14,  15,  -3,  -3,  -3,  -3,  -3,  -3,  -3,  -3,  -3}, {}},
/*  3 */ {{ -6,  -6,  -6,  -6,  -6,  -6,  -6,  -6,  -6,  -6,  -6,  -6,  -6}, {}},
/*  4 */ {{ -8,  -8,  -8,  -8,  16,  -8,  -8,  -8,  -8,  -8,  -8,  -8,  -8}, {}},
/*  5 */ {{  0,   0,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  0,  0,  0,  0, 17,  8}},
/*  6 */ {{-10, -10, -10, -10, -10, -10, -10, -10, -10, -10, -10, -10, -10}, {}},
/*  7 */ {{}, {}},
/*  8 */ {{-12, -12, -12, -12, -12, -12, -12, -12, -12, -12, -12, -12, -12}, {}},
/*  9 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, { 19,  2,  3,  4,  6,  8}},
/* 10 */ {{-15, -15, -15, -15, -15, -15, -15, -15, -15, -15, -15, -15, -15}, {}},
/* 11 */ {{  0,   0,   0,   0,   0,   0,  20,   0,   0,   0,   0,   0,   0}, {}},
/* 12 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  0, 21,  3,  4,  6,  8}},
/* 13 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  0, 22,  3,  4,  6,  8}},
/* 14 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  0,  0, 23,  4,  6,  8}},
/* 15 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  0,  0, 24,  4,  6,  8}},
/* 16 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, {  0,  0, 25,  4,  6,  8}},
/* 17 */ {{ -9,  -9,  -9,  -9,  -9,  -9,  -9,  -9,  -9,  -9,  -9,  -9,  -9}, {}},
/* 18 */ {{}, {}},
/* 19 */ {{ 12,  13,   0,   0,   0,   0,   0,  27,   0,   0,   0,   0,   0}, {}},
/* 20 */ {{  0,   5,   0,   0,   0,   0,   9,   0,  10,   0,  11,   0,   0}, { 28,  2,  3,  4,  6,  8}},
/* 21 */ {{ -1,  -1,  14,  15,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1,  -1}, {}},
/* 22 */ {{ -2,  -2,  14,  15,  -2,  -2,  -2,  -2,  -2,  -2,  -2,  -2,  -2}, {}},
/* 23 */ {{ -4,  -4,  -4,  -4,  -4,  -4,  -4,  -4,  -4,  -4,  -4,  -4,  -4}, {}},
/* 24 */ {{ -5,  -5,  -5,  -5,  -5,  -5,  -5,  -5,  -5,  -5,  -5,  -5,  -5}, {}},
/* 25 */ {{ -7,  -7,  -7,  -7,  -7,  -7,  -7,  -7,  -7,  -7,  -7,  -7,  -7}, {}},
/* 26 */ {{}, {}},
/* 27 */ {{-14, -14, -14, -14, -14, -14, -14, -14, -14, -14, -14, -14, -14}, {}},
/* 28 */ {{ 12,  13,   0,   0,   0,   0,   0,  29,   0,   0,   0,   0,   0}, {}},
/* 29 */ {{-16, -16, -16, -16, -16, -16, -16, -16, -16, -16, -16, -16, -16}, {}},
/* 30 */ {{}, {}},
};
// clang-format on
static_assert(sizeof kStates / sizeof kStates[0] == kErrorState + 1);

// Through a 32-bit integer where it fits, which turns -0 into 0.
double truncated(double x) {
    const double whole = std::trunc(x);
    return whole == 0 ? 0.0 : whole;
}

// Halves go up: -2.5 gives -2, and so does -2.7. Beyond 32 bits, to the nearest integer.
double rounded(double x) {
    const double whole = truncated(x + 0.5);
    return std::fabs(whole) <= 2147483647.0 || whole == -2147483648.0 ? whole : std::round(x);
}

// A name that begins another comes after it: the tokenizer takes the first that matches.
constexpr Function kFunctions[] = {
    {"ABS", [](double x) { return std::fabs(x); }},
    {"ACOS", [](double x) { return std::acos(x); }},
    {"ASIN", [](double x) { return std::asin(x); }},
    {"ATAN", [](double x) { return std::atan(x); }},
    {"COSH", [](double x) { return std::cosh(x); }},
    {"COS", [](double x) { return std::cos(x); }},
    {"EXP", [](double x) { return std::exp(x); }},
    {"LOG10", [](double x) { return std::log10(x); }},
    {"LOG", [](double x) { return std::log(x); }},
    {"POW10", [](double x) { return std::pow(x, 10.0); }},  // x to the tenth, not ten to the x
    {"ROUND", rounded},
    {"SINH", [](double x) { return std::sinh(x); }},
    {"SIN", [](double x) { return std::sin(x); }},
    {"SQRT", [](double x) { return std::sqrt(x); }},
    {"SQR", [](double x) { return x * x; }},
    {"TANH", [](double x) { return std::tanh(x); }},
    {"TAN", [](double x) { return std::tan(x); }},
    {"TRUNC", truncated},
};

struct Rule {
    Side left;
    u8 length;  // symbols on the right side
    Operation operation;
    u8 operand;  // which of them is the operand, the right one of two; the left one is the first
};

constexpr Rule kRules[] = {
    {},
    {kExpression, 3, Operation::Add, 2},
    {kExpression, 3, Operation::Subtract, 2},
    {kExpression, 1, Operation::None, 0},
    {kTerm, 3, Operation::Multiply, 2},
    {kTerm, 3, Operation::Divide, 2},
    {kTerm, 1, Operation::None, 0},
    {kPowerOf, 3, Operation::Raise, 2},
    {kPowerOf, 1, Operation::None, 0},
    {kSigned, 2, Operation::Negate, 1},
    {kSigned, 1, Operation::None, 0},
    {},
    {kOperand, 1, Operation::None, 0},
    {},
    {kAtom, 3, Operation::None, 1},
    {kAtom, 1, Operation::None, 0},
    {kAtom, 4, Operation::Apply, 2},
};

/// All arithmetic there is. left counts for operations with two operands only.
inline double compute(Operation operation, double left, double operand, NumberFunction function) {
    switch (operation) {
        case Operation::Add:
            return left + operand;
        case Operation::Subtract:
            return left - operand;
        case Operation::Multiply:
            return left * operand;
        case Operation::Divide:
            return operand == 0 ? kInfinity : left / operand;
        case Operation::Raise:
            return std::pow(left, operand);
        case Operation::Negate:
            return -operand;
        case Operation::Apply:
            return function(operand);
        default:
            return operand;
    }
}

/// A division by zero, and one whose result is too large.
bool fails(Operation operation, double value) {
    return operation == Operation::Divide && value == kInfinity;
}

bool hasTwoOperands(Operation operation) {
    return operation >= Operation::Add && operation <= Operation::Raise;
}

bool isfunc(Parser& p, const Function& function) {
    const std::size_t length = std::strlen(function.name);
    if (std::strncmp(p.input, function.name, length) != 0) return false;
    p.curtoken.function = function.apply;
    p.input += length;
    return true;
}

/// The longest prefix that is a number: 2E and 2E+ give 2.
double numberValue(const char* first, const char* last) {
    double value = 0;
    if (readReal(first, last, value).ec == std::errc::result_out_of_range) {
        // A text this short leaves the range by its exponent alone.
        const void* exponent = std::memchr(first, 'E', static_cast<std::size_t>(last - first));
        return static_cast<const char*>(exponent)[1] == '-' ? 0.0 : kInfinity;
    }
    return value;
}

// digits with at most one "." among, before or after them, then E, a sign and at most three digits
int numberToken(Parser& p) {
    const char* first = p.input;
    for (bool point = false; isDigit(*p.input) || (*p.input == '.' && !point); ++p.input) {
        point = point || *p.input == '.';
    }
    if (*first == '.' && p.input == first + 1) return kInvalid;
    if (*p.input == 'E') {
        ++p.input;
        if (*p.input == '+' || *p.input == '-') ++p.input;
        for (int digits = 0; digits < 3 && isDigit(*p.input); ++digits) ++p.input;
    }
    p.curtoken.value = numberValue(first, p.input);
    return kNumber;
}

/// Reads one token of the upper-cased text; its value or function goes into curtoken.
int nexttoken(Parser& p) {
    while (*p.input == ' ') ++p.input;
    const char c = *p.input;
    p.open = c == kOpenNumber && p.program != nullptr;
    if (c == 0) return kEnd;
    if (p.open) {
        ++p.input;
        return kNumber;
    }
    if (isDigit(c) || c == '.') return numberToken(p);
    if (c >= 'A' && c <= 'Z') {
        for (const Function& function : kFunctions) {
            if (isfunc(p, function)) return kFunction;
        }
        return kInvalid;
    }
    ++p.input;
    static constexpr char operators[] = "+-*/^:()";  // in the order of Kind
    const char* found = std::strchr(operators, c);
    return found != nullptr ? static_cast<int>(found - operators) : kInvalid;
}

/// A full stack is an error and drops the entry: 27 pairs of parentheses around a number fit.
void push(Parser& p, const Entry& entry) {
    if (p.stacktop == kStackSize - 1) {
        p.error = true;
        return;
    }
    p.stack[++p.stacktop] = entry;
    p.deepest = std::max(p.deepest, p.stacktop);
}

/// The tables never pop below the start entry.
Entry pop(Parser& p) { return p.stack[p.stacktop--]; }

/// Notes the number that is to be shifted.
void noteNumber(const Parser& p) {
    const bool afterMinus = p.stack[p.stacktop].state == kAfterMinus;
    const Operation operation = !p.open      ? Operation::PushConstant
                                : afterMinus ? Operation::PushOpenAfterMinus
                                             : Operation::PushOpen;
    p.program->steps.push_back({operation, p.curtoken.value, nullptr});
    if (p.open) ++p.program->open;
}

void shift(Parser& p, int state) {
    if (p.program != nullptr && p.tokentype == kNumber) noteNumber(p);
    p.curtoken.state = static_cast<u8>(state);
    push(p, p.curtoken);
    p.tokentype = nexttoken(p);
}

u8 gotostate(const Parser& p, int rule) {
    const u8 next = kStates[p.stack[p.stacktop].state].next[kRules[rule].left];
    return next != 0 ? next : kErrorState;
}

void reduce(Parser& p, int rule) {
    const auto [left, length, operation, operand] = kRules[rule];
    Entry right[4];
    for (int i = length; i > 0; --i) right[i - 1] = pop(p);
    const NumberFunction function = right[0].function;
    p.curtoken.value = compute(operation, right[0].value, right[operand].value, function);
    p.curtoken.state = gotostate(p, rule);
    push(p, p.curtoken);
    if (p.program == nullptr) {
        p.error = p.error || fails(operation, p.curtoken.value);
    } else if (operation != Operation::None) {
        p.program->steps.push_back({operation, 0, function});
    }
}

/// One action; false when the text is accepted.
bool step(Parser& p) {
    const int action = kStates[p.stack[p.stacktop].state].action[p.tokentype];
    if (action == kAccept) return false;
    if (action > 0) {
        shift(p, action);
    } else if (action < 0) {
        reduce(p, -action);
    } else {
        p.error = true;
    }
    return true;
}

/// Parses a text, upper-cased in place; false when it fails.
bool run(Parser& p, char* line) {
    for (char* c = line; *c != 0; ++c) *c = upperAscii(*c);
    p.input = line;
    push(p, Entry{});
    p.tokentype = nexttoken(p);
    while (!p.error && step(p)) {
    }
    return !p.error;
}

}  // namespace

bool isNumberFunction(const char* name) {
    return std::any_of(std::begin(kFunctions), std::end(kFunctions),
                       [name](const Function& f) { return sameIgnoringCase(f.name, name); });
}

double parse(char* text, int* status) {
    char line[kLineSize];
    const std::size_t length = text != nullptr ? strnlen(text, kLineSize) : kLineSize;
    if (length < kLineSize) std::memcpy(line, text, length + 1);
    Parser p;
    if (length == kLineSize || !run(p, line)) {
        if (status != nullptr) *status = 0;
        return 0.0;
    }
    std::memcpy(text, line, length + 1);
    return p.stack[p.stacktop].value;
}

double Evaluate(char* text, int* status) { return parse(text, status); }

bool prepareProgram(std::string_view text, Program* program) {
    char line[kLineSize] = {};
    if (text.size() > kParseLength) return false;
    std::memcpy(line, text.data(), text.size());
    Parser p;
    p.program = program;
    return run(p, line) && p.deepest < kStackSize - 1;
}

bool runProgram(const Program& program, const double* numbers, double* value) {
    double stack[kStackSize];
    double* top = stack;  // past the top entry
    for (const Program::Step& s : program.steps) {
        if (s.operation == Operation::PushConstant) {
            *top++ = s.constant;
        } else if (s.operation >= Operation::PushOpen) {
            if (s.operation == Operation::PushOpenAfterMinus && std::signbit(*numbers))
                return false;
            *top++ = *numbers++;
        } else {
            // A step takes what steps before it have pushed. NOLINTBEGIN(clang-analyzer-core.*)
            const double operand = *--top;
            if (hasTwoOperands(s.operation)) --top;
            *top = compute(s.operation, *top, operand, s.function);
            // NOLINTEND(clang-analyzer-core.*)
            if (fails(s.operation, *top++)) return false;
        }
    }
    *value = stack[0];  // NOLINT(clang-analyzer-core.uninitialized.Assign)
    return true;
}

}  // namespace mira
