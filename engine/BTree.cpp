#include "engine/BTree.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "engine/Bytes.h"
#include "engine/EngineErrors.h"
#include "engine/StatusLog.h"

namespace engine {
namespace {

constexpr std::uint32_t kBodyStart = kPageHeaderSize;
constexpr std::uint32_t kBodyEnd = kPageBodySize;
constexpr std::uint32_t kBodyBytes = kBodyEnd - kBodyStart;
constexpr std::uint32_t kOverflowBytes = kBodyBytes;
constexpr std::uint32_t kCellHead = 12;  // record number, total length, inline length

std::uint16_t CountOf(const std::uint8_t* page) { return Get16(page + kPageCountAt); }

// Orders keys as bytes, eight at a time: the binary searches spend most of
// their time here, and a call to memcmp per probe costs more than the probe.
inline int CompareKeys(const std::uint8_t* a, const std::uint8_t* b, std::size_t length) {
    if (length == 4) {  // record numbers, big-endian
        const std::uint32_t x = GetBig32(a);
        const std::uint32_t y = GetBig32(b);
        return x == y ? 0 : (x < y ? -1 : 1);
    }
    while (length >= 8) {
        std::uint64_t x;
        std::uint64_t y;
        std::memcpy(&x, a, 8);
        std::memcpy(&y, b, 8);
        if (x != y) {
#if defined(__GNUC__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            x = __builtin_bswap64(x);
            y = __builtin_bswap64(y);
            return x < y ? -1 : 1;
#else
            return std::memcmp(a, b, 8);
#endif
        }
        a += 8;
        b += 8;
        length -= 8;
    }
    for (; length > 0; --length, ++a, ++b) {
        if (*a != *b) return *a < *b ? -1 : 1;
    }
    return 0;
}
void SetCount(std::uint8_t* page, std::uint32_t n) { Put16(page + kPageCountAt, static_cast<std::uint16_t>(n)); }

// --- Interior nodes: entries of (key, child, count); entry 0's key is unused.
struct TInterior {
    std::uint16_t fKey;
    std::uint32_t EntrySize() const { return fKey + 8u; }
    std::uint8_t* Entry(std::uint8_t* page, std::uint32_t i) const { return page + kBodyStart + i * EntrySize(); }
    const std::uint8_t* Entry(const std::uint8_t* page, std::uint32_t i) const {
        return page + kBodyStart + i * EntrySize();
    }
    std::uint32_t Child(const std::uint8_t* page, std::uint32_t i) const { return Get32(Entry(page, i) + fKey); }
    std::uint32_t Count(const std::uint8_t* page, std::uint32_t i) const { return Get32(Entry(page, i) + fKey + 4); }
    void SetCount(std::uint8_t* page, std::uint32_t i, std::uint32_t n) const { Put32(Entry(page, i) + fKey + 4, n); }
    // The child whose range holds key: the last i >= 1 with key_i <= key, else 0.
    std::uint32_t Choose(const std::uint8_t* page, const std::uint8_t* key) const {
        std::uint32_t lo = 1;
        std::uint32_t hi = CountOf(page);
        while (lo < hi) {
            const std::uint32_t mid = (lo + hi) / 2;
            if (CompareKeys(Entry(page, mid), key, fKey) <= 0) {
                lo = mid + 1;
            } else {
                hi = mid;
            }
        }
        return lo - 1;
    }
};

// --- Index leaves: entries of (key, record number, data page hint).
struct TIndexLeaf {
    std::uint16_t fKey;
    std::uint32_t EntrySize() const { return fKey + 8u; }
    std::uint8_t* Entry(std::uint8_t* page, std::uint32_t i) const { return page + kBodyStart + i * EntrySize(); }
    const std::uint8_t* Entry(const std::uint8_t* page, std::uint32_t i) const {
        return page + kBodyStart + i * EntrySize();
    }
    std::uint32_t Record(const std::uint8_t* page, std::uint32_t i) const { return Get32(Entry(page, i) + fKey); }
    std::uint32_t Hint(const std::uint8_t* page, std::uint32_t i) const { return Get32(Entry(page, i) + fKey + 4); }
    // First entry >= key (or > key when after is set).
    std::uint32_t Bound(const std::uint8_t* page, const std::uint8_t* key, bool after) const {
        std::uint32_t lo = 0;
        std::uint32_t hi = CountOf(page);
        while (lo < hi) {
            const std::uint32_t mid = (lo + hi) / 2;
            const int order = CompareKeys(Entry(page, mid), key, fKey);
            if (order < 0 || (after && order == 0)) {
                lo = mid + 1;
            } else {
                hi = mid;
            }
        }
        return lo;
    }
};

// --- Data leaves: a slot array of cell offsets, cells packed from the end.
// The page's aux field holds the start of the cell area, its extra field the
// bytes freed between cells.
struct TDataLeaf {
    static std::uint32_t Slot(const std::uint8_t* page, std::uint32_t i) {
        return Get16(page + kBodyStart + 2 * i);
    }
    static const std::uint8_t* Cell(const std::uint8_t* page, std::uint32_t i) { return page + Slot(page, i); }
    static std::uint32_t Record(const std::uint8_t* page, std::uint32_t i) { return Get32(Cell(page, i)); }
    static std::uint32_t CellSize(const std::uint8_t* cell) {
        const std::uint32_t total = Get32(cell + 4);
        const std::uint32_t inlined = Get32(cell + 8);
        return kCellHead + inlined + (total > inlined ? 4 : 0);
    }
    static std::uint32_t CellStart(const std::uint8_t* page) { return Get32(page + kPageAuxAt); }
    static std::uint32_t Fragments(const std::uint8_t* page) { return Get32(page + kPageExtraAt); }
    static std::uint32_t Bound(const std::uint8_t* page, std::uint32_t record) {
        std::uint32_t lo = 0;
        std::uint32_t hi = CountOf(page);
        while (lo < hi) {
            const std::uint32_t mid = (lo + hi) / 2;
            if (Record(page, mid) < record) {
                lo = mid + 1;
            } else {
                hi = mid;
            }
        }
        return lo;
    }
    static std::uint32_t UsedBytes(const std::uint8_t* page) {
        const std::uint32_t n = CountOf(page);
        return 2 * n + (kBodyEnd - CellStart(page)) - Fragments(page);
    }
    // Rewrites the page with these cells, packed.
    static void Build(std::uint8_t* page, const std::vector<std::vector<std::uint8_t>>& cells, std::size_t from,
                      std::size_t to) {
        std::uint32_t end = kBodyEnd;
        SetCount(page, static_cast<std::uint32_t>(to - from));
        for (std::size_t i = from; i < to; ++i) {
            end -= static_cast<std::uint32_t>(cells[i].size());
            std::memcpy(page + end, cells[i].data(), cells[i].size());
            Put16(page + kBodyStart + 2 * (i - from), static_cast<std::uint16_t>(end));
        }
        Put32(page + kPageAuxAt, end);
        Put32(page + kPageExtraAt, 0);
    }
    static std::vector<std::vector<std::uint8_t>> Cells(const std::uint8_t* page) {
        std::vector<std::vector<std::uint8_t>> cells;
        const std::uint32_t n = CountOf(page);
        for (std::uint32_t i = 0; i < n; ++i) {
            const std::uint8_t* cell = Cell(page, i);
            cells.emplace_back(cell, cell + CellSize(cell));
        }
        return cells;
    }
};

void BigKey(std::uint32_t record, std::uint8_t* key) { PutBig32(key, record); }

}  // namespace

// ---------------------------------------------------------------------------
// Nodes

std::uint16_t TTree::InteriorCapacity() const {
    return static_cast<std::uint16_t>(kBodyBytes / (InteriorKeyLength() + 8u));
}

std::uint16_t TTree::IndexLeafCapacity() const {
    return static_cast<std::uint16_t>(kBodyBytes / (fInfo->fKeyLength + 8u));
}

bool TTree::CheckNode(const std::uint8_t* page, std::uint8_t level) const {
    const std::uint32_t n = CountOf(page);
    if (page[kPageLevelAt] != level || Get32(page + kPageOwnerAt) != fInfo->fMember) return false;
    if (level > 0) {
        const TInterior node{InteriorKeyLength()};
        if (page[kPageTypeAt] != kPageTypeInterior || n == 0 || n > InteriorCapacity()) return false;
        for (std::uint32_t i = 0; i < n; ++i) {
            const std::uint32_t child = node.Child(page, i);
            if (child == 0 || child >= fPager->PageCount()) return false;
            if (i >= 2 && std::memcmp(node.Entry(page, i - 1), node.Entry(page, i), node.fKey) >= 0) return false;
        }
        return true;
    }
    if (!fInfo->fIsData) {
        const TIndexLeaf leaf{fInfo->fKeyLength};
        if (page[kPageTypeAt] != kPageTypeIndexLeaf || n > IndexLeafCapacity()) return false;
        for (std::uint32_t i = 1; i < n; ++i) {
            if (std::memcmp(leaf.Entry(page, i - 1), leaf.Entry(page, i), leaf.fKey) >= 0) return false;
        }
        return true;
    }
    const std::uint32_t cellStart = TDataLeaf::CellStart(page);
    if (page[kPageTypeAt] != kPageTypeDataLeaf || kBodyStart + 2 * n > cellStart || cellStart > kBodyEnd ||
        TDataLeaf::Fragments(page) > kBodyEnd - cellStart)
        return false;
    std::uint32_t previous = 0;
    for (std::uint32_t i = 0; i < n; ++i) {
        const std::uint32_t offset = TDataLeaf::Slot(page, i);
        if (offset < cellStart || offset + kCellHead > kBodyEnd) return false;
        const std::uint8_t* cell = page + offset;
        const std::uint32_t record = Get32(cell);
        const std::uint32_t total = Get32(cell + 4);
        const std::uint32_t inlined = Get32(cell + 8);
        if (record == 0 || (i > 0 && record <= previous) || inlined > total || inlined > kMaxInlineRecord) return false;
        if (offset + std::uint64_t{kCellHead} + inlined + (total > inlined ? 4 : 0) > kBodyEnd) return false;
        if (total > inlined) {
            const std::uint32_t spill = Get32(cell + kCellHead + inlined);
            if (spill == 0 || spill >= fPager->PageCount()) return false;
        }
        previous = record;
    }
    return true;
}

std::int16_t TTree::FetchNode(std::uint32_t number, std::uint8_t level, TPageRef* ref) {
    if (number == 0) FatalError(kFatalNodeAtZero);
    TPage* page = nullptr;
    const std::int16_t error = fPager->Fetch(number, &page);
    if (error != kEngineNoError) return error;
    *ref = TPageRef(fPager, page);
    // A page is checked whole once; after that only that it is what this
    // fetch expects, since a pointer damaged behind a valid checksum can lead
    // another tree, or another level, to a page checked as something else.
    if (!page->fChecked || page->fData[kPageLevelAt] != level ||
        Get32(page->fData + kPageOwnerAt) != fInfo->fMember) {
        if (!CheckNode(page->fData, level)) {
            char message[128];
            std::snprintf(message, sizeof message, kMsgNodeDiagnostic, int{fInfo->fMember}, int{level},
                          int{page->fData[kPageLevelAt]}, static_cast<unsigned long>(number),
                          static_cast<unsigned long>(CountOf(page->fData)));
            LogStatus(message, kPageDamaged);
            ref->Reset();
            return kPageDamaged;
        }
        page->fChecked = true;
    }
    return kEngineNoError;
}

std::int16_t TTree::NewNode(std::uint8_t type, std::uint8_t level, TPageRef* ref) {
    TPage* page = nullptr;
    const std::int16_t error = fPager->Allocate(&page);
    if (error != kEngineNoError) return error;
    *ref = TPageRef(fPager, page);
    std::uint8_t* data = page->fData;
    data[kPageTypeAt] = type;
    data[kPageLevelAt] = level;
    Put32(data + kPageOwnerAt, fInfo->fMember);
    if (type == kPageTypeDataLeaf) Put32(data + kPageAuxAt, kBodyEnd);
    return kEngineNoError;
}

std::int16_t TTree::MakeWritable(TPageRef* page, TPageRef* parent, std::uint16_t index) {
    if (page->Get()->fFresh) return kEngineNoError;
    TPage* copy = nullptr;
    const std::int16_t error = fPager->Allocate(&copy);
    if (error != kEngineNoError) return error;
    std::memcpy(copy->fData, page->Data(), kPageSize);
    copy->fChecked = true;
    const std::uint32_t old = page->Number();
    *page = TPageRef(fPager, copy);
    if (parent != nullptr) {
        const TInterior interior{InteriorKeyLength()};
        parent->MarkDirty();
        Put32(interior.Entry(parent->Data(), index) + interior.fKey, copy->fNumber);
    } else {
        fInfo->fRoot = copy->fNumber;
    }
    fPager->FreePage(old);
    return kEngineNoError;
}

std::int16_t TTree::MakePathWritable(TPath& path, TPageRef& leaf) {
    for (std::size_t l = 0; l < path.size(); ++l) {
        const std::int16_t error =
            MakeWritable(&path[l].fPage, l > 0 ? &path[l - 1].fPage : nullptr, l > 0 ? path[l - 1].fIndex : 0);
        if (error != kEngineNoError) return error;
    }
    const std::size_t depth = path.size();
    return MakeWritable(&leaf, depth > 0 ? &path[depth - 1].fPage : nullptr, depth > 0 ? path[depth - 1].fIndex : 0);
}

std::int16_t TTree::CreateEmpty(TPager* pager, TTreeInfo* info) {
    TTree tree(pager, info);
    TPageRef root;
    const std::int16_t error =
        tree.NewNode(info->fIsData ? kPageTypeDataLeaf : kPageTypeIndexLeaf, 0, &root);
    if (error != kEngineNoError) return error;
    info->fRoot = root.Number();
    info->fCount = 0;
    info->fHeight = 1;
    return kEngineNoError;
}

std::int16_t TTree::Descend(const std::uint8_t* key, TPath* path, TPageRef* leaf, bool* rightmost) {
    path->Clear();
    *rightmost = true;
    const TInterior interior{InteriorKeyLength()};
    std::uint32_t number = fInfo->fRoot;
    for (int level = fInfo->fHeight - 1; level > 0; --level) {
        TPageRef node;
        const std::int16_t error = FetchNode(number, static_cast<std::uint8_t>(level), &node);
        if (error != kEngineNoError) return error;
        const std::uint32_t index = interior.Choose(node.Data(), key);
        if (index + 1 != CountOf(node.Data())) *rightmost = false;
        number = interior.Child(node.Data(), index);
        path->Push(std::move(node), static_cast<std::uint16_t>(index));
    }
    return FetchNode(number, 0, leaf);
}

std::uint32_t TTree::NodeTotal(const std::uint8_t* page) const {
    if (page[kPageLevelAt] == 0) return CountOf(page);
    const TInterior interior{InteriorKeyLength()};
    std::uint32_t total = 0;
    for (std::uint32_t i = 0; i < CountOf(page); ++i) total += interior.Count(page, i);
    return total;
}

bool TTree::Underfull(const std::uint8_t* page) const {
    if (page[kPageLevelAt] > 0) return CountOf(page) < InteriorCapacity() / 4u;
    if (!fInfo->fIsData) return CountOf(page) < IndexLeafCapacity() / 4u;
    return TDataLeaf::UsedBytes(page) < kBodyBytes / 4;
}

// ---------------------------------------------------------------------------
// Insertion

std::int16_t TTree::FinishInsert(TPath& path, TPageRef& leaf, bool split, const std::uint8_t* separator,
                                 std::uint32_t right, std::uint32_t leftCount, std::uint32_t rightCount) {
    const TInterior interior{InteriorKeyLength()};
    const std::uint32_t entrySize = interior.EntrySize();
    std::vector<std::uint8_t> carryKey(separator, separator + (split ? interior.fKey : 0));
    bool rightmost = true;
    for (const TStep& step : path) {
        if (step.fIndex + 1u != CountOf(step.fPage.Data())) rightmost = false;
    }
    leaf.Reset();
    for (std::size_t l = path.size(); l-- > 0;) {
        TPageRef& node = path[l].fPage;
        const std::uint32_t index = path[l].fIndex;
        node.MarkDirty();
        std::uint8_t* page = node.Data();
        if (!split) {
            interior.SetCount(page, index, interior.Count(page, index) + 1);
            continue;
        }
        interior.SetCount(page, index, leftCount);
        const std::uint32_t n = CountOf(page);
        std::vector<std::uint8_t> entry(entrySize);
        std::memcpy(entry.data(), carryKey.data(), interior.fKey);
        Put32(entry.data() + interior.fKey, right);
        Put32(entry.data() + interior.fKey + 4, rightCount);
        if (n < InteriorCapacity()) {
            std::uint8_t* at = interior.Entry(page, index + 1);
            std::memmove(at + entrySize, at, (n - index - 1) * entrySize);
            std::memcpy(at, entry.data(), entrySize);
            SetCount(page, n + 1);
            split = false;
            continue;
        }
        // Split this interior node: an append at the right edge leaves the
        // left node full and starts the right one with the new entry alone.
        std::vector<std::uint8_t> all(std::size_t{n + 1} * entrySize);
        std::memcpy(all.data(), interior.Entry(page, 0), (index + 1) * entrySize);
        std::memcpy(all.data() + (index + 1) * entrySize, entry.data(), entrySize);
        std::memcpy(all.data() + (index + 2) * entrySize, interior.Entry(page, index + 1),
                    (n - index - 1) * entrySize);
        const std::uint32_t middle = (rightmost && index + 1 == n) ? n : (n + 1) / 2;
        const std::uint8_t level = page[kPageLevelAt];
        TPageRef sibling;
        const std::int16_t error = NewNode(kPageTypeInterior, level, &sibling);
        if (error != kEngineNoError) return error;
        std::memcpy(interior.Entry(page, 0), all.data(), middle * entrySize);
        SetCount(page, middle);
        std::memcpy(interior.Entry(sibling.Data(), 0), all.data() + middle * entrySize, (n + 1 - middle) * entrySize);
        SetCount(sibling.Data(), n + 1 - middle);
        std::memcpy(carryKey.data(), interior.Entry(sibling.Data(), 0), interior.fKey);
        std::memset(interior.Entry(sibling.Data(), 0), 0, interior.fKey);
        leftCount = NodeTotal(page);
        rightCount = NodeTotal(sibling.Data());
        right = sibling.Number();
    }
    if (split) {
        // The root split: a new root above the two halves.
        if (fInfo->fHeight >= kMaxTreeHeight) return kFileFull;
        const std::uint32_t oldRoot = fInfo->fRoot;
        TPageRef root;
        const std::int16_t error = NewNode(kPageTypeInterior, fInfo->fHeight, &root);
        if (error != kEngineNoError) return error;
        std::uint8_t* page = root.Data();
        Put32(interior.Entry(page, 0) + interior.fKey, oldRoot);
        Put32(interior.Entry(page, 0) + interior.fKey + 4, leftCount);
        std::memcpy(interior.Entry(page, 1), carryKey.data(), interior.fKey);
        Put32(interior.Entry(page, 1) + interior.fKey, right);
        Put32(interior.Entry(page, 1) + interior.fKey + 4, rightCount);
        SetCount(page, 2);
        fInfo->fRoot = root.Number();
        ++fInfo->fHeight;
    }
    ++fInfo->fCount;
    return kEngineNoError;
}

std::int16_t TTree::IndexInsert(const std::uint8_t* key, std::uint32_t record, std::uint32_t hint) {
    TPath path;
    TPageRef leafRef;
    bool rightmost = false;
    std::int16_t error = Descend(key, &path, &leafRef, &rightmost);
    if (error != kEngineNoError) return error;
    const TIndexLeaf leaf{fInfo->fKeyLength};
    const std::uint32_t entrySize = leaf.EntrySize();
    std::uint8_t* page = leafRef.Data();
    const std::uint32_t n = CountOf(page);
    const std::uint32_t at = leaf.Bound(page, key, false);
    if (at < n && std::memcmp(leaf.Entry(page, at), key, leaf.fKey) == 0) return kKeyExists;
    if ((error = MakePathWritable(path, leafRef)) != kEngineNoError) return error;
    page = leafRef.Data();
    std::vector<std::uint8_t> entry(entrySize);
    std::memcpy(entry.data(), key, leaf.fKey);
    Put32(entry.data() + leaf.fKey, record);
    Put32(entry.data() + leaf.fKey + 4, hint);
    leafRef.MarkDirty();
    if (n < IndexLeafCapacity()) {
        std::memmove(leaf.Entry(page, at + 1), leaf.Entry(page, at), (n - at) * entrySize);
        std::memcpy(leaf.Entry(page, at), entry.data(), entrySize);
        SetCount(page, n + 1);
        return FinishInsert(path, leafRef, false, nullptr, 0, 0, 0);
    }
    std::vector<std::uint8_t> all(std::size_t{n + 1} * entrySize);
    std::memcpy(all.data(), leaf.Entry(page, 0), at * entrySize);
    std::memcpy(all.data() + at * entrySize, entry.data(), entrySize);
    std::memcpy(all.data() + (at + 1) * entrySize, leaf.Entry(page, at), (n - at) * entrySize);
    const std::uint32_t middle = (rightmost && at == n) ? n : (n + 1) / 2;
    TPageRef sibling;
    if ((error = NewNode(kPageTypeIndexLeaf, 0, &sibling)) != kEngineNoError) return error;
    std::memcpy(leaf.Entry(page, 0), all.data(), middle * entrySize);
    SetCount(page, middle);
    std::memcpy(leaf.Entry(sibling.Data(), 0), all.data() + middle * entrySize, (n + 1 - middle) * entrySize);
    SetCount(sibling.Data(), n + 1 - middle);
    const std::vector<std::uint8_t> separator(leaf.Entry(sibling.Data(), 0),
                                              leaf.Entry(sibling.Data(), 0) + leaf.fKey);
    const std::uint32_t right = sibling.Number();
    sibling.Reset();
    return FinishInsert(path, leafRef, true, separator.data(), right, middle, n + 1 - middle);
}

std::int16_t TTree::DataInsert(std::uint32_t record, const TByteSource& bytes, std::uint32_t length,
                               std::uint32_t* where) {
    fInfo->fHintRecord = 0;
    std::uint8_t key[4];
    BigKey(record, key);
    // The cell: whole, or its first bytes and the head of an overflow chain.
    const std::uint32_t inlined = length <= kMaxInlineRecord ? length : kSpilledPrefix;
    std::vector<std::uint8_t> cell(kCellHead + inlined + (length > inlined ? 4 : 0));
    Put32(cell.data(), record);
    Put32(cell.data() + 4, length);
    Put32(cell.data() + 8, inlined);
    if (inlined != 0 && !bytes.Read(0, cell.data() + kCellHead, inlined)) return kPageDamaged;

    TPath path;
    TPageRef leafRef;
    bool rightmost = false;
    std::int16_t error = Descend(key, &path, &leafRef, &rightmost);
    if (error != kEngineNoError) return error;
    std::uint8_t* page = leafRef.Data();
    const std::uint32_t n = CountOf(page);
    const std::uint32_t at = TDataLeaf::Bound(page, record);
    if (at < n && TDataLeaf::Record(page, at) == record) return kKeyExists;
    if (length > inlined) {
        std::uint32_t head = 0;
        error = WriteOverflow(bytes, inlined, length - inlined, &head);
        if (error != kEngineNoError) return error;
        Put32(cell.data() + kCellHead + inlined, head);
    }
    if ((error = MakePathWritable(path, leafRef)) != kEngineNoError) return error;
    page = leafRef.Data();
    const auto size = static_cast<std::uint32_t>(cell.size());
    leafRef.MarkDirty();
    const std::uint32_t slotsEnd = kBodyStart + 2 * (n + 1);
    if (TDataLeaf::CellStart(page) >= slotsEnd + size ||
        TDataLeaf::CellStart(page) + TDataLeaf::Fragments(page) >= slotsEnd + size) {
        if (TDataLeaf::CellStart(page) < slotsEnd + size) {
            TDataLeaf::Build(page, TDataLeaf::Cells(page), 0, n);  // gather the freed bytes
        }
        const std::uint32_t offset = TDataLeaf::CellStart(page) - size;
        std::memcpy(page + offset, cell.data(), size);
        std::memmove(page + kBodyStart + 2 * (at + 1), page + kBodyStart + 2 * at, 2 * (n - at));
        Put16(page + kBodyStart + 2 * at, static_cast<std::uint16_t>(offset));
        Put32(page + kPageAuxAt, offset);
        SetCount(page, n + 1);
        if (where != nullptr) *where = leafRef.Number();
        return FinishInsert(path, leafRef, false, nullptr, 0, 0, 0);
    }
    // Split: an append at the right edge starts a new leaf; otherwise the
    // cells are shared by bytes.
    std::vector<std::vector<std::uint8_t>> cells = TDataLeaf::Cells(page);
    cells.insert(cells.begin() + at, cell);
    std::size_t middle = cells.size() - 1;
    if (!(rightmost && at == n)) {
        std::size_t total = 0;
        for (const auto& c : cells) total += c.size() + 2;
        std::size_t left = 0;
        middle = 0;
        while (middle < cells.size() - 1 && left + cells[middle].size() + 2 <= total / 2) {
            left += cells[middle].size() + 2;
            ++middle;
        }
        if (middle == 0) middle = 1;
    }
    TPageRef sibling;
    if ((error = NewNode(kPageTypeDataLeaf, 0, &sibling)) != kEngineNoError) return error;
    TDataLeaf::Build(page, cells, 0, middle);
    TDataLeaf::Build(sibling.Data(), cells, middle, cells.size());
    std::uint8_t separator[4];
    BigKey(Get32(cells[middle].data()), separator);
    const std::uint32_t right = sibling.Number();
    if (where != nullptr) *where = at < middle ? leafRef.Number() : right;
    sibling.Reset();
    return FinishInsert(path, leafRef, true, separator, right, static_cast<std::uint32_t>(middle),
                        static_cast<std::uint32_t>(cells.size() - middle));
}

// ---------------------------------------------------------------------------
// Deletion

std::int16_t TTree::MergeChildren(TPageRef& parent, std::uint16_t left, bool* merged) {
    *merged = false;
    const TInterior interior{InteriorKeyLength()};
    std::uint8_t* up = parent.Data();
    if (left + 1u >= CountOf(up)) return kEngineNoError;
    const auto level = static_cast<std::uint8_t>(up[kPageLevelAt] - 1);
    TPageRef a;
    TPageRef b;
    std::int16_t error = FetchNode(interior.Child(up, left), level, &a);
    if (error == kEngineNoError) error = FetchNode(interior.Child(up, left + 1), level, &b);
    if (error != kEngineNoError) return error;
    std::uint8_t* pa = a.Data();
    std::uint8_t* pb = b.Data();
    const std::uint32_t na = CountOf(pa);
    const std::uint32_t nb = CountOf(pb);
    if (level > 0) {
        if (na + nb > InteriorCapacity()) return kEngineNoError;
        if ((error = MakeWritable(&a, &parent, left)) != kEngineNoError) return error;
        pa = a.Data();
        a.MarkDirty();
        std::memcpy(interior.Entry(pa, na), interior.Entry(pb, 0), nb * interior.EntrySize());
        std::memcpy(interior.Entry(pa, na), interior.Entry(up, left + 1), interior.fKey);
        SetCount(pa, na + nb);
    } else if (!fInfo->fIsData) {
        const TIndexLeaf leaf{fInfo->fKeyLength};
        if (na + nb > IndexLeafCapacity()) return kEngineNoError;
        if ((error = MakeWritable(&a, &parent, left)) != kEngineNoError) return error;
        pa = a.Data();
        a.MarkDirty();
        std::memcpy(leaf.Entry(pa, na), leaf.Entry(pb, 0), nb * leaf.EntrySize());
        SetCount(pa, na + nb);
    } else {
        if (TDataLeaf::UsedBytes(pa) + TDataLeaf::UsedBytes(pb) > kBodyBytes) return kEngineNoError;
        if ((error = MakeWritable(&a, &parent, left)) != kEngineNoError) return error;
        pa = a.Data();
        a.MarkDirty();
        std::vector<std::vector<std::uint8_t>> cells = TDataLeaf::Cells(pa);
        const auto more = TDataLeaf::Cells(pb);
        cells.insert(cells.end(), more.begin(), more.end());
        TDataLeaf::Build(pa, cells, 0, cells.size());
    }
    parent.MarkDirty();
    interior.SetCount(up, left, interior.Count(up, left) + interior.Count(up, left + 1));
    const std::uint32_t n = CountOf(up);
    std::memmove(interior.Entry(up, left + 1), interior.Entry(up, left + 2),
                 (n - left - 2) * interior.EntrySize());
    SetCount(up, n - 1);
    const std::uint32_t gone = b.Number();
    b.Reset();
    fPager->FreePage(gone);
    *merged = true;
    return kEngineNoError;
}

std::int16_t TTree::FinishDelete(TPath& path, TPageRef& leaf) {
    const TInterior interior{InteriorKeyLength()};
    TPageRef child = std::move(leaf);
    for (std::size_t l = path.size(); l-- > 0;) {
        TPageRef& node = path[l].fPage;
        const std::uint16_t index = path[l].fIndex;
        node.MarkDirty();
        std::uint8_t* page = node.Data();
        interior.SetCount(page, index, interior.Count(page, index) - 1);
        const bool empty = CountOf(child.Data()) == 0;
        const bool underfull = !empty && Underfull(child.Data());
        const std::uint32_t childNumber = child.Number();
        child.Reset();
        if (empty) {
            const std::uint32_t n = CountOf(page);
            std::memmove(interior.Entry(page, index), interior.Entry(page, index + 1),
                         (n - index - 1) * interior.EntrySize());
            SetCount(page, n - 1);
            fPager->FreePage(childNumber);
        } else if (underfull && CountOf(page) > 1) {
            bool merged = false;
            const std::int16_t error =
                MergeChildren(node, static_cast<std::uint16_t>(index > 0 ? index - 1 : 0), &merged);
            if (error != kEngineNoError) return error;
        }
        child = std::move(node);
    }
    --fInfo->fCount;
    // The root: an interior root left without children becomes an empty
    // leaf; one with a single child gives way to it.
    TPageRef root = std::move(child);
    while (root.Data()[kPageLevelAt] > 0) {
        std::uint8_t* page = root.Data();
        const std::uint32_t n = CountOf(page);
        if (n > 1) break;
        if (n == 0) {
            root.MarkDirty();
            std::memset(page, 0, kPageSize);
            page[kPageTypeAt] = fInfo->fIsData ? kPageTypeDataLeaf : kPageTypeIndexLeaf;
            Put32(page + kPageOwnerAt, fInfo->fMember);
            if (fInfo->fIsData) Put32(page + kPageAuxAt, kBodyEnd);
            fInfo->fHeight = 1;
            break;
        }
        const std::uint32_t next = interior.Child(page, 0);
        const std::uint32_t old = root.Number();
        root.Reset();
        fPager->FreePage(old);
        fInfo->fRoot = next;
        --fInfo->fHeight;
        const std::int16_t error = FetchNode(next, static_cast<std::uint8_t>(fInfo->fHeight - 1), &root);
        if (error != kEngineNoError) return error;
    }
    return kEngineNoError;
}

std::int16_t TTree::IndexDelete(const std::uint8_t* key, bool* found) {
    *found = false;
    TPath path;
    TPageRef leafRef;
    bool rightmost = false;
    const std::int16_t error = Descend(key, &path, &leafRef, &rightmost);
    if (error != kEngineNoError) return error;
    const TIndexLeaf leaf{fInfo->fKeyLength};
    std::uint8_t* page = leafRef.Data();
    const std::uint32_t n = CountOf(page);
    const std::uint32_t at = leaf.Bound(page, key, false);
    if (at >= n || std::memcmp(leaf.Entry(page, at), key, leaf.fKey) != 0) return kEngineNoError;
    *found = true;
    const std::int16_t writable = MakePathWritable(path, leafRef);
    if (writable != kEngineNoError) return writable;
    page = leafRef.Data();
    leafRef.MarkDirty();
    std::memmove(leaf.Entry(page, at), leaf.Entry(page, at + 1), (n - at - 1) * leaf.EntrySize());
    SetCount(page, n - 1);
    return FinishDelete(path, leafRef);
}

std::int16_t TTree::FindCell(std::uint32_t record, TPath* path, TPageRef* leaf, int* slot) {
    std::uint8_t key[4];
    BigKey(record, key);
    bool rightmost = false;
    *slot = -1;
    const std::int16_t error = Descend(key, path, leaf, &rightmost);
    if (error != kEngineNoError) return error;
    const std::uint8_t* page = leaf->Data();
    const std::uint32_t at = TDataLeaf::Bound(page, record);
    if (at < CountOf(page) && TDataLeaf::Record(page, at) == record) *slot = static_cast<int>(at);
    return kEngineNoError;
}

bool TTree::TryHint(std::uint32_t hint, std::uint32_t record, TPageRef* leaf, int* slot) {
    TPage* page = fPager->FindCached(hint);
    if (page == nullptr) return false;
    TPageRef ref(fPager, page);
    const std::uint8_t* data = page->fData;
    if (data[kPageTypeAt] != kPageTypeDataLeaf || data[kPageLevelAt] != 0 ||
        Get32(data + kPageOwnerAt) != fInfo->fMember)
        return false;
    if (!page->fChecked) {
        if (!CheckNode(data, 0)) return false;
        page->fChecked = true;
    }
    const std::uint32_t at = TDataLeaf::Bound(data, record);
    if (at >= CountOf(data) || TDataLeaf::Record(data, at) != record) return false;
    *slot = static_cast<int>(at);
    *leaf = std::move(ref);
    return true;
}

std::int16_t TTree::LocateRecord(std::uint32_t record, TPageRef* leaf, int* slot, std::uint32_t hint) {
    *slot = -1;
    if (hint >= kFirstDataPage && fInfo->fHintRecord != record && TryHint(hint, record, leaf, slot)) {
        fInfo->fHintRecord = record;
        fInfo->fHintPage = hint;
        fInfo->fHintSlot = static_cast<std::uint16_t>(*slot);
        return kEngineNoError;
    }
    if (fInfo->fHintRecord == record && record != 0) {
        // The tree has not changed since the hint was taken, so its page is
        // still the leaf that holds the record, in the same slot.
        const std::int16_t error = FetchNode(fInfo->fHintPage, 0, leaf);
        if (error != kEngineNoError) return error;
        *slot = fInfo->fHintSlot;
        return kEngineNoError;
    }
    TPath path;
    const std::int16_t error = FindCell(record, &path, leaf, slot);
    if (error == kEngineNoError && *slot >= 0) {
        fInfo->fHintRecord = record;
        fInfo->fHintPage = leaf->Number();
        fInfo->fHintSlot = static_cast<std::uint16_t>(*slot);
    }
    return error;
}

std::int16_t TTree::DataDelete(std::uint32_t record, bool* found) {
    *found = false;
    fInfo->fHintRecord = 0;
    TPath path;
    TPageRef leafRef;
    int slot = -1;
    std::int16_t error = FindCell(record, &path, &leafRef, &slot);
    if (error != kEngineNoError || slot < 0) return error;
    *found = true;
    std::uint8_t* page = leafRef.Data();
    const std::uint32_t offset = TDataLeaf::Slot(page, slot);
    const std::uint8_t* cell = page + offset;
    const std::uint32_t total = Get32(cell + 4);
    const std::uint32_t inlined = Get32(cell + 8);
    const std::uint32_t size = TDataLeaf::CellSize(cell);
    if (total > inlined) {
        error = FreeOverflow(Get32(cell + kCellHead + inlined), total - inlined);
        if (error != kEngineNoError) return error;
    }
    if ((error = MakePathWritable(path, leafRef)) != kEngineNoError) return error;
    page = leafRef.Data();
    leafRef.MarkDirty();
    const std::uint32_t n = CountOf(page);
    std::memmove(page + kBodyStart + 2 * slot, page + kBodyStart + 2 * (slot + 1), 2 * (n - slot - 1));
    SetCount(page, n - 1);
    if (offset == TDataLeaf::CellStart(page)) {
        Put32(page + kPageAuxAt, offset + size);
    } else {
        Put32(page + kPageExtraAt, TDataLeaf::Fragments(page) + size);
    }
    return FinishDelete(path, leafRef);
}

// ---------------------------------------------------------------------------
// Reading

std::int16_t TTree::IndexRank(const std::uint8_t* key, bool inclusive, std::uint32_t* rank) {
    *rank = 0;
    const TInterior interior{InteriorKeyLength()};
    std::uint32_t number = fInfo->fRoot;
    std::uint64_t below = 0;
    for (int level = fInfo->fHeight - 1; level > 0; --level) {
        TPageRef node;
        const std::int16_t error = FetchNode(number, static_cast<std::uint8_t>(level), &node);
        if (error != kEngineNoError) return error;
        const std::uint32_t index = interior.Choose(node.Data(), key);
        for (std::uint32_t i = 0; i < index; ++i) below += interior.Count(node.Data(), i);
        number = interior.Child(node.Data(), index);
    }
    TPageRef leaf;
    const std::int16_t error = FetchNode(number, 0, &leaf);
    if (error != kEngineNoError) return error;
    below += TIndexLeaf{fInfo->fKeyLength}.Bound(leaf.Data(), key, inclusive);
    // Counts that add up to more keys than the tree holds were written wrong
    // (a checksum cannot tell): damage, not a rank.
    if (below > fInfo->fCount) return kPageDamaged;
    *rank = static_cast<std::uint32_t>(below);
    return kEngineNoError;
}

std::int16_t TTree::IndexSelect(std::uint32_t n, std::uint8_t* key, std::uint32_t* record, bool* found,
                                std::uint32_t* hint) {
    *found = false;
    if (n >= fInfo->fCount) return kEngineNoError;
    const TInterior interior{InteriorKeyLength()};
    std::uint32_t number = fInfo->fRoot;
    for (int level = fInfo->fHeight - 1; level > 0; --level) {
        TPageRef node;
        const std::int16_t error = FetchNode(number, static_cast<std::uint8_t>(level), &node);
        if (error != kEngineNoError) return error;
        const std::uint32_t children = CountOf(node.Data());
        std::uint32_t index = 0;
        while (index + 1 < children && n >= interior.Count(node.Data(), index)) {
            n -= interior.Count(node.Data(), index);
            ++index;
        }
        number = interior.Child(node.Data(), index);
    }
    TPageRef leafRef;
    const std::int16_t error = FetchNode(number, 0, &leafRef);
    if (error != kEngineNoError) return error;
    const TIndexLeaf leaf{fInfo->fKeyLength};
    if (n >= CountOf(leafRef.Data())) return kPageDamaged;  // the counts above disagree with the leaves
    if (key != nullptr) std::memcpy(key, leaf.Entry(leafRef.Data(), n), leaf.fKey);
    *record = leaf.Record(leafRef.Data(), n);
    if (hint != nullptr) *hint = leaf.Hint(leafRef.Data(), n);
    *found = true;
    return kEngineNoError;
}

std::int16_t TTree::IndexFind(FindMode mode, const std::uint8_t* key, std::uint8_t* foundKey,
                              std::uint32_t* record, bool* found, std::uint32_t* hint) {
    *found = false;
    if (mode == FindMode::kEqual) {
        TPath path;
        TPageRef leafRef;
        bool rightmost = false;
        const std::int16_t error = Descend(key, &path, &leafRef, &rightmost);
        if (error != kEngineNoError) return error;
        const TIndexLeaf leaf{fInfo->fKeyLength};
        const std::uint32_t at = leaf.Bound(leafRef.Data(), key, false);
        if (at < CountOf(leafRef.Data()) && std::memcmp(leaf.Entry(leafRef.Data(), at), key, leaf.fKey) == 0) {
            if (foundKey != nullptr) std::memcpy(foundKey, leaf.Entry(leafRef.Data(), at), leaf.fKey);
            *record = leaf.Record(leafRef.Data(), at);
            if (hint != nullptr) *hint = leaf.Hint(leafRef.Data(), at);
            *found = true;
        }
        return kEngineNoError;
    }
    // The others by rank: two descents, no links between leaves to follow.
    std::uint32_t rank = 0;
    const std::int16_t error = IndexRank(key, mode != FindMode::kAtOrAfter, &rank);
    if (error != kEngineNoError) return error;
    if (mode == FindMode::kAtOrBefore) {
        if (rank == 0) return kEngineNoError;
        --rank;
    }
    return IndexSelect(rank, foundKey, record, found, hint);
}

std::int16_t TTree::DataLength(std::uint32_t record, std::uint32_t* length, bool* found) {
    TPageRef leaf;
    int slot = -1;
    *found = false;
    const std::int16_t error = LocateRecord(record, &leaf, &slot);
    if (error != kEngineNoError || slot < 0) return error;
    *length = Get32(TDataLeaf::Cell(leaf.Data(), slot) + 4);
    *found = true;
    return kEngineNoError;
}

std::int16_t TTree::DataRead(std::uint32_t record, std::uint32_t offset, std::uint8_t* out, std::uint32_t length) {
    TPageRef leaf;
    int slot = -1;
    const std::int16_t error = LocateRecord(record, &leaf, &slot);
    if (error != kEngineNoError) return error;
    if (slot < 0) return kBadRecordPosition;
    const std::uint8_t* cell = TDataLeaf::Cell(leaf.Data(), slot);
    const std::uint32_t total = Get32(cell + 4);
    const std::uint32_t inlined = Get32(cell + 8);
    if (std::uint64_t{offset} + length > total) return kBadArgument;
    if (offset < inlined) {
        const std::uint32_t take = std::min(length, inlined - offset);
        std::memcpy(out, cell + kCellHead + offset, take);
        out += take;
        offset += take;
        length -= take;
    }
    if (length == 0) return kEngineNoError;
    const std::uint32_t head = Get32(cell + kCellHead + inlined);
    leaf.Reset();
    return ReadOverflow(head, offset - inlined, out, length);
}

std::int16_t TTree::DataReadUpTo(std::uint32_t record, std::uint32_t limit, std::uint8_t* out,
                                 std::uint32_t* length, bool* found, std::uint32_t hint) {
    TPageRef leaf;
    int slot = -1;
    *found = false;
    const std::int16_t error = LocateRecord(record, &leaf, &slot, hint);
    if (error != kEngineNoError || slot < 0) return error;
    *found = true;
    const std::uint8_t* cell = TDataLeaf::Cell(leaf.Data(), slot);
    const std::uint32_t total = Get32(cell + 4);
    const std::uint32_t inlined = Get32(cell + 8);
    *length = total;
    const std::uint32_t wanted = std::min(limit, total);
    const std::uint32_t here = std::min(wanted, inlined);
    if (here != 0) std::memcpy(out, cell + kCellHead, here);
    if (wanted == here) return kEngineNoError;
    const std::uint32_t head = Get32(cell + kCellHead + inlined);
    leaf.Reset();
    return ReadOverflow(head, 0, out + here, wanted - here);
}

// ---------------------------------------------------------------------------
// Overflow chains

std::int16_t TTree::WriteOverflow(const TByteSource& bytes, std::uint32_t skip, std::uint32_t length,
                                  std::uint32_t* head) {
    const std::uint32_t pages = (length + kOverflowBytes - 1) / kOverflowBytes;
    // Written back to front, so that each page knows its successor.
    std::uint32_t next = 0;
    for (std::uint32_t i = pages; i-- > 0;) {
        TPageRef page;
        const std::int16_t error = NewNode(kPageTypeOverflow, 0, &page);
        if (error != kEngineNoError) return error;
        const std::uint32_t from = i * kOverflowBytes;
        const std::uint32_t take = std::min(kOverflowBytes, length - from);
        if (!bytes.Read(std::uint64_t{skip} + from, page.Data() + kBodyStart, take)) return kPageDamaged;
        Put32(page.Data() + kPageAuxAt, next);
        Put32(page.Data() + kPageExtraAt, take);
        next = page.Number();
    }
    *head = next;
    return kEngineNoError;
}

std::int16_t TTree::ReadOverflow(std::uint32_t head, std::uint32_t skip, std::uint8_t* out, std::uint32_t length) {
    std::uint32_t number = head;
    std::uint32_t steps = 0;
    const std::uint32_t limit = (skip + length) / kOverflowBytes + 1;
    while (length > 0) {
        if (number == 0 || steps++ > limit) return kPageDamaged;
        TPage* raw = nullptr;
        const std::int16_t error = fPager->Fetch(number, &raw);
        if (error != kEngineNoError) return error;
        TPageRef page(fPager, raw);
        const std::uint8_t* data = page.Data();
        const std::uint32_t held = Get32(data + kPageExtraAt);
        if (data[kPageTypeAt] != kPageTypeOverflow || Get32(data + kPageOwnerAt) != fInfo->fMember ||
            held > kOverflowBytes)
            return kPageDamaged;
        if (skip >= held) {
            skip -= held;
        } else {
            const std::uint32_t take = std::min(length, held - skip);
            std::memcpy(out, data + kBodyStart + skip, take);
            out += take;
            length -= take;
            skip = 0;
        }
        number = Get32(data + kPageAuxAt);
    }
    return kEngineNoError;
}

std::int16_t TTree::FreeOverflow(std::uint32_t head, std::uint32_t length) {
    std::uint32_t number = head;
    std::uint32_t pages = (length + kOverflowBytes - 1) / kOverflowBytes;
    while (pages-- > 0) {
        if (number == 0) return kPageDamaged;
        TPage* raw = nullptr;
        const std::int16_t error = fPager->Fetch(number, &raw);
        if (error != kEngineNoError) return error;
        const std::uint8_t* data = raw->fData;
        const bool valid = data[kPageTypeAt] == kPageTypeOverflow && Get32(data + kPageOwnerAt) == fInfo->fMember;
        const std::uint32_t next = Get32(data + kPageAuxAt);
        fPager->Unpin(raw);
        if (!valid) return kPageDamaged;
        fPager->FreePage(number);
        number = next;
    }
    return kEngineNoError;
}

// ---------------------------------------------------------------------------
// Compaction

std::int16_t TTree::Relocate(std::uint32_t limit) {
    fInfo->fHintRecord = 0;
    TPageRef root;
    const std::int16_t error = FetchNode(fInfo->fRoot, static_cast<std::uint8_t>(fInfo->fHeight - 1), &root);
    if (error != kEngineNoError) return error;
    return RelocateNode(root, nullptr, 0, static_cast<std::uint8_t>(fInfo->fHeight - 1), limit);
}

std::int16_t TTree::RelocateNode(TPageRef& node, TPageRef* parent, std::uint16_t index, std::uint8_t level,
                                 std::uint32_t limit) {
    std::int16_t error = kEngineNoError;
    if ((level > 0 || node.Number() >= limit) && (error = MakeWritable(&node, parent, index)) != kEngineNoError)
        return error;
    if (level > 0) {
        const TInterior interior{InteriorKeyLength()};
        const std::uint32_t n = CountOf(node.Data());
        for (std::uint32_t i = 0; i < n; ++i) {
            TPageRef child;
            if ((error = FetchNode(interior.Child(node.Data(), i), static_cast<std::uint8_t>(level - 1), &child)) !=
                kEngineNoError)
                return error;
            error = RelocateNode(child, &node, static_cast<std::uint16_t>(i), static_cast<std::uint8_t>(level - 1),
                                 limit);
            if (error != kEngineNoError) return error;
        }
        return kEngineNoError;
    }
    if (!fInfo->fIsData) return kEngineNoError;
    for (std::uint32_t slot = 0; slot < CountOf(node.Data()); ++slot) {
        const std::uint8_t* cell = TDataLeaf::Cell(node.Data(), slot);
        const std::uint32_t total = Get32(cell + 4);
        const std::uint32_t inlined = Get32(cell + 8);
        if (total <= inlined) continue;
        bool reaches = false;
        if ((error = ChainReaches(Get32(cell + kCellHead + inlined), total - inlined, limit, &reaches)) !=
            kEngineNoError)
            return error;
        if (!reaches) continue;
        if ((error = MakeWritable(&node, parent, index)) != kEngineNoError) return error;
        std::uint8_t* at = node.Data() + TDataLeaf::Slot(node.Data(), slot) + kCellHead + inlined;
        std::uint32_t copy = 0;
        if ((error = CopyOverflow(Get32(at), total - inlined, &copy)) != kEngineNoError) return error;
        node.MarkDirty();
        Put32(at, copy);
    }
    return kEngineNoError;
}

std::int16_t TTree::KeyWithin(const std::uint8_t* page, std::uint8_t* key, bool* found) {
    *found = false;
    const std::uint32_t n = CountOf(page);
    const std::uint8_t level = page[kPageLevelAt];
    if (level > 0) {
        const TInterior interior{InteriorKeyLength()};
        if (n >= 2) {
            std::memcpy(key, interior.Entry(page, 1), interior.fKey);
            *found = true;
            return kEngineNoError;
        }
        if (n == 0) return kEngineNoError;
        TPageRef child;
        const std::int16_t error = FetchNode(interior.Child(page, 0), static_cast<std::uint8_t>(level - 1), &child);
        if (error != kEngineNoError) return error;
        return KeyWithin(child.Data(), key, found);
    }
    if (n == 0) return kEngineNoError;
    if (fInfo->fIsData) {
        BigKey(TDataLeaf::Record(page, 0), key);
    } else {
        std::memcpy(key, TIndexLeaf{fInfo->fKeyLength}.Entry(page, 0), fInfo->fKeyLength);
    }
    *found = true;
    return kEngineNoError;
}

std::int16_t TTree::MovePathDown(std::uint32_t number, bool* moved) {
    *moved = false;
    fInfo->fHintRecord = 0;
    std::vector<std::uint8_t> key(std::max<std::size_t>(fInfo->fKeyLength, 4), 0);
    if (number != fInfo->fRoot) {
        TPage* raw = nullptr;
        std::int16_t error = fPager->Fetch(number, &raw);
        if (error != kEngineNoError) return error;
        TPageRef page(fPager, raw);
        const std::uint8_t type = page.Data()[kPageTypeAt];
        if (type != kPageTypeInterior && type != kPageTypeIndexLeaf && type != kPageTypeDataLeaf)
            return kEngineNoError;
        TPageRef node;
        if ((error = FetchNode(number, page.Data()[kPageLevelAt], &node)) != kEngineNoError) return error;
        bool found = false;
        if ((error = KeyWithin(node.Data(), key.data(), &found)) != kEngineNoError || !found) return error;
    }
    TPath path;
    TPageRef leaf;
    bool rightmost = false;
    std::int16_t error = Descend(key.data(), &path, &leaf, &rightmost);
    if (error != kEngineNoError) return error;
    bool onPath = leaf.Number() == number;
    for (const TStep& step : path) onPath = onPath || step.fPage.Number() == number;
    if (!onPath) return kEngineNoError;
    if ((error = MakePathWritable(path, leaf)) != kEngineNoError) return error;
    *moved = true;
    return kEngineNoError;
}

// Whether a page of the chain is numbered at or above limit.
std::int16_t TTree::ChainReaches(std::uint32_t head, std::uint32_t length, std::uint32_t limit, bool* reaches) {
    *reaches = false;
    std::uint32_t number = head;
    for (std::uint32_t pages = (length + kOverflowBytes - 1) / kOverflowBytes; pages > 0; --pages) {
        if (number == 0) return kPageDamaged;
        if (number >= limit) {
            *reaches = true;
            return kEngineNoError;
        }
        TPage* raw = nullptr;
        const std::int16_t error = fPager->Fetch(number, &raw);
        if (error != kEngineNoError) return error;
        TPageRef page(fPager, raw);
        if (page.Data()[kPageTypeAt] != kPageTypeOverflow || Get32(page.Data() + kPageOwnerAt) != fInfo->fMember)
            return kPageDamaged;
        number = Get32(page.Data() + kPageAuxAt);
    }
    return kEngineNoError;
}

// Copies a chain front to back into new pages and frees the old ones.
std::int16_t TTree::CopyOverflow(std::uint32_t head, std::uint32_t length, std::uint32_t* copy) {
    *copy = 0;
    TPageRef previous;
    std::uint32_t number = head;
    for (std::uint32_t pages = (length + kOverflowBytes - 1) / kOverflowBytes; pages > 0; --pages) {
        if (number == 0) return kPageDamaged;
        TPage* raw = nullptr;
        std::int16_t error = fPager->Fetch(number, &raw);
        if (error != kEngineNoError) return error;
        TPageRef old(fPager, raw);
        if (old.Data()[kPageTypeAt] != kPageTypeOverflow || Get32(old.Data() + kPageOwnerAt) != fInfo->fMember)
            return kPageDamaged;
        TPageRef page;
        if ((error = NewNode(kPageTypeOverflow, 0, &page)) != kEngineNoError) return error;
        std::memcpy(page.Data(), old.Data(), kPageBodySize);
        Put32(page.Data() + kPageAuxAt, 0);
        if (previous) {
            Put32(previous.Data() + kPageAuxAt, page.Number());
        } else {
            *copy = page.Number();
        }
        const std::uint32_t next = Get32(old.Data() + kPageAuxAt);
        old.Reset();
        fPager->FreePage(number);
        previous = std::move(page);
        number = next;
    }
    return kEngineNoError;
}

// ---------------------------------------------------------------------------
// Walking

std::int16_t TTree::WalkNode(std::uint32_t number, std::uint8_t level, const std::vector<std::uint8_t>& low,
                             const std::vector<std::uint8_t>& high, bool hasHigh, std::uint32_t* count,
                             TVisitor* visitor) {
    *count = 0;
    char where[96];
    std::snprintf(where, sizeof where, "member %u page %lu", unsigned{fInfo->fMember},
                  static_cast<unsigned long>(number));
    if (number == 0 || number >= fPager->PageCount()) {
        visitor->Problem(std::string(where) + ": page number out of range");
        return kEngineNoError;
    }
    if (!visitor->Page(number)) return kEngineNoError;
    TPageRef ref;
    if (FetchNode(number, level, &ref) != kEngineNoError) {
        visitor->Problem(std::string(where) + ": damaged (checksum or structure)");
        return kEngineNoError;
    }
    const std::uint8_t* page = ref.Data();
    const std::uint32_t n = CountOf(page);
    const std::uint16_t keyLength = level > 0 ? InteriorKeyLength() : (fInfo->fIsData ? 4 : fInfo->fKeyLength);
    const auto outOfRange = [&](const std::uint8_t* key) {
        return (!low.empty() && std::memcmp(key, low.data(), keyLength) < 0) ||
               (hasHigh && std::memcmp(key, high.data(), keyLength) >= 0);
    };
    if (level > 0) {
        const TInterior interior{InteriorKeyLength()};
        for (std::uint32_t i = 0; i < n; ++i) {
            std::vector<std::uint8_t> childLow = low;
            if (i > 0) {
                const std::uint8_t* key = interior.Entry(page, i);
                if (outOfRange(key)) visitor->Problem(std::string(where) + ": separator out of order");
                childLow.assign(key, key + keyLength);
            }
            std::vector<std::uint8_t> childHigh = high;
            bool childHasHigh = hasHigh;
            if (i + 1 < n) {
                const std::uint8_t* key = interior.Entry(page, i + 1);
                childHigh.assign(key, key + keyLength);
                childHasHigh = true;
            }
            std::uint32_t below = 0;
            WalkNode(interior.Child(page, i), static_cast<std::uint8_t>(level - 1), childLow, childHigh,
                     childHasHigh, &below, visitor);
            if (below != interior.Count(page, i))
                visitor->Problem(std::string(where) + ": child count " + std::to_string(interior.Count(page, i)) +
                                 " but " + std::to_string(below) + " beneath");
            *count += below;
        }
        return kEngineNoError;
    }
    *count = n;
    if (!fInfo->fIsData) {
        const TIndexLeaf leaf{fInfo->fKeyLength};
        for (std::uint32_t i = 0; i < n; ++i) {
            const std::uint8_t* key = leaf.Entry(page, i);
            if (outOfRange(key)) visitor->Problem(std::string(where) + ": key out of order");
            visitor->IndexEntry(key, leaf.Record(page, i));
        }
        return kEngineNoError;
    }
    for (std::uint32_t i = 0; i < n; ++i) {
        const std::uint8_t* cell = TDataLeaf::Cell(page, i);
        std::uint8_t key[4];
        BigKey(Get32(cell), key);
        if (outOfRange(key)) visitor->Problem(std::string(where) + ": record out of order");
        const std::uint32_t total = Get32(cell + 4);
        const std::uint32_t inlined = Get32(cell + 8);
        if (total > inlined) {
            // The overflow chain: exactly as many pages as the length needs.
            std::uint32_t next = Get32(cell + kCellHead + inlined);
            std::uint32_t pages = (total - inlined + kOverflowBytes - 1) / kOverflowBytes;
            std::uint32_t held = 0;
            while (pages-- > 0) {
                if (next == 0 || next >= fPager->PageCount()) {
                    visitor->Problem(std::string(where) + ": overflow chain broken");
                    break;
                }
                if (!visitor->Page(next)) break;
                TPage* raw = nullptr;
                if (fPager->Fetch(next, &raw) != kEngineNoError) {
                    visitor->Problem(std::string(where) + ": overflow page damaged");
                    break;
                }
                TPageRef overflow(fPager, raw);
                const std::uint8_t* data = overflow.Data();
                if (data[kPageTypeAt] != kPageTypeOverflow || Get32(data + kPageOwnerAt) != fInfo->fMember ||
                    Get32(data + kPageExtraAt) > kOverflowBytes) {
                    visitor->Problem(std::string(where) + ": overflow page of the wrong kind");
                    break;
                }
                held += Get32(data + kPageExtraAt);
                next = Get32(data + kPageAuxAt);
            }
            if (held != total - inlined) visitor->Problem(std::string(where) + ": overflow chain length wrong");
        }
        visitor->DataRecord(Get32(cell), total);
    }
    return kEngineNoError;
}

std::int16_t TTree::Walk(TVisitor* visitor) {
    std::uint32_t count = 0;
    if (fInfo->fHeight == 0 || fInfo->fHeight > kMaxTreeHeight) {
        visitor->Problem("member " + std::to_string(fInfo->fMember) + ": tree height out of range");
        return kEngineNoError;
    }
    const std::int16_t error =
        WalkNode(fInfo->fRoot, static_cast<std::uint8_t>(fInfo->fHeight - 1), {}, {}, false, &count, visitor);
    if (count != fInfo->fCount)
        visitor->Problem("member " + std::to_string(fInfo->fMember) + ": catalog count " +
                         std::to_string(fInfo->fCount) + " but " + std::to_string(count) + " in the tree");
    return error;
}

}  // namespace engine
