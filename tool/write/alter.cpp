// mira alter: another structure, kind or code page for a table, with all its values.
//
// A new table is built beside the old one. A field that stays as it is keeps its descriptor, and
// its bytes are copied; any other value is read, checked and encoded anew. What does not fit is
// told, and nothing is changed then.
#include "check/memoloss.h"
#include "command/command.h"
#include "input/restructure.h"
#include "tables/change/pack.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "terminal/message.h"
#include "terminal/progress.h"
#include "terminal/status.h"
#include "write/change.h"

namespace mira::tool {
namespace {

struct Options {
    std::string name;
    Restructure wanted;
    TableOptions table;
    bool lenient = false, strict = false;
    ChangeOptions change;
};

/// Copies all records; how many values did not fit.
u64 copyRecords(Table& table, const Alteration& alteration, const Swap& swap, std::string* memos) {
    u64 misfits = 0;
    Progress progress(table.path, table.base->Header.RecordCount);
    *memos = alterInto(
        table, alteration, swap,
        [&](u32 record, const Column& column, const std::string& reason) {
            ++misfits;
            error("{}: record {}, {}: {}", table.path, u64{record} + 1, column.name, reason);
        },
        [&] {
            leaveIfStopped();
            progress.add(1);
        });
    return misfits;
}

Status run(const Options& options) {
    if (options.wanted.isEmpty()) {
        refuse(
            "nothing to change is given: --add, --drop, --rename, --type, --kind or "
            "--to-code-page");
    }
    const auto table = openToChange(options.name, options.table);
    finishPack(*table);
    tellLostMemos(*table, options.lenient);
    Swap swap(table->path, memoFileOf(*table));
    checkRoom(swap.newTable(), table->fileSize);
    if (const std::string stray = strayRepair(*table); !stray.empty()) {
        note("{}: {}", table->path, stray);
    }
    tellPage(*table);
    const Alteration alteration = planAlteration(*table, options.wanted, swap);
    std::string memos;
    const u64 misfits = copyRecords(*table, alteration, swap, &memos);
    if (misfits != 0 && !options.lenient) {
        refuse(table->path, ": ", counted(misfits, "value"), misfits == 1 ? " does" : " do",
               " not fit, nothing is changed; --lenient leaves them blank");
    }
    leaveIfStopped();
    if (!options.change.dryRun) {
        if (!table->container.empty()) {
            note("{}: the database container {} still has the fields as they were", table->path,
                 table->container);
        }
        swap.commit(backupsOf(options.change), memos);
        tellStale(*table, {.records = true}, options.change);
    }
    note("{}: {} {}altered", table->path, counted(table->base->Header.RecordCount, "record"),
         options.change.dryRun ? "would be " : "");
    if (misfits == 0) return kDone;
    note("{}: {} did not fit and {} blank", table->path, counted(misfits, "value"),
         misfits == 1 ? "is" : "are");
    return kFound;
}

/// An option that may be given again, each time told as it is met.
void addEach(CLI::App& command, const char* name, const char* type, const char* help,
             const std::function<void(const std::string&)>& take) {
    command.add_option_function<std::string>(name, take, help)
        ->type_name(type)
        ->trigger_on_parse()
        ->allow_extra_args(false);
}

void addRestructureOptions(CLI::App& command, Restructure& wanted) {
    addEach(command, "--add", "FIELD", "Add a field, such as 'NAME C(20)'; may be given again",
            [&wanted](const std::string& text) {
                wanted.added.push_back({text, ""});
            });
    addEach(command, "--after", "FIELD", "Where the --add before it goes; else at the end",
            [&wanted](const std::string& text) {
                if (wanted.added.empty()) {
                    throw CLI::ValidationError("--after " + text, "stands behind its --add");
                }
                wanted.added.back().after = text;
            });
    addEach(command, "--drop", "FIELD", "Take a field out; may be given again",
            [&wanted](const std::string& text) { wanted.dropped.push_back(text); });
    addEach(command, "--rename", "OLD=NEW", "Give a field another name; may be given again",
            [&wanted](const std::string& text) { wanted.renamed.push_back(text); });
    addEach(command, "--type", "FIELD",
            "Give a field another type or size, such as 'PRICE N(12,2)'; may be given again",
            [&wanted](const std::string& text) { wanted.typed.push_back(text); });
    const auto kind = [&wanted](const std::string& given) {
        for (const auto& [word, meant] : kKindWords) {
            if (given == word) wanted.kind = meant;
        }
        if (!wanted.kind) {
            throw CLI::ValidationError("--kind " + given,
                                       "one of dbase3, dbase4, foxpro, visual, smt, level7");
        }
    };
    command
        .add_option_function<std::string>("--kind", kind,
                                          "Another kind of table: dbase3, dbase4, foxpro, visual, "
                                          "smt, level7")
        ->type_name("KIND");
    command.add_option("--to-code-page", wanted.codePage, "Convert the texts to another code page")
        ->type_name("NAME");
}

}  // namespace

void addAlter(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "alter", "Change fields, kind or code page of a table", run,
                   "Examples:\n"
                   "  mira alter stock --add 'NOTE C(40)' --after ITEM --drop REORDER\n"
                   "  mira alter stock --type 'PRICE N(12,2)' --rename QTY=STOCK\n"
                   "  mira alter stock --kind visual --to-code-page CP1252 --dry-run");
    command.add_option("TABLE", options.name, "The table")->required();
    addRestructureOptions(command, options.wanted);
    command.add_option("--code-page", options.table.codePage, "Code page of the texts as they are")
        ->type_name("NAME");
    auto* const strict = command.add_flag("--strict", options.strict,
                                          "Change nothing when a value does not fit (default)");
    command.add_flag("--lenient", options.lenient, "Leave such values blank")->excludes(strict);
    addChangeOptions(command, options.change);
}

}  // namespace mira::tool
