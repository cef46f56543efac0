// The allocation-fault layer: the N-th allocation fails once and only while
// armed, the nothrow forms answer null, a std::vector whose growth fails is
// left as it was (the library relies on that guarantee), counts and bytes
// follow a known sequence, aligned blocks keep their alignment, and a delete
// of the wrong form is caught.
#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "tests/support/AllocationFaults.h"

#if defined(__SANITIZE_ADDRESS__)
#define KAVO_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KAVO_TEST_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using kavotest::AllocatedBytes;
using kavotest::AllocationCount;
using kavotest::AllocationFailed;
using kavotest::PeakAllocatedBytes;
using kavotest::TAllocationFaultScope;
using kavotest::TAllocationPause;

struct alignas(64) TWide {
    unsigned char fBytes[64];
};

// Passes a pointer through memory the compiler cannot see into, so that it
// neither elides the allocation nor reasons about the block's bounds.
void* volatile gEscaped = nullptr;
template <typename T>
T* Keep(T* pointer) {
    gEscaped = pointer;
    return static_cast<T*>(gEscaped);
}

TEST(AllocationFaultsTest, TheNthAllocationFailsOnceAndOnlyWhileArmed) {
    constexpr int kAllocations = 6;
    for (long n = 0; n < 4; ++n) {
        int* blocks[kAllocations] = {};
        bool threw[kAllocations] = {};
        bool failed = false;
        {
            TAllocationFaultScope armed(n);
            for (int i = 0; i < kAllocations; ++i) {
                try {
                    blocks[i] = Keep(new int(i));
                } catch (const std::bad_alloc&) {
                    threw[i] = true;
                }
            }
            failed = AllocationFailed();
        }
        for (int i = 0; i < kAllocations; ++i) {
            EXPECT_EQ(threw[i], i == n) << "armed after " << n << ", allocation " << i;
            delete blocks[i];
        }
        EXPECT_TRUE(failed) << n;
        EXPECT_FALSE(AllocationFailed()) << "disarming forgets the failure";
    }

    // Disarmed, or armed beyond the allocations made, nothing fails.
    bool threw = false;
    {
        TAllocationFaultScope armed(0);
        kavotest::FailAllocationAfter(-1);
        try {
            delete Keep(new int(1));
        } catch (const std::bad_alloc&) {
            threw = true;
        }
        kavotest::FailAllocationAfter(100);
        delete Keep(new int(2));
    }
    EXPECT_FALSE(threw);
}

TEST(AllocationFaultsTest, TheNothrowFormsAnswerNull) {
    void* blocks[4] = {};
    bool failed[4] = {};
    for (int form = 0; form < 4; ++form) {
        TAllocationFaultScope armed(0);
        switch (form) {
            case 0:
                blocks[form] = Keep(new (std::nothrow) int);
                break;
            case 1:
                blocks[form] = Keep(new (std::nothrow) int[4]);
                break;
            case 2:
                blocks[form] = Keep(new (std::nothrow) TWide);
                break;
            case 3:
                blocks[form] = Keep(new (std::nothrow) TWide[2]);
                break;
        }
        failed[form] = AllocationFailed();
    }
    for (int form = 0; form < 4; ++form) {
        EXPECT_EQ(blocks[form], nullptr) << form;
        EXPECT_TRUE(failed[form]) << form;
    }
}

TEST(AllocationFaultsTest, AFailedGrowthLeavesTheVectorAsItWas) {
    std::vector<std::string> strings = {std::string(100, 'a'), std::string(100, 'b')};
    const std::vector<std::string> original = strings;
    const std::string added(200, 'c');
    const std::string* const data = strings.data();
    const std::size_t capacity = strings.capacity();
    ASSERT_EQ(capacity, strings.size());
    // Growing allocates the new array, then the added string's copy.
    long failures = 0;
    for (long n = 0;; ++n) {
        bool threw = false;
        {
            TAllocationFaultScope armed(n);
            try {
                strings.push_back(added);
            } catch (const std::bad_alloc&) {
                threw = true;
            }
        }
        if (!threw) break;
        ++failures;
        EXPECT_EQ(strings, original) << n;
        EXPECT_EQ(strings.data(), data) << n;
        EXPECT_EQ(strings.capacity(), capacity) << n;
    }
    EXPECT_EQ(failures, 2);
    ASSERT_EQ(strings.size(), 3u);
    EXPECT_EQ(strings.back(), added);
}

