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
        std::uint16_t count = 0;
        fManager->CountFiles(&count);
        for (std::int16_t refNum = 0; count-- > 0 && fManager->GetNthRefNum(0, &refNum) == kNoError;)
            fManager->Close(refNum);
        fManager.reset();
        RmTest::TearDown();
    }

    std::int16_t CreateAndOpen(const std::string& name) {
        EXPECT_EQ(fManager->Create(name.c_str(), kCreator, kFileType), kNoError);
        std::int16_t refNum = 0;
        EXPECT_EQ(fManager->Open(name.c_str(), kPermissionReadWrite, &refNum), kNoError);
        return refNum;
    }

    void Add(std::int16_t refNum, const char* type, const char* name, std::int32_t id,
             const std::string& data) {
        ASSERT_EQ(fManager->AddNewRecord(refNum, type, name, id, NewHandleWith(data)), kNoError);
    }

    // The text a handle holds; the handle is released.
    std::string Released(MSHandle data) {
        const auto bytes = HandleBytes(data);
        EXPECT_EQ(fManager->ReleaseRecord(data), kNoError);
        return std::string(bytes.begin(), bytes.end());
    }

    // Reads by ID and gives the text back; "" with the error, if any.
    std::string ReadText(std::int16_t refNum, std::int32_t id, const char* type,
                         std::int16_t* error = nullptr) {
        MSHandle data = nullptr;
        const std::int16_t result = fManager->ReadRecordByNumber(refNum, id, type, &data);
        if (error != nullptr) *error = result;
        return result == kNoError ? Released(data) : "";
    }

    std::uint16_t CountFiles() {
        std::uint16_t count = 99;
        EXPECT_EQ(fManager->CountFiles(&count), kNoError);
        return count;
    }

    std::unique_ptr<CRezManager> fManager;
};

TEST_F(RezManagerTest, CreateLeavesTheFileClosedAndOpenRegistersItNewestFirst) {
    EXPECT_EQ(fManager->LastError(), kNoError);
    std::uint32_t records = 99;
    EXPECT_EQ(fManager->CountRecords(kAllFiles, &records), kNoError);
    EXPECT_EQ(records, 0u) << "no database open";
    EXPECT_EQ(fManager->FreeMemory(100), kCannotFree);
    EXPECT_EQ(fManager->Create("one.db", kCreator, kFileType), kNoError);
    EXPECT_EQ(CountFiles(), 0);
    EXPECT_EQ(fManager->Create("one.db", kCreator, kFileType), kCannotOpenHostFile);
    std::int16_t first = 0;
    EXPECT_EQ(fManager->Open("one.db", kPermissionReadWrite, &first), kNoError);
    const std::int16_t second = CreateAndOpen("two.db");
    EXPECT_NE(first, second);
    std::int16_t refNum = 0;
    EXPECT_EQ(fManager->GetNthRefNum(0, &refNum), kNoError);
    EXPECT_EQ(refNum, second);
    EXPECT_EQ(fManager->GetNthRefNum(1, &refNum), kNoError);
    EXPECT_EQ(refNum, first);
    EXPECT_EQ(fManager->GetNthRefNum(2, &refNum), kGeneralError);
}

TEST_F(RezManagerTest, ASecondInstanceIsReported) {
    {
        CRezManager second;
        ExpectReported("fNumInstances == 0");
    }
    // Destroying either instance resets the count.
    CRezManager third;
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

// Other refusals of closed and unknown numbers are part of the randomised
// routing test below.
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
    }
    std::int16_t never = 1;
    while (issued.count(never) != 0) ++never;
    EXPECT_EQ(fManager->Close(never), kBadRefNum);
    EXPECT_EQ(fManager->LastError(), kBadRefNum);
    // NextRecordID alone skips the check: a closed number is simply unknown.
    std::int32_t id = 0;
    EXPECT_EQ(fManager->NextRecordID(*issued.begin(), "TYPE", &id), kBadRefNum);
}

// The other operations by handle go through the same routing (see the flat
// API's tests).
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
    EXPECT_EQ(fManager->DetachRecord(inA), kNoError);
    EXPECT_EQ(fManager->ChangedRecordData(inA), kHandleNotInDB);
    EXPECT_EQ(fManager->GetHomeDB(inA, &home), kHandleNotInDB);
    EXPECT_EQ(home, 0);
    MSDisposeHandle(inA);
    // A freed handle is reported and belongs to no database.
    ExpectRefused(fManager->ReleaseRecord(inA), kHandleNotInDB, "MSValidHandle(theRecord)");

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

