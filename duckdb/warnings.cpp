#include "duckdb/warnings.h"

#include <algorithm>

namespace mira::duck {
namespace {

constexpr std::size_t kMost = 1000;

void addTally(tables::FaultTally& to, const tables::FaultTally& more) {
    if (more.count == 0) return;
    if (to.count == 0 || more.record < to.record) {
        to.record = more.record;
        to.column = more.column;
    }
    to.count += more.count;
}

}  // namespace

u64 Warnings::nextRead() {
    const std::lock_guard lock(mutex_);
    return ++reads_;
}

Warning& Warnings::of(u64 read, const std::string& path) {
    const auto found = std::find_if(warnings_.rbegin(), warnings_.rend(), [&](const Warning& kept) {
        return kept.read == read && kept.path == path;
    });
    if (found != warnings_.rend()) return *found;
    if (warnings_.size() == kMost) warnings_.pop_front();
    return warnings_.emplace_back(Warning{read, path, {}, {}});
}

void Warnings::add(u64 read, const tables::Table& table, const arrow::Met& met) {
    if (arrow::faultsOf(met).empty()) return;
    const std::lock_guard lock(mutex_);
    arrow::Met& kept = of(read, table.path).met;
    for (std::size_t i = 0; i < tables::kFaults; ++i) addTally(kept.faults[i], met.faults[i]);
    addTally(kept.rounded, met.rounded);
}

void Warnings::note(u64 read, const tables::Table& table) {
    const std::vector<std::string> notes = arrow::notesOf(table);
    if (notes.empty()) return;
    const std::lock_guard lock(mutex_);
    std::vector<std::string>& kept = of(read, table.path).notes;
    for (const std::string& note : notes) {
        if (std::find(kept.begin(), kept.end(), note) == kept.end()) kept.push_back(note);
    }
}

std::vector<Warning> Warnings::all() const {
    const std::lock_guard lock(mutex_);
    return {warnings_.begin(), warnings_.end()};
}

}  // namespace mira::duck
