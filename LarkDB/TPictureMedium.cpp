#include "LarkDB/TPictureMedium.h"

#include <cstring>

#include "Common/Kavoassert.h"
#include "Pack/Pack.h"

TPictureMedium::TPictureMedium(const char* name, uint32_t flags) : TMedium(name, flags), fPictureVersion(1) {
    KAVO_ASSERT_TEXT(name != nullptr && std::strlen(name) < kNameLength, "strlen(name) < kNameLength");
    std::memcpy(fKind.code, kPictureMediumKind, 4);
}

TPictureMedium::TPictureMedium(const TPictureMedium& other)
    : TMedium(other), fPictureVersion(other.fPictureVersion) {}

TPictureMedium& TPictureMedium::operator=(const TPictureMedium& other) {
    TMedium::operator=(other);
    fPictureVersion = other.fPictureVersion;
    return *this;
}

TPictureMedium::~TPictureMedium() { ReleaseSideBlocks(); }

// The changers store nothing; the getters are TMedium's.
#define KAVO_INERT_CHANGER(Name)                                        \
    int16_t TPictureMedium::Change##Name(TimeCodeRecord* timeCode) {    \
        (void)timeCode;                                                 \
        return kNoError;                                                \
    }
KAVO_INERT_CHANGER(TrimStart)
KAVO_INERT_CHANGER(TrimEnd)
KAVO_INERT_CHANGER(TrimDuration)
KAVO_INERT_CHANGER(ClipStart)
KAVO_INERT_CHANGER(ClipEnd)
KAVO_INERT_CHANGER(ClipDuration)
#undef KAVO_INERT_CHANGER

int16_t TPictureMedium::GetSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TPictureMedium::GetNextSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TPictureMedium::GetDuration(TimeCodeRecord* timeCode) {
    if (KAVO_CHECK(timeCode != 0)) SetOneFrameDuration(timeCode);
    return kNoError;
}

int16_t TPictureMedium::GetFrameRate(float* rate) {
    if (rate != nullptr) *rate = 0.0f;
    return kNoError;
}

int16_t TPictureMedium::FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    (void)unused1;
    (void)unused2;
    KAVO_ASSERT(amountToFree != 0);
    return kNoError;
}

MSHandle TPictureMedium::PackGuts(MSHandle stream, uint32_t& length) {
    if (!KAVO_CHECK(stream != 0)) return nullptr;
    stream = TMedium::PackGuts(stream, length);
    return stream != nullptr ? PackLong(stream, length, fPictureVersion) : nullptr;
}

// The base subtracts 32 from the dirty word, and so does this class: 64.
uint32_t TPictureMedium::UnpackGuts(const unsigned char* buffer) {
    if (!KAVO_CHECK(buffer != 0)) return 0;
    const uint32_t read = TMedium::UnpackGuts(buffer);
    const uint32_t own = UnpackLong(buffer + read, &fPictureVersion);
    fDirtyFlags -= 32;
    return read + own;
}

int16_t TPictureMedium::Edit() { return kNotOffered; }

int16_t TPictureMedium::Play() { return kNotOffered; }
