// The resource manager: reference numbers, the open databases and the
// routing of record operations to one database, the first that succeeds, the
// sum of all, or the home of a handle.
#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Crezmgr.h"
#include "Rm/Common/Source/Rmclock.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::HandleBytes;
using kavotest::NameString;
using kavotest::NewHandleWith;

constexpr std::uint32_t kCreator = 0x54455354;   // 'TEST'
constexpr std::uint32_t kFileType = 0x44415441;  // 'DATA'

std::int16_t ExpectedDraw(std::uint32_t seconds) {
    return static_cast<std::int16_t>(((seconds * 214013u + 2531011u) >> 16) & 0x7FFF);
}

class RezManagerTest : public kavotest::RmTest {
protected:
    void SetUp() override {
        RmTest::SetUp();
        fManager = std::make_unique<CRezManager>();
    }
    void TearDown() override {
        memsys::RefuseSystemAllocationAfter(-1);
        CloseAll();
        fManager.reset();
        RmTest::TearDown();
    }

    std::int16_t CreateAndOpen(const std::string& name, std::int16_t permission = kPermissionReadWrite) {
        EXPECT_EQ(fManager->Create(name.c_str(), kCreator, kFileType), kNoError);
        std::int16_t refNum = 0;
        EXPECT_EQ(fManager->Open(name.c_str(), permission, &refNum), kNoError);
        return refNum;
    }

    void Add(std::int16_t refNum, const char* type, const char* name, std::int32_t id,
             const std::string& data) {
        ASSERT_EQ(fManager->AddNewRecord(refNum, type, name, id, NewHandleWith(data)), kNoError);
    }

    // Reads, checks the bytes and hands the handle back.
    std::string ReadText(std::int16_t refNum, std::int32_t id, const char* type,
                         std::int16_t* error = nullptr) {
        MSHandle data = nullptr;
        const std::int16_t result = fManager->ReadRecordByNumber(refNum, id, type, &data);
        if (error != nullptr) *error = result;
        if (result != kNoError) return "";
        const auto bytes = HandleBytes(data);
        EXPECT_EQ(fManager->ReleaseRecord(data), kNoError);
        return std::string(bytes.begin(), bytes.end());
    }

    void CloseAll() {
        std::uint16_t count = 0;
        fManager->CountFiles(&count);
        while (count-- > 0) {
            std::int16_t refNum = 0;
            fManager->GetNthRefNum(0, &refNum);
            fManager->Close(refNum);
        }
    }

    std::unique_ptr<CRezManager> fManager;
};

TEST_F(RezManagerTest, AfterConstructionNothingIsOpenAndTheCurrentDatabaseIsAllFiles) {
    std::int16_t current = 0;
    EXPECT_EQ(fManager->GetCurrentDB(&current), kNoError);
    EXPECT_EQ(current, kAllFiles);
    std::uint16_t count = 99;
    EXPECT_EQ(fManager->CountFiles(&count), kNoError);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(fManager->LastError(), kNoError);
    std::int16_t refNum = 0;
    EXPECT_EQ(fManager->GetNthRefNum(0, &refNum), kGeneralError);
    EXPECT_EQ(fManager->FreeMemory(100), kCannotFree);
}

TEST_F(RezManagerTest, ASecondInstanceIsReported) {
    {
        CRezManager second;
        ExpectReported("fNumInstances == 0");
    }
    // Destroying either instance resets the count.
    CRezManager third;
}

TEST_F(RezManagerTest, CreateLeavesTheFileClosedAndOpenRegistersItNewestFirst) {
    EXPECT_EQ(fManager->Create("one.db", kCreator, kFileType), kNoError);
    std::uint16_t count = 99;
    fManager->CountFiles(&count);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(fManager->Create("one.db", kCreator, kFileType), kCannotOpenHostFile);
    const std::int16_t first = [&] {
        std::int16_t r = 0;
        EXPECT_EQ(fManager->Open("one.db", kPermissionReadWrite, &r), kNoError);
        return r;
    }();
    const std::int16_t second = CreateAndOpen("two.db");
    EXPECT_GE(first, 1);
    EXPECT_GE(second, 1);
    EXPECT_NE(first, second);
    std::int16_t refNum = 0;
    EXPECT_EQ(fManager->GetNthRefNum(0, &refNum), kNoError);
    EXPECT_EQ(refNum, second);
    EXPECT_EQ(fManager->GetNthRefNum(1, &refNum), kNoError);
    EXPECT_EQ(refNum, first);
    EXPECT_EQ(fManager->GetNthRefNum(2, &refNum), kGeneralError);
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    EXPECT_EQ(fManager->GetFileInfo(first, &creator, &fileType, platform), kNoError);
    EXPECT_EQ(creator, kCreator);
    EXPECT_EQ(fileType, kFileType);
    EXPECT_STREQ(platform, "windows");
}

