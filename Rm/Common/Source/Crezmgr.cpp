#include "Rm/Common/Source/Crezmgr.h"

#include <cstring>
#include <new>
#include <vector>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/Memsys.h"
#include "Rm/Common/Source/Cdb.h"
#include "Rm/Common/Source/Ckeyeddb.h"
#include "Rm/Common/Source/Rmclock.h"
#include "TList/Common/Tlist.h"
#include "engine/Engine.h"

std::int16_t CRezManager::fNumInstances = 0;

namespace {

constexpr std::int16_t kNoRefNum = -1;
constexpr std::size_t kHighestRefNum = 32767;

// An open database: its reference number and the database object. It lives
// in an MSHandle behind the size header, so it is copied in and out.
struct TOpenDBEntry {
    std::int16_t fRefNum;
    CDatabase* fDatabase;
};

bool ReadEntry(MSHandle entry, TOpenDBEntry* out) {
    void* address = nullptr;
    if (!KAVO_CHECK_TEXT(MSLockHandle(entry, &address) == kNoError, "fLastError == kNoError")) return false;
    std::memcpy(out, address, sizeof *out);
    const std::int16_t error = MSUnlockHandle(entry);
    KAVO_ASSERT_TEXT(error == kNoError, "fLastError == kNoError");
    (void)error;
    return true;
}

bool WriteEntry(MSHandle entry, const TOpenDBEntry& in) {
    void* address = nullptr;
    if (!KAVO_CHECK_TEXT(MSLockHandle(entry, &address) == kNoError, "fLastError == kNoError")) return false;
    std::memcpy(address, &in, sizeof in);
    const std::int16_t error = MSUnlockHandle(entry);
    KAVO_ASSERT_TEXT(error == kNoError, "fLastError == kNoError");
    (void)error;
    return true;
}

// One draw of the runtime's pseudo-random generator right after seeding it:
// the same numbers on every platform.
std::int16_t DrawRefNum(std::uint32_t seed) {
    const std::uint32_t state = seed * 214013u + 2531011u;
    return static_cast<std::int16_t>((state >> 16) & 0x7FFF);
}

// A database object whose Open (or Close) failed is abandoned: neither
// registered nor destroyed, so the engine stays started for it. The path is
// kept as it always was; the objects are listed here only so that leak
// checkers can see where they went.
void Abandon(CDatabase* database) {
    static std::vector<CDatabase*>* abandoned = new (std::nothrow) std::vector<CDatabase*>;
    if (abandoned == nullptr) return;
    try {
        abandoned->push_back(database);
    } catch (...) {
    }
}

bool CheckFileName(const char* fileName, const char* text) {
    if (!KAVO_CHECK(fileName != NULL)) return false;
    std::size_t length = 0;
    while (length <= kMaxFileNameLength && fileName[length] != '\0') ++length;
    return KAVO_CHECK_TEXT(length > 0 && length <= kMaxFileNameLength, text);
}

}  // namespace

// ---------------------------------------------------------------------------
// Routing of the record operations

struct CRezManager::TRouting {
    // The reference number's check; kCurrentFile resolved once it passes.
    static std::int16_t Check(CRezManager& manager, std::int16_t* refNum) {
        const std::int16_t error = manager.VerifyRefNum(*refNum);
        if (error == kNoError) *refNum = Resolve(manager, *refNum);
        return error;
    }

    // kCurrentFile stands for the current database (which may be kAllFiles).
    static std::int16_t Resolve(const CRezManager& manager, std::int16_t refNum) {
        return refNum == kCurrentFile ? manager.fCurrentRefNum : refNum;
    }

    template <typename TOperation>
    static std::int16_t One(CRezManager& manager, std::int16_t refNum, TOperation operation) {
        CDatabase* database = nullptr;
        const std::int16_t error = manager.GetDBFromRefNum(refNum, &database);
        return error != kNoError ? error : operation(database);
    }

