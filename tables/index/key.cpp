#include "tables/index/key.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>

#include "tables/page/bytes.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables::index {
namespace {

constexpr u64 kSign = u64{1} << 63;
constexpr u32 kOffset = u32{1} << 31;
constexpr char kNotNull = '\x80';
constexpr std::size_t kDouble = 8;

void appendBe(std::string& key, u64 value, int bytes) {
    for (int i = bytes; i-- > 0;) key += static_cast<char>(value >> (8 * i) & 0xFF);
}

void appendDouble(std::string& key, double number) {
    const u64 bits = std::bit_cast<u64>(number == 0 ? 0.0 : number);
    appendBe(key, (bits & kSign) != 0 ? ~bits : bits | kSign, kDouble);
}

/// The digits of a negative number are stored as "," less their value.
double numberOfDigits(std::string_view stored) {
    const bool negative =
        std::any_of(stored.begin(), stored.end(), [](char c) { return c >= '#' && c <= ','; });
    std::string digits(negative ? "-" : "");
    for (const char c : stored) {
        digits += negative && c >= '#' && c <= ',' ? static_cast<char>('0' + (',' - c)) : c;
    }
    const std::string_view text = trimmed(digits);
    return isNumber(text) ? toReal(text) : 0;
}

/// 34 and the digits before the point, sign (80) and count of digits, digits two a byte.
double numberOfDecimal(std::string_view stored) {
    constexpr int kPointAt = 0x34;
    std::string digits = (static_cast<u8>(stored[1]) & 0x80) != 0 ? "-." : ".";
    for (const char pair : stored.substr(2)) {
        digits += static_cast<char>('0' + std::min(static_cast<u8>(pair) >> 4, 9));
        digits += static_cast<char>('0' + (static_cast<u8>(pair) & 15) % 10);
    }
    return toReal("0" == digits ? digits
                                : textOf(digits, 'e', static_cast<u8>(stored[0]) - kPointAt));
}

/// A number as the file's digits give it back.
double rounded(double number, u32 decimals) {
    char digits[400];
    std::snprintf(digits, sizeof digits, "%.*f", static_cast<int>(std::min(decimals, 30U)), number);
    return toReal(digits);
}

/// Reads the expression, and again by the other width of STR when keys of that length fit better.
KeyExpression fittingExpression(const Table& table, const Tag& tag) {
    const Dialect others{0};
    KeyExpression expression = prepare(table, tag.expression, {});
    if (expression.type != KeyType::Text || expression.length == tag.keyLength) return expression;
    KeyExpression other = prepare(table, tag.expression, others);
    const bool fits = other.length + (other.mayBeNull ? 1 : 0) == tag.keyLength;
    return fits ? std::move(other) : std::move(expression);
}

u32 bareLength(const KeyRule& rule) {
    switch (rule.key.type) {
        case KeyType::Text:
            return rule.key.length;
        case KeyType::Logical:
            return 1;
        case KeyType::Number:
        case KeyType::Date:
        case KeyType::Moment:
            return rule.isInteger ? 4 : kDouble;
    }
    return 0;
}

KeyForm formOf(const IndexFile& file, const Tag& tag, KeyType type) {
    if (file.kind != IndexKind::Ntx || type != KeyType::Number) return tag.form;
    return KeyForm::Digits;
}

/// Dates of .ntx are texts of eight digits.
bool isDateText(const IndexFile& file, const KeyRule& rule) {
    return file.kind == IndexKind::Ntx && rule.key.type == KeyType::Date;
}

std::string misfit(const Tag& tag, u32 length) {
    return textOf("keys of ", tag.keyLength, " bytes, where the expression gives ", length);
}

/// Fits the rule to keys whose length the file says.
void fitLength(const Table& table, const Tag& tag, KeyRule& rule) {
    rule.nullByte = table.visual && rule.key.mayBeNull;
    rule.isInteger = rule.key.isInteger && tag.keyLength == (rule.nullByte ? 5U : 4U);
    rule.length = bareLength(rule) + (rule.nullByte ? 1 : 0);
    if (rule.nullByte && rule.key.type == KeyType::Text && tag.keyLength == rule.key.length) {
        rule.nullByte = false;  // made by a program that knows no nulls
        rule.length = tag.keyLength;
    }
    const bool mayBeCut = rule.key.type == KeyType::Text && tag.keyLength < rule.length;
    if (tag.keyLength != rule.length && !mayBeCut) throw NotComputed(misfit(tag, rule.length));
    rule.length = tag.keyLength;
}

}  // namespace

