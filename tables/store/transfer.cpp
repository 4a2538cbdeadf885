#include "tables/store/transfer.h"

#include "tables/page/text.h"
#include "tables/value/plain.h"

namespace mira::tables {
namespace {

/// What is wrong with a cell that gives no value to be kept.
const char* wordOf(Fault fault) {
    switch (fault) {
        case Fault::None:
        case Fault::Rounded:
        case Fault::Unkept:
            return "";
        case Fault::NoNumber:
            return "its bytes are no number";
        case Fault::NoDate:
            return "its bytes are no date";
        case Fault::NoLogical:
            return "its byte is no logical value";
        case Fault::NoCharacter:
            return "some of its bytes are no characters of the code page";
        case Fault::LengthPastEnd:
            return "its length reaches past its end";
        case Fault::NoMemo:
            return "its memo cannot be read";
        case Fault::MemoCut:
            return "its memo is not whole";
    }
    return "";
}

bool hasNoBlank(const Column& column) {
    return column.kind == Kind::Integer || column.kind == Kind::Double ||
           column.kind == Kind::Currency;
}

bool holdsText(const Column& column) {
    return column.kind == Kind::Text || column.kind == Kind::Varchar || column.kind == Kind::Memo;
}

/// Why there is no place for a null or a blank; empty when there is.
std::string misfitOf(ValueKind nothing, const Column& column) {
    if (nothing == ValueKind::Null && !column.mayBeNull()) return "null, which it cannot be";
    if (nothing == ValueKind::Blank && hasNoBlank(column) && !column.mayBeNull()) {
        return textOf("blank, which ", typeLabel(column), " cannot be");
    }
    return "";
}

/// Whether bytes in a memo field are taken for text: those without a zero byte in them.
bool wouldBeText(std::string_view bytes, const Column& column) {
    const std::size_t zero = bytes.find('\0');
    return column.kind == Kind::Memo && !column.untranslated &&
           (zero == std::string_view::npos || zero + 1 == bytes.size());
}

/// A value as another field is given it. plain holds the text of those that have none.
Given givenOf(const Value& value, const Column& source, const Column& column, std::string& plain) {
    switch (value.kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
            return {};
        case ValueKind::Text:
            if (!holdsText(column) && trimmed(value.text).empty()) return {};
            return Given::ofText(value.text);
        case ValueKind::Bytes:
            return Given::ofBlob(value.text);
        case ValueKind::Integer:
            return Given::ofInteger(value.integer);
        case ValueKind::Real:
            if (column.kind == Kind::Double) return Given::ofReal(value.real);
            break;
        case ValueKind::Logical:
            if (isOfNumbers(column)) return Given::ofInteger(value.integer);
            break;
        case ValueKind::Digits:
        case ValueKind::Currency:
        case ValueKind::Date:
        case ValueKind::Moment:
            break;
    }
    plain.clear();
    putPlain(plain, value);
    Given given = Given::ofText(plain);
    given.asGiven = value.kind == ValueKind::Digits && source.decimals == column.decimals;
    return given;
}

}  // namespace

std::string transferValue(CellReader& from, const Column& source, Table& table,
                          const Column& column, Nothing nothing, Encoded& encoded) {
    Value value;
    readCell(from, source, value);
    if (value.fault != Fault::None && value.fault != Fault::Rounded) return wordOf(value.fault);
    const bool none = value.kind == ValueKind::Null || value.kind == ValueKind::Blank;
    if (none && nothing == Nothing::Misfits) {
        std::string misfit = misfitOf(value.kind, column);
        if (!misfit.empty()) return misfit;
    }
    const bool padded = value.kind == ValueKind::Text && value.text.ends_with(' ');
    if (padded && column.kind == Kind::Text && nothing == Nothing::Misfits) {
        return textOf("blanks at its end, which ", typeLabel(column), " does not keep");
    }
    if (value.kind == ValueKind::Bytes && nothing == Nothing::Misfits &&
        wouldBeText(value.text, column)) {
        return "bytes that a memo field shows as text";
    }
    std::string plain;
    Given given = givenOf(value, source, column, plain);
    std::string reason = encodeValue(table, column, given, true, encoded);
    // Digits of a double go into a field of digits as they are where they cannot be padded.
    if (!reason.empty() && value.kind == ValueKind::Real && column.kind == Kind::Decimal) {
        given.asGiven = true;
        reason = encodeValue(table, column, given, true, encoded);
    }
    if (value.kind == ValueKind::Blank && !hasNoBlank(column)) encoded.isNull = false;
    return reason;
}

}  // namespace mira::tables
