// Creating an empty memo file: its header, filled with zeros to 512 bytes or to one larger unit.
#include <algorithm>
#include <cstring>

#include "memo/memo.h"

namespace mira {

namespace {

constexpr u32 kUnitLimit = 65535;  // 16 bits in every format

void storeUnit(const MemoFamily& family, u8* header, u32 unit) {
    u8* to = header + family.unitPlace;
    family.bigEndian ? storeBe16(to, static_cast<u16>(unit))
                     : storeLe16(to, static_cast<u16>(unit));
}

}  // namespace

u32 memoHeaderSize(u32 blockSize) { return std::max(blockSize, kMemoHeaderMin); }

void buildMemoHeader(const MemoFamily& family, u32 unit, u8* header) {
    std::memset(header, 0, kMemoHeaderRead);
    if (family.unitPlace == 0) {
        // One unit, even when the caller's block size has made the header longer.
        storeMemo32(family, header, 1);
        return;
    }
    storeMemo32(family, header, memoHeaderSize(unit) / unit);
    storeUnit(family, header, unit);
    std::memcpy(header + family.signaturePlace, family.signature, family.signatureSize);
}

int CreateMemoFile(const char* tablePath, u32 kind, u32 blockSize) {
    if (blockSize > kUnitLimit) return 0;
    if (blockSize == 0) blockSize = kMemoHeaderMin;
    const u32 size = memoHeaderSize(blockSize);
    Owned<char> name = tablePath != nullptr ? sourceMemoName(tablePath) : nullptr;
    if (!name) name.reset(GetMemoName(tablePath, kind));
    const Owned<u8> header = allocate<u8>(size);
    if (!name || !header) return 0;
    std::memset(header.get(), 0, size);
    if (const MemoFamily* family = memoFamilyOfKind(kind)) {
        buildMemoHeader(*family, blockSize, header.get());
    }
    OwnedFile file(openEmptied(name.get(), {fileId(tablePath)}));
    if (!file) return 0;
    const bool written = writeExact(file.get(), header.get(), size);
    return std::fclose(file.release()) == 0 && written ? 1 : 0;
}

}  // namespace mira
