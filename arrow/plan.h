// Which columns a stream has, and the Arrow type of each.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "arrow/mira_arrow.h"
#include "tables/column/column.h"
#include "tables/page/refusal.h"

namespace mira::arrow {

/// A Refusal with the result that the caller gets.
struct Failure : tables::Refusal {
    Failure(int of, const std::string& sentence) : Refusal(sentence), result(of) {}
    int result;
};

/// How values lie in an array.
enum class Shape : u8 { Text, Binary, Int64, Int32, Double, Decimal, Date, Moment, Logical };

/// A column of the stream.
struct Field {
    tables::Column column{};
    Shape shape = Shape::Text;
    unsigned precision = 0, scale = 0;  // of a decimal
    bool source = false;                // the path of the table, no column of it
};

/// Bytes that an entry takes; 0 for bits, and 8 for the ends of texts.
std::size_t widthOf(Shape shape);

/// The options with nulls for what the caller does not know. Throws a Failure.
MiraArrowOptions optionsOf(const MiraArrowOptions* given);

/// The columns of a table as the options want them. Throws a Failure.
std::vector<Field> fieldsOf(const tables::Table& table, const MiraArrowOptions& options);

/// Why two tables do not go into one stream; empty when they do.
std::string difference(const std::vector<Field>& first, const std::vector<Field>& other);

/// Fills in a schema, which the caller releases. Throws std::bad_alloc, the schema then as it was.
void putSchema(const std::vector<Field>& fields, ArrowSchema* schema);

}  // namespace mira::arrow
