// Every reading of the header is tried on the records: the one under which they fit best is taken,
// and when two come near each other the table is doubtful.
#include "tables/rescue/layout.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "tables/change/append.h"
#include "tables/page/bytes.h"
#include "tables/page/refusal.h"
#include "tables/rescue/walk.h"

namespace mira::tables {
namespace {

constexpr u32 kFixed = 32, kFixed7 = 68;  // bytes before the descriptors
constexpr u32 kSize = 32, kSize7 = 48;    // of a descriptor
constexpr u32 kFieldsMost = 2047;
constexpr u32 kBackLink = 263;
constexpr u32 kLevel7Least = 128;  // a level-7 table is told by its first 128 bytes
constexpr i64 kSlip = 4;           // bytes that a header may have lost or got
constexpr char kTerminator = 0x0D;
constexpr u64 kSampled = 40000;    // bytes of records that a reading is tried on
constexpr u32 kSampledMost = 40;   // records
constexpr u32 kMovedRecords = 12;  // the same, for one of many readings
constexpr double kMoveMargin = 10;
constexpr u32 kMoves = 4;
constexpr std::size_t kManyFields = 100;
constexpr std::size_t kNear = 12;     // fields around one that may have changed with it
constexpr u64 kTooMany = 20'000'000;  // bytes of records times fields: not tried any more
constexpr double kMargin = 12;
constexpr double kLikely = 1000;  // for what the header says of the record length
constexpr double kAgreed = 1e6;   // when all its numbers agree with the file
constexpr std::string_view kLetters = "CNFDLMTGYBI0@+OVQWP";

/// Places in descriptors of either size.
struct Form {
    u32 fixed, size, name, type, length;
    bool level7;
};
constexpr Form kForms[] = {{kFixed, kSize, 11, 11, 16, false}, {kFixed7, kSize7, 32, 32, 34, true}};

/// What stands in the header under a form, and what it took to read it.
struct List {
    const Form* form = &kForms[0];
    i64 ahead = 0;  ///< bytes that the descriptors lie behind their place
    std::vector<std::string> descriptors{};
    std::vector<std::string> others{};  ///< what else the mended one may be
    std::size_t mended = kFieldsMost;   ///< its number
    u32 mends = 0;
    bool unsure = false;  ///< what was lost may be more than bytes without a meaning
    u64 end = 0;          ///< after the last descriptor and the terminator
    bool ended = false;
    i64 worth() const {
        const i64 slipped = ahead == 0 ? 0 : 6 + 2 * (ahead < 0 ? -ahead : ahead);
        return 8 * static_cast<i64>(descriptors.size()) - 12 * i64{mends} - slipped +
               (ended ? 4 : 0);
    }
};

bool isName(std::string_view name) {
    const std::string_view text = name.substr(0, name.find('\0'));
    return !text.empty() && static_cast<u8>(text[0]) > ' ' &&
           std::none_of(text.begin(), text.end(), [](char c) { return static_cast<u8>(c) < ' '; });
}

/// Whether a length is one that fields of a type have.
bool isLength(char type, u8 length) {
    constexpr struct {
        std::string_view types;
        u8 length, other;
    } kLengths[] = {{"D", 8, 10}, {"L", 1, 1},  {"MG", 10, 4},
                    {"I+", 4, 4}, {"YO", 8, 8}, {"T@", 8, 14}};
    for (const auto& row : kLengths) {
        if (row.types.find(type) == std::string_view::npos) continue;
        return length == row.length || length == row.other;
    }
    return true;
}

bool isDescriptor(std::string_view bytes, const Form& form, bool known = true) {
    if (bytes.size() < form.size || !isName(bytes.substr(0, form.name))) return false;
    const char type = bytes[form.type];
    if (known && kLetters.find(type) == std::string_view::npos) return false;
    if (!known && (type <= ' ' || type > '~')) return false;
    const auto length = static_cast<u8>(bytes[form.length]);
    if (known && !form.level7 && !isLength(type, length)) return false;
    const bool high = type == 'C' && bytes[form.length + 1] != 0;
    return bytes[form.length] != 0 || high || (form.level7 && bytes[form.length - 1] != 0);
}

/// The length that values of a type have; 0: any.
u32 fixedLength(char type) {
    switch (type) {
        case 'D':
        case 'Y':
        case 'O':
        case '@':
            return 8;
        case 'L':
            return 1;
        case 'I':
        case '+':
            return 4;
        default:
            return 0;
    }
}

/// The bytes in a size, zeros put in or bytes taken out at a place.
std::string resized(std::string bytes, std::size_t at, std::size_t size) {
    if (bytes.size() < size) bytes.insert(std::min(at, bytes.size()), size - bytes.size(), '\0');
    if (bytes.size() > size) bytes.erase(std::min(at, size), bytes.size() - size);
    return bytes;
}

class Lister {
public:
    Lister(Source& source, const Form& form, i64 ahead, u64 said)
        : source_(source), said_(said), limit_(said) {
        list_.form = &form;
        list_.ahead = ahead;
        place_ = static_cast<u64>(form.fixed + ahead);
        for (u64 at = limit_ < kSlip ? 0 : limit_ - kSlip; at < limit_; ++at) {
            if (isTerminator(at)) limit_ = 0;
        }
    }

