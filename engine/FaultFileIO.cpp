#include "engine/FaultFileIO.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <new>
#include <random>

namespace engine {

namespace {

// One write or truncation since the file's last Sync.
struct TPendingChange {
    bool fTruncation;
    std::uint64_t fOffset;  // the new size, for a truncation
    std::string fBytes;
};

struct TFaultNode {
    std::string fCurrent;
    std::string fDurable;
    std::vector<TPendingChange> fPending;
    int fReaders = 0;
    bool fWriter = false;
    bool fNameless = false;  // made by CreateUnnamed and not yet published

    bool IsOpen() const { return fReaders > 0 || fWriter; }
    void ReleaseLocks() {
        fReaders = 0;
        fWriter = false;
    }
};

bool IsUsablePath(const std::string& path) {
    return !path.empty() && path.find('\0') == std::string::npos;
}

// Writes bytes at offset into content, filling any gap with zeros.
void Overlay(std::string& content, std::uint64_t offset, const char* bytes, std::size_t length) {
    if (length == 0) return;
    const std::size_t at = static_cast<std::size_t>(offset);
    if (content.size() < at + length) content.resize(at + length, '\0');
    std::memcpy(&content[at], bytes, length);
}

// Replays one change on content as the power cut decided it.
void ReplayAtRandom(std::string& content, const TPendingChange& change, std::mt19937& random) {
    if (change.fTruncation) {
        if (random() % 2 == 0) content.resize(static_cast<std::size_t>(change.fOffset));
        return;
    }
    const std::uint64_t sector = TFaultFileSystem::kSectorSize;
    const std::uint64_t first = change.fOffset / sector;
    const std::uint64_t last = (change.fOffset + change.fBytes.size() - 1) / sector;
    const std::uint64_t sectors = last - first + 1;
    enum { kApplied, kDropped, kTorn };
    const unsigned fate = sectors >= 2 ? random() % 3 : random() % 2;
    if (fate == kDropped) return;
    std::size_t length = change.fBytes.size();
    if (fate == kTorn) {
        const std::uint64_t kept = 1 + random() % (sectors - 1);
        length = static_cast<std::size_t>((first + kept) * sector - change.fOffset);
    }
    Overlay(content, change.fOffset, change.fBytes.data(), length);
}

}  // namespace

struct TFaultState {
    std::map<std::string, std::shared_ptr<TFaultNode>> fFiles;
    // Files opened in an earlier generation are dead.
    std::uint64_t fGeneration = 0;
    int fWritesBeforeFailure = -1;
    int fSyncsBeforeFailure = -1;
    bool fFailWrites = false;
    TFileCounters fCounters;

    std::shared_ptr<TFaultNode> Find(const std::string& path) const {
        const auto found = fFiles.find(path);
        return found == fFiles.end() ? nullptr : found->second;
    }

    static bool Consume(int& countdown) {
        if (countdown == 0) {
            countdown = -1;
            return false;
        }
        if (countdown > 0) --countdown;
        return true;
    }
    bool ConsumeWrite() { return !fFailWrites && Consume(fWritesBeforeFailure); }
    bool ConsumeSync() { return Consume(fSyncsBeforeFailure); }

    void KillOpenFiles() {
        ++fGeneration;
        for (auto& entry : fFiles) entry.second->ReleaseLocks();
    }
};

namespace {

class TFaultFile : public TFile {
public:
    TFaultFile(std::shared_ptr<TFaultState> state, std::shared_ptr<TFaultNode> node, bool readOnly)
        : fState(std::move(state)),
          fNode(std::move(node)),
          fGeneration(fState->fGeneration),
          fReadOnly(readOnly) {}

    ~TFaultFile() override {
        if (!IsAlive()) return;  // its lock went with its generation
        if (fReadOnly)
            --fNode->fReaders;
        else
            fNode->fWriter = false;
    }
    TFaultFile(const TFaultFile&) = delete;
    TFaultFile& operator=(const TFaultFile&) = delete;

    bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::size_t* bytesRead) override {
        if (bytesRead != nullptr) *bytesRead = 0;
        if (!IsAlive() || (buffer == nullptr && length != 0)) return false;
        const std::string& content = fNode->fCurrent;
        std::size_t n = 0;
        if (offset < content.size()) n = std::min(length, content.size() - static_cast<std::size_t>(offset));
        if (n != 0) std::memcpy(buffer, content.data() + offset, n);
        if (bytesRead != nullptr) *bytesRead = n;
        ++fState->fCounters.fReads;
        fState->fCounters.fBytesRead += n;
        return true;
    }

    bool WriteAt(std::uint64_t offset, const void* data, std::size_t length) override {
        if (!IsAlive() || fReadOnly || (data == nullptr && length != 0)) return false;
        if (offset > TFaultFileSystem::kMaxFaultFileSize ||
            length > TFaultFileSystem::kMaxFaultFileSize - offset)
            return false;
        if (!fState->ConsumeWrite()) return false;
        if (length != 0) {
            try {
                const char* bytes = static_cast<const char*>(data);
                fNode->fPending.push_back(TPendingChange{false, offset, std::string(bytes, length)});
                Overlay(fNode->fCurrent, offset, bytes, length);
            } catch (const std::bad_alloc&) {
                return false;
            }
        }
        ++fState->fCounters.fWrites;
        fState->fCounters.fBytesWritten += length;
        return true;
    }

    bool Sync() override {
        if (!IsAlive()) return false;
        if (fReadOnly) return true;  // nothing of its own to sync, as on the real file systems
        if (!fState->ConsumeSync()) return false;
        try {
            fNode->fDurable = fNode->fCurrent;
        } catch (const std::bad_alloc&) {
            return false;  // as a system that could not write its pages would answer
        }
        fNode->fPending.clear();
        ++fState->fCounters.fSyncs;
        return true;
    }

    bool Size(std::uint64_t* size) override {
        if (!IsAlive() || size == nullptr) return false;
        *size = fNode->fCurrent.size();
        return true;
    }

    bool Truncate(std::uint64_t size) override {
        if (!IsAlive() || fReadOnly || size > TFaultFileSystem::kMaxFaultFileSize) return false;
        try {
            fNode->fPending.push_back(TPendingChange{true, size, std::string()});
            fNode->fCurrent.resize(static_cast<std::size_t>(size), '\0');
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }

    const std::shared_ptr<TFaultNode>& Node() const { return fNode; }
    bool IsAlive() const { return fGeneration == fState->fGeneration; }

private:
    std::shared_ptr<TFaultState> fState;
    std::shared_ptr<TFaultNode> fNode;
    std::uint64_t fGeneration;
    bool fReadOnly;
};

}  // namespace

TFaultFileSystem::TFaultFileSystem() : fState(std::make_shared<TFaultState>()) {}

TFaultFileSystem::~TFaultFileSystem() = default;

std::unique_ptr<TFile> TFaultFileSystem::Open(const std::string& path, OpenMode mode, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }

    std::shared_ptr<TFaultNode> node = fState->Find(path);
    if (mode == OpenMode::kCreateNew && node != nullptr) {
        *error = FileError::kExists;
        return nullptr;
    }
    if (mode != OpenMode::kCreateNew && node == nullptr) {
        *error = FileError::kNotFound;
        return nullptr;
    }
    const bool readOnly = mode == OpenMode::kReadOnly;
    if (node != nullptr && (node->fWriter || (!readOnly && node->fReaders > 0))) {
        *error = FileError::kLocked;
        return nullptr;
    }

    std::unique_ptr<TFile> file;
    try {
        if (node == nullptr) {
            node = std::make_shared<TFaultNode>();
            fState->fFiles[path] = node;
        }
        file.reset(new TFaultFile(fState, node, readOnly));
    } catch (const std::bad_alloc&) {
        *error = FileError::kNoMemory;
        return nullptr;
    }
    if (readOnly)
        ++node->fReaders;
    else
        node->fWriter = true;
    return file;
}

