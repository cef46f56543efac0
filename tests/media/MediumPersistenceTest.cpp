// A medium's records in a database: the side records written only when
// dirty, loaded once and released; removal; the copy into another database;
// side data shared by copies of an object; a clip's tape locator and the
// database's tape header; and the flat functions' own rules and refusals.
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/media/MediaTestSupport.h"

namespace {

using kavotest::HandleBytes;
using kavotest::NewHandleWith;
using kavotest::TapeImage;
using Bytes = std::vector<std::uint8_t>;

Bytes BytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }

class MediumPersistence : public kavotest::MediaTest {
protected:
    // Gives the medium all four side blocks, each holding its type's name.
    static void GiveSideBlocks(TMedium& medium) {
        ASSERT_EQ(medium.ChangePathName(NewHandleWith(std::string("/clips/a.mov"))), kNoError);
        ASSERT_EQ(medium.ChangePosterCache(NewHandleWith(std::string("poster"))), kNoError);
        ASSERT_EQ(medium.ChangeMacAlias(NewHandleWith(std::string("alias"))), kNoError);
        ASSERT_EQ(medium.ChangeFormDataCache(NewHandleWith(std::string("form data"))), kNoError);
    }
};

TEST_F(MediumPersistence, SideRecordsAreWrittenOnlyWhenTheirBitIsSetAndLoadedOnce) {
    TMedium medium("clip", 0);
    medium.ChangeRezID(5);
    GiveSideBlocks(medium);
    ASSERT_EQ(medium.SaveAllToDB(fRefNum), kNoError);
    std::uint32_t dirty = 1;
    medium.GetDirtyFlags(&dirty);
    EXPECT_EQ(dirty, 0u);
    EXPECT_EQ(Record(fRefNum, "path", "clip"), BytesOf("/clips/a.mov"));
    EXPECT_EQ(Record(fRefNum, ".bmp", "clip"), BytesOf("poster"));
    EXPECT_EQ(Record(fRefNum, "alis", "clip"), BytesOf("alias"));
    EXPECT_EQ(Record(fRefNum, "fdat", "clip"), BytesOf("form data"));
    const Bytes image = Record(fRefNum, "MDUM", "clip");

    // Nothing dirty: nothing is written, even what was changed behind the
    // medium's back.
    RMRemoveNamedRecord(fRefNum, "clip", "path");
    ASSERT_EQ(medium.SaveAllToDB(fRefNum), kNoError);
    EXPECT_FALSE(HasRecord(fRefNum, "path", "clip"));
    // The path's bit alone writes the path alone.
    medium.ChangeDirtyFlags(0x08);
    RMRemoveNamedRecord(fRefNum, "clip", "MDUM");
    ASSERT_EQ(medium.SaveAllToDB(fRefNum), kNoError);
    EXPECT_TRUE(HasRecord(fRefNum, "path", "clip"));
    EXPECT_FALSE(HasRecord(fRefNum, "MDUM", "clip"));
    // A time code's bit writes the main record.
    medium.ChangeDirtyFlags(0x10);
    ASSERT_EQ(medium.SaveAllToDB(fRefNum), kNoError);
    EXPECT_EQ(Record(fRefNum, "MDUM", "clip"), image);

    // A medium with the path's bit and no path block: the bit is cleared
    // and nothing is written.
    TMedium bare("bare", 0);
    bare.ChangeDirtyFlags(0x08);
    ASSERT_EQ(bare.SaveAllToDB(fRefNum), kNoError);
    bare.GetDirtyFlags(&dirty);
    EXPECT_EQ(dirty, 0u);
    EXPECT_EQ(CountOfType(fRefNum, "path"), 1u);

    // Loaded on demand, once: a second load does not read again.
    Reopen();
    TMedium loaded("clip", 0);
    void* block = nullptr;
    EXPECT_EQ(loaded.GetPosterCache(&block), kNothingHeld);
    EXPECT_EQ(loaded.GetPathName(&block), kNotOffered);
    ASSERT_EQ(loaded.LoadPosterCache(), kNoError);
    ASSERT_EQ(loaded.GetPosterCache(&block), kNoError);
    RMRemoveNamedRecord(fRefNum, "clip", ".bmp");
    EXPECT_EQ(loaded.LoadPosterCache(), kNoError);
    void* again = nullptr;
    loaded.GetPosterCache(&again);
    EXPECT_EQ(again, block);
    EXPECT_EQ(HandleBytes(block), BytesOf("poster"));
    // FreeMemory drops the poster cache only; loading reads the file again.
    std::uint32_t amount = 0;
    ASSERT_EQ(loaded.LoadPathName(), kNoError);
    EXPECT_EQ(loaded.FreeMemory(0, 0, &amount), kNoError);
    EXPECT_FALSE(loaded.HasPosterLoaded());
    EXPECT_TRUE(loaded.HasPathNameLoaded());
    EXPECT_EQ(loaded.LoadPosterCache(), kRecordNotFound);
    EXPECT_EQ(loaded.LoadMacAlias(), kNoError);
    EXPECT_EQ(loaded.LoadFormDataCache(), kNoError);
    EXPECT_EQ(loaded.GetMacAlias(nullptr), kGeneralError);
}

