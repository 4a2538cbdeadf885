// mira export: tables to CSV, TSV, JSON, SQLite and scripts for database servers.
#include <algorithm>
#include <atomic>
#include <exception>
#include <filesystem>
#include <mutex>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "command/command.h"
#include "read/copyrows.h"
#include "rows/database.h"
#include "rows/script.h"
#include "rows/writer.h"
#include "select/inorder.h"
#include "select/opening.h"
#include "select/selection.h"
#include "tables/open/find.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    TableNames tables;
    SelectOptions select;
    std::string out;
    const Format* format = nullptr;
    WriterOptions writer;
    bool noHeading = false;
    std::string delimiter;
    bool force = false;
    unsigned jobs = 0;
    bool append = false, source = false;
};

bool isFolder(const std::string& name) {
    std::error_code ignored;
    return fs::is_directory(name, ignored);
}

/// What the name of the output says; null when nothing.
const Format* formatOfName(const std::string& out) {
    return formatOfExtension(fs::path(out).extension().string());
}

/// The work of one call: the tables and what was done with them.
struct Work {
    Options options;
    std::vector<FoundTable> tables;
    Listing listing;
    bool several = false;  // folders or more than one table
    bool joined = false;   // several of one structure into one file
    std::vector<Target> targets;
    std::atomic<std::size_t> next = 0;  // table to do

    std::mutex mutex;  // guards what follows
    u64 done = 0, rows = 0;
    u64 refused = 0, faulty = 0;
    std::exception_ptr failure;
    std::vector<std::optional<std::vector<std::string>>> messages;  // of each table that is done
    std::size_t told = 0;                                           // tables whose messages are
};

void addRefusal(Work& work, const std::string& sentence) {
    tellError(sentence);
    const std::lock_guard lock(work.mutex);
    ++work.refused;
}

/// Tells what there is to tell of a table, in the order of the tables.
void tellInTurn(Work& work, std::size_t index, std::vector<std::string> messages) {
    const std::lock_guard lock(work.mutex);
    work.messages[index] = std::move(messages);
    for (; work.told < work.messages.size() && work.messages[work.told]; ++work.told) {
        tellGathered(*std::exchange(work.messages[work.told], std::vector<std::string>()));
    }
}

/// Tells how many records of the only table were written.
void tellRows(const Work& work, const Selection& selection, const Target& target) {
    if (work.several || (target.path.empty() && selection.rows != 0)) return;
    note("{}: {} of {}", target.path.empty() ? selection.table->path : target.name, selection.rows,
         counted(selection.table->base->Header.RecordCount, "record"));
}

void countTable(Work& work, const Selection& selection) {
    const bool faulty = tellFaults(selection);
    const std::lock_guard lock(work.mutex);
    ++work.done;
    work.rows += selection.rows;
    work.faulty += faulty ? 1 : 0;
}

/// The name that --source gives a table: of its file, with the folders below the one that was
/// named.
std::string sourceOf(const FoundTable& found, const Table& table) {
    return (fs::path(found.below) / fs::path(table.path).filename()).string();
}

// --------------------------------------------------------------------------------------------
// Texts
// --------------------------------------------------------------------------------------------

std::vector<Heading> headingsOf(const Work& work, const Selection& selection) {
    std::vector<Heading> headings;
    if (work.options.source) {
        headings.push_back({extraColumn(*selection.table, "_source", Kind::Text).name, false});
    }
    for (const Column& column : selection.columns) {
        headings.push_back({column.name, column.mayBeNull(), &column});
    }
    return headings;
}

/// Threads that are not at work on other tables.
unsigned threadsFor(const Work& work) {
    const unsigned all = threadsAsked(work.options.jobs);
    const std::size_t tables = work.joined ? 1 : work.tables.size();
    return std::max(all / static_cast<unsigned>(std::clamp<std::size_t>(tables, 1, all)), 1U);
}

void putRows(const Work& work, const FoundTable& found, Selection& selection, RowWriter& writer,
             Output& out) {
    const Options& options = work.options;
    const std::string source = sourceOf(found, *selection.table);
    const std::vector<Heading> headings = headingsOf(work, selection);
    try {
        copyRowsInParts(selection, writer, out,
                        {*options.format, options.writer, headings, options.select,
                         options.source ? &source : nullptr, threadsFor(work)});
    } catch (const Refusal&) {
        out.flush();  // what comes before the record that cannot be read
        throw;
    }
}

