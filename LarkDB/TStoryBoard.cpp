#include "LarkDB/TStoryBoard.h"

#include <initializer_list>
#include <new>

#include "Common/Kavoassert.h"
#include "LarkDB/MediumImage.h"
#include "LarkDB/RecordReplace.h"
#include "LarkDB/SharedOwners.h"
#include "LarkDB/Tscene.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Rmmgr.h"

namespace {

// Every story board between its construction and its destruction.
kavo::TLiveRegister gLiveBoards;

// "LARK", the creator code, as the number whose big-endian bytes spell it.
constexpr uint32_t kLarkCreator = 0x4C41524B;

TScene* SceneAt(TRefList* list, uint16_t index, int16_t* error) {
    void* scene = nullptr;
    *error = list->Get(index, &scene);
    return static_cast<TScene*>(scene);
}

}  // namespace

// The rectangle, the dates and fReserved are not set by the contract's
// constructor: zero, so that an unchanged board packs known bytes.
TStoryBoard::TStoryBoard(uint32_t flags)
    : fVersion(1),
      fSceneRezIDList(new (std::nothrow) TList(0)),
      fLoadedSceneList(new (std::nothrow) TRefList(0)),
      fDBRefNum(-1),
      fFlags(flags),
      fTitle("Blank Story Board"),
      fDescription("Blank Story Description"),
      fAuthor("kavo Computer Products"),
      fTargetStoryRect(),
      fCreateDate(),
      fModifiedDate(),
      fCreator(kLarkCreator),
      fDirtyFlags(0),
      fEditable(1),
      fReadyForPrimeTime(0),
      fReadyForPreview(0),
      fReserved(0),
      fScratch(0) {
    gLiveBoards.Add(this);
}

TStoryBoard::TStoryBoard(const TStoryBoard& other) : fSceneRezIDList(nullptr), fLoadedSceneList(nullptr) {
    CopyFields(other);
    gLiveBoards.Add(this);
}

TStoryBoard& TStoryBoard::operator=(const TStoryBoard& other) {
    if (this != &other) {
        ReleaseShared();
        CopyFields(other);
    }
    return *this;
}

// Member by member; the two lists are shared, each holder counted. (A
// holder the owner table cannot take does without the list.)
void TStoryBoard::CopyFields(const TStoryBoard& other) {
    fVersion = other.fVersion;
    fSceneRezIDList = kavo::AddOwner(other.fSceneRezIDList) ? other.fSceneRezIDList : nullptr;
    fLoadedSceneList = kavo::AddOwner(other.fLoadedSceneList) ? other.fLoadedSceneList : nullptr;
    fDBRefNum = other.fDBRefNum;
    fFlags = other.fFlags;
    fTitle = other.fTitle;
    fDescription = other.fDescription;
    fAuthor = other.fAuthor;
    fTargetStoryRect = other.fTargetStoryRect;
    fCreateDate = other.fCreateDate;
    fModifiedDate = other.fModifiedDate;
    fCreator = other.fCreator;
    fDirtyFlags = other.fDirtyFlags;
    fEditable = other.fEditable;
    fReadyForPrimeTime = other.fReadyForPrimeTime;
    fReadyForPreview = other.fReadyForPreview;
    fReserved = other.fReserved;
    fScratch = other.fScratch;
}

void TStoryBoard::ReleaseShared() {
    if (fLoadedSceneList != nullptr) UnloadAllScenes();
    KAVO_ASSERT(fSceneRezIDList != 0);
    if (kavo::DropOwner(fSceneRezIDList)) delete fSceneRezIDList;
    fSceneRezIDList = nullptr;
    KAVO_ASSERT(fLoadedSceneList != 0);
    if (kavo::DropOwner(fLoadedSceneList)) delete fLoadedSceneList;
    fLoadedSceneList = nullptr;
}

TStoryBoard::~TStoryBoard() {
    ReleaseShared();
    gLiveBoards.Remove(this);
}