KeyRule ruleOf(const Table& table, const IndexFile& file, const Tag& tag) {
    if (tag.bitmap) throw NotComputed("bitmap tag (made with BINARY), no keys");
    KeyRule rule;
    rule.key = fittingExpression(table, tag);
    if (!tag.condition.empty()) {
        rule.condition = prepare(table, tag.condition, {});
        if (rule.condition.type != KeyType::Logical)
            throw NotComputed("FOR gives no logical value");
    }
    if (rule.key.type == KeyType::Text && !tag.collation.empty()) {
        throw NotComputed(textOf("collation ", tag.collation, " of a text"));
    }
    if (isDateText(file, rule)) {
        rule.key = prepare(table, textOf("DTOS(", tag.expression, ')'), {});
    }
    rule.form = formOf(file, tag, rule.key.type);
    rule.decimals = tag.decimals;
    const bool isNumber = rule.form == KeyForm::LittleDouble || rule.form == KeyForm::Decimal ||
                          rule.form == KeyForm::Digits;
    if (isNumber != (rule.key.type == KeyType::Number || rule.key.type == KeyType::Date ||
                     rule.key.type == KeyType::Moment) &&
        rule.form != KeyForm::Unknown) {
        throw NotComputed("its keys are of another kind than its expression");
    }
    if (isNumber) {
        rule.length = kDouble;
    } else {
        fitLength(table, tag, rule);
    }
    return rule;
}

bool isIndexed(const Table& table, const KeyRule& rule, u32 record) {
    if (!rule.condition.root) return true;
    KeyValue value;
    evaluate(table, rule.condition, record, value);
    return value.truth && !value.isNull;
}

void makeKey(const Table& table, const KeyRule& rule, u32 record, std::string& key) {
    KeyValue value;
    evaluate(table, rule.key, record, value);
    key.clear();
    if (rule.nullByte && value.isNull) return key.resize(rule.length, '\0');
    if (rule.nullByte) key += kNotNull;
    switch (value.type) {
        case KeyType::Text:
            key += value.text;
            return key.resize(rule.length, ' ');
        case KeyType::Logical:
            key += value.truth ? 'T' : 'F';
            return;
        case KeyType::Number:
        case KeyType::Date:
        case KeyType::Moment:
            break;
    }
    if (rule.isInteger) {
        return appendBe(key, static_cast<u32>(static_cast<i32>(value.number)) + kOffset, 4);
    }
    appendDouble(
        key, rule.form == KeyForm::Digits ? rounded(value.number, rule.decimals) : value.number);
}

void eachKey(const Table& table, const std::vector<const KeyRule*>& rules, const Step& step,
             const std::function<void(std::size_t rule, std::string_view key, u32 record)>& take) {
    const u32 count = reccount(table.base.get());
    std::string key;
    for (u32 record = 1; record <= count; ++record) {
        readRecord(table, record - 1);
        for (std::size_t i = 0; i < rules.size(); ++i) {
            if (!isIndexed(table, *rules[i], record)) continue;
            makeKey(table, *rules[i], record, key);
            take(i, key, record);
        }
        if (step) step();
    }
}

std::string comparable(const KeyRule& rule, std::string_view stored) {
    std::string key;
    switch (rule.form) {
        case KeyForm::Unknown:
        case KeyForm::Text:
            return std::string(stored);
        case KeyForm::Digits:
            appendDouble(key, numberOfDigits(stored));
            return key;
        case KeyForm::LittleDouble:
            appendDouble(key, loadLe<double>(stored.data()));
            return key;
        case KeyForm::Decimal:
            appendDouble(key, numberOfDecimal(stored));
            return key;
    }
    return key;
}

}  // namespace mira::tables::index
