#include "read/copyrows.h"

#include <utility>

#include "select/inorder.h"

namespace mira::tool {
namespace {

constexpr std::size_t kPiece = 1 << 17;  // bytes that wait for their turn

struct Part {
    std::string bytes{};
    u64 rows = 0, guarded = 0;
    Faults faults{};
};

/// What one thread needs to write rows into memory.
class PartWriter {
public:
    PartWriter(std::unique_ptr<Table> table, const Selection& whole, const PartWriting& writing,
               bool terminal)
        : out_([this](std::string_view text) { keep(text); }, terminal),
          source_(writing.source),
          writer_(writing.format.make(out_, writing.options)) {
        SelectOptions options = writing.select;
        options.where = options.shard = options.records = "";
        options.sort.clear();
        selection_ = selectFrom(std::move(table), options);
        selection_->numbered = whole.numbered;
        selection_->view = whole.table->base.get();
        writer_->begin(writing.headings);
        out_.flush();
        part_.bytes.clear();  // the heading is there already
    }
    PartWriter(const PartWriter&) = delete;

    void write(const Range& range, const InOrder<Part>::Give& give) {
        give_ = &give;
        selection_->position = range.first;
        selection_->end = range.end;
        selection_->progress = std::make_unique<Progress>(selection_->table->path, 0);
        try {
            copyRows(*selection_, *writer_, source_);
        } catch (...) {
            handOver();
            throw;
        }
        handOver();
    }

private:
    void keep(std::string_view text) {
        if (part_.bytes.empty()) part_.bytes.reserve(kPiece + text.size());
        part_.bytes.append(text);
        if (part_.bytes.size() >= kPiece) (*give_)(std::exchange(part_, Part()));
    }
    void handOver() {
        out_.flush();
        part_.rows = std::exchange(selection_->rows, 0);
        part_.guarded = std::exchange(writer_->guarded, 0);
        part_.faults = std::exchange(selection_->faults, Faults());
        (*give_)(std::exchange(part_, Part()));
    }

    Part part_{};
    Output out_;
    const std::string* source_;
    std::unique_ptr<RowWriter> writer_;
    std::unique_ptr<Selection> selection_{};
    const InOrder<Part>::Give* give_ = nullptr;
};

/// False, and nothing done, where one thread has to do.
bool copiedInParts(Selection& selection, RowWriter& writer, Output& out,
                   const PartWriting& writing) {
    const Range all{selection.position, selection.end};
    const bool counted = selection.limit != 0 || selection.offset != 0;
    if (!writing.format.has(kRowsApart) || counted || all.first >= all.end) return false;
    const Cut cut = cutFor(*selection.table, all.end - all.first, writing.jobs);
    std::vector<std::unique_ptr<PartWriter>> writers;
    std::vector<InOrder<Part>::Work> workers;
    for (auto& table : openForThreads(*selection.table, cut)) {
        writers.push_back(
            std::make_unique<PartWriter>(std::move(table), selection, writing, out.isTerminal()));
        workers.emplace_back([one = writers.back().get()](const Range& range, const auto& give) {
            one->write(range, give);
        });
    }
    if (workers.empty()) return false;
    const Progress progress(selection.table->path, all.end - all.first);
    return InOrder<Part>(all, cut).run(workers, [&](Part& part) {
        out.put(part.bytes);
        selection.rows += part.rows;
        writer.guarded += part.guarded;
        addFaults(selection.faults, part.faults);
        return true;
    });
}

}  // namespace

void copyRows(Selection& selection, RowWriter& writer, const std::string* source) {
    const std::vector<Column>& columns = selection.columns;
    const std::size_t first = source != nullptr ? 1 : 0;
    Value name;
    name.kind = ValueKind::Text;
    if (source != nullptr) name.text = *source;
    Value value;
    while (nextRow(selection)) {
        if (first != 0) writer.cell(0, name);
        for (std::size_t i = 0; i < columns.size(); ++i) {
            readCell(selection, columns[i], value);
            writer.cell(first + i, value);
            const Fault fault = std::exchange(writer.fault, Fault::None);
            if (fault != Fault::None) {
                countFault(selection.faults, fault, selection.cells.record, columns[i]);
            }
        }
        writer.endRow();
    }
}

void copyRowsInParts(Selection& selection, RowWriter& writer, Output& out,
                     const PartWriting& writing) {
    if (copiedInParts(selection, writer, out, writing)) return;
    copyRows(selection, writer, writing.source);
}

}  // namespace mira::tool
