#include "input/restructure.h"

#include <algorithm>
#include <cstring>
#include <set>

#include "tables/change/disk.h"
#include "tables/open/find.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr u32 kLengthsPlace = 8, kFlagsPlace = 28, kMarkPlace = 29;
constexpr u32 kDriverPlace = 32, kDriverSize = 32;  // of level 7
constexpr u32 kDescriptor = 32, kOffsetPlace = 12;
constexpr u32 kLevel7Least = 128;
constexpr u32 kBackLink = 263;
constexpr u8 kMemoFlag = 2;
constexpr char kTerminator = 0x0D;
constexpr u32 kNoKind = 0xFFFFFFFF;

/// A field of the new table.
struct Planned {
    FieldPlan field;
    const Column* from = nullptr;
    bool renamed = false, retyped = false;
};

/// What the new table is made from.
struct Plan {
    Table& table;
    TableKind oldKind, kind;
    std::unique_ptr<CodePage> page;  ///< null: it stays
    std::vector<Planned> fields{};
    std::string made{};  ///< the head as a new table of the kind has it

    bool sameKind() const { return kind == oldKind; }
    const CodePage& pageOf() const { return page ? *page : *table.page.page; }
};

// ---------------------------------------------------------------------------------------------
// The fields
// ---------------------------------------------------------------------------------------------

TableKind kindOf(const Table& table, const Restructure& wanted) {
    const u32 kind = GetFlavourKind(table.base.get());
    if (kind != kNoKind) return static_cast<TableKind>(kind);
    if (wanted.kind) return TableKind::DBase3;
    refuse(table.path, ": its version says no kind of table; --kind does");
}

/// The fields as they are. Null flags are laid anew.
void takeFields(Plan& plan) {
    std::vector<const Column*> columns;
    for (const auto* list : {&plan.table.columns, &plan.table.system}) {
        for (const Column& column : *list) {
            const bool flags = column.type == '0' && (plan.table.visual || !plan.sameKind());
            if (!flags) columns.push_back(&column);
        }
    }
    std::sort(columns.begin(), columns.end(),
              [](const Column* a, const Column* b) { return a->field < b->field; });
    for (const Column* column : columns) {
        plan.fields.push_back({planOf(*column), column});
        if ((column->flags & kSystem) != 0) plan.fields.back().field.flags |= kSystem;
    }
}

Planned& fieldNamed(Plan& plan, const std::string& name) {
    const Column& column = columnNamed(plan.table, name);
    for (Planned& planned : plan.fields) {
        if (planned.from == &column) return planned;
    }
    refuse(plan.table.path, ": ", name, " is dropped and changed at once");
}

void changeTypes(Plan& plan, const Restructure& wanted) {
    for (const std::string& text : wanted.typed) {
        for (const FieldPlan& field : parseSchema(text, plan.kind, plan.pageOf(), "--type")) {
            Planned& planned = fieldNamed(plan, field.name);
            const std::string name = planned.field.name;
            planned.field = field;
            planned.field.name = name;
            planned.retyped = true;
        }
    }
}

void rename(Plan& plan, const Restructure& wanted) {
    for (const std::string& text : wanted.renamed) {
        const std::size_t equals = text.find('=');
        if (equals == std::string::npos || equals + 1 == text.size()) {
            refuse("--rename ", text, ": OLD=NEW, such as QTY=STOCK");
        }
        Planned& planned = fieldNamed(plan, text.substr(0, equals));
        planned.field.name = text.substr(equals + 1);
        planned.renamed = true;
        if (isNameShort(planned.field.name, plan.kind, plan.pageOf())) continue;
        refuse("--rename ", text, ": a name has at most ", nameLimit(plan.kind), " bytes");
    }
}

void drop(Plan& plan, const Restructure& wanted) {
    for (const std::string& text : wanted.dropped) {
        for (const std::string& name : splitList(text)) {
            const Column* const column = &columnNamed(plan.table, name);
            std::erase_if(plan.fields, [&](const Planned& p) { return p.from == column; });
        }
    }
}

