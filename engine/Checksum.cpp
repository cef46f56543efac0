#include "engine/Checksum.h"

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

}  // namespace

std::uint32_t Crc32c(std::uint32_t crc, const void* data, std::size_t length) {
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
