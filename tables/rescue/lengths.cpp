// The lengths are those under which the bytes of some records are likeliest. What a byte is like
// depends on the byte before it, on the field's type, and on whether a value begins or ends there:
// texts begin at the first byte, numbers end at the last one, their points stand in one column, and
// dates are dates. Every field adds its share at the place that the lengths before it give, so the
// best of all lengths is found field by field, over the shifts that the fields so far may have.
#include "tables/rescue/lengths.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "tables/rescue/descriptors.h"

namespace mira::tables {
namespace {

constexpr u64 kSampled = 256;            // records
constexpr u64 kSampledBytes = 1U << 20;  // of them
constexpr i64 kReach = 10;               // bytes that fields may be shifted beyond what lacks
constexpr u64 kWorkMost = 8'000'000;     // shares that are worked out
// Against a length other than the stated one; the more records speak, the more has to be gained.
constexpr double kChange = 4, kChangePerRecord = .8;
constexpr double kNone = -1e300;
constexpr double kPoint = 3.5, kNoPoint = -1.5;  // in the column of the decimal point
constexpr double kLateText = -3;
constexpr double kBadValue = -9, kGoodDate = 2;

enum Kind : u8 { Text, Number, LeftNumber, Digits, Bytes };
constexpr std::size_t kKinds = 5;

using Row = std::array<float, kByteClasses>;
//                     Zero Blank Digit Upper Lower High Sign Point Star Mark Control
constexpr Row kTextBegins{.03F, .12F, .2F, .4F, .12F, .06F, .01F, .01F, .005F, .045F, .001F};
constexpr Row kNumberBegins{.02F, .6F, .35F, 1e-5F, 1e-5F, 1e-5F, .03F, .02F, .02F, 1e-5F, 1e-5F};
constexpr Row kLeftBegins{.02F, .1F, .8F, 1e-5F, 1e-5F, 1e-5F, .05F, .03F, .02F, 1e-5F, 1e-5F};
constexpr Row kDigitsBegin{.02F, .3F, .68F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F};
constexpr Row kAnyBytes{.4F, .06F, .06F, .06F, .06F, .14F, .03F, .03F, .03F, .06F, .14F};
constexpr Row kOther{.02F, .25F, .2F, .2F, .15F, .05F, .03F, .03F, .01F, .05F, .01F};

using Table = std::array<Row, kByteClasses>;  // what follows a class
constexpr Table kTextGoesOn{{
    {.95F, .01F, .01F, .01F, .005F, .005F, .002F, .002F, .001F, .002F, .003F},
    {.001F, .92F, .02F, .025F, .012F, .008F, .002F, .002F, .001F, .008F, .001F},
    {.002F, .15F, .68F, .05F, .02F, .01F, .02F, .02F, .001F, .04F, .001F},
    {.002F, .15F, .03F, .59F, .15F, .01F, .015F, .02F, .001F, .03F, .001F},
    {.002F, .16F, .01F, .015F, .74F, .02F, .01F, .015F, .001F, .025F, .001F},
    {.002F, .16F, .01F, .02F, .02F, .74F, .01F, .01F, .001F, .025F, .001F},
    kOther,
    kOther,
    kOther,
    kOther,
    kOther,
}};
constexpr Table kNumberGoesOn{{
    {.95F, .01F, .02F, 1e-4F, 1e-4F, 1e-4F, .01F, .01F, 1e-3F, 1e-4F, 1e-4F},
    {1e-3F, .92F, .5F, 1e-4F, 1e-4F, 1e-4F, .1F, .03F, .005F, 1e-4F, 1e-4F},
    {.005F, 5e-4F, .96F, 1e-4F, .001F, 1e-4F, 1e-4F, .01F, 1e-4F, 1e-4F, 1e-4F},
    {1e-4F, 1e-3F, .5F, 1e-4F, 1e-4F, 1e-4F, .48F, 1e-4F, 1e-4F, 1e-4F, 1e-4F},
    {1e-4F, 1e-3F, .5F, 1e-4F, 1e-4F, 1e-4F, .48F, 1e-4F, 1e-4F, 1e-4F, 1e-4F},
    kNumberBegins,
    {1e-3F, .01F, .88F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, .1F, 1e-4F, 1e-4F, 1e-4F},
    {1e-3F, .01F, .97F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-3F, 1e-4F, 1e-4F},
    {1e-3F, .01F, .01F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, .02F, .95F, 1e-4F, 1e-4F},
    kNumberBegins,
    kNumberBegins,
}};
constexpr Table kLeftGoesOn = [] {
    Table table = kNumberGoesOn;
    table[Blank] = {1e-3F, .92F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F};
    table[Digit][Blank] = .3F;
    return table;
}();
constexpr Table kDigitsGoOn{{
    {.97F, .01F, .01F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F},
    {1e-4F, .8F, .19F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F},
    {1e-4F, .005F, .98F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F, 1e-4F},
    kDigitsBegin,
    kDigitsBegin,
    kDigitsBegin,
    kDigitsBegin,
    kDigitsBegin,
    kDigitsBegin,
    kDigitsBegin,
    kDigitsBegin,
}};
// Shares of the last byte: how readily a value ends with it.
constexpr Row kTextEnds{.9F, .9F, .4F, .4F, .4F, .4F, .05F, .2F, .2F, .2F, .1F};
constexpr Row kNumberEnds{.3F, .25F, .95F, .01F, .01F, .01F, .001F, .05F, .9F, .01F, .01F};
constexpr Row kLeftEnds{.3F, .95F, .5F, .01F, .01F, .01F, .001F, .05F, .5F, .01F, .01F};
constexpr Row kAnyEnd{.5F, .5F, .5F, .5F, .5F, .5F, .5F, .5F, .5F, .5F, .5F};

double goesOn(Kind kind, u8 before, u8 is) {
    switch (kind) {
        case Text:
            return kTextGoesOn[before][is];
        case Number:
            return kNumberGoesOn[before][is];
        case LeftNumber:
            return kLeftGoesOn[before][is];
        case Digits:
            return kDigitsGoOn[before][is];
        case Bytes:
            return kAnyBytes[is];
    }
    return 1;
}
const Row& begins(Kind kind) {
    constexpr const Row* kRows[kKinds] = {&kTextBegins, &kNumberBegins, &kLeftBegins, &kDigitsBegin,
                                          &kAnyBytes};
    return *kRows[kind];
}
const Row& ends(Kind kind) {
    constexpr const Row* kRows[kKinds] = {&kTextEnds, &kNumberEnds, &kLeftEnds, &kNumberEnds,
                                          &kAnyEnd};
    return *kRows[kind];
}

bool isDay(std::string_view date) {
    if (date.find_first_not_of("0123456789") != std::string_view::npos) return false;
    const int month = (date[4] - '0') * 10 + date[5] - '0',
              day = (date[6] - '0') * 10 + date[7] - '0';
    return month >= 1 && month <= 12 && day >= 1 && day <= 31;
}

/// Sums over the sampled records, per byte of the record.
struct Columns {
    std::vector<double> begin[kKinds], end[kKinds];
    std::vector<double> inner[kKinds];  ///< of all bytes up to one
    std::vector<double> late;           ///< for texts that would begin anew with their last byte
    std::vector<u32> points, digits;
};

class Search {
public:
    Search(Source& source, const Records& records, const std::vector<StatedField>& fields,
           MemoFormat memos)
        : fields_(fields), length_(records.length) {
        shape_.memos = memos;
        lacks_ = i64{records.length} - 1;
        for (const StatedField& field : fields) lacks_ -= field.length;
        low_ = std::min<i64>(lacks_, 0) - kReach;
        high_ = std::max<i64>(lacks_, 0) + kReach;
        sample(source, records);
    }

