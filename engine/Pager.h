// The pager: one host file's pages, its page cache, its log and its
// checkpoints. The host file is the whole database: its committed state and
// every operation since the last checkpoint live inside it, and nothing else
// is ever written beside it. engine/FileFormat.md describes the bytes.
//
// The file is a sequence of 4096-byte pages, each ending in a checksum of its
// number and contents. Pages 0 and 1 are the two header slots, twins: the slot
// with the higher sequence number whose checksum holds names the file's state
// (page count, free list, catalog) and where its log lies.
//
// A checkpoint's state is never overwritten. A page of it that is to change
// is first copied to a page free in that state (the trees do this, since a
// copy moves and its parent must point at it), so that every changed page is
// one allocated since the last checkpoint. Changes then reach the file in two
// ways:
//  - Each operation is appended to the log as one self-checking frame before
//    it returns. The log lies in pages of the file that no state uses: its
//    first extent, named by the header, and further extents that frames chain
//    on as it grows. A frame written is an operation that survives the end of
//    the process; the pages it changed stay in the cache (or are written to
//    their own place, which nothing in the last state uses, when the cache is
//    full).
//  - A checkpoint writes the changed pages and syncs the file, then writes the
//    first header slot and syncs again, then its twin; the log then starts
//    afresh under a new salt, which voids every frame written before. Pages
//    the old state used and the new one does not are free from then on, and
//    free pages at the end of the file are cut off.
// Opening redoes the log. A loss of power may cost the operations since the
// last checkpoint, never the file's consistency: a torn header slot leaves the
// other, and every frame carries the log's salt, its number in the log and
// checksums, so replay stops at the first frame that did not fully reach the
// disk.
//
// An operation that fails part way (a refused write, no memory, an unreadable
// page) is undone by redoing the log from the last checkpoint in memory
// (ResetToCheckpoint, then ReplayLog): its own frame was never written, so the
// database is then as it was before it, and goes on.
#ifndef KAVO_ENGINE_PAGER_H
#define KAVO_ENGINE_PAGER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
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

// The format this engine writes and reads; a file of another version is
// refused (OpenProblem says which version it was).
constexpr std::uint32_t kFormatVersion = 2;

// Bytes of catalog the header page holds.
constexpr std::uint32_t kCatalogCapacity = kPageBodySize - 64;

// Log frame kinds.
constexpr std::uint8_t kFrameAdd = 1;
constexpr std::uint8_t kFrameRewrite = 2;
constexpr std::uint8_t kFrameDelete = 3;
constexpr std::uint8_t kFrameNextExtent = 4;  // the log goes on in another extent
constexpr std::uint8_t kFrameGroupBegin = 5;  // the frames of a group follow, held
constexpr std::uint8_t kFrameGroupEnd = 6;    // the held frames since the begin count
// Flags of a frame (byte 14 of its head).
constexpr std::uint8_t kFrameHeld = 0x01;  // part of a group: redone only once the group ends

// Bytes that a reader can copy on demand: a record handed in by the caller, or
// one in a log frame of the file. Records pass through the engine this way,
// in pieces, so that no whole copy of a long record is ever made.
class TByteSource {
public:
    virtual ~TByteSource() = default;
    // Copies length bytes from offset into out; false when they cannot be read.
    virtual bool Read(std::uint64_t offset, std::uint8_t* out, std::uint32_t length) const = 0;
};

// A record in the caller's memory, in up to two runs (a fixed part built by
// the caller's layer, then the data as it is in the caller's handle).
class TMemoryBytes : public TByteSource {
public:
    TMemoryBytes(const std::uint8_t* bytes, std::uint32_t length) : fFirst(bytes), fFirstLength(length) {}
    TMemoryBytes(const std::uint8_t* first, std::uint32_t firstLength, const std::uint8_t* second,
                 std::uint32_t secondLength)
        : fFirst(first), fFirstLength(firstLength), fSecond(second), fSecondLength(secondLength) {}
    bool Read(std::uint64_t offset, std::uint8_t* out, std::uint32_t length) const override;
    std::uint32_t Length() const { return fFirstLength + fSecondLength; }
    // The runs, for writing them out as they are.
    const std::uint8_t* First() const { return fFirst; }
    std::uint32_t FirstLength() const { return fFirstLength; }
    const std::uint8_t* Second() const { return fSecond; }
    std::uint32_t SecondLength() const { return fSecondLength; }

private:
    const std::uint8_t* fFirst;
    std::uint32_t fFirstLength;
    const std::uint8_t* fSecond = nullptr;
    std::uint32_t fSecondLength = 0;
};

