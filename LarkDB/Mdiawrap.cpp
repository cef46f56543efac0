#include "LarkDB/Mdiawrap.h"

#include <cstring>
#include <initializer_list>
#include <new>

#include "Common/Kavoassert.h"
#include "LarkDB/MediumImage.h"
#include "LarkDB/TAnalogMedium.h"
#include "LarkDB/TMooVMedium.h"
#include "LarkDB/TPictureMedium.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Rmmgr.h"

// Every medium pointer a host passes is checked against the media that are
// alive (TMedium::IsLive): a null, wild or destroyed pointer gets the report
// "theMedium != 0" and a failure result, never a call through it. The
// results: kGeneralError for codes, null for pointers, 0 for truth values.

namespace {

// The result for a refused medium pointer (and other refused arguments).
constexpr int16_t kRefused = kGeneralError;

bool Known(const TMedium* theMedium) { return KAVO_CHECK_TEXT(TMedium::IsLive(theMedium), "theMedium != 0"); }

bool KindIs(const MediumKind& kind, const char* code) { return std::memcmp(kind.code, code, 4) == 0; }

bool KnownKind(const MediumKind& kind) {
    return KindIs(kind, kPictureMediumKind) || KindIs(kind, kAnalogMediumKind) || KindIs(kind, kMooVMediumKind) ||
           KindIs(kind, kPlainMediumKind);
}

bool ManagerExists() { return KAVO_CHECK(gRezManager != 0); }

// The length of the text at text, looking at no more than most bytes (most
// when there is no NUL among them).
std::size_t BoundedLength(const char* text, std::size_t most) {
    const void* nul = std::memchr(text, '\0', most);
    return nul != nullptr ? static_cast<std::size_t>(static_cast<const char*>(nul) - text) : most;
}

}  // namespace

// ---------------------------------------------------------------------------
// The factory

// The kind is read from the image's first four bytes once the whole image
// has been checked; no temporary medium is unpacked only to learn it.
TMedium* MediumFromPackedData(MSHandle packedData) {
    if (!KAVO_CHECK(packedData != 0)) return nullptr;
    void* address = nullptr;
    if (!KAVO_CHECK_TEXT(MSLockHandle(packedData, &address) == kNoError, "error == kNoError")) return nullptr;
    const auto* bytes = static_cast<const unsigned char*>(address);
    const uint32_t size = MSGetHandleSize(packedData);
    MediumKind kind{};
    if (MediumImageLength(bytes, size, &kind) == 0) {
        if (size >= 4 && !KnownKind(kind)) KAVO_ASSERT_TEXT(false, "false");
        return nullptr;
    }
    TMedium* medium = nullptr;
    if (KindIs(kind, kPictureMediumKind)) {
        medium = new (std::nothrow) TPictureMedium("Temp", 0);
    } else if (KindIs(kind, kAnalogMediumKind)) {
        medium = new (std::nothrow) TAnalogMedium("Temp", 0);
    } else if (KindIs(kind, kMooVMediumKind)) {
        medium = new (std::nothrow) TMooVMedium("Temp", 0);
    } else {
        medium = new (std::nothrow) TMedium("Temp", 0);
    }
    if (!KAVO_CHECK_TEXT(medium != 0, "tempMedium != 0")) return nullptr;
    medium->UnpackGuts(bytes);
    return medium;
}

// ---------------------------------------------------------------------------
// Creation, loading and destruction

TMedium* KAVO_CALL MediumCreateNew(uint32_t unused, const char* kind, const char* name, int32_t rezID) {
    (void)unused;
    if (!KAVO_CHECK(kind != 0) || !KAVO_CHECK(name != 0)) return nullptr;
    if (!KAVO_CHECK_TEXT(std::strlen(name) < kNameLength, "strlen(name) < kNameLength")) return nullptr;
    TMedium* medium = nullptr;
    if (std::memcmp(kind, kPictureMediumKind, 4) == 0) {
        medium = new (std::nothrow) TPictureMedium(name, 0);
    } else if (std::memcmp(kind, kMooVMediumKind, 4) == 0) {
        medium = new (std::nothrow) TMooVMedium(name, 0);
    } else if (std::memcmp(kind, kTapeRecordType, 4) == 0) {
        // Chosen by the plug code "DVC ", not by the kind code "aMED".
        auto* analog = new (std::nothrow) TAnalogMedium(name, 0);
        if (analog != nullptr) {
            PlugKind plug;
            std::memcpy(plug.code, kTapeRecordType, 4);
            const int16_t error = analog->ChangePlugType(&plug);
            KAVO_ASSERT(error == kNoError);
        }
        medium = analog;
    } else {
        medium = new (std::nothrow) TMedium(name, 0);
    }
    if (!KAVO_CHECK(medium != 0)) return nullptr;
    if (!TMedium::IsLive(medium)) {  // could not register: the other functions would refuse it
        delete medium;
        return nullptr;
    }
    medium->ChangeDirtyFlags(kDirtyRecord);
    const int16_t error = medium->ChangeRezID(rezID);
    KAVO_ASSERT(error == kNoError);
    return medium;
}

