#include "engine/Pager.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <new>

#include "engine/Bytes.h"
#include "engine/Checksum.h"
#include "engine/EngineErrors.h"
#include "engine/EngineState.h"
#include "engine/StatusLog.h"

namespace engine {
namespace {

constexpr char kHostMagic[8] = {'k', 'a', 'v', 'o', 'D', 'V', 'D', 'B'};

// Header page fields (engine/FileFormat.md, "Header slots"). Every version
// keeps the magic and the version where they are, so that a file of another
// version is recognised as one.
constexpr std::uint32_t kHeaderVersionAt = 8;
constexpr std::uint32_t kHeaderPageSizeAt = 12;
constexpr std::uint32_t kHeaderSequenceAt = 16;
constexpr std::uint32_t kHeaderPageCountAt = 24;
constexpr std::uint32_t kHeaderFreeHeadAt = 28;
constexpr std::uint32_t kHeaderFreeCountAt = 32;
constexpr std::uint32_t kHeaderCatalogLengthAt = 36;
constexpr std::uint32_t kHeaderLogStartAt = 40;
constexpr std::uint32_t kHeaderLogPagesAt = 44;
constexpr std::uint32_t kHeaderLogSaltAt = 48;
constexpr std::uint32_t kHeaderCatalogAt = 64;

// Free-list pages: the common header, then page numbers.
constexpr std::uint32_t kFreeEntriesPerPage = (kPageBodySize - kPageHeaderSize) / 4;

// Log frames (engine/FileFormat.md, "Log frames"): a 24-byte head that
// checks itself, the payload, and a checksum of the payload chained to the
// head's.
constexpr std::uint32_t kFrameHeadSize = 24;
constexpr std::uint32_t kFrameTailSize = 4;
constexpr std::uint32_t kFrameHeadCrcAt = 20;
constexpr std::uint32_t kNextExtentFrameSize = kFrameHeadSize + 4 + kFrameTailSize;
constexpr std::uint32_t kMaxFramePayload = 0x40000000;
// The first extent is small, so that a small database stays small; the
// extents chained on it double up to the largest, or are as long as the one
// frame that needs them. The largest is kept small too: the log's extents are
// pages the file holds for the log until the next checkpoint, and an extent
// only begun holds its whole length.
constexpr std::uint32_t kFirstExtentPages = 16;
constexpr std::uint32_t kLargestChainedExtent = 256;
constexpr std::uint32_t kMaxExtentPages = 1u << 20;
// Frames up to this size are assembled and written in one call; longer ones
// go out in pieces straight from the caller's memory, so that a long record
// is never copied whole.
constexpr std::size_t kAssembledFrameLimit = 64 * 1024;
constexpr std::size_t kPieceSize = 1 << 20;
// Payloads up to this size are read whole for replay; longer ones are read
// from the file piece by piece as the trees take them.
constexpr std::size_t kReplayBufferLimit = 256 * 1024;
// Buffers grown beyond these sizes are given back once they are done with.
constexpr std::size_t kKeptFrameBuffer = kAssembledFrameLimit;
constexpr std::size_t kKeptRunBuffer = 256 * kPageSize;

// A checkpoint is due when the log passes this size or this many pages have
// been allocated (or copied) since the last one. The log lives in the file
// until the next checkpoint frees its extents, so its size is that much more
// file; the next checkpoint's data pages fill the extents freed. Between checkpoints, changed
// pages are written back to their places whenever this many have gathered,
// and synced: the checkpoint's sync (the close's too) then finds little left
// to do, while a page changed again and again until the next checkpoint is
// still copied only once. The sync is for the close, not for safety (nothing
// durable names a written-back page before the next checkpoint); without it,
// a close flushes up to a whole checkpoint's pages. The size of a write-back
// bounds the work left to the close.
constexpr std::uint64_t kCheckpointLogBytes = 6ull << 20;
constexpr std::size_t kCheckpointPages = 8192;
constexpr std::size_t kWriteBackPages = 768;
// Removing records frees pages only at the next checkpoint. When the free
// pages fall below what one operation may need while this many freed pages
// wait, a checkpoint comes first, so that removals reuse the file's own
// pages instead of growing it; the wait is long enough that the checkpoints
// stay rare.
constexpr std::size_t kAllocationReserve = 64;
constexpr std::size_t kReclaimPages = 512;
// A checkpoint refused (a full disk, say) is tried again after this many
// more operations, not after every one.
constexpr std::uint64_t kFramesBeforeRetry = 256;
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

// A log salt no earlier log of this file is likely to have had: frames of an
// earlier interval left in an extent never pass for this one's.
std::uint32_t NewSalt(std::uint64_t sequence, const void* owner) {
    std::uint8_t seed[24];
    Put64(seed, static_cast<std::uint64_t>(std::time(nullptr)));
    Put64(seed + 8, sequence);
    Put32(seed + 16, ++gSaltCounter);
    Put32(seed + 20, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(owner)));
    const std::uint32_t salt = Crc32c(0x5EED, seed, sizeof seed) * 0x9E3779B1u;
    return salt != 0 ? salt : 1;
}

std::uint64_t PageOffset(std::uint32_t number) { return std::uint64_t{number} * kPageSize; }

void PutFrameHead(std::uint8_t* head, std::uint32_t salt, std::uint32_t number, std::uint32_t length,
                  std::uint8_t kind, std::uint8_t member, std::uint32_t aux, std::uint8_t flags = 0) {
    std::memset(head, 0, kFrameHeadSize);
    Put32(head, salt);
    Put32(head + 4, number);
    Put32(head + 8, length);
    head[12] = kind;
    head[13] = member;
    head[14] = flags;
    Put32(head + 16, aux);
    Put32(head + kFrameHeadCrcAt, Crc32c(0, head, kFrameHeadCrcAt));
}

bool FrameHeadIsValid(const std::uint8_t* head, std::uint32_t salt, std::uint32_t number) {
    return Get32(head) == salt && Get32(head + 4) == number &&
           Get32(head + kFrameHeadCrcAt) == Crc32c(0, head, kFrameHeadCrcAt);
}

bool KnownFrameKind(std::uint8_t kind) {
    return kind == kFrameAdd || kind == kFrameRewrite || kind == kFrameDelete || kind == kFrameNextExtent ||
           kind == kFrameGroupBegin || kind == kFrameGroupEnd;
}

bool IsOperation(std::uint8_t kind) { return kind == kFrameAdd || kind == kFrameRewrite || kind == kFrameDelete; }

// Bytes of a frame in the file, for replay.
class TFileBytes : public TByteSource {
public:
    TFileBytes(TFile* file, std::uint64_t base) : fFile(file), fBase(base) {}
    bool Read(std::uint64_t offset, std::uint8_t* out, std::uint32_t length) const override {
        std::size_t got = 0;
        return fFile->ReadAt(fBase + offset, out, length, &got) && got == length;
    }

private:
    TFile* fFile;
    std::uint64_t fBase;
};

void ShrinkBuffer(std::vector<std::uint8_t>* buffer, std::size_t kept) {
    if (buffer->capacity() > kept) std::vector<std::uint8_t>().swap(*buffer);
}

}  // namespace

