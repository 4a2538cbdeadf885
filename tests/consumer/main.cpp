// Prints the number of fields of the table named on the command line.
#include <mira.h>

#include <cstdio>

#ifdef EXPECTED_LANGUAGE
static_assert(__cplusplus / 100 * 100 == EXPECTED_LANGUAGE,
              "linking the library has raised the language");
#endif

int main(int argc, char** argv) {
    mira::DbfBase* table = argc == 2 ? mira::OpenBase(argv[1]) : nullptr;
    if (table == nullptr) return 1;
    std::printf("%u\n", mira::fieldcount(table));
    mira::CloseBase(table);
    return 0;
}
