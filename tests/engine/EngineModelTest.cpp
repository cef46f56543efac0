// The engine's calls against a reference model (an ordered map of records)
// under random sequences of thousands of operations, with closes, reopens and
// whole-file checks between them; a small cache makes pages leave memory and
// checkpoints happen mid-sequence.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>
#include <tuple>

#include "engine/Pager.h"
#include "tests/engine/EngineFixture.h"
#include "tests/engine/TempDirectory.h"

namespace {

using kavotest::MakeRecord;
using kavotest::NameKey;
using kavotest::NumberKey;
using kavotest::TTestDatabase;
using Bytes = std::vector<std::uint8_t>;

struct TModelRecord {
    std::string fType;
    std::int32_t fID;
    std::string fName;
    Bytes fBytes;
};

std::string PaddedName(const std::string& name) {
    std::string padded(32, '\0');
    padded.replace(0, name.size(), name);
    return padded;
}

class EngineModelTest : public ::testing::TestWithParam<std::size_t> {
protected:
    void SetUp() override {
        fPreviousCapacity = engine::TPager::CacheCapacity();
        engine::TPager::SetCacheCapacity(GetParam());
        // With a tiny cache, checkpoints come every few pages too.
        engine::TPager::SetCheckpointPages(GetParam() < 100 ? 8 : 0);
        ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
    }
    void TearDown() override {
        EngineStop();
        engine::TPager::SetCacheCapacity(fPreviousCapacity);
        engine::TPager::SetCheckpointPages(0);
    }

    // Model orders: by type then signed ID, by type then padded name.
    std::vector<std::uint32_t> NumberOrder() const {
        std::vector<std::uint32_t> order;
        for (const auto& [position, r] : fModel) order.push_back(position);
        std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
            const TModelRecord& x = fModel.at(a);
            const TModelRecord& y = fModel.at(b);
            return std::tie(x.fType, x.fID) < std::tie(y.fType, y.fID);
        });
        return order;
    }
    std::vector<std::uint32_t> NameOrder() const {
        std::vector<std::uint32_t> order;
        for (const auto& [position, r] : fModel) order.push_back(position);
        std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
            const TModelRecord& x = fModel.at(a);
            const TModelRecord& y = fModel.at(b);
            return std::make_tuple(x.fType, PaddedName(x.fName)) < std::make_tuple(y.fType, PaddedName(y.fName));
        });
        return order;
    }
    const TModelRecord* FindNumber(const std::string& type, std::int32_t id, std::uint32_t* position) const {
        for (const auto& [p, r] : fModel) {
            if (r.fType == type && r.fID == id) {
                *position = p;
                return &r;
            }
        }
        return nullptr;
    }
    const TModelRecord* FindName(const std::string& type, const std::string& name, std::uint32_t* position) const {
        for (const auto& [p, r] : fModel) {
            if (r.fType == type && r.fName == name) {
                *position = p;
                return &r;
            }
        }
        return nullptr;
    }

    // Reads the current record whole.
    Bytes CurrentRecord(const TTestDatabase& db) {
        const std::uint32_t length = VarRecordLength(db.Data());
        Bytes bytes(length);
        EXPECT_EQ(ReadVarRecord(db.Data(), bytes.data(), length), kEngineNoError);
        return bytes;
    }

    Bytes Stored(std::int16_t index, Bytes key) {
        EXPECT_EQ(TransformKey(index, key.data()), kEngineNoError);
        return key;
    }

    std::map<std::uint32_t, TModelRecord> fModel;
    std::size_t fPreviousCapacity = 0;
};

