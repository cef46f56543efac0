// The pager: one host file's pages, its page cache, its log and its
// checkpoints.
//
// The host file is a sequence of 4096-byte pages, each ending in a checksum of
// its number and contents. Pages 0 and 1 are the two header slots, twins:
// magic, format version, checkpoint sequence number, page count, free list
// and the catalog that the host file keeps there. The slot with the higher
// sequence number whose checksum holds is the file's state.
//
// A checkpoint's state is never overwritten. A page of it that is to change
// is first copied to a page free in that state (the trees do this, since a
// copy moves and its parent must point at it), so that every changed page is
// one allocated since the last checkpoint. Changes then reach the file in two
// ways:
//  - Each operation is appended to the log ("<host>!log", beside the host
//    file while it is open) as one self-checking frame, before the operation
//    returns. A frame written is an operation that survives the end of the
//    process; the pages it changed stay in the cache (or are written to their
//    own place, which nothing in the last state uses, when the cache is full).
//  - A checkpoint writes the changed pages and syncs the file, then writes the
//    first header slot and syncs again, then its twin; then the log starts
//    afresh. Pages the old state used and the new one does not are free from
//    then on.
// Opening replays the log if it continues the file's state. A loss of power
// may cost the operations since the last checkpoint, never the file's
// consistency: a torn header slot leaves the other, and every frame carries
// a checksum chained to the one before it, so replay stops at the first frame
// that did not fully reach the disk.
#ifndef KAVO_ENGINE_PAGER_H
#define KAVO_ENGINE_PAGER_H

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "engine/FileIO.h"

namespace engine {

constexpr std::uint32_t kPageSize = 4096;
constexpr std::uint32_t kPageBodySize = kPageSize - 4;  // the checksum ends the page

// The header every page but the header slots begins with.
constexpr std::uint32_t kPageTypeAt = 0;    // u8
constexpr std::uint32_t kPageLevelAt = 1;   // u8: 0 for leaves
constexpr std::uint32_t kPageCountAt = 2;   // u16: entries
constexpr std::uint32_t kPageOwnerAt = 4;   // u32: member that owns the page
constexpr std::uint32_t kPageAuxAt = 8;     // u32: next page of a chain, or cell area start
constexpr std::uint32_t kPageExtraAt = 12;  // u32: free bytes between cells
constexpr std::uint32_t kPageHeaderSize = 16;

enum PageType : std::uint8_t {
    kPageTypeHeader = 1,
    kPageTypeInterior = 2,
    kPageTypeIndexLeaf = 3,
    kPageTypeDataLeaf = 4,
    kPageTypeOverflow = 5,
    kPageTypeFreeList = 6,
};

// Pages 0 and 1 are the header slots; the others begin at 2.
constexpr std::uint32_t kFirstDataPage = 2;

// Bytes of catalog the header page holds.
constexpr std::uint32_t kCatalogCapacity = kPageBodySize - 64;

// One logged operation, as handed back for replay.
struct TLogRecord {
    std::uint8_t fKind;
    std::uint8_t fMember;
    std::uint32_t fAux;
    std::vector<std::uint8_t> fPayload;
};

struct TPage {
    std::uint32_t fNumber = 0;
    std::uint8_t* fData = nullptr;
    int fPins = 0;
    bool fDirty = false;
    bool fFresh = false;    // allocated since the last checkpoint
    bool fChecked = false;  // its structure was checked when it was read
    bool fReferenced = false;  // used since the clock hand last passed
    bool fInUse = false;       // holds a page (else a spare frame)
};

// The cached pages by number: open addressing with linear probing, no
// allocation per page; every fetch starts here.
class TPageTable {
public:
    TPage* Find(std::uint32_t number) const {
        if (fCount == 0) return nullptr;
        for (std::size_t i = Home(number);; i = (i + 1) & fMask) {
            TPage* page = fSlots[i];
            if (page == nullptr || page->fNumber == number) return page;
        }
    }
    void Insert(TPage* page);
    void Erase(std::uint32_t number);
    template <typename TFunction>
    void ForEach(TFunction&& function) const {
        for (TPage* page : fSlots) {
            if (page != nullptr) function(page);
        }
    }

private:
    std::size_t Home(std::uint32_t number) const {
        return static_cast<std::size_t>((number * 0x9E3779B1u) >> 7) & fMask;
    }
    void Grow();

    std::vector<TPage*> fSlots;
    std::size_t fMask = 0;
    std::size_t fCount = 0;
};

// A set of page numbers, one bit per page: no allocation per member, the
// lowest member found from a cursor, members walked in ascending order. Its
// size follows the highest page number, a 32,768th of the file's size.
class TPageSet {
public:
    static constexpr std::uint32_t kNone = UINT32_MAX;

