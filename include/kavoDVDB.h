/*
 * kavoDVDB - the flat C interface of the media database library.
 *
 * This header compiles as C and as C++. It declares every function that the
 * library exports for callers that cannot use its classes, the result codes
 * they return and the types they pass.
 *
 * Conventions shared by every family:
 *  - Results are signed 16-bit codes; kNoError (0) is success. Values come
 *    back through pointer arguments.
 *  - An MSHandle names a relocatable memory block. Its bytes are reached only
 *    between MSLockHandle and MSUnlockHandle; the address may change whenever
 *    the handle is resized.
 *  - The library keeps no thread of its own and guards nothing: call it from
 *    one thread at a time.
 *  - Bad input (a null pointer, a wild or freed handle) is refused with a
 *    failure code and an assertion report on stderr; it never crashes the
 *    host.
 *
 * The names a host links, or looks up by name, on each platform:
 *  - Linux (libkavoDVDB.so): every function under its plain name, Name.
 *  - 32-bit Windows (kavoDVDB.dll, i686): the MS family uses the C calling
 *    convention and plain names; every other family uses the standard
 *    convention (the callee removes the arguments) and is exported as
 *    _Name@N, N the bytes of its arguments (a C caller's Name@N, which the
 *    import library binds). GetProcAddress takes "_Name@N".
 *  - 64-bit Windows (kavoDVDB.dll, x86_64): one calling convention for
 *    every function, which KAVO_CALL and KAVO_MS_CALL name to no effect;
 *    every function is exported under its plain name, Name, as on Linux.
 * On every platform the integer types keep the widths their names give
 * (32-bit values stay 32 bits on 64-bit Windows), handles and objects are
 * pointers of the platform's width, and a database file is the same bytes
 * whichever build wrote it.
 */
#ifndef KAVODVDB_H
#define KAVODVDB_H

#include <stdint.h>

#if defined(_WIN32)
#define KAVO_MS_CALL __cdecl
#define KAVO_CALL __stdcall
#else
#define KAVO_MS_CALL
#define KAVO_CALL
#endif

/* Linux builds export by visibility; the Windows DLL exports by its module
   definition file, which also gives the stdcall names their decoration. */
#if defined(KAVO_BUILDING_LIBRARY) && !defined(_WIN32)
#define KAVO_API __attribute__((visibility("default")))
#else
#define KAVO_API
#endif

/* Exported classes (include/kavoDVDBClasses.h) carry their own mark: on
   Windows the DLL exports them and C++ hosts import them. */
#if defined(_WIN32)
#if defined(KAVO_BUILDING_LIBRARY)
#define KAVO_CLASS_API __declspec(dllexport)
#else
#define KAVO_CLASS_API __declspec(dllimport)
#endif
#elif defined(KAVO_BUILDING_LIBRARY)
#define KAVO_CLASS_API __attribute__((visibility("default")))
#else
#define KAVO_CLASS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------------------
 * Result codes (signed 16-bit). One list for the whole library.
 * ------------------------------------------------------------------------- */
enum {
    kNoError = 0,
    kNothingHeld = 1,             /* a getter found nothing held, or a zero value */
    kGeneralError = -1,           /* not lockable, out of range, absent, refused */
    kInvalidHandle = -2,          /* not a valid handle */
    kDestNotResized = -9,         /* destination handle could not be resized */
    kCannotGrow = -10,            /* handle could not be grown */
    kInvalidPtr = -11,            /* not a valid pointer */
    kOutOfMemory = -12,           /* out of memory */
    kCannotFree = -15,            /* block not freed; no database freed memory */
    kCannotShrink = -16,          /* handle could not be shrunk */
    kBadRefNum = -1002,           /* reference number names no open database */
    kKeyNotFound = -1004,         /* record not found in the file by its key */
    kDuplicateRecord = -1006,     /* same type and ID, or type and name, exists */
    kHandleNotInDB = -1007,       /* handle belongs to no open database */
    kAddRefused = -1010,          /* the engine refused to add the record */
    kNoPermission = -1011,        /* read-only database */
    kCannotCreateFiles = -1016,   /* data and index files could not be created */
    kCannotOpenFiles = -1017,     /* data and index files could not be opened */
    kCannotOpenHostFile = -1019,  /* host file could not be created or opened */
    kRecordNotFound = -1020,      /* not found, not loaded, or index past the end */
    kDBNotInList = -1022,         /* database not in the open list */
    kMapFull = -1024,             /* the record map could not take a record */
    kClosedRefNum = -1025,        /* reference number of a closed database */
    kListBoundReached = -2000,    /* element list bound reached */
    kNotEditable = -16001,        /* object not editable */
    kNotOffered = -16002          /* operation not offered by this class */
};