TEST_P(EngineModelTest, RandomOperationsMatchTheModelAcrossReopens) {
    kavotest::TTempDirectory dir("model");
    TTestDatabase db(dir.File("model.kdb"));
    ASSERT_EQ(db.Create(), kEngineNoError);
    std::mt19937 random(1234 + static_cast<unsigned>(GetParam()));
    const char* types[] = {"MDUM", "path", "SEEN", "DVC "};
    const std::int32_t extremes[] = {INT32_MIN, INT32_MIN + 1, -100000, -1, 0, 1, 100000, INT32_MAX};
    const auto someType = [&]() { return std::string(types[random() % 4]); };
    const auto someID = [&]() -> std::int32_t {
        if (random() % 10 == 0) return extremes[random() % 8];
        return static_cast<std::int32_t>(random() % 120) - 20;
    };
    const auto someName = [&]() { return "n" + std::to_string(random() % 150); };
    const auto someData = [&]() {
        std::size_t size = random() % 300;
        if (random() % 25 == 0) size = 1000 + random() % 20000;  // long records spill into overflow pages
        Bytes data(size);
        for (auto& b : data) b = static_cast<std::uint8_t>(random());
        return data;
    };
    bool readOnly = false;

    for (int step = 0; step < 6000; ++step) {
        const int op = static_cast<int>(random() % 100);
        if (op < 2) {  // close, check, reopen (now and then read-only)
            ASSERT_EQ(db.Close(), kEngineNoError);
            TIntegrityReport report;
            ASSERT_EQ(CheckHostFile(db.Path().c_str(), &report), kEngineNoError);
            ASSERT_TRUE(report.fProblems.empty()) << report.fProblems.front();
            ASSERT_EQ(report.fRecords, fModel.size());
            readOnly = random() % 4 == 0;
            ASSERT_EQ(db.Open(readOnly), kEngineNoError);
            continue;
        }
        if (op < 30) {  // add
            const std::string type = someType();
            const std::int32_t id = someID();
            const std::string name = someName();
            const Bytes record = MakeRecord(type.c_str(), id, name, someData());
            std::uint32_t existing = 0;
            const bool duplicate = FindNumber(type, id, &existing) || FindName(type, name, &existing);
            const std::int16_t error = AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size()));
            if (readOnly) {
                ASSERT_EQ(error, kNoWritePermission);
                continue;
            }
            ASSERT_EQ(error, duplicate ? kKeyExists : kEngineNoError) << type << " " << id << " " << name;
            if (duplicate) continue;
            const Bytes key = NumberKey(type.c_str(), id);
            const std::uint32_t position = FindKeyAtOrAfter(db.NumberIndex(), key.data(), nullptr);
            ASSERT_NE(position, 0u);
            ASSERT_EQ(fModel.count(position), 0u) << "a position was used twice";
            fModel[position] = TModelRecord{type, id, name, record};
            continue;
        }
        if (op < 45) {  // read by number or by name
            const bool byName = random() % 2 == 0;
            const std::string type = someType();
            const std::int32_t id = someID();
            const std::string name = someName();
            std::uint32_t position = 0;
            const TModelRecord* expected = byName ? FindName(type, name, &position) : FindNumber(type, id, &position);
            const Bytes key = byName ? NameKey(type.c_str(), name) : NumberKey(type.c_str(), id);
            std::uint8_t fixed[kavotest::kFixedLength];
            const std::int16_t error = GetRecordByKey(byName ? db.NameIndex() : db.NumberIndex(), key.data(), fixed);
            if (expected == nullptr) {
                ASSERT_EQ(error, kEngineKeyNotFound);
                continue;
            }
            ASSERT_EQ(error, kEngineNoError);
            ASSERT_EQ(Bytes(fixed, fixed + kavotest::kFixedLength),
                      Bytes(expected->fBytes.begin(), expected->fBytes.begin() + kavotest::kFixedLength));
            ASSERT_EQ(CurrentRecord(db), expected->fBytes);
            continue;
        }
        if (op < 55 && !fModel.empty()) {  // rewrite
            auto it = fModel.begin();
            std::advance(it, random() % fModel.size());
            const std::uint32_t position = it->first;
            std::uint8_t fixed[kavotest::kFixedLength];
            ASSERT_EQ(ReadFixedAt(db.Data(), position, fixed), kEngineNoError);
            TModelRecord changed = it->second;
            if (random() % 3 == 0) changed.fID = someID();
            if (random() % 3 == 0) changed.fName = someName();
            changed.fBytes = MakeRecord(changed.fType.c_str(), changed.fID, changed.fName, someData());
            std::uint32_t other = 0;
            const bool clash = (FindNumber(changed.fType, changed.fID, &other) && other != position) ||
                               (FindName(changed.fType, changed.fName, &other) && other != position);
            const std::int16_t error =
                ReWriteVarRecord(db.Data(), changed.fBytes.data(), static_cast<std::uint32_t>(changed.fBytes.size()));
            if (readOnly) {
                ASSERT_EQ(error, kNoWritePermission);
                continue;
            }
            ASSERT_EQ(error, clash ? kKeyExists : kEngineNoError);
            if (!clash) it->second = changed;
            continue;
        }
        if (op < 65 && !fModel.empty()) {  // delete
            auto it = fModel.begin();
            std::advance(it, random() % fModel.size());
            std::uint8_t fixed[kavotest::kFixedLength];
            ASSERT_EQ(ReadFixedAt(db.Data(), it->first, fixed), kEngineNoError);
            const std::int16_t error = DeleteVarRecord(db.Data());
            if (readOnly) {
                ASSERT_EQ(error, kNoWritePermission);
                continue;
            }
            ASSERT_EQ(error, kEngineNoError);
            ASSERT_EQ(ReadFixedAt(db.Data(), it->first, fixed), kBadRecordPosition);
            fModel.erase(it);
            continue;
        }
        if (op < 72) {  // counts: per type over the signed IDs, and whole indexes
            const std::string type = someType();
            const Bytes low = NumberKey(type.c_str(), INT32_MIN + 1);
            const Bytes high = NumberKey(type.c_str(), INT32_MAX);
            std::uint32_t expected = 0;
            for (const auto& [p, r] : fModel) expected += r.fType == type && r.fID != INT32_MIN;
            ASSERT_EQ(CountKeyRange(db.NumberIndex(), low.data(), high.data()), expected);
            ASSERT_EQ(CountIndexEntries(db.NumberIndex()), fModel.size());
            ASSERT_EQ(CountIndexEntries(db.NameIndex()), fModel.size());
            continue;
        }
        if (op < 82) {  // the k-th key of either index, and the rank of a key
            const bool byName = random() % 2 == 0;
            const std::vector<std::uint32_t> order = byName ? NameOrder() : NumberOrder();
            const std::uint32_t n = static_cast<std::uint32_t>(random() % (order.size() + 2));
            std::uint8_t key[36];
            const std::uint32_t position = NthKey(byName ? db.NameIndex() : db.NumberIndex(), n, key);
            if (n >= order.size()) {
                ASSERT_EQ(position, 0u);
                ASSERT_EQ(EngineError(), kEngineNoError);
                continue;
            }
            ASSERT_EQ(position, order[n]);
            const TModelRecord& r = fModel.at(order[n]);
            const std::int16_t index = byName ? db.NameIndex() : db.NumberIndex();
            const Bytes raw = byName ? NameKey(r.fType.c_str(), r.fName) : NumberKey(r.fType.c_str(), r.fID);
            const Bytes stored = Stored(index, raw);
            ASSERT_EQ(Bytes(key, key + stored.size()), stored);
            ASSERT_EQ(CountKeysBelow(index, raw.data()), n);
            continue;
        }
        if (op < 88) {  // at or before, at or after
            const std::string type = someType();
            const std::int32_t id = someID();
            const std::vector<std::uint32_t> order = NumberOrder();
            const auto below = [&](std::uint32_t p) {
                const TModelRecord& r = fModel.at(p);
                return std::tie(r.fType, r.fID) <= std::tie(type, id);
            };
            std::uint32_t expected = 0;
            for (std::uint32_t p : order) {
                if (below(p)) expected = p;
            }
            const Bytes key = NumberKey(type.c_str(), id);
            std::uint8_t fixed[kavotest::kFixedLength];
            const std::int16_t error = GetRecordAtOrBefore(db.NumberIndex(), key.data(), fixed);
            if (expected == 0) {
                ASSERT_EQ(error, kEngineKeyNotFound);
            } else {
                ASSERT_EQ(error, kEngineNoError);
                ASSERT_EQ(CurrentRecord(db), fModel.at(expected).fBytes);
            }
            std::uint32_t after = 0;
            for (auto it = order.rbegin(); it != order.rend(); ++it) {
                const TModelRecord& r = fModel.at(*it);
                if (std::tie(r.fType, r.fID) >= std::tie(type, id)) after = *it;
            }
            ASSERT_EQ(FindKeyAtOrAfter(db.NumberIndex(), key.data(), nullptr), after);
            continue;
        }
        if (op < 90) {  // a whole walk of the name index
            const std::vector<std::uint32_t> order = NameOrder();
            std::vector<std::uint32_t> walked;
            std::uint8_t key[36];
            for (std::uint32_t p = FirstKey(db.NameIndex(), key); p != 0; p = NextKey(db.NameIndex(), key)) {
                walked.push_back(p);
            }
            ASSERT_EQ(EngineError(), kEngineNoError);
            ASSERT_EQ(walked, order);
            continue;
        }
    }
    ASSERT_EQ(db.Close(), kEngineNoError);
    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile(db.Path().c_str(), &report), kEngineNoError);
    EXPECT_TRUE(report.fProblems.empty()) << report.fProblems.front();
    EXPECT_EQ(report.fRecords, fModel.size());
    EXPECT_EQ(report.fKeys, 2 * fModel.size());
}

