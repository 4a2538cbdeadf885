// Tables as scripts that the own client of a database server reads: CREATE TABLE for each of them,
// then all their rows, in one transaction. What the servers differ in is in postgres.cpp and
// mysql.cpp.
#pragma once

#include <array>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "rows/output.h"
#include "rows/writer.h"
#include "tables.h"
#include "tables/column/column.h"

namespace mira::tool {

/// What the digits of a column need: those before the point and behind it, at most.
struct DigitsNeed {
    std::size_t whole = 0, fraction = 0;
    bool plain = true;  ///< neither point nor exponent
};

/// As what the values of a column stand in the script.
enum class Form : u8 { Number, Text, Bytes };

struct ServerColumn {
    std::string name;
    std::string type;
    Form form = Form::Text;
};

struct ServerTable {
    std::string name;
    std::vector<ServerColumn> columns;
};

/// Which names a server takes as they are; all others are made to fit.
struct NameRules {
    std::size_t length;  ///< at most
    bool inLetters;      ///< length counts letters, not bytes
    bool folds;          ///< names without quotes are taken in small ASCII letters
    bool ignoresMarks;   ///< letters that differ in case or accents are the same
    char quote;
    std::size_t columns;             ///< of a table, at most
    std::set<std::string> reserved;  ///< that no column may have
    const char* server;              ///< for messages
};

/// Columns of a table that is there, or of any values: then need is null.
struct ColumnSource {
    const Column* column = nullptr;
    const DigitsNeed* need = nullptr;
};

/// begin is for an answer of one table. For tables: create for each, then for each in the same
/// order beginRows and its rows, then end.
class ScriptWriter : public RowWriter {
public:
    ScriptWriter(Output& out, const WriterOptions& options, const NameRules& rules,
                 std::string_view special)
        : out_(out), options_(options), rules_(rules) {
        for (const char c : special) special_[static_cast<u8>(c)] = true;
    }

    /// Makes a table; its name and those of its columns may be others than the wanted ones. The
    /// result lasts until the next call. Throws a Refusal when the server cannot hold such a table.
    const ServerTable& create(const std::string& wanted, const std::vector<Heading>& headings,
                              const Table* table);
    void beginRows();
    bool isEmpty() const { return tables_.empty(); }

    void begin(const std::vector<Heading>& headings) override {
        create("query", headings, nullptr);
        beginRows();
    }
    void end() override;

protected:
    virtual ServerColumn columnOf(const ColumnSource& source) const = 0;
    /// What the columns of a table together need; settings go in front of it.
    virtual void settle(std::vector<ServerColumn>& /*columns*/) {}
    virtual void putStart() = 0;
    virtual void putBeforeRows(const ServerTable& table) = 0;
    virtual void putAfterRows() = 0;
    virtual std::string_view tableEnd() const { return ";\n"; }
    virtual std::string_view beforeAllRows() const { return ""; }

    std::string quoted(std::string_view name) const;
    std::string columnList(const ServerTable& table) const;
    bool isSpecial(char c) const { return special_[static_cast<u8>(c)]; }
    /// Writes a text without anything special, between two others; false when there is.
    bool copyPlain(std::string_view text, std::string_view before = "",
                   std::string_view after = "");
    void putHex(std::string_view bytes);

    Output& out_;
    const ServerTable* table_ = nullptr;  // whose rows are written
    std::string text_;

private:
    std::string fitting(std::string wanted, std::set<std::string>& taken) const;

    const WriterOptions options_;
    const NameRules& rules_;
    std::array<bool, 256> special_{};
    std::vector<ServerTable> tables_;
    std::set<std::string> names_;
    std::size_t next_ = 0;
};

/// The precision and scale that hold all digits of a column: those that the field is declared with,
/// or more.
struct DecimalSize {
    std::size_t precision, scale;
    bool whole;  ///< whole numbers without a point
};
DecimalSize decimalSize(const Column& column, const DigitsNeed& need);
/// Whether the server's "integer" or "bigint" holds them.
std::string wholeType(const DecimalSize& size);

}  // namespace mira::tool
