#include "input/schema.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "tables/page/refusal.h"
#include "tables/store/store.h"

namespace mira::tool {
namespace {

constexpr u32 kVersionPlace = 0, kLengthPlace = 8, kFlagsPlace = 28, kMarkPlace = 29;
constexpr u8 kVisualVersion = 0x30, kLevel7Version = 0x04;
constexpr u8 kMemoFlag = 2;     // header byte 28; 1 is an index file, 4 a database container
constexpr u32 kWorkPlace = 12;  // header bytes 12 to 15: a transaction under way, encryption
constexpr u32 kBackLink = 263;  // bytes before the records of a Visual FoxPro table
constexpr char kTerminator = 0x0D;

constexpr unsigned kNameLength = 10, kNameLength7 = 31;
constexpr unsigned kTextMost = 254;        // what every program reads
constexpr unsigned kWideTextMost = 65000;  // with the decimals for a second byte of length
constexpr unsigned kNumberMost = 20, kDigitsMost = 18, kDecimalsMost = 15;

/// What a field of a type is in a kind of table.
struct TypeRow {
    char type;
    std::string_view kinds;  ///< "3" dBase III, "4" dBase IV, "f" FoxPro, "v" Visual, "s" SMT, "7"
    unsigned length;         ///< fixed; 0 for one that the user gives
};
constexpr TypeRow kTypes[] = {{'C', "34fvs7", 0}, {'N', "34fvs7", 0}, {'F', "4fvs7", 0},
                              {'D', "34fvs7", 8}, {'L', "34fvs7", 1}, {'M', "34fvs7", 10},
                              {'G', "4fvs7", 10}, {'B', "47s", 10},   {'B', "v", 8},
                              {'I', "v7", 4},     {'Y', "v", 8},      {'T', "v", 8},
                              {'+', "7", 4},      {'O', "7", 8},      {'@', "7", 8}};

constexpr std::string_view kKindLetters = "3f4vs..7";  // by the library's numbers

const TypeRow* typeRow(char type, TableKind kind) {
    const char letter = kKindLetters[static_cast<std::size_t>(kind)];
    for (const TypeRow& row : kTypes) {
        if (row.type == type && row.kinds.find(letter) != std::string_view::npos) return &row;
    }
    return nullptr;
}

std::size_t nameLimit(TableKind kind) {
    return kind == TableKind::Level7 ? kNameLength7 : kNameLength;
}

bool sizedType(char type) { return type == 'C' || type == 'N' || type == 'F'; }

[[noreturn]] void refusePart(std::string_view part, const std::string& why) {
    refuse("--schema: \"", trimmed(part), "\": ", why);
}

// ---------------------------------------------------------------------------------------------
// As the user writes them
// ---------------------------------------------------------------------------------------------

/// The parts between commas that are not in parentheses.
std::vector<std::string_view> partsOf(std::string_view text) {
    std::vector<std::string_view> parts;
    int depth = 0;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] == '(') ++depth;
        if (i < text.size() && text[i] == ')') --depth;
        if (i < text.size() && (text[i] != ',' || depth > 0)) continue;
        if (!trimmed(text.substr(start, i - start)).empty()) {
            parts.push_back(text.substr(start, i - start));
        }
        start = i + 1;
    }
    return parts;
}

unsigned takeSize(std::string_view* text, std::string_view part) {
    *text = trimmed(*text);
    unsigned size = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), size);
    if (error != std::errc{}) refusePart(part, "no size where one is wanted, such as C(20)");
    text->remove_prefix(static_cast<std::size_t>(end - text->data()));
    *text = trimmed(*text);
    return size;
}

/// ["(" length ["," decimals] ")"]
void takeSizes(std::string_view rest, std::string_view part, FieldPlan* field) {
    if (rest.empty()) return;
    if (rest.front() != '(' || rest.back() != ')') refusePart(part, "NAME TYPE(LENGTH,DECIMALS)");
    rest = rest.substr(1, rest.size() - 2);
    field->length = takeSize(&rest, part);
    if (rest.starts_with(',')) {
        rest.remove_prefix(1);
        field->decimals = takeSize(&rest, part);
    }
    if (!rest.empty()) refusePart(part, "NAME TYPE(LENGTH,DECIMALS)");
}

