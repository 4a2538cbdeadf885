// Table file format: the codec of the fixed header and the field descriptors, and the repairs made
// to what does not add up. All numbers are little-endian.
//
//   fixed header     32 bytes, 68 in a level-7 table
//     0   1  version            4   4  record count
//     1   3  update y, m, d     8   2  header length: offset of record 0
//                              10   2  record length
//     12     carried unchanged
//   descriptors      32 bytes each              48 bytes each in a level-7 table
//     0  11  name                                0  32  name
//    11   1  type letter                        32   1  type letter
//    12   2  offset in the record               33   1  length, in tables of other makers
//    16   1  length                             34   1  length (decimals of other makers)
//    17   1  decimals                           35   1  decimals
//    20   1  work area                          36   2  offset in the record
//   terminator       0x0D
//   records          from the header length on; byte 0 is the deletion flag
//   end of file      0x1A
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dbf/table/table.h"
#include "internal/bytes.h"
#include "internal/file.h"

namespace mira {
namespace {

constexpr u32 kDetectSize = 128;  // a level-7 table has at least its header and one descriptor
constexpr u32 kDetectByte = 64;

constexpr u32 kTypePlace = 11;
constexpr u32 kOffsetPlace = 12;
constexpr u32 kLengthPlace = 16;
constexpr u32 kDecimalsPlace = 17;
constexpr u32 kWorkAreaPlace = 20;
constexpr u32 kTypePlace7 = 32;
constexpr u32 kForeignLengthPlace7 = 33;
constexpr u32 kLengthPlace7 = 34;
constexpr u32 kDecimalsPlace7 = 35;
constexpr u32 kOffsetPlace7 = 36;

constexpr u32 kNameLength = 10;
constexpr u32 kNameLength7 = 31;
constexpr u32 kReadableFields = 2047;
constexpr std::size_t kWidestValue = 10;  // bytes that a decoder takes from a field's place

void setSizes(DbfBase* h, bool level7) {
    h->HeaderSize = level7 ? kHeaderSize7 : kHeaderSize;
    h->DescriptorSize = level7 ? kDescriptorSize7 : kDescriptorSize;
}

void copyName(char* to, const u8* from, u32 limit) {
    const void* end = std::memchr(from, 0, limit);
    const std::size_t length =
        end != nullptr ? static_cast<std::size_t>(static_cast<const u8*>(end) - from) : limit;
    std::memset(to, 0, sizeof(DbfField::Name));
    std::memcpy(to, from, length);
}

void decodeDescriptor(const u8* from, u32 descriptorSize, bool foreign, DbfField* f) {
    if (descriptorSize == kDescriptorSize7) {
        copyName(f->Name, from, kNameLength7);
        f->Type = static_cast<char>(from[kTypePlace7]);
        f->Length = from[foreign ? kForeignLengthPlace7 : kLengthPlace7];
        f->Decimals = from[foreign ? kLengthPlace7 : kDecimalsPlace7];
        f->WorkArea = 0;
    } else {
        copyName(f->Name, from, kNameLength);
        f->Type = static_cast<char>(from[kTypePlace]);
        f->Length = from[kLengthPlace];
        f->Decimals = from[kDecimalsPlace];
        f->WorkArea = from[kWorkAreaPlace];
    }
}

/// The raw descriptors that the header length covers, whole ones only.
struct Descriptors {
    Block<u8> bytes;
    u32 count = 0;
    bool anyRead = false;
};

/// A descriptor that starts beyond the header length ends the list, so no more are read.
Descriptors readDescriptors(DbfBase* h) {
    const u32 wanted = std::min(kReadableFields, h->Header.HeaderLength / h->DescriptorSize + 1) *
                       h->DescriptorSize;
    Descriptors list{allocate<u8>(wanted)};
    if (!list.bytes) return list;
    const u32 got = ReadFile(h->TableFile, list.bytes.get(), static_cast<i32>(wanted));
    list.anyRead = got != 0;
    list.count = got / h->DescriptorSize;
    return list;
}

/// Record lengths that the descriptors add up to, one per way of reading them.
struct RecordLengths {
    u32 full = 1;     ///< with decimal bytes of character fields as high bytes
    u32 low = 1;      ///< with length bytes alone
    u32 foreign = 1;  ///< with the length bytes of other makers of level-7 tables
};

/// Decodes descriptors into Fields and counts them.
RecordLengths decodeAll(DbfBase* h, const Descriptors& list) {
    RecordLengths lengths;
    u32 i = 0;
    for (; i < list.count; ++i) {
        const std::size_t start = std::size_t{i} * h->DescriptorSize;
        const u8* from = list.bytes.get() + start;
        if (from[0] == kTerminator || start > h->Header.HeaderLength) break;
        DbfField& f = h->Fields[i];
        decodeDescriptor(from, h->DescriptorSize, h->ForeignLevel7 != 0, &f);
        lengths.full += fieldLength(f);
        lengths.low += f.Length;
        if (h->DescriptorSize == kDescriptorSize7) lengths.foreign += from[kForeignLengthPlace7];
    }
    h->FieldCount = static_cast<u16>(i);
    return lengths;
}

/// Level-7 tables of other makers carry their lengths one byte earlier; the record length tells.
bool isForeign(const DbfBase* h, const RecordLengths& lengths) {
    const u32 length = h->Header.RecordLength;
    return h->DescriptorSize == kDescriptorSize7 && length != lengths.full &&
           length != lengths.low && length == lengths.foreign;
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
bool decodeFields(DbfBase* h) {
    const Descriptors list = readDescriptors(h);
    if (!list.anyRead) return false;

    RecordLengths lengths = decodeAll(h, list);
    if (isForeign(h, lengths)) {
        h->ForeignLevel7 = 1;
        lengths = decodeAll(h, list);
    }
    const u32 headerSays = h->Header.RecordLength;
    h->HighLength = headerSays == lengths.low && headerSays != lengths.full ? 1 : 0;

    u32 recordLength = 0;
    const int balance = placeFields(h, &recordLength);
    if (recordLength > kRecordBufferSize) return false;
    h->Header.RecordLength = static_cast<u16>(recordLength);
    if (balance < 0) return false;
    if (h->FieldCount == 0 || balance != h->FieldCount) h->Status |= kStatusFieldTypes;
    return true;
}

/// Zeros behind the record: the decoders of a field shorter than its value look at them.
void clearBehindRecord(DbfBase* h) {
    const std::size_t length = h->Header.RecordLength;
    std::memset(h->RecordBuffer + length, 0, std::min(kWidestValue, kRecordBufferSize - length));
}

bool allocateBuffers(DbfBase* h) {
    if (!h->RecordBuffer) h->RecordBuffer = allocate<u8>(kRecordBufferSize).release();
    if (!h->TextBuffer) h->TextBuffer = allocate<char>(kTextBufferSize).release();
    if (!h->RecordBuffer || !h->TextBuffer) return false;
    h->TextBuffer[0] = 0;
    ClearRecord(h);
    clearBehindRecord(h);
    return true;
}

void repairVersion(DbfBase* h) {
    if ((h->Status & kStatusVersion) == 0) return;
    h->Header.Version = h->FirstMemoField != -1 ? kVersionFoxPro : kVersionPlain;
}

void repairRecordCount(DbfBase* h) {
    u64 size = 0;
    const u32 count = fileSize(h->TableFile, &size) ? recordsInFile(h, size) : 0;
    if (count != h->Header.RecordCount) h->Status |= kStatusRecordCount;
    h->Header.RecordCount = count;
}

void nameBackup(DbfBase* h) {
    Block<char> name = allocate<char>(kBackupNameSize);
    if (!name) return;
    MakeExt(name.get(), h->FileName, ".bak", nullptr);
    if (name.get()[0] == 0) return;
    std::free(h->BackupName);
    h->BackupName = name.release();
}

}  // namespace

void decodeHeader(const u8* from, DbfHeader* header) {
    header->Version = from[0];
    header->UpdateYear = from[1];
    header->UpdateMonth = from[2];
    header->UpdateDay = from[3];
    header->RecordCount = loadLe32(from + 4);
    header->HeaderLength = loadLe16(from + 8);
    header->RecordLength = loadLe16(from + 10);
    std::memcpy(header->Rest, from + 12, sizeof header->Rest);
}

void encodeHeader(const DbfHeader& header, u8* to) {
    to[0] = header.Version;
    to[1] = header.UpdateYear;
    to[2] = header.UpdateMonth;
    to[3] = header.UpdateDay;
    storeLe32(to + 4, header.RecordCount);
    storeLe16(to + 8, header.HeaderLength);
    storeLe16(to + 10, header.RecordLength);
    std::memcpy(to + 12, header.Rest, sizeof header.Rest);
}

void encodeDescriptor(const DbfField& f, u32 descriptorSize, u8* to) {
    std::memset(to, 0, descriptorSize);
    if (descriptorSize == kDescriptorSize7) {
        std::memcpy(to, f.Name, sizeof f.Name);
        to[kTypePlace7] = static_cast<u8>(f.Type);
        to[kLengthPlace7] = f.Length;
        to[kDecimalsPlace7] = f.Decimals;
        storeLe16(to + kOffsetPlace7, f.Offset);
    } else {
        std::memcpy(to, f.Name, kNameLength);
        to[kTypePlace] = static_cast<u8>(f.Type);
        to[kLengthPlace] = f.Length;
        to[kDecimalsPlace] = f.Decimals;
        storeLe16(to + kOffsetPlace, f.Offset);
        to[kWorkAreaPlace] = f.WorkArea;
    }
}

char readFields(DbfBase* h, bool fresh) {
    if (!fresh) std::memset(h->AliasNames, 0, sizeof h->AliasNames);
    const bool opens = decodeFields(h) && allocateBuffers(h);
    repairVersion(h);
    repairRecordCount(h);
    nameBackup(h);
    return opens ? 1 : 0;
}

void Level7Detect(DbfBase* h) {
    if (h->Level7 == 1) {
        setSizes(h, true);
        return;
    }
    u8 start[kDetectSize] = {};
    if (ReadFile(h->TableFile, start, kDetectSize) == kDetectSize && start[kDetectByte] == 0) {
        h->Level7 = 1;
    }
    setSizes(h, h->Level7 == 1);
    SetFilePointer(h->TableFile, 0, nullptr, SEEK_SET);  // a failure shows in the next read
}

int ReadHeader(DbfBase* h) {
    Level7Detect(h);
    h->Status = 0;
    u8 image[sizeof(DbfHeader)] = {};
    if (!readExact(h->TableFile, image, h->HeaderSize)) return 0;
    decodeHeader(image, &h->Header);
    if (!acceptedVersion(h->Header.Version)) h->Status |= kStatusVersion;
    return h->Header.HeaderLength > h->HeaderSize + h->DescriptorSize ? 1 : 0;
}

char ReadFields(DbfBase* h) { return readFields(h, false); }

}  // namespace mira
