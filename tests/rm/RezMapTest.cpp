// The record map against a model of its slots: every lookup must give what
// a scan of the slots from index 0 gives, and the slot table itself must hold
// exactly the model's slots, through growth past 200 and 400 slots.
#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Crezmap.h"
#include "tests/rm/RmTestSupport.h"

namespace {

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

    std::size_t Add(const std::string& type, const std::string& name, std::int32_t id, MSHandle data) {
        auto free = std::find_if(fSlots.begin(), fSlots.end(), [](const TModelSlot& s) { return !s.fUsed; });
        if (free == fSlots.end()) {
            fSlots.resize(fSlots.size() + 200);
            return Add(type, name, id, data);
        }
        *free = TModelSlot{true, type, name, id, data, 0};
        return static_cast<std::size_t>(free - fSlots.begin());
    }

    template <typename TMatch>
    int Find(TMatch match) const {
        for (std::size_t i = 0; i < fSlots.size(); ++i) {
            if (fSlots[i].fUsed && match(fSlots[i])) return static_cast<int>(i);
        }
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
    void Free(int slot) { fSlots[static_cast<std::size_t>(slot)] = TModelSlot{}; }
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
            ASSERT_EQ(node.empty, want.fUsed ? 0 : kTrue) << "slot " << i;
            if (!want.fUsed) {
                EXPECT_EQ(node.data, nullptr);
                continue;
            }
            EXPECT_EQ(TypeString(node.type), want.fType) << "slot " << i;
            EXPECT_EQ(NameString(node.name), want.fName) << "slot " << i;
            EXPECT_EQ(node.id, want.fID) << "slot " << i;
            EXPECT_EQ(node.data, want.fData) << "slot " << i;
            EXPECT_EQ(node.attributes, want.fAttributes) << "slot " << i;
        }
        nodes->UnlockArray();
    }
};

TEST_F(RezMapTest, ANewMapAnswersEveryLookupWithNotFound) {
    CRezMap map;
    MSHandle data = reinterpret_cast<MSHandle>(0x1234);
    EXPECT_EQ(map.GetRecordByName("name", "TYPE", &data), kRecordNotFound);
    EXPECT_EQ(data, nullptr);
    data = reinterpret_cast<MSHandle>(0x1234);
    EXPECT_EQ(map.GetRecordByID(1, "TYPE", &data), kRecordNotFound);
    EXPECT_EQ(data, nullptr);
    char name[32];
    char type[4];
    std::int32_t id = 0;
    EXPECT_EQ(map.GetRecordInfo(reinterpret_cast<MSHandle>(0x1234), name, type, &id), kRecordNotFound);
    EXPECT_EQ(map.FindRecord(reinterpret_cast<MSHandle>(0x1234)), kRecordNotFound);
    EXPECT_FALSE(map.ContainsRecord(nullptr));
    EXPECT_EQ(map.NodeArray()->CountSlots(), 200);
    EXPECT_EQ(map.NodeArray()->CountNodes(), 0);
    EXPECT_EQ(map.FreeMemory(1000), kGeneralError);
}

TEST_F(RezMapTest, RecordsAreFoundByTypeAndIDByTypeAndNameAndByHandle) {
    CRezMap map;
    MSHandle five = NewHandleWith(std::string("0123456789"));
    MSHandle six = NewHandleWith(std::string("abc"));
    ASSERT_EQ(map.AddRecord("MDUM", "first", 5, five), kNoError);
    ASSERT_EQ(map.AddRecord("MDUM", "second", 6, six), kNoError);

    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByID(6, "MDUM", &found), kNoError);
    EXPECT_EQ(found, six);
    EXPECT_EQ(map.GetRecordByName("first", "MDUM", &found), kNoError);
    EXPECT_EQ(found, five);
    EXPECT_EQ(map.GetRecordByName("First", "MDUM", &found), kRecordNotFound) << "names are case-sensitive";
    EXPECT_EQ(map.GetRecordByID(6, "SEEN", &found), kRecordNotFound);

    char name[32];
    char type[4];
    std::int32_t id = 0;
    EXPECT_EQ(map.GetRecordInfo(six, name, type, &id), kNoError);
    EXPECT_EQ(NameString(name), "second");
    EXPECT_EQ(TypeString(type), "MDUM");
    EXPECT_EQ(id, 6);

    std::uint32_t size = 0;
    EXPECT_EQ(map.GetSizeByID(5, "MDUM", &size), kNoError);
    EXPECT_EQ(size, 10u);
    EXPECT_EQ(map.GetSizeByName("second", "MDUM", &size), kNoError);
    EXPECT_EQ(size, 3u);
    // The map owns both handles and disposes of them with itself.
}

