/// @mainpage MIRAlib: dBase-family tables (.dbf) and their memo files
///
/// Conventions for every operation, unless its comment says otherwise:
///   - A result of 0, or a null pointer, is failure; non-zero is success.
///   - A position is what the caller counts in: it passes through Reverse, the sort order and the
///     filter before it becomes a record, the physical record number in the file.
///   - Field numbers start at 0. Numbers from FieldCount on name calculated fields; a number that
///     names no field reads as the neutral value (empty text, 0, 0.0, null) and stores nothing.
///   - Texts are 8-bit and end with a zero byte. No operation throws or prints.
///   - A handle belongs to one thread at a time; different handles may be used on several threads.
///
/// Programs use the records below directly. Under one soname (libmira.so.2) their size, members and
/// offsets therefore stay as they are, and so do the name, arguments and results of every
/// operation. Operations may be added, and what Private points to may change. A program can check
/// at its start that the library it runs with was built with the same DbfBase:
/// GetVerMIRAlib(2) == sizeof(DbfBase).
#ifndef MIRA_H
#define MIRA_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#if defined(__GNUC__)
#pragma GCC visibility push(default)
#endif

/// Reading and editing dBase-family tables.
namespace mira {

using u8 = std::uint8_t;    ///< unsigned byte
using u16 = std::uint16_t;  ///< unsigned 16-bit integer
using u32 = std::uint32_t;  ///< unsigned 32-bit integer
using u64 = std::uint64_t;  ///< unsigned 64-bit integer
using i32 = std::int32_t;   ///< signed 32-bit integer
using i64 = std::int64_t;   ///< signed 64-bit integer

struct DbfBase;
struct PrivateState;

/// Called around reading or writing a record or its deletion flag; the result is ignored.
using RecordHook = int (*)(DbfBase*);
/// Converts length bytes from source to destination (which may be the same); result ignored.
using CharToOemHook = int (*)(const char* source, char* destination, u32 length);
/// Folds text to upper case in place; result ignored.
using UpperCaseHook = int (*)(char* text, DbfBase* base, int mode);
/// Called during long operations; a non-zero result stops them.
using StopCallback = int (*)();
/// Compares two elements: negative, zero or positive.
using CompareFunction = int (*)(const void* a, const void* b, DbfBase* base);

/// The fixed header of a table file, byte for byte (little-endian, 32 or 68 bytes used).
struct DbfHeader {
    u8 Version;        ///< version byte
    u8 UpdateYear;     ///< year of the last update: two digits, or years since 1900
    u8 UpdateMonth;    ///< month of the last update, 1 to 12
    u8 UpdateDay;      ///< day of the last update, 1 to 31
    u32 RecordCount;   ///< number of records
    u16 HeaderLength;  ///< file offset of record 0
    u16 RecordLength;  ///< bytes per record, deletion flag included
    u8 Rest[56];       ///< header bytes 12 to 67, carried unchanged; [17] is the code page mark
};

/// One field descriptor.
struct DbfField {
    char Name[32];  ///< at most 10 characters, 31 in a level-7 table
    char Type;      ///< type letter
    u8 Length;      ///< length; the low byte of a character field's length
    u8 Decimals;    ///< decimal count; the high byte of a character field's length
    u16 Offset;     ///< offset of the first byte in the record; 1 for the first field
    u8 WorkArea;    ///< descriptor byte 20, carried
};

/// One calculated field; empty when Name is null. The table owns both texts.
struct CalcFieldSlot {
    u8 Flags[3];       ///< 1, 1, 1 in a filled slot
    char* Name;        ///< field name
    char* Expression;  ///< expression text
};

/// The calculated fields of a handle. A slot's index is its field number.
struct CalcFieldTable {
    i32 FieldTotal;             ///< what fieldcount reports when positive; set by the application
    u32 Count;                  ///< filled slots
    CalcFieldSlot Slots[2048];  ///< slots below FieldCount stay empty
};

/// Work area of a running set_filter.
struct FilterWork {
    char LogicText[1024];  ///< arithmetic text of the record under test
    char PieceText[1024];  ///< the condition being evaluated, with its grouping parentheses
    u32 Cuts[1024];        ///< positions of the connectives, then the length of the filter text
    u32 LogicLength;       ///< characters in LogicText
    char LeftText[1024];   ///< left operand
    char RightText[1024];  ///< right operand
};

/// An open table. Options, flags and hooks are plain members that the application sets after
/// opening; everything else belongs to the library.
struct DbfBase {
    std::FILE* TableFile;   ///< the table file
    std::FILE* MemoFile;    ///< the memo file, open only during one memo call
    u32 Status;             ///< sum: 1 version repaired, 2 types unknown, 4 record count repaired
    char* FileName;         ///< path of the table; owned
    char* MemoFileName;     ///< path of the memo file; owned
    char* AliasFileName;    ///< path of the alias file; owned
    DbfHeader Header;       ///< the fixed header
    DbfField Fields[2048];  ///< field descriptors, FieldCount of them
    char AliasNames[2048][32];  ///< alternative column headings
    i32 FieldMap[2048];         ///< answers of fieldno; -1 where there is no field
    i32 DateFormat;      ///< 0 as stored, 1 dd.mm.yyyy, 2 mm.dd.yyyy, 3 yyyy.mm.dd, 4 yyyymmdd
    i32 MemoAsNumber;    ///< memo fields show their block number
    i32 OemConvert;      ///< texts written into expressions are converted to OEM
    u8 CaseInsensitive;  ///< comparisons fold case
    u8 SortDescending;   ///< sorting is descending
    i32 UseAliases;      ///< headings come from AliasNames
    i32 TrimMode;        ///< character values: 1 trims the end, 2 the beginning, 3 both
    i32 SkipDeleted;     ///< filters leave out deleted records
    i32 Reverse;         ///< positions count from the last record
    i32 BackupEnabled;   ///< the first write makes a backup copy
    i32 BackupDone;      ///< a whole backup copy has been made
    char* BackupName;    ///< path of the backup copy, 260 bytes; owned; null: it would be longer
    i32 NoBracketCheck;  ///< 1: parentheses group no conditions, and none is taken off a text
    i32 RawNumeric;      ///< N and F fields show exactly as stored
    CharToOemHook CharToOemCallback;  ///< replaces the built-in OEM conversion
    UpperCaseHook UpperCaseCallback;  ///< replaces the built-in case folding
    StopCallback SortCallback;        ///< set while a sort runs
    u16 FieldCount;                   ///< number of table fields
    i32 FirstMemoField;               ///< first memo field, -1 when there is none
    u8 DeleteFlag;                    ///< the byte that ReadByte reads and WriteByte writes
    u8* RecordBuffer;  ///< the current record, 65535 bytes; byte 0 is the deletion flag; owned
    char* TextBuffer;  ///< result of the field renderers, 65535 bytes; 16 more may be read; owned
    char* MemoBuffer;  ///< released by FreeMemo; owned
    u32* FilterIndex;  ///< records that pass the filter; null without a filter; owned
    u32 FilterCount;   ///< entries in FilterIndex
    FilterWork* FilterState;     ///< exists while set_filter runs; owned
    u32 SortFieldCount;          ///< fields in the sort key
    i32 SortFields[21];          ///< field numbers of the sort key
    u32* SortOrder;              ///< positions in sorted order; null when unsorted; owned
    u32 SortKeyCount;            ///< fields used by GetCompStr
    u32* SortKeyFields;          ///< field numbers used by GetCompStr
    u8* SavedRecord;             ///< copy made by DupRecord; owned
    char* FilterText;            ///< all filters applied, joined with "&"; owned
    char* SortKeyA;              ///< key buffer, 65536 bytes, while a sort runs; owned
    char* SortKeyB;              ///< key buffer, 65536 bytes, while a sort runs; owned
    i32 SortRecA;                ///< position whose key is in SortKeyA; -2 none, -1 sort aborted
    i32 SortRecB;                ///< position whose key is in SortKeyB; -2 none
    u8 UseFilterIndex;           ///< positions go through FilterIndex
    char* DateFormats[5];        ///< printf formats of dates; owned
    char* DateTimeFormats[5];    ///< printf formats of date-times; owned
    CalcFieldTable* CalcFields;  ///< calculated fields; created and released by the application
    u32 Level7;                  ///< 1 for a level-7 table
    u32 HeaderSize;              ///< 32, or 68 for level 7
    u32 DescriptorSize;          ///< 32, or 48 for level 7
    u32 HighLength;              ///< decimal bytes of character fields are no length bytes
    u32 CurrentRecord;           ///< position last fetched by GetRecord; 4294967295 for none
    u32 ReadOnly;                ///< opened by OpenBaseRO
    u32 Modified;                ///< something has been written
    RecordHook AfterRead;        ///< after ReadRecord has read
    RecordHook BeforeWrite;      ///< before a record is written
    RecordHook AfterReadByte;    ///< after ReadByte has read
    RecordHook BeforeWriteByte;  ///< before a deletion flag is written