TEST_F(RezManagerTest, ReferenceNumbersAreDrawnFromTheClockAndATakenOneWaitsForTheNextSecond) {
    // A clock that shows each second twice.
    static std::uint32_t reading = 0;
    reading = 5000 * 2;
    const rm::TClock previous = rm::SetClockForTests([]() -> std::uint32_t { return reading++ / 2; });
    EXPECT_EQ(fManager->Create("clock.db", kCreator, kFileType), kNoError);
    EXPECT_EQ(fManager->Create("clock2.db", kCreator, kFileType), kNoError);
    std::int16_t first = 0;
    std::int16_t second = 0;
    ASSERT_EQ(fManager->Open("clock.db", kPermissionReadWrite, &first), kNoError);
    ASSERT_EQ(fManager->Open("clock2.db", kPermissionReadWrite, &second), kNoError);
    rm::SetClockForTests(previous);
    EXPECT_EQ(first, ExpectedDraw(5000));
    EXPECT_EQ(second, ExpectedDraw(5001)) << "the same second gives the same, taken, number";
}

TEST_F(RezManagerTest, ClosedNumbersAreRefusedAndNeverIssuedAgain) {
    EXPECT_EQ(fManager->Create("cycle.db", kCreator, kFileType), kNoError);
    std::set<std::int16_t> issued;
    for (int i = 0; i < 300; ++i) {
        std::int16_t refNum = 0;
        ASSERT_EQ(
            fManager->Open("cycle.db", i % 2 == 0 ? kPermissionReadWrite : kPermissionReadOnly, &refNum),
            kNoError);
        EXPECT_GE(refNum, 1);
        EXPECT_TRUE(issued.insert(refNum).second) << "number " << refNum << " issued twice";
        EXPECT_EQ(fManager->Close(refNum), kNoError);
        EXPECT_EQ(fManager->Close(refNum), kClosedRefNum);
        EXPECT_EQ(fManager->SetCurrentDB(refNum), kClosedRefNum);
        std::uint32_t count = 0;
        EXPECT_EQ(fManager->CountRecords(refNum, &count), kClosedRefNum);
    }
    const std::int16_t closed = *issued.begin();
    std::int16_t never = 1;
    while (issued.count(never) != 0) ++never;
    std::uint32_t count = 0;
    EXPECT_EQ(fManager->CountRecords(never, &count), kBadRefNum);
    EXPECT_EQ(fManager->Close(never), kBadRefNum);
    EXPECT_EQ(fManager->LastError(), kBadRefNum);
    // NextRecordID alone skips the check: a closed number is simply unknown.
    std::int32_t id = 0;
    EXPECT_EQ(fManager->NextRecordID(closed, "TYPE", &id), kBadRefNum);
    MSHandle data = nullptr;
    EXPECT_EQ(fManager->ReadRecordByNumber(closed, 1, "TYPE", &data), kClosedRefNum);
}

