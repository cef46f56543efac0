// The free-page set against an ordered set: inserts, erases, lowest-member
// takes (the allocator's pattern, which moves the set's low cursor), walks
// from arbitrary pages, copies and clears.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

#include "engine/Pager.h"

TEST(PageSetTest, AgreesWithAnOrderedSetUnderRandomOperations) {
    std::mt19937 random(11);
    engine::TPageSet set;
    std::set<std::uint32_t> model;
    auto expectNext = [&](std::uint32_t from) {
        const auto it = model.lower_bound(from);
        ASSERT_EQ(set.Next(from), it == model.end() ? engine::TPageSet::kNone : *it) << "from " << from;
    };
    for (int step = 0; step < 40000; ++step) {
        // Numbers cluster low (as free pages do) but reach past several words.
        const std::uint32_t number = random() % 4 == 0 ? random() % 5000 : random() % 300;
        switch (random() % 8) {
            case 0:
            case 1:
            case 2:
                ASSERT_EQ(set.Insert(number), model.insert(number).second);
                break;
            case 3:
                ASSERT_EQ(set.Erase(number), model.erase(number) != 0);
                break;
            case 4: {  // take the lowest, as the allocator does
                const std::uint32_t lowest = set.Next(0);
                ASSERT_EQ(lowest, model.empty() ? engine::TPageSet::kNone : *model.begin());
                if (lowest != engine::TPageSet::kNone) {
                    set.Erase(lowest);
                    model.erase(lowest);
                }
                break;
            }
            case 5:
                expectNext(number);
                expectNext(number / 64 * 64);
                break;
            case 6:
                ASSERT_EQ(set.Contains(number), model.count(number) != 0);
                break;
            default:
                if (random() % 500 == 0) {
                    set.Clear();
                    model.clear();
                } else if (random() % 100 == 0) {
                    set = engine::TPageSet(set);
                }
                break;
        }
        ASSERT_EQ(set.Size(), model.size());
    }
    std::vector<std::uint32_t> walked;
    set.ForEach([&](std::uint32_t number) { walked.push_back(number); });
    EXPECT_EQ(walked, std::vector<std::uint32_t>(model.begin(), model.end()));
    EXPECT_EQ(set.Next(UINT32_MAX - 1), engine::TPageSet::kNone);
}