    // False when the page was there already.
    bool Insert(std::uint32_t number);
    bool Erase(std::uint32_t number);
    bool Contains(std::uint32_t number) const {
        const std::size_t word = number / 64;
        return word < fWords.size() && (fWords[word] >> (number % 64) & 1) != 0;
    }
    std::size_t Size() const { return fCount; }
    bool Empty() const { return fCount == 0; }
    void Clear();
    // The lowest member at or above from, or kNone.
    std::uint32_t Next(std::uint32_t from) const;
    template <typename TFunction>
    void ForEach(TFunction&& function) const {
        for (std::uint32_t number = Next(0); number != kNone; number = Next(number + 1)) function(number);
    }

private:
    std::vector<std::uint64_t> fWords;
    std::size_t fCount = 0;
    mutable std::size_t fLowWord = 0;  // no member lies in a word below this one
};

// Counters for benchmarks and tests.
struct TPagerStats {
    std::uint64_t fPageVisits = 0;     // pages fetched or allocated, from the cache or not
    std::uint64_t fPagesAllocated = 0;  // new pages and copies of the last state's pages
    std::uint64_t fLogFrames = 0;
    std::uint64_t fLogBytes = 0;
    std::uint64_t fPagesWritten = 0;
    std::uint64_t fPageBytesWritten = 0;
    std::uint64_t fPagesRead = 0;
    std::uint64_t fCheckpoints = 0;
    std::uint64_t fSyncs = 0;
};

class TPager {
public:
    ~TPager();
    TPager(const TPager&) = delete;
    TPager& operator=(const TPager&) = delete;

    // Makes a new host file holding only its header; the file must not exist.
    static std::int16_t Create(const std::string& path, std::unique_ptr<TPager>* pager);
    // Opens an existing host file and reads its log: *replay receives the
    // operations the host file must redo (without logging them again).
    static std::int16_t Open(const std::string& path, bool readOnly, std::unique_ptr<TPager>* pager,
                             std::vector<TLogRecord>* replay);

    const std::string& Path() const { return fPath; }
    bool ReadOnly() const { return fReadOnly; }
    std::uint32_t PageCount() const { return fPageCount; }
    std::uint32_t FreePageCount() const;
    // The catalog stored in the header page at the last checkpoint.
    const std::vector<std::uint8_t>& StoredCatalog() const { return fStoredCatalog; }

    // Pins the page, reading it (and checking its checksum) if need be.
    std::int16_t Fetch(std::uint32_t number, TPage** page);
    // Pins the page only if it is in the cache (never reads); null otherwise.
    TPage* FindCached(std::uint32_t number) {
        if (fPoison != 0) return nullptr;
        TPage* page = fPages.Find(number);
        if (page != nullptr) {
            ++fStats.fPageVisits;
            page->fReferenced = true;
            ++page->fPins;
        }
        return page;
    }
    // A new zero-filled page, pinned and changed. It is free in the last
    // checkpoint's state, so it may be changed at will until the next one.
    std::int16_t Allocate(TPage** page);
    void Unpin(TPage* page);
    // Must be called before a pinned page is changed; only pages allocated
    // since the last checkpoint may change (others are copied first).
    void MarkDirty(TPage* page);
    // The page is no longer used; any pin on it must be its last.
    void FreePage(std::uint32_t number);

    // Appends one operation to the log; once it returns kEngineNoError the
    // operation survives the end of the process.
    std::int16_t AppendLog(std::uint8_t kind, std::uint8_t member, std::uint32_t aux,
                           const std::uint8_t* payload, std::uint32_t length);
    bool CheckpointDue() const;
    // Enough changed pages have gathered to write them back (WriteBack).
    bool WriteBackDue() const;
    std::int16_t WriteBack();
    // Something a checkpoint would write.
    bool HasChanges() const;
    // Writes every change and the catalog, and starts the log afresh.
    std::int16_t Checkpoint(const std::vector<std::uint8_t>& catalog);
    std::int16_t Checkpoint(const std::vector<std::uint8_t>& catalog, bool restartLog);
    // Checkpoints (unless read-only) and removes the log.
    std::int16_t Close(const std::vector<std::uint8_t>& catalog);

    // After a failure in the middle of a change the cache no longer matches
    // any state of the file: every further call is refused until reopened.
    void Poison(std::int16_t error) {
        if (fPoison == 0) fPoison = error;
    }
    std::int16_t Poisoned() const { return fPoison; }

    // Every page number in use by the free list (for the integrity check).
    const std::vector<std::uint32_t>& FreeListPages() const { return fFreeListPages; }
    std::vector<std::uint32_t> FreePages() const;

    const TPagerStats& Stats() const { return fStats; }
    // Pages the cache may hold (process-wide; for tests that want eviction).
    static void SetCacheCapacity(std::size_t pages);
    static std::size_t CacheCapacity();
    // Frees the frames that closed pagers left for later ones.
    static void ReleaseFramePool();
    // New pages after which a checkpoint is due (process-wide; for tests that
    // want checkpoints often). 0 restores the usual number.
    static void SetCheckpointPages(std::size_t pages);
    // Checkpoints completed in this process, by every pager (for tests).
    static std::uint64_t CompletedCheckpoints();

private:
    TPager(const std::string& path, bool readOnly);

