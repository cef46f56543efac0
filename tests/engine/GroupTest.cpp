// Groups of changes: the end of the process or a loss of power at any point
// of a group leaves all of its changes or none; an abandoned group, or one
// in which a change fails or is refused, is undone and the changes after it
// stay; no checkpoint makes half a group durable.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "tests/engine/CampaignSupport.h"

namespace {

using kavotest::TContent;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::Bytes;

class GroupTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine::TPager::SetCacheCapacity(24);
        ASSERT_EQ(fDb.Create(), kEngineNoError);
    }

    // A random add, rewrite or delete that the engine accepts.
    TOperation RandomChange(std::mt19937& random) {
        for (;;) {
            TOperation op = fModel.RandomOperation(random);
            if (op.fKind != TOperation::kReopen && fModel.Expected(op) == kEngineNoError) return op;
        }
    }

    void Perform(const TOperation& op, TRecordModel* model) {
        ASSERT_EQ(kavotest::PerformOperation(fDb, op), kEngineNoError) << op.Encode();
        model->Apply(op);
    }

    // The file's content equals one of the models.
    ::testing::AssertionResult HoldsOneOf(const std::vector<const TRecordModel*>& models) {
        const TContent content = kavotest::ReadContent(fDb);
        if (!content.fProblem.empty()) return ::testing::AssertionFailure() << content.fProblem;
        for (std::size_t i = 0; i < models.size(); ++i) {
            const auto& expected = models[i]->Records();
            bool same = content.fRecords.size() == expected.size();
            for (const auto& [name, bytes] : content.fRecords) {
                const auto found = expected.find(name);
                same = same && found != expected.end() && *found->second == bytes;
            }
            if (same) return ::testing::AssertionSuccess() << i;
        }
        return ::testing::AssertionFailure() << "the file holds " << content.fRecords.size()
                                             << " records, as none of the states allowed";
    }

    kavotest::TCampaignWorld fWorld{"group"};
    kavotest::TTestDatabase fDb{fWorld.File("group.kdb")};
    TRecordModel fModel;
};

TEST_F(GroupTest, AnEndAtAnyPointOfAGroupLeavesAllOfItOrNone) {
    std::mt19937 random(7);
    int whole = 0, none = 0;
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        // Some changes outside any group, then a checkpoint (a close), so
        // that a loss of power keeps exactly what came before the group.
        for (int i = random() % 6; i > 0; --i) Perform(RandomChange(random), &fModel);
        ASSERT_EQ(fDb.Close(), kEngineNoError);
        ASSERT_EQ(fDb.Open(), kEngineNoError);
        const TRecordModel before = fModel;
        ASSERT_EQ(EngineBeginGroup(), kEngineNoError);
        const int changes = 1 + static_cast<int>(random() % 12);
        const int endAt = static_cast<int>(random() % (changes + 2));  // changes + 1: after the end
        for (int i = 0; i < changes; ++i) {
            if (i == endAt) break;
            Perform(RandomChange(random), &fModel);
        }
        const bool ended = endAt > changes;
        if (ended) {
            ASSERT_EQ(EngineEndGroup(true), kEngineNoError);
        }
        const bool powerCut = random() % 3 == 0;
        if (powerCut) {
            fWorld.Files().PowerCut(static_cast<std::uint32_t>(random()));
        } else {
            fWorld.Files().Crash();
        }
        if (!ended) {
            ASSERT_EQ(EngineEndGroup(false), kEngineNoError);  // the process is gone: forget it
        }
        EngineStop();
            ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
        ASSERT_EQ(fDb.Open(), kEngineNoError);
        const TRecordModel after = fModel;
        if (ended && !powerCut) {
            ASSERT_TRUE(HoldsOneOf({&after}));
        } else if (!ended) {
            ASSERT_TRUE(HoldsOneOf({&before}));
        } else {
            ASSERT_TRUE(HoldsOneOf({&before, &after}));
        }
        const bool holdsAfter = HoldsOneOf({&after});
        fModel = holdsAfter ? after : before;
        (holdsAfter ? whole : none) += 1;
    }
    std::printf("%d groups found whole, %d found absent\n", whole, none);
}

