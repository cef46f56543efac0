// Packing primitives: the exact big-endian image, the lock state kept across
// a call, the cut of UnpackString, and random images packed and read back.
#include <cstring>
#include <random>
#include <string>
#include <variant>
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

    Bytes Image() {
        Bytes bytes(MSGetHandleSize(fHandle));
        void* address = nullptr;
        MSLockHandle(fHandle, &address);
        if (!bytes.empty()) std::memcpy(bytes.data(), address, bytes.size());
        MSUnlockHandle(fHandle);
        return bytes;
    }

    static Bytes Stored(std::uint32_t count, const std::string& text) {
        Bytes b = {static_cast<std::uint8_t>(count >> 24), static_cast<std::uint8_t>(count >> 16),
                   static_cast<std::uint8_t>(count >> 8), static_cast<std::uint8_t>(count)};
        b.insert(b.end(), text.begin(), text.end());
        return b;
    }

    MSHandle fHandle = nullptr;
    std::uint32_t fLength = 0;
};

TEST_F(PackTest, NumbersAreStoredBigEndian) {
    fHandle = PackChar(fHandle, fLength, 0xAB);
    fHandle = PackShort(fHandle, fLength, 0x1234);
    fHandle = PackLong(fHandle, fLength, 0x01020304);
    fHandle = PackLong(fHandle, fLength, static_cast<std::uint32_t>(-2));
    ASSERT_NE(fHandle, nullptr);
    EXPECT_EQ(fLength, 11u);
    const Bytes image = Image();
    EXPECT_EQ(image, (Bytes{0xAB, 0x12, 0x34, 1, 2, 3, 4, 0xFF, 0xFF, 0xFF, 0xFE}));

    std::uint8_t c = 0;
    std::uint16_t s = 0;
    std::uint32_t l = 0;
    std::int32_t negative = 0;
    EXPECT_EQ(UnpackChar(image.data(), &c), 1u);
    EXPECT_EQ(UnpackShort(image.data() + 1, &s), 2u);
    EXPECT_EQ(UnpackLong(image.data() + 3, &l), 4u);
    EXPECT_EQ(UnpackLong(image.data() + 7, &negative), 4u);
    EXPECT_EQ(c, 0xAB);
    EXPECT_EQ(s, 0x1234);
    EXPECT_EQ(l, 0x01020304u);
    EXPECT_EQ(negative, -2);
}

TEST_F(PackTest, StringsAreACountAndTheCharacters) {
    fHandle = PackString(fHandle, fLength, "");
    fHandle = PackString(fHandle, fLength, "Hi!");
    fHandle = PackBytes(fHandle, fLength, "DVC ", 4);
    fHandle = PackBytes(fHandle, fLength, nullptr, 0);
    ASSERT_NE(fHandle, nullptr);
    Bytes expected = Stored(0, "");
    const Bytes hi = Stored(3, "Hi!");
    expected.insert(expected.end(), hi.begin(), hi.end());
    expected.insert(expected.end(), {'D', 'V', 'C', ' '});
    EXPECT_EQ(Image(), expected);
    EXPECT_EQ(fLength, expected.size());

    MSHandle text = nullptr;
    EXPECT_EQ(UnpackStringToHandle(expected.data(), &text), 4u);
    EXPECT_EQ(MSGetHandleSize(text), 1u);
    void* address = nullptr;
    MSLockHandle(text, &address);
    EXPECT_EQ(static_cast<char*>(address)[0], '\0');
    MSUnlockHandle(text);
    MSDisposeHandle(text);
    EXPECT_EQ(UnpackStringToHandle(expected.data() + 4, &text), 7u);
    MSLockHandle(text, &address);
    EXPECT_STREQ(static_cast<char*>(address), "Hi!");
    MSUnlockHandle(text);
    MSDisposeHandle(text);
}

TEST_F(PackTest, UnpackStringKeepsAtMostMaxLenMinusOneCharacters) {
    const Bytes forty = Stored(40, std::string(40, 'x'));
    char buffer[64];
    std::memset(buffer, '#', sizeof buffer);
    EXPECT_EQ(UnpackString(forty.data(), buffer, 32), 44u);
    ExpectReported("maxLen >= charsToUnpack");
    EXPECT_EQ(std::string(buffer), std::string(31, 'x'));
    EXPECT_EQ(buffer[32], '#');

    const Bytes thirtyTwo = Stored(32, std::string(32, 'y'));
    EXPECT_EQ(UnpackString(thirtyTwo.data(), buffer, 32), 36u);  // no report: the count fits
    EXPECT_EQ(std::string(buffer), std::string(31, 'y'));

    const Bytes shortOne = Stored(2, "ab");
    EXPECT_EQ(UnpackString(shortOne.data(), buffer, 32), 6u);
    EXPECT_STREQ(buffer, "ab");
    // No room at all: nothing is written, the image is still consumed.
    buffer[0] = '#';
    EXPECT_EQ(UnpackString(shortOne.data(), buffer, 0), 6u);
    ExpectReported("maxLen >= charsToUnpack");
    EXPECT_EQ(buffer[0], '#');
}

