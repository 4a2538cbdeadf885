// Which code page a table is in: option, .cpg file, mark, language driver, and what its texts look
// like where these say nothing or little.
#include <uchardet/uchardet.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <optional>

#include "tables/open/find.h"
#include "tables/open/open.h"
#include "tables/page/bytes.h"
#include "tables/page/pagenames.h"
#include "tables/page/text.h"
#include "tables/page/utf8.h"
#include "tables/unpack/archive.h"
#include "tables/value/memo.h"

namespace mira::tables {
namespace {

namespace fs = std::filesystem;

constexpr u32 kMarkPlace = 29 - 12;    // in DbfHeader::Rest, as are the driver's bytes 32 to 63
constexpr u32 kDriverPlace = 32 - 12;  // level 7 only
constexpr u32 kDriverSize = 32;
constexpr u8 kAnsiMark = 0x57;  // "ANSI of the machine": shapefile writers set it whatever follows

constexpr std::string_view kPadding(" \0", 2);

constexpr std::size_t kSampleSize = 1 << 20;
constexpr u32 kStretches = 16;
constexpr std::size_t kMemoCost = 256;  // the least that a memo counts in the sample
constexpr std::size_t kGuessFrom = 32;  // bytes above 7F

constexpr std::size_t kCpgLine = 63;
constexpr std::size_t kCpgRead = 512;

constexpr u32 kVisualKind = 3;  // of the library

bool isVisualFoxPro(DbfBase* h) { return GetFlavourKind(h) == kVisualKind; }

// ---------------------------------------------------------------------------------------------
// The .cpg file
// ---------------------------------------------------------------------------------------------

/// The .cpg file beside a table: "stock.cpg", else the first of those that differ in letter case.
std::optional<std::string> cpgFile(const fs::path& table, Listing* listing) {
    const std::string exact = fs::path(table).replace_extension(".cpg").string();
    Listing own;
    const std::vector<std::string> found = (listing != nullptr ? listing : &own)->sameNames(exact);
    if (found.empty()) return std::nullopt;
    return found.front();
}

/// The one line of a .cpg file; empty when there is none, or a longer one.
std::string cpgLine(const std::string& path) {
    const File file(Open_FileRO(readable(path).path.c_str()));
    if (!file) return "";
    char bytes[kCpgRead];
    std::string_view text(bytes, ReadFile(file.get(), bytes, sizeof bytes));
    for (const std::string_view mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
        if (text.starts_with(mark)) text.remove_prefix(mark.size());
    }
    std::string line;
    for (const char c : text) {
        const bool lineEnd = c == '\n' || c == '\r';
        if (lineEnd && !line.empty()) break;
        if (!lineEnd && c != 0) line += c;
    }
    return line.size() <= kCpgLine ? line : "";
}

std::string notKnown(const char* what, std::string_view name) {
    return textOf(what, " \"", name, "\" is not known");
}

// ---------------------------------------------------------------------------------------------
// A sample of the texts
// ---------------------------------------------------------------------------------------------

/// Texts with bytes above 7F, and whether they are UTF-8.
struct Sample {
    std::string texts;  ///< a line each
    std::size_t highBytes = 0;
    std::size_t utf8Letters = 0;  ///< of two bytes or more
    bool broken = false;          ///< some text is no UTF-8

