// Sizes and offsets of the public records, which are part of the library's interface: programs that
// were built with one version run with the next.
#include <cstddef>

#include "support.h"

namespace test {
namespace {

struct Place {
    const char* name;
    std::size_t at, expected;
};

/// A member of what Record names, and where it has to be.
#define AT(member, place) \
    { #member, offsetof(Record, member), place }

void expectPlaces(std::initializer_list<Place> places) {
    for (const Place& p : places) EXPECT_EQ(p.at, p.expected) << p.name;
}

TEST(Layout, SizesAndOffsetsWherePointersHave64Bits) {
    if (sizeof(void*) != 8) GTEST_SKIP() << "pointers have other sizes here";
    {
        using Record = DbfHeader;
        EXPECT_EQ(sizeof(Record), 68u);
        expectPlaces({AT(Version, 0), AT(UpdateYear, 1), AT(UpdateMonth, 2), AT(UpdateDay, 3),
                      AT(RecordCount, 4), AT(HeaderLength, 8), AT(RecordLength, 10), AT(Rest, 12)});
    }
    {
        using Record = DbfField;
        EXPECT_EQ(sizeof(Record), 40u);
        expectPlaces({AT(Name, 0), AT(Type, 32), AT(Length, 33), AT(Decimals, 34), AT(Offset, 36),
                      AT(WorkArea, 38)});
    }
    {
        using Record = CalcFieldSlot;
        EXPECT_EQ(sizeof(Record), 24u);
        expectPlaces({AT(Flags, 0), AT(Name, 8), AT(Expression, 16)});
    }
    {
        using Record = CalcFieldTable;
        EXPECT_EQ(sizeof(Record), 49160u);
        expectPlaces({AT(FieldTotal, 0), AT(Count, 4), AT(Slots, 8)});
    }
    {
        using Record = FilterWork;
        EXPECT_EQ(sizeof(Record), 8196u);
        expectPlaces({AT(LogicText, 0), AT(PieceText, 1024), AT(Cuts, 2048), AT(LogicLength, 6144),
                      AT(LeftText, 6148), AT(RightText, 7172)});
    }
    {
        using Record = DbfBase;
        EXPECT_EQ(sizeof(Record), 156232u);
        expectPlaces({AT(TableFile, 0), AT(MemoFile, 8), AT(Status, 16), AT(FileName, 24),
                      AT(MemoFileName, 32), AT(AliasFileName, 40), AT(Header, 48), AT(Fields, 116),
                      AT(AliasNames, 82036), AT(FieldMap, 147572)});
        expectPlaces({AT(DateFormat, 155764), AT(MemoAsNumber, 155768), AT(OemConvert, 155772),
                      AT(CaseInsensitive, 155776), AT(SortDescending, 155777),
                      AT(UseAliases, 155780), AT(TrimMode, 155784), AT(SkipDeleted, 155788),
                      AT(Reverse, 155792)});
        expectPlaces({AT(BackupEnabled, 155796), AT(BackupDone, 155800), AT(BackupName, 155808),
                      AT(NoBracketCheck, 155816), AT(RawNumeric, 155820),
                      AT(CharToOemCallback, 155824), AT(UpperCaseCallback, 155832),
                      AT(SortCallback, 155840)});
        expectPlaces({AT(FieldCount, 155848), AT(FirstMemoField, 155852), AT(DeleteFlag, 155856),
                      AT(RecordBuffer, 155864), AT(TextBuffer, 155872), AT(MemoBuffer, 155880)});
        expectPlaces({AT(FilterIndex, 155888), AT(FilterCount, 155896), AT(FilterState, 155904),
                      AT(SortFieldCount, 155912), AT(SortFields, 155916)});
        expectPlaces({AT(SortOrder, 156000), AT(SortKeyCount, 156008), AT(SortKeyFields, 156016),
                      AT(SavedRecord, 156024), AT(FilterText, 156032), AT(SortKeyA, 156040),
                      AT(SortKeyB, 156048), AT(SortRecA, 156056), AT(SortRecB, 156060)});
        expectPlaces({AT(UseFilterIndex, 156064), AT(DateFormats, 156072),
                      AT(DateTimeFormats, 156112), AT(CalcFields, 156152)});
        expectPlaces({AT(Level7, 156160), AT(HeaderSize, 156164), AT(DescriptorSize, 156168),
                      AT(HighLength, 156172), AT(CurrentRecord, 156176), AT(ReadOnly, 156180),
                      AT(Modified, 156184)});
        expectPlaces({AT(AfterRead, 156192), AT(BeforeWrite, 156200), AT(AfterReadByte, 156208),
                      AT(BeforeWriteByte, 156216), AT(Private, 156224)});
    }
    {
        using Record = MemoLayout;
        EXPECT_EQ(sizeof(Record), 56u);
        expectPlaces({AT(headerSize, 0), AT(firstPlace, 4), AT(unitPlace, 8), AT(bigEndian, 12),
                      AT(shortHeaderReads, 13), AT(prefixSize, 16), AT(mark, 20),
                      AT(markChecked, 24), AT(lengthBias, 28), AT(endSize, 32),
                      AT(signaturePlace, 36), AT(signatureSize, 40), AT(signature, 44)});
    }
}

}  // namespace
}  // namespace test
