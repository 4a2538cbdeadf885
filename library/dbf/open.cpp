// Opening and closing: everything between a path and a readable table, and back.
#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"
#include "memo/memo.h"

namespace mira {

namespace {

/// Whether the last file could not be opened because it may only be read.
bool mayOnlyBeRead() {
    return errno == EACCES || errno == EPERM || errno == EROFS || errno == ETXTBSY;
}

std::FILE* openTableFile(const char* path, bool readOnly, FileFacts* opened) {
    errno = 0;
    std::FILE* const file = readOnly ? nullptr : openUnbuffered(path, O_RDWR, "rb+", opened);
    return readOnly || (file == nullptr && mayOnlyBeRead())
               ? openUnbuffered(path, O_RDONLY, "rb", opened)
               : file;
}

/// Everything between an empty handle and a readable table.
bool openTable(DbfBase* h, const char* path) {
    if (!setDefaults(h) || keepPrivate(h) == nullptr) return false;
    FileFacts opened{};
    h->TableFile = openTableFile(path, h->ReadOnly != 0, &opened);
    if (h->TableFile == nullptr) return false;
    h->Private->own = h->TableFile;
    h->Private->file = opened.id;
    TableStart start;
    if (!readStart(h, opened.size, &start) || !decodeStart(h, start)) return false;
    h->FileName = copyText(path).release();
    if (h->FileName == nullptr || !readFields(h, &start)) return false;
    GetMemoType(h);
    return h->MemoFileName != nullptr;
}

void releaseHandle(DbfBase* h) {
    if (h->TableFile != nullptr) {
        Close_File(h);
    } else {
        releaseBuffers(h);
    }
    std::free(h->FileName);
    std::free(h);
}

}  // namespace

DbfBase* OpenBaseCommon(const char* path, int readOnly) {
    // Most of the handle is never touched for a small table, so its zeros come from calloc.
    auto* h = static_cast<DbfBase*>(std::calloc(1, sizeof(DbfBase)));
    if (h == nullptr) return nullptr;
    h->ReadOnly = static_cast<u32>(readOnly);
    if (openTable(h, path)) return h;
    releaseHandle(h);
    return nullptr;
}

DbfBase* OpenBaseListed(const char* path, int readOnly, FindNameHook find, void* context) {
    const FindingNames finding(find, context);
    return OpenBaseCommon(path, readOnly);
}

DbfBase* OpenBase(const char* path) { return OpenBaseCommon(path, 0); }

DbfBase* OpenBaseRO(const char* path) { return OpenBaseCommon(path, 1); }

void CloseBase(DbfBase* h) {
    if (h == nullptr) return;
    ClearAllFilter(h);
    releaseHandle(h);
}

}  // namespace mira
