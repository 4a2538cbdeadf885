// The rows of a selection, into any format.
#pragma once

#include <string>
#include <vector>

#include "rows/writer.h"
#include "select/selection.h"

namespace mira::tool {

/// source: what goes in front of every row; null for nothing.
void copyRows(Selection& selection, RowWriter& writer, const std::string* source = nullptr);

/// How threads write parts of the rows.
struct PartWriting {
    const Format& format;
    const WriterOptions& options;
    const std::vector<Heading>& headings;
    const SelectOptions& select;
    const std::string* source;
    unsigned jobs;  // threads at most; 0 for as many as there are processors
};

/// The same as copyRows, byte for byte and fault for fault, but on several threads where that is
/// worthwhile and the format's rows can be written apart. out and writer have the heading.
void copyRowsInParts(Selection& selection, RowWriter& writer, Output& out,
                     const PartWriting& writing);

}  // namespace mira::tool