    bool isUtf8() const { return utf8Letters != 0 && !broken; }
};

/// Adds a text. One that fills its field may end inside a character: writers cut by bytes.
void addText(Sample* sample, std::string_view text, bool mayBeCut) {
    if (asciiRun(text) == text.size()) return;
    sample->texts.append(text).push_back('\n');
    while (!text.empty()) {
        const Utf8Step step = stepUtf8(text);
        for (const char c : text.substr(0, step.length)) sample->highBytes += (c & 0x80) != 0;
        if (!step.valid && !(step.cut && mayBeCut)) sample->broken = true;
        if (step.valid && step.length > 1) ++sample->utf8Letters;
        text.remove_prefix(step.length);
    }
}

/// The fields that hold text in the code page: C, V and M, but for those that Visual FoxPro's
/// flags call binary. Those that refer to a memo file which is not there hold none.
std::vector<int> textFields(DbfBase* h) {
    const File memos(Open_FileRO(h->MemoFileName));
    std::vector<int> fields;
    for (int i = 0; i < h->FieldCount; ++i) {
        const char type = h->Fields[i].Type;
        const u32 flags = isVisualFoxPro(h) ? GetFieldFlags(h, i) : 0;
        const bool text = type == 'C' || type == 'V' || (type == 'M' && memos != nullptr);
        if (text && (flags & kBinary) == 0) fields.push_back(i);
    }
    return fields;
}

std::string_view storedField(DbfBase* h, int field) {
    return {reinterpret_cast<const char*>(h->RecordBuffer) + h->Fields[field].Offset,
            GetLenField(h, field)};
}

/// Adds a field of the current record; returns how many bytes were looked at.
std::size_t addField(Sample* sample, DbfBase* h, int field) {
    std::string_view bytes = storedField(h, field);
    const std::size_t size = bytes.size();
    // The last byte of a V field may be its length.
    if (h->Fields[field].Type == 'V' && !bytes.empty()) bytes.remove_suffix(1);
    const std::string_view text = bytes.substr(0, bytes.find('\0'));
    addText(sample, text, text.size() == bytes.size());
    return size;
}

/// A memo of bytes with a zero among them is no text. No more of a long one is looked at than the
/// sample still takes.
std::size_t addMemo(Sample* sample, DbfBase* h, int field) {
    if (trimmed(storedField(h, field), kPadding).empty()) return 0;
    u32 length = 0;
    const std::unique_ptr<char, FreeCloser> memo(GetMemoBuf(h, field, &length));
    const std::string_view text(memo.get(), memo ? length : 0);
    const std::size_t zero = text.find('\0');
    if (zero == std::string_view::npos || zero + 1 >= text.size()) {
        const std::size_t room = kSampleSize - std::min(kSampleSize, sample->texts.size());
        addText(sample, text.substr(0, room), text.size() > room);
    }
    return std::max(text.size(), kMemoCost);
}

/// A sample from stretches that lie evenly in the table, each as long as the sample may grow in it.
Sample takeSample(DbfBase* h) {
    Sample sample;
    const std::vector<int> fields = textFields(h);
    const u64 count = fields.empty() ? 0 : h->Header.RecordCount;
    std::size_t used = 0;  // bytes looked at
    for (u32 k = 0; k < kStretches; ++k) {
        const std::size_t allowed = kSampleSize / kStretches * (k + 1);
        const auto end = static_cast<u32>(count * (k + 1) / kStretches);
        for (auto record = static_cast<u32>(count * k / kStretches);
             record < end && used < allowed && ReadRecord(h, record) != 0; ++record) {
            used +=
                u32{h->Header.RecordLength} / 16;  // so that few texts in long records end it, too
            for (const int field : fields) {
                used += (h->Fields[field].Type == 'M' ? addMemo : addField)(&sample, h, field);
            }
        }
    }
    return sample;
}

/// What the detector takes texts for; null when that cannot be told. Only these answers are worth
/// anything; two are opened as the larger page that tables use.
const char* detectPage(std::string_view texts) {
    static constexpr const char* kAccepted[][2] = {
        {"IBM855", "CP855"},    {"IBM866", "CP866"}, {"WINDOWS-1251", "CP1251"},
        {"KOI8-R", "KOI8-R"},   {"IBM852", "CP852"}, {"SHIFT_JIS", "CP932"},
        {"GB18030", "GB18030"}, {"BIG5", "CP950"},   {"EUC-KR", "CP949"},
        {"UHC", "CP949"}};
    const std::unique_ptr<uchardet, decltype(&uchardet_delete)> detector(uchardet_new(),
                                                                         uchardet_delete);
    uchardet_handle_data(detector.get(), texts.data(), texts.size());
    uchardet_data_end(detector.get());
    const std::string answer = upperAscii(uchardet_get_charset(detector.get()));
    for (const auto& [name, page] : kAccepted) {
        if (answer == name) return page;
    }
    return nullptr;
}

/// The Cyrillic page in whose small letters texts look like that page. The detector knows the
/// letters that are frequent in running text, and so no words in capitals.
const char* guessByCapitals(std::string_view texts) {
    for (const char* name : {"CP866", "CP1251"}) {
        const std::unique_ptr<CodePage> page = openPage(name);
        std::string utf8;
        std::string small;
        toUtf8(*page, texts, utf8);
        if (!fromUtf8(*page, lowerText(utf8), small)) continue;
        const char* answer = detectPage(small);
        if (answer != nullptr && std::string_view(answer) == name) return name;
    }
    return nullptr;
}

/// ANSI or DOS, by the letters of Western words: bytes above 7F beside ASCII letters, nine in ten
/// of which are in the range of one of them. E1 alone is no evidence: DOS has its sharp s there.
const char* guessByNeighbours(std::string_view texts) {
    constexpr u8 kSharpS = 0xE1;
    std::size_t letters = 0;
    std::size_t ansi = 0;
    std::size_t dos = 0;
    std::size_t sharp = 0;
    const auto isLetter = [&](std::size_t at) {
        const char c = at < texts.size() ? static_cast<char>(texts[at] | 0x20) : '\0';
        return c >= 'a' && c <= 'z';
    };
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const auto byte = static_cast<u8>(texts[i]);
        const bool softBreak = texts.substr(i).starts_with("\x8D\n");
        if (byte < 0x80 || softBreak || !(isLetter(i + 1) || (i != 0 && isLetter(i - 1)))) continue;
        ++letters;
        ansi += byte >= 0xC0 ? 1 : 0;
        dos += byte <= 0xA5 ? 1 : 0;
        sharp += byte == kSharpS ? 1 : 0;
    }
    if (ansi > sharp && ansi * 10 >= letters * 9) return "CP1252";
    return dos != 0 && dos * 10 >= letters * 9 ? "CP437" : nullptr;
}

const char* guessPage(const Sample& sample) {
    const char* guess = nullptr;
    if (sample.highBytes >= kGuessFrom) {
        guess = detectPage(sample.texts);
        if (guess == nullptr) guess = guessByCapitals(sample.texts);
    }
    return guess != nullptr ? guess : guessByNeighbours(sample.texts);
}

// ---------------------------------------------------------------------------------------------
// What the .cpg file says
// ---------------------------------------------------------------------------------------------

void decide(PageChoice* choice, const char* page, std::string from) {
    choice->page = openPage(page);
    choice->from = std::move(from);
    if (!choice->page) choice->missing = page;
}

bool takeCpg(DbfBase* h, PageChoice* choice, Listing* listing) {
    const std::optional<std::string> path = cpgFile(h->FileName, listing);
    if (!path) return false;
    const std::string line = cpgLine(*path);
    choice->page = openPage(line);
    if (!choice->page) {
        choice->notes.push_back(textOf(
            *path, ": ", line.empty() ? "no code page in one line" : notKnown("code page", line)));
        return false;
    }
    choice->from = ".cpg";
    if (choice->page->kind == CodePage::Kind::SingleByte && takeSample(h).isUtf8()) {
        choice->notes.push_back(textOf(*path, ": names ", pageName(*choice->page),
                                       ", but the texts are UTF-8 and read as that"));
        decide(choice, "UTF-8", "UTF-8 text");
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Mark and driver
// ---------------------------------------------------------------------------------------------

/// The language driver that a level-7 table names; empty without one.
std::string driverOf(const DbfBase* h) {
    if (h->Level7 == 0) return "";
    const char* name = reinterpret_cast<const char*>(h->Header.Rest) + kDriverPlace;
    return {name, strnlen(name, kDriverSize)};
}

/// The driver's page; null, with a note for a name nobody knows, when it has none.
const char* driverPage(const std::string& driver, std::vector<std::string>* notes) {
    if (driver.empty()) return nullptr;
    const char* page = pageOfDriver(driver);
    if (page == nullptr) notes->push_back(notKnown("language driver", driver));
    if (isThaiDriver(driver)) {
        notes->push_back(textOf("language driver \"", driver,
                                "\" names a page without Thai letters; --code-page CP874 shows "
                                "them"));
    }
    return page;
}

/// What a mark of 00 or 57 leaves open. driver: the page of the driver, if there is one.
void decideByTexts(DbfBase* h, PageChoice* choice, const char* driver, const std::string& name) {
    const Sample sample = takeSample(h);
    if (sample.isUtf8()) return decide(choice, "UTF-8", "UTF-8 text");
    if (driver != nullptr) return decide(choice, driver, "driver " + name);
    choice->isWeak = true;
    choice->uncertain = sample.highBytes != 0;
    if (choice->mark == kAnsiMark) return decide(choice, "CP1252", "mark 0x57");
    if (const char* guess = guessPage(sample)) return decide(choice, guess, "guess");
    decide(choice, isVisualFoxPro(h) ? "CP1252" : "CP437", "default");
}

}  // namespace

PageChoice choosePage(DbfBase* h, std::string_view option, Listing* listing) {
    PageChoice choice;
    choice.mark = h->Header.Rest[kMarkPlace];
    if (!option.empty()) {
        choice.from = "--code-page";
        choice.page = openPage(option);
        if (!choice.page) {
            choice.missing = option;
            choice.notes.push_back(notKnown("code page", option));
        }
        return choice;
    }
    if (takeCpg(h, &choice, listing)) return choice;
    const char* marked = pageOfMark(choice.mark);
    if (marked != nullptr && choice.mark != kAnsiMark) {
        decide(&choice, marked, "mark " + hexByte(choice.mark));
        return choice;
    }
    if (marked == nullptr && choice.mark != 0) {
        choice.notes.push_back(textOf("code-page mark ", hexByte(choice.mark), " is not known"));
    }
    const std::string driver = marked == nullptr ? driverOf(h) : "";
    decideByTexts(h, &choice, driverPage(driver, &choice.notes), driver);
    return choice;
}

std::string pageDoubt(const PageChoice& choice, std::string_view option) {
    const bool marked = choice.from.starts_with("mark");
    return textOf("code page ", pageName(*choice.page),
                  marked ? " follows only from " : " is only a ", choice.from,
                  marked ? ", which many programs set by default; " : "; ", option,
                  " says which it is");
}

}  // namespace mira::tables
