// Reading header and descriptors of a table file, and the repairs made to what does not add up.
#include <algorithm>
#include <cstring>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kDetectSize = 128;  // a level-7 table has at least its header and one descriptor
constexpr u32 kDetectByte = 64;

constexpr u32 kReadableFields = 2047;

void setSizes(DbfBase* h, bool level7) {
    h->HeaderSize = level7 ? kHeaderSize7 : kHeaderSize;
    h->DescriptorSize = level7 ? kDescriptorSize7 : kDescriptorSize;
}

/// False when the beginning of the file cannot be read, or not be gone back to.
bool detectLevel7(DbfBase* h) {
    u8 start[kDetectSize] = {};
    const u32 got = ReadFile(h->TableFile, start, kDetectSize);
    if (got == kDetectSize && start[kDetectByte] == 0) h->Level7 = 1;
    return seekTo(h->TableFile, 0) && std::ferror(h->TableFile) == 0;
}

/// Raw descriptors, whole ones only.
struct Descriptors {
    Owned<u8> bytes;
    u32 size;  ///< of one
    u32 count = 0;
    bool anyRead = false;

    const u8* at(u32 i) const { return bytes.get() + std::size_t{i} * size; }
};

/// A descriptor that starts beyond the header length ends the list, so no more are read.
Descriptors readDescriptors(DbfBase* h) {
    const u32 wanted = std::min(kReadableFields, h->Header.HeaderLength / h->DescriptorSize + 1) *
                       h->DescriptorSize;
    Descriptors list{allocate<u8>(wanted), h->DescriptorSize};
    if (!list.bytes) return list;
    const u32 got = ReadFile(h->TableFile, list.bytes.get(), static_cast<i32>(wanted));
    list.anyRead = got != 0;
    list.count = got / list.size;
    return list;
}

/// The first descriptors of a list, and the record lengths that they add up to.
struct FieldList {
    u32 count;
    bool foreign;  ///< read as other makers of level-7 tables have it
    u32 full = 1;  ///< with decimal bytes of character fields as high bytes
    u32 low = 1;   ///< with length bytes alone
};

FieldList addUp(const Descriptors& list, u32 count, bool foreign) {
    FieldList fields{count, foreign};
    for (u32 i = 0; i < count; ++i) {
        const DbfField f = decodeDescriptor(list.at(i), list.size, foreign);
        fields.full += fieldLength(f);
        fields.low += f.Length;
    }
    return fields;
}

bool fitsHeader(const DbfBase* h, const FieldList& fields) {
    return h->Header.RecordLength == fields.full || h->Header.RecordLength == fields.low;
}

/// Level-7 tables of other makers carry their lengths one byte earlier; the record length tells.
FieldList measure(const DbfBase* h, const Descriptors& list, u32 count) {
    const FieldList fields = addUp(list, count, false);
    const bool mayBeForeign = list.size == kDescriptorSize7 && h->Header.RecordLength > 1;
    if (!mayBeForeign || fitsHeader(h, fields)) return fields;
    const FieldList foreign = addUp(list, count, true);
    return h->Header.RecordLength == foreign.low ? foreign : fields;
}

/// True when the records that the header tells of end where the file does, but for the end byte.
bool headerFitsFile(const DbfBase* h, u64 size) {
    const DbfHeader& header = h->Header;
    const u64 end = Calc64(header.RecordLength, header.RecordCount, header.HeaderLength);
    return size == end || size == end + 1;
}

/// The list up to its terminator, or to the first descriptor that starts beyond the header length.
FieldList listToTerminator(const DbfBase* h, const Descriptors& list) {
    u32 count = 0;
    while (count < list.count && list.at(count)[0] != kTerminator &&
           count * list.size <= h->Header.HeaderLength) {
        ++count;
    }
    return measure(h, list, count);
}

bool takesNothing(const Descriptors& list, u32 i) {
    return fieldLength(decodeDescriptor(list.at(i), list.size, false)) == 0 &&
           fieldLength(decodeDescriptor(list.at(i), list.size, true)) == 0;
}

/// The list up to the end of the header, where Visual FoxPro keeps zeros or the path of a database.
FieldList listToHeaderEnd(const DbfBase* h, const Descriptors& list) {
    u32 count = std::min(list.count, (h->Header.HeaderLength - h->HeaderSize) / list.size);
    while (count != 0 && takesNothing(list, count - 1)) --count;
    return measure(h, list, count);
}

/// A terminator that is damaged or missing shows in a record length that is not the header's. The
/// list ends with the header then, provided that everything fits there.
FieldList chooseList(const DbfBase* h, const Descriptors& list, u64 fileSize) {
    const FieldList usual = listToTerminator(h, list);
    if (fitsHeader(h, usual) || !headerFitsFile(h, fileSize)) return usual;
    const FieldList whole = listToHeaderEnd(h, list);
    return whole.count != 0 && fitsHeader(h, whole) ? whole : usual;
}