void checkSizes(std::string_view part, TableKind kind, const TypeRow& row, FieldPlan* field) {
    if (row.length != 0) {
        // What stands in parentheses after a double are the decimals that are shown.
        const bool isDouble = kind == TableKind::Visual && field->type == 'B';
        field->decimals = isDouble ? std::min(field->length, kDecimalsMost) : 0;
        field->length = row.length;
        return;
    }
    const bool wide = kind == TableKind::DBase3 || kind == TableKind::FoxPro;
    const unsigned most = field->type != 'C' ? kNumberMost : wide ? kWideTextMost : kTextMost;
    if (field->length < 1 || field->length > most) {
        refusePart(part, textOf("the length is 1 to ", most));
    }
    if (field->type == 'C' && field->decimals != 0) refusePart(part, "a text has no decimals");
    // A point, and before it at least room for a sign or digit, or nothing but the decimals.
    if (field->decimals != 0 && field->decimals + 1 > field->length) {
        refusePart(part, "decimals and point do not fit the length");
    }
}

FieldPlan fieldOf(std::string_view part, TableKind kind) {
    const std::string_view text = trimmed(part);
    const std::size_t blank = text.find_first_of(" \t");
    if (blank == std::string_view::npos) refusePart(part, "NAME TYPE, such as PRICE N(10,2)");
    const std::string_view rest = trimmed(text.substr(blank));
    FieldPlan field;
    field.name = text.substr(0, blank);
    field.type = upperAscii(rest.substr(0, 1))[0];
    const TypeRow* row = typeRow(field.type, kind);
    if (row == nullptr) {
        refusePart(part, textOf("this kind of table has no fields of type ", rest.substr(0, 1)));
    }
    takeSizes(trimmed(rest.substr(1)), part, &field);
    checkSizes(part, kind, *row, &field);
    if (field.name.size() > nameLimit(kind)) {
        refusePart(part, textOf("a name has at most ", nameLimit(kind), " bytes"));
    }
    return field;
}

// ---------------------------------------------------------------------------------------------
// As the values suggest them
// ---------------------------------------------------------------------------------------------

/// What all values of a column have in common.
struct Common {
    bool any = false;
    bool number = true, date = true, logical = true, base64 = true;
    bool negative = false;
    std::size_t digits = 1, decimals = 0;  ///< before and after the point
    std::size_t width = 1;                 ///< bytes in the table's page
};

/// ["-"] digits without leading zeros ["." digits]: what a number field gives back as it came.
bool addNumber(std::string_view text, Common* common) {
    const bool negative = text.starts_with('-');
    if (negative) text.remove_prefix(1);
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    const std::string_view rest = point == std::string_view::npos ? "" : text.substr(point + 1);
    if (whole.empty() || !areDigits(whole) || !areDigits(rest)) return false;
    if (point != std::string_view::npos && rest.empty()) return false;
    if (whole.size() > 1 && whole.front() == '0') return false;
    common->negative |= negative;
    common->digits = std::max(common->digits, whole.size());
    common->decimals = std::max(common->decimals, rest.size());
    return common->digits + common->decimals <= kDigitsMost && common->decimals <= kDecimalsMost;
}

bool isDate(std::string_view text) { return text.size() == 10 && readMoment(text); }

void addValue(std::string_view text, const Notation& notation, const CodePage& page,
              std::string* scratch, Common* common) {
    if (text.empty()) return;
    common->any = true;
    const auto number = plainNumber(notation, text, *scratch);
    common->number = common->number && number && addNumber(*number, common);
    common->date = common->date && isDate(plainDate(notation, text, *scratch));
    common->logical = common->logical && (sameText(text, "true") || sameText(text, "false"));
    common->base64 = common->base64 && text.starts_with(kBase64) &&
                     decodeBase64(text.substr(kBase64.size())).has_value();
    scratch->clear();
    // What the page lacks is told later; until then its UTF-8 gives the width.
    const bool known = fromUtf8(page, text, *scratch);
    common->width = std::max(common->width, known ? scratch->size() : text.size());
}

