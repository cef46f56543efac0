// TMedium: a media item of a database (the base of movies, pictures and clips
// captured from tape, and the plain medium for any other kind of item).
//
// A medium holds its descriptive fields, four side-data blocks that are
// loaded on demand (path, Mac alias, poster image, form data), a dirty word
// that tells SaveAllToDB what to write, and its packed image. It is stored as
// an "MDUM" record and up to four side records under its record name and ID
// (SaveAllToDB, RemoveAllFromDB, CopyToNewDatabase).
//
// Results are signed 16-bit codes. A medium that is not editable refuses
// every change (kNotEditable) but ChangeScratch; a class that does not offer
// an operation answers kNotOffered. A few results are kept as the contract
// has them, odd as they look: the date changers answer -1 after a permitted
// change; unpacking subtracts 32 from the dirty word (a subtraction, not the
// clearing of a bit); GetModifiedDate hands nothing out; GetPosterRect and
// GetMediumRect read the same rectangle.
//
// Side data and copies: a copy made with the copy constructor or assignment
// shares its side-data blocks with its source (the blocks are not
// duplicated). Each shared block counts its owners in a process-wide table:
// a destructor disposes of a block only when no other medium holds it, so
// that the copy and its source can be destroyed in either order and each
// block is freed once. (A count kept beside the handle, not in the medium,
// because the handle is all that the copies share.) Giving a medium a new
// block does not dispose of the block it held: the caller may still use it.
//
// The virtual operations are declared in their slot order: hosts built
// against the library's classes call them through it.
#ifndef KAVO_LARKDB_TMEDIUM_H
#define KAVO_LARKDB_TMEDIUM_H

#include <stdint.h>

#include "Common/RecordNames.h"
#include "LarkDB/CString.h"
#include "kavoDVDB.h"

// No packed image carries this version.
constexpr uint32_t kInvalidMediumVersion = 0xFFFFFFFF;

// Flag bits.
constexpr uint32_t kMediumIsProxy = 0x00020000;
constexpr uint32_t kMediumCannotProxy = 0x00010000;

// Dirty-word bits.
constexpr uint32_t kDirtyFormData = 0x01;
constexpr uint32_t kDirtyPoster = 0x02;
constexpr uint32_t kDirtyMacAlias = 0x04;
constexpr uint32_t kDirtyPathName = 0x08;
constexpr uint32_t kDirtyTimeCodes = 0x10;
constexpr uint32_t kDirtyRecord = 0x20;

// Record types of a medium.
constexpr const char kMediumRecordType[] = "MDUM";
constexpr const char kPathRecordType[] = "path";
constexpr const char kPosterRecordType[] = ".bmp";
constexpr const char kAliasRecordType[] = "alis";
constexpr const char kFormDataRecordType[] = "fdat";

// Kind codes.
constexpr const char kPlainMediumKind[] = "?MED";
constexpr const char kMooVMediumKind[] = "mMED";
constexpr const char kPictureMediumKind[] = "pMED";
constexpr const char kAnalogMediumKind[] = "aMED";

class KAVO_CLASS_API TMedium {
public:
    // name: at most 31 characters (assertion "strlen(name) < kNameLength");
    // it is the record name and the title.
    TMedium(const char* name, uint32_t flags);
    TMedium(const TMedium& other);
    TMedium& operator=(const TMedium& other);

