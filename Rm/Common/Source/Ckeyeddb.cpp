#include "Rm/Common/Source/Ckeyeddb.h"

#include <cstring>
#include <limits>
#include <new>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/Memsys.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Crezmap.h"

#include "engine/Engine.h"

namespace {

constexpr std::uint32_t kFixedPartLength = 40;
constexpr std::size_t kIDOffset = 4;
constexpr std::size_t kNameOffset = 8;
constexpr std::size_t kNumberKeyLength = kTypeLength + 4;
constexpr std::size_t kNameKeyLength = kTypeLength + kNameLength;
constexpr char kDataFileSuffix[] = "!data";

constexpr std::int16_t kEngineBuffers = 24;
constexpr std::int16_t kEngineFileSlots = 60;
constexpr std::int16_t kEngineNodeSectors = 4;
constexpr std::int16_t kEngineProfileWord = 33;
constexpr std::uint16_t kHostCloseMode = 0;
constexpr std::uint16_t kNewFileWord = 0;

// ReadNthRecordOfType reads only records whose ID lies in this range.
constexpr std::int32_t kLowestNthOfTypeID = -100000;
constexpr std::int32_t kHighestNthOfTypeID = 100000;
// CountRecordsOfType counts IDs from here up: -2147483648 is left out.
constexpr std::int32_t kLowestCountedID = static_cast<std::int32_t>(0x80000001u);
constexpr std::int32_t kHighestID = 0x7FFFFFFF;

// The ID orders as a signed number (CountRecordsOfType and NextRecordID
// rely on it); names compare byte by byte, case-sensitive, NUL-padded.
const KeySegment kNumberKeySegments[] = {{0, 4, kSegmentBytes}, {4, 4, kSegmentSignedInt}};
const KeySegment kNameKeySegments[] = {{0, 4, kSegmentBytes}, {8, 32, kSegmentString}};
const IndexDefinition kIndexDefinitions[] = {
    {8, 0, 0, 1, 0, 2, kNumberKeySegments, "number_key", nullptr, nullptr, nullptr},
    {36, 12, 0, 1, 0, 2, kNameKeySegments, "name_key", nullptr, nullptr, nullptr},
};
const FileDefinition kFileDefinitionTemplate = {nullptr, -1, kFixedPartLength,  16384,   68,      2,
                                                4096,    64, kIndexDefinitions, nullptr, nullptr, 0};

bool gEngineInitialised = false;
std::int16_t gKeyedDBCount = 0;

std::size_t BoundedLength(const char* text, std::size_t bound) {
    std::size_t length = 0;
    while (length < bound && text[length] != '\0') ++length;
    return length;
}

// The fixed part, normalised: every byte after the end of the type and of
// the name is 0.
void BuildFixedPart(unsigned char* fixedPart, const char* theType, std::int32_t theID, const char* theName) {
    CopyRecordType(reinterpret_cast<char*>(fixedPart), theType);
    std::memcpy(fixedPart + kIDOffset, &theID, sizeof theID);
    CopyRecordName(reinterpret_cast<char*>(fixedPart + kNameOffset), theName);
}

void BuildNumberKey(unsigned char* key, const char* theType, std::int32_t theID) {
    CopyRecordType(reinterpret_cast<char*>(key), theType);
    std::memcpy(key + kTypeLength, &theID, sizeof theID);
}

void BuildNameKey(unsigned char* key, const char* theType, const char* theName) {
    CopyRecordType(reinterpret_cast<char*>(key), theType);
    CopyRecordName(reinterpret_cast<char*>(key + kTypeLength), theName);
}

std::int32_t FixedPartID(const unsigned char* fixedPart) {
    std::int32_t id;
    std::memcpy(&id, fixedPart + kIDOffset, sizeof id);
    return id;
}

const char* FixedPartType(const unsigned char* fixedPart) {
    return reinterpret_cast<const char*>(fixedPart);
}

const char* FixedPartName(const unsigned char* fixedPart) {
    return reinterpret_cast<const char*>(fixedPart + kNameOffset);
}

bool SameType(const unsigned char* bytes, const char* theType) {
    char wanted[kTypeLength];
    CopyRecordType(wanted, theType);
    return std::memcmp(bytes, wanted, kTypeLength) == 0;
}

// An engine result that the database holds to be impossible.
std::int16_t Impossible() {
    KAVO_ASSERT_TEXT(false, "FALSE");
    return kGeneralError;
}

// After a failed resize the caller's variable is null while the block it
// named may still be alive; dispose of whichever is left.
void DisposeAfterResize(MSHandle current, MSHandle before) {
    if (current != nullptr) {
        MSDisposeHandle(current);
    } else if (MSValidHandle(before)) {
        MSDisposeHandle(before);
    }
}

}  // namespace

