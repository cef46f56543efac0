// Every operating-system call of the engine's file I/O, behind one small
// interface: a POSIX implementation, a Win32 one, and a fault-injecting one
// for tests (engine/FaultFileIO.h).
//
// Nothing here throws. Offsets are 64-bit everywhere, so files may grow
// beyond 4 GiB on every platform.
#ifndef KAVO_ENGINE_FILEIO_H
#define KAVO_ENGINE_FILEIO_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace engine {

enum class FileError {
    kNone,
    kNotFound,  // opening a file that does not exist
    kExists,    // creating a file that exists
    kLocked,    // another open holds the file in a conflicting way
    kDenied,    // the system refuses access
    kNoMemory,  // no memory for the file's own bookkeeping
    kIO,        // anything else
};

enum class OpenMode {
    kReadOnly,   // existing file, shared: other read-only opens may join
    kReadWrite,  // existing file, exclusive
    kCreateNew,  // new file (fails if it exists), exclusive, read and write
};

// An open file. The lock taken at open is held until the object is destroyed.
class TFile {
public:
    virtual ~TFile() = default;

    // Reads up to length bytes at offset; *bytesRead is less than length only
    // at the end of the file. False on an I/O error.
    virtual bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::size_t* bytesRead) = 0;
    // Writes all bytes at offset, growing the file if need be. Once it has
    // returned true the bytes survive the end of the process (they are in the
    // system's hands), though not yet a loss of power.
    virtual bool WriteAt(std::uint64_t offset, const void* data, std::size_t length) = 0;
    // Makes every write so far durable against a loss of power.
    virtual bool Sync() = 0;
    virtual bool Size(std::uint64_t* size) = 0;
    virtual bool Truncate(std::uint64_t size) = 0;
};

class TFileSystem {
public:
    virtual ~TFileSystem() = default;

    // Opens and locks: shared for kReadOnly, exclusive otherwise. Null on
    // failure, with the reason in *error (which may be null).
    virtual std::unique_ptr<TFile> Open(const std::string& path, OpenMode mode, FileError* error) = 0;
    // A new, empty file in the directory `path` names (which must exist),
    // open for reading and writing and locked exclusively, that no name
    // reaches yet: nothing written to it is visible under any name until
    // Publish, and if the process ends first the file leaves nothing behind
    // (where the system offers no nameless files, a hidden temporary beside
    // `path` stands in; the implementations say what it is called and when it
    // can be left). Null on failure, the reason in *error (which may be null).
    virtual std::unique_ptr<TFile> CreateUnnamed(const std::string& path, FileError* error) = 0;
    // Gives `file` (made by CreateUnnamed of this file system, written and
    // synced by the caller) the name `path`, in the directory it was made
    // for, in one step, unless something has that name already: then
    // kExists, and nothing changes (a name is never replaced). On kNone the
    // name survives a loss of power (the directory is synced) and the file
    // stays open and locked. Any other failure is kIO or kDenied, and the
    // file stays nameless. A file once published is not published again.
    virtual FileError Publish(TFile* file, const std::string& path) = 0;
    virtual bool Exists(const std::string& path) = 0;
    // False when the file could not be removed (a missing file included).
    // The removal is not made durable against a loss of power: the engine
    // removes only files whose return would be harmless (a log that
    // continues no state of its host file is ignored), and syncing the
    // directory after removing a log of megabytes cost the close 20 ms.
    virtual bool Remove(const std::string& path) = 0;
    // Replaces `to` if it exists.
    virtual bool Rename(const std::string& from, const std::string& to) = 0;
};

// The platform's file system (POSIX or Win32), one per process.
TFileSystem* PlatformFileSystem();

#if !defined(_WIN32)
// The POSIX file system as it runs where the kernel or the file system
// offers no nameless files and, unless `hardLinks`, no hard links either:
// CreateUnnamed always makes a hidden temporary. Tests hold these ways to the
// contract the platform's file system keeps. One of each per process.
TFileSystem* PosixFileSystemWithoutNamelessFiles(bool hardLinks);
#endif

// The file system the engine uses: the platform's unless a test installed
// another. Installing null restores the platform's.
TFileSystem* CurrentFileSystem();
void InstallFileSystem(TFileSystem* fileSystem);

}  // namespace engine

#endif  // KAVO_ENGINE_FILEIO_H
