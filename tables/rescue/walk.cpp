#include "tables/rescue/walk.h"

#include <algorithm>
#include <cmath>

namespace mira::tables {
namespace {

constexpr u32 kStep = 256;       // records
constexpr u32 kRun = 12;         // records that have to fit where others begin anew
constexpr u32 kSureRun = 3;      // fewer are doubtful
constexpr u32 kShortRun = 4;     // the same behind those that the header counts
constexpr double kMargin = 12;   // by which one reading has to be likelier than another
constexpr double kDecided = 25;  // from which on the other one is out of the question
constexpr double kFaultWeight = 30;
constexpr u64 kSlip = 8;      // bytes that one record may have lost or got without more ado
constexpr u64 kSector = 512;  // what disks lose at once
constexpr char kEndByte = 0x1A;

bool isZeros(std::string_view bytes) {
    return bytes.find_first_not_of('\0') == std::string_view::npos;
}

/// Records that fit, from a place on.
struct Run {
    u32 count = 0;
    double likelihood = 0;  ///< of a record, on average
    bool toEnd = false;     ///< they end where the file does
};

class Walk {
public:
    Walk(Source& source, Fit& fit, u64 first, u32 counted, const std::function<void(u32)>& step)
        : source_(source),
          fit_(fit),
          prior_(fit),
          length_(fit.shape().length),
          stride_(fit.shape().stride),
          first_(first),
          counted_(counted),
          step_(step),
          anchor_(first) {
        end_ = source.size();
        if (end_ > first && source.byteAt(end_ - 1) == kEndByte) --end_;
        isInPlace_ = end_ == first_ + u64{counted_} * stride_;
    }

    Walked run() {
        u64 place = first_;
        while (place < end_) {
            if (isEnd(place)) {
                // One end byte more, or the last byte of a record that has got one.
                if (end_ - place == 1 && records_ == counted_ && counted_ != 0) {
                    shift(place, end_);
                    break;
                }
                if (end_ - place > 1) push(Stretch::Is::LeftOut, place, end_ - place);
                break;
            }
            place = takeGood(place);
            if (place < end_ && !isEnd(place)) place = recover(place);
        }
        return {std::move(stretches_), place < end_ ? place : end_};
    }

private:
    std::string_view record(u64 place) {
        if (place + length_ > end_) return {};
        return source_.at(place, length_);
    }
    bool fits(u64 place) {
        const std::string_view bytes = record(place);
        return !bytes.empty() && fit_.faults(bytes) == 0;
    }
    bool isMarked(u64 place) {
        const std::string_view bytes = record(place);
        return !bytes.empty() && fit_.faults(bytes) < kNoMark;
    }
    double likelihood(u64 place) { return fit_.likelihood(record(place)); }
    /// By the types of the fields alone: what has been learned may have been the wrong places.
    double priorLikelihood(u64 place) { return prior_.likelihood(record(place)); }

    /// A line end behind the last record that the header counts is no damage.
    bool isPadding(u64 place) {
        if (records_ != counted_ || end_ - place > 2) return false;
        const std::string_view rest = source_.at(place, static_cast<std::size_t>(end_ - place));
        return rest.find_first_not_of("\r\n\x1A") == std::string_view::npos;
    }

    /// The end byte in a record's place, behind all that the header counts.
    bool isEnd(u64 place) {
        return records_ >= counted_ && source_.byteAt(place) == static_cast<u8>(kEndByte);
    }
    i64 shiftAt(u64 place) const {
        const auto ahead = static_cast<i64>((place - first_) % stride_);
        return ahead > stride_ / 2 ? ahead - stride_ : ahead;
    }

    void push(Stretch::Is is, u64 place, u64 bytes) {
        if (bytes == 0) return;
        const bool many = is == Stretch::Is::Sound || is == Stretch::Is::Doubtful;
        if (is != Stretch::Is::LeftOut) ++records_;
        const i64 shift = shiftAt(place);
        if (!stretches_.empty()) {
            Stretch& last = stretches_.back();
            const bool goesOn = last.is == is && last.place + last.bytes == place;
            if (goesOn && (is == Stretch::Is::LeftOut || (many && last.shift == shift))) {
                last.bytes += bytes;
                last.count += many ? 1 : 0;
                return;
            }
        }
        stretches_.push_back({is, place, bytes, is == Stretch::Is::LeftOut ? 0U : 1U, shift});
    }