// ---------------------------------------------------------------------------
// Life

CKeyedDB::CKeyedDB()
    : fHostFileNumber(-1),
      fFileDefinition(new (std::nothrow) FileDefinition(kFileDefinitionTemplate)),
      fRezMap(nullptr),
      fHostOpen(false),
      fFilesOpen(false) {
    fIsOpen = 0;
    fPermission = 0;
    fLastError = kNoError;
    std::memcpy(&fCreator, "????", sizeof fCreator);
    fFileType = fCreator;
    std::memset(fFileName, 0, sizeof fFileName);
    KAVO_ASSERT(fFileDefinition != 0);
    if (!gEngineInitialised) {
        const std::int16_t error = EngineInit(kEngineBuffers, kEngineFileSlots, kEngineNodeSectors,
                                              kEngineBuffers, kEngineProfileWord);
        if (error == IINT_ERR) {
            KAVO_ASSERT(error != IINT_ERR);
        } else {
            KAVO_ASSERT(error == kNoError);
        }
        // Keys are transformed here before every search, never a second time
        // by the engine.
        SetKeysArriveTransformed(true);
        gEngineInitialised = true;
    }
    ++gKeyedDBCount;
    // The engine's operation error word: a walk that simply ran out of keys
    // leaves it 0, any failure of the engine sets it.
    fErrorState = EngineErrorWord();
    fRezMap = new (std::nothrow) CRezMap;
    KAVO_ASSERT(fRezMap != 0);
}

CKeyedDB::~CKeyedDB() {
    if (fIsOpen != 0 || fHostOpen) Close();
    if (--gKeyedDBCount == 0) {
        gEngineInitialised = false;
        EngineStop();
    }
    delete fRezMap;
    delete fFileDefinition;
}

// ---------------------------------------------------------------------------
// Files

bool CKeyedDB::CheckFileName(const char* theFileName) {
    if (!KAVO_CHECK(theFileName != NULL)) return false;
    if (!KAVO_CHECK_TEXT(theFileName[0] != '\0', "strlen(theFileName) > 0")) return false;
    return KAVO_CHECK_TEXT(BoundedLength(theFileName, kMaxFileNameLength) < kMaxFileNameLength,
                           "strlen(theFileName) < kMaxFileNameLength");
}

// Operations that reach the files need them open: a file number of another
// database must never be used.
bool CKeyedDB::FilesReady() {
    return KAVO_CHECK(fFilesOpen) && KAVO_CHECK(fFileDefinition != 0) && KAVO_CHECK(fRezMap != 0);
}

std::int16_t CKeyedDB::DataFile() const {
    return fFileDefinition->fChosenDataFileNumber;
}
std::int16_t CKeyedDB::NumberIndex() const {
    return static_cast<std::int16_t>(DataFile() + 1);
}
std::int16_t CKeyedDB::NameIndex() const {
    return static_cast<std::int16_t>(DataFile() + 2);
}

// Tries the file numbers 0, 1, 2, ... while the engine answers that the
// number is in use, and keeps the number of the first other answer.
std::int16_t CKeyedDB::FindFreeHostNumber(const char* theFileName, bool create, std::uint16_t mode) {
    std::int16_t error = kFileNumberInUse;
    for (std::int16_t number = 0; number < std::numeric_limits<std::int16_t>::max(); ++number) {
        error = create ? CreateHostFile(number, theFileName, 0, 0, mode)
                       : OpenHostFile(number, theFileName, mode);
        if (error != kFileNumberInUse) {
            if (error == kEngineNoError) {
                fHostFileNumber = number;
                fHostOpen = true;
            }
            break;
        }
    }
    return error;
}

// A failed Create or Open leaves no file open and no file number in use.
void CKeyedDB::CloseAfterFailure() {
    if (fFilesOpen) CloseFilesFromDefinition(fFileDefinition);
    if (fHostOpen) CloseHostFile(fHostFileNumber, kHostCloseMode);
    fFilesOpen = false;
    fHostOpen = false;
    fHostFileNumber = -1;
}

