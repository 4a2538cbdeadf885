#include "arrow/plan.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

#include "tables/open/open.h"
#include "tables/page/escape.h"

namespace mira::arrow {
namespace {

using tables::Column;
using tables::Kind;
using tables::Table;

constexpr unsigned kInt64Digits = 18;
constexpr unsigned kDecimalDigits = 38;
constexpr unsigned kCurrencyDigits = 19;

// --------------------------------------------------------------------------------------------
// Types
// --------------------------------------------------------------------------------------------

void takeDecimal(Field& field, unsigned precision, unsigned scale) {
    const bool fits = precision > 0 && precision <= kDecimalDigits && scale <= precision;
    field.shape = fits ? Shape::Decimal : Shape::Text;
    field.precision = precision;
    field.scale = scale;
}

void takeNumber(Field& field, bool exact) {
    const Column& column = field.column;
    if (column.decimals == 0 && column.length <= kInt64Digits) {
        field.shape = Shape::Int64;
    } else if (column.decimals != 0 && !exact) {
        field.shape = Shape::Double;
    } else {
        takeDecimal(field, column.length, column.decimals);
    }
}

Field fieldOf(const Column& column, bool exact) {
    Field field;
    field.column = column;
    switch (column.kind) {
        case Kind::Decimal:
            takeNumber(field, exact);
            break;
        case Kind::Integer:
            field.shape = Shape::Int32;
            break;
        case Kind::Double:
            field.shape = Shape::Double;
            break;
        case Kind::Currency:
            takeDecimal(field, kCurrencyDigits, tables::kCurrencyDecimals);
            break;
        case Kind::Date:
            field.shape = Shape::Date;
            break;
        case Kind::Moment:
            field.shape = Shape::Moment;
            break;
        case Kind::Logical:
        case Kind::Deletion:
            field.shape = Shape::Logical;
            break;
        case Kind::RecordNumber:
            field.shape = Shape::Int64;
            break;
        case Kind::Varbinary:
        case Kind::Blob:
        case Kind::Bytes:
            field.shape = Shape::Binary;
            break;
        case Kind::Text:
        case Kind::Varchar:
        case Kind::Memo:
        case Kind::Calculated:
            field.shape = Shape::Text;
            break;
    }
    return field;
}

bool isAnyNumber(Kind kind) {
    return kind == Kind::Decimal || kind == Kind::Integer || kind == Kind::Double ||
           kind == Kind::Currency;
}

/// Gives a field the type of a word; false when it cannot have it.
bool takeType(Field& field, std::string_view type) {
    Column& column = field.column;
    if (column.field == tables::kNoField) return false;
    if (type == "double" && isAnyNumber(column.kind)) {
        field.shape = Shape::Double;
    } else if (type == "int64" && (column.kind == Kind::Decimal || column.kind == Kind::Integer)) {
        field.shape = Shape::Int64;
    } else if (type == "decimal" && column.kind == Kind::Decimal) {
        takeDecimal(field, column.length, column.decimals);
        return field.shape == Shape::Decimal;
    } else if (type == "decimal" && column.kind == Kind::Currency) {
        takeDecimal(field, kCurrencyDigits, tables::kCurrencyDecimals);
    } else if (type == "text") {
        tables::readAsText(column);
        field.shape = Shape::Text;
    } else if (type == "binary") {
        tables::readAsBytes(column);
        field.shape = Shape::Binary;
    } else {
        return false;
    }
    return true;
}

// --------------------------------------------------------------------------------------------
// Columns
// --------------------------------------------------------------------------------------------

/// The columns that are no fields, under the names that they have beside the fields.
struct Extra {
    explicit Extra(const Table& table)
        : record(tables::extraColumn(table, "_record", Kind::RecordNumber)),
          deleted(tables::extraColumn(table, "_deleted", Kind::Deletion)) {}
    Column record, deleted;
};

[[noreturn]] void refuseName(const Table& table, std::string_view name) {
    try {
        tables::columnNamed(table, name);
    } catch (const tables::Refusal& refusal) {
        throw Failure(MIRA_ARROW_NO_FIELD, refusal.what());
    }
    throw Failure(MIRA_ARROW_NO_FIELD, tables::textOf(table.path, ": no column \"", name, '"'));
}

const Column& columnOf(const Table& table, const Extra& extra, std::string_view name) {
    if (const Column* column = tables::findColumn(table, name)) return *column;
    for (const Column* column : {&extra.record, &extra.deleted}) {
        if (tables::sameText(column->name, name)) return *column;
    }
    refuseName(table, name);
}

Field* findField(std::vector<Field>& fields, const Column& column) {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field& field) {
        return field.column.name == column.name;
    });
    return found != fields.end() ? &*found : nullptr;
}

