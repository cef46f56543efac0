#include "TList/Common/Tlist.h"

#include <cstddef>
#include <cstring>

#include "Common/Kavoassert.h"

template <typename TElement>
TListOf<TElement>::TListOf(std::uint16_t initialCount)
    : fIsValid(0),
      fAllocatedCount(0),
      fCount(0),
      fMaxCount(initialCount),
      fRecordSize(sizeof(TElement)),
      fItems(nullptr) {
    KAVO_ASSERT(fRecordSize == sizeof(TElement));
    // The bound is dropped again at once, so the argument never pre-allocates
    // and never limits the list; every list starts with an empty handle.
    fMaxCount = 0;
    const std::int16_t error = MSNewHandle(&fItems, 0);
    KAVO_ASSERT(error == kNoError);
    fIsValid = error == kNoError;
}

template <typename TElement>
TListOf<TElement>::~TListOf() {
    if (!fIsValid) return;
    Clear();
    MSDisposeHandle(fItems);
}

template <typename TElement>
unsigned char* TListOf<TElement>::LockItems() {
    void* address = nullptr;
    const std::int16_t error = MSLockHandle(fItems, &address);
    KAVO_ASSERT(error == kNoError);
    return error == kNoError ? static_cast<unsigned char*>(address) : nullptr;
}

template <typename TElement>
void TListOf<TElement>::UnlockItems() {
    const std::int16_t error = MSUnlockHandle(fItems);
    KAVO_ASSERT(error == kNoError);
    (void)error;
}

// Elements sit behind the 4-byte size header, so pointer-sized ones may be
// misaligned: they are copied, never dereferenced in place.
template <typename TElement>
TElement TListOf<TElement>::Load(const unsigned char* items, std::uint16_t index) const {
    TElement value;
    std::memcpy(&value, items + std::size_t{index} * fRecordSize, sizeof value);
    return value;
}

template <typename TElement>
void TListOf<TElement>::Store(unsigned char* items, std::uint16_t index, TElement value) const {
    std::memcpy(items + std::size_t{index} * fRecordSize, &value, sizeof value);
}