    std::vector<u32> run() {
        const auto width = static_cast<u64>(high_ - low_ + 1);
        if (sampled_.empty() || width * width * fields_.size() > kWorkMost) return {};
        addUp();
        change_ = kChange + kChangePerRecord * static_cast<double>(sampled_.size());
        double worth = kNone, other = kNone;
        const std::vector<u32> lengths = search(&worth);
        isLeft_ = true;  // some programs write numbers so
        const std::vector<u32> left = search(&other);
        return other > worth ? left : lengths;
    }

private:
    void sample(Source& source, const Records& records) {
        const u64 most = std::clamp<u64>(kSampledBytes / records.length, 2, kSampled);
        const u64 count = std::min(records.count, most);
        for (u64 i = 0; i < count; ++i) {
            const u64 record = i * records.count / count;
            const std::string_view bytes =
                source.at(records.first + record * records.length, records.length);
            if (bytes.size() < records.length) break;
            // What is all zeros was overwritten.
            if (bytes.find_first_not_of('\0') != std::string_view::npos) {
                sampled_.emplace_back(bytes);
            }
        }
    }

    void addUp() {
        for (std::size_t kind = 0; kind < kKinds; ++kind) {
            for (auto* sums : {columns_.begin, columns_.end, columns_.inner}) {
                sums[kind].assign(length_ + 1, 0);
            }
        }
        columns_.late.assign(length_ + 1, 0);
        columns_.points.assign(length_ + 1, 0);
        columns_.digits.assign(length_ + 1, 0);
        for (const std::string& record : sampled_) addRecord(record);
        for (auto& sums : columns_.inner) {
            for (std::size_t at = 1; at <= length_; ++at) sums[at] += sums[at - 1];
        }
    }
    void addRecord(const std::string& record) {
        for (std::size_t at = 1; at < length_; ++at) {
            const u8 is = classOf(record[at]), before = classOf(record[at - 1]);
            for (std::size_t k = 0; k < kKinds; ++k) {
                const auto kind = static_cast<Kind>(k);
                columns_.begin[k][at] += std::log(begins(kind)[is]);
                columns_.end[k][at] += std::log(ends(kind)[is]);
                columns_.inner[k][at] += std::log(goesOn(kind, before, is));
            }
            if (before == Blank && is != Blank) columns_.late[at] += kLateText;
            columns_.points[at] += record[at] == '.' ? 1U : 0U;
            columns_.digits[at] += record[at] >= '0' && record[at] <= '9' ? 1U : 0U;
        }
    }

