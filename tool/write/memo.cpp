// mira memo: one memo out of a table or into it, or all memos of a field into a folder.
#include "tables/value/memo.h"

#include <filesystem>

#include "command/command.h"
#include "rows/output.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "terminal/message.h"
#include "write/change.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongest = 0x7FFFFFFF;  // bytes of a memo file

struct Options {
    std::string table, field;
    std::optional<u64> record;
    std::string output, from;
    bool all = false;
    bool force = false;
    SelectOptions select;
    ChangeOptions change;
};

// --------------------------------------------------------------------------------------------
// What is meant
// --------------------------------------------------------------------------------------------

const Column& memoColumn(const Table& table, const std::string& name) {
    const Column& column = columnNamed(table, name);
    if (holdsReference(column)) return column;
    std::vector<std::string> fields;
    for (const Column& other : table.columns) {
        if (holdsReference(other)) fields.push_back(other.name);
    }
    refuse(table.path, ": field ", column.name, " is ", typeLabel(column), " and holds no memos; ",
           fields.empty() ? "no field does" : "these do: " + joined(fields));
}

/// Reads the record of a number from 1.
void readRecordNumbered(const Table& table, u64 number) {
    const u32 count = table.base->Header.RecordCount;
    if (number == 0) refuse("records count from 1");
    if (number > count) refuse(table.path, ": no record ", number, "; there are ", count);
    readRecord(table, static_cast<u32>(number - 1));
}

std::string nameOf(const Table& table, u64 record, const Column& column) {
    return fmt::format("{}: record {}, field {}", table.path, record, column.name);
}

std::vector<std::string> inputsOf(const Table& table) { return {table.path, memoFileOf(table)}; }

// --------------------------------------------------------------------------------------------
// Out
// --------------------------------------------------------------------------------------------

/// The lines of a text, for a terminal: nothing but their ends comes through.
void putLines(Output& out, std::string_view text) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.ends_with('\r')) line.remove_suffix(1);
        out.put(escaped(line) + "\n");
    }
}

void putMemo(Output& out, const Value& value) {
    if (value.kind == ValueKind::Text && out.isTerminal()) return putLines(out, value.text);
    std::string text;
    putPlain(text, value);
    if (value.kind == ValueKind::Bytes) text += '\n';
    out.put(text);
}

bool isEmpty(const Value& value) {
    return value.kind == ValueKind::Null || value.kind == ValueKind::Blank || value.text.empty();
}

/// The bytes as they stand in the memo file.
std::string_view bytesOf(CellReader& cells, const Column& column) {
    std::string_view bytes;
    readMemo(cells.memos, *cells.table, column, &bytes);
    return bytes;
}

/// Into the file of -o.
void putBytes(const Options& options, const Table& table, std::string_view bytes) {
    const Target target = targetOf(options.output);
    checkTargets({target}, options.force, inputsOf(table));
    Output out(target, options.force);
    out.put(bytes);
    out.finish();
    if (!target.path.empty()) note("{}: {}", target.name, counted(bytes.size(), "byte"));
}

/// The memo as a value or, for -o, its bytes.
Status takeOut(const Options& options) {
    const auto table = openToRead(options.table, options.select.table);
    const Column& column = memoColumn(*table, options.field);
    readRecordNumbered(*table, *options.record);
    CellReader cells(*table);
    Value value;
    readCell(cells, column, value);
    const std::string name = nameOf(*table, *options.record, column);
    if (value.fault == Fault::NoMemo) {
        refuse(name, ": the memo cannot be read; `mira check` says why");
    }
    if (isEmpty(value)) {
        note("{}: {}", name, value.kind == ValueKind::Null ? "null" : "no memo");
        return kDone;
    }
    const bool bytes = !options.output.empty();
    if (bytes) {
        putBytes(options, *table, bytesOf(cells, column));
    } else {
        Output out(targetOf("-"), false);
        putMemo(out, value);
        out.finish();
        tellPage(*table);
    }
    const bool matters = value.fault != Fault::None && (!bytes || value.fault == Fault::MemoCut);
    if (matters) note("{}: {}", name, faultSentence(value.fault, 1));
    return matters ? kFound : kDone;
}

/// Text as UTF-8, anything else as bytes.
void writeFile(const Selection& selection, const std::string& folder, const Value& value,
               bool force) {
    const bool binary = value.kind == ValueKind::Bytes;
    const std::string name =
        fmt::format("{}.{}", u64{selection.cells.record} + 1, binary ? "bin" : "txt");
    const Target target = targetOf((fs::path(folder) / name).string());
    checkTargets({target}, force, inputsOf(*selection.table));
    Output out(target, force);
    out.put(value.text);
    out.finish();
}