// A nameless file is in no directory: nothing finds it, and a crash or a
// loss of power, which kills its TFile, leaves nothing of it.
std::unique_ptr<TFile> TFaultFileSystem::CreateUnnamed(const std::string& path, FileError* error) {
    FileError ignored;
    if (error == nullptr) error = &ignored;
    *error = FileError::kNone;
    if (!IsUsablePath(path)) {
        *error = FileError::kNotFound;
        return nullptr;
    }
    try {
        auto node = std::make_shared<TFaultNode>();
        node->fNameless = true;
        node->fWriter = true;
        return std::unique_ptr<TFile>(new TFaultFile(fState, node, false));
    } catch (const std::bad_alloc&) {
        *error = FileError::kNoMemory;
        return nullptr;
    }
}

FileError TFaultFileSystem::Publish(TFile* file, const std::string& path) {
    auto* fault = static_cast<TFaultFile*>(file);
    if (fault == nullptr || !fault->IsAlive() || !fault->Node()->fNameless || !IsUsablePath(path))
        return FileError::kIO;
    if (fState->Find(path) != nullptr) return FileError::kExists;
    try {
        fState->fFiles[path] = fault->Node();
    } catch (const std::bad_alloc&) {
        return FileError::kIO;
    }
    fault->Node()->fNameless = false;
    return FileError::kNone;
}

bool TFaultFileSystem::Exists(const std::string& path) {
    return fState->Find(path) != nullptr;
}

bool TFaultFileSystem::Remove(const std::string& path) {
    const std::shared_ptr<TFaultNode> node = fState->Find(path);
    if (node == nullptr || node->IsOpen()) return false;
    fState->fFiles.erase(path);
    return true;
}

bool TFaultFileSystem::Rename(const std::string& from, const std::string& to) {
    const std::shared_ptr<TFaultNode> node = fState->Find(from);
    if (node == nullptr || node->IsOpen() || !IsUsablePath(to)) return false;
    if (from == to) return true;
    const std::shared_ptr<TFaultNode> replaced = fState->Find(to);
    if (replaced != nullptr && replaced->IsOpen()) return false;
    fState->fFiles[to] = node;
    fState->fFiles.erase(from);
    return true;
}

void TFaultFileSystem::FailWriteAfter(int n) {
    fState->fWritesBeforeFailure = n < 0 ? -1 : n;
}

void TFaultFileSystem::FailSyncAfter(int n) {
    fState->fSyncsBeforeFailure = n < 0 ? -1 : n;
}

void TFaultFileSystem::SetFailWrites(bool fail) {
    fState->fFailWrites = fail;
}

void TFaultFileSystem::PowerCut(std::uint32_t seed) {
    std::mt19937 random(seed);
    for (auto& entry : fState->fFiles) {  // in name order, so that a seed always cuts alike
        TFaultNode& node = *entry.second;
        std::string content = node.fDurable;
        for (const TPendingChange& change : node.fPending) ReplayAtRandom(content, change, random);
        node.fDurable = content;
        node.fCurrent = std::move(content);
        node.fPending.clear();
    }
    fState->KillOpenFiles();
}

void TFaultFileSystem::Crash() {
    fState->KillOpenFiles();
}

bool TFaultFileSystem::ReadWholeFile(const std::string& path, std::string* bytes) const {
    const std::shared_ptr<TFaultNode> node = fState->Find(path);
    if (node == nullptr || bytes == nullptr) return false;
    *bytes = node->fCurrent;
    return true;
}

bool TFaultFileSystem::ReadDurableFile(const std::string& path, std::string* bytes) const {
    const std::shared_ptr<TFaultNode> node = fState->Find(path);
    if (node == nullptr || bytes == nullptr) return false;
    *bytes = node->fDurable;
    return true;
}

void TFaultFileSystem::WriteWholeFile(const std::string& path, const std::string& bytes) {
    if (!IsUsablePath(path)) return;
    std::shared_ptr<TFaultNode>& node = fState->fFiles[path];
    if (node == nullptr) node = std::make_shared<TFaultNode>();
    node->fCurrent = bytes;
    node->fDurable = bytes;
    node->fPending.clear();
}

std::vector<std::string> TFaultFileSystem::FileNames() const {
    std::vector<std::string> names;
    for (const auto& entry : fState->fFiles) names.push_back(entry.first);
    return names;
}

