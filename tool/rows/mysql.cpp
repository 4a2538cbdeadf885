// A script for the mysql and mariadb clients: rows by INSERT, many at a time. The server commits at
// every CREATE TABLE, so these come first, and all rows after them in one transaction.
#include <algorithm>

#include "rows/script.h"
#include "tables/page/escape.h"
#include "tables/page/text.h"

namespace mira::tool {
namespace {

constexpr u64 kBatch = 1 << 18;  // bytes of one INSERT, but for the last row of it
constexpr std::size_t kMostPrecision = 65, kMostScale = 30;
constexpr std::size_t kLetter = 4;    // bytes at most
constexpr std::size_t kInPage = 255;  // what may be longer moves out of a page that is full
constexpr std::size_t kRowInPage = 8000, kRow = 65000;  // bytes of a row, a little less

const NameRules& namesOfMysql() {
    static const NameRules rules{.length = 64,
                                 .inLetters = true,
                                 .folds = false,
                                 .ignoresMarks = true,
                                 .quote = '`',
                                 .columns = 1017,
                                 .reserved = {},
                                 .server = "MySQL"};
    return rules;
}

/// A text or bytes of a length that is known; 0: of any.
ServerColumn sized(const char* type, const char* longType, std::size_t length, Form form) {
    constexpr std::size_t kLongest = 16383;  // letters of four bytes in 65535 bytes
    if (length == 0) return {{}, textOf("long", longType), form};
    if (length > kInPage) return {{}, textOf(length > kLongest ? "long" : "", longType), form};
    return {{}, textOf(type, '(', length, ')'), form};
}
ServerColumn textColumn(std::size_t length) { return sized("varchar", "text", length, Form::Text); }
ServerColumn bytesColumn(std::size_t length) {
    return sized("varbinary", "blob", length, Form::Bytes);
}

ServerColumn decimalColumn(const Column& column, const DigitsNeed* need) {
    if (need == nullptr) return {{}, "double", Form::Number};
    DecimalSize size = decimalSize(column, *need);
    if (const std::string whole = wholeType(size); !whole.empty()) return {{}, whole, Form::Number};
    if (size.precision > kMostPrecision || size.scale > kMostScale) {
        size = {std::max<std::size_t>(need->whole + need->fraction, 1), need->fraction, false};
    }
    if (size.precision > kMostPrecision || size.scale > kMostScale)
        return textColumn(column.length);
    const std::string scale = size.scale == 0 ? "" : textOf(',', size.scale);
    return {{}, textOf("decimal(", size.precision, scale, ')'), Form::Number};
}

ServerColumn typeOf(const Column& column, const DigitsNeed* need) {
    switch (column.kind) {
        case Kind::Text:
        case Kind::Varchar:
            return column.untranslated ? bytesColumn(column.length) : textColumn(column.length);
        case Kind::Varbinary:
        case Kind::Bytes:
            return bytesColumn(column.length);
        case Kind::Decimal:
            return decimalColumn(column, need);
        case Kind::Integer:
            return {{}, "integer", Form::Number};
        case Kind::RecordNumber:
            return {{}, "bigint", Form::Number};
        case Kind::Double:
            return {{}, "double", Form::Number};
        case Kind::Currency:
            return {{}, "decimal(19,4)", Form::Number};
        case Kind::Date:
            return {{}, "date", Form::Text};
        case Kind::Moment:
            return {{}, "datetime(3)", Form::Text};
        case Kind::Logical:
        case Kind::Deletion:
            return {{}, "boolean", Form::Number};
        case Kind::Blob:
            return bytesColumn(0);
        case Kind::Calculated:
            return column.numeric ? ServerColumn{{}, "double", Form::Number} : textColumn(0);
        case Kind::Memo:
            break;
    }
    return column.untranslated ? bytesColumn(0) : textColumn(0);
}

/// The length in a type such as varchar(20); 0 when it has none.
std::size_t lengthIn(const std::string& type) {
    const std::size_t start = type.starts_with("var") ? type.find('(') : std::string::npos;
    return start == std::string::npos ? 0 : std::stoul(type.substr(start + 1));
}

/// Bytes that a row takes at most: in its page, where what is long moves out but for a pointer, and
/// by the server's own count.
struct RowSize {
    std::size_t inPage = 0, all = 0;
    bool fits() const { return inPage <= kRowInPage && all <= kRow; }
};
RowSize sizeOf(const std::vector<ServerColumn>& columns) {
    constexpr std::size_t kPointer = 40, kNumber = 8, kDecimal = 30, kTextInRow = 12;
    RowSize size;
    for (const ServerColumn& column : columns) {
        const std::size_t length = lengthIn(column.type);
        const std::size_t bytes = length * (column.form == Form::Text ? kLetter : 1);
        const bool isLong = column.form != Form::Number && length == 0;
        const std::size_t number = column.type.starts_with("decimal") ? kDecimal : kNumber;
        size.inPage += 2 + (isLong || bytes > kInPage ? kPointer : length != 0 ? bytes : number);
        size.all += 2 + (isLong ? kTextInRow : length != 0 ? bytes : number);
    }
    return size;
}

/// Whether a number would be taken for a double if it had no quotes.
bool hasExponent(std::string_view digits) {
    return std::any_of(digits.begin(), digits.end(), [](char c) { return c == 'e' || c == 'E'; });
}

class MysqlWriter final : public ScriptWriter {
public:
    MysqlWriter(Output& out, const WriterOptions& options)
        : ScriptWriter(out, options, namesOfMysql(), std::string_view("'\\\n\r\0\x1A", 6)) {}

