// The resource manager: reference numbers, the open databases and the
// routing of record operations to one database, the first that succeeds, the
// sum of all, or the home of a handle.
#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Crezmgr.h"
#include "Rm/Common/Source/Rmclock.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::Answer;
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

    // Reads by ID and gives the text back; "" when the read fails.
    std::string ReadText(std::int16_t refNum, std::int32_t id, const char* type) {
        MSHandle data = nullptr;
        return fManager->ReadRecordByNumber(refNum, id, type, &data) == kNoError ? Released(data) : "";
    }

    std::unique_ptr<CRezManager> fManager;
};

// Only one manager may exist at a time.
TEST_F(RezManagerTest, ASecondInstanceIsReported) {
    {
        CRezManager second;
        ExpectReported("fNumInstances == 0");
    }
    // Destroying either instance resets the count.
    CRezManager third;
}

// Numbers are drawn from the clock's seconds, so a number that is taken, by
// an open database or by a closed one, comes up again until the second
// changes. A closed number is refused as closed.
TEST_F(RezManagerTest, ReferenceNumbersAreDrawnFromTheClockAndATakenOrClosedOneIsNotIssued) {
    // A clock that shows each second twice.
    static std::uint32_t reading = 0;
    reading = 5000 * 2;
    const rm::TClock previous = rm::SetClockForTests([]() -> std::uint32_t { return reading++ / 2; });
    const std::int16_t first = CreateAndOpen("clock1.db");
    EXPECT_EQ(first, ExpectedDraw(5000));
    EXPECT_EQ(CreateAndOpen("clock2.db"), ExpectedDraw(5001))
        << "the same second gives the same, taken, number";
    EXPECT_EQ(fManager->Close(first), kNoError);
    reading = 5000 * 2;
    EXPECT_EQ(CreateAndOpen("clock3.db"), ExpectedDraw(5002)) << "a closed number is never issued again";
    rm::SetClockForTests(previous);
    EXPECT_EQ(fManager->Close(first), kClosedRefNum);
}

