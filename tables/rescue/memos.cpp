#include "tables/rescue/memos.h"

#include <algorithm>
#include <cmath>

#include "tables/page/bytes.h"
#include "tables/page/text.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

constexpr u32 kUsualUnits[] = {64, 512, 32, 128, 256, 1024, 2048, 4096, 16, 33, 1};
constexpr u32 kHeader = 512;
constexpr u32 kPrefix = 8;
constexpr u64 kStep = 4096;   // memos
constexpr u64 kFewIn = 50;    // one of so many is taken for damage of its own
constexpr u64 kStaleIn = 10;  // of so many memos one may have lost its record
constexpr double kByChance = 1e-3;

u64 roundedUp(u64 place, u32 unit) { return (place + unit - 1) / unit * unit; }

}  // namespace

DamagedMemos::DamagedMemos(const std::string& path, MemoFormat format, u32 unit, bool isText,
                           std::function<void()> step)
    : path_(path), format_(format), wanted_(unit), isText_(isText), step_(std::move(step)) {
    if (!path.empty()) source_.emplace(path, step_);
}

/// A number in the header, in the byte order of the format.
u32 DamagedMemos::headerNumber(u32 place, u32 size) {
    const std::string_view bytes = source_->at(place, size);
    u32 number = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::size_t at = format_ == MemoFormat::FoxPro ? i : bytes.size() - 1 - i;
        number = number << 8 | static_cast<u8>(bytes[at]);
    }
    return number;
}

/// After the first end byte, or the end of the file.
u64 DamagedMemos::markedEnd(u64 place) {
    for (;; place += Source::kMost) {
        const std::string_view bytes = source_->at(place, Source::kMost);
        const std::size_t mark = bytes.find(kMemoEnd);
        if (mark != std::string_view::npos) return place + mark + 1;
        if (bytes.size() < Source::kMost) return source_->size() + 1;
    }
}

std::optional<DamagedMemos::Extent> DamagedMemos::extentAt(u64 place, u32 length) {
    if (place >= source_->size()) return std::nullopt;
    Extent extent{place, place};
    if (format_ == MemoFormat::Smt) {
        extent.end = place + length;
    } else if (format_ == MemoFormat::DBase3) {
        extent.end = markedEnd(place) - 1;
        extent.whole = extent.end < source_->size();
        return extent;
    } else {
        const std::string prefix(source_->at(place, kPrefix));
        if (prefix.size() < kPrefix) return std::nullopt;
        if (format_ == MemoFormat::FoxPro) {
            if (loadBe32(reinterpret_cast<const u8*>(prefix.data())) > 2) return std::nullopt;
            extent.end += kPrefix + loadBe32(reinterpret_cast<const u8*>(prefix.data()) + 4);
        } else {
            const u32 said = loadLe<u32>(prefix.data() + 4);
            if (loadLe<u32>(prefix.data()) != 0x0008FFFF || said < kPrefix) return std::nullopt;
            extent.end += said;
        }
        extent.first += kPrefix;
    }
    extent.whole = extent.end <= source_->size();
    return extent;
}

/// Whether a reference leads into the header, where no file has memos.
bool DamagedMemos::isInHeader(const Plan& plan, MemoReference reference) const {
    return format_ != MemoFormat::Smt &&
           u64{plan.unit} * reference.block < std::min(plan.unit, kHeader);
}

std::optional<DamagedMemos::Extent> DamagedMemos::extentOf(const Plan& plan,
                                                           MemoReference reference) {
    const u64 place = u64{plan.unit} * reference.block;
    if (plan.unit == 0 || isInHeader(plan, reference) || place < plan.lacking) return std::nullopt;
    return extentAt(place - plan.lacking, reference.length);
}