/// Assigns offsets and the members that depend on the types. Returns valid letters minus invalid
/// ones. *recordLength becomes 1 plus all field lengths.
int placeFields(DbfBase* h, u32* recordLength) {
    int balance = 0;
    u32 offset = 1;
    for (int i = 0; i < h->FieldCount; ++i) {
        DbfField& f = h->Fields[i];
        balance += ValidField(f.Type) != 0 ? 1 : -1;
        if (h->FirstMemoField == -1 && if_memo_type(h, i) != 0) h->FirstMemoField = i;
        if (f.Type == 'C' && h->HighLength != 0) f.Decimals = 0;
        f.Offset = static_cast<u16>(offset);
        offset += fieldLength(f);
        h->FieldMap[i] = i;
    }
    *recordLength = offset;
    return balance;
}

/// Descriptors to Fields. False when they make no table that can be opened.
bool decodeFields(DbfBase* h, const Descriptors& list, u64 fileSize) {
    const FieldList fields = chooseList(h, list, fileSize);
    if (fields.foreign && keepPrivate(h) == nullptr) return false;
    if (h->Private != nullptr) h->Private->foreignLevel7 = fields.foreign;
    h->FieldCount = static_cast<u16>(fields.count);
    for (u32 i = 0; i < fields.count; ++i) {
        h->Fields[i] = decodeDescriptor(list.at(i), list.size, fields.foreign);
    }
    const u32 headerSays = h->Header.RecordLength;
    h->HighLength = headerSays == fields.low && headerSays != fields.full ? 1 : 0;

    u32 recordLength = 0;
    const int balance = placeFields(h, &recordLength);
    if (recordLength > kRecordBufferSize) return false;
    h->Header.RecordLength = static_cast<u16>(recordLength);
    if (balance < 0) return false;
    if (h->FieldCount == 0 || balance != h->FieldCount) h->Status |= kStatusFieldTypes;
    return true;
}

bool allocateBuffers(DbfBase* h) {
    constexpr std::size_t recordSize = kRecordBufferSize + kBufferSlack;
    constexpr std::size_t textSize = kTextBufferSize + kBufferSlack;
    if (!h->RecordBuffer) h->RecordBuffer = allocate<u8>(recordSize).release();
    if (!h->TextBuffer) h->TextBuffer = allocate<char>(textSize).release();
    if (!h->RecordBuffer || !h->TextBuffer) return false;
    h->TextBuffer[0] = 0;
    ClearRecord(h);
    // The decoders of a field shorter than its value look at what follows the record.
    std::memset(h->RecordBuffer + h->Header.RecordLength, 0, kBufferSlack);
    std::memset(h->RecordBuffer + kRecordBufferSize, 0, kBufferSlack);
    return true;
}

void repairVersion(DbfBase* h) {
    if ((h->Status & kStatusVersion) == 0) return;
    h->Header.Version = h->FirstMemoField != -1 ? kVersionFoxPro : kVersionPlain;
}

void repairRecordCount(DbfBase* h, u64 fileSize) {
    const u32 count = recordsInFile(h, fileSize);
    if (count != h->Header.RecordCount) h->Status |= kStatusRecordCount;
    h->Header.RecordCount = count;
}

void nameBackup(DbfBase* h) {
    Owned<char> name = allocate<char>(kBackupNameSize);
    if (!name) return;
    MakeExt(name.get(), h->FileName, ".bak", nullptr);
    if (name.get()[0] != 0) replace(h->BackupName, std::move(name));
}

}  // namespace

char readFields(DbfBase* h, bool fresh) {
    if (!fresh) std::memset(h->AliasNames, 0, sizeof h->AliasNames);
    if (h->Private != nullptr) h->Private->expressions.reset();  // they name the old fields
    const Descriptors list = readDescriptors(h);
    // What an error cuts short is not taken for a shorter table: the next write would ruin it.
    const std::optional<u64> size = fileSize(h->TableFile);
    const bool readable = size && std::ferror(h->TableFile) == 0;
    const bool opens =
        readable && list.anyRead && decodeFields(h, list, *size) && allocateBuffers(h);
    repairVersion(h);
    repairRecordCount(h, size.value_or(0));
    nameBackup(h);
    return opens ? 1 : 0;
}

void Level7Detect(DbfBase* h) {
    if (h->Level7 != 1) detectLevel7(h);  // a failure shows in the next read
    setSizes(h, h->Level7 == 1);
}

int ReadHeader(DbfBase* h) {
    if (h->TableFile == nullptr) return 0;
    std::clearerr(h->TableFile);
    if (h->Level7 != 1 && !detectLevel7(h)) return 0;
    setSizes(h, h->Level7 == 1);
    h->Status = 0;
    u8 image[sizeof(DbfHeader)] = {};
    if (!readExact(h->TableFile, image, h->HeaderSize)) return 0;
    decodeHeader(image, &h->Header);
    if (!acceptedVersion(h->Header.Version)) h->Status |= kStatusVersion;
    return h->Header.HeaderLength > h->HeaderSize + h->DescriptorSize ? 1 : 0;
}

char ReadFields(DbfBase* h) { return readFields(h, false); }

}  // namespace mira
