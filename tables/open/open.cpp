// Bytes that the library leaves to its callers:
//
//   header 28       bit 0: a structural index file belongs to the table
#include "tables/open/open.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <new>
#include <set>

#include "tables/open/container.h"
#include "tables/open/find.h"
#include "tables/page/bytes.h"
#include "tables/page/pagenames.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"
#include "tables/value/memo.h"
#include "tables/value/storage.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr u32 kHeader = 32;
constexpr u32 kVisualKind = 3;    // of the library
constexpr u32 kLibraryName = 10;  // characters that a name has in an expression
constexpr char kTerminator = 0x0D;
constexpr u64 kReachable = 0x7FFFFFFF;  // of a table file

constexpr u32 kVersionRepaired = 1;
constexpr u32 kTypesUnknown = 2;
constexpr u32 kCountRepaired = 4;

std::string whyNotOpened(const std::string& path) {
    const File file(std::fopen(readable(path).path.c_str(), "rb"));
    if (!file) return std::strerror(errno);
    unsigned char start[kHeader] = {};
    const std::size_t got = std::fread(start, 1, sizeof start, file.get());
    if (std::ferror(file.get()) != 0) return "cannot be read";
    if (got == 0) return "the file is empty";
    if (got < sizeof start) return "no table: shorter than a table's header";
    if (start[0] == 0x02) return "tables of dBase II are not supported";
    return "no table, or its header is damaged; `mira repair` saves what can be saved";
}

/// For the library: names in other letter case by a Listing.
u32 findName(const char* path, char* name, void* listing) {
    u32 count = 0;
    try {
        const std::string wanted = fs::path(path).filename().string();
        for (const std::string& found : static_cast<Listing*>(listing)->sameNames(path)) {
            const std::string other = fs::path(found).filename().string();
            if (upperAscii(other) != upperAscii(wanted)) continue;
            other.copy(name, wanted.size());
            ++count;
        }
    } catch (const std::exception&) {
        return 0;  // as when the folder cannot be read
    }
    return std::min<u32>(count, 2);
}

Base openBase(const std::string& path, bool writable, Listing* listing) {
    errno = 0;
    Base base(OpenBaseListed(path.c_str(), writable ? 0 : 1,
                             listing != nullptr ? findName : nullptr, listing));
    if (!base && errno == ENOMEM) throw std::bad_alloc();
    if (!base) refuse(path, ": ", whyNotOpened(path));
    return base;
}

char* allocatedName(const std::string& name) {
    char* const text = strdup(name.c_str());
    if (text == nullptr) throw std::bad_alloc();
    return text;
}

/// By the unpacked memo file, or by what it would be called.
void nameMemos(DbfBase& base, const Table& table) {
    if (table.memoPath.empty()) return;
    const bool unpacked = table.unpacked.size() > 1;
    std::free(std::exchange(base.MemoFileName,
                            allocatedName(unpacked ? table.unpacked[1]->path() : table.memoPath)));
}

/// The memo file of a table in an archive: by the extensions that it may have, in any letter case;
/// where it is missing, by the usual one.
std::string memosInArchive(const std::string& path, const char* usual, Listing* listing) {
    std::string own = fs::path(path).extension().string();
    if (own.size() == 4 && (own.back() == 'x' || own.back() == 'X')) {
        own.back() = own.back() == 'X' ? 'T' : 't';  // forms and reports: .scx, .sct
        std::string found = beside(path, own, listing);
        if (!found.empty()) return found;
    }
    const std::string found = inAnyCase(usual, listing);
    return found.empty() ? usual : found;
}

/// The handle of a table in an archive bears its path there, but the memo file's name is one by
/// which the library can open it.
Base openUnpacked(Table& table, Listing* listing) {
    const std::string& path = table.path;
    table.unpacked = {unpack(path)};
    Base base(OpenBaseListed(table.unpacked[0]->path().c_str(), 1, nullptr, nullptr));
    if (!base) refuse(path, ": ", whyNotOpened(path));
    std::free(std::exchange(base->FileName, allocatedName(path)));
    const u32 kind = GetMemoType(base.get());
    const std::unique_ptr<char, FreeCloser> usual(GetMemoName(path.c_str(), kind));
    if (!usual) throw std::bad_alloc();
    if (base->FirstMemoField == -1) return base;
    table.memoPath = memosInArchive(path, usual.get(), listing);
    if (!inAnyCase(table.memoPath, listing).empty()) {
        try {
            table.unpacked.push_back(unpack(table.memoPath));
        } catch (const Refusal& refusal) {
            table.notes.emplace_back(refusal.what());
        }
    }
    nameMemos(*base, table);
    return base;
}