    List run() {
        const Form& form = *list_.form;
        while (list_.descriptors.size() < kFieldsMost && !isEnd()) {
            const bool good = isAt(place_), next = follows(place_ + form.size);
            const i64 slip = good && next ? 0 : slipAt(place_);
            if (slip != 0) {
                mend(static_cast<u32>(form.size + slip));
            } else if (good || (next && isDescriptor(bytesAt(place_), form, false))) {
                take(form.size);
            } else if (next && !list_.descriptors.empty()) {
                mend(form.size);
            } else {
                break;
            }
        }
        list_.end = place_;
        return std::move(list_);
    }

private:
    std::string_view bytesAt(u64 place) { return source_.at(place, list_.form->size); }
    bool isAt(u64 place) { return isDescriptor(bytesAt(place), *list_.form); }
    bool isTerminator(u64 place) {
        return place < source_.size() && source_.byteAt(place) == static_cast<u8>(kTerminator);
    }
    bool follows(u64 place) { return isAt(place) || isTerminator(place) || place == limit_; }
    /// The terminator, with a byte too many before it, too.
    bool isEnd() {
        if (place_ == limit_) return true;
        if (isAt(place_)) return false;
        for (u64 at = place_; at < place_ + 2; ++at) {
            if (!isTerminator(at)) continue;
            if (at != place_ && list_.descriptors.empty()) continue;
            place_ = at + 1;
            list_.ended = true;
            return true;
        }
        return false;
    }
    /// Where the last descriptor and a damaged terminator have to end by the header.
    bool endsHeader(u64 next, i64 slip) const {
        return static_cast<i64>(next) + 1 - slip == static_cast<i64>(said_);
    }
    /// By how many bytes the descriptor at a place is too long or too short; 0: it cannot be told.
    i64 slipAt(u64 place) {
        for (i64 slip = 1; slip <= kSlip; ++slip) {
            for (const i64 way : {-slip, slip}) {
                const u64 next = place + static_cast<u64>(list_.form->size + way);
                if (isAt(next) && follows(next + list_.form->size)) return way;
                if (!isTerminator(next) && !endsHeader(next, way)) continue;
                const auto bytes = static_cast<std::size_t>(next - place);
                if (isAt(place) || !waysOf(place, bytes).empty()) return way;
            }
        }
        return 0;
    }
    void take(u32 bytes) {
        list_.descriptors.emplace_back(bytesAt(place_));
        place_ += bytes;
    }
    /// The descriptors that so many bytes may have been, before some were lost or put in.
    std::vector<std::string> waysOf(u64 place, std::size_t bytes) {
        const Form& form = *list_.form;
        const std::string found(source_.at(place, bytes));
        std::vector<std::string> ways;
        for (std::size_t at = form.size; at-- > 0;) {
            const std::string way = resized(found, at, form.size);
            if (!isDescriptor(way, form)) continue;
            const auto same = [&](const std::string& other) {
                return other[form.type] == way[form.type] &&
                       other.compare(form.length - 1, 3, way, form.length - 1, 3) == 0;
            };
            if (std::none_of(ways.begin(), ways.end(), same)) ways.push_back(way);
        }
        return ways;
    }
    /// Takes a descriptor of so many bytes.
    void mend(u32 bytes) {
        const Form& form = *list_.form;
        const std::string found(source_.at(place_, bytes));
        std::vector<std::string> ways = waysOf(place_, bytes);
        if (ways.empty()) ways.push_back(asText(resized(found, form.type, form.size)));
        list_.unsure |= bytes == form.size || !isAt(place_) || form.level7;
        ++list_.mends;
        list_.mended = list_.descriptors.size();
        list_.descriptors.push_back(ways[0]);
        list_.others.assign(ways.begin() + 1, ways.end());
        place_ += bytes;
    }
    /// What cannot be read as a descriptor at all is one of a text.
    std::string asText(std::string found) const {
        const Form& form = *list_.form;
        if (!isName(found)) {
            std::string name = textOf("FIELD", list_.descriptors.size() + 1);
            name.resize(form.name);
            found.replace(0, form.name, name);
        }
        found[form.type] = 'C';
        if (found[form.length] == 0) found[form.length] = 1;
        found[form.length + 1] = 0;
        return found;
    }