namespace {

// The medium in the record that read reads, which is then released: the
// record manager, not the medium, held the handle.
template <typename Read>
TMedium* MediumFromRecord(Read read) {
    if (!ManagerExists()) return nullptr;
    MSHandle data = nullptr;
    if (read(&data) != kNoError) return nullptr;
    TMedium* medium = MediumFromPackedData(data);
    const int16_t error = gRezManager->ReleaseRecord(data);
    KAVO_ASSERT(error == kNoError);
    return medium;
}

}  // namespace

TMedium* KAVO_CALL MediumLoadByID(int16_t refNum, int32_t rezID) {
    return MediumFromRecord(
        [&](MSHandle* data) { return gRezManager->ReadRecordByNumber(refNum, rezID, kMediumRecordType, data); });
}

TMedium* KAVO_CALL MediumLoadByName(int16_t refNum, const char* name) {
    return MediumFromRecord(
        [&](MSHandle* data) { return gRezManager->ReadRecordByName(refNum, name, kMediumRecordType, data); });
}

TMedium* KAVO_CALL MediumLoadNthOne(int16_t refNum, uint32_t n) {
    return MediumFromRecord(
        [&](MSHandle* data) { return gRezManager->ReadNthRecordOfType(refNum, n, kMediumRecordType, data); });
}

int16_t KAVO_CALL MediumDestroy(TMedium* theMedium) {
    if (theMedium == nullptr) return kNoError;
    if (!Known(theMedium)) return kGeneralError;
    delete theMedium;
    return kNoError;
}

int16_t KAVO_CALL MediumFreeMemory(TMedium* theMedium, int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    return Known(theMedium) ? theMedium->FreeMemory(unused1, unused2, amountToFree) : kRefused;
}

// ---------------------------------------------------------------------------
// Saving and removing

int16_t KAVO_CALL MediumSaveToDB(TMedium* theMedium, int16_t refNum) {
    return Known(theMedium) ? theMedium->SaveAllToDB(refNum) : kRefused;
}

int16_t KAVO_CALL MediumRemoveFromDB(TMedium* theMedium, int16_t refNum) {
    return Known(theMedium) ? theMedium->RemoveAllFromDB(refNum) : kRefused;
}

int16_t KAVO_CALL MediumDeleteFromDB(int16_t refNum, TMedium* theMedium) {
    if (!Known(theMedium) || !ManagerExists()) return kGeneralError;
    return gRezManager->RemoveNamedRecord(refNum, theMedium->GetRezName(), kMediumRecordType);
}

int16_t KAVO_CALL MediumCopyAllToNewDB(TMedium* theMedium, int16_t fromRefNum, int16_t toRefNum,
                                       int32_t* newRezID) {
    const bool fromOk = KAVO_CHECK(fromRefNum > 0);
    const bool toOk = KAVO_CHECK(toRefNum > 0);
    if (!fromOk || !toOk || !Known(theMedium)) return kGeneralError;
    // Holds any name the copy is given ("Medium " and an ID of up to 11
    // characters); its contents are not handed back.
    char nameBuffer[kNameLength] = {};
    return theMedium->CopyToNewDatabase(fromRefNum, toRefNum, newRezID, nameBuffer);
}

// ---------------------------------------------------------------------------
// Text

char* KAVO_CALL MediumGetRezName(TMedium* theMedium) { return Known(theMedium) ? theMedium->GetRezName() : nullptr; }

