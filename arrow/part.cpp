#include "arrow/part.h"

#include <optional>

#include "tables/open/find.h"
#include "tables/open/journal.h"
#include "tables/open/open.h"

namespace mira::arrow {
namespace {

using tables::Fault;
using tables::FaultTally;
using tables::Table;

void refuseJournal(const std::string& path) {
    if (!tables::hasJournal(path)) return;
    throw Failure(
        MIRA_ARROW_NO_TABLE,
        tables::textOf(path, ": a change was interrupted; `mira info ", path, "` puts it right"));
}

std::string foundTable(const std::string& name) {
    try {
        return tables::findTable(name);
    } catch (const tables::Refusal& refusal) {
        // A change that moves files may have been interrupted between two names.
        refuseJournal(name);
        throw Failure(MIRA_ARROW_NO_FILE, refusal.what());
    }
}

/// The word for a fault in reports.
const char* faultWord(Fault fault) {
    constexpr const char* kWords[tables::kFaults] = {
        "",        "no_number", "no_date", "no_logical", "no_character", "length_past_end",
        "no_memo", "memo_cut",  "rounded", "unkept"};
    return kWords[static_cast<std::size_t>(fault)];
}

void tell(std::vector<ToldFault>& told, const char* kind, const FaultTally& tally,
          std::string what) {
    if (tally.count == 0) return;
    told.push_back({kind, tally.count, u64{tally.record} + 1, tally.column, std::move(what)});
}

}  // namespace

std::unique_ptr<Table> openFor(const char* name, const char* codePage, bool longNames) {
    const std::string path = foundTable(name);
    refuseJournal(path);
    tables::TableOptions options;
    options.codePage = codePage != nullptr ? codePage : "";
    options.longNames = longNames;
    try {
        return tables::openTable(path, options);
    } catch (const tables::UnknownPage& unknown) {
        throw Failure(MIRA_ARROW_NO_PAGE, unknown.what());
    }
}

void demandFields(const Part& part, const std::vector<Field>& fields, const std::string& first) {
    const std::string other = difference(fields, part.fields);
    if (other.empty()) return;
    throw Failure(
        MIRA_ARROW_NO_TABLE,
        tables::textOf(part.table->path, ": its columns are not those of ", first, ": ", other));
}

void appendBlock(Part& part, std::vector<Vector>& vectors) {
    std::optional<CellFailure> first;
    part.cells.loaded = nullptr;
    for (std::size_t i = 0; i < part.fields.size(); ++i) {
        try {
            appendCells(part.cells, part.fields[i], part.records.rows(), vectors[i]);
        } catch (const CellFailure& failure) {
            if (!first || failure.record < first->record) first.emplace(failure);
        }
    }
    if (first) throw CellFailure(*first);
}

std::size_t bytesOf(const std::vector<Vector>& vectors) {
    std::size_t bytes = 0;
    for (const Vector& vector : vectors) bytes += vector.values.size() + vector.bytes.size();
    return bytes;
}

std::vector<ToldFault> faultsOf(const Met& met) {
    std::vector<ToldFault> told;
    for (std::size_t i = 1; i < tables::kFaults; ++i) {
        const auto fault = static_cast<Fault>(i);
        const FaultTally& tally = met.faults[i];
        tell(told, faultWord(fault), tally, tables::faultSentence(fault, tally.count));
    }
    tell(told, "rounded", met.rounded,
         tables::textOf(tables::counted(met.rounded.count, "number"), " rounded"));
    return told;
}

std::string sentenceOf(const std::string& path, const ToldFault& fault) {
    return tables::textOf(path, ": ", fault.what, ", first in record ", fault.record, ", field ",
                          fault.field);
}

std::vector<std::string> notesOf(const Table& table) {
    std::vector<std::string> notes;
    for (const std::string& note : table.notes) notes.push_back(table.path + ": " + note);
    if (table.page.uncertain) {
        notes.push_back(table.path + ": " + tables::pageDoubt(table.page, "code_page"));
    }
    return notes;
}

}  // namespace mira::arrow
