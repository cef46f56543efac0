// TScene: an ordered list of takes, each the record ID of a medium's "MDUM"
// record, of which one, the current take, can be loaded as a live medium.
// A scene is stored as one "SEEN" record under its record ID and name.
//
// Kept as the contract has them: the scene has no base class and its
// destructor is not virtual (its table holds exactly the eight operations
// below, in this order); ChangeFlags refuses with -1, not kNotEditable, and
// marks nothing dirty, while every other changer marks bit 2; the take-list
// operations check nothing and mark nothing; moving a take forward within
// the list lands it before the take that stood at the target index;
// unpacking subtracts 2 from the dirty word as a number.
//
// Copies are shallow: the copy constructor and assignment copy the take
// list pointer and the loaded take's pointer, so a copy and its source share
// one list and one loaded medium. Each holder is counted, so that the two
// may be destroyed in either order and each is freed once (the original
// design left that to the caller).
//
// Image ("SEEN"): version, flags, ID (32-bit each), record name, description,
// author, title (packed strings), current take index and take count (16-bit
// each), then each take ID (32-bit). A record read back from a file is
// measured first (SceneImageLength): one that is cut short or whose count
// promises more takes than it holds is refused.
#ifndef KAVO_LARKDB_TSCENE_H
#define KAVO_LARKDB_TSCENE_H

#include <stdint.h>

#include "Common/RecordNames.h"
#include "LarkDB/CString.h"
#include "TList/Common/Tlist.h"
#include "kavoDVDB.h"

class TMedium;

// The record type of scenes, and the dirty bit of their contents.
constexpr const char kSceneRecordType[] = "SEEN";
constexpr uint32_t kDirtyContents = 2;

class KAVO_CLASS_API TScene {
public:
    TScene();
    TScene(const TScene& other);
    TScene& operator=(const TScene& other);
    // Unloads the current take; the takes' records stay in the database.
    ~TScene();

    // --- Virtual operations, in slot order.
    // Loads the current take from refNum through the medium factory: -1
    // when the factory makes nothing of its record.
    virtual int16_t Load(int16_t refNum);
    // Deletes the loaded take; -1 when none is loaded.
    virtual int16_t Unload();
    virtual int16_t FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree);
    virtual MSHandle PackGuts(MSHandle stream, uint32_t& length);
    // The buffer must hold a whole image (SceneImageLength): UnpackFromDB
    // checks that first.
    virtual uint32_t UnpackGuts(const unsigned char* buffer);
    // Writes the "SEEN" record when the contents are dirty; clears the word.
    virtual int16_t SaveAllToDB(int16_t refNum);
    // Removes every take's medium records and the "SEEN" record.
    virtual int16_t RemoveAllFromDB(int16_t refNum);
    // Reads the "SEEN" record of this scene's ID (no take is loaded).
    virtual int16_t UnpackFromDB(int16_t refNum);

    // --- Fields.
    int32_t GetRezID() const { return fRezID; }
    int16_t ChangeRezID(int32_t rezID);
    // 32 bytes out.
    void GetRezName(char* out) const;
    // At most 31 characters of name (up to its NUL), the field filled with
    // zeros.
    int16_t ChangeRezName(const char* name);
    void GetTitle(CString* title) const;
    int16_t ChangeTitle(const CString* title);
    const char* GetAuthor() const { return fAuthor.Text(); }
    int16_t ChangeAuthor(const CString* author);
    void GetFlags(uint32_t* flags) const;
    int16_t ChangeFlags(uint32_t flags);
    void GetDirtyFlags(uint32_t* flags) const;
    int16_t ChangeDirtyFlags(uint32_t flags);
    int32_t IsDirty() const { return fDirtyFlags != 0; }
    int32_t Editable() const { return fEditable; }
    int32_t IsLoaded() const { return fLoaded; }
    void GetCurrentMedium(TMedium** medium) const;
    // Replaces the pointer only: the old medium is neither deleted nor
    // unloaded, and the loaded state stays as it was.
    int16_t ChangeMedium(TMedium* medium);
    uint16_t NumTakes() const;
    uint16_t GetCurrentTakeIndex() const { return fCurrentTakeIndex; }
    int16_t ChangeCurrentTakeIndex(uint16_t index);

    // --- The take list: the element list's results; no editable check, no
    // dirty bit, the current take and its index untouched.
    int16_t AppendTake(int32_t id);
    int16_t PrependTake(int32_t id);
    int16_t InsertTakeAt(int32_t id, uint16_t index);
    int16_t ChangeTakeAt(int32_t id, uint16_t index);
    int16_t GetNthTakeID(uint16_t index, int32_t* id);
    int16_t FindIndexOfTake(int32_t id, uint16_t* index);
    int16_t DeleteEntryFromList(uint16_t index);
    int16_t DeleteTakeFromList(int32_t id);
    int16_t MoveTakeUp(int32_t id);
    int16_t MoveTakeDown(int32_t id);
    int16_t BringTakeFront(int32_t id);
    int16_t SendTakeToBack(int32_t id);
    int16_t SwapTakes(uint16_t a, uint16_t b);
    int16_t MoveTakeWithinList(uint16_t fromIndex, uint16_t toIndex);

    // --- Takes with their medium records in refNum.
    int16_t RemoveTakeAt(uint16_t index, int16_t refNum);
    int16_t RemoveTake(int32_t id, int16_t refNum);
    int16_t RemoveAllTakes(int16_t refNum);

protected:
    uint32_t fVersion;
    TList* fTakeRezIDList;
    TMedium* fCurrentTake;
    uint32_t fFlags;
    uint16_t fCurrentTakeIndex;
    CString fTitle;
    CString fDescription;
    CString fAuthor;
    int32_t fRezID;
    char fRezName[kNameLength];
    uint32_t fDirtyFlags;
    int32_t fEditable;
    int32_t fLoaded;

private:
    void CopyFields(const TScene& other);
    void ReleaseShared();
    bool NotEditable() const { return fEditable == 0; }
};

// Deletes a scene through its own type (its destructor is not virtual).
void DeleteScene(TScene* scene);

#endif  // KAVO_LARKDB_TSCENE_H