std::int16_t CKeyedDB::Create(const char* theFileName, std::uint32_t creator, std::uint32_t fileType) {
    if (!CheckFileName(theFileName)) return SetLastError(kCannotOpenHostFile);
    if (!KAVO_CHECK(fFileDefinition != 0) || !KAVO_CHECK(fRezMap != 0) || !fRezMap->IsUsable() ||
        !KAVO_CHECK(!fHostOpen))
        return SetLastError(kGeneralError);
    *fFileDefinition = kFileDefinitionTemplate;
    if (FindFreeHostNumber(theFileName, true, kHostCreateMode) != kEngineNoError)
        return SetLastError(kCannotOpenHostFile);
    std::strcpy(fFileName, theFileName);
    std::strcat(fFileName, kDataFileSuffix);
    fFileDefinition->fDataFileName = fFileName;

    // The engine opens the files it creates, so they are not opened a
    // second time (that would only take three more file numbers).
    if (CreateFilesFromDefinition(fFileDefinition) != kEngineNoError) {
        CloseAfterFailure();
        return SetLastError(kCannotCreateFiles);
    }
    fFilesOpen = true;
    const std::int16_t files[] = {DataFile(), NumberIndex(), NameIndex()};
    for (std::int16_t file : files) {
        if (SetFileWord(file, &kNewFileWord) != kEngineNoError) {
            Close();
            return SetLastError(kCannotCreateFiles);
        }
    }
    SetFileInfo(creator, fileType, kFileInfoPlatform);
    Close();
    return SetLastError(kNoError);
}

std::int16_t CKeyedDB::Open(const char* theFileName, std::int16_t permission) {
    if (!CheckFileName(theFileName)) return SetLastError(kCannotOpenHostFile);
    // Only the two permissions have a meaning; any other is refused before
    // the file is touched.
    if (!KAVO_CHECK(permission == kPermissionReadOnly || permission == kPermissionReadWrite) ||
        !KAVO_CHECK(fFileDefinition != 0) || !KAVO_CHECK(fRezMap != 0) || !fRezMap->IsUsable() ||
        !KAVO_CHECK(!fHostOpen))
        return SetLastError(kGeneralError);
    *fFileDefinition = kFileDefinitionTemplate;
    const std::uint16_t mode = permission == kPermissionReadWrite ? kHostOpenReadWrite : kHostOpenReadOnly;
    const std::int16_t error = FindFreeHostNumber(theFileName, false, mode);
    if (error == kFileNotOpened) return SetLastError(kCannotOpenFiles);
    if (error == kFileNumberInUse) return SetLastError(kCannotOpenHostFile);
    if (error != kEngineNoError) return SetLastError(kGeneralError);
    std::strcpy(fFileName, theFileName);
    std::strcat(fFileName, kDataFileSuffix);
    fFileDefinition->fDataFileName = fFileName;
    if (OpenFilesFromDefinition(fFileDefinition) != kEngineNoError) {
        CloseAfterFailure();
        return SetLastError(kCannotOpenFiles);
    }
    fFilesOpen = true;
    fPermission = permission;
    fIsOpen = 1;
    fLastError = kNoError;
    ReadFileInfo();
    return SetLastError(kNoError);
}

// A record too short for its own layout (a damaged file) counts as missing.
void CKeyedDB::ReadFileInfo() {
    bool found = false;
    MSHandle hInfo = nullptr;
    if (ReadRecordByName(kFileInfoName, kFileInfoType, &hInfo) == kNoError) {
        const std::uint32_t size = MSGetHandleSize(hInfo);
        void* address = nullptr;
        if (size >= 12 && MSLockHandle(hInfo, &address) == kNoError) {
            const auto* image = static_cast<const unsigned char*>(address);
            std::uint32_t count = 0;
            UnpackLong(image + 8, &count);
            if (count <= size - 12) {
                image += UnpackLong(image, &fCreator);
                image += UnpackLong(image, &fFileType);
                UnpackString(image, fPlatform, static_cast<std::int16_t>(kPlatformLength));
                found = true;
            }
            MSUnlockHandle(hInfo);
        }
        const std::int16_t error = ReleaseRecord(hInfo);
        KAVO_ASSERT(error == kNoError);
        (void)error;
    }
    if (!found) {
        std::memcpy(&fCreator, "????", sizeof fCreator);
        fFileType = fCreator;
        std::memset(fPlatform, 0, sizeof fPlatform);
        std::strcpy(fPlatform, "?OS");
    }
}

std::int16_t CKeyedDB::Close() {
    if (fFilesOpen) {
        fLastError = CloseFilesFromDefinition(fFileDefinition);
        KAVO_ASSERT(fLastError == kNoError);
        fFilesOpen = false;
    }
    if (fHostOpen) {
        fLastError = CloseHostFile(fHostFileNumber, kHostCloseMode);
        KAVO_ASSERT(fLastError == kNoError);
        fHostOpen = false;
        fHostFileNumber = -1;
    }
    fIsOpen = 0;
    return SetLastError(kNoError);
}

// ---------------------------------------------------------------------------
// Records by key

