#include "tables/column/column.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tables/page/refusal.h"

namespace mira::tables {

bool isCounting(const Column& column) {
    return column.type == '+' || (column.kind == Kind::Integer && (column.flags & kCounting) != 0);
}

bool isOfDigits(const Column& column, Kind kind) {
    return kind == Kind::Decimal || kind == Kind::Date ||
           (kind == Kind::Moment && column.length != 8);
}

Kind heldKind(const Column& column) {
    const Kind kind = kindOf(column.stored, column.type);
    const bool asStored = column.kind == Kind::Text && isOfDigits(column, kind);
    return asStored ? kind : column.kind;
}

const Column* findColumn(const Table& table, std::string_view name) {
    const std::string exact = foldCase(name);
    const std::string wanted = foldCase(trimmed(name));
    // Names that begin or end with blanks are rare, and no list of names can write them.
    const Column* other = nullptr;
    for (const Column& column : table.columns) {
        const std::string own = foldCase(column.name);
        if (own == exact) return &column;
        if (other == nullptr && trimmed(own) == wanted) other = &column;
    }
    if (other != nullptr) return other;
    const bool number = !wanted.empty() && wanted.size() < 6 && areDigits(wanted);
    const auto field = number ? static_cast<std::size_t>(std::stoul(wanted)) : 0;
    return field >= 1 && field <= table.columns.size() ? &table.columns[field - 1] : nullptr;
}

const Column& columnNamed(const Table& table, std::string_view name) {
    if (const Column* column = findColumn(table, name)) return *column;
    std::vector<std::string> names;
    for (const Column& column : table.columns) names.push_back(column.name);
    const std::string nearest = nearestName(name, names);
    refuse(table.path, ": no field \"", name, "\"",
           nearest.empty() ? "; `mira info` lists them" : "; did you mean " + nearest + "?");
}

std::string_view libraryName(const Table& table, const Column& column) {
    return GetFieldName(table.base.get(), column.field);
}

Column extraColumn(const Table& table, std::string name, Kind kind) {
    while (findColumn(table, name) != nullptr) name.insert(0, 1, '_');
    Column column;
    column.name = std::move(name);
    column.kind = kind;
    return column;
}

void readRecord(const Table& table, u32 record) {
    if (ReadRecord(table.base.get(), record) != 0) return;
    refuse(table.path, ": record ", u64{record} + 1, " cannot be read");
}

u32 readRecords(const Table& table, u32 first, u32 count, void* to) {
    const DbfBase& base = *table.base;
    const u32 length = base.Header.RecordLength;
    const u64 offset = Calc64(length, first, base.Header.HeaderLength);
    constexpr u64 kMost = 0x7FFFFFFF;
    if (length == 0 || count * u64{length} > kMost) return 0;
    if (fseeko(base.TableFile, static_cast<off_t>(offset), SEEK_SET) != 0) return 0;
    return ReadFile(base.TableFile, to, static_cast<i32>(count * length)) / length;
}

std::string memoFileOf(const Table& table) {
    const DbfBase& base = *table.base;
    if (table.hasMemos && !table.unpacked.empty()) return table.memoPath;
    return table.hasMemos && base.MemoFileName != nullptr ? base.MemoFileName : "";
}

bool isReplaced(const Table& table) {
    if (!table.unpacked.empty()) return false;
    struct stat own = {}, named = {};
    return fstat(fileno(table.base->TableFile), &own) != 0 ||
           stat(table.base->FileName, &named) != 0 || own.st_ino != named.st_ino ||
           own.st_dev != named.st_dev;
}

u32 readFileAt(std::FILE* file, u32 offset, void* to, u32 count) {
    if (offset > 0x7FFFFFFF) return 0;
    u32 got = 0;
    while (got < count) {
        const ssize_t read =
            pread(fileno(file), static_cast<char*>(to) + got, count - got, off_t{offset} + got);
        if (read < 0 && errno == EINTR) continue;
        if (read <= 0) break;
        got += static_cast<u32>(read);
    }
    return got;
}

bool writeFileAt(std::FILE* file, u32 offset, const void* bytes, u32 count) {
    return SetFilePointer(file, static_cast<i32>(offset), nullptr, SEEK_SET) == offset &&
           WriteFile(file, bytes, static_cast<i32>(count)) == count;
}

}  // namespace mira::tables