/// References that lead to whole memos.
u64 DamagedMemos::whole(const Plan& plan) {
    u64 count = 0;
    for (const MemoReference reference : references_) {
        if (++passed_ % kStep == 0) step_();
        const std::optional<Extent> extent = extentOf(plan, reference);
        const bool some = extent && (extent->end > extent->first || format_ != MemoFormat::FoxPro);
        if (!some || !extent->whole) continue;
        // A text of dBase III begins behind the end of another one.
        const u64 place = extent->first;
        const bool dBase3 = format_ == MemoFormat::DBase3 && place > kHeader;
        if (dBase3 &&
            source_->at(place - kHeader, kHeader).find(kMemoEnd) == std::string_view::npos) {
            continue;
        }
        ++count;
    }
    return count;
}

/// Bytes per block that may be meant, the likeliest first.
std::vector<u32> DamagedMemos::units(u32 said) const {
    if (wanted_ != 0) return {wanted_};
    std::vector<u32> units;
    if (said != 0) units.push_back(said);
    if (format_ != MemoFormat::DBase3) {
        units.insert(units.end(), std::begin(kUsualUnits), std::end(kUsualUnits));
    }
    return units;
}

u32 DamagedMemos::saidUnit() {
    if (format_ == MemoFormat::DBase3) return kHeader;
    if (format_ == MemoFormat::FoxPro) return headerNumber(6, 2);
    return headerNumber(format_ == MemoFormat::Smt ? 4 : 20, 2);
}

/// The plan under which most references lead to memos; their number.
u64 DamagedMemos::choose() {
    const u32 said = saidUnit();
    const std::vector<u32> tried = units(said);
    u64 most = 0, rival = 0;
    plan_ = {tried.front(), 0};
    for (const u32 unit : tried) {
        for (const u32 lacking : {0U, kHeader}) {
            const u64 count = whole({unit, lacking});
            if (count > most) {
                rival = most;
                most = count;
                plan_ = {unit, lacking};
            } else if (unit != plan_.unit || lacking != plan_.lacking) {
                rival = std::max(rival, count);
            }
        }
        if (most == references_.size()) break;
    }
    const bool own = said != 0 && wanted_ == 0 && plan_.unit == said && plan_.lacking == 0 &&
                     headerNumber(0, 4) != 0;
    const bool unprefixed = format_ == MemoFormat::DBase3 && plan_.lacking != 0;
    const u64 amiss = std::max(most, meant()) - most;
    if (!own) doubtful_ = amiss * kFewIn > most || most < 2 || rival == most || unprefixed;
    return most;
}

/// References that do not lead into the header, as some do that were never of any memo.
u64 DamagedMemos::meant() const {
    if (format_ == MemoFormat::Smt) return references_.size();
    return static_cast<u64>(std::count_if(
        references_.begin(), references_.end(),
        [&](MemoReference reference) { return u64{plan_.unit} * reference.block >= kHeader; }));
}

/// The places that the references lead to, in order, each once.
std::vector<u64> DamagedMemos::places() const {
    std::vector<u64> places;
    for (const MemoReference reference : references_) {
        const u64 place = u64{plan_.unit} * reference.block;
        if (place >= kHeader && place - plan_.lacking < source_->size()) {
            places.push_back(place - plan_.lacking);
        }
    }
    std::sort(places.begin(), places.end());
    places.erase(std::unique(places.begin(), places.end()), places.end());
    return places;
}

/// Goes from memo to memo, as they were written.
void DamagedMemos::follow(Accord& accord) {
    const std::vector<u64> wanted = places();
    const u32 unit = plan_.unit;
    u64 place = plan_.lacking != 0 ? 0 : roundedUp(kHeader, unit);
    const u64 first = place;
    std::size_t next = 0;
    while (place < source_->size()) {
        if (++passed_ % kStep == 0) step_();
        while (next < wanted.size() && wanted[next] < place) ++accord.off, ++next;
        const std::optional<Extent> extent = extentAt(place, 0);
        const bool memo = extent && extent->end > extent->first;
        const bool held = next < wanted.size() && wanted[next] == place;
        if (memo) {
            const u64 block = (place + plan_.lacking) / unit;
            accord.lastIsHeld = held || std::binary_search(others_.begin(), others_.end(), block);
            ++accord.memos;
            if (accord.lastIsHeld) ++accord.held;
        }
        if (held) ++next;
        const u64 end = memo ? std::max(extent->end, place + 1) : place + 1;
        place = memo && !extent->whole ? source_->size() : roundedUp(end, unit);
    }
    accord.off += wanted.size() - next;
    accord.blocks = (source_->size() - std::min(first, source_->size()) + unit - 1) / unit;
}

