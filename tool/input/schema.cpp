#include "input/schema.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>

#include "tables/change/append.h"
#include "tables/page/refusal.h"
#include "tables/store/store.h"
#include "terminal/message.h"
#include "terminal/progress.h"
#include "terminal/status.h"

namespace mira::tool {
namespace {

constexpr u32 kVersionPlace = 0, kLengthPlace = 8, kFlagsPlace = 28, kMarkPlace = 29;
constexpr u8 kVisualVersion = 0x30, kLevel7Version = 0x04;
constexpr u8 kCountingVersion = 0x31, kVariableVersion = 0x32;  // of Visual FoxPro
constexpr u8 kMemoFlag = 2;  // header byte 28; 1 is an index file, 4 a database container
constexpr u32 kDescriptor = 32, kDecimalsPlace = 17,
              kFieldFlagsPlace = 18;  // next value and step follow the flags

constexpr unsigned kNameLength = 10, kNameLength7 = 31;
constexpr unsigned kTextMost = 254;        // what every program reads
constexpr unsigned kWideTextMost = 65000;  // with the decimals for a second byte of length
constexpr unsigned kNumberMost = 20, kDigitsMost = 18, kDecimalsMost = 15;

/// What a field of a type is in a kind of table.
struct TypeRow {
    char type;
    std::string_view kinds;  ///< "3" dBase III, "4" dBase IV, "f" FoxPro, "v" Visual, "s" SMT, "7";
                             ///< first "m" where it refers to memos
    unsigned length;         ///< fixed; 0 for one that the user gives
};
constexpr TypeRow kTypes[] = {{'C', "34fvs7", 0},  {'N', "34fvs7", 0}, {'F', "4fvs7", 0},
                              {'D', "34fvs7", 8},  {'L', "34fvs7", 1}, {'M', "m34fvs7", 10},
                              {'G', "m4fvs7", 10}, {'B', "m47s", 10},  {'B', "v", 8},
                              {'V', "v", 0},       {'Q', "v", 0},      {'W', "mv", 4},
                              {'I', "v7", 4},      {'Y', "v", 8},      {'T', "v", 8},
                              {'+', "7", 4},       {'O', "7", 8},      {'@', "7", 8}};

constexpr std::string_view kKindLetters = "3f4vs..7";  // by the library's numbers

/// The row of a type, of whatever kind; null for a type that no field is made of.
const TypeRow* typeRow(char type) {
    const auto* const row = std::find_if(std::begin(kTypes), std::end(kTypes),
                                         [type](const TypeRow& r) { return r.type == type; });
    return row != std::end(kTypes) ? row : nullptr;
}

const TypeRow* typeRow(char type, TableKind kind) {
    const char letter = kKindLetters[static_cast<std::size_t>(kind)];
    for (const TypeRow& row : kTypes) {
        if (row.type == type && row.kinds.find(letter) != std::string_view::npos) return &row;
    }
    return nullptr;
}

/// Words behind a type, and what they set.
constexpr std::pair<std::string_view, u8> kFlagWords[] = {
    {"NULL", kNullable}, {"BINARY", kBinary}, {"AUTOINC", kCounting | kBinary}};

bool isNumberType(char type) { return type == 'N' || type == 'F'; }
bool isVariableType(char type) { return type == 'V' || type == 'Q'; }

/// A field in the text of a schema.
struct Part {
    std::string_view text;
    const char* option;