/// Behind a field by its old or its new name.
std::size_t placeBehind(const Plan& plan, const std::string& name) {
    for (std::size_t i = 0; i < plan.fields.size(); ++i) {
        const Planned& planned = plan.fields[i];
        const bool old = planned.from != nullptr && sameText(planned.from->name, name);
        if (old || sameText(planned.field.name, name)) return i + 1;
    }
    columnNamed(plan.table, name);
    refuse("--after ", name, ": it is dropped");
}

void add(Plan& plan, const Restructure& wanted) {
    for (const Addition& addition : wanted.added) {
        std::size_t place =
            addition.after.empty() ? plan.fields.size() : placeBehind(plan, addition.after);
        for (const FieldPlan& field :
             parseSchema(addition.fields, plan.kind, plan.pageOf(), "--add")) {
            plan.fields.insert(plan.fields.begin() + static_cast<std::ptrdiff_t>(place++),
                               {field, nullptr, true, true});
        }
    }
}

/// The fields of another kind of table; what becomes of them is told.
void changeKind(Plan& plan) {
    std::vector<std::string> told;
    for (Planned& planned : plan.fields) {
        if (planned.retyped) continue;
        const auto other = counterpartOf(planned.field, plan.oldKind, plan.kind);
        if (!other) {
            refuse(plan.table.path, ": ", planned.field.name,
                   ": such a table has no field for type ", planned.field.type,
                   "; --type gives it another, --drop takes it out");
        }
        const std::string before = schemaText({planned.field});
        const std::string after = schemaText({*other});
        if (before != after) {
            told.push_back(before + " becomes " +
                           after.substr(std::min(after.size(), planned.field.name.size() + 1)));
        }
        planned.field = *other;
    }
    if (!told.empty()) note("{}: {}", plan.table.path, joined(told));
}

/// A name with a tail, as much of it as the kind of table takes.
std::string cutName(const Plan& plan, std::string name, const std::string& tail = {}) {
    while (!isNameShort(name + tail, plan.kind, plan.pageOf())) {
        do name.pop_back();
        while (!isUtf8(name));
    }
    return name + tail;
}

/// Names that the kind of table takes, each another one.
void fitNames(Plan& plan) {
    std::set<std::string> taken;
    for (Planned& planned : plan.fields) {
        std::string& name = planned.field.name;
        const std::string whole = name;
        name = cutName(plan, whole);
        const bool cut = name != whole;
        for (int n = 2; cut && taken.contains(foldCase(name)); ++n) {
            name = cutName(plan, whole, textOf('_', n));
        }
        if (cut) note("{}: {} is called {}", plan.table.path, whole, name);
        planned.renamed = planned.renamed || cut;
        if (!taken.insert(foldCase(name)).second) {
            refuse(plan.table.path, ": two fields would be called ", name);
        }
    }
    if (plan.fields.empty()) refuse(plan.table.path, ": no field would be left");
}

// ---------------------------------------------------------------------------------------------
// The head
// ---------------------------------------------------------------------------------------------

std::string readHead(const Table& table, const std::string& path) {
    const Descriptor file = openPlain(path, 0);
    std::string head(kLengthsPlace + 4, '\0');
    if (file && readAt(file.number(), 0, head.data(), head.size())) {
        head.resize(loadLe<u16>(head.data() + kLengthsPlace));
        if (head.size() > kDescriptor && readAt(file.number(), 0, head.data(), head.size())) {
            return head;
        }
    }
    refuse(table.path, ": the new files cannot be read");
}

/// The head of an empty table of these fields.
std::string makeHead(const Plan& plan, const Swap& swap) {
    std::vector<FieldPlan> fields;
    for (const Planned& planned : plan.fields) fields.push_back(planned.field);
    makeTable({plan.table.path, swap.newTable()}, fields, plan.kind, plan.pageOf(), 0);
    std::string head = readHead(plan.table, swap.newTable());
    removeFile(swap.newTable());
    for (const std::string& memos : swap.names().newMemos()) removeFile(memos);
    return head;
}

bool hasMemos(const Plan& plan, bool old) {
    if (old) return plan.table.base->FirstMemoField != -1;
    return std::any_of(plan.fields.begin(), plan.fields.end(), [&](const Planned& planned) {
        const bool kept = planned.from != nullptr && !planned.retyped;
        return kept ? holdsReference(*planned.from) : isMemoType(planned.field.type, plan.kind);
    });
}