    /// Forgets the records from a place on.
    void truncate(u64 place) {
        while (!stretches_.empty() && stretches_.back().place + stretches_.back().bytes > place) {
            Stretch& last = stretches_.back();
            const bool many = last.count > 1 && last.place < place;
            const u64 kept = many ? (place - last.place) / stride_ : 0;
            records_ -= last.count - static_cast<u32>(kept);
            last.count = static_cast<u32>(kept);
            last.bytes = kept * stride_;
            if (kept == 0) stretches_.pop_back();
        }
    }
    /// Makes the records from a place on doubtful.
    void doubt(u64 place) {
        const u64 from = std::max(place, anchor_);
        for (std::size_t i = stretches_.size(); i-- > 0;) {
            Stretch& stretch = stretches_[i];
            if (stretch.place + stretch.bytes <= from) break;
            if (stretch.is != Stretch::Is::Sound) continue;
            Stretch rest = stretch;
            rest.is = Stretch::Is::Doubtful;
            const u64 kept = stretch.place < from ? (from - stretch.place) / stride_ : 0;
            stretch.count = static_cast<u32>(kept);
            stretch.bytes = kept * stride_;
            rest.place += stretch.bytes;
            rest.bytes -= stretch.bytes;
            rest.count -= stretch.count;
            if (kept == 0) {
                stretch = rest;
            } else {
                stretches_.insert(stretches_.begin() + static_cast<std::ptrdiff_t>(i) + 1, rest);
            }
        }
    }

    u64 takeGood(u64 place) {
        for (; place + length_ <= end_ && !isEnd(place); place += stride_) {
            const std::string_view bytes = record(place);
            if (bytes.empty() || fit_.faults(bytes) != 0) break;
            const bool zeroed = unsure_ || isZeroed(place);
            push(zeroed ? Stretch::Is::Doubtful : Stretch::Is::Sound, place, stride_);
            if (!zeroed) fit_.learn(record(place));
            if (records_ % kStep == 0) step_(kStep);
        }
        return place;
    }

    /// Whether zeros that fill a sector reach into the record, and are nothing usual there.
    bool isZeroed(u64 place) {
        const std::string bytes(record(place));
        for (std::size_t at = bytes.find('\0'); at < bytes.size();) {
            const std::size_t end = std::min(bytes.find_first_not_of('\0', at), bytes.size());
            u64 from = place + at, to = place + end;
            if (at == 0 || end == bytes.size() || to - from >= kSector) {
                while (from > 0 && place + at - from < kSector && source_.byteAt(from - 1) == 0)
                    --from;
                while (to < source_.size() && to - place < kSector + length_ &&
                       source_.byteAt(to) == 0)
                    ++to;
                bool usual = to <= place + stride_;
                for (std::size_t i = at; i < end && usual; ++i) {
                    usual = fit_.zeroIsUsual(static_cast<u32>(i));
                }
                const bool sector = to - from >= kSector || to == source_.size();
                if (sector && !usual) return true;
            }
            at = bytes.find('\0', end);
        }
        return false;
    }

    Run runFrom(u64 place) {
        Run run;
        double sum = 0;
        u64 at = place;
        for (; run.count < kRun && fits(at); at += stride_) {
            sum += likelihood(at);
            ++run.count;
        }
        if (run.count != 0) run.likelihood = sum / run.count;
        run.toEnd = at == end_ || at == source_.size();
        return run;
    }
    /// Whether it is enough to begin there anew.
    bool convinces(const Run& run, bool inPlace) const {
        if (counted_ != 0 && records_ >= counted_) return run.count >= kShortRun;
        if (run.count == kRun) return true;
        return run.count > 0 && (run.toEnd || run.count >= kShortRun || inPlace);
    }

