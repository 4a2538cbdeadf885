#include "arrow/arrays.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tables/open/open.h"
#include "tables/page/escape.h"
#include "tables/page/refusal.h"
#include "tables/value/plain.h"

namespace test {
namespace {

using namespace mira;
using tables::textOf;

void require(bool holds, const std::string& what) {
    if (!holds) throw std::runtime_error(what);
}

std::string realText(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%a", value);
    return text;
}

std::string dayText(i64 days) {
    const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{days}}};
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
    return text;
}

std::string momentText(i64 microseconds) {
    constexpr i64 kDay = 86400000000;
    const i64 day = microseconds / kDay - (microseconds % kDay < 0 ? 1 : 0);
    const i64 rest = microseconds - day * kDay;
    char text[64];
    std::snprintf(text, sizeof text, " %02d:%02d:%02d", static_cast<int>(rest / 3600000000),
                  static_cast<int>(rest / 60000000 % 60), static_cast<int>(rest / 1000000 % 60));
    std::string all = dayText(day) + text;
    if (rest % 1000000 == 0) return all;
    std::snprintf(text, sizeof text, ".%03d", static_cast<int>(rest / 1000 % 1000));
    return all + text;
}

// --------------------------------------------------------------------------------------------
// Decimals, as digits
// --------------------------------------------------------------------------------------------

/// A stored number as "-" and digits with so many decimals; empty when it has more, or more than so
/// many digits in all.
std::string scaled(std::string text, unsigned decimals, unsigned most) {
    const bool negative = text[0] == '-';
    if (negative || text[0] == '+') text.erase(0, 1);
    long shift = static_cast<long>(decimals);
    if (const std::size_t e = text.find_first_of("eE"); e != std::string::npos) {
        shift += std::strtol(text.c_str() + e + 1, nullptr, 10);
        text.erase(e);
    }
    if (const std::size_t point = text.find('.'); point != std::string::npos) {
        shift -= static_cast<long>(text.size() - point - 1);
        text.erase(point, 1);
    }
    text.erase(0, std::min(text.find_first_not_of('0'), text.size()));
    if (text.empty()) return "0";
    if (shift > 100000 || shift < -100000) return "";
    for (; shift > 0; --shift) text += '0';
    for (; shift < 0; ++shift) {
        if (text.empty()) return "";
        if (text.back() != '0') return "";
        text.pop_back();
    }
    if (text.size() > most) return "";
    return (negative ? "-" : "") + text;
}

std::string wideText(const u8* bytes) {
    u64 low = 0;
    u64 high = 0;
    std::memcpy(&low, bytes, 8);
    std::memcpy(&high, bytes + 8, 8);
    const bool negative = high >> 63 != 0;
    if (negative) {
        high = ~high + (low == 0 ? 1 : 0);
        low = 0 - low;
    }
    std::string digits;
    while (high != 0 || low != 0) {
        u64 rest = 0;
        for (u64* const half : {&high, &low}) {
            for (const unsigned shift : {32U, 0U}) {
                const u64 part = rest << 32 | (*half >> shift & 0xFFFFFFFF);
                *half = (*half & ~(u64{0xFFFFFFFF} << shift)) | part / 10 << shift;
                rest = part % 10;
            }
        }
        digits.insert(digits.begin(), static_cast<char>('0' + rest));
    }
    return digits.empty() ? "0" : (negative ? "-" : "") + digits;
}

// --------------------------------------------------------------------------------------------
// Arrays
// --------------------------------------------------------------------------------------------

bool bitAt(const void* bits, i64 i) {
    return (static_cast<const u8*>(bits)[i / 8] >> (i % 8) & 1) != 0;
}

template <typename T>
T at(const void* values, i64 i) {
    T value;
    std::memcpy(&value, static_cast<const u8*>(values) + static_cast<std::size_t>(i) * sizeof value,
                sizeof value);
    return value;
}

std::string cellText(const ArrowArray& array, const std::string& format, i64 i) {
    const void* const values = array.buffers[1];
    switch (format[0]) {
        case 'U':
        case 'Z': {
            const i64 start = at<i64>(values, i);
            return {static_cast<const char*>(array.buffers[2]) + start,
                    static_cast<std::size_t>(at<i64>(values, i + 1) - start)};
        }
        case 'l':
            return std::to_string(at<i64>(values, i));
        case 'i':
            return std::to_string(at<i32>(values, i));
        case 'g':
            return realText(at<double>(values, i));
        case 'd':
            return wideText(static_cast<const u8*>(values) + 16 * i);
        case 'b':
            return bitAt(values, i) ? "true" : "false";
        default:
            return format == "tdD" ? dayText(at<i32>(values, i)) : momentText(at<i64>(values, i));
    }
}