void finishText(RowWriter& writer, Output& out, const std::string& name) {
    writer.end();
    out.finish();
    if (writer.guarded == 0) return;
    note("{}: {} got a \"'\" in front, so that no spreadsheet takes it for a formula", name,
         counted(writer.guarded, "text"));
}

void writeText(Work& work, const FoundTable& found, Selection& selection, const Target& target) {
    Output out(target, work.options.force);
    const std::unique_ptr<RowWriter> writer = work.options.format->make(out, work.options.writer);
    writer->begin(headingsOf(work, selection));
    putRows(work, found, selection, *writer, out);
    finishText(*writer, out, selection.table->path);
}

void exportText(Work& work, std::size_t index) {
    try {
        const FoundTable& found = work.tables[index];
        const auto selection = selectFrom(found.path, work.options.select, &work.listing);
        requireColumns(*selection);
        if (work.several && !found.below.empty()) {
            makeFolder(fs::path(work.targets[index].path).parent_path(), "tables go");
        }
        writeText(work, found, *selection, work.targets[index]);
        countTable(work, *selection);
        tellRows(work, *selection, work.targets[index]);
    } catch (const Refusal& refusal) {
        addRefusal(work, refusal.what());
    }
}

void workThrough(Work& work) {
    try {
        while (true) {
            const std::size_t index = work.next++;
            if (index >= work.tables.size()) return;
            GatheredMessages messages;
            const auto tell = [&] { tellInTurn(work, index, messages.take()); };
            try {
                exportText(work, index);
            } catch (...) {
                tell();
                throw;
            }
            tell();
        }
    } catch (...) {
        const std::lock_guard lock(work.mutex);
        if (!work.failure) work.failure = std::current_exception();
    }
}

/// As many threads as can be had, this one included.
void runThreads(Work& work, std::size_t threads) {
    std::vector<std::jthread> others;
    try {
        while (others.size() + 1 < threads) others.emplace_back([&work] { workThrough(work); });
    } catch (const std::system_error&) {
        // The system has no more of them; those there are do all the work.
    }
    workThrough(work);
}

/// Files that an output must not replace: the tables and whatever has their name.
std::vector<std::string> inputsOf(Work& work) {
    std::vector<std::string> inputs;
    for (const FoundTable& table : work.tables) {
        try {
            inputs.push_back(findTable(table.path));
        } catch (const Refusal&) {
            continue;  // told when its turn comes
        }
        for (const char* extension : {".dbt", ".fpt", ".smt", ".dct"}) {
            const std::string memo = beside(inputs.back(), extension, &work.listing);
            if (!memo.empty()) inputs.push_back(memo);
        }
    }
    return inputs;
}

void nameTargets(Work& work) {
    const Options& options = work.options;
    if (!work.several && !isFolder(options.out)) {
        work.targets.push_back(targetOf(options.out.empty() ? "-" : options.out));
    } else {
        for (const FoundTable& table : work.tables) {
            const std::string name = stemOf(table.path) + extensionOf(*options.format);
            work.targets.push_back(targetOf((fs::path(options.out) / table.below / name).string()));
            work.targets.back().source = table.path;
        }
    }
    const bool present = std::any_of(work.targets.begin(), work.targets.end(),
                                     [](const Target& target) { return target.exists; });
    checkTargets(work.targets, options.force,
                 present ? inputsOf(work) : std::vector<std::string>());
}

/// For all tables in one file.
void takeOneTarget(Work& work) {
    const Options& options = work.options;
    work.targets.push_back(targetOf(options.out.empty() ? "-" : options.out));
    checkTargets(work.targets, options.force,
                 work.targets[0].exists ? inputsOf(work) : std::vector<std::string>());
}

void exportTexts(Work& work) {
    const Options& options = work.options;
    if (work.several && (options.out.empty() || options.out == "-")) {
        refuse(
            "several tables need -o FOLDER, -o NAME.db for one database, or -o NAME.csv for one "
            "file of tables that have the same structure");
    }
    if (work.several && foldCase(fs::path(options.out).extension().string()) == ".dbf") {
        refuse(options.out, ": export makes no tables; `mira append --new` makes one of several");
    }
    nameTargets(work);
    const bool made = work.several && makeFolder(options.out, "several tables go");
    const std::size_t threads =
        std::min<std::size_t>(threadsAsked(options.jobs), work.tables.size());
    work.messages.resize(work.tables.size());
    runThreads(work, threads);
    for (; work.told < work.messages.size(); ++work.told) {
        if (const auto& rest = work.messages[work.told]) tellGathered(*rest);
    }
    std::error_code ignored;
    if (made && work.done == 0) fs::remove(options.out, ignored);
    if (work.failure) std::rethrow_exception(work.failure);
}

