// What an application asks about the table as a whole, and about descriptors beyond DbfField.
#include <algorithm>

#include "dbf/table/table.h"

namespace mira {

namespace {

constexpr u32 kNoKind = 0xFFFFFFFF;
constexpr u32 kFlagsPlace = 18;  // in a descriptor of 32 bytes

/// Every table with the larger header is of level 7, whatever its version.
const Flavour& flavourOfTable(const DbfBase* h) {
    return h->Level7 != 0 ? flavourOfKind(kLevel7Kind) : flavourOf(h->Header.Version);
}

}  // namespace

const char* GetFlavourName(DbfBase* h) { return flavourOfTable(h).name; }

u32 GetFlavourKind(DbfBase* h) {
    const Flavour& flavour = flavourOfTable(h);
    return &flavour != &flavours::kFlavours[flavours::kOther] ? flavour.kind : kNoKind;
}

u32 GetMemoKind(DbfBase* h) {
    const MemoFormat format = flavourOf(h->Header.Version).memos;
    if (format == MemoFormat::None) return kNoKind;
    const Flavour* const first =
        std::find_if(std::begin(flavours::kFlavours), std::end(flavours::kFlavours),
                     [format](const Flavour& flavour) { return flavour.memos == format; });
    return first->kind;
}

u32 GetFieldFlags(DbfBase* h, int field) {
    const bool stored = tableField(h, field) != nullptr && h->DescriptorSize == kDescriptorSize;
    if (!stored || isClosed(h)) return 0;
    const u64 place = h->HeaderSize + static_cast<u64>(field) * kDescriptorSize + kFlagsPlace;
    u8 flags = 0;
    u32 got = 0;
    return readTable(h, place, &flags, sizeof flags, &got, true) && got == sizeof flags ? flags : 0;
}

}  // namespace mira
