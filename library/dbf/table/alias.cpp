// Alias file: headings for the fields, in a small file beside the table.
//
//   0    32      "Header file MIRA", zero bytes to the end
//   32   32 * n  one heading per field: text of at most 31 characters, zero bytes to the end
#include <cstring>

#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {

namespace {

constexpr char kMark[32] = "Header file MIRA";
constexpr u32 kHeadingSize = sizeof DbfBase::AliasNames[0];

std::optional<FileId> folderOf(const char* path) {
    const std::size_t length = splitPath(path).dir.size();
    const Owned<char> folder = copyText(path);
    if (!folder) return std::nullopt;
    folder.get()[length] = 0;
    return fileId(length != 0 ? folder.get() : ".");
}

/// Whether two paths are one, however they are spelt; there may be no such file yet.
bool samePath(const char* a, const char* b) {
    if (a == nullptr || b == nullptr) return false;
    const char* const nameA = a + splitPath(a).dir.size();
    const char* const nameB = b + splitPath(b).dir.size();
    return std::strcmp(nameA, nameB) == 0 && isSameFile(folderOf(a), folderOf(b));
}

/// An entry that has no zero byte, or ends with the file, still ends as a text.
void terminateHeadings(DbfBase* h, u32 bytesRead) {
    const u32 whole = bytesRead / kHeadingSize;
    for (u32 i = 0; i < whole; ++i) h->AliasNames[i][kHeadingSize - 1] = 0;
    if (bytesRead % kHeadingSize != 0) h->AliasNames[whole][bytesRead % kHeadingSize] = 0;
}

}  // namespace

void SetAliasName(DbfBase* h, const char* name) {
    char path[kBackupNameSize];
    MakeExt(path, h->FileName, ".hdr", name);
    replace(h->AliasFileName, path[0] != 0 ? copyText(path) : nullptr);
}

void WriteAlias(DbfBase* h) {
    const char* path = h->AliasFileName;
    for (const char* needed : {h->FileName, h->MemoFileName, h->BackupName}) {
        if (samePath(path, needed)) return;  // there may be no such file yet
    }
    const OwnedFile file(
        openEmptied(path, {fileId(h->TableFile), fileId(h->MemoFileName), fileId(h->BackupName)}));
    if (!file) return;
    // An alias file that could not be written whole is not reported: nothing depends on it.
    if (!writeExact(file.get(), kMark, sizeof kMark)) return;
    writeExact(file.get(), h->AliasNames, h->FieldCount * kHeadingSize);
}

void ReadAlias(DbfBase* h) {
    const OwnedFile file(Open_File(h->AliasFileName));
    char mark[sizeof kMark];
    if (!file || !readExact(file.get(), mark, sizeof mark)) return;
    if (std::memcmp(mark, kMark, std::strlen(kMark) + 1) != 0) return;
    terminateHeadings(h, ReadFile(file.get(), h->AliasNames, sizeof h->AliasNames));
}

}  // namespace mira
