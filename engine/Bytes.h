// Little-endian numbers in the engine's pages and log frames: the file has the
// same bytes on every platform.
#ifndef KAVO_ENGINE_BYTES_H
#define KAVO_ENGINE_BYTES_H

#include <cstdint>

namespace engine {

inline std::uint16_t Get16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
inline std::uint32_t Get32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}
inline std::uint64_t Get64(const std::uint8_t* p) { return Get32(p) | std::uint64_t{Get32(p + 4)} << 32; }

inline void Put16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
inline void Put32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
inline void Put64(std::uint8_t* p, std::uint64_t v) {
    Put32(p, static_cast<std::uint32_t>(v));
    Put32(p + 4, static_cast<std::uint32_t>(v >> 32));
}

// Record numbers inside keys are big-endian, so that keys compare as bytes.
inline std::uint32_t GetBig32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}
inline void PutBig32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}

}  // namespace engine

#endif  // KAVO_ENGINE_BYTES_H