// A loaded handle belongs to the database that loaded it until it is
// detached, removed, or its database closes.
TEST_F(RezManagerTest, HandlesAreRoutedToTheirHomeDatabase) {
    const std::int16_t a = CreateAndOpen("a.db");
    const std::int16_t b = CreateAndOpen("b.db");
    Add(a, "MDUM", "clip", 1, "from a");
    Add(b, "MDUM", "clip", 1, "from b");
    MSHandle inA = nullptr;
    ASSERT_EQ(fManager->ReadRecordByNumber(a, 1, "MDUM", &inA), kNoError);
    std::int16_t home = 0;
    EXPECT_EQ(Answer(fManager->GetHomeDB(inA, &home), home), a);
    EXPECT_EQ(fManager->DetachRecord(inA), kNoError);
    EXPECT_EQ(fManager->ChangedRecordData(inA), kHandleNotInDB);
    EXPECT_EQ(fManager->GetHomeDB(inA, &home), kHandleNotInDB);
    EXPECT_EQ(home, 0);
    MSDisposeHandle(inA);

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

// Bad file names, null pointers, over-long names, wild and freed handles:
// each gets its code, and every record stays as it was. (Bad and closed
// numbers are part of the randomised routing test below.)
TEST_F(RezManagerTest, BadInputIsRefusedAndNothingStoredIsLost) {
    const std::int16_t a = CreateAndOpen("safe.db");
    Add(a, "MDUM", "keep", 1, "kept");
    const std::string name32(32, 'n');
    ExpectRefused(fManager->Create(std::string(257, 'f').c_str(), kCreator, kFileType), kCannotOpenHostFile,
                  "strlen(name) > 0 && strlen(name) <= kMaxFileNameLength");
    ExpectRefused(fManager->Create(std::string(256, 'f').c_str(), kCreator, kFileType), kCannotOpenHostFile,
                  "strlen(theFileName) < kMaxFileNameLength");
    std::int16_t refNum = 77;
    ExpectRefused(fManager->Open("", kPermissionReadWrite, &refNum), kCannotOpenHostFile,
                  "strlen(fileName) > 0 && strlen(fileName) <= kMaxFileNameLength");
    ExpectRefused(fManager->Open(nullptr, kPermissionReadWrite, &refNum), kCannotOpenHostFile,
                  "fileName != NULL");
    ExpectRefused(fManager->Open("safe.db", kPermissionReadWrite, nullptr), kGeneralError, "refNum != NULL");

    MSHandle data = NewHandleWith(std::string("d"));
    MSHandle out = nullptr;
    std::uint32_t size = 0;
    std::int32_t id = 0;
    char name[32];
    char type[4];
    EXPECT_EQ(fManager->AddNewRecord(a, "MDUM", name32.c_str(), 2, data), kGeneralError);
    EXPECT_EQ(fManager->ReadRecordByName(kAllFiles, std::string(40, 'n').c_str(), "MDUM", &out),
              kGeneralError);
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
    EXPECT_EQ(Answer(fManager->CountRecords(a, &size), size), 2u);
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
    EXPECT_EQ(Answer(fManager->CountRecordsOfType(refNum, "ALOC", &count), count), stored.size());
    for (const auto& [id, text] : stored) EXPECT_EQ(ReadText(refNum, id, "ALOC"), text) << "record " << id;
    EXPECT_GT(stored.size(), 60u);
}

// The routing against a model of several databases: random reads, sizes,
// counts, adds, removes, next IDs and file info, by ID or by name, with a random
// reference number (an open one, kAllFiles, kCurrentFile, a closed one, one
// never issued), and databases closed through that same number and opened
// again on the way. After every step the open list, newest first, and the
// current database are the model's.
TEST_F(RezManagerTest, RandomRoutingMatchesAModelOfTheOpenDatabases) {
    std::mt19937 random(4242);
    const auto pick = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    using TRecords = std::map<std::int32_t, std::string>;    // one type "MDUM"; name = "r<id>"
    std::map<std::string, TRecords> files;                   // by file name; the file-info record aside
    std::vector<std::pair<std::string, std::int16_t>> open;  // file and number, newest first
    std::vector<std::int16_t> closed;
    std::int16_t current = kAllFiles;
    const std::int16_t neverIssued[] = {0, -1, 32767, -32768};
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
            refNum = neverIssued[pick(4)];
        }
        const std::int16_t resolved = refNum == kCurrentFile ? current : refNum;
        // The check of the number itself, then of the database it stands for
        // (kCurrentFile may stand for one that is gone).
        std::int16_t checked =
            isOpen(refNum) || refNum == kAllFiles || refNum == kCurrentFile ? kNoError : kBadRefNum;
        if (isClosed(refNum)) checked = kClosedRefNum;
        std::int16_t refused = checked;
        if (checked == kNoError && resolved != kAllFiles && !isOpen(resolved)) refused = kBadRefNum;
        // One database: kAllFiles is refused, and reported, after the check.
        const bool all = refused == kNoError && resolved == kAllFiles;
        const std::int16_t one = all ? std::int16_t{kBadRefNum} : refused;
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

        switch (pick(9)) {
            case 0:
            case 1: {  // the size, then the record
                std::uint32_t size = 0;
                MSHandle data = nullptr;
                ASSERT_EQ(byName ? fManager->GetSizeOfNamedRecord(refNum, name.c_str(), "MDUM", &size)
                                 : fManager->GetSizeOfNumberedRecord(refNum, id, "MDUM", &size),
                          searched(kKeyNotFound))
                    << "step " << step;
                ASSERT_EQ(byName ? fManager->ReadRecordByName(refNum, name.c_str(), "MDUM", &data)
                                 : fManager->ReadRecordByNumber(refNum, id, "MDUM", &data),
                          searched(kRecordNotFound))
                    << "step " << step;
                if (data != nullptr) {
                    EXPECT_EQ(size, (*holder)[id].size());
                    EXPECT_EQ(Released(data), (*holder)[id]);
                }
                break;
            }
            case 2: {  // counts: sums, with one file-info record a database
                // A sum starts from 0, not from what the caller's variable held.
                std::uint32_t ofType = 99;
                std::uint32_t all = 99;
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
                const bool taken = one == kNoError && targets[0]->count(id) != 0;
                ASSERT_EQ(error, taken ? std::int16_t{kDuplicateRecord} : one) << "step " << step;
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
            case 6: {  // the next ID: one database, and the number is not checked
                std::int32_t next = 0;
                const bool found = resolved != kAllFiles && isOpen(resolved);
                ASSERT_EQ(fManager->NextRecordID(refNum, "MDUM", &next), found ? kNoError : kBadRefNum);
                if (resolved == kAllFiles) {
                    ExpectReported("refNum != kAllFiles");
                    ExpectReported("targetRefNum != kAllFiles");
                }
                if (found) {
                    EXPECT_EQ(next, targets[0]->empty() ? 1 : targets[0]->rbegin()->first + 1);
                }
                break;
            }
            case 7: {  // the file info and the "Nth" reads: one database
                std::uint32_t creator = 0;
                std::uint32_t fileType = 0;
                char platform[32];
                MSHandle data = nullptr;
                ASSERT_EQ(fManager->ChangeFileInfo(refNum, static_cast<std::uint32_t>(step), 2, "plat"), one);
                ASSERT_EQ(fManager->GetFileInfo(refNum, &creator, &fileType, platform), one);
                ASSERT_EQ(byName ? fManager->ReadNthRecordOfType(refNum, 0, "NFO!", &data)
                                 : fManager->ReadNthRecord(refNum, 0, &data),
                          one);
                if (all) {
                    ExpectReported("refNum != kAllFiles");
                    ExpectReported("targetRefNum != kAllFiles");
                }
                if (one != kNoError) break;
                EXPECT_EQ(creator, static_cast<std::uint32_t>(step));
                EXPECT_STREQ(platform, "plat");
                EXPECT_EQ(fManager->ReleaseRecord(data), kNoError);
                break;
            }
            default: {  // close the database the number names, or open one
                if (pick(2) == 0) {
                    ASSERT_EQ(fManager->Close(refNum), one) << "step " << step;
                    if (all) ExpectReported("targetRefNum != kAllFiles");
                    if (one != kNoError) break;
                    closed.push_back(resolved);
                    open.erase(std::find_if(open.begin(), open.end(),
                                            [&](const auto& o) { return o.second == resolved; }));
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
        std::uint16_t count = 0;
        ASSERT_EQ(Answer(fManager->CountFiles(&count), count), open.size());
        for (std::uint16_t i = 0; i <= open.size(); ++i) {
            std::int16_t nth = 0;
            ASSERT_EQ(fManager->GetNthRefNum(i, &nth), i < open.size() ? kNoError : kGeneralError);
            if (i < open.size()) {
                ASSERT_EQ(nth, open[i].second);
            }
        }
        std::int16_t now = 0;
        ASSERT_EQ(Answer(fManager->GetCurrentDB(&now), now), current)
            << "a closed current database stays current";
    }
    EXPECT_GT(closed.size(), 20u);
}

}  // namespace