TEST_F(MediumPersistence, RemovingNeedsTheMainRecordAndTakesEverySideRecord) {
    std::uint32_t before = 0;  // the database's own records
    ASSERT_EQ(RMCountRecords(fRefNum, &before), kNoError);
    TMedium medium("clip", 0);
    EXPECT_EQ(medium.RemoveAllFromDB(fRefNum), kKeyNotFound);
    medium.ChangeDirtyFlags(0x20);
    ASSERT_EQ(medium.SaveAllToDB(fRefNum), kNoError);
    EXPECT_EQ(medium.RemoveAllFromDB(fRefNum), kNoError);  // no side records: still fine
    GiveSideBlocks(medium);
    medium.ChangeDirtyFlags(0xFF);
    ASSERT_EQ(medium.SaveAllToDB(fRefNum), kNoError);
    std::uint32_t count = 0;
    ASSERT_EQ(RMCountRecords(fRefNum, &count), kNoError);
    EXPECT_EQ(count, before + 5);
    EXPECT_EQ(medium.RemoveAllFromDB(fRefNum), kNoError);
    ASSERT_EQ(RMCountRecords(fRefNum, &count), kNoError);
    EXPECT_EQ(count, before);
}

TEST_F(MediumPersistence, ACopyIntoAnotherDatabaseTakesTheNextIDAndANameMadeOfIt) {
    const std::int16_t other = OpenAnother("other.kdb");
    PutRecord(other, "MDUM", "someone", 11, {1});
    TMooVMedium movie("movie", 0);
    movie.ChangeRezID(3);
    GiveSideBlocks(movie);
    std::int32_t newID = 0;
    char newName[kNameLength];
    ASSERT_EQ(movie.CopyToNewDatabase(fRefNum, other, &newID, newName), kNoError);
    EXPECT_EQ(newID, 12);
    EXPECT_STREQ(newName, "Medium 0012");
    // The object still stands for the source medium, saved.
    EXPECT_STREQ(movie.GetRezName(), "movie");
    EXPECT_EQ(movie.GetRezID(), 3);
    std::uint32_t dirty = 1;
    movie.GetDirtyFlags(&dirty);
    EXPECT_EQ(dirty, 0u);
    EXPECT_TRUE(HasRecord(fRefNum, "MDUM", "movie"));
    for (const char* type : {"path", ".bmp", "alis", "fdat"})
        EXPECT_EQ(Record(other, type, "Medium 0012"), Record(fRefNum, type, "movie")) << type;
    std::unique_ptr<TMedium> copy(MediumLoadByName(other, "Medium 0012"));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetRezID(), 12);

    // Five-digit IDs lengthen the name.
    PutRecord(other, "MDUM", "high", 12344, {1});
    ASSERT_EQ(movie.CopyToNewDatabase(fRefNum, other, &newID, newName), kNoError);
    EXPECT_STREQ(newName, "Medium 12345");

    // A medium without all four side records: the main record is copied,
    // then the missing side record ends the copy with the read's code.
    TPictureMedium picture("picture", 0);
    picture.ChangeDirtyFlags(0x20);
    EXPECT_EQ(picture.CopyToNewDatabase(fRefNum, other, &newID, newName), kRecordNotFound);
    EXPECT_TRUE(HasRecord(other, "MDUM", "Medium 12346"));
    EXPECT_STREQ(picture.GetRezName(), "picture");

    EXPECT_EQ(MediumCopyAllToNewDB(&movie, 0, other, &newID), kGeneralError);
    ExpectReported("fromRefNum > 0");
    EXPECT_EQ(MediumCopyAllToNewDB(&movie, fRefNum, -3, &newID), kGeneralError);
    ExpectReported("toRefNum > 0");
    ASSERT_EQ(MediumCopyAllToNewDB(&movie, fRefNum, other, &newID), kNoError);
    EXPECT_EQ(newID, 12347);
}

