// mira memo: one memo out of a table or into it, or all memos of a table into folders.
#include "tables/value/memo.h"

#include <algorithm>
#include <filesystem>

#include "command/command.h"
#include "rows/output.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "terminal/editor.h"
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
    bool edit = false;
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
    if (out.isTerminal()) {
        refuse("a terminal takes no bytes of a memo; without -o it is printed as text");
    }
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
void writeFile(const Selection& selection, const fs::path& folder, const Value& value, bool force) {
    const bool binary = value.kind == ValueKind::Bytes;
    const std::string name =
        fmt::format("{}.{}", u64{selection.cells.record} + 1, binary ? "bin" : "txt");
    const Target target = targetOf((folder / name).string());
    checkTargets({target}, force, inputsOf(*selection.table));
    Output out(target, force);
    out.put(value.text);
    out.finish();
}

/// A memo column and the folder that its memos go into.
struct MemoFolder {
    Column column;
    fs::path folder;
};

/// A field's name as that of a folder, which no name may lead out of.
std::string folderNameOf(const Column& column) {
    std::string name = column.name;
    std::replace_if(
        name.begin(), name.end(),
        [](char c) { return c == '/' || static_cast<unsigned char>(c) < ' '; }, '_');
    return name.find_first_not_of('.') == std::string::npos ? name + "_" : name;
}

/// The field that is named, or all memo fields with a folder each below the given one.
std::vector<MemoFolder> memoFolders(const Table& table, const Options& options) {
    if (!options.field.empty()) return {{memoColumn(table, options.field), options.output}};
    std::vector<MemoFolder> found;
    for (const Column& column : table.columns) {
        if (!holdsReference(column)) continue;
        fs::path folder = fs::path(options.output) / folderNameOf(column);
        const auto isTaken = [&](const MemoFolder& other) {
            return sameText(other.folder.string(), folder.string());
        };
        while (std::any_of(found.begin(), found.end(), isTaken)) folder += "_";
        found.push_back({column, folder});
    }
    if (found.empty()) refuse(table.path, ": no field holds memos");
    return found;
}

/// How many memos of the current row there are; each goes into a file of its own.
u64 takeRowOut(Selection& selection, const std::vector<MemoFolder>& folders, bool force) {
    u64 memos = 0;
    Value value;
    for (const MemoFolder& to : folders) {
        readCell(selection, to.column, value);
        if (isEmpty(value)) continue;
        writeFile(selection, to.folder, value, force);
        ++memos;
    }
    return memos;
}