int16_t KAVO_CALL MediumChangeRezName(TMedium* theMedium, const char* name) {
    return Known(theMedium) ? theMedium->ChangeRezName(name) : kRefused;
}

int16_t KAVO_CALL MediumGetTitle(TMedium* theMedium, char* buffer) {
    if (!Known(theMedium)) return kGeneralError;
    const char* retrievedTitle = theMedium->GetTitle();
    const std::size_t length = std::strlen(retrievedTitle);
    if (!KAVO_CHECK_TEXT(length < kNameLength, "strlen(retrievedTitle) < kNameLength")) return kGeneralError;
    const int16_t error = MSBlockMove(retrievedTitle, buffer, static_cast<uint32_t>(length));
    KAVO_ASSERT(error == kNoError);
    return error;
}

int16_t KAVO_CALL MediumChangeTitle(TMedium* theMedium, const char* title) {
    return Known(theMedium) ? theMedium->ChangeTitle(title) : kRefused;
}

int16_t KAVO_CALL MediumGetDescription(TMedium* theMedium, char* buffer) {
    if (!Known(theMedium)) return kGeneralError;
    const char* description = theMedium->GetDescription();
    return MSBlockMove(description, buffer, static_cast<uint32_t>(std::strlen(description)));
}

int32_t KAVO_CALL MediumDescriptionSize(TMedium* theMedium) {
    return Known(theMedium) ? static_cast<int32_t>(std::strlen(theMedium->GetDescription())) : kRefused;
}

int16_t KAVO_CALL MediumChangeDescription(TMedium* theMedium, const char* description) {
    return Known(theMedium) ? theMedium->ChangeDescription(description) : kRefused;
}

// The path block is the host's bytes, perhaps read back from a damaged
// file: its text is measured inside the block, and a block with no NUL in
// its first 256 bytes is refused like an over-long path.
int16_t KAVO_CALL MediumGetPathName(TMedium* theMedium, char* buffer) {
    if (!Known(theMedium)) return kGeneralError;
    void* path = nullptr;
    int16_t error = theMedium->GetPathName(&path);
    if (error != kNoError) return error;
    void* aPtr = nullptr;
    error = MSLockHandle(path, &aPtr);
    if (!KAVO_CHECK(error == kNoError)) return error;
    const uint32_t size = MSGetHandleSize(path);
    const auto* text = static_cast<const char*>(aPtr);
    const std::size_t length = BoundedLength(text, size < 256 ? size : 256);
    if (KAVO_CHECK_TEXT(length < 256 && length < size, "strlen((char *)aPtr) < 256")) {
        error = MSBlockMove(text, buffer, static_cast<uint32_t>(length));
        KAVO_ASSERT(error == kNoError);
    } else {
        error = kGeneralError;
    }
    const int16_t unlocked = MSUnlockHandle(path);
    KAVO_ASSERT(unlocked == kNoError);
    return error;
}

// The path's checks hold in every build: a path that is null, empty or of
// 256 characters or more is refused (the medium keeps its path).
int16_t KAVO_CALL MediumChangePathName(TMedium* theMedium, const char* newPath) {
    if (!Known(theMedium) || !KAVO_CHECK(newPath != 0)) return kGeneralError;
    const std::size_t length = BoundedLength(newPath, 256);
    if (!KAVO_CHECK_TEXT(length + 1 <= 256, "strlen(newPath) + 1 <= 256") ||
        !KAVO_CHECK_TEXT(length > 0, "strlen(newPath) > 0"))
        return kGeneralError;
    MSHandle handle = nullptr;
    int16_t error = MSNewHandle(&handle, static_cast<uint32_t>(length + 1));
    if (!KAVO_CHECK(error == kNoError)) return error;
    void* address = nullptr;
    error = MSLockHandle(handle, &address);
    if (KAVO_CHECK(error == kNoError)) {
        error = MSBlockMove(newPath, address, static_cast<uint32_t>(length + 1));
        KAVO_ASSERT(error == kNoError);
        const int16_t unlocked = MSUnlockHandle(handle);
        KAVO_ASSERT(unlocked == kNoError);
    }
    if (error != kNoError) {
        MSDisposeHandle(handle);
        return error;
    }
    error = theMedium->ChangePathName(handle);
    if (error != kNoError) MSDisposeHandle(handle);  // refused: the medium did not take it
    return error;
}

