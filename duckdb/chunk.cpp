#include "duckdb/chunk.h"

#include <cstdint>
#include <cstring>

namespace mira::duck {
namespace {

using arrow::Field;
using arrow::Shape;
using arrow::Vector;

Type typeOf(const Field& field) {
    switch (field.shape) {
        case Shape::Text:
            return Type(DUCKDB_TYPE_VARCHAR);
        case Shape::Binary:
            return Type(DUCKDB_TYPE_BLOB);
        case Shape::Int64:
            return Type(DUCKDB_TYPE_BIGINT);
        case Shape::Int32:
            return Type(DUCKDB_TYPE_INTEGER);
        case Shape::Double:
            return Type(DUCKDB_TYPE_DOUBLE);
        case Shape::Decimal:
            return {static_cast<uint8_t>(field.precision), static_cast<uint8_t>(field.scale)};
        case Shape::Date:
            return Type(DUCKDB_TYPE_DATE);
        case Shape::Moment:
            return Type(DUCKDB_TYPE_TIMESTAMP);
        case Shape::Logical:
            return Type(DUCKDB_TYPE_BOOLEAN);
    }
    return Type(DUCKDB_TYPE_BLOB);
}

/// Decimals of up to 18 digits take fewer than the 16 bytes that they have in an array.
template <typename T>
void putNarrow(const u8* from, std::size_t count, void* to) {
    constexpr std::size_t kWide = 16;
    auto* const out = static_cast<u8*>(to);
    for (std::size_t i = 0; i < count; ++i)
        std::memcpy(out + i * sizeof(T), from + i * kWide, sizeof(T));
}

void putDecimals(const Field& field, Vector& from, void* to) {
    constexpr unsigned kDigits16 = 4;
    constexpr unsigned kDigits32 = 9;
    constexpr unsigned kDigits64 = 18;
    const u8* const bytes = from.values.data();
    if (field.precision <= kDigits16) return putNarrow<std::int16_t>(bytes, from.count, to);
    if (field.precision <= kDigits32) return putNarrow<i32>(bytes, from.count, to);
    if (field.precision <= kDigits64) return putNarrow<i64>(bytes, from.count, to);
    std::memcpy(to, bytes, from.count * sizeof(duckdb_hugeint));
}

void putTexts(Vector& from, duckdb_vector to) {
    const u8* const ends = from.values.data();  // after a 0
    const char* const bytes = reinterpret_cast<const char*>(from.bytes.data());
    u64 begin = 0;
    for (std::size_t i = 0; i < from.count; ++i) {
        u64 end = 0;
        std::memcpy(&end, ends + (i + 1) * sizeof end, sizeof end);
        putText(to, i, {bytes + begin, end - begin});
        begin = end;
    }
}

}  // namespace

void declareColumn(duckdb_bind_info info, const Field& field) {
    duckdb_bind_add_result_column(info, field.column.name.c_str(), typeOf(field).get());
}

void putText(duckdb_vector to, idx_t row, std::string_view text) {
    duckdb_string_t string{};
    constexpr std::size_t kInlined = sizeof string.value.inlined.inlined;
    if (text.size() > kInlined) {
        duckdb_vector_assign_string_element_len(to, row, text.data(), text.size());
        return;
    }
    string.value.inlined.length = static_cast<uint32_t>(text.size());
    if (!text.empty()) std::memcpy(string.value.inlined.inlined, text.data(), text.size());
    static_cast<duckdb_string_t*>(duckdb_vector_get_data(to))[row] = string;
}

void putNull(duckdb_vector to, idx_t row) {
    duckdb_vector_ensure_validity_writable(to);
    duckdb_validity_set_row_invalid(duckdb_vector_get_validity(to), row);
}

void putColumn(const Field& field, Vector& from, duckdb_vector to) {
    if (from.count == 0) return;
    if (from.nulls != 0) {
        duckdb_vector_ensure_validity_writable(to);
        std::memcpy(duckdb_vector_get_validity(to), from.valid.data(), (from.count + 7) / 8);
    }
    switch (field.shape) {
        case Shape::Text:
        case Shape::Binary:
            return putTexts(from, to);
        case Shape::Decimal:
            return putDecimals(field, from, duckdb_vector_get_data(to));
        case Shape::Logical: {
            auto* const truths = static_cast<bool*>(duckdb_vector_get_data(to));
            const u8* const bits = from.values.data();
            for (std::size_t i = 0; i < from.count; ++i)
                truths[i] = (bits[i / 8] >> (i % 8) & 1) != 0;
            return;
        }
        default:
            std::memcpy(duckdb_vector_get_data(to), from.values.data(),
                        from.count * arrow::widthOf(field.shape));
    }
}

}  // namespace mira::duck
