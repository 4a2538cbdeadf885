#include "tables/rescue/descriptors.h"

#include <algorithm>

#include "tables/page/bytes.h"
#include "tables/page/text.h"

namespace mira::tables {
namespace {

constexpr Form kForms[] = {{kFixed, 32, 11, 11, 16, false}, {68, 48, 32, 32, 34, true}};
constexpr std::string_view kLetters = "CNFDLMTGYBI0@+OVQWP";

bool isName(std::string_view name) {
    const std::string_view text = name.substr(0, name.find('\0'));
    return !text.empty() && static_cast<u8>(text[0]) > ' ' &&
           std::none_of(text.begin(), text.end(), [](char c) { return static_cast<u8>(c) < ' '; });
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

i64 worthOf(const List& list) {
    const i64 slipped = list.ahead == 0 ? 0 : 6 + 2 * (list.ahead < 0 ? -list.ahead : list.ahead);
    return 8 * static_cast<i64>(list.descriptors.size()) - 12 * i64{list.mends} - slipped +
           (list.ended ? 4 : 0);
}

}  // namespace

bool isLength(char type, u32 length) {
    constexpr struct {
        std::string_view types;
        u32 length, other;
    } kLengths[] = {{"D", 8, 10}, {"L", 1, 1},  {"MG", 10, 4},
                    {"I+", 4, 4}, {"YO", 8, 8}, {"T@", 8, 14}};
    for (const auto& row : kLengths) {
        if (row.types.find(type) == std::string_view::npos) continue;
        return length == row.length || length == row.other;
    }
    return true;
}

/// The length that values of a type have; 0: any.
u32 fixedLength(char type) {
    if (type == 'D' || type == 'Y' || type == 'O' || type == '@') return 8;
    if (type == 'L') return 1;
    return type == 'I' || type == '+' ? 4 : 0;
}

/// The bytes in a size, zeros put in or bytes taken out at a place.
std::string resized(std::string bytes, std::size_t at, std::size_t size) {
    if (bytes.size() < size) bytes.insert(std::min(at, bytes.size()), size - bytes.size(), '\0');
    if (bytes.size() > size) bytes.erase(std::min(at, size), bytes.size() - size);
    return bytes;
}
List findList(Source& source) {
    List best;
    const std::string start(source.at(8, 2));
    const u64 said = start.size() == 2 ? loadLe<u16>(start.data()) : 0;
    for (const Form& form : kForms) {
        for (i64 ahead = -kSlip; ahead <= kSlip; ++ahead) {
            List list = Lister(source, form, ahead, said).run();
            if (!list.descriptors.empty() &&
                (best.descriptors.empty() || worthOf(list) > worthOf(best)))
                best = std::move(list);
        }
    }
    return best;
}
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

Said saidBy(const std::string& fixed) {
    constexpr std::string_view kVisual("\x30\x31\x32");
    return {loadLe<u32>(fixed.data() + 4), loadLe<u16>(fixed.data() + 8),
            loadLe<u16>(fixed.data() + 10), kVisual.find(fixed[0]) != std::string_view::npos};
}

}  // namespace mira::tables
