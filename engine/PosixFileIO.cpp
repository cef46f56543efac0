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
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
// A database is an ordinary user file: the process's umask decides who else
// may read or write it, as it does for any file the user's programs make.
constexpr mode_t kNewFileMode = 0666;

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

std::string BaseNameOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

int OpenRetrying(const char* path, int flags, mode_t mode) {
    int fd;
    do {
        fd = ::open(path, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Takes the lock every file of the engine holds: shared or exclusive, never
// waiting. False (errno set) when another open holds it.
bool LockFile(int fd, bool shared) {
    int locked;
    do {
        locked = ::flock(fd, (shared ? LOCK_SH : LOCK_EX) | LOCK_NB);
    } while (locked != 0 && errno == EINTR);
    return locked == 0;
}

class TPosixFile : public TFile {
public:
    TPosixFile(int fd, bool readOnly) : fFd(fd), fReadOnly(readOnly) {}
    ~TPosixFile() override {
        ::close(fFd);
        if (!fTemporary.empty()) ::unlink(fTemporary.c_str());
    }

    // A file made by CreateUnnamed: nameless (O_TMPFILE), or under a
    // temporary name until published.
    bool fNameless = false;
    std::string fTemporary;
    int Descriptor() const { return fFd; }
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
    std::unique_ptr<TFile> CreateUnnamed(const std::string& path, FileError* error) override;
    FileError Publish(TFile* file, const std::string& path) override;
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
    const int fd = OpenRetrying(path.c_str(), flags, kNewFileMode);
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

    if (!LockFile(fd, mode == OpenMode::kReadOnly)) {
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
        *error = FileError::kNoMemory;
    }
    return std::unique_ptr<TFile>(file);
}

// Where the kernel and the file system offer it, the new file is nameless
// (O_TMPFILE): a create cut short leaves nothing at all, and Publish links it
// under its name through /proc/self/fd. Elsewhere it is a hidden temporary
// beside the name, ".NAME.<hex>.kdb-new", removed when the file is closed
// unpublished; only a process killed between the two leaves it behind.
std::unique_ptr<TFile> TPosixFileSystem::CreateUnnamed(const std::string& path, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }
    const std::string directory = DirectoryOf(path);
    std::string temporary;
    int fd = -1;
#if defined(O_TMPFILE)
    fd = OpenRetrying(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kNewFileMode);
    if (fd >= 0 && ::access(("/proc/self/fd/" + std::to_string(fd)).c_str(), F_OK) != 0) {
        ::close(fd);  // it could not be given a name
        fd = -1;
    }
#endif
    if (fd < 0) {
        static std::atomic<std::uint32_t> counter{0};
        for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
            const auto now = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
            char suffix[40];
            std::snprintf(suffix, sizeof suffix, ".%08x%08x.kdb-new", static_cast<unsigned>(::getpid()),
                          static_cast<unsigned>(now ^ (now >> 32) ^ (counter++ * 0x9E3779B9u)));
            temporary = directory + "/." + BaseNameOf(path) + suffix;
            fd = OpenRetrying(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
            if (fd < 0 && errno != EEXIST) break;
        }
        if (fd < 0) {
            *error = ErrorFromErrno(errno);
            return nullptr;
        }
    }
    if (!LockFile(fd, false)) {
        *error = FileError::kIO;
        ::close(fd);
        if (!temporary.empty()) ::unlink(temporary.c_str());
        return nullptr;
    }
    TPosixFile* file = nullptr;
    try {
        file = new TPosixFile(fd, false);
        file->fTemporary = temporary;
    } catch (const std::bad_alloc&) {
        delete file;
        ::close(fd);
        if (!temporary.empty()) ::unlink(temporary.c_str());
        *error = FileError::kNoMemory;
        return nullptr;
    }
    file->fNameless = temporary.empty();
    return std::unique_ptr<TFile>(file);
}

// Gives the name with link(), which never replaces: EEXIST is the answer when
// the name is taken. A file system without hard links gets renameat2 with
// RENAME_NOREPLACE, which is as safe, where the kernel has it.
FileError TPosixFileSystem::Publish(TFile* file, const std::string& path) {
    auto* posix = static_cast<TPosixFile*>(file);
    if (posix == nullptr || !IsUsablePath(path) || (!posix->fNameless && posix->fTemporary.empty()))
        return FileError::kIO;
    int linked;
    if (posix->fNameless) {
        const std::string self = "/proc/self/fd/" + std::to_string(posix->Descriptor());
        linked = ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW);
    } else {
        linked = ::link(posix->fTemporary.c_str(), path.c_str());
#if defined(SYS_renameat2) && defined(RENAME_NOREPLACE)
        if (linked != 0 && (errno == EPERM || errno == ENOTSUP || errno == EOPNOTSUPP || errno == EXDEV)) {
            linked = static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, posix->fTemporary.c_str(), AT_FDCWD,
                                                path.c_str(), RENAME_NOREPLACE));
            if (linked == 0) posix->fTemporary.clear();
        }
#endif
    }
    if (linked != 0) return errno == EEXIST ? FileError::kExists : ErrorFromErrno(errno);
    if (!posix->fTemporary.empty()) ::unlink(posix->fTemporary.c_str());
    posix->fTemporary.clear();
    posix->fNameless = false;
    return SyncDirectory(DirectoryOf(path)) ? FileError::kNone : FileError::kIO;
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
