// The flat RM functions: the global manager's life, the routing of every
// function to it with its arguments, and the about-file text, which the flat
// layer keeps itself.
#include <cstring>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Rmmgr.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::Answer;
using kavotest::FileBytes;
using kavotest::NewHandleWith;

constexpr std::uint32_t kCreator = 0x464C4154;   // 'FLAT'
constexpr std::uint32_t kFileType = 0x41504920;  // 'API '

// How many of the answers are kGeneralError.
template <typename... TResults>
int Refusals(TResults... results) {
    return ((results == kGeneralError ? 1 : 0) + ...);
}

// Calls every forwarding function once (in no particular order: without a
// manager none of them may do anything, not even look at its arguments) and
// counts the refusals.
int CountRefusals() {
    return Refusals(
        RMCreate("x.db", 1, 2), RMOpen("x.db", kPermissionReadWrite, nullptr), RMClose(1), RMSetCurrentDB(1),
        RMGetCurrentDB(nullptr), RMCountFiles(nullptr), RMGetNthRefNum(0, nullptr), RMFreeMemory(10),
        RMLastError(), RMAddNewRecord(1, "TYPE", "n", 1, nullptr),
        RMReadRecordByNumber(1, 1, "TYPE", nullptr), RMReadRecordByName(1, "n", "TYPE", nullptr),
        RMReadNthRecord(1, 0, nullptr), RMReadNthRecordOfType(1, 0, "TYPE", nullptr),
        RMGetSizeOfNumberedRecord(1, 1, "TYPE", nullptr), RMGetSizeOfNamedRecord(1, "n", "TYPE", nullptr),
        RMGetSizeOfNthRecord(1, 0, nullptr), RMGetSizeOfNthRecordOfType(1, 0, "TYPE", nullptr),
        RMGetInfoOfRecord(nullptr, nullptr, nullptr, nullptr),
        RMGetInfoOfNthRecord(1, 0, nullptr, nullptr, nullptr),
        RMGetInfoOfNthRecordOfType(1, 0, "TYPE", nullptr, nullptr), RMCountRecords(1, nullptr),
        RMCountRecordsOfType(1, "TYPE", nullptr), RMNextRecordID(1, "TYPE", nullptr),
        RMChangeRecordInfo(nullptr, "TYPE", "n", 1), RMChangedRecordData(nullptr), RMDetachRecord(nullptr),
        RMReleaseRecord(nullptr), RMPurgeRecord(nullptr), RMDoNotPurgeRecord(nullptr),
        RMRemoveRecord(nullptr), RMRemoveNumberedRecord(1, 1, "TYPE"), RMRemoveNamedRecord(1, "n", "TYPE"),
        RMGetHomeDB(nullptr, nullptr), RMAboutSize(1, nullptr), RMGetAboutFile(1, nullptr),
        RMChangeAboutFile(1, "about"), KillRMRezManager());
}

constexpr int kForwardingFunctions = 38;

class RmApiTest : public kavotest::RmTest {
protected:
    void SetUp() override {
        RmTest::SetUp();
        ASSERT_EQ(InitRMRezManager(), kNoError);
    }
    void TearDown() override {
        if (gRezManager != nullptr) {
            std::uint16_t count = 0;
            RMCountFiles(&count);
            for (std::int16_t refNum = 0; count-- > 0 && RMGetNthRefNum(0, &refNum) == kNoError;)
                RMClose(refNum);
            KillRMRezManager();
        }
        RmTest::TearDown();
    }

    std::int16_t CreateAndOpen(const char* name) {
        std::int16_t refNum = 0;
        EXPECT_EQ(RMCreate(name, kCreator, kFileType), kNoError);
        EXPECT_EQ(RMOpen(name, kPermissionReadWrite, &refNum), kNoError);
        return refNum;
    }

    // The text as RMAboutSize and RMGetAboutFile give it: exactly the size,
    // NUL included, is written.
    std::string AboutText(std::int16_t refNum) {
        std::uint32_t size = 0;
        if (RMAboutSize(refNum, &size) != kNoError) return "<none>";
        std::vector<char> buffer(size + 8, 'X');
        EXPECT_EQ(RMGetAboutFile(refNum, buffer.data()), kNoError);
        EXPECT_EQ(buffer[size - 1], '\0') << "the text comes with its NUL";
        EXPECT_EQ(buffer[size], 'X') << "nothing is written past the record";
        return std::string(buffer.data(), size - 1);
    }
};