    // With kAllFiles: the first database that answers kNoError, the most
    // recently opened first; kRecordNotFound when none does.
    template <typename TOperation>
    static std::int16_t FirstSuccess(CRezManager& manager, std::int16_t refNum, TOperation operation) {
        if (refNum != kAllFiles) return One(manager, refNum, operation);
        std::uint16_t count = 0;
        manager.CountFiles(&count);
        for (std::uint16_t i = 0; i < count; ++i) {
            CDatabase* database = nullptr;
            const std::int16_t error = manager.GetNthDB(i, &database);
            if (error != kNoError) return error;
            if (operation(database) == kNoError) return kNoError;
        }
        return kRecordNotFound;
    }

    // With kAllFiles: the sum of every database's count; a database's error
    // ends the walk with the count 0.
    template <typename TOperation>
    static std::int16_t Sum(CRezManager& manager, std::int16_t refNum, std::uint32_t* total,
                            TOperation operation) {
        if (refNum != kAllFiles)
            return One(manager, refNum, [&](CDatabase* database) { return operation(database, total); });
        *total = 0;
        std::uint16_t count = 0;
        manager.CountFiles(&count);
        for (std::uint16_t i = 0; i < count; ++i) {
            CDatabase* database = nullptr;
            std::int16_t error = manager.GetNthDB(i, &database);
            std::uint32_t part = 0;
            if (error == kNoError) error = operation(database, &part);
            if (error != kNoError) {
                *total = 0;
                return error;
            }
            *total += part;
        }
        return kNoError;
    }

    // The database whose record map holds the handle.
    template <typename TOperation>
    static std::int16_t ByHandle(CRezManager& manager, MSHandle data, TOperation operation) {
        std::int16_t refNum = 0;
        const std::int16_t error = manager.GetHomeDB(data, &refNum);
        return error != kNoError ? error : One(manager, refNum, operation);
    }
};

// ---------------------------------------------------------------------------
// Life

CRezManager::CRezManager()
    : fInitialized(1),
      fLastError(kNoError),
      fOpenDBList(nullptr),
      fDiscardedRefNumList(nullptr),
      fCurrentRefNum(kAllFiles),
      fLastFoundRefNum(0),
      fLastFoundDB(nullptr) {
    KAVO_ASSERT(fNumInstances == 0);
    fNumInstances = 1;
    fOpenDBList = new (std::nothrow) TRefList;
    KAVO_ASSERT(fOpenDBList != NULL);
    fDiscardedRefNumList = new (std::nothrow) TList;
    KAVO_ASSERT(fDiscardedRefNumList != NULL);
}

// The databases that are still open stay open: their objects and entries
// are not touched.
CRezManager::~CRezManager() {
    delete fOpenDBList;
    delete fDiscardedRefNumList;
    fNumInstances = 0;
}

std::int16_t CRezManager::SetLastError(std::int16_t error) {
    fLastError = error;
    return error;
}

std::int16_t CRezManager::LastError() {
    return fLastError;
}

// ---------------------------------------------------------------------------
// Reference numbers

// The generator is seeded from the clock in whole seconds on every attempt,
// so a number that is taken comes up again until the second changes: a
// second Open within one second waits for the next second. This is intended.
std::int16_t CRezManager::GetNewRefNum() {
    if (fOpenDBList == nullptr || fDiscardedRefNumList == nullptr) return kNoRefNum;
    // Every number of 1 .. 32767 open or retired: none is left to draw.
    if (std::size_t{fOpenDBList->Count()} + fDiscardedRefNumList->Count() >= kHighestRefNum) return kNoRefNum;
    for (;;) {
        std::int16_t aRefNum = DrawRefNum(rm::ClockSeconds());
        if (aRefNum < 0) aRefNum = static_cast<std::int16_t>(-aRefNum);
        if (aRefNum == 0) continue;
        CDatabase* open = nullptr;
        if (GetDBFromRefNum(aRefNum, &open) == kNoError) continue;
        if (RefNumWasDiscarded(aRefNum)) continue;
        return aRefNum;
    }
}

std::int16_t CRezManager::DiscardRefNum(std::int16_t doomedRefNum) {
    if (!KAVO_CHECK(fDiscardedRefNumList != 0)) return kGeneralError;
    KAVO_ASSERT(doomedRefNum != kAllFiles);
    KAVO_ASSERT(doomedRefNum != kCurrentFile);
    std::uint16_t index = 0;
    if (fDiscardedRefNumList->Find(doomedRefNum, &index) == kNoError) return kNoError;
    return fDiscardedRefNumList->Append(doomedRefNum);
}