// Copies share the side blocks of their source; each block is freed once,
// whichever copy goes first (AddressSanitizer checks the frees).
TEST_F(MediumPersistence, CopiesShareSideBlocksAndEachIsFreedOnceInEitherOrder) {
    for (int order = 0; order < 2; ++order) {
        auto source = std::make_unique<TAnalogMedium>("clip", 0);
        GiveSideBlocks(*source);
        ASSERT_EQ(TapeSaveInfo(fRefNum, "tape", 1, 2, "", "", "", reinterpret_cast<const PlugKind*>("DVC ")),
                  kNoError);
        ASSERT_EQ(source->LoadLocator(), kNoError);
        auto copy = std::make_unique<TAnalogMedium>(*source);
        void* a = nullptr;
        void* b = nullptr;
        source->GetPathName(&a);
        copy->GetPathName(&b);
        EXPECT_EQ(a, b);
        EXPECT_TRUE(copy->HasLocatorLoaded());
        TAnalogMedium assigned("other", 0);
        assigned.ChangePathName(NewHandleWith(std::string("its own")));  // released by the assignment
        assigned = *copy;
        assigned.GetPathName(&b);
        EXPECT_EQ(a, b);
        if (order == 0) source.reset(); else copy.reset();
        TAnalogMedium* left = order == 0 ? copy.get() : source.get();
        left->GetPathName(&b);
        EXPECT_EQ(HandleBytes(b), BytesOf("/clips/a.mov"));
        EXPECT_EQ(left->LocatorTapeNameSize(), 5);
        // A new block for one holder leaves the others theirs.
        left->ChangePathName(NewHandleWith(std::string("/new")));
        assigned.GetPathName(&b);
        EXPECT_EQ(HandleBytes(b), BytesOf("/clips/a.mov"));
        RMRemoveNamedRecord(fRefNum, "DVC Header Info", "DVC ");
    }
}

