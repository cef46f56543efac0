// CKeyedDB: a database kept in one host file of the keyed file engine.
//
// The host file named by the user holds a data file ("<name>!data") of
// variable-length records and two unique indexes: "number_key" (type and ID)
// and "name_key" (type and name). A record is a 40-byte fixed part (type, ID
// in the machine's byte order, name padded with NULs to 32 bytes) followed by
// its data bytes.
//
// Every loaded record is also registered in the database's record map, which
// is always asked first; the files are read only when the map does not hold
// the record. Data changed in memory reaches the file only by removing and
// adding the record again: ChangedRecordData, PurgeRecord and the like touch
// the map alone.
//
// The engine is shared: the first CKeyedDB made starts it, the last one
// destroyed stops it.
#ifndef KAVO_RM_CKEYEDDB_H
#define KAVO_RM_CKEYEDDB_H

#include <cstdint>

#include "Rm/Common/Source/Cdb.h"

class CRezMap;
struct FileDefinition;

class CKeyedDB : public CDatabase {
public:
    CKeyedDB();
    // Closes the file if it is open.
    ~CKeyedDB() override;

    // Creates the host file and its member files, writes the file-info record
    // and closes the file again. kCannotOpenHostFile when the host file
    // cannot be made (one exists already, or the name is empty or too long),
    // kCannotCreateFiles / kCannotOpenFiles for the member files.
    std::int16_t Create(const char* theFileName, std::uint32_t creator, std::uint32_t fileType) override;
    // Opens with kPermissionReadOnly or kPermissionReadWrite and reads the
    // file-info record (a file without one reads as "????", "????", "?OS").
    // kCannotOpenFiles when the file is missing, held elsewhere, foreign or
    // damaged.
    std::int16_t Open(const char* theFileName, std::int16_t permission) override;
    std::int16_t Close() override;
    // Writes the record and registers theData in the map. kDuplicateRecord
    // when the type and ID, or the type and name, exist; kNoPermission on a
    // read-only file; kAddRefused for any other refusal; kMapFull when the
    // record was written but the map could not take it.
    std::int16_t AddRecord(const char* theType, const char* theName, std::int32_t theID,
                           MSHandle theData) override;
    // The map's handle, or the record read from the file into a new handle
    // that the map then owns. kRecordNotFound when the file lacks it.
    std::int16_t ReadRecordByNumber(std::int32_t theID, const char* theType, MSHandle* theData) override;
    std::int16_t ReadRecordByName(const char* theName, const char* theType, MSHandle* theData) override;
    // Confirms only that the handle is loaded; marks and writes nothing.
    std::int16_t ChangedRecordData(MSHandle theData) override;
    std::int16_t RemoveRecord(MSHandle theData) override;
    std::int16_t PurgeRecord(MSHandle theData) override;
    std::int16_t DoNotPurgeRecord(MSHandle theData) override;
    std::int16_t DetachRecord(MSHandle theData) override;
    std::int16_t ReleaseRecord(MSHandle theData) override;
    // The record leaves the map first (its handle is then the caller's). A
    // read-only database then answers kNoPermission without storing it in
    // LastError(); otherwise the record is deleted from the file
    // (kKeyNotFound when the file lacks it). When the engine refuses the
    // delete (a failed write, say) its own error number comes back as it is.
    std::int16_t RemoveNumberedRecord(std::int32_t theID, const char* theType) override;
    std::int16_t RemoveNamedRecord(const char* theName, const char* theType) override;
    // The data size (kKeyNotFound when the file lacks the record).
    std::int16_t GetSizeOfNumberedRecord(std::int32_t theID, const char* theType,
                                         std::uint32_t* theSize) override;
    std::int16_t GetSizeOfNamedRecord(const char* theName, const char* theType,
                                      std::uint32_t* theSize) override;
    std::int16_t GetInfoOfRecord(MSHandle theData, char* theName, char* theType,
                                 std::int32_t* theID) override;
    // One more than the highest ID of the type, or 1 when it has no record.
    std::int16_t NextRecordID(const char* theType, std::int32_t* theID) override;
    // See the definition: as a rule this answers kDuplicateRecord and leaves
    // the record out of the map.
    std::int16_t ChangeRecordInfo(MSHandle theData, const char* theType, const char* theName,
                                  std::int32_t theID) override;
    std::int16_t CountRecords(std::uint32_t* theCount) override;
    // Records with IDs -2147483647 .. 2147483647: a record with ID
    // -2147483648 is stored and readable but never counted here.
    std::int16_t CountRecordsOfType(const char* theType, std::uint32_t* theCount) override;
    // The "Nth" operations count from 0 in the order of the name index (type,
    // then name byte by byte). kRecordNotFound past the last record.
    std::int16_t ReadNthRecord(std::uint32_t theIndex, MSHandle* theData) override;
    std::int16_t ReadNthRecordOfType(std::uint32_t theIndex, const char* theType, MSHandle* theData) override;
    std::int16_t GetSizeOfNthRecord(std::uint32_t theIndex, std::uint32_t* theSize) override;
    std::int16_t GetSizeOfNthRecordOfType(std::uint32_t theIndex, const char* theType,
                                          std::uint32_t* theSize) override;
    std::int16_t GetInfoOfNthRecord(std::uint32_t theIndex, char* theType, char* theName,
                                    std::int32_t* theID) override;
    std::int16_t GetInfoOfNthRecordOfType(std::uint32_t theIndex, const char* theType, char* theName,
                                          std::int32_t* theID) override;
    bool OwnsRecord(MSHandle theData) override;
    std::int16_t FreeMemory(std::uint32_t theBytes) override;

    CRezMap* RezMap() { return fRezMap; }

private:
    bool CheckFileName(const char* theFileName);
    bool FilesReady();
    std::int16_t FindFreeHostNumber(const char* theFileName, bool create, std::uint16_t mode);
    void CloseAfterFailure();
    void ReadFileInfo();

    std::int16_t DataFile() const;
    std::int16_t NumberIndex() const;
    std::int16_t NameIndex() const;

    std::int16_t SearchRecord(std::int16_t indexFile, unsigned char* key, unsigned char* fixedPart);
    std::int16_t ReadRecordByKey(std::int16_t indexFile, unsigned char* key, MSHandle* theData);
    std::int16_t GetSizeByKey(std::int16_t indexFile, unsigned char* key, std::uint32_t* theSize);
    std::int16_t RemoveByKey(std::int16_t indexFile, unsigned char* key);
    std::int16_t KeyIsFree(std::int16_t indexFile, unsigned char* key);
    std::int16_t MakeRecordImage(const char* theType, const char* theName, std::int32_t theID,
                                 MSHandle theData, MSHandle* image);
    std::int16_t ReadNthFixedPart(std::uint32_t theIndex, unsigned char* fixedPart);
    std::int16_t ReadNthFixedPartOfType(std::uint32_t theIndex, const char* theType,
                                        unsigned char* fixedPart);

    std::int16_t fHostFileNumber;
    // The data file's name: the user's file name (at most 255 characters)
    // followed by "!data".
    char fFileName[kMaxFileNameLength + 6];
    FileDefinition* fFileDefinition;
    CRezMap* fRezMap;
    bool fHostOpen;
    bool fFilesOpen;
};

#endif  // KAVO_RM_CKEYEDDB_H