TEST_F(RezMapTest, ARemovedRecordsSlotIsTheFirstTheNextAddFinds) {
    CRezMap map;
    std::vector<MSHandle> handles;
    for (int i = 0; i < 5; ++i) {
        handles.push_back(NewHandleWith(std::string(1, 'a')));
        ASSERT_EQ(map.AddRecord("TYPE", ("r" + std::to_string(i)).c_str(), i, handles.back()), kNoError);
    }
    EXPECT_EQ(map.RemoveRecordByID(2, "TYPE"), kNoError);
    EXPECT_EQ(map.NodeArray()->CountNodes(), 4);
    std::uint16_t slot = 0;
    EXPECT_EQ(map.NodeArray()->FindEmptyNode(&slot), kNoError);
    EXPECT_EQ(slot, 2);
    // Removing hands the handle to the caller.
    EXPECT_TRUE(MSValidHandle(handles[2]));
    MSDisposeHandle(handles[2]);
    MSHandle next = NewHandleWith(std::string("x"));
    ASSERT_EQ(map.AddRecord("TYPE", "new", 9, next), kNoError);
    EXPECT_EQ(map.NodeArray()->FindByData(nullptr, nullptr, nullptr, next, &slot), kNoError);
    EXPECT_EQ(slot, 2);
}

TEST_F(RezMapTest, PurgeableBitIsSetAndClearedAndSlotZeroIsReported) {
    CRezMap map;
    MSHandle zero = NewHandleWith(std::string("0"));
    MSHandle one = NewHandleWith(std::string("1"));
    ASSERT_EQ(map.AddRecord("TYPE", "zero", 0, zero), kNoError);
    ASSERT_EQ(map.AddRecord("TYPE", "one", 1, one), kNoError);
    std::uint16_t attributes = 99;
    EXPECT_EQ(map.SetPurgeable(one), kNoError);
    EXPECT_EQ(map.NodeArray()->GetAttributes(1, &attributes), kNoError);
    EXPECT_EQ(attributes, kPurgeableAttribute);
    EXPECT_EQ(map.ClearPurgeable(one), kNoError);
    EXPECT_EQ(map.NodeArray()->GetAttributes(1, &attributes), kNoError);
    EXPECT_EQ(attributes, 0);

    // Slot 0 trips the attribute assertion on the read and on the write, and
    // the operation runs on.
    EXPECT_EQ(map.SetPurgeable(zero), kNoError);
    ExpectReportedTimes("index != 0", 2);
    EXPECT_EQ(map.NodeArray()->GetAttributes(0, &attributes), kNoError);
    ExpectReportedTimes("index != 0", 1);
    EXPECT_EQ(attributes, kPurgeableAttribute);

    EXPECT_EQ(map.SetPurgeable(reinterpret_cast<MSHandle>(0x99)), kRecordNotFound);
    EXPECT_EQ(map.NodeArray()->GetAttributes(200, &attributes), kGeneralError);
    ExpectReported("index < fNumSlots");
}

TEST_F(RezMapTest, TheTableGrowsBy200FreeSlotsAndKeepsEveryRecordInside) {
    CRezMap map;
    TSlotModel model;
    for (int i = 0; i < 401; ++i) {
        MSHandle data = NewHandleWith(std::string(static_cast<std::size_t>(i % 7), 'x'));
        const std::string name = "rec" + std::to_string(i);
        ASSERT_EQ(map.AddRecord("GROW", name.c_str(), i, data), kNoError);
        model.Add("GROW", name, i, data);
        if (i == 199) {
            EXPECT_EQ(map.NodeArray()->CountSlots(), 200);
        }
        if (i == 200) {
            EXPECT_EQ(map.NodeArray()->CountSlots(), 400);
            std::uint16_t slot = 0;
            map.NodeArray()->FindByData(nullptr, nullptr, nullptr, data, &slot);
            EXPECT_EQ(slot, 200) << "the 201st record goes into slot 200";
            map.NodeArray()->FindEmptyNode(&slot);
            EXPECT_EQ(slot, 201) << "the grown slots are free";
        }
    }
    EXPECT_EQ(map.NodeArray()->CountSlots(), 600);
    ExpectSlotsEqual(map, model);
}

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
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(map.AddRecord("FULL", "extra", 1000, extra), kOutOfMemory);
    memsys::RefuseSystemAllocationAfter(-1);
    EXPECT_EQ(map.NodeArray()->CountSlots(), 200);
    ExpectSlotsEqual(map, model);
    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByID(1000, "FULL", &found), kRecordNotFound);
    EXPECT_EQ(map.GetRecordByName("n17", "FULL", &found), kNoError);
    EXPECT_EQ(found, model.fSlots[17].fData);
    // The refused growth succeeds once memory is there again.
    EXPECT_EQ(map.AddRecord("FULL", "extra", 1000, extra), kNoError);
    EXPECT_EQ(map.NodeArray()->CountSlots(), 400);
}