    void cell(std::size_t column, const Value& value) override {
        if (column == 0) beginRow();
        comma_ = column != 0;
        const Form form = table_->columns[column].form;
        switch (value.kind) {
            case ValueKind::Null:
            case ValueKind::Blank:
                return putCell("NULL", false);
            case ValueKind::Text:
                return form == Form::Bytes ? putBytes(value.text) : putText(value.text);
            case ValueKind::Bytes:
                if (form == Form::Bytes) return putBytes(value.text);
                break;
            case ValueKind::Digits:
                return putCell(value.text, form != Form::Number || hasExponent(value.text));
            case ValueKind::Date:
            case ValueKind::Moment:
                return putDate(value.text);
            case ValueKind::Currency:
            case ValueKind::Integer:
            case ValueKind::Real:
            case ValueKind::Logical:
                break;
        }
        text_.clear();
        putPlain(text_, value);
        putCell(text_, form != Form::Number);
    }
    void endRow() override { put(")"); }

private:
    ServerColumn columnOf(const ColumnSource& source) const override {
        return source.column == nullptr ? textColumn(0) : typeOf(*source.column, source.need);
    }

    /// Texts that could fill a row become such as move out of its page. What is still too much may
    /// fit by its values: the server then only warns.
    void settle(std::vector<ServerColumn>& columns) override {
        if (sizeOf(columns).fits()) return;
        for (ServerColumn& column : columns) {
            if (lengthIn(column.type) == 0) continue;
            column.type = column.form == Form::Text ? "text" : "blob";
        }
        if (!sizeOf(columns).fits()) out_.put("SET SESSION innodb_strict_mode = OFF;\n");
    }
    void putStart() override {
        out_.put("SET NAMES utf8mb4;\nSET SESSION sql_mode = 'STRICT_ALL_TABLES';\n");
    }
    std::string_view tableEnd() const override {
        return " ENGINE=InnoDB DEFAULT CHARSET=utf8mb4;\n";
    }
    std::string_view beforeAllRows() const override { return "START TRANSACTION;\n"; }
    void putBeforeRows(const ServerTable& table) override {
        insert_ = textOf("INSERT INTO ", quoted(table.name), ' ', columnList(table), " VALUES\n(");
        size_ = 0;
    }
    void putAfterRows() override {
        if (size_ != 0) out_.put(";\n");
    }

    void put(std::string_view text) {
        out_.put(text);
        size_ += text.size();
    }

    void beginRow() {
        if (size_ > kBatch) {
            out_.put(";\n");
            size_ = 0;
        }
        put(size_ == 0 ? std::string_view(insert_) : std::string_view(",\n("));
    }

    void putCell(std::string_view text, bool quoted) {
        const std::string_view after = quoted ? "'" : "";
        std::string_view before = quoted ? ",'" : ",";
        if (!comma_) before.remove_prefix(1);
        if (copyPlain(text, before, after)) {
            size_ += before.size() + text.size() + after.size();
            return;
        }
        put(before);
        putSpecial(text);
        put(after);
    }

    void putBytes(std::string_view bytes) {
        put(comma_ ? ",x'" : "x'");
        putHex(bytes);
        size_ += bytes.size() * 2;
        put("'");
    }

    /// Its year 0 is no leap year.
    void putDate(std::string_view text) {
        if (!text.starts_with("0000-02-29")) return putCell(text, true);
        putCell("NULL", false);
        fault = Fault::Unkept;
    }

    void putText(std::string_view text) {
        if (out_.isTerminal() && needsEscape(text)) return putCell(escaped(text), true);
        putCell(text, true);
    }
    void putSpecial(std::string_view text) {
        for (const char c : text) {
            if (!isSpecial(c)) {
                out_.put(c);
                continue;
            }
            out_.put('\\');
            out_.put(c == '\n' ? 'n' : c == '\r' ? 'r' : c == '\0' ? '0' : c == '\x1A' ? 'Z' : c);
        }
        size_ += text.size();
    }

    bool comma_ = false;  // before the next cell
    std::string insert_;  // up to the first row
    u64 size_ = 0;        // of the INSERT that is open; 0: none
};

}  // namespace

std::unique_ptr<RowWriter> mysqlWriter(Output& out, const WriterOptions& options) {
    return std::make_unique<MysqlWriter>(out, options);
}

}  // namespace mira::tool