// Transforms the key and finds its record, which becomes the data file's
// current record; its fixed part lands in fixedPart.
std::int16_t CKeyedDB::SearchRecord(std::int16_t indexFile, unsigned char* key, unsigned char* fixedPart) {
    TransformKey(indexFile, key);
    return GetRecordByKey(indexFile, key, fixedPart);
}

std::int16_t CKeyedDB::ReadRecordByKey(std::int16_t indexFile, unsigned char* key, MSHandle* theData) {
    unsigned char fixedPart[kFixedPartLength];
    std::int16_t error = SearchRecord(indexFile, key, fixedPart);
    if (error == kEngineKeyNotFound) return kRecordNotFound;
    if (error != kEngineNoError) return Impossible();
    const std::uint32_t length = VarRecordLength(DataFile());
    if (length < kFixedPartLength) return kGeneralError;

    MSHandle hRecord = nullptr;
    error = MSNewHandle(&hRecord, length);
    if (error != kNoError) return error;
    void* address = nullptr;
    MSLockHandle(hRecord, &address);
    auto* bytes = static_cast<unsigned char*>(address);
    if (ReadVarRecord(DataFile(), bytes, length) != kEngineNoError) {
        MSUnlockHandle(hRecord);
        MSDisposeHandle(hRecord);
        return kGeneralError;
    }
    // The map registers the record as the file stores it.
    std::memcpy(fixedPart, bytes, kFixedPartLength);
    std::memmove(bytes, bytes + kFixedPartLength, length - kFixedPartLength);
    MSUnlockHandle(hRecord);
    const MSHandle before = hRecord;
    error = MSShrinkHandle(&hRecord, length - kFixedPartLength);
    if (error != kNoError) {
        DisposeAfterResize(hRecord, before);
        return error;
    }
    char name[kNameLength + 1];
    std::memcpy(name, FixedPartName(fixedPart), kNameLength);
    name[kNameLength] = '\0';
    error = fRezMap->AddRecord(FixedPartType(fixedPart), name, FixedPartID(fixedPart), hRecord);
    if (error != kNoError) {
        MSDisposeHandle(hRecord);
        return error;
    }
    *theData = hRecord;
    return kNoError;
}

std::int16_t CKeyedDB::GetSizeByKey(std::int16_t indexFile, unsigned char* key, std::uint32_t* theSize) {
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = SearchRecord(indexFile, key, fixedPart);
    if (error == kEngineKeyNotFound) return kKeyNotFound;
    if (error != kEngineNoError) return Impossible();
    const std::uint32_t length = VarRecordLength(DataFile());
    if (length < kFixedPartLength) return kGeneralError;
    *theSize = length - kFixedPartLength;
    return kNoError;
}

std::int16_t CKeyedDB::RemoveByKey(std::int16_t indexFile, unsigned char* key) {
    unsigned char fixedPart[kFixedPartLength];
    std::int16_t error = SearchRecord(indexFile, key, fixedPart);
    if (error == kEngineKeyNotFound) return kKeyNotFound;
    if (error != kEngineNoError) return Impossible();
    error = DeleteVarRecord(DataFile());
    if (error == kKeyNotDeleted || error == kFileNotActive || error == kBadRecordPosition ||
        error == kNoCurrentRecord)
        return Impossible();
    return error;
}

// kNoError when no record holds the key, kDuplicateRecord when one does.
std::int16_t CKeyedDB::KeyIsFree(std::int16_t indexFile, unsigned char* key) {
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = SearchRecord(indexFile, key, fixedPart);
    if (error == kEngineNoError) return kDuplicateRecord;
    if (error == kEngineKeyNotFound) return kNoError;
    return Impossible();
}

// A new handle holding the fixed part and then the record's data.
std::int16_t CKeyedDB::MakeRecordImage(const char* theType, const char* theName, std::int32_t theID,
                                       MSHandle theData, MSHandle* image) {
    *image = nullptr;
    MSHandle hRecord = nullptr;
    std::int16_t error = MSNewHandle(&hRecord, kFixedPartLength);
    if (error != kNoError) return error;
    void* address = nullptr;
    MSLockHandle(hRecord, &address);
    BuildFixedPart(static_cast<unsigned char*>(address), theType, theID, theName);
    MSUnlockHandle(hRecord);
    const MSHandle before = hRecord;
    error = MSAppendHandleToHandle(theData, &hRecord);
    if (error != kNoError) {
        DisposeAfterResize(hRecord, before);
        return error;
    }
    *image = hRecord;
    return kNoError;
}