/// Where a descriptor says what.
struct Places {
    u32 size, name, type, length, decimals;
};
constexpr Places kPlaces = {32, 11, 11, 16, 17};
constexpr Places kPlaces7 = {48, 32, 32, 34, 35};
constexpr Places kForeignPlaces7 = {48, 32, 32, 33, 34};  // of other makers of level-7 tables

std::string descriptorIn(const Table& table, const Column& column) {
    const DbfBase& base = *table.base;
    std::string bytes(base.DescriptorSize, '\0');
    const auto size = static_cast<u32>(bytes.size());
    readFileAt(base.TableFile, base.HeaderSize + size * static_cast<u32>(column.field),
               bytes.data(), size);
    return bytes;
}

const Places& placesOf(const Table& table) {
    if (table.base->Level7 == 0) return kPlaces;
    for (const Column& column : table.columns) {
        const std::string bytes = descriptorIn(table, column);
        if (static_cast<u8>(bytes[kPlaces7.length]) != column.length) return kForeignPlaces7;
    }
    return kPlaces7;
}

/// Bytes of a field in the record, by its descriptor.
u32 lengthIn(std::string_view descriptor, const Places& at) {
    const auto low = static_cast<u8>(descriptor[at.length]);
    const bool wide = at.size == kPlaces.size && descriptor[at.type] == 'C';
    return wide ? low + 256u * static_cast<u8>(descriptor[at.decimals]) : low;
}

/// The descriptor of the old table with what changes about it.
std::string keptDescriptor(const Plan& plan, const Planned& planned, std::string_view made,
                           const Places& at) {
    std::string kept = descriptorIn(plan.table, *planned.from);
    if (planned.renamed || plan.page) kept.replace(0, at.name, made.substr(0, at.name));
    return kept;
}

/// Some write the offset in the record into a descriptor, others what was in memory.
void setOffset(const Plan& plan, const Planned* planned, u32 offset, std::string& descriptor) {
    const bool told = planned != nullptr && planned->from != nullptr &&
                      loadLe<u16>(descriptor.data() + kOffsetPlace) == planned->from->offset;
    if (plan.table.base->Level7 != 0 || (!plan.table.visual && !told)) return;
    const auto bytes = bytesLe(offset);
    std::copy(bytes.begin(), bytes.end(), descriptor.begin() + kOffsetPlace);
}

/// The descriptors: of fields that stay those of the old table.
std::string descriptorsOf(const Plan& plan, u32* recordLength) {
    const Places& at = placesOf(plan.table);
    const u32 start = plan.table.base->HeaderSize;
    std::string all;
    *recordLength = 1;
    for (std::size_t i = 0; plan.made[start + i * at.size] != kTerminator; ++i) {
        std::string one = plan.made.substr(start + i * at.size, at.size);
        const Planned* const planned = i < plan.fields.size() ? &plan.fields[i] : nullptr;
        if (planned != nullptr && planned->from != nullptr && !planned->retyped) {
            one = keptDescriptor(plan, *planned, one, at);
        } else if (&at == &kForeignPlaces7) {
            one.erase(at.length, 1).push_back('\0');
        }
        setOffset(plan, planned, *recordLength, one);
        *recordLength += lengthIn(one, at);
        all += one;
    }
    return all;
}

