// The engine's file I/O on Windows.
//
// Locks are share modes: a read-only open shares reading only, a write open
// shares nothing, so a conflicting open (in this process or another) fails
// with a sharing violation. The share mode goes with the handle.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "engine/FileIO.h"

namespace engine {

namespace {

constexpr std::uint64_t kMaxOffset = 0x7FFFFFFFFFFFFFFFull;  // LARGE_INTEGER is signed
// One system call moves at most this much (a DWORD count); larger transfers loop.
constexpr std::size_t kMaxTransfer = std::size_t{1} << 30;

// A name with a NUL inside would silently name a different file.
bool IsUsablePath(const std::string& path) {
    return !path.empty() && path.find('\0') == std::string::npos;
}

FileError ErrorFromLastError(DWORD error) {
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            return FileError::kNotFound;
        case ERROR_FILE_EXISTS:
        case ERROR_ALREADY_EXISTS:
            return FileError::kExists;
        case ERROR_SHARING_VIOLATION:
        case ERROR_LOCK_VIOLATION:
            return FileError::kLocked;
        case ERROR_ACCESS_DENIED:
        case ERROR_WRITE_PROTECT:
            return FileError::kDenied;
        default:
            return FileError::kIO;
    }
}

OVERLAPPED At(std::uint64_t offset) {
    OVERLAPPED overlapped = {};
    overlapped.Offset = static_cast<DWORD>(offset);
    overlapped.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return overlapped;
}

// Has the system delete the file once its last handle is closed (the end of
// the process included), or not. Needs a handle opened with DELETE access.
bool SetDeleteOnClose(HANDLE handle, bool deleteOnClose) {
    FILE_DISPOSITION_INFO disposition = {};
    disposition.DeleteFile = deleteOnClose ? TRUE : FALSE;
    return SetFileInformationByHandle(handle, FileDispositionInfo, &disposition, sizeof disposition) != 0;
}

class TWin32File : public TFile {
public:
    TWin32File(HANDLE handle, bool readOnly, std::string temporary = std::string())
        : fHandle(handle), fReadOnly(readOnly), fTemporary(std::move(temporary)) {}
    // An unpublished temporary goes with the close when it is marked so, and
    // is deleted by name when the system refused the mark.
    ~TWin32File() override {
        CloseHandle(fHandle);
        if (!fTemporary.empty() && !fMarked) DeleteFileA(fTemporary.c_str());
    }
    TWin32File(const TWin32File&) = delete;
    TWin32File& operator=(const TWin32File&) = delete;

    HANDLE Handle() const { return fHandle; }
    // The temporary's name until the file is published, else empty.
    const std::string& Temporary() const { return fTemporary; }
    void EndNaming() { fTemporary.clear(); }
    // Marks the file to be deleted when its handle closes (the end of the
    // process included), or lifts the mark. False when the system refuses.
    bool Mark(bool marked) {
        if (!SetDeleteOnClose(fHandle, marked)) return false;
        fMarked = marked;
        return true;
    }
    bool IsMarked() const { return fMarked; }

    bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::size_t* bytesRead) override {
        std::size_t done = 0;
        if (bytesRead != nullptr) *bytesRead = 0;
        if (buffer == nullptr && length != 0) return false;
        unsigned char* bytes = static_cast<unsigned char*>(buffer);
        while (done < length && offset + done <= kMaxOffset && offset + done >= offset) {
            const DWORD chunk = static_cast<DWORD>(std::min(length - done, kMaxTransfer));
            OVERLAPPED overlapped = At(offset + done);
            DWORD n = 0;
            if (!ReadFile(fHandle, bytes + done, chunk, &n, &overlapped)) {
                if (GetLastError() == ERROR_HANDLE_EOF) break;
                if (bytesRead != nullptr) *bytesRead = done;
                return false;
            }
            if (n == 0) break;
            done += n;
        }
        if (bytesRead != nullptr) *bytesRead = done;
        return true;
    }

    bool WriteAt(std::uint64_t offset, const void* data, std::size_t length) override {
        if (fReadOnly || (data == nullptr && length != 0)) return false;
        if (offset > kMaxOffset || length > kMaxOffset - offset) return false;
        const unsigned char* bytes = static_cast<const unsigned char*>(data);
        std::size_t done = 0;
        while (done < length) {
            const DWORD chunk = static_cast<DWORD>(std::min(length - done, kMaxTransfer));
            OVERLAPPED overlapped = At(offset + done);
            DWORD n = 0;
            if (!WriteFile(fHandle, bytes + done, chunk, &n, &overlapped) || n == 0) return false;
            done += n;
        }
        return true;
    }

    // FlushFileBuffers refuses a handle without write access; a read-only
    // file has nothing of its own to flush anyway.
    bool Sync() override { return fReadOnly || FlushFileBuffers(fHandle) != 0; }

