// mira repair: what can be saved of a damaged table, into a new one. The damaged files are only
// read.
#include <filesystem>
#include <optional>

#include "command/command.h"
#include "rows/output.h"
#include "rows/writer.h"
#include "select/opening.h"
#include "tables/change/swap.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/json.h"
#include "tables/page/refusal.h"
#include "tables/rescue/rescue.h"
#include "terminal/message.h"
#include "terminal/progress.h"
#include "write/change.h"
#include "write/newtable.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

struct Options {
    std::string table, to, like, schema, doubtful, codePage;
    TableKind kind = TableKind::DBase3;
    u32 memoBlock = 0;
    bool json = false;
    ChangeOptions change;  // with --force: replace an existing table
};

std::string lineOf(const std::string& source, const Spot& spot) {
    std::string line = source + ": ";
    if (spot.bytes != 0) line += fmt::format("byte {}: ", spot.place);
    if (spot.record != 0 && spot.is != Spot::Is::LeftOut) {
        line += spot.count == 1 ? fmt::format("record {}", spot.record)
                                : fmt::format("records {} to {}", spot.record,
                                              u64{spot.record} + spot.count - 1);
        line += spot.field.empty() ? ": " : ", field " + spot.field + ": ";
    }
    return line + spot.what;
}

std::string summaryOf(const std::string& to, const Rescued& saved) {
    std::string line =
        fmt::format("{}: {} of {} saved", to, saved.saved, counted(saved.expected, "record"));
    if (saved.shifted != 0) line += fmt::format(", {} of them shifted", saved.shifted);
    if (saved.doubtful != 0) line += fmt::format(", {} doubtful", saved.doubtful);
    if (saved.memos + saved.memosLost != 0) {
        line += fmt::format("; {} saved", counted(saved.memos, "memo"));
        if (saved.memosDoubtful != 0) line += fmt::format(", {} doubtful", saved.memosDoubtful);
        if (saved.memosLost != 0) line += fmt::format(", {} lost", saved.memosLost);
    }
    if (saved.leftOut != 0) line += fmt::format("; {} left out", counted(saved.leftOut, "byte"));
    return line;
}

std::string jsonOf(const Rescued& saved) {
    JsonObject object;
    object.number("records", saved.expected);
    object.number("saved", saved.saved);
    object.number("shifted", saved.shifted);
    object.number("doubtful", saved.doubtful);
    object.number("memos", saved.memos);
    object.number("memos_doubtful", saved.memosDoubtful);
    object.number("memos_lost", saved.memosLost);
    object.number("left_out_bytes", saved.leftOut);
    return object.whole();
}

/// Where nothing is certain the fields are hardly the right ones.
void tellFields(const Options& options, const Rescued& saved) {
    if (saved.doubtful != saved.saved || !options.like.empty() || !options.schema.empty()) return;
    note(
        "all records are doubtful; with --like SOUND or --schema, which tell the fields, "
        "there may be fewer");
}

/// Lays the new table without records, and looks how the damaged one is to be read.
Damaged begin(const Options& options, const std::string& source, const std::string& made) {
    if (!options.schema.empty()) {
        const auto page = openPage(options.codePage.empty() ? "437" : options.codePage);
        if (!page) refuse("--code-page ", options.codePage, ": no such code page");
        if (options.codePage.empty()) {
            note("code page {} is only a default; --code-page NAME says which it is",
                 pageName(*page));
        }
        makeTable({made, made}, parseSchema(options.schema, options.kind, *page), options.kind,
                  *page, 0);
        return examine(source, openTable(made, {}).get(), leaveIfStopped);
    }
    const auto like = options.like.empty() ? nullptr : openToRead(options.like, {});
    Damaged damaged = examine(source, like.get(), leaveIfStopped);
    layTable(made, damaged.layout.head);
    return damaged;
}

std::unique_ptr<Table> openNew(const Options& options, const std::string& source,
                               const std::string& made) {
    try {
        return openTable(made, {.codePage = options.codePage, .writable = true});
    } catch (const UnknownPage&) {
        throw;
    } catch (const Refusal&) {
        refuse(source, ": its header gives no table; --like SOUND or --schema says its fields");
    }
}