// A roomy cache and a tiny one that forces pages out and checkpoints in.
INSTANTIATE_TEST_SUITE_P(CacheSizes, EngineModelTest, ::testing::Values(std::size_t{16384}, std::size_t{16}));

}  // namespace

namespace {

// Trees many levels deep: tens of thousands of keys in random order, then
// removed again in another random order, the ranks checked on the way and
// the file checked whole at the fullest and when empty again.
TEST(EngineTreeTest, ManyKeysGrowAndShrinkTheTreesEvenly) {
    kavotest::TTempDirectory dir("trees");
    ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
    TTestDatabase db(dir.File("trees.kdb"));
    ASSERT_EQ(db.Create(), kEngineNoError);
    constexpr int kCount = 40000;
    std::vector<std::int32_t> ids(kCount);
    for (int i = 0; i < kCount; ++i) ids[i] = i * 3 - kCount;  // negative and positive
    std::mt19937 random(77);
    std::shuffle(ids.begin(), ids.end(), random);
    for (std::int32_t id : ids) {
        const Bytes record = MakeRecord("MDUM", id, "m" + std::to_string(id), Bytes(random() % 60, 0x5A));
        ASSERT_EQ(AddVarRecord(db.Data(), record.data(), static_cast<std::uint32_t>(record.size())), kEngineNoError);
    }
    std::vector<std::int32_t> sorted = ids;
    std::sort(sorted.begin(), sorted.end());
    for (int probe = 0; probe < 200; ++probe) {
        const std::uint32_t n = random() % kCount;
        std::uint8_t key[8];
        ASSERT_NE(NthKey(db.NumberIndex(), n, key), 0u);
        const Bytes expected = NumberKey("MDUM", sorted[n]);
        Bytes stored = expected;
        TransformKey(db.NumberIndex(), stored.data());
        ASSERT_EQ(Bytes(key, key + 8), stored);
        const Bytes low = NumberKey("MDUM", sorted[n]);
        const Bytes high = NumberKey("MDUM", INT32_MAX);
        ASSERT_EQ(CountKeyRange(db.NumberIndex(), low.data(), high.data()), kCount - n);
    }
    ASSERT_EQ(db.Close(), kEngineNoError);
    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile(db.Path().c_str(), &report), kEngineNoError);
    ASSERT_TRUE(report.fProblems.empty()) << report.fProblems.front();
    ASSERT_EQ(report.fRecords, std::uint32_t{kCount});
    const std::uint32_t fullPages = report.fPages;

