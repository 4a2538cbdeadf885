// Creates a table with a memo field, appends records, deletes one and packs. The table is made in
// the directory given as argument, or in the current one; the exit status is 0 when all went well.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "mira.h"

namespace {

struct Person {
    const char* name;
    double age;
    const char* note;
};

constexpr Person kPeople[] = {
    {"Ada", 36, "Wrote the first program."},
    {"Charles", 79, "Never finished the engine."},
    {"Grace", 85, "Found the moth."},
};

bool create(const std::string& path) {
    mira::DbfField fields[3] = {};
    mira::CreateField(&fields[0], "NAME", 'C', 20);
    mira::CreateField(&fields[1], "AGE", 'N', 3);
    mira::CreateField(&fields[2], "NOTE", 'M', 10);
    return mira::CreateDatabase(path.c_str(), fields, 3, /*kind=*/2, /*blockSize=*/0,
                                /*createMemo=*/1) != 0;
}

bool append(mira::DbfBase* base, const Person& person) {
    mira::ClearRecord(base);
    mira::SetValue(base, 0, person.name, 0);
    mira::SetValue(base, 1, "", person.age);
    mira::SetValue(base, 2, person.note, 0);  // goes to the memo file at once
    return mira::AppendBlank(base, /*clear=*/0) != 0;
}

/// Prints a record; false when it is not the person's.
bool show(mira::DbfBase* base, mira::u32 position, const Person& person) {
    if (mira::ReadRecord(base, position) == 0) return false;
    const std::string name = mira::GetStr(base, 0);
    char* memo = mira::GetMemo(base, 2);
    const std::string note = memo != nullptr ? memo : "";
    std::free(memo);
    std::printf("%s, %.0f: %s\n", name.c_str(), mira::GetValue(base, 1), note.c_str());
    return name.starts_with(person.name) && mira::GetValue(base, 1) == person.age &&
           note == person.note;
}

bool run(mira::DbfBase* base) {
    for (const Person& person : kPeople) {
        if (!append(base, person)) return false;
    }
    for (mira::u32 i = 0; i < mira::reccount(base); ++i) {
        if (!show(base, i, kPeople[i])) return false;
    }
    if (mira::DeleteRecord(base, 1) == 0 || mira::Pack(base, 0) == 0) return false;
    return mira::reccount(base) == 2 && show(base, 0, kPeople[0]) && show(base, 1, kPeople[2]);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string path = std::string(argc > 1 ? argv[1] : ".") + "/people.dbf";
    mira::DbfBase* base = create(path) ? mira::OpenBase(path.c_str()) : nullptr;
    const bool done = base != nullptr && run(base);
    mira::CloseBase(base);
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