// Without a manager, before the first init and after a kill, every function
// reports and answers kGeneralError (-1); a second init keeps the first
// manager and the databases it holds.
TEST_F(RmApiTest, EveryFunctionAnswersMinusOneWithoutAManagerAndASecondInitIsRefused) {
    const std::int16_t refNum = CreateAndOpen("keep.db");
    CRezManager* first = gRezManager;
    ExpectRefused(InitRMRezManager(), kGeneralError, "gRezManager == 0");
    EXPECT_EQ(gRezManager, first);
    EXPECT_EQ(RMClose(refNum), kNoError);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(KillRMRezManager(), kNoError);
        EXPECT_EQ(gRezManager, nullptr);
        EXPECT_EQ(CountRefusals(), kForwardingFunctions);
        ExpectReportedTimes("gRezManager != 0", kForwardingFunctions);
        ASSERT_EQ(InitRMRezManager(), kNoError);
    }
}

// Each forwarding function reaches the manager with its own arguments: one
// database of known content (the record below and the file-info record
// after it) answers each call distinctly, and RMLastError is the manager's.
TEST_F(RmApiTest, EveryFunctionReachesTheManagerWithItsArguments) {
    const std::int16_t refNum = CreateAndOpen("flat.db");
    std::uint32_t value = 0;
    std::uint32_t fileType = 0;
    char name[32];
    char type[4];
    EXPECT_EQ(Answer(gRezManager->GetFileInfo(refNum, &value, &fileType, name), value), kCreator);
    EXPECT_EQ(fileType, kFileType);
    std::int16_t number = 0;
    std::uint16_t count = 0;
    EXPECT_EQ(RMSetCurrentDB(refNum), kNoError);
    EXPECT_EQ(Answer(RMGetCurrentDB(&number), number), refNum);
    EXPECT_EQ(Answer(RMCountFiles(&count), count), 1);
    EXPECT_EQ(RMGetNthRefNum(1, &number), kGeneralError);
    EXPECT_EQ(Answer(RMGetNthRefNum(0, &number), number), refNum);

    MSHandle clip = NewHandleWith(std::string("clip data"));
    EXPECT_EQ(RMAddNewRecord(kCurrentFile, "MDUM", "clip", 12, clip), kNoError);
    EXPECT_EQ(Answer(RMGetHomeDB(clip, &number), number), refNum);
    std::int32_t id = 0;
    EXPECT_EQ(Answer(RMNextRecordID(refNum, "MDUM", &id), id), 13);
    EXPECT_EQ(Answer(RMCountRecords(kAllFiles, &value), value), 2u);
    EXPECT_EQ(Answer(RMCountRecordsOfType(refNum, "NFO!", &value), value), 1u);
    // The record holds 9 bytes, the file-info record 19.
    EXPECT_EQ(Answer(RMGetSizeOfNumberedRecord(refNum, 12, "MDUM", &value), value), 9u);
    EXPECT_EQ(Answer(RMGetSizeOfNamedRecord(kAllFiles, "clip", "MDUM", &value), value), 9u);
    EXPECT_EQ(Answer(RMGetSizeOfNthRecord(refNum, 1, &value), value), 19u);
    EXPECT_EQ(Answer(RMGetSizeOfNthRecordOfType(refNum, 0, "NFO!", &value), value), 19u);
    EXPECT_EQ(Answer(RMGetInfoOfNthRecord(refNum, 1, type, name, &id), id), -16001);
    EXPECT_EQ(std::string(type, 4) + name, "NFO!_File_Info_");
    EXPECT_EQ(Answer(RMGetInfoOfNthRecordOfType(refNum, 0, "MDUM", name, &id), id), 12);
    EXPECT_EQ(Answer(RMGetInfoOfRecord(clip, name, type, &id), id), 12);
    EXPECT_EQ(std::string(type, 4) + name, "MDUMclip");

    // Every read of a loaded record answers its handle.
    MSHandle read = nullptr;
    EXPECT_EQ(Answer(RMReadRecordByName(refNum, "clip", "MDUM", &read), read), clip);
    EXPECT_EQ(Answer(RMReadRecordByNumber(refNum, 12, "MDUM", &read), read), clip);
    EXPECT_EQ(Answer(RMReadNthRecord(refNum, 0, &read), read), clip);
    EXPECT_EQ(Answer(RMReadNthRecordOfType(refNum, 0, "MDUM", &read), read), clip);
    EXPECT_EQ(RMChangedRecordData(clip), kNoError);
    EXPECT_EQ(RMPurgeRecord(clip), kNoError);
    EXPECT_EQ(RMDoNotPurgeRecord(clip), kNoError);
    DropReports("index != 0");
    EXPECT_EQ(RMDetachRecord(clip), kNoError);
    EXPECT_EQ(RMReleaseRecord(clip), kHandleNotInDB);
    EXPECT_EQ(RMLastError(), kHandleNotInDB);
    MSDisposeHandle(clip);

    // The changes by handle and by key, each on a freshly read record.
    ASSERT_EQ(RMReadRecordByNumber(refNum, 12, "MDUM", &clip), kNoError);
    EXPECT_EQ(RMReleaseRecord(clip), kNoError);
    EXPECT_FALSE(MSValidHandle(clip));
    ASSERT_EQ(RMReadRecordByName(refNum, "clip", "MDUM", &clip), kNoError);
    EXPECT_EQ(RMChangeRecordInfo(clip, "MDUM", "moved", 40), kDuplicateRecord);
    DropReports("index != 0");
    EXPECT_EQ(RMGetHomeDB(clip, &number), kHandleNotInDB) << "the renamed record left the map";
    MSDisposeHandle(clip);
    ASSERT_EQ(RMReadNthRecord(refNum, 0, &clip), kNoError);
    EXPECT_EQ(RMRemoveRecord(clip), kNoError);
    MSDisposeHandle(clip);
    EXPECT_EQ(RMRemoveNumberedRecord(refNum, 12, "MDUM"), kKeyNotFound);
    EXPECT_EQ(RMRemoveNamedRecord(refNum, "_File_Info_", "NFO!"), kNoError);
    EXPECT_EQ(RMRemoveNumberedRecord(refNum, -16001, "NFO!"), kKeyNotFound);
    EXPECT_EQ(RMLastError(), kKeyNotFound);
    EXPECT_EQ(RMFreeMemory(4096), kCannotFree);
    EXPECT_EQ(RMClose(refNum), kNoError);
    EXPECT_EQ(RMClose(refNum), kClosedRefNum);
}