    // --- Virtual operations, in slot order.
    // Disposes of the side-data blocks it alone holds.
    virtual ~TMedium();
    virtual int16_t LoadPosterCache();
    virtual int16_t GetPosterCache(void** poster);
    virtual int16_t ChangePosterCache(MSHandle poster);
    virtual int16_t LoadFormDataCache();
    virtual int16_t GetFormDataCache(void** formData);
    virtual int16_t ChangeFormDataCache(MSHandle formData);
    virtual int16_t GetPosterRect(Rect* rect);
    virtual int16_t GetMediumRect(Rect* rect);
    virtual int16_t GetTrimStart(TimeCodeRecord* timeCode);
    virtual int16_t ChangeTrimStart(TimeCodeRecord* timeCode);
    virtual int16_t GetTrimEnd(TimeCodeRecord* timeCode);
    virtual int16_t ChangeTrimEnd(TimeCodeRecord* timeCode);
    virtual int16_t GetTrimDuration(TimeCodeRecord* timeCode);
    virtual int16_t ChangeTrimDuration(TimeCodeRecord* timeCode);
    virtual int16_t GetClipStart(TimeCodeRecord* timeCode);
    virtual int16_t ChangeClipStart(TimeCodeRecord* timeCode);
    virtual int16_t GetClipEnd(TimeCodeRecord* timeCode);
    virtual int16_t ChangeClipEnd(TimeCodeRecord* timeCode);
    virtual int16_t GetClipDuration(TimeCodeRecord* timeCode);
    virtual int16_t ChangeClipDuration(TimeCodeRecord* timeCode);
    virtual int16_t ReconcileTrimDuration();
    virtual int16_t GetSample(TimeCodeRecord* timeCode, void** sample);
    virtual int16_t GetNextSample(TimeCodeRecord* timeCode, void** sample);
    virtual int16_t GetDuration(TimeCodeRecord* timeCode);
    virtual int16_t GetFrameRate(float* rate);
    // Frees the poster cache; the arguments are not used.
    virtual int16_t FreeMemory(int32_t unused1, int32_t unused2, uint32_t* amountToFree);
    // Appends the image to stream from length on, advances length, and
    // returns the handle (which may have moved; null when it could not grow).
    virtual MSHandle PackGuts(MSHandle stream, uint32_t& length);
    // Reads the image and returns the bytes read. The buffer must hold a
    // whole image of this class: the caller checks that first (the factory
    // does).
    virtual uint32_t UnpackGuts(const unsigned char* buffer);
    virtual int16_t SaveAllToDB(int16_t refNum);
    // Copies the medium's records into toRefNum under the next free "MDUM"
    // ID (*newRezID) and the name "Medium %4.4ld" (newRezName, 32 bytes).
    virtual int16_t CopyToNewDatabase(int16_t fromRefNum, int16_t toRefNum, int32_t* newRezID, char* newRezName);
    virtual int16_t RemoveAllFromDB(int16_t refNum);
    virtual int16_t Edit();
    virtual int16_t Play();

    // --- Fields.
    int32_t GetRezID() const { return fRezID; }
    char* GetRezName() { return fRezName; }
    const char* GetTitle() const { return fTitle.Text(); }
    const char* GetAuthor() const { return fAuthor.Text(); }
    const char* GetDescription() const { return fDescription.Text(); }
    int32_t Editable() const { return fEditable; }
    int32_t IsDirty() const { return fDirtyFlags != 0; }
    int32_t ReadyForPreview() const { return fReadyForPreview; }
    int32_t ReadyForPrimeTime() const { return fReadyForPrimeTime; }
    int32_t IsProxy() const { return (fFlags & kMediumIsProxy) != 0; }
    int32_t CanProxy() const { return (fFlags & kMediumCannotProxy) == 0; }
    int32_t HasMacAliasLoaded() const { return fMacAlias != nullptr; }
    int32_t HasPathNameLoaded() const { return fPathName != nullptr; }
    int32_t HasPosterLoaded() const { return fPosterCache != nullptr; }
    int32_t HasFormDataLoaded() const { return fFormDataCache != nullptr; }

    void GetKind(MediumKind* kind) const;
    void GetFlags(uint32_t* flags) const;
    void GetCreator(uint32_t* creator) const;
    void GetDirtyFlags(uint32_t* flags) const;
    void GetCreateDate(DateTimeRecord* date) const;
    // Hands nothing out: the modified date is packed, not given.
    void GetModifiedDate(DateTimeRecord* date) const;
    // -1 for a null pointer; else 1 when the scratch value is 0, 0 when not.
    int16_t GetScratch(uint32_t* scratch) const;
    // Allowed even when not editable; marks nothing dirty.
    int16_t ChangeScratch(uint32_t scratch);