std::int16_t CKeyedDB::AddRecord(const char* theType, const char* theName, std::int32_t theID,
                                 MSHandle theData) {
    if (!CheckRecordType(theType) || !CheckRecordName(theName)) return SetLastError(kGeneralError);
    if (!KAVO_CHECK(MSValidHandle(theData))) return SetLastError(kInvalidHandle);
    if (!FilesReady()) return SetLastError(kGeneralError);
    // The fixed part goes in a handle of its own and the data stays in the
    // caller's: the engine takes the two as one record, so that a long
    // record is never copied to put them together.
    MSHandle hFixed = nullptr;
    std::int16_t error = MSNewHandle(&hFixed, kFixedPartLength);
    if (error != kNoError) return SetLastError(error);
    void* fixed = nullptr;
    void* data = nullptr;
    MSLockHandle(hFixed, &fixed);
    BuildFixedPart(static_cast<unsigned char*>(fixed), theType, theID, theName);
    MSLockHandle(theData, &data);
    error = AddVarRecordParts(DataFile(), fixed, kFixedPartLength, data, MSGetHandleSize(theData));
    MSUnlockHandle(theData);
    MSUnlockHandle(hFixed);
    MSDisposeHandle(hFixed);
    if (error == kKeyExists) return SetLastError(kDuplicateRecord);
    if (error == kNoWritePermission) return SetLastError(kNoPermission);
    if (error != kEngineNoError) return SetLastError(kAddRefused);

    char type[kTypeLength + 1];
    CopyRecordType(type, theType);
    type[kTypeLength] = '\0';
    if (fRezMap->AddRecord(type, theName, theID, theData) != kNoError) return SetLastError(kMapFull);
    return SetLastError(kNoError);
}

std::int16_t CKeyedDB::ReadRecordByNumber(std::int32_t theID, const char* theType, MSHandle* theData) {
    if (!KAVO_CHECK(theData != NULL)) return SetLastError(kGeneralError);
    *theData = nullptr;
    if (!CheckRecordType(theType) || fRezMap == nullptr) return SetLastError(kGeneralError);
    if (fRezMap->GetRecordByID(theID, theType, theData) == kNoError) return SetLastError(kNoError);
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char key[kNumberKeyLength];
    BuildNumberKey(key, theType, theID);
    return SetLastError(ReadRecordByKey(NumberIndex(), key, theData));
}

std::int16_t CKeyedDB::ReadRecordByName(const char* theName, const char* theType, MSHandle* theData) {
    if (!KAVO_CHECK(theData != NULL)) return SetLastError(kGeneralError);
    *theData = nullptr;
    if (!CheckRecordType(theType) || !CheckRecordName(theName) || fRezMap == nullptr)
        return SetLastError(kGeneralError);
    if (fRezMap->GetRecordByName(theName, theType, theData) == kNoError) return SetLastError(kNoError);
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char key[kNameKeyLength];
    BuildNameKey(key, theType, theName);
    return SetLastError(ReadRecordByKey(NameIndex(), key, theData));
}

std::int16_t CKeyedDB::GetSizeOfNumberedRecord(std::int32_t theID, const char* theType,
                                               std::uint32_t* theSize) {
    if (!KAVO_CHECK(theSize != NULL) || !CheckRecordType(theType) || fRezMap == nullptr)
        return SetLastError(kGeneralError);
    if (fRezMap->GetSizeByID(theID, theType, theSize) == kNoError) return SetLastError(kNoError);
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char key[kNumberKeyLength];
    BuildNumberKey(key, theType, theID);
    return SetLastError(GetSizeByKey(NumberIndex(), key, theSize));
}

std::int16_t CKeyedDB::GetSizeOfNamedRecord(const char* theName, const char* theType,
                                            std::uint32_t* theSize) {
    if (!KAVO_CHECK(theSize != NULL) || !CheckRecordType(theType) || !CheckRecordName(theName) ||
        fRezMap == nullptr)
        return SetLastError(kGeneralError);
    if (fRezMap->GetSizeByName(theName, theType, theSize) == kNoError) return SetLastError(kNoError);
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char key[kNameKeyLength];
    BuildNameKey(key, theType, theName);
    return SetLastError(GetSizeByKey(NameIndex(), key, theSize));
}

// ---------------------------------------------------------------------------
// Records in the map

std::int16_t CKeyedDB::ChangedRecordData(MSHandle theData) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->FindRecord(theData));
}

std::int16_t CKeyedDB::PurgeRecord(MSHandle theData) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->SetPurgeable(theData));
}

std::int16_t CKeyedDB::DoNotPurgeRecord(MSHandle theData) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->ClearPurgeable(theData));
}

std::int16_t CKeyedDB::DetachRecord(MSHandle theData) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->DetachRecord(theData));
}

std::int16_t CKeyedDB::ReleaseRecord(MSHandle theData) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->ReleaseRecord(theData));
}