bool CRezManager::RefNumWasDiscarded(std::int16_t theRefNum) {
    if (!KAVO_CHECK(fDiscardedRefNumList != 0)) return false;
    KAVO_ASSERT(theRefNum != kAllFiles);
    KAVO_ASSERT(theRefNum != kCurrentFile);
    std::uint16_t index = 0;
    return fDiscardedRefNumList->Find(theRefNum, &index) == kNoError;
}

bool CRezManager::ValidDBRefNum(std::int16_t theRefNum) {
    if (theRefNum == kAllFiles || theRefNum == kCurrentFile) return true;
    CDatabase* database = nullptr;
    return GetDBFromRefNum(theRefNum, &database) == kNoError;
}

std::int16_t CRezManager::VerifyRefNum(std::int16_t theRefNum) {
    if (ValidDBRefNum(theRefNum)) return kNoError;
    return RefNumWasDiscarded(theRefNum) ? kClosedRefNum : kBadRefNum;
}

std::int16_t CRezManager::GetDBFromRefNum(std::int16_t targetRefNum, CDatabase** targetDB) {
    *targetDB = nullptr;
    if (!KAVO_CHECK(targetRefNum != kAllFiles)) return SetLastError(kBadRefNum);
    if (targetRefNum == kCurrentFile) targetRefNum = fCurrentRefNum;
    if (fOpenDBList == nullptr) return SetLastError(kBadRefNum);
    // Reference numbers in the list are unique, so the last one found is
    // found again at the same entry as long as no database has closed.
    if (fLastFoundDB != nullptr && targetRefNum == fLastFoundRefNum) {
        *targetDB = fLastFoundDB;
        return SetLastError(kNoError);
    }
    for (std::uint16_t i = 0; i < fOpenDBList->Count(); ++i) {
        void* entry = nullptr;
        TOpenDBEntry open;
        if (fOpenDBList->Get(i, &entry) != kNoError || !ReadEntry(entry, &open)) continue;
        if (open.fRefNum == targetRefNum) {
            *targetDB = open.fDatabase;
            fLastFoundRefNum = targetRefNum;
            fLastFoundDB = open.fDatabase;
            return SetLastError(kNoError);
        }
    }
    return SetLastError(kBadRefNum);
}

std::int16_t CRezManager::GetRefNumFromDB(CDatabase* targetDB, std::int16_t* targetRefNum) {
    if (!KAVO_CHECK(targetDB != NULL)) return SetLastError(kGeneralError);
    if (fOpenDBList == nullptr) return SetLastError(kDBNotInList);
    for (std::uint16_t i = 0; i < fOpenDBList->Count(); ++i) {
        void* entry = nullptr;
        TOpenDBEntry open;
        if (fOpenDBList->Get(i, &entry) != kNoError || !ReadEntry(entry, &open)) continue;
        if (open.fDatabase == targetDB) {
            *targetRefNum = open.fRefNum;
            return SetLastError(kNoError);
        }
    }
    return SetLastError(kDBNotInList);
}

std::int16_t CRezManager::GetNthDB(std::uint16_t index, CDatabase** targetDB) {
    std::int16_t refNum = 0;
    const std::int16_t error = GetNthRefNum(index, &refNum);
    return error != kNoError ? error : GetDBFromRefNum(refNum, targetDB);
}

// ---------------------------------------------------------------------------
// Databases

std::int16_t CRezManager::Create(const char* fileName, std::uint32_t creator, std::uint32_t fileType) {
    if (!CheckFileName(fileName, "strlen(name) > 0 && strlen(name) <= kMaxFileNameLength"))
        return SetLastError(kCannotOpenHostFile);
    CKeyedDB* database = new (std::nothrow) CKeyedDB;
    if (database == nullptr) return SetLastError(kGeneralError);
    const std::int16_t error = database->Create(fileName, creator, fileType);
    delete database;
    return SetLastError(error);
}

