// The handle: defaults, opening and closing.
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "dbf/table/table.h"
#include "internal/file.h"

namespace mira {
namespace {

// d_fmt and t_fmt, in the order of DateFormat. Formats 1 and 2 differ in the order of the values.
constexpr const char* kDateFormats[] = {"%10s", "%02d.%02d.%04d", "%02d.%02d.%04d",
                                        "%04d.%02d.%02d", "%04d%02d%02d"};
constexpr const char* kDateTimeFormats[] = {
    "%14s", "%02d.%02d.%04d %02d:%02d:%02d", "%02d.%02d.%04d %02d:%02d:%02d",
    "%04d.%02d.%02d %02d:%02d:%02d", "%04d%02d%02d%02d%02d%02d"};

template <typename T>
void release(T*& owned) {
    std::free(owned);
    owned = nullptr;
}

/// The defaults that are not zero. False when there is no memory for the format copies.
bool setDefaults(DbfBase* h) {
    std::fill(std::begin(h->FieldMap), std::end(h->FieldMap), -1);
    h->FirstMemoField = -1;
    h->UseFilterIndex = 1;
    h->CurrentRecord = kNoPosition;
    bool complete = true;
    for (std::size_t i = 0; i < std::size(kDateFormats); ++i) {
        h->DateFormats[i] = copyText(kDateFormats[i]).release();
        h->DateTimeFormats[i] = copyText(kDateTimeFormats[i]).release();
        complete = complete && h->DateFormats[i] != nullptr && h->DateTimeFormats[i] != nullptr;
    }
    return complete;
}

void releaseBuffers(DbfBase* h) {
    release(h->BackupName);
    release(h->AliasFileName);
    release(h->RecordBuffer);
    release(h->TextBuffer);
    release(h->SavedRecord);
    release(h->MemoFileName);
    for (char*& format : h->DateFormats) release(format);
    for (char*& format : h->DateTimeFormats) release(format);
}

void releaseHandle(DbfBase* h) {
    if (h->TableFile != nullptr) {
        Close_File(h);
    } else {
        releaseBuffers(h);
    }
    release(h->FileName);
    std::free(h);
}

/// Everything between an empty handle and a readable table.
bool openTable(DbfBase* h, const char* path) {
    if (!setDefaults(h)) return false;
    h->TableFile = h->ReadOnly != 0 ? Open_FileRO(path) : Open_File(path);
    if (h->TableFile == nullptr || ReadHeader(h) == 0) return false;
    h->FileName = copyText(path).release();
    if (h->FileName == nullptr || readFields(h, true) == 0) return false;
    GetMemoType(h);
    return h->MemoFileName != nullptr;
}

}  // namespace

void SetDefOptions(DbfBase* h) {
    std::memset(h, 0, sizeof *h);
    setDefaults(h);  // a format that could not be copied stays null and renders as stored
}

DbfBase* OpenBaseCommon(const char* path, int readOnly) {
    // Most of the handle is never touched for a small table, so its zeros come from calloc.
    auto* h = static_cast<DbfBase*>(std::calloc(1, sizeof(DbfBase)));
    if (h == nullptr) return nullptr;
    h->ReadOnly = static_cast<u32>(readOnly);
    if (openTable(h, path)) return h;
    releaseHandle(h);
    return nullptr;
}

DbfBase* OpenBase(const char* path) { return OpenBaseCommon(path, 0); }

DbfBase* OpenBaseRO(const char* path) { return OpenBaseCommon(path, 1); }

void Close_File(DbfBase* h) {
    if (h == nullptr || h->TableFile == nullptr) return;
    std::fclose(h->TableFile);
    h->TableFile = nullptr;
    releaseBuffers(h);
}

void CloseBase(DbfBase* h) {
    if (h == nullptr) return;
    ClearAllFilter(h);
    releaseHandle(h);
}

}  // namespace mira