bool TStoryBoard::IsLive(const TStoryBoard* board) { return gLiveBoards.Contains(board); }

bool TStoryBoard::RuleL() {
    if (!Editable()) return false;
    fDirtyFlags = kDirtyContents;
    return true;
}

// ---------------------------------------------------------------------------
// Fields

int16_t TStoryBoard::ChangeTitle(const char* title) {
    if (fEditable == 0) return kNotEditable;
    if (!fTitle.Assign(title)) return kOutOfMemory;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

int16_t TStoryBoard::ChangeDescription(const char* description) {
    if (fEditable == 0) return kNotEditable;
    if (!fDescription.Assign(description)) return kOutOfMemory;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

int16_t TStoryBoard::ChangeAuthor(const CString* author) {
    if (fEditable == 0) return kNotEditable;
    if (!fAuthor.Assign(author != nullptr ? author->Text() : nullptr)) return kOutOfMemory;
    fDirtyFlags |= kDirtyContents;
    return kNoError;
}

void TStoryBoard::GetFlags(uint32_t* flags) const {
    if (KAVO_CHECK_TEXT(flags != 0, "retrievedFlags != 0")) *flags = fFlags;
}

int16_t TStoryBoard::ChangeFlags(uint32_t flags) {
    if (!RuleL()) return kGeneralError;
    fFlags = flags;
    return kNoError;
}

void TStoryBoard::GetCreator(uint32_t* creator) const {
    if (creator != nullptr) *creator = fCreator;
}

int16_t TStoryBoard::ChangeCreator(uint32_t creator) {
    if (!RuleL()) return kGeneralError;
    fCreator = creator;
    return kNoError;
}

void TStoryBoard::GetCreateDate(DateTimeRecord* date) const {
    if (KAVO_CHECK(date != 0)) *date = fCreateDate;
}

void TStoryBoard::GetModifiedDate(DateTimeRecord* date) const {
    if (KAVO_CHECK(date != 0)) *date = fModifiedDate;
}

int16_t TStoryBoard::ChangeCreateDate(const DateTimeRecord* date) {
    if (!KAVO_CHECK(date != 0) || !RuleL()) return kGeneralError;
    fCreateDate = *date;
    return kNoError;
}

int16_t TStoryBoard::ChangeModifiedDate(const DateTimeRecord* date) {
    if (!KAVO_CHECK(date != 0) || !RuleL()) return kGeneralError;
    fModifiedDate = *date;
    return kNoError;
}

int16_t TStoryBoard::InitCreateDate() { return kGeneralError; }

void TStoryBoard::GetTargetStoryRect(Rect* rect) {
    if (KAVO_CHECK(rect != 0)) *rect = fTargetStoryRect;
}

int16_t TStoryBoard::ChangeTargetStoryRect(Rect* rect) {
    if (!KAVO_CHECK(rect != 0) || !RuleL()) return kGeneralError;
    fTargetStoryRect = *rect;
    return kNoError;
}

void TStoryBoard::GetDirtyFlags(uint32_t* flags) const {
    if (KAVO_CHECK_TEXT(flags != 0, "retrievedFlags != 0")) *flags = fDirtyFlags;
}

int16_t TStoryBoard::ChangeDirtyFlags(uint32_t flags) {
    if (fEditable == 0) return kNotEditable;
    fDirtyFlags = flags;
    return kNoError;
}

void TStoryBoard::GetDBRefNum(int16_t* refNum) const {
    if (KAVO_CHECK_TEXT(refNum != 0, "retrievedRefNum != 0")) *refNum = fDBRefNum;
}

int16_t TStoryBoard::ChangeDBRefNum(int16_t refNum) {
    fDirtyFlags = 0xFFFFFFFF;
    fDBRefNum = refNum;
    return kNoError;
}

int16_t TStoryBoard::GetScratch(uint32_t* scratch) const {
    if (!KAVO_CHECK_TEXT(scratch != 0, "retrievedScratch != 0")) return kGeneralError;
    *scratch = fScratch;
    return fScratch == 0 ? kNothingHeld : kNoError;
}

int16_t TStoryBoard::NextSceneID(int32_t* id) {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    return gRezManager->NextRecordID(fDBRefNum, kSceneRecordType, id);
}

int16_t TStoryBoard::FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree) {
    (void)unused1;
    (void)unused2;
    (void)amountToFree;
    return kGeneralError;
}

int16_t TStoryBoard::Edit() { return kGeneralError; }
int16_t TStoryBoard::Play() { return kGeneralError; }

int16_t TStoryBoard::MakeProxy(TMedium* medium) {
    (void)medium;
    RuleL();
    return kGeneralError;
}

int16_t TStoryBoard::TurnProxyOff(TMedium* medium) {
    (void)medium;
    return kGeneralError;
}

// ---------------------------------------------------------------------------
// The scene list

#define KAVO_RULE_L_OPERATION(Signature, Call)                              \
    int16_t TStoryBoard::Signature {                                        \
        if (!KAVO_CHECK(fSceneRezIDList != 0) || !RuleL()) return kGeneralError; \
        return fSceneRezIDList->Call;                                       \
    }
KAVO_RULE_L_OPERATION(AppendScene(int32_t id), Append(id))
KAVO_RULE_L_OPERATION(PrependScene(int32_t id), Prepend(id))
KAVO_RULE_L_OPERATION(InsertSceneAt(int32_t id, uint16_t index), Insert(id, index))
KAVO_RULE_L_OPERATION(ChangeSceneAt(int32_t id, uint16_t index), Set(id, index))
KAVO_RULE_L_OPERATION(DeleteEntryFromList(uint16_t index), Remove(index))
KAVO_RULE_L_OPERATION(DeleteSceneFromList(int32_t id), RemoveValue(id))
KAVO_RULE_L_OPERATION(MoveSceneUp(int32_t id), MoveUp(id))
KAVO_RULE_L_OPERATION(MoveSceneDown(int32_t id), MoveDown(id))
KAVO_RULE_L_OPERATION(BringSceneFront(int32_t id), BringToFront(id))
KAVO_RULE_L_OPERATION(SendSceneToBack(int32_t id), SendToBack(id))
KAVO_RULE_L_OPERATION(SwapScenes(uint16_t a, uint16_t b), Swap(a, b))
#undef KAVO_RULE_L_OPERATION

int16_t TStoryBoard::GetNthSceneID(uint16_t index, int32_t* id) {
    if (!KAVO_CHECK(fSceneRezIDList != 0)) return kGeneralError;
    return fSceneRezIDList->Get(index, id);
}

int16_t TStoryBoard::FindIndexOfScene(int32_t id, uint16_t* index) {
    if (!KAVO_CHECK(fSceneRezIDList != 0)) return kGeneralError;
    return fSceneRezIDList->Find(id, index);
}

uint16_t TStoryBoard::NumScenes() const { return fSceneRezIDList != nullptr ? fSceneRezIDList->Count() : 0; }

uint16_t TStoryBoard::NumLoadedScenes() const {
    return fLoadedSceneList != nullptr ? fLoadedSceneList->Count() : 0;
}

// As the scene's own move: a scene moved forward lands before the scene
// that stood at toIndex. Through the public operations, so rule L applies.
int16_t TStoryBoard::MoveSceneWithinList(uint16_t fromIndex, uint16_t toIndex) {
    KAVO_ASSERT(fromIndex < NumScenes());
    KAVO_ASSERT(toIndex < NumScenes());
    if (toIndex == fromIndex) return kNoError;
    if (fromIndex >= NumScenes() || toIndex >= NumScenes()) return kGeneralError;
    if (toIndex > fromIndex) --toIndex;
    int32_t id = 0;
    int16_t error = GetNthSceneID(fromIndex, &id);
    if (error != kNoError) return error;
    if ((error = DeleteEntryFromList(fromIndex)) != kNoError) return error;
    return NumScenes() > toIndex ? InsertSceneAt(id, toIndex) : AppendScene(id);
}

// ---------------------------------------------------------------------------
// Scenes with their records

// A loaded copy of the scene is not touched.
int16_t TStoryBoard::RemoveSceneAt(uint16_t index) {
    int32_t id = 0;
    int16_t error = GetNthSceneID(index, &id);
    if (error != kNoError) return error;
    if (!RuleL()) return kGeneralError;
    TScene* scene = new (std::nothrow) TScene;
    if (!KAVO_CHECK_TEXT(scene != 0, "aScene != 0")) return kOutOfMemory;
    error = scene->ChangeRezID(id);
    KAVO_ASSERT(error == kNoError);
    error = scene->UnpackFromDB(fDBRefNum);
    if (error != kNoError) {
        DeleteScene(scene);
        return error;
    }
    scene->RemoveAllFromDB(fDBRefNum);
    DeleteScene(scene);
    error = fSceneRezIDList->Remove(index);
    KAVO_ASSERT(error == kNoError);
    return error;
}

int16_t TStoryBoard::RemoveScene(int32_t id) {
    uint16_t index = 0;
    const int16_t error = FindIndexOfScene(id, &index);
    return error != kNoError ? error : RemoveSceneAt(index);
}

int16_t TStoryBoard::RemoveAllScenes() {
    for (uint16_t i = NumScenes(); i > 0; --i) {
        const int16_t error = RemoveSceneAt(static_cast<uint16_t>(i - 1));
        if (!KAVO_CHECK(error == kNoError)) return error;
    }
    return kNoError;
}

// ---------------------------------------------------------------------------
// Loaded scenes

// A scene whose current take cannot be loaded is neither handed out nor
// kept: it is deleted (the original design let it go unreleased).
int16_t TStoryBoard::LoadScene(int32_t id, TScene** scene) {
    if (!KAVO_CHECK(fSceneRezIDList != 0) || !KAVO_CHECK(fLoadedSceneList != 0) || !KAVO_CHECK(scene != 0))
        return kGeneralError;
    *scene = nullptr;
    uint16_t index = 0;
    int16_t error = fSceneRezIDList->Find(id, &index);
    if (error != kNoError) return error;
    for (uint16_t i = 0; i < fLoadedSceneList->Count(); ++i) {
        TScene* loaded = SceneAt(fLoadedSceneList, i, &error);
        if (error == kNoError && loaded != nullptr && loaded->GetRezID() == id) {
            *scene = loaded;
            return kNoError;
        }
    }
    TScene* fresh = new (std::nothrow) TScene;
    if (!KAVO_CHECK_TEXT(fresh != 0, "aScene != 0")) return kOutOfMemory;
    error = fresh->ChangeRezID(id);
    KAVO_ASSERT(error == kNoError);
    if ((error = fresh->UnpackFromDB(fDBRefNum)) != kNoError || (error = fresh->Load(fDBRefNum)) != kNoError) {
        DeleteScene(fresh);
        return error;
    }
    error = fLoadedSceneList->Append(fresh);
    if (!KAVO_CHECK(error == kNoError)) {
        DeleteScene(fresh);
        return error;
    }
    *scene = fresh;
    return kNoError;
}

int16_t TStoryBoard::LoadSceneAt(uint16_t index, TScene** scene) {
    if (!KAVO_CHECK(fSceneRezIDList != 0)) return kGeneralError;
    int32_t id = 0;
    const int16_t error = fSceneRezIDList->Get(index, &id);
    return error != kNoError ? error : LoadScene(id, scene);
}

int16_t TStoryBoard::UnloadScene(TScene* scene) {
    if (!KAVO_CHECK_TEXT(scene != 0, "theScene != 0") || !KAVO_CHECK(fSceneRezIDList != 0) ||
        !KAVO_CHECK(fLoadedSceneList != 0))
        return kGeneralError;
    uint16_t index = 0;
    int16_t error = fLoadedSceneList->Find(scene, &index);
    if (error != kNoError) return error;
    DeleteScene(scene);
    error = fLoadedSceneList->Remove(index);
    KAVO_ASSERT(error == kNoError);
    return error;
}

int16_t TStoryBoard::UnloadScene(int32_t id) {
    if (!KAVO_CHECK(fSceneRezIDList != 0) || !KAVO_CHECK(fLoadedSceneList != 0)) return kGeneralError;
    for (uint16_t i = 0; i < fLoadedSceneList->Count(); ++i) {
        int16_t error = kNoError;
        TScene* scene = SceneAt(fLoadedSceneList, i, &error);
        if (!KAVO_CHECK(error == kNoError)) return error;
        if (scene == nullptr || scene->GetRezID() != id) continue;
        DeleteScene(scene);
        error = fLoadedSceneList->Remove(i);
        KAVO_ASSERT(error == kNoError);
        return error;
    }
    return kGeneralError;
}

int16_t TStoryBoard::UnloadSceneAt(uint16_t index) {
    int32_t id = 0;
    const int16_t error = GetNthSceneID(index, &id);
    return error != kNoError ? error : UnloadScene(id);
}

int16_t TStoryBoard::UnloadAllScenes() {
    if (!KAVO_CHECK_TEXT(fSceneRezIDList != 0, "fSceneRezIDList") || !KAVO_CHECK(fLoadedSceneList != 0))
        return kGeneralError;
    for (uint16_t i = fLoadedSceneList->Count(); i > 0; --i) {
        int16_t error = kNoError;
        TScene* scene = SceneAt(fLoadedSceneList, static_cast<uint16_t>(i - 1), &error);
        if (!KAVO_CHECK(error == kNoError)) return error;
        error = UnloadScene(scene);
        if (!KAVO_CHECK(error == kNoError)) return error;
    }
    return kNoError;
}

// ---------------------------------------------------------------------------
// The packed image and the "STRY" record

MSHandle TStoryBoard::PackGuts(MSHandle stream, uint32_t& length) {
    if (!KAVO_CHECK(stream != 0)) return nullptr;
    KAVO_ASSERT(fSceneRezIDList != 0);
    stream = PackLong(stream, length, fVersion);
    if (stream != nullptr) stream = PackLong(stream, length, fFlags);
    if (stream != nullptr) stream = PackLong(stream, length, fCreator);
    if (stream != nullptr) stream = PackString(stream, length, fDescription.Text());
    if (stream != nullptr) stream = PackString(stream, length, fAuthor.Text());
    if (stream != nullptr) stream = PackString(stream, length, fTitle.Text());
    for (int16_t coordinate : {fTargetStoryRect.top, fTargetStoryRect.left, fTargetStoryRect.bottom,
                               fTargetStoryRect.right})
        if (stream != nullptr) stream = PackShort(stream, length, static_cast<uint16_t>(coordinate));
    for (const DateTimeRecord* date : {&fCreateDate, &fModifiedDate}) {
        if (stream != nullptr) stream = PackShort(stream, length, date->year);
        for (uint8_t part : {date->month, date->day, date->hour, date->minute, date->second})
            if (stream != nullptr) stream = PackChar(stream, length, part);
    }
    if (stream == nullptr || fSceneRezIDList == nullptr) return stream;
    const uint16_t count = fSceneRezIDList->Count();
    stream = PackShort(stream, length, count);
    for (uint16_t i = 0; i < count && stream != nullptr; ++i) {
        int32_t id = 0;
        const int16_t error = fSceneRezIDList->Get(i, &id);
        KAVO_ASSERT(error == kNoError);
        stream = PackLong(stream, length, static_cast<uint32_t>(id));
    }
    return stream;
}

uint32_t TStoryBoard::UnpackGuts(const unsigned char* buffer) {
    UnloadAllScenes();
    if (!KAVO_CHECK(buffer != 0)) return 0;
    uint32_t at = UnpackLong(buffer, &fVersion);
    at += UnpackLong(buffer + at, &fFlags);
    at += UnpackLong(buffer + at, &fCreator);
    at += UnpackCString(buffer + at, &fDescription);
    at += UnpackCString(buffer + at, &fAuthor);
    at += UnpackCString(buffer + at, &fTitle);
    for (int16_t* coordinate : {&fTargetStoryRect.top, &fTargetStoryRect.left, &fTargetStoryRect.bottom,
                                &fTargetStoryRect.right})
        at += UnpackShort(buffer + at, coordinate);
    for (DateTimeRecord* date : {&fCreateDate, &fModifiedDate}) {
        at += UnpackShort(buffer + at, &date->year);
        for (uint8_t* part : {&date->month, &date->day, &date->hour, &date->minute, &date->second})
            at += UnpackChar(buffer + at, part);
    }
    uint16_t count = 0;
    at += UnpackShort(buffer + at, &count);
    if (KAVO_CHECK(fSceneRezIDList != 0)) {
        fSceneRezIDList->Clear();
        for (uint16_t i = 0; i < count; ++i) {
            int32_t id = 0;
            at += UnpackLong(buffer + at, &id);
            const int16_t error = fSceneRezIDList->Append(id);
            KAVO_ASSERT(error == kNoError);
        }
    } else {
        at += 4u * count;
    }
    // A subtraction, not the clearing of a bit, as the scene does.
    fDirtyFlags -= 2;
    return at;
}

int16_t TStoryBoard::SaveAllToDB() {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    if ((fDirtyFlags & kDirtyContents) != 0) {
        MSHandle image = nullptr;
        int16_t error = MSNewHandle(&image, 0);
        if (!KAVO_CHECK(error == kNoError)) return error;
        uint32_t length = 0;
        MSHandle packed = PackGuts(image, length);
        if (packed == nullptr) return kOutOfMemory;  // the failed resize took the handle
        error = ReplaceRecord(fDBRefNum, kStoryRecordType, kStoryRecordName, kStoryRecordID, packed,
                              {kKeyNotFound, kRecordNotFound});
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

int16_t TStoryBoard::ReadStoryRecord(MSHandle* data) {
    return gRezManager->ReadRecordByName(fDBRefNum, kStoryRecordName, kStoryRecordType, data);
}

// A record that is cut short or whose count promises more scenes than it
// holds is refused (kGeneralError) and the board keeps its fields.
int16_t TStoryBoard::Open() {
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    MSHandle data = nullptr;
    int16_t error = ReadStoryRecord(&data);
    if (error != kNoError) {
        error = ChangeDirtyFlags(kDirtyContents);
        KAVO_ASSERT(error == kNoError);
        error = SaveAllToDB();
        KAVO_ASSERT(error == kNoError);
        error = ReadStoryRecord(&data);
        if (!KAVO_CHECK(error == kNoError)) return error;
    }
    error = gRezManager->DetachRecord(data);
    if (!KAVO_CHECK(error == kNoError)) return error;
    void* address = nullptr;
    error = MSLockHandle(data, &address);
    int16_t result = error;
    if (KAVO_CHECK(error == kNoError)) {
        const auto* bytes = static_cast<const unsigned char*>(address);
        if (StoryImageLength(bytes, MSGetHandleSize(data)) == 0) {
            result = kGeneralError;
        } else {
            UnpackGuts(bytes);
            result = kNoError;
        }
    }
    error = MSDisposeHandle(data);
    KAVO_ASSERT(error == kNoError);
    return result;
}
