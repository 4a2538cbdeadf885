// Eight characters are looked at as one word whose lowest byte is the first of them.
#include "arrow/quick.h"

#include <algorithm>
#include <array>
#include <bit>

#include "arrow/number.h"
#include "tables/page/bytes.h"
#include "tables/page/codepage.h"
#include "tables/page/utf8.h"

namespace mira::arrow {
namespace {

using tables::Column;
using tables::Kind;
using tables::loadLe;

constexpr u64 kOnes = 0x0101010101010101;
constexpr u64 kHigh = 0x80 * kOnes;
constexpr u64 kLow = 0x7F * kOnes;
constexpr u64 kBlanks = ' ' * kOnes;
constexpr u64 kZeros = '0' * kOnes;

/// The high bit of every byte that is not zero.
constexpr u64 nonZero(u64 word) { return (((word & kLow) + kLow) | word) & kHigh; }
/// The high bit of every byte that is no digit.
constexpr u64 nonDigits(u64 word) {
    const u64 digits = word ^ kZeros;
    return (((digits & kLow) + (0x80 - 10) * kOnes) | digits) & kHigh;
}

/// Eight digits as a number.
constexpr u64 numberOf(u64 word) {
    word -= kZeros;
    word = word * 10 + (word >> 8);
    constexpr u64 kPairs = 0x000000FF000000FF;
    return ((word & kPairs) * (100 + (u64{1000000} << 32)) +
            ((word >> 16) & kPairs) * (1 + (u64{10000} << 32))) >>
           32;
}

enum class Taken : u8 { Value, Null, Declined };

/// Stored digits of one layout: blanks, at most one minus, digits, in some columns a point before
/// the last of them. The point is left out by reading on both sides of it.
struct NumberLayout {
    NumberLayout(unsigned length, unsigned decimals)
        : place_(decimals != 0 ? length - decimals - 1 : length),
          length_(length),
          shift_(8 * decimals),
          fraction_(decimals != 0 ? ~u64{0} << (64 - shift_) : 0),
          upper_(decimals + place_ > 8 ? decimals + place_ - 8 : 0),
          others_(maskBefore(upper_ != 0 ? 8 : decimals + place_)),
          upperOthers_(maskBefore(upper_)) {}

    /// Digits on both sides of the point, as a whole number.
    [[gnu::always_inline]] inline Taken read(const u8* at, u64& number, bool& negative) const {
        u64 low = loadLe<u64>(at + place_ - 8) >> shift_;
        if (fraction_ != 0) {
            if (at[place_] != '.') return isBlank(at) ? Taken::Null : Taken::Declined;
            low = (low & ~fraction_) | (loadLe<u64>(at + length_ - 8) & fraction_);
        }
        low = (low & ~others_) | (kBlanks & others_);
        if (upper_ == 0) return beginLow(low, number, negative);
        u64 high = loadLe<u64>(at + upper_ - 8);
        high = (high & ~upperOthers_) | (kBlanks & upperOthers_);
        if (high == kBlanks) return beginLow(low, number, negative);
        const Taken taken = begin(high, 64, number, negative);
        if (taken != Taken::Value || nonDigits(low) != 0) return Taken::Declined;
        number = number * 100000000 + numberOf(low);
        return Taken::Value;
    }

    static bool isFor(unsigned length, unsigned decimals) {
        const unsigned digits = decimals != 0 ? length - 1 : length;
        return length > decimals && digits > 0 && digits <= 16 && decimals < 8;
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
        if (fraction_ == 0) return begin(word, kLast, number, negative);
        const Taken taken = begin(word, 64 - shift_, number, negative);
        return taken == Taken::Value ? Taken::Value : Taken::Declined;
    }

