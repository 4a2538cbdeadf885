// Memo format families: the layout that each gives its file, and how the memo file is named.
//
// Header of a memo file, block 0 (offset, size):
//
//   family     next free block   unit                 signature
//   dBase III  0, 4 little       512, not stored
//   dBase IV   0, 4 little       20, 2 little         18: 02 01
//   FoxPro     0, 4 big          6, 2 big
//   SMT        0, 4 little       4, 2 little          6: "SIxMemo" 00
//
// A memo in its block:
//
//   dBase III  data, 1A                               n + 1 bytes, no length
//   dBase IV   FF FF 08 00, n + 8 little, data        n + 8 bytes
//   FoxPro     00 00 00 01, n big, data               n + 8 bytes
//   SMT        data                                   n bytes, the length stands in the record
#include <dirent.h>
#include <unistd.h>

#include <cstring>
#include <string_view>
#include <utility>

#include "dbf/table/table.h"
#include "internal/ascii.h"
#include "memo/memo.h"

namespace mira {

const MemoFamily kDBase3Memo = {.headerSize = 4, .firstPlace = 512, .endSize = 1};
const MemoFamily kDBase4Memo = {.headerSize = 24,
                                .firstPlace = 24,
                                .unitPlace = 20,
                                .prefixSize = kMemoPrefixSize,
                                .mark = {0xFF, 0xFF, 0x08, 0x00},
                                .markChecked = 4,
                                .lengthBias = kMemoPrefixSize,
                                .signaturePlace = 18,
                                .signatureSize = 2,
                                .signature = "\x02\x01"};
const MemoFamily kFoxProMemo = {.headerSize = 8,
                                .firstPlace = 512,
                                .unitPlace = 6,
                                .bigEndian = true,
                                .prefixSize = kMemoPrefixSize,
                                .mark = {0, 0, 0, 1},
                                .markChecked = 3};  // pictures are of type 0
const MemoFamily kSmtMemo = {.headerSize = 16,
                             .firstPlace = 16,
                             .unitPlace = 4,
                             .shortHeaderReads = true,
                             .signaturePlace = 6,
                             .signatureSize = 8,
                             .signature = "SIxMemo"};

namespace {

const MemoFamily* familyOf(MemoFormat format) {
    switch (format) {
        case MemoFormat::None:
            return nullptr;
        case MemoFormat::DBase3:
            return &kDBase3Memo;
        case MemoFormat::DBase4:
            return &kDBase4Memo;
        case MemoFormat::FoxPro:
            return &kFoxProMemo;
        case MemoFormat::Smt:
            return &kSmtMemo;
    }
    return nullptr;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// Of the FindingNames that lives.
thread_local FindNameHook findName = nullptr;
thread_local void* findContext = nullptr;

/// Counts the files beside path that have its name in any letter case, up to 2. *found becomes the
/// path of the only one. (Reads the directory itself: the iterator of the standard library ends the
/// program when memory runs out.)
u32 findInAnyCase(const char* path, Owned<char>* found) {
    const PathParts parts = splitPath(path);
    const char* wanted = path + parts.dir.size();
    if (findName != nullptr) {
        *found = copyText(path);
        if (!*found) return 0;
        const u32 named = findName(path, found->get() + parts.dir.size(), findContext);
        if (named != 1) found->reset();
        return named;
    }
    const Owned<char> dirName = parts.dir.empty() ? copyText(".") : copyText(path);
    if (!dirName) return 0;
    if (!parts.dir.empty()) dirName.get()[parts.dir.size()] = 0;
    const std::unique_ptr<DIR, DirCloser> dir(opendir(dirName.get()));
    if (!dir) return 0;
    u32 count = 0;
    while (const dirent* entry = readdir(dir.get())) {
        if (!sameIgnoringCase(entry->d_name, wanted)) continue;
        found->reset();
        if (++count > 1) break;
        *found = copyText(path);
        // As long as the wanted name, so the rest of the path stays.
        if (*found)
            std::memcpy(found->get() + parts.dir.size(), entry->d_name, std::strlen(wanted));
    }
    return count;
}

bool exists(const char* path) { return access(path, F_OK) == 0; }

/// The file of a path, or the only one beside it that differs in letter case; null when there is
/// none.
Owned<char> lookFor(const char* path) {
    Owned<char> found;
    if (exists(path)) return copyText(path);
    findInAnyCase(path, &found);
    return found;
}

/// Whether a table of the same name, which has memos of its own, stands beside a source.
bool standsBesideTable(const char* sourcePath) {
    const Owned<char> table = copyText(sourcePath);
    if (!table) return false;
    char* const ext = table.get() + std::strlen(sourcePath) - 4;
    std::memcpy(ext, ".dbf", 4);
    Owned<char> found;
    return exists(table.get()) || findInAnyCase(table.get(), &found) != 0;
}

/// Names the memo file that is there where none is under the usual name. A source looks for its own
/// first.
void lookForMemoFile(DbfBase* h) {
    Owned<char> source = sourceMemoName(h->FileName);
    Owned<char> found = source ? lookFor(source.get()) : nullptr;
    if (!found && source && standsBesideTable(h->FileName)) found = std::move(source);
    if (!found && !exists(h->MemoFileName)) findInAnyCase(h->MemoFileName, &found);
    if (found) replace(h->MemoFileName, std::move(found));
}

}  // namespace

Owned<char> sourceMemoName(const char* tablePath) {
    static constexpr const char* sources[] = {".scx", ".vcx", ".frx", ".lbx", ".mnx", ".pjx"};
    const PathParts parts = splitPath(tablePath);
    for (const char* source : sources) {
        if (parts.ext.empty() || !sameIgnoringCase(parts.ext.data(), source)) continue;
        Owned<char> name = copyText(tablePath);
        if (name) name.get()[std::strlen(tablePath) - 1] = parts.ext.back() == 'X' ? 'T' : 't';
        return name;
    }
    return nullptr;
}

FindingNames::FindingNames(FindNameHook find, void* context)
    : findBefore_(std::exchange(findName, find)),
      contextBefore_(std::exchange(findContext, context)) {}

FindingNames::~FindingNames() {
    findName = findBefore_;
    findContext = contextBefore_;
}

const MemoFamily* memoFamily(u8 version) { return familyOf(flavourOf(version).memos); }

const MemoFamily* memoFamilyOfKind(u32 kind) { return familyOf(flavourOfKind(kind).memos); }

const MemoLayout* GetMemoLayout(u32 kind) { return memoFamilyOfKind(kind); }

char* GetMemoName(const char* tablePath, u32 kind) {
    if (tablePath == nullptr) return nullptr;
    const PathParts parts = splitPath(tablePath);
    const Flavour& flavour = flavourOfKind(kind);
    // The extension is the end of the path, so it is a text of its own.
    const bool container = flavour.memos == MemoFormat::FoxPro && !parts.ext.empty() &&
                           sameIgnoringCase(parts.ext.data(), ".dbc");
    const std::string_view extension = container ? ".dct" : flavour.extension;
    const std::size_t stem = parts.dir.size() + parts.name.size();
    Owned<char> name = allocate<char>(stem + extension.size() + 1);
    if (name == nullptr) return nullptr;
    // The stem is the beginning of the path: name follows dir there, too.
    std::memcpy(name.get(), tablePath, stem);
    std::memcpy(name.get() + stem, extension.data(), extension.size());
    name.get()[stem + extension.size()] = 0;
    return name.release();
}

u32 GetMemoType(DbfBase* h) {
    const u32 kind =
        h->HeaderSize == kHeaderSize7 ? kLevel7Kind : flavourOf(h->Header.Version).kind;
    replace(h->MemoFileName, Owned<char>(GetMemoName(h->FileName, kind)));
    if (h->FirstMemoField != -1 && h->MemoFileName != nullptr) lookForMemoFile(h);
    FreeMemo(h);
    return kind;
}

}  // namespace mira
