#include "Rm/Common/Source/Cdb.h"

#include <cstring>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/Memsys.h"
#include "Pack/Pack.h"
#include "Rm/Common/Source/Crezmap.h"

namespace {

// Length of a string, looking at no more than `bound` characters.
std::size_t BoundedLength(const char* text, std::size_t bound) {
    std::size_t length = 0;
    while (length < bound && text[length] != '\0') ++length;
    return length;
}

}  // namespace

bool CheckRecordType(const char* theType) {
    return KAVO_CHECK(theType != NULL);
}

bool CheckRecordName(const char* theName) {
    if (!KAVO_CHECK(theName != NULL)) return false;
    return KAVO_CHECK_TEXT(BoundedLength(theName, kNameLength) < kNameLength, "strlen(name) < kNameLength");
}

CDatabase::CDatabase()
    : fIsOpen(0), fLastError(kNoError), fPermission(0), fFileType(0), fCreator(0), fErrorState(nullptr) {
    std::memset(fPlatform, 0, sizeof fPlatform);
}

CDatabase::~CDatabase() = default;

std::int16_t CDatabase::Create(const char*, std::uint32_t creator, std::uint32_t fileType) {
    SetFileInfo(creator, fileType, kFileInfoPlatform);
    return fLastError;
}

std::int16_t CDatabase::Open(const char*, std::int16_t) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::Close() {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::AddRecord(const char*, const char*, std::int32_t, MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ReadRecordByNumber(std::int32_t, const char*, MSHandle*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ReadRecordByName(const char*, const char*, MSHandle*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ChangedRecordData(MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::RemoveRecord(MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::PurgeRecord(MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::DoNotPurgeRecord(MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::DetachRecord(MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ReleaseRecord(MSHandle) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::RemoveNumberedRecord(std::int32_t, const char*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::RemoveNamedRecord(const char*, const char*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetSizeOfNumberedRecord(std::int32_t, const char*, std::uint32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetSizeOfNamedRecord(const char*, const char*, std::uint32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetInfoOfRecord(MSHandle, char*, char*, std::int32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::NextRecordID(const char*, std::int32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ChangeRecordInfo(MSHandle, const char*, const char*, std::int32_t) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::CountRecords(std::uint32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ReadNthRecord(std::uint32_t, MSHandle*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::CountRecordsOfType(const char*, std::uint32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::ReadNthRecordOfType(std::uint32_t, const char*, MSHandle*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetSizeOfNthRecord(std::uint32_t, std::uint32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetSizeOfNthRecordOfType(std::uint32_t, const char*, std::uint32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetInfoOfNthRecord(std::uint32_t, char*, char*, std::int32_t*) {
    return SetLastError(kGeneralError);
}
std::int16_t CDatabase::GetInfoOfNthRecordOfType(std::uint32_t, const char*, char*, std::int32_t*) {
    return SetLastError(kGeneralError);
}
bool CDatabase::OwnsRecord(MSHandle) {
    return false;
}
std::int16_t CDatabase::FreeMemory(std::uint32_t) {
    return SetLastError(kGeneralError);
}

std::int16_t CDatabase::SetFileInfo(std::uint32_t creator, std::uint32_t fileType, const char* platform) {
    if (!KAVO_CHECK(platform != NULL)) return SetLastError(kGeneralError);
    fCreator = creator;
    fFileType = fileType;
    const std::size_t platformLength = BoundedLength(platform, kPlatformLength - 1);
    std::memcpy(fPlatform, platform, platformLength);
    std::memset(fPlatform + platformLength, 0, kPlatformLength - platformLength);
    if (fPermission == kPermissionReadOnly) return SetLastError(kNoError);

    MSHandle hOld = nullptr;
    std::int16_t error = ReadRecordByName(kFileInfoName, kFileInfoType, &hOld);
    if (error == kNoError) {
        error = RemoveNamedRecord(kFileInfoName, kFileInfoType);
        KAVO_ASSERT(error == kNoError);
        // Removing unregistered the old record's handle, which is ours now.
        if (!OwnsRecord(hOld)) MSDisposeHandle(hOld);
    }

    MSHandle hInfo = nullptr;
    error = MSNewHandle(&hInfo, 0);
    if (!KAVO_CHECK(hInfo != NULL)) return SetLastError(error);
    std::uint32_t length = 0;
    hInfo = PackLong(hInfo, length, fCreator);
    hInfo = PackLong(hInfo, length, fFileType);
    hInfo = PackString(hInfo, length, kFileInfoPlatform);
    if (!KAVO_CHECK(hInfo != NULL)) return SetLastError(kOutOfMemory);

    error = AddRecord(kFileInfoType, kFileInfoName, kFileInfoID, hInfo);
    KAVO_ASSERT(error == kNoError);
    error = ReleaseRecord(hInfo);
    KAVO_ASSERT(error == kNoError);
    // A record that was not added is not registered: its handle is still ours.
    if (error != kNoError) MSDisposeHandle(hInfo);
    return fLastError;
}

// The platform field always holds a NUL within its 32 bytes, so the copy
// stops at that NUL and never writes more than 32 bytes.
std::int16_t CDatabase::GetFileInfo(std::uint32_t* creator, std::uint32_t* fileType, char* platform) {
    if (!KAVO_CHECK(creator != NULL) || !KAVO_CHECK(fileType != NULL) || !KAVO_CHECK(platform != NULL))
        return SetLastError(kGeneralError);
    *creator = fCreator;
    *fileType = fFileType;
    const std::size_t length = BoundedLength(fPlatform, kPlatformLength - 1);
    std::memcpy(platform, fPlatform, length);
    platform[length] = '\0';
    return SetLastError(kNoError);
}