void takeTypes(const Table& table, const Extra& extra, const char* types,
               std::vector<Field>& fields) {
    if (types == nullptr) return;
    for (const std::string& given : tables::splitList(types)) {
        const std::size_t equals = given.rfind('=');
        const std::string_view name = std::string_view(given).substr(0, equals);
        const std::string_view type =
            equals == std::string::npos ? "" : std::string_view(given).substr(equals + 1);
        const Column& column = columnOf(table, extra, tables::trimmed(name));
        Field other = fieldOf(column, false);  // one that is not among the columns
        Field* const found = findField(fields, column);
        if (!takeType(found != nullptr ? *found : other, tables::trimmed(type))) {
            throw Failure(MIRA_ARROW_BAD_OPTION,
                          tables::textOf(table.path, ": types ", given,
                                         ": NAME=double, int64, decimal, text or binary, where the "
                                         "field can be that"));
        }
    }
}

/// The column that says from which table a record is. It gives way to a field of that name.
Field sourceField(std::vector<Field>& fields, const char* name) {
    Field field;
    field.source = true;
    field.shape = Shape::Text;
    field.column.name = tables::freeName(name, [&](const std::string& wanted) {
        return std::none_of(fields.begin(), fields.end(), [&](const Field& other) {
            return tables::sameText(other.column.name, wanted);
        });
    });
    return field;
}

// --------------------------------------------------------------------------------------------
// Schemas
// --------------------------------------------------------------------------------------------

std::string formatOf(const Field& field) {
    constexpr const char* kFormats[] = {"U", "Z", "l", "i", "g", "", "tdD", "tsu:", "b"};
    if (field.shape != Shape::Decimal) return kFormats[static_cast<std::size_t>(field.shape)];
    return tables::textOf("d:", field.precision, ',', field.scale);
}

void putMetadataText(std::string& out, std::string_view text) {
    const auto size = static_cast<i32>(text.size());
    out.append(reinterpret_cast<const char*>(&size), sizeof size);
    out += text;
}

/// Pairs of texts after their number, in the order of the machine.
std::string metadataOf(const Column& column) {
    std::string out;
    if (column.field == tables::kNoField) return out;
    constexpr i32 kPairs = 3;
    out.append(reinterpret_cast<const char*>(&kPairs), sizeof kPairs);
    putMetadataText(out, "mira:type");
    putMetadataText(out, tables::escaped({&column.type, 1}));
    putMetadataText(out, "mira:length");
    putMetadataText(out, std::to_string(column.length));
    putMetadataText(out, "mira:decimals");
    putMetadataText(out, std::to_string(unsigned{column.decimals}));
    return out;
}

/// What a schema owns. A child may be moved away, and then is released by its new owner.
struct OwnedSchema {
    std::string format, name, metadata;
    std::vector<ArrowSchema> children;
    std::vector<ArrowSchema*> places;

    ~OwnedSchema() {
        for (ArrowSchema& child : children) {
            if (child.release != nullptr) child.release(&child);
        }
    }
};

