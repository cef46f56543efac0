#include "engine/Checksum.h"

#include <cstring>

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <nmmintrin.h>
#define KAVO_HARDWARE_CRC 1
#endif

namespace engine {
namespace {

// Eight tables let the loop take eight bytes per step ("slicing by 8").
struct TCrcTables {
    std::uint32_t fTable[8][256];

    TCrcTables() {
        for (std::uint32_t i = 0; i < 256; ++i) {
            std::uint32_t crc = i;
            for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0x82F63B78u & (0u - (crc & 1u)));
            fTable[0][i] = crc;
        }
        for (std::uint32_t i = 0; i < 256; ++i) {
            for (int t = 1; t < 8; ++t) fTable[t][i] = (fTable[t - 1][i] >> 8) ^ fTable[0][fTable[t - 1][i] & 0xFF];
        }
    }
};

const TCrcTables& Tables() {
    static const TCrcTables tables;
    return tables;
}

#if KAVO_HARDWARE_CRC
#if defined(__x86_64__)
// The instruction takes three cycles to give its result but can start one
// every cycle, so long buffers run as three interleaved lanes of kLane bytes
// whose checksums are then joined: the register is linear in its state and
// the bytes, so the first lane's state, advanced over kLane zero bytes, XOR
// the second's (begun at zero) is the state after both.
constexpr std::size_t kLane = 256;

// Advancing a state over kLane zero bytes, one table per byte of the state.
struct TLaneShift {
    std::uint32_t fTable[4][256];

    __attribute__((target("sse4.2"))) TLaneShift() {
        for (int byte = 0; byte < 4; ++byte) {
            for (std::uint32_t value = 0; value < 256; ++value) {
                std::uint64_t state = value << (8 * byte);
                for (std::size_t i = 0; i < kLane; i += 8) state = _mm_crc32_u64(state, 0);
                fTable[byte][value] = static_cast<std::uint32_t>(state);
            }
        }
    }

    std::uint64_t Shift(std::uint64_t state) const {
        return fTable[0][state & 0xFF] ^ fTable[1][(state >> 8) & 0xFF] ^ fTable[2][(state >> 16) & 0xFF] ^
               fTable[3][(state >> 24) & 0xFF];
    }
};
#endif

// The processor's own CRC-32C instruction, where it has one: several times
// faster than the tables, and every page read from the file is checked.
__attribute__((target("sse4.2"))) std::uint32_t HardwareCrc32c(std::uint32_t crc, const std::uint8_t* p,
                                                                std::size_t length) {
    crc = ~crc;
#if defined(__x86_64__)
    if (length >= 3 * kLane) {
        static const TLaneShift shift;
        std::uint64_t first = crc;
        do {
            std::uint64_t second = 0;
            std::uint64_t third = 0;
            for (std::size_t i = 0; i < kLane; i += 8) {
                std::uint64_t words[3];
                std::memcpy(&words[0], p + i, 8);
                std::memcpy(&words[1], p + kLane + i, 8);
                std::memcpy(&words[2], p + 2 * kLane + i, 8);
                first = _mm_crc32_u64(first, words[0]);
                second = _mm_crc32_u64(second, words[1]);
                third = _mm_crc32_u64(third, words[2]);
            }
            first = shift.Shift(shift.Shift(first) ^ second) ^ third;
            p += 3 * kLane;
            length -= 3 * kLane;
        } while (length >= 3 * kLane);
        crc = static_cast<std::uint32_t>(first);
    }
    while (length >= 8) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        crc = static_cast<std::uint32_t>(_mm_crc32_u64(crc, word));
        p += 8;
        length -= 8;
    }
#endif
    while (length >= 4) {
        std::uint32_t word;
        std::memcpy(&word, p, 4);
        crc = _mm_crc32_u32(crc, word);
        p += 4;
        length -= 4;
    }
    while (length-- != 0) crc = _mm_crc32_u8(crc, *p++);
    return ~crc;
}

bool HasHardwareCrc() {
    static const bool has = __builtin_cpu_supports("sse4.2");
    return has;
}
#endif

}  // namespace

std::uint32_t Crc32c(std::uint32_t crc, const void* data, std::size_t length) {
#if KAVO_HARDWARE_CRC
    if (HasHardwareCrc()) return HardwareCrc32c(crc, static_cast<const std::uint8_t*>(data), length);
#endif
    return Crc32cPortable(crc, data, length);
}

std::uint32_t Crc32cPortable(std::uint32_t crc, const void* data, std::size_t length) {
    const auto& t = Tables().fTable;
    const auto* p = static_cast<const std::uint8_t*>(data);
    crc = ~crc;
    while (length >= 8) {
        const std::uint32_t low = (std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
                                   std::uint32_t{p[3]} << 24) ^ crc;
        crc = t[7][low & 0xFF] ^ t[6][(low >> 8) & 0xFF] ^ t[5][(low >> 16) & 0xFF] ^ t[4][low >> 24] ^
              t[3][p[4]] ^ t[2][p[5]] ^ t[1][p[6]] ^ t[0][p[7]];
        p += 8;
        length -= 8;
    }
    while (length-- != 0) crc = (crc >> 8) ^ t[0][(crc ^ *p++) & 0xFF];
    return ~crc;
}

}  // namespace engine
