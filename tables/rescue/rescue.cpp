#include "tables/rescue/rescue.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "tables/change/append.h"
#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/refusal.h"
#include "tables/rescue/memos.h"
#include "tables/rescue/walk.h"
#include "tables/store/store.h"
#include "tables/value/value.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr i64 kNothing = -1000;     // what a header that gives no table is worth
constexpr u32 kStep = 64;           // records
constexpr std::size_t kWays = 256;  // places that a broken record is tried to be broken at

Layout layoutOf(Source& source, const std::string& name, const Table* like) {
    return like != nullptr ? layoutLike(source, *like) : ownLayout(source, name);
}

Walked walk(Source& source, const Layout& layout, Fit& fit, const std::function<void(u32)>& step) {
    const ZeroMarks marks = zeroMarksFrom(source, layout.shape, layout.first);
    if (2 * marks.zeros > marks.records) fit.allowZeroMark();
    return walkRecords(source, fit, layout.first, layout.counted, step);
}

/// How much of a table a layout gives: sound records, and fewer repairs.
i64 worthOf(Source& source, const Layout& layout) {
    Fit fit(layout.shape);
    i64 sound = 0;
    for (const Stretch& stretch : walk(source, layout, fit, [](u32) {}).stretches) {
        if (stretch.is == Stretch::Is::Sound && stretch.shift == 0) sound += stretch.count;
    }
    return 16 * (layout.doubtful ? 0 : sound) - static_cast<i64>(layout.repairs.size());
}

/// The way of the records into the new table.
class Saver {
public:
    Saver(Damaged& damaged, Table& to, DamagedMemos& memos, const RescueHooks& hooks)
        : source_(*damaged.source),
          layout_(damaged.layout),
          fit_(damaged.layout.shape),
          to_(to),
          cells_(to),
          memos_(memos),
          hooks_(hooks) {
        for (const auto* columns : {&to.columns, &to.system}) {
            for (const Column& column : *columns) {
                if (holdsReference(column) && to.memoFormat != MemoFormat::None) {
                    memoColumns_.push_back(&column);
                }
            }
        }
    }

    Rescued run() {
        for (const std::string& repair : layout_.repairs) hooks_.tell({.what = repair});
        const Walked walked = walk(source_, layout_, fit_, hooks_.step);
        if (!memoColumns_.empty()) gatherReferences(walked);
        if (to_.base->FirstMemoField != -1) makeMemoFile();
        loadCounters(to_);
        for (const Stretch& stretch : walked.stretches) take(stretch);
        finishAppend(to_);
        expect(walked);
        return rescued_;
    }

private:
    void load(std::string_view bytes) const {
        u8* const record = to_.base->RecordBuffer;
        const std::size_t length = to_.base->Header.RecordLength;
        const std::size_t size = std::min(bytes.size(), length);
        std::memset(record, ' ', length);
        std::memcpy(record, bytes.data(), size);
        if (record[0] != ' ' && record[0] != '*') record[0] = ' ';
    }

    void makeMemoFile() {
        DbfBase* const base = to_.base.get();
        if (CreateMemoFile(base->FileName, GetMemoType(base), memos_.unit()) == 0) {
            refuse(to_.path, ": its memo file cannot be written");
        }
    }

    void gatherReferences(const Walked& walked) {
        for (const Stretch& stretch : walked.stretches) {
            using Is = Stretch::Is;
            if (stretch.is != Is::Sound && stretch.is != Is::Doubtful) continue;
            for (u32 i = 0; i < stretch.count; ++i) {
                if (i % kStep == 0) hooks_.step(0);
                load(recordAt(stretch, i));
                for (const Column* column : memoColumns_) {
                    const MemoReference reference = memoReference(to_, *column);
                    const bool some = reference.block != 0 || reference.length != 0;
                    if (reference.isReference && some && !isNull(to_, *column)) {
                        stretch.is == Is::Sound ? memos_.add(reference)
                                                : memos_.addDoubtful(reference);
                    }
                }
            }
        }
        for (const std::string& sentence : memos_.settle()) hooks_.tell({.what = sentence});
    }

    std::string_view recordAt(const Stretch& stretch, u32 index) {
        return source_.at(stretch.place + u64{index} * layout_.shape.stride, layout_.shape.length);
    }

    u32 nextRecord() const { return to_.base->Header.RecordCount + 1; }

