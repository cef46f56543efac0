// CRezManager: the one object through which the library and its hosts reach
// database files.
//
// It creates and opens databases, hands out a reference number (1 .. 32767,
// drawn at random) for each open database, keeps a current database, and
// routes every record operation to one database or to all of them. A closed
// database's number is never issued again while the manager lives.
//
// Reference numbers: kAllFiles stands for every open database, searched
// most recently opened first; kCurrentFile for the current database (which
// may itself be kAllFiles, as it is after construction). kCurrentFile is
// replaced by the current number before the routing is chosen.
//
// Routing:
//  - one database: AddNewRecord, NextRecordID and the "Nth" operations. They
//    fail with kBadRefNum (and an assertion report) for kAllFiles.
//  - first success: the reads, sizes and removes by ID or name. With
//    kAllFiles the first database that answers kNoError ends the search;
//    when none does the answer is kRecordNotFound, whatever a database
//    answered on the way.
//  - sum: CountRecords and CountRecordsOfType add the counts of every
//    database for kAllFiles.
//  - by handle: the operations on a loaded record go to the database whose
//    record map holds the handle (kHandleNotInDB when none does).
// A bad number answers kClosedRefNum (a closed database) or kBadRefNum
// (never issued); NextRecordID alone skips that check.
//
// A record's handle belongs to its database from the moment it is read or
// added until it is detached, released or removed (removing hands it to the
// caller); closing the database disposes of the handles it still holds.
//
// Every public operation stores its result in LastError() and returns it.
// Only one manager may exist at a time. Destroying it does not close the
// databases that are still open.
#ifndef KAVO_RM_CREZMGR_H
#define KAVO_RM_CREZMGR_H

#include <stdint.h>

#include "kavoDVDB.h"

class CDatabase;
class TList;
class TRefList;

class KAVO_CLASS_API CRezManager {
public:
    CRezManager();
    ~CRezManager();
    CRezManager(const CRezManager&) = delete;
    CRezManager& operator=(const CRezManager&) = delete;

    // Databases. Create makes a new file (1 to 255 characters of name) and
    // leaves it closed; kCannotOpenHostFile when it exists. Open registers an
    // open database under a new number in *refNum; permission is
    // kPermissionReadOnly or kPermissionReadWrite. kCannotOpenFiles when the
    // file is missing, held elsewhere, foreign or damaged.
    int16_t Create(const char* fileName, uint32_t creator, uint32_t fileType);
    int16_t Open(const char* fileName, int16_t permission, int16_t* refNum);
    // Closes the database and retires its number. The current database is
    // not changed, even when it was this one.
    int16_t Close(int16_t refNum);
    int16_t SetCurrentDB(int16_t refNum);
    int16_t GetCurrentDB(int16_t* refNum);
    int16_t CountFiles(uint16_t* count);
    // The index-th open database, the most recently opened at index 0;
    // kGeneralError past the last.
    int16_t GetNthRefNum(uint16_t index, int16_t* refNum);
    // The creator, file type and platform text (the buffer holds 32 bytes).
    int16_t GetFileInfo(int16_t refNum, uint32_t* creator, uint32_t* fileType, char* platform);
    // Changes them; a read-only database changes them in memory only.
    int16_t ChangeFileInfo(int16_t refNum, uint32_t creator, uint32_t fileType, const char* platform);
    // Asks the databases to free memory; none ever does, so the answer is
    // kCannotFree.
    int16_t FreeMemory(uint32_t byteCount);
    int16_t LastError();