/* ---------------------------------------------------------------------------
 * Memory: relocatable handles and fixed pointers with a hidden size header.
 *
 * New blocks are filled with 0xA3. Every call stores its result in the
 * memory system's last error, read with MSLastError. Size-changing calls take
 * the address of the caller's variable and may give it a new value; when a
 * grow or shrink fails the variable is left 0 and the old block is no longer
 * reachable through it, so keep a copy if you must go on using it.
 * ------------------------------------------------------------------------- */
typedef void* MSHandle;

/* New movable block of theSize bytes (at most 0x7FFFFFFF); 0 and
   kOutOfMemory on failure. */
KAVO_API int16_t KAVO_MS_CALL MSNewHandle(MSHandle* theHandle, uint32_t theSize);
/* New fixed block; *thePtr is its first data byte. 0 and kOutOfMemory on failure. */
KAVO_API int16_t KAVO_MS_CALL MSNewPtr(void** thePtr, uint32_t theSize);
/* Free a block: kInvalidHandle / kInvalidPtr for a value that names no live
   block, kCannotFree if the system refuses. */
KAVO_API int16_t KAVO_MS_CALL MSDisposeHandle(MSHandle theHandle);
KAVO_API int16_t KAVO_MS_CALL MSDisposePtr(void* thePtr);
/* Logical size; 0 and last error kGeneralError when the block cannot be locked. */
KAVO_API uint32_t KAVO_MS_CALL MSGetHandleSize(MSHandle theHandle);
KAVO_API uint32_t KAVO_MS_CALL MSGetPtrSize(void* thePtr);
/* Lock and get the data address; every lock needs its unlock. */
KAVO_API int16_t KAVO_MS_CALL MSLockHandle(MSHandle theHandle, void** theAddress);
KAVO_API int16_t KAVO_MS_CALL MSUnlockHandle(MSHandle theHandle);
/* Truth values (0 or 1). */
KAVO_API int KAVO_MS_CALL MSHandleIsLocked(MSHandle theHandle);
KAVO_API int KAVO_MS_CALL MSValidHandle(MSHandle theHandle);
KAVO_API int KAVO_MS_CALL MSValidPtr(void* thePtr);
/* Change the logical size (kCannotGrow / kCannotShrink). Grown bytes are not
   initialised. The Resize forms grow, shrink or do nothing. */
KAVO_API int16_t KAVO_MS_CALL MSGrowHandle(MSHandle* theHandle, uint32_t newSize);
KAVO_API int16_t KAVO_MS_CALL MSShrinkHandle(MSHandle* theHandle, uint32_t newSize);
KAVO_API int16_t KAVO_MS_CALL MSResizeHandle(MSHandle* theHandle, uint32_t newSize);
KAVO_API int16_t KAVO_MS_CALL MSGrowPtr(void** thePtr, uint32_t newSize);
KAVO_API int16_t KAVO_MS_CALL MSShrinkPtr(void** thePtr, uint32_t newSize);
KAVO_API int16_t KAVO_MS_CALL MSResizePtr(void** thePtr, uint32_t newSize);
/* Set theAmount bytes from theOffset to theByte; the range must lie inside
   the block (kGeneralError otherwise). */