    [[noreturn]] void fail(const std::string& why) const {
        refuse(option, ": \"", trimmed(text), "\": ", why);
    }
};

// ---------------------------------------------------------------------------------------------
// As the user writes them
// ---------------------------------------------------------------------------------------------

/// The parts between commas that are neither in parentheses nor in quotes.
std::vector<std::string_view> partsOf(std::string_view text) {
    std::vector<std::string_view> parts;
    int depth = 0;
    bool quoted = false;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        const char c = i < text.size() ? text[i] : ',';
        if (c == '"') quoted = !quoted;
        if (c == '(') ++depth;
        if (c == ')') --depth;
        if (i < text.size() && (c != ',' || depth > 0 || quoted)) continue;
        if (!trimmed(text.substr(start, i - start)).empty()) {
            parts.push_back(text.substr(start, i - start));
        }
        start = i + 1;
    }
    return parts;
}

/// The name in front, in double quotes or without blanks; what follows it stays.
std::string takeName(std::string_view* text, const Part& part) {
    const bool quoted = text->starts_with('"');
    const std::size_t end = quoted ? text->find('"', 1) : text->find_first_of(" \t");
    if (end == std::string_view::npos || end + 1 >= text->size()) {
        part.fail("NAME TYPE, such as PRICE N(10,2)");
    }
    std::string name(text->substr(quoted ? 1 : 0, quoted ? end - 1 : end));
    *text = trimmed(text->substr(end + 1));
    if (name.empty() || text->empty()) part.fail("NAME TYPE, such as PRICE N(10,2)");
    return name;
}

unsigned takeSize(std::string_view* text, const Part& part) {
    *text = trimmed(*text);
    unsigned size = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), size);
    if (error != std::errc{}) part.fail("no size where one is wanted, such as C(20)");
    text->remove_prefix(static_cast<std::size_t>(end - text->data()));
    *text = trimmed(*text);
    return size;
}

/// ["(" length ["," decimals] ")"]; what follows stays.
void takeSizes(std::string_view* text, const Part& part, FieldPlan* field) {
    *text = trimmed(*text);
    if (!text->starts_with('(')) return;
    const std::size_t end = text->find(')');
    if (end == std::string_view::npos) part.fail("NAME TYPE(LENGTH,DECIMALS)");
    std::string_view sizes = text->substr(1, end - 1);
    text->remove_prefix(end + 1);
    field->length = takeSize(&sizes, part);
    if (sizes.starts_with(',')) {
        sizes.remove_prefix(1);
        field->decimals = takeSize(&sizes, part);
    }
    if (!sizes.empty()) part.fail("NAME TYPE(LENGTH,DECIMALS)");
}

/// NULL, BINARY, AUTOINC
void takeFlags(std::string_view text, const Part& part, TableKind kind, FieldPlan* field) {
    while (!(text = trimmed(text)).empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        const auto* const row =
            std::find_if(std::begin(kFlagWords), std::end(kFlagWords),
                         [&](const auto& known) { return upperAscii(word) == known.first; });
        if (row == std::end(kFlagWords)) part.fail("NAME TYPE(LENGTH,DECIMALS)");
        if (kind != TableKind::Visual) part.fail(textOf("only Visual FoxPro has ", row->first));
        if (row->second == kBinary && std::strchr("CVM", field->type) == nullptr) {
            part.fail("only C, V and M can be BINARY");
        }
        if ((row->second & kCounting) != 0 && field->type != 'I')
            part.fail("only I can be AUTOINC");
        field->flags |= row->second;
        text.remove_prefix(word.size());
    }
}

unsigned lengthMost(char type, TableKind kind) {
    if (isNumberType(type)) return kNumberMost;
    const bool wide = kind == TableKind::DBase3 || kind == TableKind::FoxPro;
    return wide ? kWideTextMost : kTextMost;
}

void checkSizes(const Part& part, TableKind kind, const TypeRow& row, FieldPlan* field) {
    if (row.length != 0) {
        // What stands in parentheses after a double are the decimals that are shown.
        const bool isDouble = kind == TableKind::Visual && field->type == 'B';
        field->decimals = isDouble             ? std::min(field->length, kDecimalsMost)
                          : field->type == 'Y' ? kCurrencyDecimals
                                               : 0;
        field->length = row.length;
        return;
    }
    const unsigned most = lengthMost(field->type, kind);
    if (field->length < 1 || field->length > most) {
        part.fail(textOf("the length is 1 to ", most));
    }
    if (!isNumberType(field->type) && field->decimals != 0) part.fail("a text has no decimals");
    // A point, and before it at least room for a sign or digit, or nothing but the decimals.
    if (field->decimals != 0 && field->decimals + 1 > field->length) {
        part.fail("decimals and point do not fit the length");
    }
}