/// Checks a column's array and appends its cells to the rows.
void readColumn(const ArrowArray& array, const std::string& format,
                std::vector<std::vector<std::string>>& rows, std::size_t first) {
    const bool texts = format == "U" || format == "Z";
    require(array.offset == 0 && array.n_buffers == (texts ? 3 : 2), "buffers");
    require(first + static_cast<std::size_t>(array.length) == rows.size(), "length of a column");
    require(array.buffers[1] != nullptr, "no values");
    i64 nulls = 0;
    if (texts) require(at<i64>(array.buffers[1], 0) == 0, "the first text does not start at 0");
    for (i64 i = 0; i < array.length; ++i) {
        if (texts) {
            require(at<i64>(array.buffers[1], i) <= at<i64>(array.buffers[1], i + 1), "ends");
        }
        std::vector<std::string>& row = rows[first + static_cast<std::size_t>(i)];
        if (array.buffers[0] != nullptr && !bitAt(array.buffers[0], i)) {
            ++nulls;
            row.emplace_back("(null)");
            continue;
        }
        row.push_back(cellText(array, format, i));
        if (format == "U") require(tables::isUtf8(row.back()), "a text is no UTF-8");
    }
    require(nulls == array.null_count, "count of nulls");
}

void takeReport(void* context, const char* report) {
    std::string& to = *static_cast<std::string*>(context);
    require(to.empty(), "told twice");
    to = report;
}

/// The cell as the stream gives it; empty where the column cannot hold it.
std::string expectedText(const tables::Column& column, const tables::Value& value,
                         const std::string& format, bool* held) {
    using tables::ValueKind;
    *held = true;
    if (value.kind == ValueKind::Null || value.kind == ValueKind::Blank) return "(null)";
    std::string plain;
    tables::putPlain(plain, value);
    if (format == "Z") return std::string(value.text);
    if (format == "g") {
        const double real =
            value.kind == ValueKind::Real ? value.real : std::strtod(plain.c_str(), nullptr);
        *held = std::isfinite(real);
        return realText(real);
    }
    if (format == "l" && value.kind == ValueKind::Digits) {
        const std::string digits = scaled(plain, 0, 19);
        const bool fits =
            !digits.empty() && std::to_string(std::strtoll(digits.c_str(), nullptr, 10)) == digits;
        *held = fits;
        return digits;
    }
    if (format[0] == 'd' && format[1] == ':') {
        const bool currency = column.kind == tables::Kind::Currency;
        const std::string digits =
            scaled(plain, currency ? 4 : column.decimals,
                   static_cast<unsigned>(std::strtoul(format.c_str() + 2, nullptr, 10)));
        *held = !digits.empty();
        return digits;
    }
    return plain;
}

std::unique_ptr<tables::Table> openLike(const std::string& path, const MiraArrowOptions& options) {
    tables::TableOptions wanted;
    wanted.codePage = options.code_page != nullptr ? options.code_page : "";
    return tables::openTable(path, wanted);
}

/// Columns of the table for those of the stream, by name, read as the types of options say.
std::vector<tables::Column> columnsLike(const tables::Table& table, const Read& stream,
                                        const MiraArrowOptions& options) {
    std::vector<tables::Column> columns;
    for (std::size_t i = 0; i < stream.names.size(); ++i) {
        const tables::Column* const found = tables::findColumn(table, stream.names[i]);
        if (found == nullptr) {
            const bool record = stream.formats[i] == "l";
            columns.push_back(
                tables::extraColumn(table, record ? "_record" : "_deleted",
                                    record ? tables::Kind::RecordNumber : tables::Kind::Deletion));
            continue;
        }
        columns.push_back(*found);
        if (options.types == nullptr) continue;
        for (const std::string& type : tables::splitList(options.types)) {
            const std::string number = std::to_string(found->field + 1);
            if (type == found->name + "=text" || type == number + "=text")
                tables::readAsText(columns.back());
            if (type == found->name + "=binary" || type == number + "=binary")
                tables::readAsBytes(columns.back());
        }
    }
    return columns;
}

}  // namespace

MiraArrowOptions arrowOptions() {
    MiraArrowOptions options{};
    options.size = sizeof options;
    return options;
}

