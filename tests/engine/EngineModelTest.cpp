// The engine's calls against a reference model (an ordered map of records)
// under random sequences of thousands of operations, with closes, reopens and
// whole-file checks between them; a small cache makes pages leave memory and
// checkpoints happen mid-sequence; record sizes cross the inline limit and
// the overflow page size. Then trees many levels deep beside a 64 MiB record.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <map>
#include <random>
#include <tuple>

#include "engine/Pager.h"
#include "tests/engine/EngineFixture.h"
#include "tests/engine/TempDirectory.h"

namespace {

using kavotest::kFixedLength;
using kavotest::MakeRecord;
using kavotest::NameKey;
using kavotest::NumberKey;
using kavotest::TTestDatabase;
using Bytes = std::vector<std::uint8_t>;

std::int16_t Add(const TTestDatabase& db, const Bytes& record) {
    return AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
}

// Makes the record of this number current.
std::int16_t Seek(const TTestDatabase& db, const char* type, std::int32_t id) {
    const Bytes key = NumberKey(type, id);
    std::uint8_t fixed[kFixedLength];
    return GetRecordByKey(db.NumberIndex(), key.data(), fixed);
}

// The current record, whole; a buffer one byte too short is refused.
Bytes CurrentRecord(const TTestDatabase& db) {
    const std::uint32_t length = VarRecordLength(db.Data());
    Bytes bytes(length);
    EXPECT_EQ(ReadVarRecord(db.Data(), bytes.data(), length - 1), kBufferTooSmall);
    EXPECT_EQ(ReadVarRecord(db.Data(), bytes.data(), length), kEngineNoError);
    return bytes;
}

// A key as the index stores it.
Bytes Stored(std::int16_t index, Bytes key) {
    EXPECT_EQ(TransformKey(index, key.data()), kEngineNoError);
    return key;
}

// Closes the file and checks it whole.
void CloseAndCheck(TTestDatabase& db, TIntegrityReport* report) {
    ASSERT_EQ(db.Close(), kEngineNoError);
    ASSERT_EQ(CheckHostFile(db.Path().c_str(), report), kEngineNoError);
    ASSERT_TRUE(report->fProblems.empty()) << report->fProblems.front();
}

struct TModelRecord {
    std::string fType;
    std::int32_t fID;
    std::string fName;
    Bytes fBytes;
};

class EngineFileTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError); }
    void TearDown() override { EngineStop(); }

    kavotest::TTempDirectory fDirectory{"engine"};
    TTestDatabase fDb{fDirectory.File("test.kdb")};
};

class EngineModelTest : public EngineFileTest, public ::testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override {
        fPreviousCapacity = engine::TPager::CacheCapacity();
        engine::TPager::SetCacheCapacity(GetParam());
        // With a tiny cache, checkpoints come every few pages too.
        engine::TPager::SetCheckpointPages(GetParam() < 100 ? 8 : 0);
        EngineFileTest::SetUp();
    }
    void TearDown() override {
        EngineFileTest::TearDown();
        engine::TPager::SetCacheCapacity(fPreviousCapacity);
        engine::TPager::SetCheckpointPages(0);
    }

    // The model's positions in the order of an index: by type then signed
    // ID, or by type then name (NUL padding orders as the plain names do).
    std::vector<std::uint32_t> Order(bool byName) const {
        std::vector<std::uint32_t> order;
        for (const auto& [position, r] : fModel) order.push_back(position);
        const auto key = [&](std::uint32_t position) {
            const TModelRecord& r = fModel.at(position);
            return std::make_tuple(r.fType, byName ? 0 : r.fID, byName ? r.fName : "");
        };
        std::sort(order.begin(), order.end(),
                  [&](std::uint32_t a, std::uint32_t b) { return key(a) < key(b); });
        return order;
    }

    // The position of the record of this type and ID (or name), or 0.
    std::uint32_t Find(bool byName, const std::string& type, std::int32_t id, const std::string& name) const {
        for (const auto& [position, r] : fModel) {
            if (r.fType == type && (byName ? r.fName == name : r.fID == id)) return position;
        }
        return 0;
    }

    // Another record than the one at `self` has this ID or this name.
    bool Clashes(const std::string& type, std::int32_t id, const std::string& name,
                 std::uint32_t self) const {
        const std::uint32_t byNumber = Find(false, type, id, name);
        const std::uint32_t byName = Find(true, type, id, name);
        return (byNumber != 0 && byNumber != self) || (byName != 0 && byName != self);
    }

    std::map<std::uint32_t, TModelRecord> fModel;
    std::size_t fPreviousCapacity = 0;
};

