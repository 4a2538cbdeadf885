#include "query/newtable.h"

#include <algorithm>

#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr unsigned kTextMost = 254;  // bytes of a C field

/// The first table that a column comes from; null when there is none.
const NamedTables::Known* firstTable(const Answer& answer) {
    for (std::size_t i = 0; i < answer.columns().size(); ++i) {
        if (answer.tableOf(i) != nullptr) return answer.tableOf(i);
    }
    return nullptr;
}

/// Tables of level 7 only this library reads when it has made them.
TableKind kindLike(const NamedTables::Known* table) {
    const TableKind kind = table != nullptr ? TableKind{table->kind} : TableKind::DBase3;
    return kind == TableKind::Level7 ? TableKind::DBase3 : kind;
}

}  // namespace

NewTableRows::NewTableRows(const Answer& answer)
    : answer_(answer),
      seen_(answer.columns().size()),
      out_(targetOf(file_.path()), false),
      csv_(csvWriter(out_, {})) {}

void NewTableRows::cell(std::size_t column, const Value& value) {
    Seen& seen = seen_[column];
    seen.text = seen.text || value.kind == ValueKind::Text;
    seen.longest = std::max(seen.longest, value.text.size());
    csv_->cell(column, value);
}

std::optional<FieldPlan> NewTableRows::fieldOf(std::size_t column, const FieldPlan& suggested,
                                               TableKind kind) const {
    const Seen& seen = seen_[column];
    const NamedTables::Known* const table = answer_.tableOf(column);
    const Column& of = answer_.columns()[column];
    if (table != nullptr && of.field != kNoField) {
        FieldPlan plan = planOf(of);
        plan.flags &= static_cast<u8>(~kCounting);  // numbers are given
        if (plan.type == '+') plan = {of.name, 'N', 11, 0, 0};
        return counterpartOf(plan, TableKind{table->kind}, kind);
    }
    // Texts stay texts, whatever they look like, but for dates, which SQL gives as texts only.
    const bool digits = suggested.type == 'N' || suggested.type == 'L';
    if (!seen.text || !digits) return std::nullopt;
    return FieldPlan{suggested.name, 'C',
                     static_cast<unsigned>(std::clamp<std::size_t>(seen.longest, 1, kTextMost))};
}

Status NewTableRows::make(const std::string& table, std::optional<TableKind> kind,
                          const std::string& codePage, const ChangeOptions& change) {
    out_.finish();
    const NamedTables::Known* const like = firstTable(answer_);
    RowsToImport rows;
    rows.csv = file_.path();
    rows.table = table;
    rows.kind = kind ? *kind : kindLike(like);
    rows.fixedPage = !codePage.empty();
    rows.codePage = rows.fixedPage ? codePage : like != nullptr ? like->page : "";
    rows.better = [&](std::size_t column, const FieldPlan& suggested) {
        return fieldOf(column, suggested, rows.kind);
    };
    return importRows(rows, change);
}

}  // namespace mira::tool
