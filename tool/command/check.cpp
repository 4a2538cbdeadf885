// mira check: what is damaged in tables, a line each.
#include "command/commands.h"
#include "damage.h"
#include "message.h"
#include "output.h"
#include "selection.h"
#include "table/find.h"
#include "table/refusal.h"
#include "writer.h"

namespace mira::tool {
namespace {

struct Options {
    std::vector<std::string> names;
    bool recursive = false;
    bool strict = false;
    bool json = false;
    SelectOptions select;
};

struct Counts {
    u64 findings = 0, notes = 0;
};

/// "stock.dbf: record 3, field PRICE: no number: \"***\""
void putText(Output& out, const Table& table, const Finding& finding) {
    std::string line = table.path + ": ";
    if (finding.isNote) line += "note: ";
    if (finding.record != 0) {
        line += fmt::format("record {}", finding.record);
        if (!finding.field.empty()) line += ", field " + finding.field;
        line += ": ";
    }
    out.put(escaped(line + finding.what) + "\n");
}

void putJson(Output& out, const Table& table, const Finding& finding) {
    JsonObject object;
    object.text("file", table.path);
    object.text("kind", finding.isNote ? "note" : "finding");
    object.raw("record", finding.record == 0 ? "null" : std::to_string(finding.record));
    object.textOrNull("field", finding.field);
    object.text("what", finding.what);
    out.put(object.whole() + "\n");
}

void putSummary(Output& out, const Table& table, const Counts& counts, bool json) {
    const u32 records = table.base->Header.RecordCount;
    if (!json) {
        out.put(fmt::format("{}: {}: {}, {}\n", escaped(table.path), counted(records, "record"),
                            counted(counts.findings, "finding"), counted(counts.notes, "note")));
        return;
    }
    JsonObject object;
    object.text("file", table.path);
    object.text("kind", "summary");
    object.number("records", records);
    object.number("findings", counts.findings);
    object.number("notes", counts.notes);
    out.put(object.whole() + "\n");
}

Status checkOne(Output& out, const std::string& name, const Options& options) {
    const auto table = openTable(name, tableOptions(options.select));
    tellPage(*table);
    Counts counts;
    checkTable(*table, [&](const Finding& finding) {
        ++(finding.isNote ? counts.notes : counts.findings);
        (options.json ? putJson : putText)(out, *table, finding);
    });
    putSummary(out, *table, counts, options.json);
    const bool found = counts.findings != 0 || (options.strict && counts.notes != 0);
    return found ? kFound : kDone;
}

Status run(const Options& options) {
    Output out(targetOf("-"), false);
    Status status = kDone;
    bool any = false;
    for (const std::string& name : findTables(options.names, options.recursive)) {
        leaveIfStopped();
        try {
            status = worse(status, checkOne(out, name, options));
            any = true;
        } catch (const Refusal& refusal) {
            out.flush();
            tellError(refusal.what());
            status = kFound;
        }
    }
    out.finish();
    return any ? status : kFailed;
}

}  // namespace

void addCheck(CLI::App& program, Job& job) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("check", "Find what is damaged");
    command.footer(
        "Examples:\n"
        "  mira check stock\n"
        "  mira check folder -R --strict\n"
        "  mira check folder --json\n\n"
        "Exit status 1 when something is damaged; with --strict also for notes.");
    command.add_option("tables", options->names, "Tables and folders")
        ->type_name("TABLE|FOLDER")
        ->required();
    command.add_flag("-R,--recursive", options->recursive, "Folders with those below them");
    command.add_flag("--strict", options->strict, "Exit status 1 for notes, too");
    command.add_flag("--json", options->json,
                     "A JSON object per finding and one per table, a line each");
    addTableOptions(command, options->select);
    whenChosen(command, job, options, run);
}

}  // namespace mira::tool
