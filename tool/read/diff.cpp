// mira diff: which records two tables differ in, field by field.
#include <algorithm>
#include <optional>
#include <utility>

#include "command/command.h"
#include "rows/output.h"
#include "rows/writer.h"
#include "select/selection.h"
#include "tables/page/json.h"
#include "tables/page/refusal.h"
#include "tables/store/decimal.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

struct Options {
    std::string names[2];
    std::vector<std::string> keys;
    bool json = false;
    SelectOptions select;
};

enum Side : std::size_t { A, B };

/// A column that both tables have, by name.
struct Shared {
    Column columns[2];
    bool sameBytes = false;  ///< the same bytes are the same value
    bool numbers = false;    ///< both are of numbers, which are compared as such
    bool texts = false;      ///< both are of texts, of which an empty one is no null
};

/// The two tables, and where each of them is.
struct Pair {
    std::unique_ptr<Selection> sides[2];
    std::vector<Shared> shared{};
    std::vector<std::size_t> keys{};  ///< among the shared columns
    bool structure = false;           ///< columns that only one of them has
    u64 added = 0, removed = 0, changed = 0, same = 0;
};

// --------------------------------------------------------------------------------------------
// Columns
// --------------------------------------------------------------------------------------------

/// Whether equal bytes in the record are equal values, whatever else the record holds.
bool haveSameBytes(const Pair& pair, const Column& a, const Column& b) {
    const bool memo = a.kind == Kind::Memo || a.kind == Kind::Blob;
    const bool bits = a.nullBit != kNoBit || b.nullBit != kNoBit || a.lengthBit != kNoBit ||
                      b.lengthBit != kNoBit;
    // Level-7 tables of two makers read the same bytes as other numbers.
    const bool makers = a.kind == Kind::Integer && pair.sides[A]->table->base->Level7 != 0;
    return !memo && !bits && !makers && a.field != kNoField && a.kind != Kind::Calculated &&
           a.kind == b.kind && a.type == b.type && a.length == b.length &&
           a.untranslated == b.untranslated && a.foreignMoment == b.foreignMoment &&
           pair.sides[A]->table->base->Level7 == pair.sides[B]->table->base->Level7 &&
           pageName(*pair.sides[A]->table->page.page) == pageName(*pair.sides[B]->table->page.page);
}

bool isOfTexts(const Column& column) {
    const Kind kind = heldKind(column);
    return kind == Kind::Text || kind == Kind::Varchar || kind == Kind::Memo;
}

const Column* columnIn(const Selection& selection, const std::string& name) {
    const auto found = std::find_if(selection.columns.begin(), selection.columns.end(),
                                    [&](const Column& c) { return sameText(c.name, name); });
    return found == selection.columns.end() ? nullptr : &*found;
}

/// Tells the columns of one side that the other has not.
bool tellLonely(const Selection& of, const Selection& other) {
    std::vector<std::string> lonely;
    for (const Column& column : of.columns) {
        if (columnIn(other, column.name) == nullptr) lonely.push_back(column.name);
    }
    if (lonely.empty()) return false;
    note("{}: only it has {}", of.table->path, joined(lonely));
    return true;
}

void matchColumns(Pair& pair, const std::vector<std::string>& keys) {
    const Selection& a = *pair.sides[A];
    const Selection& b = *pair.sides[B];
    pair.structure = tellLonely(a, b);
    pair.structure = tellLonely(b, a) || pair.structure;
    for (const Column& column : a.columns) {
        const Column* const other = columnIn(b, column.name);
        if (other == nullptr) continue;
        pair.shared.push_back({{column, *other},
                               haveSameBytes(pair, column, *other),
                               isOfNumbers(column) && isOfNumbers(*other),
                               isOfTexts(column) && isOfTexts(*other)});
    }
    if (pair.shared.empty()) refuse(a.table->path, ": no field is one of ", b.table->path);
    for (const std::string& key : keys) {
        const Column& column = columnNamed(*a.table, key);
        const auto found = std::find_if(
            pair.shared.begin(), pair.shared.end(),
            [&](const Shared& shared) { return shared.columns[A].name == column.name; });
        if (found == pair.shared.end()) refuse(b.table->path, ": --key ", key, ": no such field");
        pair.keys.push_back(static_cast<std::size_t>(found - pair.shared.begin()));
    }
}

