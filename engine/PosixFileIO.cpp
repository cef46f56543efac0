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
#include <string>
#include <utility>

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

// How a file made by CreateUnnamed comes to its name at Publish.
enum class TNaming {
    kNone,             // opened by name, or published: nothing to name
    kLinkNameless,     // an O_TMPFILE file, linked under the name through /proc/self/fd
    kLinkTemporary,    // a hidden temporary, linked under the name, then removed
    kRenameTemporary,  // a hidden temporary, renamed without replacing
};

std::string ProcPathOf(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

// A nameless file in `directory`, or -1 where the kernel (EISDIR, EINVAL,
// ENOENT before O_TMPFILE), the file system (EOPNOTSUPP) or a missing /proc
// leaves no way to give it a name. /proc/self/fd must lead to the file
// itself, not merely exist, for Publish to link through it.
int OpenNameless(const std::string& directory) {
#if defined(O_TMPFILE)
    const int fd = OpenRetrying(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, kNewFileMode);
    if (fd < 0) return -1;
    struct stat opened;
    struct stat reached;
    if (::fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode) &&
        ::stat(ProcPathOf(fd).c_str(), &reached) == 0 && opened.st_dev == reached.st_dev &&
        opened.st_ino == reached.st_ino)
        return fd;
    ::close(fd);
#else
    (void)directory;
#endif
    return -1;
}

#if defined(__linux__) && defined(SYS_renameat2)
#if defined(RENAME_NOREPLACE)
constexpr unsigned kRenameNoReplace = RENAME_NOREPLACE;
#else
constexpr unsigned kRenameNoReplace = 1;  // the kernel's value, which older C libraries do not name
#endif
#endif

// rename that fails with EEXIST rather than replace `to`; ENOSYS where the
// kernel lacks it, EINVAL where the file system does.
int RenameNoReplace(const char* from, const char* to) {
#if defined(__linux__) && defined(SYS_renameat2)
    return static_cast<int>(::syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, kRenameNoReplace));
#else
    (void)from;
    (void)to;
    errno = ENOSYS;
    return -1;
#endif
}

// ".NAME.<16 hex digits>.kdb-new" beside `path`: hidden from a plain
// listing, and plainly the new database NAME to anyone who finds it.
std::string TemporaryNameFor(const std::string& path) {
    static std::atomic<std::uint64_t> counter{0};
    std::uint64_t mixed =
        static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
        (static_cast<std::uint64_t>(::getpid()) << 40) ^ (++counter * 0x9E3779B97F4A7C15ull);
    // One round of splitmix64, so that names made close together differ in every digit.
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9ull;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBull;
    mixed ^= mixed >> 31;
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%016llx.kdb-new", static_cast<unsigned long long>(mixed));
    return DirectoryOf(path) + "/." + BaseNameOf(path) + suffix;
}

// Calls `attempt` with fresh temporary names for `path` until it succeeds,
// leaving the name it took in *name; false (errno set) once it fails other
// than for a name taken, or keeps meeting taken names.
template <typename TAttempt>
bool TakeTemporaryName(const std::string& path, std::string* name, TAttempt attempt) {
    for (int tries = 0; tries < 16; ++tries) {
        *name = TemporaryNameFor(path);
        if (attempt(name->c_str())) return true;
        if (errno != EEXIST) return false;
    }
    return false;
}

// What a failed Publish answers besides kExists.
FileError NamingFailure(int error) {
    return error == EACCES || error == EPERM || error == EROFS ? FileError::kDenied : FileError::kIO;
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
    TPosixFile(int fd, bool readOnly, TNaming naming = TNaming::kNone, std::string temporary = std::string())
        : fFd(fd), fReadOnly(readOnly), fNaming(naming), fTemporary(std::move(temporary)) {}
    // An unpublished temporary goes first, while the lock still keeps
    // everyone else from it.
    ~TPosixFile() override {
        if (!fTemporary.empty()) ::unlink(fTemporary.c_str());
        ::close(fFd);
    }
    TPosixFile(const TPosixFile&) = delete;
    TPosixFile& operator=(const TPosixFile&) = delete;

    int Descriptor() const { return fFd; }
    TNaming Naming() const { return fNaming; }
    const std::string& Temporary() const { return fTemporary; }
    // The file has its name, or has lost every name for good: the temporary
    // name, if any, is gone already and nothing is left to publish.
    void EndNaming() {
        fNaming = TNaming::kNone;
        fTemporary.clear();
    }

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
    TNaming fNaming;
    std::string fTemporary;  // the temporary's name, while it has one
};

class TPosixFileSystem : public TFileSystem {
public:
    TPosixFileSystem(bool namelessFiles, bool hardLinks)
        : fNamelessFiles(namelessFiles), fHardLinks(hardLinks) {}

    std::unique_ptr<TFile> Open(const std::string& path, OpenMode mode, FileError* error) override;
    std::unique_ptr<TFile> CreateUnnamed(const std::string& path, FileError* error) override;
    FileError Publish(TFile* file, const std::string& path) override;
    bool Exists(const std::string& path) override;
    bool Remove(const std::string& path) override;
    bool Rename(const std::string& from, const std::string& to) override;

private:
    int MakeTemporary(const std::string& path, std::string* temporary, TNaming* naming,
                      FileError* error) const;

