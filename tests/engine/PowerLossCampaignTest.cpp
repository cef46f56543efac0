// Losses of power, process deaths and refused writes and syncs, through the
// fault-injecting file system, under random workloads with a small cache (so
// that pages leave memory and checkpoints happen mid-sequence).
//
// After a loss of power the file must open and pass the whole-file check,
// and hold exactly the records of some operation boundary between the last
// durable point and the cut: everything up to the last close or checkpoint,
// perhaps more, but only a prefix of the operations, never a mix. After a
// process death with the power on, or a refused write or sync, nothing
// acknowledged may be missing.
//
// Where the durable points are: at every successful close, and after every
// operation during which a checkpoint was completed while no fault was armed
// (the pager counts them). An operation's checkpoint comes after the
// operation is logged, so everything up to that operation has then reached
// the disk. Other syncs (pages written back between checkpoints) make
// nothing durable. While a fault is armed no durable point is counted, which
// can only make the check weaker, never wrong. A successful read-write open after a fault
// redoes the log and checkpoints at once, so the state it shows is durable.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "engine/FaultFileIO.h"
#include "engine/FileIO.h"
#include "engine/Pager.h"
#include "tests/engine/CampaignSupport.h"

namespace {

using kavotest::CampaignCount;
using kavotest::CompareContent;
using kavotest::PerformOperation;
using kavotest::ReadContent;
using kavotest::TContent;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

// How a round ends.
enum class TEnding { kPowerCut, kCrash };

// The fault armed somewhere in a round.
enum class TFault { kNone, kFailWrite, kFailSync, kFullDisk };

class PowerLossCampaignTest : public ::testing::Test {
protected:
    void SetUp() override {
        fPreviousCapacity = engine::TPager::CacheCapacity();
        engine::InstallFileSystem(&fFileSystem);
        ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
        ASSERT_EQ(fDb.Create(), kEngineNoError);
    }
    void TearDown() override {
        EngineStop();
        engine::InstallFileSystem(nullptr);
        engine::TPager::SetCacheCapacity(fPreviousCapacity);
        engine::TPager::SetCheckpointPages(0);
    }

    void Disarm() {
        fFileSystem.FailWriteAfter(-1);
        fFileSystem.FailSyncAfter(-1);
        fFileSystem.SetFailWrites(false);
    }

    void Arm(TFault fault, std::mt19937& random) {
        switch (fault) {
            case TFault::kFailWrite:
                fFileSystem.FailWriteAfter(static_cast<int>(random() % 120));
                break;
            case TFault::kFailSync:
                fFileSystem.FailSyncAfter(static_cast<int>(random() % 5));
                break;
            case TFault::kFullDisk:
                fFileSystem.SetFailWrites(true);
                break;
            case TFault::kNone:
                break;
        }
    }

    // Runs up to `count` random operations, arming the fault before one of
    // them. Stops at the first refused call. Returns whether the fault fired.
    bool RunOperations(int count, TFault fault, std::mt19937& random) {
        const int armAt = fault == TFault::kNone ? -1 : static_cast<int>(random() % (count + 1));
        bool armed = false;
        for (int i = 0; i <= count; ++i) {
            if (i == armAt) {
                Arm(fault, random);
                armed = true;
            }
            if (i == count) break;
            if (random() % 15 == 0) {
                // A close and a reopen: a checkpoint, and a durable point
                // when the close succeeds.
                const std::int16_t closed = fDb.Close();
                if (closed != kEngineNoError) {
                    EXPECT_TRUE(armed) << "a close failed with no fault armed: " << closed;
                    return true;
                }
                fDurable = fModel;
                fSince.clear();
                const std::int16_t opened = fDb.Open();
                if (opened != kEngineNoError) {
                    EXPECT_TRUE(armed) << "a reopen failed with no fault armed: " << opened;
                    return true;
                }
                continue;
            }
            const TOperation op = fModel.RandomOperation(random);
            const std::int16_t expected = fModel.Expected(op);
            const std::uint64_t checkpoints = engine::TPager::CompletedCheckpoints();
            const std::int16_t answer = PerformOperation(fDb, op);
            if (answer != expected) {
                EXPECT_TRUE(armed) << op.Encode() << " answered " << answer << ", expected " << expected;
                EXPECT_EQ(answer, kWriteFailed) << op.Encode();
                ExpectRefusals();
                return true;
            }
            if (answer != kEngineNoError) continue;
            fModel.Apply(op);
            fSince.push_back(op);
            if (!armed && engine::TPager::CompletedCheckpoints() != checkpoints) {
                fDurable = fModel;
                fSince.clear();
            }
        }
        return false;
    }

