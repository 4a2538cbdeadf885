#include "tables/change/alter.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

#include "tables/change/append.h"
#include "tables/change/newfiles.h"
#include "tables/open/open.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/store/transfer.h"

namespace mira::tables {
namespace {

constexpr char kEndOfFile = 0x1A;

bool isMemo(const Column& column) { return column.kind == Kind::Memo || column.kind == Kind::Blob; }

/// A column of the new table, and how it comes by its value.
struct Way {
    enum class How : u8 {
        Carry,  ///< the same bytes, with the bits of the null flags
        Memo,   ///< the same bytes in the memo file
        Value,  ///< read, checked and encoded
        Count   ///< numbered
    };
    How how;
    Column from, to;
    i64* most = nullptr;  ///< greatest value of a column that begins to count
};

/// A counting column of the new table.
struct Counter {
    Column to;
    const Column* from;  ///< the old one, when it counts, too
    i64 most = 0;
};

/// Bytes that are copied as they are.
struct Stretch {
    u32 from, to, length;
};

/// Everything about the new table.
class Altered {
public:
    Altered(Table& table, const Alteration& alteration, const Swap& swap)
        : table_(table), cells_(table), file_(create(table, swap)) {
        file_.put(alteration.head);
        file_.flush();
        made_ = openTable(swap.newTable(), {.codePage = alteration.codePage, .writable = true});
        made_->path = table.path;  // for messages
        loadCounters(*made_);
        planWays(alteration);
        if (!memoFileOf(*made_).empty()) {
            memos_.emplace(*made_, swap, alteration.memoUnit);
            memoName_ = nameOfMemos();
        }
        layBlank();
    }

    void take(u32 record, const TellMisfit& misfit) {
        readRecord(table_, record);
        cells_.record = record;
        u8* const to = made_->base->RecordBuffer;
        const u8* const from = table_.base->RecordBuffer;
        std::memcpy(to, blank_.data(), blank_.size());
        to[0] = from[0];
        for (const Stretch& stretch : stretches_) {
            std::memcpy(to + stretch.to, from + stretch.from, stretch.length);
        }
        for (Way& way : ways_) {
            const std::string reason = go(way, record);
            if (!reason.empty()) misfit(record, way.from, reason);
        }
        file_.put({reinterpret_cast<const char*>(to), blank_.size()});
        ++count_;
    }

    std::string finish() {
        file_.put({&kEndOfFile, 1});
        file_.flush();
        DbfHeader header = made_->base->Header;
        header.RecordCount = count_;
        StampHeader(&header);
        file_.patch(0, headerImage(header, made_->base->HeaderSize));
        patchCounters();
        if (memos_) memos_->finish();
        return memoName_;
    }

private:
    static NewFile create(const Table& table, const Swap& swap) {
        return {openPlain(swap.newTable(), O_RDWR | O_CREAT | O_EXCL), table.path};
    }

    static const Column* columnOf(const Table& table, int field) {
        for (const auto* list : {&table.columns, &table.system}) {
            for (const Column& column : *list) {
                if (column.field == field) return &column;
            }
        }
        return nullptr;
    }

    void planWays(const Alteration& alteration) {
        for (std::size_t i = 0; i < alteration.sources.size(); ++i) {
            const FieldSource& source = alteration.sources[i];
            const Column* const to = columnOf(*made_, static_cast<int>(i));
            const Column* const from = columnOf(table_, source.field);
            if (to == nullptr) refuse(table_.path, ": the new structure cannot be read back");
            i64* const most = isCounting(*to) ? addCounter(*to, from) : nullptr;
            if (from == nullptr) {
                if (most != nullptr) ways_.push_back({Way::How::Count, *to, *to, most});
                continue;
            }
            const bool bits = from->nullBit != kNoBit || from->lengthBit != kNoBit ||
                              to->nullBit != kNoBit || to->lengthBit != kNoBit;
            if (source.same && !bits && !isMemo(*from) && from->length == to->length) {
                addStretch({from->offset, to->offset, from->length});
            } else {
                ways_.push_back({!source.same    ? Way::How::Value
                                 : isMemo(*from) ? Way::How::Memo
                                                 : Way::How::Carry,
                                 *from, *to, most});
            }
        }
    }

    i64* addCounter(const Column& to, const Column* from) {
        const bool counts = from != nullptr && isCounting(*from);
        counters_.push_back(std::make_unique<Counter>(Counter{to, counts ? from : nullptr}));
        return &counters_.back()->most;
    }

    void addStretch(const Stretch& next) {
        if (!stretches_.empty()) {
            Stretch& last = stretches_.back();
            if (last.from + last.length == next.from && last.to + last.length == next.to) {
                last.length += next.length;
                return;
            }
        }
        stretches_.push_back(next);
    }

