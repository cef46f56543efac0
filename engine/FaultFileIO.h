// File systems for tests and benchmarks: an in-memory one that injects
// faults and simulates a loss of power, and one that counts the traffic of
// another. Neither is ever installed unless a test or a benchmark installs it
// (InstallFileSystem).
//
// One thread at a time, like the engine.
#ifndef KAVO_ENGINE_FAULTFILEIO_H
#define KAVO_ENGINE_FAULTFILEIO_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "engine/FileIO.h"

namespace engine {

// Calls that succeeded, and the bytes they moved.
struct TFileCounters {
    std::uint64_t fReads = 0;
    std::uint64_t fBytesRead = 0;
    std::uint64_t fWrites = 0;
    std::uint64_t fBytesWritten = 0;
    std::uint64_t fSyncs = 0;  // syncs of files open for writing
};

struct TFaultState;

// Files held in memory, with the open and lock rules of the real file
// systems: shared opens for kReadOnly, exclusive otherwise, kNotFound,
// kExists and kLocked as there. A lock goes when its TFile is destroyed.
//
// Each file has its current bytes (what reads and new opens see) and its
// durable bytes (what survives a loss of power), and keeps the writes and
// truncations made since its last Sync, in order. Sync makes the current
// bytes durable. Names are durable at once: a created, published, removed or
// renamed file stays so through a loss of power, as the real file systems
// make sure by syncing the directory. A file made by CreateUnnamed has no
// name until Publish gives it one; a crash or a loss of power before that
// leaves nothing of it.
//
// Remove and Rename refuse a file that is open (either name, for Rename), as
// Windows does, so that the engine cannot come to rely on POSIX's leniency.
//
// A file grows to at most kMaxFaultFileSize bytes; writes beyond fail.
// TFile objects may outlive the file system; they then keep its state alive.
class TFaultFileSystem : public TFileSystem {
public:
    static constexpr std::uint64_t kMaxFaultFileSize = std::uint64_t{1} << 30;
    static constexpr std::size_t kSectorSize = 512;

    TFaultFileSystem();
    ~TFaultFileSystem() override;
    TFaultFileSystem(const TFaultFileSystem&) = delete;
    TFaultFileSystem& operator=(const TFaultFileSystem&) = delete;

    std::unique_ptr<TFile> Open(const std::string& path, OpenMode mode, FileError* error) override;
    std::unique_ptr<TFile> CreateUnnamed(const std::string& path, FileError* error) override;
    FileError Publish(TFile* file, const std::string& path) override;
    bool Exists(const std::string& path) override;
    bool Remove(const std::string& path) override;
    bool Rename(const std::string& from, const std::string& to) override;

    // Faults. A failed write writes nothing at all and a failed sync makes
    // nothing durable: they test the engine's answer to a refusal; torn
    // pages are PowerCut's business. Counting is over every file.
    //
    // n writes succeed, then the next one fails, once; negative n disarms.
    void FailWriteAfter(int n);
    // n syncs (of files open for writing) succeed, then the next one fails, once.
    void FailSyncAfter(int n);
    // Every write fails while set (a full disk). Truncations still succeed.
    void SetFailWrites(bool fail);

    // A loss of power. Each file's new content is its durable content with
    // each change since its last Sync, in order, decided at random by the
    // seed: a write is applied fully, dropped, or torn (a prefix of whole
    // 512-byte sectors, counted from the file's start, applied: a 4096-byte
    // page can come back half written); a truncation is kept or dropped. A
    // write beyond the end fills any gap with zeros. Every TFile opened before
    // the cut is dead (every call fails) and holds no lock any more, as after
    // the end of the process; the file system goes on, so files can be
    // opened again.
    void PowerCut(std::uint32_t seed);
    // The end of the process with the power on: nothing is lost (the changes
    // since the last Sync stay pending, for a PowerCut to come), every TFile
    // opened before is dead and its lock gone.
    void Crash();

    // Inspection. False when there is no such file.
    bool ReadWholeFile(const std::string& path, std::string* bytes) const;
    bool ReadDurableFile(const std::string& path, std::string* bytes) const;
    // Plants content (damage, say), current and durable at once, making the
    // file if need be. Locks are not consulted.
    void WriteWholeFile(const std::string& path, const std::string& bytes);
    std::vector<std::string> FileNames() const;  // in byte order
    TFileCounters Counters() const;
    void ResetCounters();

private:
    std::shared_ptr<TFaultState> fState;
};

// Passes every call to another file system (not owned; it must outlive this
// one and every file opened through it) and counts those that succeed.
class TCountingFileSystem : public TFileSystem {
public:
    explicit TCountingFileSystem(TFileSystem* base);
    TCountingFileSystem(const TCountingFileSystem&) = delete;
    TCountingFileSystem& operator=(const TCountingFileSystem&) = delete;

    std::unique_ptr<TFile> Open(const std::string& path, OpenMode mode, FileError* error) override;
    std::unique_ptr<TFile> CreateUnnamed(const std::string& path, FileError* error) override;
    FileError Publish(TFile* file, const std::string& path) override;
    bool Exists(const std::string& path) override;
    bool Remove(const std::string& path) override;
    bool Rename(const std::string& from, const std::string& to) override;

    TFileCounters Counters() const;
    void ResetCounters();

private:
    TFileSystem* fBase;
    std::shared_ptr<TFileCounters> fCounters;  // shared with the files opened
};

}  // namespace engine

#endif  // KAVO_ENGINE_FAULTFILEIO_H
