#include "LarkDB/Tscene.h"

#include <cstring>
#include <new>

#include "Common/Kavoassert.h"
#include "LarkDB/Mdiawrap.h"
#include "LarkDB/MediumImage.h"
#include "LarkDB/RecordReplace.h"
#include "LarkDB/SharedOwners.h"
#include "LarkDB/Tmedium.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Rmmgr.h"

namespace {

const char kDefaultSceneName[] = "No Scene Name";

// Up to the caller's NUL, at most 31 characters, the field filled with zeros.
void CopyName(char* field, const char* name) {
    std::memset(field, 0, kNameLength);
    std::size_t length = 0;
    while (length < kNameLength - 1 && name[length] != '\0') ++length;
    std::memcpy(field, name, length);
}

// The medium in the "MDUM" record of id in refNum, or null (the read's
// code in *error; -1 when the factory makes nothing of the record).
TMedium* ReadMedium(int16_t refNum, int32_t id, int16_t* error) {
    MSHandle data = nullptr;
    *error = gRezManager->ReadRecordByNumber(refNum, id, "MDUM", &data);
    if (*error != kNoError) return nullptr;
    *error = gRezManager->DetachRecord(data);
    if (!KAVO_CHECK_TEXT(*error == kNoError, "error == kNoError")) return nullptr;  // still the manager's
    TMedium* medium = MediumFromPackedData(data);
    const int16_t disposed = MSDisposeHandle(data);
    KAVO_ASSERT_TEXT(disposed == kNoError, "error == kNoError");
    *error = medium != nullptr ? kNoError : kGeneralError;
    return medium;
}

}  // namespace

// fFlags is not set by the contract's constructor: zero, so that an
// unchanged scene packs known bytes.
TScene::TScene()
    : fVersion(1),
      fTakeRezIDList(new (std::nothrow) TList(50)),
      fCurrentTake(nullptr),
      fFlags(0),
      fCurrentTakeIndex(0),
      fTitle("Blank Scene"),
      fDescription("Blank Description"),
      fAuthor(),
      fRezID(0),
      fRezName(),
      fDirtyFlags(0),
      fEditable(1),
      fLoaded(0) {
    std::strcpy(fRezName, kDefaultSceneName);
}

TScene::TScene(const TScene& other) : fTakeRezIDList(nullptr), fCurrentTake(nullptr) { CopyFields(other); }

TScene& TScene::operator=(const TScene& other) {
    if (this != &other) {
        ReleaseShared();
        CopyFields(other);
    }
    return *this;
}

// Member by member; the list and the loaded take are shared, each holder
// counted. (A holder the owner table cannot take does without: an empty
// list could not stand for the shared one, so the copy then has none.)
void TScene::CopyFields(const TScene& other) {
    fVersion = other.fVersion;
    fTakeRezIDList = kavo::AddOwner(other.fTakeRezIDList) ? other.fTakeRezIDList : nullptr;
    fCurrentTake = kavo::AddOwner(other.fCurrentTake) ? other.fCurrentTake : nullptr;
    fFlags = other.fFlags;
    fCurrentTakeIndex = other.fCurrentTakeIndex;
    fTitle = other.fTitle;
    fDescription = other.fDescription;
    fAuthor = other.fAuthor;
    fRezID = other.fRezID;
    std::memcpy(fRezName, other.fRezName, kNameLength);
    fDirtyFlags = other.fDirtyFlags;
    fEditable = other.fEditable;
    fLoaded = fCurrentTake != nullptr ? other.fLoaded : 0;
}

void TScene::ReleaseShared() {
    Unload();
    if (kavo::DropOwner(fTakeRezIDList)) delete fTakeRezIDList;
    fTakeRezIDList = nullptr;
}

TScene::~TScene() { ReleaseShared(); }

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdelete-non-virtual-dtor"
#endif
void DeleteScene(TScene* scene) { delete scene; }
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// ---------------------------------------------------------------------------
// Fields