    ASSERT_EQ(db.Open(), kEngineNoError);
    std::shuffle(ids.begin(), ids.end(), random);
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const Bytes key = NumberKey("MDUM", ids[i]);
        std::uint8_t fixed[kavotest::kFixedLength];
        ASSERT_EQ(GetRecordByKey(db.NumberIndex(), key.data(), fixed), kEngineNoError);
        ASSERT_EQ(DeleteVarRecord(db.Data()), kEngineNoError);
        if (i == ids.size() / 2) {
            ASSERT_EQ(CountIndexEntries(db.NameIndex()), ids.size() - i - 1);
        }
    }
    ASSERT_EQ(CountIndexEntries(db.NumberIndex()), 0u);
    ASSERT_EQ(FirstKey(db.NameIndex(), nullptr), 0u);
    ASSERT_EQ(db.Close(), kEngineNoError);
    ASSERT_EQ(CheckHostFile(db.Path().c_str(), &report), kEngineNoError);
    ASSERT_TRUE(report.fProblems.empty()) << report.fProblems.front();
    // Every page but the header slots, the trees' roots and the free list is
    // free. Pages change by being copied, and the copied ones are free again
    // only after the next checkpoint, so the file grew by at most what one
    // checkpoint's worth of copies needs.
    EXPECT_LE(report.fPages, fullPages + 2048 + 16);
    EXPECT_GE(report.fFreePages + 16, report.fPages);
    EngineStop();
}

}  // namespace

