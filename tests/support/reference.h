// What tests and fuzz targets compare the library with: the values, memos and languages once more,
// told plainly and without a shortcut. Only data members of the handle are looked at: descriptors,
// options and callbacks. No operation of the library is called.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/bytes.h"

namespace test {

/// A record and the handle that tells what its bytes mean.
struct Row {
    DbfBase* h;
    std::string_view bytes;

    const DbfField& operator[](int field) const { return h->Fields[field]; }
    /// From a field's place to the end of the record.
    std::string_view from(int field) const { return bytes.substr(h->Fields[field].Offset); }
    std::string field(int field) const;
};

/// The record in the handle's buffer, with what stands behind it there.
inline Row current(DbfBase* h) {
    return {h, {reinterpret_cast<const char*>(h->RecordBuffer), 65535}};
}

/// Year, month from 0, day, hour, minute, second.
struct Moment {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// values.cpp: fields of the table as GetStr, GetValue and GetDT give them and as SetValue and
// SetDateTime store them.
bool isNumeric(const DbfField&);
std::string shown(const Row&, int field);
double number(const Row&, int field);
Moment moment(const Row&, int field);
bool isValid(const Moment&);
i64 dayNumber(const Moment&);
std::string stored(const Row&, int field, const std::string& text, double number);
std::string stored(const Row&, int field, const Moment&);

// memos.cpp: what GetMemoBuf gives for a field, where the memo file holds these bytes.
std::optional<std::string> memo(const Row&, int field, std::string_view memoFile);

// languages.cpp.

/// Nothing for a text that fails.
std::optional<double> arithmetic(const std::string& text);
/// A text with calls of string functions in it, evaluated.
std::string evaluated(const std::string& text, int dateFormat);
/// A text after CheckBrackets.
std::string balanced(const DbfBase*, std::string text);

/// An expression with the values of the record written in.
struct Expansion {
    std::string text;
    std::optional<std::size_t> operatorAt;
    bool numeric = false;
    std::size_t operatorPlace = 0;  ///< in the expression
    int leftField = -1;             ///< the only thing left of it, else -1
};
Expansion expanded(const Row&, const std::string& expression);

/// A calculated field as text; nothing when it has no value.
std::optional<std::string> calculated(const Row&, const std::string& expression);
/// The same as GetCalcValue gives it.
double calculatedValue(const Row&, const std::string& expression);

/// One condition of a filter.
bool holds(const Row&, const std::string& condition);
/// Whether the record passes a filter, and whether set_filter has to refuse its text.
bool passes(const Row&, const std::string& filter);
bool isRefused(const DbfBase*, const std::string& filter);

/// The conditions of a filter as GetFilterCondition gives them.
struct ConditionPlaces {
    int field;
    std::size_t signFirst, rightFirst, end;
};
std::vector<ConditionPlaces> conditionPlaces(const Row&, const std::string& filter);

}  // namespace test
