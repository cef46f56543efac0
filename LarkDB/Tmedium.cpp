#include "LarkDB/Tmedium.h"

#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <new>

#include "Common/Kavoassert.h"
#include "LarkDB/MediumImage.h"
#include "LarkDB/RecordReplace.h"
#include "LarkDB/SharedOwners.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Rmmgr.h"

namespace {

// Every medium between its construction and its destruction.
kavo::TLiveRegister gLiveMedia;

// A side-data block held by one more medium. False when the owner table
// could not take it: the copy then does without the block (and loads it
// again when asked).
bool ShareBlock(MSHandle block) { return kavo::AddOwner(block); }

// A medium lets go of the block: true when it was the last to hold it, and
// so must dispose of it.
bool UnshareBlock(MSHandle block) { return kavo::DropOwner(block); }

void DisposeBlock(MSHandle* block) {
    if (*block == nullptr) return;
    if (UnshareBlock(*block)) {
        const int16_t error = MSDisposeHandle(*block);
        KAVO_ASSERT(error == kNoError);
    }
    *block = nullptr;
}

// Names: up to the caller's NUL, at most 31 characters, the field filled
// with zeros.
void CopyName(char* field, const char* name) {
    std::memset(field, 0, kNameLength);
    if (name == nullptr) return;
    std::size_t length = 0;
    while (length < kNameLength - 1 && name[length] != '\0') ++length;
    std::memcpy(field, name, length);
}

// Packs values one after another, and stops at the first that fails (the
// handle is then null, the length where it stood).
class TPacker {
public:
    TPacker(MSHandle stream, uint32_t& length) : fStream(stream), fLength(length) {}
    void Long(uint32_t value) {
        if (fStream != nullptr) fStream = PackLong(fStream, fLength, value);
    }
    void Short(uint16_t value) {
        if (fStream != nullptr) fStream = PackShort(fStream, fLength, value);
    }
    void Char(uint8_t value) {
        if (fStream != nullptr) fStream = PackChar(fStream, fLength, value);
    }
    void Bytes(const void* bytes, uint32_t count) {
        if (fStream != nullptr) fStream = PackBytes(fStream, fLength, bytes, count);
    }
    void String(const char* text) {
        if (fStream != nullptr) fStream = PackString(fStream, fLength, text);
    }
    void TimeCode(const TimeCodeRecord& timeCode) {
        Char(timeCode.hours);
        Char(timeCode.minutes);
        Char(timeCode.seconds);
        Char(timeCode.frames);
    }
    void Date(const DateTimeRecord& date) {
        Short(date.year);
        Char(date.month);
        Char(date.day);
        Char(date.hour);
        Char(date.minute);
        Char(date.second);
    }
    MSHandle Result() const { return fStream; }

private:
    MSHandle fStream;
    uint32_t& fLength;
};

uint32_t UnpackTimeCode(const unsigned char* at, TimeCodeRecord* timeCode) {
    uint32_t read = UnpackChar(at, &timeCode->hours);
    read += UnpackChar(at + read, &timeCode->minutes);
    read += UnpackChar(at + read, &timeCode->seconds);
    return read + UnpackChar(at + read, &timeCode->frames);
}

uint32_t UnpackDate(const unsigned char* at, DateTimeRecord* date) {
    uint32_t read = UnpackShort(at, &date->year);
    read += UnpackChar(at + read, &date->month);
    read += UnpackChar(at + read, &date->day);
    read += UnpackChar(at + read, &date->hour);
    read += UnpackChar(at + read, &date->minute);
    return read + UnpackChar(at + read, &date->second);
}

}  // namespace

void SetOneFrameDuration(TimeCodeRecord* timeCode) {
    std::memset(timeCode, 0, sizeof *timeCode);
    timeCode->frames = 1;
}

// ---------------------------------------------------------------------------
// Construction, copies, destruction

