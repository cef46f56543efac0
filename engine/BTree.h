// B+trees over the pager's pages: one per member file.
//
// An index tree maps fixed-length keys (compared as bytes) to record numbers;
// a data tree maps record numbers to record bytes, long records continuing
// in chains of overflow pages. Interior nodes keep, beside each child, the
// number of keys beneath it, so that rank, k-th key and range counts cost one
// descent: O(log n).
//
// Every page is checked when it is first read: its type, owner, level, entry
// count, and the bounds of everything it points at. A page that fails gives
// kPageDamaged; the trees never follow a value they have not checked.
#ifndef KAVO_ENGINE_BTREE_H
#define KAVO_ENGINE_BTREE_H

#include <cstdint>
#include <vector>

#include "engine/Pager.h"

namespace engine {

// What the catalog keeps of a tree.
struct TTreeInfo {
    std::uint8_t fMember = 0;      // owner of its pages
    bool fIsData = false;
    std::uint16_t fKeyLength = 4;  // bytes compared; record numbers are 4
    std::uint32_t fRoot = 0;
    std::uint32_t fCount = 0;      // keys or records
    std::uint8_t fHeight = 1;      // levels, the leaves included
    // Where the record last looked up lies, until the tree next changes:
    // repeated reads of one record (its length, then its bytes) skip the
    // descent. Not stored.
    std::uint32_t fHintRecord = 0;
    std::uint32_t fHintPage = 0;
    std::uint16_t fHintSlot = 0;
};

// More levels than any tree of 2^32 keys can need.
constexpr std::uint8_t kMaxTreeHeight = 24;

enum class FindMode {
    kEqual,      // the key itself
    kAtOrAfter,  // the first key >= the key
    kAfter,      // the first key > the key
    kAtOrBefore  // the last key <= the key
};

// Longest key an index may have.
constexpr std::uint16_t kMaxKeyLength = 512;
// Records up to this length are kept whole in their leaf; longer ones keep
// their first kSpilledPrefix bytes there and the rest in overflow pages.
constexpr std::uint32_t kMaxInlineRecord = 1000;
constexpr std::uint32_t kSpilledPrefix = 128;

class TTree {
public:
    TTree(TPager* pager, TTreeInfo* info) : fPager(pager), fInfo(info) {}

    // Makes the tree's first (empty) leaf.
    static std::int16_t CreateEmpty(TPager* pager, TTreeInfo* info);

    // --- Index trees: entries are (key of fKeyLength bytes, record number,
    // hint). The hint is the data page that held the record when the entry
    // was made: a read tries it first, and only a cached page that proves to
    // hold the record is trusted (a cached page is always current).
    std::int16_t IndexFind(FindMode mode, const std::uint8_t* key, std::uint8_t* foundKey, std::uint32_t* record,
                           bool* found, std::uint32_t* hint = nullptr);
    std::int16_t IndexInsert(const std::uint8_t* key, std::uint32_t record, std::uint32_t hint = 0);
    std::int16_t IndexDelete(const std::uint8_t* key, bool* found);
    // Keys less than key (or, with inclusive, less than or equal).
    std::int16_t IndexRank(const std::uint8_t* key, bool inclusive, std::uint32_t* rank);
    // The entry at rank n.
    std::int16_t IndexSelect(std::uint32_t n, std::uint8_t* key, std::uint32_t* record, bool* found,
                             std::uint32_t* hint = nullptr);

    // --- Data trees.
    // *page (if given) receives the data page the record went to.
    std::int16_t DataInsert(std::uint32_t record, const TByteSource& bytes, std::uint32_t length,
                            std::uint32_t* page = nullptr);
    std::int16_t DataDelete(std::uint32_t record, bool* found);
    std::int16_t DataLength(std::uint32_t record, std::uint32_t* length, bool* found);
    // Reads length bytes from offset of the record (which must exist and be
    // long enough).
    std::int16_t DataRead(std::uint32_t record, std::uint32_t offset, std::uint8_t* out, std::uint32_t length);
    // Reads the record's first bytes, at most limit, and gives its whole
    // length: one lookup for both.
    std::int16_t DataReadUpTo(std::uint32_t record, std::uint32_t limit, std::uint8_t* out, std::uint32_t* length,
                              bool* found, std::uint32_t hint = 0);

    // --- Compaction: every page of the tree numbered at or above limit moves
    // to the lowest free page, copied as a change would copy it (interior
    // nodes are copied whatever their number, so that their children can
    // move). The pages left behind are free after the next checkpoint.
    std::int16_t Relocate(std::uint32_t limit);
    // Copies the path from the root to the tree page `number` (one of this
    // tree's nodes) to the lowest free pages, as a change along it would.
    // False in *moved when the page is not a node this tree can reach by a
    // key (an overflow page, say).
    std::int16_t MovePathDown(std::uint32_t number, bool* moved);