// --------------------------------------------------------------------------------------------
// Several tables of one structure in one file
// --------------------------------------------------------------------------------------------

/// Throws a Refusal when a table has other columns than the first.
void checkStructure(const Selection& first, const Selection& other) {
    const std::vector<Column>& columns = other.columns;
    std::size_t same = 0;
    const std::size_t count = std::min(columns.size(), first.columns.size());
    while (same < count && sameText(columns[same].name, first.columns[same].name) &&
           columns[same].type == first.columns[same].type) {
        ++same;
    }
    if (same == columns.size() && same == first.columns.size()) return;
    const auto shown = [&](const std::vector<Column>& of) {
        return same < of.size() ? textOf(of[same].name, ' ', typeLabel(of[same])) : "nothing";
    };
    refuse(other.table->path, ": its structure is not that of ", first.table->path, ": ",
           shown(columns), " instead of ", shown(first.columns),
           "; -f A,B,... takes the columns that they share");
}

void exportJoined(Work& work) {
    const Options& options = work.options;
    takeOneTarget(work);
    Output out(work.targets[0], options.force);
    const std::unique_ptr<RowWriter> writer = options.format->make(out, options.writer);
    std::unique_ptr<Selection> first;
    for (const FoundTable& found : work.tables) {
        std::unique_ptr<Selection> selection;
        try {
            selection = selectFrom(found.path, options.select, &work.listing);
            requireColumns(*selection);
            if (first) checkStructure(*first, *selection);
        } catch (const Refusal& refusal) {
            addRefusal(work, refusal.what());
            continue;
        }
        if (!first) writer->begin(headingsOf(work, *selection));
        putRows(work, found, *selection, *writer, out);
        countTable(work, *selection);
        if (!first) first = std::move(selection);
    }
    if (first) finishText(*writer, out, work.targets[0].name);
}

// --------------------------------------------------------------------------------------------
// Databases
// --------------------------------------------------------------------------------------------

/// Says which file a table is whose name another one has.
void tellOtherName(const std::string& name, const std::string& path) {
    if (name != stemOf(path)) note("{} is {}", name, path);
}

void exportTable(Work& work, Selection& selection, Database& database) {
    const std::string& path = selection.table->path;
    const std::string name = database.freeName(stemOf(path));
    tellOtherName(name, path);
    database.addTable(name, *selection.table, selection.columns);
    copyRows(selection, database);
    countTable(work, selection);
}

void exportDatabase(Work& work) {
    const Options& options = work.options;
    if (options.out.empty() || options.out == "-") refuse("a database needs -o NAME.db");
    work.targets.push_back(targetOf(options.out));
    // A database that is there is added to, so it may exist; a table must not be taken for one.
    checkTargets(work.targets, true,
                 work.targets[0].exists ? inputsOf(work) : std::vector<std::string>());
    const Present present = options.writer.replace ? Present::Replace
                            : options.append       ? Present::Append
                                                   : Present::Refuse;
    Database database(work.targets[0], options.force, present);
    std::unique_ptr<Selection> selection;
    for (const FoundTable& table : work.tables) {
        try {
            selection = selectFrom(table.path, options.select, &work.listing);
            requireColumns(*selection);
        } catch (const Refusal& refusal) {
            addRefusal(work, refusal.what());
            continue;
        }
        if (options.writer.schema) selection->end = selection->position;
        exportTable(work, *selection, database);
    }
    if (work.done == 0) return;
    database.finish();
    tellRows(work, *selection, work.targets[0]);
}

/// CREATE TABLE statements as text.
void exportSchema(Work& work) {
    const Options& options = work.options;
    work.targets.push_back(targetOf(options.out.empty() ? "-" : options.out));
    checkTargets(work.targets, options.force, inputsOf(work));
    Output out(work.targets[0], options.force);
    std::set<std::string> names;
    for (const FoundTable& table : work.tables) {
        try {
            const auto selection = selectFrom(table.path, options.select, &work.listing);
            requireColumns(*selection);
            const std::string name = freeName(
                stemOf(selection->table->path),
                [&](const std::string& free) { return names.insert(foldCase(free)).second; });
            tellOtherName(name, selection->table->path);
            const std::string sql = createTable(name, selection->columns) + ";\n";
            out.put(out.isTerminal() ? escaped(sql) : sql);
            ++work.done;
        } catch (const Refusal& refusal) {
            addRefusal(work, refusal.what());
        }
    }
    out.finish();
}