int16_t KAVO_CALL MediumLoadPathName(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->LoadPathName() : kRefused;
}

int32_t KAVO_CALL MediumHasPathNameLoaded(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->HasPathNameLoaded() : 0;
}

// ---------------------------------------------------------------------------
// Fields

int32_t KAVO_CALL MediumEditable(TMedium* theMedium) { return Known(theMedium) ? theMedium->Editable() : 0; }
int32_t KAVO_CALL MediumIsDirty(TMedium* theMedium) { return Known(theMedium) ? theMedium->IsDirty() : 0; }
int32_t KAVO_CALL MediumReadyForPreview(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->ReadyForPreview() : 0;
}
int32_t KAVO_CALL MediumReadyForPrimeTime(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->ReadyForPrimeTime() : 0;
}
int32_t KAVO_CALL MediumGetRezID(TMedium* theMedium) { return Known(theMedium) ? theMedium->GetRezID() : 0; }

int16_t KAVO_CALL MediumChangeRezID(TMedium* theMedium, int32_t rezID) {
    return Known(theMedium) ? theMedium->ChangeRezID(rezID) : kRefused;
}

namespace {

// The class's getters hand nothing back for a null pointer (after their
// report); so do these, with a failure code.
template <typename Value, typename Getter>
int16_t GetInto(TMedium* theMedium, Value* out, Getter get) {
    if (!Known(theMedium) || !KAVO_CHECK(out != 0)) return kGeneralError;
    (theMedium->*get)(out);
    return kNoError;
}

}  // namespace

int16_t KAVO_CALL MediumGetFlags(TMedium* theMedium, uint32_t* flags) {
    return GetInto(theMedium, flags, &TMedium::GetFlags);
}

int16_t KAVO_CALL MediumChangeFlags(TMedium* theMedium, uint32_t flags) {
    return Known(theMedium) ? theMedium->ChangeFlags(flags) : kRefused;
}

int16_t KAVO_CALL MediumGetDirtyFlags(TMedium* theMedium, uint32_t* flags) {
    return GetInto(theMedium, flags, &TMedium::GetDirtyFlags);
}

int16_t KAVO_CALL MediumChangeDirtyFlags(TMedium* theMedium, uint32_t flags) {
    return Known(theMedium) ? theMedium->ChangeDirtyFlags(flags) : kRefused;
}

int16_t KAVO_CALL MediumGetScratch(TMedium* theMedium, uint32_t* scratch) {
    return Known(theMedium) ? theMedium->GetScratch(scratch) : kRefused;
}

int16_t KAVO_CALL MediumChangeScratch(TMedium* theMedium, uint32_t scratch) {
    return Known(theMedium) ? theMedium->ChangeScratch(scratch) : kRefused;
}

int16_t KAVO_CALL MediumGetCreateDate(TMedium* theMedium, DateTimeRecord* date) {
    return GetInto(theMedium, date, &TMedium::GetCreateDate);
}

int16_t KAVO_CALL MediumGetModifiedDate(TMedium* theMedium, DateTimeRecord* date) {
    return GetInto(theMedium, date, &TMedium::GetModifiedDate);
}

// ---------------------------------------------------------------------------
// The virtual operations

#define KAVO_FORWARD(Export, Operation, Type)                               \
    int16_t KAVO_CALL Export(TMedium* theMedium, Type* value) {            \
        return Known(theMedium) ? theMedium->Operation(value) : kRefused; \
    }
KAVO_FORWARD(MediumGetPosterRect, GetPosterRect, Rect)
KAVO_FORWARD(MediumGetMediumRect, GetMediumRect, Rect)
KAVO_FORWARD(MediumGetTrimStart, GetTrimStart, TimeCodeRecord)
KAVO_FORWARD(MediumChangeTrimStart, ChangeTrimStart, TimeCodeRecord)
KAVO_FORWARD(MediumGetTrimEnd, GetTrimEnd, TimeCodeRecord)
KAVO_FORWARD(MediumChangeTrimEnd, ChangeTrimEnd, TimeCodeRecord)
KAVO_FORWARD(MediumGetTrimDuration, GetTrimDuration, TimeCodeRecord)
KAVO_FORWARD(MediumChangeTrimDuration, ChangeTrimDuration, TimeCodeRecord)
KAVO_FORWARD(MediumGetDuration, GetDuration, TimeCodeRecord)
KAVO_FORWARD(MediumGetFrameRate, GetFrameRate, float)
#undef KAVO_FORWARD

