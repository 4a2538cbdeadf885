// Where the records of a damaged table lie.
//
// As long as records fit they are taken one behind the other. Where one does not, the next place is
// looked for from which records fit again: as many record lengths on when bytes were overwritten,
// elsewhere when some were lost or put in. Then the new places are followed back as far as records
// fit there, too: what may be either is doubtful, and so is the record that lies between.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "tables/rescue/fit.h"
#include "tables/rescue/source.h"

namespace mira::tables {

/// A part of the file from place on.
struct Stretch {
    enum class Is : u8 {
        Sound,     ///< count records
        Doubtful,  ///< the same, but some of their bytes may be wrong
        Broken,    ///< one record that has lost or got bytes
        LeftOut    ///< no record
    };
    Is is = Is::Sound;
    u64 place = 0, bytes = 0;
    u32 count = 0;
    i64 shift = 0;  ///< bytes from where the record before would have it
};

struct Walked {
    std::vector<Stretch> stretches{};
    u64 end = 0;  ///< after the last record
};

/// Divides a file from its first record to its end. counted: records by the header, 0 where that is
/// not to be believed; behind those, what does not fit is the remainder of an older table. step is
/// called every now and then with the records passed since, and may throw.
Walked walkRecords(Source& source, Fit& fit, u64 first, u32 counted,
                   const std::function<void(u32)>& step);

/// How well count records from a place on fit: their likelihoods, less their faults. The first
/// ones weigh most, because further on the file may be damaged.
double fitFrom(Source& source, const Fit& fit, u64 place, u32 count);

/// Deletion bytes of zero, as some programs write them, in the first records from a place on;
/// records that are nothing but zeros do not count as such.
struct ZeroMarks {
    u32 records = 0, zeros = 0;
};
ZeroMarks zeroMarksFrom(Source& source, const Shape& shape, u64 first);

/// Where the records of an open table are not where they should be any more: the first such record,
/// from 0, and by how many bytes they lie behind their place. Nothing while records fit there.
struct Shift {
    u32 record = 0;
    i64 bytes = 0;
};
std::optional<Shift> shiftOf(const Table& table);

}  // namespace mira::tables