    std::int16_t ReadHeaders();
    bool ParseHeader(const std::uint8_t* page, std::uint64_t* sequence);
    void BuildHeader(std::uint8_t* page, const std::vector<std::uint8_t>& catalog, std::uint64_t sequence,
                     std::uint32_t freeHead, std::uint32_t freeCount);
    std::int16_t LoadFreeList(std::uint32_t head, std::uint32_t count);
    std::int16_t ReadLog(std::vector<TLogRecord>* replay);
    std::int16_t StartLog();
    std::int16_t WriteLogHeader();
    std::int16_t WriteFrame(std::uint8_t kind, std::uint8_t member, std::uint32_t aux, const std::uint8_t* payload,
                            std::uint32_t length);
    std::int16_t ReadPageFromFile(std::uint32_t number, std::uint8_t* into);
    std::int16_t WritePageToFile(std::uint32_t number, std::uint8_t* data);
    // A page to write: its bytes are a cached frame's or its own.
    struct TImage {
        std::uint32_t fNumber;
        const std::uint8_t* fData;
        std::vector<std::uint8_t> fOwned;
    };
    std::int16_t BuildFreeList(std::uint32_t* head, std::uint32_t* count, std::vector<TImage>* images);
    std::int16_t WriteImagesToFile(std::vector<TImage>& images);
    std::uint32_t TakeFreePage();

    TPage* NewFrame(std::int16_t* error);
    std::int16_t MakeRoom();
    void Forget(TPage* page);
    bool Evictable(const TPage* page) const { return fReadOnly ? !page->fDirty : (!page->fDirty || page->fFresh); }

    std::string fPath;
    std::string fLogPath;
    bool fReadOnly;
    std::unique_ptr<TFile> fFile;
    std::unique_ptr<TFile> fLog;

    std::uint64_t fSequence = 0;    // of the last checkpoint
    std::uint32_t fPageCount = 1;   // pages in use or free, header included
    std::vector<std::uint8_t> fStoredCatalog;
    std::vector<std::uint8_t> fCurrentHeader;  // the header slot of the last state

    // Free space: pages free in the last checkpoint's state and not used
    // since, plus pages allocated and freed again since; pages of the last
    // checkpoint's state freed since come back only after the next one.
    TPageSet fFree;
    std::vector<std::uint32_t> fFreedSinceCheckpoint;
    std::vector<std::uint32_t> fFreeListPages;
    std::unordered_set<std::uint32_t> fFresh;

    TPageTable fPages;
    // Every frame, swept by a clock hand: a page used since the hand last
    // passed gets another round, so that a hit costs a flag and no list work.
    std::vector<TPage*> fFrames;
    std::vector<TPage*> fSpareFrames;
    std::size_t fHand = 0;
    std::size_t fDirtyCount = 0;  // frames changed and not yet written
    std::size_t fDirtyKept = 0;   // of them, interior pages the last write-back kept

    std::uint64_t fLogOffset = 0;
    std::uint32_t fLogChain = 0;
    std::uint32_t fLogSalt = 0;
    std::uint64_t fLogSize = 0;  // bytes appended since the log started
    std::vector<std::uint8_t> fFrameBuffer;
    std::vector<std::uint8_t> fRunBuffer;

    std::int16_t fPoison = 0;
    TPagerStats fStats;
};

// Pins a page for the length of a scope.
class TPageRef {
public:
    TPageRef() = default;
    TPageRef(TPager* pager, TPage* page) : fPager(pager), fPage(page) {}
    ~TPageRef() { Reset(); }
    TPageRef(TPageRef&& other) noexcept : fPager(other.fPager), fPage(other.fPage) { other.fPage = nullptr; }
    TPageRef& operator=(TPageRef&& other) noexcept {
        if (this != &other) {
            Reset();
            fPager = other.fPager;
            fPage = other.fPage;
            other.fPage = nullptr;
        }
        return *this;
    }
    TPageRef(const TPageRef&) = delete;
    TPageRef& operator=(const TPageRef&) = delete;

    void Reset() {
        if (fPage != nullptr) fPager->Unpin(fPage);
        fPage = nullptr;
    }
    TPage* Get() const { return fPage; }
    std::uint8_t* Data() const { return fPage->fData; }
    std::uint32_t Number() const { return fPage->fNumber; }
    explicit operator bool() const { return fPage != nullptr; }
    void MarkDirty() { fPager->MarkDirty(fPage); }

private:
    TPager* fPager = nullptr;
    TPage* fPage = nullptr;
};

// Log frame kinds.
constexpr std::uint8_t kFrameAdd = 1;
constexpr std::uint8_t kFrameRewrite = 2;
constexpr std::uint8_t kFrameDelete = 3;

// Seals a page: its checksum over its number and contents.
void SealPage(std::uint32_t number, std::uint8_t* data);
bool PageSealIsValid(std::uint32_t number, const std::uint8_t* data);

}  // namespace engine

#endif  // KAVO_ENGINE_PAGER_H
