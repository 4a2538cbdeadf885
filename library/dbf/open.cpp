// Opening and closing: everything between a path and a readable table, and back.
#include <cstdlib>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/file.h"
#include "memo/memo.h"

namespace mira {

namespace {

/// Everything between an empty handle and a readable table.
bool openTable(DbfBase* h, const char* path) {
    if (!setDefaults(h) || keepPrivate(h) == nullptr) return false;
    h->TableFile = openFile(path, h->ReadOnly != 0, &h->Private->file.emplace());
    if (h->TableFile == nullptr || ReadHeader(h) == 0) return false;
    h->FileName = copyText(path).release();
    if (h->FileName == nullptr || readFields(h, true) == 0) return false;
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