// --------------------------------------------------------------------------------------------
// Scripts
// --------------------------------------------------------------------------------------------

/// Tells what a server has under another name than the table, letter case aside, or as another type
/// than one would expect.
void tellServerTable(const ServerTable& made, const Selection& selection,
                     const std::vector<Heading>& headings) {
    const std::string& path = selection.table->path;
    if (!sameText(made.name, stemOf(path))) note("{} is {}", made.name, path);
    for (std::size_t i = 0; i < headings.size(); ++i) {
        const auto& [name, type, form] = made.columns[i];
        const Column* const column = headings[i].column;
        if (!sameText(name, headings[i].name)) {
            note("{}: field {} is the column {}", path, headings[i].name, name);
        }
        if (column != nullptr && column->kind == Kind::Decimal && form == Form::Text) {
            note("{}: field {} has numbers that no type of the server holds, so it is {}", path,
                 headings[i].name, type);
        }
    }
}

/// Makes the table of a file; null when there is none to make.
std::unique_ptr<Selection> makeTable(Work& work, ScriptWriter& script, const FoundTable& found) {
    try {
        auto selection = selectFrom(found.path, work.options.select, &work.listing);
        requireColumns(*selection);
        const std::vector<Heading> headings = headingsOf(work, *selection);
        const Table& table = *selection->table;
        tellServerTable(script.create(stemOf(table.path), headings, &table), *selection, headings);
        return selection;
    } catch (const Refusal& refusal) {
        addRefusal(work, refusal.what());
        return nullptr;
    }
}

/// Every table first, then all rows. Where there are several, each is opened twice, so that never
/// more than one is open.
void exportScript(Work& work) {
    const Options& options = work.options;
    takeOneTarget(work);
    Output out(work.targets[0], options.force);
    const std::unique_ptr<RowWriter> writer = options.format->make(out, options.writer);
    auto& script = dynamic_cast<ScriptWriter&>(*writer);
    std::vector<const FoundTable*> made;
    std::unique_ptr<Selection> selection;
    for (const FoundTable& found : work.tables) {
        selection = makeTable(work, script, found);
        if (selection) made.push_back(&found);
    }
    if (made.empty()) return;
    for (const FoundTable* found : made) {
        if (work.tables.size() != 1) {
            selection = selectFrom(found->path, options.select, &work.listing);
        }
        if (options.writer.schema) {
            selection->end = selection->position;
        } else {
            script.beginRows();
        }
        putRows(work, *found, *selection, script, out);
        countTable(work, *selection);
    }
    writer->end();
    out.finish();
    if (!options.writer.schema) tellRows(work, *selection, work.targets[0]);
}

// --------------------------------------------------------------------------------------------
// The command
// --------------------------------------------------------------------------------------------

/// Throws a Refusal for options that mean nothing to the format.
void refuseMeaningless(const Options& options) {
    const bool schema = options.writer.schema;
    const bool csv = options.format->has(kTakesDelimiter) && !schema;
    const bool lines = options.format->has(kTakesLines) && !schema;
    const bool tables = options.format->has(kTakesTables) || schema;
    const bool script = options.format->has(kTakesTables) && !options.format->has(kTakesDatabase);
    const bool sqlite = tables && !script;
    const bool database = options.format->has(kTakesDatabase) && !(schema && options.out.empty());
    const auto check = [](bool given, bool meant, const char* option, const char* formats) {
        if (given && !meant) refuse(option, " is for ", formats, " only");
    };
    check(options.noHeading, lines, "--no-heading", "CSV and TSV");
    check(options.writer.bom, lines, "--bom", "CSV and TSV");
    check(options.writer.crlf, lines, "--crlf", "CSV and TSV");
    check(!options.delimiter.empty(), csv, "-d", "CSV");
    check(options.writer.excel, csv, "--excel", "CSV");
    check(options.writer.replace, database || script, "--replace", "SQLite, postgres and mysql");
    check(options.append, database, "--append", "SQLite");
    check(options.select.table.exact, sqlite, "--exact", "SQLite");
    check(options.jobs != 0, !tables, "-j", "text formats");
    check(options.source, !sqlite, "--source", "text formats");
}

