// Through the flat record functions, memory that runs out anywhere inside a
// call never crosses the library's boundary as an exception: every
// allocation of a session (open, adds with a long record, reads, a remove,
// counts, the close) is made to fail in turn, the call answers a failure
// code, and the file then holds exactly the records whose adds and removes
// were acknowledged.
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "tests/rm/RmTestSupport.h"
#include "tests/support/AllocationFaults.h"

namespace {

using kavotest::HandleBytes;
using kavotest::NewHandleWith;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kCreator = 0x4D454D21;  // 'MEM!'

class RmAllocationTest : public kavotest::RmTest {
protected:
    void SetUp() override {
        RmTest::SetUp();
        ASSERT_EQ(InitRMRezManager(), kNoError);
    }
    void TearDown() override {
        KillRMRezManager();
        RmTest::TearDown();
    }
};

struct TStep {
    enum Kind { kAdd, kRead, kRemove, kCount } fKind;
    std::int32_t fID;
    std::size_t fSize;
};

Bytes Content(std::int32_t id, std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(id * 31 + i);
    return bytes;
}

TEST_F(RmAllocationTest, NoFailedAllocationCrossesTheBoundaryOrChangesWhatIsStored) {
    ASSERT_EQ(RMCreate("base.db", kCreator, kCreator), kNoError);
    std::map<std::int32_t, Bytes> base;
    {
        std::int16_t refNum = 0;
        ASSERT_EQ(RMOpen("base.db", kPermissionReadWrite, &refNum), kNoError);
        for (std::int32_t id = 1; id <= 60; ++id) {
            base[id] = Content(id, 100 + static_cast<std::size_t>(id) * 37);
            ASSERT_EQ(RMAddNewRecord(refNum, "MDUM", ("m" + std::to_string(id)).c_str(), id, NewHandleWith(base[id])),
                      kNoError);
        }
        ASSERT_EQ(RMClose(refNum), kNoError);
    }
    const std::vector<TStep> steps = {{TStep::kAdd, 100, 200},    {TStep::kRead, 5, 0},    {TStep::kAdd, 101, 300000},
                                      {TStep::kRemove, 7, 0},     {TStep::kCount, 0, 0},   {TStep::kRead, 101, 0},
                                      {TStep::kRead, 40, 0},      {TStep::kAdd, 102, 50},  {TStep::kRemove, 100, 0},
                                      {TStep::kCount, 0, 0}};

    // One session with the N-th allocation failing (never, for N < 0);
    // returns the allocations it made.
    const auto session = [&](long failing) -> std::uint64_t {
        const std::string what = "allocation " + std::to_string(failing);
        std::filesystem::remove("work.db");  // MinGW's copy_file does not overwrite
        std::filesystem::copy_file("base.db", "work.db");
        std::map<std::int32_t, Bytes> model = base;
        kavotest::ResetAllocationCount();
        std::int16_t refNum = 0;
        {
            kavotest::TAllocationFaultScope armed(failing);
            std::int16_t error = RMOpen("work.db", kPermissionReadWrite, &refNum);
            if (error != kNoError) {
                kavotest::TAllocationPause pause;
                EXPECT_TRUE(kavotest::AllocationFailed()) << what << ": open " << error;
                kavotest::FailAllocationAfter(-1);
                EXPECT_EQ(RMOpen("work.db", kPermissionReadWrite, &refNum), kNoError) << what;
            }
            for (const TStep& step : steps) {
                MSHandle data = nullptr;
                Bytes content;
                const std::string name = "m" + std::to_string(step.fID);
                if (step.fKind == TStep::kAdd) {
                    kavotest::TAllocationPause pause;
                    content = Content(step.fID, step.fSize);
                    data = NewHandleWith(content);
                }
                const bool failedBefore = kavotest::AllocationFailed();
                std::uint32_t count = 0;
                switch (step.fKind) {
                    case TStep::kAdd:
                        error = RMAddNewRecord(refNum, "MDUM", name.c_str(), step.fID, data);
                        break;
                    case TStep::kRead:
                        error = RMReadRecordByNumber(refNum, step.fID, "MDUM", &data);
                        break;
                    case TStep::kRemove:
                        error = RMRemoveNumberedRecord(refNum, step.fID, "MDUM");
                        break;
                    case TStep::kCount:
                        error = RMCountRecordsOfType(refNum, "MDUM", &count);
                        break;
                }
                kavotest::TAllocationPause pause;
                const bool failedHere = kavotest::AllocationFailed() && !failedBefore;
                const bool held = model.count(step.fID) != 0;
                const std::int16_t expected = step.fKind == TStep::kAdd      ? (held ? kDuplicateRecord : kNoError)
                                              : step.fKind == TStep::kRead   ? (held ? kNoError : kRecordNotFound)
                                              : step.fKind == TStep::kRemove ? (held ? kNoError : kKeyNotFound)
                                                                             : kNoError;
                if (error == expected && error != kNoError) {
                    if (step.fKind == TStep::kAdd) MSDisposeHandle(data);
                    continue;
                }
                if (error != expected || (step.fKind == TStep::kCount && count != model.size())) {
                    EXPECT_TRUE(failedHere) << what << ": step " << step.fKind << " " << step.fID << " answered "
                                            << error << ", count " << count;
                    if (step.fKind == TStep::kAdd) MSDisposeHandle(data);
                    continue;
                }
                if (step.fKind == TStep::kAdd) model[step.fID] = content;
                if (step.fKind == TStep::kRemove) model.erase(step.fID);
                if (step.fKind == TStep::kRead) {
                    EXPECT_EQ(HandleBytes(data), model.at(step.fID)) << what;
                }
            }
            error = RMClose(refNum);
            kavotest::TAllocationPause pause;
            EXPECT_TRUE(error == kNoError || kavotest::AllocationFailed()) << what << ": close " << error;
        }
        const std::uint64_t made = kavotest::AllocationCount();
        IgnoreReports();  // an engine failure the record manager holds impossible is reported, as it must be

        // What the file holds now: exactly the model.
        EXPECT_EQ(RMOpen("work.db", kPermissionReadOnly, &refNum), kNoError) << what;
        std::uint32_t count = 0;
        EXPECT_EQ(RMCountRecordsOfType(refNum, "MDUM", &count), kNoError);
        EXPECT_EQ(count, model.size()) << what;
        for (const auto& [id, content] : model) {
            MSHandle data = nullptr;
            EXPECT_EQ(RMReadRecordByNumber(refNum, id, "MDUM", &data), kNoError) << what << ": record " << id;
            if (data != nullptr) {
                EXPECT_EQ(HandleBytes(data), content) << what << ": record " << id;
            }
        }
        EXPECT_EQ(RMClose(refNum), kNoError);
        return made;
    };
    const std::uint64_t allocations = session(-1);
    ASSERT_GT(allocations, 50u);
    for (std::uint64_t n = 0; n < allocations && !HasFailure(); ++n) session(static_cast<long>(n));
    std::printf("%llu allocations, each failed in turn\n", static_cast<unsigned long long>(allocations));
}

}  // namespace
