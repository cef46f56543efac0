// Damage is detected, never trusted. A real database (a few thousand records,
// some long) is made once in the fault-injecting file system in three
// states: closed cleanly; with a live log (inside the file) after a process
// death; and with a checkpoint cut short by a loss of power, so that only
// the log can finish it. Then, round after round, a copy is damaged (bit
// flips, a truncation, a zeroed range, a range of random bytes, anywhere or
// in the log's frames) and:
//  - opening it and checking it whole answer kFileNotOpened or succeed;
//  - when it opens and the check finds nothing, it holds exactly the records
//    of a state it could honestly be in (with a live log: the records after
//    some prefix of the logged operations, since damage in the log looks
//    like a log cut short);
//  - whatever the check says, reading every record by both keys, counting
//    and walking both indexes answer the right records or clean errors,
//    never a crash, a hang or a read out of bounds (which the sanitizer
//    build would stop at).
// Foreign files (random bytes, text, an empty file, zeros) never open. And
// damage that checksums cannot see (every page and frame resealed after it)
// is answered with codes too, though its records may then be wrong.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "engine/Bytes.h"
#include "tests/engine/CampaignSupport.h"
#include "tests/engine/Reseal.h"

namespace {

using kavotest::Bytes;
using kavotest::TOperation;
using kavotest::TRecordModel;
using kavotest::TTestDatabase;

constexpr const char* kHostName = "damaged.kdb";
constexpr std::size_t kPage = engine::kPageSize;

// A database image: its file's bytes, the records it holds when all of its
// log is redone, and the states it may honestly show.
struct TImage {
    std::string fHost;
    TRecordModel fBase;
    std::vector<TOperation> fLogged;  // the operations in the log, after fBase
    // Every version of every record that some state holds.
    std::map<kavotest::TRecordName, std::set<Bytes>> fVersions;
};

// Random operations that succeed, applied to the model; no closes, so that
// no checkpoint comes between.
std::vector<TOperation> RandomOperations(TRecordModel* model, std::mt19937& random, int count) {
    std::vector<TOperation> ops;
    for (int i = 0; i < count; ++i) {
        const TOperation op = model->RandomOperation(random, 3000);
        if (op.fKind == TOperation::kReopen || model->Expected(op) != kEngineNoError) continue;
        model->Apply(op);
        ops.push_back(op);
    }
    return ops;
}

// Makes the three images once; each test copies the one it damages. The
// test's fault world gives the cache its size back afterwards.
class TImages {
public:
    static const TImages& Get() {
        static const TImages images;
        return images;
    }
    TImage fClosed;
    TImage fLiveLog;
    TImage fCutCheckpoint;

private:
    TImages() {
        engine::TFaultFileSystem fs;  // the engine is running: a test's fault world started it
        engine::InstallFileSystem(&fs);
        TTestDatabase db(kHostName);
        db.Create();
        static const char* const kTypes[] = {"MDUM", "path", "SEEN", "DVC ", "alis"};
        std::mt19937 random(4242);
        for (int i = 0; i < 2500; ++i) {
            TOperation op;
            op.fType = kTypes[random() % 5];
            op.fID = static_cast<std::int32_t>(random() % 2000000) - 1000000;
            if (random() % 50 == 0) op.fID = random() % 2 == 0 ? INT32_MIN : INT32_MAX;
            op.fName = "r" + std::to_string(i);
            op.fSeed = static_cast<std::uint32_t>(random());
            const unsigned die = random() % 400;
            op.fSize = die < 2    ? 80000 + random() % 40000
                       : die < 24 ? 1000 + random() % 8000
                                  : random() % 300;
            if (fClosed.fBase.Expected(op) != kEngineNoError) continue;
            kavotest::PerformOperation(db, op);
            fClosed.fBase.Apply(op);
        }
        db.Close();
        fs.ReadWholeFile(kHostName, &fClosed.fHost);

        // A process death with operations in the log (a cache roomy enough
        // that no checkpoint comes between).
        TRecordModel model = fLiveLog.fBase = fClosed.fBase;
        fLiveLog.fLogged = RandomOperations(&model, random, 120);
        engine::TPager::SetCacheCapacity(4096);
        db.Open();
        for (const TOperation& op : fLiveLog.fLogged) kavotest::PerformOperation(db, op);
        fs.Crash();
        fs.ReadWholeFile(kHostName, &fLiveLog.fHost);
        EngineStop();

        // A checkpoint whose log is synced and whose overwriting is cut
        // short: the close's last sync fails, then the power goes. The same
        // steps run twice from the live log's state, the first time to count
        // the close's syncs.
        fCutCheckpoint.fBase = model;
        fCutCheckpoint.fLogged = RandomOperations(&model, random, 120);
        for (int run = 0, syncs = 0; run < 2; ++run) {
            engine::TFaultFileSystem cutFs;
            engine::InstallFileSystem(&cutFs);
            cutFs.WriteWholeFile(kHostName, fLiveLog.fHost);
            kavotest::StartEngine();
            db.Open();
            for (const TOperation& op : fCutCheckpoint.fLogged) kavotest::PerformOperation(db, op);
            cutFs.ResetCounters();
            cutFs.FailSyncAfter(run == 0 ? -1 : syncs - 1);
            db.Close();
            syncs = static_cast<int>(cutFs.Counters().fSyncs);
            cutFs.PowerCut(99);
            cutFs.ReadWholeFile(kHostName, &fCutCheckpoint.fHost);
            EngineStop();
        }
        engine::InstallFileSystem(nullptr);
        for (TImage* image : {&fClosed, &fLiveLog, &fCutCheckpoint}) {
            for (const auto& [name, record] : image->fBase.Records()) image->fVersions[name].insert(*record);
            for (const TOperation& op : image->fLogged) {
                if (op.fKind != TOperation::kDelete)
                    image->fVersions[{op.fType, op.fKind == TOperation::kAdd ? op.fID : op.fNewID}].insert(
                        op.Record());
            }
        }
    }
};

// --- Damage.

void FlipBits(std::string* bytes, std::mt19937& random, std::size_t from, std::size_t to,
              unsigned most = 16) {
    if (to <= from) return;
    for (int flips = 1 + static_cast<int>(random() % most); flips > 0; --flips) {
        const std::size_t at = from + random() % (to - from);
        (*bytes)[at] = static_cast<char>((*bytes)[at] ^ (1u << (random() % 8)));
    }
}

std::string RandomBytes(std::size_t size, std::mt19937& random) {
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    return bytes;
}

enum class TDamage { kBitFlips, kTruncation, kZeroedRange, kRandomRange, kCount };

// Damages the file, or only the bytes from `from` to `to` (a frame of its
// log), and says what it did.
std::string DamageRange(std::string* bytes, std::size_t from, std::size_t to, std::mt19937& random) {
    const unsigned kind = random() % 3;
    if (kind == 0) {
        FlipBits(bytes, random, from, to, 4);
        return "bit flips from " + std::to_string(from) + " to " + std::to_string(to);
    }
    const std::size_t at = from + random() % (to - from);
    const std::size_t length = 1 + random() % (to - at);
    bytes->replace(at, length, kind == 1 ? std::string(length, '\0') : RandomBytes(length, random));
    return (kind == 1 ? "zeros at " : "random bytes at ") + std::to_string(at) + ", " + std::to_string(length) +
           " bytes";
}

std::string Damage(std::string* bytes, TDamage damage, std::mt19937& random) {
    if (bytes->empty()) return "nothing to damage";
    const std::size_t pages = bytes->size() / kPage;
    if (damage == TDamage::kBitFlips) {
        // Anywhere; or in the first page, where the header, the catalog or
        // the log's first frames are; or, twice as often, in the first bytes
        // of one page, where its header and first entries (keys, children,
        // counts) are.
        const unsigned where = random() % 4;
        const std::size_t from = where < 2 ? 0 : (random() % (pages + 1)) * kPage;
        const std::size_t to =
            std::min(bytes->size(), where == 0 ? bytes->size() : from + (where == 1 ? kPage : 128));
        FlipBits(bytes, random, from, to);
        return "bit flips from " + std::to_string(from) + " to " + std::to_string(to);
    }
    if (damage == TDamage::kTruncation) {
        bytes->resize(random() % 4 == 0 ? (random() % (pages + 1)) * kPage : random() % bytes->size());
        return "truncated to " + std::to_string(bytes->size());
    }
    // A range: mostly small and anywhere, now and then a whole page.
    const bool wholePage = random() % 3 == 0 && pages > 0;
    const std::size_t at = wholePage ? (random() % pages) * kPage : random() % bytes->size();
    const std::size_t length =
        wholePage ? kPage : std::min<std::size_t>(1 + random() % (3 * kPage), bytes->size() - at);
    const bool zeros = damage == TDamage::kZeroedRange;
    bytes->replace(at, length, zeros ? std::string(length, '\0') : RandomBytes(length, random));
    return (zeros ? "zeros at " : "random bytes at ") + std::to_string(at) + ", " + std::to_string(length) +
           " bytes";
}

bool IsEngineError(std::int16_t error) {
    static const std::set<std::int16_t> kKnown = {
        kKeyExists,       kKeyNotDeleted,     kFileNotOpened, kFileNotCreated,    kPageDamaged,
        kWriteFailed,     kFileNumberInUse,   kFileNotActive, kNoWritePermission, kBadRecordPosition,
        kNoCurrentRecord, kEngineKeyNotFound, kBadArgument,   kEngineOutOfMemory, kBufferTooSmall,
        kMemberNotFound,  kFileFull};
    return kKnown.count(error) != 0;
}

class CorruptionCampaignTest : public ::testing::Test {
protected:
    // Plants the file in a fresh file system.
    void Plant(const std::string& host) {
        ASSERT_EQ(fWorld.Install(), kEngineNoError);
        fWorld.Files().WriteWholeFile(kHostName, host);
    }

