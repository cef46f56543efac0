// The input of the host-file fuzz target: a host file (its log inside it)
// and how to treat it, in one byte string.
//
//   byte 0      flags (kFuzz... below)
//   then        the host file
//
// Resealing recomputes the checksums of the host file's pages and of its
// log's frames after the fuzzer has changed them, so that its changes reach
// the structure checks behind the checksums instead of stopping at them.
#ifndef KAVO_TESTS_FUZZ_HOSTFILEFUZZINPUT_H
#define KAVO_TESTS_FUZZ_HOSTFILEFUZZINPUT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace kavofuzz {

constexpr std::uint8_t kFuzzResealPages = 0x01;
constexpr std::uint8_t kFuzzResealLog = 0x02;
constexpr std::uint8_t kFuzzReadOnly = 0x04;

struct TFuzzInput {
    std::uint8_t fFlags = 0;
    std::string fHost;
};

inline std::string EncodeFuzzInput(const TFuzzInput& input) {
    return std::string(1, static_cast<char>(input.fFlags)) + input.fHost;
}

// An empty input is an empty host file with no flags.
inline TFuzzInput DecodeFuzzInput(const std::uint8_t* data, std::size_t size) {
    TFuzzInput input;
    if (size == 0) return input;
    input.fFlags = data[0];
    input.fHost.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
    return input;
}

}  // namespace kavofuzz

#endif  // KAVO_TESTS_FUZZ_HOSTFILEFUZZINPUT_H
