// What cannot be done is thrown as a Refusal: a sentence for the user, which names the file.
#pragma once

#include <stdexcept>

#include "tables/page/text.h"

namespace mira::tables {

struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// There is no such code page, or the C library lacks it.
struct UnknownPage : Refusal {
    using Refusal::Refusal;
};

/// Throws the sentence that the parts make.
template <typename... Part>
[[noreturn]] void refuse(const Part&... parts) {
    throw Refusal(textOf(parts...));
}

}  // namespace mira::tables