TMedium::TMedium(const char* name, uint32_t flags)
    : fMediumVersion(1),
      fFlags(flags),
      fRezID(0),
      fTitle(name),
      fMediumRect(),
      fCreateDate(),
      fModifiedDate(),
      fCreator(0),
      fTrimStart(),
      fTrimEnd(),
      fTrimDuration(),
      fClipStart(),
      fClipEnd(),
      fClipDuration(),
      fSpareTimeCode(),
      fMacAlias(nullptr),
      fPathName(nullptr),
      fFormDataCache(nullptr),
      fPosterCache(nullptr),
      fDirtyFlags(0),
      fEditable(1),
      fReadyForPrimeTime(0),
      fReadyForPreview(0),
      fReserved(0),
      fScratch(0) {
    KAVO_ASSERT_TEXT(name != nullptr && std::strlen(name) < kNameLength, "strlen(name) < kNameLength");
    std::memcpy(fKind.code, kPlainMediumKind, 4);
    CopyName(fRezName, name);
    gLiveMedia.Add(this);
}

TMedium::TMedium(const TMedium& other)
    : fMacAlias(nullptr), fPathName(nullptr), fFormDataCache(nullptr), fPosterCache(nullptr) {
    CopyFields(other);
    gLiveMedia.Add(this);
}

bool TMedium::IsLive(const TMedium* medium) {
    return gLiveMedia.Contains(medium);
}

TMedium& TMedium::operator=(const TMedium& other) {
    if (this != &other) {
        ReleaseSideBlocks();
        CopyFields(other);
    }
    return *this;
}

// Every field one by one; the side-data blocks are shared, not duplicated.
void TMedium::CopyFields(const TMedium& other) {
    fMediumVersion = other.fMediumVersion;
    fKind = other.fKind;
    fFlags = other.fFlags;
    fRezID = other.fRezID;
    std::memcpy(fRezName, other.fRezName, kNameLength);
    fTitle = other.fTitle;
    fDescription = other.fDescription;
    fMediumRect = other.fMediumRect;
    fCreateDate = other.fCreateDate;
    fModifiedDate = other.fModifiedDate;
    fCreator = other.fCreator;
    fAuthor = other.fAuthor;
    fTrimStart = other.fTrimStart;
    fTrimEnd = other.fTrimEnd;
    fTrimDuration = other.fTrimDuration;
    fClipStart = other.fClipStart;
    fClipEnd = other.fClipEnd;
    fClipDuration = other.fClipDuration;
    fSpareTimeCode = other.fSpareTimeCode;
    fMacAlias = ShareBlock(other.fMacAlias) ? other.fMacAlias : nullptr;
    fPathName = ShareBlock(other.fPathName) ? other.fPathName : nullptr;
    fFormDataCache = ShareBlock(other.fFormDataCache) ? other.fFormDataCache : nullptr;
    fPosterCache = ShareBlock(other.fPosterCache) ? other.fPosterCache : nullptr;
    fDirtyFlags = other.fDirtyFlags;
    fEditable = other.fEditable;
    fReadyForPrimeTime = other.fReadyForPrimeTime;
    fReadyForPreview = other.fReadyForPreview;
    fReserved = other.fReserved;
    fScratch = other.fScratch;
}

MSHandle TMedium::ShareSideBlock(MSHandle block) { return ShareBlock(block) ? block : nullptr; }

void TMedium::DisposeSideBlock(MSHandle* block) { DisposeBlock(block); }

void TMedium::ReleaseSideBlocks() {
    DisposeBlock(&fMacAlias);
    DisposeBlock(&fPathName);
    DisposeBlock(&fFormDataCache);
    DisposeBlock(&fPosterCache);
}

TMedium::~TMedium() {
    ReleaseSideBlocks();
    gLiveMedia.Remove(this);
}

// ---------------------------------------------------------------------------
// Fields

void TMedium::GetKind(MediumKind* kind) const {
    if (KAVO_CHECK(kind != 0)) *kind = fKind;
}

void TMedium::GetFlags(uint32_t* flags) const {
    if (KAVO_CHECK(flags != 0)) *flags = fFlags;
}

void TMedium::GetCreator(uint32_t* creator) const {
    if (KAVO_CHECK(creator != 0)) *creator = fCreator;
}

void TMedium::GetDirtyFlags(uint32_t* flags) const {
    if (KAVO_CHECK(flags != 0)) *flags = fDirtyFlags;
}

void TMedium::GetCreateDate(DateTimeRecord* date) const {
    if (KAVO_CHECK(date != 0)) *date = fCreateDate;
}

