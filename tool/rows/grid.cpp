#include "rows/grid.h"

#include <unistd.h>

#include <algorithm>

#include "rows/writer.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr std::string_view kGap = "  ";

void putLine(Output& out, const Grid& grid, std::string line) {
    while (!line.empty() && line.back() == ' ') line.pop_back();
    if (grid.lineWidth != 0 && widthOf(line) > grid.lineWidth) {
        line = std::string(cutToWidth(line, grid.lineWidth - 1)) + "…";
    }
    out.put(line);
    out.put('\n');
}

/// Rows are kept until the widths are known.
class GridWriter final : public RowWriter {
public:
    explicit GridWriter(Output& out) : out_(out) { grid_.lineWidth = terminalWidth(STDOUT_FILENO); }

    void begin(const std::vector<Heading>& headings) override {
        for (const Heading& heading : headings) {
            grid_.columns.push_back({escaped(heading.name), true, 0});
        }
    }
    void cell(std::size_t column, const Value& value) override {
        if (column == 0) rows_.emplace_back();
        if (value.kind == ValueKind::Text) grid_.columns[column].right = false;
        putShown(rows_.back().emplace_back(), value);
    }
    void endRow() override {}
    void end() override {
        if (!rows_.empty()) putGrid(out_, grid_, rows_);
    }

private:
    Output& out_;
    Grid grid_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace

std::unique_ptr<RowWriter> gridWriter(Output& out, const WriterOptions& /*options*/) {
    return std::make_unique<GridWriter>(out);
}

void putShown(std::string& text, const Value& value) {
    if (value.kind == ValueKind::Null) {
        text += "NULL";
    } else if (value.kind == ValueKind::Text) {
        putEscaped(text, value.text);
    } else {
        putPlain(text, value);
    }
}

void widen(Grid& grid, std::size_t column, std::string_view text) {
    Grid::GridColumn& c = grid.columns[column];
    // Bytes are as many as columns, or more.
    if (static_cast<int>(text.size()) > c.width) c.width = std::max(c.width, widthOf(text));
}

void putRow(Output& out, const Grid& grid, const std::vector<std::string>& texts) {
    std::string line = grid.indent;
    for (std::size_t i = 0; i < grid.columns.size(); ++i) {
        const Grid::GridColumn& c = grid.columns[i];
        const auto pad = static_cast<std::size_t>(std::max(c.width - widthOf(texts[i]), 0));
        if (i != 0) line += kGap;
        if (c.right) line.append(pad, ' ');
        line += texts[i];
        if (!c.right) line.append(pad, ' ');
    }
    putLine(out, grid, std::move(line));
}

void putHeadings(Output& out, const Grid& grid) {
    std::vector<std::string> names;
    for (const Grid::GridColumn& c : grid.columns) names.push_back(c.heading);
    putRow(out, grid, names);
}

std::size_t columnsCut(const Grid& grid) {
    std::size_t end = grid.indent.size();
    std::size_t cut = 0;
    for (const Grid::GridColumn& c : grid.columns) {
        end += static_cast<std::size_t>(c.width);
        if (grid.lineWidth != 0 && end > static_cast<std::size_t>(grid.lineWidth)) ++cut;
        end += kGap.size();
    }
    return cut;
}

void putGrid(Output& out, Grid& grid, const std::vector<std::vector<std::string>>& rows) {
    for (std::size_t i = 0; i < grid.columns.size(); ++i) {
        widen(grid, i, grid.columns[i].heading);
        for (const auto& row : rows) widen(grid, i, row[i]);
    }
    putHeadings(out, grid);
    for (const auto& row : rows) putRow(out, grid, row);
}

}  // namespace mira::tool