    bool fNamelessFiles;  // O_TMPFILE is tried first
    bool fHardLinks;      // a temporary may be published by link()
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
// beside the name, ".NAME.<16 hex digits>.kdb-new", removed when the file is
// let go unpublished; only a process killed before that (or a loss of power)
// leaves it behind, for a person to recognise and remove.
std::unique_ptr<TFile> TPosixFileSystem::CreateUnnamed(const std::string& path, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }
    std::string temporary;
    TNaming naming = TNaming::kLinkNameless;
    int fd = fNamelessFiles ? OpenNameless(DirectoryOf(path)) : -1;
    if (fd < 0) fd = MakeTemporary(path, &temporary, &naming, error);
    if (fd < 0) return nullptr;

    // Nothing else can reach the file yet; the lock is for the opens that
    // will once it has its name.
    if (!LockFile(fd, false)) {
        *error = FileError::kIO;
        if (!temporary.empty()) ::unlink(temporary.c_str());
        ::close(fd);
        return nullptr;
    }
    // The temporary's name moves into the file only once it is allocated.
    TFile* file = new (std::nothrow) TPosixFile(fd, false, naming, std::move(temporary));
    if (file == nullptr) {
        if (!temporary.empty()) ::unlink(temporary.c_str());
        ::close(fd);
        *error = FileError::kNoMemory;
    }
    return std::unique_ptr<TFile>(file);
}

// Makes the temporary, and tries on it the way Publish will name it, so
// that Publish never meets a way the file system lacks: a hard link (made
// under a second temporary name and removed at once) where there are hard
// links, else a rename without replacing onto a second temporary name, which
// the file then keeps. Where neither works no name could be given without
// risking replacing one, and no file is made. The descriptor, or -1 with the
// reason in *error.
int TPosixFileSystem::MakeTemporary(const std::string& path, std::string* temporary, TNaming* naming,
                                    FileError* error) const {
    int fd = -1;
    const bool made = TakeTemporaryName(path, temporary, [&fd](const char* name) {
        fd = OpenRetrying(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kNewFileMode);
        return fd >= 0;
    });
    if (!made) {
        *error = ErrorFromErrno(errno);
        return -1;
    }
    std::string trial;
    if (fHardLinks && TakeTemporaryName(path, &trial, [temporary](const char* name) {
            return ::link(temporary->c_str(), name) == 0;
        })) {
        ::unlink(trial.c_str());
        *naming = TNaming::kLinkTemporary;
        return fd;
    }
    if (TakeTemporaryName(path, &trial, [temporary](const char* name) {
            return RenameNoReplace(temporary->c_str(), name) == 0;
        })) {
        *temporary = std::move(trial);
        *naming = TNaming::kRenameTemporary;
        return fd;
    }
    *error = NamingFailure(errno);
    ::unlink(temporary->c_str());
    ::close(fd);
    return -1;
}

// link() and linkat() never replace: EEXIST is their answer when the name is
// taken, as it is renameat2's with RENAME_NOREPLACE. A linked temporary loses
// its own name before the directory is synced, so that one sync makes both
// changes durable. A directory that cannot be synced takes the new name away
// again, so that the file stays nameless as a failed Publish promises (for
// good: the way back to a name is gone).
FileError TPosixFileSystem::Publish(TFile* file, const std::string& path) {
    auto* posix = static_cast<TPosixFile*>(file);
    if (posix == nullptr || !IsUsablePath(path)) return FileError::kIO;
    int named = -1;
    switch (posix->Naming()) {
        case TNaming::kNone:
            return FileError::kIO;
        case TNaming::kLinkNameless:
            named = ::linkat(AT_FDCWD, ProcPathOf(posix->Descriptor()).c_str(), AT_FDCWD, path.c_str(),
                             AT_SYMLINK_FOLLOW);
            break;
        case TNaming::kLinkTemporary:
            named = ::link(posix->Temporary().c_str(), path.c_str());
            if (named == 0) ::unlink(posix->Temporary().c_str());
            break;
        case TNaming::kRenameTemporary:
            named = RenameNoReplace(posix->Temporary().c_str(), path.c_str());
            break;
    }
    if (named != 0) return errno == EEXIST ? FileError::kExists : NamingFailure(errno);
    posix->EndNaming();
    if (!SyncDirectory(DirectoryOf(path))) {
        ::unlink(path.c_str());
        return FileError::kIO;
    }
    return FileError::kNone;
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
    static TFileSystem* const platform = new (storage) TPosixFileSystem(true, true);
    return platform;
}

TFileSystem* PosixFileSystemWithoutNamelessFiles(bool hardLinks) {
    alignas(TPosixFileSystem) static unsigned char linking[sizeof(TPosixFileSystem)];
    alignas(TPosixFileSystem) static unsigned char renaming[sizeof(TPosixFileSystem)];
    static TFileSystem* const withLinks = new (linking) TPosixFileSystem(false, true);
    static TFileSystem* const withoutLinks = new (renaming) TPosixFileSystem(false, false);
    return hardLinks ? withLinks : withoutLinks;
}

}  // namespace engine