// --------------------------------------------------------------------------------------------
// Values
// --------------------------------------------------------------------------------------------

bool isNothing(const Value& value) {
    return value.kind == ValueKind::Null || value.kind == ValueKind::Blank;
}

/// Digits in a form that equal numbers share.
std::string plainNumber(std::string_view text) {
    const std::string_view whole = text.substr(text.starts_with('-') ? 1 : 0);
    if (!whole.empty() && whole.front() != '0' && whole.back() != '0' && areDigits(whole)) {
        return std::string(text) + "e0";
    }
    std::optional<Decimal> number = readDecimal(text);
    if (!number) return std::string(text);
    std::string digits = number->digits;
    while (digits.size() > 1 && digits.back() == '0') {
        digits.pop_back();
        --number->scale;
    }
    if (digits == "0") return digits;
    return textOf(number->negative ? "-" : "", digits, 'e', -number->scale);
}

/// The value as a text that equal values share, whatever the type of their fields.
void putComparable(std::string& out, const Shared& shared, const Value& value) {
    const bool empty = value.kind == ValueKind::Text && value.text.empty();
    if (value.kind == ValueKind::Null || (empty && !shared.texts)) return;
    if (value.kind == ValueKind::Blank) {
        // No memo, and one without a letter, are both an empty text.
        if (shared.texts) out += 't';
        return;
    }
    const std::size_t start = out.size();
    out += value.kind == ValueKind::Bytes ? 'b' : 't';
    putPlain(out, value);
    if (!shared.numbers) return;
    const std::string number = plainNumber(std::string_view(out).substr(start + 1));
    out.replace(start + 1, std::string::npos, number);
}

/// Reads the value of a side's current record; what is wrong with it is counted.
Value valueOf(Pair& pair, Side side, const Shared& shared) {
    Value value;
    readCell(*pair.sides[side], shared.columns[side], value);
    return value;
}

bool haveEqualValues(Pair& pair, const Shared& shared, std::string (&texts)[2]) {
    const auto bytes = [&](Side side) {
        return storedBytes(*pair.sides[side]->table, shared.columns[side]);
    };
    if (shared.sameBytes && bytes(A) == bytes(B)) return true;
    for (const Side side : {A, B}) {
        texts[side].clear();
        putComparable(texts[side], shared, valueOf(pair, side, shared));
    }
    return texts[A] == texts[B];
}

// --------------------------------------------------------------------------------------------
// What differs, put out
// --------------------------------------------------------------------------------------------

struct Report {
    Output& out;
    const bool json;
    std::string line{};
};

void putTextValue(Report& report, const Value& value) {
    if (value.kind == ValueKind::Null || value.kind == ValueKind::Blank) {
        report.line += value.kind == ValueKind::Null ? "NULL" : "blank";
        return;
    }
    std::string text;
    putPlain(text, value);
    const bool quoted = value.kind == ValueKind::Text;
    report.line += quoted ? textOf('"', escaped(text), '"') : escaped(text);
}

void putValue(Report& report, const Value& value) {
    if (!report.json) return putTextValue(report, value);
    putJsonValue(report.line, value, report.out.isTerminal());
}

void putName(Report& report, const std::string& name) {
    if (!report.json) {
        report.line += escaped(name) + ' ';
        return;
    }
    putJsonString(report.line, name, report.out.isTerminal());
    report.line += ':';
}

/// "changed record 5: " or "changed CODE "A": ", from the side that has the record.
void beginLine(Report& report, Pair& pair, const char* change, Side side) {
    std::string& line = report.line;
    line = report.json ? textOf("{\"change\":\"", change, "\",") : textOf(change, ' ');
    if (pair.keys.empty()) {
        line += report.json ? "\"record\":" : "record ";
        line += std::to_string(u64{pair.sides[side]->cells.record} + 1);
    } else {
        if (report.json) line += "\"key\":{";
        for (std::size_t i = 0; i < pair.keys.size(); ++i) {
            const Shared& key = pair.shared[pair.keys[i]];
            if (i != 0) line += report.json ? "," : ", ";
            putName(report, key.columns[A].name);
            putValue(report, valueOf(pair, side, key));
        }
        if (report.json) line += '}';
    }
    line += report.json ? ",\"fields\":{" : ": ";
}