    void take(const Stretch& stretch) {
        using Is = Stretch::Is;
        const bool doubtful = stretch.is != Is::Sound || layout_.doubtful;
        Spot spot{.place = stretch.place,
                  .bytes = stretch.bytes,
                  .record = nextRecord(),
                  .count = stretch.count};
        if (stretch.is == Is::LeftOut) {
            rescued_.leftOut += stretch.bytes;
            spot.is = Spot::Is::LeftOut;
            spot.what = counted(stretch.bytes, "byte") + " that are no record";
            hooks_.tell(spot);
            return keep(stretch.place, stretch.bytes);
        }
        if (stretch.shift != shift_) {
            spot.is = Spot::Is::Shifted;
            spot.what = textOf("from here on shifted by ", stretch.shift, " bytes");
            hooks_.tell(spot);
        }
        shift_ = stretch.shift;
        if (doubtful) {
            spot.is = Spot::Is::Doubtful;
            spot.what = stretch.is == Is::Broken  ? "has lost or got bytes"
                        : stretch.is == Is::Sound ? "its fields may lie otherwise"
                                                  : "some of its bytes may be wrong";
            hooks_.tell(spot);
            if (stretch.is != Is::Sound) keep(stretch.place, stretch.bytes);
        }
        for (u32 i = 0; i < stretch.count; ++i) {
            if (stretch.is == Is::Broken) {
                load(mended(stretch));
            } else {
                load(recordAt(stretch, i));
            }
            save(doubtful, stretch.place + u64{i} * layout_.shape.stride);
            if ((i + 1) % kStep == 0 || i + 1 == stretch.count) hooks_.step(i % kStep + 1);
        }
        if (stretch.shift != 0) rescued_.shifted += stretch.count;
    }

    void keep(u64 place, u64 bytes) {
        const u64 end = std::min(place + bytes, source_.size());
        for (; place < end; place += Source::kMost) {
            hooks_.keep(source_.at(
                place, static_cast<std::size_t>(std::min<u64>(Source::kMost, end - place))));
        }
    }

    /// A record that has lost bytes, with blanks where they fit best, or has got some, without
    /// them.
    std::string mended(const Stretch& stretch) {
        const std::size_t length = layout_.shape.length;
        const std::string bytes(source_.at(stretch.place, static_cast<std::size_t>(stretch.bytes)));
        std::string best;
        double most = 0;
        const std::size_t ends = std::min(bytes.size(), length);
        const std::size_t step = ends / kWays + 1;
        for (std::size_t at = 0; at <= ends; at += step) {
            std::string way = bytes;
            if (way.size() < length) way.insert(at, length - way.size(), ' ');
            if (way.size() > length) way.erase(at, way.size() - length);
            const u32 faults = fit_.faults(way);
            const double worth =
                fit_.likelihood(way) - 30.0 * (faults % kNoMark) - (faults >= kNoMark ? 90.0 : 0.0);
            if (!best.empty() && worth <= most) continue;
            most = worth;
            best = std::move(way);
        }
        return best;
    }

    /// The record in RecordBuffer.
    void save(bool doubtful, u64 place) {
        const std::string stored(reinterpret_cast<const char*>(to_.base->RecordBuffer),
                                 to_.base->Header.RecordLength);
        const bool blanked = clearFaults(place);
        if (blanked && !doubtful) hooks_.keep(stored);
        for (const Column* column : memoColumns_) saveMemo(*column, doubtful, place);
        for (Column& column : to_.columns) {
            if (!isCounting(column)) continue;
            const i64 value = static_cast<i32>(GetInt(to_.base.get(), column.field));
            if (value >= column.nextValue) column.nextValue = static_cast<u32>(value + column.step);
        }
        if (doubtful || blanked) ++rescued_.doubtful;
        ++rescued_.saved;
        appendRecord(to_);
    }

    /// Values that are none become blank; a length that reaches too far ends with its field.
    bool clearFaults(u64 place) {
        bool any = false;
        for (const Column& column : to_.columns) {
            if (column.kind == Kind::Memo || column.kind == Kind::Blob) continue;
            Value value;
            readCell(cells_, column, value);
            if (value.fault == Fault::None || value.fault == Fault::NoCharacter) continue;
            any = true;
            hooks_.tell({.is = Spot::Is::Value,
                         .place = place + column.offset,
                         .bytes = column.length,
                         .record = nextRecord(),
                         .count = 1,
                         .field = column.name,
                         .what = "holds no value of its type and is blank now"});
            u8* const bytes = to_.base->RecordBuffer + column.offset;
            if (value.fault == Fault::LengthPastEnd) {
                bytes[column.length - 1] = static_cast<u8>(std::min<u32>(column.length - 1, 255));
            } else if (column.kind == Kind::Double) {
                const auto set = column.type == 'O' ? SetInvertedDouble : SetDouble;
                set(to_.base.get(), column.field, 0);
            } else {
                ClearField(to_.base.get(), column.field);
            }
        }
        return any;
    }

    void saveMemo(const Column& column, bool doubtful, u64 place) {
        if (isNull(to_, column)) return;
        const MemoReference reference = memoReference(to_, column);
        const bool none = reference.isReference && reference.block == 0 && reference.length == 0;
        Encoded encoded;
        ClearField(to_.base.get(), column.field);
        if (none) return;
        using Found = DamagedMemos::Found;
        const Found found =
            reference.isReference ? memos_.read(reference, encoded.memo) : Found::Lost;
        Spot spot{.is = Spot::Is::MemoLost,
                  .place = place,
                  .record = nextRecord(),
                  .count = 1,
                  .field = column.name};
        if (found == Found::Lost) {
            ++rescued_.memosLost;
            spot.what = reference.isReference
                            ? textOf("its memo in block ", reference.block, " is lost")
                            : std::string("holds no reference to a memo");
            return hooks_.tell(spot);
        }
        encoded.bytes.assign(reinterpret_cast<const char*>(to_.base->RecordBuffer) + column.offset,
                             column.length);
        encoded.hasMemo = true;
        putValue(to_, column, encoded);
        ++rescued_.memos;
        if (found == Found::Sound && !doubtful) return;
        ++rescued_.memosDoubtful;
        spot.is = Spot::Is::MemoDoubtful;
        spot.what = textOf("its memo in block ", reference.block, " is doubtful");
        hooks_.tell(spot);
    }

