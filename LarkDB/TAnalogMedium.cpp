#include "LarkDB/TAnalogMedium.h"

#include <cstring>

#include "Common/Kavoassert.h"
#include "LarkDB/MediumImage.h"
#include "LarkDB/RecordReplace.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Rmmgr.h"

// The plug kind is left zero here (the flat interface sets "DVC " when it
// makes an analog medium), so that a medium packed before anyone set it
// carries four known bytes.
TAnalogMedium::TAnalogMedium(const char* name, uint32_t flags)
    : TMedium(name, flags), fAnalogVersion(1), fPlugType(), fLocator(nullptr) {
    KAVO_ASSERT_TEXT(name != nullptr && std::strlen(name) < kNameLength, "strlen(name) < kNameLength");
    std::memcpy(fKind.code, kAnalogMediumKind, 4);
    // Whatever flags were asked for: a clip from tape cannot be a proxy.
    fFlags = kMediumCannotProxy;
}

TAnalogMedium::TAnalogMedium(const TAnalogMedium& other)
    : TMedium(other),
      fAnalogVersion(other.fAnalogVersion),
      fPlugType(other.fPlugType),
      fLocator(ShareSideBlock(other.fLocator)) {}

TAnalogMedium& TAnalogMedium::operator=(const TAnalogMedium& other) {
    if (this != &other) {
        TMedium::operator=(other);
        fAnalogVersion = other.fAnalogVersion;
        fPlugType = other.fPlugType;
        DisposeSideBlock(&fLocator);
        fLocator = ShareSideBlock(other.fLocator);
    }
    return *this;
}

TAnalogMedium::~TAnalogMedium() {
    ReleaseSideBlocks();
    DisposeSideBlock(&fLocator);
}

// ---------------------------------------------------------------------------
// What a clip from tape does not offer

int16_t TAnalogMedium::GetSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TAnalogMedium::GetNextSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TAnalogMedium::GetDuration(TimeCodeRecord* timeCode) {
    if (KAVO_CHECK(timeCode != 0)) SetOneFrameDuration(timeCode);
    return kNoError;
}

int16_t TAnalogMedium::GetFrameRate(float* rate) {
    if (rate != nullptr) *rate = 0.0f;
    return kNoError;
}

int16_t TAnalogMedium::FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    (void)unused1;
    (void)unused2;
    KAVO_ASSERT(amountToFree != 0);
    return kNoError;
}

int16_t TAnalogMedium::Edit() { return kNotOffered; }

int16_t TAnalogMedium::Play() { return kNotOffered; }

// ---------------------------------------------------------------------------
// Plug kind and the packed image

void TAnalogMedium::GetPlugType(PlugKind* plugType) const {
    if (KAVO_CHECK(plugType != 0)) *plugType = fPlugType;
}

