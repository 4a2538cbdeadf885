// StrEval: replaces the calls of string functions in a text by their results, inner calls first.
//
//   text      { byte | call }
//   call      opener text ")"       parentheses inside are counted; at the end of the whole text
//                                   every open call ends
//
// One pass from left to right. Calls that have begun wait on a stack of frames, so a text cannot
// drive the depth of recursion. Results take no more room than what has been read, so everything
// happens in the caller's buffer, in time near its length:
//   - A function works where its argument stands. What it drops at the front leaves a gap, which is
//     closed by moving the shorter of the two sides.
//   - A function that sets letter case is left out where another one around it sets it again.
//   - The place of the first comma travels with the text.
#include "streval/streval.h"

#include <cstring>

#include "internal/file.h"

namespace mira {
namespace {

/// A text being built: the whole text, or the argument of a call. It runs from begin to the end of
/// all output, or to where a call inside it has begun.
struct Frame {
    const StringFunction* function;  // null for the whole text
    std::size_t begin;
    std::size_t outerEnd;  // end of the text around, before the call
    std::size_t comma;     // from begin
    std::size_t open;      // plain parentheses that are open
};

struct Evaluation {
    char* text;
    const DbfBase* handle;
    std::size_t read = 0;  // characters of the text
    std::size_t end = 0;   // of the output
    Frame* top = nullptr;
    std::size_t caseSetters = 0;  // open calls that set letter case
};

void beginCall(Evaluation& e, const StringFunction& function) {
    ++e.top;
    *e.top = {&function, e.end, e.end, kNoComma, 0};
    if (function.setsCase) ++e.caseSetters;
}

/// Joins the result, which ends the output, to the text of the frame around it.
void join(Evaluation& e, Frame& outer, std::size_t outerEnd, std::size_t begin) {
    const std::size_t gap = begin - outerEnd;
    const std::size_t outerLength = outerEnd - outer.begin;
    const std::size_t length = e.end - begin;
    if (gap == 0) return;
    if (outerLength < length) {
        std::memmove(e.text + outer.begin + gap, e.text + outer.begin, outerLength);
        outer.begin += gap;
    } else {
        std::memmove(e.text + outerEnd, e.text + begin, length);
        e.end -= gap;
    }
}

void endCall(Evaluation& e) {
    const Frame call = *e.top--;
    Frame& outer = *e.top;
    Piece p{e.text + call.begin, e.end - call.begin, call.comma, e.read - call.begin};
    if (call.function->setsCase) --e.caseSetters;
    if (!call.function->setsCase || e.caseSetters == 0) call.function->apply(p, e.handle);
    if (outer.comma == kNoComma && p.comma != kNoComma) {
        outer.comma = call.outerEnd - outer.begin + p.comma;
    }
    const auto begin = static_cast<std::size_t>(p.begin - e.text);
    e.end = begin + p.length;
    join(e, outer, call.outerEnd, begin);
}

/// Takes one byte that begins no call.
void takeByte(Evaluation& e, char c) {
    Frame& frame = *e.top;
    if (c == ')' && frame.function != nullptr && frame.open == 0) {
        endCall(e);
        return;
    }
    if (c == '(') ++frame.open;
    if (c == ')' && frame.open != 0) --frame.open;
    if (c == ',' && frame.comma == kNoComma) frame.comma = e.end - frame.begin;
    e.text[e.end++] = c;
}

std::size_t countCalls(const char* text) {
    std::size_t count = 0;
    for (; *text != 0; ++text) {
        if (functionAt(text) != nullptr) ++count;
    }
    return count;
}

}  // namespace

char* StrEval(char* text, DbfBase* h) {
    if (text == nullptr || std::strchr(text, '(') == nullptr) return text;
    const std::size_t calls = countCalls(text);
    if (calls == 0) return text;
    const Owned<Frame> frames = allocate<Frame>(calls + 1);
    if (!frames) return text;
    Evaluation e{.text = text, .handle = h, .top = frames.get()};
    *e.top = {nullptr, 0, 0, kNoComma, 0};
    while (text[e.read] != 0) {
        if (const StringFunction* function = functionAt(text + e.read)) {
            beginCall(e, *function);
            e.read += function->length;
        } else {
            takeByte(e, text[e.read++]);
        }
    }
    while (e.top != frames.get()) endCall(e);
    std::memmove(text, text + e.top->begin, e.end - e.top->begin);
    text[e.end - e.top->begin] = 0;
    return text;
}

}  // namespace mira
