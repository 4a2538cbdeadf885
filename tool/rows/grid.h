// Aligned columns of texts, for eyes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "rows/output.h"
#include "tables/value/value.h"

namespace mira::tool {

/// A grid whose rows are written one by one, once the widths are known.
struct Grid {
    struct GridColumn {
        std::string heading;
        bool right = false;  // numbers stand on the right
        int width = 0;
    };
    std::vector<GridColumn> columns;
    int lineWidth = 0;  // cut lines to it with an ellipsis; 0: never
    std::string indent;
};

/// A cell as it is shown, without control characters.
void putShown(std::string& text, const Value& value);
/// Widens a column for a text.
void widen(Grid& grid, std::size_t column, std::string_view text);
void putHeadings(Output& out, const Grid& grid);
/// Texts are free of control characters. The last one is not padded.
void putRow(Output& out, const Grid& grid, const std::vector<std::string>& texts);
/// How many columns lines of lineWidth cut off, wholly or in part.
std::size_t columnsCut(const Grid& grid);
/// A small grid at once: widths, headings, rows.
void putGrid(Output& out, Grid& grid, const std::vector<std::vector<std::string>>& rows);

}  // namespace mira::tool