    Kind kindOf(const StatedField& field, u32 length) const {
        if (field.type == 'N' || field.type == 'F') return isLeft_ ? LeftNumber : Number;
        if (field.type == 'C' || field.type == 'V' || field.type == 'L') return Text;
        if (field.type == 'D' || (field.type == 'T' && length == 14)) return Digits;
        return isReferenceText(shape_, {field.type, 0, length}) ? Digits : Bytes;
    }
    static bool isStretchable(char type) {
        constexpr std::string_view kTypes = "CVNF";
        return kTypes.find(type) != std::string_view::npos;
    }

    /// How likely the bytes from a place on are as values of a field; a logarithm.
    double share(const StatedField& field, u64 at, u32 length) const {
        const Kind kind = kindOf(field, length);
        const u64 last = at + length - 1;
        double sum = columns_.begin[kind][at] + columns_.end[kind][last] +
                     columns_.inner[kind][last] - columns_.inner[kind][at];
        if (kind == Text && length > 1) sum += columns_.late[last];
        if (kind == Number && field.decimals != 0 && length > field.decimals + 1) {
            const u64 point = last - field.decimals;
            sum += kPoint * columns_.points[point] + kNoPoint * columns_.digits[point];
        }
        if (isStretchable(field.type)) return sum;
        const ShapeField here{field.type, static_cast<u32>(at), length};
        for (const std::string& record : sampled_) {
            const std::string_view bytes = std::string_view(record).substr(at, length);
            const bool day = field.type == 'D' && length == 8 && isDay(bytes);
            sum += day ? kGoodDate : mayBe(shape_, here, bytes) ? 0 : kBadValue;
        }
        return sum;
    }

    /// What it costs that a field has a length; kNone: it cannot have it.
    double cost(const StatedField& field, i64 length) const {
        const bool stated = length == i64{field.length};
        if (length < 1 || length > i64{std::max(field.most, field.length)}) return kNone;
        if (isStretchable(field.type)) return stated ? 0 : -change_;
        const bool right = isLength(field.type, field.length);
        if (stated) return right ? 0 : -2 * change_;
        return !right && length == i64{fixedLength(field.type)} ? -change_ : kNone;
    }

    /// From the shifts before a field to those behind it. stated: where it would begin.
    std::vector<double> step(const StatedField& field, u64 stated,
                             const std::vector<double>& before, std::vector<i64>& from) const {
        std::vector<double> after(before.size(), kNone);
        for (std::size_t i = 0; i < before.size(); ++i) {
            const i64 begin = static_cast<i64>(stated) + low_ + static_cast<i64>(i);
            if (before[i] == kNone || begin < 1) continue;
            for (std::size_t k = 0; k < before.size(); ++k) {
                const i64 length = i64{field.length} + static_cast<i64>(k) - static_cast<i64>(i);
                const double costs = cost(field, length);
                if (costs == kNone || begin + length > i64{length_}) continue;
                const double sum = before[i] + costs +
                                   share(field, static_cast<u64>(begin), static_cast<u32>(length));
                if (after[k] != kNone && sum <= after[k]) continue;
                after[k] = sum;
                from[k] = static_cast<i64>(i);
            }
        }
        return after;
    }

    std::vector<u32> search(double* worth) const {
        std::vector<double> best(static_cast<std::size_t>(high_ - low_ + 1), kNone);
        best[static_cast<std::size_t>(-low_)] = 0;
        std::vector<std::vector<i64>> from;  // the shift before each field
        u64 stated = 1;
        for (const StatedField& field : fields_) {
            best = step(field, stated, best, from.emplace_back(best.size(), 0));
            stated += field.length;
        }
        *worth = best[static_cast<std::size_t>(lacks_ - low_)];
        return trace(best, from);
    }

    std::vector<u32> trace(const std::vector<double>& best,
                           const std::vector<std::vector<i64>>& from) const {
        i64 shift = lacks_ - low_;
        if (best[static_cast<std::size_t>(shift)] == kNone) return {};
        std::vector<u32> lengths(fields_.size());
        for (std::size_t i = fields_.size(); i-- > 0;) {
            const i64 before = from[i][static_cast<std::size_t>(shift)];
            lengths[i] = static_cast<u32>(i64{fields_[i].length} + shift - before);
            shift = before;
        }
        return lengths;
    }

    const std::vector<StatedField>& fields_;
    const u32 length_;
    Shape shape_;
    double change_ = 0;
    bool isLeft_ = false;
    i64 lacks_ = 0;  ///< bytes that the stated lengths lack
    i64 low_ = 0, high_ = 0;
    std::vector<std::string> sampled_;
    Columns columns_;
};

}  // namespace

std::vector<u32> likelyLengths(Source& source, const Records& records,
                               const std::vector<StatedField>& fields, MemoFormat memos) {
    return Search(source, records, fields, memos).run();
}

}  // namespace mira::tables