    // Opens, checks and reads a planted damaged image; `what` describes the
    // damage for messages. With resealed checksums the check may rightly
    // find nothing wrong with records that are.
    void Examine(const TImage& image, const std::string& what, bool resealed, std::mt19937& random) {
        engine::TPager::SetCacheCapacity(16 + random() % 200);
        TIntegrityReport report;
        const std::int16_t checked = CheckHostFile(kHostName, &report);
        ASSERT_TRUE(checked == kEngineNoError || checked == kFileNotOpened) << what << ": check " << checked;
        const bool clean = checked == kEngineNoError && report.fProblems.empty() && !resealed;

        TTestDatabase db(kHostName);
        const std::int16_t opened = db.Open(random() % 4 == 0);
        ASSERT_TRUE(opened == kEngineNoError || opened == kFileNotOpened) << what << ": open " << opened;
        if (opened != kEngineNoError) return;
        const kavotest::TContent content = kavotest::ReadContent(db, 1u << 21);
        ASSERT_TRUE(content.fError == kEngineNoError || IsEngineError(content.fError))
            << what << ": " << content.fProblem;
        std::string difference;
        // Nothing reported: the content must be a state the file could
        // honestly be in.
        if (clean && kavotest::FindPrefix(image.fBase, image.fLogged, content, 0, &difference) < 0)
            FAIL() << what << ": the check found nothing, yet " << difference;
        ExerciseReads(db, image, clean, what);
        const std::int16_t closed = db.Close();
        ASSERT_TRUE(closed == kEngineNoError || IsEngineError(closed)) << what << ": close " << closed;
    }