    bool Size(std::uint64_t* size) override {
        LARGE_INTEGER value;
        if (size == nullptr || !GetFileSizeEx(fHandle, &value)) return false;
        *size = static_cast<std::uint64_t>(value.QuadPart);
        return true;
    }

    bool Truncate(std::uint64_t size) override {
        if (fReadOnly || size > kMaxOffset) return false;
        LARGE_INTEGER position;
        position.QuadPart = static_cast<LONGLONG>(size);
        return SetFilePointerEx(fHandle, position, nullptr, FILE_BEGIN) && SetEndOfFile(fHandle);
    }

private:
    HANDLE fHandle;
    bool fReadOnly;
    std::string fTemporary;
    bool fMarked = false;
};

class TWin32FileSystem : public TFileSystem {
public:
    std::unique_ptr<TFile> Open(const std::string& path, OpenMode mode, FileError* error) override;
    std::unique_ptr<TFile> CreateUnnamed(const std::string& path, FileError* error) override;
    FileError Publish(TFile* file, const std::string& path) override;
    bool Exists(const std::string& path) override;
    bool Remove(const std::string& path) override;
    bool Rename(const std::string& from, const std::string& to) override;
};

std::unique_ptr<TFile> TWin32FileSystem::Open(const std::string& path, OpenMode mode, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }

    const bool readOnly = mode == OpenMode::kReadOnly;
    const DWORD access = readOnly ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE;
    const DWORD share = readOnly ? FILE_SHARE_READ : 0;
    const DWORD disposition = mode == OpenMode::kCreateNew ? CREATE_NEW : OPEN_EXISTING;
    // Without FILE_FLAG_BACKUP_SEMANTICS a directory does not open (access
    // denied), as on POSIX, where only plain files are accepted.
    const HANDLE handle =
        CreateFileA(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        *error = ErrorFromLastError(GetLastError());
        return nullptr;
    }

    TFile* file = new (std::nothrow) TWin32File(handle, readOnly);
    if (file == nullptr) {
        CloseHandle(handle);
        *error = FileError::kNoMemory;
    }
    return std::unique_ptr<TFile>(file);
}

// "NAME.<16 hex digits>.kdb-new" beside `path`: plainly the new database
// NAME to anyone who finds it.
std::string TemporaryNameFor(const std::string& path) {
    static unsigned long long counter = 0;
    LARGE_INTEGER now = {};
    QueryPerformanceCounter(&now);
    unsigned long long mixed = static_cast<unsigned long long>(now.QuadPart) ^
                               (static_cast<unsigned long long>(GetCurrentProcessId()) << 40) ^
                               (++counter * 0x9E3779B97F4A7C15ull);
    // One round of splitmix64, so that names made close together differ in every digit.
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9ull;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
    mixed ^= mixed >> 31;
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%08lx%08lx.kdb-new", static_cast<unsigned long>(mixed >> 32),
                  static_cast<unsigned long>(mixed & 0xFFFFFFFFu));
    return path + suffix;
}

// `path` as the rename through a handle takes it: a full path in the
// system's own form (\??\C:\dir\name, or \??\UNC\server\share\name for a
// share), in UTF-16 after the code page the *A calls use. A bare name is not
// read alike everywhere (some take it relative to the current directory
// rather than to the file's). Empty on failure.
std::vector<WCHAR> SystemPathOf(const std::string& path) {
    char full[MAX_PATH * 4];
    const DWORD fullLength = GetFullPathNameA(path.c_str(), sizeof full, full, nullptr);
    if (fullLength == 0 || fullLength >= sizeof full) return {};
    std::string system(full);
    if (system.rfind("\\\\?\\", 0) == 0 || system.rfind("\\\\.\\", 0) == 0) {
        system = "\\??\\" + system.substr(4);
    } else if (system.rfind("\\\\", 0) == 0) {
        system = "\\??\\UNC\\" + system.substr(2);
    } else {
        system = "\\??\\" + system;
    }
    const UINT codePage = AreFileApisANSI() ? CP_ACP : CP_OEMCP;
    const int wide = MultiByteToWideChar(codePage, 0, system.c_str(), -1, nullptr, 0);
    if (wide <= 1) return {};
    std::vector<WCHAR> converted(static_cast<std::size_t>(wide));
    if (MultiByteToWideChar(codePage, 0, system.c_str(), -1, converted.data(), wide) != wide) return {};
    converted.pop_back();  // the terminating NUL, which the rename does not count
    return converted;
}

