// mira info: everything about a table but its values.
#include "command/commands.h"
#include "command/facts.h"
#include "grid.h"
#include "message.h"
#include "selection.h"
#include "table/find.h"
#include "table/refusal.h"
#include "writer.h"

namespace mira::tool {
namespace {

struct Options {
    std::vector<std::string> names;
    bool recursive = false;
    bool json = false;
    SelectOptions select;
};

/// "C Character"
std::string typeOf(const Table& table, const Column& column) {
    return fmt::format("{} {}", escaped(std::string(1, column.type)),
                       column.type == 'V'   ? "Varchar"
                       : column.type == 'P' ? "Picture"
                                            : GetTypeName(table.base.get(), column.field));
}

bool isCounting(const Column& column) {
    return column.type == '+' || (column.flags & kCounting) != 0;
}

// --------------------------------------------------------------------------------------------
// As text
// --------------------------------------------------------------------------------------------

/// "dBase III (version 0x03)"
std::string flavourLine(const Table& table) {
    return fmt::format("{} (version 0x{:02X})", flavourOf(table), table.storedVersion);
}

std::string memoLine(const Facts& facts) {
    if (!facts.hasMemos) return "none";
    if (facts.memoFile.empty()) return "missing";
    return fmt::format("{}, {} in blocks of {}", escaped(facts.memoFile),
                       counted(facts.memoSize, "byte"), facts.memoUnit);
}

std::string indexLine(const Facts& facts) {
    std::string line;
    for (const std::string& file : facts.indexFiles) {
        line += (line.empty() ? "" : ", ") + escaped(file);
    }
    if (line.empty()) return facts.indexFlag ? "none, though the header says so" : "none";
    return line;
}

void putFields(Output& out, const Table& table) {
    Grid grid;
    grid.indent = "  ";
    for (const char* heading :
         {"no.", "field", "type", "length", "decimals", "null", "binary", "next"}) {
        const std::string_view name = heading;
        grid.columns.push_back({std::string(name), name == "no." || name == "length" ||
                                                       name == "decimals" || name == "next"});
    }
    std::vector<std::vector<std::string>> rows;
    for (const Column& column : table.columns) {
        rows.push_back(
            {std::to_string(column.field + 1), escaped(column.name), typeOf(table, column),
             std::to_string(column.length), std::to_string(column.decimals),
             column.mayBeNull() ? "yes" : "", column.untranslated ? "yes" : "",
             isCounting(column) && table.visual ? std::to_string(column.nextValue) : ""});
    }
    putGrid(out, grid, rows);
}

void putText(Output& out, const Table& table, const Facts& facts) {
    const auto line = [&](std::string_view name, std::string_view text) {
        out.put(fmt::format("  {:<13}{}\n", name, text));
    };
    const DbfHeader& header = table.base->Header;
    out.put(escaped(table.path) + "\n");
    line("flavour", flavourLine(table));
    line("updated", facts.updated.empty() ? "no date" : facts.updated);
    line("code page", fmt::format("{} ({})", pageName(*table.page.page), escaped(table.page.from)));
    line("records", fmt::format("{} live, {} deleted; {} in the header, {} in the file", facts.live,
                                facts.deleted, table.storedCount, header.RecordCount));
    line("lengths", fmt::format("header {}, record {}", header.HeaderLength, header.RecordLength));
    line("memo file", memoLine(facts));
    line("index files", indexLine(facts));
    if (!table.container.empty()) line("container", escaped(table.container));
    for (const std::string& repair : facts.repairs) line("repaired", escaped(repair));
    for (const std::string& sentence : table.notes) line("note", escaped(sentence));
    out.put("\n");
    putFields(out, table);
}

// --------------------------------------------------------------------------------------------
// As JSON
// --------------------------------------------------------------------------------------------

std::string fieldJson(const Table& table, const Column& column) {
    JsonObject field;
    field.text("name", column.name);
    field.text("type", escaped(std::string(1, column.type)));
    field.text("type_name", typeOf(table, column).substr(2));
    field.number("length", column.length);
    field.number("decimals", column.decimals);
    field.truth("may_be_null", column.mayBeNull());
    field.truth("binary", column.untranslated);
    field.raw("next",
              isCounting(column) && table.visual ? std::to_string(column.nextValue) : "null");
    return field.whole();
}

void putJson(Output& out, const Table& table, const Facts& facts) {
    JsonObject object;
    object.text("file", table.path);
    object.number("version", table.storedVersion);
    object.text("flavour", flavourOf(table));
    object.textOrNull("updated", facts.updated);
    object.text("code_page", pageName(*table.page.page));
    object.text("code_page_from", table.page.from);
    object.number("records", table.base->Header.RecordCount);
    object.number("deleted", facts.deleted);
    object.number("records_in_header", table.storedCount);
    object.number("header_length", table.base->Header.HeaderLength);
    object.number("record_length", table.base->Header.RecordLength);
    object.textOrNull("memo_file", facts.memoFile);
    object.number("memo_block", facts.memoUnit);
    object.number("memo_bytes", facts.memoSize);
    object.texts("index_files", facts.indexFiles);
    object.textOrNull("container", table.container);
    std::string fields = "[";
    for (const Column& column : table.columns) {
        if (fields.size() > 1) fields += ',';
        fields += fieldJson(table, column);
    }
    object.raw("fields", fields + "]");
    object.texts("repairs", facts.repairs);
    object.texts("notes", table.notes);
    out.put(object.whole());
    out.put('\n');
}

Status runInfo(const Options& options) {
    Output out(targetOf("-"), false);
    Status status = kDone;
    std::size_t shown = 0;
    for (const std::string& name : findTables(options.names, options.recursive)) {
        leaveIfStopped();
        try {
            const auto table = openTable(name, tableOptions(options.select));
            const Facts facts = factsOf(*table, true);
            if (shown++ != 0 && !options.json) out.put('\n');
            (options.json ? putJson : putText)(out, *table, facts);
            tellPage(*table);
        } catch (const Refusal& refusal) {
            tellError(refusal.what());
            status = kFound;
        }
    }
    out.finish();
    return shown == 0 ? kFailed : status;
}

}  // namespace

void addInfo(CLI::App& program, Job& job) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("info", "What a table is and which fields it has");
    command.footer(
        "Examples:\n"
        "  mira info stock.dbf\n"
        "  mira info folder --json");
    command.add_option("tables", options->names, "Tables and folders")
        ->type_name("TABLE|FOLDER")
        ->required();
    command.add_flag("-R,--recursive", options->recursive, "Folders with those below them");
    command.add_flag("--json", options->json, "A JSON object per table, a line each");
    addTableOptions(command, options->select);
    whenChosen(command, job, options, runInfo);
}

}  // namespace mira::tool
