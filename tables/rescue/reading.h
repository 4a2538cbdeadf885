// The ways to read a damaged table. Each is tried on the records.
#pragma once

#include <string>
#include <vector>

#include "tables/rescue/descriptors.h"
#include "tables/rescue/fit.h"
#include "tables/rescue/source.h"

namespace mira::tables {

constexpr u32 kBackLink = 263;  // bytes behind the descriptors of Visual FoxPro

/// One way to read a table.
struct Reading {
    std::vector<std::string> descriptors{};
    Lengths lengths = Lengths::Full;
    Shape shape{};
    u64 first = 0;
    double worth = 0;
    bool confirmed = false;  ///< the header's record length or the file's size agrees
    bool mended = false;     ///< a length is another than the one that stands there
    bool byOffsets = false;  ///< and the places of the fields in their descriptors say so
};

/// Tries what the header may mean.
class Reader {
public:
    Reader(Source& source, const Said& said, MemoFormat memos);

    /// Shapes of the lists and, when the header's record length is none of theirs, those with
    /// lengths changed until it comes out. The lists are the same but for one field.
    void addLists(const std::vector<std::vector<std::string>>& lists, const Form& form);
    void addShape(const Shape& shape, const std::vector<u64>& places);

    std::vector<Reading> readings{};
    std::vector<u64> starts{};  ///< places where the records may begin
    u64 listEnd = 0;            ///< where descriptors end
    bool isMended = false;      ///< one of them has lost or got bytes

private:
    u32 add(Reading& reading);
    bool mayLengthsBeWrong();
    void addMended(const std::vector<std::string>& descriptors, Lengths lengths);
    void addByOffsets(const std::vector<std::string>& descriptors, Lengths lengths);
    void addLikely(const std::vector<std::string>& descriptors, Lengths lengths);
    Shape shapeBy(const std::vector<std::string>& descriptors, Lengths lengths) const;
    void tryStarts(Reading& reading, std::vector<u64> places);
    double worthAt(const Reading& reading, const Fit& fit) const;
    u64 startByCount(u64 stride) const;

    Source& source_;
    const Said said_;
    const MemoFormat memos_;
    const Form* form_ = nullptr;
    u32 record_ = 0;  ///< bytes of one, when lengths do not add up to it
    double bonus_ = 0;
    u64 end_ = 0;
    bool isUsual_ = false;       ///< its length is that of other tables with such fields
    bool isBelievable_ = false;  ///< the header's length
};

/// Adds a place where the records may begin, and those around it from least on.
void addAround(std::vector<u64>& starts, u64 place, u64 least);
/// The best reading first. Whether another one with other fields or places comes near it.
bool sortReadings(std::vector<Reading>& readings);

}  // namespace mira::tables