bool TMemoryBytes::Read(std::uint64_t offset, std::uint8_t* out, std::uint32_t length) const {
    if (offset + length > Length()) return false;
    if (offset < fFirstLength) {
        const std::uint32_t take = std::min<std::uint32_t>(length, fFirstLength - static_cast<std::uint32_t>(offset));
        std::memcpy(out, fFirst + offset, take);
        out += take;
        length -= take;
        offset = fFirstLength;
    }
    if (length != 0) std::memcpy(out, fSecond + (offset - fFirstLength), length);
    return true;
}

std::string TReplayReport::Describe() const {
    if (!fStoppedAtDamage) return std::string();
    std::string text = "the log's frame " + std::to_string(fDamagedFrame) + " is damaged or incomplete; " +
                       std::to_string(fFrames) + " operations were redone before it";
    if (fLaterFramesLost) text += ", and the whole frames after it were lost";
    return text;
}

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

// ---------------------------------------------------------------------------
// Page table and page set

void TPageTable::Grow() {
    // The new table is filled before it replaces the old one, so that a
    // failed allocation leaves the table as it was.
    std::vector<TPage*> slots(fSlots.empty() ? 64 : fSlots.size() * 2, nullptr);
    const std::size_t mask = slots.size() - 1;
    for (TPage* page : fSlots) {
        if (page == nullptr) continue;
        std::size_t i = static_cast<std::size_t>((page->fNumber * 0x9E3779B1u) >> 7) & mask;
        while (slots[i] != nullptr) i = (i + 1) & mask;
        slots[i] = page;
    }
    fSlots.swap(slots);
    fMask = mask;
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

std::uint32_t TPageSet::FindRun(std::uint32_t length) const {
    if (length == 0 || fCount < length) return kNone;
    std::uint32_t start = Next(0);
    while (start != kNone) {
        std::uint32_t end = start + 1;
        while (end - start < length && Contains(end)) ++end;
        if (end - start == length) return start;
        start = Next(end);
    }
    return kNone;
}

// ---------------------------------------------------------------------------
// Settings and the frame pool

void TPager::SetCacheCapacity(std::size_t pages) { gCacheCapacity = pages < 16 ? 16 : pages; }
void TPager::SetCheckpointPages(std::size_t pages) { gCheckpointPages = pages == 0 ? kCheckpointPages : pages; }
std::uint64_t TPager::CompletedCheckpoints() { return gCompletedCheckpoints; }
std::size_t TPager::CacheCapacity() { return gCacheCapacity; }

TPager::TPager(const std::string& path, bool readOnly) : fPath(path), fReadOnly(readOnly) {}

TPager::~TPager() {
    for (TPage* page : fFrames) {
        bool pooled = false;
        if (!gFramePoolGone && gFramePool.fFrames.size() < gCacheCapacity) {
            try {
                gFramePool.fFrames.push_back(page);
                pooled = true;
            } catch (const std::bad_alloc&) {
            }
        }
        if (pooled) {
            std::uint8_t* data = page->fData;
            *page = TPage{};
            page->fData = data;
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
    TFileSystem* fs = CurrentFileSystem();
    if (fs->Exists(path)) return kFileNotCreated;
    FileError error = FileError::kNone;
    made->fFile = fs->CreateUnnamed(path, &error);
    if (!made->fFile) return error == FileError::kNoMemory ? kEngineOutOfMemory : kFileNotCreated;
    made->fSequence = 1;
    made->fPageCount = kFirstDataPage + kFirstExtentPages;
    made->fExtents.assign(1, TLogExtent{kFirstDataPage, kFirstExtentPages});
    const std::uint32_t salt = NewSalt(made->fSequence, made.get());
    // Both slots hold the empty state; the file holds every page it counts.
    std::vector<std::uint8_t> slot(kPageSize, 0);
    bool written = true;
    for (std::uint32_t number = 0; number < kFirstDataPage && written; ++number) {
        made->BuildHeader(slot.data(), {}, made->fSequence, made->fPageCount, 0, 0, salt);
        written = made->WritePageToFile(number, slot.data()) == kEngineNoError;
    }
    if (!written || !made->fFile->Truncate(PageOffset(made->fPageCount))) return kFileNotCreated;
    made->fCurrentHeader = slot;
    made->fCheckpointPageCount = made->fPageCount;
    made->StartLog(salt);
    made->fLogRenewed = true;
    *pager = std::move(made);
    return kEngineNoError;
}

std::int16_t TPager::Open(const std::string& path, bool readOnly, std::unique_ptr<TPager>* pager,
                          std::string* problem) {
    std::string ignored;
    if (problem == nullptr) problem = &ignored;
    problem->clear();
    std::unique_ptr<TPager> made(new TPager(path, readOnly));
    FileError error = FileError::kNone;
    made->fFile = CurrentFileSystem()->Open(path, readOnly ? OpenMode::kReadOnly : OpenMode::kReadWrite, &error);
    if (!made->fFile) {
        if (error == FileError::kNoMemory) return kEngineOutOfMemory;
        if (error == FileError::kLocked) *problem = "in use by another program";
        return kFileNotOpened;
    }
    if (made->ReadHeaders(problem) != kEngineNoError) return kFileNotOpened;
    made->fCheckpointFree = made->fFree;
    made->fCheckpointPageCount = made->fPageCount;
    made->fPublished = true;
    *pager = std::move(made);
    return kEngineNoError;
}

void TPager::BuildHeader(std::uint8_t* page, const std::vector<std::uint8_t>& catalog, std::uint64_t sequence,
                         std::uint32_t pageCount, std::uint32_t freeHead, std::uint32_t freeCount,
                         std::uint32_t salt) const {
    std::memset(page, 0, kPageSize);
    std::memcpy(page, kHostMagic, sizeof kHostMagic);
    Put32(page + kHeaderVersionAt, kFormatVersion);
    Put32(page + kHeaderPageSizeAt, kPageSize);
    Put64(page + kHeaderSequenceAt, sequence);
    Put32(page + kHeaderPageCountAt, pageCount);
    Put32(page + kHeaderFreeHeadAt, freeHead);
    Put32(page + kHeaderFreeCountAt, freeCount);
    Put32(page + kHeaderCatalogLengthAt, static_cast<std::uint32_t>(catalog.size()));
    Put32(page + kHeaderLogStartAt, fExtents.front().fStart);
    Put32(page + kHeaderLogPagesAt, fExtents.front().fPages);
    Put32(page + kHeaderLogSaltAt, salt);
    if (!catalog.empty()) std::memcpy(page + kHeaderCatalogAt, catalog.data(), catalog.size());
}

// Checks a header slot and, when it holds, gives its sequence number. A slot
// with the magic gives its version whether it holds or not.
bool TPager::ParseHeader(const std::uint8_t* page, std::uint64_t* sequence, std::uint32_t* version) const {
    if (std::memcmp(page, kHostMagic, sizeof kHostMagic) != 0) return false;
    *version = Get32(page + kHeaderVersionAt);
    if (*version != kFormatVersion || Get32(page + kHeaderPageSizeAt) != kPageSize) return false;
    const std::uint32_t pageCount = Get32(page + kHeaderPageCountAt);
    const std::uint32_t freeHead = Get32(page + kHeaderFreeHeadAt);
    const std::uint32_t freeCount = Get32(page + kHeaderFreeCountAt);
    const std::uint32_t catalogLength = Get32(page + kHeaderCatalogLengthAt);
    const std::uint32_t logStart = Get32(page + kHeaderLogStartAt);
    const std::uint32_t logPages = Get32(page + kHeaderLogPagesAt);
    // A free list may be one page listing nothing: the only free page went
    // to hold the list.
    if (pageCount < kFirstDataPage || freeCount >= pageCount || freeHead >= pageCount ||
        catalogLength > kCatalogCapacity || (freeCount != 0 && freeHead == 0) ||
        (freeHead != 0 && freeHead < kFirstDataPage))
        return false;
    if (logStart < kFirstDataPage || logPages == 0 || logPages > kMaxExtentPages || logStart > pageCount ||
        logPages > pageCount - logStart || (freeHead >= logStart && freeHead < logStart + logPages))
        return false;
    *sequence = Get64(page + kHeaderSequenceAt);
    return true;
}

// The state is the slot with the higher sequence number of those that hold
// and whose pages the file holds: the two are twins but while a checkpoint
// writes them.
std::int16_t TPager::ReadHeaders(std::string* problem) {
    std::vector<std::uint8_t> slots[kFirstDataPage];
    std::uint64_t fileSize = 0;
    if (!fFile->Size(&fileSize)) {
        *problem = "its size cannot be read";
        return kFileNotOpened;
    }
    std::int32_t chosen = -1;
    std::uint64_t best = 0;
    std::uint32_t otherVersion = 0;
    bool shortFile = false;
    for (std::uint32_t number = 0; number < kFirstDataPage; ++number) {
        slots[number].resize(kPageSize);
        std::uint64_t sequence = 0;
        std::uint32_t version = 0;
        std::size_t got = 0;
        if (!fFile->ReadAt(PageOffset(number), slots[number].data(), kPageSize, &got) || got != kPageSize) continue;
        const bool holds = ParseHeader(slots[number].data(), &sequence, &version) &&
                           PageSealIsValid(number, slots[number].data());
        if (!holds) {
            // A slot with the magic says which version wrote it, even when
            // this version cannot check its seal.
            if (version != 0 && version != kFormatVersion) otherVersion = version;
            continue;
        }
        if (fileSize < PageOffset(Get32(slots[number].data() + kHeaderPageCountAt))) {
            shortFile = true;
            continue;
        }
        if (chosen < 0 || sequence > best) {
            chosen = static_cast<std::int32_t>(number);
            best = sequence;
        }
    }
    if (chosen < 0) {
        if (otherVersion != 0) {
            *problem = "database format version " + std::to_string(otherVersion) + "; this library reads version " +
                       std::to_string(kFormatVersion);
        } else if (shortFile) {
            *problem = "cut short: the file holds fewer pages than its header counts";
        } else if (std::memcmp(slots[0].data(), kHostMagic, sizeof kHostMagic) != 0 &&
                   std::memcmp(slots[1].data(), kHostMagic, sizeof kHostMagic) != 0) {
            *problem = "not a database of this library";
        } else {
            *problem = "damaged: neither header slot holds";
        }
        return kFileNotOpened;
    }
    const std::uint8_t* page = slots[chosen].data();
    fSequence = best;
    fPageCount = Get32(page + kHeaderPageCountAt);
    fCurrentHeader = slots[chosen];
    fCurrentSlot = static_cast<std::uint32_t>(chosen);
    const std::uint32_t catalogLength = Get32(page + kHeaderCatalogLengthAt);
    fStoredCatalog.assign(page + kHeaderCatalogAt, page + kHeaderCatalogAt + catalogLength);
    fExtents.assign(1, TLogExtent{Get32(page + kHeaderLogStartAt), Get32(page + kHeaderLogPagesAt)});
    StartLog(Get32(page + kHeaderLogSaltAt));
    if (LoadFreeList(Get32(page + kHeaderFreeHeadAt), Get32(page + kHeaderFreeCountAt)) != kEngineNoError) {
        *problem = "damaged: its free list does not hold";
        return kFileNotOpened;
    }
    return kEngineNoError;
}

std::int16_t TPager::LoadFreeList(std::uint32_t head, std::uint32_t count) {
    fFree.Clear();
    fFreeListPages.clear();
    const TLogExtent& log = fExtents.front();
    const auto inLog = [&](std::uint32_t number) { return number >= log.fStart && number < log.End(); };
    std::vector<std::uint8_t> page(kPageSize);
    TPageSet seen;
    std::uint32_t remaining = count;
    for (std::uint32_t number = head; number != 0;) {
        if (number < kFirstDataPage || number >= fPageCount || inLog(number) || !seen.Insert(number))
            return kFileNotOpened;
        if (ReadPageFromFile(number, page.data()) != kEngineNoError) return kFileNotOpened;
        const std::uint32_t entries = Get16(page.data() + kPageCountAt);
        if (page[kPageTypeAt] != kPageTypeFreeList || entries > kFreeEntriesPerPage || entries > remaining)
            return kFileNotOpened;
        fFreeListPages.push_back(number);
        for (std::uint32_t i = 0; i < entries; ++i) {
            const std::uint32_t free = Get32(page.data() + kPageHeaderSize + 4 * i);
            if (free < kFirstDataPage || free >= fPageCount || inLog(free) || !fFree.Insert(free))
                return kFileNotOpened;
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

void TPager::StartLog(std::uint32_t salt) {
    fLogSalt = salt;
    fExtents.resize(1);
    fFrameNumber = 0;
    fLogOffset = PageOffset(fExtents.front().fStart);
    fLogLimit = PageOffset(fExtents.front().End()) - kNextExtentFrameSize;
    fLogSize = 0;
}

struct TPager::TScan {
    std::uint32_t fFrames = 0;      // whole frames, next-extent frames included
    std::uint64_t fEnd = 0;         // where the first frame that is not whole begins
    std::uint64_t fLimit = 0;       // where frames of its extent must end
    std::vector<TLogExtent> fChained;
    TReplayReport fReport;
};

// Pages the last checkpoint's state does not use: an extent chained on the
// log must lie in them, and apart from the log's other extents.
bool TPager::ExtentIsFree(const TLogExtent& extent) const {
    if (extent.fStart < kFirstDataPage || extent.fPages == 0 || extent.fPages > kMaxExtentPages ||
        extent.fStart > UINT32_MAX - extent.fPages)
        return false;
    for (std::uint32_t number = extent.fStart; number < extent.End(); ++number) {
        if (number < fCheckpointPageCount && !fCheckpointFree.Contains(number)) return false;
    }
    return true;
}

// Walks the log from its first extent, checking every frame whole, without
// keeping more than a piece of it in memory. A frame that does not belong to
// this log (another salt or number: an earlier log's, or bytes never
// written) ends it; one that belongs to it but is not whole (its checksum
// fails, it runs past its extent, it names an impossible extent) stops the
// replay there, and the rest of the extent is searched for later frames of
// this log, which would be operations lost.
std::int16_t TPager::ScanLog(TScan* scan) {
    std::vector<std::uint8_t>& piece = fFrameBuffer;
    piece.resize(std::min<std::size_t>(kAssembledFrameLimit, kPieceSize));
    const TLogExtent first = fExtents.front();
    std::uint64_t offset = PageOffset(first.fStart);
    std::uint64_t limit = PageOffset(first.End()) - kNextExtentFrameSize;
    std::uint32_t number = 0;
    bool damaged = false;
    for (;;) {
        std::uint8_t head[kFrameHeadSize];
        std::size_t got = 0;
        if (offset + kFrameHeadSize > limit + kNextExtentFrameSize) break;
        if (!fFile->ReadAt(offset, head, kFrameHeadSize, &got)) return kPageDamaged;
        if (got != kFrameHeadSize || !FrameHeadIsValid(head, fLogSalt, number)) break;
        const std::uint32_t length = Get32(head + 8);
        const std::uint8_t kind = head[12];
        const std::uint64_t total = std::uint64_t{kFrameHeadSize} + length + kFrameTailSize;
        const std::uint64_t allowed = kind == kFrameNextExtent ? limit + kNextExtentFrameSize : limit;
        if (!KnownFrameKind(kind) || length > kMaxFramePayload || offset + total > allowed ||
            (kind == kFrameNextExtent && length != 4) || (!IsOperation(kind) && kind != kFrameNextExtent && length != 0)) {
            damaged = true;
            break;
        }
        std::uint32_t crc = Get32(head + kFrameHeadCrcAt);
        std::uint64_t at = offset + kFrameHeadSize;
        bool whole = true;
        for (std::uint32_t left = length; left > 0 && whole;) {
            const auto take = static_cast<std::uint32_t>(std::min<std::size_t>(left, piece.size()));
            whole = fFile->ReadAt(at, piece.data(), take, &got) && got == take;
            if (whole) crc = Crc32c(crc, piece.data(), take);
            at += take;
            left -= take;
        }
        std::uint8_t tail[kFrameTailSize];
        std::uint8_t pages[4] = {};
        whole = whole && fFile->ReadAt(at, tail, kFrameTailSize, &got) && got == kFrameTailSize && Get32(tail) == crc;
        TLogExtent next;
        if (whole && kind == kFrameNextExtent) {
            whole = fFile->ReadAt(offset + kFrameHeadSize, pages, 4, &got) && got == 4;
            next = TLogExtent{Get32(head + 16), Get32(pages)};
            whole = whole && ExtentIsFree(next) &&
                    !(next.fStart < first.End() && first.fStart < next.End());
            for (const TLogExtent& other : scan->fChained)
                whole = whole && !(next.fStart < other.End() && other.fStart < next.End());
        }
        if (!whole) {
            damaged = true;
            // Its length is trustworthy (its head holds): look just past it.
            std::uint8_t after[kFrameHeadSize];
            if (kind != kFrameNextExtent && fFile->ReadAt(offset + total, after, kFrameHeadSize, &got) &&
                got == kFrameHeadSize && FrameHeadIsValid(after, fLogSalt, number + 1))
                scan->fReport.fLaterFramesLost = true;
            break;
        }
        scan->fReport.fBytes += total;
        ++number;
        if (kind == kFrameNextExtent) {
            scan->fChained.push_back(next);
            offset = PageOffset(next.fStart);
            limit = PageOffset(next.End()) - kNextExtentFrameSize;
        } else {
            if (IsOperation(kind)) ++scan->fReport.fFrames;
            offset += total;
        }
    }
    scan->fFrames = number;
    scan->fEnd = offset;
    scan->fLimit = limit;
    scan->fReport.fStoppedAtDamage = damaged;
    scan->fReport.fDamagedFrame = number;
    if (!scan->fReport.fLaterFramesLost) {
        // A frame of this log further on in the extent means that the one
        // here was damaged where it cannot even be read as a frame.
        const std::uint64_t end = limit + kNextExtentFrameSize;
        for (std::uint64_t at = offset + 1; at + kFrameHeadSize <= end;) {
            const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(piece.size(), end - at));
            std::size_t got = 0;
            if (!fFile->ReadAt(at, piece.data(), want, &got) || got < kFrameHeadSize) break;
            for (std::size_t i = 0; i + kFrameHeadSize <= got; ++i) {
                const std::uint8_t* head = piece.data() + i;
                if (Get32(head) == fLogSalt && Get32(head + 4) > number &&
                    FrameHeadIsValid(head, fLogSalt, Get32(head + 4))) {
                    scan->fReport.fStoppedAtDamage = true;
                    scan->fReport.fLaterFramesLost = true;
                    break;
                }
            }
            if (scan->fReport.fLaterFramesLost || got < want) break;
            at += got - (kFrameHeadSize - 1);
        }
    }
    return kEngineNoError;
}

// The extents a replayed log chained on leave the free pages; the pages of
// the file's end that they lie beyond join them, as the log found them.
std::int16_t TPager::ReserveExtents(const std::vector<TLogExtent>& extents) {
    std::uint32_t count = fPageCount;
    for (const TLogExtent& extent : extents) count = std::max(count, extent.End());
    for (std::uint32_t number = fPageCount; number < count; ++number) fFree.Insert(number);
    fPageCount = count;
    for (const TLogExtent& extent : extents) {
        for (std::uint32_t number = extent.fStart; number < extent.End(); ++number) fFree.Erase(number);
        fExtents.push_back(extent);
    }
    return kEngineNoError;
}

std::int16_t TPager::ReplayLog(const TApplyFrame& apply) {
    fReplay = TReplayReport{};
    TScan scan;
    std::int16_t error = ScanLog(&scan);
    if (error != kEngineNoError) return error;
    fExtents.resize(1);
    if ((error = ReserveExtents(scan.fChained)) != kEngineNoError) return error;
    ++fChanges;

    // Every frame up to the stop is whole: its head and lengths are trusted.
    // The held frames of an open group wait (where they lie) for its end.
    struct THeldFrame {
        std::uint64_t fOffset;
        TLogFrame fFrame;
    };
    std::vector<THeldFrame> held;
    bool inGroup = false;
    const auto redo = [&](std::uint64_t offset, TLogFrame frame) -> std::int16_t {
        const std::uint64_t payload = offset + kFrameHeadSize;
        const std::uint32_t length = frame.fLength;
        std::unique_ptr<TByteSource> source;
        std::size_t got = 0;
        if (length <= kReplayBufferLimit) {
            fFrameBuffer.resize(length);
            if (length != 0 && (!fFile->ReadAt(payload, fFrameBuffer.data(), length, &got) || got != length))
                return kPageDamaged;
            source.reset(new TMemoryBytes(fFrameBuffer.data(), length));
        } else {
            source.reset(new TFileBytes(fFile.get(), payload));
        }
        frame.fPayload = source.get();
        return apply(frame);
    };
    std::uint64_t offset = PageOffset(fExtents.front().fStart);
    std::size_t chained = 0;
    for (std::uint32_t number = 0; number < scan.fFrames; ++number) {
        std::uint8_t head[kFrameHeadSize];
        std::size_t got = 0;
        if (!fFile->ReadAt(offset, head, kFrameHeadSize, &got) || got != kFrameHeadSize) return kPageDamaged;
        const std::uint32_t length = Get32(head + 8);
        const TLogFrame frame{head[12], head[13], Get32(head + 16), length, nullptr};
        if (frame.fKind == kFrameNextExtent) {
            offset = PageOffset(scan.fChained[chained++].fStart);
            continue;
        }
        if (frame.fKind == kFrameGroupBegin) {
            held.clear();
            inGroup = true;
        } else if (frame.fKind == kFrameGroupEnd) {
            for (const THeldFrame& h : held)
                if (inGroup && (error = redo(h.fOffset, h.fFrame)) != kEngineNoError) return error;
            held.clear();
            inGroup = false;
        } else if ((head[14] & kFrameHeld) != 0) {
            if (inGroup) held.push_back(THeldFrame{offset, frame});
        } else {
            held.clear();
            inGroup = false;
            if ((error = redo(offset, frame)) != kEngineNoError) return error;
        }
        offset += kFrameHeadSize + std::uint64_t{length} + kFrameTailSize;
    }
    fReplay.fDroppedFrames = static_cast<std::uint32_t>(held.size());
    ShrinkBuffer(&fFrameBuffer, kKeptFrameBuffer);
    fFrameNumber = scan.fFrames;
    fLogOffset = scan.fEnd;
    fLogLimit = scan.fLimit;
    fLogSize = scan.fReport.fBytes;
    const std::uint32_t dropped = fReplay.fDroppedFrames;
    fReplay = scan.fReport;
    fReplay.fDroppedFrames = dropped;
    return kEngineNoError;
}

std::int16_t TPager::RenewLog() {
    if (!LogNeedsRenewal()) return kEngineNoError;
    if (fPoison != 0) return fPoison;
    // Only straight after an open that redid nothing: the state is the
    // header's, and the log has no extent but its first.
    if (HasChanges()) return kBadArgument;
    std::vector<std::uint8_t> header;
    try {
        header = fCurrentHeader;
    } catch (const std::bad_alloc&) {
        return kEngineOutOfMemory;
    }
    const std::uint32_t salt = NewSalt(fSequence + 1, this);
    Put64(header.data() + kHeaderSequenceAt, fSequence + 1);
    Put32(header.data() + kHeaderLogSaltAt, salt);
    const std::uint32_t slot = 1 - fCurrentSlot;
    const std::int16_t error = WritePageToFile(slot, header.data());
    if (error != kEngineNoError) return error;
    if (!fFile->Sync()) return Refuse(kWriteFailed);
    ++fStats.fSyncs;
    ++fSequence;
    fCurrentHeader.swap(header);
    fCurrentSlot = slot;
    StartLog(salt);
    fLogRenewed = true;
    return kEngineNoError;
}

// A new extent for the log, at least long enough for a frame of frameBytes,
// named by a frame at the end of the current one.
std::int16_t TPager::ChainExtent(std::uint64_t frameBytes) {
    const std::uint64_t needed = (frameBytes + kNextExtentFrameSize + kPageSize - 1) / kPageSize;
    const std::uint32_t doubled = std::min(kLargestChainedExtent, 2 * std::max(fExtents.back().fPages, kFirstExtentPages));
    if (needed > kMaxExtentPages) return kBadArgument;
    const std::uint32_t pages = std::max(static_cast<std::uint32_t>(needed), doubled);
    std::uint32_t start = fFree.FindRun(pages);
    const bool atEnd = start == TPageSet::kNone;
    if (atEnd) {
        if (fPageCount > UINT32_MAX - pages) return kFileFull;
        start = fPageCount;
    }
    std::uint8_t frame[kNextExtentFrameSize];
    PutFrameHead(frame, fLogSalt, fFrameNumber, 4, kFrameNextExtent, 0, start);
    Put32(frame + kFrameHeadSize, pages);
    Put32(frame + kFrameHeadSize + 4, Crc32c(Get32(frame + kFrameHeadCrcAt), frame + kFrameHeadSize, 4));
    if (!fFile->WriteAt(fLogOffset, frame, sizeof frame)) return kWriteFailed;
    if (atEnd) {
        fPageCount += pages;
    } else {
        for (std::uint32_t number = start; number < start + pages; ++number) fFree.Erase(number);
    }
    fExtents.push_back(TLogExtent{start, pages});
    ++fFrameNumber;
    fLogSize += sizeof frame;
    fLogOffset = PageOffset(start);
    fLogLimit = PageOffset(start + pages) - kNextExtentFrameSize;
    return kEngineNoError;
}

std::int16_t TPager::WriteFrameBytes(std::uint8_t kind, std::uint8_t member, std::uint32_t aux,
                                     const TMemoryBytes& payload, std::uint8_t flags) {
    const std::uint32_t length = payload.Length();
    const std::size_t total = kFrameHeadSize + std::size_t{length} + kFrameTailSize;
    if (total <= kAssembledFrameLimit) {
        fFrameBuffer.resize(total);
        std::uint8_t* frame = fFrameBuffer.data();
        PutFrameHead(frame, fLogSalt, fFrameNumber, length, kind, member, aux, flags);
        if (length != 0) payload.Read(0, frame + kFrameHeadSize, length);
        const std::uint32_t crc = Crc32c(Get32(frame + kFrameHeadCrcAt), frame + kFrameHeadSize, length);
        Put32(frame + kFrameHeadSize + length, crc);
        return fFile->WriteAt(fLogOffset, frame, total) ? kEngineNoError : kWriteFailed;
    }
    std::uint8_t head[kFrameHeadSize];
    PutFrameHead(head, fLogSalt, fFrameNumber, length, kind, member, aux, flags);
    std::uint32_t crc = Get32(head + kFrameHeadCrcAt);
    if (!fFile->WriteAt(fLogOffset, head, kFrameHeadSize)) return kWriteFailed;
    std::uint64_t at = fLogOffset + kFrameHeadSize;
    const std::uint8_t* runs[2] = {payload.First(), payload.Second()};
    const std::uint32_t lengths[2] = {payload.FirstLength(), payload.SecondLength()};
    for (int run = 0; run < 2; ++run) {
        for (std::uint32_t done = 0; done < lengths[run];) {
            const auto take = static_cast<std::uint32_t>(std::min<std::size_t>(lengths[run] - done, kPieceSize));
            crc = Crc32c(crc, runs[run] + done, take);
            if (!fFile->WriteAt(at, runs[run] + done, take)) return kWriteFailed;
            at += take;
            done += take;
        }
    }
    std::uint8_t tail[kFrameTailSize];
    Put32(tail, crc);
    return fFile->WriteAt(at, tail, kFrameTailSize) ? kEngineNoError : kWriteFailed;
}

std::int16_t TPager::AppendLog(std::uint8_t kind, std::uint8_t member, std::uint32_t aux,
                               const TMemoryBytes& payload, std::uint8_t flags) {
    if (fReadOnly) return kNoWritePermission;
    if (fPoison != 0) return fPoison;
    if (payload.Length() > kMaxFramePayload) return kBadArgument;
    const std::uint64_t total = std::uint64_t{kFrameHeadSize} + payload.Length() + kFrameTailSize;
    std::int16_t error = kEngineNoError;
    if (fLogOffset + total > fLogLimit && (error = ChainExtent(total)) != kEngineNoError) return error;
    error = WriteFrameBytes(kind, member, aux, payload, flags);
    if (fFrameBuffer.capacity() > kKeptFrameBuffer) ShrinkBuffer(&fFrameBuffer, kKeptFrameBuffer);
    if (error != kEngineNoError) {
        // Whatever reached the file of the frame is voided where it can be,
        // so that it never reads as a damaged frame; the next frame takes its
        // place.
        std::uint8_t voided[4];
        Put32(voided, ~fLogSalt);
        fFile->WriteAt(fLogOffset, voided, sizeof voided);
        return error;
    }
    fLogOffset += total;
    fLogSize += total;
    ++fFrameNumber;
    if (IsOperation(kind)) ++fStats.fLogFrames;
    fStats.fLogBytes += total;
    return kEngineNoError;
}

// ---------------------------------------------------------------------------
// The cache

void TPager::Forget(TPage* page) {
    if (page->fDirty) --fDirtyCount;
    fPages.Erase(page->fNumber);
    page->fDirty = page->fFresh = page->fChecked = page->fReferenced = page->fInUse = false;
    page->fPins = 0;
    fSpareFrames.push_back(page);  // never grows: it holds at most every frame, and has room for them
}

// Frees frames while the cache is full: the clock hand passes over pinned
// pages and changed pages of the last checkpoint's state, gives each used
// page one more round, and evicts the first page it finds unused (writing it
// first when it was allocated since the last checkpoint: nothing depends on
// its place in the file yet; a page that cannot be written stays). When a
// whole sweep finds nothing to evict, the cache grows past its size by an
// eighth before the hand sweeps again, so that a cache of pages that cannot
// go (a read-only replay's, say) costs a sweep per eighth, not per page.
void TPager::MakeRoom() {
    const auto inUse = [this] { return fFrames.size() - fSpareFrames.size(); };
    if (inUse() < gCacheCapacity) return;
    if (fGrowAllowance > 0) {
        --fGrowAllowance;
        return;
    }
    std::size_t budget = 2 * fFrames.size();
    while (inUse() >= gCacheCapacity && budget-- > 0) {
        if (fHand >= fFrames.size()) fHand = 0;
        TPage* page = fFrames[fHand++];
        ++fStats.fCacheSweeps;
        if (!page->fInUse || page->fPins > 0 || !Evictable(page)) continue;
        if (page->fReferenced) {
            page->fReferenced = false;
            continue;
        }
        if (page->fDirty && WritePageToFile(page->fNumber, page->fData) != kEngineNoError) {
            page->fReferenced = true;
            continue;
        }
        Forget(page);
    }
    if (inUse() >= gCacheCapacity) fGrowAllowance = std::max<std::size_t>(16, fFrames.size() / 8);
}

TPage* TPager::NewFrame(std::int16_t* error) {
    *error = kEngineNoError;
    MakeRoom();
    if (!fSpareFrames.empty()) {
        TPage* page = fSpareFrames.back();
        fSpareFrames.pop_back();
        return page;
    }
    TPage* page = nullptr;
    try {
        // Both lists have room for every frame, so that Forget never allocates.
        if (fFrames.size() == fFrames.capacity()) fFrames.reserve(2 * fFrames.size() + 64);
        if (fSpareFrames.capacity() < fFrames.capacity()) fSpareFrames.reserve(fFrames.capacity());
        if (!gFramePoolGone && !gFramePool.fFrames.empty()) {
            page = gFramePool.fFrames.back();
            gFramePool.fFrames.pop_back();
        } else {
            std::unique_ptr<TPage> made(new TPage);
            made->fData = new std::uint8_t[kPageSize];
            page = made.release();
        }
        fFrames.push_back(page);
    } catch (const std::bad_alloc&) {
        *error = kEngineOutOfMemory;
        return nullptr;
    }
    return page;
}

std::int16_t TPager::ReadPageFromFile(std::uint32_t number, std::uint8_t* into) {
    std::size_t got = 0;
    if (!fFile->ReadAt(PageOffset(number), into, kPageSize, &got) || got != kPageSize) return kPageDamaged;
    ++fStats.fPagesRead;
    return PageSealIsValid(number, into) ? kEngineNoError : kPageDamaged;
}

std::int16_t TPager::WritePageToFile(std::uint32_t number, std::uint8_t* data) {
    SealPage(number, data);
    if (!fFile->WriteAt(PageOffset(number), data, kPageSize)) return kWriteFailed;
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
    if (frame == nullptr) return error;
    error = ReadPageFromFile(number, frame->fData);
    if (error == kEngineNoError) {
        frame->fNumber = number;
        try {
            fPages.Insert(frame);
        } catch (const std::bad_alloc&) {
            error = kEngineOutOfMemory;
        }
    }
    if (error != kEngineNoError) {
        fSpareFrames.push_back(frame);
        return error;
    }
    frame->fPins = 1;
    frame->fDirty = false;
    frame->fChecked = false;
    frame->fFresh = fFresh.Contains(number);
    frame->fReferenced = true;
    frame->fInUse = true;
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
    ++fChanges;
    const std::uint32_t number = TakeFreePage();
    if (number == 0) {
        fSpareFrames.push_back(frame);
        return kFileFull;
    }
    try {
        fFresh.Insert(number);
        frame->fNumber = number;
        fPages.Insert(frame);
    } catch (const std::bad_alloc&) {
        fSpareFrames.push_back(frame);
        return kEngineOutOfMemory;
    }
    ++fStats.fPageVisits;
    ++fStats.fPagesAllocated;
    std::memset(frame->fData, 0, kPageSize);
    frame->fPins = 1;
    frame->fDirty = true;
    ++fDirtyCount;
    frame->fFresh = true;
    frame->fChecked = true;
    frame->fReferenced = true;
    frame->fInUse = true;
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
    ++fChanges;
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
// written again by the next write-back. A refused write leaves every page as
// it was, changed; a failed sync refuses everything (the system may have
// dropped pages it reported written, and a page no longer cached would then
// read back stale).
std::int16_t TPager::WriteBack() {
    if (fReadOnly || fPoison != 0) return fPoison;
    std::vector<TImage> pages;
    std::vector<TPage*> written;
    std::vector<TPage*> interior;
    try {
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
    } catch (const std::bad_alloc&) {
        return kEngineOutOfMemory;
    }
    const std::int16_t error = WriteImagesToFile(pages);
    if (error != kEngineNoError) return error;
    if (!fFile->Sync()) return Refuse(kWriteFailed);
    ++fStats.fSyncs;
    for (TPage* page : written) page->fDirty = false;
    fDirtyCount = interior.size();
    fDirtyKept = interior.size();
    return kEngineNoError;
}

std::int16_t TPager::Refuse(std::int16_t error) {
    Poison(error);
    return error;
}

void TPager::FreePage(std::uint32_t number) {
    ++fChanges;
    if (TPage* page = fPages.Find(number)) Forget(page);
    if (fFresh.Erase(number)) {
        fFree.Insert(number);
    } else {
        fFreedSinceCheckpoint.push_back(number);
    }
}

std::uint64_t TPager::FileBytes() const {
    std::uint64_t size = 0;
    return fFile && fFile->Size(&size) ? size : 0;
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

void TPager::ResetToCheckpoint() {
    // Pages of the last checkpoint's state never change: those cached stay.
    for (TPage* page : fFrames) {
        if (page->fInUse && (page->fFresh || page->fDirty || fFresh.Contains(page->fNumber))) Forget(page);
    }
    fFree = fCheckpointFree;
    fFresh.Clear();
    fFreedSinceCheckpoint.clear();
    fPageCount = fCheckpointPageCount;
    fDirtyCount = 0;
    fDirtyKept = 0;
    fGrowAllowance = 0;
    StartLog(fLogSalt);
    ++fChanges;
    ++fStats.fRecoveries;
}

// ---------------------------------------------------------------------------
// Checkpoints

bool TPager::CheckpointDue() const {
    if (fReadOnly || fPoison != 0) return false;
    return (fLogSize > kCheckpointLogBytes || fFresh.Size() > gCheckpointPages) &&
           fStats.fLogFrames >= fRetryAtFrame;
}

bool TPager::ReclaimDue(bool shrinking) const {
    return shrinking && !fReadOnly && fPoison == 0 && fFree.Size() < kAllocationReserve &&
           fFreedSinceCheckpoint.size() >= kReclaimPages && fStats.fLogFrames >= fRetryAtFrame;
}

bool TPager::HasChanges() const {
    return !fReadOnly && fPoison == 0 &&
           (fLogSize != 0 || !fFresh.Empty() || !fFreedSinceCheckpoint.empty() || fExtents.size() > 1);
}

// Writes page images sorted by number, each run of neighbours in one call.
std::int16_t TPager::WriteImagesToFile(std::vector<TImage>& images) {
    std::sort(images.begin(), images.end(),
              [](const TImage& a, const TImage& b) { return a.fNumber < b.fNumber; });
    constexpr std::size_t kLongestRun = 256;
    std::int16_t error = kEngineNoError;
    for (std::size_t first = 0; first < images.size() && error == kEngineNoError;) {
        std::size_t last = first + 1;
        while (last < images.size() && last - first < kLongestRun &&
               images[last].fNumber == images[last - 1].fNumber + 1)
            ++last;
        const std::uint8_t* bytes = images[first].fData;
        if (last - first > 1) {
            try {
                fRunBuffer.resize((last - first) * kPageSize);
            } catch (const std::bad_alloc&) {
                last = first + 1;  // one page at a time needs no buffer
            }
        }
        if (last - first > 1) {
            for (std::size_t i = first; i < last; ++i)
                std::memcpy(fRunBuffer.data() + (i - first) * kPageSize, images[i].fData, kPageSize);
            bytes = fRunBuffer.data();
        }
        if (!fFile->WriteAt(PageOffset(images[first].fNumber), bytes, (last - first) * kPageSize)) {
            error = kWriteFailed;
            break;
        }
        fStats.fPagesWritten += last - first;
        fStats.fPageBytesWritten += (last - first) * kPageSize;
        first = last;
    }
    ShrinkBuffer(&fRunBuffer, kKeptRunBuffer);
    return error;
}

std::int16_t TPager::Checkpoint(const std::vector<std::uint8_t>& catalog) {
    if (fReadOnly) return kEngineNoError;
    if (fPoison != 0) return fPoison;
    if (catalog.size() > kCatalogCapacity) return kBadArgument;
    if (!HasChanges() && catalog == fStoredCatalog && fPublished) return kEngineNoError;

    // Until the new header is written nothing of the pager changes: a
    // failure leaves the state and the log as they were, to be tried again
    // once as much again has gathered.
    const auto later = [this](std::int16_t error) {
        fRetryAtFrame = fStats.fLogFrames + kFramesBeforeRetry;
        return error;
    };
    std::vector<TImage> pages;
    TPageSet free;
    TPageSet checkpointFree;
    std::vector<std::uint32_t> listPages;
    std::uint32_t pageCount = fPageCount;
    std::vector<std::uint8_t> header;
    std::vector<std::uint8_t> stored;
    try {
        // Every changed page lies in pages the last state does not use.
        fPages.ForEach([&](TPage* page) {
            if (!page->fDirty) return;
            SealPage(page->fNumber, page->fData);
            pages.push_back(TImage{page->fNumber, page->fData, {}});
        });

        // The next state's free set: what is free now, what was freed since,
        // the old list's pages and the extents the log chained on.
        free = fFree;
        for (std::uint32_t number : fFreedSinceCheckpoint) free.Insert(number);
        for (std::uint32_t number : fFreeListPages) free.Insert(number);
        for (std::size_t i = 1; i < fExtents.size(); ++i) {
            for (std::uint32_t number = fExtents[i].fStart; number < fExtents[i].End(); ++number)
                free.Insert(number);
        }
        // Free pages at the end of the file are given back; the list goes in
        // pages that nothing in the last state uses, the lowest first (which
        // may keep a free page at the end, or add one).
        const std::uint32_t lowest = std::max(fExtents.front().End(), kFirstDataPage);
        TPageSet cut;
        const auto trimTo = [&](std::uint32_t count) {
            while (pageCount > count && free.Erase(pageCount - 1)) cut.Insert(--pageCount);
        };
        const auto keep = [&](std::uint32_t number) {
            for (; pageCount <= number; ++pageCount) {
                if (cut.Erase(pageCount)) free.Insert(pageCount);
            }
        };
        trimTo(lowest);
        for (std::uint32_t from = 0;;) {
            const std::size_t needed = (free.Size() + kFreeEntriesPerPage - 1) / kFreeEntriesPerPage;
            if (listPages.size() >= needed) break;
            std::uint32_t number = fFree.Next(from);
            if (number != TPageSet::kNone) {
                from = number + 1;
            } else {
                if (std::max(pageCount, fPageCount) == UINT32_MAX) return later(kFileFull);
                number = std::max(pageCount, fPageCount);
                from = number + 1;
            }
            keep(number);
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
            SealPage(image.fNumber, page);
            image.fData = page;
            pages.push_back(std::move(image));
        }
        checkpointFree = free;
        stored = catalog;
        header.resize(kPageSize);
        BuildHeader(header.data(), catalog, fSequence + 1, pageCount, listPages.empty() ? 0 : listPages.front(),
                    static_cast<std::uint32_t>(entries.size()), NewSalt(fSequence + 1, this));
    } catch (const std::bad_alloc&) {
        return later(kEngineOutOfMemory);
    }
    const std::uint32_t salt = Get32(header.data() + kHeaderLogSaltAt);

    // The second slot is made the twin of the first again (a loss of power
    // may have torn it since the last checkpoint), so that whatever happens
    // to the first slot below, one of them names a sound state. Then every
    // page is written and synced, and the file holds every page the header
    // counts (free ones never written included), so that a shorter file can
    // only be a truncated one.
    std::vector<std::uint8_t>& twin = fCurrentHeader;
    std::int16_t error = WritePageToFile(1, twin.data());
    if (error == kEngineNoError) error = WriteImagesToFile(pages);
    std::uint64_t size = 0;
    if (error == kEngineNoError &&
        (!fFile->Size(&size) || (size < PageOffset(pageCount) && !fFile->Truncate(PageOffset(pageCount)))))
        error = kWriteFailed;
    if (error != kEngineNoError) return later(error);
    if (!fFile->Sync()) return Refuse(kWriteFailed);

    // Then the first header slot names the new state and is synced, and the
    // second is made its twin (made durable by the next sync, at the latest
    // the next checkpoint's first). A slot torn on the way leaves the other,
    // which holds the old state or the new; one damaged later leaves its twin.
    if ((error = WritePageToFile(0, header.data())) != kEngineNoError) return later(error);
    if (!fFile->Sync()) return Refuse(kWriteFailed);
    fStats.fSyncs += 2;
    WritePageToFile(1, header.data());
    fCurrentSlot = 0;
    // A new file gets its name once its first state is durable: a create
    // cut short before leaves nothing under the name.
    if (!fPublished) {
        if (CurrentFileSystem()->Publish(fFile.get(), fPath) != FileError::kNone) return Refuse(kFileNotCreated);
        fPublished = true;
    }

    // The new state is the file's: every cached page now belongs to it, and
    // the log starts afresh in its first extent.
    ++fSequence;
    fStoredCatalog.swap(stored);
    fCurrentHeader.swap(header);
    fFree.Clear();
    std::swap(fFree, free);
    std::swap(fCheckpointFree, checkpointFree);
    fFreeListPages.swap(listPages);
    fFreedSinceCheckpoint.clear();
    fPageCount = pageCount;
    fCheckpointPageCount = pageCount;
    fPages.ForEach([](TPage* page) {
        page->fDirty = false;
        page->fFresh = false;
    });
    fDirtyCount = 0;
    fDirtyKept = 0;
    fFresh.Clear();
    fRetryAtFrame = 0;
    StartLog(salt);
    fLogRenewed = true;
    ++fChanges;
    ++fStats.fCheckpoints;
    ++gCompletedCheckpoints;
    // The pages cut off: a file longer than its pages is sound, so a refusal
    // here costs only the space, until the next checkpoint.
    if (size > PageOffset(pageCount)) fFile->Truncate(PageOffset(pageCount));
    return kEngineNoError;
}

std::vector<std::uint32_t> TPager::PagesHoldingTheEnd(std::size_t most) const {
    std::vector<std::uint32_t> pages;
    if (HasChanges() || fPoison != 0) return pages;
    const std::uint32_t floor = std::max(fExtents.front().End(), kFirstDataPage);
    std::uint32_t freeAbove = 0;
    for (std::uint32_t number = fPageCount; number > floor;) {
        --number;
        // List pages move by themselves: the next list takes the lowest pages.
        if (fFree.Contains(number) ||
            std::find(fFreeListPages.begin(), fFreeListPages.end(), number) != fFreeListPages.end()) {
            ++freeAbove;
            continue;
        }
        if (pages.size() == most) break;
        pages.push_back(number);
    }
    if (freeAbove < std::max<std::uint32_t>(256, fPageCount / 8)) pages.clear();
    return pages;
}

std::int16_t TPager::Close(const std::vector<std::uint8_t>& catalog) {
    // A file refused after a failed sync closes without its last changes
    // (the log brings back what it holds) and says so: the caller must not
    // take the close for a durable one. So does a close whose checkpoint
    // failed: the next open redoes the log.
    std::int16_t error = fPoison;
    if (!fReadOnly && fPoison == 0) {
        fRetryAtFrame = 0;
        error = Checkpoint(catalog);
    }
    fFile.reset();
    return error;
}

}  // namespace engine