void endLine(Report& report) {
    report.out.put(report.line);
    report.out.put(report.json ? "}}\n" : "\n");
}

/// A record that one side has alone.
void putLonely(Report& report, Pair& pair, const char* change, Side side) {
    beginLine(report, pair, change, side);
    bool first = true;
    for (const Shared& shared : pair.shared) {
        const Value value = valueOf(pair, side, shared);
        if (!report.json && isNothing(value)) continue;
        if (!std::exchange(first, false)) report.line += report.json ? "," : ", ";
        putName(report, shared.columns[A].name);
        if (report.json) report.line += side == A ? "{\"old\":" : "{\"new\":";
        putValue(report, value);
        if (report.json) report.line += '}';
    }
    endLine(report);
}

void putField(Report& report, Pair& pair, const Shared& shared) {
    putName(report, shared.columns[A].name);
    if (report.json) report.line += "{\"old\":";
    putValue(report, valueOf(pair, A, shared));
    report.line += report.json ? ",\"new\":" : " -> ";
    putValue(report, valueOf(pair, B, shared));
    if (report.json) report.line += '}';
}

/// Compares the current records of both.
void compare(Report& report, Pair& pair) {
    bool differs = false;
    std::string texts[2];
    for (const Shared& shared : pair.shared) {
        if (haveEqualValues(pair, shared, texts)) continue;
        if (std::exchange(differs, true)) {
            report.line += report.json ? "," : ", ";
        } else {
            beginLine(report, pair, "changed", A);
        }
        putField(report, pair, shared);
    }
    ++(differs ? pair.changed : pair.same);
    if (differs) endLine(report);
}

void remove(Report& report, Pair& pair) {
    ++pair.removed;
    putLonely(report, pair, "removed", A);
}

void add(Report& report, Pair& pair) {
    ++pair.added;
    putLonely(report, pair, "added", B);
}

// --------------------------------------------------------------------------------------------
// Which records belong together
// --------------------------------------------------------------------------------------------

void compareByNumber(Report& report, Pair& pair) {
    Selection& a = *pair.sides[A];
    Selection& b = *pair.sides[B];
    bool more[2] = {nextRow(a), nextRow(b)};
    while (more[A] || more[B]) {
        const bool first = more[A] && (!more[B] || a.cells.record <= b.cells.record);
        const bool second = more[B] && (!more[A] || b.cells.record <= a.cells.record);
        if (first && second) {
            compare(report, pair);
        } else {
            first ? remove(report, pair) : add(report, pair);
        }
        if (first) more[A] = nextRow(a);
        if (second) more[B] = nextRow(b);
    }
}

/// The records of B by the hashes of their keys.
struct Keys {
    struct Keyed {
        u64 hash;
        u32 record;
        bool taken;
    };
    std::vector<Keyed> records{};  ///< in their order
    std::vector<u32> byHash{};     ///< places among them; made when they are first needed
    std::size_t next = 0;          ///< where the record that is looked for most likely is
};

std::string keyOf(Pair& pair, Side side) {
    std::string key;
    for (const std::size_t i : pair.keys) {
        std::string part;
        putComparable(part, pair.shared[i], valueOf(pair, side, pair.shared[i]));
        key += textOf(part.size(), ':', part);
    }
    return key;
}

u64 hashOf(const std::string& key) {
    u64 hash = 0xCBF29CE484222325;
    for (const char c : key) hash = (hash ^ static_cast<u8>(c)) * 0x100000001B3;
    return hash;
}

void goTo(Selection& selection, u32 record) {
    readRecord(*selection.table, record);
    selection.cells.record = record;
}

/// Goes to a record of B; whether it has the key of A's current record.
bool hasKey(Pair& pair, u32 record, const std::string& key) {
    goTo(*pair.sides[B], record);
    const bool same = std::all_of(pair.keys.begin(), pair.keys.end(), [&](std::size_t i) {
        const Shared& shared = pair.shared[i];
        return shared.sameBytes && storedBytes(*pair.sides[A]->table, shared.columns[A]) ==
                                       storedBytes(*pair.sides[B]->table, shared.columns[B]);
    });
    return same || keyOf(pair, B) == key;
}