int16_t KAVO_CALL MediumReconcileTrimDuration(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->ReconcileTrimDuration() : kRefused;
}

int16_t KAVO_CALL MediumGetSample(TMedium* theMedium, TimeCodeRecord* timeCode, void** sample) {
    return Known(theMedium) ? theMedium->GetSample(timeCode, sample) : kRefused;
}

int16_t KAVO_CALL MediumGetNextSample(TMedium* theMedium, TimeCodeRecord* timeCode, void** sample) {
    return Known(theMedium) ? theMedium->GetNextSample(timeCode, sample) : kRefused;
}

// ---------------------------------------------------------------------------
// Kind and proxy

int16_t KAVO_CALL MediumGetKind(TMedium* theMedium, MediumKind* kind) {
    return GetInto(theMedium, kind, &TMedium::GetKind);
}

int32_t KAVO_CALL MediumIsProxy(TMedium* theMedium) { return Known(theMedium) ? theMedium->IsProxy() : 0; }

int16_t KAVO_CALL MediumMakeProxy(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->MakeProxy() : kRefused;
}

int16_t KAVO_CALL MediumRemoveProxy(TMedium* theMedium) {
    return Known(theMedium) ? theMedium->RemoveProxy() : kRefused;
}

// ---------------------------------------------------------------------------
// The tape locator

namespace {

// Only a clip from tape has a locator: any other medium answers kNotOffered.
int16_t LoadLocatorOf(TMedium* theMedium) {
    auto* analog = dynamic_cast<TAnalogMedium*>(theMedium);
    return analog != nullptr ? analog->LoadLocator() : static_cast<int16_t>(kNotOffered);
}

// The locator functions refuse a medium of the kind "aMED" with -1 and hand
// any other to the analog accessor. The comparison is the wrong way round
// for what the functions are for, and it is kept: hosts know these results.
// A medium that reaches the accessor has already loaded a locator, so it is
// a clip from tape whose kind code has been changed; one that is not (none
// can be) answers kNotOffered instead of being called as one.
template <typename Result, typename Accessor>
Result LocatorQuery(TMedium* theMedium, Accessor access) {
    if (!Known(theMedium)) return kGeneralError;
    const int16_t loaded = LoadLocatorOf(theMedium);
    if (loaded != kNoError) return loaded;
    MediumKind kind;
    theMedium->GetKind(&kind);
    if (KindIs(kind, kAnalogMediumKind)) return kGeneralError;
    auto* analog = dynamic_cast<TAnalogMedium*>(theMedium);
    if (analog == nullptr) return kNotOffered;
    return access(analog);
}

}  // namespace

int16_t KAVO_CALL MediumLoadLocator(TMedium* theMedium) {
    return Known(theMedium) ? LoadLocatorOf(theMedium) : kRefused;
}

#define KAVO_LOCATOR_QUERY(Export, Result, Accessor, Type)                                        \
    Result KAVO_CALL Export(TMedium* theMedium, Type value) {                                     \
        return LocatorQuery<Result>(theMedium, [&](TAnalogMedium* analog) -> Result {             \
            return analog->Accessor(value);                                                       \
        });                                                                                       \
    }
KAVO_LOCATOR_QUERY(MediumLocatorGetTapeName, int16_t, LocatorGetTapeName, char*)
KAVO_LOCATOR_QUERY(MediumLocatorGetDescription, int16_t, LocatorGetDescription, char*)
KAVO_LOCATOR_QUERY(MediumLocatorGetShooter, int16_t, LocatorGetShooter, char*)
KAVO_LOCATOR_QUERY(MediumLocatorGetEnteredBy, int16_t, LocatorGetEnteredBy, char*)
KAVO_LOCATOR_QUERY(MediumLocatorGetTapeID, int16_t, LocatorGetTapeID, uint32_t*)
KAVO_LOCATOR_QUERY(MediumLocatorGetCreateDate, int16_t, LocatorGetCreateDate, uint32_t*)
KAVO_LOCATOR_QUERY(MediumLocatorGetPlugType, int16_t, LocatorGetPlugType, PlugKind*)
#undef KAVO_LOCATOR_QUERY

