// mira show: the records of a table for eyes.
#include <unistd.h>

#include <algorithm>

#include "command/command.h"
#include "rows/grid.h"
#include "select/selection.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr u64 kTerminalRows = 50;

struct Options {
    std::string table;
    bool vertical = false;
    std::optional<u64> tail;
    SelectOptions select;
};

bool isNumber(const Column& column) {
    return kindRow(column.kind).compared == Compared::Numbers || column.numeric;
}

/// A cell as it is shown, without control characters.
void readShown(Selection& selection, const Column& column, std::string& text) {
    Value value;
    readCell(selection, column, value);
    text.clear();
    putShown(text, value);
}

/// Deleted records carry a mark in front where they are shown at all.
bool marks(const Options& options) { return options.select.deleted != Deleted::Skip; }

Grid gridOf(const Selection& selection, const Options& options) {
    Grid grid;
    grid.lineWidth = terminalWidth(STDOUT_FILENO);
    if (marks(options)) grid.columns.push_back({"", false, 1});
    for (const Column& column : selection.columns) {
        grid.columns.push_back({escaped(column.name), isNumber(column), 0});
    }
    for (std::size_t i = 0; i < grid.columns.size(); ++i) {
        widen(grid, i, grid.columns[i].heading);
    }
    return grid;
}

/// Where a selection starts, to read it a second time.
struct Start {
    u32 position;
    u64 offset;
};

void rewind(Selection& selection, Start start) {
    selection.position = start.position;
    selection.offset = start.offset;
    selection.rows = 0;
    selection.faults = {};
}

/// Calls take with the texts of every row, the mark first.
template <typename Take>
void eachRow(Selection& selection, const Options& options, Take take) {
    std::vector<std::string> texts(selection.columns.size() + (marks(options) ? 1 : 0));
    while (nextRow(selection)) {
        std::size_t i = 0;
        if (marks(options)) texts[i++] = isDeleted(*selection.table) ? "*" : "";
        for (const Column& column : selection.columns) readShown(selection, column, texts[i++]);
        take(texts);
    }
}

/// Leaves the last rows alone, which are known once all have been read.
void keepTail(Selection& selection, u64 tail) {
    const Start start{selection.position, 0};
    while (nextRow(selection)) {
    }
    const u64 rows = selection.rows;
    rewind(selection, {start.position, rows - std::min(rows, tail)});
}

/// Once for the widths, and once to write. How many columns the lines have no room for.
std::size_t showGrid(Output& out, Selection& selection, const Options& options) {
    const Start start{selection.position, selection.offset};
    Grid grid = gridOf(selection, options);
    eachRow(selection, options, [&](const std::vector<std::string>& texts) {
        for (std::size_t i = 0; i < texts.size(); ++i) widen(grid, i, texts[i]);
    });
    if (selection.rows == 0) return 0;
    rewind(selection, start);
    putHeadings(out, grid);
    eachRow(selection, options,
            [&](const std::vector<std::string>& texts) { putRow(out, grid, texts); });
    return columnsCut(grid);
}

void showVertical(Output& out, Selection& selection) {
    Grid grid;
    grid.columns = {{"", false, 0}, {"", false, 0}};
    grid.lineWidth = terminalWidth(STDOUT_FILENO);
    grid.indent = "  ";
    std::vector<std::string> names;
    for (const Column& column : selection.columns) names.push_back(escaped(column.name));
    for (const std::string& name : names) widen(grid, 0, name);
    std::string text;
    while (nextRow(selection)) {
        out.put(fmt::format("{}record {}{}\n", selection.rows > 1 ? "\n" : "",
                            u64{selection.cells.record} + 1,
                            isDeleted(*selection.table) ? ", deleted" : ""));
        for (std::size_t i = 0; i < names.size(); ++i) {
            readShown(selection, selection.columns[i], text);
            putRow(out, grid, {names[i], text});
        }
    }
}

void tellRest(Selection& selection) {
    const u64 shown = selection.rows;
    if (shown == 0) {
        note("{}: 0 of {}", selection.table->path,
             counted(selection.table->base->Header.RecordCount, "record"));
        return;
    }
    selection.limit = 0;
    while (nextRow(selection)) {
    }
    const u64 more = selection.rows - shown;
    if (more != 0) note("{} more; -n 0 shows all", counted(more, "record"));
}

Status run(const Options& options) {
    SelectOptions select = options.select;
    if (options.tail && (select.limit || select.offset != 0)) {
        refuse("--tail or -n and --offset, not both");
    }
    const bool limited = !select.limit && !options.tail && isatty(STDOUT_FILENO) != 0;
    if (limited) select.limit = kTerminalRows;
    const auto selection = selectFrom(options.table, select);
    std::erase_if(selection->columns,
                  [](const Column& column) { return column.kind == Kind::Deletion; });
    requireColumns(*selection);
    if (options.tail) keepTail(*selection, *options.tail);
    Output out(targetOf("-"), false);
    std::size_t cut = 0;
    if (options.vertical) {
        showVertical(out, *selection);
    } else {
        cut = showGrid(out, *selection, options);
    }
    out.finish();
    if (cut != 0) {
        note("{} of {} do not fit; --vertical shows all, -f A,B,... some", cut,
             counted(selection->columns.size(), "column"));
    }
    const bool faulty = tellFaults(*selection);
    if (limited || selection->rows == 0) tellRest(*selection);
    return faulty ? kFound : kDone;
}

}  // namespace

void addShow(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "show", "The records of a table, for eyes", run,
                   "Examples:\n"
                   "  mira show stock\n"
                   "  mira show stock -w 'PRICE>10&ITEM~saw' -s PRICE -f CODE,PRICE\n"
                   "  mira show stock --deleted include --record -n 0");
    command.add_option("table", options.table, "Table")->type_name("TABLE")->required();
    command.add_flag("--vertical", options.vertical, "A field a line");
    addCount(command, "--tail", "The last N records", options.tail);
    addSelectOptions(command, options.select);
}

}  // namespace mira::tool
