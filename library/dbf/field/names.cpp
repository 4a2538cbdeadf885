// What an application asks about fields and headings: names, type names, lengths and widths.
#include <algorithm>
#include <cstring>
#include <utility>

#include "dbf/table/private.h"
#include "dbf/table/table.h"
#include "internal/datelayout.h"

namespace mira {

namespace {

const char* calcFieldName(const DbfBase* h, int field) {
    const bool inTable = field >= 0 && field < static_cast<int>(kFieldMax);
    return inTable && h->CalcFields != nullptr ? h->CalcFields->Slots[field].Name : nullptr;
}

int calcFieldWidth(const DbfBase* h, int field) {
    return field >= 0 && h->CalcFields != nullptr ? kCalculatedWidth : 0;
}

void storeName(DbfField& f, const char* name) {
    const std::size_t length = strnlen(name, sizeof f.Name - 1);
    std::memset(f.Name, 0, sizeof f.Name);
    std::memcpy(f.Name, name, length);
}

}  // namespace

int GetFieldType(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? f->Type : '#';
}

u32 GetFieldNum(DbfBase* h, const char* name) {
    // -1 becomes kNoPosition.
    return name != nullptr ? static_cast<u32>(fieldNamed(h, name)) : kNoPosition;
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
    const int width = typeRow(f->Type).width;
    const bool memoInB = typeRow(f->Type).size == SizeRule::BinaryOrDouble;
    if (memoInB && wideLength(*f) == kReferenceSize) return kIntegerWidth;
    if (isDateOrMoment(*f) && h->DateFormat > 0) {
        return valueClass(*f) == ValueClass::Date ? kDottedDate : kDottedDateTime;
    }
    return width != 0 ? width : GetAllLen(h, field);
}

int GetLenMax(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return calcFieldWidth(h, field);
    return std::max(GetLenView(h, field), static_cast<int>(std::strlen(f->Name)) + 1);
}

void SetFieldName(DbfBase* h, int field, const char* name) {
    if (tableField(h, field) != nullptr && name != nullptr) storeName(h->Fields[field], name);
}

u32 AddTestField(DbfBase* h, const char* name) {
    PrivateState* const state = name != nullptr ? keepPrivate(h) : nullptr;
    if (state == nullptr || h->FieldCount == kFieldMax) return 0;
    const u32 place = u32{h->Header.RecordLength} + state->testFields;
    if (place >= kRecordBufferSize) return 0;
    DbfField& field = h->Fields[h->FieldCount];
    field = {};
    storeName(field, name);
    field.Type = 'C';
    field.Length = 1;
    field.Offset = static_cast<u16>(place);
    ++h->FieldCount;
    ++state->testFields;
    return place;
}

void DropTestFields(DbfBase* h) {
    if (h->Private == nullptr) return;
    h->FieldCount = static_cast<u16>(h->FieldCount - std::exchange(h->Private->testFields, u16{0}));
}

const char* GetTypeName(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return typeRow(0).name;
    const TypeRow& row = typeRow(f->Type);
    return f->Length == 8 && row.nameAtLength8 != nullptr ? row.nameAtLength8 : row.name;
}

}  // namespace mira