    // Every record any state holds, by both keys; counts and ranks. On a
    // damaged file any engine error will do. On a clean one, whose content
    // the walks have shown to be right, every eighth record is looked up, to
    // follow the searches' paths too: each answer is right or
    // kEngineKeyNotFound (a record of another state).
    void ExerciseReads(const TTestDatabase& db, const TImage& image, bool clean, const std::string& what) {
        std::size_t wrong = 0;
        std::size_t seen = 0;
        for (const auto& [name, possible] : image.fVersions) {
            if (clean && seen++ % 8 != 0) continue;
            for (const Bytes& record : possible) {
                for (int byName = 0; byName < 2; ++byName) {
                    const Bytes key =
                        byName ? kavotest::NameKey(name.fType.c_str(), kavotest::StoredName(record))
                               : kavotest::NumberKey(name.fType.c_str(), name.fID);
                    std::uint8_t fixed[kavotest::kFixedLength];
                    const std::int16_t found =
                        GetRecordByKey(byName ? db.NameIndex() : db.NumberIndex(), key.data(), fixed);
                    const std::uint32_t length = found == kEngineNoError ? VarRecordLength(db.Data()) : 0;
                    Bytes bytes(length <= (1u << 21) ? length : 0);
                    const std::int16_t error =
                        bytes.empty() ? found : ReadVarRecord(db.Data(), bytes.data(), length);
                    ASSERT_TRUE(error == kEngineNoError || IsEngineError(error))
                        << what << ": read " << error;
                    // By name, another record of the same name may answer.
                    if (found != kEngineKeyNotFound &&
                        (error != kEngineNoError || bytes.empty() || (!byName && possible.count(bytes) == 0)))
                        ++wrong;
                }
                if (!clean) break;  // one version is enough to exercise a damaged file
            }
        }
        EXPECT_TRUE(!clean || wrong == 0)
            << what << ": the check found nothing, yet reads failed or answered wrong records";
        for (const char* type : {"MDUM", "path", "SEEN", "DVC ", "alis", "zzzz"}) {
            CountKeyRange(db.NumberIndex(), kavotest::NumberKey(type, INT32_MIN).data(),
                          kavotest::NumberKey(type, INT32_MAX).data());
            CountKeysBelow(db.NameIndex(), kavotest::NameKey(type, "r5").data());
        }
        std::uint8_t key[36];
        for (std::uint32_t n = 0; n < 3000; n += 97) NthKey(db.NameIndex(), n, key);
    }

