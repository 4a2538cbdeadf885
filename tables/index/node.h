// The inside of a prepared expression: what its reader makes and what evaluates it.
#pragma once

#include "tables/index/expression.h"

namespace mira::tables::index {

struct Node;

/// What a node is computed from.
struct Scene {
    const Table& table;
    u32 record;  // from 1
};

struct Function {
    std::string_view name;  // in capitals
    std::size_t least, most;
    /// Checks the kinds of the arguments and fills type and length of the node; throws NotComputed.
    void (*shape)(Node& node, const Dialect& dialect);
    void (*compute)(const Scene& scene, const Node& node, KeyValue& value);
};
/// Null when there is none of that name.
const Function* functionNamed(std::string_view name);

enum class Operation : u8 { Literal, Field, Call };

struct Node {
    Operation operation = Operation::Literal;
    KeyType type = KeyType::Text;
    u32 length = 0;    // most bytes of a text
    u32 decimals = 0;  // of a number that is a field
    KeyValue literal{};
    const Column* column = nullptr;
    const Function* function = nullptr;
    std::vector<NodePointer> arguments{};
};

void compute(const Scene& scene, const Node& node, KeyValue& value);
/// What a field gives; throws NotComputed for one that no expression can compute.
KeyType keyTypeOf(const Column& column);
/// The value of a field.
void computeField(const Scene& scene, const Column& column, KeyValue& value);

}  // namespace mira::tables::index