// One logged operation, as handed to the host file for replay. The payload
// stays valid only for the length of the call.
struct TLogFrame {
    std::uint8_t fKind;
    std::uint8_t fMember;
    std::uint32_t fAux;
    std::uint32_t fLength;
    const TByteSource* fPayload;
};

// What the last replay of the log found.
struct TReplayReport {
    std::uint32_t fFrames = 0;       // operations redone
    std::uint64_t fBytes = 0;        // log bytes they took
    // Replay stopped at a frame whose head was whole but whose body was not:
    // cut short by the end of the process or a loss of power, or damaged.
    bool fStoppedAtDamage = false;
    std::uint32_t fDamagedFrame = 0;  // its number in the log
    // Whole frames of this log found beyond the damaged one: operations that
    // had been acknowledged and could not be redone.
    bool fLaterFramesLost = false;
    // Held operations of a group that the log ended inside or that was
    // abandoned: not redone.
    std::uint32_t fDroppedFrames = 0;
    std::string Describe() const;  // empty unless replay stopped at damage
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
    // May throw std::bad_alloc when the table grows; it is then unchanged.
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

    // False when the page was there already. May throw std::bad_alloc when
    // the set grows; it is then unchanged.
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
    // The lowest first page of `length` consecutive members, or kNone.
    std::uint32_t FindRun(std::uint32_t length) const;
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
    std::uint64_t fCacheSweeps = 0;     // frames the clock hand passed looking for one to evict
    std::uint64_t fRecoveries = 0;      // failed operations undone by redoing the log
};

// A contiguous run of pages that holds log frames.
struct TLogExtent {
    std::uint32_t fStart = 0;
    std::uint32_t fPages = 0;
    std::uint32_t End() const { return fStart + fPages; }
};

class TPager {
public:
    ~TPager();
    TPager(const TPager&) = delete;
    TPager& operator=(const TPager&) = delete;

    // Makes a new host file holding only its header and its empty log, where
    // no name reaches it; its first checkpoint (at the latest the close) gives
    // it the name in one step, once that state is durable, so that a create
    // cut short leaves nothing under the name. kFileNotCreated when the name
    // exists (or, at that checkpoint, has come to exist).
    static std::int16_t Create(const std::string& path, std::unique_ptr<TPager>* pager);
    // Opens an existing host file at its last checkpoint; the host file then
    // redoes the log with ReplayLog. On kFileNotOpened, *problem (may be null)
    // says what was wrong when the file was found but refused.
    static std::int16_t Open(const std::string& path, bool readOnly, std::unique_ptr<TPager>* pager,
                             std::string* problem = nullptr);

    const std::string& Path() const { return fPath; }
    bool ReadOnly() const { return fReadOnly; }
    std::uint32_t PageCount() const { return fPageCount; }
    std::uint32_t FreePageCount() const;
    // The file's size in bytes now (0 when it cannot be read).
    std::uint64_t FileBytes() const;
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

    // --- Operations. BeginOperation marks the start of one; OperationChanged
    // then tells whether anything has changed since (a refusal found before
    // the first change needs no undoing).
    void BeginOperation() { fChangesAtBegin = fChanges; }
    bool OperationChanged() const { return fChanges != fChangesAtBegin; }

    // Appends one operation to the log; once it returns kEngineNoError the
    // operation survives the end of the process. On failure nothing of the
    // frame counts: the next frame is written in its place.
    //
    // Groups: a group-begin frame, operations flagged kFrameHeld, and a
    // group-end frame. Replay redoes the held operations only when their
    // group's end follows them; a group that the log ends inside, or that a
    // frame outside any group or a new group's begin follows, is dropped
    // (so an abandoned group needs no mark of its own).
    std::int16_t AppendLog(std::uint8_t kind, std::uint8_t member, std::uint32_t aux, const TMemoryBytes& payload,
                           std::uint8_t flags = 0);

