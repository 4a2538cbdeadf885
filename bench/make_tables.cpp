// Writes the tables that the dump is measured with: make_tables DIRECTORY [RECORDS].
#include <cstdlib>

#include "tables.h"

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const std::string directory = argv[1];
    const unsigned count = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 1000000;
    const bool written =
        bench::writeTable(directory + "/mixed.dbf", 0x03, bench::kMixed, count) &&
        bench::writeTable(directory + "/people.dbf", 0x03, bench::kPeople, count) &&
        bench::writeTable(directory + "/numbers.dbf", 0x03, bench::kNumbers, count) &&
        bench::writeTable(directory + "/binary.dbf", 0x30, bench::kBinary, count);
    return written ? 0 : 1;
}
