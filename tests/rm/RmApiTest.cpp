// The flat RM functions: the global manager's life, forwarding, and the
// about-file text.
#include <cstring>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Rmmgr.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::FileBytes;
using kavotest::HandleBytes;
using kavotest::NewHandleWith;

constexpr std::uint32_t kCreator = 0x464C4154;   // 'FLAT'
constexpr std::uint32_t kFileType = 0x41504920;  // 'API '

// How many of the answers are kGeneralError.
template <typename... TResults>
int Refusals(TResults... results) {
    return ((results == kGeneralError ? 1 : 0) + ...);
}

// Calls every forwarding function once with harmless arguments (in no
// particular order, since none of them may do anything) and counts the
// refusals.
int CountRefusals() {
    char name[32] = "n";
    char type[4] = {'T', 'Y', 'P', 'E'};
    char text[64] = "";
    std::int16_t refNum = 0;
    std::uint16_t count16 = 0;
    std::uint32_t value = 0;
    std::int32_t id = 0;
    MSHandle data = nullptr;
    return Refusals(
        RMCreate("x.db", 1, 2), RMOpen("x.db", kPermissionReadWrite, &refNum), RMClose(1), RMSetCurrentDB(1),
        RMGetCurrentDB(&refNum), RMCountFiles(&count16), RMGetNthRefNum(0, &refNum), RMFreeMemory(10),
        RMLastError(), RMAddNewRecord(1, type, name, 1, data), RMReadRecordByNumber(1, 1, type, &data),
        RMReadRecordByName(1, name, type, &data), RMReadNthRecord(1, 0, &data),
        RMReadNthRecordOfType(1, 0, type, &data), RMGetSizeOfNumberedRecord(1, 1, type, &value),
        RMGetSizeOfNamedRecord(1, name, type, &value), RMGetSizeOfNthRecord(1, 0, &value),
        RMGetSizeOfNthRecordOfType(1, 0, type, &value), RMGetInfoOfRecord(data, name, type, &id),
        RMGetInfoOfNthRecord(1, 0, type, name, &id), RMGetInfoOfNthRecordOfType(1, 0, type, name, &id),
        RMCountRecords(1, &value), RMCountRecordsOfType(1, type, &value), RMNextRecordID(1, type, &id),
        RMChangeRecordInfo(data, type, name, 1), RMChangedRecordData(data), RMDetachRecord(data),
        RMReleaseRecord(data), RMPurgeRecord(data), RMDoNotPurgeRecord(data), RMRemoveRecord(data),
        RMRemoveNumberedRecord(1, 1, type), RMRemoveNamedRecord(1, name, type), RMGetHomeDB(data, &refNum),
        RMAboutSize(1, &value), RMGetAboutFile(1, text), RMChangeAboutFile(1, "about"), KillRMRezManager());
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

    std::string AboutText(std::int16_t refNum) {
        std::uint32_t size = 0;
        if (RMAboutSize(refNum, &size) != kNoError) return "<none>";
        std::vector<char> buffer(size + 8, 'X');
        EXPECT_EQ(RMGetAboutFile(refNum, buffer.data()), kNoError);
        EXPECT_EQ(buffer[size - 1], '\0') << "the text comes with its NUL";
        EXPECT_EQ(buffer[size], 'X') << "nothing is written past the record";
        return std::string(buffer.data());
    }
};

TEST_F(RmApiTest, EveryFunctionAnswersMinusOneBeforeInitAndAfterKill) {
    ASSERT_EQ(KillRMRezManager(), kNoError);
    EXPECT_EQ(gRezManager, nullptr);
    EXPECT_EQ(CountRefusals(), kForwardingFunctions);
    ExpectReportedTimes("gRezManager != 0", kForwardingFunctions);
    ASSERT_EQ(InitRMRezManager(), kNoError);
    EXPECT_NE(gRezManager, nullptr);
    ASSERT_EQ(KillRMRezManager(), kNoError);
    EXPECT_EQ(CountRefusals(), kForwardingFunctions);
    ExpectReportedTimes("gRezManager != 0", kForwardingFunctions);
}

TEST_F(RmApiTest, ASecondInitIsRefusedAndKeepsTheFirstManager) {
    const std::int16_t refNum = CreateAndOpen("keep.db");
    CRezManager* first = gRezManager;
    ExpectRefused(InitRMRezManager(), kGeneralError, "gRezManager == 0");
    EXPECT_EQ(gRezManager, first);
    std::uint16_t count = 0;
    EXPECT_EQ(RMCountFiles(&count), kNoError);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(RMClose(refNum), kNoError);
}

