// The memory system: handles and pointers with their size header, checked
// against a reference model under random operation sequences, and misuse with
// null, freed and made-up values.
#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "tests/support/KavoTest.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class MemsysTest : public kavotest::KavoTest {
protected:
    void SetUp() override { fLiveAtStart = memsys::CountLiveBlocks(); }
    void TearDown() override {
        memsys::RefuseSystemAllocationAfter(-1);
        EXPECT_EQ(memsys::CountLiveBlocks(), fLiveAtStart) << "blocks leaked or lost";
        KavoTest::TearDown();
    }

    static Bytes ContentsOf(MSHandle h) {
        Bytes bytes(MSGetHandleSize(h));
        void* address = nullptr;
        EXPECT_EQ(MSLockHandle(h, &address), kNoError);
        if (!bytes.empty()) std::memcpy(bytes.data(), address, bytes.size());
        EXPECT_EQ(MSUnlockHandle(h), kNoError);
        return bytes;
    }

    static Bytes ContentsOfPtr(void* p) {
        const std::uint32_t size = MSGetPtrSize(p);
        const auto* bytes = static_cast<const std::uint8_t*>(p);
        return Bytes(bytes, bytes + size);
    }

    static MSHandle HandleHolding(const Bytes& bytes) {
        MSHandle h = nullptr;
        EXPECT_EQ(MSNewHandle(&h, 0), kNoError);
        EXPECT_EQ(MSCopyBlockToHandle(bytes.data(), &h, static_cast<std::uint32_t>(bytes.size())), kNoError);
        return h;
    }

private:
    std::size_t fLiveAtStart = 0;
};

TEST_F(MemsysTest, NewBlocksCarryTheirSizeAndReadAsGarbageBytes) {
    MSHandle h = nullptr;
    ASSERT_EQ(MSNewHandle(&h, 10), kNoError);
    EXPECT_TRUE(MSValidHandle(h));
    EXPECT_EQ(MSGetHandleSize(h), 10u);
    EXPECT_EQ(ContentsOf(h), Bytes(10, kNewGarbageByte));

    MSHandle empty = nullptr;
    ASSERT_EQ(MSNewHandle(&empty, 0), kNoError);
    EXPECT_TRUE(MSValidHandle(empty));
    EXPECT_EQ(MSGetHandleSize(empty), 0u);

    void* p = nullptr;
    ASSERT_EQ(MSNewPtr(&p, 7), kNoError);
    EXPECT_EQ(MSGetPtrSize(p), 7u);
    EXPECT_EQ(ContentsOfPtr(p), Bytes(7, kNewGarbageByte));
    // The size header sits right in front of the data, in machine byte order.
    std::uint32_t header = 0;
    std::memcpy(&header, static_cast<std::uint8_t*>(p) - 4, 4);
    EXPECT_EQ(header, 7u);
    // A handle is not a pointer and a pointer is not a handle.
    EXPECT_FALSE(MSValidPtr(h));
    EXPECT_EQ(MSLastError(), kInvalidPtr);
    EXPECT_FALSE(MSValidHandle(p));
    EXPECT_EQ(MSLastError(), kInvalidHandle);

    EXPECT_EQ(MSDisposeHandle(h), kNoError);
    EXPECT_EQ(MSDisposeHandle(empty), kNoError);
    EXPECT_EQ(MSDisposePtr(p), kNoError);
    EXPECT_FALSE(MSValidHandle(h));
}