TEST_F(RezManagerTest, FirstSuccessSearchesTheNewestDatabaseFirst) {
    const std::int16_t older = CreateAndOpen("older.db");
    const std::int16_t newer = CreateAndOpen("newer.db");
    Add(older, "MDUM", "old clip", 128, "older");
    Add(newer, "MDUM", "new clip", 128, "newer");
    Add(older, "MDUM", "only old", 5, "only");
    EXPECT_EQ(ReadText(kAllFiles, 128, "MDUM"), "newer");
    EXPECT_EQ(ReadText(kAllFiles, 5, "MDUM"), "only");
    EXPECT_EQ(ReadText(older, 128, "MDUM"), "older");
    std::int16_t error = 0;
    ReadText(newer, 5, "MDUM", &error);
    EXPECT_EQ(error, kRecordNotFound);

    std::uint32_t size = 0;
    EXPECT_EQ(fManager->GetSizeOfNamedRecord(kAllFiles, "old clip", "MDUM", &size), kNoError);
    EXPECT_EQ(size, 5u);
    // A name that no database holds: not found, whatever a database answered.
    EXPECT_EQ(fManager->GetSizeOfNamedRecord(kAllFiles, "nowhere", "MDUM", &size), kRecordNotFound);
    MSHandle data = nullptr;
    EXPECT_EQ(fManager->ReadRecordByName(kAllFiles, "nowhere", "MDUM", &data), kRecordNotFound);
    EXPECT_EQ(fManager->GetSizeOfNamedRecord(newer, "nowhere", "MDUM", &size), kKeyNotFound);

    // Removes take the first database that holds the record.
    EXPECT_EQ(fManager->RemoveNumberedRecord(kAllFiles, 128, "MDUM"), kNoError);
    EXPECT_EQ(ReadText(kAllFiles, 128, "MDUM"), "older");
    EXPECT_EQ(fManager->RemoveNamedRecord(kAllFiles, "only old", "MDUM"), kNoError);
    EXPECT_EQ(fManager->RemoveNamedRecord(kAllFiles, "only old", "MDUM"), kRecordNotFound);
    EXPECT_EQ(fManager->RemoveNamedRecord(older, "only old", "MDUM"), kKeyNotFound);
}

TEST_F(RezManagerTest, CountsOverAllFilesAreSums) {
    std::uint32_t count = 99;
    EXPECT_EQ(fManager->CountRecords(kAllFiles, &count), kNoError);
    EXPECT_EQ(count, 0u) << "no database open";
    const std::int16_t a = CreateAndOpen("a.db");
    const std::int16_t b = CreateAndOpen("b.db");
    Add(a, "SEEN", "s1", 1, "x");
    Add(a, "SEEN", "s2", 2, "x");
    Add(b, "SEEN", "s1", 1, "x");
    Add(b, "MDUM", "m1", 1, "x");
    EXPECT_EQ(fManager->CountRecords(kAllFiles, &count), kNoError);
    EXPECT_EQ(count, 6u) << "four records and two file-info records";
    EXPECT_EQ(fManager->CountRecordsOfType(kAllFiles, "SEEN", &count), kNoError);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(fManager->CountRecordsOfType(b, "SEEN", &count), kNoError);
    EXPECT_EQ(count, 1u);
}

TEST_F(RezManagerTest, OneDatabaseOperationsRefuseAllFiles) {
    const std::int16_t a = CreateAndOpen("one.db");
    Add(a, "SEEN", "s1", 1, "x");
    MSHandle data = nullptr;
    EXPECT_EQ(fManager->ReadNthRecord(kAllFiles, 0, &data), kBadRefNum);
    ExpectReported("refNum != kAllFiles");
    ExpectReported("targetRefNum != kAllFiles");
    std::int32_t id = 0;
    EXPECT_EQ(fManager->NextRecordID(kAllFiles, "SEEN", &id), kBadRefNum);
    ExpectReported("refNum != kAllFiles");
    ExpectReported("targetRefNum != kAllFiles");
    MSHandle extra = NewHandleWith(std::string("e"));
    EXPECT_EQ(fManager->AddNewRecord(kAllFiles, "SEEN", "s2", 2, extra), kBadRefNum);
    ExpectReported("targetRefNum != kAllFiles");
    MSDisposeHandle(extra);
    EXPECT_EQ(fManager->NextRecordID(a, "SEEN", &id), kNoError);
    EXPECT_EQ(id, 2);
    char type[4];
    char name[32];
    EXPECT_EQ(fManager->GetInfoOfNthRecord(a, 1, type, name, &id), kNoError);
    EXPECT_EQ(NameString(name), "s1");
    EXPECT_EQ(fManager->GetInfoOfNthRecordOfType(a, 0, "SEEN", name, &id), kNoError);
    std::uint32_t size = 0;
    EXPECT_EQ(fManager->GetSizeOfNthRecordOfType(a, 0, "SEEN", &size), kNoError);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(fManager->GetSizeOfNthRecord(a, 2, &size), kRecordNotFound);
    EXPECT_EQ(fManager->ReadNthRecordOfType(a, 0, "SEEN", &data), kNoError);
    EXPECT_EQ(fManager->ReleaseRecord(data), kNoError);
}

