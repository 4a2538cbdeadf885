#include "losses.h"

#include "tables/page/text.h"

namespace mira::sql {

void Losses::add(tables::Fault fault, u32 record, const tables::Column& column) {
    std::vector<bool>& records = cells_[{fault, &column}];
    if (record >= records.size()) records.resize(std::size_t{record} + 1);
    if (records[record]) return;
    records[record] = true;
    tables::countFault(faults_, fault, record, column);
}

void Losses::tell(const std::string& path, const Host& host) {
    if (tables::faultCount(faults_) == 0) return;
    for (std::size_t i = 0; i < tables::kFaults; ++i) {
        if (faults_[i].count == 0) continue;
        const auto fault = static_cast<tables::Fault>(i);
        std::string sentence = path + ": " + tables::faultSentence(fault, faults_[i]);
        if (fault == tables::Fault::Rounded) {
            sentence += tables::textOf("; ", host.exactOption, " keeps all digits");
        }
        host.tell(Notice::Loss, sentence);
    }
    faults_ = {};
}

}  // namespace mira::sql
