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

// A checkpoint is due when the log passes this size or this many pages have
// been allocated (or copied) since the last one. Between checkpoints, changed
// pages are written back to their places whenever this many have gathered,
// and synced: the checkpoint's sync (the close's too) then finds little left
// to do, while a page changed again and again until the next checkpoint is
// still copied only once. The sync is for the close, not for safety (nothing
// durable names a written-back page before the next checkpoint): without it,
// a close flushes up to a whole checkpoint's pages. The size of a write-back
// bounds the close: random deletes at 100,000 records take 21 µs with 768
// pages, 15 with 1,536 and 13 with 2,048 (a million records gain nothing:
// there every delete copies its pages anyway), but the record-store
// workload's close and reopen after its resaves took 12 ms with 1,536 against
// 5 with 768. The close is kept short.
constexpr std::uint64_t kCheckpointLogBytes = 64ull << 20;
constexpr std::size_t kCheckpointPages = 8192;
constexpr std::size_t kWriteBackPages = 768;
std::size_t gCheckpointPages = kCheckpointPages;
std::uint64_t gCompletedCheckpoints = 0;

std::size_t gCacheCapacity = 16384;  // 64 MiB of pages
// Frames of pagers gone, kept for the next ones (at most a cache's worth):
// giving a full cache's memory back to the system at a close, and faulting
// it in again after the next open, cost more than the rest of the close.
// The pool frees them at the end of the process; a pager destroyed after it
// (by another static's destructor) frees its own.
struct TFramePool {
    std::vector<TPage*> fFrames;
    ~TFramePool();
};
TFramePool gFramePool;
bool gFramePoolGone = false;  // trivially destructible: valid to the end
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

bool TPageSet::Insert(std::uint32_t number) {
    const std::size_t word = number / 64;
    const std::uint64_t bit = std::uint64_t{1} << (number % 64);
    if (word >= fWords.size()) fWords.resize(std::max(word + 1, fWords.size() * 2), 0);
    if ((fWords[word] & bit) != 0) return false;
    fWords[word] |= bit;
    ++fCount;
    if (word < fLowWord) fLowWord = word;
    return true;
}

bool TPageSet::Erase(std::uint32_t number) {
    if (!Contains(number)) return false;
    fWords[number / 64] &= ~(std::uint64_t{1} << (number % 64));
    --fCount;
    return true;
}

void TPageSet::Clear() {
    std::fill(fWords.begin(), fWords.end(), 0);
    fCount = 0;
    fLowWord = 0;
}

std::uint32_t TPageSet::Next(std::uint32_t from) const {
    if (fCount == 0) return kNone;
    // A search from below the low word moves it up to the word it finds.
    const bool seesAll = from / 64 < fLowWord || (from / 64 == fLowWord && from % 64 == 0);
    std::size_t word = std::max<std::size_t>(from / 64, fLowWord);
    std::uint64_t bits = 0;
    if (word < fWords.size()) {
        bits = fWords[word];
        if (word == from / 64) bits &= ~std::uint64_t{0} << (from % 64);
    }
    while (bits == 0 && word < fWords.size()) {
        if (++word < fWords.size()) bits = fWords[word];
    }
    if (seesAll) fLowWord = word;
    if (word >= fWords.size()) return kNone;
    return static_cast<std::uint32_t>(word * 64 + static_cast<std::size_t>(__builtin_ctzll(bits)));
}

void TPager::SetCacheCapacity(std::size_t pages) { gCacheCapacity = pages < 16 ? 16 : pages; }
void TPager::SetCheckpointPages(std::size_t pages) { gCheckpointPages = pages == 0 ? kCheckpointPages : pages; }
std::uint64_t TPager::CompletedCheckpoints() { return gCompletedCheckpoints; }
std::size_t TPager::CacheCapacity() { return gCacheCapacity; }

TPager::TPager(const std::string& path, bool readOnly)
    : fPath(path), fLogPath(path + "!log"), fReadOnly(readOnly) {}

TPager::~TPager() {
    for (TPage* page : fFrames) {
        if (!gFramePoolGone && gFramePool.fFrames.size() < gCacheCapacity) {
            std::uint8_t* data = page->fData;
            *page = TPage{};
            page->fData = data;
            gFramePool.fFrames.push_back(page);
        } else {
            delete[] page->fData;
            delete page;
        }
    }
}

void TPager::ReleaseFramePool() {
    for (TPage* page : gFramePool.fFrames) {
        delete[] page->fData;
        delete page;
    }
    gFramePool.fFrames.clear();
    gFramePool.fFrames.shrink_to_fit();
}