    // After a refused write or sync every later call on the host file is
    // refused, reads included, even once the disk works again.
    void ExpectRefusals() {
        Disarm();
        const kavotest::Bytes record = kavotest::MakeRecord("MDUM", 999999, "refused", {});
        EXPECT_EQ(AddVarRecord(fDb.Data(), record.data(), static_cast<std::uint32_t>(record.size())),
                  kWriteFailed);
        const kavotest::Bytes key = kavotest::NumberKey("MDUM", 999999);
        std::uint8_t fixed[kavotest::kFixedLength];
        EXPECT_EQ(GetRecordByKey(fDb.NumberIndex(), key.data(), fixed), kWriteFailed);
    }

    // Ends the round, reopens and checks that the content is that of an
    // operation boundary with at least `least` of the operations since the
    // last durable point. `what` names the round in messages.
    void Recover(std::size_t least, const std::string& what, std::mt19937& random) {
        EngineStop();
        ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
        TIntegrityReport report;
        ASSERT_EQ(CheckHostFile(fDb.Path().c_str(), &report), kEngineNoError) << what;
        ASSERT_TRUE(report.fProblems.empty()) << what << ": " << report.fProblems.front();

        std::string readOnlyView;
        if (random() % 3 == 0) {
            // A read-only open redoes the log in memory only; it must show
            // what the read-write open then makes durable.
            ASSERT_EQ(fDb.Open(true), kEngineNoError) << what;
            TContent content = ReadContent(fDb);
            ASSERT_TRUE(content.fProblem.empty()) << what << ": read-only: " << content.fProblem;
            readOnlyView = MatchPrefix(content, least, what);
            ASSERT_EQ(fDb.Close(), kEngineNoError);
        }
        ASSERT_EQ(fDb.Open(), kEngineNoError) << what;
        const TContent content = ReadContent(fDb);
        ASSERT_TRUE(content.fProblem.empty()) << what << ": " << content.fProblem;
        const std::string matched = MatchPrefix(content, least, what);
        ASSERT_FALSE(matched.empty()) << what;
        if (!readOnlyView.empty()) {
            EXPECT_EQ(readOnlyView, matched) << what;
        }
        EXPECT_EQ(report.fRecords, fModel.Size()) << what;
        fDurable = fModel;
        fSince.clear();
    }

    // Sets fModel to the first boundary at or after `least` whose records
    // the content holds, and says which one ("k of n"); "" when none does.
    std::string MatchPrefix(const TContent& content, std::size_t least, const std::string& what) {
        TRecordModel model = fDurable;
        std::string nearest;
        for (std::size_t k = 0; k <= fSince.size(); ++k) {
            if (k > 0) model.Apply(fSince[k - 1]);
            if (k < least) continue;
            const std::string difference = CompareContent(model, content);
            if (difference.empty()) {
                fModel = model;
                return std::to_string(k) + " of " + std::to_string(fSince.size());
            }
            if (k == least) nearest = difference;
        }
        ADD_FAILURE() << what << ": the content is no prefix of the " << fSince.size()
                      << " operations since the last durable point with at least " << least << " of them; at "
                      << least << ": " << nearest;
        return "";
    }