// Renames the file of `handle` to `name` (from SystemPathOf), never
// replacing a file of that name. The system's error on failure.
DWORD RenameByHandle(HANDLE handle, const std::vector<WCHAR>& name) {
    const std::size_t nameBytes = name.size() * sizeof(WCHAR);
    std::vector<unsigned char> buffer(sizeof(FILE_RENAME_INFO) + nameBytes, 0);
    auto* rename = reinterpret_cast<FILE_RENAME_INFO*>(buffer.data());
    rename->ReplaceIfExists = FALSE;
    rename->RootDirectory = nullptr;
    rename->FileNameLength = static_cast<DWORD>(nameBytes);
    std::copy(name.begin(), name.end(), rename->FileName);
    if (SetFileInformationByHandle(handle, FileRenameInfo, rename, static_cast<DWORD>(buffer.size())))
        return ERROR_SUCCESS;
    return GetLastError();
}

// Windows has no nameless files: the new file is a temporary beside the name,
// "NAME.<16 hex digits>.kdb-new", opened with DELETE access and shared with no
// one (so locked as a write open is) and marked to be deleted when its handle
// closes. A process killed before Publish therefore leaves nothing; only a
// loss of power before then leaves the temporary, named so that a person
// recognises it. Publish lifts the mark and renames the file through its own
// handle, never replacing.
std::unique_ptr<TFile> TWin32FileSystem::CreateUnnamed(const std::string& path, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }
    HANDLE handle = INVALID_HANDLE_VALUE;
    std::string temporary;
    for (int attempt = 0; attempt < 16 && handle == INVALID_HANDLE_VALUE; ++attempt) {
        temporary = TemporaryNameFor(path);
        handle = CreateFileA(temporary.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, CREATE_NEW,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
        if (handle == INVALID_HANDLE_VALUE && GetLastError() != ERROR_FILE_EXISTS &&
            GetLastError() != ERROR_ALREADY_EXISTS)
            break;
    }
    if (handle == INVALID_HANDLE_VALUE) {
        *error = ErrorFromLastError(GetLastError());
        return nullptr;
    }
    // The temporary's name moves into the file only once it is allocated.
    TWin32File* file = new (std::nothrow) TWin32File(handle, false, std::move(temporary));
    if (file == nullptr) {
        CloseHandle(handle);
        DeleteFileA(temporary.c_str());
        *error = FileError::kNoMemory;
        return nullptr;
    }
    file->Mark(true);  // refused, it is deleted by name when let go
    return std::unique_ptr<TFile>(file);
}

// The mark is lifted before the rename, which a file marked for deletion
// would refuse, and put back if the rename fails. A new name whose flush
// fails is marked to go with the handle, so that the file ends nameless as a
// failed Publish promises (and cannot be published again).
FileError TWin32FileSystem::Publish(TFile* file, const std::string& path) {
    auto* win32 = static_cast<TWin32File*>(file);
    if (win32 == nullptr || win32->Temporary().empty() || !IsUsablePath(path)) return FileError::kIO;
    const bool marked = win32->IsMarked();
    if (marked && !win32->Mark(false)) return FileError::kIO;
    DWORD renamed = ERROR_INVALID_NAME;
    try {
        const std::vector<WCHAR> name = SystemPathOf(path);
        if (!name.empty()) renamed = RenameByHandle(win32->Handle(), name);
    } catch (const std::bad_alloc&) {
        renamed = ERROR_NOT_ENOUGH_MEMORY;
    }
    if (renamed != ERROR_SUCCESS) {
        if (marked) win32->Mark(true);
        if (renamed == ERROR_ALREADY_EXISTS || renamed == ERROR_FILE_EXISTS) return FileError::kExists;
        return renamed == ERROR_ACCESS_DENIED ? FileError::kDenied : FileError::kIO;
    }
    win32->EndNaming();
    if (!FlushFileBuffers(win32->Handle())) {
        win32->Mark(true);
        return FileError::kIO;
    }
    return FileError::kNone;
}

// True for any entry of that name, directories included.
bool TWin32FileSystem::Exists(const std::string& path) {
    return IsUsablePath(path) && GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

bool TWin32FileSystem::Remove(const std::string& path) {
    return IsUsablePath(path) && DeleteFileA(path.c_str()) != 0;
}

// Write-through, so that the new name is on the disk when the call returns.
bool TWin32FileSystem::Rename(const std::string& from, const std::string& to) {
    return IsUsablePath(from) && IsUsablePath(to) &&
           MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

}  // namespace

// Made in static storage on first use and never destroyed, so that it
// outlives every static object that might still close a file while the
// process ends, and costs no allocation that could fail.
TFileSystem* PlatformFileSystem() {
    alignas(TWin32FileSystem) static unsigned char storage[sizeof(TWin32FileSystem)];
    static TFileSystem* const platform = new (storage) TWin32FileSystem;
    return platform;
}

}  // namespace engine