KAVO_API int16_t KAVO_MS_CALL MSFillHandle(MSHandle theHandle, uint32_t theAmount,
                                           uint32_t theOffset, uint8_t theByte);
KAVO_API int16_t KAVO_MS_CALL MSFillPtr(void* thePtr, uint32_t theAmount, uint32_t theOffset,
                                        uint8_t theByte);
/* New block of the same size and contents; the out variable is written only
   on success. */
KAVO_API int16_t KAVO_MS_CALL MSCloneHandle(MSHandle fromHandle, MSHandle* toHandle);
KAVO_API int16_t KAVO_MS_CALL MSClonePtr(void* from, void** to);
/* Overwrite the destination with the source, resizing it first
   (kDestNotResized when that fails). */
KAVO_API int16_t KAVO_MS_CALL MSCopyHandleToHandle(MSHandle fromHandle, MSHandle* toHandle);
KAVO_API int16_t KAVO_MS_CALL MSCopyPtrToHandle(void* from, MSHandle* toHandle);
KAVO_API int16_t KAVO_MS_CALL MSCopyBlockToHandle(const void* from, MSHandle* toHandle,
                                                  uint32_t theCount);
KAVO_API int16_t KAVO_MS_CALL MSCopyHandleToNewPtr(MSHandle fromHandle, void** to);
/* Grow the destination by the source's size and append the source bytes. */
KAVO_API int16_t KAVO_MS_CALL MSAppendHandleToHandle(MSHandle fromHandle, MSHandle* toHandle);
/* Copy theCount bytes; overlapping ranges are copied correctly. */
KAVO_API int16_t KAVO_MS_CALL MSBlockMove(const void* from, void* to, uint32_t theCount);
/* Not supported on this platform: reports and returns kNoError. */
KAVO_API int16_t KAVO_MS_CALL MSRecoverHandle(void);
KAVO_API int16_t KAVO_MS_CALL MSLastError(void);

/* ---------------------------------------------------------------------------
 * Records: typed records in database files, through the one record manager.
 *
 * A type is four bytes (a pointer to 4 characters, compared as bytes; out
 * buffers receive 4 bytes and no terminator). A name is at most 31
 * characters and a NUL; out buffers for names hold 32 bytes. refNum names an
 * open database, or kAllFiles (every open database, the most recently opened
 * first) or kCurrentFile. A record's data is an MSHandle that the database
 * owns from the moment it is read or added until it is detached, released or
 * removed. Every function returns -1 before InitRMRezManager and after
 * KillRMRezManager.
 * ------------------------------------------------------------------------- */
enum {
    kAllFiles = -1000,    /* every open database */
    kCurrentFile = -2000  /* the current database */
};

enum {
    kPermissionReadOnly = 1,
    kPermissionReadWrite = 3
};

KAVO_API int16_t KAVO_CALL InitRMRezManager(void);
/* The page cache's memory (at most 64 MiB) stays with the process between
 * databases, for the next one opened; KillRMRezManager gives it back. */
KAVO_API int16_t KAVO_CALL KillRMRezManager(void);
/* A new database file, left closed. */
KAVO_API int16_t KAVO_CALL RMCreate(const char* fileName, uint32_t creator, uint32_t fileType);
KAVO_API int16_t KAVO_CALL RMOpen(const char* fileName, int16_t permission, int16_t* refNum);
KAVO_API int16_t KAVO_CALL RMClose(int16_t refNum);
KAVO_API int16_t KAVO_CALL RMSetCurrentDB(int16_t refNum);
KAVO_API int16_t KAVO_CALL RMGetCurrentDB(int16_t* refNum);
KAVO_API int16_t KAVO_CALL RMCountFiles(uint16_t* count);
KAVO_API int16_t KAVO_CALL RMGetNthRefNum(uint16_t index, int16_t* refNum);
KAVO_API int16_t KAVO_CALL RMFreeMemory(uint32_t byteCount);
KAVO_API int16_t KAVO_CALL RMLastError(void);
KAVO_API int16_t KAVO_CALL RMAddNewRecord(int16_t refNum, const char* type, const char* name, int32_t id,
                                          MSHandle data);