    // One round: a random workload, perhaps a fault on the way, a power cut
    // or a crash, perhaps a second fault while reopening, then recovery.
    void RunRound(int round, TFault fault, TEnding ending) {
        std::mt19937 random(static_cast<std::uint32_t>(round * 7919 + static_cast<int>(fault) * 31 +
                                                       static_cast<int>(ending)));
        engine::TPager::SetCacheCapacity(16 + random() % 80);
        // Checkpoints every few pages, so that cuts land inside them too.
        engine::TPager::SetCheckpointPages(4 + random() % 60);
        const std::string what = "round " + std::to_string(round);
        const int count = static_cast<int>(random() % 100);
        const bool fired = RunOperations(count, fault, random);
        if (HasFailure()) return;
        if (!fired) Disarm();

        const std::size_t least = ending == TEnding::kCrash ? fSince.size() : 0;
        const std::uint32_t seed = static_cast<std::uint32_t>(random());
        if (ending == TEnding::kCrash) {
            fFileSystem.Crash();
        } else {
            fFileSystem.PowerCut(seed);
        }
        Disarm();
        if (random() % 4 == 0) {
            // Recovery itself is cut short by a refused write or sync, and
            // then by the same kind of ending: a crash while recovering from
            // a crash must still lose nothing acknowledged.
            EngineStop();
            ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
            Arm(random() % 2 == 0 ? TFault::kFailWrite : TFault::kFailSync, random);
            const std::int16_t opened = fDb.Open();
            EXPECT_TRUE(opened == kEngineNoError || opened == kFileNotOpened) << what << ": " << opened;
            if (ending == TEnding::kCrash) {
                fFileSystem.Crash();
            } else {
                fFileSystem.PowerCut(seed ^ 0x5bd1e995u);
            }
            Disarm();
        }
        Recover(least, what + (ending == TEnding::kCrash ? " (crash)" : " (power cut)"), random);
    }

    kavotest::TWorkingDirectory fWorkingDirectory{"power"};  // for the status log
    engine::TFaultFileSystem fFileSystem;
    TTestDatabase fDb{"campaign.kdb"};  // a name in the fault file system
    TRecordModel fModel;                // every acknowledged operation
    TRecordModel fDurable;              // as of the last durable point
    std::vector<TOperation> fSince;     // acknowledged since then
    std::size_t fPreviousCapacity = 0;
};

// A close whose checkpoint is cut at each of its syncs in turn (the sync
// does not complete, then the power goes): whatever the log holds by then,
// the pages a commit names must already be on the disk.
TEST_F(PowerLossCampaignTest, ALossOfPowerAtAnyOfACheckpointsSyncsLeavesASoundFile) {
    for (std::uint32_t seed = 0; seed < 30 && !HasFailure(); ++seed) {
        std::mt19937 random(seed);
        TOperation op;
        op.fID = static_cast<std::int32_t>(seed);
        op.fName = "long " + std::to_string(seed);
        op.fSeed = seed;
        op.fSize = 5000;  // spills into overflow pages, which are new
        ASSERT_EQ(PerformOperation(fDb, op), kEngineNoError);
        fModel.Apply(op);
        fSince.push_back(op);
        fFileSystem.FailSyncAfter(static_cast<int>(seed % 3));
        const std::int16_t closed = fDb.Close();
        EXPECT_TRUE(closed == kWriteFailed || closed == kEngineNoError) << closed;
        fFileSystem.PowerCut(seed);
        Disarm();
        Recover(0, "seed " + std::to_string(seed), random);
    }
}

// A checkpoint or write-back that fails after its operation was logged is
// felt by the next call, the close included: a close that made nothing
// durable must not say it did.
TEST_F(PowerLossCampaignTest, ACloseAfterAFailedBackgroundSyncReportsIt) {
    engine::TPager::SetCheckpointPages(4);
    const auto add = [](TTestDatabase& db, std::int32_t id) {
        TOperation op;
        op.fID = id;
        op.fName = "filler " + std::to_string(id);
        op.fSize = 3000;  // an overflow page each
        return PerformOperation(db, op);
    };
    // The first call refused shows which operation's checkpoint failed...
    fFileSystem.FailSyncAfter(0);
    std::int32_t refused = 1;
    while (refused < 200 && add(fDb, refused) == kEngineNoError) ++refused;
    ASSERT_GT(refused, 1);
    ASSERT_LT(refused, 200);
    Disarm();
    EXPECT_EQ(fDb.Close(), kWriteFailed);

    // ...so the same operations on a second file end with that failure and
    // no call refused yet: the close is the first to hear of it.
    TTestDatabase second("second.kdb");
    ASSERT_EQ(second.Create(), kEngineNoError);
    fFileSystem.FailSyncAfter(0);
    for (std::int32_t id = 1; id < refused; ++id) ASSERT_EQ(add(second, id), kEngineNoError) << id;
    Disarm();
    EXPECT_EQ(second.Close(), kWriteFailed);
    // Every acknowledged operation is still in the log.
    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile(second.Path().c_str(), &report), kEngineNoError);
    EXPECT_TRUE(report.fProblems.empty());
    EXPECT_EQ(report.fRecords, static_cast<std::uint32_t>(refused - 1));
}