TEST_F(RezMapTest, ReleaseDisposesDetachAndRemoveHandTheHandleOver) {
    const std::size_t before = memsys::CountLiveBlocks();
    {
        CRezMap map;
        MSHandle kept = NewHandleWith(std::string("kept"));
        MSHandle released = NewHandleWith(std::string("released"));
        MSHandle detached = NewHandleWith(std::string("detached"));
        MSHandle removed = NewHandleWith(std::string("removed"));
        map.AddRecord("TYPE", "kept", 1, kept);
        map.AddRecord("TYPE", "released", 2, released);
        map.AddRecord("TYPE", "detached", 3, detached);
        map.AddRecord("TYPE", "removed", 4, removed);
        EXPECT_EQ(map.ReleaseRecord(released), kNoError);
        EXPECT_FALSE(MSValidHandle(released));
        EXPECT_EQ(map.DetachRecord(detached), kNoError);
        EXPECT_EQ(map.RemoveRecordByName("removed", "TYPE"), kNoError);
        EXPECT_EQ(map.FindRecord(detached), kRecordNotFound);
        EXPECT_EQ(map.DetachRecord(detached), kRecordNotFound);
        EXPECT_TRUE(MSValidHandle(detached));
        EXPECT_TRUE(MSValidHandle(removed));
        MSDisposeHandle(detached);
        MSDisposeHandle(removed);
    }
    // The map disposed of the record it still held, then of its table.
    EXPECT_EQ(memsys::CountLiveBlocks(), before);
}

TEST_F(RezMapTest, ChangeRecordInfoRegistersTheHandleAgain) {
    CRezMap map;
    MSHandle data = NewHandleWith(std::string("data"));
    ASSERT_EQ(map.AddRecord("OLD ", "old", 1, data), kNoError);
    map.NodeArray()->SetAttributes(0, kPurgeableAttribute);
    ExpectReported("index != 0");
    EXPECT_EQ(map.ChangeRecordInfo(data, "NEW ", "new", 2), kNoError);
    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByName("old", "OLD ", &found), kRecordNotFound);
    EXPECT_EQ(map.GetRecordByID(2, "NEW ", &found), kNoError);
    EXPECT_EQ(found, data);
    std::uint16_t attributes = 1;
    map.NodeArray()->GetAttributes(0, &attributes);
    ExpectReported("index != 0");
    EXPECT_EQ(attributes, 0) << "attributes return to 0";
}

TEST_F(RezMapTest, ATypeAndNameRegisteredTwiceIsReportedAndTheLowestSlotWins) {
    CRezMap map;
    MSHandle first = NewHandleWith(std::string("1"));
    MSHandle second = NewHandleWith(std::string("2"));
    ASSERT_EQ(map.AddRecord("TYPE", "same", 1, first), kNoError);
    EXPECT_EQ(map.AddRecord("TYPE", "same", 2, second), kNoError);
    ExpectReported("error != kNoError");
    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByName("same", "TYPE", &found), kNoError);
    EXPECT_EQ(found, first);
    EXPECT_EQ(map.RemoveRecordByName("same", "TYPE"), kNoError);
    MSDisposeHandle(first);
    EXPECT_EQ(map.GetRecordByName("same", "TYPE", &found), kNoError);
    EXPECT_EQ(found, second);
}

