// The memory system: handles and pointers with their size header, checked
// against a reference model under random operation sequences, and misuse with
// null, freed and made-up values.
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <iterator>
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
        const auto* bytes = static_cast<const std::uint8_t*>(p);
        return Bytes(bytes, bytes + MSGetPtrSize(p));
    }

private:
    std::size_t fLiveAtStart = 0;
};

// The plain byte helpers: a move copies overlapping ranges as if through a
// buffer, the swaps reverse bytes, and null is refused.
TEST_F(MemsysTest, BlockMoveCopiesAsIfThroughABufferAndSwapsReverseBytes) {
    std::uint8_t bytes[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(MSBlockMove(bytes, bytes + 2, 6), kNoError);
    EXPECT_EQ(Bytes(bytes, bytes + 10), (Bytes{0, 1, 0, 1, 2, 3, 4, 5, 8, 9}));
    EXPECT_EQ(MSBlockMove(bytes + 3, bytes, 7), kNoError);
    EXPECT_EQ(Bytes(bytes, bytes + 10), (Bytes{1, 2, 3, 4, 5, 8, 9, 5, 8, 9}));
    EXPECT_EQ(MSBlockMove(nullptr, bytes, 0), kNoError);
    EXPECT_EQ(MSBlockMove(nullptr, bytes, 1), kGeneralError);
    ExpectReported("(from != NULL && to != NULL) || theCount == 0");

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
// made-up values, and a live block of the other kind, with its code and a
// report, and never touches the memory; so do those given a null variable
// for their answer or a size beyond 31 bits. MSRecoverHandle is not supported.
TEST_F(MemsysTest, BadHandlesAndPointersAreRefusedNeverFollowed) {
    MSHandle good = nullptr;
    ASSERT_EQ(MSNewHandle(&good, 0), kNoError);
    ASSERT_EQ(MSCopyBlockToHandle("\1\2\3", &good, 3), kNoError);
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
    // clang-format off
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
    // clang-format on
    const std::vector<std::pair<const char*, MSHandle>> badValues = {
        {"null", nullptr},
        {"freed handle", freed},
        {"freed pointer", freedPtr},
        {"made-up", fake + 8},
        {"odd", reinterpret_cast<MSHandle>(std::uintptr_t{0x1235})},
        {"other kind's", nullptr},
    };
    for (const Case& c : cases) {
        const bool takesHandle = std::string(c.fReport).rfind("MSValidHandle", 0) == 0;
        for (auto [what, bad] : badValues) {
            if (std::string(what) == "other kind's") bad = takesHandle ? goodPtr : good;
            SCOPED_TRACE(std::string(c.fName) + " with a " + what + " value");
            EXPECT_EQ(c.fCall(bad), c.fCode);
            // The first report is the refusal, named by the module's path under the source root.
            if (!Reports().empty()) {
                EXPECT_EQ(Reports()[0].fExpression + " in " + Reports()[0].fFile,
                          c.fReport + std::string(" in MemSys/Win32/Memsys.cpp"));
            }
            ExpectReportedTimes(c.fReport, 1);
            IgnoreReports();  // the checks after the first may report too
        }
    }
    EXPECT_EQ(ContentsOf(good), (Bytes{1, 2, 3}));
    EXPECT_EQ(ContentsOfPtr(goodPtr), Bytes(3, kNewGarbageByte));

    // clang-format off
    const std::vector<std::tuple<std::function<int()>, int, const char*>> nullAnswers = {
        {[&] { return MSNewHandle(&freed, 0x80000000u) + (freed == nullptr ? 0 : 99); }, kOutOfMemory, "theSize <= kMax_int32"},
        {[] { return MSNewHandle(nullptr, 4); }, kGeneralError, "theHandle != NULL"},
        {[] { return MSNewPtr(nullptr, 4); }, kGeneralError, "thePtr != NULL"},
        {[&] { return MSLockHandle(good, nullptr); }, kGeneralError, "theAddress != NULL"},
        {[] { return MSGrowHandle(nullptr, 4); }, kGeneralError, "theHandle != NULL"},
        {[&] { return MSCloneHandle(good, nullptr); }, kGeneralError, "toHandle != NULL"},
        {[] { return MSRecoverHandle(); }, kNoError, "FALSE"},
    };
    // clang-format on
    for (const auto& [call, code, report] : nullAnswers) {
        EXPECT_EQ(call(), code) << report;
        ExpectReportedTimes(report, 1);
    }
    MSDisposeHandle(good);
    MSDisposePtr(goodPtr);
}

// A model of every live block's bytes and lock count, driven by thousands of
// random operations, some of them refused by the system; every block is
// compared with its model as it goes. Handles and pointers share the shapes
// of most calls, so one table serves both.
TEST_F(MemsysTest, RandomOperationsMatchAModelOfTheBlocks) {
    struct Model {
        Bytes fBytes;
        int fLocks = 0;
    };
    enum { kHandle, kPointer };
    const decltype(&MSNewHandle) create[] = {MSNewHandle, MSNewPtr};
    const decltype(&MSDisposeHandle) dispose[] = {MSDisposeHandle, MSDisposePtr};
    const decltype(&MSFillHandle) fill[] = {MSFillHandle, MSFillPtr};
    const decltype(&MSCloneHandle) clone[] = {MSCloneHandle, MSClonePtr};
    const decltype(&MSResizeHandle) resize[][3] = {{MSResizeHandle, MSGrowHandle, MSShrinkHandle},
                                                   {MSResizePtr, MSGrowPtr, MSShrinkPtr}};
    const decltype(&ContentsOf) contents[] = {ContentsOf, ContentsOfPtr};
    std::mt19937 random(20261122);
    std::map<void*, Model> blocks[2];
    const auto pick = [&](int k) { return std::next(blocks[k].begin(), random() % blocks[k].size())->first; };
    const auto randomSize = [&]() -> std::uint32_t {
        const std::uint32_t limit = std::array<std::uint32_t, 4>{1, 8, 300, 5000}[random() % 4];
        return random() % limit;
    };
    // A block that a call gave a new value: its model follows it.
    const auto moved = [&](int k, void* from, void* to) -> Model& {
        if (from != to) {
            blocks[k][to] = blocks[k][from];
            blocks[k].erase(from);
        }
        return blocks[k][to];
    };
    // Runs a call with the system refusing its next allocation now and then.
    bool refused = false;
    const auto maybeRefused = [&](const std::function<std::int16_t()>& call) {
        refused = random() % 8 == 0;
        memsys::RefuseSystemAllocationAfter(refused ? 0 : -1);
        const std::int16_t e = call();
        memsys::RefuseSystemAllocationAfter(-1);
        return e;
    };
    const auto checkAll = [&]() {
        for (int k : {kHandle, kPointer})
            for (auto& [b, model] : blocks[k]) ASSERT_EQ(contents[k](b), model.fBytes);
    };

    for (int step = 0; step < 20000 && !HasFailure(); ++step) {
        const auto op = random() % 8;
        const int k = op < 5 && random() % 3 == 0 ? kPointer : kHandle;  // the later ones take handles
        auto& models = blocks[k];
        switch (models.empty() ? 0 : op) {
            case 0: {  // a new block of garbage bytes, then random ones
                Bytes bytes(randomSize());
                for (auto& x : bytes) x = static_cast<std::uint8_t>(random());
                const auto size = static_cast<std::uint32_t>(bytes.size());
                void* b = &b;
                const std::int16_t e = maybeRefused([&] { return create[k](&b, size); });
                if (refused) {  // the variable is null; a pointer's fill still runs and reports it
                    ASSERT_EQ(e, kOutOfMemory);
                    ASSERT_EQ(MSLastError(), kOutOfMemory);
                    ASSERT_EQ(b, nullptr);
                    ExpectReportedTimes("MSValidPtr(thePtr)", k == kPointer ? 1 : 0);
                    break;
                }
                ASSERT_EQ(e, kNoError);
                ASSERT_EQ(contents[k](b), Bytes(size, kNewGarbageByte));
                if (k == kHandle) {
                    ASSERT_EQ(MSCopyBlockToHandle(bytes.data(), &b, size), kNoError);
                } else {
                    // The size header sits right in front of the data, in machine byte order.
                    ASSERT_EQ(std::memcmp(static_cast<std::uint8_t*>(b) - 4, &size, 4), 0);
                    std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(b));
                }
                models[b] = {bytes, 0};
                break;
            }
            case 1: {
                void* const b = pick(k);
                ASSERT_EQ(dispose[k](b), kNoError);
                models.erase(b);
                break;
            }
            case 2: {  // a resize of either kind
                void* b = pick(k);
                void* const before = b;
                const Bytes old = models[b].fBytes;
                const std::uint32_t size = randomSize();
                const auto kind = random() % 3;
                const std::int16_t e = maybeRefused([&] { return resize[k][kind](&b, size); });
                if (e != kNoError) {
                    // A handle's variable is now null, a pointer's as it was; the block is intact.
                    ASSERT_TRUE(refused);
                    ASSERT_EQ(e, kind == 1 || (kind == 0 && size > old.size()) ? kCannotGrow : kCannotShrink);
                    ASSERT_EQ(MSLastError(), e);
                    ASSERT_EQ(b, k == kHandle ? nullptr : before);
                    ASSERT_EQ(contents[k](before), old);
                    break;
                }
                // What remains of the old bytes is kept; grown ones are unspecified.
                const Bytes now = contents[k](b);
                ASSERT_EQ(now.size(), size);
                ASSERT_TRUE(
                    std::equal(now.begin(), now.begin() + std::min(now.size(), old.size()), old.begin()));
                moved(k, before, b).fBytes = now;
                break;
            }
            case 3: {  // a fill of a random range, now and then too long, or so long that it would wrap
                void* const b = pick(k);
                Bytes& m = models[b].fBytes;
                const std::uint32_t off = random() % (m.size() + 1);
                const std::uint32_t amount =
                    random() % 16 == 0 ? 0xFFFFFFFFu : random() % (m.size() - off + 2);
                const auto byte = static_cast<std::uint8_t>(random());
                const bool fits = std::uint64_t{off} + amount <= m.size();
                ASSERT_EQ(fill[k](b, amount, off, byte), fits ? kNoError : kGeneralError);
                if (fits) std::fill(m.begin() + off, m.begin() + off + amount, byte);
                ExpectReportedTimes("size >= (theAmount + theOffset)", fits ? 0 : 1);
                break;
            }
            case 4: {
                void* const from = pick(k);
                void* copy = nullptr;
                ASSERT_EQ(clone[k](from, &copy), kNoError);
                models[copy] = {models[from].fBytes, 0};
                break;
            }
            case 5: {  // a copy or an append of a handle, maybe of itself, or a copy of a range of its own
                       // bytes
                const MSHandle from = pick(kHandle);
                MSHandle to = pick(kHandle);
                const MSHandle before = to;
                const Bytes& old = models[to].fBytes;
                const auto how = random() % 3;
                const std::uint32_t off = random() % (old.size() + 1);
                const Bytes range(old.begin() + off, old.begin() + off + random() % (old.size() - off + 1));
                Bytes result = how == 2 ? range : models[from].fBytes;
                if (how == 1) result.insert(result.begin(), old.begin(), old.end());
                if (result.size() > 200000) break;
                void* own = nullptr;
                ASSERT_EQ(MSLockHandle(to, &own), kNoError);
                const std::int16_t e = maybeRefused([&] {
                    return how == 0   ? MSCopyHandleToHandle(from, &to)
                           : how == 1 ? MSAppendHandleToHandle(from, &to)
                                      : MSCopyBlockToHandle(static_cast<std::uint8_t*>(own) + off, &to,
                                                            static_cast<std::uint32_t>(range.size()));
                });
                ASSERT_EQ(MSUnlockHandle(e == kNoError ? to : before), kNoError);
                if (e != kNoError) {  // the destination could not be resized and is as it was
                    ASSERT_TRUE(refused);
                    ASSERT_EQ(e, kDestNotResized);
                    ASSERT_EQ(ContentsOf(before), models[before].fBytes);
                    IgnoreReports();  // a refused scratch copy of the own bytes reports its null pointer
                    break;
                }
                moved(kHandle, before, to).fBytes = result;
                break;
            }
            case 6: {  // a lock or an unlock: counts stop at zero
                const MSHandle h = pick(kHandle);
                int& locks = models[h].fLocks;
                void* address = nullptr;
                const bool lock = random() % 2 == 0 && locks < 3;
                ASSERT_EQ(lock ? MSLockHandle(h, &address) : MSUnlockHandle(h), kNoError);
                locks = std::max(0, locks + (lock ? 1 : -1));
                ASSERT_EQ(MSHandleIsLocked(h) != 0, locks > 0);
                break;
            }
            default: {  // a handle's copy as a new pointer; a pointer's copy into a handle unlocks twice
                const MSHandle from = pick(kHandle);
                void* p = nullptr;
                ASSERT_EQ(MSCopyHandleToNewPtr(from, &p), kNoError);
                blocks[kPointer][p] = {models[from].fBytes, 0};
                p = pick(kPointer);
                MSHandle to = pick(kHandle);
                const MSHandle before = to;
                ASSERT_EQ(MSCopyPtrToHandle(p, &to), kNoError);
                Model& m = moved(kHandle, before, to);
                m.fBytes = blocks[kPointer][p].fBytes;
                m.fLocks = std::max(0, m.fLocks - 1);
                ASSERT_EQ(MSHandleIsLocked(to) != 0, m.fLocks > 0);
                break;
            }
        }
        if (step % 500 == 0) checkAll();
    }
    checkAll();
    for (int k : {kHandle, kPointer}) {
        for (auto& [b, model] : blocks[k]) EXPECT_EQ(dispose[k](b), kNoError);
    }
}

}  // namespace
