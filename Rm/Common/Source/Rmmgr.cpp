#include "Rm/Common/Source/Rmmgr.h"

#include <cstring>
#include <new>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/Memsys.h"
#include "engine/Engine.h"

CRezManager* gRezManager = nullptr;

namespace {

bool ManagerExists() {
    return KAVO_CHECK(gRezManager != 0);
}

}  // namespace

// A second call while a manager lives is refused: making another would lose
// the databases that the first one holds open.
std::int16_t KAVO_CALL InitRMRezManager(void) {
    if (!KAVO_CHECK(gRezManager == 0)) return kGeneralError;
    gRezManager = new (std::nothrow) CRezManager;
    if (!KAVO_CHECK(gRezManager != 0)) return kGeneralError;
    return kNoError;
}

// Databases that are still open are not closed first. The memory the engine
// keeps between databases goes with the manager.
std::int16_t KAVO_CALL KillRMRezManager(void) {
    if (!ManagerExists()) return kGeneralError;
    delete gRezManager;
    gRezManager = nullptr;
    EngineReleaseMemory();
    return kNoError;
}

// ---------------------------------------------------------------------------
// Databases

std::int16_t KAVO_CALL RMCreate(const char* fileName, std::uint32_t creator, std::uint32_t fileType) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->Create(fileName, creator, fileType);
}

std::int16_t KAVO_CALL RMOpen(const char* fileName, std::int16_t permission, std::int16_t* refNum) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->Open(fileName, permission, refNum);
}

std::int16_t KAVO_CALL RMClose(std::int16_t refNum) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->Close(refNum);
}

std::int16_t KAVO_CALL RMSetCurrentDB(std::int16_t refNum) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->SetCurrentDB(refNum);
}

std::int16_t KAVO_CALL RMGetCurrentDB(std::int16_t* refNum) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetCurrentDB(refNum);
}

std::int16_t KAVO_CALL RMCountFiles(std::uint16_t* count) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->CountFiles(count);
}

std::int16_t KAVO_CALL RMGetNthRefNum(std::uint16_t index, std::int16_t* refNum) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetNthRefNum(index, refNum);
}

std::int16_t KAVO_CALL RMFreeMemory(std::uint32_t byteCount) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->FreeMemory(byteCount);
}

std::int16_t KAVO_CALL RMLastError(void) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->LastError();
}

// ---------------------------------------------------------------------------
// Records

std::int16_t KAVO_CALL RMAddNewRecord(std::int16_t refNum, const char* type, const char* name,
                                      std::int32_t id, MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->AddNewRecord(refNum, type, name, id, data);
}

std::int16_t KAVO_CALL RMReadRecordByNumber(std::int16_t refNum, std::int32_t id, const char* type,
                                            MSHandle* data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ReadRecordByNumber(refNum, id, type, data);
}

std::int16_t KAVO_CALL RMReadRecordByName(std::int16_t refNum, const char* name, const char* type,
                                          MSHandle* data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ReadRecordByName(refNum, name, type, data);
}

std::int16_t KAVO_CALL RMReadNthRecord(std::int16_t refNum, std::uint32_t index, MSHandle* data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ReadNthRecord(refNum, index, data);
}

std::int16_t KAVO_CALL RMReadNthRecordOfType(std::int16_t refNum, std::uint32_t index, const char* type,
                                             MSHandle* data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ReadNthRecordOfType(refNum, index, type, data);
}

std::int16_t KAVO_CALL RMGetSizeOfNumberedRecord(std::int16_t refNum, std::int32_t id, const char* type,
                                                 std::uint32_t* size) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetSizeOfNumberedRecord(refNum, id, type, size);
}

std::int16_t KAVO_CALL RMGetSizeOfNamedRecord(std::int16_t refNum, const char* name, const char* type,
                                              std::uint32_t* size) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetSizeOfNamedRecord(refNum, name, type, size);
}

std::int16_t KAVO_CALL RMGetSizeOfNthRecord(std::int16_t refNum, std::uint32_t index, std::uint32_t* size) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetSizeOfNthRecord(refNum, index, size);
}

std::int16_t KAVO_CALL RMGetSizeOfNthRecordOfType(std::int16_t refNum, std::uint32_t index, const char* type,
                                                  std::uint32_t* size) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetSizeOfNthRecordOfType(refNum, index, type, size);
}

std::int16_t KAVO_CALL RMGetInfoOfRecord(MSHandle data, char* name, char* type, std::int32_t* id) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetInfoOfRecord(data, name, type, id);
}

std::int16_t KAVO_CALL RMGetInfoOfNthRecord(std::int16_t refNum, std::uint32_t index, char* type, char* name,
                                            std::int32_t* id) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetInfoOfNthRecord(refNum, index, type, name, id);
}

std::int16_t KAVO_CALL RMGetInfoOfNthRecordOfType(std::int16_t refNum, std::uint32_t index, const char* type,
                                                  char* name, std::int32_t* id) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetInfoOfNthRecordOfType(refNum, index, type, name, id);
}

