#include "arrow/quick.h"

#include <algorithm>
#include <array>
#include <bit>

#include "arrow/number.h"
#include "tables/page/codepage.h"
#include "tables/page/digits.h"
#include "tables/page/utf8.h"

namespace mira::arrow {
namespace {

using tables::Column;
using tables::kHigh;
using tables::Kind;
using tables::kOnes;
using tables::kZeros;
using tables::loadLe;
using tables::nonDigits;

constexpr u64 kBlanks = ' ' * kOnes;

/// Eight digits without their '0' as a number.
constexpr u64 numberOf(u64 digits) {
    digits = digits * 10 + (digits >> 8);
    constexpr u64 kPairs = 0x000000FF000000FF;
    return ((digits & kPairs) * (100 + (u64{1000000} << 32)) +
            ((digits >> 16) & kPairs) * (1 + (u64{10000} << 32))) >>
           32;
}

enum class Taken : u8 { Value, Null, Declined };

/// Stored digits of one layout: blanks, at most one minus, digits, in some columns a point before
/// the last of them. The point is left out by reading on both sides of it. Wide are those of more
/// than eight digits.
template <bool kFraction, bool kWide>
struct NumberLayout {
    NumberLayout(unsigned length, unsigned decimals)
        : place_(kFraction ? length - decimals - 1 : length),
          length_(length),
          shift_(8 * decimals),
          fraction_(kFraction ? ~u64{0} << (64 - shift_) : 0),
          upper_(kWide ? decimals + place_ - 8 : 0),
          others_(maskBefore(kWide ? 8 : decimals + place_)),
          upperOthers_(maskBefore(upper_)) {}

    /// Digits on both sides of the point, as a whole number.
    [[gnu::always_inline]] inline Taken read(const u8* at, u64& number, bool& negative) const {
        u64 low = loadLe<u64>(at + place_ - 8);
        if (kFraction) {
            if (at[place_] != '.') return isBlank(at) ? Taken::Null : Taken::Declined;
            low = (low >> shift_ & ~fraction_) | (loadLe<u64>(at + length_ - 8) & fraction_);
        }
        if (!kWide) return beginLow((low & ~others_) | (kBlanks & others_), number, negative);
        u64 high = loadLe<u64>(at + upper_ - 8);
        high = (high & ~upperOthers_) | (kBlanks & upperOthers_);
        if (high == kBlanks) return beginLow(low, number, negative);
        const Taken taken = begin(high, 64, number, negative);
        if (taken != Taken::Value || nonDigits(low ^ kZeros) != 0) return Taken::Declined;
        number = number * 100000000 + numberOf(low ^ kZeros);
        return Taken::Value;
    }

private:
    /// The lower bytes of a word whose last count are wanted.
    static u64 maskBefore(unsigned count) {
        return count == 0 ? ~u64{0} : count == 8 ? 0 : ~u64{0} >> (8 * count);
    }

    bool isBlank(const u8* at) const {
        for (unsigned i = 0; i < length_; ++i) {
            if (at[i] != ' ') return false;
        }
        return true;
    }

    /// All decimals are digits, and so is the last character of a whole number. A point between
    /// blanks is no blank.
    Taken beginLow(u64 word, u64& number, bool& negative) const {
        constexpr unsigned kLast = 56;
        const Taken taken = begin(word, kFraction ? 64 - shift_ : kLast, number, negative);
        return kFraction && taken == Taken::Null ? Taken::Declined : taken;
    }

    /// The word in which a number begins; its digits begin at bit last or before.
    static Taken begin(u64 word, unsigned last, u64& number, bool& negative) {
        const u64 others = word ^ kBlanks;
        if (others == 0) return Taken::Null;
        const unsigned first = static_cast<unsigned>(std::countr_zero(others)) & ~7U;
        negative = (word >> first & 0xFF) == '-';
        const unsigned sign = negative ? 8 : 0;
        if (first + sign > last) return Taken::Declined;
        const u64 digits = (word ^ kZeros) & (~u64{0} << first << sign);
        if (nonDigits(digits) != 0) return Taken::Declined;
        number = numberOf(digits);
        return Taken::Value;
    }