std::int16_t CRezManager::Open(const char* fileName, std::int16_t permission, std::int16_t* refNum) {
    if (!KAVO_CHECK(refNum != NULL)) return SetLastError(kGeneralError);
    if (!CheckFileName(fileName, "strlen(fileName) > 0 && strlen(fileName) <= kMaxFileNameLength"))
        return SetLastError(kCannotOpenHostFile);
    if (fOpenDBList == nullptr || fDiscardedRefNumList == nullptr) return SetLastError(kGeneralError);
    CKeyedDB* database = new (std::nothrow) CKeyedDB;
    if (database == nullptr) return SetLastError(kGeneralError);
    std::int16_t error = database->Open(fileName, permission);
    if (error != kNoError) {
        Abandon(database);
        return SetLastError(error);
    }
    MSHandle entry = nullptr;
    error = MSNewHandle(&entry, sizeof(TOpenDBEntry));
    if (error != kNoError) {
        delete database;
        return SetLastError(error);
    }
    const std::int16_t aRefNum = GetNewRefNum();
    if (!KAVO_CHECK(aRefNum != -1) || !WriteEntry(entry, TOpenDBEntry{aRefNum, database})) {
        delete database;
        MSDisposeHandle(entry);
        *refNum = 0;
        return SetLastError(kGeneralError);
    }
    *refNum = aRefNum;
    // The newest database is always index 0, so searches over every
    // database try the most recently opened first.
    error = fOpenDBList->Prepend(entry);
    if (error != kNoError) {
        delete database;
        MSDisposeHandle(entry);
        *refNum = 0;
        return SetLastError(error);
    }
    return SetLastError(kNoError);
}

// The result is that of the last step, retiring the number, so a failing
// database close is not reported.
std::int16_t CRezManager::Close(std::int16_t refNum) {
    std::int16_t error = TRouting::Check(*this, &refNum);
    if (error != kNoError) return SetLastError(error);
    CDatabase* database = nullptr;
    error = GetDBFromRefNum(refNum, &database);
    if (error != kNoError) return SetLastError(error);
    fLastFoundDB = nullptr;
    if (database->Close() == kNoError) {
        delete database;
    } else {
        Abandon(database);
    }
    std::int32_t doomedIndex = -1;
    MSHandle doomedEntry = nullptr;
    for (std::uint16_t i = 0; i < fOpenDBList->Count() && doomedIndex < 0; ++i) {
        void* entry = nullptr;
        TOpenDBEntry open;
        if (fOpenDBList->Get(i, &entry) == kNoError && ReadEntry(entry, &open) && open.fRefNum == refNum) {
            doomedIndex = i;
            doomedEntry = entry;
        }
    }
    if (!KAVO_CHECK(doomedIndex >= 0)) return SetLastError(kDBNotInList);
    fOpenDBList->Remove(static_cast<std::uint16_t>(doomedIndex));
    MSDisposeHandle(doomedEntry);
    return SetLastError(DiscardRefNum(refNum));
}

// kAllFiles and kCurrentFile pass the check and are stored as they are.
std::int16_t CRezManager::SetCurrentDB(std::int16_t refNum) {
    const std::int16_t error = VerifyRefNum(refNum);
    if (error == kNoError) fCurrentRefNum = refNum;
    return SetLastError(error);
}

std::int16_t CRezManager::GetCurrentDB(std::int16_t* refNum) {
    if (!KAVO_CHECK(refNum != NULL)) return SetLastError(kGeneralError);
    *refNum = fCurrentRefNum;
    return SetLastError(kNoError);
}

std::int16_t CRezManager::CountFiles(std::uint16_t* count) {
    if (!KAVO_CHECK(count != NULL)) return SetLastError(kGeneralError);
    *count = fOpenDBList != nullptr ? fOpenDBList->Count() : 0;
    return SetLastError(kNoError);
}

std::int16_t CRezManager::GetNthRefNum(std::uint16_t index, std::int16_t* refNum) {
    if (!KAVO_CHECK(refNum != NULL) || fOpenDBList == nullptr) return SetLastError(kGeneralError);
    void* entry = nullptr;
    const std::int16_t error = fOpenDBList->Get(index, &entry);
    if (error != kNoError) return SetLastError(error);
    TOpenDBEntry open;
    if (!ReadEntry(entry, &open)) return SetLastError(kGeneralError);
    *refNum = open.fRefNum;
    return SetLastError(kNoError);
}

