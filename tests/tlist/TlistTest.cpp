// The element list against a std::vector model, including the one-slot growth
// that callers see through AllocatedCount().
#include <algorithm>
#include <random>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "TList/Common/Tlist.h"
#include "tests/support/KavoTest.h"

namespace {

class TlistTest : public kavotest::KavoTest {
protected:
    void TearDown() override {
        memsys::RefuseSystemAllocationAfter(-1);
        KavoTest::TearDown();
    }

    static std::vector<std::int32_t> Elements(TList& list) {
        std::vector<std::int32_t> out;
        for (std::uint16_t i = 0; i < list.Count(); ++i) {
            std::int32_t v = 0;
            EXPECT_EQ(list.Get(i, &v), kNoError);
            out.push_back(v);
        }
        return out;
    }
};

TEST_F(TlistTest, ANewListIsEmptyWhateverItsArgument) {
    TList list(50);
    EXPECT_TRUE(list.IsValid());
    EXPECT_EQ(list.Count(), 0);
    EXPECT_EQ(list.AllocatedCount(), 0);
    EXPECT_EQ(list.MaxCount(), 0);
    EXPECT_EQ(list.RecordSize(), 4);
    EXPECT_EQ(MSGetHandleSize(list.Items()), 0u);
}

TEST_F(TlistTest, SlotsGrowOneAtATimeAndAreKeptUntilCompact) {
    TList list;
    for (std::int32_t v : {10, 20, 30}) EXPECT_EQ(list.Append(v), kNoError);
    EXPECT_EQ(list.AllocatedCount(), 3);
    EXPECT_EQ(MSGetHandleSize(list.Items()), 12u);
    EXPECT_EQ(list.Remove(1), kNoError);
    EXPECT_EQ(list.AllocatedCount(), 3);
    EXPECT_EQ(list.Count(), 2);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{10, 30}));
    EXPECT_EQ(list.Compact(), kNoError);
    EXPECT_EQ(MSGetHandleSize(list.Items()), 8u);
    EXPECT_EQ(list.AllocatedCount(), 2);

    // Find of a missing value answers one past the allocated slots.
    std::uint16_t index = 0;
    EXPECT_EQ(list.Find(99, &index), kGeneralError);
    EXPECT_EQ(index, 3);
    EXPECT_EQ(list.Find(30, &index), kNoError);
    EXPECT_EQ(index, 1);
}

TEST_F(TlistTest, OutOfRangeIndicesAreRefusedWithoutChange) {
    TList list;
    list.Append(1);
    list.Append(2);
    std::int32_t v = 77;
    EXPECT_EQ(list.Get(2, &v), kGeneralError);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(list.Set(5, 2), kGeneralError);
    EXPECT_EQ(list.Remove(2), kGeneralError);
    EXPECT_EQ(list.Swap(0, 2), kGeneralError);
    EXPECT_EQ(list.Insert(9, 3), kGeneralError);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{1, 2}));
    EXPECT_EQ(list.AllocatedCount(), 2);
    EXPECT_EQ(list.Get(0, nullptr), kGeneralError);
    ExpectReported("value != NULL");
}

TEST_F(TlistTest, MovesByValue) {
    TList list;
    for (std::int32_t v : {1, 2, 3, 4}) list.Append(v);
    EXPECT_EQ(list.BringToFront(1), kNoError);  // already first: nothing changes
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{1, 2, 3, 4}));
    EXPECT_EQ(list.BringToFront(3), kNoError);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{3, 1, 2, 4}));
    EXPECT_EQ(list.SendToBack(3), kNoError);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{1, 2, 4, 3}));
    EXPECT_EQ(list.MoveUp(4), kNoError);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{1, 4, 2, 3}));
    EXPECT_EQ(list.MoveDown(1), kNoError);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{4, 1, 2, 3}));
    EXPECT_EQ(list.MoveUp(4), kNoError);
    EXPECT_EQ(list.MoveDown(3), kNoError);
    EXPECT_EQ(Elements(list), (std::vector<std::int32_t>{4, 1, 2, 3}));
    EXPECT_EQ(list.MoveUp(42), kGeneralError);
    EXPECT_EQ(list.RemoveValue(42), kGeneralError);
    EXPECT_EQ(list.AllocatedCount(), 4);
}

TEST_F(TlistTest, AFailedGrowLeavesTheListAsItWas) {
    TList list;
    // Appends fit in the handle's spare room until one needs the system;
    // the system refuses that one.
    std::int32_t next = 0;
    for (; next < 100; ++next) ASSERT_EQ(list.Append(next), kNoError);
    for (;; ++next) {
        const MSHandle items = list.Items();
        memsys::RefuseSystemAllocationAfter(0);
        const std::int16_t error = list.Append(next);
        memsys::RefuseSystemAllocationAfter(-1);
        if (error == kNoError) continue;
        ASSERT_EQ(error, kCannotGrow);
        EXPECT_EQ(list.Items(), items);
        EXPECT_EQ(list.Count(), next);
        EXPECT_EQ(list.AllocatedCount(), next);
        EXPECT_EQ(MSGetHandleSize(list.Items()), 4u * next);
        break;
    }
    EXPECT_EQ(list.Append(next), kNoError);
    std::vector<std::int32_t> expected(next + 1);
    for (std::int32_t i = 0; i <= next; ++i) expected[i] = i;
    EXPECT_EQ(Elements(list), expected);
}