    /// The record that every new one starts from.
    void layBlank() {
        newRecord(*made_);
        std::memset(made_->base->RecordBuffer + made_->nullOffset, 0, made_->nullLength);
        for (const Column& column : made_->columns) {
            const std::string reason =
                encodeValue(*made_, uncounted(column), Given{}, true, encoded_);
            if (!reason.empty()) refuse(table_.path, ": ", column.name, ": ", reason);
            putBytes(*made_, column, encoded_);
        }
        blank_.assign(reinterpret_cast<const char*>(made_->base->RecordBuffer),
                      made_->base->Header.RecordLength);
    }

    /// A counting column as one that takes any value.
    static Column uncounted(Column column) {
        if (isCounting(column)) {
            column.type = 'I';
            column.flags &= static_cast<u8>(~kCounting);
        }
        return column;
    }

    /// Empty, or why the value does not fit.
    std::string go(Way& way, u32 record) {
        switch (way.how) {
            case Way::How::Carry:
                carry(way);
                return "";
            case Way::How::Memo:
                return moveMemo(way);
            case Way::How::Count:
                *way.most = i64{record} + 1;
                encodeValue(*made_, uncounted(way.to), Given::ofInteger(*way.most), true, encoded_);
                putBytes(*made_, way.to, encoded_);
                return "";
            case Way::How::Value:
                break;
        }
        std::string reason =
            transferValue(cells_, way.from, *made_, uncounted(way.to), Nothing::Misfits, encoded_);
        if (reason.empty()) putEncoded(way.to);
        if (reason.empty() && way.most != nullptr) {
            *way.most =
                std::max<i64>(*way.most, static_cast<i32>(GetInt(made_->base.get(), way.to.field)));
        }
        return reason;
    }

    void carry(const Way& way) {
        Fault fault = Fault::None;
        const bool variable = way.from.lengthBit != kNoBit;
        encoded_.bytes.assign(storedBytes(table_, way.from));
        encoded_.isNull = isNull(table_, way.from);
        encoded_.partial =
            variable && (variableBytes(table_, way.from, &fault).size() < way.from.length ||
                         fault != Fault::None);
        putBytes(*made_, way.to, encoded_);
    }

    std::string moveMemo(const Way& way) {
        std::string_view bytes;
        const MemoResult found = readMemo(cells_.memos, table_, way.from, &bytes);
        const bool null = isNull(table_, way.from);
        if (null) {
            encodeValue(*made_, way.to, Given{}, true, encoded_);
        } else {
            encoded_.bytes.assign(way.to.length, FieldBlankChar(made_->base.get(), way.to.field));
            encoded_.isNull = false;
        }
        encoded_.partial = false;
        putBytes(*made_, way.to, encoded_);
        if (found == MemoResult::Failed) return "its memo cannot be read";
        if (found == MemoResult::None) return "";
        addMemo(way.to, bytes);
        return found == MemoResult::Cut ? "its memo is not whole" : "";
    }

    void putEncoded(const Column& column) {
        putBytes(*made_, column, encoded_);
        if (encoded_.hasMemo || !encoded_.memo.empty()) addMemo(column, encoded_.memo);
    }

    void addMemo(const Column& column, std::string_view bytes) {
        const auto length = static_cast<u32>(bytes.size());
        if (!setMemoReference(*made_, column, {true, memos_->add(bytes), length})) {
            refuse(table_.path, ": ", column.name, ": the number of a memo does not fit");
        }
    }

    /// Next values: those of the old columns, or after the greatest.
    void patchCounters() {
        for (const auto& counter : counters_) {
            const u32 place = counterPlace(*made_, counter->to);
            if (place == 0) continue;
            const Column* const old = counter->from;
            const auto next =
                bytesLe(old != nullptr ? old->nextValue : static_cast<u32>(counter->most + 1));
            std::string image(next.begin(), next.end());
            if (made_->visual) image += static_cast<char>(old != nullptr ? old->step : 1);
            file_.patch(place, image);
        }
    }

    /// The memo file keeps its name while it is of the same kind.
    std::string nameOfMemos() const {
        namespace fs = std::filesystem;
        const fs::path old = memoFileOf(table_);
        if (!old.empty() && table_.memoFormat == made_->memoFormat) return old.filename().string();
        return fs::path(table_.path).stem().string() +
               fs::path(memoFileOf(*made_)).extension().string();
    }

    Table& table_;
    CellReader cells_;
    NewFile file_;
    std::unique_ptr<Table> made_;
    std::optional<NewMemos> memos_;
    std::string memoName_;
    std::vector<Way> ways_;
    std::vector<std::unique_ptr<Counter>> counters_;
    std::vector<Stretch> stretches_;
    std::string blank_;
    Encoded encoded_;
    u32 count_ = 0;
};

}  // namespace

std::string alterInto(Table& table, const Alteration& alteration, const Swap& swap,
                      const TellMisfit& misfit, const std::function<void()>& step) {
    loadCounters(table);
    Altered altered(table, alteration, swap);
    for (u32 record = 0; record < table.base->Header.RecordCount; ++record) {
        altered.take(record, misfit);
        step();
    }
    return altered.finish();
}

}  // namespace mira::tables
