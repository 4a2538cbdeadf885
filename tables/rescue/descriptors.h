// The list of fields in the header of a damaged table. Descriptors may have lost or got bytes, and
// so may what stands before them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tables/rescue/source.h"

namespace mira::tables {

constexpr u32 kFixed = 32;  // bytes before the descriptors, but of level-7 tables
constexpr u32 kFieldsMost = 2047;
constexpr i64 kSlip = 4;  // bytes that a header may have lost or got
constexpr char kTerminator = 0x0D;

/// Places in descriptors of either size.
struct Form {
    u32 fixed;  ///< bytes before the descriptors
    u32 size, name, type, length;
    bool level7;
};

/// What stands in the header under a form, and what it took to read it.
struct List {
    const Form* form = nullptr;
    i64 ahead = 0;  ///< bytes that the descriptors lie behind their place
    std::vector<std::string> descriptors{};
    std::vector<std::string> others{};  ///< what else the mended one may be
    std::size_t mended = kFieldsMost;   ///< its number
    u32 mends = 0;
    bool unsure = false;  ///< what was lost may be more than bytes without a meaning
    u64 end = 0;          ///< after the last descriptor and the terminator
    bool ended = false;
};
/// The best reading of the list; without descriptors when there is none.
List findList(Source& source);

enum class Lengths : u8 {
    Full,    ///< decimals of a text are the high byte of its length
    Low,     ///< they mean nothing
    Foreign  ///< lengths stand one byte earlier, as other makers of level-7 tables have it
};
u32 lengthOf(const std::string& descriptor, const Form& form, Lengths lengths);
/// False when a descriptor cannot say such a length.
bool setLength(std::string& descriptor, const Form& form, Lengths lengths, i64 length);
/// The length that values of a type have; 0: any.
u32 fixedLength(char type);
/// Whether a length is one that fields of a type have.
bool isLength(char type, u32 length);

/// The bytes in a size, zeros put in or bytes taken out at a place.
std::string resized(std::string bytes, std::size_t at, std::size_t size);

/// The fixed header as numbers.
struct Said {
    u32 count = 0, header = 0, record = 0;
    bool visual = false;
};
Said saidBy(const std::string& fixed);

}  // namespace mira::tables
