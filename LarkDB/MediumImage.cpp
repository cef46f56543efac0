#include "LarkDB/MediumImage.h"

#include <cstring>

#include "Common/Kavoassert.h"
#include "LarkDB/TAnalogMedium.h"
#include "LarkDB/Tmedium.h"
#include "Pack/Pack.h"

uint32_t UnpackCString(const unsigned char* at, CString* text) {
    uint32_t count = 0;
    UnpackLong(at, &count);
    MSHandle handle = nullptr;
    const uint32_t read = UnpackStringToHandle(at, &handle);
    if (!KAVO_CHECK_TEXT(read != 0, "error == kNoError")) {
        text->Assign("");
        return 4 + count;
    }
    void* address = nullptr;
    int16_t error = MSLockHandle(handle, &address);
    KAVO_ASSERT(error == kNoError);
    if (error == kNoError) {
        KAVO_CHECK_TEXT(text->Assign(static_cast<const char*>(address), count), "error == kNoError");
        error = MSUnlockHandle(handle);
        KAVO_ASSERT(error == kNoError);
    }
    error = MSDisposeHandle(handle);
    KAVO_ASSERT(error == kNoError);
    return read;
}

uint32_t PackedStringSpan(const unsigned char* bytes, uint32_t length, uint32_t at, uint32_t most) {
    if (at > length || length - at < 4) return 0;
    uint32_t count = 0;
    UnpackLong(bytes + at, &count);
    if (count > most || count > length - at - 4) return 0;
    return 4 + count;
}

uint32_t MediumImageLength(const unsigned char* bytes, uint32_t length, MediumKind* kind) {
    constexpr uint32_t kFixedHead = 4 + 4 * 4;            // kind, version, flags, ID, creator
    constexpr uint32_t kFixedTail = 8 + 7 + 7 + 12 + 12;  // rectangle, dates, time codes
    if (bytes == nullptr || length < 4) return 0;
    if (kind != nullptr) std::memcpy(kind->code, bytes, 4);
    if (length < kFixedHead) return 0;
    // The record name is read back into 32 bytes: a longer one is damage.
    uint32_t at = kFixedHead;
    uint32_t span = PackedStringSpan(bytes, length, at, kNameLength);
    for (int string = 0; string < 3 && span != 0; ++string) {
        at += span;
        span = PackedStringSpan(bytes, length, at);
    }
    if (span == 0) return 0;
    at += span;
    if (length - at < kFixedTail) return 0;
    at += kFixedTail;
    uint32_t tail = 0;
    if (std::memcmp(bytes, kMooVMediumKind, 4) == 0 || std::memcmp(bytes, kPictureMediumKind, 4) == 0) {
        tail = 4;
    } else if (std::memcmp(bytes, kAnalogMediumKind, 4) == 0) {
        tail = 8;
    } else if (std::memcmp(bytes, kPlainMediumKind, 4) != 0) {
        return 0;
    }
    return length - at < tail ? 0 : at + tail;
}

uint32_t TapeInfoImageLength(const unsigned char* bytes, uint32_t length) {
    constexpr uint32_t kFixedPart = 16;  // version, plug kind, tape ID, create date
    if (bytes == nullptr || length < kFixedPart) return 0;
    uint32_t at = kFixedPart;
    for (int string = 0; string < 4; ++string) {
        const uint32_t span = PackedStringSpan(bytes, length, at);
        if (span == 0) return 0;
        at += span;
    }
    return at;
}

void UnpackTapeInfoRest(const unsigned char* image, LocatorRecord* record) {
    uint32_t value = 0;
    UnpackLong(image + 8, &value);
    std::memcpy(record->fTapeID, &value, 4);
    UnpackLong(image + 12, &record->fCreateDate);
    uint32_t at = 16;
    at += UnpackCString(image + at, &record->fTapeName);
    at += UnpackCString(image + at, &record->fDescription);
    at += UnpackCString(image + at, &record->fEnteredBy);
    UnpackCString(image + at, &record->fShooter);
}

namespace {

// The strings from at on, then a 16-bit count of 32-bit IDs after fixed
// bytes: the whole length, or 0.
uint32_t StringsThenIDs(const unsigned char* bytes, uint32_t length, uint32_t at, int strings,
                        uint32_t firstMost, uint32_t fixed) {
    for (int string = 0; string < strings; ++string) {
        const uint32_t span = PackedStringSpan(bytes, length, at, string == 0 ? firstMost : UINT32_MAX);
        if (span == 0) return 0;
        at += span;
    }
    if (length - at < fixed + 2) return 0;
    at += fixed;
    const uint32_t count = (uint32_t{bytes[at]} << 8) | bytes[at + 1];
    at += 2;
    if ((length - at) / 4 < count) return 0;
    return at + 4 * count;
}

}  // namespace

uint32_t SceneImageLength(const unsigned char* bytes, uint32_t length) {
    // Version, flags, ID; the record name (read back into 32 bytes),
    // description, author, title; the current take index.
    if (bytes == nullptr || length < 12) return 0;
    return StringsThenIDs(bytes, length, 12, 4, kNameLength, 2);
}

uint32_t StoryImageLength(const unsigned char* bytes, uint32_t length) {
    // Version, flags, creator; description, author, title; the rectangle
    // and the two dates.
    if (bytes == nullptr || length < 12) return 0;
    return StringsThenIDs(bytes, length, 12, 3, UINT32_MAX, 8 + 7 + 7);
}
