// Tables as all modules see them: limits, field types, the codec of the format, and the one way in
// and out of the table file.
#pragma once

#include <optional>
#include <string_view>

#include "dbf/table/field.h"
#include "dbf/table/flavour.h"
#include "internal/paths.h"
#include "mira.h"

namespace mira {

inline constexpr u32 kFieldMax = 2048;
inline constexpr u32 kNoPosition = 0xFFFFFFFF;

inline constexpr u8 kTerminator = 0x0D;  // ends the descriptors

// Status flags.
inline constexpr u32 kStatusVersion = 1;
inline constexpr u32 kStatusFieldTypes = 2;
inline constexpr u32 kStatusRecordCount = 4;

// The first byte of a record; every other value counts as kPresent.
inline constexpr u8 kPresent = ' ';
inline constexpr u8 kDeleted = '*';

/// A handle after Close_File, or one that never had a table.
inline bool isClosed(const DbfBase* h) { return h->TableFile == nullptr; }
/// A handle after Close_File, which leaves it its name.
inline bool wasClosed(const DbfBase* h) { return isClosed(h) && h->FileName != nullptr; }
/// Whether positions go through a filter or a sort order.
inline bool hasView(const DbfBase* h) {
    return h->FilterIndex != nullptr || h->SortOrder != nullptr;
}

inline constexpr i32 kDigitsFormat = 4;  // the DateFormat whose texts sort as dates do

// types.cpp
/// The first table field of a name, in any letter case, from a number on; -1 when there is none.
int fieldNamed(const DbfBase*, std::string_view name, int from = 0);

// handle.cpp
/// The defaults that are not zero. False when there is no memory for the format copies.
bool setDefaults(DbfBase*);
/// Releases what Close_File does, but for the file.
void releaseBuffers(DbfBase*);

// codec.cpp
void decodeHeader(const u8* from, DbfHeader*);
void encodeHeader(const DbfHeader&, u8* to);
void encodeDescriptor(const DbfField&, u32 descriptorSize, u8* to);
/// Sets the day of the last update to today. The year counts from 1900; centuries are taken off
/// until it is below a limit.
void stampDate(DbfHeader*, int yearLimit);
/// foreign: a level-7 descriptor of another maker. Offset stays 0.
DbfField decodeDescriptor(const u8* from, u32 descriptorSize, bool foreign);

// format.cpp
/// The first bytes of a table file, with the header and, of most tables, all descriptors.
struct TableStart {
    u64 fileSize;
    u32 count;  ///< bytes read; fewer than there is room for only at the end of the file
    u8 bytes[2048];
};
/// Reads them from a stream at its start; false when that is not possible.
bool readStart(const DbfBase*, u64 fileSize, TableStart*);
/// Level7Detect and ReadHeader.
bool decodeStart(DbfBase*, const TableStart&);
/// ReadFields of a new handle, whose stream stands behind the start.
bool readFields(DbfBase*, const TableStart*);

// records.cpp
/// Reads up to count bytes at a file offset of the table; fresh ones are never from what is read
/// ahead. False when the offset cannot be reached; *got becomes the number of bytes read.
bool readTable(DbfBase*, u64 offset, void* buffer, u32 count, u32* got, bool fresh = false);
/// Reads a physical record into RecordBuffer, then calls AfterRead. False when not all of it could
/// be read.
bool readPhysicalRecord(DbfBase*, u32 record);
/// ReadByte; fresh looks at the file in any case.
bool readFlag(DbfBase*, u32 position, bool fresh);
/// Writes count bytes at a file offset of the table; nothing beyond kReachable.
bool writeTable(DbfBase*, u64 offset, const void* buffer, u32 count);
/// The same; returns the bytes that the operating system has taken.
u32 putTable(DbfBase*, u64 offset, const void* buffer, u32 count);
/// Tells every handle of the file, this one included, that the file has changed.
void tableChanged(DbfBase*);
/// Size of the table file as long as it is what the handle knows: it holds the records that are
/// counted and less than one more, and its name leads to no other file. None when another program,
/// or another handle, has changed it: what an edit moved, cut or wrote over would not be its own.
/// Some edits find out themselves that records are missing: mayBeShort.
std::optional<u64> unchangedSize(const DbfBase*, bool mayBeShort = false);
/// (size - HeaderLength) / RecordLength, 0 for a file shorter than its header.
u32 recordsInFile(const DbfBase*, u64 size);

// backup.cpp
/// Makes the backup copy when it is due.
void backUp(DbfBase*);

}  // namespace mira