TFileCounters TFaultFileSystem::Counters() const {
    return fState->fCounters;
}

void TFaultFileSystem::ResetCounters() {
    fState->fCounters = TFileCounters();
}

// ---------------------------------------------------------------------------

namespace {

class TCountingFile : public TFile {
public:
    TCountingFile(std::unique_ptr<TFile> base, std::shared_ptr<TFileCounters> counters, bool readOnly)
        : fBase(std::move(base)), fCounters(std::move(counters)), fReadOnly(readOnly) {}

    bool ReadAt(std::uint64_t offset, void* buffer, std::size_t length, std::size_t* bytesRead) override {
        std::size_t n = 0;
        const bool ok = fBase->ReadAt(offset, buffer, length, &n);
        if (bytesRead != nullptr) *bytesRead = n;
        if (ok) {
            ++fCounters->fReads;
            fCounters->fBytesRead += n;
        }
        return ok;
    }

    bool WriteAt(std::uint64_t offset, const void* data, std::size_t length) override {
        const bool ok = fBase->WriteAt(offset, data, length);
        if (ok) {
            ++fCounters->fWrites;
            fCounters->fBytesWritten += length;
        }
        return ok;
    }

    bool Sync() override {
        const bool ok = fBase->Sync();
        if (ok && !fReadOnly) ++fCounters->fSyncs;  // counted as the fault layer counts them
        return ok;
    }

    bool Size(std::uint64_t* size) override { return fBase->Size(size); }
    bool Truncate(std::uint64_t size) override { return fBase->Truncate(size); }
    TFile* Base() const { return fBase.get(); }

private:
    std::unique_ptr<TFile> fBase;
    std::shared_ptr<TFileCounters> fCounters;
    bool fReadOnly;
};

}  // namespace

TCountingFileSystem::TCountingFileSystem(TFileSystem* base)
    : fBase(base), fCounters(std::make_shared<TFileCounters>()) {}

std::unique_ptr<TFile> TCountingFileSystem::Open(const std::string& path, OpenMode mode, FileError* error) {
    if (fBase == nullptr) {
        if (error != nullptr) *error = FileError::kIO;
        return nullptr;
    }
    std::unique_ptr<TFile> base = fBase->Open(path, mode, error);
    if (base == nullptr) return nullptr;
    TFile* counting = new (std::nothrow) TCountingFile(std::move(base), fCounters, mode == OpenMode::kReadOnly);
    if (counting == nullptr && error != nullptr) *error = FileError::kNoMemory;
    return std::unique_ptr<TFile>(counting);
}

std::unique_ptr<TFile> TCountingFileSystem::CreateUnnamed(const std::string& path, FileError* error) {
    if (fBase == nullptr) {
        if (error != nullptr) *error = FileError::kIO;
        return nullptr;
    }
    std::unique_ptr<TFile> base = fBase->CreateUnnamed(path, error);
    if (base == nullptr) return nullptr;
    TFile* counting = new (std::nothrow) TCountingFile(std::move(base), fCounters, false);
    if (counting == nullptr && error != nullptr) *error = FileError::kNoMemory;
    return std::unique_ptr<TFile>(counting);
}

// The base file system publishes the file the counting one wraps.
FileError TCountingFileSystem::Publish(TFile* file, const std::string& path) {
    if (fBase == nullptr || file == nullptr) return FileError::kIO;
    return fBase->Publish(static_cast<TCountingFile*>(file)->Base(), path);
}

bool TCountingFileSystem::Exists(const std::string& path) {
    return fBase != nullptr && fBase->Exists(path);
}

bool TCountingFileSystem::Remove(const std::string& path) {
    return fBase != nullptr && fBase->Remove(path);
}

bool TCountingFileSystem::Rename(const std::string& from, const std::string& to) {
    return fBase != nullptr && fBase->Rename(from, to);
}

TFileCounters TCountingFileSystem::Counters() const {
    return *fCounters;
}

void TCountingFileSystem::ResetCounters() {
    *fCounters = TFileCounters();
}

}  // namespace engine
