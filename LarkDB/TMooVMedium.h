// TMooVMedium: a movie file kept outside the database (reached through the
// path and alias blocks). Its time codes keep what construction or the last
// unpack left in them: every trim and clip changer answers success and
// stores nothing. Its duration is the one-frame time code, its frame rate
// 0.0, and it offers no samples and no playback. These are the contract's
// results, kept as they are.
//
// Image: the TMedium image, then fMooVVersion (32-bit). Unpacking subtracts
// 32 from the dirty word once more, 64 in all.
#ifndef KAVO_LARKDB_TMOOVMEDIUM_H
#define KAVO_LARKDB_TMOOVMEDIUM_H

#include "LarkDB/Tmedium.h"

class KAVO_CLASS_API TMooVMedium : public TMedium {
public:
    TMooVMedium(const char* name, uint32_t flags);
    TMooVMedium(const TMooVMedium& other);
    TMooVMedium& operator=(const TMooVMedium& other);

    ~TMooVMedium() override;
    int16_t GetTrimStart(TimeCodeRecord* timeCode) override;
    int16_t ChangeTrimStart(TimeCodeRecord* timeCode) override;
    int16_t GetTrimEnd(TimeCodeRecord* timeCode) override;
    int16_t ChangeTrimEnd(TimeCodeRecord* timeCode) override;
    int16_t GetTrimDuration(TimeCodeRecord* timeCode) override;
    int16_t ChangeTrimDuration(TimeCodeRecord* timeCode) override;
    int16_t GetClipStart(TimeCodeRecord* timeCode) override;
    int16_t ChangeClipStart(TimeCodeRecord* timeCode) override;
    int16_t GetClipEnd(TimeCodeRecord* timeCode) override;
    int16_t ChangeClipEnd(TimeCodeRecord* timeCode) override;
    int16_t GetClipDuration(TimeCodeRecord* timeCode) override;
    int16_t ChangeClipDuration(TimeCodeRecord* timeCode) override;
    int16_t ReconcileTrimDuration() override;
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
    uint32_t fMooVVersion;
};

#endif  // KAVO_LARKDB_TMOOVMEDIUM_H