Status takeAllOut(const Options& options) {
    if (options.output.empty() || options.output == "-") {
        refuse("--all needs a folder: -o FOLDER");
    }
    const auto selection = selectFrom(options.table, options.select);
    const Column column = memoColumn(*selection->table, options.field);
    makeFolder(options.output, "memos go");
    u64 memos = 0;
    Value value;
    while (nextRow(*selection)) {
        readCell(*selection, column, value);
        if (isEmpty(value)) continue;
        writeFile(*selection, options.output, value, options.force);
        ++memos;
    }
    const bool faulty = tellFaults(*selection);
    note("{}: {} of {} into {}", selection->table->path, counted(memos, "memo"),
         counted(selection->rows, "record"), options.output);
    return faulty ? kFound : kDone;
}

// --------------------------------------------------------------------------------------------
// In
// --------------------------------------------------------------------------------------------

std::string readInput(const std::string& name) {
    const File file = openInput(name);
    constexpr std::size_t kChunk = 1 << 16;
    std::string bytes;
    while (true) {
        leaveIfStopped();
        const std::size_t used = bytes.size();
        bytes.resize(used + kChunk);
        const std::size_t got = std::fread(bytes.data() + used, 1, kChunk, file.get());
        bytes.resize(used + got);
        if (bytes.size() > kLongest) refuse(name, ": longer than a memo file can be");
        if (got == 0) break;
    }
    if (std::ferror(file.get()) != 0) refuse(name, ": cannot be read");
    return bytes;
}

/// A text in UTF-8 goes into the page of a field of texts; anything else stays as it is. Without
/// bytes there is to be no memo.
Given givenOf(const Column& column, const std::string& bytes) {
    if (bytes.empty()) return Given::ofText(bytes);
    const bool text =
        column.kind == Kind::Memo && isUtf8(bytes) && bytes.find('\0') == std::string::npos;
    return text ? Given::ofText(bytes) : Given::ofBlob(bytes);
}

Status putIn(const Options& options) {
    const auto table = openToChange(options.table, options.select.table);
    const Column& column = memoColumn(*table, options.field);
    readRecordNumbered(*table, *options.record);
    const std::string bytes = readInput(options.from);
    Encoded encoded;
    const std::string reason = encodeValue(*table, column, givenOf(column, bytes), false, encoded);
    const std::string name = nameOf(*table, *options.record, column);
    if (!reason.empty()) refuse(name, ": ", reason);
    if (!options.change.dryRun) {
        Changing changing(*table, options.change);
        changing->put(column, encoded);
        changing->writeRecord(static_cast<u32>(*options.record - 1));
        leaveIfStopped();
        changing.commit();
    }
    tellPage(*table);
    note("{}: 1 of {} {}changed", table->path, counted(table->base->Header.RecordCount, "record"),
         options.change.dryRun ? "would be " : "");
    return kDone;
}

Status run(const Options& options) {
    if (options.all && (options.record || !options.from.empty())) {
        refuse("--all takes out every memo: no RECORD, no --set");
    }
    if (options.all) return takeAllOut(options);
    if (!options.record) refuse("RECORD says which memo; --all -o FOLDER takes all");
    if (!options.select.where.empty()) refuse("-w FILTER goes with --all");
    if (options.from.empty()) return takeOut(options);
    if (!options.output.empty()) refuse("-o or --set, not both");
    return putIn(options);
}

}  // namespace

void addMemo(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "memo", "Print, take out or store memos", run,
                   "Examples:\n"
                   "  mira memo members NOTES 3\n"
                   "  mira memo members PHOTO 1 -o photo.png\n"
                   "  mira memo members NOTES 3 --set notes.txt\n"
                   "  mira memo members NOTES --all -o notes");
    command.add_option("TABLE", options.table, "The table")->required();
    command.add_option("FIELD", options.field, "The memo field")->required();
    addCount(command, "RECORD", "The record, from 1; it may be deleted", options.record);
    command.add_option("-o,--output", options.output, "A file for its bytes, \"-\" for output")
        ->type_name("FILE");
    command.add_option("--set", options.from, "Store what the file holds, \"-\" for input")
        ->type_name("FILE");
    command.add_flag("--all", options.all, "All memos of the field, a file each in -o FOLDER");
    command.add_flag("--force", options.force, "Replace files that are there");
    addFilterOptions(command, options.select);
    addTableOptions(command, options.select.table);
    command.add_flag("--raw", options.select.table.raw, "Keep soft line breaks");
    addChangeOptions(command, options.change);
}

}  // namespace mira::tool
