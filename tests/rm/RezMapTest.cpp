// The record map against a model of its slots: every lookup must give what
// a scan of the slots from index 0 gives, and the slot table itself must hold
// exactly the model's slots, through growth past 200 and 400 slots.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Crezmap.h"
#include "tests/rm/RmTestSupport.h"

namespace {

using kavotest::Answer;
using kavotest::NameString;
using kavotest::NewHandleWith;
using kavotest::TypeString;

struct TModelSlot {
    bool fUsed = false;
    std::string fType;  // up to 4 bytes
    std::string fName;
    std::int32_t fID = 0;
    MSHandle fData = nullptr;
    std::uint16_t fAttributes = 0;
};

// The slots as the record map lays them out: records go into the lowest
// free slot, the table grows by 200 free slots when it is full.
class TSlotModel {
public:
    TSlotModel() : fSlots(200) {}

    void Add(const std::string& type, const std::string& name, std::int32_t id, MSHandle data) {
        auto free = std::find_if(fSlots.begin(), fSlots.end(), [](const TModelSlot& s) { return !s.fUsed; });
        if (free == fSlots.end()) {
            fSlots.resize(fSlots.size() + 200);
            return Add(type, name, id, data);
        }
        *free = TModelSlot{true, type, name, id, data, 0};
    }

    // The lowest used slot that matches, or -1.
    template <typename TMatch>
    int Find(TMatch match) const {
        for (std::size_t i = 0; i < fSlots.size(); ++i)
            if (fSlots[i].fUsed && match(fSlots[i])) return static_cast<int>(i);
        return -1;
    }
    int FindByName(const std::string& type, const std::string& name) const {
        return Find([&](const TModelSlot& s) { return s.fType == type && s.fName == name; });
    }
    int FindByID(const std::string& type, std::int32_t id) const {
        return Find([&](const TModelSlot& s) { return s.fType == type && s.fID == id; });
    }
    int FindByData(MSHandle data) const {
        return Find([&](const TModelSlot& s) { return s.fData == data; });
    }
    TModelSlot& At(int slot) { return fSlots[static_cast<std::size_t>(slot)]; }
    void Free(int slot) { At(slot) = TModelSlot{}; }
    std::size_t Used() const {
        return static_cast<std::size_t>(
            std::count_if(fSlots.begin(), fSlots.end(), [](const TModelSlot& s) { return s.fUsed; }));
    }