std::int16_t CRezManager::GetFileInfo(std::int16_t refNum, std::uint32_t* creator, std::uint32_t* fileType,
                                      char* platform) {
    std::int16_t error = VerifyRefNum(refNum);
    if (error != kNoError) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(*this, TRouting::Resolve(*this, refNum), [&](CDatabase* database) {
        return database->GetFileInfo(creator, fileType, platform);
    }));
}

std::int16_t CRezManager::ChangeFileInfo(std::int16_t refNum, std::uint32_t creator, std::uint32_t fileType,
                                         const char* platform) {
    std::int16_t error = VerifyRefNum(refNum);
    if (error != kNoError) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(*this, TRouting::Resolve(*this, refNum), [&](CDatabase* database) {
        return database->SetFileInfo(creator, fileType, platform);
    }));
}

// No database frees memory, so the walk always ends with kCannotFree, the
// memory system's code for memory that could not be freed.
std::int16_t CRezManager::FreeMemory(std::uint32_t byteCount) {
    std::uint16_t count = 0;
    CountFiles(&count);
    for (std::uint16_t i = 0; i < count; ++i) {
        CDatabase* database = nullptr;
        const std::int16_t error = GetNthDB(i, &database);
        if (error != kNoError) return SetLastError(error);
        if (database->FreeMemory(byteCount) == kNoError) return SetLastError(kNoError);
    }
    return SetLastError(kCannotFree);
}

// ---------------------------------------------------------------------------
// Records by reference number

std::int16_t CRezManager::AddNewRecord(std::int16_t refNum, const char* type, const char* name,
                                       std::int32_t id, MSHandle data) {
    if (!CheckRecordType(type) || !CheckRecordName(name)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::One(
        *this, refNum, [&](CDatabase* database) { return database->AddRecord(type, name, id, data); }));
}

std::int16_t CRezManager::ReadRecordByNumber(std::int16_t refNum, std::int32_t id, const char* type,
                                             MSHandle* data) {
    if (!KAVO_CHECK(data != NULL)) return SetLastError(kGeneralError);
    *data = nullptr;
    if (!CheckRecordType(type)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::FirstSuccess(
        *this, refNum, [&](CDatabase* database) { return database->ReadRecordByNumber(id, type, data); }));
}

std::int16_t CRezManager::ReadRecordByName(std::int16_t refNum, const char* name, const char* type,
                                           MSHandle* data) {
    if (!KAVO_CHECK(data != NULL)) return SetLastError(kGeneralError);
    *data = nullptr;
    if (!CheckRecordType(type) || !CheckRecordName(name)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::FirstSuccess(
        *this, refNum, [&](CDatabase* database) { return database->ReadRecordByName(name, type, data); }));
}

std::int16_t CRezManager::ReadNthRecord(std::int16_t refNum, std::uint32_t index, MSHandle* data) {
    if (!KAVO_CHECK(data != NULL)) return SetLastError(kGeneralError);
    *data = nullptr;
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(
        *this, refNum, [&](CDatabase* database) { return database->ReadNthRecord(index, data); }));
}

std::int16_t CRezManager::ReadNthRecordOfType(std::int16_t refNum, std::uint32_t index, const char* type,
                                              MSHandle* data) {
    if (!KAVO_CHECK(data != NULL)) return SetLastError(kGeneralError);
    *data = nullptr;
    if (!CheckRecordType(type)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(*this, refNum, [&](CDatabase* database) {
        return database->ReadNthRecordOfType(index, type, data);
    }));
}

std::int16_t CRezManager::GetSizeOfNumberedRecord(std::int16_t refNum, std::int32_t id, const char* type,
                                                  std::uint32_t* size) {
    if (!KAVO_CHECK(size != NULL) || !CheckRecordType(type)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::FirstSuccess(*this, refNum, [&](CDatabase* database) {
        return database->GetSizeOfNumberedRecord(id, type, size);
    }));
}