    /// The header's count, unless the file can never have been so long.
    void expect(const Walked&) {
        const u64 room = 4 * (source_.size() / layout_.shape.stride + 1);
        rescued_.expected =
            std::max<u64>(rescued_.saved, layout_.counted <= room ? layout_.counted : 0);
    }

    Source& source_;
    const Layout& layout_;
    Fit fit_;
    Table& to_;
    CellReader cells_;
    DamagedMemos& memos_;
    const RescueHooks& hooks_;
    std::vector<const Column*> memoColumns_;
    Rescued rescued_;
    i64 shift_ = 0;
};

/// What stands in the records can make another table of a strange header.
void checkOpens(const Table& to) {
    const auto opened = openTable(to.base->FileName, {.codePage = to.options.codePage});
    const DbfHeader &wanted = to.base->Header, &found = opened->base->Header;
    const bool readsMemos = opened->memoFormat != MemoFormat::None && !memoFileOf(*opened).empty();
    if (found.RecordCount != wanted.RecordCount || found.RecordLength != wanted.RecordLength ||
        opened->base->FieldCount != to.base->FieldCount ||
        opened->base->Level7 != to.base->Level7 ||
        (readsMemos && GetBlockSize(opened->base.get()) == 0)) {
        refuse(to.path, ": no sound table can be made of what is left");
    }
}

/// The same file before a transfer as text.
Damaged undoneOf(const std::string& path, const Table* like, const std::function<void()>& step) {
    Damaged undone{std::make_unique<Source>(path, step)};
    undone.source->undoTextEnds();
    undone.layout = layoutOf(*undone.source, path, like);
    undone.isText = true;
    return undone;
}

}  // namespace

Damaged examine(const std::string& path, const Table* like, const std::function<void()>& step) {
    Damaged asItIs{std::make_unique<Source>(path, step)};
    const bool mayBeText = asItIs.source->hasTextEnds();
    std::string refusal;
    try {
        asItIs.layout = layoutOf(*asItIs.source, path, like);
    } catch (const Refusal& reason) {
        if (!mayBeText) throw;
        refusal = reason.what();
    }
    if (!mayBeText) return asItIs;
    const i64 worth = refusal.empty() ? worthOf(*asItIs.source, asItIs.layout) : kNothing;
    try {
        Damaged undone = undoneOf(path, like, step);
        if (worthOf(*undone.source, undone.layout) > worth) {
            undone.layout.repairs.insert(
                undone.layout.repairs.begin(),
                "the file has come through a transfer as text: every line feed "
                "got a carriage return before it");
            return undone;
        }
    } catch (const Refusal&) {
        if (!refusal.empty()) throw;
    }
    if (!refusal.empty()) refuse(refusal);
    return asItIs;
}

u64 passesOf(const Damaged& damaged) {
    const u64 size = damaged.source->size();
    const u64 bytes = size - std::min(damaged.layout.first, size);
    return 2 * (bytes / damaged.layout.shape.stride);  // to find them, and to save them
}

void layTable(const std::string& path, const std::string& head) {
    File file(std::fopen(path.c_str(), "wbx"));
    if (!file || WriteFile(file.get(), head.data(), static_cast<i32>(head.size())) != head.size() ||
        std::fclose(file.release()) != 0) {
        refuse(path, ": cannot be written");
    }
}

Rescued rescue(Damaged& damaged, Table& to, const std::string& memos, u32 memoBlock,
               const RescueHooks& hooks) {
    DamagedMemos reader(memos, to.memoFormat, memoBlock, damaged.isText, [&] { hooks.step(0); });
    const Rescued rescued = Saver(damaged, to, reader, hooks).run();
    checkOpens(to);
    return rescued;
}

std::string memosOfDamaged(const std::string& path, const Table& to) {
    if (memoFileOf(to).empty()) return "";
    const std::unique_ptr<char, FreeCloser> name(
        GetMemoName(path.c_str(), GetMemoType(to.base.get())));
    if (name) {
        std::string found = inAnyCase(name.get());
        if (!found.empty()) return found;
    }
    // Sources of Visual FoxPro: .sct beside .scx.
    std::string other = path;
    if (other.empty() || sameText(fs::path(path).extension().string(), ".dbf")) return "";
    other.back() = other.back() == 'X' ? 'T' : 't';
    return inAnyCase(other);
}

}  // namespace mira::tables