    std::vector<TModelSlot> fSlots;
};

class RezMapTest : public kavotest::RmTest {
protected:
    // The slot table, read raw, equals the model slot by slot.
    void ExpectSlotsEqual(CRezMap& map, const TSlotModel& model) {
        CNodeArray* nodes = map.NodeArray();
        ASSERT_EQ(nodes->CountSlots(), model.fSlots.size());
        ASSERT_EQ(nodes->CountNodes(), model.Used());
        const unsigned char* slots = nodes->LockArray();
        ASSERT_NE(slots, nullptr);
        for (std::size_t i = 0; i < model.fSlots.size(); ++i) {
            NodeRecord node;
            std::memcpy(&node, slots + i * sizeof(NodeRecord), sizeof node);
            const TModelSlot& want = model.fSlots[i];
            // A free slot holds zeroes.
            ASSERT_EQ(node.empty, want.fUsed ? 0 : kTrue) << "slot " << i;
            EXPECT_EQ(std::make_tuple(TypeString(node.type), NameString(node.name), node.id, node.data,
                                      node.attributes),
                      std::make_tuple(want.fType, want.fName, want.fID, want.fData, want.fAttributes))
                << "slot " << i;
        }
        nodes->UnlockArray();
    }
};

// Null pointers, wild and freed handles and a slot past the table are
// reported or refused, and the one record held stays the only one. (Lookups
// that miss, in an empty map too, are part of the randomised test below.)
TEST_F(RezMapTest, BadArgumentsAreReportedAndRefused) {
    CRezMap map;
    MSHandle data = NewHandleWith(std::string("d"));
    ASSERT_EQ(map.AddRecord("TYPE", "name", 1, data), kNoError);
    MSHandle found = nullptr;
    char name[32];
    std::int32_t id = 0;
    ExpectRefused(map.GetRecordByName(nullptr, "TYPE", &found), kGeneralError, "theName != 0");
    ExpectRefused(map.GetRecordByID(1, nullptr, &found), kGeneralError, "theType != 0");
    ExpectRefused(map.GetRecordByID(1, "TYPE", nullptr), kGeneralError, "theData != 0");
    ExpectRefused(map.GetRecordInfo(data, name, nullptr, &id), kGeneralError, "type != 0");
    ExpectRefused(map.GetRecordInfo(nullptr, name, name, &id), kGeneralError, "theData != 0");
    MSHandle other = NewHandleWith(std::string("o"));
    ExpectRefused(map.AddRecord(nullptr, "x", 1, other), kGeneralError, "type != 0");
    ExpectRefused(map.AddRecord("TYPE", nullptr, 1, other), kGeneralError, "name != 0");
    MSDisposeHandle(other);
    ExpectRefused(map.AddRecord("TYPE", "freed", 1, other), kInvalidHandle, "MSValidHandle(data)");
    const auto wild = reinterpret_cast<MSHandle>(0x1234);
    EXPECT_EQ(map.SetPurgeable(wild), kRecordNotFound);
    EXPECT_FALSE(map.ContainsRecord(nullptr));
    std::uint16_t attributes = 0;
    ExpectRefused(map.NodeArray()->GetAttributes(200, &attributes), kGeneralError, "index < fNumSlots");
    EXPECT_EQ(map.NodeArray()->CountNodes(), 1);
}

// A growth refused for want of memory leaves the slots and the lookups as
// they were, and succeeds once memory is there again.
TEST_F(RezMapTest, AFailedGrowthLeavesTheMapAsItWas) {
    CRezMap map;
    TSlotModel model;
    for (int i = 0; i < 200; ++i) {
        MSHandle data = NewHandleWith(std::string("d"));
        const std::string name = "n" + std::to_string(i);
        ASSERT_EQ(map.AddRecord("FULL", name.c_str(), i, data), kNoError);
        model.Add("FULL", name, i, data);
    }
    MSHandle extra = NewHandleWith(std::string("extra"));
    // The copy of the table is refused, then its growth.
    for (const std::int16_t code : {kOutOfMemory, kCannotGrow}) {
        memsys::RefuseSystemAllocationAfter(code == kOutOfMemory ? 0 : 1);
        EXPECT_EQ(map.AddRecord("FULL", "extra", 1000, extra), code);
        memsys::RefuseSystemAllocationAfter(-1);
        ExpectSlotsEqual(map, model);
    }
    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByID(1000, "FULL", &found), kRecordNotFound);
    EXPECT_EQ(Answer(map.GetRecordByName("n17", "FULL", &found), found), model.At(17).fData);
    EXPECT_EQ(map.AddRecord("FULL", "extra", 1000, extra), kNoError);
    model.Add("FULL", "extra", 1000, extra);
    ExpectSlotsEqual(map, model);
}

