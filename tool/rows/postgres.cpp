// A script for psql: rows by COPY, cells parted by tabs, \N for null, backslashes before what would
// part or end them. psql stops at the first error, so that it takes no rows for commands after it.
#include "rows/script.h"
#include "tables/page/escape.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"

namespace mira::tool {
namespace {

constexpr std::size_t kMostPrecision = 1000;                       // of a numeric with a precision
constexpr std::size_t kMostWhole = 131072, kMostFraction = 16383;  // of one without

const NameRules& namesOfPostgres() {
    static const NameRules rules{.length = 63,
                                 .inLetters = false,
                                 .folds = true,
                                 .ignoresMarks = false,
                                 .quote = '"',
                                 .columns = 1600,
                                 // Every table has columns of these names already.
                                 .reserved = {"ctid", "xmin", "cmin", "xmax", "cmax", "tableoid"},
                                 .server = "PostgreSQL"};
    return rules;
}

std::string varchar(const Column& column) {
    return column.length == 0 ? "text" : textOf("varchar(", column.length, ')');
}

ServerColumn decimalColumn(const Column& column, const DigitsNeed* need) {
    if (need == nullptr) return {{}, "numeric", Form::Number};
    const DecimalSize size = decimalSize(column, *need);
    if (need->whole > kMostWhole || need->fraction > kMostFraction) {
        return {{}, varchar(column), Form::Text};
    }
    if (const std::string whole = wholeType(size); !whole.empty()) return {{}, whole, Form::Number};
    if (size.precision > kMostPrecision) return {{}, "numeric", Form::Number};
    const std::string scale = size.scale == 0 ? "" : textOf(',', size.scale);
    return {{}, textOf("numeric(", size.precision, scale, ')'), Form::Number};
}

ServerColumn typeOf(const Column& column, const DigitsNeed* need) {
    if (column.untranslated) return {{}, "bytea", Form::Bytes};
    switch (column.kind) {
        case Kind::Text:
        case Kind::Varchar:
            return {{}, varchar(column), Form::Text};
        case Kind::Decimal:
            return decimalColumn(column, need);
        case Kind::Integer:
            return {{}, "integer", Form::Number};
        case Kind::RecordNumber:
            return {{}, "bigint", Form::Number};
        case Kind::Double:
            return {{}, "double precision", Form::Number};
        case Kind::Currency:
            return {{}, "numeric(19,4)", Form::Number};
        case Kind::Date:
            return {{}, "date", Form::Text};
        case Kind::Moment:
            return {{}, "timestamp", Form::Text};
        case Kind::Logical:
        case Kind::Deletion:
            return {{}, "boolean", Form::Number};
        case Kind::Varbinary:
        case Kind::Blob:
        case Kind::Bytes:
            return {{}, "bytea", Form::Bytes};
        case Kind::Calculated:
            if (column.numeric) return {{}, "numeric", Form::Number};
            break;
        case Kind::Memo:
            break;
    }
    return {{}, "text", Form::Text};
}

class PostgresWriter final : public ScriptWriter {
public:
    PostgresWriter(Output& out, const WriterOptions& options)
        : ScriptWriter(out, options, namesOfPostgres(), std::string_view("\\\t\n\r\0", 5)) {}

    void cell(std::size_t column, const Value& value) override {
        if (column != 0) out_.put('\t');
        switch (value.kind) {
            case ValueKind::Null:
            case ValueKind::Blank:
                return out_.put("\\N");
            case ValueKind::Text:
                if (table_->columns[column].form == Form::Bytes) return putBytes(value.text);
                return putText(value.text);
            case ValueKind::Bytes:
                if (table_->columns[column].form == Form::Bytes) return putBytes(value.text);
                break;
            case ValueKind::Digits:
            case ValueKind::Currency:
                return out_.put(value.text);
            case ValueKind::Date:
            case ValueKind::Moment:
                return putDate(value.text);
            case ValueKind::Integer:
            case ValueKind::Real:
            case ValueKind::Logical:
                break;
        }
        text_.clear();
        putPlain(text_, value);
        out_.put(text_);
    }
    void endRow() override { out_.put('\n'); }

private:
    ServerColumn columnOf(const ColumnSource& source) const override {
        if (source.column == nullptr) return {{}, "text", Form::Text};
        return typeOf(*source.column, source.need);
    }
    void putStart() override {
        out_.put("\\set ON_ERROR_STOP on\nBEGIN;\nSET LOCAL client_encoding = 'UTF8';\n");
    }
    void putBeforeRows(const ServerTable& table) override {
        out_.put(textOf("COPY ", quoted(table.name), ' ', columnList(table), " FROM stdin;\n"));
    }
    void putAfterRows() override { out_.put("\\.\n"); }

    void putBytes(std::string_view bytes) {
        out_.put("\\\\x");
        putHex(bytes);
    }

    /// The year 0 is called 1 BC.
    void putDate(std::string_view text) {
        if (!text.starts_with("0000")) return out_.put(text);
        out_.put("0001");
        out_.put(text.substr(4));
        out_.put(" BC");
    }

    void putText(std::string_view text) {
        if (out_.isTerminal() && needsEscape(text)) return putSpecial(escaped(text));
        if (!copyPlain(text)) putSpecial(text);
    }
    void putSpecial(std::string_view text) {
        for (const char c : text) {
            if (!isSpecial(c)) {
                out_.put(c);
            } else if (c == '\0') {
                // Its texts hold none.
                out_.put(kReplacementText);
                fault = Fault::Unkept;
            } else {
                out_.put('\\');
                out_.put(c == '\t' ? 't' : c == '\n' ? 'n' : c == '\r' ? 'r' : c);
            }
        }
    }
};

}  // namespace

std::unique_ptr<RowWriter> postgresWriter(Output& out, const WriterOptions& options) {
    return std::make_unique<PostgresWriter>(out, options);
}

}  // namespace mira::tool