namespace {

// Records from an empty data part to 64 MiB, across the inline limit and
// the overflow page size, read back whole before and after a reopen.
TEST(EngineRecordSizeTest, RecordsFromEmptyToSixtyFourMebibytesRoundTrip) {
    kavotest::TTempDirectory dir("sizes");
    ASSERT_EQ(EngineInit(24, 60, 4, 24, 33), kEngineNoError);
    TTestDatabase db(dir.File("sizes.kdb"));
    ASSERT_EQ(db.Create(), kEngineNoError);
    const std::vector<std::size_t> sizes = {0, 1, 959, 960, 961, 4076, 4077, 8152, 100000, std::size_t{64} << 20};
    std::mt19937 random(64);
    std::vector<Bytes> records;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        Bytes data(sizes[i]);
        for (auto& b : data) b = static_cast<std::uint8_t>(random());
        records.push_back(MakeRecord("big ", static_cast<std::int32_t>(i), "r" + std::to_string(i), data));
        ASSERT_EQ(AddVarRecord(db.Data(), records[i].data(), static_cast<std::uint32_t>(records[i].size())),
                  kEngineNoError);
    }
    for (int pass = 0; pass < 2; ++pass) {
        for (std::size_t i = 0; i < records.size(); ++i) {
            const Bytes key = NumberKey("big ", static_cast<std::int32_t>(i));
            std::uint8_t fixed[kavotest::kFixedLength];
            ASSERT_EQ(GetRecordByKey(db.NumberIndex(), key.data(), fixed), kEngineNoError);
            const std::uint32_t length = VarRecordLength(db.Data());
            ASSERT_EQ(length, records[i].size());
            Bytes back(length);
            ASSERT_EQ(ReadVarRecord(db.Data(), back.data(), length - 1), kBufferTooSmall);
            ASSERT_EQ(ReadVarRecord(db.Data(), back.data(), length), kEngineNoError);
            ASSERT_TRUE(back == records[i]) << "record " << i;
        }
        ASSERT_EQ(db.Close(), kEngineNoError);
        ASSERT_EQ(db.Open(), kEngineNoError);
    }
    // A short record and a record shorter than the fixed part are refused.
    const Bytes tooShort(kavotest::kFixedLength - 1, 1);
    ASSERT_EQ(AddVarRecord(db.Data(), tooShort.data(), static_cast<std::uint32_t>(tooShort.size())), kBadArgument);
    // Deleting the long ones gives their overflow pages back.
    for (std::size_t i = 0; i < records.size(); ++i) {
        const Bytes key = NumberKey("big ", static_cast<std::int32_t>(i));
        std::uint8_t fixed[kavotest::kFixedLength];
        ASSERT_EQ(GetRecordByKey(db.NumberIndex(), key.data(), fixed), kEngineNoError);
        ASSERT_EQ(DeleteVarRecord(db.Data()), kEngineNoError);
    }
    ASSERT_EQ(db.Close(), kEngineNoError);
    TIntegrityReport report;
    ASSERT_EQ(CheckHostFile(db.Path().c_str(), &report), kEngineNoError);
    EXPECT_TRUE(report.fProblems.empty()) << report.fProblems.front();
    EXPECT_EQ(report.fRecords, 0u);
    EXPECT_GE(report.fFreePages, std::uint32_t{(64u << 20) / 4096});
    EngineStop();
}

}  // namespace
