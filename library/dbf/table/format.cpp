// Reading header and descriptors of a table file, and the repairs made to what does not add up.
#include <algorithm>
#include <cstring>

#include "dbf/table/movelog.h"
#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kDetectSize = 128;  // a level-7 table has at least its header and one descriptor
constexpr u32 kDetectByte = 64;
// A header of these lengths holds one 32-byte descriptor, or two without a terminator.
constexpr u32 kShortHeaderMin = 65;
constexpr u32 kShortHeaderMax = 96;

constexpr u32 kReadableFields = 2047;
constexpr u64 kFileSlack = 2;  // bytes by which records may miss the end of the file

void detectLevel7(DbfBase* h, const u8* start, u32 count) {
    if (h->Level7 != 1 && count >= kDetectSize && start[kDetectByte] == 0) {
        DbfHeader header;
        decodeHeader(start, &header);
        const bool tooShort = header.HeaderLength >= kShortHeaderMin &&  //
                              header.HeaderLength <= kShortHeaderMax;
        if (!tooShort) h->Level7 = 1;
    }
    h->HeaderSize = h->Level7 == 1 ? kHeaderSize7 : kHeaderSize;
    h->DescriptorSize = h->Level7 == 1 ? kDescriptorSize7 : kDescriptorSize;
}

/// Raw descriptors, whole ones only.
struct Descriptors {
    u32 size;  ///< of one
    u64 fileSize = 0;
    u32 bytesRead = 0;
    u32 count = 0;
    const u8* bytes = nullptr;
    Owned<u8> memory = nullptr;  ///< where the start of the file does not hold them

    const u8* at(u32 i) const { return bytes + std::size_t{i} * size; }
};

