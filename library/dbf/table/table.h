// Tables as all modules see them: limits, field types, the codec of the format, and the one way in
// and out of the table file.
#pragma once

#include "dbf/table/field.h"
#include "internal/paths.h"
#include "mira.h"

namespace mira {

inline constexpr u32 kFieldMax = 2048;
inline constexpr u32 kNoPosition = 0xFFFFFFFF;

// Sizes of the table format.
inline constexpr u32 kHeaderSize = 32;
inline constexpr u32 kDescriptorSize = 32;
inline constexpr u32 kHeaderSize7 = 68;  // level 7
inline constexpr u32 kDescriptorSize7 = 48;
inline constexpr u8 kTerminator = 0x0D;  // ends the descriptors

// Status flags.
inline constexpr u32 kStatusVersion = 1;
inline constexpr u32 kStatusFieldTypes = 2;
inline constexpr u32 kStatusRecordCount = 4;

inline constexpr i32 kDigitsFormat = 4;  // the DateFormat whose texts sort as dates do

inline constexpr u32 kAheadSize = sizeof(DbfBase::AheadBuffer);

// Version bytes that code depends on; types.cpp lists all that are accepted.
inline constexpr u8 kVersionPlain = 0x03;
inline constexpr u8 kVersionDBase3 = 0x83;
inline constexpr u8 kVersionDBase4 = 0x8B;
inline constexpr u8 kVersionLevel7 = 0x8C;
inline constexpr u8 kVersionFoxPro = 0xF5;
inline constexpr u8 kVersionVisualFoxPro = 0x30;
inline constexpr u8 kVersionSmt = 0xE5;

// types.cpp: one row per field type.
enum class BlankRule : u8 { Spaces, Zeros, SpacesAtLength14, ZerosAtLength8Or4, Reference };
enum class NumericRule : u8 { Never, Always, AtLength8 };
enum class MemoRule : u8 { Never, Always, AtLength10 };
struct TypeRow {
    char letter;
    const char* name;
    const char* nameAtLength8;  ///< null where the length makes no difference
    BlankRule blank;
    NumericRule numeric;
    MemoRule memo;
    bool accepted;  ///< tables with this letter open without remark
};
/// The row of a type letter, or the row of unknown letters.
const TypeRow& typeRow(char letter);
bool isNumeric(const DbfField&);
bool acceptedVersion(u8 version);

// handle.cpp
/// The defaults that are not zero. False when there is no memory for the format copies.
bool setDefaults(DbfBase*);
/// Releases what Close_File does, but for the file.
void releaseBuffers(DbfBase*);

// codec.cpp
void decodeHeader(const u8* from, DbfHeader*);
void encodeHeader(const DbfHeader&, u8* to);
void encodeDescriptor(const DbfField&, u32 descriptorSize, u8* to);
/// foreign: a level-7 descriptor of another maker. Offset stays 0.
DbfField decodeDescriptor(const u8* from, u32 descriptorSize, bool foreign);

// format.cpp
/// ReadFields; fresh says that AliasNames is still zero and need not be cleared.
char readFields(DbfBase*, bool fresh);

// records.cpp
/// Reads up to count bytes at a file offset of the table, from the bytes read ahead where they
/// cover it. False when the offset cannot be reached; *got becomes the number of bytes read.
bool readTable(DbfBase*, u64 offset, void* buffer, u32 count, u32* got);
/// Writes count bytes at a file offset of the table and keeps the bytes read ahead true.
bool writeTable(DbfBase*, u64 offset, const void* buffer, u32 count);
/// writeTable for a table file that stands at offset already.
bool writeTableHere(DbfBase*, u64 offset, const void* buffer, u32 count);
/// Forgets the bytes read ahead.
void dropReadAhead(DbfBase*);
/// (size - HeaderLength) / RecordLength, 0 for a file shorter than its header.
u32 recordsInFile(const DbfBase*, u64 size);

// write.cpp
/// Makes the backup copy when it is due.
void backUp(DbfBase*);

}  // namespace mira
