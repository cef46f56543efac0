// The engine's file I/O on POSIX systems.
//
// Locks are flock locks, not fcntl locks: fcntl locks belong to the process
// and never conflict within it, while the engine must see a second open of a
// file in the same process as a conflict. flock locks belong to the open file
// and go with its last descriptor.
#ifndef _FILE_OFFSET_BITS
#define _FILE_OFFSET_BITS 64
#endif

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <limits>
#include <new>

#include "engine/FileIO.h"

namespace engine {

namespace {

static_assert(sizeof(off_t) >= 8, "file offsets must be 64-bit");

constexpr std::uint64_t kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max());
// One system call moves at most this much; larger transfers loop.
constexpr std::size_t kMaxTransfer = std::size_t{1} << 30;
constexpr mode_t kNewFileMode = 0644;

// A name with a NUL inside would silently name a different file.
bool IsUsablePath(const std::string& path) {
    return !path.empty() && path.find('\0') == std::string::npos;
}

FileError ErrorFromErrno(int error) {
    switch (error) {
        case ENOENT:
        case ENOTDIR:
            return FileError::kNotFound;
        case EEXIST:
            return FileError::kExists;
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:
            return FileError::kDenied;
        case EWOULDBLOCK:
            return FileError::kLocked;
        default:
            return FileError::kIO;
    }
}

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// A new, removed or renamed name survives a loss of power only once its
// directory is synced. File systems that cannot sync a directory answer
// EINVAL; there is nothing more to do on them.
bool SyncDirectory(const std::string& directory) {
    int fd;
    do {
        fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0 || errno == EINVAL;
    ::close(fd);
    return synced;
}

int SyncData(int fd) {
#if defined(__linux__)
    return ::fdatasync(fd);
#else
    return ::fsync(fd);
#endif
}

class TPosixFile : public TFile {
public:
    TPosixFile(int fd, bool readOnly) : fFd(fd), fReadOnly(readOnly) {}
    ~TPosixFile() override { ::close(fFd); }
    TPosixFile(const TPosixFile&) = delete;
    TPosixFile& operator=(const TPosixFile&) = delete;

    bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::size_t* bytesRead) override {
        std::size_t done = 0;
        if (bytesRead != nullptr) *bytesRead = 0;
        if (buffer == nullptr && length != 0) return false;
        unsigned char* bytes = static_cast<unsigned char*>(buffer);
        while (done < length && offset + done <= kMaxOffset && offset + done >= offset) {
            const std::size_t chunk = std::min(length - done, kMaxTransfer);
            const ssize_t n = ::pread(fFd, bytes + done, chunk, static_cast<off_t>(offset + done));
            if (n < 0) {
                if (errno == EINTR) continue;
                if (bytesRead != nullptr) *bytesRead = done;
                return false;
            }
            if (n == 0) break;
            done += static_cast<std::size_t>(n);
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
            const std::size_t chunk = std::min(length - done, kMaxTransfer);
            const ssize_t n = ::pwrite(fFd, bytes + done, chunk, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;  // 0 would loop for ever: treat it as a failure
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

    // A failed sync is not retried: the system may have dropped the pages it
    // could not write, and a second sync would then succeed without them.
    // A read-only file has nothing of its own to sync.
    bool Sync() override { return fReadOnly || SyncData(fFd) == 0; }

    bool Size(std::uint64_t* size) override {
        struct stat status;
        if (size == nullptr || ::fstat(fFd, &status) != 0) return false;
        *size = static_cast<std::uint64_t>(status.st_size);
        return true;
    }

    bool Truncate(std::uint64_t size) override {
        if (fReadOnly || size > kMaxOffset) return false;
        int result;
        do {
            result = ::ftruncate(fFd, static_cast<off_t>(size));
        } while (result != 0 && errno == EINTR);
        return result == 0;
    }

private:
    int fFd;
    bool fReadOnly;
};

class TPosixFileSystem : public TFileSystem {
public:
    std::unique_ptr<TFile> Open(const std::string& path, OpenMode mode, FileError* error) override;
    bool Exists(const std::string& path) override;
    bool Remove(const std::string& path) override;
    bool Rename(const std::string& from, const std::string& to) override;
};

std::unique_ptr<TFile> TPosixFileSystem::Open(const std::string& path, OpenMode mode, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }

    int flags = O_CLOEXEC;
    switch (mode) {
        case OpenMode::kReadOnly:
            flags |= O_RDONLY;
            break;
        case OpenMode::kReadWrite:
            flags |= O_RDWR;
            break;
        case OpenMode::kCreateNew:
            flags |= O_RDWR | O_CREAT | O_EXCL;
            break;
    }
    int fd;
    do {
        fd = ::open(path.c_str(), flags, kNewFileMode);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        *error = ErrorFromErrno(errno);
        return nullptr;
    }

    // Only plain files: a directory opens read-only on POSIX but not on
    // Windows, and the engine must see the same on both.
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        *error = FileError::kDenied;
        return nullptr;
    }

    const int lock = (mode == OpenMode::kReadOnly ? LOCK_SH : LOCK_EX) | LOCK_NB;
    int locked;
    do {
        locked = ::flock(fd, lock);
    } while (locked != 0 && errno == EINTR);
    if (locked != 0) {
        *error = errno == EWOULDBLOCK ? FileError::kLocked : FileError::kIO;
        ::close(fd);
        return nullptr;
    }

    // The new name is made durable now, so that a file the engine has
    // written and synced cannot vanish in a loss of power.
    if (mode == OpenMode::kCreateNew && !SyncDirectory(DirectoryOf(path))) {
        ::close(fd);
        ::unlink(path.c_str());
        *error = FileError::kIO;
        return nullptr;
    }

    TFile* file = new (std::nothrow) TPosixFile(fd, mode == OpenMode::kReadOnly);
    if (file == nullptr) {
        ::close(fd);
        *error = FileError::kIO;
    }
    return std::unique_ptr<TFile>(file);
}

// True for any entry of that name, directories included, as on Windows.
bool TPosixFileSystem::Exists(const std::string& path) {
    struct stat status;
    return IsUsablePath(path) && ::stat(path.c_str(), &status) == 0;
}

// Both succeed only once the directory holding the change is synced.
bool TPosixFileSystem::Remove(const std::string& path) {
    return IsUsablePath(path) && ::unlink(path.c_str()) == 0;
}

bool TPosixFileSystem::Rename(const std::string& from, const std::string& to) {
    if (!IsUsablePath(from) || !IsUsablePath(to) || std::rename(from.c_str(), to.c_str()) != 0) return false;
    const std::string toDirectory = DirectoryOf(to);
    const std::string fromDirectory = DirectoryOf(from);
    const bool toSynced = SyncDirectory(toDirectory);
    return (fromDirectory == toDirectory || SyncDirectory(fromDirectory)) && toSynced;
}

}  // namespace

// Made in static storage on first use and never destroyed, so that it
// outlives every static object that might still close a file while the
// process ends, and costs no allocation that could fail.
TFileSystem* PlatformFileSystem() {
    alignas(TPosixFileSystem) static unsigned char storage[sizeof(TPosixFileSystem)];
    static TFileSystem* const platform = new (storage) TPosixFileSystem;
    return platform;
}

}  // namespace engine