// Every call answers as the model says, before and after each reopen, and
// the file checks sound at every close.
TEST_P(EngineModelTest, RandomOperationsMatchTheModelAcrossReopens) {
    ASSERT_EQ(fDb.Create(), kEngineNoError);
    std::mt19937 random(1234 + static_cast<unsigned>(GetParam()));
    const char* types[] = {"MDUM", "path", "SEEN", "DVC "};
    const std::int32_t extremes[] = {INT32_MIN, INT32_MIN + 1, -100000, -1, 0, 1, 100000, INT32_MAX};
    const auto someType = [&]() { return std::string(types[random() % 4]); };
    const auto someID = [&]() -> std::int32_t {
        if (random() % 10 == 0) return extremes[random() % 8];
        return static_cast<std::int32_t>(random() % 120) - 20;
    };
    const auto someName = [&]() { return "n" + std::to_string(random() % 150); };
    const auto someKeys = [&]() { return TModelRecord{someType(), someID(), someName(), {}}; };
    // Long records spill into overflow pages; some sizes sit on either side
    // of the inline limit and fill one or two overflow pages exactly (what
    // spills is all but the first 128 bytes, 4076 to a page).
    const std::size_t edges[] = {0, 1, 959, 960, 961, 4164, 4165, 8240};
    const auto someData = [&]() {
        std::size_t size = random() % 300;
        if (random() % 25 == 0) size = 1000 + random() % 20000;
        if (random() % 25 == 0) size = edges[random() % 8];
        Bytes data(size);
        for (auto& b : data) b = static_cast<std::uint8_t>(random());
        return data;
    };
    // Makes a random record of the model current.
    const auto someRecord = [&]() {
        auto it = std::next(fModel.begin(), static_cast<long>(random() % fModel.size()));
        std::uint8_t fixed[kFixedLength];
        EXPECT_EQ(ReadFixedAt(fDb.Data(), it->first, fixed), kEngineNoError);
        return it;
    };
    // A change the engine must refuse on a file open read-only.
    bool readOnly = false;
    const auto refused = [&](std::int16_t error) {
        EXPECT_TRUE(!readOnly || error == kNoWritePermission) << error;
        return readOnly;
    };
    TIntegrityReport report;

    for (int step = 0; step < 6000 && !HasFailure(); ++step) {
        const int op = static_cast<int>(random() % 100);
        if (op < 2) {  // close, check, reopen (now and then read-only)
            CloseAndCheck(fDb, &report);
            ASSERT_EQ(report.fRecords, fModel.size());
            readOnly = random() % 4 == 0;
            ASSERT_EQ(fDb.Open(readOnly), kEngineNoError);
        } else if (op < 3) {  // a record shorter than its fixed part
            const std::int16_t error = Add(fDb, Bytes(kFixedLength - 1, 1));
            if (refused(error)) continue;
            ASSERT_EQ(error, kBadArgument);
        } else if (op < 30) {  // add
            TModelRecord r = someKeys();
            r.fBytes = MakeRecord(r.fType.c_str(), r.fID, r.fName, someData());
            const bool duplicate = Clashes(r.fType, r.fID, r.fName, 0);
            const std::int16_t error = Add(fDb, r.fBytes);
            if (refused(error)) continue;
            ASSERT_EQ(error, duplicate ? kKeyExists : kEngineNoError)
                << r.fType << " " << r.fID << " " << r.fName;
            if (duplicate) continue;
            const Bytes key = NumberKey(r.fType.c_str(), r.fID);
            const std::uint32_t position = FindKeyAtOrAfter(fDb.NumberIndex(), key.data(), nullptr);
            ASSERT_NE(position, 0u);
            ASSERT_EQ(fModel.count(position), 0u) << "a position was used twice";
            fModel[position] = r;
        } else if (op < 45) {  // read by number or by name
            const bool byName = random() % 2 == 0;
            const TModelRecord r = someKeys();
            const std::uint32_t position = Find(byName, r.fType, r.fID, r.fName);
            const Bytes key = byName ? NameKey(r.fType.c_str(), r.fName) : NumberKey(r.fType.c_str(), r.fID);
            std::uint8_t fixed[kFixedLength];
            const std::int16_t error =
                GetRecordByKey(byName ? fDb.NameIndex() : fDb.NumberIndex(), key.data(), fixed);
            ASSERT_EQ(error, position == 0 ? kEngineKeyNotFound : kEngineNoError);
            if (position == 0) continue;
            const Bytes& expected = fModel.at(position).fBytes;
            ASSERT_EQ(Bytes(fixed, fixed + kFixedLength),
                      Bytes(expected.begin(), expected.begin() + kFixedLength));
            ASSERT_EQ(CurrentRecord(fDb), expected);
        } else if (op < 55 && !fModel.empty()) {  // rewrite
            const auto it = someRecord();
            TModelRecord changed = it->second;
            if (random() % 3 == 0) changed.fID = someID();
            if (random() % 3 == 0) changed.fName = someName();
            changed.fBytes = MakeRecord(changed.fType.c_str(), changed.fID, changed.fName, someData());
            const bool clash = Clashes(changed.fType, changed.fID, changed.fName, it->first);
            const std::int16_t error = ReWriteVarRecord(fDb.Data(), changed.fBytes.data(),
                                                        static_cast<std::uint32_t>(changed.fBytes.size()));
            if (refused(error)) continue;
            ASSERT_EQ(error, clash ? kKeyExists : kEngineNoError);
            if (!clash) it->second = changed;
        } else if (op < 65 && !fModel.empty()) {  // delete
            const auto it = someRecord();
            const std::int16_t error = DeleteVarRecord(fDb.Data());
            if (refused(error)) continue;
            ASSERT_EQ(error, kEngineNoError);
            std::uint8_t fixed[kFixedLength];
            ASSERT_EQ(ReadFixedAt(fDb.Data(), it->first, fixed), kBadRecordPosition);
            fModel.erase(it);
        } else if (op < 72) {  // counts: per type over the signed IDs, and whole indexes
            const std::string type = someType();
            const Bytes low = NumberKey(type.c_str(), INT32_MIN + 1);
            const Bytes high = NumberKey(type.c_str(), INT32_MAX);
            std::uint32_t expected = 0;
            for (const auto& [p, r] : fModel) expected += r.fType == type && r.fID != INT32_MIN;
            ASSERT_EQ(CountKeyRange(fDb.NumberIndex(), low.data(), high.data()), expected);
            ASSERT_EQ(CountIndexEntries(fDb.NumberIndex()), fModel.size());
            ASSERT_EQ(CountIndexEntries(fDb.NameIndex()), fModel.size());
        } else if (op < 82) {  // the k-th key of either index, and the rank of a key
            const bool byName = random() % 2 == 0;
            const std::int16_t index = byName ? fDb.NameIndex() : fDb.NumberIndex();
            const std::vector<std::uint32_t> order = Order(byName);
            const std::uint32_t n = static_cast<std::uint32_t>(random() % (order.size() + 2));
            std::uint8_t key[36];
            const std::uint32_t position = NthKey(index, n, key);
            ASSERT_EQ(position, n < order.size() ? order[n] : 0u);
            ASSERT_EQ(EngineError(), kEngineNoError);
            if (n >= order.size()) continue;
            const TModelRecord& r = fModel.at(order[n]);
            const Bytes raw = byName ? NameKey(r.fType.c_str(), r.fName) : NumberKey(r.fType.c_str(), r.fID);
            const Bytes stored = Stored(index, raw);
            ASSERT_EQ(Bytes(key, key + stored.size()), stored);
            ASSERT_EQ(CountKeysBelow(index, raw.data()), n);
        } else if (op < 88) {  // at or before, at or after
            const TModelRecord probe = someKeys();
            const auto place = std::tie(probe.fType, probe.fID);
            std::uint32_t before = 0;
            std::uint32_t after = 0;
            for (std::uint32_t p : Order(false)) {
                const TModelRecord& r = fModel.at(p);
                if (std::tie(r.fType, r.fID) <= place) before = p;
                if (after == 0 && std::tie(r.fType, r.fID) >= place) after = p;
            }
            const Bytes key = NumberKey(probe.fType.c_str(), probe.fID);
            std::uint8_t fixed[kFixedLength];
            const std::int16_t error = GetRecordAtOrBefore(fDb.NumberIndex(), key.data(), fixed);
            ASSERT_EQ(error, before == 0 ? kEngineKeyNotFound : kEngineNoError);
            ASSERT_TRUE(before == 0 || CurrentRecord(fDb) == fModel.at(before).fBytes);
            ASSERT_EQ(FindKeyAtOrAfter(fDb.NumberIndex(), key.data(), nullptr), after);
        } else if (op < 90) {  // a whole walk of the name index
            std::vector<std::uint32_t> walked;
            std::uint8_t key[36];
            for (std::uint32_t p = FirstKey(fDb.NameIndex(), key); p != 0;
                 p = NextKey(fDb.NameIndex(), key)) {
                walked.push_back(p);
            }
            ASSERT_EQ(EngineError(), kEngineNoError);
            ASSERT_EQ(walked, Order(true));
        }
    }
    CloseAndCheck(fDb, &report);
    EXPECT_EQ(report.fRecords, fModel.size());
    EXPECT_EQ(report.fKeys, 2 * fModel.size());
}