TEST_F(MediumPersistence, AClipReadsItsLocatorFromTheHeaderElseItsOwnRecordWithThePlugKindSlip) {
    TAnalogMedium clip("clip", 0xFFFFFFFF);
    std::uint32_t flags = 0;
    clip.GetFlags(&flags);
    EXPECT_EQ(flags, 0x00010000u);
    EXPECT_FALSE(clip.CanProxy());
    EXPECT_EQ(clip.MakeProxy(), kNoError);  // the flag alone, whatever CanProxy says
    EXPECT_TRUE(clip.IsProxy());

    // No tape information at all.
    LocatorRecord record{};
    EXPECT_EQ(clip.LocatorUnpack(&record), kRecordNotFound);
    EXPECT_EQ(clip.LocatorTapeNameSize(), 0);
    char text[64] = {};
    EXPECT_EQ(clip.LocatorGetTapeName(text), kRecordNotFound);
    EXPECT_FALSE(clip.HasLocatorLoaded());

    // The clip's own record, found when there is no header.
    PutRecord(fRefNum, "DVC ", "clip", 9, TapeImage("S-VH", 77, 1234, "own", "d", "e", "s"));
    EXPECT_EQ(clip.LocatorTapeNameSize(), 4);
    ASSERT_EQ(clip.LocatorGetTapeName(text), kNoError);
    EXPECT_STREQ(text, "own");

    // The header comes first, for a clip that has not loaded one yet.
    PutRecord(fRefNum, "DVC ", "DVC Header Info", 1, TapeImage("DVC ", 0x0A0B0C0D, 99, "Tape 1", "", "me", "you"));
    TAnalogMedium fresh("clip", 0);
    EXPECT_EQ(fresh.LocatorTapeNameSize(), 7);
    ASSERT_EQ(fresh.LocatorGetTapeName(text), kNoError);
    EXPECT_STREQ(text, "Tape 1");
    ASSERT_EQ(fresh.LocatorGetShooter(text), kNoError);
    EXPECT_STREQ(text, "you");
    ASSERT_EQ(fresh.LocatorGetEnteredBy(text), kNoError);
    EXPECT_STREQ(text, "me");
    EXPECT_EQ(fresh.LocatorDescriptionSize(), 1);
    std::uint32_t number = 0;
    ASSERT_EQ(fresh.LocatorGetTapeID(&number), kNoError);
    EXPECT_EQ(number, 0x0A0B0C0Du);
    ASSERT_EQ(fresh.LocatorGetCreateDate(&number), kNoError);
    EXPECT_EQ(number, 99u);
    // The plug kind is the version, read as a number in this machine's order.
    PlugKind plug;
    ASSERT_EQ(fresh.LocatorGetPlugType(&plug), kNoError);
    std::uint32_t one = 1;
    EXPECT_EQ(std::memcmp(plug.code, &one, 4), 0);

    // The locator's bit is tested after the base save has cleared the
    // word: no "WHER" record, and the word is 0.
    fresh.ChangeDirtyFlags(0x01000020);
    ASSERT_EQ(fresh.SaveAllToDB(fRefNum), kNoError);
    EXPECT_TRUE(HasRecord(fRefNum, "MDUM", "clip"));
    EXPECT_EQ(CountOfType(fRefNum, "WHER"), 0u);
    std::uint32_t dirty = 1;
    fresh.GetDirtyFlags(&dirty);
    EXPECT_EQ(dirty, 0u);
    // Removal takes a "WHER" record of the name when there is one.
    PutRecord(fRefNum, "WHER", "clip", 9, {1, 2});
    EXPECT_EQ(fresh.RemoveAllFromDB(fRefNum), kNoError);
    EXPECT_EQ(CountOfType(fRefNum, "WHER"), 0u);
    fresh.ChangeDirtyFlags(0x20);
    ASSERT_EQ(fresh.SaveAllToDB(fRefNum), kNoError);
    EXPECT_EQ(fresh.RemoveAllFromDB(fRefNum), kNoError);

    // A copy carries the tape information as a record of its new name,
    // which the fallback finds in a database without a header.
    const std::int16_t other = OpenAnother("other.kdb");
    GiveSideBlocks(fresh);
    std::int32_t newID = 0;
    char newName[kNameLength];
    ASSERT_EQ(fresh.CopyToNewDatabase(fRefNum, other, &newID, newName), kNoError);
    EXPECT_EQ(Record(other, "DVC ", newName), Record(fRefNum, "DVC ", "DVC Header Info"));
    ASSERT_EQ(RMSetCurrentDB(other), kNoError);
    std::unique_ptr<TMedium> copy(MediumLoadByID(other, newID));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(static_cast<TAnalogMedium&>(*copy).LocatorTapeNameSize(), 7);
}