TEST_F(GroupTest, AnAbandonedOrFailedGroupIsUndoneAndLaterChangesStay) {
    std::mt19937 random(11);
    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        const TRecordModel before = fModel;
        ASSERT_EQ(EngineBeginGroup(), kEngineNoError);
        EXPECT_EQ(EngineBeginGroup(), kBadArgument);  // no nesting
        for (int i = random() % 8; i > 0; --i) Perform(RandomChange(random), &fModel);
        switch (round % 3) {
            case 0:  // abandoned
                ASSERT_EQ(EngineEndGroup(false), kEngineNoError);
                fModel = before;
                break;
            case 1: {  // a change refused (a name that exists): the group goes with it
                TOperation clash = RandomChange(random);
                if (clash.fKind == TOperation::kAdd && fModel.Size() > 0) {
                    clash.fType = fModel.Records().begin()->first.fType;
                    clash.fName = kavotest::StoredName(*fModel.Records().begin()->second);
                    ASSERT_EQ(kavotest::PerformOperation(fDb, clash), kKeyExists);
                    fModel = before;
                }
                ASSERT_EQ(EngineEndGroup(true), kEngineNoError);
                break;
            }
            default: {  // a change whose write fails (a full disk): the group so far goes with it
                const TOperation failing = RandomChange(random);
                fWorld.Files().SetFailWrites(true);
                EXPECT_NE(kavotest::PerformOperation(fDb, failing), kEngineNoError);
                fWorld.Files().SetFailWrites(false);
                ASSERT_EQ(EngineEndGroup(true), kEngineNoError);
                fModel = before;
                break;
            }
        }
        ASSERT_TRUE(HoldsOneOf({&fModel}));
        // Changes after the group count, and survive a process death.
        for (int i = 1 + random() % 4; i > 0; --i) Perform(RandomChange(random), &fModel);
        if (random() % 4 == 0) {
            fWorld.Files().Crash();
            EngineStop();
            ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
            ASSERT_EQ(fDb.Open(), kEngineNoError);
        }
        ASSERT_TRUE(HoldsOneOf({&fModel}));
    }
}

TEST_F(GroupTest, NoCheckpointIsTakenInsideAGroup) {
    engine::TPager::SetCheckpointPages(2);
    std::mt19937 random(3);
    for (int i = 0; i < 20; ++i) Perform(RandomChange(random), &fModel);
    const TRecordModel before = fModel;
    const std::uint64_t checkpoints = engine::TPager::CompletedCheckpoints();
    ASSERT_EQ(EngineBeginGroup(), kEngineNoError);
    for (int i = 0; i < 200; ++i) Perform(RandomChange(random), &fModel);
    EXPECT_EQ(engine::TPager::CompletedCheckpoints(), checkpoints);
    fWorld.Files().Crash();
    ASSERT_EQ(EngineEndGroup(false), kEngineNoError);
    EngineStop();
            ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    ASSERT_EQ(fDb.Open(), kEngineNoError);
    EXPECT_TRUE(HoldsOneOf({&before}));
    // Ended, the group is one change among others and the checkpoints resume.
    fModel = before;
    ASSERT_EQ(EngineBeginGroup(), kEngineNoError);
    for (int i = 0; i < 200; ++i) Perform(RandomChange(random), &fModel);
    ASSERT_EQ(EngineEndGroup(true), kEngineNoError);
    Perform(RandomChange(random), &fModel);
    EXPECT_GT(engine::TPager::CompletedCheckpoints(), checkpoints);
    fWorld.Files().PowerCut(1);
    EngineStop();
            ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    ASSERT_EQ(fDb.Open(), kEngineNoError);
    EXPECT_TRUE(HoldsOneOf({&fModel}));
}

}  // namespace
