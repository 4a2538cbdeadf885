// How long the fields are when the lengths in the descriptors do not add up to a record: by where
// the values begin and end.
#pragma once

#include <vector>

#include "tables/rescue/fit.h"
#include "tables/rescue/source.h"

namespace mira::tables {

/// A field as its descriptor has it.
struct StatedField {
    char type = 'C';
    u32 decimals = 0;
    u32 length = 0;
    u32 most = 255;  ///< that it may have
};

/// Records of a length, one behind the other; the lengths of their fields add up to one byte less.
struct Records {
    u64 first = 0;
    u64 count = 0;
    u32 length = 0;
};

/// The likeliest lengths, with as few changes as may be; empty when they cannot be told.
std::vector<u32> likelyLengths(Source& source, const Records& records,
                               const std::vector<StatedField>& fields, MemoFormat memos);

}  // namespace mira::tables
