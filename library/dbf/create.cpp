// Creating tables: the fixed header, the descriptors, the terminator and, for kind 3, a zero-filled
// backlink area; no record and no end-of-file byte.
#include <algorithm>
#include <cstring>

#include "dbf/table/table.h"
#include "internal/datelayout.h"
#include "internal/file.h"

namespace mira {

namespace {

constexpr u32 kSizeLimit = 65535;     // header and record lengths have 16 bits
constexpr u32 kFlagsPlace = 16;       // table flags and code page mark, in Header.Rest
constexpr int kYearsOfOneByte = 256;  // unlike that of later updates, the year is kept whole

void setWideLength(DbfField* f, unsigned length) {
    f->Length = static_cast<u8>(length);
    f->Decimals = static_cast<u8>(length >> 8);
}

/// Gives a field of a new table its length. True when it makes the table one with memos.
bool forceLength(DbfField* f, const Flavour& flavour) {
    switch (typeRow(f->Type).size) {
        case SizeRule::AsGiven:
            return false;
        case SizeRule::One:
            setWideLength(f, 1);
            return false;
        case SizeRule::Four:
            setWideLength(f, 4);
            return false;
        case SizeRule::Eight:
            setWideLength(f, 8);
            return false;
        case SizeRule::Moment:
            if (wideLength(*f) != kDateTimeDigits) setWideLength(f, flavour.momentSize);
            return false;
        case SizeRule::Reference:
            setWideLength(f, flavour.referenceSize);
            return true;
        case SizeRule::BinaryOrDouble:
            if (wideLength(*f) == kReferenceSize) return true;
            if (wideLength(*f) == 8) return false;
            if (flavour.memoInB) {
                setWideLength(f, kReferenceSize);
            } else {
                f->Length = 8;
            }
            return wideLength(*f) == kReferenceSize;
    }
    return false;
}

/// What a new table's fields come to.
struct Layout {
    u32 headerLength;
    u64 recordLength = 1;
    bool memos = false;
};

/// Completes the fields. Offsets are right when the record turns out to be no longer than it may.
Layout layOut(DbfField* fields, u32 count, const Flavour& flavour) {
    Layout layout{flavour.headerSize + flavour.descriptorSize * count + 1 + flavour.backLinkSize};
    for (u32 i = 0; i < count; ++i) {
        fields[i].Offset = static_cast<u16>(layout.recordLength);
        layout.memos = forceLength(&fields[i], flavour) || layout.memos;
        layout.recordLength += fieldLength(fields[i]);
    }
    return layout;
}

DbfHeader headerOf(const Layout& layout, const Flavour& flavour) {
    DbfHeader header{};
    header.Version = layout.memos ? flavour.version : kVersionPlain;
    stampDate(&header, kYearsOfOneByte);
    header.HeaderLength = static_cast<u16>(layout.headerLength);
    header.RecordLength = static_cast<u16>(layout.recordLength);
    if (layout.memos) std::memset(header.Rest + kFlagsPlace, flavour.memoFlags, 2);
    return header;
}

/// The whole file, zero where nothing is said: headerLength bytes.
void encodeTable(const DbfField* fields, u32 count, const Layout& layout, const Flavour& flavour,
                 u8* image) {
    u8 header[sizeof(DbfHeader)];
    encodeHeader(headerOf(layout, flavour), header);
    std::memset(image, 0, layout.headerLength);
    std::memcpy(image, header, flavour.headerSize);
    u8* to = image + flavour.headerSize;
    for (u32 i = 0; i < count; ++i, to += flavour.descriptorSize) {
        encodeDescriptor(fields[i], flavour.descriptorSize, to);
    }
    *to = kTerminator;
}

/// Where the backlink area starts; none when the header is too short to hold one.
std::optional<u64> backLinkOffset(const DbfBase* h) {
    const u64 offset = u64{h->HeaderSize} + u64{h->DescriptorSize} * h->FieldCount + 1;
    const bool fits = offset + kBackLinkSize <= h->Header.HeaderLength;
    return fits ? std::optional(offset) : std::nullopt;
}

}  // namespace

char CreateDatabase(const char* path, DbfField* fields, int count, u32 kind, u32 blockSize,
                    char createMemo) {
    if (path == nullptr || count < 0 || count > static_cast<int>(kSizeLimit)) return 0;
    if (fields == nullptr && count != 0) return 0;
    const auto total = static_cast<u32>(count);
    const Flavour& flavour = flavourOfKind(kind);

    // The caller's fields are completed only once the file is there.
    const Owned<DbfField> complete = allocate<DbfField>(std::max(total, 1u));
    if (!complete) return 0;
    std::copy_n(fields, total, complete.get());
    const Layout layout = layOut(complete.get(), total, flavour);
    if (layout.headerLength > kSizeLimit || layout.recordLength > kSizeLimit) return 0;
    const Owned<u8> image = allocate<u8>(layout.headerLength);
    if (!image) return 0;
    encodeTable(complete.get(), total, layout, flavour, image.get());

    OwnedFile file(openEmptied(path, {}));
    if (!file) return 0;
    std::copy_n(complete.get(), total, fields);
    bool written = writeExact(file.get(), image.get(), layout.headerLength);
    changesOf(file.get()).fetch_add(1, std::memory_order_acq_rel);
    written = std::fclose(file.release()) == 0 && written;
    if (createMemo != 0 && layout.memos) CreateMemoFile(path, kind, blockSize);
    return written ? 1 : 0;
}

void CreateField(DbfField* field, const char* name, char type, int length) {
    std::memset(field->Name, 0, sizeof field->Name);
    if (name != nullptr) std::memcpy(field->Name, name, strnlen(name, sizeof field->Name - 1));
    field->Type = type;
    setWideLength(field, static_cast<unsigned>(length));
}

void WriteBackLink(DbfBase* destination, DbfBase* source) {
    const std::optional<u64> to = backLinkOffset(destination);
    const std::optional<u64> from = backLinkOffset(source);
    if (destination == source || !to || !from) return;
    u8 area[kBackLinkSize] = {};
    // What cannot be read is written as zeros, and there is nobody to tell of a failed write.
    if (seekTo(source->TableFile, *from)) ReadFile(source->TableFile, area, kBackLinkSize);
    writeTable(destination, *to, area, kBackLinkSize);
}

}  // namespace mira
