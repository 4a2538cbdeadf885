// Field types and versions: what depends on the letter of a field or the first byte of a table.
#include <array>
#include <cstring>

#include "dbf/table/table.h"

namespace mira {
namespace {

using enum BlankRule;
constexpr auto kNever = NumericRule::Never;
constexpr auto kAlways = NumericRule::Always;
constexpr auto kAt8 = NumericRule::AtLength8;
constexpr auto kNoMemo = MemoRule::Never;
constexpr auto kMemo = MemoRule::Always;
constexpr auto kMemoAt10 = MemoRule::AtLength10;

constexpr TypeRow kTypes[] = {
    // letter, name, name at length 8, blank, numeric, memo, accepted
    {0, "Unknown", nullptr, Zeros, kNever, kNoMemo, false},
    {'C', "Character", nullptr, Spaces, kNever, kNoMemo, true},
    {'N', "Numeric", nullptr, Spaces, kAlways, kNoMemo, true},
    {'F', "Float", nullptr, Spaces, kAlways, kNoMemo, true},
    {'D', "Date", nullptr, Spaces, kNever, kNoMemo, true},
    {'L', "Logical", nullptr, Spaces, kNever, kNoMemo, true},
    {'M', "Memo", nullptr, Reference, kNever, kMemo, true},
    {'T', "DateTime", nullptr, SpacesAtLength14, kNever, kNoMemo, true},
    {'G', "General", nullptr, Reference, kNever, kMemo, true},
    {'Y', "Currency", nullptr, Zeros, kAlways, kNoMemo, true},
    {'B', "Binary", "Double", ZerosAtLength8Or4, kAt8, kMemoAt10, true},
    {'I', "Integer", nullptr, Zeros, kAlways, kNoMemo, true},
    {'0', "System", nullptr, Zeros, kNever, kNoMemo, true},
    {'@', "DateTime", nullptr, SpacesAtLength14, kNever, kNoMemo, true},
    {'+', "Integer", nullptr, Zeros, kAlways, kNoMemo, true},
    {'O', "Binary", "Double", Zeros, kAlways, kNoMemo, true},
    {'V', "Variant", nullptr, Spaces, kNever, kNoMemo, true},
    {'Q', "Varbinary", nullptr, Zeros, kNever, kNoMemo, true},
    {'W', "Blob", nullptr, Zeros, kNever, kMemo, true},
    {'P', "Picture", nullptr, Zeros, kNever, kNoMemo, false},
};

/// Index into kTypes by letter; 0, the unknown row, for every other byte.
constexpr std::array<u8, 256> kRowOfLetter = [] {
    std::array<u8, 256> rows{};
    for (std::size_t i = 1; i < std::size(kTypes); ++i) {
        rows[static_cast<u8>(kTypes[i].letter)] = static_cast<u8>(i);
    }
    return rows;
}();

constexpr u8 kVersions[] = {0x02, 0x03, 0x04, 0x30, 0x31, 0x43, 0x63, 0x83, 0x8B, 0x8C, 0xCB,
                            0xF5, 0xFB, 0xE5, 0x32, 0x42, 0x62, 0x82, 0x8A, 0xCA, 0xF4, 0xFA};

}  // namespace

bool isNumeric(const DbfField& f) {
    const NumericRule rule = typeRow(f.Type).numeric;
    return rule == kAlways || (rule == kAt8 && f.Length == 8);
}

const TypeRow& typeRow(char letter) { return kTypes[kRowOfLetter[static_cast<u8>(letter)]]; }

bool acceptedVersion(u8 version) {
    return std::memchr(kVersions, version, sizeof kVersions) != nullptr;
}

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
    const MemoRule rule = typeRow(f->Type).memo;
    return rule == kMemo || (rule == kMemoAt10 && wideLength(*f) == 10) ? 1 : 0;
}

char FieldBlankChar(DbfBase* h, int field) {
    const DbfField* f = tableField(h, field);
    if (f == nullptr) return 0;
    switch (typeRow(f->Type).blank) {
        case Spaces:
            return ' ';
        case Zeros:
            return 0;
        case SpacesAtLength14:
            return f->Length == 14 ? ' ' : 0;
        case ZerosAtLength8Or4:
            return f->Length == 8 || f->Length == 4 ? 0 : ' ';
        case Reference:  // decimal digits, except for the binary references of SMT
            return f->Length == 10 && h->Header.Version != kVersionSmt ? ' ' : 0;
    }
    return 0;
}

void ClearField(DbfBase* h, int field) {
    const std::span<u8> bytes = fieldBytes(h, field);
    if (!bytes.empty()) std::memset(bytes.data(), FieldBlankChar(h, field), bytes.size());
}

void ClearRecord(DbfBase* h) {
    h->RecordBuffer[0] = ' ';
    for (int field = 0; field < h->FieldCount; ++field) ClearField(h, field);
}

}  // namespace mira