void releaseSchema(ArrowSchema* schema) {
    delete static_cast<OwnedSchema*>(schema->private_data);
    schema->release = nullptr;
}

ArrowSchema schemaOf(std::unique_ptr<OwnedSchema> owned, i64 flags) {
    ArrowSchema schema{};
    schema.format = owned->format.c_str();
    schema.name = owned->name.c_str();
    schema.metadata = owned->metadata.empty() ? nullptr : owned->metadata.data();
    schema.flags = flags;
    schema.n_children = static_cast<i64>(owned->children.size());
    schema.children = owned->places.data();
    schema.release = releaseSchema;
    schema.private_data = owned.release();
    return schema;
}

}  // namespace

std::size_t widthOf(Shape shape) {
    constexpr std::array<std::size_t, 9> kWidths = {8, 8, 8, 4, 8, 16, 4, 8, 0};
    return kWidths[static_cast<std::size_t>(shape)];
}

MiraArrowOptions optionsOf(const MiraArrowOptions* given) {
    MiraArrowOptions options{};
    if (given == nullptr) return options;
    if (given->size == 0) {
        throw Failure(MIRA_ARROW_BAD_OPTION, "size is to be sizeof(struct MiraArrowOptions)");
    }
    std::memcpy(&options, given, std::min(given->size, sizeof options));
    if (options.deleted > 2) throw Failure(MIRA_ARROW_BAD_OPTION, "deleted is 0, 1 or 2");
    return options;
}

std::vector<Field> fieldsOf(const Table& table, const MiraArrowOptions& options) {
    const Extra extra(table);
    const bool exact = options.exact_decimals != 0;
    std::vector<Field> fields;
    if (options.columns == nullptr) {
        for (const Column& column : table.columns) fields.push_back(fieldOf(column, exact));
    } else {
        for (const std::string& name : tables::splitList(options.columns)) {
            const Column& column = columnOf(table, extra, name);
            if (findField(fields, column) == nullptr) fields.push_back(fieldOf(column, exact));
        }
    }
    if (options.deleted != 0 && findField(fields, extra.deleted) == nullptr) {
        fields.push_back(fieldOf(extra.deleted, exact));
    }
    takeTypes(table, extra, options.types, fields);
    if (options.source != nullptr) fields.push_back(sourceField(fields, options.source));
    return fields;
}

std::string difference(const std::vector<Field>& first, const std::vector<Field>& other) {
    if (first.size() != other.size()) {
        return tables::textOf(tables::counted(other.size(), "column"), " instead of ",
                              first.size());
    }
    for (std::size_t i = 0; i < first.size(); ++i) {
        const Field& a = first[i];
        const Field& b = other[i];
        if (!tables::sameText(a.column.name, b.column.name)) {
            return tables::textOf("column ", b.column.name, " instead of ", a.column.name);
        }
        if (formatOf(a) != formatOf(b)) {
            return tables::textOf("column ", b.column.name, " is ", formatOf(b), " instead of ",
                                  formatOf(a));
        }
    }
    return {};
}

void putSchema(const std::vector<Field>& fields, ArrowSchema* schema) {
    auto owned = std::make_unique<OwnedSchema>();
    owned->format = "+s";
    owned->children.reserve(fields.size());
    for (const Field& field : fields) {
        auto child = std::make_unique<OwnedSchema>();
        child->format = formatOf(field);
        child->name = field.column.name;
        child->metadata = metadataOf(field.column);
        const bool certain = field.source || field.column.kind == Kind::RecordNumber ||
                             field.column.kind == Kind::Deletion;
        owned->children.push_back(schemaOf(std::move(child), certain ? 0 : ARROW_FLAG_NULLABLE));
    }
    for (ArrowSchema& child : owned->children) owned->places.push_back(&child);
    *schema = schemaOf(std::move(owned), 0);
}

}  // namespace mira::arrow