#define KAVO_LOCATOR_SIZE(Export, Accessor)                                                         \
    int32_t KAVO_CALL Export(TMedium* theMedium) {                                                  \
        return LocatorQuery<int32_t>(theMedium, [](TAnalogMedium* analog) { return analog->Accessor(); }); \
    }
KAVO_LOCATOR_SIZE(MediumLocatorTapeNameSize, LocatorTapeNameSize)
KAVO_LOCATOR_SIZE(MediumLocatorDescriptionSize, LocatorDescriptionSize)
KAVO_LOCATOR_SIZE(MediumLocatorShooterSize, LocatorShooterSize)
KAVO_LOCATOR_SIZE(MediumLocatorEnteredBySize, LocatorEnteredBySize)
#undef KAVO_LOCATOR_SIZE

// ---------------------------------------------------------------------------
// For Basic callers: records as separate values

namespace {

TimeCodeRecord TimeCode(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    TimeCodeRecord timeCode;
    timeCode.hours = a;
    timeCode.minutes = b;
    timeCode.seconds = c;
    timeCode.frames = d;
    return timeCode;
}

}  // namespace

#define KAVO_VB_TIME_CODE(Name)                                                                              \
    int16_t KAVO_CALL VBMediumChange##Name(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c, uint8_t d) { \
        if (!Known(theMedium)) return kGeneralError;                                                         \
        TimeCodeRecord timeCode = TimeCode(a, b, c, d);                                                      \
        return theMedium->Change##Name(&timeCode);                                                           \
    }                                                                                                        \
    /* The last value stored, or kGeneralError when nothing could be. */                                    \
    int16_t KAVO_CALL VBMediumGet##Name(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,          \
                                        uint16_t* d) {                                                       \
        if (!Known(theMedium) || !KAVO_CHECK(a != 0 && b != 0 && c != 0 && d != 0)) return kGeneralError;   \
        TimeCodeRecord timeCode = TimeCode(0, 0, 0, 0);                                                      \
        theMedium->Get##Name(&timeCode);                                                                     \
        *a = timeCode.hours;                                                                                 \
        *b = timeCode.minutes;                                                                               \
        *c = timeCode.seconds;                                                                               \
        *d = timeCode.frames;                                                                                \
        return static_cast<int16_t>(*d);                                                                     \
    }
KAVO_VB_TIME_CODE(TrimStart)
KAVO_VB_TIME_CODE(TrimEnd)
KAVO_VB_TIME_CODE(TrimDuration)
KAVO_VB_TIME_CODE(ClipStart)
KAVO_VB_TIME_CODE(ClipEnd)
KAVO_VB_TIME_CODE(ClipDuration)
#undef KAVO_VB_TIME_CODE

int16_t KAVO_CALL VBMediumChangeCreateDate(TMedium* theMedium, uint16_t year, uint8_t month, uint8_t day,
                                           uint8_t hour, uint8_t minute, uint8_t second) {
    if (!Known(theMedium)) return kGeneralError;
    DateTimeRecord date;
    date.year = year;
    date.month = month;
    date.day = day;
    date.hour = hour;
    date.minute = minute;
    date.second = second;
    return theMedium->ChangeCreateDate(&date);
}

int16_t KAVO_CALL VBMediumGetCreateDate(TMedium* theMedium, uint16_t* year, uint8_t* month, uint8_t* day,
                                        uint8_t* hour, uint8_t* minute, uint8_t* second) {
    if (!Known(theMedium) ||
        !KAVO_CHECK(year != 0 && month != 0 && day != 0 && hour != 0 && minute != 0 && second != 0))
        return kGeneralError;
    DateTimeRecord date{};
    theMedium->GetCreateDate(&date);
    *year = date.year;
    *month = date.month;
    *day = date.day;
    *hour = date.hour;
    *minute = date.minute;
    *second = date.second;
    return kNoError;
}

int16_t KAVO_CALL VBMediumGetPosterRect(TMedium* theMedium, int16_t* top, int16_t* left, int16_t* bottom,
                                        int16_t* right) {
    if (!Known(theMedium) || !KAVO_CHECK(top != 0 && left != 0 && bottom != 0 && right != 0))
        return kGeneralError;
    Rect rect{};
    const int16_t error = theMedium->GetPosterRect(&rect);
    *top = rect.top;
    *left = rect.left;
    *bottom = rect.bottom;
    *right = rect.right;
    return error;
}

