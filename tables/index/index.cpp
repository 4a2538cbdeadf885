#include "tables/index/index.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tables/index/pages.h"
#include "tables/page/refusal.h"
#include "tables/unpack/archive.h"

namespace mira::tables {

IndexFile::~IndexFile() {
    if (descriptor >= 0) close(descriptor);
}

IndexFile::IndexFile(IndexFile&& other) noexcept
    : path(std::move(other.path)),
      kind(other.kind),
      tags(std::move(other.tags)),
      isCompound(other.isCompound),
      nameLength(other.nameLength),
      pageSize(other.pageSize),
      size(other.size),
      descriptor(std::exchange(other.descriptor, -1)) {}

namespace index {

void damaged(const IndexFile& file, const std::string& what) {
    refuse(file.path, ": damaged: ", what);
}

std::string bytesAt(const IndexFile& file, u64 place, std::size_t count) {
    if (place > file.size || file.size - place < count) {
        damaged(file, textOf("it ends before byte ", place + count));
    }
    std::string bytes(count, '\0');
    for (std::size_t done = 0; done < count;) {
        const ssize_t got = pread(file.descriptor, bytes.data() + done, count - done,
                                  static_cast<off_t>(place + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) refuse(file.path, ": cannot be read: ", std::strerror(errno));
        if (got == 0) damaged(file, textOf("it ends before byte ", place + count));
        done += static_cast<std::size_t>(got);
    }
    return bytes;
}

std::string textIn(std::string_view bytes) {
    return std::string(trimmed(bytes.substr(0, bytes.find('\0'))));
}

u32 le16(std::string_view bytes, std::size_t at) {
    return static_cast<u8>(bytes[at]) | u32{static_cast<u8>(bytes[at + 1])} << 8;
}
u32 le32(std::string_view bytes, std::size_t at) {
    return le16(bytes, at) | le16(bytes, at + 2) << 16;
}
u32 be32(std::string_view bytes, std::size_t at) {
    u32 value = 0;
    for (std::size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<u8>(bytes[at + i]);
    return value;
}

void Visited::enter(const IndexFile& file, u64 place) {
    constexpr u64 kStep = 512;  // pages of every kind lie at multiples of it
    if (place % kStep != 0 || place >= file.size) {
        damaged(file, textOf("a page lies at byte ", place));
    }
    const u64 number = place / kStep;
    if (number >= seen.size()) seen.resize(number + 1);
    if (seen[number]) damaged(file, textOf("the page at byte ", place, " leads back to itself"));
    seen[number] = true;
}

}  // namespace index

namespace {

struct Kind {
    IndexKind kind;
    const char* name;
    std::string_view extension;  // in small letters
    void (*read)(IndexFile&);
};
// .idx files are compact or old, as their options say.
constexpr Kind kKinds[] = {
    {IndexKind::Cdx, "cdx", ".cdx", index::readCdx},
    {IndexKind::Cdx, "cdx", ".dcx", index::readCdx},
    {IndexKind::CompactIdx, "idx", ".idx", index::readCdx},
    {IndexKind::OldIdx, "idx (old)", "", index::readOldIdx},
    {IndexKind::Ntx, "ntx", ".ntx", index::readNtx},
    {IndexKind::Ndx, "ndx", ".ndx", index::readNdx},
    {IndexKind::Mdx, "mdx", ".mdx", index::readMdx},
};

constexpr std::size_t kOptions = 14;
constexpr u8 kCompact = 32;

bool isOldIdx(const IndexFile& file) {
    return file.kind == IndexKind::CompactIdx &&
           (static_cast<u8>(index::bytesAt(file, 0, kOptions + 1)[kOptions]) & kCompact) == 0;
}

const Kind& rowOf(IndexKind kind) {
    return *std::find_if(std::begin(kKinds), std::end(kKinds),
                         [&](const Kind& row) { return row.kind == kind; });
}

}  // namespace

const char* kindName(IndexKind kind) { return rowOf(kind).name; }

IndexFile openIndex(const std::string& path) {
    IndexFile file(path);
    file.descriptor = open(readable(path).path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat facts {};
    if (file.descriptor < 0 || fstat(file.descriptor, &facts) != 0) {
        refuse(path, ": cannot be read: ", std::strerror(errno));
    }
    if (!S_ISREG(facts.st_mode)) refuse(path, ": is no file");
    file.size = static_cast<u64>(facts.st_size);
    const std::string extension = foldCase(std::filesystem::path(path).extension().string());
    const auto* const row = std::find_if(
        std::begin(kKinds), std::end(kKinds),
        [&](const Kind& kind) { return !extension.empty() && kind.extension == extension; });
    if (row == std::end(kKinds)) refuse(path, ": index files of this kind are not understood");
    file.kind = row->kind;
    if (isOldIdx(file)) file.kind = IndexKind::OldIdx;
    rowOf(file.kind).read(file);
    return file;
}

void eachEntry(const IndexFile& file, const Tag& tag, char filler, const TakeEntry& take) {
    if (tag.bitmap || tag.root == 0) return;
    switch (file.kind) {
        case IndexKind::Cdx:
        case IndexKind::CompactIdx:
            return index::eachCdxEntry(file, tag, filler, take);
        case IndexKind::OldIdx:
            return index::eachOldIdxEntry(file, tag, take);
        case IndexKind::Ntx:
            return index::eachNtxEntry(file, tag, take);
        case IndexKind::Ndx:
            return index::eachNdxEntry(file, tag, take);
        case IndexKind::Mdx:
            return index::eachMdxEntry(file, tag, take);
    }
}

}  // namespace mira::tables
