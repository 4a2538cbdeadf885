// Which writer a format has.
#include "rows/writer.h"

namespace mira::tool {

std::unique_ptr<RowWriter> textWriter(Output& out, const WriterOptions& options) {
    switch (options.format) {
        case Format::Tsv:
            return tsvWriter(out, options);
        case Format::Json:
        case Format::JsonLines:
            return jsonWriter(out, options);
        default:
            return csvWriter(out, options);
    }
}

}  // namespace mira::tool
