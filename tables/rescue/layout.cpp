// Every reading of the header is tried on the records: the one under which they fit best is taken,
// and when two come near each other the table is doubtful.
#include "tables/rescue/layout.h"

#include "tables/change/append.h"
#include "tables/page/refusal.h"
#include "tables/rescue/newhead.h"
#include "tables/rescue/reading.h"

namespace mira::tables {
namespace {

/// What the reading takes otherwise than the header says, a sentence each.
std::vector<std::string> repairsOf(const List& list, const Reading& reading, const Said& said) {
    std::vector<std::string> repairs;
    const auto add = [&](auto... parts) { repairs.push_back(textOf(parts...)); };
    if (list.ahead != 0) add("the header has lost or got bytes");
    if (list.mends != 0) add("the descriptor of field ", list.mended + 1, " is damaged");
    if (reading.mended) add("the field lengths do not add up to the record length ", said.record);
    if (said.header != reading.first) {
        add("the header length is ", said.header, ", the records begin at ", reading.first);
    }
    if (said.record != reading.shape.stride && !reading.mended) {
        add("the record length is ", said.record, ", the fields take ", reading.shape.length);
    }
    return repairs;
}

/// All readings of a list, as its descriptors stand and as the mended one may be.
void addReadings(Reader& reader, const List& list, const Said& said) {
    const u32 least = list.form->fixed;
    if (said.header >= least) addAround(reader.starts, said.header, least);
    addAround(reader.starts, list.end, least);
    if (said.visual || list.form->level7) addAround(reader.starts, list.end + kBackLink, least);
    reader.listEnd = list.end;
    reader.isMended = list.mends != 0;
    std::vector<std::vector<std::string>> lists{list.descriptors};
    for (const std::string& other : list.others) {
        lists.push_back(list.descriptors);
        lists.back()[list.mended] = other;
    }
    reader.addLists(lists, *list.form);
}

}  // namespace

Layout ownLayout(Source& source, const std::string& name) {
    const List list = findList(source);
    if (list.descriptors.empty()) {
        refuse(name,
               ": its descriptors are lost; --like SOUND or --schema says which fields it has");
    }
    if (source.byteAt(0) == 2 && (list.ahead != 0 || list.mends != 0)) {
        refuse(name, ": tables of dBase II are not supported");
    }
    std::string fixed = fixedHeader(source, list);
    const Said said = saidBy(fixed);
    Reader reader(source, said,
                  static_cast<u8>(fixed[0]) == 0xE5 ? MemoFormat::Smt : MemoFormat::FoxPro);
    addReadings(reader, list, said);
    if (reader.readings.empty()) refuse(name, ": no record can be made of its descriptors");
    const bool near = sortReadings(reader.readings);
    const Reading& best = reader.readings.front();
    Layout layout;
    layout.head = headOf(source, list, best, fixed);
    layout.shape = best.shape;
    layout.first = best.first;
    layout.counted = said.count;
    layout.doubtful = near || list.unsure || (list.mends != 0 && said.visual) ||
                      (best.mended ? !best.byOffsets : !best.confirmed);
    layout.repairs = repairsOf(list, best, said);
    if (layout.doubtful) {
        layout.repairs.push_back("the fields may lie otherwise, so every record is doubtful");
    }
    return layout;
}

Layout layoutLike(Source& source, const Table& like) {
    std::string fixed(source.at(0, kFixed));
    fixed.resize(kFixed);
    const Said said = saidBy(fixed);
    const Shape shape = shapeOf(*like.base, like.memoFormat);
    Reader reader(source, said, like.memoFormat);
    std::vector<u64> starts;
    addAround(starts, like.base->Header.HeaderLength, 0);
    addAround(starts, 0, 0);  // the whole header may be lost
    if (said.header > kFixed) addAround(starts, said.header, 0);
    reader.addShape(shape, starts);
    Layout layout;
    layout.head = emptyHead(like);
    layout.doubtful = sortReadings(reader.readings);
    layout.shape = shape;
    layout.first = reader.readings.front().first;
    layout.counted = said.count;
    return layout;
}

}  // namespace mira::tables
