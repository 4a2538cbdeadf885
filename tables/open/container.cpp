// A container is a table itself: a record per object, with OBJECTID, PARENTID (I), OBJECTTYPE and
// OBJECTNAME (C). The fields of a table are the "Field" objects whose parent is the "Table" object
// of its name; their OBJECTIDs are in field order.
#include "tables/open/container.h"

#include <algorithm>
#include <filesystem>
#include <map>

#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/value/value.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr u32 kBackLinkSize = 263;

struct Object {
    i64 id = 0, parent = 0;
    std::string type, name;
};

/// Calls take with every live object of a container.
template <typename Take>
void eachObject(Table& container, Take take) {
    CellReader reader(container);
    Value value;
    const auto text = [&](const char* name) {
        readCell(reader, columnNamed(container, name), value);
        return std::string(value.text);
    };
    const auto number = [&](const char* name) {
        readCell(reader, columnNamed(container, name), value);
        return value.integer;
    };
    DbfBase* const base = container.base.get();
    for (u32 record = 0; record < reccount(base) && ReadRecord(base, record) != 0; ++record) {
        if (isDeleted(container)) continue;
        take(
            Object{number("OBJECTID"), number("PARENTID"), text("OBJECTTYPE"), text("OBJECTNAME")});
    }
}

}  // namespace

std::string backLinkOf(const Table& table, Listing* listing) {
    const DbfBase& base = *table.base;
    const u32 start = base.HeaderSize + base.DescriptorSize * base.FieldCount + 1;
    if (!table.visual || start >= base.Header.HeaderLength) return {};
    char stored[kBackLinkSize + 1] = {};
    readFileAt(base.TableFile, start, stored,
               std::min<u32>(kBackLinkSize, base.Header.HeaderLength - start));
    std::string link(trimmed(stored));
    if (link.empty()) return {};
    std::replace(link.begin(), link.end(), '\\', '/');
    const fs::path folder = fs::path(table.path).parent_path();
    const std::string path = (folder / link).lexically_normal().string();
    std::string found = inAnyCase(path, listing);
    if (!found.empty()) return found;
    // A folder that was moved keeps its container beside the tables, as a rule.
    const std::string near = inAnyCase((folder / fs::path(link).filename()).string(), listing);
    return near.empty() ? path : near;
}

std::vector<std::string> longNamesOf(const Table& table, Listing* listing) {
    if (table.container.empty()) {
        refuse(table.path, ": belongs to no database container, so it has no long names");
    }
    const std::unique_ptr<Table> container = openTable(table.container, {}, listing);
    i64 id = 0;
    const std::string name = stemOf(table.path);
    eachObject(*container, [&](const Object& object) {
        if (object.type == "Table" && sameText(object.name, name)) id = object.id;
    });
    std::map<i64, std::string> names;
    eachObject(*container, [&](const Object& object) {
        if (object.type == "Field" && object.parent == id) names[object.id] = object.name;
    });
    if (id == 0 || names.empty()) {
        refuse(table.path, ": its database container ", table.container,
               " knows no table of this name");
    }
    std::vector<std::string> ordered;
    ordered.reserve(names.size());
    for (auto& [key, text] : names) ordered.push_back(std::move(text));
    return ordered;
}

}  // namespace mira::tables