    unsigned place_, length_;  // of the point, or the end
    unsigned shift_;           // bits of the decimals
    u64 fraction_;             // their bytes
    unsigned upper_;           // digits before the last eight
    u64 others_, upperOthers_;
};

// --------------------------------------------------------------------------------------------
// Readers: the bytes of a cell to a value
// --------------------------------------------------------------------------------------------

template <bool kWide>
struct ReadInt64 {
    using Value = i64;
    NumberLayout<false, kWide> layout;
    Taken operator()(const u8* at, i64& value) const {
        u64 number = 0;
        bool negative = false;
        const Taken taken = layout.read(at, number, negative);
        const u64 sign = negative ? ~u64{0} : 0;
        value = static_cast<i64>((number ^ sign) - sign);
        return taken;
    }
};

/// As many digits as every double holds, divided by a power of ten that one holds: the nearest.
template <bool kWide>
struct ReadDecimal {
    using Value = double;
    NumberLayout<true, kWide> layout;
    double scale;
    Taken operator()(const u8* at, double& value) const {
        constexpr u64 kExact = 1000000000000000;  // 10^15
        u64 number = 0;
        bool negative = false;
        const Taken taken = layout.read(at, number, negative);
        if (number >= kExact) return Taken::Declined;
        const double quotient = static_cast<double>(static_cast<i64>(number)) / scale;
        value = negative ? -quotient : quotient;
        return taken;
    }
};

struct ReadInt32 {
    using Value = i32;
    Taken operator()(const u8* at, i32& value) const {
        value = loadLe<i32>(at);
        return Taken::Value;
    }
};

struct ReadDouble {
    using Value = double;
    Taken operator()(const u8* at, double& value) const {
        constexpr u64 kExponent = 0x7FF0000000000000;
        const auto bits = loadLe<u64>(at);
        value = std::bit_cast<double>(bits);
        return (bits & kExponent) != kExponent ? Taken::Value : Taken::Declined;
    }
};

struct ReadCurrency {
    using Value = std::array<u64, 2>;
    Taken operator()(const u8* at, std::array<u64, 2>& value) const {
        const Wide wide = wideOf(loadLe<i64>(at));
        const bool little = std::endian::native == std::endian::little;
        value = little ? std::array{wide.low, wide.high} : std::array{wide.high, wide.low};
        return Taken::Value;
    }
};

constexpr bool isLeap(unsigned year) {
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

struct ReadDate {
    using Value = i32;
    Taken operator()(const u8* at, i32& value) const {
        constexpr std::array<u8, 13> kDays = {0, 31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
        const auto word = loadLe<u64>(at);
        if (word == kBlanks) return Taken::Null;
        const u64 digits = word ^ kZeros;
        if (nonDigits(digits) != 0) return Taken::Declined;
        const auto number = static_cast<unsigned>(numberOf(digits));
        const unsigned year = number / 10000;
        const unsigned month = number / 100 % 100;
        const unsigned day = number % 100;
        if (month - 1 > 11 || day - 1 >= kDays[month]) return Taken::Declined;
        if (month == 2 && day == 29 && !isLeap(year)) return Taken::Declined;
        // Years begin in March, so that the odd day is their last one; 400 are added to stay above
        // zero. 719468 + 146097 days lie between the first of them and 1970.
        const unsigned shifted = year + 400 - (month <= 2 ? 1 : 0);
        const unsigned inYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
        const unsigned days = 365 * shifted + shifted / 4 - shifted / 100 + shifted / 400 + inYear;
        value = static_cast<i32>(days) - 719468 - 146097;
        return Taken::Value;
    }
};

struct ReadMoment {
    using Value = i64;
    Taken operator()(const u8* at, i64& value) const {
        constexpr i64 kUnixDay = 2440588;
        constexpr i64 kFirstDay = 1721060;  // 0000-01-01
        constexpr i64 kLastDay = 5373484;   // 9999-12-31
        constexpr i64 kDay = 86400000;
        const i64 day = loadLe<i32>(at);
        const i64 milliseconds = loadLe<i32>(at + 4);
        if (day < kFirstDay || day > kLastDay || milliseconds < 0 || milliseconds >= kDay) {
            return loadLe<u64>(at) == 0 ? Taken::Null : Taken::Declined;
        }
        value = ((day - kUnixDay) * kDay + milliseconds) * 1000;
        return Taken::Value;
    }
};

// --------------------------------------------------------------------------------------------
// Columns
// --------------------------------------------------------------------------------------------

/// Whether the null flags of a record say null; a mask of 0 never does.
struct NullFlag {
    u32 offset = 0;
    u8 mask = 0;
    explicit NullFlag(const tables::Table& table, i32 bit) {
        if (bit == tables::kNoBit) return;
        offset = table.nullOffset + static_cast<u32>(bit) / 8;
        mask = static_cast<u8>(1U << (bit % 8));
    }
    bool isSet(const u8* record) const { return (record[offset] & mask) != 0; }
};

template <typename Read>
void appendFixed(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to,
                 const Read& read) {
    const NullFlag null(*cells.table, field.column.nullBit);
    const u32 offset = field.column.offset;
    u8* out = to.values.end();
    std::size_t waiting = 0;  // entries written but not yet counted
    const auto countWaiting = [&] {
        to.values.add(waiting * sizeof(typename Read::Value));
        to.count += waiting;
        waiting = 0;
    };
    for (const Row& row : rows) {
        typename Read::Value value{};
        const Taken taken = null.isSet(row.bytes) ? Taken::Null : read(row.bytes + offset, value);
        if (taken == Taken::Value) {
            std::memcpy(out, &value, sizeof value);
            out += sizeof value;
            ++waiting;
            continue;
        }
        countWaiting();
        if (taken == Taken::Null) {
            to.setNull();
            to.values.put(typename Read::Value{});
            ++to.count;
        } else {
            appendCell(cells, field, row, to);
        }
        out = to.values.end();
    }
    countWaiting();
}

void appendLogicals(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    enum : u8 { kOther, kFalse, kTrue, kOpen };
    static constexpr std::array<u8, 256> kLetters = [] {
        std::array<u8, 256> letters{};
        for (const char c : {'T', 't', 'Y', 'y'}) letters[static_cast<u8>(c)] = kTrue;
        for (const char c : {'F', 'f', 'N', 'n'}) letters[static_cast<u8>(c)] = kFalse;
        for (const char c : {' ', '?', '\0'}) letters[static_cast<u8>(c)] = kOpen;
        return letters;
    }();
    const NullFlag null(*cells.table, field.column.nullBit);
    for (const Row& row : rows) {
        const u8 letter =
            null.isSet(row.bytes) ? u8{kOpen} : kLetters[row.bytes[field.column.offset]];
        if (letter == kOther) {
            appendCell(cells, field, row, to);
            continue;
        }
        if (letter == kOpen) to.setNull();
        if (letter == kTrue) to.setTrue();
        ++to.count;
    }
}

// --------------------------------------------------------------------------------------------
// Texts
// --------------------------------------------------------------------------------------------

/// What copying a field has found: the length of its text without blanks at the end, and whether
/// all of it is ASCII without a zero.
struct Copied {
    std::size_t length;
    bool ascii;
};

/// Copies the bytes of a field; writes up to seven more. As many steps for every text, as branches
/// on its length cannot be predicted.
[[gnu::always_inline]] inline Copied copyField(u8* to, const u8* from, std::size_t length) {
    u64 found = 0;  // the high bit of a byte that is zero or above 7F
    u64 last = 0;   // the last word that is not blank, where blanks are zeros
    std::size_t place = 0;
    const auto take = [&](std::size_t at, u64 word) {
        std::memcpy(to + at, &word, sizeof word);
        found |= (word - kOnes) | word;
        const u64 others = word ^ kBlanks;
        last = others != 0 ? others : last;
        place = others != 0 ? at : place;
    };
    const std::size_t whole = length / 8 * 8;
    for (std::size_t at = 0; at < whole; at += 8) take(at, loadLe<u64>(from + at));
    if (whole != length) {
        const u64 kept = ~u64{0} >> (64 - 8 * (length - whole));
        take(whole, (loadLe<u64>(from + whole) & kept) | (kBlanks & ~kept));
    }
    const auto blanks = static_cast<std::size_t>(std::countl_zero(last)) / 8;
    return {place + 8 - blanks, (found & kHigh) == 0};
}

/// Of a long field, the length without most of the blanks at its end.
std::size_t withoutBlankEnd(const u8* at, std::size_t length) {
    constexpr std::size_t kShort = 64;
    while (length > kShort && loadLe<u64>(at + length - 8) == kBlanks) length -= 8;
    return length;
}

/// Copies a text whose length is known; blanks at its end belong to it.
Copied copyText(u8* to, const u8* from, std::size_t length) {
    return {length, copyField(to, from, length).ascii};
}

/// The letters of a single-byte page as words: UTF-8, in byte 6 whether the plain rule has to
/// decide, in byte 7 the length.
using Letters = std::array<u64, 256>;

Letters lettersOf(const tables::CodePage& page) {
    Letters letters{};
    for (std::size_t i = 0; i < letters.size(); ++i) {
        const tables::Letter& letter = page.letters[i];
        const bool isOdd = i == 0 || letter.missing != 0;
        std::array<u8, 8> bytes{};
        std::memcpy(bytes.data(), letter.text, sizeof letter.text);
        bytes[6] = isOdd ? 1 : 0;
        bytes[7] = letter.length;
        letters[i] = loadLe<u64>(bytes.data());
    }
    return letters;
}

/// Appends bytes of a single-byte page, at least one; false, and nothing done, when the plain rule
/// has to.
bool putLetters(const Letters& letters, const u8* from, std::size_t length, Bytes& to) {
    to.reserve((length + 1) * sizeof(u64));
    u8* out = to.end();
    u64 all = 0;
    const auto put = [&](u8 byte) {
        const u64 letter = letters[byte];
        std::memcpy(out, tables::bytesLe(letter).data(),
                    sizeof letter);  // the next covers the rest
        all |= letter;
        return letter >> 56;
    };
    // Two at a time. The first of an even number of bytes is put twice, which takes no branch.
    const std::size_t odd = length % 2;
    out += put(from[0]) * odd;
    for (std::size_t i = odd; i < length; i += 2) {
        out += put(from[i]);
        out += put(from[i + 1]);
    }
    if ((all >> 48 & 0xFF) != 0) return false;
    to.add(static_cast<std::size_t>(out - to.end()));
    return true;
}

/// Adds a copied text that is UTF-8; false, and nothing done, when it is none or has a zero.
bool keepUtf8(std::size_t length, Bytes& to) {
    const std::string_view text(reinterpret_cast<const char*>(to.end()), length);
    if (text.find('\0') != std::string_view::npos || tables::validRun(text) != text.size()) {
        return false;
    }
    to.add(length);
    return true;
}

/// How the texts of a column lie in a record.
struct TextLayout {
    using PageKind = tables::CodePage::Kind;

    TextLayout(const tables::Table& table, const Column& column)
        : offset_(column.offset),
          length_(column.length),
          counted_(column.lengthBit != tables::kNoBit),
          partial_(table, column.lengthBit),
          kind_(table.page.page->kind) {
        if (kind_ == PageKind::SingleByte) letters_ = lettersOf(*table.page.page);
    }

    /// Appends the text of a record; false, and nothing done, when the plain rule has to.
    [[gnu::always_inline]] inline bool put(const u8* record, Bytes& to) const {
        const u8* const at = record + offset_;
        to.reserve(length_ + 8);
        Copied copied{};
        if (!counted_) {
            copied = copyField(to.end(), at, withoutBlankEnd(at, length_));
        } else {
            const bool isPart = partial_.isSet(record);
            const std::size_t length = isPart ? at[length_ - 1] : length_;
            if (isPart && length >= length_) return false;
            copied = copyText(to.end(), at, length);
        }
        if (copied.ascii) {
            to.add(copied.length);
            return true;
        }
        if (kind_ == PageKind::SingleByte) return putLetters(letters_, at, copied.length, to);
        return kind_ == PageKind::Utf8 && keepUtf8(copied.length, to);
    }

private:
    std::size_t offset_, length_;
    bool counted_;      // bytes whose number is told: blanks at the end count
    NullFlag partial_;  // whether the last byte tells it
    PageKind kind_;
    Letters letters_{};
};

void appendTexts(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    const NullFlag null(*cells.table, field.column.nullBit);
    const TextLayout layout(*cells.table, field.column);
    for (const Row& row : rows) {
        if (null.isSet(row.bytes)) {
            to.setNull();
            to.endText();
        } else if (layout.put(row.bytes, to.bytes)) {
            to.endText();
        } else {
            appendCell(cells, field, row, to);
        }
    }
}

void appendRecordNumbers(const std::vector<Row>& rows, Vector& to) {
    for (const Row& row : rows) {
        to.values.put(i64{row.record} + 1);
        ++to.count;
    }
}

void appendDeletions(const std::vector<Row>& rows, Vector& to) {
    for (const Row& row : rows) {
        if (row.bytes[0] == '*') to.setTrue();
        ++to.count;
    }
}

constexpr u64 powerOfTen(unsigned exponent) {
    u64 power = 1;
    while (exponent-- > 0) power *= 10;
    return power;
}

template <bool kWide>
void appendNumbers(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    const u32 length = field.column.length;
    const u32 decimals = field.column.decimals;
    if (decimals == 0) {
        appendFixed(cells, field, rows, to, ReadInt64<kWide>{{length, decimals}});
    } else {
        const auto scale = static_cast<double>(powerOfTen(decimals));
        appendFixed(cells, field, rows, to, ReadDecimal<kWide>{{length, decimals}, scale});
    }
}

/// Numbers as digits; false when there is no quick way for the column.
bool appendDecimals(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    const u32 length = field.column.length;
    const u32 decimals = field.column.decimals;
    const u32 digits = decimals != 0 ? length - 1 : length;
    if (field.shape != (decimals == 0 ? Shape::Int64 : Shape::Double)) return false;
    if (length <= decimals || digits == 0 || digits > 16 || decimals >= 8) return false;
    (digits > 8 ? appendNumbers<true> : appendNumbers<false>)(cells, field, rows, to);
    return true;
}

/// Bytes from the column's place on that its values are read from.
u32 bytesRead(const Column& column) {
    if (column.kind == Kind::Integer) return 4;
    return column.kind == Kind::Double || column.kind == Kind::Currency ? 8 : column.length;
}

/// Whether they, and the null flags, lie in the record: a damaged one may end before.
bool isInside(const tables::Table& table, const Column& column) {
    const u32 record = table.base->Header.RecordLength;
    return column.offset + bytesRead(column) <= record &&
           table.nullOffset + table.nullLength <= record;
}

}  // namespace

bool appendQuickly(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    const tables::Table& table = *cells.table;
    const Column& column = field.column;
    constexpr u32 kDigits = 8;
    if (column.kind == Kind::RecordNumber) {
        appendRecordNumbers(rows, to);
        return true;
    }
    if (column.kind == Kind::Deletion) {
        appendDeletions(rows, to);
        return true;
    }
    if (!isInside(table, column)) return false;
    if (column.kind == Kind::Decimal) return appendDecimals(cells, field, rows, to);
    if ((column.kind == Kind::Text || column.kind == Kind::Varchar) && field.shape == Shape::Text &&
        !column.untranslated && table.page.page->asciiClean &&
        (column.lengthBit == tables::kNoBit || column.length > 0)) {
        appendTexts(cells, field, rows, to);
    } else if (column.kind == Kind::Integer && field.shape == Shape::Int32 &&
               table.base->Level7 == 0) {
        appendFixed(cells, field, rows, to, ReadInt32{});
    } else if (column.kind == Kind::Double && field.shape == Shape::Double && column.type == 'B') {
        appendFixed(cells, field, rows, to, ReadDouble{});
    } else if (column.kind == Kind::Currency && field.shape == Shape::Decimal) {
        appendFixed(cells, field, rows, to, ReadCurrency{});
    } else if (field.shape == Shape::Date && column.length == kDigits) {
        appendFixed(cells, field, rows, to, ReadDate{});
    } else if (field.shape == Shape::Moment && column.length == kDigits && !column.foreignMoment) {
        appendFixed(cells, field, rows, to, ReadMoment{});
    } else if (column.kind == Kind::Logical && field.shape == Shape::Logical && column.length > 0) {
        appendLogicals(cells, field, rows, to);
    } else {
        return false;
    }
    return true;
}

}  // namespace mira::arrow