KAVO_API int16_t KAVO_CALL RMReadRecordByNumber(int16_t refNum, int32_t id, const char* type, MSHandle* data);
KAVO_API int16_t KAVO_CALL RMReadRecordByName(int16_t refNum, const char* name, const char* type,
                                              MSHandle* data);
KAVO_API int16_t KAVO_CALL RMReadNthRecord(int16_t refNum, uint32_t index, MSHandle* data);
KAVO_API int16_t KAVO_CALL RMReadNthRecordOfType(int16_t refNum, uint32_t index, const char* type,
                                                 MSHandle* data);
KAVO_API int16_t KAVO_CALL RMGetSizeOfNumberedRecord(int16_t refNum, int32_t id, const char* type,
                                                     uint32_t* size);
KAVO_API int16_t KAVO_CALL RMGetSizeOfNamedRecord(int16_t refNum, const char* name, const char* type,
                                                  uint32_t* size);
KAVO_API int16_t KAVO_CALL RMGetSizeOfNthRecord(int16_t refNum, uint32_t index, uint32_t* size);
KAVO_API int16_t KAVO_CALL RMGetSizeOfNthRecordOfType(int16_t refNum, uint32_t index, const char* type,
                                                      uint32_t* size);
KAVO_API int16_t KAVO_CALL RMGetInfoOfRecord(MSHandle data, char* name, char* type, int32_t* id);
KAVO_API int16_t KAVO_CALL RMGetInfoOfNthRecord(int16_t refNum, uint32_t index, char* type, char* name,
                                                int32_t* id);
KAVO_API int16_t KAVO_CALL RMGetInfoOfNthRecordOfType(int16_t refNum, uint32_t index, const char* type,
                                                      char* name, int32_t* id);
KAVO_API int16_t KAVO_CALL RMCountRecords(int16_t refNum, uint32_t* count);
KAVO_API int16_t KAVO_CALL RMCountRecordsOfType(int16_t refNum, const char* type, uint32_t* count);
KAVO_API int16_t KAVO_CALL RMNextRecordID(int16_t refNum, const char* type, int32_t* id);
KAVO_API int16_t KAVO_CALL RMChangeRecordInfo(MSHandle data, const char* type, const char* name, int32_t id);
KAVO_API int16_t KAVO_CALL RMChangedRecordData(MSHandle data);
KAVO_API int16_t KAVO_CALL RMDetachRecord(MSHandle data);
KAVO_API int16_t KAVO_CALL RMReleaseRecord(MSHandle data);
KAVO_API int16_t KAVO_CALL RMPurgeRecord(MSHandle data);
KAVO_API int16_t KAVO_CALL RMDoNotPurgeRecord(MSHandle data);
KAVO_API int16_t KAVO_CALL RMRemoveRecord(MSHandle data);
KAVO_API int16_t KAVO_CALL RMRemoveNumberedRecord(int16_t refNum, int32_t id, const char* type);
KAVO_API int16_t KAVO_CALL RMRemoveNamedRecord(int16_t refNum, const char* name, const char* type);
KAVO_API int16_t KAVO_CALL RMGetHomeDB(MSHandle data, int16_t* refNum);
/* The about-file text: one NUL-terminated text per database ("BOUT",
   "About Media File", ID 1). The size counts the NUL; the buffer of
   RMGetAboutFile must hold at least that many bytes. */
KAVO_API int16_t KAVO_CALL RMAboutSize(int16_t refNum, uint32_t* size);
KAVO_API int16_t KAVO_CALL RMGetAboutFile(int16_t refNum, char* buffer);
KAVO_API int16_t KAVO_CALL RMChangeAboutFile(int16_t refNum, const char* text);

