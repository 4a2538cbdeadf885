// An open table and its columns: what the header, the descriptors and the container say, in UTF-8.
//
// The library opens, repairs and decodes; what it does not tell (descriptor flags, null flags, the
// back link) is read here from the same file.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mira.h"
#include "tables/column/kind.h"
#include "tables/page/codepage.h"

namespace mira::tables {

class NamelessFile;

struct BaseCloser {
    void operator()(DbfBase* base) const {
        FreeMemCalcField(base);
        CloseBase(base);
    }
};
using Base = std::unique_ptr<DbfBase, BaseCloser>;

/// What the memo file of a table looks like, by the library's numbers; TableFacts::memos is its
/// layout.
enum class MemoFormat : u32 { DBase3 = 0, FoxPro = 1, DBase4 = 2, Smt = 4, None = 0xFFFFFFFF };

/// Which records are shown.
enum class Deleted : u8 { Skip, Include, Only };
constexpr std::pair<const char*, Deleted> kDeletedWords[] = {
    {"skip", Deleted::Skip}, {"include", Deleted::Include}, {"only", Deleted::Only}};

constexpr i32 kNoBit = -1;
constexpr int kNoField = -1;

/// One column. Names are UTF-8 and differ from each other, also with letter case aside.
struct Column {
    std::string name;
    int field = kNoField;  // number for the library; also that of a calculated field
    Kind kind = Kind::Bytes;
    FieldClass stored = FieldClass::None;  // how the library says that its values are encoded
    char type = 0;                         // letter
    u32 offset = 0, length = 0;            // bytes in RecordBuffer
    u8 decimals = 0;
    u8 flags = 0;                // descriptor byte 18 in Visual FoxPro, else 0; kSystem and others
    bool untranslated = false;   // C, V or M whose bytes are in no code page
    bool numeric = false;        // a calculated field that is arithmetic
    bool exactText = false;      // numbers go into a database as text; see TableOptions::exact
    bool foreignMoment = false;  // "@" as other makers of level-7 tables store it: a double
    i32 lengthBit = kNoBit;      // bits in the null flags
    i32 nullBit = kNoBit;
    u32 nextValue = 0, step = 0;  // of a counting field
    bool mayBeNull() const { return nullBit != kNoBit; }
};

// Descriptor byte 18.
constexpr u8 kSystem = 1;
constexpr u8 kNullable = 2;
constexpr u8 kBinary = 4;
constexpr u8 kCounting = 8;

struct TableOptions {
    std::string codePage{};             // empty: what the table says
    std::vector<std::string> asText{};  // names of binary fields that hold text after all
    bool longNames = false;             // names from the database container
    bool raw = false;                   // texts and numbers as stored
    bool exact = false;  // what may have more digits than a double goes into a database as text
    bool writable = false;
    bool reindex = false;  // a change of records makes the index beside the table anew, in SQL
};

/// What is known of a table besides its handle.
struct TableFacts {
    std::string path;
    TableOptions options;
    PageChoice page;
    std::string_view flavour;  // "Visual FoxPro", by the repaired version byte
    bool visual = false;       // Visual FoxPro: descriptor flags and null flags count
    MemoFormat memoFormat = MemoFormat::None;
    const MemoLayout* memos = nullptr;  // null: memos are neither read nor written
    u8 storedVersion = 0;               // version byte as it stands in the file
    u8 tableFlags = 0;                  // header byte 28
    bool hasMemos = false;              // some field may refer to one
    u32 storedCount = 0;                // records by the header, before repairs
    u32 storedLength = 0;               // record length by the header, likewise
    u64 fileSize = 0;
    u32 heldRecords = 0;  // that the file has room for; the handle counts those that are some
    u64 strayBytes = 0;   // from the first that is none to the end of the file; 0: all are some
    std::vector<Column> columns;  // those that are shown, in field order, calculated ones last
    std::vector<Column> system;   // the others: system fields and those of type 0
    u32 nullOffset = 0, nullLength = 0;  // the null flags in the record; length 0: none
    std::string container;               // database container of the back link; empty: none
    std::vector<std::string> notes;      // what the user should know, a sentence each
    /// Of a table in an archive: its file and its memo file, unpacked, and the memo file's path
    /// there.
    std::vector<std::shared_ptr<const NamelessFile>> unpacked;
    std::string memoPath;
};

struct Table : TableFacts {
    Base base;
};

/// Whether the column counts by itself.
bool isCounting(const Column& column);

/// What a column holds, also where it is shown as stored.
Kind heldKind(const Column& column);
/// Whether that is numbers.
inline bool isOfNumbers(const Column& column) {
    return kindRow(heldKind(column)).compared == Compared::Numbers;
}
/// Whether its values are characters that can be shown as they are stored.
bool isOfDigits(const Column& column, Kind kind);

/// The column of a name in any letter case, or of a number (fields from 1) where no name fits.
const Column* findColumn(const Table& table, std::string_view name);
/// The same; throws a Refusal with the nearest name.
const Column& columnNamed(const Table& table, std::string_view name);

/// The name under which the library finds a column: at most ten letters, digits, "_".
std::string_view libraryName(const Table& table, const Column& column);

/// A column that is no field; the name gets underscores in front while a field has it.
Column extraColumn(const Table& table, std::string name, Kind kind);

/// Reads a physical record, from 0, into RecordBuffer. Throws a Refusal.
void readRecord(const Table& table, u32 record);
/// Reads whole physical records from first, as many of count as the file holds; returns their
/// number. RecordBuffer stays as it is.
u32 readRecords(const Table& table, u32 first, u32 count, void* to);
/// Whether the record in RecordBuffer is marked deleted.
inline bool isDeleted(const Table& table) { return table.base->RecordBuffer[0] == '*'; }

/// The memo file, there or not; empty when no field needs one.
std::string memoFileOf(const Table& table);

/// Whether the table's name leads to another file by now, or to none: what is written through the
/// handle would be lost, and the memo file may be that one's.
bool isReplaced(const Table& table);

/// Bytes of a file, through the library's wrappers; how many were read.
u32 readFileAt(std::FILE* file, u32 offset, void* to, u32 count);
/// False when not all of them could be written.
bool writeFileAt(std::FILE* file, u32 offset, const void* bytes, u32 count);

}  // namespace mira::tables
