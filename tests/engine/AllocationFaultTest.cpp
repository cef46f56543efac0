// Memory that runs out anywhere inside an engine call is answered with
// kEngineOutOfMemory, never an exception or an abort, and the call changes
// nothing: every allocation of a sequence of operations (adds, long records,
// rewrites, deletes, the reads before them, a close and reopen that redoes
// the log) is made to fail in turn, and the file then holds exactly the
// operations that were acknowledged. And long records pass through in
// bounded memory: adding, reading and redoing one needs little beyond the
// caller's own buffer.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "tests/engine/CampaignSupport.h"
#include "tests/support/AllocationFaults.h"

namespace {

using kavotest::Bytes;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

constexpr const char* kName = "memory.kdb";

class AllocationFaultTest : public ::testing::Test {
protected:
    engine::TFaultFileSystem& Files() { return fWorld.Files(); }

    // A file of a few hundred records, some long, with its log live (a
    // process death after the last operations), so that opening it redoes
    // the log.
    void MakeBase(TRecordModel* model, std::string* image) {
        TTestDatabase db(kName);
        ASSERT_EQ(db.Create(), kEngineNoError);
        std::mt19937 random(31);
        for (int i = 0; i < 400; ++i) {
            const TOperation op = model->RandomOperation(random, 600);
            if (op.fKind == TOperation::kReopen || model->Expected(op) != kEngineNoError) continue;
            ASSERT_EQ(kavotest::PerformOperation(db, op), kEngineNoError) << op.Encode();
            model->Apply(op);
            if (i == 350) {
                ASSERT_EQ(db.Close(), kEngineNoError);
                ASSERT_EQ(db.Open(), kEngineNoError);
            }
        }
        Files().Crash();
        EngineStop();
        ASSERT_TRUE(Files().ReadWholeFile(kName, image));
    }