int16_t KAVO_CALL VBMediumGetSample(TMedium* theMedium, uint8_t* a, uint8_t* b, uint8_t* c, uint8_t* d,
                                    void** sample) {
    if (!Known(theMedium) || !KAVO_CHECK(a != 0 && b != 0 && c != 0 && d != 0)) return kGeneralError;
    TimeCodeRecord timeCode = TimeCode(*a, *b, *c, *d);
    return theMedium->GetSample(&timeCode, sample);
}

// ---------------------------------------------------------------------------
// The tape header

int16_t KAVO_CALL TapeSaveInfo(int16_t refNum, const char* tapeName, uint32_t tapeID, uint32_t createDate,
                               const char* description, const char* enteredBy, const char* shooter,
                               const PlugKind* plugType) {
    if (!ManagerExists() || !KAVO_CHECK(tapeName != 0 && description != 0 && enteredBy != 0 && shooter != 0) ||
        !KAVO_CHECK(plugType != 0))
        return kGeneralError;
    MSHandle image = nullptr;
    int16_t error = MSNewHandle(&image, 0);
    if (!KAVO_CHECK_TEXT(error == kNoError, "error == kNoError")) return error;
    uint32_t length = 0;
    MSHandle packed = PackLong(image, length, 1);
    if (packed != nullptr) packed = PackBytes(packed, length, plugType->code, 4);
    if (packed != nullptr) packed = PackLong(packed, length, tapeID);
    if (packed != nullptr) packed = PackLong(packed, length, createDate);
    for (const char* text : {tapeName, description, enteredBy, shooter})
        if (packed != nullptr) packed = PackString(packed, length, text);
    if (packed == nullptr) return kOutOfMemory;  // the failed resize took the handle
    error = gRezManager->AddNewRecord(refNum, kTapeRecordType, kTapeHeaderName, kTapeHeaderID, packed);
    if (error != kNoError) {
        MSDisposeHandle(packed);
        return error;
    }
    error = gRezManager->ReleaseRecord(packed);
    KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    return kNoError;
}

// The plug kind is taken as the image's first four bytes, as they are (the
// version, 00 00 00 01), not from where it was written. A clip's locator has
// a slip of its own (the same bytes read as a number); the two are kept
// apart.
int16_t KAVO_CALL sUnpackTapeInfo(LocatorRecord* record) {
    if (!ManagerExists() || !KAVO_CHECK(record != 0)) return kGeneralError;
    MSHandle data = nullptr;
    // The type argument is the header's name: its first four characters are
    // the type "DVC ".
    int16_t error = gRezManager->ReadRecordByNumber(kCurrentFile, kTapeHeaderID, kTapeHeaderName, &data);
    if (error != kNoError) return error;
    void* address = nullptr;
    error = MSLockHandle(data, &address);
    int16_t result = kNoError;
    if (!KAVO_CHECK_TEXT(error == kNoError, "error == kNoError")) {
        result = error;
    } else {
        const auto* image = static_cast<const unsigned char*>(address);
        if (TapeInfoImageLength(image, MSGetHandleSize(data)) == 0) {
            result = kGeneralError;  // damaged: cut short, or a count past its end
        } else {
            UnpackLong(image, &record->fVersion);
            UnpackBytes(image, record->fPlugType.code, 4);
            UnpackTapeInfoRest(image, record);
        }
        error = MSUnlockHandle(data);
        KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    }
    error = gRezManager->ReleaseRecord(data);
    KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    return result;
}

