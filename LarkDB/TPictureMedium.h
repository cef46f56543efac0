// TPictureMedium: a still picture kept outside the database. Like a movie
// (TMooVMedium), its time codes cannot be changed through it (the changers
// answer success and store nothing; the getters are TMedium's), its
// duration is the one-frame time code and its frame rate 0.0, and it offers
// no samples and no playback.
//
// Image: the TMedium image, then fPictureVersion (32-bit). Unpacking
// subtracts 32 from the dirty word once more, 64 in all.
#ifndef KAVO_LARKDB_TPICTUREMEDIUM_H
#define KAVO_LARKDB_TPICTUREMEDIUM_H

#include "LarkDB/Tmedium.h"

class KAVO_CLASS_API TPictureMedium : public TMedium {
public:
    TPictureMedium(const char* name, uint32_t flags);
    TPictureMedium(const TPictureMedium& other);
    TPictureMedium& operator=(const TPictureMedium& other);

    ~TPictureMedium() override;
    int16_t ChangeTrimStart(TimeCodeRecord* timeCode) override;
    int16_t ChangeTrimEnd(TimeCodeRecord* timeCode) override;
    int16_t ChangeTrimDuration(TimeCodeRecord* timeCode) override;
    int16_t ChangeClipStart(TimeCodeRecord* timeCode) override;
    int16_t ChangeClipEnd(TimeCodeRecord* timeCode) override;
    int16_t ChangeClipDuration(TimeCodeRecord* timeCode) override;
    int16_t GetSample(TimeCodeRecord* timeCode, void** sample) override;
    int16_t GetNextSample(TimeCodeRecord* timeCode, void** sample) override;
    int16_t GetDuration(TimeCodeRecord* timeCode) override;
    int16_t GetFrameRate(float* rate) override;
    // Frees nothing (the poster cache stays).
    int16_t FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) override;
    MSHandle PackGuts(MSHandle stream, uint32_t& length) override;
    uint32_t UnpackGuts(const unsigned char* buffer) override;
    int16_t Edit() override;
    int16_t Play() override;

protected:
    uint32_t fPictureVersion;
};

#endif  // KAVO_LARKDB_TPICTUREMEDIUM_H