/* ---------------------------------------------------------------------------
 * Media: movies, pictures, clips captured from tape and plain media items.
 *
 * A medium crosses this interface as an opaque TMedium pointer, which
 * MediumCreateNew or a MediumLoad function gives the caller; the caller owns
 * it and frees it with MediumDestroy. A pointer that names no live medium
 * (null, wild or destroyed) is refused with an assertion report and a
 * failure result: -1 for codes, null for pointers, 0 for truth values.
 * A medium is stored as its "MDUM"
 * record and up to four side records ("path", ".bmp", "alis", "fdat") under
 * its record name and ID. The records below are stored and copied, never
 * interpreted (but for the one-frame duration 0, 0, 0, 1).
 * ------------------------------------------------------------------------- */
typedef struct TimeCodeRecord {
    uint8_t hours;
    uint8_t minutes;
    uint8_t seconds;
    uint8_t frames;
} TimeCodeRecord;

typedef struct DateTimeRecord {
    uint16_t year;
    uint8_t month;
    uint8_t day;
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
} DateTimeRecord;

typedef struct Rect {
    int16_t top;
    int16_t left;
    int16_t bottom;
    int16_t right;
} Rect;

/* Four characters: "?MED" plain medium, "mMED" movie, "pMED" picture, "aMED"
   clip captured from tape. */
typedef struct MediumKind {
    char code[4];
} MediumKind;

/* Four characters naming the connector a clip was captured through; the
   library itself sets only "DVC ". */
typedef struct PlugKind {
    char code[4];
} PlugKind;

#ifdef __cplusplus
class TMedium;
struct LocatorRecord;
#else
typedef struct TMedium TMedium;
/* The unpacked tape information; its fields are C++ strings
   (kavoDVDBClasses.h). C callers use the Tape functions instead. */
typedef struct LocatorRecord LocatorRecord;
#endif

/* Creation, loading and destruction. kind "pMED" makes a picture, "mMED" a
   movie, "DVC " a clip captured from tape (plug kind "DVC "), anything else a
   plain medium; the first argument is not used. Nothing is written until
   MediumSaveToDB. The loads answer null on any error. */