void TMedium::GetModifiedDate(DateTimeRecord* date) const { (void)date; }

int16_t TMedium::GetScratch(uint32_t* scratch) const {
    if (scratch == nullptr) return kGeneralError;
    *scratch = fScratch;
    return fScratch == 0 ? kNothingHeld : kNoError;
}

int16_t TMedium::ChangeScratch(uint32_t scratch) {
    fScratch = scratch;
    return kNoError;
}

int16_t TMedium::ChangeRezID(int32_t rezID) {
    if (NotEditable()) return kNotEditable;
    fRezID = rezID;
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

int16_t TMedium::ChangeRezName(const char* name) {
    if (NotEditable()) return kNotEditable;
    if (!KAVO_CHECK(name != 0)) return kGeneralError;
    CopyName(fRezName, name);
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

int16_t TMedium::ChangeTitle(const char* title) {
    if (NotEditable()) return kNotEditable;
    if (!fTitle.Assign(title)) return kOutOfMemory;
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

int16_t TMedium::ChangeDescription(const char* description) {
    if (NotEditable()) return kNotEditable;
    if (!fDescription.Assign(description)) return kOutOfMemory;
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

int16_t TMedium::ChangeAuthor(const CString* author) {
    if (NotEditable()) return kNotEditable;
    if (!fAuthor.Assign(author != nullptr ? author->Text() : nullptr)) return kOutOfMemory;
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

int16_t TMedium::ChangeCreator(uint32_t creator) {
    if (NotEditable()) return kNotEditable;
    fCreator = creator;
    fDirtyFlags |= kDirtyRecord;
    return kNoError;
}

int16_t TMedium::ChangeFlags(uint32_t flags) {
    if (NotEditable()) return kNotEditable;
    fFlags = flags;
    return kNoError;
}

int16_t TMedium::ChangeDirtyFlags(uint32_t flags) {
    if (NotEditable()) return kNotEditable;
    fDirtyFlags = flags;
    return kNoError;
}

int16_t TMedium::ChangeCreateDate(const DateTimeRecord* date) {
    if (NotEditable()) return kNotEditable;
    if (KAVO_CHECK(date != 0)) fCreateDate = *date;
    fDirtyFlags |= kDirtyRecord;
    return kGeneralError;
}

int16_t TMedium::ChangeModifiedDate(const DateTimeRecord* date) {
    (void)date;
    if (NotEditable()) return kNotEditable;
    fDirtyFlags |= kDirtyRecord;
    return kGeneralError;
}

int16_t TMedium::InitCreateDate() {
    if (NotEditable()) return kNotEditable;
    fDirtyFlags |= kDirtyRecord;
    return kGeneralError;
}

// ---------------------------------------------------------------------------
// Rectangles and time codes

int16_t TMedium::GetPosterRect(Rect* rect) {
    if (KAVO_CHECK(rect != 0)) *rect = fMediumRect;
    return kNoError;
}

int16_t TMedium::GetMediumRect(Rect* rect) {
    if (KAVO_CHECK(rect != 0)) *rect = fMediumRect;
    return kNoError;
}

namespace {

int16_t CopyTimeCodeOut(const TimeCodeRecord& field, TimeCodeRecord* timeCode) {
    if (KAVO_CHECK(timeCode != 0)) *timeCode = field;
    return kNoError;
}

}  // namespace

// The trim and clip changers store what they are given, unchecked against
// one another: start, end and duration need not agree.
#define KAVO_TIME_CODE_OPERATIONS(Name, field)                        \
    int16_t TMedium::Get##Name(TimeCodeRecord* timeCode) {            \
        return CopyTimeCodeOut(field, timeCode);                      \
    }                                                                 \
    int16_t TMedium::Change##Name(TimeCodeRecord* timeCode) {         \
        if (!KAVO_CHECK(timeCode != 0)) return kGeneralError;         \
        if (NotEditable()) return kNotEditable;                       \
        field = *timeCode;                                            \
        fDirtyFlags |= kDirtyTimeCodes;                               \
        return kNoError;                                              \
    }
KAVO_TIME_CODE_OPERATIONS(TrimStart, fTrimStart)
KAVO_TIME_CODE_OPERATIONS(TrimEnd, fTrimEnd)
KAVO_TIME_CODE_OPERATIONS(TrimDuration, fTrimDuration)
KAVO_TIME_CODE_OPERATIONS(ClipStart, fClipStart)
KAVO_TIME_CODE_OPERATIONS(ClipEnd, fClipEnd)
KAVO_TIME_CODE_OPERATIONS(ClipDuration, fClipDuration)
#undef KAVO_TIME_CODE_OPERATIONS

int16_t TMedium::ReconcileTrimDuration() { return kNoError; }

int16_t TMedium::GetSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TMedium::GetNextSample(TimeCodeRecord* timeCode, void** sample) {
    (void)timeCode;
    (void)sample;
    return kNotOffered;
}

int16_t TMedium::GetDuration(TimeCodeRecord* timeCode) {
    KAVO_ASSERT(timeCode != 0);
    return kNoError;
}

int16_t TMedium::GetFrameRate(float* rate) {
    (void)rate;
    return kNotOffered;
}

int16_t TMedium::Edit() { return kNoError; }

int16_t TMedium::Play() { return kNoError; }

// ---------------------------------------------------------------------------
// The packed image

MSHandle TMedium::PackMedium(MSHandle stream, uint32_t& length) {
    TPacker pack(stream, length);
    pack.Bytes(fKind.code, 4);
    pack.Long(fMediumVersion);
    pack.Long(fFlags);
    pack.Long(static_cast<uint32_t>(fRezID));
    pack.Long(fCreator);
    pack.String(fRezName);
    pack.String(fDescription.Text());
    pack.String(fAuthor.Text());
    pack.String(fTitle.Text());
    pack.Short(static_cast<uint16_t>(fMediumRect.top));
    pack.Short(static_cast<uint16_t>(fMediumRect.left));
    pack.Short(static_cast<uint16_t>(fMediumRect.bottom));
    pack.Short(static_cast<uint16_t>(fMediumRect.right));
    pack.Date(fCreateDate);
    pack.Date(fModifiedDate);
    pack.TimeCode(fClipStart);
    pack.TimeCode(fClipEnd);
    pack.TimeCode(fClipDuration);
    pack.TimeCode(fTrimStart);
    pack.TimeCode(fTrimEnd);
    pack.TimeCode(fTrimDuration);
    return pack.Result();
}

MSHandle TMedium::PackGuts(MSHandle stream, uint32_t& length) {
    if (!KAVO_CHECK(stream != 0)) return nullptr;
    KAVO_ASSERT(fMediumVersion != kInvalidMediumVersion);
    return PackMedium(stream, length);
}

uint32_t TMedium::UnpackMedium(const unsigned char* buffer) {
    uint32_t at = UnpackBytes(buffer, fKind.code, 4);
    at += UnpackLong(buffer + at, &fMediumVersion);
    at += UnpackLong(buffer + at, &fFlags);
    at += UnpackLong(buffer + at, &fRezID);
    at += UnpackLong(buffer + at, &fCreator);
    at += UnpackString(buffer + at, fRezName, kNameLength);
    at += UnpackCString(buffer + at, &fDescription);
    at += UnpackCString(buffer + at, &fAuthor);
    at += UnpackCString(buffer + at, &fTitle);
    at += UnpackShort(buffer + at, &fMediumRect.top);
    at += UnpackShort(buffer + at, &fMediumRect.left);
    at += UnpackShort(buffer + at, &fMediumRect.bottom);
    at += UnpackShort(buffer + at, &fMediumRect.right);
    at += UnpackDate(buffer + at, &fCreateDate);
    at += UnpackDate(buffer + at, &fModifiedDate);
    at += UnpackTimeCode(buffer + at, &fClipStart);
    at += UnpackTimeCode(buffer + at, &fClipEnd);
    at += UnpackTimeCode(buffer + at, &fClipDuration);
    at += UnpackTimeCode(buffer + at, &fTrimStart);
    at += UnpackTimeCode(buffer + at, &fTrimEnd);
    at += UnpackTimeCode(buffer + at, &fTrimDuration);
    // A subtraction, not the clearing of a bit: whatever the word held.
    fDirtyFlags -= 32;
    return at;
}

uint32_t TMedium::UnpackGuts(const unsigned char* buffer) {
    if (!KAVO_CHECK(buffer != 0)) return 0;
    return UnpackMedium(buffer);
}

// ---------------------------------------------------------------------------
// Side data

int16_t TMedium::LoadSideBlock(const char* type, MSHandle* block) {
    if (*block != nullptr) return kNoError;
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    MSHandle loaded = nullptr;
    const int16_t error = gRezManager->ReadRecordByName(kCurrentFile, fRezName, type, &loaded);
    if (error != kNoError) return error;
    const int16_t detached = gRezManager->DetachRecord(loaded);
    KAVO_ASSERT(detached == kNoError);
    *block = loaded;
    return detached;
}

int16_t TMedium::LoadPathName() { return LoadSideBlock(kPathRecordType, &fPathName); }
int16_t TMedium::LoadPosterCache() { return LoadSideBlock(kPosterRecordType, &fPosterCache); }
int16_t TMedium::LoadMacAlias() { return LoadSideBlock(kAliasRecordType, &fMacAlias); }
int16_t TMedium::LoadFormDataCache() { return LoadSideBlock(kFormDataRecordType, &fFormDataCache); }

namespace {

int16_t GetBlock(MSHandle block, void** out) {
    if (out == nullptr) return kGeneralError;
    *out = block;
    return block == nullptr ? kNothingHeld : kNoError;
}

// A new block: the medium holds it from now on; the one it held is left to
// whoever else holds it (it is not disposed of).
void TakeBlock(MSHandle* field, MSHandle block) {
    UnshareBlock(*field);
    *field = block;
}

}  // namespace

int16_t TMedium::GetPosterCache(void** poster) { return GetBlock(fPosterCache, poster); }
int16_t TMedium::GetMacAlias(void** alias) { return GetBlock(fMacAlias, alias); }
int16_t TMedium::GetFormDataCache(void** formData) { return GetBlock(fFormDataCache, formData); }

int16_t TMedium::GetPathName(void** path) {
    if (fPathName == nullptr) return kNotOffered;
    if (!KAVO_CHECK(path != 0)) return kGeneralError;
    *path = fPathName;
    return kNoError;
}

#define KAVO_BLOCK_CHANGER(Name, field, bit)       \
    int16_t TMedium::Change##Name(MSHandle block) { \
        if (NotEditable()) return kNotEditable;     \
        TakeBlock(&field, block);                   \
        fDirtyFlags |= bit;                         \
        return kNoError;                            \
    }
KAVO_BLOCK_CHANGER(PosterCache, fPosterCache, kDirtyPoster)
KAVO_BLOCK_CHANGER(FormDataCache, fFormDataCache, kDirtyFormData)
KAVO_BLOCK_CHANGER(PathName, fPathName, kDirtyPathName)
KAVO_BLOCK_CHANGER(MacAlias, fMacAlias, kDirtyMacAlias)
#undef KAVO_BLOCK_CHANGER

int16_t TMedium::FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    (void)unused1;
    (void)unused2;
    KAVO_ASSERT(amountToFree != 0);
    DisposeBlock(&fPosterCache);
    return kNoError;
}

// ---------------------------------------------------------------------------
// Proxies

int16_t TMedium::MakeProxy() {
    if (NotEditable()) return kNotEditable;
    fFlags |= kMediumIsProxy;
    return kNoError;
}

int16_t TMedium::RemoveProxy() {
    if (NotEditable()) return kNotEditable;
    fFlags &= ~kMediumIsProxy;
    return kNoError;
}

// ---------------------------------------------------------------------------
// Saving, removing, copying

// The side record of a held block, replaced as one change, the block kept.
int16_t TMedium::SaveSideBlock(int16_t refNum, const char* type, MSHandle block) {
    if (block == nullptr) return kNoError;
    int16_t error = ReplaceRecord(refNum, type, fRezName, fRezID, block, {kKeyNotFound});
    if (error != kNoError) return error;
    error = gRezManager->DetachRecord(block);
    KAVO_ASSERT(error == kNoError);
    return kNoError;
}

int16_t TMedium::SaveAllToDB(int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    if ((fDirtyFlags & (kDirtyRecord | kDirtyTimeCodes)) != 0) {
        MSHandle image = nullptr;
        int16_t error = MSNewHandle(&image, 0);
        if (!KAVO_CHECK(error == kNoError)) return error;
        uint32_t length = 0;
        MSHandle packed = PackGuts(image, length);
        if (packed == nullptr) return kOutOfMemory;  // the failed resize took the handle
        image = packed;
        error = ReplaceRecord(refNum, kMediumRecordType, fRezName, fRezID, image, {kKeyNotFound});
        if (error != kNoError) {
            MSDisposeHandle(image);
            return error;
        }
        error = gRezManager->ReleaseRecord(image);
        KAVO_ASSERT(error == kNoError);
        fDirtyFlags &= ~(kDirtyRecord | kDirtyTimeCodes);
    }
    const struct {
        uint32_t fBit;
        const char* fType;
        MSHandle fBlock;
    } sides[] = {{kDirtyPathName, kPathRecordType, fPathName},
                 {kDirtyPoster, kPosterRecordType, fPosterCache},
                 {kDirtyMacAlias, kAliasRecordType, fMacAlias},
                 {kDirtyFormData, kFormDataRecordType, fFormDataCache}};
    for (const auto& side : sides) {
        if ((fDirtyFlags & side.fBit) == 0) continue;
        const int16_t error = SaveSideBlock(refNum, side.fType, side.fBlock);
        if (error != kNoError) return error;
        fDirtyFlags &= ~side.fBit;
    }
    fDirtyFlags = 0;
    return kNoError;
}

int16_t TMedium::RemoveAllFromDB(int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    int16_t error = gRezManager->RemoveNamedRecord(refNum, fRezName, kMediumRecordType);
    if (error != kNoError) return error;
    for (const char* type : {kPosterRecordType, kAliasRecordType, kPathRecordType, kFormDataRecordType}) {
        error = gRezManager->RemoveNamedRecord(refNum, fRezName, type);
        if (error != kNoError && error != kKeyNotFound) return error;
    }
    return kNoError;
}

int16_t TMedium::CopyToNewDatabase(int16_t fromRefNum, int16_t toRefNum, int32_t* newRezID, char* newRezName) {
    if (!KAVO_CHECK(gRezManager != 0) || !KAVO_CHECK(fromRefNum != 0 && fromRefNum != -1) ||
        !KAVO_CHECK(toRefNum != 0 && toRefNum != -1) || !KAVO_CHECK(newRezID != 0) ||
        !KAVO_CHECK(newRezName != 0))
        return kGeneralError;
    SaveAllToDB(fromRefNum);
    char oldName[kNameLength];
    std::memcpy(oldName, fRezName, kNameLength);
    const int32_t oldID = fRezID;
    int16_t error = gRezManager->NextRecordID(toRefNum, kMediumRecordType, newRezID);
    if (!KAVO_CHECK(error == kNoError)) return error;
    std::snprintf(newRezName, kNameLength, "%s %4.4ld", "Medium", static_cast<long>(*newRezID));
    KAVO_ASSERT(std::strlen(newRezName) < kNameLength);
    fDirtyFlags = kDirtyRecord;
    CopyName(fRezName, newRezName);
    fRezID = *newRezID;
    const auto restore = [&](int16_t result) {
        std::memcpy(fRezName, oldName, kNameLength);
        fRezID = oldID;
        return result;
    };
    if ((error = SaveAllToDB(toRefNum)) != kNoError) return restore(error);
    for (const char* type : {kPathRecordType, kPosterRecordType, kAliasRecordType, kFormDataRecordType}) {
        MSHandle block = nullptr;
        if ((error = gRezManager->ReadRecordByName(fromRefNum, oldName, type, &block)) != kNoError)
            return restore(error);
        error = gRezManager->DetachRecord(block);
        KAVO_ASSERT(error == kNoError);
        if ((error = gRezManager->AddNewRecord(toRefNum, type, newRezName, *newRezID, block)) != kNoError) {
            MSDisposeHandle(block);
            return restore(error);
        }
        error = gRezManager->ReleaseRecord(block);
        KAVO_ASSERT(error == kNoError);
    }
    return restore(kNoError);
}