TEST_F(MediumPersistence, TheTapeHeaderIsWrittenOnceReadWithItsSlipAndChangedInPlace) {
    const PlugKind* dvc = reinterpret_cast<const PlugKind*>("DVC ");
    EXPECT_EQ(TapeNameSize(0), 0);
    char text[64] = {};
    EXPECT_EQ(TapeGetName(text), kRecordNotFound);
    EXPECT_EQ(TapeChangeName(fRefNum, "x"), kRecordNotFound);

    ASSERT_EQ(TapeSaveInfo(fRefNum, "Tape 1", 0x01020304, 0x05060708, "", "", "", dvc), kNoError);
    const Bytes header = Record(fRefNum, "DVC ", "DVC Header Info");
    EXPECT_EQ(header.size(), 38u);
    EXPECT_EQ(header, TapeImage("DVC ", 0x01020304, 0x05060708, "Tape 1", "", "", ""));
    EXPECT_EQ(TapeSaveInfo(fRefNum, "again", 0, 0, "", "", "", dvc), kDuplicateRecord);

    EXPECT_EQ(TapeNameSize(0), 7);
    ASSERT_EQ(TapeGetName(text), kNoError);
    EXPECT_EQ(std::string(text, 7), std::string("Tape 1\0", 7));
    PlugKind plug;
    ASSERT_EQ(TapeGetPlugType(&plug), kNoError);
    EXPECT_EQ(std::memcmp(plug.code, "\0\0\0\1", 4), 0);
    std::uint32_t id = 0;
    ASSERT_EQ(TapeGetTapeID(&id), kNoError);
    EXPECT_EQ(id, 0x01020304u);

    // A change writes the header back with the version bytes as its plug
    // kind, and leaves the current database as it was.
    const std::int16_t other = OpenAnother("other.kdb");
    ASSERT_EQ(TapeChangeName(fRefNum, "Renamed"), kNoError);
    ASSERT_EQ(TapeChangeShooter(fRefNum, "Ann"), kNoError);
    ASSERT_EQ(TapeChangeDescription(fRefNum, "d"), kNoError);
    ASSERT_EQ(TapeChangeEnteredBy(fRefNum, "Bo"), kNoError);
    EXPECT_EQ(CountOfType(fRefNum, "DVC "), 1u);
    EXPECT_EQ(Record(fRefNum, "DVC ", "DVC Header Info"),
              TapeImage("\0\0\0\1", 0x01020304, 0x05060708, "Renamed", "d", "Bo", "Ann"));
    std::int16_t current = 0;
    ASSERT_EQ(RMGetCurrentDB(&current), kNoError);
    EXPECT_EQ(current, fRefNum);
    EXPECT_EQ(TapeShooterSize(0), 4);
    EXPECT_EQ(TapeEnteredBySize(0), 3);
    EXPECT_EQ(TapeDescriptionSize(0), 2);

    // Written to another database: the current one's header with the new
    // text. A database that cannot take it keeps what it had.
    ASSERT_EQ(TapeChangeName(other, "There"), kNoError);
    EXPECT_EQ(Record(other, "DVC ", "DVC Header Info"),
              TapeImage("\0\0\0\1", 0x01020304, 0x05060708, "There", "d", "Bo", "Ann"));
    ASSERT_EQ(RMClose(other), kNoError);
    std::int16_t readOnly = 0;
    ASSERT_EQ(RMOpen("other.kdb", kPermissionReadOnly, &readOnly), kNoError);
    EXPECT_EQ(TapeChangeName(readOnly, "Lost?"), kNoPermission);
    IgnoreReports();  // the remove before the rewrite is refused too
    EXPECT_EQ(Record(readOnly, "DVC ", "DVC Header Info"),
              TapeImage("\0\0\0\1", 0x01020304, 0x05060708, "There", "d", "Bo", "Ann"));
    EXPECT_EQ(TapeChangeName(fRefNum, nullptr), kGeneralError);
    ExpectReported("newText != 0");
}