TEST_F(RezManagerTest, TheCurrentFileIsResolvedBeforeTheRouting) {
    const std::int16_t a = CreateAndOpen("a.db");
    const std::int16_t b = CreateAndOpen("b.db");
    Add(a, "MDUM", "in a", 1, "a");
    Add(b, "MDUM", "in b", 2, "b");
    // The current database is kAllFiles: searches cover every database and
    // one-database operations fail.
    EXPECT_EQ(ReadText(kCurrentFile, 1, "MDUM"), "a");
    std::uint32_t count = 0;
    EXPECT_EQ(fManager->CountRecords(kCurrentFile, &count), kNoError);
    EXPECT_EQ(count, 4u);
    MSHandle extra = NewHandleWith(std::string("e"));
    EXPECT_EQ(fManager->AddNewRecord(kCurrentFile, "MDUM", "e", 3, extra), kBadRefNum);
    ExpectReported("targetRefNum != kAllFiles");
    MSDisposeHandle(extra);

    EXPECT_EQ(fManager->SetCurrentDB(b), kNoError);
    std::int16_t current = 0;
    fManager->GetCurrentDB(&current);
    EXPECT_EQ(current, b);
    std::int16_t error = 0;
    ReadText(kCurrentFile, 1, "MDUM", &error);
    EXPECT_EQ(error, kRecordNotFound);
    EXPECT_EQ(ReadText(kCurrentFile, 2, "MDUM"), "b");
    Add(kCurrentFile, "MDUM", "added", 3, "c");
    EXPECT_EQ(ReadText(b, 3, "MDUM"), "c");

    // Closing the current database leaves the number current: later calls
    // with kCurrentFile fail.
    EXPECT_EQ(fManager->Close(b), kNoError);
    fManager->GetCurrentDB(&current);
    EXPECT_EQ(current, b);
    EXPECT_EQ(fManager->CountRecords(kCurrentFile, &count), kBadRefNum);

    EXPECT_EQ(fManager->SetCurrentDB(kAllFiles), kNoError);
    std::int32_t id = 0;
    EXPECT_EQ(fManager->NextRecordID(kCurrentFile, "MDUM", &id), kBadRefNum);
    ExpectReported("refNum != kAllFiles");
    ExpectReported("targetRefNum != kAllFiles");
    EXPECT_EQ(fManager->SetCurrentDB(a), kNoError);
    EXPECT_EQ(fManager->Close(kCurrentFile), kNoError);
    std::uint16_t files = 9;
    fManager->CountFiles(&files);
    EXPECT_EQ(files, 0);
    EXPECT_EQ(fManager->SetCurrentDB(a), kClosedRefNum);
}

TEST_F(RezManagerTest, HandlesAreRoutedToTheirHomeDatabase) {
    const std::int16_t a = CreateAndOpen("a.db");
    const std::int16_t b = CreateAndOpen("b.db");
    Add(a, "MDUM", "clip", 1, "from a");
    Add(b, "MDUM", "clip", 1, "from b");
    MSHandle inA = nullptr;
    ASSERT_EQ(fManager->ReadRecordByNumber(a, 1, "MDUM", &inA), kNoError);
    std::int16_t home = 0;
    EXPECT_EQ(fManager->GetHomeDB(inA, &home), kNoError);
    EXPECT_EQ(home, a);
    char name[32];
    char type[4];
    std::int32_t id = 0;
    EXPECT_EQ(fManager->GetInfoOfRecord(inA, name, type, &id), kNoError);
    EXPECT_STREQ(name, "clip");
    EXPECT_EQ(fManager->ChangedRecordData(inA), kNoError);
    EXPECT_EQ(fManager->PurgeRecord(inA), kNoError);
    EXPECT_EQ(fManager->DoNotPurgeRecord(inA), kNoError);
    DropReports("index != 0");
    EXPECT_EQ(fManager->DetachRecord(inA), kNoError);
    EXPECT_EQ(fManager->ChangedRecordData(inA), kHandleNotInDB);
    EXPECT_EQ(fManager->GetHomeDB(inA, &home), kHandleNotInDB);
    EXPECT_EQ(home, 0);
    MSDisposeHandle(inA);
    // A freed handle is reported and belongs to no database.
    EXPECT_EQ(fManager->ReleaseRecord(inA), kHandleNotInDB);
    ExpectReported("MSValidHandle(theRecord)");

    // RemoveRecord removes from the home database only.
    ASSERT_EQ(fManager->ReadRecordByNumber(b, 1, "MDUM", &inA), kNoError);
    EXPECT_EQ(fManager->RemoveRecord(inA), kNoError);
    MSDisposeHandle(inA);
    EXPECT_EQ(ReadText(kAllFiles, 1, "MDUM"), "from a");
    // A closed database takes its loaded handles with it.
    ASSERT_EQ(fManager->ReadRecordByNumber(a, 1, "MDUM", &inA), kNoError);
    EXPECT_EQ(fManager->Close(a), kNoError);
    EXPECT_FALSE(MSValidHandle(inA));
}