std::int16_t KAVO_CALL RMCountRecords(std::int16_t refNum, std::uint32_t* count) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->CountRecords(refNum, count);
}

std::int16_t KAVO_CALL RMCountRecordsOfType(std::int16_t refNum, const char* type, std::uint32_t* count) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->CountRecordsOfType(refNum, type, count);
}

std::int16_t KAVO_CALL RMNextRecordID(std::int16_t refNum, const char* type, std::int32_t* id) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->NextRecordID(refNum, type, id);
}

std::int16_t KAVO_CALL RMChangeRecordInfo(MSHandle data, const char* type, const char* name,
                                          std::int32_t id) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ChangeRecordInfo(data, type, name, id);
}

std::int16_t KAVO_CALL RMChangedRecordData(MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ChangedRecordData(data);
}

std::int16_t KAVO_CALL RMDetachRecord(MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->DetachRecord(data);
}

std::int16_t KAVO_CALL RMReleaseRecord(MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->ReleaseRecord(data);
}

std::int16_t KAVO_CALL RMPurgeRecord(MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->PurgeRecord(data);
}

std::int16_t KAVO_CALL RMDoNotPurgeRecord(MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->DoNotPurgeRecord(data);
}

std::int16_t KAVO_CALL RMRemoveRecord(MSHandle data) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->RemoveRecord(data);
}

std::int16_t KAVO_CALL RMRemoveNumberedRecord(std::int16_t refNum, std::int32_t id, const char* type) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->RemoveNumberedRecord(refNum, id, type);
}

std::int16_t KAVO_CALL RMRemoveNamedRecord(std::int16_t refNum, const char* name, const char* type) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->RemoveNamedRecord(refNum, name, type);
}

std::int16_t KAVO_CALL RMGetHomeDB(MSHandle data, std::int16_t* refNum) {
    if (!ManagerExists()) return kGeneralError;
    return gRezManager->GetHomeDB(data, refNum);
}

// ---------------------------------------------------------------------------
// The about-file text

// A database without the text answers the read's kRecordNotFound and leaves
// *size as it was.
std::int16_t KAVO_CALL RMAboutSize(std::int16_t refNum, std::uint32_t* size) {
    if (!ManagerExists() || !KAVO_CHECK(size != NULL)) return kGeneralError;
    MSHandle hAbout = nullptr;
    const std::int16_t result = gRezManager->ReadRecordByName(refNum, kAboutName, kAboutType, &hAbout);
    if (result == kNoError) {
        *size = MSGetHandleSize(hAbout);
        const std::int16_t error = gRezManager->ReleaseRecord(hAbout);
        KAVO_ASSERT(error == kNoError);
        (void)error;
    }
    return result;
}

// The buffer must hold RMAboutSize bytes: the whole record, NUL included,
// is copied.
std::int16_t KAVO_CALL RMGetAboutFile(std::int16_t refNum, char* buffer) {
    if (!ManagerExists() || !KAVO_CHECK(buffer != NULL)) return kGeneralError;
    MSHandle hAbout = nullptr;
    std::int16_t error = gRezManager->ReadRecordByName(refNum, kAboutName, kAboutType, &hAbout);
    if (!KAVO_CHECK(error == kNoError)) return error;
    void* address = nullptr;
    error = MSLockHandle(hAbout, &address);
    if (!KAVO_CHECK(error == kNoError)) return error;
    std::memcpy(buffer, address, MSGetHandleSize(hAbout));
    // Released while still locked: releasing disposes of the handle.
    error = gRezManager->ReleaseRecord(hAbout);
    if (!KAVO_CHECK(error == kNoError)) return error;
    return kNoError;
}

// With kAllFiles the old text is removed from the first database that holds
// one while the add is refused (reported only): callers pass one database.
std::int16_t KAVO_CALL RMChangeAboutFile(std::int16_t refNum, const char* text) {
    if (!ManagerExists() || !KAVO_CHECK(text != NULL)) return kGeneralError;
    std::int16_t error = gRezManager->RemoveNamedRecord(refNum, kAboutName, kAboutType);
    if (error != kNoError && error != kKeyNotFound) return error;
    const std::size_t length = std::strlen(text) + 1;
    if (length > kMax_int32) return kOutOfMemory;
    MSHandle hAbout = nullptr;
    error = MSNewHandle(&hAbout, static_cast<std::uint32_t>(length));
    if (error != kNoError) return error;
    void* address = nullptr;
    error = MSLockHandle(hAbout, &address);
    if (error != kNoError) {
        MSDisposeHandle(hAbout);
        return error;
    }
    std::memcpy(address, text, length);
    error = gRezManager->AddNewRecord(refNum, kAboutType, kAboutName, kAboutID, hAbout);
    KAVO_ASSERT(error == kNoError);
    error = gRezManager->ReleaseRecord(hAbout);
    KAVO_ASSERT(error == kNoError);
    // A text that was not added is in no database: its handle is still ours.
    if (error != kNoError) MSDisposeHandle(hAbout);
    return kNoError;
}