    /// The word in which a number begins; its digits begin at bit last or before.
    static Taken begin(u64 word, unsigned last, u64& number, bool& negative) {
        const u64 others = nonZero(word ^ kBlanks);
        if (others == 0) return Taken::Null;
        unsigned first = static_cast<unsigned>(std::countr_zero(others)) & ~7U;
        negative = (word >> first & 0xFF) == '-';
        first += negative ? 8 : 0;
        if (first > last) return Taken::Declined;
        const u64 kept = first == 64 ? 0 : ~u64{0} << first;
        word = (word & kept) | (kZeros & ~kept);
        if (nonDigits(word) != 0) return Taken::Declined;
        number = numberOf(word);
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

struct ReadInt64 {
    using Value = i64;
    NumberLayout layout;
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
struct ReadDecimal {
    using Value = double;
    NumberLayout layout;
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
        if (nonDigits(word) != 0) return Taken::Declined;
        const auto number = static_cast<unsigned>(numberOf(word));
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

/// Length without blanks at the end.
std::size_t withoutBlanks(const u8* at, std::size_t length) {
    while (length >= 8) {
        const u64 others = nonZero(loadLe<u64>(at + length - 8) ^ kBlanks);
        if (others != 0) {
            return length - static_cast<std::size_t>(std::countl_zero(others)) / 8;
        }
        length -= 8;
    }
    while (length > 0 && at[length - 1] == ' ') --length;
    return length;
}

/// Copies a text; false when not all of it is ASCII without a zero. Writes up to eight bytes more.
bool copyAscii(u8* to, const u8* from, std::size_t length) {
    u64 found = 0;  // the high bit of a byte that is zero or above 7F
    const u8* const last = from + (length - 1) / 8 * 8;
    for (; from < last; from += 8, to += 8) {
        const auto word = loadLe<u64>(from);
        std::memcpy(to, from, 8);
        found |= (word - kOnes) | word;
    }
    std::memcpy(to, from, 8);
    const std::size_t past = 7 - (length - 1) % 8;
    const u64 kept = ~u64{0} >> (8 * past);
    const u64 word = (loadLe<u64>(from) & kept) | (kBlanks & ~kept);
    found |= (word - kOnes) | word;
    return (found & kHigh) == 0;
}

/// Appends bytes of a single-byte page; returns how many bytes they became, nothing when there is
/// a zero among them or one that the page lacks.
std::size_t putLetters(u8* to, const tables::CodePage& page, const u8* from, std::size_t length) {
    u8* const start = to;
    unsigned bad = 0;
    for (std::size_t i = 0; i < length; ++i) {
        const tables::Letter& letter = page.letters[from[i]];
        std::memcpy(to, &letter, sizeof letter);  // the next one covers what is too much
        to += letter.length;
        bad |= letter.missing | static_cast<unsigned>(from[i] == 0);
    }
    return bad == 0 ? static_cast<std::size_t>(to - start) : 0;
}

/// Appends a text; false, and nothing done, when the plain rule has to.
bool putText(const tables::CodePage& page, const u8* from, std::size_t length, Bytes& to) {
    if (length == 0) return true;
    to.reserve(length + 8);
    if (copyAscii(to.end(), from, length)) {
        to.add(length);
        return true;
    }
    std::size_t put = 0;
    if (page.kind == tables::CodePage::Kind::SingleByte) {
        to.reserve((length + 1) * sizeof(tables::Letter));
        put = putLetters(to.end(), page, from, length);
    } else if (page.kind == tables::CodePage::Kind::Utf8) {
        const std::string_view text(reinterpret_cast<const char*>(from), length);
        const bool valid =
            text.find('\0') == std::string_view::npos && tables::validRun(text) == text.size();
        if (valid) put = length;  // as copied
    }
    to.add(put);
    return put != 0;
}

void appendTexts(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    const Column& column = field.column;
    const tables::CodePage& page = *cells.table->page.page;
    const NullFlag null(*cells.table, column.nullBit);
    const NullFlag partial(*cells.table, column.lengthBit);
    const bool counted = column.lengthBit != tables::kNoBit;
    for (const Row& row : rows) {
        const u8* const at = row.bytes + column.offset;
        if (null.isSet(row.bytes)) {
            to.setNull();
            to.endText();
            continue;
        }
        std::size_t length = column.length;
        if (!counted) {
            length = withoutBlanks(at, length);
        } else if (partial.isSet(row.bytes)) {
            length = at[column.length - 1];
        }
        if (length <= column.length - (counted && partial.isSet(row.bytes) ? 1U : 0U) &&
            putText(page, at, length, to.bytes)) {
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

/// Numbers as digits; false when there is no quick way for the column.
bool appendDecimals(Cells& cells, const Field& field, const std::vector<Row>& rows, Vector& to) {
    const u32 length = field.column.length;
    const u32 decimals = field.column.decimals;
    const bool whole = field.shape == Shape::Int64 && decimals == 0;
    const bool fraction = field.shape == Shape::Double && decimals != 0;
    if (!(whole || fraction) || !NumberLayout::isFor(length, decimals)) return false;
    const NumberLayout layout(length, decimals);
    if (whole) {
        appendFixed(cells, field, rows, to, ReadInt64{layout});
    } else {
        const auto scale = static_cast<double>(powerOfTen(decimals));
        appendFixed(cells, field, rows, to, ReadDecimal{layout, scale});
    }
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