TEST_F(RezManagerTest, FileInfoIsReadAndChangedPerDatabase) {
    const std::int16_t a = CreateAndOpen("a.db");
    EXPECT_EQ(fManager->ChangeFileInfo(a, 1, 2, "plat"), kNoError);
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    EXPECT_EQ(fManager->GetFileInfo(a, &creator, &fileType, platform), kNoError);
    EXPECT_EQ(creator, 1u);
    EXPECT_STREQ(platform, "plat");
    EXPECT_EQ(fManager->GetFileInfo(kAllFiles, &creator, &fileType, platform), kBadRefNum);
    ExpectReported("refNum != kAllFiles");
    ExpectReported("targetRefNum != kAllFiles");
    EXPECT_EQ(fManager->SetCurrentDB(a), kNoError);
    EXPECT_EQ(fManager->GetFileInfo(kCurrentFile, &creator, &fileType, platform), kNoError);
    EXPECT_EQ(fileType, 2u);
    EXPECT_EQ(fManager->FreeMemory(1 << 20), kCannotFree);
    EXPECT_EQ(fManager->LastError(), kCannotFree);
}

TEST_F(RezManagerTest, BadFileNamesAndFailedOpensChangeNothing) {
    const std::string name257(257, 'f');
    EXPECT_EQ(fManager->Create(name257.c_str(), kCreator, kFileType), kCannotOpenHostFile);
    ExpectReported("strlen(name) > 0 && strlen(name) <= kMaxFileNameLength");
    const std::string name256(256, 'f');
    EXPECT_EQ(fManager->Create(name256.c_str(), kCreator, kFileType), kCannotOpenHostFile);
    ExpectReported("strlen(theFileName) < kMaxFileNameLength");
    std::int16_t refNum = 77;
    EXPECT_EQ(fManager->Open("", kPermissionReadWrite, &refNum), kCannotOpenHostFile);
    ExpectReported("strlen(fileName) > 0 && strlen(fileName) <= kMaxFileNameLength");
    EXPECT_EQ(fManager->Open(nullptr, kPermissionReadWrite, &refNum), kCannotOpenHostFile);
    ExpectReported("fileName != NULL");
    EXPECT_EQ(fManager->Open("missing.db", kPermissionReadWrite, &refNum), kCannotOpenFiles);
    EXPECT_EQ(fManager->Open("missing.db", kPermissionReadWrite, nullptr), kGeneralError);
    ExpectReported("refNum != NULL");
    std::uint16_t count = 9;
    fManager->CountFiles(&count);
    EXPECT_EQ(count, 0);
}