namespace {

int16_t TapeText(const CString LocatorRecord::*field, char* buffer) {
    LocatorRecord record{};
    const int16_t error = sUnpackTapeInfo(&record);
    if (error != kNoError) return error;
    const CString& text = record.*field;
    const int16_t moved = MSBlockMove(text.Text(), buffer, text.Length() + 1);
    KAVO_ASSERT_TEXT(moved == kNoError, "error == kNoError");
    return moved;
}

int32_t TapeTextSize(const CString LocatorRecord::*field) {
    LocatorRecord record{};
    if (sUnpackTapeInfo(&record) != kNoError) return 0;
    return static_cast<int32_t>((record.*field).Length() + 1);
}

// Replaces one text of the header: the current database's header with the
// new text is written to refNum, in place of refNum's header. The new header
// is made in full before the old one is removed, and the two steps are one
// atomic change, so a failure or the end of the process loses nothing.
int16_t TapeChange(int16_t refNum, CString LocatorRecord::*field, const char* newText) {
    if (!ManagerExists() || !KAVO_CHECK(newText != 0)) return kGeneralError;
    int16_t current = 0;
    int16_t error = gRezManager->GetCurrentDB(&current);
    KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    LocatorRecord record{};
    if ((error = sUnpackTapeInfo(&record)) != kNoError) return error;
    if (!(record.*field).Assign(newText)) return kOutOfMemory;
    uint32_t tapeID = 0;
    std::memcpy(&tapeID, record.fTapeID, 4);

    const bool grouped = gRezManager->BeginAtomicChange() == kNoError;
    error = gRezManager->RemoveNamedRecord(refNum, kTapeHeaderName, kTapeRecordType);
    KAVO_ASSERT_TEXT(error == kNoError, "error == kNoError");
    error = TapeSaveInfo(refNum, record.fTapeName.Text(), tapeID, record.fCreateDate, record.fDescription.Text(),
                         record.fEnteredBy.Text(), record.fShooter.Text(), &record.fPlugType);
    if (grouped) {
        const int16_t ended = gRezManager->EndAtomicChange(error == kNoError);
        if (error == kNoError) error = ended;
    }
    if (error != kNoError) return error;
    const int16_t restored = gRezManager->SetCurrentDB(current);
    KAVO_ASSERT_TEXT(restored == kNoError, "error == kNoError");
    return kNoError;
}

}  // namespace

int16_t KAVO_CALL TapeGetName(char* buffer) { return TapeText(&LocatorRecord::fTapeName, buffer); }
int16_t KAVO_CALL TapeGetDescription(char* buffer) { return TapeText(&LocatorRecord::fDescription, buffer); }
int16_t KAVO_CALL TapeGetEnteredBy(char* buffer) { return TapeText(&LocatorRecord::fEnteredBy, buffer); }
int16_t KAVO_CALL TapeGetShooter(char* buffer) { return TapeText(&LocatorRecord::fShooter, buffer); }

int32_t KAVO_CALL TapeNameSize(int32_t unused) {
    (void)unused;
    return TapeTextSize(&LocatorRecord::fTapeName);
}
int32_t KAVO_CALL TapeDescriptionSize(int32_t unused) {
    (void)unused;
    return TapeTextSize(&LocatorRecord::fDescription);
}
int32_t KAVO_CALL TapeEnteredBySize(int32_t unused) {
    (void)unused;
    return TapeTextSize(&LocatorRecord::fEnteredBy);
}
int32_t KAVO_CALL TapeShooterSize(int32_t unused) {
    (void)unused;
    return TapeTextSize(&LocatorRecord::fShooter);
}

int16_t KAVO_CALL TapeGetTapeID(uint32_t* tapeID) {
    if (!KAVO_CHECK(tapeID != 0)) return kGeneralError;
    LocatorRecord record{};
    const int16_t error = sUnpackTapeInfo(&record);
    if (error == kNoError) std::memcpy(tapeID, record.fTapeID, 4);
    return error;
}

int16_t KAVO_CALL TapeGetPlugType(PlugKind* plugType) {
    if (!KAVO_CHECK(plugType != 0)) return kGeneralError;
    LocatorRecord record{};
    const int16_t error = sUnpackTapeInfo(&record);
    if (error == kNoError) *plugType = record.fPlugType;
    return error;
}

int16_t KAVO_CALL TapeChangeName(int16_t refNum, const char* newText) {
    return TapeChange(refNum, &LocatorRecord::fTapeName, newText);
}
int16_t KAVO_CALL TapeChangeDescription(int16_t refNum, const char* newText) {
    return TapeChange(refNum, &LocatorRecord::fDescription, newText);
}
int16_t KAVO_CALL TapeChangeEnteredBy(int16_t refNum, const char* newText) {
    return TapeChange(refNum, &LocatorRecord::fEnteredBy, newText);
}
int16_t KAVO_CALL TapeChangeShooter(int16_t refNum, const char* newText) {
    return TapeChange(refNum, &LocatorRecord::fShooter, newText);
}