/// Fills the new files.
Rescued save(const Options& options, const std::string& source, const Target& target,
             const std::string& made, Output& out, std::string* memos) {
    Damaged damaged = begin(options, source, made);
    const auto to = openNew(options, source, made);
    to->path = target.path;  // for messages: there it will be
    checkFree(*to, target, options.change);
    *memos = memoTarget(*to, target).filename().string();
    std::optional<Output> kept;
    if (!options.doubtful.empty()) {
        kept.emplace(targetOf(options.doubtful), options.change.force);
    }
    const std::string damagedMemos = memosOfDamaged(source, *to);
    std::error_code ignored;
    if (!damagedMemos.empty() && fs::equivalent(damagedMemos, memoTarget(*to, target), ignored)) {
        refuse(damagedMemos, ": is the damaged table's memo file; -o names another table");
    }
    Progress progress(source, passesOf(damaged));
    const RescueHooks hooks{[&](const Spot& spot) {
                                if (options.json || isQuiet()) return;
                                hideProgress();
                                out.put(escaped(lineOf(source, spot)) + "\n");
                            },
                            [&](std::string_view bytes) {
                                if (kept) kept->put(bytes);
                            },
                            [&](u32 records) {
                                progress.add(records);
                                leaveIfStopped();
                            }};
    const Rescued saved = rescue(damaged, *to, damagedMemos, options.memoBlock, hooks);
    if (saved.saved == 0 && saved.expected != 0) refuse(source, ": no record can be saved");
    if (kept) kept->finish();
    return saved;
}

/// The damaged files stay as they are, whatever names the new ones get.
void refuseOverSource(const Options& options, const std::string& source, const Target& target) {
    std::error_code ignored;
    if (fs::equivalent(source, target.path, ignored)) {
        refuse(target.path, ": is the damaged table; -o names another");
    }
    if (!options.doubtful.empty() && fs::equivalent(source, options.doubtful, ignored)) {
        refuse(options.doubtful, ": is the damaged table; --doubtful names another");
    }
}

Status run(const Options& options) {
    const std::string source = findTable(options.table);
    const Target target = newTableTarget(options.to, options.change, "--force replaces it");
    refuseOverSource(options, source, target);
    const std::unique_ptr<Table> old = openOld(target, options.change);
    std::optional<Swap> swap;
    old ? swap.emplace(target.path, memoFileOf(*old)) : swap.emplace(target.path);
    Output out(targetOf("-"), false);
    std::string memos;
    const Rescued saved = save(options, source, target, swap->newTable(), out, &memos);
    leaveIfStopped();
    swap->commit(backupsOf(options.change), memos);
    if (options.json) {
        out.put(jsonOf(saved) + "\n");
    } else if (!isQuiet()) {
        out.put(escaped(summaryOf(target.path, saved)) + "\n");
    }
    out.finish();
    tellFields(options, saved);
    return saved.whole() ? kDone : kFound;
}

}  // namespace

void addRepair(CLI::App& program, Job& job) {
    const auto [command, options] = newCommand(
        program, job, "repair", "Save what can be saved of a damaged table", run,
        "Examples:\n"
        "  mira repair stock.dbf -o saved.dbf\n"
        "  mira repair stock.dbf -o saved.dbf --like backup/stock.dbf\n"
        "  mira repair stock.dbf -o saved.dbf --memo-block 64 --doubtful doubtful.bin\n\n"
        "Exit status 0 when all is saved without doubt, 1 when not, 2 when nothing can be.");
    command.add_option("TABLE", options.table, "The damaged table; it is only read")->required();
    command.add_option("-o,--output", options.to, "The new table")->required()->type_name("NEW");
    auto* const like =
        command
            .add_option("--like", options.like,
                        "A sound table with the same fields, when the descriptors are lost")
            ->type_name("SOUND");
    auto* const schema = command
                             .add_option("--schema", options.schema,
                                         "The fields, as in \"NAME C(20), PRICE N(10,2)\"")
                             ->type_name("FIELDS");
    auto* const kind = addChoice(
        command, "--kind", "with --schema: dbase3 (default), dbase4, foxpro, visual, smt, level7",
        "KIND", kKinds, options.kind);
    like->excludes(schema)->excludes(kind);
    command
        .add_option("--memo-block", options.memoBlock,
                    "Bytes per block of the memo file, when its header is lost")
        ->type_name("N")
        ->check(CLI::Range(1, 65535).description(""));
    command.add_option("--code-page", options.codePage, "Code page of the table")
        ->type_name("NAME");
    command
        .add_option("--doubtful", options.doubtful,
                    "Keep the bytes of what is doubtful or left out in a file")
        ->type_name("FILE");
    command.add_flag("--force", options.change.force, "Replace a table that is there");
    command.add_flag("--json", options.json, "A JSON object with the counts");
}

}  // namespace mira::tool
