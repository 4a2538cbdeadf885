#include "tables/index/expression.h"

#include <algorithm>
#include <charconv>

#include "internal/real.h"
#include "tables/index/node.h"
#include "tables/page/text.h"
#include "tables/value/value.h"

namespace mira::tables::index {
namespace {

constexpr int kDeepestNesting = 100;

bool isNameByte(char c) { return isWordByte(c); }

/// Reads the text of an expression from left to right.
struct Reader {
    const Table& table;
    Dialect dialect;
    std::string_view rest;
    bool mayBeNull = false;
    int depth = 0;
};

[[noreturn]] void notUnderstood(const Reader& reader) {
    throw NotComputed(reader.rest.empty() ? std::string("the expression ends too early")
                                          : textOf("\"", reader.rest, "\" is not understood"));
}

void skipBlanks(Reader& reader) {
    while (!reader.rest.empty() && (reader.rest.front() == ' ' || reader.rest.front() == '\t')) {
        reader.rest.remove_prefix(1);
    }
}

/// Takes a sign or a word between points, in any letter case, when it comes next.
bool take(Reader& reader, std::string_view wanted) {
    skipBlanks(reader);
    if (upperAscii(reader.rest.substr(0, wanted.size())) != wanted) return false;
    reader.rest.remove_prefix(wanted.size());
    return true;
}

NodePointer newNode(Operation operation, KeyType type, u32 length = 0) {
    NodePointer node(new Node);
    node->operation = operation;
    node->type = type;
    node->length = length;
    node->literal.type = type;
    return node;
}

NodePointer call(Reader& reader, const Function& function, std::vector<NodePointer> arguments) {
    if (arguments.size() < function.least || arguments.size() > function.most) {
        throw NotComputed(textOf(function.name, " with ", arguments.size(), " arguments"));
    }
    NodePointer node = newNode(Operation::Call, KeyType::Text);
    node->function = &function;
    node->arguments = std::move(arguments);
    function.shape(*node, reader.dialect);
    return node;
}

NodePointer joined(Reader& reader, std::string_view sign, NodePointer left, NodePointer right) {
    std::vector<NodePointer> arguments;
    arguments.push_back(std::move(left));
    if (right) arguments.push_back(std::move(right));
    return call(reader, *functionNamed(sign), std::move(arguments));
}

NodePointer readOr(Reader& reader);

NodePointer readText(Reader& reader, char end) {
    const std::size_t stop = reader.rest.find(end);
    if (stop == std::string_view::npos) notUnderstood(reader);
    NodePointer node = newNode(Operation::Literal, KeyType::Text, static_cast<u32>(stop));
    node->literal.text = reader.rest.substr(0, stop);
    reader.rest.remove_prefix(stop + 1);
    return node;
}

NodePointer readNumber(Reader& reader) {
    NodePointer node = newNode(Operation::Literal, KeyType::Number);
    const char* const first = reader.rest.data();
    const auto result =
        readReal(first, first + reader.rest.size(), node->literal.number, std::chars_format::fixed);
    if (result.ec != std::errc()) notUnderstood(reader);
    reader.rest.remove_prefix(static_cast<std::size_t>(result.ptr - first));
    return node;
}

NodePointer readField(Reader& reader, std::string_view name) {
    constexpr std::size_t kStoredName = 10;
    std::string shown;
    toUtf8(*reader.table.page.page, name, shown);
    const Column* column = areDigits(shown) ? nullptr : findColumn(reader.table, shown);
    if (column == nullptr && name.size() > kStoredName) {
        return readField(reader, name.substr(0, kStoredName));
    }
    if (column == nullptr) throw NotComputed(textOf("no field ", shown));
    reader.mayBeNull = reader.mayBeNull || column->mayBeNull();
    NodePointer node = newNode(Operation::Field, keyTypeOf(*column), column->length);
    node->column = column;
    node->decimals = column->decimals;
    return node;
}

std::string_view takeName(Reader& reader) {
    const auto end = std::find_if_not(reader.rest.begin(), reader.rest.end(), isNameByte);
    const auto length = static_cast<std::size_t>(end - reader.rest.begin());
    const std::string_view name = reader.rest.substr(0, length);
    reader.rest.remove_prefix(length);
    return name;
}

/// A field, with or without an alias, or a call.
NodePointer readNamed(Reader& reader) {
    std::string_view name = takeName(reader);
    if (take(reader, "(")) {
        const Function* const function = functionNamed(upperAscii(name));
        if (function == nullptr) throw NotComputed(textOf("function ", upperAscii(name)));
        std::vector<NodePointer> arguments;
        while (!take(reader, ")")) {
            if (!arguments.empty() && !take(reader, ",")) notUnderstood(reader);
            arguments.push_back(readOr(reader));
        }
        return call(reader, *function, std::move(arguments));
    }
    const bool alias =
        take(reader, "->") ||
        (reader.rest.size() > 1 && reader.rest[0] == '.' && isNameByte(reader.rest[1]) &&
         upperAscii(reader.rest.substr(0, 4)) != ".OR." &&
         upperAscii(reader.rest.substr(0, 5)) != ".AND." && take(reader, "."));
    if (alias) {
        skipBlanks(reader);
        name = takeName(reader);
    }
    if (name.empty()) notUnderstood(reader);
    return readField(reader, name);
}

NodePointer readPlain(Reader& reader) {
    skipBlanks(reader);
    if (reader.rest.empty()) notUnderstood(reader);
    for (const auto& [word, truth] :
         {std::pair{".T.", true}, {".Y.", true}, {".F.", false}, {".N.", false}}) {
        if (!take(reader, word)) continue;
        NodePointer node = newNode(Operation::Literal, KeyType::Logical);
        node->literal.truth = truth;
        return node;
    }
    const char c = reader.rest.front();
    if (isDigit(c) || c == '.') return readNumber(reader);
    if (isNameByte(c)) return readNamed(reader);
    reader.rest.remove_prefix(1);
    if (c == '"' || c == '\'') return readText(reader, c);
    if (c == '[') return readText(reader, ']');
    if (c != '(') notUnderstood(reader);
    NodePointer node = readOr(reader);
    if (!take(reader, ")")) notUnderstood(reader);
    return node;
}

NodePointer readSigned(Reader& reader) {
    if (take(reader, "-")) return joined(reader, "NEGATIVE", readSigned(reader), nullptr);
    take(reader, "+");
    NodePointer left = readPlain(reader);
    if (take(reader, "**") || take(reader, "^")) {
        return joined(reader, "**", std::move(left), readSigned(reader));
    }
    return left;
}

/// The operators of one level, longest first.
template <typename Next>
NodePointer readLevel(Reader& reader, std::initializer_list<std::string_view> signs, Next next) {
    NodePointer left = next(reader);
    while (true) {
        const auto* const sign = std::find_if(signs.begin(), signs.end(),
                                              [&](std::string_view s) { return take(reader, s); });
        if (sign == signs.end()) return left;
        left = joined(reader, *sign, std::move(left), next(reader));
    }
}

NodePointer readProduct(Reader& reader) { return readLevel(reader, {"*", "/"}, readSigned); }
NodePointer readSum(Reader& reader) { return readLevel(reader, {"+", "-"}, readProduct); }
NodePointer readComparison(Reader& reader) {
    return readLevel(reader, {"==", "=>", "=<", "<>", "!=", "<=", ">=", "=", "#", "<", ">", "$"},
                     readSum);
}
NodePointer readNot(Reader& reader) {
    if (take(reader, ".NOT.") || take(reader, "!")) {
        return joined(reader, ".NOT.", readNot(reader), nullptr);
    }
    return readComparison(reader);
}
NodePointer readAnd(Reader& reader) { return readLevel(reader, {".AND."}, readNot); }

NodePointer readOr(Reader& reader) {
    if (++reader.depth > kDeepestNesting) throw NotComputed("it is nested too deeply");
    NodePointer node = readLevel(reader, {".OR."}, readAnd);
    --reader.depth;
    return node;
}

}  // namespace

void NodeCloser::operator()(Node* node) const { delete node; }

KeyExpression prepare(const Table& table, std::string_view text, Dialect dialect) {
    Reader reader{table, dialect, text};
    KeyExpression expression;
    expression.root = readOr(reader);
    skipBlanks(reader);
    if (!reader.rest.empty()) notUnderstood(reader);
    const Node& root = *expression.root;
    expression.type = root.type;
    expression.length = root.length;
    expression.mayBeNull = reader.mayBeNull;
    expression.isInteger = root.operation == Operation::Field && root.column->kind == Kind::Integer;
    return expression;
}

void evaluate(const Table& table, const KeyExpression& expression, u32 record, KeyValue& value) {
    compute({table, record}, *expression.root, value);
}

bool isTouched(const KeyExpression& expression, const std::vector<u32>& offsets, bool marks) {
    const auto touched = [&](const auto& self, const Node& node) -> bool {
        if (node.operation == Operation::Field) {
            return std::find(offsets.begin(), offsets.end(), node.column->offset) != offsets.end();
        }
        if (marks && node.function == functionNamed("DELETED")) return true;
        return std::any_of(node.arguments.begin(), node.arguments.end(),
                           [&](const NodePointer& argument) { return self(self, *argument); });
    };
    return expression.root && touched(touched, *expression.root);
}

}  // namespace mira::tables::index
