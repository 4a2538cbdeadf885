// The stream that callers see: its state, its callbacks, the arrays it hands out.
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "arrow/part.h"
#include "arrow/plan.h"
#include "tables/change/append.h"
#include "tables/facts/facts.h"
#include "tables/page/json.h"

namespace mira::arrow {
namespace {

using tables::Table;

constexpr u32 kBatchRows = 65536;

// --------------------------------------------------------------------------------------------
// Arrays
// --------------------------------------------------------------------------------------------

/// What an array owns. A child may be moved away, and then is released by its new owner.
struct OwnedArray {
    Vector vector{};
    std::shared_ptr<Spares> spares{};  // of a column
    std::size_t column = 0;
    const void* buffers[3] = {};
    std::vector<ArrowArray> children{};
    std::vector<ArrowArray*> places{};

    ~OwnedArray() {
        if (spares) spares->give(column, std::move(vector));
        for (ArrowArray& child : children) {
            if (child.release != nullptr) child.release(&child);
        }
    }
};

void releaseArray(ArrowArray* array) {
    delete static_cast<OwnedArray*>(array->private_data);
    array->release = nullptr;
}

ArrowArray arrayOf(std::unique_ptr<OwnedArray> owned, std::size_t length, i64 buffers) {
    ArrowArray array{};
    array.length = static_cast<i64>(length);
    array.null_count = static_cast<i64>(owned->vector.nulls);
    array.n_buffers = buffers;
    array.buffers = owned->buffers;
    array.n_children = static_cast<i64>(owned->children.size());
    array.children = owned->places.data();
    array.release = releaseArray;
    array.private_data = owned.release();
    return array;
}

ArrowArray childOf(const Field& field, std::size_t column, Vector vector,
                   std::shared_ptr<Spares> spares) {
    auto owned = std::make_unique<OwnedArray>();
    owned->vector = std::move(vector);
    owned->column = column;
    owned->spares = std::move(spares);
    Vector& of = owned->vector;
    const bool texts = field.shape == Shape::Text || field.shape == Shape::Binary;
    of.bytes.reserve(1);  // consumers take no null for texts that are all empty
    owned->buffers[0] = of.nulls != 0 ? of.valid.data() : nullptr;
    owned->buffers[1] = of.values.data();
    owned->buffers[2] = of.bytes.data();
    const std::size_t count = of.count;
    return arrayOf(std::move(owned), count, texts ? 3 : 2);
}

void putArray(const std::vector<Field>& fields, std::vector<Vector> vectors, std::size_t rows,
              const std::shared_ptr<Spares>& spares, ArrowArray* array) {
    auto owned = std::make_unique<OwnedArray>();
    owned->children.reserve(fields.size());
    owned->places.reserve(fields.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
        owned->children.push_back(childOf(fields[i], i, std::move(vectors[i]), spares));
        owned->places.push_back(&owned->children.back());
    }
    *array = arrayOf(std::move(owned), rows, 1);
}

// --------------------------------------------------------------------------------------------
// What was met
// --------------------------------------------------------------------------------------------

struct Report {
    std::vector<std::string> notes, faults;

    void add(const Table& table, const Met& met) {
        for (const std::string& note : notesOf(table)) notes.push_back(note);
        for (const ToldFault& told : faultsOf(met)) {
            tables::JsonObject fault;
            fault.text("file", table.path);
            fault.text("kind", told.kind);
            fault.number("count", told.count);
            fault.number("record", told.record);
            fault.text("field", told.field);
            fault.text("sentence", sentenceOf(table.path, told));
            faults.push_back(fault.whole());
        }
    }

    std::string whole() const {
        tables::JsonObject object;
        object.texts("notes", notes);
        object.raw("faults", tables::textOf('[', tables::joined(faults, ","), ']'));
        return object.whole();
    }
};

// --------------------------------------------------------------------------------------------
// The stream
// --------------------------------------------------------------------------------------------

/// The texts of options outlive those of the caller.
class KeptOptions {
public:
    explicit KeptOptions(const MiraArrowOptions& given) : options(given) {
        keep(options.columns);
        keep(options.where);
        keep(options.code_page);
        keep(options.types);
        keep(options.source);
    }
    KeptOptions(const KeptOptions&) = delete;
    KeptOptions& operator=(const KeptOptions&) = delete;

    MiraArrowOptions options;

private:
    void keep(const char*& text) {
        if (text == nullptr) return;
        texts_.push_back(std::make_unique<std::string>(text));
        text = texts_.back()->c_str();
    }
    std::vector<std::unique_ptr<std::string>> texts_;
};

struct Stream {
    Stream(const char* const* names, std::size_t count, const MiraArrowOptions& given)
        : kept(given), tables(names, names + count) {
        openNext();
        fields = part->fields;
        spares = std::make_shared<Spares>(fields.size());
    }

    void openNext() {
        const MiraArrowOptions& options = kept.options;
        const std::string& name = tables[opened];
        part.emplace(openFor(name.c_str(), options.code_page, options.long_names != 0), options);
        if (opened++ != 0) demandFields(*part, fields, tables.front());
    }

