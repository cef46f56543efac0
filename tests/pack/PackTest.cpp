// Packing primitives: random images packed and read back, checked byte for
// byte, for the lock state that each call keeps and for the cut of
// UnpackString; and a failed resize in the middle of a chain of calls.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "MemSys/Win32/Memsys.h"
#include "Pack/Pack.h"
#include "tests/support/KavoTest.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

class PackTest : public kavotest::KavoTest {
protected:
    void SetUp() override { ASSERT_EQ(MSNewHandle(&fHandle, 0), kNoError); }
    void TearDown() override {
        if (fHandle != nullptr) MSDisposeHandle(fHandle);
        KavoTest::TearDown();
    }

    static Bytes ContentsOf(MSHandle h) {
        Bytes bytes(MSGetHandleSize(h));
        void* address = nullptr;
        MSLockHandle(h, &address);
        if (!bytes.empty()) std::memcpy(bytes.data(), address, bytes.size());
        MSUnlockHandle(h);
        return bytes;
    }

    static void AppendBigEndian(Bytes& to, std::uint32_t value, int size) {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8)
            to.push_back(static_cast<std::uint8_t>(value >> shift));
    }

    MSHandle fHandle = nullptr;
    std::uint32_t fLength = 0;
};

// The callers chain pack calls without testing them: after a failed resize
// the handle is null, the length stays, and the next calls fail quietly.
TEST_F(PackTest, AFailedResizeYieldsANullHandleAndTheChainFailsQuietly) {
    for (int i = 0; i < 100; ++i) fHandle = PackLong(fHandle, fLength, static_cast<std::uint32_t>(i));
    const std::vector<char> run(1 << 20, 'r');  // beyond the spare room: a reallocation
    memsys::RefuseSystemAllocationAfter(0);
    MSHandle h = PackBytes(fHandle, fLength, run.data(), static_cast<std::uint32_t>(run.size()));
    EXPECT_EQ(h, nullptr);
    h = PackLong(h, fLength, 7);
    h = PackString(h, fLength, "more");
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fLength, 400u);
    IgnoreReports();
    EXPECT_EQ(MSGetHandleSize(fHandle), 400u);
}

// Random images: each value is packed and, independently, appended to a
// model image by hand, big-endian; the two must agree byte for byte, and the
// value must read back from the model, through the signed readers too.
// Strings are read into buffers of random length, which keep at most one
// character less than their length. Between calls the handle is locked or
// unlocked now and then, and each call must leave it as it found it.
TEST_F(PackTest, RandomImagesRoundTrip) {
    std::mt19937 random(99);
    for (int round = 0; round < 200; ++round) {
        Bytes model;
        ASSERT_EQ(MSResizeHandle(&fHandle, 0), kNoError);
        fLength = 0;
        bool locked = false;
        for (auto count = random() % 60; count > 0; --count) {
            if (random() % 4 == 0) {
                void* address = nullptr;
                ASSERT_EQ(locked ? MSUnlockHandle(fHandle) : MSLockHandle(fHandle, &address), kNoError);
                locked = !locked;
            }
            const auto v = static_cast<std::uint32_t>(random());
            const std::size_t start = model.size();
            const auto packed = [&]() { return model.data() + start; };
            switch (random() % 5) {
                case 0: {
                    std::uint8_t c = 0;
                    char signedChar = 0;
                    fHandle = PackChar(fHandle, fLength, static_cast<std::uint8_t>(v));
                    AppendBigEndian(model, v, 1);
                    ASSERT_EQ(UnpackChar(packed(), &c) + UnpackChar(packed(), &signedChar), 2u);
                    ASSERT_EQ(c, static_cast<std::uint8_t>(v));
                    ASSERT_EQ(signedChar, static_cast<char>(v));
                    break;
                }
                case 1: {
                    std::uint16_t s = 0;
                    std::int16_t signedShort = 0;
                    fHandle = PackShort(fHandle, fLength, static_cast<std::uint16_t>(v));
                    AppendBigEndian(model, v, 2);
                    ASSERT_EQ(UnpackShort(packed(), &s) + UnpackShort(packed(), &signedShort), 4u);
                    ASSERT_EQ(s, static_cast<std::uint16_t>(v));
                    ASSERT_EQ(signedShort, static_cast<std::int16_t>(v));
                    break;
                }
                case 2: {
                    std::uint32_t l = 0;
                    std::int32_t signedLong = 0;
                    fHandle = PackLong(fHandle, fLength, v);
                    AppendBigEndian(model, v, 4);
                    ASSERT_EQ(UnpackLong(packed(), &l) + UnpackLong(packed(), &signedLong), 8u);
                    ASSERT_EQ(l, v);
                    ASSERT_EQ(signedLong, static_cast<std::int32_t>(v));
                    break;
                }
                case 3: {  // a string, read into a handle with a NUL and into a buffer that may be short
                    std::string text(v % 40, ' ');
                    for (char& c : text) c = static_cast<char>('a' + random() % 26);
                    fHandle = PackString(fHandle, fLength, text.c_str());
                    AppendBigEndian(model, static_cast<std::uint32_t>(text.size()), 4);
                    model.insert(model.end(), text.begin(), text.end());
                    MSHandle copy = nullptr;
                    ASSERT_EQ(UnpackStringToHandle(packed(), &copy), 4 + text.size());
                    EXPECT_EQ(ContentsOf(copy), Bytes(text.c_str(), text.c_str() + text.size() + 1));
                    MSDisposeHandle(copy);
                    const auto maxLen = static_cast<std::int16_t>(random() % 45);
                    std::string buffer(46, '#');
                    ASSERT_EQ(UnpackString(packed(), &buffer[0], maxLen), 4 + text.size());
                    ExpectReportedTimes("maxLen >= charsToUnpack",
                                        maxLen < std::int16_t(text.size()) ? 1 : 0);
                    std::string expected(46, '#');  // nothing is written when there is no room at all
                    const std::string kept = text.substr(0, std::max(0, maxLen - 1));
                    if (maxLen > 0) expected.replace(0, kept.size() + 1, kept + '\0');
                    ASSERT_EQ(buffer, expected);
                    break;
                }
                default: {  // a run; an empty one may come without bytes at all
                    Bytes run(v % 20);
                    for (auto& b : run) b = static_cast<std::uint8_t>(random());
                    const auto size = static_cast<std::uint32_t>(run.size());
                    fHandle = PackBytes(fHandle, fLength, run.empty() ? nullptr : run.data(), size);
                    model.insert(model.end(), run.begin(), run.end());
                    Bytes got(size);
                    ASSERT_EQ(UnpackBytes(packed(), got.data(), size), size);
                    ASSERT_EQ(got, run);
                }
            }
            ASSERT_NE(fHandle, nullptr);
            ASSERT_EQ(MSHandleIsLocked(fHandle) != 0, locked);
            ASSERT_EQ(fLength, model.size());
        }
        if (locked) MSUnlockHandle(fHandle);
        ASSERT_EQ(ContentsOf(fHandle), model);
    }
}

}  // namespace
