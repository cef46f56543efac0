#include "engine/Pager.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "engine/Bytes.h"
#include "engine/Checksum.h"
#include "engine/EngineErrors.h"
#include "engine/EngineState.h"
#include "engine/StatusLog.h"

namespace engine {
namespace {

constexpr char kHostMagic[8] = {'k', 'a', 'v', 'o', 'D', 'V', 'D', 'B'};
constexpr char kLogMagic[8] = {'k', 'a', 'v', 'o', 'L', 'O', 'G', '1'};
constexpr std::uint32_t kFormatVersion = 1;

// Header page fields.
constexpr std::uint32_t kHeaderVersionAt = 8;
constexpr std::uint32_t kHeaderPageSizeAt = 12;
constexpr std::uint32_t kHeaderSequenceAt = 16;
constexpr std::uint32_t kHeaderPageCountAt = 24;
constexpr std::uint32_t kHeaderFreeHeadAt = 28;
constexpr std::uint32_t kHeaderFreeCountAt = 32;
constexpr std::uint32_t kHeaderCatalogLengthAt = 36;
constexpr std::uint32_t kHeaderCatalogAt = 64;

// Free-list pages: the common header, then page numbers.
constexpr std::uint32_t kFreeEntriesPerPage = (kPageBodySize - kPageHeaderSize) / 4;

// Log layout: a 32-byte header, then frames of a 16-byte head, the payload
// and a checksum chained to the frame before.
constexpr std::uint32_t kLogHeaderSize = 32;
constexpr std::uint32_t kFrameHeadSize = 16;
constexpr std::uint32_t kMaxFramePayload = 0x40000000;

// A checkpoint is due when the log passes this size, when this many pages
// have been allocated since the last one (new pages go straight to their
// place, cheaply and in order), or when the changed pages of the last
// checkpoint's state fill half the cache (each of those is written twice, so
// they are left to gather and be written once for many changes).
constexpr std::uint64_t kCheckpointLogBytes = 64ull << 20;
constexpr std::size_t kCheckpointFreshPages = 1024;
constexpr std::size_t kCheckpointOldPages = 2048;

std::size_t gCacheCapacity = 16384;  // 64 MiB of pages
std::uint32_t gSaltCounter = 0;

}  // namespace

void SealPage(std::uint32_t number, std::uint8_t* data) {
    std::uint8_t prefix[4];
    Put32(prefix, number);
    Put32(data + kPageBodySize, Crc32c(Crc32c(0, prefix, 4), data, kPageBodySize));
}

bool PageSealIsValid(std::uint32_t number, const std::uint8_t* data) {
    std::uint8_t prefix[4];
    Put32(prefix, number);
    return Get32(data + kPageBodySize) == Crc32c(Crc32c(0, prefix, 4), data, kPageBodySize);
}

void TPageTable::Grow() {
    std::vector<TPage*> old = std::move(fSlots);
    fSlots.assign(old.empty() ? 64 : old.size() * 2, nullptr);
    fMask = fSlots.size() - 1;
    for (TPage* page : old) {
        if (page == nullptr) continue;
        std::size_t i = Home(page->fNumber);
        while (fSlots[i] != nullptr) i = (i + 1) & fMask;
        fSlots[i] = page;
    }
}

void TPageTable::Insert(TPage* page) {
    if ((fCount + 1) * 2 > fSlots.size()) Grow();
    std::size_t i = Home(page->fNumber);
    while (fSlots[i] != nullptr && fSlots[i]->fNumber != page->fNumber) i = (i + 1) & fMask;
    if (fSlots[i] == nullptr) ++fCount;
    fSlots[i] = page;
}

void TPageTable::Erase(std::uint32_t number) {
    if (fCount == 0) return;
    std::size_t hole = Home(number);
    while (fSlots[hole] == nullptr || fSlots[hole]->fNumber != number) {
        if (fSlots[hole] == nullptr) return;
        hole = (hole + 1) & fMask;
    }
    // Later members of the probe run move back, so that no lookup stops early.
    for (std::size_t next = (hole + 1) & fMask; fSlots[next] != nullptr; next = (next + 1) & fMask) {
        const std::size_t home = Home(fSlots[next]->fNumber);
        const bool movable = hole <= next ? (home <= hole || home > next) : (home <= hole && home > next);
        if (movable) {
            fSlots[hole] = fSlots[next];
            hole = next;
        }
    }
    fSlots[hole] = nullptr;
    --fCount;
}

void TPager::SetCacheCapacity(std::size_t pages) { gCacheCapacity = pages < 16 ? 16 : pages; }
std::size_t TPager::CacheCapacity() { return gCacheCapacity; }

TPager::TPager(const std::string& path, bool readOnly)
    : fPath(path), fLogPath(path + "!log"), fReadOnly(readOnly) {}

TPager::~TPager() {
    for (TPage* page : fFrames) {
        delete[] page->fData;
        delete page;
    }
}

// ---------------------------------------------------------------------------
// Creating and opening

std::int16_t TPager::Create(const std::string& path, std::unique_ptr<TPager>* pager) {
    std::unique_ptr<TPager> made(new TPager(path, false));
    FileError error = FileError::kNone;
    made->fFile = CurrentFileSystem()->Open(path, OpenMode::kCreateNew, &error);
    if (!made->fFile) return kFileNotCreated;
    made->fSequence = 1;
    std::vector<std::uint8_t> header(kPageSize, 0);
    made->BuildHeader(header.data(), {}, made->fSequence, 0, 0);
    if (made->WritePageToFile(0, header.data()) != kEngineNoError || !made->fFile->Sync()) {
        made->fFile.reset();
        CurrentFileSystem()->Remove(path);
        return kFileNotCreated;
    }
    *pager = std::move(made);
    return kEngineNoError;
}

std::int16_t TPager::Open(const std::string& path, bool readOnly, std::unique_ptr<TPager>* pager,
                          std::vector<TLogRecord>* replay) {
    std::unique_ptr<TPager> made(new TPager(path, readOnly));
    FileError error = FileError::kNone;
    made->fFile = CurrentFileSystem()->Open(path, readOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite, &error);
    if (!made->fFile) return kFileNotOpened;
    replay->clear();
    std::int16_t result = made->ReadLog(replay);
    if (result != kEngineNoError) return result;
    std::vector<std::uint8_t> header(kPageSize);
    result = made->ReadPageFromFile(0, header.data());
    if (result != kEngineNoError) return kFileNotOpened;
    result = made->ReadHeader(header.data());
    if (result != kEngineNoError) return kFileNotOpened;
    if (made->fRestartLogAfterBatch && !replay->empty()) {
        // The batch brought the file to a new checkpoint; the operations after
        // it must stay in the log until the next one.
        if (made->StartLog() != kEngineNoError) return kFileNotOpened;
        for (const TLogRecord& record : *replay) {
            if (made->WriteFrame(record.fKind, record.fMember, record.fAux, record.fPayload.data(),
                                 static_cast<std::uint32_t>(record.fPayload.size())) != kEngineNoError)
                return kFileNotOpened;
        }
        if (!made->fLog->Sync()) return kFileNotOpened;
    }
    *pager = std::move(made);
    return kEngineNoError;
}

void TPager::BuildHeader(std::uint8_t* page, const std::vector<std::uint8_t>& catalog, std::uint64_t sequence,
                         std::uint32_t freeHead, std::uint32_t freeCount) {
    std::memset(page, 0, kPageSize);
    std::memcpy(page, kHostMagic, sizeof kHostMagic);
    Put32(page + kHeaderVersionAt, kFormatVersion);
    Put32(page + kHeaderPageSizeAt, kPageSize);
    Put64(page + kHeaderSequenceAt, sequence);
    Put32(page + kHeaderPageCountAt, fPageCount);
    Put32(page + kHeaderFreeHeadAt, freeHead);
    Put32(page + kHeaderFreeCountAt, freeCount);
    Put32(page + kHeaderCatalogLengthAt, static_cast<std::uint32_t>(catalog.size()));
    if (!catalog.empty()) std::memcpy(page + kHeaderCatalogAt, catalog.data(), catalog.size());
}

std::int16_t TPager::ReadHeader(const std::uint8_t* page) {
    if (std::memcmp(page, kHostMagic, sizeof kHostMagic) != 0) return kFileNotOpened;
    if (Get32(page + kHeaderVersionAt) != kFormatVersion || Get32(page + kHeaderPageSizeAt) != kPageSize)
        return kFileNotOpened;
    const std::uint32_t pageCount = Get32(page + kHeaderPageCountAt);
    const std::uint32_t freeHead = Get32(page + kHeaderFreeHeadAt);
    const std::uint32_t freeCount = Get32(page + kHeaderFreeCountAt);
    const std::uint32_t catalogLength = Get32(page + kHeaderCatalogLengthAt);
    if (pageCount == 0 || freeCount >= pageCount || freeHead >= pageCount || catalogLength > kCatalogCapacity ||
        (freeCount == 0) != (freeHead == 0))
        return kFileNotOpened;
    std::uint64_t fileSize = 0;
    if (fOverlay.empty() && (!fFile->Size(&fileSize) || fileSize < std::uint64_t{pageCount} * kPageSize))
        return kFileNotOpened;  // truncated
    fSequence = Get64(page + kHeaderSequenceAt);
    fPageCount = pageCount;
    fStoredCatalog.assign(page + kHeaderCatalogAt, page + kHeaderCatalogAt + catalogLength);
    return LoadFreeList(freeHead, freeCount);
}

std::int16_t TPager::LoadFreeList(std::uint32_t head, std::uint32_t count) {
    fFree.clear();
    fFreeListPages.clear();
    std::vector<std::uint8_t> page(kPageSize);
    std::unordered_set<std::uint32_t> seen;
    std::uint32_t remaining = count;
    for (std::uint32_t number = head; number != 0;) {
        if (number >= fPageCount || !seen.insert(number).second) return kFileNotOpened;
        if (ReadPageFromFile(number, page.data()) != kEngineNoError) return kFileNotOpened;
        const std::uint32_t entries = Get16(page.data() + kPageCountAt);
        if (page[kPageTypeAt] != kPageTypeFreeList || entries > kFreeEntriesPerPage || entries > remaining)
            return kFileNotOpened;
        fFreeListPages.push_back(number);
        for (std::uint32_t i = 0; i < entries; ++i) {
            const std::uint32_t free = Get32(page.data() + kPageHeaderSize + 4 * i);
            if (free == 0 || free >= fPageCount || !fFree.insert(free).second) return kFileNotOpened;
        }
        remaining -= entries;
        number = Get32(page.data() + kPageAuxAt);
    }
    if (remaining != 0) return kFileNotOpened;
    for (std::uint32_t number : fFreeListPages) {
        if (fFree.count(number) != 0) return kFileNotOpened;
    }
    return kEngineNoError;
}

// ---------------------------------------------------------------------------
// The log

std::int16_t TPager::ReadLog(std::vector<TLogRecord>* replay) {
    TFileSystem* fs = CurrentFileSystem();
    if (!fs->Exists(fLogPath)) return kEngineNoError;
    FileError error = FileError::kNone;
    std::unique_ptr<TFile> log = fs->Open(fLogPath, fReadOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite, &error);
    if (!log) return kFileNotOpened;
    std::uint64_t size = 0;
    if (!log->Size(&size)) return kFileNotOpened;

    // The main file's own sequence number, if its header can be read.
    std::vector<std::uint8_t> header(kPageSize);
    std::uint64_t mainSequence = 0;
    bool mainReadable = ReadPageFromFile(0, header.data()) == kEngineNoError &&
                        std::memcmp(header.data(), kHostMagic, sizeof kHostMagic) == 0;
    if (mainReadable) mainSequence = Get64(header.data() + kHeaderSequenceAt);

    std::uint8_t logHeader[kLogHeaderSize];
    std::size_t got = 0;
    bool usable = size >= kLogHeaderSize && log->ReadAt(0, logHeader, kLogHeaderSize, &got) &&
                  got == kLogHeaderSize && std::memcmp(logHeader, kLogMagic, sizeof kLogMagic) == 0 &&
                  Get32(logHeader + 28) == Crc32c(0, logHeader, 28);
    const std::uint64_t base = usable ? Get64(logHeader + 8) : 0;
    std::uint32_t chain = usable ? (Get32(logHeader + 28) ^ Get32(logHeader + 16)) : 0;
    fLogSalt = usable ? Get32(logHeader + 16) : 0;

    struct TFrame {
        std::uint8_t fKind, fMember;
        std::uint32_t fAux;
        std::vector<std::uint8_t> fPayload;
    };
    std::vector<TFrame> frames;
    std::uint64_t offset = kLogHeaderSize;
    std::uint64_t validEnd = kLogHeaderSize;
    std::uint32_t validChain = chain;
    std::size_t lastCommit = SIZE_MAX;
    std::uint64_t commitSequence = 0;
    while (usable && offset + kFrameHeadSize + 4 <= size) {
        std::uint8_t head[kFrameHeadSize];
        if (!log->ReadAt(offset, head, kFrameHeadSize, &got) || got != kFrameHeadSize) break;
        const std::uint32_t length = Get32(head);
        if (length > kMaxFramePayload || offset + kFrameHeadSize + length + 4 > size) break;
        TFrame frame{head[4], head[5], Get32(head + 8), {}};
        frame.fPayload.resize(std::size_t{length} + 4);
        if (!log->ReadAt(offset + kFrameHeadSize, frame.fPayload.data(), frame.fPayload.size(), &got) ||
            got != frame.fPayload.size())
            break;
        std::uint32_t crc = Crc32c(chain, head, kFrameHeadSize);
        crc = Crc32c(crc, frame.fPayload.data(), length);
        if (crc != Get32(frame.fPayload.data() + length)) break;
        frame.fPayload.resize(length);
        chain = crc;
        offset += kFrameHeadSize + length + 4;
        validEnd = offset;
        validChain = chain;
        if (frame.fKind == kFrameCommit && length == 8) {
            lastCommit = frames.size();
            commitSequence = Get64(frame.fPayload.data());
        }
        frames.push_back(std::move(frame));
    }

    // A complete batch of page images is written again; the operations after
    // it are redone. Without one, the operations are redone only if the log
    // continues the file's present checkpoint.
    std::size_t firstOperation = 0;
    bool replayOperations = usable && mainReadable && base == mainSequence;
    if (lastCommit != SIZE_MAX && (base == mainSequence || commitSequence == mainSequence || !mainReadable) &&
        commitSequence == base + 1) {
        std::size_t batchStart = lastCommit;
        while (batchStart > 0 && frames[batchStart - 1].fKind == kFramePage) --batchStart;
        for (std::size_t i = batchStart; i < lastCommit; ++i) {
            const TFrame& page = frames[i];
            if (page.fPayload.size() != kPageSize || !PageSealIsValid(page.fAux, page.fPayload.data())) continue;
            if (fReadOnly) {
                fOverlay[page.fAux] = page.fPayload;
            } else if (!fFile->WriteAt(std::uint64_t{page.fAux} * kPageSize, page.fPayload.data(), kPageSize)) {
                return kFileNotOpened;
            }
        }
        if (!fReadOnly && !fFile->Sync()) return kFileNotOpened;
        firstOperation = lastCommit + 1;
        replayOperations = true;
    }
    if (replayOperations) {
        for (std::size_t i = firstOperation; i < frames.size(); ++i) {
            TFrame& frame = frames[i];
            if (frame.fKind != kFrameAdd && frame.fKind != kFrameRewrite && frame.fKind != kFrameDelete) continue;
            replay->push_back(TLogRecord{frame.fKind, frame.fMember, frame.fAux, std::move(frame.fPayload)});
        }
    }
    if (fReadOnly) return kEngineNoError;
    // Writing goes on after the valid frames when they are redone; otherwise
    // the log is stale and starts afresh at the next write. After a batch the
    // operations that followed it are written into a fresh log (see Open).
    fLog = std::move(log);
    fRestartLogAfterBatch = lastCommit != SIZE_MAX;
    if (replayOperations && lastCommit == SIZE_MAX) {
        if (!fLog->Truncate(validEnd)) return kFileNotOpened;
        fLogOffset = validEnd;
        fLogChain = validChain;
        fLogSize = validEnd - kLogHeaderSize;
    } else {
        fLogOffset = 0;  // StartLog before the next frame
    }
    return kEngineNoError;
}

std::int16_t TPager::StartLog() {
    if (!fLog) {
        FileError error = FileError::kNone;
        TFileSystem* fs = CurrentFileSystem();
        fLog = fs->Open(fLogPath, fs->Exists(fLogPath) ? OpenMode::kReadWrite : OpenMode::kCreateNew, &error);
        if (!fLog) return kWriteFailed;
    }
    // A new header with a new salt voids every frame after it, so the old
    // frames need not go; but a log grown beyond a megabyte is cut back, so
    // that the file does not hold the space (and its removal at the close,
    // which frees it, stays quick).
    std::uint64_t size = 0;
    if (!fLog->Size(&size)) return kWriteFailed;
    if (size > (1u << 20) && !fLog->Truncate(0)) return kWriteFailed;
    return WriteLogHeader();
}

std::int16_t TPager::WriteLogHeader() {
    fLogSalt = Crc32c(static_cast<std::uint32_t>(std::time(nullptr)), &fSequence, sizeof fSequence) ^
               (++gSaltCounter * 0x9E3779B9u);
    std::uint8_t header[kLogHeaderSize] = {};
    std::memcpy(header, kLogMagic, sizeof kLogMagic);
    Put64(header + 8, fSequence);
    Put32(header + 16, fLogSalt);
    Put32(header + 28, Crc32c(0, header, 28));
    if (!fLog->WriteAt(0, header, kLogHeaderSize)) return kWriteFailed;
    fLogChain = Get32(header + 28) ^ fLogSalt;
    fLogOffset = kLogHeaderSize;
    fLogSize = 0;
    return kEngineNoError;
}

std::int16_t TPager::WriteFrame(std::uint8_t kind, std::uint8_t member, std::uint32_t aux,
                                const std::uint8_t* payload, std::uint32_t length) {
    if (fLogOffset == 0) {
        const std::int16_t error = StartLog();
        if (error != kEngineNoError) return error;
    }
    const std::size_t total = kFrameHeadSize + std::size_t{length} + 4;
    fFrameBuffer.resize(total);
    std::uint8_t* frame = fFrameBuffer.data();
    std::memset(frame, 0, kFrameHeadSize);
    Put32(frame, length);
    frame[4] = kind;
    frame[5] = member;
    Put32(frame + 8, aux);
    if (length != 0) std::memcpy(frame + kFrameHeadSize, payload, length);
    const std::uint32_t crc = Crc32c(fLogChain, frame, kFrameHeadSize + length);
    Put32(frame + kFrameHeadSize + length, crc);
    if (!fLog->WriteAt(fLogOffset, frame, total)) return kWriteFailed;
    fLogChain = crc;
    fLogOffset += total;
    fLogSize += total;
    ++fStats.fLogFrames;
    fStats.fLogBytes += total;
    return kEngineNoError;
}

std::int16_t TPager::AppendLog(std::uint8_t kind, std::uint8_t member, std::uint32_t aux,
                               const std::uint8_t* payload, std::uint32_t length) {
    if (fReadOnly) return kNoWritePermission;
    if (fPoison != 0) return fPoison;
    const std::int16_t error = WriteFrame(kind, member, aux, payload, length);
    if (error != kEngineNoError) Poison(error);
    return error;
}

// ---------------------------------------------------------------------------
// The cache

void TPager::Forget(TPage* page) {
    fPages.Erase(page->fNumber);
    page->fDirty = page->fFresh = page->fChecked = page->fReferenced = page->fInUse = false;
    page->fPins = 0;
    fSpareFrames.push_back(page);
}

// Frees frames while the cache is full: the clock hand passes over pinned
// pages and changed pages of the last checkpoint's state, gives each used
// page one more round, and evicts the first page it finds unused (writing it
// first when it was allocated since the last checkpoint: nothing depends on
// its place in the file yet). When nothing can go, the cache grows past its
// size until the next checkpoint.
std::int16_t TPager::MakeRoom() {
    std::size_t budget = 2 * fFrames.size();
    while (fFrames.size() - fSpareFrames.size() >= gCacheCapacity && budget-- > 0) {
        if (fHand >= fFrames.size()) fHand = 0;
        TPage* page = fFrames[fHand++];
        if (!page->fInUse || page->fPins > 0 || !Evictable(page)) continue;
        if (page->fReferenced) {
            page->fReferenced = false;
            continue;
        }
        if (page->fDirty) {
            const std::int16_t error = WritePageToFile(page->fNumber, page->fData);
            if (error != kEngineNoError) return error;
            fEvictedSinceCheckpoint = true;
        }
        Forget(page);
    }
    return kEngineNoError;
}

TPage* TPager::NewFrame(std::int16_t* error) {
    *error = MakeRoom();
    if (*error != kEngineNoError) return nullptr;
    if (!fSpareFrames.empty()) {
        TPage* page = fSpareFrames.back();
        fSpareFrames.pop_back();
        return page;
    }
    auto* page = new TPage;
    page->fData = new std::uint8_t[kPageSize];
    fFrames.push_back(page);
    return page;
}

std::int16_t TPager::ReadPageFromFile(std::uint32_t number, std::uint8_t* into) {
    const auto overlay = fOverlay.find(number);
    if (overlay != fOverlay.end()) {
        std::memcpy(into, overlay->second.data(), kPageSize);
        return kEngineNoError;
    }
    std::size_t got = 0;
    if (!fFile->ReadAt(std::uint64_t{number} * kPageSize, into, kPageSize, &got) || got != kPageSize)
        return kPageDamaged;
    ++fStats.fPagesRead;
    return PageSealIsValid(number, into) ? kEngineNoError : kPageDamaged;
}

std::int16_t TPager::WritePageToFile(std::uint32_t number, std::uint8_t* data) {
    SealPage(number, data);
    if (!fFile->WriteAt(std::uint64_t{number} * kPageSize, data, kPageSize)) return kWriteFailed;
    ++fStats.fPagesWritten;
    fStats.fPageBytesWritten += kPageSize;
    return kEngineNoError;
}

std::int16_t TPager::Fetch(std::uint32_t number, TPage** page) {
    *page = nullptr;
    if (fPoison != 0) return fPoison;
    if (number >= fPageCount) {
        SetLowError(kLowNodeBeyondEnd);
        LogStatus(kMsgNodeBeyondEnd, kLowNodeBeyondEnd);
        LogStatus(fPath.c_str(), kLowNodeBeyondEnd);
        return kPageDamaged;
    }
    if (TPage* cached = fPages.Find(number)) {
        cached->fReferenced = true;
        ++cached->fPins;
        *page = cached;
        return kEngineNoError;
    }
    std::int16_t error = kEngineNoError;
    TPage* frame = NewFrame(&error);
    if (frame == nullptr) {
        Poison(error);
        return error;
    }
    error = ReadPageFromFile(number, frame->fData);
    if (error != kEngineNoError) {
        fSpareFrames.push_back(frame);
        return error;
    }
    frame->fNumber = number;
    frame->fPins = 1;
    frame->fDirty = false;
    frame->fChecked = false;
    frame->fFresh = fFresh.count(number) != 0;
    frame->fReferenced = true;
    frame->fInUse = true;
    fPages.Insert(frame);
    *page = frame;
    return kEngineNoError;
}

std::uint32_t TPager::TakeFreePage() {
    if (!fFree.empty()) {
        const std::uint32_t number = *fFree.begin();
        fFree.erase(fFree.begin());
        return number;
    }
    if (fPageCount == UINT32_MAX) return 0;
    return fPageCount++;
}

std::int16_t TPager::Allocate(TPage** page) {
    *page = nullptr;
    if (fPoison != 0) return fPoison;
    // A read-only pager allocates too, in memory only, while the host file
    // redoes the log on opening; callers' writes are refused by the host file.
    std::int16_t error = kEngineNoError;
    TPage* frame = NewFrame(&error);
    if (frame == nullptr) return error;
    const std::uint32_t number = TakeFreePage();
    if (number == 0) {
        fSpareFrames.push_back(frame);
        return kFileFull;
    }
    fFresh.insert(number);
    std::memset(frame->fData, 0, kPageSize);
    frame->fNumber = number;
    frame->fPins = 1;
    frame->fDirty = true;
    frame->fFresh = true;
    frame->fChecked = true;
    frame->fReferenced = true;
    frame->fInUse = true;
    fPages.Insert(frame);
    *page = frame;
    return kEngineNoError;
}

void TPager::Unpin(TPage* page) {
    if (page->fPins > 0) --page->fPins;
}

void TPager::MarkDirty(TPage* page) {
    if (page->fDirty) return;
    page->fDirty = true;
    if (!page->fFresh) ++fDirtyOld;
}

void TPager::FreePage(std::uint32_t number) {
    if (TPage* page = fPages.Find(number)) {
        if (page->fDirty && !page->fFresh) --fDirtyOld;
        Forget(page);
    }
    if (fFresh.erase(number) != 0) {
        fFree.insert(number);
    } else {
        fFreedSinceCheckpoint.push_back(number);
    }
}

std::uint32_t TPager::FreePageCount() const {
    return static_cast<std::uint32_t>(fFree.size() + fFreedSinceCheckpoint.size());
}

std::vector<std::uint32_t> TPager::FreePages() const {
    std::vector<std::uint32_t> pages(fFree.begin(), fFree.end());
    pages.insert(pages.end(), fFreedSinceCheckpoint.begin(), fFreedSinceCheckpoint.end());
    return pages;
}

// ---------------------------------------------------------------------------
// Checkpoints

bool TPager::CheckpointDue() const {
    return !fReadOnly && fPoison == 0 &&
           (fLogSize > kCheckpointLogBytes || fFresh.size() > kCheckpointFreshPages || fDirtyOld > kCheckpointOldPages);
}

bool TPager::HasChanges() const {
    return !fReadOnly && fPoison == 0 &&
           (fLogSize != 0 || !fFresh.empty() || !fFreedSinceCheckpoint.empty() || fDirtyOld != 0);
}

// The free set of the next checkpoint's state, laid out in new free-list
// pages taken from pages that nothing in the last checkpoint's state uses.
std::int16_t TPager::BuildFreeList(std::uint32_t* head, std::uint32_t* count, std::vector<TImage>* images) {
    std::set<std::uint32_t> free = fFree;
    free.insert(fFreedSinceCheckpoint.begin(), fFreedSinceCheckpoint.end());
    free.insert(fFreeListPages.begin(), fFreeListPages.end());
    std::vector<std::uint32_t> listPages;
    for (;;) {
        const std::size_t needed = (free.size() + kFreeEntriesPerPage - 1) / kFreeEntriesPerPage;
        if (listPages.size() >= needed) break;
        // Only pages free in the last checkpoint's state may be written now.
        auto candidate = std::find_if(fFree.begin(), fFree.end(), [&](std::uint32_t number) {
            return std::find(listPages.begin(), listPages.end(), number) == listPages.end();
        });
        std::uint32_t number = 0;
        if (candidate != fFree.end()) {
            number = *candidate;
        } else {
            if (fPageCount == UINT32_MAX) return kFileFull;
            number = fPageCount++;
        }
        listPages.push_back(number);
        free.erase(number);
    }
    std::vector<std::uint32_t> entries(free.begin(), free.end());
    std::size_t next = 0;
    for (std::size_t i = 0; i < listPages.size(); ++i) {
        TImage image;
        image.fNumber = listPages[i];
        image.fOwned.assign(kPageSize, 0);
        std::uint8_t* page = image.fOwned.data();
        page[kPageTypeAt] = kPageTypeFreeList;
        const std::size_t take = std::min<std::size_t>(kFreeEntriesPerPage, entries.size() - next);
        Put16(page + kPageCountAt, static_cast<std::uint16_t>(take));
        Put32(page + kPageAuxAt, i + 1 < listPages.size() ? listPages[i + 1] : 0);
        for (std::size_t j = 0; j < take; ++j) Put32(page + kPageHeaderSize + 4 * j, entries[next + j]);
        next += take;
        image.fData = page;
        images->push_back(std::move(image));
    }
    // The new state's free set, once the header names it.
    fFreeListPages = listPages;
    fFreedSinceCheckpoint.clear();
    fFree.clear();
    fFree.insert(entries.begin(), entries.end());
    *head = listPages.empty() ? 0 : listPages.front();
    *count = static_cast<std::uint32_t>(entries.size());
    return kEngineNoError;
}

// Writes page images sorted by number, each run of neighbours in one call.
std::int16_t TPager::WriteImagesToFile(std::vector<TImage>& images) {
    std::sort(images.begin(), images.end(),
              [](const TImage& a, const TImage& b) { return a.fNumber < b.fNumber; });
    constexpr std::size_t kLongestRun = 256;
    for (std::size_t first = 0; first < images.size();) {
        std::size_t last = first + 1;
        while (last < images.size() && last - first < kLongestRun &&
               images[last].fNumber == images[last - 1].fNumber + 1)
            ++last;
        const std::uint8_t* bytes = images[first].fData;
        if (last - first > 1) {
            fRunBuffer.resize((last - first) * kPageSize);
            for (std::size_t i = first; i < last; ++i)
                std::memcpy(fRunBuffer.data() + (i - first) * kPageSize, images[i].fData, kPageSize);
            bytes = fRunBuffer.data();
        }
        if (!fFile->WriteAt(std::uint64_t{images[first].fNumber} * kPageSize, bytes, (last - first) * kPageSize))
            return kWriteFailed;
        fStats.fPagesWritten += last - first;
        fStats.fPageBytesWritten += (last - first) * kPageSize;
        first = last;
    }
    return kEngineNoError;
}

// Appends the images as page frames and a commit frame, in one write.
std::int16_t TPager::AppendBatchToLog(const std::vector<TImage>& images, std::uint64_t sequence) {
    if (fLogOffset == 0) {
        const std::int16_t error = StartLog();
        if (error != kEngineNoError) return error;
    }
    const std::size_t pageFrame = kFrameHeadSize + kPageSize + 4;
    fFrameBuffer.resize(images.size() * pageFrame + kFrameHeadSize + 8 + 4);
    std::uint8_t* at = fFrameBuffer.data();
    std::uint32_t chain = fLogChain;
    const auto frame = [&](std::uint8_t kind, std::uint32_t aux, const std::uint8_t* payload, std::uint32_t length) {
        std::memset(at, 0, kFrameHeadSize);
        Put32(at, length);
        at[4] = kind;
        Put32(at + 8, aux);
        std::memcpy(at + kFrameHeadSize, payload, length);
        chain = Crc32c(chain, at, kFrameHeadSize + length);
        Put32(at + kFrameHeadSize + length, chain);
        at += kFrameHeadSize + length + 4;
    };
    for (const TImage& image : images) frame(kFramePage, image.fNumber, image.fData, kPageSize);
    std::uint8_t commit[8];
    Put64(commit, sequence);
    frame(kFrameCommit, 0, commit, sizeof commit);
    const std::size_t total = static_cast<std::size_t>(at - fFrameBuffer.data());
    if (!fLog->WriteAt(fLogOffset, fFrameBuffer.data(), total)) return kWriteFailed;
    fLogChain = chain;
    fLogOffset += total;
    fLogSize += total;
    fStats.fLogFrames += images.size() + 1;
    fStats.fLogBytes += total;
    return kEngineNoError;
}

std::int16_t TPager::Checkpoint(const std::vector<std::uint8_t>& catalog) {
    if (fReadOnly) return kEngineNoError;
    if (fPoison != 0) return fPoison;
    if (catalog.size() > kCatalogCapacity) return kBadArgument;
    const bool changed = fLogSize != 0 || !fFresh.empty() || !fFreedSinceCheckpoint.empty() || fDirtyOld != 0 ||
                         catalog != fStoredCatalog;
    if (!changed) return kEngineNoError;

    std::int16_t error = kEngineNoError;
    const auto fail = [this](std::int16_t e) {
        Poison(e);
        return e;
    };
    // Pages allocated since the last checkpoint (and the new free list,
    // which lives in such pages) may go straight to their place: nothing in
    // the last checkpoint's state uses them. Pages of that state, and the
    // header, go through the log first, so that overwriting them can always
    // be finished after a cut. A few fresh pages go through the log too:
    // cheaper than the sync their direct write would need.
    std::vector<TImage> fresh;
    std::vector<TImage> batch;
    fPages.ForEach([&](TPage* page) {
        if (!page->fDirty) return;
        SealPage(page->fNumber, page->fData);
        (page->fFresh ? fresh : batch).push_back(TImage{page->fNumber, page->fData, {}});
    });
    std::uint32_t freeHead = 0;
    std::uint32_t freeCount = 0;
    if ((error = BuildFreeList(&freeHead, &freeCount, &fresh)) != kEngineNoError) return fail(error);
    for (TImage& image : fresh) {
        if (!image.fOwned.empty()) SealPage(image.fNumber, image.fOwned.data());
    }
    constexpr std::size_t kFreshThroughLog = 64;
    const bool direct = fEvictedSinceCheckpoint || fresh.size() > kFreshThroughLog;
    if (direct) {
        if ((error = WriteImagesToFile(fresh)) != kEngineNoError) return fail(error);
    } else {
        for (TImage& image : fresh) batch.push_back(std::move(image));
    }
    // The file holds every page the header counts, free ones never written
    // included, so that a shorter file can only be a truncated one.
    std::uint64_t size = 0;
    if (!fFile->Size(&size)) return fail(kWriteFailed);
    const bool grows = size < std::uint64_t{fPageCount} * kPageSize;
    if (grows && !fFile->Truncate(std::uint64_t{fPageCount} * kPageSize)) return fail(kWriteFailed);
    // Pages written in place, and the file's length, are on the disk before
    // any commit that names them is written: a commit that reaches the disk
    // is redone whatever else was lost.
    if (direct || grows) {
        if (!fFile->Sync()) return fail(kWriteFailed);
        ++fStats.fSyncs;
    }

    std::vector<std::uint8_t> header(kPageSize);
    BuildHeader(header.data(), catalog, fSequence + 1, freeHead, freeCount);
    SealPage(0, header.data());
    batch.push_back(TImage{0, header.data(), {}});
    if ((error = AppendBatchToLog(batch, fSequence + 1)) != kEngineNoError) return fail(error);
    if (!fLog->Sync()) return fail(kWriteFailed);
    if ((error = WriteImagesToFile(batch)) != kEngineNoError) return fail(error);
    if (!fFile->Sync()) return fail(kWriteFailed);
    fStats.fSyncs += 2;

    // The new state is the file's: the log starts afresh and every cached
    // page now belongs to the last checkpoint's state.
    ++fSequence;
    fStoredCatalog = catalog;
    if ((error = StartLog()) != kEngineNoError) return fail(error);
    fPages.ForEach([](TPage* page) {
        page->fDirty = false;
        page->fFresh = false;
    });
    fFresh.clear();
    fDirtyOld = 0;
    fEvictedSinceCheckpoint = false;
    ++fStats.fCheckpoints;
    return kEngineNoError;
}

std::int16_t TPager::Close(const std::vector<std::uint8_t>& catalog) {
    std::int16_t error = kEngineNoError;
    if (!fReadOnly && fPoison == 0) {
        error = Checkpoint(catalog);
        if (error == kEngineNoError && fLog) {
            fLog.reset();
            CurrentFileSystem()->Remove(fLogPath);
        }
    }
    fLog.reset();
    fFile.reset();
    return error;
}

}  // namespace engine