TEST_F(RezManagerTest, FileInfoIsPerDatabaseAndOneDatabaseOperationsRefuseAllFiles) {
    const std::int16_t a = CreateAndOpen("a.db");
    std::uint32_t creator = 0;
    std::uint32_t fileType = 0;
    char platform[32];
    EXPECT_EQ(fManager->ChangeFileInfo(a, 1, 2, "plat"), kNoError);
    EXPECT_EQ(fManager->GetFileInfo(a, &creator, &fileType, platform), kNoError);
    EXPECT_EQ(creator, 1u);
    EXPECT_STREQ(platform, "plat");

    // kCurrentFile stands for kAllFiles until a database is made current.
    MSHandle data = nullptr;
    std::int32_t id = 0;
    EXPECT_EQ(fManager->GetFileInfo(kAllFiles, &creator, &fileType, platform), kBadRefNum);
    EXPECT_EQ(fManager->ReadNthRecord(kAllFiles, 0, &data), kBadRefNum);
    EXPECT_EQ(fManager->NextRecordID(kAllFiles, "MDUM", &id), kBadRefNum);
    EXPECT_EQ(fManager->NextRecordID(kCurrentFile, "MDUM", &id), kBadRefNum);
    ExpectReportedTimes("refNum != kAllFiles", 4);
    ExpectReportedTimes("targetRefNum != kAllFiles", 4);
    EXPECT_EQ(fManager->SetCurrentDB(a), kNoError);
    EXPECT_EQ(fManager->GetFileInfo(kCurrentFile, &creator, &fileType, platform), kNoError);
    EXPECT_EQ(fileType, 2u);
    EXPECT_EQ(fManager->NextRecordID(kCurrentFile, "MDUM", &id), kNoError);
    EXPECT_EQ(id, 1);
    EXPECT_EQ(fManager->FreeMemory(1 << 20), kCannotFree);
    EXPECT_EQ(fManager->LastError(), kCannotFree);
}

