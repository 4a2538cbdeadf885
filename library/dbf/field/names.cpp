// What an application asks about fields and headings, the options with a function of their own,
// and case folding.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "dbf/table/table.h"

namespace mira {

namespace {

constexpr std::intptr_t kVersionNumber = 291;
constexpr std::intptr_t kVersionWidth = 256;
constexpr char kBuildDate[] = __DATE__ " " __TIME__;

constexpr int kCalcWidth = 20;     // every calculated field
constexpr int kIntegerWidth = 10;  // integers, block numbers, "Full memo"
constexpr int kDoubleWidth = 20;
constexpr int kCurrencyWidth = 24;
constexpr int kDateWidth = 10;  // with separators
constexpr int kDateTimeWidth = 19;

constexpr u32 kNoTimeStamp = 0xFFFFFFFF;

constexpr std::size_t kMessageSize = 255;

// A dotted format begins with two numbers of the shape "%02d"; a separator follows each.
constexpr std::size_t kSeparators[] = {4, 9};
constexpr std::size_t kDottedFormats[] = {1, 2, 3};

const char* calcFieldName(const DbfBase* h, int field) {
    const bool inTable = field >= 0 && field < static_cast<int>(kFieldMax);
    return inTable && h->CalcFields != nullptr ? h->CalcFields->Slots[field].Name : nullptr;
}

int calcFieldWidth(const DbfBase* h, int field) {
    return field >= 0 && h->CalcFields != nullptr ? kCalcWidth : 0;
}

void setSeparators(char* format, char separator) {
    if (format == nullptr) return;
    const std::size_t length = std::strlen(format);
    for (const std::size_t place : kSeparators) {
        if (place < length) format[place] = separator;
    }
}

int messageLength(int printed) {
    return std::clamp(printed, 0, static_cast<int>(kMessageSize) - 1);
}

u8 upperOf(u8 c) {
    if (c >= 'a' && c <= 'z') return static_cast<u8>(c - 0x20);
    if (c >= 0xA0 && c <= 0xAF) return static_cast<u8>(c - 0x20);  // Cyrillic, first half
    if (c >= 0xE0 && c <= 0xEF) return static_cast<u8>(c - 0x50);  // and second
    return c;
}

}  // namespace

int GetFieldType(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? f->Type : '#';
}

const char* GetFieldName(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? f->Name : calcFieldName(h, field);
}

const char* GetHeader(DbfBase* h, int field) {
    if (tableField(h, field) == nullptr || h->UseAliases == 0) return GetFieldName(h, field);
    char(&alias)[32] = h->AliasNames[field];
    alias[sizeof alias - 1] = 0;  // the application may have filled all of it
    return alias[0] != 0 ? alias : GetFieldName(h, field);
}

int GetLenHeader(DbfBase* h, int field) {
    const char* header = GetHeader(h, field);
    return header != nullptr ? static_cast<int>(std::strlen(header)) : 0;
}

int GetLowLen(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? f->Decimals : 0;
}

int GetAllLen(DbfBase* h, int field) { return static_cast<int>(GetLenField(h, field)); }

int GetLenView(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return calcFieldWidth(h, field);
    const int length = GetAllLen(h, field);
    switch (f->Type) {
        case 'Y':
            return kCurrencyWidth;
        case 'T':
        case '@':
            return h->DateFormat > 0 ? kDateTimeWidth : length;
        case 'D':
            return h->DateFormat > 0 ? kDateWidth : length;
        case 'B':
        case 'O':
            return wideLength(*f) == 10 ? kIntegerWidth : kDoubleWidth;
        case 'G':
        case 'I':
        case 'M':
        case '+':
            return kIntegerWidth;
        default:
            return length;
    }
}

int GetLenMax(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return calcFieldWidth(h, field);
    return std::max(GetLenView(h, field), static_cast<int>(std::strlen(f->Name)) + 1);
}

const char* GetTypeName(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return typeRow(0).name;
    const TypeRow& row = typeRow(f->Type);
    return f->Length == 8 && row.nameAtLength8 != nullptr ? row.nameAtLength8 : row.name;
}

std::intptr_t GetVerMIRAlib(int selector) {
    switch (selector) {
        case 0:
            return kVersionNumber;
        case 1:
            return reinterpret_cast<std::intptr_t>(kBuildDate);
        case 2:
            return sizeof(DbfBase);
        case 3:
            return kVersionWidth;
        default:
            return 0;
    }
}

char SetDateSeparator(DbfBase* h, char separator) {
    if (separator == 0) separator = '.';
    for (const std::size_t i : kDottedFormats) {
        setSeparators(h->DateFormats[i], separator);
        setSeparators(h->DateTimeFormats[i], separator);
    }
    return separator;
}

u32 GetTimeStamp(DbfBase* /*h*/, int /*field*/) { return kNoTimeStamp; }

void IgnoreCase(DbfBase* h, char* text, int mode) {
    if (h->CaseInsensitive == 0) return;
    if (h->UpperCaseCallback != nullptr) {
        h->UpperCaseCallback(text, h, mode);
    } else {
        UpperCase(reinterpret_cast<unsigned char*>(text));
    }
}

std::size_t UpperCase(unsigned char* text) {
    std::size_t length = 0;
    for (; text[length] != 0; ++length) text[length] = upperOf(text[length]);
    return length;
}

int Msg(int value) {
    char text[kMessageSize];
    return messageLength(std::snprintf(text, sizeof text, "value=%d", value));
}

int MsgS(const char* value) {
    char text[kMessageSize];
    const char* shown = value != nullptr ? value : "";
    return messageLength(std::snprintf(text, sizeof text, "value=%s", shown));
}

}  // namespace mira
