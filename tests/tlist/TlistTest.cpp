// The element list against a std::vector model, including the one-slot growth
// that callers see through AllocatedCount() and the index Find gives for a
// missing value.
#include <algorithm>
#include <cstdint>
#include <random>
#include <type_traits>
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

    template <typename TElement>
    static std::vector<TElement> Elements(TListOf<TElement>& list) {
        std::vector<TElement> out;
        for (std::uint16_t i = 0; i < list.Count(); ++i) {
            TElement v{};
            EXPECT_EQ(list.Get(i, &v), kNoError);
            out.push_back(v);
        }
        return out;
    }

    template <typename TTheList, typename TElement>
    void RandomOperationsMatchAVectorModel(unsigned seed);
};

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
    EXPECT_TRUE(list.IsValid());
    EXPECT_EQ(list.MaxCount(), 0);
    EXPECT_EQ(list.RecordSize(), sizeof(TElement));
    EXPECT_EQ(list.Get(0, nullptr), kGeneralError);
    ExpectReported("value != NULL");
    const auto element = [](std::int32_t v) {
        if constexpr (std::is_pointer_v<TElement>) {
            return reinterpret_cast<TElement>(static_cast<std::intptr_t>(v));
        } else {
            return v;
        }
    };
    std::vector<TElement> model;
    std::size_t slots = 0;
    for (int step = 0; step < 30000; ++step) {
        ASSERT_EQ(list.Count(), model.size());
        ASSERT_EQ(list.AllocatedCount(), slots);
        ASSERT_EQ(MSGetHandleSize(list.Items()), sizeof(TElement) * slots);
        if (step % 500 == 0) {
            ASSERT_EQ(Elements(list), model);
        }
        if (model.size() > 300) {
            ASSERT_EQ(list.Clear(), kNoError);
            model.clear();
            slots = 0;
        }
        const TElement value = !model.empty() && random() % 3 != 0
                                   ? model[random() % model.size()]
                                   : element(static_cast<std::int32_t>(random() % 200) - 100);
        const auto found = std::find(model.begin(), model.end(), value);
        const auto at = static_cast<std::uint16_t>(found - model.begin());
        const std::int16_t byValue = found != model.end() ? kNoError : kGeneralError;
        const auto i = static_cast<std::uint16_t>(random() % (model.size() + 2));
        const auto j = static_cast<std::uint16_t>(random() % (model.size() + 1));
        switch (random() % 13) {
            case 0:
            case 1:
            case 2: {  // an insert, append or prepend
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
                    ASSERT_EQ(Elements(list), model);
                    break;
                }
                ASSERT_EQ(e, index <= model.size() ? kNoError : kGeneralError);
                if (e == kNoError) model.insert(model.begin() + index, value);
                break;
            }
            case 3:
                ASSERT_EQ(list.Remove(i), i < model.size() ? kNoError : kGeneralError);
                if (i < model.size()) model.erase(model.begin() + i);
                break;
            case 4:
                ASSERT_EQ(list.RemoveValue(value), byValue);
                if (byValue == kNoError) model.erase(found);
                break;
            case 5:
                ASSERT_EQ(list.BringToFront(value), byValue);
                if (byValue == kNoError) std::rotate(model.begin(), found, found + 1);
                break;
            case 6:
                ASSERT_EQ(list.SendToBack(value), byValue);
                if (byValue == kNoError) std::rotate(found, found + 1, model.end());
                break;
            case 7:
                ASSERT_EQ(list.MoveUp(value), byValue);
                if (byValue == kNoError && at > 0) std::swap(model[at], model[at - 1]);
                break;
            case 8:
                ASSERT_EQ(list.MoveDown(value), byValue);
                if (byValue == kNoError && at + 1u < model.size()) std::swap(model[at], model[at + 1]);
                break;
            case 9: {  // a missing value's index is AllocatedCount() + 1
                std::uint16_t index = 0;
                ASSERT_EQ(list.Find(value, &index), byValue);
                ASSERT_EQ(index, byValue == kNoError ? at : slots + 1);
                break;
            }
            case 10:
                ASSERT_EQ(list.Swap(i, j), i < model.size() && j < model.size() ? kNoError : kGeneralError);
                if (i < model.size() && j < model.size()) std::swap(model[i], model[j]);
                break;
            case 11: {  // out of range, Get gives 0
                TElement got = element(77);
                ASSERT_EQ(list.Get(i, &got), i < model.size() ? kNoError : kGeneralError);
                ASSERT_EQ(got, i < model.size() ? model[i] : TElement{});
                ASSERT_EQ(list.Set(value, i), i < model.size() ? kNoError : kGeneralError);
                if (i < model.size()) model[i] = value;
                break;
            }
            default:
                if (random() % 8 == 0) {
                    ASSERT_EQ(list.Compact(), kNoError);
                    slots = model.size();
                }
                break;
        }
        slots = std::max(slots, model.size());
    }
    ASSERT_EQ(Elements(list), model);
}

TEST_F(TlistTest, RandomOperationsMatchAVectorModel) {
    RandomOperationsMatchAVectorModel<TList, std::int32_t>(7);
}

TEST_F(TlistTest, RandomOperationsOnAReferenceListMatchAVectorModel) {
    RandomOperationsMatchAVectorModel<TRefList, void*>(8);
}

}  // namespace