FieldPlan fieldOf(const Part& part, TableKind kind, const CodePage& page) {
    std::string_view text = trimmed(part.text);
    FieldPlan field;
    field.name = takeName(&text, part);
    field.type = upperAscii(text.substr(0, 1))[0];
    const TypeRow* row = typeRow(field.type, kind);
    if (row == nullptr) {
        part.fail(textOf("this kind of table has no fields of type ", text.substr(0, 1)));
    }
    text.remove_prefix(1);
    takeSizes(&text, part, &field);
    takeFlags(text, part, kind, &field);
    checkSizes(part, kind, *row, &field);
    if (!isNameShort(field.name, kind, page)) {
        part.fail(textOf("a name has at most ", nameLimit(kind), " bytes"));
    }
    return field;
}

// ---------------------------------------------------------------------------------------------
// As the values suggest them
// ---------------------------------------------------------------------------------------------

/// How dates are written elsewhere; the first that all values are in is named.
constexpr const char* kForeignDates[] = {"DD.MM.YYYY", "DD/MM/YYYY", "MM/DD/YYYY"};

/// What all values of a column have in common.
struct Common {
    bool any = false;
    bool number = true, date = true, logical = true, base64 = true;
    bool comma = true;       ///< numbers with a decimal comma
    unsigned foreign = ~0U;  ///< a bit for each of kForeignDates that all are in
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

/// Whether numbers and dates could be meant that the notation does not know.
void addForeign(std::string_view text, std::string* scratch, Common* common) {
    static const Notation comma = notationOf(",", "");
    common->comma = common->comma && text.find(',') != std::string_view::npos &&
                    plainNumber(comma, text, *scratch).has_value();
    if (common->date) return;  // as they are exported
    for (std::size_t i = 0; i < std::size(kForeignDates); ++i) {
        const unsigned bit = 1U << i;
        if ((common->foreign & bit) == 0) continue;
        if (!isDate(plainDate({'.', kForeignDates[i]}, text, *scratch))) common->foreign &= ~bit;
    }
}

void tellForeign(const FieldPlan& field, const Common& common) {
    if (field.type != 'C' || !common.any) return;
    if (common.comma) note("{}: numbers with a comma? --decimal , reads them", field.name);
    for (std::size_t i = 0; i < std::size(kForeignDates); ++i) {
        if ((common.foreign >> i & 1U) == 0) continue;
        return note("{0}: dates? --date-format {1} reads them", field.name, kForeignDates[i]);
    }
}

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
    addForeign(text, scratch, common);
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

/// Bits that the null flags of these fields have.
unsigned nullBits(const std::vector<FieldPlan>& fields) {
    unsigned bits = 0;
    for (const FieldPlan& field : fields) {
        if (isVariableType(field.type)) ++bits;
        if ((field.flags & kNullable) != 0) ++bits;
    }
    return bits;
}

/// Version and the flags of the fields.
void finishVisual(const Target& target, const std::vector<FieldPlan>& fields) {
    u8 version = kVisualVersion;
    u32 descriptor = kDescriptor;  // the fixed header is as long
    for (const FieldPlan& field : fields) {
        const bool counting = (field.flags & kCounting) != 0;
        if (counting) version = std::max(version, kCountingVersion);
        if (isVariableType(field.type) || field.type == 'W') version = kVariableVersion;
        const u8 decimals = field.type == 'Y' ? kCurrencyDecimals : 0;
        if (decimals != 0) patch(target, descriptor + kDecimalsPlace, &decimals, 1);
        patch(target, descriptor + kFieldFlagsPlace, &field.flags, 1);
        if (counting) patch(target, descriptor + kFieldFlagsPlace + 1, "\1\0\0\0\1", 5);
        descriptor += kDescriptor;
    }
    patch(target, kVersionPlace, &version, 1);
}

/// What holds the values of a type where a kind of table has no such fields: the first that it has.
struct Counterpart {
    char type;
    std::string_view instead;
    unsigned length, decimals;  ///< of a field of characters or digits; 0: as it was
};
constexpr Counterpart kCounterparts[] = {
    {'F', "N", 0, 0},  {'V', "C", 0, 0},  {'Q', "GM", 0, 0},  {'W', "GM", 0, 0}, {'P', "GM", 0, 0},
    {'G', "M", 0, 0},  {'B', "GM", 0, 0}, {'C', "M", 0, 0},   {'I', "N", 11, 0}, {'+', "N", 11, 0},
    {'Y', "N", 20, 4}, {'O', "N", 20, 4}, {'T', "@C", 23, 0}, {'@', "TC", 23, 0}};

}  // namespace

