// The page and frame checksum: the standard check value, and the processor's
// instruction agreeing with the tables on every length and alignment.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "engine/Checksum.h"

TEST(ChecksumTest, MatchesTheStandardCheckValueAndTheTables) {
    EXPECT_EQ(engine::Crc32c(0, "123456789", 9), 0xE3069283u);
    std::mt19937 random(5);
    std::vector<std::uint8_t> bytes(5000);
    for (auto& b : bytes) b = static_cast<std::uint8_t>(random());
    for (int round = 0; round < 500; ++round) {
        const std::size_t from = random() % 64;
        const std::size_t length = random() % (bytes.size() - from);
        const std::uint32_t seed = random();
        ASSERT_EQ(engine::Crc32c(seed, bytes.data() + from, length),
                  engine::Crc32cPortable(seed, bytes.data() + from, length));
    }
    // Continuing over a second piece equals one pass over both.
    EXPECT_EQ(engine::Crc32c(engine::Crc32c(0, bytes.data(), 100), bytes.data() + 100, 900),
              engine::Crc32c(0, bytes.data(), 1000));
}
