#include "Pack/Pack.h"

#include <cstddef>
#include <cstring>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/Memsys.h"

namespace {

enum class FinalUnlock { kAsserted, kIgnored };

// Unlock, resize to make room for n more bytes, lock, store, and restore the
// lock state the handle had on entry.
MSHandle PackRun(MSHandle theHandle, std::uint32_t& length, const void* bytes, std::uint32_t n,
                 FinalUnlock finalUnlock) {
    const bool wasLocked = MSHandleIsLocked(theHandle) != 0;
    std::int16_t error = MSUnlockHandle(theHandle);
    KAVO_ASSERT(error == kNoError);
    if (std::uint64_t{length} + n > kMax_int32) return nullptr;
    if (MSResizeHandle(&theHandle, length + n) != kNoError) return nullptr;
    void* address = nullptr;
    error = MSLockHandle(theHandle, &address);
    KAVO_ASSERT(error == kNoError);
    if (error != kNoError) return nullptr;
    if (n != 0) std::memcpy(static_cast<unsigned char*>(address) + length, bytes, n);
    if (!wasLocked) {
        error = MSUnlockHandle(theHandle);
        if (finalUnlock == FinalUnlock::kAsserted) KAVO_ASSERT(error == kNoError);
    }
    length += n;
    return theHandle;
}

}  // namespace

MSHandle PackChar(MSHandle theHandle, std::uint32_t& length, std::uint8_t value) {
    return PackRun(theHandle, length, &value, 1, FinalUnlock::kIgnored);
}

MSHandle PackShort(MSHandle theHandle, std::uint32_t& length, std::uint16_t value) {
    const unsigned char bytes[2] = {static_cast<unsigned char>(value >> 8),
                                    static_cast<unsigned char>(value)};
    return PackRun(theHandle, length, bytes, sizeof bytes, FinalUnlock::kIgnored);
}

// Of the fixed-size packers only PackLong asserts its last unlock; the
// difference is old and harmless, and kept.
MSHandle PackLong(MSHandle theHandle, std::uint32_t& length, std::uint32_t value) {
    const unsigned char bytes[4] = {
        static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
        static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)};
    return PackRun(theHandle, length, bytes, sizeof bytes, FinalUnlock::kAsserted);
}

MSHandle PackBytes(MSHandle theHandle, std::uint32_t& length, const void* theBytes,
                   std::uint32_t theCount) {
    if (!KAVO_CHECK(theBytes != NULL || theCount == 0)) return nullptr;
    return PackRun(theHandle, length, theBytes, theCount, FinalUnlock::kIgnored);
}

MSHandle PackString(MSHandle theHandle, std::uint32_t& length, const char* theString) {
    if (!KAVO_CHECK(theString != NULL)) return nullptr;
    const bool wasLocked = MSHandleIsLocked(theHandle) != 0;
    const std::size_t textLength = std::strlen(theString);
    if (textLength > kMax_int32) return nullptr;
    const auto count = static_cast<std::uint32_t>(textLength);
    // The count's result is not tested here: a failure shows as a null
    // handle, which the following calls pass on.
    theHandle = PackLong(theHandle, length, count);
    std::int16_t error = kNoError;
    if (count == 0) {
        if (!wasLocked) {
            error = MSUnlockHandle(theHandle);
            KAVO_ASSERT(error == kNoError);
        }
        return theHandle;
    }
    error = MSUnlockHandle(theHandle);
    KAVO_ASSERT(error == kNoError);
    if (std::uint64_t{length} + count > kMax_int32) return nullptr;
    if (MSResizeHandle(&theHandle, length + count) != kNoError) return nullptr;
    void* address = nullptr;
    error = MSLockHandle(theHandle, &address);
    KAVO_ASSERT(error == kNoError);
    if (error != kNoError) return nullptr;
    std::memcpy(static_cast<unsigned char*>(address) + length, theString, count);
    if (!wasLocked) {
        error = MSUnlockHandle(theHandle);
        KAVO_ASSERT(error == kNoError);
    }
    length += count;
    return theHandle;
}

std::uint32_t UnpackChar(const unsigned char* source, std::uint8_t* result) {
    if (KAVO_CHECK(result != NULL)) *result = source[0];
    return 1;
}

std::uint32_t UnpackChar(const unsigned char* source, char* result) {
    if (KAVO_CHECK(result != NULL)) *result = static_cast<char>(source[0]);
    return 1;
}

std::uint32_t UnpackShort(const unsigned char* source, std::uint16_t* result) {
    if (KAVO_CHECK(result != NULL)) *result = static_cast<std::uint16_t>((source[0] << 8) | source[1]);
    return 2;
}

std::uint32_t UnpackShort(const unsigned char* source, std::int16_t* result) {
    std::uint16_t value = 0;
    const std::uint32_t consumed = UnpackShort(source, &value);
    if (result != nullptr) *result = static_cast<std::int16_t>(value);
    return consumed;
}

std::uint32_t UnpackLong(const unsigned char* source, std::uint32_t* result) {
    if (KAVO_CHECK(result != NULL)) {
        *result = (std::uint32_t{source[0]} << 24) | (std::uint32_t{source[1]} << 16) |
                  (std::uint32_t{source[2]} << 8) | std::uint32_t{source[3]};
    }
    return 4;
}

std::uint32_t UnpackLong(const unsigned char* source, std::int32_t* result) {
    std::uint32_t value = 0;
    const std::uint32_t consumed = UnpackLong(source, &value);
    if (result != nullptr) *result = static_cast<std::int32_t>(value);
    return consumed;
}

std::uint32_t UnpackStringToHandle(const unsigned char* source, MSHandle* theHandle) {
    if (!KAVO_CHECK(theHandle != NULL)) return 0;
    std::uint32_t count = 0;
    UnpackLong(source, &count);
    if (count >= kMax_int32) return 0;
    if (MSNewHandle(theHandle, count + 1) != kNoError) return 0;
    void* address = nullptr;
    std::int16_t error = MSLockHandle(*theHandle, &address);
    KAVO_ASSERT(error == kNoError);
    if (error != kNoError) return 0;
    std::memcpy(address, source + 4, count);
    static_cast<char*>(address)[count] = '\0';
    error = MSUnlockHandle(*theHandle);
    KAVO_ASSERT(error == kNoError);
    return 4 + count;
}

std::uint32_t UnpackString(const unsigned char* source, char* destination, std::int16_t maxLen) {
    std::uint32_t charsToUnpack = 0;
    UnpackLong(source, &charsToUnpack);
    KAVO_ASSERT_TEXT(std::int64_t{maxLen} >= std::int64_t{charsToUnpack}, "maxLen >= charsToUnpack");
    if (!KAVO_CHECK(destination != NULL) || maxLen <= 0) return 4 + charsToUnpack;
    std::uint32_t i = 0;
    while (i < charsToUnpack && std::int64_t{i} < maxLen - 1) {
        destination[i] = static_cast<char>(source[4 + i]);
        ++i;
    }
    destination[i] = '\0';
    return 4 + charsToUnpack;
}

std::uint32_t UnpackBytes(const unsigned char* source, void* destination, std::uint32_t theCount) {
    if (KAVO_CHECK(destination != NULL || theCount == 0) && theCount != 0)
        std::memcpy(destination, source, theCount);
    return theCount;
}