std::int16_t CKeyedDB::GetInfoOfRecord(MSHandle theData, char* theName, char* theType, std::int32_t* theID) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->GetRecordInfo(theData, theName, theType, theID));
}

bool CKeyedDB::OwnsRecord(MSHandle theData) {
    return fRezMap != nullptr && fRezMap->ContainsRecord(theData);
}

std::int16_t CKeyedDB::FreeMemory(std::uint32_t theBytes) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    return SetLastError(fRezMap->FreeMemory(theBytes));
}

// ---------------------------------------------------------------------------
// Removing

std::int16_t CKeyedDB::RemoveRecord(MSHandle theData) {
    if (fRezMap == nullptr) return SetLastError(kGeneralError);
    char name[kNameLength];
    char type[kTypeLength];
    std::int32_t id = 0;
    const std::int16_t error = fRezMap->GetRecordInfo(theData, name, type, &id);
    if (error != kNoError) return SetLastError(error);
    return RemoveNumberedRecord(id, type);
}

// The record leaves the map before the permission test, so a read-only
// database has dropped it from memory when it refuses; the refusal is not
// stored in fLastError. Both are intended.
std::int16_t CKeyedDB::RemoveNumberedRecord(std::int32_t theID, const char* theType) {
    if (!CheckRecordType(theType) || fRezMap == nullptr) return SetLastError(kGeneralError);
    const std::int16_t error = fRezMap->RemoveRecordByID(theID, theType);
    if (error != kNoError && error != kRecordNotFound) return SetLastError(error);
    if (fPermission == kPermissionReadOnly) return kNoPermission;
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char key[kNumberKeyLength];
    BuildNumberKey(key, theType, theID);
    return SetLastError(RemoveByKey(NumberIndex(), key));
}

std::int16_t CKeyedDB::RemoveNamedRecord(const char* theName, const char* theType) {
    if (!CheckRecordType(theType) || !CheckRecordName(theName) || fRezMap == nullptr)
        return SetLastError(kGeneralError);
    const std::int16_t error = fRezMap->RemoveRecordByName(theName, theType);
    if (error != kNoError && error != kRecordNotFound) return SetLastError(error);
    if (fPermission == kPermissionReadOnly) return kNoPermission;
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char key[kNameKeyLength];
    BuildNameKey(key, theType, theName);
    return SetLastError(RemoveByKey(NameIndex(), key));
}

// ---------------------------------------------------------------------------
// IDs, renaming and counts

std::int16_t CKeyedDB::NextRecordID(const char* theType, std::int32_t* theID) {
    if (!KAVO_CHECK(theID != NULL) || !CheckRecordType(theType) || !FilesReady())
        return SetLastError(kGeneralError);
    unsigned char key[kNumberKeyLength];
    BuildNumberKey(key, theType, kHighestID);
    TransformKey(NumberIndex(), key);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = GetRecordAtOrBefore(NumberIndex(), key, fixedPart);
    if (error == kEngineKeyNotFound) {
        *theID = 1;
        return SetLastError(kNoError);
    }
    if (error != kEngineNoError) return SetLastError(Impossible());
    if (!SameType(fixedPart, theType)) {
        *theID = 1;
    } else {
        // After 2147483647 the next ID wraps to -2147483648.
        *theID = static_cast<std::int32_t>(static_cast<std::uint32_t>(FixedPartID(fixedPart)) + 1u);
    }
    return SetLastError(kNoError);
}