    /// The best place to begin anew among those of a range; end_ when there is none.
    u64 bestIn(u64 low, u64 high, u64 place, double* likelihood) {
        u64 best = end_;
        for (u64 at = low; at < high && at + length_ <= end_; ++at) {
            const bool inPlace = at >= place && (at - place) % stride_ == 0;
            if (at == place || !fits(at)) continue;
            const Run run = runFrom(at);
            if (!convinces(run, inPlace)) continue;
            const double bonus = inPlace ? kMargin / run.count : 0;
            if (best != end_ && run.likelihood + bonus <= *likelihood) continue;
            best = at;
            *likelihood = run.likelihood + bonus;
        }
        return best;
    }

    /// From a record that does not fit; the place from which records fit again, or the end.
    u64 recover(u64 place) {
        step_(0);
        if (isInPlace_) {
            takeBad(place, std::min(place + stride_, end_));
            return std::min(place + stride_, end_);
        }
        if (place + length_ > end_ && !isSlip(end_ - place)) {  // the file is cut there
            takeBad(place, end_);
            return end_;
        }
        const u64 low = place >= anchor_ + stride_ ? place - stride_ + 1 : anchor_;
        double likelihood = 0;
        u64 next = bestIn(low, place + u64{2} * stride_, place, &likelihood);
        const bool old = counted_ != 0 && records_ >= counted_;
        for (u64 at = place + u64{2} * stride_; next == end_ && !old && at < end_; at += stride_) {
            next = bestIn(at, at + stride_, place, &likelihood);
            step_(0);
        }
        const bool inPlace = next >= place && (next - place) % stride_ == 0;
        if (next == end_ && old && (end_ - place > kSlip || isPadding(place))) {
            push(Stretch::Is::LeftOut, place, end_ - place);
        } else if (inPlace) {
            takeBad(place, next);
        } else if (next != end_ || isSlip(end_ - place)) {
            shift(place, next);
        } else {
            takeBad(place, end_);
        }
        return next;
    }

    bool isSlip(u64 bytes) const {
        return bytes <= kSlip || (bytes + kSlip >= stride_ && bytes <= stride_ + kSlip);
    }

    /// Records in their places that do not fit.
    void takeBad(u64 place, u64 end) {
        for (; place + length_ <= end; place += stride_) {
            const std::string_view bytes = record(place);
            const u32 faults = fit_.faults(bytes) % kNoMark;
            const bool some =
                isMarked(place) || std::size_t{2} * faults <= fit_.shape().fields.size();
            const bool taken = !bytes.empty() && !isZeros(bytes) && some;
            push(taken ? Stretch::Is::Doubtful : Stretch::Is::LeftOut, place, stride_);
        }
        if (place < end) push(Stretch::Is::LeftOut, place, end - place);
    }

    /// Records fit at place no more, but at next, which is no number of records away.
    void shift(u64 place, u64 next) {
        u64 begin = next, back = next;
        double sum = 0, most = 0;
        while (back >= anchor_ + stride_) {
            const u64 at = back - stride_;
            const u64 other = oldPlace(place, at);
            const double here = priorLikelihood(at);
            const double there = other + length_ <= end_ ? priorLikelihood(other) : here;
            if (!fits(at) && !(isMarked(at) && here > there)) break;
            if (at < place && there - here > kDecided) break;
            back = at;
            sum += here - there;
            if (sum > most || at >= place) {
                most = std::max(sum, most);
                begin = at;
            }
        }
        const i64 ahead = signedRest(static_cast<i64>(next) - static_cast<i64>(place));
        const i64 from = static_cast<i64>(back) - static_cast<i64>(stride_) - ahead;
        doubt(from > 0 ? static_cast<u64>(from) : 0);
        joinAt(place, begin);
        for (u64 at = begin; at < next; at += stride_) push(Stretch::Is::Doubtful, at, stride_);
        anchor_ = next;
        unsure_ = runFrom(next).count < kSureRun;
    }