    Source& source_;
    const u64 said_;  ///< the header's length
    u64 limit_;       ///< the end of the header, where that may be the end of the list; else 0
    u64 place_;
    List list_;
};

List findList(Source& source) {
    List best;
    const std::string start(source.at(8, 2));
    const u64 said = start.size() == 2 ? loadLe<u16>(start.data()) : 0;
    for (const Form& form : kForms) {
        for (i64 ahead = -kSlip; ahead <= kSlip; ++ahead) {
            List list = Lister(source, form, ahead, said).run();
            if (!list.descriptors.empty() &&
                (best.descriptors.empty() || list.worth() > best.worth()))
                best = std::move(list);
        }
    }
    return best;
}

// ---------------------------------------------------------------------------------------------
// Readings
// ---------------------------------------------------------------------------------------------

enum class Lengths : u8 {
    Full,    ///< decimals of a text are the high byte of its length
    Low,     ///< they mean nothing
    Foreign  ///< lengths stand one byte earlier, as other makers of level-7 tables have it
};

/// One way to read a table.
struct Reading {
    std::vector<std::string> descriptors{};
    Lengths lengths = Lengths::Full;
    Shape shape{};
    u64 first = 0;
    double worth = 0;
    bool confirmed = false;  ///< the header's record length or the file's size agrees
    bool mended = false;     ///< a length is another than the one that stands there
    bool byOffsets = false;  ///< and the places of the fields in their descriptors say so
};

u32 lengthOf(const std::string& descriptor, const Form& form, Lengths lengths) {
    const auto byte = [&](u32 at) { return u32{static_cast<u8>(descriptor[at])}; };
    if (lengths == Lengths::Foreign) return byte(form.length - 1);
    const bool high = lengths == Lengths::Full && descriptor[form.type] == 'C';
    return byte(form.length) + (high ? 256 * byte(form.length + 1) : 0);
}

bool setLength(std::string& descriptor, const Form& form, Lengths lengths, i64 length) {
    const bool high = lengths == Lengths::Full && descriptor[form.type] == 'C';
    if (length < 1 || length > (high ? 65000 : 255)) return false;
    const u32 at = lengths == Lengths::Foreign ? form.length - 1 : form.length;
    descriptor[at] = static_cast<char>(length & 0xFF);
    if (high) descriptor[at + 1] = static_cast<char>(length >> 8);
    return true;
}

/// The fixed header as numbers.
struct Said {
    u32 count = 0, header = 0, record = 0;
    bool visual = false;
};

Said saidBy(const std::string& fixed) {
    constexpr std::string_view kVisual("\x30\x31\x32");
    return {loadLe<u32>(fixed.data() + 4), loadLe<u16>(fixed.data() + 8),
            loadLe<u16>(fixed.data() + 10), kVisual.find(fixed[0]) != std::string_view::npos};
}

class Reader {
public:
    Reader(Source& source, const Said& said, MemoFormat memos)
        : source_(source), said_(said), memos_(memos) {
        end_ = source.size();
        if (end_ > 0 && source.byteAt(end_ - 1) == 0x1A) --end_;
        isBelievable_ = said.header > kFixed && said.header <= end_;
    }