FieldPlan fieldFor(const Common& common) {
    FieldPlan field;
    field.length = static_cast<unsigned>(common.width);
    if (!common.any) return field;
    if (common.logical) {
        field.type = 'L';
        field.length = 1;
    } else if (common.number) {
        field.type = 'N';
        field.decimals = static_cast<unsigned>(common.decimals);
        field.length = static_cast<unsigned>((common.negative ? 1 : 0) + common.digits +
                                             (common.decimals != 0 ? 1 + common.decimals : 0));
    } else if (common.date) {
        field.type = 'D';
        field.length = 8;
    } else if (common.base64 || common.width > kTextMost) {
        field.type = 'M';
        field.length = 10;
    }
    return field;
}

/// A heading as a name that every program takes: capital letters, digits, "_".
std::string plainName(std::string_view heading, std::size_t limit, std::size_t number) {
    std::string name;
    for (const char c : upperAscii(heading)) {
        const bool letter = (c >= 'A' && c <= 'Z') || isDigit(c);
        // Of a character of several bytes one "_" is left.
        if ((static_cast<u8>(c) & 0xC0) == 0x80) continue;
        name += letter ? c : '_';
    }
    if (name.find_first_not_of('_') == std::string::npos) name = textOf("FIELD_", number);
    if (isDigit(name[0])) name = "F" + name;
    return name.substr(0, limit);
}

std::string uniqueName(const std::string& name, std::size_t limit, std::set<std::string>* taken) {
    std::string unique = name;
    for (int n = 2; !taken->insert(unique).second; ++n) {
        const std::string tail = textOf('_', n);
        unique = name.substr(0, limit - tail.size()) + tail;
    }
    return unique;
}

// ---------------------------------------------------------------------------------------------
// Files
// ---------------------------------------------------------------------------------------------

/// Changes bytes at the beginning of a file.
void patch(const Target& target, u32 place, const void* bytes, u32 count) {
    const File file(Open_File(target.path.c_str()));
    if (!file || !writeFileAt(file.get(), place, bytes, count)) {
        refuse(target.name, ": cannot be written");
    }
}

/// A level-7 table of one field and no record is shorter than what tells its level: its header is
/// made longer.
void lengthenHeader(const Target& target) {
    constexpr u32 kTold = 128;
    std::error_code ignored;
    if (std::filesystem::file_size(target.path, ignored) >= kTold) return;
    const u8 length[] = {kTold, 0};
    const std::string zeros(kTold, '\0');
    const auto size = static_cast<u32>(std::filesystem::file_size(target.path, ignored));
    patch(target, size, zeros.data(), kTold - size);
    patch(target, kLengthPlace, length, sizeof length);
}

bool isMemoType(char type, TableKind kind) {
    return type == 'M' || type == 'G' || (type == 'B' && kind != TableKind::Visual);
}

}  // namespace

std::vector<FieldPlan> parseSchema(std::string_view text, TableKind kind) {
    std::vector<FieldPlan> fields;
    std::set<std::string> names;
    for (const std::string_view part : partsOf(text)) {
        fields.push_back(fieldOf(part, kind));
        if (!names.insert(foldCase(fields.back().name)).second)
            refusePart(part, "the name is taken");
    }
    if (fields.empty()) refusePart(text, "no fields");
    return fields;
}

std::string schemaText(const std::vector<FieldPlan>& fields) {
    std::vector<std::string> fieldTexts;
    for (const FieldPlan& field : fields) {
        const u32 length = sizedType(field.type) ? field.length : 0;
        fieldTexts.push_back(
            textOf(field.name, ' ', typeLabel(field.type, length, field.decimals)));
    }
    return joined(fieldTexts);
}