/// Another handle of a table.
Base openSame(const Table& table, bool writable) {
    if (table.unpacked.empty()) return openBase(table.path, writable, nullptr);
    Base base = openBase(table.unpacked[0]->path(), false, nullptr);
    std::free(std::exchange(base->FileName, allocatedName(table.path)));
    nameMemos(*base, table);
    return base;
}

/// What the version byte says, as the library repaired it.
void readVersion(Table& table) {
    DbfBase* const base = table.base.get();
    table.memoFormat = MemoFormat{GetMemoKind(base)};
    table.memos = GetMemoLayout(GetMemoKind(base));
    table.flavour = GetFlavourName(base);
    table.visual = GetFlavourKind(base) == kVisualKind;
}

/// What the file says before the library's repairs.
void readStoredHeader(Table& table) {
    u8 header[kHeader] = {};
    std::FILE* const file = table.base->TableFile;
    readFileAt(file, 0, header, sizeof header);
    table.storedVersion = header[0];
    table.storedCount = loadLe<u32>(header + 4);
    table.storedLength = loadLe<u16>(header + 10);
    table.tableFlags = header[28];
    struct stat info {};
    table.fileSize = fstat(fileno(file), &info) == 0 ? static_cast<u64>(info.st_size) : 0;
}

/// The first record from one on whose first byte no record has; end when there is none.
u32 firstStray(const DbfBase& base, u32 first, u32 end) {
    constexpr u32 kChunk = 1 << 16;
    const u32 length = base.Header.RecordLength;
    const u32 most = std::max<u32>(kChunk / length, 1);
    std::string chunk(std::size_t{most} * length, '\0');
    for (u32 at = first; at < end; at += most) {
        const u64 place = Calc64(length, at, base.Header.HeaderLength);
        const u32 count = std::min(most, end - at);
        if (place > kReachable || readFileAt(base.TableFile, static_cast<u32>(place), chunk.data(),
                                             count * length) != count * length) {
            return end;
        }
        for (u32 i = 0; i < count; ++i) {
            const char mark = chunk[std::size_t{i} * length];
            if (mark != ' ' && mark != '*') return at + i;
        }
    }
    return end;
}

/// Behind the records that the header counts there may be others, but where the first byte of one
/// is neither blank nor "*" none follow. While a pack is unfinished, its log goes by all of them.
void leaveOutStray(Table& table) {
    DbfBase& base = *table.base;
    const u32 held = base.Header.RecordCount;
    table.heldRecords = held;
    table.strayBytes = 0;
    if (table.storedCount >= held || base.Header.RecordLength == 0) return;
    const u32 first = firstStray(base, table.storedCount, held);
    if (first == held) return;
    if (base.FirstMemoField != -1 && IsPackUnfinished(&base) == 1) return;
    base.Header.RecordCount = first;
    const u64 end = Calc64(base.Header.RecordLength, first, base.Header.HeaderLength);
    table.strayBytes = SetFilePointer(base.TableFile, 0, nullptr, SEEK_END) - end;
}

void readFlags(const Table& table, Column& column) {
    column.flags = static_cast<u8>(GetFieldFlags(table.base.get(), column.field));
    column.untranslated = (column.flags & kBinary) != 0 &&
                          (column.type == 'C' || column.type == 'V' || column.type == 'M');
}

Column columnOf(const Table& table, int field) {
    DbfBase* const base = table.base.get();
    Column column;
    column.field = field;
    column.type = base->Fields[field].Type;
    column.offset = base->Fields[field].Offset;
    column.length = GetLenField(base, field);
    column.decimals = column.type == 'C' ? u8{0} : base->Fields[field].Decimals;
    toUtf8(*table.page.page, base->Fields[field].Name, column.name);
    while (!column.name.empty() && column.name.back() == ' ') column.name.pop_back();
    if (table.visual) readFlags(table, column);
    column.foreignMoment = column.type == '@' && IsOtherLevel7(base) != 0;
    column.stored = GetFieldClass(base, field);
    column.kind = kindOf(column.stored, column.type);
    if (table.options.raw && isOfDigits(column, column.kind)) column.kind = Kind::Text;
    column.exactText = table.options.exact && mayBeRounded(column);
    return column;
}

bool isHidden(const Column& column) {
    return column.stored == FieldClass::System || (column.flags & kSystem) != 0;
}