// Null pointers, over-long names, wild handles and bad numbers: each gets
// its code, and every record stays as it was.
TEST_F(RezManagerTest, BadInputIsRefusedAndNothingStoredIsLost) {
    const std::int16_t a = CreateAndOpen("safe.db");
    Add(a, "MDUM", "keep", 1, "kept");
    const std::string name32(32, 'n');
    const std::string name40(40, 'n');
    MSHandle data = NewHandleWith(std::string("d"));
    MSHandle out = nullptr;
    std::uint32_t size = 0;
    std::int32_t id = 0;
    char name[32];
    char type[4];

    EXPECT_EQ(fManager->AddNewRecord(a, "MDUM", name32.c_str(), 2, data), kGeneralError);
    EXPECT_EQ(fManager->ReadRecordByName(kAllFiles, name40.c_str(), "MDUM", &out), kGeneralError);
    EXPECT_EQ(fManager->GetSizeOfNamedRecord(a, name32.c_str(), "MDUM", &size), kGeneralError);
    EXPECT_EQ(fManager->RemoveNamedRecord(kAllFiles, name32.c_str(), "MDUM"), kGeneralError);
    ExpectReportedTimes("strlen(name) < kNameLength", 4);

    EXPECT_EQ(fManager->AddNewRecord(a, nullptr, "x", 2, data), kGeneralError);
    EXPECT_EQ(fManager->ReadRecordByNumber(a, 1, nullptr, &out), kGeneralError);
    EXPECT_EQ(fManager->CountRecordsOfType(kAllFiles, nullptr, &size), kGeneralError);
    EXPECT_EQ(fManager->RemoveNumberedRecord(a, 1, nullptr), kGeneralError);
    ExpectReportedTimes("theType != NULL", 4);
    EXPECT_EQ(fManager->ReadRecordByName(a, nullptr, "MDUM", &out), kGeneralError);
    ExpectReported("theName != NULL");
    EXPECT_EQ(fManager->ReadRecordByNumber(a, 1, "MDUM", nullptr), kGeneralError);
    ExpectReported("data != NULL");
    EXPECT_EQ(fManager->CountRecords(a, nullptr), kGeneralError);
    ExpectReported("count != NULL");
    EXPECT_EQ(fManager->GetInfoOfNthRecord(a, 0, nullptr, name, &id), kGeneralError);
    ExpectReported("type != NULL");
    EXPECT_EQ(fManager->GetHomeDB(data, nullptr), kGeneralError);
    ExpectReported("refNum != NULL");
    EXPECT_EQ(fManager->GetCurrentDB(nullptr), kGeneralError);
    ExpectReported("refNum != NULL");
    EXPECT_EQ(fManager->GetFileInfo(a, nullptr, nullptr, nullptr), kGeneralError);
    ExpectReported("creator != NULL");
    EXPECT_EQ(fManager->ChangeFileInfo(a, 1, 2, nullptr), kGeneralError);
    ExpectReported("platform != NULL");

    // Wild and foreign handles belong to no database.
    const auto wild = reinterpret_cast<MSHandle>(static_cast<std::uintptr_t>(0xDEADBEE0));
    for (MSHandle h : {wild, data, static_cast<MSHandle>(nullptr)}) {
        EXPECT_EQ(fManager->RemoveRecord(h), kHandleNotInDB);
        EXPECT_EQ(fManager->ReleaseRecord(h), kHandleNotInDB);
        EXPECT_EQ(fManager->ChangeRecordInfo(h, "MDUM", "x", 9), kHandleNotInDB);
        EXPECT_EQ(fManager->GetInfoOfRecord(h, name, type, &id), kHandleNotInDB);
    }
    ExpectReportedTimes("MSValidHandle(theRecord)", 8);
    // A freed handle given to an add is refused before the file is touched.
    MSDisposeHandle(data);
    EXPECT_EQ(fManager->AddNewRecord(a, "MDUM", "freed", 3, data), kInvalidHandle);
    ExpectReported("MSValidHandle(theData)");

    for (std::int16_t bad : {std::int16_t{0}, std::int16_t{-1}, std::int16_t{32767}, std::int16_t{-32768}}) {
        EXPECT_EQ(fManager->ReadRecordByNumber(bad, 1, "MDUM", &out), kBadRefNum);
        EXPECT_EQ(fManager->Close(bad), kBadRefNum);
        EXPECT_EQ(fManager->SetCurrentDB(bad), kBadRefNum);
    }

    std::uint32_t count = 0;
    fManager->CountRecords(a, &count);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(ReadText(a, 1, "MDUM"), "kept");
}

// A refused allocation at any step of opening, adding, reading and closing
// gives a failure code, never a crash, and loses nothing stored: every record
// the file took is there afterwards.
TEST_F(RezManagerTest, AFailedAllocationAtAnyStepLosesNothingStored) {
    std::map<std::int32_t, std::string> stored;
    {
        const std::int16_t refNum = CreateAndOpen("alloc.db");
        for (std::int32_t id = 1; id <= 5; ++id) {
            stored[id] = "stored " + std::to_string(id);
            Add(refNum, "ALOC", ("s" + std::to_string(id)).c_str(), id, stored[id]);
        }
        ASSERT_EQ(fManager->Close(refNum), kNoError);
    }
    for (int n = 0; n < 120; ++n) {
        memsys::RefuseSystemAllocationAfter(n);
        std::int16_t refNum = 0;
        if (fManager->Open("alloc.db", kPermissionReadWrite, &refNum) == kNoError) {
            const std::int32_t id = 100 + n;
            const std::string text = "added " + std::to_string(n);
            MSHandle data = NewHandleWith(text);
            if (data != nullptr) {
                const std::int16_t error =
                    fManager->AddNewRecord(refNum, "ALOC", ("a" + std::to_string(n)).c_str(), id, data);
                // kMapFull: the file took the record, the map could not.
                if (error == kNoError || error == kMapFull) stored[id] = text;
                if (error != kNoError) MSDisposeHandle(data);
            }
            MSHandle read = nullptr;
            if (fManager->ReadRecordByNumber(refNum, 3, "ALOC", &read) == kNoError) {
                EXPECT_EQ(HandleBytes(read).size(), stored[3].size());
                fManager->ReleaseRecord(read);
            }
            fManager->Close(refNum);
        }
        memsys::RefuseSystemAllocationAfter(-1);
        IgnoreReports();
    }
    std::int16_t refNum = 0;
    ASSERT_EQ(fManager->Open("alloc.db", kPermissionReadOnly, &refNum), kNoError);
    std::uint32_t count = 0;
    EXPECT_EQ(fManager->CountRecordsOfType(refNum, "ALOC", &count), kNoError);
    EXPECT_EQ(count, stored.size());
    for (const auto& [id, text] : stored) EXPECT_EQ(ReadText(refNum, id, "ALOC"), text) << "record " << id;
    EXPECT_GT(stored.size(), 60u);
}