TEST_F(TlistTest, SixteenBitIndicesBoundTheList) {
    TList list;
    for (std::uint32_t i = 0; i < 0xFFFF; ++i) ASSERT_EQ(list.Append(static_cast<std::int32_t>(i)), kNoError);
    EXPECT_EQ(list.Append(-1), kListBoundReached);
    EXPECT_EQ(list.Count(), 0xFFFF);
    std::uint16_t index = 0;
    EXPECT_EQ(list.Find(0xFFFE, &index), kNoError);
    EXPECT_EQ(index, 0xFFFE);
    EXPECT_EQ(list.Clear(), kNoError);
    EXPECT_EQ(MSGetHandleSize(list.Items()), 0u);
}

TEST_F(TlistTest, ClearOffersEachElementToTheDerivedList) {
    struct Counting : TList {
        std::vector<std::uint16_t> fDisposed;
        std::int16_t DisposeElement(std::uint16_t index) override {
            fDisposed.push_back(index);
            return kNoError;
        }
        ~Counting() override { Clear(); }
    };
    Counting list;
    for (std::int32_t v : {5, 6, 7}) list.Append(v);
    EXPECT_EQ(list.Clear(), kNoError);
    EXPECT_EQ(list.fDisposed, (std::vector<std::uint16_t>{0, 1, 2}));
    EXPECT_EQ(list.Count(), 0);
    EXPECT_EQ(list.AllocatedCount(), 0);
}

TEST_F(TlistTest, ReferenceListsHoldWholePointers) {
    TRefList list;
    EXPECT_EQ(list.RecordSize(), sizeof(void*));
    int objects[3];
    for (int& o : objects) list.Append(&o);
    list.BringToFront(&objects[2]);
    void* first = nullptr;
    EXPECT_EQ(list.Get(0, &first), kNoError);
    EXPECT_EQ(first, &objects[2]);
    std::uint16_t index = 0;
    EXPECT_EQ(list.Find(&objects[1], &index), kNoError);
    EXPECT_EQ(index, 2);
}

TEST_F(TlistTest, RandomOperationsMatchAVectorModel) {
    std::mt19937 random(7);
    TList list;
    std::vector<std::int32_t> model;
    std::size_t slots = 0;  // slots ever needed since the last compact
    const auto someValue = [&]() -> std::int32_t {
        if (!model.empty() && random() % 3 != 0) return model[random() % model.size()];
        return static_cast<std::int32_t>(random() % 200) - 100;
    };
    for (int step = 0; step < 30000; ++step) {
        const std::int32_t value = someValue();
        const auto found = std::find(model.begin(), model.end(), value);
        const std::uint16_t at = static_cast<std::uint16_t>(found - model.begin());
        switch (random() % 11) {
            case 0:
            case 1: {
                const auto index = static_cast<std::uint16_t>(random() % (model.size() + 2));
                const std::int16_t e = list.Insert(value, index);
                if (index > model.size()) {
                    ASSERT_EQ(e, kGeneralError);
                } else {
                    ASSERT_EQ(e, kNoError);
                    model.insert(model.begin() + index, value);
                }
                break;
            }
            case 2:
                ASSERT_EQ(list.Append(value), kNoError);
                model.push_back(value);
                break;
            case 3:
                ASSERT_EQ(list.Prepend(value), kNoError);
                model.insert(model.begin(), value);
                break;
            case 4: {
                const auto index = static_cast<std::uint16_t>(random() % (model.size() + 1));
                ASSERT_EQ(list.Remove(index), index < model.size() ? kNoError : kGeneralError);
                if (index < model.size()) model.erase(model.begin() + index);
                break;
            }
            case 5:
                ASSERT_EQ(list.RemoveValue(value), found != model.end() ? kNoError : kGeneralError);
                if (found != model.end()) model.erase(found);
                break;
            case 6:
                ASSERT_EQ(list.BringToFront(value), found != model.end() ? kNoError : kGeneralError);
                if (found != model.end()) std::rotate(model.begin(), found, found + 1);
                break;
            case 7:
                ASSERT_EQ(list.SendToBack(value), found != model.end() ? kNoError : kGeneralError);
                if (found != model.end()) std::rotate(found, found + 1, model.end());
                break;
            case 8:
                ASSERT_EQ(list.MoveUp(value), found != model.end() ? kNoError : kGeneralError);
                if (found != model.end() && at > 0) std::swap(model[at], model[at - 1]);
                break;
            case 9:
                ASSERT_EQ(list.MoveDown(value), found != model.end() ? kNoError : kGeneralError);
                if (found != model.end() && at + 1u < model.size()) std::swap(model[at], model[at + 1]);
                break;
            default:
                if (random() % 20 == 0) {
                    ASSERT_EQ(list.Compact(), kNoError);
                    slots = model.size();
                } else if (!model.empty()) {
                    const auto a = static_cast<std::uint16_t>(random() % model.size());
                    ASSERT_EQ(list.Set(value, a), kNoError);
                    model[a] = value;
                }
                break;
        }
        slots = std::max(slots, model.size());
        ASSERT_EQ(list.Count(), model.size());
        ASSERT_EQ(list.AllocatedCount(), slots);
        if (step % 500 == 0) {
            ASSERT_EQ(Elements(list), model);
        }
        if (model.size() > 300) {
            ASSERT_EQ(list.Clear(), kNoError);
            model.clear();
            slots = 0;
        }
    }
    ASSERT_EQ(Elements(list), model);
}

}  // namespace