TEST_F(RezMapTest, NullArgumentsAreReportedAndRefused) {
    CRezMap map;
    MSHandle data = NewHandleWith(std::string("d"));
    ASSERT_EQ(map.AddRecord("TYPE", "name", 1, data), kNoError);
    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByName(nullptr, "TYPE", &found), kGeneralError);
    ExpectReported("theName != 0");
    EXPECT_EQ(map.GetRecordByID(1, nullptr, &found), kGeneralError);
    ExpectReported("theType != 0");
    EXPECT_EQ(map.GetRecordByID(1, "TYPE", nullptr), kGeneralError);
    ExpectReported("theData != 0");
    char name[32];
    std::int32_t id = 0;
    EXPECT_EQ(map.GetRecordInfo(data, name, nullptr, &id), kGeneralError);
    ExpectReported("type != 0");
    EXPECT_EQ(map.GetRecordInfo(nullptr, name, name, &id), kGeneralError);
    ExpectReported("theData != 0");
    MSHandle other = NewHandleWith(std::string("o"));
    EXPECT_EQ(map.AddRecord(nullptr, "x", 1, other), kGeneralError);
    ExpectReported("type != 0");
    EXPECT_EQ(map.AddRecord("TYPE", nullptr, 1, other), kGeneralError);
    ExpectReported("name != 0");
    MSDisposeHandle(other);
    EXPECT_EQ(map.AddRecord("TYPE", "freed", 1, other), kInvalidHandle);
    ExpectReported("MSValidHandle(data)");
    EXPECT_EQ(map.NodeArray()->CountNodes(), 1);
}

TEST_F(RezMapTest, NamesAreReadUpToTheirNulAndTypesUpToFourBytes) {
    CRezMap map;
    MSHandle data = NewHandleWith(std::string("d"));
    // A short type reads as its bytes and NULs; a name of 31 characters fits.
    const std::string longest(31, 'n');
    ASSERT_EQ(map.AddRecord("ab", longest.c_str(), 7, data), kNoError);
    MSHandle found = nullptr;
    EXPECT_EQ(map.GetRecordByName(longest.c_str(), std::string("ab\0\0", 4).c_str(), &found), kNoError);
    EXPECT_EQ(found, data);
    char name[32];
    char type[4];
    std::int32_t id = 0;
    EXPECT_EQ(map.GetRecordInfo(data, name, type, &id), kNoError);
    EXPECT_EQ(std::string(type, 4), std::string("ab\0\0", 4));
    EXPECT_EQ(NameString(name), longest);
}