TEST_F(MediumPersistence, TheFlatFunctionsKeepTheirOwnRulesAndRefuseWhatIsNotAMedium) {
    struct {
        const char* fArgument;
        const char* fKind;
    } const kinds[] = {{"mMED", "mMED"}, {"pMED", "pMED"}, {"DVC ", "aMED"}, {"aMED", "?MED"}, {"zzzz", "?MED"}};
    for (const auto& kind : kinds) {
        TMedium* medium = MediumCreateNew(0xDEAD, kind.fArgument, "m", 77);
        ASSERT_NE(medium, nullptr);
        MediumKind got;
        ASSERT_EQ(MediumGetKind(medium, &got), kNoError);
        EXPECT_EQ(std::string(got.code, 4), kind.fKind);
        std::uint32_t dirty = 0;
        MediumGetDirtyFlags(medium, &dirty);
        EXPECT_EQ(dirty, 32u);
        EXPECT_EQ(MediumGetRezID(medium), 77);
        if (std::strcmp(kind.fKind, "aMED") == 0) {
            PlugKind plug;
            static_cast<TAnalogMedium*>(medium)->GetPlugType(&plug);
            EXPECT_EQ(std::string(plug.code, 4), "DVC ");
        }
        EXPECT_EQ(MediumDestroy(medium), kNoError);
    }

    TMedium* medium = MediumCreateNew(0, "mMED", "title", 1);
    char title[40];
    std::memset(title, '#', sizeof title);
    ASSERT_EQ(MediumChangeTitle(medium, std::string(31, 't').c_str()), kNoError);
    ASSERT_EQ(MediumGetTitle(medium, title), kNoError);
    EXPECT_EQ(std::string(title, 32), std::string(31, 't') + "#");  // no terminator written
    ASSERT_EQ(MediumChangeTitle(medium, std::string(32, 'u').c_str()), kNoError);
    std::memset(title, '#', sizeof title);
    EXPECT_EQ(MediumGetTitle(medium, title), kGeneralError);
    ExpectReported("strlen(retrievedTitle) < kNameLength");
    EXPECT_EQ(title[0], '#');

    char path[300] = {};
    EXPECT_EQ(MediumGetPathName(medium, path), kNotOffered);
    ASSERT_EQ(MediumChangePathName(medium, std::string(255, 'p').c_str()), kNoError);
    ASSERT_EQ(MediumGetPathName(medium, path), kNoError);
    EXPECT_EQ(std::strlen(path), 255u);
    EXPECT_EQ(MediumChangePathName(medium, std::string(256, 'q').c_str()), kGeneralError);
    ExpectReported("strlen(newPath) + 1 <= 256");
    EXPECT_EQ(MediumChangePathName(medium, ""), kGeneralError);
    ExpectReported("strlen(newPath) > 0");
    std::memset(path, 0, sizeof path);
    ASSERT_EQ(MediumGetPathName(medium, path), kNoError);
    EXPECT_EQ(std::strlen(path), 255u);  // the medium kept its path

    // A path record from the file without a NUL within 256 bytes is
    // refused, not measured past its end.
    ASSERT_EQ(MediumSaveToDB(medium, fRefNum), kNoError);
    PutRecord(fRefNum, "path", "title", 1, Bytes(300, 'x'));
    TMedium* loaded = MediumLoadByID(fRefNum, 1);
    ASSERT_NE(loaded, nullptr);
    ASSERT_EQ(MediumLoadPathName(loaded), kNoError);
    EXPECT_EQ(MediumGetPathName(loaded, path), kGeneralError);
    ExpectReported("strlen((char *)aPtr) < 256");
    PutRecord(fRefNum, "path", "title", 1, Bytes(5, 'x'));
    TMedium* again = MediumLoadByName(fRefNum, "title");
    ASSERT_EQ(MediumLoadPathName(again), kNoError);
    EXPECT_EQ(MediumGetPathName(again, path), kGeneralError);
    ExpectReported("strlen((char *)aPtr) < 256");
    MediumDestroy(again);

    // Deleting takes the main record only.
    EXPECT_EQ(MediumDeleteFromDB(fRefNum, loaded), kNoError);
    EXPECT_FALSE(HasRecord(fRefNum, "MDUM", "title"));
    EXPECT_TRUE(HasRecord(fRefNum, "path", "title"));
    EXPECT_EQ(MediumLoadByID(fRefNum, 1), nullptr);
    EXPECT_EQ(MediumLoadByName(fRefNum, "title"), nullptr);
    EXPECT_EQ(MediumLoadNthOne(fRefNum, 0), nullptr);

    // The locator functions: a clip from tape is refused with -1 (the
    // comparison is the wrong way round, as hosts know it), any other
    // medium has no locator to load.
    ASSERT_EQ(TapeSaveInfo(fRefNum, "Tape", 1, 2, "", "", "", reinterpret_cast<const PlugKind*>("DVC ")),
              kNoError);
    TMedium* clip = MediumCreateNew(0, "DVC ", "clip", 2);
    EXPECT_EQ(MediumLocatorTapeNameSize(clip), kGeneralError);
    EXPECT_EQ(MediumLocatorGetTapeName(clip, path), kGeneralError);
    EXPECT_EQ(MediumLoadLocator(clip), kNoError);
    EXPECT_EQ(MediumLocatorTapeNameSize(medium), kNotOffered);
    EXPECT_EQ(MediumLoadLocator(medium), kNotOffered);
    RMRemoveNamedRecord(fRefNum, "DVC Header Info", "DVC ");
    TMedium* lost = MediumCreateNew(0, "DVC ", "lost", 3);
    EXPECT_EQ(MediumLocatorShooterSize(lost), kRecordNotFound);

    // Null, destroyed and wild pointers are refused, never followed.
    EXPECT_EQ(MediumDestroy(nullptr), kNoError);
    ASSERT_EQ(MediumDestroy(lost), kNoError);
    EXPECT_EQ(MediumDestroy(lost), kGeneralError);
    ExpectReported("theMedium != 0");
    MediumKind kind;
    EXPECT_EQ(MediumGetKind(nullptr, &kind), kGeneralError);
    EXPECT_EQ(MediumIsProxy(nullptr), 0);
    EXPECT_EQ(MediumMakeProxy(nullptr), kGeneralError);
    int notAMedium[64] = {};
    EXPECT_EQ(MediumGetRezName(reinterpret_cast<TMedium*>(notAMedium)), nullptr);
    EXPECT_EQ(MediumSaveToDB(reinterpret_cast<TMedium*>(notAMedium), fRefNum), kGeneralError);
    std::uint16_t a, b, c, d;
    EXPECT_EQ(VBMediumGetTrimEnd(nullptr, &a, &b, &c, &d), kGeneralError);
    EXPECT_EQ(VBMediumChangeTrimEnd(lost, 1, 2, 3, 4), kGeneralError);
    ExpectReportedTimes("theMedium != 0", 7);
    EXPECT_EQ(VBMediumGetCreateDate(clip, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), kGeneralError);
    IgnoreReports();

    // The Basic forms keep the order of the record's fields.
    ASSERT_EQ(VBMediumChangeTrimStart(clip, 1, 2, 3, 4), kNoError);
    EXPECT_EQ(VBMediumGetTrimStart(clip, &a, &b, &c, &d), 4);
    EXPECT_EQ((std::vector<std::uint16_t>{a, b, c, d}), (std::vector<std::uint16_t>{1, 2, 3, 4}));
    EXPECT_EQ(VBMediumChangeCreateDate(clip, 2026, 11, 25, 7, 8, 9), kGeneralError);
    std::uint16_t year = 0;
    std::uint8_t month, day, hour, minute, second;
    ASSERT_EQ(VBMediumGetCreateDate(clip, &year, &month, &day, &hour, &minute, &second), kNoError);
    EXPECT_EQ(year, 2026);
    EXPECT_EQ((std::vector<int>{month, day, hour, minute, second}), (std::vector<int>{11, 25, 7, 8, 9}));
    std::int16_t top = 1, left = 1, bottom = 1, right = 1;
    EXPECT_EQ(VBMediumGetPosterRect(clip, &top, &left, &bottom, &right), kNoError);
    EXPECT_EQ(top + left + bottom + right, 0);
    std::uint8_t h = 0, m = 0, s = 0, f = 1;
    void* sample = nullptr;
    EXPECT_EQ(VBMediumGetSample(clip, &h, &m, &s, &f, &sample), kNotOffered);
    EXPECT_EQ(VBMediumGetSample(medium, &h, &m, &s, &f, &sample), kNotOffered);

    for (TMedium* each : {medium, loaded, clip}) EXPECT_EQ(MediumDestroy(each), kNoError);
}

}  // namespace
