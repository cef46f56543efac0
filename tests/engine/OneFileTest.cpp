// A database is one file, and what it holds travels with it: a copy, a
// restored backup, another database put in its place or a database whose
// name looks like a log hold exactly their own records after a process
// death; a directory that cannot take new names matters not while the file
// can be written; a read-only open redoes a long log in time linear in it; a
// full disk refuses changes and nothing else, and the file goes on once
// space comes back; removing records never grows the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "engine/Pager.h"
#include "tests/engine/CampaignSupport.h"
#include "tests/engine/Reseal.h"

namespace {

using kavotest::Bytes;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

std::int16_t Add(const TTestDatabase& db, std::int32_t id, std::size_t size, std::uint8_t fill = 7) {
    const Bytes record = kavotest::MakeRecord("MDUM", id, "m" + std::to_string(id), Bytes(size, fill));
    return AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
}

std::int16_t Remove(const TTestDatabase& db, std::int32_t id) {
    const Bytes key = kavotest::NumberKey("MDUM", id);
    std::uint8_t fixed[kavotest::kFixedLength];
    const std::int16_t error = GetRecordByKey(db.NumberIndex(), key.data(), fixed);
    return error != kEngineNoError ? error : DeleteVarRecord(db.Data());
}

// The records of the file, opened and closed again (read-only unless asked).
std::size_t RecordsIn(const std::string& path, bool readOnly = true) {
    TTestDatabase db(path);
    if (db.Open(readOnly) != kEngineNoError) return SIZE_MAX;
    const kavotest::TContent content = kavotest::ReadContent(db);
    EXPECT_TRUE(content.fProblem.empty()) << path << ": " << content.fProblem;
    EXPECT_EQ(db.Close(), kEngineNoError);
    return content.fRecords.size();
}

class OneFileTest : public ::testing::Test {
protected:
    engine::TFaultFileSystem& Files() { return fWorld.Files(); }
    std::string Bytes(const std::string& name) {
        std::string bytes;
        EXPECT_TRUE(Files().ReadWholeFile(name, &bytes)) << name;
        return bytes;
    }
    // A process death (the file system goes on) and a fresh engine.
    void Die() {
        Files().Crash();
        EngineStop();
        ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    }