    i64 signedRest(i64 distance) const {
        const auto stride = static_cast<i64>(stride_);
        i64 rest = distance % stride;
        if (rest < 0) rest += stride;
        return rest > stride / 2 ? rest - stride : rest;
    }
    /// The place of the old records that is nearest.
    u64 oldPlace(u64 place, u64 at) const {
        const auto stride = static_cast<double>(stride_);
        const auto away = static_cast<double>(static_cast<i64>(at) - static_cast<i64>(place));
        const i64 found =
            static_cast<i64>(place) + static_cast<i64>(std::lround(away / stride)) * stride_;
        return found < 0 ? 0 : static_cast<u64>(found);
    }

    /// Between the old records and the new ones, which begin there, lies one that is broken.
    void joinAt(u64 place, u64 begin) {
        u64 broken = begin >= stride_ ? oldPlace(place, begin - stride_) : anchor_;
        broken = std::clamp(broken, anchor_, begin);
        if (broken < place) {
            truncate(broken);
        } else {
            takeBad(place, broken);
        }
        const u64 bytes = begin - broken;
        const bool some = 2 * bytes > stride_ || bytes + kSlip >= stride_;
        const bool zeros = isZeros(source_.at(broken, static_cast<std::size_t>(bytes)));
        push(some && !zeros ? Stretch::Is::Broken : Stretch::Is::LeftOut, broken, bytes);
    }

    Source& source_;
    Fit& fit_;
    const Fit prior_;
    const u32 length_, stride_;
    const u64 first_;
    const u32 counted_;
    const std::function<void(u32)>& step_;
    bool isInPlace_ = false;  ///< the file is as long as the header says: nothing is lost or added
    bool unsure_ = false;     ///< too few records follow to tell how they lie
    u64 anchor_;              ///< where records began to lie as they do
    u64 end_ = 0;
    u32 records_ = 0;
    std::vector<Stretch> stretches_;
};

}  // namespace

Walked walkRecords(Source& source, Fit& fit, u64 first, u32 counted,
                   const std::function<void(u32)>& step) {
    return Walk(source, fit, first, counted, step).run();
}

double fitFrom(Source& source, const Fit& fit, u64 place, u32 count) {
    constexpr double kWeight = 8;
    double sum = 0;
    for (u32 i = 0; i < count; ++i) {
        const std::string_view bytes =
            source.at(place + u64{i} * fit.shape().stride, fit.shape().length);
        if (bytes.size() < fit.shape().length) break;
        const u32 faults = fit.faults(bytes);
        const u32 weighed = faults % kNoMark + (faults >= kNoMark ? 3 : 0);
        const double weight = kWeight / ((i + 1.0) * (i + 1.0) * (i + 1.0));
        sum += weight * (fit.likelihood(bytes) - kFaultWeight * weighed);
    }
    return sum;
}

ZeroMarks zeroMarksFrom(Source& source, const Shape& shape, u64 first) {
    constexpr u32 kSample = 50;
    ZeroMarks marks;
    for (; marks.records < kSample; ++marks.records) {
        const std::string_view bytes =
            source.at(first + u64{marks.records} * shape.stride, shape.length);
        if (bytes.size() < shape.length) break;
        if (!isZeros(bytes) && bytes[0] == 0) ++marks.zeros;
    }
    return marks;
}

std::optional<Shift> shiftOf(const Table& table) {
    const DbfBase& base = *table.base;
    Source source(table.path);
    Fit fit(shapeOf(base, table.memoFormat));
    const Walked walked =
        walkRecords(source, fit, base.Header.HeaderLength, table.storedCount, [](u32) {});
    u32 records = 0;
    for (const Stretch& stretch : walked.stretches) {
        const bool whole = stretch.is == Stretch::Is::Sound || stretch.is == Stretch::Is::Doubtful;
        if (whole && stretch.shift != 0) return Shift{records, stretch.shift};
        records += stretch.count;
    }
    return std::nullopt;
}

}  // namespace mira::tables