    kavotest::TCampaignWorld fWorld{"memory"};
};

// PerformOperation, with the test's own allocations (the record, the key)
// made while the layer is paused: only the engine's count.
std::int16_t Perform(TTestDatabase& db, const TOperation& op) {
    Bytes record;
    Bytes key;
    {
        kavotest::TAllocationPause pause;
        record = op.Record();
        key = kavotest::NumberKey(op.fType.c_str(), op.fID);
    }
    if (op.fKind == TOperation::kReopen) {
        const std::int16_t error = db.Close();
        return error != kEngineNoError ? error : db.Open();
    }
    if (op.fKind == TOperation::kAdd)
        return AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
    std::uint8_t fixed[kavotest::kFixedLength];
    const std::int16_t error = GetRecordByKey(db.NumberIndex(), key.data(), fixed);
    if (error != kEngineNoError) return error;
    if (op.fKind == TOperation::kDelete) return DeleteVarRecord(db.Data());
    return ReWriteVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
}

// The operations: adds (one of them long enough to go to the log in pieces
// and to be read back from it when redone), rewrites, deletes, a clash, and
// a close and reopen.
std::vector<TOperation> Sequence(const TRecordModel& base) {
    TRecordModel model = base;
    std::vector<TOperation> ops;
    std::mt19937 random(77);
    while (ops.size() < 24) {
        TOperation op = model.RandomOperation(random, 600);
        if (ops.size() == 3) {
            op = TOperation{TOperation::kAdd, "MDUM", 900000, 0, "long", 5, 300000};
        } else if (ops.size() == 12) {
            op = TOperation{TOperation::kReopen, "MDUM", 900000, 0, "", 0, 0};
        }
        if (model.Expected(op) == kEngineNoError) model.Apply(op);
        ops.push_back(op);
    }
    return ops;
}

TEST_F(AllocationFaultTest, EveryFailedAllocationIsAnsweredAndChangesNothing) {
    TRecordModel base;
    std::string image;
    MakeBase(&base, &image);
    if (HasFatalFailure()) return;
    const std::vector<TOperation> ops = Sequence(base);
    engine::TPager::SetCacheCapacity(48);  // pages leave memory on the way

    // Runs the sequence with the N-th allocation failing (never, for N < 0)
    // and checks the file against what was acknowledged. Returns the
    // allocations the sequence made.
    const auto run = [&](long failing) -> std::uint64_t {
        EXPECT_EQ(fWorld.Install(), kEngineNoError);
        Files().WriteWholeFile(kName, image);
        TTestDatabase db(kName);
        TRecordModel model = base;
        std::string what = "allocation " + std::to_string(failing);
        kavotest::ResetAllocationCount();
        {
            kavotest::TAllocationFaultScope armed(failing);
            std::int16_t opened = db.Open();
            if (opened != kEngineNoError) {
                // The open redoes the log and checkpoints: a write the
                // in-memory file system refuses fails it as a disk would.
                EXPECT_TRUE(kavotest::AllocationFailed()) << what << ": open " << opened;
                EXPECT_TRUE(opened == kEngineOutOfMemory || opened == kFileNotOpened) << what << ": " << opened;
                kavotest::FailAllocationAfter(-1);
                opened = db.Open();
                EXPECT_EQ(opened, kEngineNoError) << what;
                if (opened != kEngineNoError) return 0;
            }
            for (const TOperation& op : ops) {
                std::int16_t expected = kEngineNoError;
                bool failedBefore = false;
                {
                    kavotest::TAllocationPause pause;  // the model's and the test's own allocations
                    failedBefore = kavotest::AllocationFailed();
                    expected = model.Expected(op);
                }
                const std::int16_t answer = Perform(db, op);
                kavotest::TAllocationPause pause;
                if (answer == expected) {
                    if (answer == kEngineNoError) model.Apply(op);
                    continue;
                }
                EXPECT_TRUE(kavotest::AllocationFailed() && !failedBefore)
                    << what << ": " << op.Encode() << " answered " << answer << ", expected " << expected;
                // The fault-injecting file system keeps the files in memory:
                // a write that finds none is refused, as a disk would refuse it.
                EXPECT_TRUE(answer == kEngineOutOfMemory || answer == kWriteFailed)
                    << what << ": " << op.Encode() << " answered " << answer;
                // A close refused for memory has closed the file all the same.
                if (op.fKind == TOperation::kReopen) {
                    EXPECT_EQ(db.Open(), kEngineNoError) << what;
                }
            }
        }
        const std::uint64_t made = kavotest::AllocationCount();
        std::string problem;
        EXPECT_EQ(db.Close(), kEngineNoError) << what;
        EXPECT_GE(kavotest::CheckSoundFile(db, false, model, {}, 0, &problem), 0) << what << ": " << problem;
        EXPECT_EQ(db.Close(), kEngineNoError) << what;
        return made;
    };
    const std::uint64_t allocations = run(-1);
    ASSERT_GT(allocations, 100u);
    for (std::uint64_t n = 0; n < allocations && !HasFailure(); ++n) run(static_cast<long>(n));
    std::printf("%llu allocations, each failed in turn\n", static_cast<unsigned long long>(allocations));
}

// A long record added and read, and (where a process can be made to die)
// redone from the log of a process that died and read again, with a small
// cache: the engine holds little more than its cache beside the caller's
// buffer, and keeps nothing of the record's size afterwards.
TEST(AllocationTest, LongRecordsPassThroughInBoundedMemory) {
    kavotest::TCampaignWorld world("long", false);  // the real file system, which keeps no copy
    ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    engine::TPager::SetCacheCapacity(64);
    constexpr std::size_t kLong = 48u << 20;
    constexpr std::size_t kBound = 4u << 20;
    const TOperation add{TOperation::kAdd, "MDUM", 1, 0, "long", 9, kLong};
    const Bytes record = add.Record();
    Bytes read(record.size());
    std::uint8_t fixed[kavotest::kFixedLength];
    const auto readBack = [&](TTestDatabase& db) {
        std::fill(read.begin(), read.end(), 0);
        const std::size_t before = kavotest::AllocatedBytes();
        kavotest::MarkAllocationPeak();
        ASSERT_EQ(GetRecordByKey(db.NumberIndex(), kavotest::NumberKey("MDUM", 1).data(), fixed), kEngineNoError);
        ASSERT_EQ(ReadVarRecord(db.Data(), read.data(), static_cast<std::uint32_t>(read.size())), kEngineNoError);
        EXPECT_LT(kavotest::PeakAllocatedBytes() - before, kBound) << "reading";
        EXPECT_TRUE(read == record);
    };

    TTestDatabase db(world.File(kName));
    ASSERT_EQ(db.Create(), kEngineNoError);
    const std::size_t before = kavotest::AllocatedBytes();
    kavotest::MarkAllocationPeak();
    ASSERT_EQ(AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size())), kEngineNoError);
    EXPECT_LT(kavotest::PeakAllocatedBytes() - before, kBound) << "adding";
    EXPECT_LT(kavotest::AllocatedBytes() - before, kBound) << "held after adding";
    readBack(db);
    ASSERT_EQ(db.Close(), kEngineNoError);

#if !defined(_WIN32)
    // A child adds the record again under another number and dies.
    TTestDatabase dead(world.File("dead.kdb"));
    ASSERT_EQ(dead.Create(), kEngineNoError);
    ASSERT_EQ(dead.Close(), kEngineNoError);
    EngineStop();
    std::fflush(nullptr);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const bool added = kavotest::StartEngine() == kEngineNoError && dead.Open() == kEngineNoError &&
                           AddVarRecord(dead.Data(), record.data(), static_cast<std::uint32_t>(record.size())) ==
                               kEngineNoError;
        ::_exit(added ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    const std::size_t beforeOpen = kavotest::AllocatedBytes();
    kavotest::MarkAllocationPeak();
    ASSERT_EQ(dead.Open(), kEngineNoError);
    EXPECT_LT(kavotest::PeakAllocatedBytes() - beforeOpen, kBound) << "redoing the log";
    readBack(dead);
    EXPECT_EQ(dead.Close(), kEngineNoError);
#endif
}

}  // namespace