// After the checks for a duplicate, the record leaves the map and the number
// index is searched for its old type and ID. The test on that search is the
// reverse of every other lookup here, and is kept: when the old key is found
// (as it is for every record read from or added to this file), the answer
// is kDuplicateRecord, nothing is written, the record stays out of the map
// (its handle is the caller's) and the new image is not freed. Only when the
// old key is missing is the engine's current record rewritten.
std::int16_t CKeyedDB::ChangeRecordInfo(MSHandle theData, const char* theType, const char* theName,
                                        std::int32_t theID) {
    if (!CheckRecordType(theType) || !CheckRecordName(theName) || fRezMap == nullptr)
        return SetLastError(kGeneralError);
    char oldName[kNameLength];
    char oldType[kTypeLength];
    std::int32_t oldID = 0;
    std::int16_t error = fRezMap->GetRecordInfo(theData, oldName, oldType, &oldID);
    if (error != kNoError) return SetLastError(error);
    if (!FilesReady()) return SetLastError(kGeneralError);

    MSHandle loaded = nullptr;
    if (fRezMap->GetRecordByID(theID, theType, &loaded) == kNoError) return SetLastError(kDuplicateRecord);
    unsigned char numberKey[kNumberKeyLength];
    BuildNumberKey(numberKey, theType, theID);
    error = KeyIsFree(NumberIndex(), numberKey);
    if (error != kNoError) return SetLastError(error);
    if (fRezMap->GetRecordByName(theName, theType, &loaded) == kNoError)
        return SetLastError(kDuplicateRecord);
    unsigned char nameKey[kNameKeyLength];
    BuildNameKey(nameKey, theType, theName);
    error = KeyIsFree(NameIndex(), nameKey);
    if (error != kNoError) return SetLastError(error);

    fRezMap->ClearPurgeable(theData);
    MSHandle hRecord = nullptr;
    error = MakeRecordImage(theType, theName, theID, theData, &hRecord);
    if (error != kNoError) return SetLastError(error);
    error = fRezMap->FindRecord(theData);
    KAVO_ASSERT(error == kNoError);
    error = fRezMap->DetachRecord(theData);
    KAVO_ASSERT(error == kNoError);

    unsigned char oldKey[kNumberKeyLength];
    BuildNumberKey(oldKey, oldType, oldID);
    unsigned char fixedPart[kFixedPartLength];
    error = SearchRecord(NumberIndex(), oldKey, fixedPart);
    if (error == kEngineNoError) return SetLastError(kDuplicateRecord);
    if (error != kEngineKeyNotFound) {
        // Not a plain miss: the current record is unknown, so nothing is rewritten.
        MSDisposeHandle(hRecord);
        return SetLastError(Impossible());
    }
    void* address = nullptr;
    MSLockHandle(hRecord, &address);
    error = ReWriteVarRecord(DataFile(), address, MSGetHandleSize(hRecord));
    MSUnlockHandle(hRecord);
    MSDisposeHandle(hRecord);
    if (error == kKeyExists) return SetLastError(Impossible());
    if (error != kEngineNoError) return SetLastError(kGeneralError);
    char type[kTypeLength + 1];
    CopyRecordType(type, theType);
    type[kTypeLength] = '\0';
    if (fRezMap->AddRecord(type, theName, theID, theData) != kNoError) return SetLastError(kMapFull);
    return SetLastError(kNoError);
}

std::int16_t CKeyedDB::CountRecords(std::uint32_t* theCount) {
    if (!KAVO_CHECK(theCount != NULL) || !FilesReady()) return SetLastError(kGeneralError);
    *theCount = CountIndexEntries(NumberIndex());
    return SetLastError(kNoError);
}

std::int16_t CKeyedDB::CountRecordsOfType(const char* theType, std::uint32_t* theCount) {
    if (!KAVO_CHECK(theCount != NULL) || !CheckRecordType(theType) || !FilesReady())
        return SetLastError(kGeneralError);
    unsigned char lowKey[kNumberKeyLength];
    unsigned char highKey[kNumberKeyLength];
    BuildNumberKey(lowKey, theType, kLowestCountedID);
    BuildNumberKey(highKey, theType, kHighestID);
    TransformKey(NumberIndex(), lowKey);
    TransformKey(NumberIndex(), highKey);
    *theCount = CountKeyRange(NumberIndex(), lowKey, highKey);
    return SetLastError(kNoError);
}

// ---------------------------------------------------------------------------
// The "Nth" operations
//
// They give exactly what a walk of the name index gives (the first key, then
// theIndex steps to the next key), but reach the key by its rank in
// O(log n).

std::int16_t CKeyedDB::ReadNthFixedPart(std::uint32_t theIndex, unsigned char* fixedPart) {
    unsigned char key[kNameKeyLength];
    const std::uint32_t position = NthKey(NameIndex(), theIndex, key);
    if (position == 0) return *fErrorState == kEngineNoError ? kRecordNotFound : kGeneralError;
    if (ReadFixedAt(DataFile(), position, fixedPart) != kEngineNoError) return Impossible();
    return kNoError;
}

std::int16_t CKeyedDB::ReadNthFixedPartOfType(std::uint32_t theIndex, const char* theType,
                                              unsigned char* fixedPart) {
    unsigned char firstKey[kNameKeyLength];
    CopyRecordType(reinterpret_cast<char*>(firstKey), theType);
    std::memset(firstKey + kTypeLength, 0, kNameLength);
    TransformKey(NameIndex(), firstKey);
    // The rank of the first key at or after (type, 32 zero bytes).
    const std::uint32_t rank = CountKeysBelow(NameIndex(), firstKey);
    if (*fErrorState != kEngineNoError) return Impossible();
    unsigned char key[kNameKeyLength];
    std::uint32_t position = NthKey(NameIndex(), rank, key);
    if (position == 0) {
        if (*fErrorState == kEngineNoError) return kRecordNotFound;
        return Impossible();
    }
    // The type segment is stored as it is, so the key begins with the type.
    if (!SameType(key, theType)) return kRecordNotFound;
    if (theIndex != 0) {
        if (theIndex > std::numeric_limits<std::uint32_t>::max() - rank) return kRecordNotFound;
        position = NthKey(NameIndex(), rank + theIndex, key);
        if (position == 0) return *fErrorState == kEngineNoError ? kRecordNotFound : kGeneralError;
    }
    if (ReadFixedAt(DataFile(), position, fixedPart) != kEngineNoError) return Impossible();
    if (!SameType(fixedPart, theType)) return kRecordNotFound;
    return kNoError;
}

