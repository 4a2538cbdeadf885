// What depends on the type of a field, and blanking by it.
#include <cstring>

#include "dbf/table/table.h"
#include "internal/ascii.h"
#include "internal/datelayout.h"

namespace mira {

unsigned GetLenField(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? fieldLength(*f) : 0;
}

unsigned GetHighLen(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    return f != nullptr ? f->Length : 0;
}

char ValidField(char type) { return typeRow(type).accepted ? 1 : 0; }

char if_memo_type(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return 0;
    const ValueClass value = valueClass(*f);
    const bool memoInB = value == ValueClass::BinaryOrDouble && wideLength(*f) == kReferenceSize;
    return value == ValueClass::Memo || memoInB ? 1 : 0;
}

FieldClass GetFieldClass(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return FieldClass::None;
    if (holdsReference(*f)) return FieldClass::Memo;
    const ValueClass value = valueClass(*f);
    const bool bytes = value == ValueClass::BinaryOrDouble && !isNumeric(*f);
    return bytes ? FieldClass::None : fieldClassOf(value);
}

char FieldBlankChar(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return 0;
    switch (typeRow(f->Type).blank) {
        case BlankRule::Spaces:
            return ' ';
        case BlankRule::Zeros:
            return 0;
        case BlankRule::SpacesAtLength14:
            return f->Length == kDateTimeDigits ? ' ' : 0;
        case BlankRule::ZerosAtLength8Or4:
            return f->Length == 8 || f->Length == 4 ? 0 : ' ';
        case BlankRule::Reference:
            return f->Length == kReferenceSize && !flavourOf(h->Header.Version).lengthInReference
                       ? ' '
                       : 0;
    }
    return 0;
}

void ClearField(DbfBase* h, int field) {
    const std::span<u8> bytes = fieldBytes(h, field);
    if (!bytes.empty()) std::memset(bytes.data(), FieldBlankChar(h, field), bytes.size());
}

void ClearRecord(DbfBase* h) {
    h->RecordBuffer[0] = kPresent;
    u32 end = 1;
    for (int field = 0; field < h->FieldCount; ++field) {
        ClearField(h, field);
        end += fieldLength(h->Fields[field]);
    }
    // A record may be longer than its fields.
    if (end < h->Header.RecordLength) {
        std::memset(h->RecordBuffer + end, kPresent, h->Header.RecordLength - end);
    }
}

int fieldNamed(const DbfBase* h, std::string_view name, int from) {
    for (int field = from; field < h->FieldCount; ++field) {
        const char* const own = h->Fields[field].Name;
        if (compareIgnoringCase(own, name.data(), name.size()) == 0 && own[name.size()] == 0) {
            return field;
        }
    }
    return -1;
}

}  // namespace mira
