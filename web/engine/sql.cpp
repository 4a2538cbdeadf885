#include "sql.h"

#include <cstring>

#include "sqlite/answer.h"
#include "sqlite/statements.h"
#include "tables/page/refusal.h"
#include "tables/page/text.h"
#include "tables/value/storage.h"

namespace mira::page {
namespace {

using namespace tables;

constexpr std::size_t kRows = 1000000;     // at most, of an answer
constexpr std::size_t kBytes = 32U << 20;  // and of its values
constexpr std::size_t kPiece = 1U << 20;   // of the memory for them

bool isText(ValueKind kind) {
    switch (kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
        case ValueKind::Integer:
        case ValueKind::Real:
        case ValueKind::Logical:
            return false;
        default:
            return true;
    }
}

bool isNumeric(ValueKind kind) {
    switch (kind) {
        case ValueKind::Null:
        case ValueKind::Blank:
        case ValueKind::Digits:
        case ValueKind::Integer:
        case ValueKind::Real:
        case ValueKind::Currency:
            return true;
        default:
            return false;
    }
}

template <typename Plain>
void putBytes(std::string& out, Plain value) {
    char bytes[sizeof value];
    std::memcpy(bytes, &value, sizeof value);
    out.append(bytes, sizeof bytes);
}

template <typename Plain>
Plain takeBytes(const char** at) {
    Plain value;
    std::memcpy(&value, *at, sizeof value);
    *at += sizeof value;
    return value;
}

void attachTables(const std::vector<SqlTable>& tables, sql::NamedTables& named) {
    for (const SqlTable& table : tables) {
        std::string options = ", deleted=skip";
        if (!table.codePage.empty()) options += ", code_page=" + quotedText(table.codePage);
        named.add(table.path, options);
    }
}

sql::Host hostFor(Answer& answer) {
    sql::Host host;
    host.tell = [&answer](sql::Notice, const std::string& sentence) {
        answer.notes.push_back(sentence);
    };
    host.pageOption = "the list \"Code page\"";
    host.readOnly = true;
    return host;
}

void beginAnswer(const sql::Answer& rows, Answer& answer) {
    answer.columns.clear();
    answer.rows.clear();
    answer.cut = false;
    for (std::size_t i = 0; i < rows.columns().size(); ++i) {
        answer.columns.push_back({rows.columns()[i].name, rows.mayBeNull(i)});
    }
}

void addRow(sql::Answer& rows, Answer& answer) {
    answer.rows.beginRow();
    for (std::size_t i = 0; i < answer.columns.size(); ++i) {
        const Value value = rows.value(i);
        answer.columns[i].numbers = answer.columns[i].numbers && isNumeric(value.kind);
        answer.rows.add(value);
    }
}

/// False where it failed.
bool runStatement(sqlite3_stmt* statement, const sql::NamedTables& tables, Answer& answer) {
    sql::Answer rows(statement, tables);
    if (!rows.columns().empty()) beginAnswer(rows, answer);
    while (true) {
        const int result = sqlite3_step(statement);
        if (result != SQLITE_ROW) return result == SQLITE_DONE;
        answer.cut = answer.rows.count() == kRows || answer.rows.bytes() > kBytes;
        if (answer.cut) return true;
        addRow(rows, answer);
    }
}

}  // namespace

void StoredRows::beginRow() {
    const bool full = pieces_.empty() || pieces_.back().size() > kPiece - kPiece / 16;
    if (full) pieces_.emplace_back().reserve(kPiece);
    rows_.push_back(
        {static_cast<u32>(pieces_.size() - 1), static_cast<u32>(pieces_.back().size())});
}

// A byte that says the kind; of texts four of their length and they themselves, of other values
// eight.
void StoredRows::add(const Value& value) {
    std::string& piece = pieces_.back();
    const std::size_t before = piece.size();
    piece += static_cast<char>(value.kind);
    if (isText(value.kind)) {
        putBytes(piece, static_cast<u32>(value.text.size()));
        piece += value.text;
    } else if (value.kind == ValueKind::Real) {
        putBytes(piece, value.real);
    } else if (value.kind != ValueKind::Null && value.kind != ValueKind::Blank) {
        putBytes(piece, value.integer);
    }
    bytes_ += piece.size() - before;
}

Value StoredRows::next(const char** at) {
    Value value;
    value.kind = static_cast<ValueKind>(takeBytes<u8>(at));
    if (isText(value.kind)) {
        const auto size = takeBytes<u32>(at);
        value.text = {*at, size};
        *at += size;
    } else if (value.kind == ValueKind::Real) {
        value.real = takeBytes<double>(at);
    } else if (value.kind != ValueKind::Null && value.kind != ValueKind::Blank) {
        value.integer = takeBytes<i64>(at);
    }
    return value;
}

Answer answerOf(const std::string& sql, const std::vector<SqlTable>& tables) {
    Answer answer;
    sql::NamedTables named;
    named.tell = [&answer](const std::string& sentence) { answer.notes.push_back(sentence); };
    attachTables(tables, named);
    sql::Connection connection;
    const auto check = [&](bool done) {
        if (!done) refuse(failureOf(connection.get(), named, ""));
    };
    check(sql::openConnection(connection, hostFor(answer), sql, named) == SQLITE_OK);
    sql::openBeforehand(connection.get(), sql, false, named);
    bool any = false;
    for (const char* rest = sql.c_str(); *rest != 0;) {
        sql::Statement statement;
        check(sql::prepareNext(connection.get(), &rest, named, statement) == SQLITE_OK);
        if (!statement) continue;  // a comment, blanks
        any = true;
        check(runStatement(statement.get(), named, answer));
    }
    if (!any) refuse("there is no statement in the query");
    return answer;
}

}  // namespace mira::page
