#include "tables/rescue/newhead.h"

#include <cstring>

#include "tables/page/bytes.h"

namespace mira::tables {
namespace {

constexpr u32 kLevel7Least = 128;  // a level-7 table is told by its first 128 bytes

bool isVersion(u8 version) {
    constexpr std::string_view kVersions(
        "\x02\x03\x04\x30\x31\x43\x63\x83\x8B\x8C\xCB\xF5\xFB\xE5\x32\x42\x62\x82\x8A\xCA\xF4\xFA");
    return kVersions.find(static_cast<char>(version)) != std::string_view::npos;
}

void storeLe16(std::string& to, std::size_t at, u64 value) {
    to[at] = static_cast<char>(value & 0xFF);
    to[at + 1] = static_cast<char>(value >> 8 & 0xFF);
}

/// What lies between the descriptors and the records, or as much of it as is usual.
std::string tailOf(Source& source, const List& list, const Reading& reading, bool visual) {
    const u64 bytes = reading.first > list.end ? reading.first - list.end : 0;
    std::string tail(source.at(list.end, static_cast<std::size_t>(bytes)));
    if (visual && bytes + kSlip >= kBackLink && bytes <= kBackLink + kSlip) tail.resize(kBackLink);
    if (visual && bytes + kSlip < kBackLink) tail.assign(kBackLink, '\0');
    return tail;
}

}  // namespace

std::string fixedHeader(Source& source, const List& list) {
    const u32 size = list.form->fixed;
    const std::string found(source.at(0, static_cast<std::size_t>(size + list.ahead)));
    if (list.ahead == 0) return found + std::string(size - found.size(), '\0');
    std::string best;
    int most = -1;
    for (std::size_t at = size; at-- > 0;) {
        const std::string way = resized(found, at, size);
        const Said said = saidBy(way);
        u32 length = 1;
        for (const std::string& one : list.descriptors)
            length += lengthOf(one, *list.form, Lengths::Full);
        const u64 end = list.end - static_cast<u64>(list.ahead);
        const int worth = (isVersion(static_cast<u8>(way[0])) ? 4 : 0) +
                          (said.header >= end && said.header <= end + kBackLink ? 4 : 0) +
                          (said.record == length ? 4 : 0) + (way[2] <= 12 && way[3] <= 31 ? 1 : 0) +
                          (said.count < source.size() ? 2 : 0) +
                          (way[30] == 0 && way[31] == 0 ? 1 : 0);
        if (worth > most) {
            most = worth;
            best = way;
        }
    }
    return best;
}

std::string headOf(Source& source, const List& list, const Reading& reading,
                   const std::string& fixed) {
    const Said said = saidBy(fixed);
    std::string head = fixed;
    for (const std::string& descriptor : reading.descriptors) head += descriptor;
    head += kTerminator;
    head += tailOf(source, list, reading, said.visual);
    if (list.form->level7 && head.size() < kLevel7Least) head.resize(kLevel7Least);
    std::memset(&head[4], 0, 4);
    storeLe16(head, 8, head.size());
    storeLe16(head, 10, reading.shape.length);
    std::memset(&head[12], 0, 4);                 // a transaction under way, encryption
    head[28] = static_cast<char>(head[28] & ~1);  // no index file belongs to the new table
    return head;
}
}  // namespace mira::tables