/// Whether so many references may as well lead to the beginnings of memos by chance. The first one
/// leads to the first memo in any file.
bool DamagedMemos::Accord::mayBeChance() const {
    if (lastIsHeld || blocks == 0) return false;
    if ((memos - held) * kStaleIn <= held) return false;
    const double share = static_cast<double>(memos) / static_cast<double>(blocks);
    return held < 2 || std::pow(share, static_cast<double>(held - 1)) > kByChance;
}

DamagedMemos::Accord DamagedMemos::tryAll() {
    Accord accord;
    doubtful_ = false;
    accord.whole = choose();
    if (format_ != MemoFormat::Smt && plan_.unit != 0 && !references_.empty()) follow(accord);
    return accord;
}

/// Undoes a transfer as text where references go better with the file then.
bool DamagedMemos::undoTextEnds(Accord& accord) {
    Source found = std::move(*source_);
    source_.emplace(path_, step_);
    source_->undoTextEnds();
    const Accord undone = tryAll();
    const bool better = undone.gain(accord, isText_);
    if (better) {
        accord = undone;
    } else {
        *source_ = std::move(found);
        tryAll();
    }
    return better;
}

std::vector<std::string> DamagedMemos::settle() {
    std::vector<std::string> sentences;
    const u64 count = references_.size();
    if (!source_) {
        if (count != 0) sentences.push_back("the memo file is missing");
        return sentences;
    }
    std::sort(others_.begin(), others_.end());
    const u32 next = headerNumber(0, 4);
    Accord accord = tryAll();
    const bool mayBeText = isText_ || !accord.isFull(count);
    if (mayBeText && source_->hasTextEnds() && undoTextEnds(accord)) {
        sentences.push_back("the memo file has come through a transfer as text");
    }
    if (count == 0 || plan_.unit == 0) return sentences;
    if (plan_.lacking != 0) sentences.push_back("the memo file has lost its header");
    if (doubtful_) {
        sentences.push_back(textOf("the memo file's block size is taken for ", plan_.unit,
                                   "; --memo-block N says it"));
    }
    if (format_ == MemoFormat::Smt) return sentences;
    u64 past = 0;
    for (const MemoReference reference : references_) {
        if (u64{plan_.unit} * reference.block >= source_->size() + plan_.lacking) ++past;
    }
    const bool isWhole = next != 0 && u64{plan_.unit} * (next - 1) < source_->size();
    const u64 strange = accord.off + (isWhole ? past : 0);
    if (strange * kFewIn > count || accord.mayBeChance()) {
        doubtful_ = true;
        sentences.push_back("the memo file may be another table's, so every memo is doubtful");
    }
    return sentences;
}

DamagedMemos::Found DamagedMemos::read(MemoReference reference, std::string& bytes) {
    bytes.clear();
    const std::optional<Extent> extent = source_ ? extentOf(plan_, reference) : std::nullopt;
    if (!extent) return Found::Lost;
    const u64 end = std::min(extent->end, source_->size());
    for (u64 place = extent->first; place < end; place += Source::kMost) {
        bytes +=
            source_->at(place, static_cast<std::size_t>(std::min<u64>(Source::kMost, end - place)));
    }
    const bool empty = extent->end == extent->first && format_ == MemoFormat::FoxPro;
    return doubtful_ || !extent->whole || empty ? Found::Doubtful : Found::Sound;
}

}  // namespace mira::tables
