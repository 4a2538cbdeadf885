// mira info: everything about a table but its values.
#include "command/command.h"
#include "input/schema.h"
#include "read/facts.h"
#include "rows/grid.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "select/selection.h"
#include "tables/change/append.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/store/store.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

struct Options {
    TableNames tables;
    bool json = false, schema = false;
    TableOptions table;
};

/// "C Character"
std::string typeOf(const Table& table, const Column& column) {
    return fmt::format("{} {}", escaped(std::string(1, column.type)), typeName(table, column));
}

/// The next value of a counting field.
std::string nextValue(const Column& column) {
    return isCounting(column) ? std::to_string(column.nextValue) : "";
}

std::string memoLine(const Facts& facts) {
    if (!facts.hasMemos) return "none";
    if (facts.memoFile.empty()) return "missing";
    return fmt::format("{}, {} in blocks of {}", escaped(facts.memoFile),
                       counted(facts.memoSize, "byte"), facts.memoUnit);
}

std::string indexLine(const Facts& facts) {
    if (!facts.indexFiles.empty()) return escaped(joined(facts.indexFiles));
    return facts.indexFlag ? "none, though the header says so" : "none";
}

void putFields(Output& out, const Table& table) {
    Grid grid;
    grid.indent = "  ";
    grid.columns = {{"no.", true},      {"field"}, {"type"},   {"length", true},
                    {"decimals", true}, {"null"},  {"binary"}, {"next", true}};
    std::vector<std::vector<std::string>> rows;
    for (const Column& column : table.columns) {
        rows.push_back({std::to_string(column.field + 1), escaped(column.name),
                        typeOf(table, column), std::to_string(column.length),
                        std::to_string(column.decimals), column.mayBeNull() ? "yes" : "",
                        column.untranslated ? "yes" : "", nextValue(column)});
    }
    putGrid(out, grid, rows);
}

/// "unique, descending"
std::string flagsOf(const Tag& tag) {
    std::vector<std::string> flags;
    if (tag.unique) flags.emplace_back("unique");
    if (tag.candidate) flags.emplace_back("candidate");
    if (tag.descending) flags.emplace_back("descending");
    if (tag.bitmap) flags.emplace_back("bitmap");
    return joined(flags);
}

void putIndexes(Output& out, const Facts& facts) {
    for (const IndexFacts& index : facts.indexes) {
        if (!index.fault.empty()) {
            out.put(fmt::format("\n  {}\n", escaped(index.fault)));
            continue;
        }
        Grid grid;
        grid.indent = "  ";
        grid.columns = {{"tag"}, {"expression"}, {"for"}, {"flags"}, {"collation"}, {"keys", true}};
        std::vector<std::vector<std::string>> rows;
        for (std::size_t i = 0; i < index.tags.size(); ++i) {
            const Tag& tag = index.tags[i];
            rows.push_back({escaped(tag.name), escaped(tag.expression), escaped(tag.condition),
                            flagsOf(tag), escaped(tag.collation),
                            tag.bitmap ? "" : std::to_string(index.keys[i])});
        }
        out.put(fmt::format("\n  {} ({})\n", escaped(index.path), index.kind));
        putGrid(out, grid, rows);
    }
}

void putText(Output& out, const Table& table, const Facts& facts) {
    const auto line = [&](std::string_view name, std::string_view text) {
        out.put(fmt::format("  {:<13}{}\n", name, text));
    };
    const DbfHeader& header = table.base->Header;
    out.put(escaped(table.path) + "\n");
    line("flavour", fmt::format("{} (version 0x{:02X})", table.flavour, table.storedVersion));
    line("updated", facts.updated.empty() ? "no date" : facts.updated);
    line("code page", fmt::format("{} ({})", pageName(*table.page.page), escaped(table.page.from)));
    line("records", fmt::format("{} live, {} deleted; {} in the header, {} in the file",
                                header.RecordCount - facts.deleted, facts.deleted,
                                table.storedCount, header.RecordCount));
    line("lengths", fmt::format("header {}, record {}", header.HeaderLength, header.RecordLength));
    line("memo file", memoLine(facts));
    line("index files", indexLine(facts));
    if (!table.container.empty()) line("container", escaped(table.container));
    for (const std::string& repair : facts.repairs) line("repaired", escaped(repair));
    for (const std::string& sentence : table.notes) line("note", escaped(sentence));
    out.put("\n");
    putFields(out, table);
    putIndexes(out, facts);
}

void putSchema(Output& out, const Table& table) {
    std::vector<FieldPlan> fields;
    for (const Column& column : table.columns) fields.push_back(planOf(column));
    const std::string text = schemaText(fields) + "\n";
    out.put(out.isTerminal() ? escaped(text) : text);
}

Status run(const Options& options) {
    Output out(targetOf("-"), false);
    bool first = true;
    Listing listing;
    const std::vector<std::string> names =
        findToRead(options.tables.names, options.tables.recursive, &listing);
    const auto show = [&](const std::string& name) {
        const auto table = openToRead(name, options.table, &listing);
        if (options.schema) {
            if (names.size() > 1) out.put(escaped(table->path) + ": ");
            putSchema(out, *table);
            tellPage(*table);
            return kDone;
        }
        const Facts facts = factsOf(*table, true, &listing);
        loadCounters(*table);
        if (!std::exchange(first, false) && !options.json) out.put('\n');
        if (options.json) {
            out.put(factsJson(*table, facts) + "\n");
        } else {
            putText(out, *table, facts);
        }
        tellPage(*table);
        return kDone;
    };
    const Status status = eachTable(names, show, &out);
    out.finish();
    return status;
}

}  // namespace

void addInfo(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "info", "What a table is and which fields it has", run,
                   "Examples:\n"
                   "  mira info stock.dbf\n"
                   "  mira info folder --json\n"
                   "  mira info stock --schema");
    addTableNames(command, options.tables)->required();
    auto* const json =
        command.add_flag("--json", options.json, "A JSON object per table, a line each");
    command
        .add_flag("--schema", options.schema,
                  "Only the fields, as import --schema and alter --add take them")
        ->excludes(json);
    addTableOptions(command, options.table);
}

}  // namespace mira::tool