// A roomy cache and a tiny one that forces pages out and checkpoints in.
INSTANTIATE_TEST_SUITE_P(CacheSizes, EngineModelTest, ::testing::Values(std::size_t{16384}, std::size_t{16}));

// Tens of thousands of keys in random order beside a 64 MiB record, then all
// removed again in another random order: the ranks are checked on the way,
// the huge record is read back after a reopen, and the file is checked whole
// at the fullest and when empty again, when nearly all of it is free.
TEST_F(EngineFileTest, ManyKeysAndAHugeRecordGrowAndShrinkTheFileEvenly) {
    ASSERT_EQ(fDb.Create(), kEngineNoError);
    std::mt19937 random(77);
    Bytes huge(std::size_t{64} << 20);
    for (auto& b : huge) b = static_cast<std::uint8_t>(random());
    const Bytes hugeRecord = MakeRecord("big ", 0, "huge", huge);
    ASSERT_EQ(Add(fDb, hugeRecord), kEngineNoError);
    constexpr int kCount = 40000;
    std::vector<std::int32_t> ids(kCount);
    for (int i = 0; i < kCount; ++i) ids[i] = i * 3 - kCount;  // negative and positive
    std::shuffle(ids.begin(), ids.end(), random);
    for (std::int32_t id : ids) {
        ASSERT_EQ(Add(fDb, MakeRecord("MDUM", id, "m" + std::to_string(id), Bytes(random() % 60, 0x5A))),
                  kEngineNoError);
    }
    for (int probe = 0; probe < 200; ++probe) {
        const std::uint32_t n = random() % kCount;
        std::uint8_t key[8];
        ASSERT_NE(NthKey(fDb.NumberIndex(), n, key), 0u);  // the huge record's type sorts last
        const Bytes low = NumberKey("MDUM", static_cast<std::int32_t>(n) * 3 - kCount);  // the n-th ID
        ASSERT_EQ(Bytes(key, key + 8), Stored(fDb.NumberIndex(), low));
        const Bytes high = NumberKey("MDUM", INT32_MAX);
        ASSERT_EQ(CountKeyRange(fDb.NumberIndex(), low.data(), high.data()), kCount - n);
    }
    TIntegrityReport report;
    CloseAndCheck(fDb, &report);
    ASSERT_EQ(report.fRecords, std::uint32_t{kCount + 1});
    const std::uint32_t fullPages = report.fPages;

    ASSERT_EQ(fDb.Open(), kEngineNoError);
    ASSERT_EQ(Seek(fDb, "big ", 0), kEngineNoError);
    ASSERT_TRUE(CurrentRecord(fDb) == hugeRecord);
    ASSERT_EQ(DeleteVarRecord(fDb.Data()), kEngineNoError);
    std::shuffle(ids.begin(), ids.end(), random);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        ASSERT_EQ(Seek(fDb, "MDUM", ids[i]), kEngineNoError);
        ASSERT_EQ(DeleteVarRecord(fDb.Data()), kEngineNoError);
        if (i == ids.size() / 2) {
            ASSERT_EQ(CountIndexEntries(fDb.NameIndex()), ids.size() - i - 1);
        }
    }
    ASSERT_EQ(CountIndexEntries(fDb.NumberIndex()), 0u);
    ASSERT_EQ(FirstKey(fDb.NameIndex(), nullptr), 0u);
    CloseAndCheck(fDb, &report);
    // Every page but the header slots, the log's first extent, the trees'
    // roots and the free list (a page of it per thousand free pages) is free,
    // and the free pages at the end of the file were given back.
    EXPECT_GE(report.fFreePages + 2 + 16 + 3 + report.fPages / 1000 + 1, report.fPages);
    EXPECT_LT(report.fPages, fullPages / 8);
}

}  // namespace