std::int16_t CRezManager::GetSizeOfNamedRecord(std::int16_t refNum, const char* name, const char* type,
                                               std::uint32_t* size) {
    if (!KAVO_CHECK(size != NULL) || !CheckRecordType(type) || !CheckRecordName(name))
        return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::FirstSuccess(*this, refNum, [&](CDatabase* database) {
        return database->GetSizeOfNamedRecord(name, type, size);
    }));
}

std::int16_t CRezManager::GetSizeOfNthRecord(std::int16_t refNum, std::uint32_t index, std::uint32_t* size) {
    if (!KAVO_CHECK(size != NULL)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(
        *this, refNum, [&](CDatabase* database) { return database->GetSizeOfNthRecord(index, size); }));
}

std::int16_t CRezManager::GetSizeOfNthRecordOfType(std::int16_t refNum, std::uint32_t index, const char* type,
                                                   std::uint32_t* size) {
    if (!KAVO_CHECK(size != NULL) || !CheckRecordType(type)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(*this, refNum, [&](CDatabase* database) {
        return database->GetSizeOfNthRecordOfType(index, type, size);
    }));
}

std::int16_t CRezManager::GetInfoOfNthRecord(std::int16_t refNum, std::uint32_t index, char* type, char* name,
                                             std::int32_t* id) {
    if (!KAVO_CHECK(type != NULL) || !KAVO_CHECK(name != NULL) || !KAVO_CHECK(id != NULL))
        return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(*this, refNum, [&](CDatabase* database) {
        return database->GetInfoOfNthRecord(index, type, name, id);
    }));
}

std::int16_t CRezManager::GetInfoOfNthRecordOfType(std::int16_t refNum, std::uint32_t index, const char* type,
                                                   char* name, std::int32_t* id) {
    if (!CheckRecordType(type) || !KAVO_CHECK(name != NULL) || !KAVO_CHECK(id != NULL))
        return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(TRouting::One(*this, refNum, [&](CDatabase* database) {
        return database->GetInfoOfNthRecordOfType(index, type, name, id);
    }));
}

std::int16_t CRezManager::CountRecords(std::int16_t refNum, std::uint32_t* count) {
    if (!KAVO_CHECK(count != NULL)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::Sum(*this, refNum, count, [](CDatabase* database, std::uint32_t* part) {
        return database->CountRecords(part);
    }));
}

std::int16_t CRezManager::CountRecordsOfType(std::int16_t refNum, const char* type, std::uint32_t* count) {
    if (!KAVO_CHECK(count != NULL) || !CheckRecordType(type)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::Sum(*this, refNum, count, [&](CDatabase* database, std::uint32_t* part) {
        return database->CountRecordsOfType(type, part);
    }));
}

// The one operation without the reference-number check: a closed
// database's number answers kBadRefNum here, not kClosedRefNum.
std::int16_t CRezManager::NextRecordID(std::int16_t refNum, const char* type, std::int32_t* id) {
    if (!KAVO_CHECK(id != NULL) || !CheckRecordType(type)) return SetLastError(kGeneralError);
    refNum = TRouting::Resolve(*this, refNum);
    KAVO_ASSERT(refNum != kAllFiles);
    return SetLastError(
        TRouting::One(*this, refNum, [&](CDatabase* database) { return database->NextRecordID(type, id); }));
}

std::int16_t CRezManager::RemoveNumberedRecord(std::int16_t refNum, std::int32_t id, const char* type) {
    if (!CheckRecordType(type)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::FirstSuccess(
        *this, refNum, [&](CDatabase* database) { return database->RemoveNumberedRecord(id, type); }));
}

std::int16_t CRezManager::RemoveNamedRecord(std::int16_t refNum, const char* name, const char* type) {
    if (!CheckRecordType(type) || !CheckRecordName(name)) return SetLastError(kGeneralError);
    if (const std::int16_t error = TRouting::Check(*this, &refNum)) return SetLastError(error);
    return SetLastError(TRouting::FirstSuccess(
        *this, refNum, [&](CDatabase* database) { return database->RemoveNamedRecord(name, type); }));
}