TEST_F(MemsysTest, LockCountsNeverGoBelowZero) {
    MSHandle h = nullptr;
    ASSERT_EQ(MSNewHandle(&h, 4), kNoError);
    EXPECT_FALSE(MSHandleIsLocked(h));
    EXPECT_EQ(MSUnlockHandle(h), kNoError);  // unlocking an unlocked handle is harmless
    void* a = nullptr;
    void* b = nullptr;
    EXPECT_EQ(MSLockHandle(h, &a), kNoError);
    EXPECT_EQ(MSLockHandle(h, &b), kNoError);
    EXPECT_EQ(a, b);
    EXPECT_TRUE(MSHandleIsLocked(h));
    EXPECT_EQ(MSUnlockHandle(h), kNoError);
    EXPECT_TRUE(MSHandleIsLocked(h));
    EXPECT_EQ(MSUnlockHandle(h), kNoError);
    EXPECT_EQ(MSUnlockHandle(h), kNoError);
    EXPECT_FALSE(MSHandleIsLocked(h));
    EXPECT_EQ(MSLockHandle(h, &a), kNoError);
    EXPECT_TRUE(MSHandleIsLocked(h));
    EXPECT_EQ(MSUnlockHandle(h), kNoError);
    EXPECT_FALSE(MSHandleIsLocked(h));
    MSDisposeHandle(h);
}

