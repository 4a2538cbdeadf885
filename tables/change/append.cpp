// New records, counting fields, and the marks that a change leaves in the header.
//
//   level 7   descriptor 42   4 bytes, next value of a "+" field; the step is 1
//   others    descriptor 19   4 bytes, next value; 23: step (Visual FoxPro)
#include "tables/change/append.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "tables/page/bytes.h"
#include "tables/page/refusal.h"

namespace mira::tables {
namespace {

constexpr u32 kNextPlace = 19;
constexpr u32 kStepPlace = 23;
constexpr u32 kNextPlace7 = 42;
constexpr u64 kTableMost = 0x7FFFFFFF;
constexpr char kTerminator = 0x0D;
constexpr u32 kBackLink = 263;     // bytes before the records of a Visual FoxPro table
constexpr u32 kLevel7Least = 128;  // by its first 128 bytes a level-7 table is told
constexpr u32 kWork = 4;           // header bytes 12 to 15: a transaction under way, encryption
constexpr u32 kFlags = 28 - 12;    // in DbfHeader::Rest
constexpr u8 kMemoFlag = 2;        // 1 is an index file, 4 a database container

/// The value after the largest of a field. The record buffer holds the last record then.
u32 afterLargest(Table& table, const Column& column) {
    DbfBase* const base = table.base.get();
    i64 largest = 0;
    for (u32 i = 0; i < base->Header.RecordCount; ++i) {
        if (ReadRecord(base, i) == 0) break;
        largest = std::max<i64>(largest, static_cast<i32>(GetInt(base, column.field)));
    }
    return static_cast<u32>(largest + 1);
}

}  // namespace

u32 counterPlace(const Table& table, const Column& column) {
    const DbfBase& base = *table.base;
    if (base.Level7 == 0 && !table.visual) return 0;
    const u32 descriptor = base.HeaderSize + base.DescriptorSize * static_cast<u32>(column.field);
    return descriptor + (base.Level7 != 0 ? kNextPlace7 : kNextPlace);
}

void loadCounters(Table& table) {
    std::FILE* const file = table.base->TableFile;
    for (Column& column : table.columns) {
        if (!isCounting(column)) continue;
        const u32 place = counterPlace(table, column);
        u8 bytes[5] = {};
        if (place != 0) readFileAt(file, place, bytes, sizeof bytes);
        column.nextValue = loadLe<u32>(bytes);
        column.step = table.visual ? std::max<u32>(bytes[kStepPlace - kNextPlace], 1) : 1;
        if (column.nextValue == 0 && !table.visual) column.nextValue = afterLargest(table, column);
    }
}

void advanceCounters(Table& table) {
    for (Column& column : table.columns) {
        if (isCounting(column)) column.nextValue += column.step;
    }
}

void newRecord(Table& table) { ClearRecord(table.base.get()); }

void cutStray(Table& table) {
    if (table.strayBytes == 0) return;
    // The library cuts only what it counts: else another program has lengthened the file.
    DbfBase* const base = table.base.get();
    const u32 records = std::exchange(base->Header.RecordCount, table.heldRecords);
    const bool cut = Truncate(base, records) != 0;
    base->Header.RecordCount = records;
    if (!cut) {
        refuse(table.path, ": the bytes behind its records, which are none, cannot be cut off");
    }
    table.strayBytes = 0;
    table.heldRecords = records;
}

void appendRecord(Table& table) {
    cutStray(table);
    DbfBase* const base = table.base.get();
    const u32 record = base->Header.RecordCount;
    if (InternalWriteRecord(base, record) == 0) {
        const DbfHeader& header = base->Header;
        const u64 end = header.HeaderLength + (u64{record} + 1) * header.RecordLength;
        refuse(table.path, ": record ", record + 1,
               end > kTableMost ? " would reach past 2 GiB, where tables end"
                                : " cannot be written; is the disk full?");
    }
    ++base->Header.RecordCount;
}

void finishAppend(Table& table) {
    bool written = true;
    for (const Column& column : table.columns) {
        const u32 place = isCounting(column) ? counterPlace(table, column) : 0;
        if (place == 0) continue;
        const auto next = bytesLe(column.nextValue);
        written = writeFileAt(table.base->TableFile, place, next.data(), next.size()) && written;
    }
    if (!written || WriteHeader(table.base.get()) == 0) {
        refuse(table.path, ": the header cannot be written");
    }
}

std::string headerImage(const DbfHeader& header, u32 size) {
    u8 bytes[sizeof(DbfHeader)];
    GetHeaderBytes(&header, bytes);
    std::string image(std::begin(bytes), std::end(bytes));
    image.resize(size);
    return image;
}

std::string emptyHead(const Table& like) {
    const DbfBase& from = *like.base;
    std::string image(from.Header.HeaderLength, '\0');
    const u32 end = from.HeaderSize + from.DescriptorSize * from.FieldCount;
    if (from.FieldCount == 0 || end > image.size() ||
        readFileAt(from.TableFile, 0, image.data(), static_cast<u32>(image.size())) < end) {
        refuse(like.path, ": its structure cannot be copied");
    }
    if (end < image.size()) image[end] = kTerminator;
    const bool linked = like.visual && image.size() >= end + 1 + kBackLink;
    if (linked) std::memset(&image[image.size() - kBackLink], 0, kBackLink);
    if (from.Level7 != 0 && image.size() < kLevel7Least) image.resize(kLevel7Least);
    DbfHeader header = from.Header;
    header.RecordCount = 0;
    header.HeaderLength = static_cast<u16>(image.size());
    std::memset(header.Rest, 0, kWork);
    header.Rest[kFlags] &= kMemoFlag;
    image.replace(0, from.HeaderSize, headerImage(header, from.HeaderSize));
    return image;
}

}  // namespace mira::tables
