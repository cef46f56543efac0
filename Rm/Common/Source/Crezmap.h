// The record map: the records of one database that are loaded into memory,
// each tied to the MSHandle that holds its data.
//
// The map answers whether a type and name, or a type and ID, is loaded and in
// which handle, and which record a handle holds. It knows nothing of files:
// the database reads and writes records and registers the handles here.
//
// Ownership: a handle belongs to the map from AddRecord until DetachRecord,
// RemoveRecordByID / RemoveRecordByName (the handle is then the caller's),
// ReleaseRecord (disposed here) or the map's destruction (disposed here).
//
// Results are kNoError, kRecordNotFound when no registered record matches
// (any lookup in an empty map included), kGeneralError for a null argument
// (after its assertion report), or a memory-system code from growing.
#ifndef KAVO_RM_CREZMAP_H
#define KAVO_RM_CREZMAP_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Common/RecordNames.h"
#include "Rm/Common/Source/Slotindex.h"
#include "kavoDVDB.h"

constexpr std::int32_t kTrue = 1;
// A record type: four bytes, compared as bytes.
constexpr std::size_t kTypeLength = 4;
// The slot table starts with this many slots and grows by as many.
constexpr std::uint16_t kNodeArrayStep = 200;
// Attribute bit 0: the record may be purged. Nothing in the library reads it.
constexpr std::uint16_t kPurgeableAttribute = 1;

// One slot of the map. Slots live packed in one MSHandle behind its 4-byte
// size header, so they are copied in and out, never used in place.
struct NodeRecord {
    std::int32_t empty;  // kTrue when the slot is free
    std::uint8_t reserved;
    std::uint16_t attributes;
    char name[kNameLength];
    char type[kTypeLength];
    std::int32_t id;
    MSHandle data;
};

// Copies a caller's type into a 4-byte field: its bytes up to a NUL (at most
// four), zeros after. Nothing past the caller's NUL is read.
void CopyRecordType(char* field, const char* type);
// Copies a caller's name into a 32-byte field: its characters up to the NUL
// (at most 32), zeros after. Nothing past the caller's NUL is read.
void CopyRecordName(char* field, const char* name);

// The slot table of a CRezMap.
//
// Beside the slots, which stay the record of truth, three hash indexes (type
// and name, type and ID, handle) and a heap of the free slots make every
// lookup and every add take O(1) expected time (O(log n) for the free slot)
// however many records are loaded. A lookup answers the lowest matching slot,
// exactly as a scan of the slots from index 0 would.
class CNodeArray {
public:
    CNodeArray();
    ~CNodeArray();
    CNodeArray(const CNodeArray&) = delete;
    CNodeArray& operator=(const CNodeArray&) = delete;

    // False when the slot table could not be made; every operation then fails.
    bool IsValid() const { return fArray != nullptr; }

    // The slots' address. Locks the table unless it is locked already, in
    // which case the address of that lock is handed back. Null on failure.
    unsigned char* LockArray();
    void UnlockArray();

    // Fills the lowest free slot, growing the table when it is full.
    std::int16_t AddNode(const char* type, const char* name, std::int32_t id, MSHandle data,
                         std::uint16_t attributes);
    // Frees the slot.
    std::int16_t RemoveNode(std::uint16_t index);
    // Lookups: the lowest slot that matches. Out arguments may be null.
    std::int16_t FindByTypeAndName(const char* matchType, const char* matchName, std::int32_t* id,
                                   MSHandle* data, std::uint16_t* index);
    std::int16_t FindByTypeAndID(const char* matchType, char* name, std::int32_t matchID, MSHandle* data,
                                 std::uint16_t* index);
    std::int16_t FindByData(char* type, char* name, std::int32_t* id, MSHandle matchData,
                            std::uint16_t* index);
    // The lowest free slot, or CountSlots() when there is none. Always kNoError.
    std::int16_t FindEmptyNode(std::uint16_t* index);
    // Marks the slot free and zeroes it.
    std::int16_t ClearNode(std::uint16_t doomedNode);
    std::int16_t GetAttributes(std::uint16_t index, std::uint16_t* attributes);
    std::int16_t SetAttributes(std::uint16_t index, std::uint16_t attributes);
    // Adds kNodeArrayStep free slots; on failure the table stays as it was.
    std::int16_t GrowArray();

