#include "named.h"

#include "attach.h"
#include "tables/open/find.h"
#include "tables/page/text.h"

namespace mira::sql {

using namespace tables;

namespace {

constexpr std::string_view kNoTable = "no such table: ";
constexpr std::string_view kNoColumn = "no such column: ";

/// Without the schema or the table in front.
std::string bareName(const std::string& name) { return name.substr(name.rfind('.') + 1); }

std::string meant(const std::string& name, const std::vector<std::string>& names) {
    std::string nearest = nearestName(name, names);
    if (nearest.empty() && bareName(name) != name) nearest = nearestName(bareName(name), names);
    return nearest.empty() ? nearest : "; did you mean " + nearest + "?";
}

}  // namespace

void NamedTables::add(const std::string& path, const std::string& options) {
    const std::string name = freeName(stemOf(path), [&](const std::string& free) {
        return byName_.try_emplace(foldCase(free), tables_.size()).second;
    });
    tables_.push_back({name, path, options});
}

void NamedTables::open(sqlite3* connection, Named& table) const {
    if (table.open) return;
    attachAs(connection, table.name, table.path, table.options);
    table.open = true;
    if (tell && table.name != stemOf(table.path)) tell(textOf(table.name, " is ", table.path));
}

bool NamedTables::open(sqlite3* connection, const std::string& name) {
    for (const std::string_view schema : {"", "temp.", "main."}) {
        if (!name.starts_with(schema)) continue;
        const auto found = byName_.find(foldCase(name.substr(schema.size())));
        if (found == byName_.end() || tables_[found->second].open) continue;
        open(connection, tables_[found->second]);
        return true;
    }
    return false;
}

void NamedTables::openAmong(sqlite3* connection, const std::vector<std::string>& words) {
    for (const std::string& word : words) open(connection, word);
}

void NamedTables::openAll(sqlite3* connection) {
    for (Named& table : tables_) open(connection, table);
}

void NamedTables::keep(const std::string& name, const Table& table) {
    KnownTable& known = known_[name];
    known.columns = table.columns;
    known.columns.push_back(extraColumn(table, "_deleted", Kind::Deletion));
    known.kind = GetFlavourKind(table.base.get());
    known.page = pageName(*table.page.page);
}

const KnownTable* NamedTables::known(const std::string& table) const {
    const auto found = known_.find(table);
    return found != known_.end() ? &found->second : nullptr;
}

std::string NamedTables::advice(const std::string& message) const {
    std::vector<std::string> names;
    if (const std::string missing = missingTable(message); !missing.empty()) {
        for (const Named& table : tables_) names.push_back(table.name);
        return meant(missing, names);
    }
    if (!message.starts_with(kNoColumn)) return "";
    for (const auto& [table, known] : known_) {
        for (const Column& column : known.columns) names.push_back(column.name);
    }
    return meant(message.substr(kNoColumn.size()), names);
}

std::vector<std::string> NamedTables::paths() const {
    std::vector<std::string> paths;
    for (const Named& table : tables_) paths.push_back(table.path);
    return paths;
}

std::string missingTable(const std::string& message) {
    return message.starts_with(kNoTable) ? message.substr(kNoTable.size()) : "";
}

}  // namespace mira::sql