TEST_F(RmApiTest, TheFlatFunctionsReachTheManager) {
    const std::int16_t refNum = CreateAndOpen("flat.db");
    EXPECT_EQ(RMSetCurrentDB(refNum), kNoError);
    std::int16_t current = 0;
    EXPECT_EQ(RMGetCurrentDB(&current), kNoError);
    EXPECT_EQ(current, refNum);
    std::int16_t nth = 0;
    EXPECT_EQ(RMGetNthRefNum(0, &nth), kNoError);
    EXPECT_EQ(nth, refNum);

    MSHandle clip = NewHandleWith(std::string("clip data"));
    EXPECT_EQ(RMAddNewRecord(kCurrentFile, "MDUM", "clip", 12, clip), kNoError);
    std::int16_t home = 0;
    EXPECT_EQ(RMGetHomeDB(clip, &home), kNoError);
    EXPECT_EQ(home, refNum);
    std::int32_t next = 0;
    EXPECT_EQ(RMNextRecordID(refNum, "MDUM", &next), kNoError);
    EXPECT_EQ(next, 13);
    std::uint32_t value = 0;
    EXPECT_EQ(RMCountRecords(kAllFiles, &value), kNoError);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(RMCountRecordsOfType(refNum, "MDUM", &value), kNoError);
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(RMGetSizeOfNumberedRecord(refNum, 12, "MDUM", &value), kNoError);
    EXPECT_EQ(value, 9u);
    EXPECT_EQ(RMGetSizeOfNamedRecord(kAllFiles, "clip", "MDUM", &value), kNoError);
    EXPECT_EQ(RMGetSizeOfNthRecord(refNum, 0, &value), kNoError);
    EXPECT_EQ(RMGetSizeOfNthRecordOfType(refNum, 0, "MDUM", &value), kNoError);
    EXPECT_EQ(value, 9u);
    char name[32];
    char type[4];
    std::int32_t id = 0;
    EXPECT_EQ(RMGetInfoOfNthRecord(refNum, 0, type, name, &id), kNoError);
    EXPECT_EQ(std::string(type, 4), "MDUM");
    EXPECT_EQ(RMGetInfoOfNthRecordOfType(refNum, 0, "NFO!", name, &id), kNoError);
    EXPECT_EQ(id, -16001);
    EXPECT_EQ(RMGetInfoOfRecord(clip, name, type, &id), kNoError);
    EXPECT_STREQ(name, "clip");
    EXPECT_EQ(id, 12);

    MSHandle read = nullptr;
    EXPECT_EQ(RMReadRecordByName(refNum, "clip", "MDUM", &read), kNoError);
    EXPECT_EQ(read, clip) << "a loaded record is answered from memory";
    EXPECT_EQ(RMChangedRecordData(clip), kNoError);
    EXPECT_EQ(RMPurgeRecord(clip), kNoError);
    EXPECT_EQ(RMDoNotPurgeRecord(clip), kNoError);
    DropReports("index != 0");
    EXPECT_EQ(RMDetachRecord(clip), kNoError);
    EXPECT_EQ(RMReleaseRecord(clip), kHandleNotInDB);
    MSDisposeHandle(clip);
    EXPECT_EQ(RMReadRecordByNumber(refNum, 12, "MDUM", &read), kNoError);
    EXPECT_EQ(HandleBytes(read), std::vector<std::uint8_t>({'c', 'l', 'i', 'p', ' ', 'd', 'a', 't', 'a'}));
    EXPECT_EQ(RMReleaseRecord(read), kNoError);
    EXPECT_EQ(RMReadNthRecord(refNum, 0, &read), kNoError);
    EXPECT_EQ(RMRemoveRecord(read), kNoError);
    MSDisposeHandle(read);
    EXPECT_EQ(RMReadNthRecordOfType(refNum, 0, "MDUM", &read), kRecordNotFound);
    EXPECT_EQ(RMRemoveNumberedRecord(refNum, 12, "MDUM"), kKeyNotFound);
    EXPECT_EQ(RMRemoveNamedRecord(refNum, "clip", "MDUM"), kKeyNotFound);
    EXPECT_EQ(RMLastError(), kKeyNotFound);
    EXPECT_EQ(RMFreeMemory(4096), kCannotFree);
    EXPECT_EQ(RMClose(refNum), kNoError);
    EXPECT_EQ(RMClose(refNum), kClosedRefNum);
}