int16_t TScene::ChangeRezID(int32_t rezID) {
    if (NotEditable()) return kNotEditable;
    fRezID = rezID;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

void TScene::GetRezName(char* out) const {
    const int16_t error = MSBlockMove(fRezName, out, kNameLength);
    KAVO_ASSERT(error == kNoError);
}

int16_t TScene::ChangeRezName(const char* name) {
    if (!KAVO_CHECK_TEXT(name != 0, "newRezName != 0")) return kGeneralError;
    if (NotEditable()) return kNotEditable;
    CopyName(fRezName, name);
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

void TScene::GetTitle(CString* title) const {
    if (KAVO_CHECK(title != 0)) *title = fTitle;
}

int16_t TScene::ChangeTitle(const CString* title) {
    if (NotEditable()) return kNotEditable;
    if (!KAVO_CHECK(title != 0)) return kGeneralError;
    if (!fTitle.Assign(title->Text())) return kOutOfMemory;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

int16_t TScene::ChangeAuthor(const CString* author) {
    if (NotEditable()) return kNotEditable;
    if (!KAVO_CHECK(author != 0)) return kGeneralError;
    if (!fAuthor.Assign(author->Text())) return kOutOfMemory;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

void TScene::GetFlags(uint32_t* flags) const {
    if (KAVO_CHECK_TEXT(flags != 0, "retrievedFlags != 0")) *flags = fFlags;
}

int16_t TScene::ChangeFlags(uint32_t flags) {
    if (NotEditable()) return kGeneralError;
    fFlags = flags;
    return kNoError;
}

void TScene::GetDirtyFlags(uint32_t* flags) const {
    if (KAVO_CHECK_TEXT(flags != 0, "retrievedFlags != 0")) *flags = fDirtyFlags;
}

int16_t TScene::ChangeDirtyFlags(uint32_t flags) {
    if (NotEditable()) return kNotEditable;
    fDirtyFlags = flags;
    return kNoError;
}

void TScene::GetCurrentMedium(TMedium** medium) const {
    if (KAVO_CHECK_TEXT(medium != 0, "retrievedMedium != 0")) *medium = fCurrentTake;
}

int16_t TScene::ChangeMedium(TMedium* medium) {
    if (NotEditable()) return kNotEditable;
    // The old medium is left to whoever holds it: not deleted here.
    kavo::DropOwner(fCurrentTake);
    fCurrentTake = medium;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

uint16_t TScene::NumTakes() const { return fTakeRezIDList != nullptr ? fTakeRezIDList->Count() : 0; }

// Which take Load loads: an index in the list; a loaded take stays loaded
// until Unload.
int16_t TScene::ChangeCurrentTakeIndex(uint16_t index) {
    if (NotEditable()) return kNotEditable;
    if (index >= NumTakes()) return kGeneralError;
    fCurrentTakeIndex = index;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

// ---------------------------------------------------------------------------
// The take list

#define KAVO_LIST_OPERATION(Signature, Call)                \
    int16_t TScene::Signature {                             \
        if (!KAVO_CHECK(fTakeRezIDList != 0)) return kGeneralError; \
        return fTakeRezIDList->Call;                        \
    }
KAVO_LIST_OPERATION(AppendTake(int32_t id), Append(id))
KAVO_LIST_OPERATION(PrependTake(int32_t id), Prepend(id))
KAVO_LIST_OPERATION(InsertTakeAt(int32_t id, uint16_t index), Insert(id, index))
KAVO_LIST_OPERATION(ChangeTakeAt(int32_t id, uint16_t index), Set(id, index))
KAVO_LIST_OPERATION(GetNthTakeID(uint16_t index, int32_t* id), Get(index, id))
KAVO_LIST_OPERATION(FindIndexOfTake(int32_t id, uint16_t* index), Find(id, index))
KAVO_LIST_OPERATION(DeleteEntryFromList(uint16_t index), Remove(index))
KAVO_LIST_OPERATION(DeleteTakeFromList(int32_t id), RemoveValue(id))
KAVO_LIST_OPERATION(MoveTakeUp(int32_t id), MoveUp(id))
KAVO_LIST_OPERATION(MoveTakeDown(int32_t id), MoveDown(id))
KAVO_LIST_OPERATION(BringTakeFront(int32_t id), BringToFront(id))
KAVO_LIST_OPERATION(SendTakeToBack(int32_t id), SendToBack(id))
KAVO_LIST_OPERATION(SwapTakes(uint16_t a, uint16_t b), Swap(a, b))
#undef KAVO_LIST_OPERATION

// A take moved forward lands before the take that stood at toIndex: with
// X Y Z, moving 0 to 2 gives Y X Z, and no move takes a take from the front
// to the very last place.
int16_t TScene::MoveTakeWithinList(uint16_t fromIndex, uint16_t toIndex) {
    KAVO_ASSERT(fromIndex < NumTakes());
    KAVO_ASSERT(toIndex < NumTakes());
    if (toIndex == fromIndex) return kNoError;
    if (fromIndex >= NumTakes() || toIndex >= NumTakes()) return kGeneralError;
    if (toIndex > fromIndex) --toIndex;
    int32_t id = 0;
    int16_t error = GetNthTakeID(fromIndex, &id);
    if (error != kNoError) return error;
    if ((error = DeleteEntryFromList(fromIndex)) != kNoError) return error;
    return NumTakes() > toIndex ? InsertTakeAt(id, toIndex) : AppendTake(id);
}

// ---------------------------------------------------------------------------
// Takes with their records

int16_t TScene::RemoveTakeAt(uint16_t index, int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    int32_t id = 0;
    int16_t error = GetNthTakeID(index, &id);
    if (error != kNoError) return error;
    TMedium* medium = ReadMedium(refNum, id, &error);
    if (medium == nullptr) return error;
    medium->RemoveAllFromDB(refNum);
    error = DeleteEntryFromList(index);
    KAVO_ASSERT(error == kNoError);
    delete medium;
    return error;
}

int16_t TScene::RemoveTake(int32_t id, int16_t refNum) {
    uint16_t index = 0;
    const int16_t error = FindIndexOfTake(id, &index);
    return error != kNoError ? error : RemoveTakeAt(index, refNum);
}

int16_t TScene::RemoveAllTakes(int16_t refNum) {
    for (uint16_t i = NumTakes(); i > 0; --i) {
        const int16_t error = RemoveTakeAt(static_cast<uint16_t>(i - 1), refNum);
        if (!KAVO_CHECK(error == kNoError)) return error;
    }
    return kNoError;
}

// ---------------------------------------------------------------------------
// Loading the current take

int16_t TScene::Load(int16_t refNum) {
    if (!KAVO_CHECK(fTakeRezIDList != 0) || !KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    if (fLoaded) return kNoError;
    KAVO_ASSERT(fCurrentTake == 0);
    int32_t id = 0;
    int16_t error = fTakeRezIDList->Get(fCurrentTakeIndex, &id);
    if (error != kNoError) return error;
    TMedium* medium = ReadMedium(refNum, id, &error);
    if (medium == nullptr) return error;
    kavo::DropOwner(fCurrentTake);  // a stale medium is left to its holder
    fCurrentTake = medium;
    fLoaded = 1;
    return kNoError;
}

int16_t TScene::Unload() {
    if (!fLoaded) return kGeneralError;
    KAVO_ASSERT(fTakeRezIDList != 0);
    KAVO_ASSERT(fCurrentTake != 0);
    if (kavo::DropOwner(fCurrentTake)) delete fCurrentTake;
    fCurrentTake = nullptr;
    fLoaded = 0;
    return kNoError;
}

int16_t TScene::FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    if (fCurrentTake == nullptr) return kNoError;
    return fCurrentTake->FreeMemory(unused1, unused2, amountToFree);
}

// ---------------------------------------------------------------------------
// The packed image and the "SEEN" record

MSHandle TScene::PackGuts(MSHandle stream, uint32_t& length) {
    if (!KAVO_CHECK(stream != 0)) return nullptr;
    KAVO_ASSERT(fTakeRezIDList != 0);
    stream = PackLong(stream, length, fVersion);
    if (stream != nullptr) stream = PackLong(stream, length, fFlags);
    if (stream != nullptr) stream = PackLong(stream, length, static_cast<uint32_t>(fRezID));
    if (stream != nullptr) stream = PackString(stream, length, fRezName);
    if (stream != nullptr) stream = PackString(stream, length, fDescription.Text());
    if (stream != nullptr) stream = PackString(stream, length, fAuthor.Text());
    if (stream != nullptr) stream = PackString(stream, length, fTitle.Text());
    if (stream != nullptr) stream = PackShort(stream, length, fCurrentTakeIndex);
    if (stream == nullptr || fTakeRezIDList == nullptr) return stream;
    const uint16_t count = fTakeRezIDList->Count();
    stream = PackShort(stream, length, count);
    for (uint16_t i = 0; i < count && stream != nullptr; ++i) {
        int32_t id = 0;
        const int16_t error = fTakeRezIDList->Get(i, &id);
        KAVO_ASSERT(error == kNoError);
        stream = PackLong(stream, length, static_cast<uint32_t>(id));
    }
    return stream;
}

uint32_t TScene::UnpackGuts(const unsigned char* buffer) {
    if (!KAVO_CHECK(buffer != 0)) return 0;
    uint32_t at = UnpackLong(buffer, &fVersion);
    at += UnpackLong(buffer + at, &fFlags);
    at += UnpackLong(buffer + at, &fRezID);
    at += UnpackString(buffer + at, fRezName, kNameLength);
    at += UnpackCString(buffer + at, &fDescription);
    at += UnpackCString(buffer + at, &fAuthor);
    at += UnpackCString(buffer + at, &fTitle);
    at += UnpackShort(buffer + at, &fCurrentTakeIndex);
    uint16_t count = 0;
    at += UnpackShort(buffer + at, &count);
    if (KAVO_CHECK(fTakeRezIDList != 0)) {
        fTakeRezIDList->Clear();
        for (uint16_t i = 0; i < count; ++i) {
            int32_t id = 0;
            at += UnpackLong(buffer + at, &id);
            const int16_t error = fTakeRezIDList->Append(id);
            KAVO_ASSERT(error == kNoError);
        }
    } else {
        at += 4u * count;
    }
    // A subtraction, not the clearing of a bit: whatever the word held.
    fDirtyFlags -= 2;
    return at;
}

int16_t TScene::UnpackFromDB(int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    MSHandle data = nullptr;
    int16_t error = gRezManager->ReadRecordByNumber(refNum, fRezID, kSceneRecordType, &data);
    if (error != kNoError) return error;
    error = gRezManager->DetachRecord(data);
    if (!KAVO_CHECK(error == kNoError)) return error;
    void* address = nullptr;
    error = MSLockHandle(data, &address);
    int16_t result = error;
    if (KAVO_CHECK(error == kNoError)) {
        const auto* bytes = static_cast<const unsigned char*>(address);
        if (SceneImageLength(bytes, MSGetHandleSize(data)) == 0) {
            result = kGeneralError;  // damaged: the scene stays as it was
        } else {
            UnpackGuts(bytes);
            result = kNoError;
        }
    }
    error = MSDisposeHandle(data);
    KAVO_ASSERT(error == kNoError);
    return result;
}

int16_t TScene::SaveAllToDB(int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    if ((fDirtyFlags & kDirtyContents) != 0) {
        MSHandle image = nullptr;
        int16_t error = MSNewHandle(&image, 0);
        if (!KAVO_CHECK(error == kNoError)) return error;
        uint32_t length = 0;
        MSHandle packed = PackGuts(image, length);
        if (packed == nullptr) return kOutOfMemory;  // the failed resize took the handle
        error = ReplaceRecord(refNum, kSceneRecordType, fRezName, fRezID, packed, {kKeyNotFound, kRecordNotFound});
        if (error != kNoError) {
            MSDisposeHandle(packed);
            return error;
        }
        error = gRezManager->ReleaseRecord(packed);
        KAVO_ASSERT(error == kNoError);
    }
    fDirtyFlags = 0;
    return kNoError;
}

int16_t TScene::RemoveAllFromDB(int16_t refNum) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    const int16_t error = RemoveAllTakes(refNum);
    if (error != kNoError) return error;
    return gRezManager->RemoveNamedRecord(refNum, fRezName, kSceneRecordType);
}
