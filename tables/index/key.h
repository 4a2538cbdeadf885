// Keys: what an expression gives, as an index file holds it.
//
//   texts           bytes, blanks behind them
//   logicals        T, F
//   numbers, days   8-byte double, big-endian, the sign bit turned; of negative ones all bits
//   4-byte fields   the integer, big-endian, plus 2^31
//   may be null     one byte in front, 80; a null is zero bytes
//
// These are the forms of .cdx and .idx, in which keys compare by byte. Those of other kinds are
// turned into them before they are compared.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tables/index/expression.h"
#include "tables/index/index.h"

namespace mira::tables::index {

/// How the keys of one tag are made.
struct KeyRule {
    KeyExpression key;
    KeyExpression condition;  // root null: all records
    KeyForm form = KeyForm::Text;
    u32 length = 0;    // of a key as it is compared
    u32 decimals = 0;  // of KeyForm::Digits
    bool nullByte = false;
    bool isInteger = false;
};

/// The rule of a tag; throws NotComputed.
KeyRule ruleOf(const Table& table, const IndexFile& file, const Tag& tag);
/// What fills the end of a shortened key.
inline char fillerOf(const KeyRule& rule) { return rule.key.type == KeyType::Text ? ' ' : '\0'; }
/// Whether the record in RecordBuffer, by its number from 1, belongs into the index.
bool isIndexed(const Table& table, const KeyRule& rule, u32 record);
/// The key of the record in RecordBuffer.
void makeKey(const Table& table, const KeyRule& rule, u32 record, std::string& key);
/// Called after every record that is read; may throw.
using Step = std::function<void()>;
/// Goes through the table once for several rules and hands over every key with its record, from 1,
/// and the number of its rule. Overwrites RecordBuffer. Throws a Refusal.
void eachKey(const Table& table, const std::vector<const KeyRule*>& rules, const Step& step,
             const std::function<void(std::size_t rule, std::string_view key, u32 record)>& take);
/// A stored key in the form that makeKey gives.
std::string comparable(const KeyRule& rule, std::string_view stored);

}  // namespace mira::tables::index