/// Completes the options of a writer.
void chooseFormat(Work& work) {
    Options& options = work.options;
    const Format*& format = options.format;
    const bool named = !options.out.empty() && options.out != "-" && !isFolder(options.out);
    if (format == nullptr && named) format = formatOfName(options.out);
    const bool special = named && !targetOf(options.out).regular;
    if (format == nullptr && named && !work.several && !options.writer.schema && !special) {
        refuse(options.out, ": its name tells no format; -F ", namesOf(fileFormats()), " does");
    }
    if (format == nullptr) format = fileFormats().front().second;
    const bool file = named ? formatOfName(options.out) != nullptr : !isFolder(options.out);
    work.joined = work.several && file && (named || options.source) && !options.writer.schema &&
                  !format->has(kTakesTables);
    refuseMeaningless(options);
    options.writer.heading = !options.noHeading;
    if (!options.delimiter.empty()) options.writer.delimiter = delimiterOf(options.delimiter);
}

Status statusOf(const Work& work) {
    if (work.done == 0 && work.refused != 0) return kFailed;
    return work.refused != 0 || work.faulty != 0 ? kFound : kDone;
}

Status run(const Options& options) {
    Work work;
    work.options = options;
    work.tables =
        findWithFoldersToRead(options.tables.names, options.tables.recursive, &work.listing);
    work.several = work.tables.size() > 1 || isFolder(options.tables.names.front());
    chooseFormat(work);
    const bool database = work.options.format->has(kTakesDatabase);
    if (work.options.format->has(kTakesTables) && !database) {
        exportScript(work);
    } else if (options.writer.schema && (!database || options.out.empty())) {
        exportSchema(work);
    } else if (database) {
        exportDatabase(work);
    } else if (work.joined) {
        exportJoined(work);
    } else {
        exportTexts(work);
    }
    if (work.several && !options.writer.schema) {
        note("{}, {} into {}", counted(work.done, "table"), counted(work.rows, "record"),
             options.out.empty() ? "standard output" : options.out);
    }
    return statusOf(work);
}

}  // namespace

void addExport(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "export", "Tables to CSV, TSV, JSON, SQLite or a database server", run,
        "Examples:\n"
        "  mira export stock > stock.csv\n"
        "  mira export stock -o stock.jsonl -w 'PRICE>10' -f CODE,PRICE\n"
        "  mira export folder -o csv-folder\n"
        "  mira export 2023 2024 --source -o both.csv\n"
        "  mira export folder -R -o tables.db\n"
        "  mira export -F postgres stock | psql\n"
        "  mira export -F mysql folder -o tables.sql");
    addTableNames(command, options.tables)->required();
    command
        .add_option("-o,--output", options.out, "File, folder or database; - for standard output")
        ->type_name("OUT");
    addChoice(command, "-F,--format", namesOf(fileFormats()), "FORMAT", fileFormats(),
              options.format);
    command.add_flag("--force", options.force, "Replace files that are there");
    addCount(command, "-j,--jobs", "Threads, for one table or several (default: processors)",
             options.jobs);
    command.add_flag("--no-heading", options.noHeading, "No line of names");
    command.add_flag("--bom", options.writer.bom, "A byte-order mark in front");
    command.add_flag("--crlf", options.writer.crlf, "Lines end with CR LF");
    command
        .add_option("-d,--delimiter", options.delimiter,
                    "Between cells of CSV: a character, or tab")
        ->type_name("C");
    command.add_flag(
        "--excel", options.writer.excel,
        "For spreadsheets: byte-order mark, CR LF, and texts never taken for formulas");
    CLI::Option* const replace = command.add_flag("--replace", options.writer.replace,
                                                  "Replace tables that the database has");
    command.add_flag("--append", options.append, "Add to tables that the database has")
        ->excludes(replace);
    command.add_flag("--schema", options.writer.schema, "CREATE TABLE only");
    command.add_flag("--source", options.source,
                     "A first column _source with the name of the table's file");
    command.add_flag("--exact", options.select.table.exact,
                     "SQLite: numbers that may have more than 15 digits as text, all digits kept");
    addSelectOptions(command, options.select);
}

}  // namespace mira::tool
