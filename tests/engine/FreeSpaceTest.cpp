// Free space: the free-page set against an ordered set (inserts, erases,
// lowest-member takes, the allocator's pattern, which moves the set's low
// cursor; walks from arbitrary pages, copies and clears), and the free list a
// checkpoint stores when its only free page went to hold the list.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <vector>

#include "engine/EngineErrors.h"
#include "engine/Pager.h"
#include "tests/engine/TempDirectory.h"

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

namespace {

std::uint32_t AllocateOne(engine::TPager& pager) {
    engine::TPage* page = nullptr;
    EXPECT_EQ(pager.Allocate(&page), kEngineNoError);
    if (page == nullptr) return 0;
    const std::uint32_t number = page->fNumber;
    pager.Unpin(page);
    return number;
}

std::unique_ptr<engine::TPager> Reopen(std::unique_ptr<engine::TPager> pager, const std::string& path) {
    EXPECT_EQ(pager->Close({}), kEngineNoError);
    pager.reset();
    EXPECT_EQ(engine::TPager::Open(path, false, &pager), kEngineNoError);
    return pager;
}

}  // namespace

// A page allocated and freed between two checkpoints, in a file with no other
// free page, is the whole free set; the list that stores it takes it, and the
// header then names a list page that lists nothing. Such a file opens, never
// hands the list page out while the list holds it, and frees it at the next
// checkpoint.
TEST(FreeListTest, AListWhoseOnlyPageWasTheOnlyFreePageOpensAndIsFreedLater) {
    kavotest::TTempDirectory directory("free-list");
    const std::string path = directory.File("pages.kdb");
    std::unique_ptr<engine::TPager> pager;
    ASSERT_EQ(engine::TPager::Create(path, &pager), kEngineNoError);
    const std::uint32_t passing = AllocateOne(*pager);
    const std::uint32_t kept = AllocateOne(*pager);
    pager->FreePage(passing);
    pager = Reopen(std::move(pager), path);
    ASSERT_TRUE(pager);
    EXPECT_EQ(pager->FreeListPages(), std::vector<std::uint32_t>{passing});
    EXPECT_EQ(pager->FreePageCount(), 0u);

    const std::uint32_t next = AllocateOne(*pager);
    EXPECT_NE(next, passing);
    EXPECT_NE(next, kept);
    pager = Reopen(std::move(pager), path);
    ASSERT_TRUE(pager);
    EXPECT_EQ(pager->FreePages(), std::vector<std::uint32_t>{passing});
    EXPECT_EQ(AllocateOne(*pager), passing);
    EXPECT_EQ(pager->Close({}), kEngineNoError);
}