    KeptOptions kept;
    std::vector<std::string> tables;
    std::size_t opened = 0;  // of them
    std::vector<Field> fields{};
    std::shared_ptr<Spares> spares{};
    std::optional<Part> part{};  // none: at the end
    Report report{};
    std::string error{};
    int failure = 0;  // what get_next returns from now on
};

void endPart(Stream& stream) {
    stream.report.add(*stream.part->table, stream.part->cells.met);
    stream.part.reset();
}

void tellDone(Stream& stream) {
    const MiraArrowOptions& options = stream.kept.options;
    if (options.done != nullptr) options.done(options.context, stream.report.whole().c_str());
}

/// The next rows; an array without release when there are none.
void readBatch(Stream& stream, ArrowArray* array) {
    const u32 wanted = stream.kept.options.batch_records;
    const u32 most = wanted != 0 ? wanted : kBatchRows;
    std::vector<Vector> vectors(stream.fields.size());
    for (std::size_t i = 0; i < vectors.size(); ++i) {
        vectors[i] = stream.spares->take(i);
        prepareVector(stream.fields[i], 0, vectors[i]);
    }
    u32 rows = 0;
    while (stream.part && rows < most && (wanted != 0 || bytesOf(vectors) < kBatchBytes)) {
        if (stream.part->records.next(most - rows)) {
            appendBlock(*stream.part, vectors);
            rows += static_cast<u32>(stream.part->records.rows().size());
            continue;
        }
        const bool more = stream.opened < stream.tables.size();
        endPart(stream);
        if (more) stream.openNext();
    }
    if (rows != 0) {
        putArray(stream.fields, std::move(vectors), rows, stream.spares, array);
    } else {
        tellDone(stream);
    }
}

/// Runs a callback's work; what it throws becomes a number and the stream's last error.
template <typename Work>
int guarded(Stream& stream, const Work& work) {
    try {
        stream.error.clear();
        work();
        return 0;
    } catch (const std::bad_alloc&) {
        stream.error.clear();
        return ENOMEM;
    } catch (const std::exception& exception) {
        try {
            stream.error = exception.what();
        } catch (...) {
            stream.error.clear();
        }
        return EIO;
    } catch (...) {
        return EIO;
    }
}

Stream& streamOf(ArrowArrayStream* stream) { return *static_cast<Stream*>(stream->private_data); }

int getSchema(ArrowArrayStream* stream, ArrowSchema* schema) {
    Stream& of = streamOf(stream);
    return guarded(of, [&] { putSchema(of.fields, schema); });
}

int getNext(ArrowArrayStream* stream, ArrowArray* array) {
    Stream& of = streamOf(stream);
    if (of.failure != 0) return of.failure;
    array->release = nullptr;
    of.failure = guarded(of, [&] {
        try {
            readBatch(of, array);
        } catch (const tables::Refusal&) {
            if (of.part) endPart(of);
            tellDone(of);
            throw;
        }
    });
    return of.failure;
}

const char* getLastError(ArrowArrayStream* stream) {
    const Stream& of = streamOf(stream);
    if (!of.error.empty()) return of.error.c_str();
    return of.failure == ENOMEM ? "there is no memory" : nullptr;
}

void releaseStream(ArrowArrayStream* stream) {
    delete &streamOf(stream);
    stream->release = nullptr;
}

/// Runs the work of a function; the result, and what it threw as a message.
template <typename Work, typename Tell>
int guardedResult(const Work& work, const Tell& tell) {
    try {
        work();
        return MIRA_ARROW_OK;
    } catch (const Failure& failure) {
        tell(failure.what());
        return failure.result;
    } catch (const std::bad_alloc&) {
        tell("there is no memory");
        return MIRA_ARROW_NO_MEMORY;
    } catch (const std::exception& exception) {
        tell(exception.what());
        return MIRA_ARROW_NO_TABLE;
    } catch (...) {
        return MIRA_ARROW_NO_TABLE;
    }
}

/// A copy for callers in C; null without memory.
char* copied(const char* text) {
    const std::size_t size = std::strlen(text) + 1;
    auto* const copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace
}  // namespace mira::arrow

using mira::arrow::Stream;

int mira_arrow_open_many(const char* const* tables, size_t count, const MiraArrowOptions* options,
                         ArrowArrayStream* stream, char* message, size_t room) {
    using namespace mira::arrow;
    const auto work = [&] {
        if (count == 0) throw Failure(MIRA_ARROW_NO_FILE, "no tables");
        auto made = std::make_unique<Stream>(tables, count, optionsOf(options));
        *stream = {getSchema, getNext, getLastError, releaseStream, made.release()};
    };
    return guardedResult(work, [&](const char* why) {
        if (room != 0) std::snprintf(message, room, "%s", why);
    });
}

int mira_arrow_open(const char* table, const MiraArrowOptions* options, ArrowArrayStream* stream,
                    char* message, size_t room) {
    return mira_arrow_open_many(&table, 1, options, stream, message, room);
}

int mira_arrow_facts(const char* table, const char* code_page, char** json) {
    using namespace mira::arrow;
    *json = nullptr;
    const auto work = [&] {
        const auto opened = openFor(table, code_page, false);
        mira::tables::loadCounters(*opened);
        auto facts = mira::tables::factsOf(*opened);
        mira::tables::addIndexes(*opened, false, facts);
        *json = copied(mira::tables::factsJson(*opened, facts).c_str());
        if (*json == nullptr) throw std::bad_alloc();
    };
    return guardedResult(work, [&](const char* why) { *json = copied(why); });
}

void mira_arrow_free(char* json) { std::free(json); }