TEST_F(RmApiTest, TheAboutTextIsStoredWithItsNulReplacedAndKeptByAReadOnlyDatabase) {
    const std::int16_t refNum = CreateAndOpen("about.db");
    std::uint32_t size = 12345;
    EXPECT_EQ(RMAboutSize(refNum, &size), kRecordNotFound);
    EXPECT_EQ(size, 12345u) << "the size is left as it was";
    char buffer[16] = "untouched";
    ExpectRefused(RMGetAboutFile(refNum, buffer), kRecordNotFound, "error == kNoError");
    EXPECT_STREQ(buffer, "untouched");

    EXPECT_EQ(RMChangeAboutFile(refNum, "abc"), kNoError);
    EXPECT_EQ(RMAboutSize(refNum, &size), kNoError);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(AboutText(refNum), "abc");

    EXPECT_EQ(RMChangeAboutFile(refNum, "a longer text about this file"), kNoError);
    EXPECT_EQ(AboutText(refNum), "a longer text about this file");
    std::uint32_t count = 0;
    EXPECT_EQ(RMCountRecordsOfType(refNum, "BOUT", &count), kNoError);
    EXPECT_EQ(count, 1u);
    MSHandle data = nullptr;
    EXPECT_EQ(RMReadRecordByName(refNum, "About Media File", "BOUT", &data), kNoError);
    char name[32];
    char type[4];
    std::int32_t id = 0;
    EXPECT_EQ(RMGetInfoOfRecord(data, name, type, &id), kNoError);
    EXPECT_EQ(id, 1) << "the record keeps ID 1";
    EXPECT_EQ(RMReleaseRecord(data), kNoError);

    EXPECT_EQ(RMChangeAboutFile(refNum, ""), kNoError);
    EXPECT_EQ(RMAboutSize(refNum, &size), kNoError);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(AboutText(refNum), "");

    // The text survives closing and opening again; read-only, it stays.
    EXPECT_EQ(RMChangeAboutFile(refNum, "kept"), kNoError);
    EXPECT_EQ(RMClose(refNum), kNoError);
    const auto before = FileBytes("about.db");
    std::int16_t again = 0;
    ASSERT_EQ(RMOpen("about.db", kPermissionReadOnly, &again), kNoError);
    EXPECT_EQ(RMChangeAboutFile(again, "changed"), kNoPermission);
    EXPECT_EQ(AboutText(again), "kept");
    EXPECT_EQ(RMClose(again), kNoError);
    EXPECT_EQ(FileBytes("about.db"), before);
}

TEST_F(RmApiTest, AboutTextOverAllFilesIsRemovedFromTheFirstHolderAndNotAdded) {
    const std::int16_t older = CreateAndOpen("older.db");
    const std::int16_t newer = CreateAndOpen("newer.db");
    ASSERT_EQ(RMChangeAboutFile(older, "older text"), kNoError);
    EXPECT_EQ(AboutText(kAllFiles), "older text");
    ASSERT_EQ(RMChangeAboutFile(newer, "newer text"), kNoError);
    EXPECT_EQ(AboutText(kAllFiles), "newer text") << "the newest database is searched first";

    EXPECT_EQ(RMChangeAboutFile(kAllFiles, "everywhere"), kNoError);
    ExpectReported("targetRefNum != kAllFiles");
    ExpectReportedTimes("error == kNoError", 2);
    EXPECT_EQ(AboutText(newer), "<none>");
    EXPECT_EQ(AboutText(older), "older text");
    EXPECT_EQ(RMChangeAboutFile(kAllFiles, "everywhere"), kNoError);
    ExpectReported("targetRefNum != kAllFiles");
    ExpectReportedTimes("error == kNoError", 2);
    EXPECT_EQ(AboutText(kAllFiles), "<none>");
    EXPECT_EQ(RMChangeAboutFile(kAllFiles, "everywhere"), kRecordNotFound) << "no database had a text";
}

TEST_F(RmApiTest, NullArgumentsOfTheAboutFunctionsAreRefused) {
    const std::int16_t refNum = CreateAndOpen("null.db");
    ASSERT_EQ(RMChangeAboutFile(refNum, "text"), kNoError);
    ExpectRefused(RMChangeAboutFile(refNum, nullptr), kGeneralError, "text != NULL");
    ExpectRefused(RMAboutSize(refNum, nullptr), kGeneralError, "size != NULL");
    ExpectRefused(RMGetAboutFile(refNum, nullptr), kGeneralError, "buffer != NULL");
    EXPECT_EQ(AboutText(refNum), "text");
    std::uint32_t size = 0;
    EXPECT_EQ(RMAboutSize(9999, &size), kBadRefNum);
}

}  // namespace