/// A descriptor that starts beyond the header length ends the list, so no more are read. Without a
/// start they are what follows in the stream.
Descriptors readDescriptors(DbfBase* h, const TableStart* start) {
    const u32 wanted = std::min(kReadableFields, h->Header.HeaderLength / h->DescriptorSize + 1) *
                       h->DescriptorSize;
    Descriptors list{h->DescriptorSize, start != nullptr ? start->fileSize : 0};
    const u32 held = start != nullptr ? start->count - h->HeaderSize : 0;
    if (start != nullptr && (held >= wanted || start->count < sizeof start->bytes)) {
        list.bytes = start->bytes + h->HeaderSize;
        list.bytesRead = std::min(held, wanted);
    } else {
        list.memory = allocate<u8>(wanted);
        if (!list.memory) return list;
        if (held != 0) std::memcpy(list.memory.get(), start->bytes + h->HeaderSize, held);
        list.bytes = list.memory.get();
        list.bytesRead = held + ReadFile(h->TableFile, list.memory.get() + held,
                                         static_cast<i32>(wanted - held));
    }
    list.count = list.bytesRead / list.size;
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

/// Where records of a length end that are as many as the header says.
u64 endOfRecords(const DbfBase* h, u32 length) {
    return Calc64(length, h->Header.RecordCount, h->Header.HeaderLength);
}

/// Whether records of a length end where the file does, give or take two bytes.
bool fitsFile(const DbfBase* h, u32 length, u64 fileSize) {
    const u64 end = endOfRecords(h, length);
    return end <= fileSize + kFileSlack && fileSize <= end + kFileSlack;
}

/// Level-7 tables of other makers carry their lengths one byte earlier; the record length tells, or
/// else the size of the file.
FieldList measure(const DbfBase* h, const Descriptors& list, u32 count) {
    const FieldList fields = addUp(list, count, false);
    if (list.size != kDescriptorSize7 || fitsHeader(h, fields)) return fields;
    const FieldList foreign = addUp(list, count, true);
    const bool fits =
        h->Header.RecordLength == foreign.low ||
        (fitsFile(h, foreign.low, list.fileSize) && !fitsFile(h, fields.full, list.fileSize));
    return foreign.low > 1 && fits ? foreign : fields;
}

/// True when the records that the header tells of end where the file does, but for end bytes.
bool headerFitsFile(const DbfBase* h, u64 fileSize, u64 endBytes) {
    const u64 end = endOfRecords(h, h->Header.RecordLength);
    return fileSize >= end && fileSize <= end + endBytes;
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

/// A list that fills the header, with records behind it where others have a terminator. None when
/// a name, a type letter, the record length or the size of the file speaks against it.
std::optional<FieldList> listWithoutTerminator(const DbfBase* h, const Descriptors& list) {
    const u32 size = h->Header.HeaderLength - kHeaderSize;
    const u32 count = size / kDescriptorSize;
    if (list.size != kDescriptorSize || size % kDescriptorSize != 0 || count == 0 ||
        count > list.count || !headerFitsFile(h, list.fileSize, 1)) {
        return std::nullopt;
    }
    for (u32 i = 0; i < count; ++i) {
        const char letter = decodeDescriptor(list.at(i), list.size, false).Type;
        if (list.at(i)[0] == kTerminator || ValidField(letter) == 0) return std::nullopt;
    }
    const FieldList fields = addUp(list, count, false);
    return fitsHeader(h, fields) ? std::optional(fields) : std::nullopt;
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
FieldList chooseList(const DbfBase* h, const Descriptors& list) {
    if (const auto filling = listWithoutTerminator(h, list)) return *filling;
    const FieldList usual = listToTerminator(h, list);
    if (fitsHeader(h, usual) || !headerFitsFile(h, list.fileSize, kFileSlack)) return usual;
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

/// A file that is too short for a header, in which no list even begins.
bool isNoTable(const DbfBase* h, const Descriptors& list) {
    return list.bytesRead == 0 || (list.count == 0 && list.bytes[0] != kTerminator &&
                                   h->Header.HeaderLength > list.fileSize);
}

/// Records may be longer than their fields when only then they end with the file.
u32 chooseRecordLength(const DbfBase* h, u32 ofFields, u64 fileSize) {
    const u32 said = h->Header.RecordLength;
    const bool keep =
        said > ofFields && fitsFile(h, said, fileSize) && !fitsFile(h, ofFields, fileSize);
    return keep ? said : ofFields;
}

/// Descriptors to Fields. False when they make no table that can be opened.
bool decodeFields(DbfBase* h, const Descriptors& list) {
    if (isNoTable(h, list)) return false;
    const FieldList fields = chooseList(h, list);
    if (fields.foreign && keepPrivate(h) == nullptr) return false;
    if (h->Private != nullptr) h->Private->foreignLevel7 = fields.foreign;
    h->FieldCount = static_cast<u16>(fields.count);
    for (u32 i = 0; i < fields.count; ++i) {
        h->Fields[i] = decodeDescriptor(list.at(i), list.size, fields.foreign);
    }
    const bool low = fields.foreign || h->Header.RecordLength == fields.low;
    h->HighLength = low && h->Header.RecordLength != fields.full ? 1 : 0;

    u32 ofFields = 0;
    const int balance = placeFields(h, &ofFields);
    if (ofFields > kRecordBufferSize) return false;
    const u32 length = chooseRecordLength(h, ofFields, list.fileSize);
    h->Header.RecordLength = static_cast<u16>(length);
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
    const u32 count = countRecords(h, fileSize);
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

bool readStart(const DbfBase* h, u64 fileSize, TableStart* start) {
    std::clearerr(h->TableFile);
    start->fileSize = fileSize;
    start->count = ReadFile(h->TableFile, start->bytes, sizeof start->bytes);
    return std::ferror(h->TableFile) == 0;
}

bool decodeStart(DbfBase* h, const TableStart& start) {
    detectLevel7(h, start.bytes, start.count);
    h->Status = 0;
    if (start.count < h->HeaderSize) return false;
    u8 image[sizeof(DbfHeader)] = {};
    std::memcpy(image, start.bytes, h->HeaderSize);
    decodeHeader(image, &h->Header);
    if (!acceptedVersion(h->Header.Version)) h->Status |= kStatusVersion;
    const u32 least = h->HeaderSize + h->DescriptorSize;  // without a terminator
    if (h->Header.HeaderLength != least) return h->Header.HeaderLength > least;
    return listWithoutTerminator(h, readDescriptors(h, &start)).has_value();
}

bool readFields(DbfBase* h, const TableStart* start) {
    if (h->Private != nullptr) h->Private->expressions.reset();  // they name the old fields
    Descriptors list = readDescriptors(h, start);
    // What an error cuts short is not taken for a shorter table: the next write would ruin it.
    const std::optional<u64> size =
        start != nullptr ? std::optional(start->fileSize) : fileSize(h->TableFile);
    list.fileSize = size.value_or(0);
    const bool readable = size && std::ferror(h->TableFile) == 0;
    const bool opens = readable && decodeFields(h, list) && allocateBuffers(h);
    repairVersion(h);
    repairRecordCount(h, list.fileSize);
    nameBackup(h);
    return opens;
}

void Level7Detect(DbfBase* h) {
    u8 start[kDetectSize] = {};
    const bool known = h->Level7 == 1;
    const u32 got = known ? 0 : ReadFile(h->TableFile, start, kDetectSize);
    detectLevel7(h, start, got);
    if (!known) seekTo(h->TableFile, 0);  // a failure shows in the next read
}

int ReadHeader(DbfBase* h) {
    TableStart start;
    const std::optional<FileFacts> facts = factsOf(h->TableFile);
    const bool decoded = facts && seekTo(h->TableFile, 0) && readStart(h, facts->size, &start) &&
                         decodeStart(h, start);
    return decoded && seekTo(h->TableFile, h->HeaderSize) ? 1 : 0;
}

char ReadFields(DbfBase* h) {
    std::memset(h->AliasNames, 0, sizeof h->AliasNames);
    return readFields(h, nullptr) ? 1 : 0;
}

}  // namespace mira