    // Records. Types are four bytes, names at most 31 characters and a NUL;
    // out names receive 32 bytes, out types 4 bytes. Indexes count from 0 in
    // the order of type, then name.
    int16_t AddNewRecord(int16_t refNum, const char* type, const char* name, int32_t id, MSHandle data);
    int16_t ReadRecordByNumber(int16_t refNum, int32_t id, const char* type, MSHandle* data);
    int16_t ReadRecordByName(int16_t refNum, const char* name, const char* type, MSHandle* data);
    int16_t ReadNthRecord(int16_t refNum, uint32_t index, MSHandle* data);
    int16_t ReadNthRecordOfType(int16_t refNum, uint32_t index, const char* type, MSHandle* data);
    int16_t GetSizeOfNumberedRecord(int16_t refNum, int32_t id, const char* type, uint32_t* size);
    int16_t GetSizeOfNamedRecord(int16_t refNum, const char* name, const char* type, uint32_t* size);
    int16_t GetSizeOfNthRecord(int16_t refNum, uint32_t index, uint32_t* size);
    int16_t GetSizeOfNthRecordOfType(int16_t refNum, uint32_t index, const char* type, uint32_t* size);
    int16_t GetInfoOfRecord(MSHandle data, char* name, char* type, int32_t* id);
    int16_t GetInfoOfNthRecord(int16_t refNum, uint32_t index, char* type, char* name, int32_t* id);
    int16_t GetInfoOfNthRecordOfType(int16_t refNum, uint32_t index, const char* type, char* name,
                                     int32_t* id);
    int16_t CountRecords(int16_t refNum, uint32_t* count);
    int16_t CountRecordsOfType(int16_t refNum, const char* type, uint32_t* count);
    int16_t NextRecordID(int16_t refNum, const char* type, int32_t* id);
    int16_t ChangeRecordInfo(MSHandle data, const char* type, const char* name, int32_t id);
    int16_t ChangedRecordData(MSHandle data);
    int16_t DetachRecord(MSHandle data);
    int16_t ReleaseRecord(MSHandle data);
    int16_t PurgeRecord(MSHandle data);
    int16_t DoNotPurgeRecord(MSHandle data);
    int16_t RemoveRecord(MSHandle data);
    int16_t RemoveNumberedRecord(int16_t refNum, int32_t id, const char* type);
    int16_t RemoveNamedRecord(int16_t refNum, const char* name, const char* type);
    // The open database whose record map holds the handle.
    int16_t GetHomeDB(MSHandle theRecord, int16_t* refNum);

    // Record changes made between BeginAtomicChange and EndAtomicChange
    // reach each database file as one: whatever instant the process ends
    // at, a file holds all of them or none. EndAtomicChange(false) undoes
    // them in the files (records loaded in the meantime stay as they are in
    // memory). A change that fails in between undoes the earlier ones too.
    // They do not nest (kGeneralError). When the end cannot be written the
    // changes are undone and the end answers kAddRefused (kNoPermission for
    // a read-only file).
    int16_t BeginAtomicChange();
    int16_t EndAtomicChange(bool keep);

private:
    struct TRouting;
    friend struct TRouting;

    int16_t GetNewRefNum();
    int16_t DiscardRefNum(int16_t doomedRefNum);
    bool RefNumWasDiscarded(int16_t theRefNum);
    bool ValidDBRefNum(int16_t theRefNum);
    int16_t VerifyRefNum(int16_t theRefNum);
    int16_t GetDBFromRefNum(int16_t targetRefNum, CDatabase** targetDB);
    int16_t GetRefNumFromDB(CDatabase* targetDB, int16_t* targetRefNum);
    int16_t GetNthDB(uint16_t index, CDatabase** targetDB);
    int16_t SetLastError(int16_t error);

    int32_t fInitialized;
    int16_t fLastError;
    TRefList* fOpenDBList;
    TList* fDiscardedRefNumList;
    int16_t fCurrentRefNum;
    // The last database found by its reference number: every record
    // operation looks its database up two to four times. Forgotten when a
    // database closes; the open list stays the record of truth.
    int16_t fLastFoundRefNum;
    CDatabase* fLastFoundDB;

    static int16_t fNumInstances;
};

#endif  // KAVO_RM_CREZMGR_H