    std::vector<Reading> readings{};

    /// Shapes of the lists and, when the header's record length is none of theirs, those with a
    /// length changed until it comes out.
    void addLists(const std::vector<std::vector<std::string>>& lists, const Form& form) {
        form_ = &form;
        bool agrees = false;
        for (const auto& descriptors : lists) {
            for (const Lengths lengths : {Lengths::Full, Lengths::Low, Lengths::Foreign}) {
                if (lengths == Lengths::Foreign && !form.level7) continue;
                Reading reading{descriptors, lengths};
                agrees |= add(reading) == said_.record;
            }
        }
        // Only a header that else agrees with the file is to be believed more than descriptors
        // that look whole.
        const u64 all = u64{said_.count} * said_.record;
        const bool tooMany = u64{said_.record} * lists[0].size() > kTooMany;
        if (agrees || tooMany || said_.record <= 1 || (!isMended && said_.header + all != end_))
            return;
        for (const auto& descriptors : lists) {
            lengths_ = Lengths::Full;
            addMended(descriptors);
            lengths_ = Lengths::Foreign;
            if (form.level7) addMended(descriptors);
        }
    }

    void addShape(const Shape& shape, const std::vector<u64>& places) {
        Reading reading;
        reading.shape = shape;
        tryStarts(reading, places);
    }

