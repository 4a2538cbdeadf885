#include "duckdb/chunk.h"

#include <cstdint>
#include <cstring>

#include "tables/page/refusal.h"

namespace mira::duck {
namespace {

using arrow::Field;
using arrow::Shape;
using arrow::Vector;

constexpr std::size_t kInlined = sizeof duckdb_string_t{}.value.inlined.inlined;

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

/// Copies bytes into room that the vector owns, by way of an entry; where they lie there.
char* roomFor(duckdb_vector to, idx_t row, std::string_view bytes) {
    duckdb_string_t& entry = static_cast<duckdb_string_t*>(duckdb_vector_get_data(to))[row];
    entry = {};
    duckdb_vector_assign_string_element_len(to, row, bytes.data(), bytes.size());
    if (entry.value.pointer.length != bytes.size()) tables::refuse("DuckDB refuses a text");
    return entry.value.pointer.ptr;
}

duckdb_string_t shortString(std::string_view text) {
    duckdb_string_t string{};
    string.value.inlined.length = static_cast<uint32_t>(text.size());
    if (!text.empty()) std::memcpy(string.value.inlined.inlined, text.data(), text.size());
    return string;
}

duckdb_string_t longString(char* text, std::size_t size) {
    duckdb_string_t string{};
    string.value.pointer.length = static_cast<uint32_t>(size);
    std::memcpy(string.value.pointer.prefix, text, sizeof string.value.pointer.prefix);
    string.value.pointer.ptr = text;
    return string;
}

/// DuckDB is asked for room once, at the first text that its entry does not hold: for that one and
/// all behind it, which stay behind each other.
void putTexts(Vector& from, duckdb_vector to) {
    constexpr u64 kMost = u64{1} << 30;         // that are put there at once
    const u8* const ends = from.values.data();  // after a 0
    const auto* const bytes = reinterpret_cast<const char*>(from.bytes.data());
    auto* const entries = static_cast<duckdb_string_t*>(duckdb_vector_get_data(to));
    const u64 all = from.bytes.size();
    char* room = nullptr;
    u64 begin = 0;
    u64 roomBegin = 0;  // what of the bytes lies first in the room
    for (std::size_t i = 0; i < from.count; ++i) {
        u64 end = 0;
        std::memcpy(&end, ends + (i + 1) * sizeof end, sizeof end);
        const std::string_view text(bytes + begin, end - begin);
        if (text.size() <= kInlined) {
            entries[i] = shortString(text);
        } else if (all > kMost) {
            putText(to, i, text);
        } else {
            if (room == nullptr) {
                room = roomFor(to, i, {bytes + begin, all - begin});
                roomBegin = begin;
            }
            entries[i] = longString(room + (begin - roomBegin), text.size());
        }
        begin = end;
    }
}

}  // namespace

void declareColumn(duckdb_bind_info info, const Field& field) {
    duckdb_bind_add_result_column(info, field.column.name.c_str(), typeOf(field).get());
}

void putText(duckdb_vector to, idx_t row, std::string_view text) {
    if (text.size() > kInlined) {
        roomFor(to, row, text);
    } else {
        static_cast<duckdb_string_t*>(duckdb_vector_get_data(to))[row] = shortString(text);
    }
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
