// mira check: what is damaged in tables, a line each.
#include "check/damage.h"
#include "command/command.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "select/selection.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

struct Options {
    TableNames tables;
    bool strict = false;
    bool json = false;
    unsigned jobs = 0;
    TableOptions table;
};

struct Counts {
    u64 findings = 0, notes = 0;
};

void putText(Output& out, const Table& table, const Finding& finding) {
    out.put(escaped(lineOf(table, finding)) + "\n");
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

Status checkOne(Output& out, const std::string& name, const Options& options, Listing& listing) {
    const auto table = openToRead(name, options.table, &listing);
    tellPage(*table);
    Counts counts;
    checkTable(
        *table,
        [&](const Finding& finding) {
            ++(finding.isNote ? counts.notes : counts.findings);
            if (isQuiet() && finding.isNote && !options.strict) return;
            (options.json ? putJson : putText)(out, *table, finding);
        },
        options.jobs);
    if (!isQuiet()) putSummary(out, *table, counts, options.json);
    const bool found = counts.findings != 0 || (options.strict && counts.notes != 0);
    return found ? kFound : kDone;
}

Status run(const Options& options) {
    Output out(targetOf("-"), false);
    Listing listing;
    const Status status = eachTable(
        findToRead(options.tables.names, options.tables.recursive, &listing),
        [&](const std::string& name) { return checkOne(out, name, options, listing); }, &out);
    out.finish();
    return status;
}

}  // namespace

void addCheck(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "check", "Find what is damaged", run,
                   "Examples:\n"
                   "  mira check stock\n"
                   "  mira check folder -R --strict\n"
                   "  mira check folder --json\n\n"
                   "Exit status 1 when something is damaged; with --strict also for notes.");
    addTableNames(command, options.tables)->required();
    command.add_flag("--strict", options.strict, "Exit status 1 for notes, too");
    command.add_flag("--json", options.json,
                     "A JSON object per finding and one per table, a line each");
    addCount(command, "-j,--jobs", "Threads for a large table (default: processors)", options.jobs);
    addTableOptions(command, options.table);
}

}  // namespace mira::tool