    std::vector<u64> starts{};
    u64 listEnd = 0;        ///< where descriptors end
    bool isMended = false;  ///< one of them has lost or got bytes

private:
    u32 add(Reading& reading) {
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

    void addMended(const std::vector<std::string>& descriptors) {
        addByOffsets(descriptors);
        std::vector<std::string> fixed = descriptors;
        i64 length = 1;
        for (std::string& descriptor : fixed) {
            const u32 wanted = fixedLength(descriptor[form_->type]);
            if (wanted != 0) setLength(descriptor, *form_, lengths_, wanted);
            length += lengthOf(descriptor, *form_, lengths_);
        }
        if (length == said_.record) return addChanged(fixed);
        addStretched(fixed);
        if (fixed != descriptors) addStretched(descriptors);
    }
    void addChanged(const std::vector<std::string>& descriptors) {
        Reading reading{descriptors, lengths_};
        reading.mended = true;
        add(reading);
    }
    /// With the length of one field changed, and then of others where the records fit better.
    void addStretched(const std::vector<std::string>& descriptors) {
        std::vector<std::string> best;
        std::size_t pivot = 0;
        double most = 0;
        for (std::size_t field = 0; field < descriptors.size(); ++field) {
            i64 length = said_.record - 1;
            for (std::size_t i = 0; i < descriptors.size(); ++i) {
                if (i != field) length -= lengthOf(descriptors[i], *form_, lengths_);
            }
            std::vector<std::string> changed = descriptors;
            if (!setLength(changed[field], *form_, lengths_, length)) continue;
            const double worth = worthOf(changed);
            if (!best.empty() && worth <= most) continue;
            most = worth;
            pivot = field;
            best = std::move(changed);
        }
        if (best.empty()) return;
        for (u32 i = 0; i < kMoves && move(best, pivot, most); ++i) {
        }
        addChanged(best);
    }
    /// Takes bytes from a field and gives them to another, or the other way; false when nothing
    /// fits better then.
    bool move(std::vector<std::string>& best, std::size_t pivot, double& most) {
        const std::vector<std::string> from = best;
        const double before = most;
        const std::size_t first = pivot < kNear ? 0 : pivot - kNear;
        for (std::size_t i = first; i < std::min(from.size(), pivot + kNear); ++i) {
            for (i64 bytes = -kSlip; bytes <= kSlip && i != pivot; ++bytes) {
                std::vector<std::string> changed = from;
                if (bytes == 0 || !give(changed[pivot], -bytes) || !give(changed[i], bytes))
                    continue;
                const double worth = worthOf(changed);
                if (worth <= most + kMoveMargin) continue;
                most = worth;
                best = std::move(changed);
            }
        }
        return most > before;
    }
    bool give(std::string& descriptor, i64 bytes) const {
        return setLength(descriptor, *form_, lengths_,
                         lengthOf(descriptor, *form_, lengths_) + bytes);
    }
    double worthOf(const std::vector<std::string>& descriptors) {
        const Fit fit(shapeBy(descriptors, lengths_));
        double worth = fitFrom(source_, fit, said_.header,
                               descriptors.size() > kManyFields ? 3 : kMovedRecords);
        for (const std::string& descriptor : descriptors) {
            const u32 wanted = fixedLength(descriptor[form_->type]);
            const bool other = wanted != 0 && wanted != lengthOf(descriptor, *form_, lengths_);
            worth -= other ? kMargin : 0;
        }
        return worth;
    }
    Shape shapeBy(const std::vector<std::string>& descriptors, Lengths lengths) const {
        Shape shape;
        shape.memos = memos_;
        for (const std::string& descriptor : descriptors) {
            shape.add(descriptor[form_->type], lengthOf(descriptor, *form_, lengths));
        }
        return shape;
    }
    /// By the offsets of the fields, or their addresses in memory, which some programs write.
    void addByOffsets(const std::vector<std::string>& descriptors) {
        if (form_->level7 || descriptors.size() < 3) return;
        std::vector<std::string> changed = descriptors;
        std::size_t others = 0;
        const auto offset = [&](std::size_t i) {
            const i64 first = loadLe<u32>(changed[0].data() + 12);
            return i < changed.size() ? loadLe<u32>(changed[i].data() + 12) - first
                                      : i64{said_.record} - 1;
        };
        for (std::size_t i = 0; i < changed.size(); ++i) {
            const i64 length = offset(i + 1) - offset(i);
            if (length != lengthOf(changed[i], *form_, lengths_)) ++others;
            if (!setLength(changed[i], *form_, lengths_, length)) return;
        }
        if (2 * others >= changed.size() && others > 1) return;
        bonus_ = kLikely / 2;
        Reading reading{changed, lengths_};
        reading.mended = reading.byOffsets = true;
        add(reading);
        bonus_ = 0;
    }

    void tryStarts(Reading& reading, std::vector<u64> places) {
        // Where the records begin if there are as many as the header says.
        const u64 all = u64{said_.count} * reading.shape.stride;
        if (all != 0 && all <= end_ && end_ - all >= listEnd && end_ - all <= 65535 &&
            std::find(places.begin(), places.end(), end_ - all) == places.end()) {
            places.push_back(end_ - all);
        }
        const u64 tail = said_.header - listEnd;
        isUsual_ = said_.header >= listEnd && (tail <= 1 || tail == kBackLink);
        const Fit fit(reading.shape);
        const u64 stride = reading.shape.stride;
        const auto count = static_cast<u32>(std::clamp<u64>(kSampled / stride, 1, kSampledMost));
        for (const u64 first : places) {
            if (first > end_) continue;
            reading.first = first;
            const u64 bytes = end_ - first;
            const bool exact = bytes == said_.count * stride;
            reading.worth = fitFrom(source_, fit, first, count) + bonus_;
            reading.confirmed = exact || (stride == said_.record && stride == reading.shape.length);
            if (first == said_.header) reading.worth += isUsual_ ? 60 : 15;
            if (stride == said_.record && stride == reading.shape.length && !reading.mended) {
                reading.worth += first == said_.header && exact ? kAgreed : kLikely;
            }
            // When bytes are lost or added further on, the end speaks for the wrong place.
            if (first == said_.header || !isBelievable_) {
                if (bytes % stride == 0) reading.worth += 10;
                if (exact) reading.worth += reading.mended ? kLikely : kLikely / 2;
            }
            readings.push_back(reading);
        }
    }

    Source& source_;
    const Said said_;
    const MemoFormat memos_;
    const Form* form_ = &kForms[0];
    Lengths lengths_ = Lengths::Full;  ///< of lists that are mended
    double bonus_ = 0;
    u64 end_ = 0;
    bool isUsual_ = false;       ///< its length is that of other tables with such fields
    bool isBelievable_ = false;  ///< the header's length
};

void addAround(std::vector<u64>& starts, u64 place, u64 least) {
    for (i64 slip = -kSlip; slip <= kSlip; ++slip) {
        const auto start = static_cast<i64>(place) + slip;
        if (start < static_cast<i64>(least) || start > 65535) continue;
        if (std::find(starts.begin(), starts.end(), start) == starts.end()) {
            starts.push_back(static_cast<u64>(start));
        }
    }
}

/// The best reading first. Whether another one with other fields or places comes near it.
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

// ---------------------------------------------------------------------------------------------
// The new header
// ---------------------------------------------------------------------------------------------

bool isVersion(u8 version) {
    constexpr std::string_view kVersions(
        "\x02\x03\x04\x30\x31\x43\x63\x83\x8B\x8C\xCB\xF5\xFB\xE5\x32\x42\x62\x82\x8A\xCA\xF4\xFA");
    return kVersions.find(static_cast<char>(version)) != std::string_view::npos;
}

/// The fixed header. One that has lost or got bytes is put right where its numbers agree best.
std::string fixedHeader(Source& source, const List& list) {
    const u32 size = list.form->fixed;
    const std::string found(source.at(0, static_cast<std::size_t>(size + list.ahead)));
    if (list.ahead == 0) return found + std::string(size - found.size(), '\0');
    std::string best;
    int most = -1;
    for (std::size_t at = size; at-- > 0;) {
        const std::string way = resized(found, at, size);
        const Said said = saidBy(way);
        u32 length = 1;
        for (const std::string& one : list.descriptors)
            length += lengthOf(one, *list.form, Lengths::Full);
        const u64 end = list.end - static_cast<u64>(list.ahead);
        const int worth = (isVersion(static_cast<u8>(way[0])) ? 4 : 0) +
                          (said.header >= end && said.header <= end + kBackLink ? 4 : 0) +
                          (said.record == length ? 4 : 0) + (way[2] <= 12 && way[3] <= 31 ? 1 : 0) +
                          (said.count < source.size() ? 2 : 0) +
                          (way[30] == 0 && way[31] == 0 ? 1 : 0);
        if (worth > most) {
            most = worth;
            best = way;
        }
    }
    return best;
}

void storeLe16(std::string& to, std::size_t at, u64 value) {
    to[at] = static_cast<char>(value & 0xFF);
    to[at + 1] = static_cast<char>(value >> 8 & 0xFF);
}

/// What lies between the descriptors and the records, or as much of it as is usual.
std::string tailOf(Source& source, const List& list, const Reading& reading, bool visual) {
    const u64 bytes = reading.first > list.end ? reading.first - list.end : 0;
    std::string tail(source.at(list.end, static_cast<std::size_t>(bytes)));
    if (visual && bytes + kSlip >= kBackLink && bytes <= kBackLink + kSlip) tail.resize(kBackLink);
    if (visual && bytes + kSlip < kBackLink) tail.assign(kBackLink, '\0');
    return tail;
}

std::string headOf(Source& source, const List& list, const Reading& reading, std::string fixed) {
    const Said said = saidBy(fixed);
    std::string head = fixed;
    for (const std::string& descriptor : reading.descriptors) head += descriptor;
    head += kTerminator;
    head += tailOf(source, list, reading, said.visual);
    if (list.form->level7 && head.size() < kLevel7Least) head.resize(kLevel7Least);
    std::memset(&head[4], 0, 4);
    storeLe16(head, 8, head.size());
    storeLe16(head, 10, reading.shape.length);
    std::memset(&head[12], 0, 4);                 // a transaction under way, encryption
    head[28] = static_cast<char>(head[28] & ~1);  // no index file belongs to the new table
    return head;
}

/// What the reading takes otherwise than the header says, a sentence each.
std::vector<std::string> repairsOf(const List& list, const Reading& reading, const Said& said) {
    std::vector<std::string> repairs;
    const auto add = [&](auto... parts) { repairs.push_back(textOf(parts...)); };
    if (list.ahead != 0) add("the header has lost or got bytes");
    if (list.mends != 0) add("the descriptor of field ", list.mended + 1, " is damaged");
    if (reading.mended) add("the field lengths do not add up to the record length ", said.record);
    if (said.header != reading.first) {
        add("the header length is ", said.header, ", the records begin at ", reading.first);
    }
    if (said.record != reading.shape.stride && !reading.mended) {
        add("the record length is ", said.record, ", the fields take ", reading.shape.length);
    }
    return repairs;
}

}  // namespace

Layout ownLayout(Source& source, const std::string& name) {
    const List list = findList(source);
    if (list.descriptors.empty()) {
        refuse(name,
               ": its descriptors are lost; --like SOUND or --schema says which fields it has");
    }
    if (source.byteAt(0) == 2 && (list.ahead != 0 || list.mends != 0)) {
        refuse(name, ": tables of dBase II are not supported");
    }
    std::string fixed = fixedHeader(source, list);
    const Said said = saidBy(fixed);
    Reader reader(source, said,
                  static_cast<u8>(fixed[0]) == 0xE5 ? MemoFormat::Smt : MemoFormat::FoxPro);
    if (said.header >= list.form->fixed) addAround(reader.starts, said.header, list.form->fixed);
    addAround(reader.starts, list.end, list.form->fixed);
    if (said.visual || list.form->level7)
        addAround(reader.starts, list.end + kBackLink, list.form->fixed);
    reader.listEnd = list.end;
    reader.isMended = list.mends != 0;
    std::vector<std::vector<std::string>> lists{list.descriptors};
    for (const std::string& other : list.others) {
        lists.push_back(list.descriptors);
        lists.back()[list.mended] = other;
    }
    reader.addLists(lists, *list.form);
    if (reader.readings.empty()) refuse(name, ": no record can be made of its descriptors");
    const bool near = sortReadings(reader.readings);
    const Reading& best = reader.readings.front();
    Layout layout;
    layout.head = headOf(source, list, best, fixed);
    layout.shape = best.shape;
    layout.first = best.first;
    layout.counted = said.count;
    layout.doubtful = near || list.unsure || (list.mends != 0 && said.visual) ||
                      (best.mended ? !best.byOffsets : !best.confirmed);
    layout.repairs = repairsOf(list, best, said);
    if (layout.doubtful) {
        layout.repairs.push_back("the fields may lie otherwise, so every record is doubtful");
    }
    return layout;
}

Layout layoutLike(Source& source, const Table& like) {
    std::string fixed(source.at(0, kFixed));
    fixed.resize(kFixed);
    const Said said = saidBy(fixed);
    const Shape shape = shapeOf(*like.base, like.memoFormat);
    Reader reader(source, said, like.memoFormat);
    std::vector<u64> starts;
    addAround(starts, like.base->Header.HeaderLength, 0);
    addAround(starts, 0, 0);  // the whole header may be lost
    if (said.header > kFixed) addAround(starts, said.header, 0);
    reader.addShape(shape, starts);
    Layout layout;
    layout.head = emptyHead(like);
    layout.doubtful = sortReadings(reader.readings);
    layout.shape = shape;
    layout.first = reader.readings.front().first;
    layout.counted = said.count;
    return layout;
}

}  // namespace mira::tables
