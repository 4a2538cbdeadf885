#include "query/newtable.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <utility>

#include "terminal/message.h"

namespace mira::tool {
namespace {

constexpr unsigned kTextMost = 254;  // bytes of a C field
constexpr int kNumberMost = 20;      // and of an N field
constexpr unsigned kIntegerDigits = 11;
constexpr int kDigitsKept = 15;  // of any number by a double
constexpr unsigned kDoubleBytes = 8;

bool holdsDoubles(TableKind kind) { return kind == TableKind::Visual || kind == TableKind::Level7; }

/// The first table that a column comes from; null when there is none.
const sql::KnownTable* firstTable(const sql::Answer& answer) {
    for (std::size_t i = 0; i < answer.columns().size(); ++i) {
        if (answer.tableOf(i) != nullptr) return answer.tableOf(i);
    }
    return nullptr;
}

/// Tables of level 7 only this library reads when it has made them.
TableKind kindLike(const sql::KnownTable* table) {
    const TableKind kind = table != nullptr ? TableKind{table->kind} : TableKind::DBase3;
    return kind == TableKind::Level7 ? TableKind::DBase3 : kind;
}

}  // namespace

NewTableRows::NewTableRows(const sql::Answer& answer, std::optional<TableKind> kind,
                           std::string codePage)
    : answer_(answer),
      first_(firstTable(answer)),
      kind_(kind ? *kind : kindLike(first_)),
      codePage_(std::move(codePage)),
      seen_(answer.columns().size()),
      out_(targetOf(file_.path()), false),
      csv_(fileFormats().front().second->make(out_, {})) {}

/// A real in as many digits as a double keeps of any number, for a field of digits.
Value NewTableRows::rounded(Seen& seen, const Value& value) {
    constexpr double kMost = 1e15;
    const double size = std::abs(value.real);
    seen.huge = seen.huge || !(size < kMost);
    if (seen.huge) return value;
    char digits[32];
    const int whole = size < 1 ? 1 : static_cast<int>(std::log10(size)) + 1;
    const auto end = std::to_chars(digits, digits + sizeof digits, value.real,
                                   std::chars_format::fixed, std::max(kDigitsKept - whole, 0));
    digits_.assign(digits, end.ptr);
    const std::size_t point = digits_.find('.');
    if (point != std::string::npos) {
        digits_.erase(std::max(digits_.find_last_not_of('0'), point - 1) + 1);
        if (digits_.back() == '.') digits_.pop_back();
        const auto decimals = digits_.size() > point ? digits_.size() - point - 1 : 0;
        seen.decimals = std::max(seen.decimals, static_cast<int>(decimals));
    }
    seen.negative = seen.negative || digits_.front() == '-';
    const std::size_t before = std::min(point, digits_.size()) - (digits_.front() == '-' ? 1 : 0);
    seen.whole = std::max(seen.whole, static_cast<int>(before));
    Value shown;
    shown.kind = ValueKind::Digits;
    shown.text = digits_;
    return shown;
}

void NewTableRows::cell(std::size_t column, const Value& value) {
    Seen& seen = seen_[column];
    seen.text = seen.text || value.kind == ValueKind::Text;
    seen.longest = std::max(seen.longest, value.text.size());
    if (answer_.tableOf(column) != nullptr) return csv_->cell(column, value);
    if (value.kind == ValueKind::Integer) {
        seen.negative = seen.negative || value.integer < 0;
        seen.whole = std::max(seen.whole, static_cast<int>(std::to_string(value.integer).size()));
    }
    const bool real = value.kind == ValueKind::Real;
    seen.real = seen.real || real;
    csv_->cell(column, real && !holdsDoubles(kind_) ? rounded(seen, value) : value);
}

std::optional<FieldPlan> NewTableRows::fieldOf(std::size_t column,
                                               const FieldPlan& suggested) const {
    const Seen& seen = seen_[column];
    const sql::KnownTable* const table = answer_.tableOf(column);
    const Column& of = answer_.columns()[column];
    if (table != nullptr && of.field != kNoField) {
        FieldPlan plan = planOf(of);
        plan.flags &= static_cast<u8>(~kCounting);  // numbers are given
        if (plan.type == '+') plan = {of.name, 'N', kIntegerDigits, 0, 0};
        return counterpartOf(plan, TableKind{table->kind}, kind_);
    }
    if (seen.real && !seen.text && holdsDoubles(kind_)) {
        return FieldPlan{suggested.name, kind_ == TableKind::Visual ? 'B' : 'O', kDoubleBytes};
    }
    if (seen.real && !seen.text && !seen.huge) {
        // Sign and point; and rounding may make one digit more.
        const int decimals = std::clamp(kNumberMost - 3 - seen.whole, 0, seen.decimals);
        const int carry = decimals < seen.decimals ? 1 : 0;
        const int length = std::min(
            (seen.negative ? 1 : 0) + carry + seen.whole + (decimals != 0 ? 1 + decimals : 0),
            kNumberMost);
        return FieldPlan{suggested.name, 'N', static_cast<unsigned>(length),
                         static_cast<unsigned>(decimals)};
    }
    // Texts stay texts, whatever they look like, but for dates, which SQL gives as texts only.
    const bool digits = suggested.type == 'N' || suggested.type == 'L';
    if (!seen.text || !digits) return std::nullopt;
    return FieldPlan{suggested.name, 'C',
                     static_cast<unsigned>(std::clamp<std::size_t>(seen.longest, 1, kTextMost))};
}

Status NewTableRows::make(const std::string& table, const ChangeOptions& change) {
    out_.finish();
    RowsToImport rows;
    rows.csv = file_.path();
    rows.table = table;
    rows.kind = kind_;
    rows.fixedPage = !codePage_.empty();
    rows.codePage = rows.fixedPage || first_ == nullptr ? codePage_ : first_->page;
    rows.better = [&](std::size_t column, const FieldPlan& suggested) {
        return fieldOf(column, suggested);
    };
    return importRows(rows, change);
}

}  // namespace mira::tool