    kavotest::TCampaignWorld fWorld{"one-file"};
};

// A writer dies with operations in the log. The file restored from a copy
// made before holds what the copy held; another database put in its place
// holds its own records; the dead writer's file copied elsewhere holds every
// acknowledged operation.
TEST_F(OneFileTest, AFileRestoredOrReplacedAfterADeathHoldsItsOwnRecords) {
    TTestDatabase db("project.kdb");
    ASSERT_EQ(db.Create(), kEngineNoError);
    ASSERT_EQ(Add(db, 1, 100), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    const std::string backup = Bytes("project.kdb");
    TTestDatabase other("other.kdb");
    ASSERT_EQ(other.Create(), kEngineNoError);
    for (std::int32_t id = 100; id < 106; ++id) ASSERT_EQ(Add(other, id, 50), kEngineNoError);
    ASSERT_EQ(other.Close(), kEngineNoError);
    const std::string replacement = Bytes("other.kdb");

    ASSERT_EQ(db.Open(), kEngineNoError);
    for (std::int32_t id = 2; id <= 11; ++id) ASSERT_EQ(Add(db, id, 300), kEngineNoError);
    Die();
    const std::string dead = Bytes("project.kdb");

    Files().WriteWholeFile("moved.kdb", dead);
    EXPECT_EQ(RecordsIn("moved.kdb"), 11u);
    Files().WriteWholeFile("project.kdb", backup);
    EXPECT_EQ(RecordsIn("project.kdb", false), 1u);
    Files().WriteWholeFile("project.kdb", replacement);
    EXPECT_EQ(RecordsIn("project.kdb", false), 6u);
    Files().WriteWholeFile("project.kdb", dead);
    EXPECT_EQ(RecordsIn("project.kdb", false), 11u);
    EXPECT_EQ(RecordsIn("moved.kdb", false), 11u);
}

// A database whose name is another's with "!log" after it is an ordinary
// database: the other's writes, death and recovery leave it alone, and no
// other name ever appears.
TEST_F(OneFileTest, ADatabaseNamedLikeALogIsNeverTouched) {
    TTestDatabase lookalike("clips.kdb!log");
    ASSERT_EQ(lookalike.Create(), kEngineNoError);
    for (std::int32_t id = 1; id <= 5; ++id) ASSERT_EQ(Add(lookalike, id, 80), kEngineNoError);
    ASSERT_EQ(lookalike.Close(), kEngineNoError);
    const std::string before = Bytes("clips.kdb!log");

    TTestDatabase db("clips.kdb");
    ASSERT_EQ(db.Create(), kEngineNoError);
    for (std::int32_t id = 1; id <= 3; ++id) ASSERT_EQ(Add(db, id, 80), kEngineNoError);
    Die();
    ASSERT_EQ(db.Open(), kEngineNoError);
    ASSERT_EQ(Add(db, 4, 80), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    EXPECT_EQ(Bytes("clips.kdb!log"), before);
    EXPECT_EQ(RecordsIn("clips.kdb!log"), 5u);
    EXPECT_EQ(RecordsIn("clips.kdb"), 4u);
    EXPECT_EQ(Files().FileNames(), (std::vector<std::string>{"clips.kdb", "clips.kdb!log"}));
}

// A directory where no name can be made, removed or renamed: the file it
// holds opens for writing and takes every change, checkpoints, a death and
// the log's recovery included.
class TFixedNames : public engine::TFileSystem {
public:
    explicit TFixedNames(engine::TFileSystem* base) : fBase(base) {}
    std::unique_ptr<engine::TFile> Open(const std::string& path, engine::OpenMode mode,
                                        engine::FileError* error) override {
        if (mode == engine::OpenMode::kCreateNew) return Refuse(error);
        return fBase->Open(path, mode, error);
    }
    std::unique_ptr<engine::TFile> CreateUnnamed(const std::string&, engine::FileError* error) override {
        return Refuse(error);
    }
    engine::FileError Publish(engine::TFile*, const std::string&) override { return engine::FileError::kDenied; }
    bool Exists(const std::string& path) override { return fBase->Exists(path); }
    bool Remove(const std::string&) override { return false; }
    bool Rename(const std::string&, const std::string&) override { return false; }

private:
    static std::unique_ptr<engine::TFile> Refuse(engine::FileError* error) {
        if (error != nullptr) *error = engine::FileError::kDenied;
        return nullptr;
    }
    engine::TFileSystem* fBase;
};

TEST_F(OneFileTest, ADirectoryThatTakesNoNewNamesMattersNotWhenTheFileIsWritable) {
    TTestDatabase db("locked-dir.kdb");
    ASSERT_EQ(db.Create(), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    TFixedNames fixed(&Files());
    engine::InstallFileSystem(&fixed);
    engine::TPager::SetCacheCapacity(32);
    engine::TPager::SetCheckpointPages(40);
    TRecordModel model;
    std::mt19937 random(4);
    ASSERT_EQ(db.Open(), kEngineNoError);
    for (int i = 0; i < 600; ++i) {
        const TOperation op = model.RandomOperation(random);
        const std::int16_t expected = model.Expected(op);
        ASSERT_EQ(kavotest::PerformOperation(db, op), expected) << op.Encode();
        if (expected == kEngineNoError) model.Apply(op);
        if (i == 300) {
            Files().Crash();
            EngineStop();
            ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
            ASSERT_EQ(db.Open(), kEngineNoError);
        }
    }
    std::string problem;
    ASSERT_EQ(db.Close(), kEngineNoError);
    EXPECT_EQ(kavotest::CheckSoundFile(db, false, model, {}, 0, &problem), 0) << problem;
    EXPECT_EQ(db.Close(), kEngineNoError);
    EXPECT_EQ(db.Create(), kFileNotCreated);  // no new name, as the directory says
    EXPECT_EQ(Files().FileNames(), std::vector<std::string>{"locked-dir.kdb"});
    engine::InstallFileSystem(&Files());
}

// A read-only open cannot write a long log's pages anywhere: they stay in
// memory, and the cache, unable to evict them, grows by steps instead of
// searching all its pages for every new one.
TEST_F(OneFileTest, AReadOnlyOpenRedoesALongLogInLinearTime) {
    TTestDatabase db("long-log.kdb");
    ASSERT_EQ(db.Create(), kEngineNoError);
    std::vector<std::int32_t> ids(30000);
    for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<std::int32_t>(2 * i);
    for (std::int32_t id : ids) ASSERT_EQ(Add(db, id, 60), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    // Adds between the records already there copy leaves all over the trees;
    // no checkpoint comes before the death.
    engine::TPager::SetCheckpointPages(1000000);
    ASSERT_EQ(db.Open(), kEngineNoError);
    std::shuffle(ids.begin(), ids.end(), std::mt19937(3));
    for (std::size_t i = 0; i < 4000; ++i) ASSERT_EQ(Add(db, ids[i] + 1, 60), kEngineNoError);
    Die();
    engine::TPager::SetCacheCapacity(64);
    ASSERT_EQ(db.Open(true), kEngineNoError);
    const engine::TPagerStats* stats = HostFileStats(TTestDatabase::kHostNumber);
    ASSERT_NE(stats, nullptr);
    EXPECT_GT(stats->fPagesAllocated, 800u);
    EXPECT_LT(stats->fCacheSweeps, 64 * stats->fPagesAllocated);
    EXPECT_EQ(CountIndexEntries(db.NumberIndex()), 34000u);
    EXPECT_EQ(db.Close(), kEngineNoError);
}

// A frame damaged in the middle of a dead writer's log stops the redo there:
// the file opens with the operations before it, the check names the frame
// and the loss of the whole frames after it, and so does the status log.
TEST_F(OneFileTest, ARedoStoppedByADamagedFrameIsReported) {
    TTestDatabase db("stopped.kdb");
    ASSERT_EQ(db.Create(), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    ASSERT_EQ(db.Open(), kEngineNoError);
    for (std::int32_t id = 1; id <= 8; ++id) ASSERT_EQ(Add(db, id, 100), kEngineNoError);
    Die();
    std::string image = Bytes("stopped.kdb");
    const kavotest::TLogLayout log = kavotest::FindLog(image, true);
    ASSERT_EQ(log.fFrames.size(), 8u);
    image[log.fFrames[3].first + 30] ^= 0x10;  // in frame 3's payload
    Files().WriteWholeFile("stopped.kdb", image);

    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile("stopped.kdb", &report), kEngineNoError);
    EXPECT_TRUE(report.fProblems.empty());
    EXPECT_EQ(report.fLogFrames, 3u);
    EXPECT_NE(report.fLogNote.find("frame 3 is damaged"), std::string::npos) << report.fLogNote;
    EXPECT_NE(report.fLogNote.find("whole frames after it were lost"), std::string::npos) << report.fLogNote;
    EXPECT_EQ(RecordsIn("stopped.kdb", false), 3u);
    std::ifstream status("DBSTATUS.LOG");
    const std::string logged((std::istreambuf_iterator<char>(status)), std::istreambuf_iterator<char>());
    EXPECT_NE(logged.find("stopped.kdb: the log's frame 3 is damaged"), std::string::npos) << logged;
}

// A full disk refuses every change and nothing else: reads and counts go on
// and see only what is stored; the close is refused too, and the file then
// opens with every acknowledged change. Space back, changes succeed again.
TEST_F(OneFileTest, AFullDiskRefusesChangesOnlyAndTheFileGoesOn) {
    engine::TPager::SetCacheCapacity(32);
    TTestDatabase db("full.kdb");
    ASSERT_EQ(db.Create(), kEngineNoError);
    for (std::int32_t id = 1; id <= 100; ++id) ASSERT_EQ(Add(db, id, 500), kEngineNoError);
    Files().SetFailWrites(true);
    for (std::int32_t id = 101; id <= 110; ++id) EXPECT_EQ(Add(db, id, 500), kWriteFailed);
    EXPECT_EQ(Remove(db, 5), kWriteFailed);
    EXPECT_EQ(CountIndexEntries(db.NumberIndex()), 100u);
    EXPECT_EQ(kavotest::ReadContent(db).fRecords.size(), 100u);
    Files().SetFailWrites(false);
    EXPECT_EQ(Add(db, 101, 500), kEngineNoError);
    EXPECT_EQ(Remove(db, 5), kEngineNoError);
    EXPECT_EQ(CountIndexEntries(db.NumberIndex()), 100u);

    Files().SetFailWrites(true);
    EXPECT_EQ(Add(db, 102, 500), kWriteFailed);
    EXPECT_EQ(db.Close(), kWriteFailed);
    Files().SetFailWrites(false);
    EXPECT_EQ(RecordsIn("full.kdb", false), 100u);
    ASSERT_EQ(db.Open(), kEngineNoError);
    EXPECT_EQ(Remove(db, 101), kEngineNoError);
    EXPECT_EQ(Remove(db, 102), kEngineKeyNotFound);
    EXPECT_EQ(db.Close(), kEngineNoError);
}

// Records removed one by one, in any order, free their pages for the next
// ones: the file never grows while it shrinks, and removing every record
// gives most of it back at the close.
TEST(OneFileSpaceTest, RemovingRecordsNeverGrowsTheFile) {
    kavotest::TCampaignWorld world("space", false);
    ASSERT_EQ(kavotest::StartEngine(), kEngineNoError);
    const std::string path = world.File("space.kdb");
    TTestDatabase db(path);
    ASSERT_EQ(db.Create(), kEngineNoError);
    constexpr std::int32_t kCount = 30000;
    for (std::int32_t id = 0; id < kCount; ++id) ASSERT_EQ(Add(db, id, 200), kEngineNoError);
    ASSERT_EQ(db.Close(), kEngineNoError);
    const std::uintmax_t full = std::filesystem::file_size(path);
    std::vector<std::int32_t> ids(kCount);
    for (std::int32_t id = 0; id < kCount; ++id) ids[static_cast<std::size_t>(id)] = id;
    std::shuffle(ids.begin(), ids.end(), std::mt19937(9));
    ASSERT_EQ(db.Open(), kEngineNoError);
    std::uintmax_t largest = 0;
    for (std::size_t i = 0; i < ids.size(); ++i) {
        ASSERT_EQ(Remove(db, ids[i]), kEngineNoError);
        if (i % 500 == 0) largest = std::max(largest, std::filesystem::file_size(path));
    }
    ASSERT_EQ(db.Close(), kEngineNoError);
    const std::uintmax_t empty = std::filesystem::file_size(path);
    std::printf("%ju bytes full, at most %ju while removing, %ju empty\n", full, largest, empty);
    EXPECT_LE(largest, full);
    EXPECT_LT(empty, full / 8);
}

}  // namespace
