// CRC-32C (Castagnoli), the checksum of pages and log frames.
#ifndef KAVO_ENGINE_CHECKSUM_H
#define KAVO_ENGINE_CHECKSUM_H

#include <cstddef>
#include <cstdint>

namespace engine {

// Continues a checksum over more bytes; start with crc = 0. Uses the
// processor's CRC instruction where there is one.
std::uint32_t Crc32c(std::uint32_t crc, const void* data, std::size_t length);
// The same from tables, on any processor.
std::uint32_t Crc32cPortable(std::uint32_t crc, const void* data, std::size_t length);

}  // namespace engine

#endif  // KAVO_ENGINE_CHECKSUM_H