TEST(AllocationFaultsTest, CountsAndBytesFollowAKnownSequence) {
    const std::size_t base = AllocatedBytes();
    kavotest::ResetAllocationCount();
    kavotest::MarkAllocationPeak();
    void* first = Keep(::operator new(1000));
    void* second = Keep(::operator new[](3000));
    ::operator delete(first, 1000);
    void* third = Keep(::operator new(500, std::nothrow));
    void* fourth = nullptr;
    {
        TAllocationPause pause;  // bytes, but not a count
        fourth = Keep(::operator new(24));
    }
    const std::uint64_t count = AllocationCount();
    const std::size_t held = AllocatedBytes() - base;
    const std::size_t peak = PeakAllocatedBytes() - base;
    ::operator delete[](second);
    ::operator delete(third);
    ::operator delete(fourth, 24);
    const std::size_t left = AllocatedBytes() - base;
    kavotest::MarkAllocationPeak();

    EXPECT_EQ(count, 3u);
    EXPECT_EQ(held, 3524u);
    EXPECT_EQ(peak, 4000u);
    EXPECT_EQ(left, 0u);
    EXPECT_EQ(PeakAllocatedBytes(), AllocatedBytes()) << "a mark starts the peak afresh";
}

TEST(AllocationFaultsTest, AlignedBlocksKeepTheirAlignment) {
    const std::size_t base = AllocatedBytes();
    TWide* one = Keep(new TWide);
    TWide* some = Keep(new TWide[3]);
    void* page = Keep(::operator new (10, std::align_val_t{4096}));
    void* plain = Keep(::operator new(1));
    const std::size_t held = AllocatedBytes() - base;
    const auto offset = [](const void* p, std::size_t alignment) {
        return reinterpret_cast<std::uintptr_t>(p) % alignment;
    };
    EXPECT_EQ(offset(one, alignof(TWide)), 0u);
    EXPECT_EQ(offset(some, alignof(TWide)), 0u);
    EXPECT_EQ(offset(page, 4096), 0u);
    EXPECT_EQ(offset(plain, __STDCPP_DEFAULT_NEW_ALIGNMENT__), 0u);
    EXPECT_EQ(held, 64u + 3 * 64u + 10u + 1u);
    delete one;
    delete[] some;
    ::operator delete (page, 10, std::align_val_t{4096});
    ::operator delete(plain);
    EXPECT_EQ(AllocatedBytes(), base);
}

#if GTEST_HAS_DEATH_TEST
TEST(AllocationFaultsDeathTest, ADeleteOfTheWrongFormIsCaught) {
    EXPECT_DEATH(::operator delete(Keep(::operator new[](16))),
                 "a block of operator new.. freed by operator delete");
    EXPECT_DEATH(::operator delete(Keep(::operator new (16, std::align_val_t{64}))),
                 "a block of aligned operator new freed by operator delete");
    EXPECT_DEATH(::operator delete(Keep(::operator new(16)), 8),
                 "operator delete of 8 bytes frees a block of 16");
}

#if defined(KAVO_TEST_ADDRESS_SANITIZER)
TEST(AllocationFaultsDeathTest, AddressSanitizerSeesPastEitherEnd) {
    EXPECT_DEATH(Keep(new char[10])[10] = 1, "heap-buffer-overflow");
    EXPECT_DEATH(Keep(new char[10])[-1] = 1, "use-after-poison");
}
#endif
#endif

}  // namespace
