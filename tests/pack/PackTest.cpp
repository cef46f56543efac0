// Packing primitives: the cut of UnpackString, a failed resize, and random
// images packed and read back, checked byte for byte and for the lock state
// that each call keeps.
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
        memsys::RefuseSystemAllocationAfter(-1);
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

    // A stored string: its count and its characters.
    static Bytes Stored(const std::string& text) {
        Bytes b;
        AppendBigEndian(b, static_cast<std::uint32_t>(text.size()), 4);
        b.insert(b.end(), text.begin(), text.end());
        return b;
    }

    MSHandle fHandle = nullptr;
    std::uint32_t fLength = 0;
};

TEST_F(PackTest, UnpackStringKeepsAtMostMaxLenMinusOneCharacters) {
    const Bytes forty = Stored(std::string(40, 'x'));
    char buffer[64];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(UnpackString(forty.data(), buffer, 32), 44u);
#if KAVO_ASSERTIONS
    ASSERT_EQ(Reports().size(), 1u);
    EXPECT_EQ(Reports()[0].fFile, "Pack/Pack.cpp");
#endif
    ExpectReported("maxLen >= charsToUnpack");
    EXPECT_EQ(std::string(buffer), std::string(31, 'x'));
    EXPECT_EQ(buffer[32], '#');

    const Bytes thirtyTwo = Stored(std::string(32, 'y'));
    EXPECT_EQ(UnpackString(thirtyTwo.data(), buffer, 32), 36u);  // no report: the count fits
    EXPECT_EQ(std::string(buffer), std::string(31, 'y'));

    // No room at all: nothing is written, the image is still consumed.
    const Bytes shortOne = Stored("ab");
    buffer[0] = '#';
    EXPECT_EQ(UnpackString(shortOne.data(), buffer, 0), 6u);
    ExpectReported("maxLen >= charsToUnpack");
    EXPECT_EQ(buffer[0], '#');
}

TEST_F(PackTest, AFailedResizeYieldsANullHandleAndTheChainFailsQuietly) {
    for (int i = 0; i < 100; ++i) fHandle = PackLong(fHandle, fLength, static_cast<std::uint32_t>(i));
    MSHandle keep = fHandle;
    const std::uint32_t length = fLength;
    // Force a reallocation: a long run of bytes beyond the spare room.
    std::vector<char> run(1 << 20, 'r');
    memsys::RefuseSystemAllocationAfter(0);
    MSHandle h = PackBytes(fHandle, fLength, run.data(), static_cast<std::uint32_t>(run.size()));
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fLength, length);
    // The callers chain without testing: the next calls see the null handle.
    h = PackLong(h, fLength, 7);
    h = PackString(h, fLength, "more");
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fLength, length);
    IgnoreReports();
    EXPECT_EQ(MSGetHandleSize(keep), length);
}

// Random images: each value is packed and, independently, appended to a
// model image by hand, big-endian; the two must agree byte for byte, and the
// value must read back from the model, through the signed readers too.
// Between calls the handle is locked or unlocked now and then, and each call
// must leave it as it found it.
TEST_F(PackTest, RandomImagesRoundTrip) {
    std::mt19937 random(99);
    for (int round = 0; round < 200; ++round) {
        Bytes model;
        MSDisposeHandle(fHandle);
        ASSERT_EQ(MSNewHandle(&fHandle, 0), kNoError);
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
                    fHandle = PackChar(fHandle, fLength, static_cast<std::uint8_t>(v));
                    AppendBigEndian(model, v, 1);
                    ASSERT_EQ(UnpackChar(packed(), &c), 1u);
                    ASSERT_EQ(c, static_cast<std::uint8_t>(v));
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
                case 3: {  // a string, read into a buffer and into a handle that ends in a NUL
                    std::string text(v % 40, ' ');
                    for (char& c : text) c = static_cast<char>('a' + random() % 26);
                    fHandle = PackString(fHandle, fLength, text.c_str());
                    const Bytes stored = Stored(text);
                    model.insert(model.end(), stored.begin(), stored.end());
                    char buffer[64];
                    ASSERT_EQ(UnpackString(packed(), buffer, sizeof buffer), stored.size());
                    ASSERT_EQ(std::string(buffer), text);
                    MSHandle copy = nullptr;
                    ASSERT_EQ(UnpackStringToHandle(packed(), &copy), stored.size());
                    EXPECT_EQ(ContentsOf(copy), Bytes(text.c_str(), text.c_str() + text.size() + 1));
                    MSDisposeHandle(copy);
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