template <typename TElement>
std::int16_t TListOf<TElement>::Grow() {
    if (fAllocatedCount > fCount) return kNoError;
    if (fMaxCount != 0 && fAllocatedCount > fMaxCount) return kListBoundReached;
    // Grow a copy of the handle: a failed grow nulls the variable it is given,
    // and the list must keep its storage.
    MSHandle items = fItems;
    const std::int16_t error = MSGrowHandle(&items, (fAllocatedCount + 1u) * fRecordSize);
    if (error != kNoError) return error;
    fItems = items;
    ++fAllocatedCount;
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::Insert(TElement value, std::uint16_t index) {
    if (!fIsValid || index > fCount) return kGeneralError;
    if (fCount == kMaxElements) return kListBoundReached;
    if (fMaxCount != 0 && fCount + 1 > fMaxCount) return kListBoundReached;
    const std::int16_t error = Grow();
    if (error != kNoError) return error;
    unsigned char* items = LockItems();
    if (items == nullptr) return kGeneralError;
    if (index != fCount) {
        std::memmove(items + (index + 1u) * fRecordSize, items + std::size_t{index} * fRecordSize,
                     static_cast<std::size_t>(fCount - index) * fRecordSize);
    }
    Store(items, index, value);
    UnlockItems();
    ++fCount;
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::Append(TElement value) {
    return Insert(value, fCount);
}

template <typename TElement>
std::int16_t TListOf<TElement>::Prepend(TElement value) {
    return Insert(value, 0);
}

template <typename TElement>
std::int16_t TListOf<TElement>::Set(TElement value, std::uint16_t index) {
    if (!fIsValid || index >= fCount) return kGeneralError;
    unsigned char* items = LockItems();
    if (items == nullptr) return kGeneralError;
    Store(items, index, value);
    UnlockItems();
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::Get(std::uint16_t index, TElement* value) {
    if (!KAVO_CHECK(value != NULL)) return kGeneralError;
    *value = TElement{};
    if (!fIsValid || index >= fCount) return kGeneralError;
    const unsigned char* items = LockItems();
    if (items == nullptr) return kGeneralError;
    *value = Load(items, index);
    UnlockItems();
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::Remove(std::uint16_t index) {
    if (!fIsValid || index >= fCount) return kGeneralError;
    const std::size_t tailBytes = std::size_t{fCount - index - 1u} * fRecordSize;
    if (tailBytes != 0) {
        unsigned char* items = LockItems();
        if (items == nullptr) return kGeneralError;
        std::memmove(items + std::size_t{index} * fRecordSize, items + (index + 1u) * fRecordSize,
                     tailBytes);
        UnlockItems();
    }
    --fCount;
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::RemoveValue(TElement value) {
    std::uint16_t index = 0;
    const std::int16_t error = Find(value, &index);
    return error != kNoError ? error : Remove(index);
}

template <typename TElement>
std::int16_t TListOf<TElement>::Find(TElement value, std::uint16_t* index) {
    if (!KAVO_CHECK(index != NULL)) return kGeneralError;
    *index = static_cast<std::uint16_t>(fAllocatedCount + 1);
    if (fItems == nullptr) return kGeneralError;
    const unsigned char* items = LockItems();
    if (items == nullptr) return kGeneralError;
    std::int16_t result = kGeneralError;
    for (std::uint16_t i = 0; i < fCount; ++i) {
        if (Load(items, i) == value) {
            *index = i;
            result = kNoError;
            break;
        }
    }
    UnlockItems();
    return result;
}

template <typename TElement>
std::int16_t TListOf<TElement>::BringToFront(TElement value) {
    if (!fIsValid) return kGeneralError;
    std::uint16_t index = 0;
    std::int16_t error = Find(value, &index);
    if (error != kNoError || index == 0) return error;
    error = Remove(index);
    return error != kNoError ? error : Prepend(value);
}

template <typename TElement>
std::int16_t TListOf<TElement>::SendToBack(TElement value) {
    if (!fIsValid) return kGeneralError;
    std::uint16_t index = 0;
    std::int16_t error = Find(value, &index);
    if (error != kNoError || index == fCount - 1) return error;
    error = Remove(index);
    return error != kNoError ? error : Append(value);
}

template <typename TElement>
std::int16_t TListOf<TElement>::MoveUp(TElement value) {
    if (!fIsValid) return kGeneralError;
    std::uint16_t index = 0;
    const std::int16_t error = Find(value, &index);
    if (error != kNoError || index == 0) return error;
    return Swap(index, static_cast<std::uint16_t>(index - 1));
}

template <typename TElement>
std::int16_t TListOf<TElement>::MoveDown(TElement value) {
    if (!fIsValid) return kGeneralError;
    std::uint16_t index = 0;
    const std::int16_t error = Find(value, &index);
    if (error != kNoError || index == fCount - 1) return error;
    return Swap(index, static_cast<std::uint16_t>(index + 1));
}

template <typename TElement>
std::int16_t TListOf<TElement>::Swap(std::uint16_t a, std::uint16_t b) {
    if (!fIsValid || a >= fCount || b >= fCount) return kGeneralError;
    unsigned char* items = LockItems();
    if (items == nullptr) return kGeneralError;
    const TElement first = Load(items, a);
    Store(items, a, Load(items, b));
    Store(items, b, first);
    UnlockItems();
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::Compact() {
    if (!fIsValid) return kGeneralError;
    MSHandle items = fItems;
    const std::int16_t error = MSResizeHandle(&items, std::uint32_t{fCount} * fRecordSize);
    KAVO_ASSERT(error == kNoError);
    if (error != kNoError) return error;
    fItems = items;
    fAllocatedCount = fCount;
    return kNoError;
}

template <typename TElement>
std::int16_t TListOf<TElement>::Clear() {
    if (!fIsValid) return kGeneralError;
    for (std::uint16_t i = 0; i < fCount; ++i) DisposeElement(i);
    fCount = 0;
    return Compact();
}

template <typename TElement>
std::int16_t TListOf<TElement>::DisposeElement(std::uint16_t) {
    return kGeneralError;
}

template class TListOf<std::int32_t>;
template class TListOf<void*>;

TList::~TList() = default;
TRefList::~TRefList() = default;