/// The head of a table that stays of its kind: what is not changed stays byte for byte.
std::string headOf(const Plan& plan) {
    const DbfBase& base = *plan.table.base;
    std::string head(base.HeaderSize, '\0');
    readFileAt(base.TableFile, 0, head.data(), base.HeaderSize);
    const bool memos = hasMemos(plan, false);
    u8 version = base.Header.Version;
    if (memos != hasMemos(plan, true)) version = static_cast<u8>(plan.made[0]);
    if (plan.table.visual) version = std::max(version, static_cast<u8>(plan.made[0]));
    u32 recordLength = 0;
    head += descriptorsOf(plan, &recordLength) + kTerminator;
    if (plan.table.visual) {
        const u32 size = base.Header.HeaderLength;
        std::string link(kBackLink, '\0');
        const u32 end = base.HeaderSize + base.DescriptorSize * base.FieldCount;
        if (end + 1 + kBackLink <= size) {
            readFileAt(base.TableFile, size - kBackLink, link.data(), kBackLink);
        }
        head += link;
        head[kFlagsPlace] =
            static_cast<char>((head[kFlagsPlace] & ~kMemoFlag) | (memos ? kMemoFlag : 0));
    }
    if (base.Level7 != 0) head.resize(std::max<std::size_t>(head.size(), kLevel7Least));
    if (head.size() > 0xFFFF || recordLength > 0xFFFF) {
        refuse(plan.table.path, ": the fields are more than a table holds");
    }
    head[0] = static_cast<char>(version);
    std::memset(&head[4], 0, 4);
    const auto length = bytesLe(static_cast<u16>(head.size()));
    const auto record = bytesLe(static_cast<u16>(recordLength));
    std::copy(length.begin(), length.end(), head.begin() + kLengthsPlace);
    std::copy(record.begin(), record.end(), head.begin() + kLengthsPlace + 2);
    return head;
}

void setPage(const Plan& plan, std::string& head) {
    if (!plan.page) return;
    head[kMarkPlace] = static_cast<char>(markOf(*plan.page));
    if (plan.kind == TableKind::Level7) std::memset(&head[kDriverPlace], 0, kDriverSize);
    if (markOf(*plan.page) == 0) {
        note("no mark in a table says {}; whoever reads it must be told", pageName(*plan.page));
    }
}

std::unique_ptr<CodePage> newPage(const Table& table, const Restructure& wanted) {
    if (wanted.codePage.empty()) return nullptr;
    auto page = openPage(wanted.codePage);
    if (!page) refuse("--to-code-page ", wanted.codePage, ": no such code page");
    const std::string other = beside(table.path, ".cpg");
    if (!other.empty()) {
        refuse(other,
               ": says which page the texts are in, and would gainsay the new mark; remove "
               "it, and give --code-page ",
               pageName(*table.page.page));
    }
    return page;
}

// ---------------------------------------------------------------------------------------------
// The values
// ---------------------------------------------------------------------------------------------

bool isText(const Column& column) {
    return !column.untranslated &&
           (column.kind == Kind::Text || column.kind == Kind::Varchar || column.kind == Kind::Memo);
}

/// Whether the bytes of a field stay as they are.
bool staysSame(const Plan& plan, const Planned& planned) {
    const Column& from = *planned.from;
    const FieldPlan before = planOf(from);
    const FieldPlan& after = planned.field;
    if (plan.page && isText(from)) return false;
    if (planned.retyped || !plan.sameKind()) {
        // Elsewhere the same letter may mean other bytes.
        const bool characters = std::strchr("CNFDL", from.type) != nullptr;
        const bool same = before.type == after.type && before.length == after.length &&
                          before.decimals == after.decimals && before.flags == after.flags;
        return same && (characters || plan.sameKind());
    }
    return true;
}

}  // namespace

Alteration planAlteration(Table& table, const Restructure& wanted, const Swap& swap) {
    const TableKind kind = kindOf(table, wanted);
    Plan plan{table, kind, wanted.kind.value_or(kind), newPage(table, wanted)};
    takeFields(plan);
    drop(plan, wanted);
    changeTypes(plan, wanted);
    rename(plan, wanted);
    if (!plan.sameKind()) changeKind(plan);
    add(plan, wanted);
    fitNames(plan);
    plan.made = makeHead(plan, swap);
    Alteration alteration;
    alteration.head = plan.sameKind() ? headOf(plan) : plan.made;
    setPage(plan, alteration.head);
    for (const Planned& planned : plan.fields) {
        alteration.sources.push_back(
            planned.from == nullptr ? FieldSource{}
                                    : FieldSource{planned.from->field, staysSame(plan, planned)});
    }
    alteration.codePage = pageName(plan.pageOf());
    if (plan.sameKind() && hasMemos(plan, true)) alteration.memoUnit = memoUnit(table);
    return alteration;
}

}  // namespace mira::tool