std::size_t nameLimit(TableKind kind) {
    return kind == TableKind::Level7 ? kNameLength7 : kNameLength;
}

bool isNameShort(const std::string& name, TableKind kind, const CodePage& page) {
    std::string bytes;
    return !fromUtf8(page, name, bytes) || bytes.size() <= nameLimit(kind);
}

bool isMemoType(char type, TableKind kind) {
    const TypeRow* const own = typeRow(type, kind);
    const TypeRow* const row = own != nullptr ? own : typeRow(type);
    return row != nullptr && row->kinds.front() == 'm';
}

std::vector<FieldPlan> parseSchema(std::string_view text, TableKind kind, const CodePage& page,
                                   const char* option) {
    std::vector<FieldPlan> fields;
    std::set<std::string> names;
    for (const std::string_view piece : partsOf(text)) {
        const Part part{piece, option};
        fields.push_back(fieldOf(part, kind, page));
        if (!names.insert(foldCase(fields.back().name)).second) part.fail("the name is taken");
    }
    if (fields.empty()) Part{text, option}.fail("no fields");
    return fields;
}

std::string schemaText(const std::vector<FieldPlan>& fields) {
    std::vector<std::string> fieldTexts;
    for (const FieldPlan& field : fields) {
        const bool quoted = field.name.find_first_of(" \t,()") != std::string::npos;
        const char* const quote = quoted ? "\"" : "";
        // Only the decimals of a double are shown: its length is always the same.
        const bool isDouble = field.type == 'B' && field.length == 8;
        const TypeRow* const row = typeRow(field.type);
        const bool sized = row == nullptr || row->length == 0;
        std::string text = textOf(
            quote, field.name, quote, ' ',
            isDouble ? typeLabel(field.type, field.decimals, 0)
                     : typeLabel(field.type, sized ? field.length : 0, sized ? field.decimals : 0));
        u8 left = field.flags;
        if ((left & kCounting) != 0) left &= static_cast<u8>(~kBinary);
        for (const auto& [word, flags] : kFlagWords) {
            const u8 own = flags == kBinary ? kBinary : flags & static_cast<u8>(~kBinary);
            if ((left & own) != 0) (text += ' ') += word;
        }
        fieldTexts.push_back(text);
    }
    return joined(fieldTexts);
}

FieldPlan planOf(const Column& column) {
    u8 flags = column.flags & (kNullable | kCounting);
    if (column.untranslated) flags |= kBinary;
    return {column.name, column.type, column.length, column.decimals, flags};
}

std::optional<FieldPlan> counterpartOf(const FieldPlan& field, TableKind from, TableKind to) {
    const bool isDouble =
        field.type == 'O' || (field.type == 'B' && from == TableKind::Visual && field.length == 8);
    const bool counts = field.type == '+' || (field.flags & kCounting) != 0;
    FieldPlan other = field;
    if (to != TableKind::Visual) other.flags = 0;
    if (counts && to == TableKind::Level7) other.type = '+';
    if (counts && to == TableKind::Visual) other.flags = kCounting | kBinary;
    if (counts && to == TableKind::Visual) other.type = 'I';
    if (isDouble) other.type = to == TableKind::Visual ? 'B' : 'O';
    const bool wide = field.type == 'C' && field.length > lengthMost('C', to);
    const bool memoInB = other.type == 'B' && !isDouble && to == TableKind::Visual;
    if (const TypeRow* const own = typeRow(other.type, to); own != nullptr && !wide && !memoInB) {
        if (own->length != 0) other.length = own->length;
        return other;
    }
    for (const Counterpart& row : kCounterparts) {
        if (row.type != other.type) continue;
        for (const char instead : row.instead) {
            const TypeRow* const known = typeRow(instead, to);
            if (known == nullptr) continue;
            const bool sized = known->length == 0 && row.length != 0;
            other.type = instead;
            other.length = known->length != 0 ? known->length : sized ? row.length : other.length;
            if (sized) other.decimals = row.decimals;
            return other;
        }
    }
    return std::nullopt;
}