    // Damages a copy of the image, half the time in one of its log's frames
    // when it has any (resealing it, if asked), plants and examines it.
    void RunRounds(const TImage& image, int rounds, std::uint32_t seed, bool reseal = false) {
        const kavotest::TLogLayout log = kavotest::FindLog(image.fHost, true);
        for (int round = 0; round < rounds && !HasFailure(); ++round) {
            std::mt19937 random(seed + static_cast<std::uint32_t>(round));
            std::string host = image.fHost;
            std::string what = "round " + std::to_string(round) + ", ";
            if (!log.fFrames.empty() && random() % 2 == 0) {
                const auto& [from, to] = log.fFrames[random() % log.fFrames.size()];
                what += "log frame: " + DamageRange(&host, from, to, random);
            } else {
                what += Damage(&host, static_cast<TDamage>(random() % static_cast<unsigned>(TDamage::kCount)), random);
            }
            if (reseal) {
                kavotest::ResealPages(&host);
                kavotest::ResealLog(&host);
            }
            Plant(host);
            Examine(image, what, reseal, random);
        }
    }

    // Plants a file and expects it to pass the check and open with all of the
    // image's logged operations redone.
    void ExpectSound(const TImage& image, const std::string& host) {
        Plant(host);
        TTestDatabase db(kHostName);
        std::string problem;
        EXPECT_GE(
            kavotest::CheckSoundFile(db, false, image.fBase, image.fLogged, image.fLogged.size(), &problem),
            0)
            << problem;
        EXPECT_EQ(db.Close(), kEngineNoError);
    }

