// What code pages are called. The table of marks is the only place that knows them.
#include "tables/page/pagenames.h"

#include <algorithm>
#include <charconv>

#include "tables/page/text.h"

namespace mira::tables {
namespace {

/// All marks of a page, ended by 0; the first one is written.
struct PageMarks {
    const char* page;
    u8 marks[20];
};

constexpr PageMarks kMarks[] = {
    {"CP437", {0x01, 0x09, 0x0B, 0x0D, 0x0F, 0x11, 0x15, 0x18, 0x19, 0x1B, 0x5E, 0x5F}},
    {"CP850", {0x02, 0x0A, 0x0C, 0x0E, 0x10, 0x12, 0x14, 0x16, 0x1A, 0x1D, 0x25, 0x37, 0x60, 0x9C}},
    {"CP1252", {0x03, 0x57, 0x58, 0x59, 0x61, 0x62}},
    {"MACINTOSH", {0x04}},
    {"CP865", {0x08, 0x17, 0x66}},
    {"CP932", {0x13, 0x56, 0x7B}},
    {"CP863", {0x1C, 0x6C}},
    {"CP852", {0x1F, 0x22, 0x23, 0x40, 0x64, 0x87}},
    {"CP860", {0x24}},
    {"CP866", {0x26, 0x65}},
    {"CP936", {0x4D, 0x7A}},
    {"CP949", {0x4E, 0x79}},
    {"CP950", {0x4F, 0x78}},
    {"CP874", {0x50, 0x7C}},
    {"CP861", {0x67}},
    {"895", {0x68, 0x20}},
    {"620", {0x69}},
    {"CP737", {0x6A, 0x86}},
    {"CP857", {0x6B, 0x88}},
    {"CP1255", {0x7D}},
    {"CP1256", {0x7E}},
    {"CP862", {0x85}},
    {"MAC-CYRILLIC", {0x96}},  // the C library's CP10007 has another letter at A2
    {"MAC-CENTRALEUROPE", {0x97}},
    {"10006", {0x98}},
    {"CP1250", {0x9B, 0xC8}},
    {"CP1251", {0xC9}},
    {"CP1254", {0xCA}},
    {"CP1253", {0xCB}},
    {"CP1257", {0xCC}},
    {"UTF-8", {0xF0}},
};

/// Other names of the same converters.
constexpr const char* kSamePages[][2] = {{"BIG5", "CP950"}, {"UHC", "CP949"}, {"GBK", "CP936"}};

/// A driver's name in upper case, or the beginning of one, where it ends in "*".
struct Driver {
    const char* name;
    const char* page;
};

constexpr Driver kDrivers[] = {
    {"DB867*", "895"},      {"DB437GR0", "CP737"},  {"GRCP437", "CP737"},   {"DB437*", "CP437"},
    {"DB850*", "CP850"},    {"DB852*", "CP852"},    {"DB857*", "CP857"},    {"DB860*", "CP860"},
    {"DB861*", "CP861"},    {"DB862*", "CP862"},    {"DB863*", "CP863"},    {"DB865*", "CP865"},
    {"DB866*", "CP866"},    {"DB874*", "CP874"},    {"DB932*", "CP932"},    {"DB936*", "CP936"},
    {"DB949*", "CP949"},    {"DB950*", "CP950"},    {"ANSISLOV", "CP1250"}, {"DBWIN*", "CP1252"},
    {"BLLT1*", "CP1252"},   {"ANSI*", "CP1252"},    {"DBHEBREW", "CP862"},  {"HEBREW", "CP862"},
    {"ANHEBREW", "CP1255"}, {"ANCYRR", "CP1251"},   {"ANCZECH", "CP1250"},  {"ANHUNDC", "CP1250"},
    {"ANPOLISH", "CP1250"}, {"ANGREEK1", "CP1253"}, {"ANTURK", "CP1254"},   {"BLWINAR0", "CP1256"},
    {"CYRR", "CP866"},      {"CZECH", "CP852"},     {"POLISH", "CP852"},    {"SLOVENE", "CP852"},
    {"HUN852DC", "CP852"},  {"CSKAMEN", "895"},     {"TURK", "CP857"},      {"ICELAND", "CP861"},
    {"NORDAN", "CP865"},    {"NORDAN40", "CP865"},  {"ASCII", "CP850"},     {"INTL850", "CP850"},
    {"INTL", "CP437"},      {"SPANISH", "CP437"},   {"SWEDFIN", "CP437"},   {"THAI", "CP437"},
    {"ANTHAI", "CP1252"},
};

/// Pages with a number or a name of their own, apart from the ranges that only get "CP" in front.
constexpr const char* kNamedPages[][2] = {
    {"65001", "UTF-8"},
    {"UTF8", "UTF-8"},
    {"UTF-8", "UTF-8"},
    {"10000", "MACINTOSH"},
    {"10007", "MAC-CYRILLIC"},
    {"10029", "MAC-CENTRALEUROPE"},
    {"10006", "10006"},
    {"MACGREEK", "10006"},
    {"620", "620"},
    {"MAZOVIA", "620"},
    {"895", "895"},
    {"KAMENICKY", "895"},
};

bool dropPrefix(std::string_view* text, std::string_view prefix) {
    if (!text->starts_with(prefix)) return false;
    text->remove_prefix(prefix.size());
    return true;
}

/// A text of digits as a number; -1 for anything else.
int wholeNumber(std::string_view text) {
    int value = -1;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc{} && stop == end && value >= 0 ? value : -1;
}

/// A page with "ANSI ", "OEM ", "CP", "IBM", "WINDOWS-", "MS" or nothing in front.
std::string numberedPage(std::string_view text) {
    for (const char* prefix : {"ANSI ", "OEM ", "CP", "IBM", "WINDOWS-", "MS"}) {
        if (dropPrefix(&text, prefix)) break;
    }
    for (const auto& [spelling, page] : kNamedPages) {
        if (text == spelling) return page;
    }
    const int number = wholeNumber(text);
    const bool known = (number >= 437 && number <= 950) || (number >= 1250 && number <= 1258);
    return known ? textOf("CP", number) : "";
}

/// ["ISO" ["-" | "_" | " "]] "8859" ["-" | "_" | " "] number
std::string isoPage(std::string_view text) {
    if (dropPrefix(&text, "ISO")) takeOneOf(&text, "-_ ");
    if (!dropPrefix(&text, "8859")) return "";
    takeOneOf(&text, "-_ ");
    const int part = wholeNumber(text);
    return part >= 1 && part <= 16 ? textOf("ISO-8859-", part) : "";
}

/// A name that may go to the C library: there "/" begins an option, and no name is the locale's.
bool isPlainName(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || isDigit(c) ||
               std::string_view("-_.:+()").find(c) != std::string_view::npos;
    });
}

}  // namespace