    int16_t ChangeRezID(int32_t rezID);
    // Copies up to 32 bytes of the name (up to its NUL).
    int16_t ChangeRezName(const char* name);
    int16_t ChangeTitle(const char* title);
    int16_t ChangeDescription(const char* description);
    int16_t ChangeAuthor(const CString* author);
    int16_t ChangeCreator(uint32_t creator);
    int16_t ChangeFlags(uint32_t flags);
    // Replaces the whole word.
    int16_t ChangeDirtyFlags(uint32_t flags);
    // -1 after a permitted change (ChangeCreateDate stores the date; the
    // other two store nothing).
    int16_t ChangeCreateDate(const DateTimeRecord* date);
    int16_t ChangeModifiedDate(const DateTimeRecord* date);
    int16_t InitCreateDate();

    // --- Side data. The Load functions read the record of that type and the
    // medium's name from the current database, once; the medium owns the
    // block. GetPathName answers kNotOffered when no path is held; the other
    // getters answer 1 for nothing held and -1 for a null pointer.
    int16_t LoadPathName();
    int16_t LoadMacAlias();
    int16_t GetPathName(void** path);
    int16_t GetMacAlias(void** alias);
    int16_t ChangePathName(MSHandle path);
    int16_t ChangeMacAlias(MSHandle alias);

    // --- Proxies: the flag alone; no dirty bit.
    int16_t MakeProxy();
    int16_t RemoveProxy();

    // The scratch value a host may keep with the object.
    uint32_t Scratch() const { return fScratch; }

    // True while medium names a medium that has been constructed and not yet
    // destroyed. Every medium registers itself, so that the flat interface
    // refuses a wild or destroyed pointer instead of following it. (A
    // medium that could not register, for want of memory, reads as not
    // live and is refused there too.)
    static bool IsLive(const TMedium* medium);

protected:
    // The image of this class's fields (the part a subclass's image begins
    // with), and its reading.
    MSHandle PackMedium(MSHandle stream, uint32_t& length);
    uint32_t UnpackMedium(const unsigned char* buffer);
    int16_t LoadSideBlock(const char* type, MSHandle* block);
    int16_t SaveSideBlock(int16_t refNum, const char* type, MSHandle block);
    // Disposes of the side-data blocks this medium alone holds and forgets
    // them (the destructors of every class).
    void ReleaseSideBlocks();
    // A block that one more medium holds (null when the owner table could
    // not take it: the copy then loads the block again when asked), and a
    // medium letting go of one (disposed of when it was the last holder).
    static MSHandle ShareSideBlock(MSHandle block);
    static void DisposeSideBlock(MSHandle* block);
    bool NotEditable() const { return fEditable == 0; }

    uint32_t fMediumVersion;
    MediumKind fKind;
    uint32_t fFlags;
    int32_t fRezID;
    char fRezName[kNameLength];
    CString fTitle;
    CString fDescription;
    Rect fMediumRect;
    DateTimeRecord fCreateDate;
    DateTimeRecord fModifiedDate;
    uint32_t fCreator;
    CString fAuthor;
    TimeCodeRecord fTrimStart;
    TimeCodeRecord fTrimEnd;
    TimeCodeRecord fTrimDuration;
    TimeCodeRecord fClipStart;
    TimeCodeRecord fClipEnd;
    TimeCodeRecord fClipDuration;
    TimeCodeRecord fSpareTimeCode;
    MSHandle fMacAlias;
    MSHandle fPathName;
    MSHandle fFormDataCache;
    MSHandle fPosterCache;
    uint32_t fDirtyFlags;
    int32_t fEditable;
    int32_t fReadyForPrimeTime;
    int32_t fReadyForPreview;
    uint32_t fReserved;
    uint32_t fScratch;

private:
    void CopyFields(const TMedium& other);
};

// The fixed one-frame duration of movies, pictures and tape clips: 0, 0, 0, 1.
void SetOneFrameDuration(TimeCodeRecord* timeCode);

#endif  // KAVO_LARKDB_TMEDIUM_H
