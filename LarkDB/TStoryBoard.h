// TStoryBoard: the top object of one database, an ordered list of scene IDs
// ("SEEN" records) and the scenes loaded into memory, which belong to it. A
// database holds at most one, as the "STRY" record "Story" with ID 1000.
//
// Two refusal rules, each operation's own (part of the contract):
//  - rule S, the strings and the dirty word: kNotEditable when not editable,
//    else the change and bit 2 ORed into the dirty word;
//  - rule L, every other change: -1 when not editable, else the dirty word
//    set to exactly 2 (other bits lost) and then the change.
// The proxy, edit, play and create-date operations are placeholders with
// fixed results; GetScratch answers 1 for a zero word; unpacking subtracts
// 2 from the dirty word as a number. Unloading, and the destructor, delete
// loaded scenes without saving them.
//
// Copies are shallow: the copy constructor and assignment share the two
// lists (and so the loaded scenes) with the source. Each holder of a list is
// counted, so that both boards may be destroyed, in either order; the first
// to go unloads the scenes they share.
//
// Image ("STRY"): version, flags, creator (32-bit each), description,
// author, title (packed strings), the rectangle (four 16-bit), the create and
// modified dates (16-bit year, five bytes each), the scene count (16-bit)
// and each scene ID (32-bit). A record read back from a file is measured
// first (StoryImageLength); a damaged one is refused.
#ifndef KAVO_LARKDB_TSTORYBOARD_H
#define KAVO_LARKDB_TSTORYBOARD_H

#include <stdint.h>

#include "LarkDB/CString.h"
#include "TList/Common/Tlist.h"
#include "kavoDVDB.h"

class TMedium;
class TScene;

constexpr const char kStoryRecordType[] = "STRY";
constexpr const char kStoryRecordName[] = "Story";
constexpr int32_t kStoryRecordID = 1000;

class KAVO_CLASS_API TStoryBoard {
public:
    explicit TStoryBoard(uint32_t flags);
    TStoryBoard(const TStoryBoard& other);
    TStoryBoard& operator=(const TStoryBoard& other);

    // --- Virtual operations, in slot order.
    // Unloads (deletes) every loaded scene, unsaved; saves nothing.
    virtual ~TStoryBoard();
    virtual void GetTargetStoryRect(Rect* rect);
    virtual int16_t ChangeTargetStoryRect(Rect* rect);
    // -1: a story board frees nothing.
    virtual int16_t FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree);
    virtual MSHandle PackGuts(MSHandle stream, uint32_t& length);
    // The buffer must hold a whole image (StoryImageLength): Open checks
    // that first.
    virtual uint32_t UnpackGuts(const unsigned char* buffer);
    // Writes the "STRY" record when bit 2 is set; clears the word. The
    // scenes are not saved.
    virtual int16_t SaveAllToDB();
    // Reads the "STRY" record of the database, writing one from this
    // board's fields first when there is none.
    virtual int16_t Open();
    virtual int16_t Edit();
    virtual int16_t Play();

    // --- Fields.
    const char* GetTitle() const { return fTitle.Text(); }
    const char* GetDescription() const { return fDescription.Text(); }
    const char* GetAuthor() const { return fAuthor.Text(); }
    int16_t ChangeTitle(const char* title);
    int16_t ChangeDescription(const char* description);
    int16_t ChangeAuthor(const CString* author);
    void GetFlags(uint32_t* flags) const;
    int16_t ChangeFlags(uint32_t flags);
    void GetCreator(uint32_t* creator) const;
    int16_t ChangeCreator(uint32_t creator);
    void GetCreateDate(DateTimeRecord* date) const;
    void GetModifiedDate(DateTimeRecord* date) const;
    int16_t ChangeCreateDate(const DateTimeRecord* date);
    int16_t ChangeModifiedDate(const DateTimeRecord* date);
    int16_t InitCreateDate();
    void GetDirtyFlags(uint32_t* flags) const;
    int16_t ChangeDirtyFlags(uint32_t flags);
    int32_t IsDirty() const { return fDirtyFlags != 0; }
    int32_t Editable() const { return fEditable; }
    int32_t ReadyForPreview() const { return fReadyForPreview; }
    int32_t ReadyForPrimeTime() const { return fReadyForPrimeTime; }
    void GetDBRefNum(int16_t* refNum) const;
    // Marks every dirty bit: the next SaveAllToDB writes.
    int16_t ChangeDBRefNum(int16_t refNum);
    int16_t GetScratch(uint32_t* scratch) const;
    void ChangeScratch(uint32_t scratch) { fScratch = scratch; }
    int16_t NextSceneID(int32_t* id);

    // --- Placeholders with fixed results.
    int32_t HasProxy() const { return 1; }
    int32_t NumberOfProxies() const { return 0; }
    int16_t MakeProxy(TMedium* medium);
    int16_t TurnProxyOff(TMedium* medium);

    // --- The scene list (rule L for every change; the record stays).
    int16_t AppendScene(int32_t id);
    int16_t PrependScene(int32_t id);
    int16_t InsertSceneAt(int32_t id, uint16_t index);
    int16_t ChangeSceneAt(int32_t id, uint16_t index);
    int16_t DeleteEntryFromList(uint16_t index);
    int16_t DeleteSceneFromList(int32_t id);
    int16_t MoveSceneUp(int32_t id);
    int16_t MoveSceneDown(int32_t id);
    int16_t BringSceneFront(int32_t id);
    int16_t SendSceneToBack(int32_t id);
    int16_t SwapScenes(uint16_t a, uint16_t b);
    int16_t MoveSceneWithinList(uint16_t fromIndex, uint16_t toIndex);
    int16_t GetNthSceneID(uint16_t index, int32_t* id);
    int16_t FindIndexOfScene(int32_t id, uint16_t* index);
    uint16_t NumScenes() const;

    // --- Scenes with their records in the board's database.
    int16_t RemoveSceneAt(uint16_t index);
    int16_t RemoveScene(int32_t id);
    int16_t RemoveAllScenes();

    // --- Loaded scenes, which belong to the board. A scene is loaded at
    // most once: loading it again hands out the same object.
    int16_t LoadScene(int32_t id, TScene** scene);
    int16_t LoadSceneAt(uint16_t index, TScene** scene);
    int16_t UnloadScene(TScene* scene);
    int16_t UnloadScene(int32_t id);
    int16_t UnloadSceneAt(uint16_t index);
    int16_t UnloadAllScenes();
    uint16_t NumLoadedScenes() const;

    // True while board names a story board constructed and not yet
    // destroyed (the flat interface checks the pointers it is given).
    static bool IsLive(const TStoryBoard* board);

protected:
    uint32_t fVersion;
    TList* fSceneRezIDList;
    TRefList* fLoadedSceneList;
    int16_t fDBRefNum;
    uint32_t fFlags;
    CString fTitle;
    CString fDescription;
    CString fAuthor;
    Rect fTargetStoryRect;
    DateTimeRecord fCreateDate;
    DateTimeRecord fModifiedDate;
    uint32_t fCreator;
    uint32_t fDirtyFlags;
    int32_t fEditable;
    int32_t fReadyForPrimeTime;
    int32_t fReadyForPreview;
    uint32_t fReserved;
    uint32_t fScratch;

private:
    void CopyFields(const TStoryBoard& other);
    void ReleaseShared();
    // Rule L: false (and nothing changed) when not editable.
    bool RuleL();
    int16_t ReadStoryRecord(MSHandle* data);
};

#endif  // KAVO_LARKDB_TSTORYBOARD_H
