// DuckDB's stable C interface, and owners of what it hands out.
#pragma once

// The oldest version of the interface that has all this extension asks for: an extension loads into
// every DuckDB that knows the version which its footer names.
#define DUCKDB_EXTENSION_API_VERSION_MAJOR 1
#define DUCKDB_EXTENSION_API_VERSION_MINOR 2
#define DUCKDB_EXTENSION_API_VERSION_PATCH 0
#include <duckdb_extension.h>

#include <cstdint>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

DUCKDB_EXTENSION_EXTERN

namespace mira::duck {

/// A value of an argument.
class Value {
public:
    explicit Value(duckdb_value value) : value_(value) {}
    Value(Value&& other) noexcept : value_(other.value_) { other.value_ = nullptr; }
    Value(const Value&) = delete;
    Value& operator=(const Value&) = delete;
    Value& operator=(Value&&) = delete;
    ~Value() {
        if (value_ != nullptr) duckdb_destroy_value(&value_);
    }

    /// False for an argument that was not given, or as NULL.
    bool given() const { return value_ != nullptr && !duckdb_is_null_value(value_); }
    duckdb_type type() const { return duckdb_get_type_id(duckdb_get_value_type(value_)); }
    std::string text() const;
    /// The elements of a list as texts; a text alone is one.
    std::vector<std::string> texts() const;
    /// "NAME=value" for each of a struct or map; a text alone is one.
    std::vector<std::string> pairs() const;
    duckdb_value get() const { return value_; }

private:
    duckdb_value value_;
};

/// A type of columns.
class Type {
public:
    explicit Type(duckdb_type type) : type_(duckdb_create_logical_type(type)) {}
    Type(uint8_t width, uint8_t scale) : type_(duckdb_create_decimal_type(width, scale)) {}
    Type(const Type&) = delete;
    Type& operator=(const Type&) = delete;
    ~Type() { duckdb_destroy_logical_type(&type_); }
    duckdb_logical_type get() const { return type_; }

private:
    duckdb_logical_type type_;
};

/// Runs the work of a callback, through which no exception may pass; tell gets what it threw.
template <typename Tell, typename Work>
void guarded(const Tell& tell, const Work& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        tell("there is no memory");
    } catch (const std::exception& exception) {
        tell(exception.what());
    } catch (...) {
        tell("something unknown went wrong");
    }
}

/// For data that DuckDB keeps and releases.
template <typename T>
void destroy(void* data) {
    delete static_cast<T*>(data);
}

// Callbacks whose errors become DuckDB's.
template <void (*work)(duckdb_bind_info)>
void bindGuarded(duckdb_bind_info info) {
    guarded([&](const char* why) { duckdb_bind_set_error(info, why); }, [&] { work(info); });
}
template <void (*work)(duckdb_init_info)>
void initGuarded(duckdb_init_info info) {
    guarded([&](const char* why) { duckdb_init_set_error(info, why); }, [&] { work(info); });
}
template <void (*work)(duckdb_function_info, duckdb_data_chunk)>
void fillGuarded(duckdb_function_info info, duckdb_data_chunk chunk) {
    guarded([&](const char* why) { duckdb_function_set_error(info, why); },
            [&] { work(info, chunk); });
}

/// A table function before it is DuckDB's.
class TableFunction {
public:
    explicit TableFunction(const char* name) : function_(duckdb_create_table_function()) {
        duckdb_table_function_set_name(function_, name);
    }
    TableFunction(const TableFunction&) = delete;
    TableFunction& operator=(const TableFunction&) = delete;
    ~TableFunction() { duckdb_destroy_table_function(&function_); }

    duckdb_table_function get() const { return function_; }
    /// A copy that its callbacks find.
    template <typename T>
    void keep(const T& data) {
        duckdb_table_function_set_extra_info(function_, new T(data), destroy<T>);
    }
    bool addTo(duckdb_connection connection) {
        return duckdb_register_table_function(connection, function_) == DuckDBSuccess;
    }

private:
    duckdb_table_function function_;
};

}  // namespace mira::duck
