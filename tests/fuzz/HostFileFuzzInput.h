// The input of the host-file fuzz target: a host file and, optionally, its
// log, in one byte string.
//
//   byte 0      flags (kFuzz... below)
//   bytes 1-4   length of the host file, little-endian (cut to what follows)
//   then        the host file, then the log
//
// Resealing recomputes the checksums of the host file's pages and of the
// log's frames (and of the page images inside them) after the fuzzer has
// changed them, so that its changes reach the structure checks behind the
// checksums instead of stopping at them.
#ifndef KAVO_TESTS_FUZZ_HOSTFILEFUZZINPUT_H
#define KAVO_TESTS_FUZZ_HOSTFILEFUZZINPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kavofuzz {

constexpr std::uint8_t kFuzzResealPages = 0x01;
constexpr std::uint8_t kFuzzResealLog = 0x02;
constexpr std::uint8_t kFuzzReadOnly = 0x04;
constexpr std::uint8_t kFuzzHasLog = 0x08;

struct TFuzzInput {
    std::uint8_t fFlags = 0;
    std::string fHost;
    std::string fLog;  // a log file only with kFuzzHasLog
};

inline std::string EncodeFuzzInput(const TFuzzInput& input) {
    std::string bytes(1, static_cast<char>(input.fFlags));
    const auto length = static_cast<std::uint32_t>(input.fHost.size());
    for (int i = 0; i < 4; ++i) bytes += static_cast<char>(length >> (8 * i));
    return bytes + input.fHost + input.fLog;
}

// Missing bytes of the flags and the length count as zeros.
inline TFuzzInput DecodeFuzzInput(const std::uint8_t* data, std::size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    bytes.resize(std::max<std::size_t>(size, 5), '\0');
    TFuzzInput input;
    input.fFlags = static_cast<std::uint8_t>(bytes[0]);
    std::uint32_t length = 0;
    for (int i = 0; i < 4; ++i) length |= std::uint32_t{static_cast<std::uint8_t>(bytes[1 + i])} << (8 * i);
    input.fHost = bytes.substr(5, length);
    input.fLog = bytes.substr(5 + input.fHost.size());
    return input;
}

}  // namespace kavofuzz

#endif  // KAVO_TESTS_FUZZ_HOSTFILEFUZZINPUT_H