    PrivateState*
        Private;  ///< what the library keeps besides; owned; null in a caller's own record
};

// --------------------------------------------------------------------------------------------
/// @name Opening and closing
/// CloseBase releases everything the handle owns; the handle and every text that points into it are
/// gone afterwards.
///@{
// --------------------------------------------------------------------------------------------

/// Opens a table for reading and writing, or only for reading where the file or the file system
/// permits no more (not after other failures, such as too many open files). Null when it cannot be
/// opened or is no usable table.
DbfBase* OpenBase(const char* path);
/// Opens a table for reading only; null as for OpenBase.
DbfBase* OpenBaseRO(const char* path);
/// OpenBase (readOnly 0) or OpenBaseRO (any other value).
DbfBase* OpenBaseCommon(const char* path, int readOnly);
/// Looks for files beside path whose names differ from its own in the case of ASCII letters only:
/// how many there are, 2 for more. When there is one, name gets its name, which is as long as that
/// in path and needs no zero byte.
using FindNameHook = u32 (*)(const char* path, char* name, void* context);
/// OpenBaseCommon for programs that open many tables of a folder and have listed it: a memo file in
/// other letter case is looked for by find, which is called with the context, not by reading the
/// folder again. find is not kept. Null for find: as OpenBaseCommon.
DbfBase* OpenBaseListed(const char* path, int readOnly, FindNameHook find, void* context);
/// Zeroes the record and sets every default; what it owned before is not released.
void SetDefOptions(DbfBase*);
/// Closes the table and releases the handle; null is ignored.
void CloseBase(DbfBase*);
/// Closes the table file and releases buffers, names and formats, but not the handle.
void Close_File(DbfBase*);
/// Opens a file unbuffered with "rb+", else "rb"; the caller closes it with fclose. Null on
/// failure.
std::FILE* Open_File(const char* path);
/// Opens a file unbuffered with "rb"; the caller closes it with fclose. Null on failure.
std::FILE* Open_FileRO(const char* path);
///@}

// --------------------------------------------------------------------------------------------
/// @name Files and paths
///@{
// --------------------------------------------------------------------------------------------

/// Seeks to offset bytes from whence (0 start, 1 current, 2 end); high is ignored. Returns the
/// position reached, 4294967295 on failure or when it does not fit.
u32 SetFilePointer(std::FILE*, i32 offset, i32* high, int whence);
/// Reads up to count bytes; returns the number read.
u32 ReadFile(std::FILE*, void* buffer, i32 count);
/// Writes count bytes; returns the number that the operating system has taken.
u32 WriteFile(std::FILE*, const void* buffer, i32 count);
/// recordLength * record + base.
u64 Calc64(u32 recordLength, u32 record, u32 base);
/// Splits a path. drive becomes empty; dir keeps its last slash, ext its dot. dir and name (256
/// bytes each) and ext (10 bytes) are cut to what their buffers hold.
void _splitpath(const char* path, char* drive, char* dir, char* name, char* ext);
/// Builds the path of a file beside path: otherName when given, else path's name with ext (dot
/// included). destination holds 260 bytes, may be path, and becomes empty when the path does not
/// fit.
void MakeExt(char* destination, const char* path, const char* ext, const char* otherName);
///@}

// --------------------------------------------------------------------------------------------
/// @name Table format
///@{
// --------------------------------------------------------------------------------------------

/// Recognises a level-7 table from the first 128 bytes; leaves the file at offset 0.
void Level7Detect(DbfBase*);
/// Reads the fixed header; 0 when it is short or its header length leaves no room for a field.
int ReadHeader(DbfBase*);
/// Reads the descriptors that follow the header, repairs the header in memory and allocates the
/// buffers; 0 when the table cannot be opened.
char ReadFields(DbfBase*);
/// Length of a field in the record, 0 to 65535 bytes; 0 for no field.
unsigned GetLenField(DbfBase*, int field);
/// The length byte alone; 0 for no field.
unsigned GetHighLen(DbfBase*, int field);
/// 1 for an accepted type letter, else 0.
char ValidField(char type);
/// 1 for a memo field: M, G, W and B of length 10.
char if_memo_type(DbfBase*, int field);
/// 1 for a numeric field: N, F, Y, I, +, O, B of length 8, and numeric calculated fields.
char if_digit_type(DbfBase*, int field);
/// Blanks the record buffer: a live record with every field cleared.
void ClearRecord(DbfBase*);
/// Fills a field in the record buffer with its blank byte.
void ClearField(DbfBase*, int field);
/// The blank byte of a field: a space or 0.
char FieldBlankChar(DbfBase*, int field);
///@}

// --------------------------------------------------------------------------------------------
/// @name Positions, counts and record access
/// Reading fills RecordBuffer. A position at or beyond reccount() fails while Reverse, a sort order
/// or a filter is in force.
///@{
// --------------------------------------------------------------------------------------------

/// Records in the current view: those that pass the filter, else all.
u32 reccount(DbfBase*);
/// Record at a filtered position; the position itself without a filter; 4294967295 beyond it.
u32 recno(DbfBase*, u32 position);
/// Filtered position at a sorted position, 4294967295 from reccount() on; the position itself when
/// unsorted.
u32 GetOrder(DbfBase*, u32 position);
/// FieldTotal of the calculated fields when positive, else the number of table fields.
u32 fieldcount(DbfBase*);
/// FieldMap entry, -1 when there is no such field.
i32 fieldno(DbfBase*, int index);
/// Places the table file at the record of a position.
int SeekRecord(DbfBase*, u32 position);
/// Places the table file at a physical record.
int InternalSeekRecord(DbfBase*, u32 record);
/// Places the table file at one field of the record of a position.
int SeekField(DbfBase*, u32 position, int field);
/// Reads a record, then calls AfterRead. 0 when not all of it could be read.
int ReadRecord(DbfBase*, u32 position);
/// ReadRecord, unless position is the one fetched last by GetRecord.
int GetRecord(DbfBase*, u32 position);
/// Reads the deletion flag into DeleteFlag, then calls AfterReadByte.
int ReadByte(DbfBase*, u32 position);
/// Reads one field into its place in RecordBuffer.
int ReadField(DbfBase*, u32 position, int field);
/// Counts the records again from the file size and forgets bytes read ahead; 1 when the count
/// has changed. What another program has changed can be edited then.
int RefreshDatabase(DbfBase*);
///@}

// --------------------------------------------------------------------------------------------
/// @name Writing records
/// What a call reports as written has reached the operating system.
///@{
// --------------------------------------------------------------------------------------------

/// Writes RecordBuffer to the record of a position. What is beyond the last one is not counted.
int WriteRecord(DbfBase*, u32 position);
/// Writes RecordBuffer to a physical record.
int InternalWriteRecord(DbfBase*, u32 record);
/// Writes DeleteFlag to the record of a position.
int WriteByte(DbfBase*, u32 position);
/// Writes one field from RecordBuffer to the record of a position.
int WriteField(DbfBase*, u32 position, int field);
/// Stamps today's date into the header, writes it, and an end-of-file byte after the last record.
int WriteHeader(DbfBase*);
/// Appends RecordBuffer, cleared first when clear is non-zero, as a new last record. 0 and nothing
/// changed, as of Insert, Delete, Truncate, Zap and Pack, when another program or handle has added
/// or cut off records, or the table's name leads to another file now.
int AppendBlank(DbfBase*, char clear);
/// Copies RecordBuffer into SavedRecord.
int DupRecord(DbfBase*);
/// Copies SavedRecord, when there is one, back into RecordBuffer.
void DupToRecord(DbfBase*);
/// Copies the table file to BackupName when BackupEnabled is set and no copy has been made, or
/// when force is non-zero. 0 when there is no usable backup name; 1 also when copying failed, which
/// BackupDone tells. The copy takes its name when it is whole; an earlier one stays till then.
int MakeBakFile(DbfBase*, char force);
///@}

// --------------------------------------------------------------------------------------------
/// @name Creating tables
/// Kinds: 0 dBase III, 1 FoxPro, 2 dBase IV, 3 Visual FoxPro, 4 SMT, 7 level 7.
///@{
// --------------------------------------------------------------------------------------------

/// Writes a new, empty table over path, and its memo file when createMemo is non-zero and it has
/// memo fields. Completes fields in place: offsets, and the lengths of fixed-size types.
/// blockSize is the memo block unit, 1 to 65535, 0 for 512. 1 when the whole table was written; 0,
/// with no file touched, when count is negative or the header or a record would exceed 65535 bytes.
char CreateDatabase(const char* path, DbfField* fields, int count, u32 kind, u32 blockSize,
                    char createMemo);
/// Fills a field definition: name (at most 31 characters), type, 16-bit length.
void CreateField(DbfField*, const char* name, char type, int length);
/// Copies the 263-byte backlink area between two tables that both have one.
void WriteBackLink(DbfBase* destination, DbfBase* source);
///@}

// --------------------------------------------------------------------------------------------
/// @name Structural edits
/// Delete, Truncate and Zap refuse while a filter, a sort order or Reverse is in force; Insert and
/// Pack while a filter or a sort order is.
///@{
// --------------------------------------------------------------------------------------------

/// Marks a record deleted; 1 also when it was, is not there, or cannot be read.
int DeleteRecord(DbfBase*, u32 position);
/// Takes the deletion mark away; 1 also when there was none, or no record that can be read.
int RecallRecord(DbfBase*, u32 position);
/// Toggles the deletion mark.
int InverseRecord(DbfBase*, u32 position);
/// Removes a physical record from the file. On failure 0, the table as it was; where that fails
/// too, every record is still there, one perhaps twice, and Delete and Insert give 0 until
/// RefreshDatabase.
int Delete(DbfBase*, u32 record);
/// Inserts a record, blank or a copy of RecordBuffer, before position (0 to RecordCount). Failures
/// as for Delete.
int Insert(DbfBase*, u32 position, char blank);
/// Keeps the first count records. Where there are fewer, records of zero bytes follow them.
int Truncate(DbfBase*, u32 count);
/// Truncate to no record. The memo file stays.
int Zap(DbfBase*);
/// Mode 0 drops deleted records and rebuilds the memo file, 1 only drops records, 2 only rebuilds
/// the memo file; others do nothing. The old memo file stays under its name with "~" for the
/// extension's first letter. dBase III memos are copied up to their first 0x1A. 0 on failure, after
/// which Pack may be called again; while the memos cannot be copied, or there is no room for the
/// log, nothing changes, deleted records stay. A Pack that fails later, is killed or loses power
/// leaves its log (IsPackUnfinished), by which the next one, of any mode, finishes the work, so
/// that nothing is lost or there twice. Until then AppendBlank, Insert, Delete and Truncate fail;
/// while the log is in the memo file no memo is read or written, and writes of records that would
/// give one another memo fail.
int Pack(DbfBase*, u32 mode);
///@}

// --------------------------------------------------------------------------------------------
/// @name Metadata, options and alias files
/// Texts returned belong to the handle or are constants.
///@{
// --------------------------------------------------------------------------------------------

/// Type letter; '#' for no table field.
int GetFieldType(DbfBase*, int field);
/// Name of a table or calculated field; null when there is none.
const char* GetFieldName(DbfBase*, int field);
/// Column heading: the alias when UseAliases is set and there is one, else the name.
const char* GetHeader(DbfBase*, int field);
/// Length of the column heading.
int GetLenHeader(DbfBase*, int field);
/// Decimal count.
int GetLowLen(DbfBase*, int field);
/// GetLenField.
int GetAllLen(DbfBase*, int field);
/// Display width in characters.
int GetLenView(DbfBase*, int field);
/// Column width: the display width, or the name's length plus 1 where that is more.
int GetLenMax(DbfBase*, int field);
/// Type name in words; "Unknown" for a letter without one.
const char* GetTypeName(DbfBase*, int field);
/// 0: library version (291); 1: address of the build date text; 2: sizeof(DbfBase); 3: 256.
std::intptr_t GetVerMIRAlib(int selector);
/// Sets the separator of the dotted date formats (0 for "."); returns it.
char SetDateSeparator(DbfBase*, char separator);
/// 4294967295: the library keeps no time stamps.
u32 GetTimeStamp(DbfBase*, int field);
/// Folds text to upper case in place when CaseInsensitive is set.
void IgnoreCase(DbfBase*, char* text, int mode);
/// Folds text to upper case in place, a to z and the Cyrillic of code page 866; returns its length.
std::size_t UpperCase(unsigned char* text);
/// Length of "value=%d"; shown nowhere.
int Msg(int value);
/// Length of "value=%s", at most 254; shown nowhere.
int MsgS(const char* value);
/// Names the alias file: name in the table's directory, or the table's name with ".hdr" for null.
void SetAliasName(DbfBase*, const char* name);
/// Writes AliasNames to the alias file; failures are not reported.
void WriteAlias(DbfBase*);
/// Fills AliasNames from the alias file; they stay as they were when there is none.
void ReadAlias(DbfBase*);
///@}

// --------------------------------------------------------------------------------------------
/// @name Field text
/// Results lie in TextBuffer and last until the next call that renders a field.
///@{
// --------------------------------------------------------------------------------------------

/// A field of the current record as text; null for a calculated field without a value.
const char* GetStr(DbfBase*, int field);
/// The stored characters of a field, trimmed by TrimMode.
const char* GetString(DbfBase*, int field);
/// Trims spaces from TextBuffer: 1 at the end, 2 at the beginning, 3 both.
char* DStrTrim(DbfBase*, int mode);
/// The characters of a field read as a decimal number.
double GetNumeric(DbfBase*, int field);
/// 1 when the field begins with T, t, Y or y.
int GetBool(DbfBase*, int field);
///@}

// --------------------------------------------------------------------------------------------
/// @name Dates and times
/// In a std::tm of these operations tm_year is the full year and tm_mon 0 to 11; only the six
/// members from tm_sec to tm_year are used. Setters store into RecordBuffer.
///@{
// --------------------------------------------------------------------------------------------

/// 1 for a leap year of the Gregorian calendar, extended to every year.
int if_leap_year(int year);
/// 0 for a valid date and time, -1 otherwise.
int mymktime(std::tm*);
/// A D or T field decoded; check the result with mymktime.
std::tm GetDT(DbfBase*, int field);
/// 0 when the field holds a valid date or date-time, -1 otherwise.
int GetDateTime(DbfBase*, int field);
/// An "@" field decoded; check the result with mymktime.
std::tm GetTm(DbfBase*, int field);
/// Stores a date and time in a D or T field. month 1 to 12; other months store nothing.
void SetDateTime(DbfBase*, int field, int year, int month, int day, int hour, int minute,
                 int second);
/// SetDateTime at midnight.
void SetDate(DbfBase*, int field, int year, int month, int day);
/// SetDateTime with the local time of seconds since 1970-01-01 UTC.
void SetDateTimeI(DbfBase*, int field, i32 seconds);
/// Stores a date text written in DateFormat, at most 10 characters; blanks the field when its
/// month or day reads as 0.
void SetDateS(DbfBase*, int field, const char* text);
/// Stores a date and time text written in DateFormat; blanks the field likewise.
void SetDateTimeS(DbfBase*, int field, const char* text);
/// Stores a date and time in an "@" field. month 1 to 12; other months store nothing.
void SetTimeStamp(DbfBase*, int field, int year, int month, int day, int hour, int minute,
                  int second);
///@}

// --------------------------------------------------------------------------------------------
/// @name Numbers
/// Getters decode from, setters encode into RecordBuffer. A value that does not fit its field
/// leaves the field as it was. In level-7 tables integers lose their sign (see docs/formats.md).
///@{
// --------------------------------------------------------------------------------------------

/// 4-byte integer; take it as i32 for its sign.
u32 GetInt(DbfBase*, int field);
/// 8-byte double, little-endian.
double GetDouble(DbfBase*, int field);
/// 8-byte double in its byte-wise ordered form.
double GetInvertedDouble(DbfBase*, int field);
/// Currency, four decimals.
double GetCurrency(DbfBase*, int field);
/// GetNumeric.
double GetFloat(DbfBase*, int field);
/// Any numeric field, or numeric calculated field, as a double; 0.0 for other fields.
double GetValue(DbfBase*, int field);
/// 1, 0 or -1: the sign of a field's value; 0 for NaN.
i32 GetSign(DbfBase*, int field);
/// Stores a 4-byte integer.
void SetInt(DbfBase*, int field, u32 value);
/// Stores an 8-byte double.
void SetDouble(DbfBase*, int field, double value);
/// Stores an 8-byte double in its ordered form.
void SetInvertedDouble(DbfBase*, int field, double value);
/// Stores value cut to four decimals, so that what GetCurrency gave comes back unchanged.
void SetCurrency(DbfBase*, int field, double value);
/// Stores value as text without decimals, rounded.
void SetNumeric(DbfBase*, int field, double value);
/// Stores value as text with the field's decimals, rounded.
void SetFloat(DbfBase*, int field, double value);
///@}

// --------------------------------------------------------------------------------------------
/// @name Writing field values, into RecordBuffer
///@{
// --------------------------------------------------------------------------------------------

/// Stores text or number, whichever the field's type takes. A number that does not fit its field
/// leaves it as it was, but beyond 32 bits an integer field becomes 0. Memo fields store the text
/// in the memo file at once: number bytes of it when number is above 0, else up to its zero byte.
void SetValue(DbfBase*, int field, const char* text, double number);
/// Copies text into the field, cut to its length; a shorter text does not pad the field.
void SetString(DbfBase*, int field, const char* text);
/// Stores T, F, Y or N, upper-cased, or a space for any other letter; returns the letter stored.
char SetLogical(DbfBase*, int field, char letter);
/// Stores T when the low byte of flag is non-zero, else F; returns the letter stored.
char SetBool(DbfBase*, int field, u32 flag);
///@}

// --------------------------------------------------------------------------------------------
/// @name Sorting and searching
/// A sort orders the records of the current view in memory, by the texts of up to 21 fields and
/// then by position. It overwrites RecordBuffer and TextBuffer.
///@{
// --------------------------------------------------------------------------------------------

/// Sorts by fields, names separated by ";, \t\n\r". callback, which may be null, is called after
/// every comparison and stops the sort, leaving the table unsorted. 0 when the first name is
/// unknown or memory runs out; 1 otherwise, also when stopped.
int SortBase(DbfBase*, const char* fields, StopCallback callback);
/// Goes back to the unsorted view.
void ClearSort(DbfBase*);
/// Parses a list of at most 21 field names into slots; 1 when the first is unknown, else 0.
int get_fields(DbfBase*, const char* text, u32* count, i32* slots);
/// Number of the table field of a name, in any letter case; 4294967295 when there is none.
u32 GetFieldNum(DbfBase*, const char* name);
/// Builds the sorted positions by SortKeyFields; stores them where order points, null on failure.
void real_sort(DbfBase*, u32** order, StopCallback callback);
/// Compares the records at the positions (u32) that a and b point to, while a sort runs.
int Compare(const void* a, const void* b, DbfBase*);
/// Builds the sort key of the current record into key (65536 bytes); record is not used.
void GetCompStr(u32 record, char* key, DbfBase*);
/// Quicksort of count elements of width bytes; stops when the handle's SortRecA is -1.
void myqsort(void* base, u32 count, u32 width, CompareFunction compare, DbfBase*);
/// Selection sort of the elements from low to high, both included.
void shortsort(char* low, char* high, u32 width, CompareFunction compare, DbfBase*);
/// Exchanges width bytes.
void myswap(char* a, char* b, u32 width);
/// Bisects the current order, which must be ascending by field, for a field text (as GetStr shows
/// it) that begins with text. Returns its position; else -1 when exact is non-zero, or the position
/// where the search ended. Negative numbers are not found: their texts sort otherwise.
i32 SeekValue(DbfBase*, int field, const char* text, char exact);
///@}

// --------------------------------------------------------------------------------------------
/// @name Memo files
/// Memos returned are zero-terminated and belong to the caller, who calls free. The per-format
/// operations work on MemoFile, open and at its start.
///@{
// --------------------------------------------------------------------------------------------

/// Path of the memo file of a table of a kind; the caller calls free.
char* GetMemoName(const char* tablePath, u32 kind);
/// Memo kind of the table; sets MemoFileName.
u32 GetMemoType(DbfBase*);
/// Block unit of the memo file in bytes; 0 when it cannot be opened or waits for Pack to finish.
u32 GetBlockSize(DbfBase*);
/// Block unit from a dBase IV header; 256 when the header is short.
u32 dBase4_BlockSize(DbfBase*);
/// Block unit from a FoxPro header; 256 when the header is short.
u32 FoxPro_BlockSize(DbfBase*);
/// Block unit from an SMT header; 256 when the header is short.
u32 SMT_BlockSize(DbfBase*);
/// Writes an empty memo file over the one of a table, for a source of Visual FoxPro (.scx and the
/// like) under its own extension. blockSize in bytes, at most 65535, 0 for 512.
int CreateMemoFile(const char* tablePath, u32 kind, u32 blockSize);
/// Places MemoFile at byte unit * block.
int SeekMemo(DbfBase*, u32 unit, u32 block);
/// Places MemoFile at byte 0.
int SeekMemoZero(DbfBase*);
/// The memo of a field of the current record as text; null when there is none or it cannot be read
/// (GetStr says "Full memo" in the second case).
char* GetMemo(DbfBase*, i32 field);
/// The memo's bytes, their count stored in length; null as for GetMemo.
char* GetMemoBuf(DbfBase*, i32 field, u32* length);
/// Releases MemoBuffer.
void FreeMemo(DbfBase*);
/// Text of a dBase III memo, at most 65535 bytes.
char* Get_dBase3(DbfBase*, u32 block);
/// Text of a dBase IV memo.
char* Get_dBase4(DbfBase*, u32 block);
/// Text of a FoxPro memo.
char* Get_FoxPro(DbfBase*, u32 block);
/// Null: the length of an SMT memo stands in the record, see Get_SMTBuf.
char* Get_SMT(DbfBase*, u32 block);
/// Bytes of a dBase IV memo, their count stored in length.
char* Get_dBase4Buf(DbfBase*, u32 block, u32* length);
/// Bytes of a FoxPro memo, their count stored in length.
char* Get_FoxProBuf(DbfBase*, u32 block, u32* length);
/// length bytes of an SMT memo; the count read is stored in length.
char* Get_SMTBuf(DbfBase*, u32 block, u32* length);
/// Appends a text to the memo file and puts its reference into RecordBuffer; 0 for an empty text.
int SetMemo(DbfBase*, u32 field, const char* text);
/// Appends length bytes likewise; 0 for none.
int SetMemoBuf(DbfBase*, u32 field, const char* bytes, u32 length);
/// Appends a dBase III memo; returns its block, 0 on failure.
u32 Set_dBase3(DbfBase*, const char* text);
/// Appends a dBase IV memo; returns its block, 0 on failure.
u32 Set_dBase4(DbfBase*, const char* text);
/// Appends a FoxPro memo; returns its block, 0 on failure.
u32 Set_FoxPro(DbfBase*, const char* text);
/// Appends an SMT memo; returns its block, 0 on failure.
u32 Set_SMT(DbfBase*, const char* text);
/// Appends length bytes as a dBase III memo; returns its block, 0 on failure.
u32 Set_dBase3Buf(DbfBase*, const char* bytes, u32 length);
/// Appends length bytes as a dBase IV memo; returns its block, 0 on failure.
u32 Set_dBase4Buf(DbfBase*, const char* bytes, u32 length);
/// Appends length bytes as a FoxPro memo; returns its block, 0 on failure.
u32 Set_FoxProBuf(DbfBase*, const char* bytes, u32 length);
/// Appends length bytes as an SMT memo; returns its block, 0 on failure.
u32 Set_SMTBuf(DbfBase*, const char* bytes, u32 length);
///@}

// --------------------------------------------------------------------------------------------
/// @name Arithmetic expressions
///@{
// --------------------------------------------------------------------------------------------

/// Value of an arithmetic text of at most 79 characters, which is upper-cased in place. On failure
/// 0.0, with *status set to 0; *status is never set to anything else.
double parse(char* text, int* status);
/// parse.
double Evaluate(char* text, int* status);
///@}

// --------------------------------------------------------------------------------------------
/// @name String functions and code pages
/// Each function rewrites its argument in place and returns it.
///@{
// --------------------------------------------------------------------------------------------

/// Replaces every call of a string function in text by its result; returns text.
char* StrEval(char* text, DbfBase*);
/// Removes blanks at both ends.
char* Trim(char* argument, DbfBase*);
/// Removes blanks at the beginning.
char* LTrim(char* argument, DbfBase*);
/// Removes blanks at the end.
char* RTrim(char* argument, DbfBase*);
/// "text,start[,length]": a part of text; the first character is 0.
char* SubStr(char* argument, DbfBase*);
/// "text,count": the first count characters.
char* StrLeft(char* argument, DbfBase*);
/// "text,count": the last count characters.
char* StrRight(char* argument, DbfBase*);
/// A date or date-time written in DateFormat, as yyyymmdd or yyyymmddhhmmss.
char* DtoS(char* argument, DbfBase*);
/// The argument unchanged.
char* Space(char* argument, DbfBase*);
/// The argument unchanged.
char* Replicate(char* argument, DbfBase*);
/// Upper case, a to z.
char* UpperMy(char* argument, DbfBase*);
/// Lower case, A to Z.
char* LowerMy(char* argument, DbfBase*);
/// First letter of every word in upper case, the others in lower case.
char* CapitalizeMy(char* argument, DbfBase*);
/// Converts length bytes from code page 866 to 1251; source may be destination.
void OemToCharBuff(const char* source, char* destination, u32 length);
/// Converts length bytes from code page 1251 to 866; source may be destination.
void CharToOemBuff(const char* source, char* destination, u32 length);
/// Next token of text, or of the text given last when null; null when none is left. Writes zero
/// bytes into the text; the state is per thread.
char* mirastrtok(char* text, const char* delimiters);
///@}

// --------------------------------------------------------------------------------------------
/// @name Calculated fields
/// The application creates the table and releases it before CloseBase.
///@{
// --------------------------------------------------------------------------------------------

/// Gives the handle an empty table of calculated fields, releasing an old one.
int GetMemCalcField(DbfBase*);
/// Releases the table of calculated fields.
void FreeMemCalcField(DbfBase*);
/// Adds a field in the lowest empty slot from FieldCount on; both texts are copied.
int AddCalcField(DbfBase*, const char* name, const char* expression);
/// Removes the field of a name.
void DelCalcField(DbfBase*, const char* name);
/// Removes the field in a slot.
void DelCalcFieldI(DbfBase*, int slot);
/// Slot of the field of a name, in any letter case; -1 when there is none.
int GetCalcI(DbfBase*, const char* name);
/// if_digit_calci of the field of a name.
char if_digit_calc(DbfBase*, const char* name);
/// 1 when a numeric table field stands between blanks and + - * / ( ), in quotes or not.
char if_digit_calci(DbfBase*, int slot);
/// GetCalcStringI of the field of a name.
const char* GetCalcString(DbfBase*, const char* name);
/// Value as text in TextBuffer; null when it has none.
const char* GetCalcStringI(DbfBase*, int slot);
/// GetCalcValueI of the field of a name.
double GetCalcValue(DbfBase*, const char* name);
/// Value as a number; 0.0 when it has none.
double GetCalcValueI(DbfBase*, int slot);
/// Writes the current record's values into an expression. output holds 32768 bytes; *numeric
/// becomes 1 when a numeric field was written. Returns the position in output of the first
/// operator outside quotes, -1 when there is none.
int makecalcstring(DbfBase*, const char* expression, char* output, int* numeric);
/// Removes surplus parentheses at the very beginning or end of text.
void CheckBrackets(DbfBase*, char* text);
///@}

// --------------------------------------------------------------------------------------------
/// @name Record filters
/// ValidRecord, analizator, eval and cnd work on the work area of set_filter.
///@{
// --------------------------------------------------------------------------------------------

/// Keeps the records of the current view that satisfy text; null applies FilterText again, the
/// pointer value -1, reinterpret_cast<const char*>(std::intptr_t{-1}), takes every record (but no
/// deleted one while SkipDeleted is set). Drops the sort order. callback, which may be null, is
/// called after each record; when it stops the run, the table is unfiltered. Returns the handle;
/// null, with nothing changed, when there is no text, the text exceeds the work area, or memory
/// runs out.
DbfBase* set_filter(DbfBase*, const char* text, StopCallback callback);
/// 1 when the record in RecordBuffer satisfies text.
int ValidRecord(DbfBase*, const char* text);
/// Finds the connectives of text; returns the number of conditions, 0 for unbalanced parentheses.
int analizator(DbfBase*, const char* text);
/// Evaluates PieceText into LogicText and appends the connective.
void eval(DbfBase*, char connective);
/// '1' when the current record satisfies one condition, else '0'.
char cnd(DbfBase*, const char* condition);
/// Goes back to the unfiltered, unsorted view; FilterText stays.
void ClearFilter(DbfBase*);
/// ClearFilter, and forgets FilterText.
void ClearAllFilter(DbfBase*);
/// A new block of count * 8 bytes; the caller calls free.
void* ExternalFilter(DbfBase*, u32 count);
///@}

// --------------------------------------------------------------------------------------------
/// @name Exact facts and values
/// What the texts and results above cannot carry. Values are those of the record in RecordBuffer.
/// What pointers lead to is filled in only when the result is not 0, unless said otherwise.
///@{
// --------------------------------------------------------------------------------------------

/// How the values of a field are encoded.
enum class FieldClass : u8 {
    None,      ///< bytes of unknown meaning
    Text,      ///< C, V, Q: characters
    System,    ///< 0: bits that belong to other fields
    Logical,   ///< L
    Date,      ///< D
    Moment,    ///< T and \@, see GetMoment
    Decimal,   ///< N, F: decimal text
    Integer,   ///< I, +
    Double,    ///< O, and B of length 8
    Currency,  ///< Y
    Memo       ///< M, G, B of length 10, W and P of length 4 or 10: see GetMemoReference
};

/// The class of a field by its letter and length; None also for calculated fields.
FieldClass GetFieldClass(DbfBase*, int field);
/// Descriptor byte 18 as the file has it: in Visual FoxPro 1 system field, 2 may be null, 4 binary,
/// 12 counts by itself; in other tables it means nothing. 0 in level 7, whose descriptors have no
/// flags, and when it cannot be read.
u32 GetFieldFlags(DbfBase*, int field);
/// "dBase III", "FoxPro", "dBase IV", "Visual FoxPro", "SMT", "level 7", or "dBase family" for
/// every other version. A constant, never null.
const char* GetFlavourName(DbfBase*);
/// The kind of CreateDatabase that the flavour has; 4294967295 for a version that has none.
u32 GetFlavourKind(DbfBase*);
/// The kind whose memos are stored as the table's are: 0, 1 (also for Visual FoxPro), 2 or 4;
/// 4294967295 when memos of its version are neither read nor written.
u32 GetMemoKind(DbfBase*);
/// Day number (1721060 for 0000-01-01, 5373484 for 9999-12-31) and milliseconds since midnight of a
/// T or "@" field in any encoding. 0 when it is blank or its bytes are no moment of these years;
/// of digits, all 14 have to be there.
int GetMoment(DbfBase*, int field, i32* day, i32* milliseconds);
/// Stores a moment in a T or "@" field. 0, with nothing stored, when it is none, or one that the
/// field cannot hold: parts of a second in digits, year 0 in level-7 tables of other makers.
int SetMoment(DbfBase*, int field, i32 day, i32 milliseconds);
/// A Y field in ten-thousandths; 0 for other fields.
int GetCurrencyUnits(DbfBase*, int field, i64* tenThousandths);
/// Stores ten-thousandths in a Y field; 0 for other fields and one shorter than 8 bytes.
int SetCurrencyUnits(DbfBase*, int field, i64 tenThousandths);
/// The block that a field of class Memo refers to and, in SMT tables, the length of the memo, else
/// 0. The result is 0 when there is no reference: *block is 0 where the field is blank, and
/// 4294967295 where its bytes are no reference.
int GetMemoReference(DbfBase*, int field, u32* block, u32* length);
/// Where the data of a memo lies in the memo file: its first byte, and the one after its last as
/// the memo says, without prefix and end mark. 1 when the file holds all of it, 2 when the end of
/// the file cuts it (*end is past it then), 0, with both places 0, when the reference leads to no
/// memo or it cannot be read. A dBase III memo without an end mark ends with the file. Looks into
/// MemoFile where the caller keeps it open.
int GetMemoSpan(DbfBase*, u32 block, u32 length, u64* first, u64* end);
/// The same in a memo file that the caller has opened; null for the table's own.
int GetMemoSpanIn(DbfBase*, std::FILE* memos, u32 block, u32 length, u64* first, u64* end);
/// Stores a reference in a field of class Memo; length counts in SMT tables only. 0 when it does
/// not fit.
int SetMemoReference(DbfBase*, int field, u32 block, u32 length);
/// Appends a memo, which may have no bytes, to a memo file of the table's that the caller has
/// opened for writing. Its block; 0 on failure.
u32 AppendMemo(DbfBase*, std::FILE* memos, const char* bytes, u32 length);

/// One memo file format. A memo of n bytes is [prefix] data [end byte 1A] from the start of a
/// block; block b starts at byte b * unit. The file begins with the number of the next free block.
struct MemoLayout {
    u32 headerSize = 0;             ///< bytes at the start of the file that hold counter and unit
    u32 firstPlace = 0;             ///< no memo begins before this byte, whoever made the file
    u32 unitPlace = 0;              ///< offset of the 16-bit unit; 0: the unit is 512 bytes
    bool bigEndian = false;         ///< byte order of counter, unit and length
    bool shortHeaderReads = false;  ///< readers take 256 for the unit when the header is short
    u32 prefixSize = 0;             ///< bytes before the data: 8 or 0
    u8 mark[4] = {};                ///< first half of the prefix; the second is the length
    u32 markChecked = 0;            ///< bytes of the mark that a reader insists on
    u32 lengthBias = 0;             ///< what the stored length counts besides the data
    u32 endSize = 0;                ///< end bytes after the data: 1 or 0
    u32 signaturePlace = 0;         ///< where signature goes in a new header
    u32 signatureSize = 0;          ///< its bytes
    char signature[9] = "";         ///< such as it is, with a zero byte behind
};
/// How the memo files of a kind, as GetMemoKind gives it, are laid out. A constant; null for a kind
/// without memos.
const MemoLayout* GetMemoLayout(u32 kind);

/// The day number of a date, as GetMoment counts; 0 when it is none of the years 0 to 9999.
i32 GetDayNumber(int year, int month, int day);
/// The date of a day number; 0 for one outside these years.
int GetDayDate(i32 number, int* year, int* month, int* day);
/// Sets the day of the last update to today, as WriteHeader does.
void StampHeader(DbfHeader*);
/// The fixed header as it stands in a file: 68 bytes, of which a table below level 7 has 32.
void GetHeaderBytes(const DbfHeader*, u8* bytes);
/// 1 for a level-7 table of another maker: integers have a sign, moments of 8 bytes are a double.
int IsOtherLevel7(DbfBase*);

/// Gives a field another name in this handle, by which it is found from then on; cut to 31 bytes.
void SetFieldName(DbfBase*, int field, const char* name);
/// Adds, for this handle alone, a C field of one character behind the record and those added
/// before: what AfterRead puts there, filters and expressions see. No record may be written and no
/// field counted on until DropTestFields has taken them all away. Its place in RecordBuffer; 0
/// when there is no room.
u32 AddTestField(DbfBase*, const char* name);
void DropTestFields(DbfBase*);  ///< takes all fields of AddTestField away
/// Makes the physical records from first up to end the view, as a filter would that only they
/// satisfy; FilterText stays. Drops the sort order. 0 without memory.
int ViewRecords(DbfBase*, u32 first, u32 end);

/// Why a filter does not run as it is meant, and where that is in its text.
enum class FilterFault : u8 {
    None,
    NoOperator,          ///< the condition, empty beside a connective without one
    UnknownField,        ///< what stands left of an operator and is no table field; may be empty
    ComposedLeft,        ///< the condition that has more than one bare name left of its operator
    Brackets,            ///< the parenthesis without a partner, the quoted text with one in it that
                         ///< counts, too, or the text whose groups cannot be computed
    Quotes,              ///< from the quote that is not closed to the end
    ConnectiveInQuotes,  ///< "&" or "|", which connect conditions inside quotes, too
    TooLong,             ///< the condition that is too long with its values, or the whole text
    Memory
};
/// Checks a filter without running it: text as for set_filter. 1, with fault None, when nothing is
/// wrong with it; else 0, with the first fault and the bytes from *first up to *end that it is
/// about. A constant left of an operator is no fault.
int CheckFilter(DbfBase*, const char* filter, FilterFault* fault, u32* first, u32* end);
/// A condition of a filter, numbered from 0 from left to right: the field that its left side names,
/// a calculated one, which filters do not know, included, and -1 for any other left side; the place
/// of its operator, of what follows that, and of its end (signFirst, rightFirst and end are the
/// same without an operator). 0 when there is no condition of that number.
int GetFilterCondition(DbfBase*, const char* filter, u32 number, int* field, u32* signFirst,
                       u32* rightFirst, u32* end);
/// The characters that the comparing operators of filters begin with. A constant.
const char* GetFilterSigns();
/// 1 when a name, in any letter case and without a parenthesis, is that of a function in texts or
/// arithmetic.
int IsFunction(const char* name);
/// Whether the table or its memo file has the log of an interrupted Pack, which the next Pack
/// finishes: 1 yes, 0 no, -1 cannot be told (a file cannot be opened or read); whatever refuses to
/// work while there is one refuses then, too.
int IsPackUnfinished(DbfBase*);
///@}

}  // namespace mira

#if defined(__GNUC__)
#pragma GCC visibility pop
#endif

#endif  // MIRA_H