// One page allocated and freed again before a clean close: the free list
// the close writes names that one free page, and the file opens again,
// read-write, read-only and for the check.
TEST_F(PowerLossCampaignTest, AFileClosedWithASingleFreePageOpensAgain) {
    TOperation op;
    op.fID = 1;
    op.fName = "long";
    op.fSize = 2000;  // one overflow page
    ASSERT_EQ(PerformOperation(fDb, op), kEngineNoError);
    op.fKind = TOperation::kDelete;
    ASSERT_EQ(PerformOperation(fDb, op), kEngineNoError);
    ASSERT_EQ(fDb.Close(), kEngineNoError);
    TIntegrityReport report;
    EXPECT_EQ(CheckHostFile(fDb.Path().c_str(), &report), kEngineNoError);
    EXPECT_TRUE(report.fProblems.empty());
    ASSERT_EQ(fDb.Open(true), kEngineNoError);
    ASSERT_EQ(fDb.Close(), kEngineNoError);
    ASSERT_EQ(fDb.Open(), kEngineNoError);
}

// The log of a process that died is redone in memory by a read-only open
// (and by the whole-file check), new pages included.
TEST_F(PowerLossCampaignTest, AReadOnlyOpenAfterACrashRedoesTheLog) {
    TOperation op;
    op.fID = 7;
    op.fName = "long";
    op.fSeed = 7;
    op.fSize = 20000;
    ASSERT_EQ(PerformOperation(fDb, op), kEngineNoError);
    fModel.Apply(op);
    fFileSystem.Crash();
    EngineStop();
    ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile(fDb.Path().c_str(), &report), kEngineNoError);
    EXPECT_TRUE(report.fProblems.empty());
    EXPECT_EQ(report.fRecords, 1u);
    ASSERT_EQ(fDb.Open(true), kEngineNoError);
    EXPECT_EQ(CompareContent(fModel, ReadContent(fDb)), "");
}

TEST_F(PowerLossCampaignTest, ALossOfPowerLosesAtMostTheOperationsSinceTheLastCheckpoint) {
    const int rounds = CampaignCount("KAVO_POWER_CUTS", 300);
    for (int round = 0; round < rounds && !HasFailure(); ++round)
        RunRound(round, TFault::kNone, TEnding::kPowerCut);
}

// A refused write or sync followed by a loss of power is a cut at that very
// write or sync, inside an operation or a checkpoint.
TEST_F(PowerLossCampaignTest, ALossOfPowerAtAnyWriteOrSyncLeavesAConsistentPrefix) {
    const int rounds = CampaignCount("KAVO_POWER_CUTS", 300);
    for (int round = 0; round < rounds && !HasFailure(); ++round)
        RunRound(round, round % 2 == 0 ? TFault::kFailWrite : TFault::kFailSync, TEnding::kPowerCut);
}

TEST_F(PowerLossCampaignTest, AProcessDeathLosesNoAcknowledgedOperation) {
    const int rounds = CampaignCount("KAVO_POWER_CUTS", 300) / 2;
    for (int round = 0; round < rounds && !HasFailure(); ++round)
        RunRound(round, TFault::kNone, TEnding::kCrash);
}

TEST_F(PowerLossCampaignTest, ARefusedWriteOrSyncFailsItsCallAndLosesNothingAcknowledged) {
    const TFault faults[] = {TFault::kFailWrite, TFault::kFailSync, TFault::kFullDisk};
    const int rounds = CampaignCount("KAVO_POWER_CUTS", 300) / 2;
    for (int round = 0; round < rounds && !HasFailure(); ++round)
        RunRound(round, faults[round % 3], TEnding::kCrash);
}

}  // namespace
