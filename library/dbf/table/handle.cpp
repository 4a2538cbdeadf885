// The handle: its defaults and what it owns.
#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/datelayout.h"
#include "internal/file.h"

namespace mira {
namespace {

// d_fmt and t_fmt, in the order of DateFormat. Formats 1 and 2 differ in the order of the values.
constexpr const char* kDateFormats[] = {"%10s", "%02d.%02d.%04d", "%02d.%02d.%04d",
                                        "%04d.%02d.%02d", kDatePattern};
constexpr const char* kDateTimeFormats[] = {"%14s", "%02d.%02d.%04d %02d:%02d:%02d",
                                            "%02d.%02d.%04d %02d:%02d:%02d",
                                            "%04d.%02d.%02d %02d:%02d:%02d", kMomentPattern};

// A dotted format begins with two numbers of the shape "%02d"; a separator follows each.
constexpr std::size_t kSeparatorPlaces[] = {4, 9};
constexpr std::size_t kDottedFormats[] = {1, 2, 3};

void setSeparators(char* format, char separator) {
    if (format == nullptr) return;
    const std::size_t length = std::strlen(format);
    for (const std::size_t place : kSeparatorPlaces) {
        if (place < length) format[place] = separator;
    }
}

}  // namespace

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
    replace(h->BackupName);
    replace(h->AliasFileName);
    replace(h->RecordBuffer);
    replace(h->TextBuffer);
    replace(h->SavedRecord);
    replace(h->MemoFileName);
    for (char*& format : h->DateFormats) replace(format);
    for (char*& format : h->DateTimeFormats) replace(format);
    delete std::exchange(h->Private, nullptr);
}

PrivateState* keepPrivate(DbfBase* h) {
    if (h->Private == nullptr) h->Private = new (std::nothrow) PrivateState;
    return h->Private;
}

void SetDefOptions(DbfBase* h) {
    std::memset(h, 0, sizeof *h);
    setDefaults(h);  // a format that could not be copied stays null and renders as stored
}

void Close_File(DbfBase* h) {
    if (h == nullptr || h->TableFile == nullptr) return;
    std::fclose(h->TableFile);
    h->TableFile = nullptr;
    releaseBuffers(h);
}

char SetDateSeparator(DbfBase* h, char separator) {
    if (separator == 0) separator = '.';
    for (const std::size_t i : kDottedFormats) {
        setSeparators(h->DateFormats[i], separator);
        setSeparators(h->DateTimeFormats[i], separator);
    }
    return separator;
}

}  // namespace mira
