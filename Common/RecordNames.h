// Record names: at most 31 characters and a NUL, in a field of 32 bytes.
#ifndef KAVO_COMMON_RECORDNAMES_H
#define KAVO_COMMON_RECORDNAMES_H

#include <cstddef>

constexpr std::size_t kNameLength = 32;

#endif  // KAVO_COMMON_RECORDNAMES_H
