// CDatabase: the interface through which the resource manager reaches one
// database file, and the file-info record that every database keeps.
//
// Every operation returns a signed 16-bit code and stores it in fLastError.
// A type is a pointer to four bytes (a shorter string is NUL-padded); a name
// is a NUL-terminated string of at most 31 characters; out names receive 32
// bytes and out types 4 bytes without a terminator. The base class answers
// kGeneralError to every operation a subclass does not override, and false
// from OwnsRecord.
//
// The file-info record ("NFO!", "_File_Info_", ID -16001) holds the creator,
// the file type and the platform string "windows", packed big-endian. The
// platform string written is always "windows", whatever the caller passed to
// SetFileInfo: the caller's string reaches only the field in memory. This
// asymmetry is intended.
#ifndef KAVO_RM_CDB_H
#define KAVO_RM_CDB_H

#include <cstddef>
#include <cstdint>

#include "kavoDVDB.h"

constexpr std::size_t kPlatformLength = 32;
// File names hold 1 to 255 characters.
constexpr std::size_t kMaxFileNameLength = 256;
constexpr char kFileInfoType[] = "NFO!";
constexpr char kFileInfoName[] = "_File_Info_";
constexpr std::int32_t kFileInfoID = -16001;
constexpr char kFileInfoPlatform[] = "windows";

// Checks of a caller's record arguments. Each reports the failed condition
// and answers false; nothing past the caller's NUL (or the 32-byte name
// field) is read.
bool CheckRecordType(const char* theType);
bool CheckRecordName(const char* theName);

class CDatabase {
public:
    // Slots 0 .. 28, in this order.
    virtual std::int16_t Create(const char* theFileName, std::uint32_t creator, std::uint32_t fileType);
    virtual std::int16_t Open(const char* theFileName, std::int16_t permission);
    virtual std::int16_t Close();
    virtual std::int16_t AddRecord(const char* theType, const char* theName, std::int32_t theID,
                                   MSHandle theData);
    virtual std::int16_t ReadRecordByNumber(std::int32_t theID, const char* theType, MSHandle* theData);
    virtual std::int16_t ReadRecordByName(const char* theName, const char* theType, MSHandle* theData);
    virtual std::int16_t ChangedRecordData(MSHandle theData);
    virtual std::int16_t RemoveRecord(MSHandle theData);
    virtual std::int16_t PurgeRecord(MSHandle theData);
    virtual std::int16_t DoNotPurgeRecord(MSHandle theData);
    virtual std::int16_t DetachRecord(MSHandle theData);
    virtual std::int16_t ReleaseRecord(MSHandle theData);
    virtual std::int16_t RemoveNumberedRecord(std::int32_t theID, const char* theType);
    virtual std::int16_t RemoveNamedRecord(const char* theName, const char* theType);
    virtual std::int16_t GetSizeOfNumberedRecord(std::int32_t theID, const char* theType,
                                                 std::uint32_t* theSize);
    virtual std::int16_t GetSizeOfNamedRecord(const char* theName, const char* theType,
                                              std::uint32_t* theSize);
    virtual std::int16_t GetInfoOfRecord(MSHandle theData, char* theName, char* theType, std::int32_t* theID);
    virtual std::int16_t NextRecordID(const char* theType, std::int32_t* theID);
    virtual std::int16_t ChangeRecordInfo(MSHandle theData, const char* theType, const char* theName,
                                          std::int32_t theID);
    virtual std::int16_t CountRecords(std::uint32_t* theCount);
    virtual std::int16_t ReadNthRecord(std::uint32_t theIndex, MSHandle* theData);
    virtual std::int16_t CountRecordsOfType(const char* theType, std::uint32_t* theCount);
    virtual std::int16_t ReadNthRecordOfType(std::uint32_t theIndex, const char* theType, MSHandle* theData);
    virtual std::int16_t GetSizeOfNthRecord(std::uint32_t theIndex, std::uint32_t* theSize);
    virtual std::int16_t GetSizeOfNthRecordOfType(std::uint32_t theIndex, const char* theType,
                                                  std::uint32_t* theSize);
    virtual std::int16_t GetInfoOfNthRecord(std::uint32_t theIndex, char* theType, char* theName,
                                            std::int32_t* theID);
    virtual std::int16_t GetInfoOfNthRecordOfType(std::uint32_t theIndex, const char* theType, char* theName,
                                                  std::int32_t* theID);
    virtual bool OwnsRecord(MSHandle theData);
    virtual std::int16_t FreeMemory(std::uint32_t theBytes);
    virtual ~CDatabase();

    // Sets the codes and the platform field (at most 31 characters and a
    // NUL). A read-only database stops there and answers kNoError: nothing is
    // written. Otherwise the file-info record is replaced by one holding the
    // codes and "windows". Failures after the permission test are programming
    // errors: they are reported, not returned.
    std::int16_t SetFileInfo(std::uint32_t creator, std::uint32_t fileType, const char* platform);
    // The codes and the platform field (32 bytes at most, NUL included), from
    // memory only.
    std::int16_t GetFileInfo(std::uint32_t* creator, std::uint32_t* fileType, char* platform);

    std::int16_t LastError() const { return fLastError; }
    bool IsOpen() const { return fIsOpen != 0; }
    std::int16_t Permission() const { return fPermission; }

    CDatabase(const CDatabase&) = delete;
    CDatabase& operator=(const CDatabase&) = delete;

protected:
    CDatabase();

    // Stores the result of an operation and hands it back.
    std::int16_t SetLastError(std::int16_t error) {
        fLastError = error;
        return error;
    }

    std::uint32_t fIsOpen;
    std::int16_t fLastError;
    std::int16_t fPermission;  // kPermissionReadOnly, kPermissionReadWrite, or 0 before Open
    std::uint32_t fFileType;
    std::uint32_t fCreator;
    char fPlatform[kPlatformLength];
    // The error word that the index walks read when they run out of keys: 0
    // means a plain miss. Null here; a subclass points it at its engine's.
    const std::int16_t* fErrorState;
};

#endif  // KAVO_RM_CDB_H