// Bad file names, null pointers, over-long names, wild and freed handles and
// bad numbers: each gets its code, and every record stays as it was.
TEST_F(RezManagerTest, BadInputIsRefusedAndNothingStoredIsLost) {
    const std::int16_t a = CreateAndOpen("safe.db");
    Add(a, "MDUM", "keep", 1, "kept");
    const std::string name32(32, 'n');
    const std::string name40(40, 'n');
    ExpectRefused(fManager->Create(std::string(257, 'f').c_str(), kCreator, kFileType), kCannotOpenHostFile,
                  "strlen(name) > 0 && strlen(name) <= kMaxFileNameLength");
    ExpectRefused(fManager->Create(std::string(256, 'f').c_str(), kCreator, kFileType), kCannotOpenHostFile,
                  "strlen(theFileName) < kMaxFileNameLength");
    std::int16_t refNum = 77;
    ExpectRefused(fManager->Open("", kPermissionReadWrite, &refNum), kCannotOpenHostFile,
                  "strlen(fileName) > 0 && strlen(fileName) <= kMaxFileNameLength");
    ExpectRefused(fManager->Open(nullptr, kPermissionReadWrite, &refNum), kCannotOpenHostFile,
                  "fileName != NULL");
    EXPECT_EQ(fManager->Open("missing.db", kPermissionReadWrite, &refNum), kCannotOpenFiles);
    ExpectRefused(fManager->Open("missing.db", kPermissionReadWrite, nullptr), kGeneralError,
                  "refNum != NULL");
    EXPECT_EQ(CountFiles(), 1);

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
    ExpectRefused(fManager->ReadRecordByName(a, nullptr, "MDUM", &out), kGeneralError, "theName != NULL");
    ExpectRefused(fManager->ReadRecordByNumber(a, 1, "MDUM", nullptr), kGeneralError, "data != NULL");
    ExpectRefused(fManager->CountRecords(a, nullptr), kGeneralError, "count != NULL");
    ExpectRefused(fManager->GetInfoOfNthRecord(a, 0, nullptr, name, &id), kGeneralError, "type != NULL");
    EXPECT_EQ(fManager->GetHomeDB(data, nullptr), kGeneralError);
    EXPECT_EQ(fManager->GetCurrentDB(nullptr), kGeneralError);
    ExpectReportedTimes("refNum != NULL", 2);
    ExpectRefused(fManager->GetFileInfo(a, nullptr, nullptr, nullptr), kGeneralError, "creator != NULL");
    ExpectRefused(fManager->ChangeFileInfo(a, 1, 2, nullptr), kGeneralError, "platform != NULL");

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
    ExpectRefused(fManager->AddNewRecord(a, "MDUM", "freed", 3, data), kInvalidHandle,
                  "MSValidHandle(theData)");

    for (std::int16_t bad : {std::int16_t{0}, std::int16_t{-1}, std::int16_t{32767}, std::int16_t{-32768}}) {
        EXPECT_EQ(fManager->ReadRecordByNumber(bad, 1, "MDUM", &out), kBadRefNum);
        EXPECT_EQ(fManager->Close(bad), kBadRefNum);
        EXPECT_EQ(fManager->SetCurrentDB(bad), kBadRefNum);
    }
    fManager->CountRecords(a, &size);
    EXPECT_EQ(size, 2u);
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
// counts, adds and removes, by ID or by name, with a random reference number
// (an open one, kAllFiles, kCurrentFile, a closed one, one never issued),
// with databases closed (now and then as kCurrentFile) and opened again on
// the way.
TEST_F(RezManagerTest, RandomRoutingMatchesAModelOfTheOpenDatabases) {
    std::mt19937 random(4242);
    const auto pick = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    using TRecords = std::map<std::int32_t, std::string>;    // one type "MDUM"; name = "r<id>"
    std::map<std::string, TRecords> files;                   // by file name; the file-info record aside
    std::vector<std::pair<std::string, std::int16_t>> open;  // file and number, newest first
    std::vector<std::int16_t> closed;
    std::int16_t current = kAllFiles;
    const auto isOpen = [&](std::int16_t refNum) {
        return std::any_of(open.begin(), open.end(), [&](const auto& o) { return o.second == refNum; });
    };
    const auto isClosed = [&](std::int16_t refNum) {
        return std::find(closed.begin(), closed.end(), refNum) != closed.end();
    };
    const auto openFile = [&](const std::string& file) {
        if (files.count(file) == 0) {
            ASSERT_EQ(fManager->Create(file.c_str(), kCreator, kFileType), kNoError);
            files[file];
        }
        std::int16_t refNum = 0;
        ASSERT_EQ(fManager->Open(file.c_str(), kPermissionReadWrite, &refNum), kNoError);
        EXPECT_FALSE(isClosed(refNum)) << "a closed number is never issued again";
        open.insert(open.begin(), {file, refNum});
    };
    for (const char* file : {"f0.db", "f1.db", "f2.db"}) openFile(file);

    for (int step = 0; step < 1500; ++step) {
        std::int16_t refNum = kAllFiles;
        const std::size_t which = pick(10);
        if (which < 5 && !open.empty()) {
            refNum = open[pick(open.size())].second;
        } else if (which == 5) {
            refNum = kCurrentFile;
        } else if (which == 6 && !closed.empty()) {
            refNum = closed[pick(closed.size())];
        } else if (which == 7) {
            refNum = 0;
        }
        const std::int16_t resolved = refNum == kCurrentFile ? current : refNum;
        // The check of the number itself, then of the database it stands for
        // (kCurrentFile may stand for one that is gone).
        std::int16_t checked =
            isOpen(refNum) || refNum == kAllFiles || refNum == kCurrentFile ? kNoError : kBadRefNum;
        if (isClosed(refNum)) checked = kClosedRefNum;
        std::int16_t refused = checked;
        if (checked == kNoError && resolved != kAllFiles && !isOpen(resolved)) refused = kBadRefNum;
        // The open databases that the number names, in search order, and
        // the first of them that holds the record.
        const std::int32_t id = static_cast<std::int32_t>(pick(30));
        const std::string name = "r" + std::to_string(id);
        std::vector<TRecords*> targets;
        for (auto& o : open)
            if (resolved == kAllFiles || o.second == resolved) targets.push_back(&files[o.first]);
        TRecords* holder = nullptr;
        for (TRecords* t : targets)
            if (holder == nullptr && t->count(id) != 0) holder = t;
        // A search answers the first success; when none succeeds, kRecordNotFound
        // over every database and the database's own code from one.
        const auto searched = [&](std::int16_t missing) -> std::int16_t {
            if (refused != kNoError) return refused;
            if (holder != nullptr) return kNoError;
            return resolved == kAllFiles ? std::int16_t{kRecordNotFound} : missing;
        };
        const bool byName = pick(2) == 0;

        switch (pick(7)) {
            case 0: {  // read
                MSHandle data = nullptr;
                const std::int16_t error =
                    byName ? fManager->ReadRecordByName(refNum, name.c_str(), "MDUM", &data)
                           : fManager->ReadRecordByNumber(refNum, id, "MDUM", &data);
                ASSERT_EQ(error, searched(kRecordNotFound)) << "step " << step;
                if (error == kNoError) {
                    EXPECT_EQ(Released(data), (*holder)[id]);
                }
                break;
            }
            case 1: {  // size
                std::uint32_t size = 0;
                const std::int16_t error =
                    byName ? fManager->GetSizeOfNamedRecord(refNum, name.c_str(), "MDUM", &size)
                           : fManager->GetSizeOfNumberedRecord(refNum, id, "MDUM", &size);
                ASSERT_EQ(error, searched(kKeyNotFound)) << "step " << step;
                if (error == kNoError) {
                    EXPECT_EQ(size, (*holder)[id].size());
                }
                break;
            }
            case 2: {  // counts: sums, with one file-info record a database
                std::uint32_t ofType = 0;
                std::uint32_t all = 0;
                std::uint32_t want = 0;
                for (TRecords* t : targets) want += static_cast<std::uint32_t>(t->size());
                ASSERT_EQ(fManager->CountRecordsOfType(refNum, "MDUM", &ofType), refused) << "step " << step;
                ASSERT_EQ(fManager->CountRecords(refNum, &all), refused) << "step " << step;
                if (refused != kNoError) break;
                EXPECT_EQ(ofType, want);
                EXPECT_EQ(all, want + targets.size());
                break;
            }
            case 3: {  // add: one database
                const std::string text = "t" + std::to_string(step);
                MSHandle data = NewHandleWith(text);
                const std::int16_t error = fManager->AddNewRecord(refNum, "MDUM", name.c_str(), id, data);
                const bool all = refused == kNoError && resolved == kAllFiles;
                std::int16_t want = all ? std::int16_t{kBadRefNum} : refused;
                if (want == kNoError && targets[0]->count(id) != 0) want = kDuplicateRecord;
                ASSERT_EQ(error, want) << "step " << step;
                if (all) ExpectReported("targetRefNum != kAllFiles");
                if (error == kNoError) {
                    (*targets[0])[id] = text;
                    EXPECT_EQ(fManager->ReleaseRecord(data), kNoError);
                } else {
                    MSDisposeHandle(data);
                }
                break;
            }
            case 4: {  // remove
                const std::int16_t error = byName ? fManager->RemoveNamedRecord(refNum, name.c_str(), "MDUM")
                                                  : fManager->RemoveNumberedRecord(refNum, id, "MDUM");
                ASSERT_EQ(error, searched(kKeyNotFound)) << "step " << step;
                if (error == kNoError) holder->erase(id);
                break;
            }
            case 5: {  // the current database: kAllFiles and kCurrentFile are stored as they are
                ASSERT_EQ(fManager->SetCurrentDB(refNum), checked);
                if (checked == kNoError) current = refNum;
                break;
            }
            default: {  // close one, open one (a new file or an old one again)
                if (!open.empty() && pick(2) == 0) {
                    const std::size_t at = pick(open.size());
                    const std::int16_t doomed = open[at].second;
                    ASSERT_EQ(fManager->Close(doomed == current && pick(2) == 0 ? std::int16_t{kCurrentFile}
                                                                                : doomed),
                              kNoError);
                    closed.push_back(doomed);
                    open.erase(open.begin() + static_cast<std::ptrdiff_t>(at));
                } else {
                    // A file that is not open already (an open file is held).
                    const std::string file = "f" + std::to_string(pick(6)) + ".db";
                    if (std::none_of(open.begin(), open.end(),
                                     [&](const auto& o) { return o.first == file; }))
                        openFile(file);
                }
                break;
            }
        }
        if (HasFatalFailure()) return;
        ASSERT_EQ(CountFiles(), open.size());
        std::int16_t now = 0;
        ASSERT_EQ(fManager->GetCurrentDB(&now), kNoError);
        ASSERT_EQ(now, current) << "a closed current database stays current";
    }
    EXPECT_GT(closed.size(), 20u);
}

}  // namespace
