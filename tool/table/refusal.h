// What cannot be done is thrown as a Refusal: a sentence for the user, which names the file.
#pragma once

#include <stdexcept>

namespace mira::tool {

struct Refusal : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace mira::tool