    // --- Walking the whole tree (integrity check).
    struct TVisitor {
        virtual ~TVisitor() = default;
        // Every page of the tree, overflow pages included; false stops.
        virtual bool Page(std::uint32_t number) = 0;
        virtual void Problem(const std::string& text) = 0;
        // Index entries and data records in order.
        virtual void IndexEntry(const std::uint8_t* key, std::uint32_t record) {
            (void)key;
            (void)record;
        }
        virtual void DataRecord(std::uint32_t record, std::uint32_t length) {
            (void)record;
            (void)length;
        }
    };
    // Checks order, counts, levels and chains; reports every page it uses.
    std::int16_t Walk(TVisitor* visitor);

private:
    struct TStep {
        TPageRef fPage;
        std::uint16_t fIndex = 0;  // child taken
    };
    // The interior nodes from the root down to a leaf, pinned; no allocation.
    class TPath {
    public:
        void Clear() {
            while (fSize > 0) fSteps[--fSize].fPage.Reset();
        }
        void Push(TPageRef&& page, std::uint16_t index) {
            fSteps[fSize].fPage = std::move(page);
            fSteps[fSize].fIndex = index;
            ++fSize;
        }
        std::size_t size() const { return fSize; }
        TStep& operator[](std::size_t i) { return fSteps[i]; }
        const TStep* begin() const { return fSteps; }
        const TStep* end() const { return fSteps + fSize; }

    private:
        TStep fSteps[kMaxTreeHeight];
        std::size_t fSize = 0;
    };

    std::uint16_t InteriorKeyLength() const { return fInfo->fIsData ? 4 : fInfo->fKeyLength; }
    std::uint16_t InteriorCapacity() const;
    std::uint16_t IndexLeafCapacity() const;

    std::int16_t FetchNode(std::uint32_t number, std::uint8_t level, TPageRef* ref);
    bool CheckNode(const std::uint8_t* page, std::uint8_t level) const;
    std::int16_t Descend(const std::uint8_t* key, TPath* path, TPageRef* leaf, bool* rightmost);
    std::int16_t NewNode(std::uint8_t type, std::uint8_t level, TPageRef* ref);
    // A page of the last checkpoint's state is never changed: before a change
    // it moves to a new page, and its parent's entry (or the root) follows.
    std::int16_t MakeWritable(TPageRef* page, TPageRef* parent, std::uint16_t index);
    std::int16_t MakePathWritable(TPath& path, TPageRef& leaf);

    // Carries a split up the path; delta is +1 for an insert.
    std::int16_t FinishInsert(TPath& path, TPageRef& leaf, bool split, const std::uint8_t* separator,
                              std::uint32_t right, std::uint32_t leftCount, std::uint32_t rightCount);
    std::int16_t FinishDelete(TPath& path, TPageRef& leaf);
    std::int16_t MergeChildren(TPageRef& parent, std::uint16_t left, bool* merged);
    std::uint32_t NodeTotal(const std::uint8_t* page) const;
    bool Underfull(const std::uint8_t* page) const;

    // The length bytes of the source from skip on, in a new chain.
    std::int16_t WriteOverflow(const TByteSource& bytes, std::uint32_t skip, std::uint32_t length,
                               std::uint32_t* head);
    std::int16_t FreeOverflow(std::uint32_t head, std::uint32_t length);
    std::int16_t ReadOverflow(std::uint32_t head, std::uint32_t skip, std::uint8_t* out, std::uint32_t length);
    std::int16_t FindCell(std::uint32_t record, TPath* path, TPageRef* leaf, int* slot);
    // FindCell for reading: uses and sets the tree's hint.
    std::int16_t LocateRecord(std::uint32_t record, TPageRef* leaf, int* slot, std::uint32_t hint = 0);
    bool TryHint(std::uint32_t hint, std::uint32_t record, TPageRef* leaf, int* slot);

    std::int16_t RelocateNode(TPageRef& node, TPageRef* parent, std::uint16_t index, std::uint8_t level,
                              std::uint32_t limit);
    // A key whose search passes through the node: its first key, or its
    // first child's.
    std::int16_t KeyWithin(const std::uint8_t* page, std::uint8_t* key, bool* found);
    std::int16_t ChainReaches(std::uint32_t head, std::uint32_t length, std::uint32_t limit, bool* reaches);
    std::int16_t CopyOverflow(std::uint32_t head, std::uint32_t length, std::uint32_t* copy);

    std::int16_t WalkNode(std::uint32_t number, std::uint8_t level, const std::vector<std::uint8_t>& low,
                          const std::vector<std::uint8_t>& high, bool hasHigh, std::uint32_t* count,
                          TVisitor* visitor);

    TPager* fPager;
    TTreeInfo* fInfo;
};

}  // namespace engine

#endif  // KAVO_ENGINE_BTREE_H