    // Redoes the log that continues the last checkpoint: calls apply for each
    // whole operation in order (apply must not log them again), stops at the
    // first frame that is not whole, and leaves the log ready for appending
    // after the last frame redone. The first failure of apply ends it.
    using TApplyFrame = std::function<std::int16_t(const TLogFrame&)>;
    std::int16_t ReplayLog(const TApplyFrame& apply);
    const TReplayReport& LastReplay() const { return fReplay; }

    // Forgets every change since the last checkpoint (the log stays in the
    // file), so that ReplayLog can redo it.
    void ResetToCheckpoint();

    // The log of a file just opened may hold frames of its salt beyond the
    // point where its replay stopped (written before a process death or a
    // loss of power); a frame appended now could land where one of those
    // continues the chain. So the first change after an open starts a new
    // log first, under a new salt: the header slot that does not hold the
    // state is given the same state and the new salt, and synced (the other
    // slot still names the state, so a torn write costs nothing).
    bool LogNeedsRenewal() const { return !fReadOnly && !fLogRenewed; }
    std::int16_t RenewLog();
    bool CheckpointDue() const;
    // Pages freed since the last checkpoint wait to be reused while the free
    // pages run out, in a file whose records are being removed (`shrinking`,
    // the host file's judgement): a checkpoint now lets them serve the next
    // changes instead of the file growing. A file that is not shrinking grows
    // into the pages its next checkpoint frees, as any copy-on-write file
    // must, and checkpoints no more often than usual.
    bool ReclaimDue(bool shrinking) const;
    // Enough changed pages have gathered to write them back (WriteBack).
    bool WriteBackDue() const;
    std::int16_t WriteBack();
    // Something a checkpoint would write.
    bool HasChanges() const;
    // Straight after a checkpoint: the pages in use (at most `most`) that
    // alone keep a long run of free pages at the end of the file, when moving
    // them down would give back an eighth of the file or more; else none.
    std::vector<std::uint32_t> PagesHoldingTheEnd(std::size_t most) const;
    // Writes every change and the catalog, gives back the free pages at the
    // end of the file, and starts the log afresh. A refused write or a lack
    // of memory leaves everything as it was (the log goes on, and the
    // checkpoint is tried again once more has gathered); a failed sync
    // refuses every later call (Poison), since the system may have dropped
    // pages it had taken.
    std::int16_t Checkpoint(const std::vector<std::uint8_t>& catalog);
    // Checkpoints (unless read-only) and closes the file.
    std::int16_t Close(const std::vector<std::uint8_t>& catalog);
    // Closes the file as it is; the next open redoes the log.
    void CloseWithoutWriting() { fFile.reset(); }

    // After a failure that leaves the cache unlike any state of the file (one
    // that could not be undone): every further call is refused until reopened.
    void Poison(std::int16_t error) {
        if (fPoison == 0) fPoison = error;
    }
    std::int16_t Poisoned() const { return fPoison; }

    // Every page number in use by the free list (for the integrity check).
    const std::vector<std::uint32_t>& FreeListPages() const { return fFreeListPages; }
    std::vector<std::uint32_t> FreePages() const;
    // The log's extents in this checkpoint's interval, the first one first.
    const std::vector<TLogExtent>& LogExtents() const { return fExtents; }

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

    std::int16_t ReadHeaders(std::string* problem);
    bool ParseHeader(const std::uint8_t* page, std::uint64_t* sequence, std::uint32_t* version) const;
    void BuildHeader(std::uint8_t* page, const std::vector<std::uint8_t>& catalog, std::uint64_t sequence,
                     std::uint32_t pageCount, std::uint32_t freeHead, std::uint32_t freeCount,
                     std::uint32_t salt) const;
    std::int16_t LoadFreeList(std::uint32_t head, std::uint32_t count);
    std::int16_t ReadPageFromFile(std::uint32_t number, std::uint8_t* into);
    std::int16_t WritePageToFile(std::uint32_t number, std::uint8_t* data);

