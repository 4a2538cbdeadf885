#include "duckdb/api.h"

duckdb_ext_api_v1 duckdb_ext_api{};

namespace mira::duck {
namespace {

std::string taken(char* text) {
    if (text == nullptr) return {};
    std::string copy(text);
    duckdb_free(text);
    return copy;
}

}  // namespace

std::string Value::text() const { return given() ? taken(duckdb_get_varchar(value_)) : ""; }

std::vector<std::string> Value::texts() const {
    if (!given()) return {};
    if (type() != DUCKDB_TYPE_LIST) return {text()};
    std::vector<std::string> texts;
    const idx_t count = duckdb_get_list_size(value_);
    for (idx_t i = 0; i < count; ++i) {
        const Value child(duckdb_get_list_child(value_, i));
        if (child.given()) texts.push_back(child.text());
    }
    return texts;
}

std::vector<std::string> Value::pairs() const {
    std::vector<std::string> pairs;
    if (type() == DUCKDB_TYPE_MAP) {
        const idx_t count = duckdb_get_map_size(value_);
        for (idx_t i = 0; i < count; ++i) {
            pairs.push_back(Value(duckdb_get_map_key(value_, i)).text() + "=" +
                            Value(duckdb_get_map_value(value_, i)).text());
        }
        return pairs;
    }
    if (type() != DUCKDB_TYPE_STRUCT) return {text()};
    duckdb_logical_type type = duckdb_get_value_type(value_);
    const idx_t count = duckdb_struct_type_child_count(type);
    for (idx_t i = 0; i < count; ++i) {
        pairs.push_back(taken(duckdb_struct_type_child_name(type, i)) + "=" +
                        Value(duckdb_get_struct_child(value_, i)).text());
    }
    return pairs;
}

}  // namespace mira::duck