std::vector<FieldPlan> inferFields(CsvReader& csv, const std::vector<std::string>& headings,
                                   const Notation& notation, TableKind kind, const CodePage& page) {
    std::vector<Common> columns(headings.size());
    CsvRow row;
    std::string scratch;
    Progress progress(csv.name(), csv.countLines());
    csv.next(row);  // the headings
    while (csv.next(row)) {
        leaveIfStopped();
        progress.add(1);
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
        tellForeign(fields.back(), columns[i]);
    }
    return fields;
}

void makeTable(const Target& target, const std::vector<FieldPlan>& fields, TableKind kind,
               const CodePage& page, u32 blockSize) {
    const unsigned bits = kind == TableKind::Visual ? nullBits(fields) : 0;
    std::vector<FieldPlan> all = fields;
    if (bits != 0) all.push_back({"_NullFlags", '0', (bits + 7) / 8, 0, kSystem | kBinary});
    const auto made = std::make_unique<DbfField[]>(all.size());
    bool memos = false;
    for (std::size_t i = 0; i < all.size(); ++i) {
        std::string name;
        if (!fromUtf8(page, all[i].name, name)) {
            refuse("code page ", pageName(page), " lacks letters of the name ", all[i].name);
        }
        CreateField(&made[i], name.c_str(), all[i].type, static_cast<int>(all[i].length));
        if (all[i].type != 'C') made[i].Decimals = static_cast<u8>(all[i].decimals);
        memos = memos || isMemoType(all[i].type, kind);
    }
    if (CreateDatabase(target.path.c_str(), made.get(), static_cast<int>(all.size()),
                       static_cast<u32>(kind), blockSize, 1) == 0) {
        refuse(target.name, ": cannot be written, or the fields are more than a table holds");
    }
    if (kind == TableKind::Level7) lengthenHeader(target);
    // The library marks tables without memos as plain ones, and Visual FoxPro's as having an index.
    if (kind == TableKind::Visual) finishVisual(target, all);
    if (!memos && kind == TableKind::Level7) patch(target, kVersionPlace, &kLevel7Version, 1);
    const u8 flags = memos && kind == TableKind::Visual ? kMemoFlag : 0;
    const u8 bytes[] = {flags, markOf(page)};
    static_assert(kMarkPlace == kFlagsPlace + 1);
    patch(target, kFlagsPlace, bytes, sizeof bytes);
}

u8 markToKeep(const Table& like) {
    const PageChoice& page = like.page;
    return page.from == "--code-page" || page.from == ".cpg" ? markOf(*page.page) : u8{0};
}

void makeLike(const Target& target, const Table& like, u8 mark, u32 blockSize) {
    std::string image = emptyHead(like);
    if (mark != 0) image[kMarkPlace] = static_cast<char>(mark);
    File file(std::fopen(target.path.c_str(), "wbx"));
    if (!file ||
        WriteFile(file.get(), image.data(), static_cast<i32>(image.size())) != image.size() ||
        std::fclose(file.release()) != 0) {
        refuse(target.name, ": cannot be written");
    }
    if (memoFileOf(like).empty()) return;
    const u32 unit = blockSize != 0 ? blockSize : GetBlockSize(like.base.get());
    if (CreateMemoFile(target.path.c_str(), GetMemoType(like.base.get()), unit) == 0) {
        refuse(target.name, ": its memo file cannot be written");
    }
}

}  // namespace mira::tool