    kavotest::TCampaignWorld fWorld{"corruption"};
};

// Every logged operation was acknowledged: all of them are there. And the
// images are what they claim: no log frames in the closed file, frames in
// the one a process death left, and a checkpoint cut short that has changed
// the file.
TEST_F(CorruptionCampaignTest, TheUndamagedImagesOpenWithTheirRecords) {
    const TImages& images = TImages::Get();
    for (const TImage* image : {&images.fClosed, &images.fLiveLog, &images.fCutCheckpoint}) {
        ExpectSound(*image, image->fHost);
        EXPECT_GE(image->fBase.Size(), 2000u);
    }
    EXPECT_TRUE(kavotest::FindLog(images.fClosed.fHost, true).fFrames.empty());
    EXPECT_GE(kavotest::FindLog(images.fLiveLog.fHost, true).fFrames.size(), images.fLiveLog.fLogged.size());
    EXPECT_NE(images.fCutCheckpoint.fHost, images.fLiveLog.fHost);
}

// Damage to a closed file, to one with a live log, and to one whose
// checkpoint was cut short, is refused or reported, or leaves an honest
// state; whatever the check says, reads answer with codes.
TEST_F(CorruptionCampaignTest, ADamagedFileFailsToOpenOrIsReportedByTheCheck) {
    const TImages& images = TImages::Get();
    const int rounds = kavotest::CampaignCount("KAVO_CORRUPTION_ROUNDS", 150);
    RunRounds(images.fClosed, rounds, 1000);
    RunRounds(images.fLiveLog, rounds, 2000);
    RunRounds(images.fCutCheckpoint, rounds, 3000);
}

// Damage that checksums cannot see (every page and frame resealed after it)
// is answered with codes too, though the records may then be wrong.
TEST_F(CorruptionCampaignTest, DamageBehindValidChecksumsIsAnsweredWithCodes) {
    const TImages& images = TImages::Get();
    const int rounds = kavotest::CampaignCount("KAVO_CORRUPTION_ROUNDS", 150) / 2;
    RunRounds(images.fClosed, rounds, 4000, true);
    RunRounds(images.fLiveLog, rounds / 2, 5000, true);
    RunRounds(images.fCutCheckpoint, rounds / 2, 6000, true);
}

// The interior pages hold the counts that ranks and range counts add up: a
// count written wrong behind a valid checksum is answered as damage, never
// by ending the process.
TEST_F(CorruptionCampaignTest, InteriorPagesDamagedBehindValidChecksumsAreAnsweredWithCodes) {
    const TImage& image = TImages::Get().fClosed;
    std::mt19937 random(7000);
    int interiorPages = 0;
    for (std::size_t page = kPage; page + kPage <= image.fHost.size(); page += kPage) {
        if (static_cast<std::uint8_t>(image.fHost[page + engine::kPageTypeAt]) != engine::kPageTypeInterior)
            continue;
        ++interiorPages;
        for (int trial = 0; trial < 20 && !HasFailure(); ++trial) {
            std::string host = image.fHost;
            FlipBits(&host, random, page + engine::kPageHeaderSize, page + engine::kPageHeaderSize + 512, 3);
            kavotest::ResealPages(&host);
            Plant(host);
            Examine(image, "interior page at " + std::to_string(page) + ", trial " + std::to_string(trial),
                    true, random);
        }
    }
    EXPECT_GE(interiorPages, 3);
}

// A child of the data tree's interior page rewritten, behind a valid
// checksum, to name a leaf of the number index that a lookup has already
// read (and checked as an index leaf): the data tree must not take it for
// one of its own leaves.
TEST_F(CorruptionCampaignTest, APointerToAPageOfAnotherTreeIsAnsweredAsDamage) {
    ASSERT_EQ(fWorld.Install(), kEngineNoError);
    TTestDatabase db(kHostName);
    ASSERT_EQ(db.Create(), kEngineNoError);
    for (std::int32_t id = 1; id <= 300; ++id) {
        const Bytes record = kavotest::MakeRecord("MDUM", id, "n" + std::to_string(id), Bytes(100, 7));
        ASSERT_EQ(AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size())),
                  kEngineNoError);
    }
    ASSERT_EQ(db.Close(), kEngineNoError);
    std::string host;
    ASSERT_TRUE(fWorld.Files().ReadWholeFile(kHostName, &host));
    auto* bytes = reinterpret_cast<std::uint8_t*>(&host[0]);
    // The first page of a kind and owner (0: data, 1: number index) that
    // holds entries: the number index's first leaf, not a free page with an
    // old one.
    const auto find = [&](std::uint8_t type, std::uint32_t owner) {
        for (std::uint32_t number = 2; (number + 1) * kPage <= host.size(); ++number) {
            const std::uint8_t* page = bytes + number * kPage;
            if (page[engine::kPageTypeAt] == type && engine::Get32(page + engine::kPageOwnerAt) == owner &&
                engine::Get16(page + engine::kPageCountAt) > 0)
                return number;
        }
        return 0u;
    };
    const std::size_t dataInterior = find(engine::kPageTypeInterior, 0) * kPage;
    const std::uint32_t indexLeaf = find(engine::kPageTypeIndexLeaf, 1);
    ASSERT_TRUE(dataInterior != 0 && indexLeaf != 0);
    // The data tree's interior entries are a record number, a child and a
    // count, four bytes each; its last child now names the index leaf.
    const std::uint32_t last = engine::Get16(bytes + dataInterior + engine::kPageCountAt) - 1u;
    engine::Put32(bytes + dataInterior + engine::kPageHeaderSize + 12 * last + 4, indexLeaf);
    kavotest::ResealPages(&host);
    Plant(host);
    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile(kHostName, &report), kEngineNoError);
    ASSERT_FALSE(report.fProblems.empty()) << "the damage did not take";

    ASSERT_EQ(db.Open(true), kEngineNoError);
    std::uint8_t fixed[kavotest::kFixedLength];
    ASSERT_EQ(GetRecordByKey(db.NumberIndex(), kavotest::NumberKey("MDUM", 1).data(), fixed), kEngineNoError);
    EXPECT_EQ(ReadFixedAt(db.Data(), 300, fixed), kPageDamaged);
}

