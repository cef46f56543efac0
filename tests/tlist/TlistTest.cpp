// The element list against a std::vector model, including the one-slot growth
// that callers see through AllocatedCount() and the index Find gives for a
// missing value.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "TList/Common/Tlist.h"
#include "tests/support/KavoTest.h"

namespace {

class TlistTest : public kavotest::KavoTest {
protected:
    template <typename TTheList, typename TElement>
    void RandomOperationsMatchAVectorModel(unsigned seed);
};

// Indices are 16-bit: the list holds 65535 elements and refuses one more.
// Clear offers each element to the derived list's DisposeElement.
TEST_F(TlistTest, SixteenBitIndicesBoundTheListAndClearOffersEveryElement) {
    struct Counting : TList {
        std::vector<std::uint16_t> fDisposed;
        std::int16_t DisposeElement(std::uint16_t index) override {
            fDisposed.push_back(index);
            return kNoError;
        }
        ~Counting() override { Clear(); }
    };
    Counting list;
    for (std::uint32_t i = 0; i < 0xFFFF; ++i) ASSERT_EQ(list.Append(static_cast<std::int32_t>(i)), kNoError);
    EXPECT_EQ(list.Append(-1), kListBoundReached);
    EXPECT_EQ(list.Count(), 0xFFFF);
    EXPECT_EQ(list.Clear(), kNoError);
    std::vector<std::uint16_t> every(0xFFFF);
    std::iota(every.begin(), every.end(), 0);
    EXPECT_EQ(list.fDisposed, every);
}

// Before every step the list matches the model, and its slots, counted by
// AllocatedCount() and by the handle's size, are those ever needed since the
// last Compact or Clear: it grows one slot at a time and keeps them. Indices
// are now and then out of range, values absent, and grows refused by the
// system; each of those is refused and leaves the list as it was. The same
// holds for a reference list, whose elements are whole pointers.
template <typename TTheList, typename TElement>
void TlistTest::RandomOperationsMatchAVectorModel(unsigned seed) {
    std::mt19937 random(seed);
    TTheList list(50);  // the argument has no effect
    EXPECT_EQ(list.MaxCount(), 0);
    EXPECT_EQ(list.Get(0, nullptr), kGeneralError);
    ExpectReported("value != NULL");
    std::vector<TElement> model;
    const auto checkElements = [&]() {
        for (std::uint16_t i = 0; i < model.size(); ++i) {
            TElement got{};
            ASSERT_EQ(list.Get(i, &got), kNoError);
            ASSERT_EQ(got, model[i]) << "element " << i;
        }
    };
    std::size_t slots = 0;
    for (int step = 0; step < 30000 && !HasFailure(); ++step) {
        ASSERT_EQ(list.Count(), model.size());
        ASSERT_EQ(list.AllocatedCount(), slots);
        ASSERT_EQ(MSGetHandleSize(list.Items()), sizeof(TElement) * slots);
        if (step % 500 == 0) checkElements();
        if (model.size() > 300) {
            ASSERT_EQ(list.Clear(), kNoError);
            model.clear();
            slots = 0;
        }
        // A small number, or for a reference list a pointer of that value (on
        // these little-endian hosts a 32-bit element takes the low bytes).
        const auto number = static_cast<std::intptr_t>(random() % 200) - 100;
        TElement value{};
        std::memcpy(&value, &number, sizeof value);
        if (!model.empty() && random() % 3 != 0) value = model[random() % model.size()];
        const auto found = std::find(model.begin(), model.end(), value);
        const auto at = static_cast<std::uint16_t>(found - model.begin());
        const std::int16_t byValue = found != model.end() ? kNoError : kGeneralError;
        const auto i = static_cast<std::uint16_t>(random() % (model.size() + 2));
        const auto j = static_cast<std::uint16_t>(random() % (model.size() + 1));
        const bool inRange = i < model.size();
        switch (random() % 10) {
            case 0:
            case 1:
            case 2: {  // an insert, append or prepend, the grow refused now and then
                const auto how = random() % 3;
                const auto index = static_cast<std::uint16_t>(how == 0 ? i : how == 1 ? model.size() : 0);
                const MSHandle items = list.Items();
                const bool refuse = random() % 8 == 0;
                if (refuse) memsys::RefuseSystemAllocationAfter(0);
                const std::int16_t e = how == 0   ? list.Insert(value, index)
                                       : how == 1 ? list.Append(value)
                                                  : list.Prepend(value);
                memsys::RefuseSystemAllocationAfter(-1);
                if (e == kCannotGrow) {
                    ASSERT_TRUE(refuse);
                    ASSERT_EQ(list.Items(), items);
                    checkElements();
                    break;
                }
                ASSERT_EQ(e, index <= model.size() ? kNoError : kGeneralError);
                if (e == kNoError) model.insert(model.begin() + index, value);
                break;
            }
            case 3:  // a removal by index or by value
                if (random() % 2 == 0) {
                    ASSERT_EQ(list.Remove(i), inRange ? kNoError : kGeneralError);
                    if (inRange) model.erase(model.begin() + i);
                } else {
                    ASSERT_EQ(list.RemoveValue(value), byValue);
                    if (byValue == kNoError) model.erase(found);
                }
                break;
            case 4: {  // a move to the front, to the back, up or down
                const auto how = random() % 4;
                const std::int16_t e = how == 0   ? list.BringToFront(value)
                                       : how == 1 ? list.SendToBack(value)
                                       : how == 2 ? list.MoveUp(value)
                                                  : list.MoveDown(value);
                ASSERT_EQ(e, byValue);
                if (byValue != kNoError) break;
                if (how == 0) std::rotate(model.begin(), found, found + 1);
                if (how == 1) std::rotate(found, found + 1, model.end());
                if (how == 2 && at > 0) std::swap(model[at], model[at - 1]);
                if (how == 3 && at + 1u < model.size()) std::swap(model[at], model[at + 1]);
                break;
            }
            case 5: {  // a missing value's index is AllocatedCount() + 1
                std::uint16_t index = 0;
                ASSERT_EQ(list.Find(value, &index), byValue);
                ASSERT_EQ(index, byValue == kNoError ? at : slots + 1);
                break;
            }
            case 6:
                ASSERT_EQ(list.Swap(i, j), inRange && j < model.size() ? kNoError : kGeneralError);
                if (inRange && j < model.size()) std::swap(model[i], model[j]);
                break;
            case 7: {  // out of range, Get gives 0
                TElement got = value;
                ASSERT_EQ(list.Get(i, &got), inRange ? kNoError : kGeneralError);
                ASSERT_EQ(got, inRange ? model[i] : TElement{});
                ASSERT_EQ(list.Set(value, i), inRange ? kNoError : kGeneralError);
                if (inRange) model[i] = value;
                break;
            }
            default:
                if (random() % 6 == 0) {
                    ASSERT_EQ(list.Compact(), kNoError);
                    slots = model.size();
                }
        }
        slots = std::max(slots, model.size());
    }
    checkElements();
}

TEST_F(TlistTest, RandomOperationsMatchAVectorModel) {
    RandomOperationsMatchAVectorModel<TList, std::int32_t>(7);
}

TEST_F(TlistTest, RandomOperationsOnAReferenceListMatchAVectorModel) {
    RandomOperationsMatchAVectorModel<TRefList, void*>(8);
}

}  // namespace