    // The log.
    struct TScan;
    std::int16_t ScanLog(TScan* scan);
    std::int16_t ReserveExtents(const std::vector<TLogExtent>& extents);
    bool ExtentIsFree(const TLogExtent& extent) const;
    std::int16_t ChainExtent(std::uint64_t frameBytes);
    std::int16_t WriteFrameBytes(std::uint8_t kind, std::uint8_t member, std::uint32_t aux,
                                 const TMemoryBytes& payload, std::uint8_t flags);
    void StartLog(std::uint32_t salt);

    // A page to write: its bytes are a cached frame's or its own.
    struct TImage {
        std::uint32_t fNumber;
        const std::uint8_t* fData;
        std::vector<std::uint8_t> fOwned;
    };
    std::int16_t WriteImagesToFile(std::vector<TImage>& images);
    std::uint32_t TakeFreePage();

    TPage* NewFrame(std::int16_t* error);
    void MakeRoom();
    void Forget(TPage* page);
    bool Evictable(const TPage* page) const { return fReadOnly ? !page->fDirty : (!page->fDirty || page->fFresh); }
    std::int16_t Refuse(std::int16_t error);

    std::string fPath;
    bool fReadOnly;
    std::unique_ptr<TFile> fFile;

    // The last checkpoint's state.
    std::uint64_t fSequence = 0;
    std::uint32_t fCheckpointPageCount = 0;
    TPageSet fCheckpointFree;
    std::vector<std::uint8_t> fStoredCatalog;
    std::vector<std::uint8_t> fCurrentHeader;  // its header slot
    std::uint32_t fCurrentSlot = 0;            // a slot that holds it durably

    // Pages in use or free, header included; grows past the checkpoint's
    // count as pages are allocated at the end.
    std::uint32_t fPageCount = 1;
    // Free space: pages free in the last checkpoint's state and not used
    // since, plus pages allocated and freed again since; pages of the last
    // checkpoint's state freed since come back only after the next one.
    TPageSet fFree;
    std::vector<std::uint32_t> fFreedSinceCheckpoint;
    std::vector<std::uint32_t> fFreeListPages;
    TPageSet fFresh;

    TPageTable fPages;
    // Every frame, swept by a clock hand: a page used since the hand last
    // passed gets another round, so that a hit costs a flag and no list work.
    std::vector<TPage*> fFrames;
    std::vector<TPage*> fSpareFrames;
    std::size_t fHand = 0;
    std::size_t fGrowAllowance = 0;  // frames that may be added before the next sweep
    std::size_t fDirtyCount = 0;     // frames changed and not yet written
    std::size_t fDirtyKept = 0;      // of them, interior pages the last write-back kept

    // The log of this checkpoint's interval.
    std::uint32_t fLogSalt = 0;
    std::vector<TLogExtent> fExtents;  // the first (the header's), then chained ones
    std::uint32_t fFrameNumber = 0;    // of the next frame
    std::uint64_t fLogOffset = 0;      // where the next frame goes
    std::uint64_t fLogLimit = 0;       // where frames of the current extent must end
    std::uint64_t fLogSize = 0;        // bytes of frames since the log started
    std::vector<std::uint8_t> fFrameBuffer;
    std::vector<std::uint8_t> fRunBuffer;
    TReplayReport fReplay;
    bool fLogRenewed = false;  // this process started the log (Create, Checkpoint)
    bool fPublished = false;   // the file has its name (else Create made it, nameless)

    // Counts every change to pages or to the free space.
    std::uint64_t fChanges = 0;
    std::uint64_t fChangesAtBegin = 0;
    // A checkpoint that failed is not tried again before the log has this
    // many more frames (the close tries regardless).
    std::uint64_t fRetryAtFrame = 0;

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

// Seals a page: its checksum over its number and contents.
void SealPage(std::uint32_t number, std::uint8_t* data);
bool PageSealIsValid(std::uint32_t number, const std::uint8_t* data);

}  // namespace engine

#endif  // KAVO_ENGINE_PAGER_H