// The text is one record ("BOUT", "About Media File", ID 1) holding the text
// and its NUL: a new text replaces it whole, and a read-only database keeps
// its text and its bytes. A database without one leaves the caller's size
// and buffer as they were.
TEST_F(RmApiTest, TheAboutTextIsOneRecordReplacedWholeAndKeptByAReadOnlyDatabase) {
    const std::int16_t refNum = CreateAndOpen("about.db");
    std::uint32_t size = 12345;
    EXPECT_EQ(RMAboutSize(refNum, &size), kRecordNotFound);
    EXPECT_EQ(size, 12345u);
    char buffer[16] = "untouched";
    ExpectRefused(RMGetAboutFile(refNum, buffer), kRecordNotFound, "error == kNoError");
    EXPECT_STREQ(buffer, "untouched");
    ExpectRefused(RMChangeAboutFile(refNum, nullptr), kGeneralError, "text != NULL");
    ExpectRefused(RMAboutSize(refNum, nullptr), kGeneralError, "size != NULL");
    ExpectRefused(RMGetAboutFile(refNum, nullptr), kGeneralError, "buffer != NULL");
    EXPECT_EQ(RMAboutSize(9999, &size), kBadRefNum);

    for (const std::string text : {"a longer text about this file", "abc", "", "kept"}) {
        EXPECT_EQ(RMChangeAboutFile(refNum, text.c_str()), kNoError);
        EXPECT_EQ(AboutText(refNum), text);
        MSHandle data = nullptr;
        ASSERT_EQ(RMReadRecordByNumber(refNum, 1, "BOUT", &data), kNoError);
        EXPECT_EQ(RMReleaseRecord(data), kNoError);
    }
    EXPECT_EQ(RMClose(refNum), kNoError);
    const auto before = FileBytes("about.db");
    std::int16_t again = 0;
    ASSERT_EQ(RMOpen("about.db", kPermissionReadOnly, &again), kNoError);
    EXPECT_EQ(RMChangeAboutFile(again, "changed"), kNoPermission);
    EXPECT_EQ(AboutText(again), "kept");
    EXPECT_EQ(RMClose(again), kNoError);
    EXPECT_EQ(FileBytes("about.db"), before);
}

// Over kAllFiles a change removes the text of the first database holding one
// (the newest first), and the add that follows is refused and reported.
TEST_F(RmApiTest, AboutTextOverAllFilesIsRemovedFromTheFirstHolderAndNotAdded) {
    const std::int16_t older = CreateAndOpen("older.db");
    const std::int16_t newer = CreateAndOpen("newer.db");
    ASSERT_EQ(RMChangeAboutFile(older, "older text"), kNoError);
    EXPECT_EQ(AboutText(kAllFiles), "older text");
    ASSERT_EQ(RMChangeAboutFile(newer, "newer text"), kNoError);
    EXPECT_EQ(AboutText(kAllFiles), "newer text");
    for (const char* left : {"older text", "<none>"}) {
        EXPECT_EQ(RMChangeAboutFile(kAllFiles, "everywhere"), kNoError);
        ExpectReported("targetRefNum != kAllFiles");
        ExpectReportedTimes("error == kNoError", 2);
        EXPECT_EQ(AboutText(kAllFiles), left);
    }
    EXPECT_EQ(RMChangeAboutFile(kAllFiles, "everywhere"), kRecordNotFound) << "no database had a text";
}

}  // namespace
