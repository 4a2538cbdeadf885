// Declarations shared by the files of the memo module: the four memo file formats as rows of one
// table, and the reading and appending that follow them.
#pragma once

#include <cstdio>
#include <cstring>

#include "dbf/table/flavour.h"
#include "dbf/table/packlog.h"
#include "dbf/table/private.h"
#include "dbf/value/reference.h"
#include "internal/bytes.h"
#include "internal/file.h"
#include "mira.h"

namespace mira {

inline constexpr u32 kFixedMemoUnit = 512;    // dBase III, never stored
inline constexpr u32 kMissingMemoUnit = 256;  // stands in for a unit that a short header lacks
inline constexpr u32 kMemoHeaderMin = 512;  // bytes of a new memo file, when its unit is no larger
inline constexpr u32 kMemoHeaderRead = 24;  // the most that a family reads of the header
inline constexpr u32 kMemoPrefixSize = 8;   // mark and length before the data
inline constexpr u8 kMemoEnd = 0x1A;        // ends a dBase III memo

using MemoFamily = MemoLayout;

extern const MemoFamily kDBase3Memo;
extern const MemoFamily kDBase4Memo;
extern const MemoFamily kFoxProMemo;
extern const MemoFamily kSmtMemo;

/// The family that the version byte selects for reading and writing; null: no memo format.
const MemoFamily* memoFamily(u8 version);
/// The family that a memo file of a kind is created in; null: no memo format.
const MemoFamily* memoFamilyOfKind(u32 kind);
/// Sources of Visual FoxPro (forms, classes, reports, labels, menus, projects) are tables whose
/// memo file has their own extension with a "t" at its end. Null for other tables.
Owned<char> sourceMemoName(const char* tablePath);

// read.cpp
enum class MemoRead {
    Found,
    None,   ///< the reference leads to no memo
    Failed  ///< no memory, or the file could not be read
};
inline constexpr u32 kMemoTextMax = 65535;  // the most that a dBase III memo read as text holds
inline constexpr u32 kMemoNoLimit = 0x7FFFFFFE;
/// Length of the data after a prefix; none when the bytes are not the prefix of a memo.
std::optional<u32> decodeMemoPrefix(const MemoFamily&, const u8* prefix);
/// Block unit from the beginning of a memo file; kMissingMemoUnit and false when that is short.
bool readMemoUnit(const MemoHead&, const MemoFamily&, u32* unit);
/// Reads the memo of a reference; *memo holds *length bytes and a zero byte. Blocks of no bytes
/// hold none. limit cuts memos that have an end byte in place of a length.
MemoRead readMemo(int file, const MemoFamily&, u32 unit, MemoReference, u32 limit,
                  Owned<char>* memo, u32* length);

// family.cpp
/// While one lives, this thread looks for memo files in other letter case by a hook. Null for the
/// hook: by reading the folder.
class FindingNames {
public:
    FindingNames(FindNameHook find, void* context);
    ~FindingNames();
    FindingNames(const FindingNames&) = delete;

private:
    FindNameHook findBefore_;
    void* contextBefore_;
};

// create.cpp
/// Bytes of a new memo file before its first memo, or up to a unit more.
u32 memoHeaderSize(u32 blockSize);
/// The first kMemoHeaderRead bytes of a new memo file, which all others of its header follow as
/// zeros.
void buildMemoHeader(const MemoFamily&, u32 unit, u8* header);

// write.cpp
/// The bytes before a memo's data; their number.
u32 encodeMemoPrefix(const MemoFamily&, u32 length, u8* to);
/// Appends a memo to a memo file and advances the counter. The block; 0 on failure.
u32 appendMemo(int file, const MemoHead&, const MemoFamily&, const char* bytes, u32 length);

inline u32 loadMemo32(const MemoFamily& family, const u8* from) {
    return family.bigEndian ? loadBe32(from) : loadLe32(from);
}
inline void storeMemo32(const MemoFamily& family, u8* to, u32 value) {
    family.bigEndian ? storeBe32(to, value) : storeLe32(to, value);
}

/// Block unit from the header bytes.
inline u32 memoUnit(const MemoFamily& family, const u8* header) {
    if (family.unitPlace == 0) return kFixedMemoUnit;
    const u8* from = header + family.unitPlace;
    return family.bigEndian ? loadBe16(from) : loadLe16(from);
}

/// Whether a file is the table itself, which then bears the name that its memo file would have.
inline bool isTable(const DbfBase* h, FileId file) {
    return file == (h->Private != nullptr ? h->Private->file : fileId(h->TableFile));
}

/// The memo file, open for as long as this lives, and its beginning. Not open also when it has the
/// log of an interrupted Pack, or that cannot be told.
class OpenMemoFile {
public:
    explicit OpenMemoFile(DbfBase*);
    ~OpenMemoFile() { shut(); }
    OpenMemoFile(const OpenMemoFile&) = delete;
    OpenMemoFile& operator=(const OpenMemoFile&) = delete;

    explicit operator bool() const { return descriptor_ >= 0; }
    int descriptor() const { return descriptor_; }
    const MemoHead& head() const { return head_; }

private:
    void shut();

    int descriptor_;
    MemoHead head_;
};

}  // namespace mira