Read readStream(const std::string& path, const MiraArrowOptions& given) {
    Read read;
    MiraArrowOptions options = given;
    options.done = takeReport;
    options.context = &read.report;
    ArrowArrayStream stream{};
    char message[1024] = "";
    read.opened = mira_arrow_open(path.c_str(), &options, &stream, message, sizeof message);
    read.error = message;
    require((read.opened == 0) == read.error.empty(), "an error without a text, or the other way");
    if (read.opened != 0) return read;
    ArrowSchema schema{};
    require(stream.get_schema(&stream, &schema) == 0, "no schema");
    for (i64 i = 0; i < schema.n_children; ++i) {
        read.names.emplace_back(schema.children[i]->name);
        read.formats.emplace_back(schema.children[i]->format);
        require(tables::isUtf8(read.names.back()), "a name is no UTF-8");
    }
    schema.release(&schema);
    require(schema.release == nullptr, "a schema that stays");
    while (true) {
        ArrowArray array{};
        if (stream.get_next(&stream, &array) != 0) {
            const char* const error = stream.get_last_error(&stream);
            read.error = error != nullptr ? error : "";
            require(!read.error.empty(), "an error without a text");
            break;
        }
        if (array.release == nullptr) break;
        require(array.length > 0, "an array of nothing");
        const std::size_t first = read.rows.size();
        read.rows.resize(first + static_cast<std::size_t>(array.length));
        for (i64 i = 0; i < array.n_children; ++i) {
            readColumn(*array.children[i], read.formats[static_cast<std::size_t>(i)], read.rows,
                       first);
        }
        array.release(&array);
        require(array.release == nullptr, "an array that stays");
    }
    stream.release(&stream);
    require(stream.release == nullptr, "a stream that stays");
    return read;
}

Read readTable(const std::string& path, const MiraArrowOptions& options) {
    Read read = readStream(path, options);  // for names and formats
    read.rows.clear();
    read.error.clear();
    if (read.opened != 0) return read;
    const auto table = openLike(path, options);
    const std::vector<tables::Column> columns = columnsLike(*table, read, options);
    tables::CellReader reader(*table);
    const u64 count = table->base->Header.RecordCount;
    const u64 end = options.end == 0 ? count : std::min(options.end, count);
    for (u64 record = options.first; record < end; ++record) {
        tables::readRecord(*table, static_cast<u32>(record));
        reader.record = static_cast<u32>(record);
        const bool deleted = tables::isDeleted(*table);
        if (options.deleted != 1 && deleted != (options.deleted == 2)) continue;
        std::vector<std::string> row;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            tables::Value value;
            tables::readCell(reader, columns[i], value);
            bool held = true;
            row.push_back(expectedText(columns[i], value, read.formats[i], &held));
            if (held) continue;
            read.error = textOf("record ", record + 1, ", field ", columns[i].name);
            return read;
        }
        read.rows.push_back(std::move(row));
    }
    return read;
}

void checkStream(const std::string& path, MiraArrowOptions options, std::uint64_t cut) {
    const Read got = readStream(path, options);
    if (got.opened != 0) return;
    const Read wanted = readTable(path, options);
    // Rows of the array that an error ended are not given.
    require(wanted.error.empty() == got.error.empty(),
            "error \"" + got.error + "\", not \"" + wanted.error + '"');
    require(got.error.find(wanted.error) != std::string::npos, got.error + ", not " + wanted.error);
    require(got.error.empty() ? got.rows.size() == wanted.rows.size()
                              : got.rows.size() <= wanted.rows.size(),
            textOf(got.rows.size(), " rows, not ", wanted.rows.size()));
    for (std::size_t i = 0; i < got.rows.size(); ++i) {
        for (std::size_t k = 0; k < got.names.size(); ++k) {
            require(got.rows[i][k] == wanted.rows[i][k],
                    textOf("row ", i + 1, ", ", got.names[k], " (", got.formats[k], "): \"",
                           tables::escaped(got.rows[i][k]), "\", not \"",
                           tables::escaped(wanted.rows[i][k]), '"'));
        }
    }
    if (!got.error.empty()) return;
    MiraArrowOptions rest = options;
    options.end = std::max<u64>(options.first + cut, 1);
    rest.first = options.end;
    std::vector<std::vector<std::string>> both = readStream(path, options).rows;
    for (auto& row : readStream(path, rest).rows) both.push_back(std::move(row));
    require(both == got.rows, textOf("cut at ", options.end, " the rows differ"));
}

}  // namespace test