KAVO_API TMedium* KAVO_CALL MediumCreateNew(uint32_t unused, const char* kind, const char* name, int32_t rezID);
KAVO_API TMedium* KAVO_CALL MediumLoadByID(int16_t refNum, int32_t rezID);
KAVO_API TMedium* KAVO_CALL MediumLoadByName(int16_t refNum, const char* name);
KAVO_API TMedium* KAVO_CALL MediumLoadNthOne(int16_t refNum, uint32_t n);
KAVO_API int16_t KAVO_CALL MediumDestroy(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumFreeMemory(TMedium* theMedium, int32_t unused1, int32_t unused2,
                                            uint32_t* amountToFree);

/* Saving and removing. MediumDeleteFromDB takes its arguments the other way
   round and removes the "MDUM" record only. */
KAVO_API int16_t KAVO_CALL MediumSaveToDB(TMedium* theMedium, int16_t refNum);
KAVO_API int16_t KAVO_CALL MediumRemoveFromDB(TMedium* theMedium, int16_t refNum);
KAVO_API int16_t KAVO_CALL MediumDeleteFromDB(int16_t refNum, TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumCopyAllToNewDB(TMedium* theMedium, int16_t fromRefNum, int16_t toRefNum,
                                                int32_t* newRezID);

/* Text. The getters copy the characters only, with no terminator: clear the
   buffer first (32 bytes for the title, MediumDescriptionSize + 1 for the
   description, 256 for the path). */
KAVO_API char* KAVO_CALL MediumGetRezName(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumChangeRezName(TMedium* theMedium, const char* name);
KAVO_API int16_t KAVO_CALL MediumGetTitle(TMedium* theMedium, char* buffer);
KAVO_API int16_t KAVO_CALL MediumChangeTitle(TMedium* theMedium, const char* title);
KAVO_API int16_t KAVO_CALL MediumGetDescription(TMedium* theMedium, char* buffer);
KAVO_API int32_t KAVO_CALL MediumDescriptionSize(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumChangeDescription(TMedium* theMedium, const char* description);
KAVO_API int16_t KAVO_CALL MediumGetPathName(TMedium* theMedium, char* buffer);
KAVO_API int16_t KAVO_CALL MediumChangePathName(TMedium* theMedium, const char* newPath);
KAVO_API int16_t KAVO_CALL MediumLoadPathName(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumHasPathNameLoaded(TMedium* theMedium);

/* Fields. */
KAVO_API int32_t KAVO_CALL MediumEditable(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumIsDirty(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumReadyForPreview(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumReadyForPrimeTime(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumGetRezID(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumChangeRezID(TMedium* theMedium, int32_t rezID);
KAVO_API int16_t KAVO_CALL MediumGetFlags(TMedium* theMedium, uint32_t* flags);
KAVO_API int16_t KAVO_CALL MediumChangeFlags(TMedium* theMedium, uint32_t flags);
KAVO_API int16_t KAVO_CALL MediumGetDirtyFlags(TMedium* theMedium, uint32_t* flags);
KAVO_API int16_t KAVO_CALL MediumChangeDirtyFlags(TMedium* theMedium, uint32_t flags);
KAVO_API int16_t KAVO_CALL MediumGetScratch(TMedium* theMedium, uint32_t* scratch);
KAVO_API int16_t KAVO_CALL MediumChangeScratch(TMedium* theMedium, uint32_t scratch);
KAVO_API int16_t KAVO_CALL MediumGetCreateDate(TMedium* theMedium, DateTimeRecord* date);
KAVO_API int16_t KAVO_CALL MediumGetModifiedDate(TMedium* theMedium, DateTimeRecord* date);
KAVO_API int16_t KAVO_CALL MediumGetPosterRect(TMedium* theMedium, Rect* rect);
KAVO_API int16_t KAVO_CALL MediumGetMediumRect(TMedium* theMedium, Rect* rect);
KAVO_API int16_t KAVO_CALL MediumGetTrimStart(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumChangeTrimStart(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumGetTrimEnd(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumChangeTrimEnd(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumGetTrimDuration(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumChangeTrimDuration(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumReconcileTrimDuration(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumGetDuration(TMedium* theMedium, TimeCodeRecord* timeCode);
KAVO_API int16_t KAVO_CALL MediumGetFrameRate(TMedium* theMedium, float* rate);
KAVO_API int16_t KAVO_CALL MediumGetSample(TMedium* theMedium, TimeCodeRecord* timeCode, void** sample);
KAVO_API int16_t KAVO_CALL MediumGetNextSample(TMedium* theMedium, TimeCodeRecord* timeCode, void** sample);
KAVO_API int16_t KAVO_CALL MediumGetKind(TMedium* theMedium, MediumKind* kind);
KAVO_API int32_t KAVO_CALL MediumIsProxy(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumMakeProxy(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumRemoveProxy(TMedium* theMedium);

/* The tape locator of a clip captured from tape: the database's tape header
   (or the clip's own "DVC " record). The text getters copy the text and its
   NUL: size the buffer with the matching size function. */
KAVO_API int16_t KAVO_CALL MediumLoadLocator(TMedium* theMedium);
KAVO_API int16_t KAVO_CALL MediumLocatorGetTapeName(TMedium* theMedium, char* buffer);
KAVO_API int16_t KAVO_CALL MediumLocatorGetDescription(TMedium* theMedium, char* buffer);
KAVO_API int16_t KAVO_CALL MediumLocatorGetShooter(TMedium* theMedium, char* buffer);
KAVO_API int16_t KAVO_CALL MediumLocatorGetEnteredBy(TMedium* theMedium, char* buffer);
KAVO_API int16_t KAVO_CALL MediumLocatorGetTapeID(TMedium* theMedium, uint32_t* tapeID);
KAVO_API int16_t KAVO_CALL MediumLocatorGetCreateDate(TMedium* theMedium, uint32_t* createDate);
KAVO_API int16_t KAVO_CALL MediumLocatorGetPlugType(TMedium* theMedium, PlugKind* plugType);
KAVO_API int32_t KAVO_CALL MediumLocatorTapeNameSize(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumLocatorDescriptionSize(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumLocatorShooterSize(TMedium* theMedium);
KAVO_API int32_t KAVO_CALL MediumLocatorEnteredBySize(TMedium* theMedium);

/* For Basic callers: time codes, dates and rectangles as separate values.
   The setters keep the low 8 bits of each value. */
KAVO_API int16_t KAVO_CALL VBMediumChangeTrimStart(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c, uint8_t d);
KAVO_API int16_t KAVO_CALL VBMediumChangeTrimEnd(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c, uint8_t d);
KAVO_API int16_t KAVO_CALL VBMediumChangeTrimDuration(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c,
                                                      uint8_t d);
KAVO_API int16_t KAVO_CALL VBMediumChangeClipStart(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c, uint8_t d);
KAVO_API int16_t KAVO_CALL VBMediumChangeClipEnd(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c, uint8_t d);
KAVO_API int16_t KAVO_CALL VBMediumChangeClipDuration(TMedium* theMedium, uint8_t a, uint8_t b, uint8_t c,
                                                      uint8_t d);
KAVO_API int16_t KAVO_CALL VBMediumGetTrimStart(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,
                                                uint16_t* d);
KAVO_API int16_t KAVO_CALL VBMediumGetTrimEnd(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,
                                              uint16_t* d);
KAVO_API int16_t KAVO_CALL VBMediumGetTrimDuration(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,
                                                   uint16_t* d);
KAVO_API int16_t KAVO_CALL VBMediumGetClipStart(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,
                                                uint16_t* d);
KAVO_API int16_t KAVO_CALL VBMediumGetClipEnd(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,
                                              uint16_t* d);
KAVO_API int16_t KAVO_CALL VBMediumGetClipDuration(TMedium* theMedium, uint16_t* a, uint16_t* b, uint16_t* c,
                                                   uint16_t* d);
KAVO_API int16_t KAVO_CALL VBMediumChangeCreateDate(TMedium* theMedium, uint16_t year, uint8_t month, uint8_t day,
                                                    uint8_t hour, uint8_t minute, uint8_t second);
KAVO_API int16_t KAVO_CALL VBMediumGetCreateDate(TMedium* theMedium, uint16_t* year, uint8_t* month, uint8_t* day,
                                                 uint8_t* hour, uint8_t* minute, uint8_t* second);
KAVO_API int16_t KAVO_CALL VBMediumGetPosterRect(TMedium* theMedium, int16_t* top, int16_t* left, int16_t* bottom,
                                                 int16_t* right);
KAVO_API int16_t KAVO_CALL VBMediumGetSample(TMedium* theMedium, uint8_t* a, uint8_t* b, uint8_t* c, uint8_t* d,
                                             void** sample);

/* The database's tape header: a "DVC " record named "DVC Header Info", ID 1.
   The readers read the current database's; the writers write refNum's.
   TapeSaveInfo adds a header to a database that has none. */
KAVO_API int16_t KAVO_CALL TapeSaveInfo(int16_t refNum, const char* tapeName, uint32_t tapeID, uint32_t createDate,
                                        const char* description, const char* enteredBy, const char* shooter,
                                        const PlugKind* plugType);
KAVO_API int16_t KAVO_CALL sUnpackTapeInfo(LocatorRecord* record);
KAVO_API int16_t KAVO_CALL TapeGetName(char* buffer);
KAVO_API int16_t KAVO_CALL TapeGetDescription(char* buffer);
KAVO_API int16_t KAVO_CALL TapeGetEnteredBy(char* buffer);
KAVO_API int16_t KAVO_CALL TapeGetShooter(char* buffer);
KAVO_API int32_t KAVO_CALL TapeNameSize(int32_t unused);
KAVO_API int32_t KAVO_CALL TapeDescriptionSize(int32_t unused);
KAVO_API int32_t KAVO_CALL TapeEnteredBySize(int32_t unused);
KAVO_API int32_t KAVO_CALL TapeShooterSize(int32_t unused);
KAVO_API int16_t KAVO_CALL TapeGetTapeID(uint32_t* tapeID);
KAVO_API int16_t KAVO_CALL TapeGetPlugType(PlugKind* plugType);
KAVO_API int16_t KAVO_CALL TapeChangeName(int16_t refNum, const char* newText);
KAVO_API int16_t KAVO_CALL TapeChangeDescription(int16_t refNum, const char* newText);
KAVO_API int16_t KAVO_CALL TapeChangeEnteredBy(int16_t refNum, const char* newText);
KAVO_API int16_t KAVO_CALL TapeChangeShooter(int16_t refNum, const char* newText);

/* ---------------------------------------------------------------------------
 * The story board: the ordered list of scene IDs of one database, kept as its
 * "STRY" record "Story" (ID 1000). A board crosses this interface as an
 * opaque TStoryBoard pointer; the caller owns it and frees it with
 * StoryDestroy, which deletes the scenes it has loaded, unsaved. A pointer
 * that names no live board is refused with an assertion report and -1 (0
 * from StoryNumScenes and StoryDestroy). The list functions change the
 * board only: the scenes' "SEEN" records and their takes stay in the
 * database. A board that is not editable refuses every change with -1.
 * ------------------------------------------------------------------------- */
#ifdef __cplusplus
class TStoryBoard;
#else
typedef struct TStoryBoard TStoryBoard;
#endif

/* A new board with the defaults for the database refNum; nothing is
   written until StorySave. */
KAVO_API TStoryBoard* KAVO_CALL StoryCreateNew(int16_t refNum);
/* The database's board; a database without one is given one with the
   defaults, written at once. The current database stays as it was. Null only
   when the board cannot be made. */
KAVO_API TStoryBoard* KAVO_CALL StoryOpen(int16_t refNum);
/* Writes the board into refNum, always (whether or not it changed). */
KAVO_API int16_t KAVO_CALL StorySave(TStoryBoard* story, int16_t refNum);
KAVO_API int16_t KAVO_CALL StoryDestroy(TStoryBoard* story);
KAVO_API uint16_t KAVO_CALL StoryNumScenes(TStoryBoard* story);
KAVO_API int16_t KAVO_CALL StoryGetNthSceneID(TStoryBoard* story, uint16_t index, int32_t* id);
KAVO_API int16_t KAVO_CALL StoryFindIndexOfScene(TStoryBoard* story, int32_t id, uint16_t* index);
KAVO_API int16_t KAVO_CALL StoryAppendScene(TStoryBoard* story, int32_t id);
KAVO_API int16_t KAVO_CALL StoryInsertSceneAt(TStoryBoard* story, int32_t id, uint16_t index);
KAVO_API int16_t KAVO_CALL StoryChangeSceneAt(TStoryBoard* story, int32_t id, uint16_t index);
KAVO_API int16_t KAVO_CALL StoryDeleteSceneFromList(TStoryBoard* story, int32_t id);
KAVO_API int16_t KAVO_CALL StoryDeleteFromListSceneAt(TStoryBoard* story, uint16_t index);
KAVO_API int16_t KAVO_CALL StorySwapScenes(TStoryBoard* story, uint16_t a, uint16_t b);
/* Moving forward lands the scene before the one that stood at toIndex: with
   X Y Z, moving 0 to 2 gives Y X Z. */
KAVO_API int16_t KAVO_CALL StoryMoveSceneWithinList(TStoryBoard* story, uint16_t fromIndex, uint16_t toIndex);
/* Empties the list; 0 in every case (a board that is not editable keeps
   its list). */
KAVO_API int16_t KAVO_CALL StoryDeleteAllScenesFromList(TStoryBoard* story);

#ifdef __cplusplus
}
#endif

#endif /* KAVODVDB_H */