// The routing against a model of several databases: random reads, sizes,
// counts, adds and removes with a random reference number (an open one,
// kAllFiles, kCurrentFile, a closed one, one never issued), with databases
// closed and opened again on the way.
TEST_F(RezManagerTest, RandomRoutingMatchesAModelOfTheOpenDatabases) {
    std::mt19937 random(4242);
    const auto pick = [&](std::uint32_t n) { return static_cast<std::uint32_t>(random() % n); };
    using TRecords = std::map<std::int32_t, std::string>;  // one type "MDUM"; name = "r<id>"
    std::map<std::string, TRecords> files;                 // by file name; the file-info record aside
    struct TOpen {
        std::string fFile;
        std::int16_t fRefNum;
    };
    std::vector<TOpen> open;  // newest first
    std::vector<std::int16_t> closed;
    std::int16_t current = kAllFiles;

    const auto openFile = [&](const std::string& file) {
        if (files.count(file) == 0) {
            ASSERT_EQ(fManager->Create(file.c_str(), kCreator, kFileType), kNoError);
            files[file];
        }
        std::int16_t refNum = 0;
        ASSERT_EQ(fManager->Open(file.c_str(), kPermissionReadWrite, &refNum), kNoError);
        open.insert(open.begin(), TOpen{file, refNum});
    };
    for (const char* file : {"f0.db", "f1.db", "f2.db"}) openFile(file);

    for (int step = 0; step < 1500; ++step) {
        // The reference number and the databases it stands for.
        std::int16_t refNum = kAllFiles;
        const std::uint32_t which = pick(10);
        if (which < 5 && !open.empty()) {
            refNum = open[pick(static_cast<std::uint32_t>(open.size()))].fRefNum;
        } else if (which == 5) {
            refNum = kCurrentFile;
        } else if (which == 6 && !closed.empty()) {
            refNum = closed[pick(static_cast<std::uint32_t>(closed.size()))];
        } else if (which == 7) {
            refNum = 0;
        }
        const bool isClosed = std::find(closed.begin(), closed.end(), refNum) != closed.end();
        const std::int16_t resolved = refNum == kCurrentFile ? current : refNum;
        std::int16_t badCode = kNoError;
        if (isClosed) {
            badCode = kClosedRefNum;
        } else if (refNum != kAllFiles && refNum != kCurrentFile &&
                   std::none_of(open.begin(), open.end(),
                                [&](const TOpen& o) { return o.fRefNum == refNum; })) {
            badCode = kBadRefNum;
        }
        // The open databases that the resolved number names, in search order.
        std::vector<TRecords*> targets;
        bool oneMissing = false;  // a single number that names no open database
        if (resolved == kAllFiles) {
            for (const TOpen& o : open) targets.push_back(&files[o.fFile]);
        } else {
            const auto it =
                std::find_if(open.begin(), open.end(), [&](const TOpen& o) { return o.fRefNum == resolved; });
            if (it != open.end()) {
                targets.push_back(&files[it->fFile]);
            } else {
                oneMissing = true;
            }
        }
        const std::int32_t id = static_cast<std::int32_t>(pick(30));

        switch (pick(7)) {
            case 0: {  // read: first success
                std::int16_t error = 0;
                const std::string text = ReadText(refNum, id, "MDUM", &error);
                std::int16_t want = kRecordNotFound;
                std::string wantText;
                for (TRecords* t : targets) {
                    if (t->count(id) != 0) {
                        want = kNoError;
                        wantText = (*t)[id];
                        break;
                    }
                }
                if (badCode != kNoError) {
                    want = badCode;
                } else if (oneMissing) {
                    want = kBadRefNum;
                }
                ASSERT_EQ(error, want) << "step " << step;
                EXPECT_EQ(text, wantText);
                break;
            }
            case 1: {  // size: first success, -1004 from a single database
                std::uint32_t size = 0;
                const std::int16_t error = fManager->GetSizeOfNumberedRecord(refNum, id, "MDUM", &size);
                std::int16_t want = resolved == kAllFiles ? kRecordNotFound : kKeyNotFound;
                for (TRecords* t : targets) {
                    if (t->count(id) != 0) {
                        want = kNoError;
                        EXPECT_EQ(size, (*t)[id].size());
                        break;
                    }
                }
                if (badCode != kNoError) {
                    want = badCode;
                } else if (oneMissing) {
                    want = kBadRefNum;
                }
                ASSERT_EQ(error, want) << "step " << step;
                break;
            }
            case 2: {  // count: sum
                std::uint32_t count = 0;
                const std::int16_t error = fManager->CountRecordsOfType(refNum, "MDUM", &count);
                std::uint32_t want = 0;
                for (TRecords* t : targets) want += static_cast<std::uint32_t>(t->size());
                std::int16_t wantError = oneMissing ? std::int16_t{kBadRefNum} : std::int16_t{kNoError};
                if (badCode != kNoError) wantError = badCode;
                ASSERT_EQ(error, wantError) << "step " << step;
                if (error == kNoError) {
                    EXPECT_EQ(count, want);
                }
                break;
            }
            case 3: {  // add: one database
                const std::string text = "t" + std::to_string(step);
                MSHandle data = NewHandleWith(text);
                const std::string name = "r" + std::to_string(id);
                const std::int16_t error = fManager->AddNewRecord(refNum, "MDUM", name.c_str(), id, data);
                std::int16_t want = kNoError;
                if (badCode != kNoError) {
                    want = badCode;
                } else if (resolved == kAllFiles || oneMissing) {
                    want = kBadRefNum;
                    if (resolved == kAllFiles) ExpectReported("targetRefNum != kAllFiles");
                } else if (targets[0]->count(id) != 0) {
                    want = kDuplicateRecord;
                }
                ASSERT_EQ(error, want) << "step " << step;
                if (error == kNoError) {
                    (*targets[0])[id] = text;
                    EXPECT_EQ(fManager->ReleaseRecord(data), kNoError);
                } else {
                    MSDisposeHandle(data);
                }
                break;
            }
            case 4: {  // remove: first success
                const std::int16_t error = fManager->RemoveNumberedRecord(refNum, id, "MDUM");
                std::int16_t want = resolved == kAllFiles ? kRecordNotFound : kKeyNotFound;
                for (TRecords* t : targets) {
                    if (t->count(id) != 0) {
                        want = kNoError;
                        t->erase(id);
                        break;
                    }
                }
                if (badCode != kNoError) {
                    want = badCode;
                } else if (oneMissing) {
                    want = kBadRefNum;
                }
                ASSERT_EQ(error, want) << "step " << step;
                break;
            }
            case 5: {  // the current database
                const std::int16_t error = fManager->SetCurrentDB(refNum);
                ASSERT_EQ(error, badCode);
                if (error == kNoError) current = refNum;
                break;
            }
            default: {  // close one, open one (a new file or an old one again)
                if (!open.empty() && pick(2) == 0) {
                    const std::size_t at = pick(static_cast<std::uint32_t>(open.size()));
                    ASSERT_EQ(fManager->Close(open[at].fRefNum), kNoError);
                    closed.push_back(open[at].fRefNum);
                    open.erase(open.begin() + static_cast<std::ptrdiff_t>(at));
                } else {
                    // A file that is not open already (an open file is held).
                    const std::string file = "f" + std::to_string(pick(6)) + ".db";
                    if (std::none_of(open.begin(), open.end(),
                                     [&](const TOpen& o) { return o.fFile == file; }))
                        openFile(file);
                }
                break;
            }
        }
        if (HasFatalFailure()) return;
        std::uint16_t count = 0;
        fManager->CountFiles(&count);
        ASSERT_EQ(count, open.size());
    }
    EXPECT_GT(closed.size(), 20u);
}

}  // namespace
