// Losses of power, process deaths and refused writes and syncs, through the
// fault-injecting file system, under random workloads with a small cache (so
// that pages leave memory and checkpoints happen mid-sequence).
//
// After a loss of power the file must open and pass the whole-file check,
// and hold exactly the records of some operation boundary between the last
// durable point and the cut: everything up to the last close or checkpoint,
// perhaps more, but only a prefix of the operations, never a mix. After a
// process death with the power on, or a refused write or sync, nothing
// acknowledged may be missing. A refused write refuses its call and changes
// nothing: the file goes on. A failed sync refuses that call and every later
// one, the close included.
//
// Where the durable points are: at every close and reopen that succeeds,
// and after every operation during which a checkpoint was completed while
// no fault was armed (the pager counts them). An operation's checkpoint
// comes after the operation is logged, so everything up to that operation
// has then reached the disk. Other syncs (pages written back between
// checkpoints) make nothing durable. While a fault is armed no durable point
// is counted, which can only make the check weaker, never wrong. A
// successful read-write open after a fault redoes the log and checkpoints at
// once, so the state it shows is durable.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/engine/CampaignSupport.h"

namespace {

using kavotest::TOperation;
using kavotest::TRecordModel;

// How a round ends.
enum class TEnding { kPowerCut, kCrash };

// The fault armed somewhere in a round.
enum class TFault { kNone, kFailWrite, kFailSync, kFullDisk };

class PowerLossCampaignTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(fDb.Create(), kEngineNoError); }

    // Arms the fault; kNone disarms every one.
    void Arm(TFault fault, std::mt19937* random = nullptr) {
        Files().FailWriteAfter(fault == TFault::kFailWrite ? static_cast<int>((*random)() % 120) : -1);
        Files().FailSyncAfter(fault == TFault::kFailSync ? static_cast<int>((*random)() % 5) : -1);
        Files().SetFailWrites(fault == TFault::kFullDisk);
    }

    // Runs up to `count` random operations (closes and reopens among them),
    // arming the fault before one of them. Stops when the file refuses
    // everything.
    void RunOperations(int count, TFault fault, std::mt19937& random) {
        const int armAt = fault == TFault::kNone ? -1 : static_cast<int>(random() % (count + 1));
        for (int i = 0; i < count; ++i) {
            if (i == armAt) Arm(fault, &random);
            const bool armed = armAt >= 0 && armAt <= i;
            const TOperation op = fModel.RandomOperation(random);
            const std::int16_t expected = fModel.Expected(op);
            const std::uint64_t checkpoints = engine::TPager::CompletedCheckpoints();
            const std::int16_t answer = kavotest::PerformOperation(fDb, op);
            if (answer != expected) {
                EXPECT_TRUE(armed) << op.Encode() << " answered " << answer << ", expected " << expected;
                EXPECT_EQ(answer, kWriteFailed) << op.Encode();
                if (!GoesOnAfterRefusal(fault, op)) return;
                continue;
            }
            if (answer != kEngineNoError) continue;
            fModel.Apply(op);
            fSince.push_back(op);
            // A successful close is a durable point; so is a checkpoint
            // completed while no fault was armed.
            if (op.fKind == TOperation::kReopen ||
                (!armed && engine::TPager::CompletedCheckpoints() != checkpoints)) {
                fDurable = fModel;
                fSince.clear();
            }
        }
    }

    // After a failed sync the file refuses every later call, reads included,
    // even once the disk works again; so does the close, which must not pass
    // for a durable one. After a refused write it goes on: a read answers,
    // and a close that was refused has closed the file, which opens again
    // (the log redone) once the disk works. Whether the refused call changed
    // nothing is for the final check, which finds no trace of it. False when
    // the file refuses everything.
    bool GoesOnAfterRefusal(TFault fault, const TOperation& op) {
        TOperation probe{TOperation::kAdd, "MDUM", 999999, 0, "refused"};
        if (op.fKind == TOperation::kReopen && fault == TFault::kFailSync) return false;  // closed all the same
        if (fault == TFault::kFailSync) {
            Arm(TFault::kNone);
            EXPECT_EQ(kavotest::PerformOperation(fDb, probe), kWriteFailed);
            probe.fKind = TOperation::kDelete;  // a read by number first
            EXPECT_EQ(kavotest::PerformOperation(fDb, probe), kWriteFailed);
            EXPECT_EQ(fDb.Close(), kWriteFailed);
            return false;
        }
        if (op.fKind == TOperation::kReopen) {
            Arm(TFault::kNone);
            EXPECT_EQ(fDb.Open(), kEngineNoError) << "after a refused close";
            return !HasFailure();
        }
        probe.fKind = TOperation::kDelete;  // the record is missing: a read that answers so
        EXPECT_EQ(kavotest::PerformOperation(fDb, probe), kEngineKeyNotFound) << "a read after " << op.Encode();
        return !HasFailure();
    }

    // One round: a random workload with a small cache (so that pages leave
    // memory and checkpoints happen mid-sequence), perhaps a fault on the
    // way, a power cut or a crash, perhaps a second fault while reopening,
    // then recovery.
    void RunRound(int round, TFault fault, TEnding ending) {
        std::mt19937 random(static_cast<std::uint32_t>(round * 7919 + static_cast<int>(fault) * 31 +
                                                       static_cast<int>(ending)));
        engine::TPager::SetCacheCapacity(16 + random() % 80);
        // Checkpoints every few pages, so that cuts land inside them too.
        engine::TPager::SetCheckpointPages(4 + random() % 60);
        const std::string what =
            "round " + std::to_string(round) + (ending == TEnding::kCrash ? " (crash)" : "");
        RunOperations(static_cast<int>(random() % 100), fault, random);
        if (HasFailure()) return;
        const std::uint32_t seed = static_cast<std::uint32_t>(random());
        const auto end = [&](std::uint32_t cut) {
            if (ending == TEnding::kCrash) Files().Crash();
            if (ending == TEnding::kPowerCut) Files().PowerCut(cut);
            Arm(TFault::kNone);
        };
        end(seed);
        if (random() % 4 == 0) {
            // Recovery itself is cut short by a refused write or sync, and
            // then by the same kind of ending: a crash while recovering from
            // a crash must still lose nothing acknowledged.
            EngineStop();
            ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
            Arm(random() % 2 == 0 ? TFault::kFailWrite : TFault::kFailSync, &random);
            const std::int16_t opened = fDb.Open();
            EXPECT_TRUE(opened == kEngineNoError || opened == kFileNotOpened) << what << ": " << opened;
            end(seed ^ 0x5bd1e995u);
        }

        // The content is that of an operation boundary with at least `least`
        // of the operations since the last durable point (all of them after a
        // crash); that state is then durable. A read-only open first, now and
        // then, redoes the log in memory only: it must show what the
        // read-write open then makes durable.
        const std::size_t least = ending == TEnding::kCrash ? fSince.size() : 0;
        EngineStop();
        ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
        std::string problem;
        const int readOnly =
            random() % 3 == 0 ? kavotest::CheckSoundFile(fDb, true, fDurable, fSince, least, &problem) : -1;
        ASSERT_TRUE(problem.empty()) << what << ": read-only: " << problem;
        ASSERT_TRUE(readOnly < 0 || fDb.Close() == kEngineNoError) << what;
        const int k = kavotest::CheckSoundFile(fDb, false, fDurable, fSince, least, &problem);
        ASSERT_GE(k, 0) << what << ": " << problem << " (" << fSince.size()
                        << " operations since the last durable point, at least " << least << " kept)";
        EXPECT_TRUE(readOnly < 0 || readOnly == k) << what << ": read-only, " << readOnly << " of them";
        for (int i = 0; i < k; ++i) fDurable.Apply(fSince[i]);
        fModel = fDurable;
        fSince.clear();
    }

    // Runs the rounds, each with the next of the faults in turn.
    void RunRounds(int rounds, const std::vector<TFault>& faults, TEnding ending) {
        for (int round = 0; round < rounds && !HasFailure(); ++round)
            RunRound(round, faults[round % faults.size()], ending);
    }

    engine::TFaultFileSystem& Files() { return fWorld.Files(); }

    kavotest::TCampaignWorld fWorld{"power"};
    kavotest::TTestDatabase fDb{"campaign.kdb"};  // a name in the fault file system
    TRecordModel fModel;                          // every acknowledged operation
    TRecordModel fDurable;                        // as of the last durable point
    std::vector<TOperation> fSince;               // acknowledged since then
};

// After a loss of power, with or without a write or sync refused before
// it (a cut at that very write or sync, inside an operation or a
// checkpoint), the file holds a prefix of the operations since the last
// durable point.
TEST_F(PowerLossCampaignTest, ALossOfPowerLosesAtMostTheOperationsSinceTheLastDurablePoint) {
    RunRounds(2 * kavotest::CampaignCount("KAVO_POWER_CUTS", 300),
              {TFault::kNone, TFault::kFailWrite, TFault::kNone, TFault::kFailSync}, TEnding::kPowerCut);
}

// A refused write or sync (or a full disk) fails its call, and neither that
// nor a process death loses an acknowledged operation or keeps a refused one.
TEST_F(PowerLossCampaignTest, AProcessDeathOrARefusedWriteOrSyncLosesNothingAcknowledged) {
    RunRounds(kavotest::CampaignCount("KAVO_POWER_CUTS", 300),
              {TFault::kNone, TFault::kFailWrite, TFault::kNone, TFault::kFailSync, TFault::kNone,
               TFault::kFullDisk},
              TEnding::kCrash);
}

}  // namespace