// Random bytes, text, an empty file, zeros and a database cut short within
// its first page neither open nor pass for a database in the check.
TEST_F(CorruptionCampaignTest, AForeignFileNeverOpens) {
    std::mt19937 random(77);
    std::string text;
    while (text.size() < 2 * kPage) text += "This is a plain text file, not a database.\n";
    const std::pair<std::string, const char*> files[] = {
        {RandomBytes(3 * kPage + 123, random), "random bytes"},
        {RandomBytes(4 * kPage, random), "random whole pages"},
        {text, "a text file"},
        {"", "an empty file"},
        {std::string(8 * kPage, '\0'), "zeros"},
        {TImages::Get().fClosed.fHost.substr(0, kPage - 1), "less than a page of a database"}};
    for (const auto& [host, what] : files) {
        Plant(host);
        TIntegrityReport report;
        EXPECT_EQ(CheckHostFile(kHostName, &report), kFileNotOpened) << what;
        TTestDatabase db(kHostName);
        EXPECT_EQ(db.Open(), kFileNotOpened) << what;
        EXPECT_EQ(db.Open(true), kFileNotOpened) << what;
    }
}

// A sound file whose members have the same names but another layout: the
// caller's buffers, sized by its own definition, would be too small for the
// stored fixed part or keys.
TEST_F(CorruptionCampaignTest, AFileOfAnotherLayoutDoesNotOpenWithThisDefinition) {
    for (const auto& [fixedLength, nameKeyLength] :
         {std::pair<std::uint16_t, std::int16_t>{300, 36}, {40, 40}, {40, 36}}) {
        SCOPED_TRACE(std::to_string(fixedLength) + " " + std::to_string(nameKeyLength));
        ASSERT_EQ(fWorld.Install(), kEngineNoError);
        const KeySegment segments[4] = {
            {0, 4, kSegmentBytes}, {4, 4, kSegmentSignedInt}, {0, 4, kSegmentBytes}, {8, 32, kSegmentString}};
        const IndexDefinition indexes[2] = {
            {8, 0, 0, 1, 0, 2, &segments[0], "number_key", nullptr, nullptr, nullptr},
            {nameKeyLength, 12, 0, 1, 0, 2, &segments[2], "name_key", nullptr, nullptr, nullptr}};
        const std::string dataName = std::string(kHostName) + "!data";
        FileDefinition other{dataName.c_str(), -1,      fixedLength, 16384, 68, 2, 4096, 64,
                             indexes,          nullptr, nullptr,     0};
        ASSERT_EQ(CreateHostFile(0, kHostName, 0, 0, kHostCreateMode), kEngineNoError);
        ASSERT_EQ(CreateFilesFromDefinition(&other), kEngineNoError);
        const Bytes record(fixedLength, 0x41);
        ASSERT_EQ(AddVarRecord(other.fChosenDataFileNumber, record.data(), fixedLength), kEngineNoError);
        ASSERT_EQ(CloseHostFile(0, 0), kEngineNoError);
        const bool opens = fixedLength == 40 && nameKeyLength == 36;  // this definition's layout
        TTestDatabase db(kHostName);
        for (bool readOnly : {true, false}) {
            EXPECT_EQ(db.Open(readOnly), opens ? kEngineNoError : kFileNotOpened);
            if (opens) db.Close();
        }
    }
}

// Frames of another database's log, in the place where this file's log
// lies, are not this file's (another salt): they are never redone.
TEST_F(CorruptionCampaignTest, AnotherDatabasesLogFramesAreNeverRedone) {
    const TImages& images = TImages::Get();
    ASSERT_EQ(fWorld.Install(), kEngineNoError);
    TTestDatabase other("other.kdb");
    ASSERT_EQ(other.Create(), kEngineNoError);
    for (std::int32_t id = 1; id <= 30; ++id) {
        const Bytes record = kavotest::MakeRecord("MDUM", id, "o" + std::to_string(id), Bytes(200, 9));
        ASSERT_EQ(AddVarRecord(other.Data(), record.data(), static_cast<std::uint32_t>(record.size())),
                  kEngineNoError);
    }
    fWorld.Files().Crash();
    std::string foreign;
    ASSERT_TRUE(fWorld.Files().ReadWholeFile("other.kdb", &foreign));
    const kavotest::TLogLayout theirs = kavotest::FindLog(foreign, true);
    const kavotest::TLogLayout own = kavotest::FindLog(images.fClosed.fHost, true);
    ASSERT_GE(theirs.fFrames.size(), 30u);
    ASSERT_EQ(theirs.fExtents.front().fStart, own.fExtents.front().fStart);
    std::string host = images.fClosed.fHost;
    const std::size_t first = std::size_t{own.fExtents.front().fStart} * kPage;
    const std::size_t length = std::size_t{own.fExtents.front().fPages} * kPage;
    host.replace(first, length, foreign.substr(first, length));
    ExpectSound(images.fClosed, host);
}

}  // namespace
