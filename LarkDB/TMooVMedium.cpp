#include "LarkDB/TMooVMedium.h"

#include <cstring>

#include "Common/Kavoassert.h"
#include "Pack/Pack.h"

TMooVMedium::TMooVMedium(const char* name, uint32_t flags) : TMedium(name, flags), fMooVVersion(1) {
    KAVO_ASSERT_TEXT(name != nullptr && std::strlen(name) < kNameLength, "strlen(name) < kNameLength");
    std::memcpy(fKind.code, kMooVMediumKind, 4);
}

TMooVMedium::TMooVMedium(const TMooVMedium& other) : TMedium(other), fMooVVersion(other.fMooVVersion) {}

TMooVMedium& TMooVMedium::operator=(const TMooVMedium& other) {
    TMedium::operator=(other);
    fMooVVersion = other.fMooVVersion;
    return *this;
}

TMooVMedium::~TMooVMedium() { ReleaseSideBlocks(); }

// The getters read the base's fields; the changers store nothing.
#define KAVO_INERT_TIME_CODE(Name)                                          \
    int16_t TMooVMedium::Get##Name(TimeCodeRecord* timeCode) {              \
        return TMedium::Get##Name(timeCode);                                \
    }                                                                       \
    int16_t TMooVMedium::Change##Name(TimeCodeRecord* timeCode) {           \
        (void)timeCode;                                                     \
        return kNoError;                                                    \
    }
KAVO_INERT_TIME_CODE(TrimStart)
KAVO_INERT_TIME_CODE(TrimEnd)
KAVO_INERT_TIME_CODE(TrimDuration)
KAVO_INERT_TIME_CODE(ClipStart)
KAVO_INERT_TIME_CODE(ClipEnd)
KAVO_INERT_TIME_CODE(ClipDuration)
#undef KAVO_INERT_TIME_CODE

int16_t TMooVMedium::ReconcileTrimDuration() { return kNoError; }

int16_t TMooVMedium::GetSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TMooVMedium::GetNextSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TMooVMedium::GetDuration(TimeCodeRecord* timeCode) {
    if (KAVO_CHECK(timeCode != 0)) SetOneFrameDuration(timeCode);
    return kNoError;
}

int16_t TMooVMedium::GetFrameRate(float* rate) {
    if (rate != nullptr) *rate = 0.0f;
    return kNoError;
}

int16_t TMooVMedium::FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    (void)unused1;
    (void)unused2;
    KAVO_ASSERT(amountToFree != 0);
    return kNoError;
}

MSHandle TMooVMedium::PackGuts(MSHandle stream, uint32_t& length) {
    if (!KAVO_CHECK(stream != 0)) return nullptr;
    stream = TMedium::PackGuts(stream, length);
    return stream != nullptr ? PackLong(stream, length, fMooVVersion) : nullptr;
}

// The base subtracts 32 from the dirty word, and so does this class: 64.
uint32_t TMooVMedium::UnpackGuts(const unsigned char* buffer) {
    if (!KAVO_CHECK(buffer != 0)) return 0;
    const uint32_t read = TMedium::UnpackGuts(buffer);
    const uint32_t own = UnpackLong(buffer + read, &fMooVVersion);
    fDirtyFlags -= 32;
    return read + own;
}

int16_t TMooVMedium::Edit() { return kNotOffered; }

int16_t TMooVMedium::Play() { return kNotOffered; }