const char* pageOfMark(u8 mark) {
    for (const PageMarks& row : kMarks) {
        if (mark != 0 &&
            std::find(std::begin(row.marks), std::end(row.marks), mark) != std::end(row.marks)) {
            return row.page;
        }
    }
    return nullptr;
}

u8 markOfPage(std::string_view page) {
    for (const auto& [name, same] : kSamePages) {
        if (page == name) page = same;
    }
    for (const PageMarks& row : kMarks) {
        if (page == row.page) return row.marks[0];
    }
    return 0;
}

const char* pageOfDriver(std::string_view driver) {
    const std::string name = upperAscii(driver);
    for (const Driver& row : kDrivers) {
        std::string_view wanted = row.name;
        const bool beginning = wanted.ends_with('*');
        if (beginning) wanted.remove_suffix(1);
        if (beginning ? name.starts_with(wanted) : name == wanted) return row.page;
    }
    return nullptr;
}

bool isThaiDriver(std::string_view driver) {
    const std::string name = upperAscii(driver);
    return name == "DB437TH0" || name == "THAI" || name == "ANTHAI";
}

std::string pageOfSpelling(std::string_view spelling) {
    const std::string upper = upperAscii(trimmed(spelling, std::string_view(" \t\r\n\0", 5)));
    std::string_view text = upper;
    if (dropPrefix(&text, "LDID/")) {
        const int mark = wholeNumber(text);
        const char* page = mark <= 0xFF ? pageOfMark(static_cast<u8>(std::max(mark, 0))) : nullptr;
        return page != nullptr ? page : "";
    }
    if (std::string page = numberedPage(text); !page.empty()) return page;
    if (std::string page = isoPage(text); !page.empty()) return page;
    return isPlainName(text) ? std::string(text) : "";
}

}  // namespace mira::tables
