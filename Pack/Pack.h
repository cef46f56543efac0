// Packing primitives: numbers, strings and byte runs appended to a growing
// MSHandle in a platform-neutral image, and read back from a byte pointer.
//
// Numbers are stored big-endian whatever the host's byte order. A packed
// string is a 32-bit count followed by exactly that many characters, with no
// terminator. Nothing in an image describes itself: readers know the layout.
//
// Pack functions take the handle by value and the running length (bytes
// packed so far, where the next value goes) by reference. They return the
// handle, which may have a new value after the resize: always continue with
// the returned handle. A null result means the resize failed; the old handle
// is then no longer reachable through the result and the length is unchanged.
// The handle's lock state is the same after the call as before it.
//
// Unpack functions return the number of bytes consumed. They do not check the
// source length: the caller guarantees that the image is long enough.
#ifndef KAVO_PACK_PACK_H
#define KAVO_PACK_PACK_H

#include <cstdint>

#include "kavoDVDB.h"

MSHandle PackChar(MSHandle theHandle, std::uint32_t& length, std::uint8_t value);
MSHandle PackShort(MSHandle theHandle, std::uint32_t& length, std::uint16_t value);
MSHandle PackLong(MSHandle theHandle, std::uint32_t& length, std::uint32_t value);
// Packs the characters of a NUL-terminated text, without the terminator.
MSHandle PackString(MSHandle theHandle, std::uint32_t& length, const char* theString);
// Packs the bytes as they lie in memory; a count of 0 packs nothing.
MSHandle PackBytes(MSHandle theHandle, std::uint32_t& length, const void* theBytes,
                   std::uint32_t theCount);

std::uint32_t UnpackChar(const unsigned char* source, std::uint8_t* result);
std::uint32_t UnpackChar(const unsigned char* source, char* result);
std::uint32_t UnpackShort(const unsigned char* source, std::uint16_t* result);
std::uint32_t UnpackShort(const unsigned char* source, std::int16_t* result);
std::uint32_t UnpackLong(const unsigned char* source, std::uint32_t* result);
std::uint32_t UnpackLong(const unsigned char* source, std::int32_t* result);
// Makes a new handle of count + 1 bytes holding the characters and a NUL; the
// caller owns it. Returns 4 + count, or 0 when the handle could not be made.
std::uint32_t UnpackStringToHandle(const unsigned char* source, MSHandle* theHandle);
// Copies at most maxLen - 1 characters and a NUL into the buffer, so a string
// whose count equals maxLen loses its last character (kept as it is: stored
// images depend on it). Returns 4 + count: the whole stored string is
// consumed even when the copy was cut short.
std::uint32_t UnpackString(const unsigned char* source, char* destination, std::int16_t maxLen);
std::uint32_t UnpackBytes(const unsigned char* source, void* destination, std::uint32_t theCount);

#endif  // KAVO_PACK_PACK_H