// Thousands of random operations; after each, the map's answer equals the
// model's lowest-slot scan, and now and then the whole table is compared.
TEST_F(RezMapTest, RandomOperationsMatchALowestSlotScanOfTheModel) {
    std::mt19937 random(20240611);
    const char* types[] = {"MDUM", "SEEN", "path", "ab"};
    const auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
    CRezMap map;
    TSlotModel model;
    std::vector<MSHandle> loaded;  // handles the map holds
    const auto randomType = [&] { return std::string(types[pick(4)]); };
    const auto randomName = [&] { return "name" + std::to_string(pick(900)); };
    const auto randomID = [&] { return static_cast<std::int32_t>(pick(700)) - 50; };
    const auto forget = [&](MSHandle h) { loaded.erase(std::find(loaded.begin(), loaded.end(), h)); };
    const auto slotOf = [&](MSHandle h) { return model.FindByData(h); };

    for (int step = 0; step < 12000; ++step) {
        // Mostly adds early on so that the table grows past 400 slots.
        const int op = step < 3000 ? (pick(10) < 7 ? 0 : 1 + pick(9)) : pick(10);
        const std::string type = randomType();
        const std::string name = randomName();
        const std::int32_t id = randomID();
        switch (op) {
            case 0: {  // add
                if (model.FindByName(type, name) >= 0) break;
                MSHandle data = NewHandleWith(std::string(static_cast<std::size_t>(pick(20)), 'q'));
                ASSERT_EQ(map.AddRecord(type.c_str(), name.c_str(), id, data), kNoError);
                model.Add(type, name, id, data);
                loaded.push_back(data);
                break;
            }
            case 1: {  // by name
                MSHandle found = reinterpret_cast<MSHandle>(1);
                const int slot = model.FindByName(type, name);
                EXPECT_EQ(map.GetRecordByName(name.c_str(), type.c_str(), &found),
                          slot >= 0 ? kNoError : kRecordNotFound);
                EXPECT_EQ(found, slot >= 0 ? model.fSlots[static_cast<std::size_t>(slot)].fData : nullptr);
                std::uint32_t size = 0;
                if (slot >= 0) {
                    EXPECT_EQ(map.GetSizeByName(name.c_str(), type.c_str(), &size), kNoError);
                    EXPECT_EQ(size, MSGetHandleSize(found));
                }
                break;
            }
            case 2: {  // by ID
                MSHandle found = reinterpret_cast<MSHandle>(1);
                const int slot = model.FindByID(type, id);
                EXPECT_EQ(map.GetRecordByID(id, type.c_str(), &found),
                          slot >= 0 ? kNoError : kRecordNotFound);
                EXPECT_EQ(found, slot >= 0 ? model.fSlots[static_cast<std::size_t>(slot)].fData : nullptr);
                break;
            }
            case 3: {  // info by handle, a live one or a wild one
                if (loaded.empty()) break;
                MSHandle data = pick(8) == 0
                                    ? reinterpret_cast<MSHandle>(0x5151)
                                    : loaded[static_cast<std::size_t>(pick(static_cast<int>(loaded.size())))];
                char outName[32];
                char outType[4];
                std::int32_t outID = 0;
                const int slot = slotOf(data);
                ASSERT_EQ(map.GetRecordInfo(data, outName, outType, &outID),
                          slot >= 0 ? kNoError : kRecordNotFound);
                if (slot >= 0) {
                    const TModelSlot& want = model.fSlots[static_cast<std::size_t>(slot)];
                    EXPECT_EQ(NameString(outName), want.fName);
                    EXPECT_EQ(TypeString(outType), want.fType);
                    EXPECT_EQ(outID, want.fID);
                }
                break;
            }
            case 4: {  // remove by ID
                const int slot = model.FindByID(type, id);
                ASSERT_EQ(map.RemoveRecordByID(id, type.c_str()), slot >= 0 ? kNoError : kRecordNotFound);
                if (slot >= 0) {
                    MSHandle data = model.fSlots[static_cast<std::size_t>(slot)].fData;
                    model.Free(slot);
                    forget(data);
                    EXPECT_EQ(MSDisposeHandle(data), kNoError);
                }
                break;
            }
            case 5: {  // remove by name
                const int slot = model.FindByName(type, name);
                ASSERT_EQ(map.RemoveRecordByName(name.c_str(), type.c_str()),
                          slot >= 0 ? kNoError : kRecordNotFound);
                if (slot >= 0) {
                    MSHandle data = model.fSlots[static_cast<std::size_t>(slot)].fData;
                    model.Free(slot);
                    forget(data);
                    EXPECT_EQ(MSDisposeHandle(data), kNoError);
                }
                break;
            }
            case 6: {  // detach or release
                if (loaded.empty()) break;
                MSHandle data = loaded[static_cast<std::size_t>(pick(static_cast<int>(loaded.size())))];
                model.Free(slotOf(data));
                forget(data);
                if (pick(2) == 0) {
                    ASSERT_EQ(map.DetachRecord(data), kNoError);
                    EXPECT_EQ(MSDisposeHandle(data), kNoError);
                } else {
                    ASSERT_EQ(map.ReleaseRecord(data), kNoError);
                    EXPECT_FALSE(MSValidHandle(data));
                }
                break;
            }
            case 7: {  // rename
                if (loaded.empty()) break;
                MSHandle data = loaded[static_cast<std::size_t>(pick(static_cast<int>(loaded.size())))];
                const int old = slotOf(data);
                const int clash = model.FindByName(type, name);
                if (clash >= 0 && clash != old) break;
                ASSERT_EQ(map.ChangeRecordInfo(data, type.c_str(), name.c_str(), id), kNoError);
                model.Free(old);
                model.Add(type, name, id, data);
                break;
            }
            case 8: {  // purgeable
                if (loaded.empty()) break;
                MSHandle data = loaded[static_cast<std::size_t>(pick(static_cast<int>(loaded.size())))];
                const int slot = slotOf(data);
                const bool set = pick(2) == 0;
                ASSERT_EQ(set ? map.SetPurgeable(data) : map.ClearPurgeable(data), kNoError);
                model.fSlots[static_cast<std::size_t>(slot)].fAttributes = set ? kPurgeableAttribute : 0;
                if (slot == 0) ExpectReportedTimes("index != 0", 2);
                break;
            }
            default: {  // membership
                if (loaded.empty()) break;
                MSHandle data = loaded[static_cast<std::size_t>(pick(static_cast<int>(loaded.size())))];
                EXPECT_TRUE(map.ContainsRecord(data));
                EXPECT_EQ(map.FindRecord(data), kNoError);
                break;
            }
        }
        if (step % 500 == 0 || step == 11999) ExpectSlotsEqual(map, model);
        if (HasFatalFailure()) return;
    }
    EXPECT_GE(map.NodeArray()->CountSlots(), 600) << "the table grew past 400 slots";
}

}  // namespace