Status takeAllOut(const Options& options) {
    if (options.output.empty() || options.output == "-") {
        refuse("--all needs a folder: -o FOLDER");
    }
    const auto selection = selectFrom(options.table, options.select);
    const std::vector<MemoFolder> folders = memoFolders(*selection->table, options);
    makeFolder(options.output, "memos go");
    for (const MemoFolder& to : folders) makeFolder(to.folder.string(), "memos go");
    u64 memos = 0;
    while (nextRow(*selection)) memos += takeRowOut(*selection, folders, options.force);
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

/// Stores bytes as the memo of the record in RecordBuffer. Throws a Refusal.
void store(Table& table, const Options& options, const Column& column, const std::string& bytes) {
    Encoded encoded;
    const std::string reason = encodeValue(table, column, givenOf(column, bytes), false, encoded);
    if (!reason.empty()) refuse(nameOf(table, *options.record, column), ": ", reason);
    if (options.change.dryRun) return;
    Changing changing(table, options.change);
    changing->put(column, encoded);
    changing->writeRecord(static_cast<u32>(*options.record - 1));
    leaveIfStopped();
    changing.commit();
}

void tellStored(const Table& table, const Options& options) {
    tellPage(table);
    note("{}: 1 of {} {}changed", table.path, counted(table.base->Header.RecordCount, "record"),
         options.change.dryRun ? "would be " : "");
}

/// Where texts are kept, bytes that are none would go unnoticed.
void tellNoText(Table& table, const Options& options, const Column& column,
                const std::string& bytes) {
    if (column.kind != Kind::Memo || isUtf8(bytes)) return;
    CellReader cells(table);
    Value before;
    readCell(cells, column, before);
    if (before.kind != ValueKind::Text || before.text.empty()) return;
    note("{}: the memo was a text; what replaces it is no UTF-8 and is stored as it is",
         nameOf(table, *options.record, column));
}

Status putIn(const Options& options) {
    const auto table = openToChange(options.table, options.select.table);
    const Column& column = memoColumn(*table, options.field);
    readRecordNumbered(*table, *options.record);
    const std::string bytes = readInput(options.from);
    tellNoText(*table, options, column, bytes);
    store(*table, options, column, bytes);
    tellStored(*table, options);
    return kDone;
}

// --------------------------------------------------------------------------------------------
// Through an editor
// --------------------------------------------------------------------------------------------

/// A memo as an editor gets it, and as it stands in the memo file.
struct Draft {
    std::string text, stored;
};

Draft draftOf(Table& table, const Options& options) {
    const Column& column = memoColumn(table, options.field);
    readRecordNumbered(table, *options.record);
    CellReader cells(table);
    Value value;
    readCell(cells, column, value);
    const std::string name = nameOf(table, *options.record, column);
    if (value.fault == Fault::NoMemo) {
        refuse(name, ": the memo cannot be read; `mira check` says why");
    }
    if (value.fault != Fault::None) refuse(name, ": ", faultSentence(value.fault, 1));
    if (isEmpty(value)) return {};
    if (value.kind != ValueKind::Text) {
        refuse(name, ": the memo is no text; -o FILE takes it out, --set FILE stores another");
    }
    Draft draft{std::string(value.text), {}};
    draft.stored = bytesOf(cells, column);
    return draft;
}

/// Stores what an editor has made of a memo, unless somebody else has changed it since.
void storeEdited(const Options& options, const Draft& before, const std::string& text) {
    const auto table = openToChange(options.table, options.select.table);
    if (draftOf(*table, options).stored != before.stored) {
        refuse(nameOf(*table, *options.record, memoColumn(*table, options.field)),
               ": the memo has changed meanwhile");
    }
    store(*table, options, memoColumn(*table, options.field), text);
    tellStored(*table, options);
}

/// Nothing is locked, and no table open, while the editor runs.
Status edit(const Options& options) {
    const Draft before = draftOf(*openToRead(options.table, options.select.table), options);
    EditedFile file(before.text);
    const std::optional<std::string> text = file.edit();
    if (!text) {
        note("{}: record {}: unchanged", options.table, *options.record);
        return kDone;
    }
    try {
        storeEdited(options, before, *text);
    } catch (const Refusal& refusal) {
        refuse(refusal.what(), "; the text is kept in ", file.keep());
    } catch (const Stopped&) {
        error("{}: stopped; the text is kept in {}", options.table, file.keep());
        throw;
    }
    return kDone;
}

Status run(const Options& options) {
    const bool stores = options.edit || !options.from.empty();
    if (options.all && (options.record || stores)) {
        refuse("--all takes out every memo: no RECORD, no --set, no --edit");
    }
    if (options.all) return takeAllOut(options);
    if (options.field.empty() || !options.record) {
        refuse("FIELD and RECORD say which memo; --all -o FOLDER takes all");
    }
    if (!options.select.where.empty()) refuse("-w FILTER goes with --all");
    if (!stores) return takeOut(options);
    if (!options.output.empty()) refuse("-o or ", options.edit ? "--edit" : "--set", ", not both");
    if (options.edit && !options.from.empty()) refuse("--edit or --set, not both");
    return options.edit ? edit(options) : putIn(options);
}

}  // namespace

void addMemo(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "memo", "Print, take out or store memos", run,
                   "Examples:\n"
                   "  mira memo members NOTES 3\n"
                   "  mira memo members PHOTO 1 -o photo.png\n"
                   "  mira memo members NOTES 3 --edit\n"
                   "  mira memo members NOTES 3 --set notes.txt\n"
                   "  mira memo members --all -o memos");
    command.add_option("TABLE", options.table, "The table")->required();
    command.add_option("FIELD", options.field, "The memo field");
    addCount(command, "RECORD", "The record, from 1; it may be deleted", options.record);
    command.add_option("-o,--output", options.output, "A file for its bytes, \"-\" for output")
        ->type_name("FILE");
    command.add_option("--set", options.from, "Store what the file holds, \"-\" for input")
        ->type_name("FILE");
    command.add_flag("--edit", options.edit, "Open it in $EDITOR, and store it again");
    command.add_flag("--all", options.all, "All memos, a file each in -o FOLDER");
    command.add_flag("--force", options.force, "Replace files that are there");
    addFilterOptions(command, options.select);
    addTableOptions(command, options.select.table);
    command.add_flag("--raw", options.select.table.raw, "Keep soft line breaks");
    addChangeOptions(command, options.change);
}

}  // namespace mira::tool