TEST_F(PackTest, ACallKeepsTheHandlesLockState) {
    void* address = nullptr;
    MSLockHandle(fHandle, &address);
    fHandle = PackLong(fHandle, fLength, 1);
    fHandle = PackShort(fHandle, fLength, 2);
    fHandle = PackString(fHandle, fLength, "abc");
    fHandle = PackString(fHandle, fLength, "");
    EXPECT_TRUE(MSHandleIsLocked(fHandle));
    MSUnlockHandle(fHandle);
    EXPECT_FALSE(MSHandleIsLocked(fHandle));
    fHandle = PackChar(fHandle, fLength, 3);
    fHandle = PackBytes(fHandle, fLength, "z", 1);
    fHandle = PackString(fHandle, fLength, "");
    EXPECT_FALSE(MSHandleIsLocked(fHandle));
    EXPECT_EQ(fLength, 4u + 2 + 7 + 4 + 1 + 1 + 4);
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

TEST_F(PackTest, ReportsComeFromThePackModule) {
    char buffer[4];
    const Bytes five = Stored(5, "abcde");
    UnpackString(five.data(), buffer, 4);
#if KAVO_ASSERTIONS
    ASSERT_EQ(Reports().size(), 1u);
    EXPECT_EQ(Reports()[0].fFile, "Pack/Pack.cpp");
#endif
    ExpectReported("maxLen >= charsToUnpack");
}

// Random images: each value is packed and, independently, appended to a
// model image by hand; the two must agree byte for byte, and reading the image
// back must give every value again.
TEST_F(PackTest, RandomImagesRoundTrip) {
    std::mt19937 random(99);
    using Value = std::variant<std::uint8_t, std::uint16_t, std::uint32_t, std::string, Bytes>;
    for (int round = 0; round < 200; ++round) {
        std::vector<Value> values;
        Bytes model;
        MSDisposeHandle(fHandle);
        ASSERT_EQ(MSNewHandle(&fHandle, 0), kNoError);
        fLength = 0;
        const int count = static_cast<int>(random() % 60);
        for (int i = 0; i < count; ++i) {
            switch (random() % 5) {
                case 0: {
                    const auto v = static_cast<std::uint8_t>(random());
                    fHandle = PackChar(fHandle, fLength, v);
                    model.push_back(v);
                    values.emplace_back(v);
                    break;
                }
                case 1: {
                    const auto v = static_cast<std::uint16_t>(random());
                    fHandle = PackShort(fHandle, fLength, v);
                    model.insert(model.end(), {std::uint8_t(v >> 8), std::uint8_t(v)});
                    values.emplace_back(v);
                    break;
                }
                case 2: {
                    const auto v = static_cast<std::uint32_t>(random());
                    fHandle = PackLong(fHandle, fLength, v);
                    model.insert(model.end(), {std::uint8_t(v >> 24), std::uint8_t(v >> 16),
                                               std::uint8_t(v >> 8), std::uint8_t(v)});
                    values.emplace_back(v);
                    break;
                }
                case 3: {
                    std::string text(random() % 40, ' ');
                    for (char& c : text) c = static_cast<char>('a' + random() % 26);
                    fHandle = PackString(fHandle, fLength, text.c_str());
                    const Bytes stored = Stored(static_cast<std::uint32_t>(text.size()), text);
                    model.insert(model.end(), stored.begin(), stored.end());
                    values.emplace_back(text);
                    break;
                }
                default: {
                    Bytes run(random() % 20);
                    for (auto& b : run) b = static_cast<std::uint8_t>(random());
                    fHandle = PackBytes(fHandle, fLength, run.data(), static_cast<std::uint32_t>(run.size()));
                    model.insert(model.end(), run.begin(), run.end());
                    values.emplace_back(run);
                    break;
                }
            }
            ASSERT_NE(fHandle, nullptr);
        }
        ASSERT_EQ(fLength, model.size());
        const Bytes image = Image();
        ASSERT_EQ(image, model);

        std::size_t at = 0;
        for (const Value& value : values) {
            if (const auto* c = std::get_if<std::uint8_t>(&value)) {
                std::uint8_t v = 0;
                at += UnpackChar(image.data() + at, &v);
                ASSERT_EQ(v, *c);
            } else if (const auto* s = std::get_if<std::uint16_t>(&value)) {
                std::uint16_t v = 0;
                at += UnpackShort(image.data() + at, &v);
                ASSERT_EQ(v, *s);
            } else if (const auto* l = std::get_if<std::uint32_t>(&value)) {
                std::uint32_t v = 0;
                at += UnpackLong(image.data() + at, &v);
                ASSERT_EQ(v, *l);
            } else if (const auto* text = std::get_if<std::string>(&value)) {
                char buffer[64];
                at += UnpackString(image.data() + at, buffer, sizeof buffer);
                ASSERT_EQ(std::string(buffer), *text);
            } else {
                const Bytes& run = std::get<Bytes>(value);
                Bytes v(run.size());
                at += UnpackBytes(image.data() + at, v.data(), static_cast<std::uint32_t>(v.size()));
                ASSERT_EQ(v, run);
            }
        }
        ASSERT_EQ(at, image.size());
    }
}

}  // namespace
