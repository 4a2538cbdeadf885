#include "write/assignment.h"

#include "tables/page/refusal.h"

namespace mira::tool {
namespace {

/// FIELD=VALUE, checked. A value of "" is an empty text where nothing would be null.
Assignment assignmentOf(Table& table, const std::string& text, bool newRecord) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos) {
        refuse("\"", text, "\": FIELD=VALUE, such as PRICE=12.50");
    }
    const Column& column = columnNamed(table, text.substr(0, equals));
    const std::string value = text.substr(equals + 1);
    const Given given = value == "\"\"" ? Given::cell("", true) : Given::cell(value);
    Assignment assignment{&column, {}};
    const std::string reason = encodeValue(table, column, given, newRecord, assignment.value);
    if (!reason.empty()) refuse(table.path, ": ", column.name, ": ", reason);
    return assignment;
}

}  // namespace

std::vector<Assignment> assignmentsOf(Table& table, const std::vector<std::string>& texts,
                                      bool newRecord) {
    std::vector<Assignment> assignments;
    for (const std::string& text : texts) {
        assignments.push_back(assignmentOf(table, text, newRecord));
        for (std::size_t i = 0; i + 1 < assignments.size(); ++i) {
            if (assignments[i].column != assignments.back().column) continue;
            refuse(assignments[i].column->name, " is given twice");
        }
    }
    return assignments;
}

}  // namespace mira::tool
