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

constexpr std::size_t kRowsKept = 1000;
constexpr std::size_t kBytesKept = std::size_t{1} << 20;

bool isNumber(const Column& column) {
    return kindRow(column.kind).compared == Compared::Numbers || column.numeric;
}

/// What the values of a column need in most tables; 0 when nobody knows.
int usualWidth(const Column* column) {
    constexpr u32 kMost = 40;
    constexpr int kDate = 10, kMoment = 19, kLogical = 5, kNumber = 11;
    if (column == nullptr) return 0;
    switch (column->kind) {
        case Kind::Text:
        case Kind::Varchar:
        case Kind::Decimal:
            return static_cast<int>(std::min(column->length, kMost));
        case Kind::Date:
            return kDate;
        case Kind::Moment:
            return kMoment;
        case Kind::Logical:
        case Kind::Deletion:
            return kLogical;
        case Kind::Integer:
        case Kind::RecordNumber:
            return kNumber;
        default:
            return 0;
    }
}

/// The first rows are kept for the widths of their columns. Where more follow, columns get the room
/// that their fields suggest, and a longer value widens its column from then on.
class GridWriter final : public RowWriter {
public:
    explicit GridWriter(Output& out) : out_(out) { grid_.lineWidth = terminalWidth(STDOUT_FILENO); }

    void begin(const std::vector<Heading>& headings) override {
        headings_ = headings;
        for (const Heading& heading : headings) {
            const bool right = heading.column == nullptr || isNumber(*heading.column);
            grid_.columns.push_back({escaped(heading.name), right, 0});
        }
        row_.resize(headings.size());
    }
    void cell(std::size_t column, const Value& value) override {
        if (value.kind == ValueKind::Text && !started_) grid_.columns[column].right = false;
        row_[column].clear();
        putShown(row_[column], value);
    }
    void endRow() override {
        if (started_) return putWidened();
        for (const std::string& text : row_) bytes_ += text.size();
        rows_.push_back(row_);
        if (rows_.size() >= kRowsKept || bytes_ >= kBytesKept) show();
    }
    void show() override {
        if (started_ || rows_.empty()) return;
        for (std::size_t i = 0; i < headings_.size(); ++i) {
            grid_.columns[i].width = usualWidth(headings_[i].column);
        }
        start();
    }
    void end() override {
        if (!started_ && !rows_.empty()) start();
        columnsCut = mira::tool::columnsCut(grid_);
    }

private:
    void start() {
        started_ = true;
        putGrid(out_, grid_, rows_);
        rows_ = {};
    }
    void putWidened() {
        for (std::size_t i = 0; i < row_.size(); ++i) widen(grid_, i, row_[i]);
        putRow(out_, grid_, row_);
    }

    Output& out_;
    Grid grid_;
    std::vector<Heading> headings_;
    std::vector<std::string> row_;
    std::vector<std::vector<std::string>> rows_;
    std::size_t bytes_ = 0;
    bool started_ = false;
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
