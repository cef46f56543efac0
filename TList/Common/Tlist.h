// TList: a growable array of fixed-size elements kept in one MSHandle.
//
// Indices are 0-based unsigned 16-bit values, so a list holds at most 65535
// elements. Every operation returns kNoError, kGeneralError (list not valid,
// index out of range, value absent), kListBoundReached, or the memory
// system's code of a failed grow, in which case the list stays as it was.
//
// The list grows one slot at a time and never gives a slot back on Remove:
// callers see the number of slots ever needed since the last Compact in
// AllocatedCount(). (The memory system keeps spare room behind the handle,
// so the one-slot growth costs amortised O(1).)
//
// TList holds 32-bit values (record IDs); TRefList holds object references,
// pointer-sized on every build.
#ifndef KAVO_TLIST_TLIST_H
#define KAVO_TLIST_TLIST_H

#include <cstdint>

#include "kavoDVDB.h"

template <typename TElement>
class TListOf {
public:
    // The argument is accepted and has no effect: every list starts empty,
    // with a 0-byte handle and no bound.
    explicit TListOf(std::uint16_t initialCount = 0);
    // Clears (through this class's DisposeElement: a derived list that frees
    // its elements clears itself in its own destructor) and frees the storage.
    virtual ~TListOf();
    TListOf(const TListOf&) = delete;
    TListOf& operator=(const TListOf&) = delete;

    // Inserts before index (0 .. Count()), shifting the tail up.
    std::int16_t Insert(TElement value, std::uint16_t index);
    std::int16_t Append(TElement value);
    std::int16_t Prepend(TElement value);
    std::int16_t Set(TElement value, std::uint16_t index);
    // Out of range: *value becomes 0 and the result is kGeneralError.
    std::int16_t Get(std::uint16_t index, TElement* value);
    // Removes element index; its slot stays allocated for the next insert.
    std::int16_t Remove(std::uint16_t index);
    std::int16_t RemoveValue(TElement value);
    // First index holding value. Not found: *index is AllocatedCount() + 1 and
    // the result kGeneralError. Find works on a list that is not valid too.
    std::int16_t Find(TElement value, std::uint16_t* index);
    std::int16_t BringToFront(TElement value);
    std::int16_t SendToBack(TElement value);
    std::int16_t MoveUp(TElement value);
    std::int16_t MoveDown(TElement value);
    std::int16_t Swap(std::uint16_t a, std::uint16_t b);
    // Gives the unused slots back.
    std::int16_t Compact();
    // DisposeElement for each element, then empty and compact.
    std::int16_t Clear();
    // Per-element hook for derived lists; this one does nothing.
    virtual std::int16_t DisposeElement(std::uint16_t index);

    bool IsValid() const { return fIsValid != 0; }
    std::uint16_t Count() const { return fCount; }
    std::uint16_t AllocatedCount() const { return fAllocatedCount; }
    std::uint16_t MaxCount() const { return fMaxCount; }
    std::uint16_t RecordSize() const { return fRecordSize; }
    MSHandle Items() const { return fItems; }

private:
    static constexpr std::uint16_t kMaxElements = 0xFFFF;

    std::int16_t Grow();
    unsigned char* LockItems();
    void UnlockItems();
    TElement Load(const unsigned char* items, std::uint16_t index) const;
    void Store(unsigned char* items, std::uint16_t index, TElement value) const;

    std::int32_t fIsValid;
    std::uint16_t fAllocatedCount;
    std::uint16_t fCount;
    std::uint16_t fMaxCount;
    std::uint16_t fRecordSize;
    MSHandle fItems;
};

// Both element types are instantiated once, in Tlist.cpp; and the two
// lists' destructors are defined there, so that their tables and type
// information live in that one object. (Emitted wherever a list is made,
// they would be exported from the Windows DLL by any exported class that
// makes one.)
extern template class TListOf<std::int32_t>;
extern template class TListOf<void*>;

class TList : public TListOf<std::int32_t> {
public:
    using TListOf<std::int32_t>::TListOf;
    ~TList() override;
};

class TRefList : public TListOf<void*> {
public:
    using TListOf<void*>::TListOf;
    ~TRefList() override;
};

#endif  // KAVO_TLIST_TLIST_H