std::vector<FieldPlan> inferFields(CsvReader& csv, const std::vector<std::string>& headings,
                                   const Notation& notation, TableKind kind, const CodePage& page) {
    std::vector<Common> columns(headings.size());
    CsvRow row;
    std::string scratch;
    while (csv.next(row)) {
        for (std::size_t i = 0; i < std::min(row.cells.size(), columns.size()); ++i) {
            addValue(row.cells[i].text, notation, page, &scratch, &columns[i]);
        }
    }
    std::vector<FieldPlan> fields;
    std::set<std::string> taken;
    const std::size_t limit = nameLimit(kind);
    for (std::size_t i = 0; i < headings.size(); ++i) {
        fields.push_back(fieldFor(columns[i]));
        fields.back().name = uniqueName(plainName(headings[i], limit, i + 1), limit, &taken);
    }
    return fields;
}

void makeTable(const Target& target, const std::vector<FieldPlan>& fields, TableKind kind,
               const CodePage& page, u32 blockSize) {
    const auto made = std::make_unique<DbfField[]>(fields.size());
    bool memos = false;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        std::string name;
        if (!fromUtf8(page, fields[i].name, name)) {
            refuse("code page ", pageName(page), " lacks letters of the name ", fields[i].name);
        }
        CreateField(&made[i], name.c_str(), fields[i].type, static_cast<int>(fields[i].length));
        if (fields[i].type != 'C') made[i].Decimals = static_cast<u8>(fields[i].decimals);
        memos = memos || isMemoType(fields[i].type, kind);
    }
    if (CreateDatabase(target.path.c_str(), made.get(), static_cast<int>(fields.size()),
                       static_cast<u32>(kind), blockSize, 1) == 0) {
        refuse(target.name, ": cannot be written, or the fields are more than a table holds");
    }
    if (kind == TableKind::Level7) lengthenHeader(target);
    // The library marks tables without memos as plain ones, and Visual FoxPro's as having an index.
    if (!memos && kind == TableKind::Visual) patch(target, kVersionPlace, &kVisualVersion, 1);
    if (!memos && kind == TableKind::Level7) patch(target, kVersionPlace, &kLevel7Version, 1);
    const u8 flags = memos && kind == TableKind::Visual ? kMemoFlag : 0;
    const u8 bytes[] = {flags, markOf(page)};
    static_assert(kMarkPlace == kFlagsPlace + 1);
    patch(target, kFlagsPlace, bytes, sizeof bytes);
}

void makeLike(const Target& target, const Table& like, u8 mark, u32 blockSize) {
    const DbfBase& from = *like.base;
    std::string image(from.Header.HeaderLength, '\0');
    const u32 end = from.HeaderSize + from.DescriptorSize * from.FieldCount;
    if (from.FieldCount == 0 || end > image.size() ||
        readFileAt(from.TableFile, 0, image.data(), static_cast<u32>(image.size())) < end) {
        refuse(like.path, ": its structure cannot be copied");
    }
    const DbfHeader& header = from.Header;
    image[0] = static_cast<char>(header.Version);
    std::memset(&image[4], 0, 4);
    image[10] = static_cast<char>(header.RecordLength & 0xFF);
    image[11] = static_cast<char>(header.RecordLength >> 8);
    std::memset(&image[kWorkPlace], 0, 4);
    image[kFlagsPlace] = static_cast<char>(image[kFlagsPlace] & kMemoFlag);
    if (mark != 0) image[kMarkPlace] = static_cast<char>(mark);
    if (end < image.size()) image[end] = kTerminator;
    const bool linked = like.visual && image.size() >= end + 1 + kBackLink;
    if (linked) std::memset(&image[image.size() - kBackLink], 0, kBackLink);

    File file(std::fopen(target.path.c_str(), "wbx"));
    if (!file ||
        WriteFile(file.get(), image.data(), static_cast<i32>(image.size())) != image.size() ||
        std::fclose(file.release()) != 0) {
        refuse(target.name, ": cannot be written");
    }
    if (from.Level7 != 0) lengthenHeader(target);
    if (memoFileOf(like).empty()) return;
    const u32 unit = blockSize != 0 ? blockSize : GetBlockSize(like.base.get());
    if (CreateMemoFile(target.path.c_str(), GetMemoType(like.base.get()), unit) == 0) {
        refuse(target.name, ": its memo file cannot be written");
    }
}

}  // namespace mira::tool
