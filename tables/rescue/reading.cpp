#include "tables/rescue/reading.h"

#include <algorithm>

#include "tables/page/bytes.h"
#include "tables/rescue/lengths.h"
#include "tables/rescue/walk.h"

namespace mira::tables {
namespace {

constexpr u64 kSampled = 40000;   // bytes of records that a reading is tried on
constexpr u32 kSampledMost = 40;  // records
constexpr double kMargin = 12;
constexpr double kLikely = 1000;   // for what the header says of the record length
constexpr double kAgreed = 1e6;    // when all its numbers agree with the file
constexpr double kZeroMarks = 10;  // against deletion bytes of zero
constexpr i64 kTextMost = 65000;

}  // namespace

Reader::Reader(Source& source, const Said& said, MemoFormat memos)
    : source_(source), said_(said), memos_(memos), record_(said.record) {
    end_ = source.size();
    if (end_ > 0 && source.byteAt(end_ - 1) == 0x1A) --end_;
    isBelievable_ = said.header > kFixed && said.header <= end_;
}

void Reader::addLists(const std::vector<std::vector<std::string>>& lists, const Form& form) {
    form_ = &form;
    const bool mayBeWrong = mayLengthsBeWrong();
    bool agrees = false;
    for (const auto& descriptors : lists) {
        for (const Lengths lengths : {Lengths::Full, Lengths::Low, Lengths::Foreign}) {
            if (lengths == Lengths::Foreign && !form.level7) continue;
            Reading reading{descriptors, lengths};
            const u32 length = add(reading);
            agrees |= length == said_.record || length == record_;
        }
    }
    if (agrees || !mayBeWrong) return;
    for (const auto& descriptors : lists) {
        addMended(descriptors, Lengths::Full);
        addMended(descriptors, form.level7 ? Lengths::Foreign : Lengths::Low);
    }
}

/// Only a header that else agrees with the file is to be believed more than descriptors that look
/// whole.
bool Reader::mayLengthsBeWrong() {
    if (said_.record <= 1) return false;
    const u64 records = end_ - std::min<u64>(said_.header, end_);
    // Some programs leave the deletion byte out of the record length.
    const bool isShort = records == u64{said_.count} * (said_.record + 1);
    if (isShort) record_ = said_.record + 1;
    return isMended || isShort || (records != 0 && records % said_.record == 0);
}

void Reader::addShape(const Shape& shape, const std::vector<u64>& places) {
    Reading reading;
    reading.shape = shape;
    tryStarts(reading, places);
}

u32 Reader::add(Reading& reading) {
    reading.shape = shapeBy(reading.descriptors, reading.lengths);
    if (reading.shape.length > 65535) return 0;
    const u32 length = reading.shape.length;
    tryStarts(reading, starts);
    if (said_.record > length && said_.record < 2 * length) {
        reading.shape.stride = said_.record;  // padded
        tryStarts(reading, starts);
    }
    return length;
}

void Reader::addMended(const std::vector<std::string>& descriptors, Lengths lengths) {
    addByOffsets(descriptors, lengths);
    std::vector<std::string> fixed = descriptors;
    i64 length = 1;
    for (std::string& descriptor : fixed) {
        const u32 wanted = fixedLength(descriptor[form_->type]);
        const bool wrong =
            !isLength(descriptor[form_->type], lengthOf(descriptor, *form_, lengths));
        if (wanted != 0 && wrong) setLength(descriptor, *form_, lengths, wanted);
        length += lengthOf(descriptor, *form_, lengths);
    }
    if (length != record_) return addLikely(descriptors, lengths);
    Reading reading{fixed, lengths};
    reading.mended = true;
    add(reading);
}

/// By the offsets of the fields, or their addresses in memory, which some programs write.
void Reader::addByOffsets(const std::vector<std::string>& descriptors, Lengths lengths) {
    if (form_->level7 || descriptors.size() < 3) return;
    std::vector<std::string> changed = descriptors;
    std::size_t others = 0;
    const auto offset = [&](std::size_t i) {
        const i64 first = loadLe<u32>(changed[0].data() + 12);
        return i < changed.size() ? loadLe<u32>(changed[i].data() + 12) - first : i64{record_} - 1;
    };
    for (std::size_t i = 0; i < changed.size(); ++i) {
        const i64 length = offset(i + 1) - offset(i);
        const bool other = length != lengthOf(changed[i], *form_, lengths);
        // Places that do not come out at the end of the record are some other program's notion.
        if (other && i + 1 == changed.size()) return;
        others += other ? 1 : 0;
        if (!setLength(changed[i], *form_, lengths, length)) return;
    }
    if (2 * others >= changed.size() && others > 1) return;
    bonus_ = kLikely / 2;
    Reading reading{changed, lengths};
    reading.mended = reading.byOffsets = true;
    add(reading);
    bonus_ = 0;
}

/// By what the records hold.
void Reader::addLikely(const std::vector<std::string>& descriptors, Lengths lengths) {
    std::vector<StatedField> fields;
    for (const std::string& descriptor : descriptors) {
        const char type = descriptor[form_->type];
        const bool isLong = lengths == Lengths::Full && type == 'C';
        const u32 at = form_->length + (lengths == Lengths::Foreign ? 0 : 1);
        fields.push_back({type, static_cast<u8>(descriptor[at]),
                          lengthOf(descriptor, *form_, lengths),
                          static_cast<u32>(isLong ? kTextMost : 255)});
    }
    const u64 first = isMended ? startByCount(record_) : said_.header;
    const u64 count = end_ > first ? (end_ - first) / record_ : 0;
    const std::vector<u32> likely = likelyLengths(source_, {first, count, record_}, fields, memos_);
    if (likely.empty()) return;
    Reading reading{descriptors, lengths};
    for (std::size_t i = 0; i < likely.size(); ++i) {
        if (!setLength(reading.descriptors[i], *form_, lengths, likely[i])) return;
    }
    reading.mended = true;
    add(reading);
}

Shape Reader::shapeBy(const std::vector<std::string>& descriptors, Lengths lengths) const {
    Shape shape;
    shape.memos = memos_;
    for (const std::string& descriptor : descriptors) {
        shape.add(descriptor[form_->type], lengthOf(descriptor, *form_, lengths));
    }
    return shape;
}

/// Where the records begin if there are as many as the header says; else where it says.
u64 Reader::startByCount(u64 stride) const {
    const u64 all = u64{said_.count} * stride;
    const bool some = all != 0 && all <= end_ && end_ - all >= listEnd && end_ - all <= 65535;
    return some ? end_ - all : said_.header;
}

void Reader::tryStarts(Reading& reading, std::vector<u64> places) {
    const u64 counted = startByCount(reading.shape.stride);
    if (std::find(places.begin(), places.end(), counted) == places.end()) places.push_back(counted);
    const u64 tail = said_.header - listEnd;
    isUsual_ = said_.header >= listEnd && (tail <= 1 || tail == kBackLink);
    const Fit fit(reading.shape);
    Fit zeroFit = fit;
    zeroFit.allowZeroMark();
    for (const u64 first : places) {
        if (first > end_) continue;
        reading.first = first;
        const ZeroMarks marks = zeroMarksFrom(source_, reading.shape, first);
        const bool zeros = marks.records != 0 && marks.zeros == marks.records;
        reading.worth = worthAt(reading, zeros ? zeroFit : fit) - (zeros ? kZeroMarks : 0);
        const u64 stride = reading.shape.stride;
        reading.confirmed = end_ - first == said_.count * stride ||
                            (stride == said_.record && stride == reading.shape.length);
        readings.push_back(reading);
    }
}

double Reader::worthAt(const Reading& reading, const Fit& fit) const {
    const u64 stride = reading.shape.stride, bytes = end_ - reading.first;
    const auto count = static_cast<u32>(std::clamp<u64>(kSampled / stride, 1, kSampledMost));
    const bool exact = bytes == said_.count * stride;
    double worth = fitFrom(source_, fit, reading.first, count) + bonus_;
    if (reading.first == said_.header) worth += isUsual_ ? 60 : 15;
    if (stride == said_.record && stride == reading.shape.length && !reading.mended) {
        worth += reading.first == said_.header && exact ? kAgreed : kLikely;
    }
    // When bytes are lost or added further on, the end speaks for the wrong place.
    if (reading.first == said_.header || !isBelievable_) {
        if (bytes % stride == 0) worth += 10;
        if (exact) worth += reading.mended ? kLikely : kLikely / 2;
    }
    // Whole records from where they usually begin to the end of the file: the count may be old.
    const u64 usual = listEnd + (said_.visual ? kBackLink : 0);
    const bool fromUsual = reading.first == usual || reading.first == usual + 1;
    if (!isBelievable_ && fromUsual && bytes % stride == 0) worth += kLikely;
    return worth;
}

void addAround(std::vector<u64>& starts, u64 place, u64 least) {
    for (i64 slip = -kSlip; slip <= kSlip; ++slip) {
        const auto start = static_cast<i64>(place) + slip;
        if (start < static_cast<i64>(least) || start > 65535) continue;
        if (std::find(starts.begin(), starts.end(), start) == starts.end()) {
            starts.push_back(static_cast<u64>(start));
        }
    }
}

bool sortReadings(std::vector<Reading>& readings) {
    std::stable_sort(readings.begin(), readings.end(),
                     [](const Reading& a, const Reading& b) { return a.worth > b.worth; });
    const Reading& best = readings.front();
    return std::any_of(readings.begin() + 1, readings.end(), [&](const Reading& other) {
        const bool same = std::equal(other.shape.fields.begin(), other.shape.fields.end(),
                                     best.shape.fields.begin(), best.shape.fields.end(),
                                     [](const ShapeField& a, const ShapeField& b) {
                                         return a.offset == b.offset && a.length == b.length;
                                     }) &&
                          other.first == best.first && other.shape.stride == best.shape.stride;
        return !same && other.worth + kMargin > best.worth;
    });
}

}  // namespace mira::tables