namespace {
TFramePool::~TFramePool() {
    TPager::ReleaseFramePool();
    gFramePoolGone = true;
}
}  // namespace

// ---------------------------------------------------------------------------
// Creating and opening

std::int16_t TPager::Create(const std::string& path, std::unique_ptr<TPager>* pager) {
    std::unique_ptr<TPager> made(new TPager(path, false));
    FileError error = FileError::kNone;
    made->fFile = CurrentFileSystem()->Open(path, OpenMode::kCreateNew, &error);
    if (!made->fFile) return kFileNotCreated;
    made->fSequence = 1;
    made->fPageCount = kFirstDataPage;
    // Both slots hold the empty state.
    std::vector<std::uint8_t> slot(kPageSize, 0);
    bool written = true;
    for (std::uint32_t number = 0; number < kFirstDataPage && written; ++number) {
        made->BuildHeader(slot.data(), {}, made->fSequence, 0, 0);
        written = made->WritePageToFile(number, slot.data()) == kEngineNoError;
    }
    made->fCurrentHeader = slot;
    if (!written || !made->fFile->Sync()) {
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
    if (made->ReadHeaders() != kEngineNoError) return kFileNotOpened;
    if (made->ReadLog(replay) != kEngineNoError) return kFileNotOpened;
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

// Checks a header slot and, when it holds, gives its sequence number.
bool TPager::ParseHeader(const std::uint8_t* page, std::uint64_t* sequence) {
    if (std::memcmp(page, kHostMagic, sizeof kHostMagic) != 0) return false;
    if (Get32(page + kHeaderVersionAt) != kFormatVersion || Get32(page + kHeaderPageSizeAt) != kPageSize) return false;
    const std::uint32_t pageCount = Get32(page + kHeaderPageCountAt);
    const std::uint32_t freeHead = Get32(page + kHeaderFreeHeadAt);
    const std::uint32_t freeCount = Get32(page + kHeaderFreeCountAt);
    const std::uint32_t catalogLength = Get32(page + kHeaderCatalogLengthAt);
    // A free list may be one page listing nothing: the only free page went
    // to hold the list.
    if (pageCount < kFirstDataPage || freeCount >= pageCount || freeHead >= pageCount ||
        catalogLength > kCatalogCapacity || (freeCount != 0 && freeHead == 0) ||
        (freeHead != 0 && freeHead < kFirstDataPage))
        return false;
    *sequence = Get64(page + kHeaderSequenceAt);
    return true;
}

// The state is the slot with the higher sequence number of those that hold:
// the two are twins but while a checkpoint writes them.
std::int16_t TPager::ReadHeaders() {
    std::vector<std::uint8_t> slots[kFirstDataPage];
    std::int32_t chosen = -1;
    std::uint64_t best = 0;
    for (std::uint32_t number = 0; number < kFirstDataPage; ++number) {
        slots[number].resize(kPageSize);
        std::uint64_t sequence = 0;
        if (ReadPageFromFile(number, slots[number].data()) != kEngineNoError ||
            !ParseHeader(slots[number].data(), &sequence))
            continue;
        if (chosen < 0 || sequence > best) {
            chosen = static_cast<std::int32_t>(number);
            best = sequence;
        }
    }
    if (chosen < 0) return kFileNotOpened;
    const std::uint8_t* page = slots[chosen].data();
    const std::uint32_t pageCount = Get32(page + kHeaderPageCountAt);
    std::uint64_t fileSize = 0;
    if (!fFile->Size(&fileSize) || fileSize < std::uint64_t{pageCount} * kPageSize)
        return kFileNotOpened;  // truncated
    fSequence = best;
    fPageCount = pageCount;
    fCurrentHeader = slots[chosen];
    const std::uint32_t catalogLength = Get32(page + kHeaderCatalogLengthAt);
    fStoredCatalog.assign(page + kHeaderCatalogAt, page + kHeaderCatalogAt + catalogLength);
    return LoadFreeList(Get32(page + kHeaderFreeHeadAt), Get32(page + kHeaderFreeCountAt));
}

std::int16_t TPager::LoadFreeList(std::uint32_t head, std::uint32_t count) {
    fFree.Clear();
    fFreeListPages.clear();
    std::vector<std::uint8_t> page(kPageSize);
    std::unordered_set<std::uint32_t> seen;
    std::uint32_t remaining = count;
    for (std::uint32_t number = head; number != 0;) {
        if (number < kFirstDataPage || number >= fPageCount || !seen.insert(number).second) return kFileNotOpened;
        if (ReadPageFromFile(number, page.data()) != kEngineNoError) return kFileNotOpened;
        const std::uint32_t entries = Get16(page.data() + kPageCountAt);
        if (page[kPageTypeAt] != kPageTypeFreeList || entries > kFreeEntriesPerPage || entries > remaining)
            return kFileNotOpened;
        fFreeListPages.push_back(number);
        for (std::uint32_t i = 0; i < entries; ++i) {
            const std::uint32_t free = Get32(page.data() + kPageHeaderSize + 4 * i);
            if (free < kFirstDataPage || free >= fPageCount || !fFree.Insert(free)) return kFileNotOpened;
        }
        remaining -= entries;
        number = Get32(page.data() + kPageAuxAt);
    }
    if (remaining != 0) return kFileNotOpened;
    for (std::uint32_t number : fFreeListPages) {
        if (fFree.Contains(number)) return kFileNotOpened;
    }
    return kEngineNoError;
}

// ---------------------------------------------------------------------------
// The log

// Reads the operations of a log that continues the file's state; a log from
// another state (its checkpoint finished, or a stranger) is ignored.
std::int16_t TPager::ReadLog(std::vector<TLogRecord>* replay) {
    TFileSystem* fs = CurrentFileSystem();
    if (!fs->Exists(fLogPath)) return kEngineNoError;
    FileError error = FileError::kNone;
    std::unique_ptr<TFile> log = fs->Open(fLogPath, fReadOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite, &error);
    if (!log) return kFileNotOpened;
    std::uint64_t size = 0;
    if (!log->Size(&size)) return kFileNotOpened;
    std::uint8_t logHeader[kLogHeaderSize];
    std::size_t got = 0;
    const bool continues = size >= kLogHeaderSize && log->ReadAt(0, logHeader, kLogHeaderSize, &got) &&
                           got == kLogHeaderSize && std::memcmp(logHeader, kLogMagic, sizeof kLogMagic) == 0 &&
                           Get32(logHeader + 28) == Crc32c(0, logHeader, 28) && Get64(logHeader + 8) == fSequence;
    std::uint64_t offset = kLogHeaderSize;
    std::uint32_t chain = 0;
    if (continues) {
        fLogSalt = Get32(logHeader + 16);
        chain = Get32(logHeader + 28) ^ fLogSalt;
        while (offset + kFrameHeadSize + 4 <= size) {
            std::uint8_t head[kFrameHeadSize];
            if (!log->ReadAt(offset, head, kFrameHeadSize, &got) || got != kFrameHeadSize) break;
            const std::uint32_t length = Get32(head);
            if (length > kMaxFramePayload || offset + kFrameHeadSize + length + 4 > size) break;
            TLogRecord record{head[4], head[5], Get32(head + 8), {}};
            record.fPayload.resize(std::size_t{length} + 4);
            if (!log->ReadAt(offset + kFrameHeadSize, record.fPayload.data(), record.fPayload.size(), &got) ||
                got != record.fPayload.size())
                break;
            std::uint32_t crc = Crc32c(chain, head, kFrameHeadSize);
            crc = Crc32c(crc, record.fPayload.data(), length);
            if (crc != Get32(record.fPayload.data() + length)) break;
            if (record.fKind != kFrameAdd && record.fKind != kFrameRewrite && record.fKind != kFrameDelete) break;
            record.fPayload.resize(length);
            chain = crc;
            offset += kFrameHeadSize + length + 4;
            replay->push_back(std::move(record));
        }
    }
    if (fReadOnly) return kEngineNoError;
    // Writing goes on after the valid frames; a log that does not continue
    // the state starts afresh at the next write.
    fLog = std::move(log);
    if (continues) {
        if (!fLog->Truncate(offset)) return kFileNotOpened;
        fLogOffset = offset;
        fLogChain = chain;
        fLogSize = offset - kLogHeaderSize;
    } else {
        fLogOffset = 0;
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
    // which frees it, stays quick). It is cut to its header, not to nothing:
    // ext4 takes a file cut to nothing and written again for one being
    // replaced, and writes it out when it is closed; the close then waited
    // 20 ms for a log of 20 MB that was about to be removed.
    std::uint64_t size = 0;
    if (!fLog->Size(&size)) return kWriteFailed;
    if (size > (1u << 20) && !fLog->Truncate(kLogHeaderSize)) return kWriteFailed;
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
    if (page->fDirty) --fDirtyCount;
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
    TPage* page = nullptr;
    if (!gFramePoolGone && !gFramePool.fFrames.empty()) {
        page = gFramePool.fFrames.back();
        gFramePool.fFrames.pop_back();
    } else {
        page = new TPage;
        page->fData = new std::uint8_t[kPageSize];
    }
    fFrames.push_back(page);
    return page;
}

std::int16_t TPager::ReadPageFromFile(std::uint32_t number, std::uint8_t* into) {
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
    ++fStats.fPageVisits;
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
    const std::uint32_t lowest = fFree.Next(0);
    if (lowest != TPageSet::kNone) {
        fFree.Erase(lowest);
        return lowest;
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
    ++fStats.fPageVisits;
    ++fStats.fPagesAllocated;
    std::memset(frame->fData, 0, kPageSize);
    frame->fNumber = number;
    frame->fPins = 1;
    frame->fDirty = true;
    ++fDirtyCount;
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
    // Only a page allocated since the last checkpoint may change; the trees
    // copy any other first. A change to the last state's own page would be
    // a fault of the engine, and would make the state unsafe: refused.
    if (!page->fFresh) {
        Poison(kPageDamaged);
        return;
    }
    if (!page->fDirty) ++fDirtyCount;
    page->fDirty = true;
}

// Tests that ask for checkpoints every few pages get write-backs in between.
bool TPager::WriteBackDue() const {
    return !fReadOnly && fPoison == 0 &&
           fDirtyCount > fDirtyKept + std::min(kWriteBackPages, gCheckpointPages / 2);
}

// Writes changed pages to their places (each is new since the last
// checkpoint, so nothing depends on its place yet) and keeps them, clean.
// Interior pages stay changed while they are few: every operation changes
// the counts on its paths, so an interior page written now would only be
// written again by the next write-back (at a million records they were a
// third of what write-backs wrote).
std::int16_t TPager::WriteBack() {
    if (fReadOnly || fPoison != 0) return fPoison;
    std::vector<TImage> pages;
    std::vector<TPage*> written;
    std::vector<TPage*> interior;
    fPages.ForEach([&](TPage* page) {
        if (!page->fDirty) return;
        if (page->fData[kPageTypeAt] == kPageTypeInterior) {
            interior.push_back(page);
            return;
        }
        written.push_back(page);
    });
    if (interior.size() > kWriteBackPages / 2) {
        written.insert(written.end(), interior.begin(), interior.end());
        interior.clear();
    }
    for (TPage* page : written) {
        SealPage(page->fNumber, page->fData);
        pages.push_back(TImage{page->fNumber, page->fData, {}});
    }
    const std::int16_t error = WriteImagesToFile(pages);
    if (error != kEngineNoError) {
        Poison(error);
        return error;
    }
    if (!fFile->Sync()) {
        Poison(kWriteFailed);
        return kWriteFailed;
    }
    ++fStats.fSyncs;
    for (TPage* page : written) page->fDirty = false;
    fDirtyCount = interior.size();
    fDirtyKept = interior.size();
    return kEngineNoError;
}

void TPager::FreePage(std::uint32_t number) {
    if (TPage* page = fPages.Find(number)) Forget(page);
    if (fFresh.erase(number) != 0) {
        fFree.Insert(number);
    } else {
        fFreedSinceCheckpoint.push_back(number);
    }
}

std::uint32_t TPager::FreePageCount() const {
    return static_cast<std::uint32_t>(fFree.Size() + fFreedSinceCheckpoint.size());
}

std::vector<std::uint32_t> TPager::FreePages() const {
    std::vector<std::uint32_t> pages;
    pages.reserve(fFree.Size() + fFreedSinceCheckpoint.size());
    fFree.ForEach([&](std::uint32_t number) { pages.push_back(number); });
    pages.insert(pages.end(), fFreedSinceCheckpoint.begin(), fFreedSinceCheckpoint.end());
    return pages;
}

// ---------------------------------------------------------------------------
// Checkpoints

bool TPager::CheckpointDue() const {
    return !fReadOnly && fPoison == 0 && (fLogSize > kCheckpointLogBytes || fFresh.size() > gCheckpointPages);
}

bool TPager::HasChanges() const {
    return !fReadOnly && fPoison == 0 &&
           (fLogSize != 0 || !fFresh.empty() || !fFreedSinceCheckpoint.empty());
}

// The free set of the next checkpoint's state, laid out in new free-list
// pages taken from pages that nothing in the last checkpoint's state uses.
std::int16_t TPager::BuildFreeList(std::uint32_t* head, std::uint32_t* count, std::vector<TImage>* images) {
    TPageSet free = fFree;
    for (std::uint32_t number : fFreedSinceCheckpoint) free.Insert(number);
    for (std::uint32_t number : fFreeListPages) free.Insert(number);
    std::vector<std::uint32_t> listPages;
    std::uint32_t from = 0;
    for (;;) {
        const std::size_t needed = (free.Size() + kFreeEntriesPerPage - 1) / kFreeEntriesPerPage;
        if (listPages.size() >= needed) break;
        // Only pages free in the last checkpoint's state may be written now.
        std::uint32_t number = fFree.Next(from);
        if (number != TPageSet::kNone) {
            from = number + 1;
        } else {
            if (fPageCount == UINT32_MAX) return kFileFull;
            number = fPageCount++;
        }
        listPages.push_back(number);
        free.Erase(number);
    }
    std::vector<std::uint32_t> entries;
    entries.reserve(free.Size());
    free.ForEach([&](std::uint32_t number) { entries.push_back(number); });
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
    fFree = std::move(free);
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

std::int16_t TPager::Checkpoint(const std::vector<std::uint8_t>& catalog) { return Checkpoint(catalog, true); }

std::int16_t TPager::Checkpoint(const std::vector<std::uint8_t>& catalog, bool restartLog) {
    if (fReadOnly) return kEngineNoError;
    if (fPoison != 0) return fPoison;
    if (catalog.size() > kCatalogCapacity) return kBadArgument;
    if (!HasChanges() && catalog == fStoredCatalog) return kEngineNoError;

    std::int16_t error = kEngineNoError;
    const auto fail = [this](std::int16_t e) {
        Poison(e);
        return e;
    };
    // The second slot is made the twin of the first again (a loss of power
    // may have torn it since the last checkpoint), so that whatever happens
    // to the first slot below, one of them names a sound state.
    std::vector<std::uint8_t> twin = fCurrentHeader;
    if ((error = WritePageToFile(1, twin.data())) != kEngineNoError) return fail(error);
    // Every changed page, and the new free list, lies in pages the last
    // state does not use: they are written to their place, then synced.
    std::vector<TImage> pages;
    fPages.ForEach([&](TPage* page) {
        if (!page->fDirty) return;
        SealPage(page->fNumber, page->fData);
        pages.push_back(TImage{page->fNumber, page->fData, {}});
    });
    std::uint32_t freeHead = 0;
    std::uint32_t freeCount = 0;
    if ((error = BuildFreeList(&freeHead, &freeCount, &pages)) != kEngineNoError) return fail(error);
    for (TImage& image : pages) {
        if (!image.fOwned.empty()) SealPage(image.fNumber, image.fOwned.data());
    }
    if ((error = WriteImagesToFile(pages)) != kEngineNoError) return fail(error);
    // The file holds every page the header counts, free ones never written
    // included, so that a shorter file can only be a truncated one.
    std::uint64_t size = 0;
    if (!fFile->Size(&size)) return fail(kWriteFailed);
    if (size < std::uint64_t{fPageCount} * kPageSize && !fFile->Truncate(std::uint64_t{fPageCount} * kPageSize))
        return fail(kWriteFailed);
    if (!fFile->Sync()) return fail(kWriteFailed);

    // Then the first header slot names the new state and is synced, and the
    // second is made its twin (made durable by the next sync, at the latest
    // the next checkpoint's first). A slot torn on the way leaves the other,
    // which holds the old state or the new; one damaged later leaves its twin.
    std::vector<std::uint8_t> header(kPageSize);
    BuildHeader(header.data(), catalog, fSequence + 1, freeHead, freeCount);
    if ((error = WritePageToFile(0, header.data())) != kEngineNoError) return fail(error);
    if (!fFile->Sync()) return fail(kWriteFailed);
    fStats.fSyncs += 2;
    if ((error = WritePageToFile(1, header.data())) != kEngineNoError) return fail(error);
    fCurrentHeader = header;

    // The new state is the file's: the log starts afresh and every cached
    // page now belongs to it.
    ++fSequence;
    fStoredCatalog = catalog;
    if (restartLog && (error = StartLog()) != kEngineNoError) return fail(error);
    fPages.ForEach([](TPage* page) {
        page->fDirty = false;
        page->fFresh = false;
    });
    fDirtyCount = 0;
    fDirtyKept = 0;
    fFresh.clear();
    ++fStats.fCheckpoints;
    ++gCompletedCheckpoints;
    return kEngineNoError;
}

std::int16_t TPager::Close(const std::vector<std::uint8_t>& catalog) {
    // A file refused after a failed write or sync closes without its last
    // changes (the log may still bring them back) and says so: the caller
    // must not take the close for a durable one.
    std::int16_t error = fPoison;
    if (!fReadOnly && fPoison == 0) {
        // The log goes once the checkpoint is made, so it need not restart.
        error = Checkpoint(catalog, false);
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