// ---------------------------------------------------------------------------
// Records by handle

std::int16_t CRezManager::GetHomeDB(MSHandle theRecord, std::int16_t* refNum) {
    if (!KAVO_CHECK(refNum != NULL)) return SetLastError(kGeneralError);
    // A handle that is not live cannot be in any map: the search below
    // compares handle values only and answers kHandleNotInDB.
    KAVO_ASSERT(MSValidHandle(theRecord));
    *refNum = 0;
    // A handle lives in one map at most, so the database last found, when it
    // owns the handle, is the one the walk would find.
    if (fLastFoundDB != nullptr && fLastFoundDB->OwnsRecord(theRecord)) {
        *refNum = fLastFoundRefNum;
        return SetLastError(kNoError);
    }
    std::uint16_t count = 0;
    CountFiles(&count);
    for (std::uint16_t i = 0; i < count; ++i) {
        std::int16_t candidate = 0;
        std::int16_t error = GetNthRefNum(i, &candidate);
        if (error != kNoError) return SetLastError(error);
        CDatabase* database = nullptr;
        error = GetDBFromRefNum(candidate, &database);
        if (error != kNoError) return SetLastError(error);
        if (database->OwnsRecord(theRecord)) {
            *refNum = candidate;
            return SetLastError(kNoError);
        }
    }
    return SetLastError(kHandleNotInDB);
}

std::int16_t CRezManager::GetInfoOfRecord(MSHandle data, char* name, char* type, std::int32_t* id) {
    if (!KAVO_CHECK(name != NULL) || !KAVO_CHECK(type != NULL) || !KAVO_CHECK(id != NULL))
        return SetLastError(kGeneralError);
    return SetLastError(TRouting::ByHandle(
        *this, data, [&](CDatabase* database) { return database->GetInfoOfRecord(data, name, type, id); }));
}

std::int16_t CRezManager::ChangeRecordInfo(MSHandle data, const char* type, const char* name,
                                           std::int32_t id) {
    if (!CheckRecordType(type) || !CheckRecordName(name)) return SetLastError(kGeneralError);
    return SetLastError(TRouting::ByHandle(
        *this, data, [&](CDatabase* database) { return database->ChangeRecordInfo(data, type, name, id); }));
}

std::int16_t CRezManager::ChangedRecordData(MSHandle data) {
    return SetLastError(TRouting::ByHandle(
        *this, data, [&](CDatabase* database) { return database->ChangedRecordData(data); }));
}

std::int16_t CRezManager::DetachRecord(MSHandle data) {
    return SetLastError(
        TRouting::ByHandle(*this, data, [&](CDatabase* database) { return database->DetachRecord(data); }));
}

std::int16_t CRezManager::ReleaseRecord(MSHandle data) {
    return SetLastError(
        TRouting::ByHandle(*this, data, [&](CDatabase* database) { return database->ReleaseRecord(data); }));
}

std::int16_t CRezManager::PurgeRecord(MSHandle data) {
    return SetLastError(
        TRouting::ByHandle(*this, data, [&](CDatabase* database) { return database->PurgeRecord(data); }));
}

std::int16_t CRezManager::DoNotPurgeRecord(MSHandle data) {
    return SetLastError(TRouting::ByHandle(
        *this, data, [&](CDatabase* database) { return database->DoNotPurgeRecord(data); }));
}

std::int16_t CRezManager::RemoveRecord(MSHandle data) {
    return SetLastError(
        TRouting::ByHandle(*this, data, [&](CDatabase* database) { return database->RemoveRecord(data); }));
}

// ---------------------------------------------------------------------------
// Atomic changes

std::int16_t CRezManager::BeginAtomicChange() {
    if (!EngineIsInitialised()) return SetLastError(kGeneralError);
    return SetLastError(EngineBeginGroup() == kEngineNoError ? kNoError : kGeneralError);
}

std::int16_t CRezManager::EndAtomicChange(bool keep) {
    const std::int16_t error = EngineEndGroup(keep);
    if (error == kEngineNoError) return SetLastError(kNoError);
    return SetLastError(error == kNoWritePermission ? kNoPermission : kAddRefused);
}