int16_t TAnalogMedium::ChangePlugType(const PlugKind* plugType) {
    if (NotEditable()) return kNotEditable;
    if (!KAVO_CHECK(plugType != 0)) return kGeneralError;
    fPlugType = *plugType;
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

MSHandle TAnalogMedium::PackGuts(MSHandle stream, uint32_t& length) {
    if (!KAVO_CHECK(stream != 0)) return nullptr;
    stream = TMedium::PackGuts(stream, length);
    if (stream != nullptr) stream = PackLong(stream, length, fAnalogVersion);
    return stream != nullptr ? PackBytes(stream, length, fPlugType.code, 4) : nullptr;
}

// The base subtracts 32 from the dirty word, and so does this class: 64.
uint32_t TAnalogMedium::UnpackGuts(const unsigned char* buffer) {
    if (!KAVO_CHECK(buffer != 0)) return 0;
    uint32_t read = TMedium::UnpackGuts(buffer);
    read += UnpackLong(buffer + read, &fAnalogVersion);
    read += UnpackBytes(buffer + read, fPlugType.code, 4);
    fDirtyFlags -= 32;
    return read;
}

// ---------------------------------------------------------------------------
// The locator

int32_t TAnalogMedium::HasLocatorLoaded() { return fLocator != nullptr; }

int16_t TAnalogMedium::LoadLocator() {
    if (fLocator != nullptr) return kNoError;
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    MSHandle loaded = nullptr;
    int16_t error = gRezManager->ReadRecordByName(kCurrentFile, kTapeHeaderName, kTapeRecordType, &loaded);
    if (error != kNoError) error = gRezManager->ReadRecordByName(kCurrentFile, fRezName, kTapeRecordType, &loaded);
    if (error != kNoError) return error;
    const int16_t detached = gRezManager->DetachRecord(loaded);
    KAVO_ASSERT_TEXT(detached == kNoError, "error == kNoError");
    fLocator = loaded;
    return detached;
}

// The plug kind is read as a number from the image's first four bytes (the
// version), not from where it was written: hosts see the number 1 in the
// machine's byte order. The tape header reader of the flat interface has a
// slip of its own (the raw bytes); the two are kept apart.
int16_t TAnalogMedium::LocatorUnpack(LocatorRecord* record) {
    if (!KAVO_CHECK(record != 0)) return kGeneralError;
    const int16_t loaded = LoadLocator();
    if (fLocator == nullptr) return loaded;
    void* address = nullptr;
    int16_t error = MSLockHandle(fLocator, &address);
    if (!KAVO_CHECK_TEXT(error == kNoError, "error == kNoError")) return error;
    const auto* image = static_cast<const unsigned char*>(address);
    int16_t result = kNoError;
    if (TapeInfoImageLength(image, MSGetHandleSize(fLocator)) == 0) {
        result = kGeneralError;  // damaged: cut short, or a count past its end
    } else {
        UnpackLong(image, &record->fVersion);
        uint32_t plug = 0;
        UnpackLong(image, &plug);
        std::memcpy(record->fPlugType.code, &plug, 4);
        UnpackTapeInfoRest(image, record);
    }
    error = MSUnlockHandle(fLocator);
    KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    return result;
}

int16_t TAnalogMedium::LocatorText(const CString LocatorRecord::*field, char* buffer) {
    LocatorRecord record{};
    const int16_t error = LocatorUnpack(&record);
    if (error != kNoError) return error;
    const CString& text = record.*field;
    if (!KAVO_CHECK_TEXT(buffer != 0, "error == kNoError")) return kGeneralError;
    const int16_t moved = MSBlockMove(text.Text(), buffer, text.Length() + 1);
    KAVO_ASSERT_TEXT(moved == kNoError, "error == kNoError");
    return moved;
}

int32_t TAnalogMedium::LocatorTextSize(const CString LocatorRecord::*field) {
    LocatorRecord record{};
    if (LocatorUnpack(&record) != kNoError) return 0;
    return static_cast<int32_t>((record.*field).Length() + 1);
}

int16_t TAnalogMedium::LocatorGetTapeName(char* buffer) { return LocatorText(&LocatorRecord::fTapeName, buffer); }
int16_t TAnalogMedium::LocatorGetDescription(char* buffer) {
    return LocatorText(&LocatorRecord::fDescription, buffer);
}
int16_t TAnalogMedium::LocatorGetShooter(char* buffer) { return LocatorText(&LocatorRecord::fShooter, buffer); }
int16_t TAnalogMedium::LocatorGetEnteredBy(char* buffer) { return LocatorText(&LocatorRecord::fEnteredBy, buffer); }
int32_t TAnalogMedium::LocatorTapeNameSize() { return LocatorTextSize(&LocatorRecord::fTapeName); }
int32_t TAnalogMedium::LocatorDescriptionSize() { return LocatorTextSize(&LocatorRecord::fDescription); }
int32_t TAnalogMedium::LocatorShooterSize() { return LocatorTextSize(&LocatorRecord::fShooter); }
int32_t TAnalogMedium::LocatorEnteredBySize() { return LocatorTextSize(&LocatorRecord::fEnteredBy); }

int16_t TAnalogMedium::LocatorGetTapeID(uint32_t* tapeID) {
    LocatorRecord record{};
    const int16_t error = LocatorUnpack(&record);
    if (error != kNoError) return error;
    if (!KAVO_CHECK(tapeID != 0)) return kGeneralError;
    std::memcpy(tapeID, record.fTapeID, 4);
    return kNoError;
}

int16_t TAnalogMedium::LocatorGetPlugType(PlugKind* plugType) {
    LocatorRecord record{};
    const int16_t error = LocatorUnpack(&record);
    if (error != kNoError) return error;
    if (!KAVO_CHECK(plugType != 0)) return kGeneralError;
    *plugType = record.fPlugType;
    return kNoError;
}

int16_t TAnalogMedium::LocatorGetCreateDate(uint32_t* createDate) {
    LocatorRecord record{};
    const int16_t error = LocatorUnpack(&record);
    if (error != kNoError) return error;
    if (!KAVO_CHECK(createDate != 0)) return kGeneralError;
    *createDate = record.fCreateDate;
    return kNoError;
}

// ---------------------------------------------------------------------------
// Saving, removing, copying

// The locator's bit is tested after the base save, which leaves the dirty
// word 0 when it succeeds: the "WHER" record is therefore never written by a
// successful save. That is the contract, not an oversight; a host that
// wants the record writes it itself.
int16_t TAnalogMedium::SaveAllToDB(int16_t refNum) {
    if (NotEditable()) return kNotEditable;
    int16_t error = TMedium::SaveAllToDB(refNum);
    if (error != kNoError) return error;
    if ((fDirtyFlags & kDirtyLocator) != 0 && fLocator != nullptr) {
        error = ReplaceRecord(refNum, kLocatorRecordType, fRezName, fRezID, fLocator, {kKeyNotFound});
        if (error != kNoError) return error;
        error = gRezManager->DetachRecord(fLocator);
        KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    }
    return ChangeDirtyFlags(0);
}

int16_t TAnalogMedium::RemoveAllFromDB(int16_t refNum) {
    int16_t error = TMedium::RemoveAllFromDB(refNum);
    if (error != kNoError) return error;
    error = gRezManager->RemoveNamedRecord(refNum, fRezName, kLocatorRecordType);
    return error == kKeyNotFound ? static_cast<int16_t>(kNoError) : error;
}

// In the destination the tape information becomes a "DVC " record of the
// copy's name, which LoadLocator finds when that database has no header.
int16_t TAnalogMedium::CopyToNewDatabase(int16_t fromRefNum, int16_t toRefNum, int32_t* newRezID,
                                         char* newRezName) {
    const int16_t copied = TMedium::CopyToNewDatabase(fromRefNum, toRefNum, newRezID, newRezName);
    if (copied < 0) return copied;
    MSHandle info = nullptr;
    int16_t error = gRezManager->ReadRecordByName(fromRefNum, kTapeHeaderName, kTapeRecordType, &info);
    if (error != kNoError) error = gRezManager->ReadRecordByName(fromRefNum, fRezName, kTapeRecordType, &info);
    if (error != kNoError) return error;
    const int16_t detached = gRezManager->DetachRecord(info);
    KAVO_ASSERT_TEXT(detached == kNoError, "error == kNoError");
    error = gRezManager->AddNewRecord(toRefNum, kTapeRecordType, newRezName, *newRezID, info);
    if (error != kNoError) {
        if (detached == kNoError) MSDisposeHandle(info);  // no one else holds it
        return error;
    }
    error = gRezManager->ReleaseRecord(info);
    KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    return copied;
}
