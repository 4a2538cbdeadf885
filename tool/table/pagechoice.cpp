// Which code page a table is in: option, .cpg file, mark, language driver, and what its texts look
// like where these say nothing or little.
#include <uchardet/uchardet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include "table/codepage.h"
#include "table/pagenames.h"
#include "table/utf8.h"

namespace mira::tool {
namespace {

namespace fs = std::filesystem;

constexpr u32 kMarkPlace = 29 - 12;    // in DbfHeader::Rest, as are the driver's bytes 32 to 63
constexpr u32 kDriverPlace = 32 - 12;  // level 7 only
constexpr u32 kDriverSize = 32;
constexpr u8 kAnsiMark = 0x57;  // "ANSI of the machine": shapefile writers set it whatever follows

constexpr u32 kFlagsPlace = 18;  // in a descriptor: what Visual FoxPro keeps of a field
constexpr u8 kBinaryFlag = 4;

constexpr std::size_t kSampleSize = 1 << 20;
constexpr u32 kStretches = 16;
constexpr std::size_t kBatchSize = 65535;
constexpr std::size_t kMemoCost = 256;  // the least that a memo counts in the sample
constexpr std::size_t kGuessFrom = 32;  // bytes above 7F

constexpr std::size_t kCpgLine = 63;
constexpr std::size_t kCpgRead = 512;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

bool isVisualFoxPro(const DbfBase* h) {
    return h->Header.Version >= 0x30 && h->Header.Version <= 0x32;
}

std::string hexByte(u8 byte) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    return {'0', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
}

// ---------------------------------------------------------------------------------------------
// The .cpg file
// ---------------------------------------------------------------------------------------------

bool sameName(const std::string& a, const std::string& b) { return upperAscii(a) == upperAscii(b); }

/// The .cpg file beside a table: "stock.cpg", else the first of those that differ in letter case.
std::optional<fs::path> cpgFile(const fs::path& table) {
    std::error_code error;
    fs::path exact = table;
    exact.replace_extension(".cpg");
    if (fs::exists(exact, error)) return exact;
    const fs::path folder = table.has_parent_path() ? table.parent_path() : fs::path(".");
    std::optional<fs::path> found;
    for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
        const fs::path& path = at->path();
        if (!sameName(path.filename().string(), exact.filename().string())) continue;
        if (!found || path < *found) found = path;
    }
    return found;
}

/// The one line of a .cpg file; empty when there is none, or a longer one.
std::string cpgLine(const fs::path& path) {
    const File file(Open_FileRO(path.c_str()));
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

bool takeCpg(const DbfBase* h, PageChoice* choice) {
    const std::optional<fs::path> path = cpgFile(h->FileName);
    if (!path) return false;
    const std::string line = cpgLine(*path);
    choice->page = openPage(line);
    if (choice->page) {
        choice->from = ".cpg";
        return true;
    }
    choice->notes.push_back(
        path->string() + ": " +
        (line.empty() ? "no code page in one line" : "code page \"" + line + "\" is not known"));
    return false;
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
/// flags call binary.
std::vector<int> textFields(DbfBase* h) {
    std::string descriptors(std::size_t{h->FieldCount} * h->DescriptorSize, '\0');
    if (isVisualFoxPro(h)) {
        SetFilePointer(h->TableFile, static_cast<i32>(h->HeaderSize), nullptr, SEEK_SET);
        ReadFile(h->TableFile, descriptors.data(), static_cast<i32>(descriptors.size()));
    }
    std::vector<int> fields;
    for (int i = 0; i < h->FieldCount; ++i) {
        const char type = h->Fields[i].Type;
        const std::size_t flags = static_cast<std::size_t>(i) * h->DescriptorSize + kFlagsPlace;
        if ((type == 'C' || type == 'V' || type == 'M') &&
            (descriptors[flags] & kBinaryFlag) == 0) {
            fields.push_back(i);
        }
    }
    return fields;
}

/// Reads a sample of a table; the handle's record buffer holds records meanwhile.
class Sampler {
public:
    explicit Sampler(DbfBase* h) : handle_(h), fields_(textFields(h)) {
        const File memos(Open_FileRO(h->MemoFileName));
        if (!memos) std::erase_if(fields_, [h](int f) { return h->Fields[f].Type == 'M'; });
        saved_.assign(h->RecordBuffer, h->RecordBuffer + h->Header.RecordLength);
    }
    ~Sampler() { std::copy(saved_.begin(), saved_.end(), handle_->RecordBuffer); }
    Sampler(const Sampler&) = delete;
    Sampler& operator=(const Sampler&) = delete;

    Sample take() {
        const u64 count = handle_->Header.RecordCount;
        for (u32 k = 0; k < kStretches && !fields_.empty(); ++k) {
            allowed_ = kSampleSize / kStretches * (k + 1);
            readStretch(static_cast<u32>(count * k / kStretches),
                        static_cast<u32>(count * (k + 1) / kStretches));
        }
        return std::move(sample_);
    }

private:
    /// Records from first to last, as far as the sample may grow here.
    void readStretch(u32 first, u32 last) {
        const u32 length = handle_->Header.RecordLength;
        const u32 most = std::max<u32>(1, static_cast<u32>(kBatchSize / length));
        while (first < last && used_ < allowed_) {
            const u32 count = std::min(most, last - first);
            batch_.resize(std::size_t{count} * length);
            if (InternalSeekRecord(handle_, first) == 0) return;
            const u32 got =
                ReadFile(handle_->TableFile, batch_.data(), static_cast<i32>(batch_.size()));
            if (got < length) return;
            for (u32 i = 0; i < got / length && used_ < allowed_; ++i) {
                addRecord(batch_.data() + std::size_t{i} * length, length);
            }
            first += count;
        }
    }

    void addRecord(const char* record, u32 length) {
        std::memcpy(handle_->RecordBuffer, record, length);
        used_ += length / 16;  // so that few texts in long records end the sample as well
        for (const int field : fields_) {
            if (handle_->Fields[field].Type == 'M') {
                addMemo(field);
            } else {
                addField(field);
            }
        }
    }

    void addField(int field) {
        std::string_view bytes = stored(field);
        used_ += bytes.size();
        // The last byte of a V field may be its length.
        if (handle_->Fields[field].Type == 'V' && !bytes.empty()) bytes.remove_suffix(1);
        const std::string_view text = bytes.substr(0, bytes.find('\0'));
        addText(&sample_, text, text.size() == bytes.size());
    }

    /// A memo of bytes with a zero among them is no text. No more of a long one is looked at than
    /// the sample still takes.
    void addMemo(int field) {
        const std::string_view reference = stored(field);
        if (reference.find_first_not_of(std::string_view(" \0", 2)) == std::string_view::npos)
            return;
        u32 length = 0;
        const std::unique_ptr<char, decltype(&std::free)> memo(GetMemoBuf(handle_, field, &length),
                                                               std::free);
        const std::string_view text(memo.get(), memo ? length : 0);
        used_ += std::max(text.size(), kMemoCost);
        const std::size_t zero = text.find('\0');
        if (zero != std::string_view::npos && zero + 1 < text.size()) return;
        const std::size_t room = kSampleSize - std::min(kSampleSize, sample_.texts.size());
        addText(&sample_, text.substr(0, room), text.size() > room);
    }

    std::string_view stored(int field) const {
        return {
            reinterpret_cast<const char*>(handle_->RecordBuffer) + handle_->Fields[field].Offset,
            GetLenField(handle_, field)};
    }

    DbfBase* handle_;
    std::vector<int> fields_;
    std::vector<u8> saved_;
    std::string batch_;
    Sample sample_;
    std::size_t used_ = 0;     ///< bytes looked at
    std::size_t allowed_ = 0;  ///< where the stretch ends
};

/// The page that texts look like; null when that cannot be told. Only these answers of the
/// detector are worth anything; two are opened as the larger page that tables use.
const char* guessPage(const Sample& sample) {
    static constexpr const char* kAccepted[][2] = {
        {"IBM855", "CP855"},    {"IBM866", "CP866"}, {"WINDOWS-1251", "CP1251"},
        {"KOI8-R", "KOI8-R"},   {"IBM852", "CP852"}, {"SHIFT_JIS", "CP932"},
        {"GB18030", "GB18030"}, {"BIG5", "CP950"},   {"EUC-KR", "CP949"},
        {"UHC", "CP949"}};
    if (sample.highBytes < kGuessFrom) return nullptr;
    const std::unique_ptr<uchardet, decltype(&uchardet_delete)> detector(uchardet_new(),
                                                                         uchardet_delete);
    uchardet_handle_data(detector.get(), sample.texts.data(), sample.texts.size());
    uchardet_data_end(detector.get());
    const std::string answer = upperAscii(uchardet_get_charset(detector.get()));
    for (const auto& [name, page] : kAccepted) {
        if (answer == name) return page;
    }
    return nullptr;
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
    if (page == nullptr) notes->push_back("language driver \"" + driver + "\" is not known");
    if (isThaiDriver(driver)) {
        notes->push_back("language driver \"" + driver +
                         "\" names a page without Thai letters; --code-page CP874 shows them");
    }
    return page;
}

void decide(PageChoice* choice, const char* page, std::string from, bool uncertain = false) {
    choice->page = openPage(page);
    choice->from = std::move(from);
    choice->uncertain = uncertain;
}

/// What a mark of 00 or 57 leaves open. driver: the page of the driver, if there is one.
void decideByTexts(DbfBase* h, PageChoice* choice, const char* driver, const std::string& name) {
    const Sample sample = Sampler(h).take();
    const bool ansi = choice->mark == kAnsiMark;
    const bool high = sample.highBytes != 0;
    if (sample.isUtf8()) return decide(choice, "UTF-8", "UTF-8 text");
    if (driver != nullptr) return decide(choice, driver, "driver " + name);
    if (ansi) return decide(choice, "CP1252", "mark 0x57", high);
    if (const char* guess = guessPage(sample)) return decide(choice, guess, "guess", true);
    decide(choice, isVisualFoxPro(h) ? "CP1252" : "CP437", "default", high);
}

}  // namespace

PageChoice choosePage(DbfBase* h, std::string_view option) {
    PageChoice choice;
    choice.mark = h->Header.Rest[kMarkPlace];
    if (!option.empty()) {
        choice.from = "--code-page";
        choice.page = openPage(option);
        if (!choice.page) {
            choice.notes.push_back("code page \"" + std::string(option) + "\" is not known");
        }
        return choice;
    }
    if (takeCpg(h, &choice)) return choice;
    const char* marked = pageOfMark(choice.mark);
    if (marked != nullptr && choice.mark != kAnsiMark) {
        decide(&choice, marked, "mark " + hexByte(choice.mark));
        return choice;
    }
    if (marked == nullptr && choice.mark != 0) {
        choice.notes.push_back("code-page mark " + hexByte(choice.mark) + " is not known");
    }
    const std::string driver = marked == nullptr ? driverOf(h) : "";
    decideByTexts(h, &choice, driverPage(driver, &choice.notes), driver);
    return choice;
}

}  // namespace mira::tool