/// Hands out the bits of the null flags in field order: a length bit to V and Q, then a null bit to
/// what may be null. Bits past the end of the flags are none.
void assignNullBits(Table& table, std::vector<Column>& all) {
    const auto flags = std::find_if(all.begin(), all.end(),
                                    [](const Column& c) { return c.stored == FieldClass::System; });
    if (!table.visual || flags == all.end()) return;
    table.nullOffset = flags->offset;
    table.nullLength = flags->length;
    const auto limit = static_cast<i32>(8 * table.nullLength);
    i32 next = 0;
    const auto take = [&] { return next < limit ? next++ : kNoBit; };
    for (Column& column : all) {
        if (column.type == 'V' || column.type == 'Q') column.lengthBit = take();
        if ((column.flags & kNullable) != 0) column.nullBit = take();
    }
}

/// Makes every name differ from those before it, letter case aside.
void makeUnique(std::vector<Column>& columns) {
    std::set<std::string> taken;
    for (Column& column : columns) {
        if (column.name.empty()) column.name = textOf("field_", column.field + 1);
        column.name = freeName(column.name, [&](const std::string& name) {
            return taken.insert(foldCase(name)).second;
        });
    }
}

void takeLongNames(Table& table, Listing* listing) {
    const std::vector<std::string> names = longNamesOf(table, listing);
    for (std::size_t i = 0; i < std::min(names.size(), table.columns.size()); ++i) {
        if (!names[i].empty()) table.columns[i].name = names[i];
    }
    if (names.size() != table.columns.size()) {
        table.notes.push_back(textOf("the database container names ", names.size(),
                                     " fields, the table has ", table.columns.size()));
    }
}

/// Fields whose name an expression cannot hold, or which has changed, get one that it can.
void nameForLibrary(Table& table) {
    for (const Column& column : table.columns) {
        const char* const name = GetFieldName(table.base.get(), column.field);
        std::string shown;
        toUtf8(*table.page.page, name, shown);
        const std::size_t length = std::strlen(name);
        const bool plain = shown == column.name && length <= kLibraryName &&
                           std::all_of(name, name + length, isWordByte);
        if (plain) continue;
        std::string other = textOf("_F", column.field + 1);
        while (GetFieldNum(table.base.get(), other.c_str()) < table.base->FieldCount) {
            other.insert(0, 1, '_');
        }
        SetFieldName(table.base.get(), column.field, other.c_str());
    }
}

void readNamedAsText(Table& table) {
    for (const std::string& name : table.options.asText) {
        const auto index = &columnNamed(table, name) - table.columns.data();
        readAsText(table.columns[static_cast<std::size_t>(index)]);
    }
}

void noteUnknownTypes(Table& table) {
    for (const Column& column : table.columns) {
        if (ValidField(column.type) != 0 || column.kind != Kind::Bytes) continue;
        table.notes.push_back(textOf("field ", column.name, ": type \"", column.type,
                                     "\" is unknown, its bytes are shown as stored"));
    }
}

bool sameStructure(const DbfBase& a, const DbfBase& b) {
    const auto same = [](const DbfField& x, const DbfField& y) {
        return x.Type == y.Type && x.Offset == y.Offset && x.Length == y.Length &&
               x.Decimals == y.Decimals;
    };
    return a.FieldCount == b.FieldCount && a.Header.RecordLength == b.Header.RecordLength &&
           std::equal(a.Fields, a.Fields + a.FieldCount, b.Fields, same);
}

[[noreturn]] void refusePage(const Table& table) {
    const PageChoice& page = table.page;
    const bool asked = !table.options.codePage.empty();
    if (asked && markOfPage(pageOfSpelling(page.missing)) == 0) {
        throw UnknownPage(textOf(table.path, ": no such code page: ", page.missing));
    }
    throw UnknownPage(textOf(table.path, ": ", asked ? "code page " : "its code page ",
                             page.missing, asked ? "" : textOf(" (", page.from, ")"),
                             " is not among those of this system's iconv; install all of them "
                             "(libc-gconv-modules-extra), or name another code page"));
}

}  // namespace