TEST_F(MemsysTest, ResizingKeepsThePrefixAndTheHandleOfAnUnchangedSize) {
    MSHandle h = HandleHolding({1, 2, 3, 4, 5});
    MSHandle before = h;
    EXPECT_EQ(MSResizeHandle(&h, 5), kNoError);
    EXPECT_EQ(h, before);
    EXPECT_EQ(MSGrowHandle(&h, 5000), kNoError);
    EXPECT_EQ(MSGetHandleSize(h), 5000u);
    const Bytes grown = ContentsOf(h);
    EXPECT_EQ(Bytes(grown.begin(), grown.begin() + 5), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(MSShrinkHandle(&h, 3), kNoError);
    EXPECT_EQ(ContentsOf(h), (Bytes{1, 2, 3}));
    EXPECT_EQ(MSResizeHandle(&h, 4), kNoError);
    EXPECT_EQ(MSGetHandleSize(h), 4u);
    EXPECT_EQ(MSResizeHandle(&h, 0), kNoError);
    EXPECT_EQ(MSGetHandleSize(h), 0u);
    MSDisposeHandle(h);

    void* p = nullptr;
    ASSERT_EQ(MSNewPtr(&p, 3), kNoError);
    std::memcpy(p, "abc", 3);
    EXPECT_EQ(MSResizePtr(&p, 100000), kNoError);
    EXPECT_EQ(MSGetPtrSize(p), 100000u);
    EXPECT_EQ(std::memcmp(p, "abc", 3), 0);
    EXPECT_EQ(MSShrinkPtr(&p, 2), kNoError);
    EXPECT_EQ(MSGrowPtr(&p, 3), kNoError);
    EXPECT_EQ(MSGetPtrSize(p), 3u);
    EXPECT_EQ(std::memcmp(p, "ab", 2), 0);
    MSDisposePtr(p);
}

TEST_F(MemsysTest, AFailedGrowLeavesTheCallersVariableNullAndTheOldBlockIntact) {
    MSHandle h = HandleHolding({9, 8, 7});
    MSHandle keep = h;
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(MSGrowHandle(&h, 1u << 20), kCannotGrow);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(MSLastError(), kCannotGrow);
    EXPECT_EQ(ContentsOf(keep), (Bytes{9, 8, 7}));

    // A pointer's variable is updated only on success.
    void* p = nullptr;
    ASSERT_EQ(MSNewPtr(&p, 1), kNoError);
    void* keepPtr = p;
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(MSGrowPtr(&p, 1u << 20), kCannotGrow);
    EXPECT_EQ(p, keepPtr);

    // Copies report their destination that could not be resized.
    MSHandle big = nullptr;
    ASSERT_EQ(MSNewHandle(&big, 1u << 20), kNoError);
    MSHandle dest = keep;
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(MSCopyHandleToHandle(big, &dest), kDestNotResized);
    dest = keep;
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(MSAppendHandleToHandle(big, &dest), kDestNotResized);

    // Out of memory at birth: the variable is 0; a pointer's fill still runs
    // and reports the null pointer it was given.
    MSHandle none = keep;
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(MSNewHandle(&none, 16), kOutOfMemory);
    EXPECT_EQ(none, nullptr);
    void* nonePtr = keepPtr;
    memsys::RefuseSystemAllocationAfter(0);
    EXPECT_EQ(MSNewPtr(&nonePtr, 16), kOutOfMemory);
    EXPECT_EQ(nonePtr, nullptr);
    EXPECT_EQ(MSLastError(), kOutOfMemory);
    ExpectReportedTimes("MSValidPtr(thePtr)", 1);

    MSDisposeHandle(keep);
    MSDisposeHandle(big);
    MSDisposePtr(keepPtr);
}

TEST_F(MemsysTest, FillIsBoundedByTheLogicalSize) {
    MSHandle h = nullptr;
    ASSERT_EQ(MSNewHandle(&h, 8), kNoError);
    EXPECT_EQ(MSFillHandle(h, 3, 5, 0x11), kNoError);  // offset + amount == size
    EXPECT_EQ(ContentsOf(h), (Bytes{0xA3, 0xA3, 0xA3, 0xA3, 0xA3, 0x11, 0x11, 0x11}));
    EXPECT_EQ(MSFillHandle(h, 4, 5, 0x22), kGeneralError);
    ExpectReported("size >= (theAmount + theOffset)");
    EXPECT_EQ(MSFillHandle(h, 0xFFFFFFFFu, 2, 0x22), kGeneralError);  // no wrap-around
    ExpectReported("size >= (theAmount + theOffset)");
    EXPECT_EQ(ContentsOf(h)[7], 0x11);

    void* p = nullptr;
    ASSERT_EQ(MSNewPtr(&p, 4), kNoError);
    EXPECT_EQ(MSFillPtr(p, 4, 0, 0), kNoError);
    EXPECT_EQ(ContentsOfPtr(p), Bytes(4, 0));
    EXPECT_EQ(MSFillPtr(p, 1, 4, 0), kGeneralError);
    ExpectReported("size >= (theAmount + theOffset)");
    MSDisposeHandle(h);
    MSDisposePtr(p);
}

TEST_F(MemsysTest, BlockMoveCopiesOverlappingRangesAsIfThroughABuffer) {
    std::uint8_t bytes[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(MSBlockMove(bytes, bytes + 2, 6), kNoError);
    EXPECT_EQ(Bytes(bytes, bytes + 10), (Bytes{0, 1, 0, 1, 2, 3, 4, 5, 8, 9}));
    EXPECT_EQ(MSBlockMove(bytes + 3, bytes, 7), kNoError);
    EXPECT_EQ(Bytes(bytes, bytes + 10), (Bytes{1, 2, 3, 4, 5, 8, 9, 5, 8, 9}));
    EXPECT_EQ(MSBlockMove(nullptr, bytes, 0), kNoError);
    EXPECT_EQ(MSBlockMove(nullptr, bytes, 1), kGeneralError);
    ExpectReported("(from != NULL && to != NULL) || theCount == 0");
}

TEST_F(MemsysTest, CopyingIntoAHandleFromItsOwnBytesIsSafe) {
    MSHandle h = HandleHolding({1, 2, 3, 4, 5, 6});
    void* address = nullptr;
    MSLockHandle(h, &address);
    const Bytes tail(static_cast<std::uint8_t*>(address) + 2, static_cast<std::uint8_t*>(address) + 6);
    // The source moves with the destination's block when it is resized.
    EXPECT_EQ(MSCopyBlockToHandle(static_cast<std::uint8_t*>(address) + 2, &h, 4), kNoError);
    EXPECT_EQ(ContentsOf(h), tail);
    MSUnlockHandle(h);
    EXPECT_EQ(MSAppendHandleToHandle(h, &h), kNoError);
    EXPECT_EQ(ContentsOf(h), (Bytes{3, 4, 5, 6, 3, 4, 5, 6}));
    MSDisposeHandle(h);
}

TEST_F(MemsysTest, CopyPtrToHandleUnlocksTwiceAfterOneLock) {
    void* p = nullptr;
    ASSERT_EQ(MSNewPtr(&p, 3), kNoError);
    std::memcpy(p, "xyz", 3);
    MSHandle h = nullptr;
    ASSERT_EQ(MSNewHandle(&h, 0), kNoError);
    EXPECT_EQ(MSCopyPtrToHandle(p, &h), kNoError);
    EXPECT_EQ(ContentsOf(h), (Bytes{'x', 'y', 'z'}));
    EXPECT_FALSE(MSHandleIsLocked(h));
    MSDisposeHandle(h);
    MSDisposePtr(p);
}

TEST_F(MemsysTest, RecoverHandleIsNotSupported) {
    EXPECT_EQ(MSRecoverHandle(), kNoError);
    EXPECT_EQ(MSLastError(), kNoError);
    ExpectReported("FALSE");
}

TEST_F(MemsysTest, ReportsNameTheModuleRelativeToTheSourceRoot) {
    MSDisposeHandle(nullptr);
#if KAVO_ASSERTIONS
    ASSERT_EQ(Reports().size(), 1u);
    EXPECT_EQ(Reports()[0].fExpression, "MSValidHandle(theHandle)");
    EXPECT_EQ(Reports()[0].fFile, "MemSys/Win32/Memsys.cpp");
    EXPECT_GT(Reports()[0].fLine, 0);
#endif
    IgnoreReports();
}

TEST_F(MemsysTest, SwapHelpersReverseBytes) {
    std::uint16_t s = 0x1234;
    std::uint32_t l = 0x01020304;
    MSSwapShort(&s);
    MSSwapLong(&l);
    EXPECT_EQ(s, 0x3412);
    EXPECT_EQ(l, 0x04030201u);
    MSSwapLong(nullptr);
    ExpectReported("swapThis != NULL");
}

// Every function that takes a handle or pointer refuses null, freed and
// made-up values with its code and a report, and never touches the memory.
TEST_F(MemsysTest, BadHandlesAndPointersAreRefusedNeverFollowed) {
    MSHandle good = HandleHolding({1, 2, 3});
    void* goodPtr = nullptr;
    ASSERT_EQ(MSNewPtr(&goodPtr, 3), kNoError);
    // Freed last: the system may hand a freed value out again to the next
    // allocation, and then it names a live block.
    MSHandle freed = nullptr;
    ASSERT_EQ(MSNewHandle(&freed, 16), kNoError);
    ASSERT_EQ(MSDisposeHandle(freed), kNoError);
    void* freedPtr = nullptr;
    ASSERT_EQ(MSNewPtr(&freedPtr, 16), kNoError);
    ASSERT_EQ(MSDisposePtr(freedPtr), kNoError);
    static std::uint8_t fake[64];  // readable memory that is no block

    struct Case {
        const char* fName;
        std::function<int(MSHandle bad)> fCall;
        int fCode;
        const char* fReport;
    };
    const std::vector<Case> cases = {
        {"MSDisposeHandle", [](MSHandle b) { return MSDisposeHandle(b); }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSDisposePtr", [](MSHandle b) { return MSDisposePtr(b); }, kInvalidPtr, "MSValidPtr(thePtr)"},
        {"MSGetHandleSize", [](MSHandle b) { return int(MSGetHandleSize(b)) + (MSLastError() == kGeneralError ? -1 : 0); }, -1, "MSValidHandle(theHandle)"},
        {"MSGetPtrSize", [](MSHandle b) { return int(MSGetPtrSize(b)) + MSLastError(); }, kInvalidPtr, "MSValidPtr(thePtr)"},
        {"MSLockHandle", [](MSHandle b) { void* a = &a; int e = MSLockHandle(b, &a); return a == nullptr ? e : 99; }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSUnlockHandle", [](MSHandle b) { return MSUnlockHandle(b); }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSHandleIsLocked", [](MSHandle b) { return MSHandleIsLocked(b) ? 99 : MSLastError(); }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSGrowHandle", [](MSHandle b) { MSHandle v = b; int e = MSGrowHandle(&v, 99); return v == b ? e : 99; }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSShrinkHandle", [](MSHandle b) { MSHandle v = b; int e = MSShrinkHandle(&v, 0); return v == b ? e : 99; }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSResizeHandle", [](MSHandle b) { MSHandle v = b; int e = MSResizeHandle(&v, 9); return v == b ? e : 99; }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSGrowPtr", [](MSHandle b) { void* v = b; int e = MSGrowPtr(&v, 99); return v == b ? e : 99; }, kInvalidPtr, "MSValidPtr(thePtr)"},
        {"MSShrinkPtr", [](MSHandle b) { void* v = b; int e = MSShrinkPtr(&v, 0); return v == b ? e : 99; }, kInvalidPtr, "MSValidPtr(thePtr)"},
        {"MSResizePtr", [](MSHandle b) { void* v = b; int e = MSResizePtr(&v, 9); return v == b ? e : 99; }, kInvalidPtr, "MSValidPtr(thePtr)"},
        {"MSFillHandle", [](MSHandle b) { return MSFillHandle(b, 1, 0, 0); }, kInvalidHandle, "MSValidHandle(theHandle)"},
        {"MSFillPtr", [](MSHandle b) { return MSFillPtr(b, 1, 0, 0); }, kInvalidPtr, "MSValidPtr(thePtr)"},
        {"MSCloneHandle", [](MSHandle b) { MSHandle out = &out; int e = MSCloneHandle(b, &out); return out == &out ? e : 99; }, kInvalidHandle, "MSValidHandle(fromHandle)"},
        {"MSClonePtr", [](MSHandle b) { void* out = &out; int e = MSClonePtr(b, &out); return out == &out ? e : 99; }, kInvalidPtr, "MSValidPtr(from)"},
        {"MSCopyHandleToHandle from", [good](MSHandle b) { MSHandle to = good; return MSCopyHandleToHandle(b, &to); }, kInvalidHandle, "MSValidHandle(fromHandle)"},
        {"MSCopyHandleToHandle to", [good](MSHandle b) { MSHandle to = b; return MSCopyHandleToHandle(good, &to); }, kInvalidHandle, "MSValidHandle(toHandle)"},
        {"MSCopyPtrToHandle from", [good](MSHandle b) { MSHandle to = good; return MSCopyPtrToHandle(b, &to); }, kInvalidPtr, "MSValidPtr(from)"},
        {"MSCopyPtrToHandle to", [goodPtr](MSHandle b) { MSHandle to = b; return MSCopyPtrToHandle(goodPtr, &to); }, kInvalidHandle, "MSValidHandle(toHandle)"},
        {"MSCopyBlockToHandle", [](MSHandle b) { MSHandle to = b; return MSCopyBlockToHandle("abc", &to, 3); }, kInvalidHandle, "MSValidHandle(toHandle)"},
        {"MSCopyHandleToNewPtr", [](MSHandle b) { void* out = &out; int e = MSCopyHandleToNewPtr(b, &out); return out == &out ? e : 99; }, kGeneralError, "MSValidHandle(fromHandle)"},
        {"MSAppendHandleToHandle from", [good](MSHandle b) { MSHandle to = good; return MSAppendHandleToHandle(b, &to); }, kInvalidHandle, "MSValidHandle(fromHandle)"},
        {"MSAppendHandleToHandle to", [good](MSHandle b) { MSHandle to = b; return MSAppendHandleToHandle(good, &to); }, kInvalidHandle, "MSValidHandle(toHandle)"},
    };
    const std::vector<std::pair<const char*, MSHandle>> badValues = {
        {"null", nullptr},
        {"freed handle", freed},
        {"freed pointer", freedPtr},
        {"made-up", fake + 8},
        {"odd", reinterpret_cast<MSHandle>(std::uintptr_t{0x1235})},
    };
    for (const Case& c : cases) {
        for (const auto& [what, bad] : badValues) {
            SCOPED_TRACE(std::string(c.fName) + " with a " + what + " value");
            EXPECT_EQ(c.fCall(bad), c.fCode);
            ExpectReportedTimes(c.fReport, 1);
            IgnoreReports();  // the checks after the first may report too
        }
    }
    EXPECT_EQ(ContentsOf(good), (Bytes{1, 2, 3}));

    // Null out-variables are refused too.
    EXPECT_EQ(MSNewHandle(nullptr, 4), kGeneralError);
    ExpectReported("theHandle != NULL");
    EXPECT_EQ(MSNewPtr(nullptr, 4), kGeneralError);
    ExpectReported("thePtr != NULL");
    EXPECT_EQ(MSLockHandle(good, nullptr), kGeneralError);
    ExpectReported("theAddress != NULL");
    EXPECT_EQ(MSGrowHandle(nullptr, 4), kGeneralError);
    ExpectReported("theHandle != NULL");
    EXPECT_EQ(MSCloneHandle(good, nullptr), kGeneralError);
    ExpectReported("toHandle != NULL");
    EXPECT_EQ(MSNewHandle(&freed, 0x80000000u), kOutOfMemory);
    EXPECT_EQ(freed, nullptr);
    ExpectReported("theSize <= kMax_int32");
    // A double free is refused, not followed.
    MSHandle twice = nullptr;
    ASSERT_EQ(MSNewHandle(&twice, 1), kNoError);
    EXPECT_EQ(MSDisposeHandle(twice), kNoError);
    EXPECT_EQ(MSDisposeHandle(twice), kInvalidHandle);
    ExpectReported("MSValidHandle(theHandle)");
    MSDisposeHandle(good);
    MSDisposePtr(goodPtr);
}

// A model of every live block's bytes and lock count, driven by thousands of
// random operations; every block is compared with its model as it goes.
TEST_F(MemsysTest, RandomOperationsMatchAModelOfTheBlocks) {
    std::mt19937 random(20261122);
    std::map<MSHandle, Bytes> handles;
    std::map<MSHandle, int> locks;
    std::map<void*, Bytes> pointers;
    const auto pickHandle = [&]() {
        auto it = handles.begin();
        std::advance(it, random() % handles.size());
        return it->first;
    };
    const auto randomBytes = [&](std::size_t n) {
        Bytes b(n);
        for (auto& x : b) x = static_cast<std::uint8_t>(random());
        return b;
    };
    const auto randomSize = [&]() -> std::uint32_t {
        switch (random() % 4) {
            case 0: return 0;
            case 1: return random() % 8;
            case 2: return random() % 300;
            default: return random() % 5000;
        }
    };
    const auto rename = [&](MSHandle from, MSHandle to) {
        if (from == to) return;
        handles[to] = handles[from];
        locks[to] = locks[from];
        handles.erase(from);
        locks.erase(from);
    };

    for (int step = 0; step < 20000; ++step) {
        const int op = handles.empty() ? 0 : static_cast<int>(random() % 12);
        switch (op) {
            case 0: {  // new handle, holding random bytes
                const Bytes b = randomBytes(randomSize());
                MSHandle h = HandleHolding(b);
                handles[h] = b;
                locks[h] = 0;
                break;
            }
            case 1: {  // dispose
                MSHandle h = pickHandle();
                ASSERT_EQ(MSDisposeHandle(h), kNoError);
                handles.erase(h);
                locks.erase(h);
                break;
            }
            case 2: {  // resize
                MSHandle h = pickHandle();
                MSHandle before = h;
                const std::uint32_t size = randomSize();
                const int kind = static_cast<int>(random() % 3);
                const int e = kind == 0 ? MSResizeHandle(&h, size)
                                        : kind == 1 ? MSGrowHandle(&h, size) : MSShrinkHandle(&h, size);
                ASSERT_EQ(e, kNoError);
                rename(before, h);
                handles[h].resize(size, 0);  // grown bytes are unspecified: overwrite them
                if (size > 0) {
                    ASSERT_EQ(MSFillHandle(h, size, 0, 0x5A), kNoError);
                }
                std::fill(handles[h].begin(), handles[h].end(), 0x5A);
                break;
            }
            case 3: {  // fill a random range
                MSHandle h = pickHandle();
                Bytes& m = handles[h];
                const std::uint32_t off = m.empty() ? 0 : random() % m.size();
                const std::uint32_t amount = m.empty() ? 0 : random() % (m.size() - off + 1);
                const std::uint8_t byte = static_cast<std::uint8_t>(random());
                ASSERT_EQ(MSFillHandle(h, amount, off, byte), kNoError);
                std::fill(m.begin() + off, m.begin() + off + amount, byte);
                break;
            }
            case 4: {  // copy handle to handle
                MSHandle from = pickHandle();
                MSHandle to = pickHandle();
                MSHandle before = to;
                ASSERT_EQ(MSCopyHandleToHandle(from, &to), kNoError);
                const Bytes copy = handles[from];
                rename(before, to);
                handles[to] = copy;
                break;
            }
            case 5: {  // append
                MSHandle from = pickHandle();
                MSHandle to = pickHandle();
                MSHandle before = to;
                const Bytes tail = handles[from];
                if (handles[to].size() + tail.size() > 200000) break;
                ASSERT_EQ(MSAppendHandleToHandle(from, &to), kNoError);
                rename(before, to);
                handles[to].insert(handles[to].end(), tail.begin(), tail.end());
                break;
            }
            case 6: {  // clone
                MSHandle from = pickHandle();
                MSHandle clone = nullptr;
                ASSERT_EQ(MSCloneHandle(from, &clone), kNoError);
                handles[clone] = handles[from];
                locks[clone] = 0;
                break;
            }
            case 7: {  // lock or unlock
                MSHandle h = pickHandle();
                if (random() % 2 == 0 && locks[h] < 3) {
                    void* a = nullptr;
                    ASSERT_EQ(MSLockHandle(h, &a), kNoError);
                    ++locks[h];
                } else {
                    ASSERT_EQ(MSUnlockHandle(h), kNoError);
                    if (locks[h] > 0) --locks[h];
                }
                ASSERT_EQ(MSHandleIsLocked(h) != 0, locks[h] > 0);
                break;
            }
            case 8: {  // a handle's copy as a new pointer, and back
                MSHandle h = pickHandle();
                void* p = nullptr;
                ASSERT_EQ(MSCopyHandleToNewPtr(h, &p), kNoError);
                pointers[p] = handles[h];
                MSHandle to = pickHandle();
                MSHandle before = to;
                ASSERT_EQ(MSCopyPtrToHandle(p, &to), kNoError);
                rename(before, to);
                handles[to] = pointers[p];
                locks[to] = std::max(0, locks[to] - 1);  // one lock, two unlocks
                break;
            }
            case 9: {  // pointer resize or clone or dispose
                if (pointers.empty()) break;
                auto it = pointers.begin();
                std::advance(it, random() % pointers.size());
                void* p = it->first;
                Bytes model = it->second;
                pointers.erase(it);
                if (random() % 3 == 0) {
                    ASSERT_EQ(MSDisposePtr(p), kNoError);
                } else if (random() % 2 == 0) {
                    void* clone = nullptr;
                    ASSERT_EQ(MSClonePtr(p, &clone), kNoError);
                    pointers[clone] = model;
                    pointers[p] = model;
                } else {
                    const std::uint32_t size = randomSize();
                    ASSERT_EQ(MSResizePtr(&p, size), kNoError);
                    model.resize(std::min<std::size_t>(model.size(), size));
                    const Bytes prefix = ContentsOfPtr(p);
                    ASSERT_TRUE(std::equal(model.begin(), model.end(), prefix.begin()));
                    model = prefix;
                    pointers[p] = model;
                }
                break;
            }
            default: {  // verify one handle
                MSHandle h = pickHandle();
                ASSERT_EQ(ContentsOf(h), handles[h]);
                break;
            }
        }
        if (step % 1000 == 0) {
            for (auto& [h, model] : handles) ASSERT_EQ(ContentsOf(h), model);
            for (auto& [p, model] : pointers) ASSERT_EQ(ContentsOfPtr(p), model);
        }
    }
    for (auto& [h, model] : handles) {
        ASSERT_EQ(ContentsOf(h), model);
        ASSERT_EQ(MSDisposeHandle(h), kNoError);
    }
    for (auto& [p, model] : pointers) {
        ASSERT_EQ(ContentsOfPtr(p), model);
        ASSERT_EQ(MSDisposePtr(p), kNoError);
    }
}

}  // namespace
