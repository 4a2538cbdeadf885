// Expressions of index files: a language of its own, that of dBase and FoxPro, over the record in
// RecordBuffer. Texts are bytes in the table's page.
//
//   .OR.   .AND.   .NOT. !   = == <> # != < > <= >= $   + -   * /   ** ^   unary + -
//
// Fields may have an alias before them (STOCK->CODE, STOCK.CODE). A name of more than ten letters
// means the field of its first ten.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tables/column/column.h"

namespace mira::tables::index {

/// Why an expression cannot be computed, in words that follow "not computed: ".
struct NotComputed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

enum class KeyType : u8 { Text, Number, Date, Moment, Logical };

/// What an expression gives for a record.
struct KeyValue {
    KeyType type = KeyType::Text;
    bool isNull = false;
    std::string text{};
    double number = 0;  // days of a date and a moment; 0: blank
    bool truth = false;
};

/// What programs disagree about.
struct Dialect {
    u32 strWidth = 10;  // of STR with one argument; 0: the width of the field
};

struct Node;
struct NodeCloser {
    void operator()(Node* node) const;
};
using NodePointer = std::unique_ptr<Node, NodeCloser>;

/// An expression made ready for a table.
struct KeyExpression {
    NodePointer root;
    KeyType type = KeyType::Text;
    u32 length = 0;          // most bytes of a text
    bool mayBeNull = false;  // it uses a field that may be
    bool isInteger = false;  // it is a field of 4-byte integers and nothing else
};

/// Throws NotComputed. The table has to outlive the result.
KeyExpression prepare(const Table& table, std::string_view text, Dialect dialect);
/// Its value for the record in RecordBuffer, whose number is given from 1.
void evaluate(const Table& table, const KeyExpression& expression, u32 record, KeyValue& value);

/// Whether its value may be another once fields, by their offsets in the record, or deletion marks
/// have been changed.
bool isTouched(const KeyExpression& expression, const std::vector<u32>& offsets, bool marks);

}  // namespace mira::tables::index