std::unique_ptr<Table> openTable(const std::string& name, const TableOptions& options,
                                 Listing* listing) {
    Listing own;
    if (listing == nullptr) listing = &own;
    auto table = std::make_unique<Table>();
    table->path = findTable(name);
    table->options = options;
    if (options.writable) refuseArchive(table->path);
    table->base = isInArchive(table->path) ? openUnpacked(*table, listing)
                                           : openBase(table->path, options.writable, listing);
    DbfBase* const base = table->base.get();
    readStoredHeader(*table);
    readVersion(*table);
    leaveOutStray(*table);
    table->page = choosePage(base, options.codePage, listing);
    if (!table->page.page) refusePage(*table);
    table->notes.insert(table->notes.end(), table->page.notes.begin(), table->page.notes.end());
    std::vector<Column> all;
    all.reserve(static_cast<std::size_t>(base->FieldCount));
    for (int field = 0; field < base->FieldCount; ++field) all.push_back(columnOf(*table, field));
    assignNullBits(*table, all);
    table->hasMemos = std::any_of(all.begin(), all.end(), holdsReference);
    for (Column& column : all) {
        (isHidden(column) ? table->system : table->columns).push_back(std::move(column));
    }
    table->container = backLinkOf(*table, listing);
    if (options.longNames) takeLongNames(*table, listing);
    makeUnique(table->columns);
    nameForLibrary(*table);
    readNamedAsText(*table);
    noteUnknownTypes(*table);
    const std::string fault = memoFileFault(*table);
    if (!fault.empty()) table->notes.push_back(fault);
    return table;
}

std::unique_ptr<Table> openAgain(const Table& table, bool writable) {
    auto again = std::make_unique<Table>();
    static_cast<TableFacts&>(*again) = table;
    again->base = openSame(table, writable);
    DbfBase* const base = again->base.get();
    if (!sameStructure(*table.base, *base)) {
        refuse(table.path, ": its fields have changed since it was opened");
    }
    for (int field = 0; field < base->FieldCount; ++field) {
        SetFieldName(base, field, GetFieldName(table.base.get(), field));
    }
    readStoredHeader(*again);
    leaveOutStray(*again);
    return again;
}

void readAsText(Column& column) {
    column.untranslated = false;
    if (column.kind == Kind::Blob) column.kind = Kind::Memo;
    if (column.kind == Kind::Varbinary) column.kind = Kind::Varchar;
    if (column.kind == Kind::Bytes) column.kind = Kind::Text;
}

void readAsBytes(Column& column) {
    const bool memo = column.kind == Kind::Memo || column.kind == Kind::Blob;
    const bool variable = column.kind == Kind::Varchar || column.kind == Kind::Varbinary;
    column.kind = memo ? Kind::Blob : variable ? Kind::Varbinary : Kind::Bytes;
}

void refreshTable(Table& table) {
    RefreshDatabase(table.base.get());
    readStoredHeader(table);
    leaveOutStray(table);
}

std::string countRepair(const Table& table) {
    const DbfBase& base = *table.base;
    if ((base.Status & kCountRepaired) == 0 || table.storedCount == base.Header.RecordCount) {
        return "";
    }
    return textOf("the header counts ", counted(table.storedCount, "record"), ", the file holds ",
                  base.Header.RecordCount);
}

std::string strayRepair(const Table& table) {
    if (table.strayBytes == 0) return "";
    return textOf("the last ", counted(table.strayBytes, "byte"),
                  " of the file are no records and are left out");
}

bool isHalfPacked(const Table& table) {
    const DbfBase& base = *table.base;
    const u64 end =
        Calc64(base.Header.RecordLength, base.Header.RecordCount, base.Header.HeaderLength);
    return table.fileSize > end + base.Header.RecordLength &&
           IsPackUnfinished(table.base.get()) == 1;
}

std::vector<std::string> repairsOf(const Table& table) {
    std::vector<std::string> repairs;
    if (isHalfPacked(table)) {
        repairs.emplace_back(
            "a pack was interrupted; until `mira pack` has finished it, records may be there "
            "twice");
    }
    const DbfBase& base = *table.base;
    if ((base.Status & kVersionRepaired) != 0) {
        repairs.push_back(textOf("version ", hexByte(table.storedVersion), " is unknown; read as ",
                                 hexByte(base.Header.Version)));
    }
    if ((base.Status & kTypesUnknown) != 0 && base.FieldCount == 0) {
        repairs.emplace_back("there are no fields");
    }
    const std::string count = countRepair(table);
    if (!count.empty()) repairs.push_back(count);
    const std::string stray = strayRepair(table);
    if (!stray.empty()) repairs.push_back(stray);
    if (table.storedLength != base.Header.RecordLength) {
        repairs.push_back(textOf("the header gives records of ", table.storedLength,
                                 " bytes, the fields add up to ", base.Header.RecordLength));
    }
    const u32 end = base.HeaderSize + base.DescriptorSize * base.FieldCount;
    char terminator = 0;
    if (readFileAt(base.TableFile, end, &terminator, 1) != 1 || terminator != kTerminator) {
        repairs.emplace_back("the field list has no end mark; it ends with the header");
    }
    return repairs;
}

}  // namespace mira::tables