void sortByHash(Keys& keys) {
    for (u32 i = 0; i < keys.records.size(); ++i) keys.byHash.push_back(i);
    std::sort(keys.byHash.begin(), keys.byHash.end(), [&](u32 a, u32 b) {
        const u64 hashes[] = {keys.records[a].hash, keys.records[b].hash};
        return hashes[0] != hashes[1] ? hashes[0] < hashes[1] : a < b;
    });
}

/// Goes to a record of B that has the key and is not taken, and takes it; false when there is none.
bool takeKey(Pair& pair, Keys& keys, const std::string& key) {
    const u64 hash = hashOf(key);
    const auto take = [&](std::size_t place) {
        Keys::Keyed& keyed = keys.records[place];
        if (keyed.taken || keyed.hash != hash || !hasKey(pair, keyed.record, key)) return false;
        keys.next = place + 1;
        return keyed.taken = true;
    };
    if (keys.next < keys.records.size() && take(keys.next)) return true;
    if (keys.byHash.empty()) sortByHash(keys);
    auto at = std::lower_bound(keys.byHash.begin(), keys.byHash.end(), hash,
                               [&](u32 place, u64 h) { return keys.records[place].hash < h; });
    for (; at != keys.byHash.end() && keys.records[*at].hash == hash; ++at) {
        if (take(*at)) return true;
    }
    return false;
}

void compareByKey(Report& report, Pair& pair) {
    Selection& a = *pair.sides[A];
    Selection& b = *pair.sides[B];
    Keys keys;
    while (nextRow(b)) keys.records.push_back({hashOf(keyOf(pair, B)), b.cells.record, false});
    ClearAllFilter(b.table->base.get());  // records go by their number from here on
    while (nextRow(a)) {
        takeKey(pair, keys, keyOf(pair, A)) ? compare(report, pair) : remove(report, pair);
    }
    for (const Keys::Keyed& keyed : keys.records) {
        if (keyed.taken) continue;
        leaveIfStopped();
        goTo(b, keyed.record);
        add(report, pair);
    }
}

Status run(const Options& options) {
    Pair pair;
    for (const Side side : {A, B}) {
        pair.sides[side] = selectFrom(options.names[side], options.select);
        requireColumns(*pair.sides[side]);
    }
    matchColumns(pair, options.keys);
    Output out(targetOf("-"), false);
    Report report{out, options.json};
    pair.keys.empty() ? compareByNumber(report, pair) : compareByKey(report, pair);
    out.finish();
    const bool faulty = tellFaults(*pair.sides[A]);
    const bool differs = pair.added + pair.removed + pair.changed != 0 || pair.structure;
    note("{}: {} changed, {} only in {}, {} only in {}, {} the same",
         pair.sides[A]->table->path + ", " + pair.sides[B]->table->path,
         counted(pair.changed, "record"), pair.removed, "the first", pair.added, "the second",
         pair.same);
    return tellFaults(*pair.sides[B]) || faulty || differs ? kFound : kDone;
}

}  // namespace

void addDiff(CLI::App& program, Job& job) {
    const auto [command, options] =
        newCommand(program, job, "diff", "Which records two tables differ in", run,
                   "Examples:\n"
                   "  mira diff old/stock stock --key CODE\n"
                   "  mira diff stock.bak stock --json\n"
                   "  mira diff a b --key YEAR,NUMBER -x COUNTED");
    command.add_option("A", options.names[A], "The first table, the old one")->required();
    command.add_option("B", options.names[B], "The second table, the new one")->required();
    Options& own = options;
    command
        .add_option_function<std::string>(
            "--key", [&own](const std::string& given) { own.keys = splitList(given); },
            "Records with the same values here belong together; without it, the same number")
        ->type_name("A,B,...");
    command.add_flag("--json", options.json, "A JSON object per record, a line each");
    addCompareOptions(command, options.select);
}

}  // namespace mira::tool
