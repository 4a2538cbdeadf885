// The string functions as they work on a piece of a larger text. Shared by the streval files, but
// for the question whether a name is one of theirs.
#pragma once

#include <cstddef>

#include "mira.h"

namespace mira {

inline constexpr std::size_t kNoComma = static_cast<std::size_t>(-1);

/// An argument and then the result in its place, without a terminator. A function may move begin
/// to the right and use all of the room.
struct Piece {
    char* begin;
    std::size_t length;
    std::size_t comma;  ///< place of the first comma in the piece, kNoComma when there is none
    std::size_t room;   ///< characters from begin on: as many as the call has, or more
};

/// A row of the table in functions.cpp; a new function is one more, and what it applies.
struct StringFunction {
    const char* opener;  ///< name with its parenthesis
    std::size_t length;  ///< of the opener
    void (*apply)(Piece&, const DbfBase*);
    bool setsCase;  ///< rewrites every letter, whatever its case was
};

/// The function whose opener, in any letter case, stands at text; null when there is none.
const StringFunction* functionAt(const char* text);
/// Whether a name, in any letter case, is that of a string function.
bool isStringFunction(const char* name);

}  // namespace mira