std::int16_t CKeyedDB::ReadNthRecord(std::uint32_t theIndex, MSHandle* theData) {
    if (!KAVO_CHECK(theData != NULL)) return SetLastError(kGeneralError);
    *theData = nullptr;
    if (!FilesReady()) return SetLastError(kGeneralError);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = ReadNthFixedPart(theIndex, fixedPart);
    if (error != kNoError) return SetLastError(error);
    return ReadRecordByNumber(FixedPartID(fixedPart), FixedPartType(fixedPart), theData);
}

std::int16_t CKeyedDB::GetSizeOfNthRecord(std::uint32_t theIndex, std::uint32_t* theSize) {
    if (!KAVO_CHECK(theSize != NULL) || !FilesReady()) return SetLastError(kGeneralError);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = ReadNthFixedPart(theIndex, fixedPart);
    if (error != kNoError) return SetLastError(error);
    return GetSizeOfNumberedRecord(FixedPartID(fixedPart), FixedPartType(fixedPart), theSize);
}

std::int16_t CKeyedDB::GetInfoOfNthRecord(std::uint32_t theIndex, char* theType, char* theName,
                                          std::int32_t* theID) {
    if (!KAVO_CHECK(theType != NULL) || !KAVO_CHECK(theName != NULL) || !KAVO_CHECK(theID != NULL) ||
        !FilesReady())
        return SetLastError(kGeneralError);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = ReadNthFixedPart(theIndex, fixedPart);
    if (error != kNoError) return SetLastError(error);
    std::memcpy(theType, FixedPartType(fixedPart), kTypeLength);
    std::memcpy(theName, FixedPartName(fixedPart), kNameLength);
    *theID = FixedPartID(fixedPart);
    return SetLastError(kNoError);
}

// Only IDs from -100000 to 100000 are read; any other is reported and
// refused.
std::int16_t CKeyedDB::ReadNthRecordOfType(std::uint32_t theIndex, const char* theType, MSHandle* theData) {
    if (!KAVO_CHECK(theData != NULL)) return SetLastError(kGeneralError);
    *theData = nullptr;
    if (!CheckRecordType(theType) || !FilesReady()) return SetLastError(kGeneralError);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = ReadNthFixedPartOfType(theIndex, theType, fixedPart);
    if (error != kNoError) return SetLastError(error);
    const std::int32_t id = FixedPartID(fixedPart);
    if (!KAVO_CHECK_TEXT(id >= kLowestNthOfTypeID && id <= kHighestNthOfTypeID, "0"))
        return SetLastError(kGeneralError);
    return ReadRecordByNumber(id, theType, theData);
}

std::int16_t CKeyedDB::GetSizeOfNthRecordOfType(std::uint32_t theIndex, const char* theType,
                                                std::uint32_t* theSize) {
    if (!KAVO_CHECK(theSize != NULL) || !CheckRecordType(theType) || !FilesReady())
        return SetLastError(kGeneralError);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = ReadNthFixedPartOfType(theIndex, theType, fixedPart);
    if (error != kNoError) return SetLastError(error);
    return GetSizeOfNumberedRecord(FixedPartID(fixedPart), theType, theSize);
}

std::int16_t CKeyedDB::GetInfoOfNthRecordOfType(std::uint32_t theIndex, const char* theType, char* theName,
                                                std::int32_t* theID) {
    if (!KAVO_CHECK(theName != NULL) || !KAVO_CHECK(theID != NULL) || !CheckRecordType(theType) ||
        !FilesReady())
        return SetLastError(kGeneralError);
    unsigned char fixedPart[kFixedPartLength];
    const std::int16_t error = ReadNthFixedPartOfType(theIndex, theType, fixedPart);
    if (error != kNoError) return SetLastError(error);
    std::memcpy(theName, FixedPartName(fixedPart), kNameLength);
    *theID = FixedPartID(fixedPart);
    return SetLastError(kNoError);
}