// Thousands of random operations; after each, the map's answer equals the
// model's lowest-slot scan, and now and then the whole table is compared.
// Names differ by case alone, a type and name is now and then registered
// twice (reported; the lowest slot wins), and at the end the map disposes
// of every handle it still holds.
TEST_F(RezMapTest, RandomOperationsMatchALowestSlotScanOfTheModel) {
    std::mt19937 random(20240611);
    const char* types[] = {"MDUM", "SEEN", "path", "ab"};
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    const std::size_t liveBefore = memsys::CountLiveBlocks();
    {
        CRezMap map;
        TSlotModel model;
        std::vector<MSHandle> loaded;  // handles the map holds
        const auto randomName = [&] {
            const int n = pick(900);
            return n == 0 ? std::string(31, 'n') : (n % 2 == 0 ? "name" : "Name") + std::to_string(n / 2);
        };
        const auto anyLoaded = [&] {
            return loaded[static_cast<std::size_t>(pick(static_cast<int>(loaded.size())))];
        };
        const auto forget = [&](MSHandle h) { loaded.erase(std::find(loaded.begin(), loaded.end(), h)); };

        for (int step = 0; step < 12000; ++step) {
            // Mostly adds early on so that the table grows past 400 slots.
            const int op = step < 3000 ? (pick(10) < 7 ? 0 : 1 + pick(9)) : pick(10);
            const std::string type = types[pick(4)];
            const std::string name = randomName();
            const std::int32_t id = static_cast<std::int32_t>(pick(700)) - 50;
            const bool needsLoaded = op == 3 || op >= 6;
            if (needsLoaded && loaded.empty()) continue;
            switch (op) {
                case 0: {  // add
                    const bool twice = model.FindByName(type, name) >= 0;
                    if (twice && pick(4) != 0) break;
                    MSHandle data = NewHandleWith(std::string(static_cast<std::size_t>(pick(20)), 'q'));
                    ASSERT_EQ(map.AddRecord(type.c_str(), name.c_str(), id, data), kNoError);
                    if (twice) ExpectReported("error != kNoError");
                    model.Add(type, name, id, data);
                    loaded.push_back(data);
                    break;
                }
                case 1:
                case 2: {  // by name or by ID, and the size
                    const bool byName = op == 1;
                    const int slot = byName ? model.FindByName(type, name) : model.FindByID(type, id);
                    const std::int16_t want = slot >= 0 ? kNoError : kRecordNotFound;
                    MSHandle found = reinterpret_cast<MSHandle>(1);
                    std::uint32_t size = 0;
                    EXPECT_EQ(byName ? map.GetRecordByName(name.c_str(), type.c_str(), &found)
                                     : map.GetRecordByID(id, type.c_str(), &found),
                              want);
                    EXPECT_EQ(found, slot >= 0 ? model.At(slot).fData : nullptr);
                    EXPECT_EQ(byName ? map.GetSizeByName(name.c_str(), type.c_str(), &size)
                                     : map.GetSizeByID(id, type.c_str(), &size),
                              want);
                    if (slot >= 0) {
                        EXPECT_EQ(size, MSGetHandleSize(found));
                    }
                    break;
                }
                case 3:
                default: {  // membership and info by handle, of a live one or a wild one
                    MSHandle data = pick(8) == 0 ? reinterpret_cast<MSHandle>(0x5151) : anyLoaded();
                    char outName[32];
                    char outType[4];
                    std::int32_t outID = 0;
                    const int slot = model.FindByData(data);
                    EXPECT_EQ(map.ContainsRecord(data), slot >= 0);
                    EXPECT_EQ(map.FindRecord(data), slot >= 0 ? kNoError : kRecordNotFound);
                    ASSERT_EQ(map.GetRecordInfo(data, outName, outType, &outID),
                              slot >= 0 ? kNoError : kRecordNotFound);
                    if (slot < 0) break;
                    const TModelSlot& want = model.At(slot);
                    EXPECT_EQ(NameString(outName), want.fName);
                    EXPECT_EQ(std::string(outType, 4), want.fType + std::string(4 - want.fType.size(), '\0'));
                    EXPECT_EQ(outID, want.fID);
                    break;
                }
                case 4:
                case 5: {  // remove by ID or by name: the handle is the caller's
                    const int slot = op == 4 ? model.FindByID(type, id) : model.FindByName(type, name);
                    ASSERT_EQ(op == 4 ? map.RemoveRecordByID(id, type.c_str())
                                      : map.RemoveRecordByName(name.c_str(), type.c_str()),
                              slot >= 0 ? kNoError : kRecordNotFound);
                    if (slot < 0) break;
                    MSHandle data = model.At(slot).fData;
                    model.Free(slot);
                    forget(data);
                    EXPECT_EQ(MSDisposeHandle(data), kNoError);
                    break;
                }
                case 6: {  // detach or release
                    MSHandle data = anyLoaded();
                    model.Free(model.FindByData(data));
                    forget(data);
                    if (pick(2) == 0) {
                        ASSERT_EQ(map.DetachRecord(data), kNoError);
                        EXPECT_EQ(map.DetachRecord(data), kRecordNotFound);
                        EXPECT_EQ(MSDisposeHandle(data), kNoError);
                    } else {
                        ASSERT_EQ(map.ReleaseRecord(data), kNoError);
                        EXPECT_FALSE(MSValidHandle(data));
                    }
                    break;
                }
                case 7: {  // rename: registered again in the lowest free slot, attributes 0
                    MSHandle data = anyLoaded();
                    model.Free(model.FindByData(data));
                    const bool twice = model.FindByName(type, name) >= 0;
                    ASSERT_EQ(map.ChangeRecordInfo(data, type.c_str(), name.c_str(), id), kNoError);
                    if (twice) ExpectReported("error != kNoError");
                    model.Add(type, name, id, data);
                    break;
                }
                case 8: {  // purgeable; slot 0 is reported on the read and on the write
                    MSHandle data = anyLoaded();
                    const int slot = model.FindByData(data);
                    const bool set = pick(2) == 0;
                    ASSERT_EQ(set ? map.SetPurgeable(data) : map.ClearPurgeable(data), kNoError);
                    model.At(slot).fAttributes = set ? kPurgeableAttribute : 0;
                    if (slot == 0) ExpectReportedTimes("index != 0", 2);
                    break;
                }
            }
            ASSERT_EQ(map.NodeArray()->CountSlots(), model.fSlots.size()) << "step " << step;
            if (step % 500 == 0 || step == 11999) ExpectSlotsEqual(map, model);
            if (HasFatalFailure()) return;
        }
        EXPECT_GE(map.NodeArray()->CountSlots(), 600) << "the table grew past 400 slots";
    }
    EXPECT_EQ(memsys::CountLiveBlocks(), liveBefore);
}

}  // namespace