    std::uint16_t CountSlots() const { return fNumSlots; }
    std::uint16_t CountNodes() const { return fNumNodes; }

private:
    // The normalised type and name of a record, as one hash key.
    struct TNameKey {
        char fBytes[kTypeLength + kNameLength];
        bool operator==(const TNameKey& other) const;
    };
    using TNameIndex = TSlotIndex<TNameKey>;
    using TIDIndex = TSlotIndex<std::uint64_t>;
    using TDataIndex = TSlotIndex<std::uintptr_t>;

    static TNameKey MakeNameKey(const char* type, const char* name);
    static std::uint64_t MakeIDKey(const char* type, std::int32_t id);
    template <typename TIndex, typename TKey>
    static bool LowestSlot(const TIndex& index, const TKey& key, std::uint16_t* slot);
    template <typename TIndex, typename TKey>
    static void EraseSlot(TIndex& index, const TKey& key, std::uint16_t slot);

    NodeRecord ReadNode(const unsigned char* slots, std::uint16_t index) const;
    void WriteNode(unsigned char* slots, std::uint16_t index, const NodeRecord& node);
    bool IndexNode(const NodeRecord& node, std::uint16_t index);
    void UnindexNode(const NodeRecord& node, std::uint16_t index);
    void PushFreeSlot(std::uint16_t index);
    bool ReserveFreeSlots(std::size_t count);

    std::uint16_t fNumNodes;
    std::uint16_t fNumSlots;
    MSHandle fArray;
    unsigned char* fLockedArray;

    TNameIndex fByName;
    TIDIndex fByID;
    TDataIndex fByData;
    std::vector<std::uint16_t> fFreeSlots;  // a min-heap of the free slots
};

// The loaded records of one database.
class CRezMap {
public:
    CRezMap();
    // Disposes of every registered record's handle, then of the slot table.
    ~CRezMap();
    CRezMap(const CRezMap&) = delete;
    CRezMap& operator=(const CRezMap&) = delete;
    // False when the slot table could not be made (its constructor reported
    // it): every operation would fail, so a database does not open with it.
    bool IsUsable() const { return fNodeArray != nullptr && fNodeArray->CountSlots() != 0; }

    // *theData is 0 first; then the handle registered under type and name.
    std::int16_t GetRecordByName(const char* theName, const char* theType, MSHandle* theData);
    // *theData is 0 first; then the handle registered under type and ID.
    std::int16_t GetRecordByID(std::int32_t theID, const char* theType, MSHandle* theData);
    // What the handle is registered as: name (32 bytes), type (4 bytes), ID.
    std::int16_t GetRecordInfo(MSHandle theData, char* name, char* type, std::int32_t* id);
    // Registers a loaded handle with attributes 0.
    std::int16_t AddRecord(const char* type, const char* name, std::int32_t id, MSHandle data);
    // Unregister; the handle is not disposed of.
    std::int16_t RemoveRecordByID(std::int32_t theID, const char* theType);
    std::int16_t RemoveRecordByName(const char* theName, const char* theType);
    // Unregisters the handle; the caller now owns it.
    std::int16_t DetachRecord(MSHandle theData);
    // Unregisters the handle and disposes of it.
    std::int16_t ReleaseRecord(MSHandle theData);
    // Registers the handle again under a new type, name and ID (attributes 0).
    std::int16_t ChangeRecordInfo(MSHandle theData, const char* theType, const char* theName,
                                  std::int32_t theID);
    std::int16_t GetSizeByID(std::int32_t theID, const char* theType, std::uint32_t* theSize);
    std::int16_t GetSizeByName(const char* theName, const char* theType, std::uint32_t* theSize);
    std::int16_t SetPurgeable(MSHandle theData);
    std::int16_t ClearPurgeable(MSHandle theData);
    // Frees nothing: always kGeneralError.
    std::int16_t FreeMemory(std::uint32_t theBytes);
    // kNoError when the handle is registered, else kRecordNotFound.
    std::int16_t FindRecord(MSHandle theData);
    bool ContainsRecord(MSHandle theData);

    CNodeArray* NodeArray() { return fNodeArray; }

private:
    std::int16_t ChangePurgeable(MSHandle theData, bool purgeable);

    CNodeArray* fNodeArray;
};

#endif  // KAVO_RM_CREZMAP_H
