#include "Rm/Common/Source/Crezmap.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <new>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/Memsys.h"

namespace {

constexpr std::uint16_t kNoSlot = 0xFFFF;
// Slot indices are 16-bit: the table stops growing below 65536 slots.
constexpr std::uint32_t kMaxSlots = 0xFFFF - (0xFFFF % kNodeArrayStep);

}  // namespace

void CopyRecordType(char* field, const char* type) {
    std::size_t i = 0;
    for (; i < kTypeLength && type[i] != '\0'; ++i) field[i] = type[i];
    for (; i < kTypeLength; ++i) field[i] = '\0';
}

void CopyRecordName(char* field, const char* name) {
    std::size_t i = 0;
    for (; i < kNameLength && name[i] != '\0'; ++i) field[i] = name[i];
    for (; i < kNameLength; ++i) field[i] = '\0';
}

// ---------------------------------------------------------------------------
// CNodeArray: keys and indexes

bool CNodeArray::TNameKey::operator==(const TNameKey& other) const {
    return std::memcmp(fBytes, other.fBytes, sizeof fBytes) == 0;
}

// Names compare as NUL-terminated strings over at most 32 characters, so two
// names are equal exactly when their NUL-padded 32-byte fields are.
CNodeArray::TNameKey CNodeArray::MakeNameKey(const char* type, const char* name) {
    TNameKey key;
    CopyRecordType(key.fBytes, type);
    CopyRecordName(key.fBytes + kTypeLength, name);
    return key;
}

std::uint64_t CNodeArray::MakeIDKey(const char* type, std::int32_t id) {
    char field[kTypeLength];
    CopyRecordType(field, type);
    std::uint32_t typeBits;
    std::memcpy(&typeBits, field, sizeof typeBits);
    return (std::uint64_t{typeBits} << 32) | static_cast<std::uint32_t>(id);
}

template <typename TIndex, typename TKey>
bool CNodeArray::LowestSlot(const TIndex& index, const TKey& key, std::uint16_t* slot) {
    return index.Lowest(key, slot);
}

template <typename TIndex, typename TKey>
void CNodeArray::EraseSlot(TIndex& index, const TKey& key, std::uint16_t slot) {
    index.Erase(key, slot);
}

bool CNodeArray::IndexNode(const NodeRecord& node, std::uint16_t index) {
    const TNameKey nameKey = MakeNameKey(node.type, node.name);
    const std::uint64_t idKey = MakeIDKey(node.type, node.id);
    const auto dataKey = reinterpret_cast<std::uintptr_t>(node.data);
    if (!fByName.Insert(nameKey, index)) return false;
    if (!fByID.Insert(idKey, index)) {
        fByName.Erase(nameKey, index);
        return false;
    }
    if (!fByData.Insert(dataKey, index)) {
        fByName.Erase(nameKey, index);
        fByID.Erase(idKey, index);
        return false;
    }
    return true;
}

void CNodeArray::UnindexNode(const NodeRecord& node, std::uint16_t index) {
    EraseSlot(fByName, MakeNameKey(node.type, node.name), index);
    EraseSlot(fByID, MakeIDKey(node.type, node.id), index);
    EraseSlot(fByData, reinterpret_cast<std::uintptr_t>(node.data), index);
}

// The free slots are kept as a min-heap whose storage is reserved for every
// slot of the table, so that freeing a slot never allocates.
bool CNodeArray::ReserveFreeSlots(std::size_t count) {
    try {
        fFreeSlots.reserve(count);
        return true;
    } catch (...) {
        return false;
    }
}

void CNodeArray::PushFreeSlot(std::uint16_t index) {
    fFreeSlots.push_back(index);
    std::push_heap(fFreeSlots.begin(), fFreeSlots.end(), std::greater<std::uint16_t>());
}

// ---------------------------------------------------------------------------
// CNodeArray: slots

CNodeArray::CNodeArray() : fNumNodes(0), fNumSlots(0), fArray(nullptr), fLockedArray(nullptr) {
    if (!KAVO_CHECK_TEXT(ReserveFreeSlots(kNodeArrayStep), "error == kNoError")) return;
    const std::uint32_t bytes = kNodeArrayStep * sizeof(NodeRecord);
    std::int16_t error = MSNewHandle(&fArray, bytes);
    if (!KAVO_CHECK(error == kNoError)) {
        fArray = nullptr;
        return;
    }
    fNumSlots = kNodeArrayStep;
    error = MSFillHandle(fArray, bytes, 0, 0);
    KAVO_ASSERT(error == kNoError);
    for (std::uint16_t i = 0; i < fNumSlots; ++i) {
        error = ClearNode(i);
        KAVO_ASSERT(error == kNoError);
    }
}

CNodeArray::~CNodeArray() {
    if (fArray == nullptr) return;
    if (fLockedArray != nullptr) UnlockArray();
    if (KAVO_CHECK(MSValidHandle(fArray))) MSDisposeHandle(fArray);
}

unsigned char* CNodeArray::LockArray() {
    if (fLockedArray != nullptr) return fLockedArray;
    if (fArray == nullptr) return nullptr;
    void* address = nullptr;
    const std::int16_t error = MSLockHandle(fArray, &address);
    if (!KAVO_CHECK(error == kNoError)) return nullptr;
    fLockedArray = static_cast<unsigned char*>(address);
    return fLockedArray;
}

void CNodeArray::UnlockArray() {
    if (!KAVO_CHECK(fLockedArray != NULL)) return;
    const std::int16_t error = MSUnlockHandle(fArray);
    KAVO_ASSERT(error == kNoError);
    (void)error;
    fLockedArray = nullptr;
}

NodeRecord CNodeArray::ReadNode(const unsigned char* slots, std::uint16_t index) const {
    NodeRecord node;
    std::memcpy(&node, slots + std::size_t{index} * sizeof(NodeRecord), sizeof node);
    return node;
}

void CNodeArray::WriteNode(unsigned char* slots, std::uint16_t index, const NodeRecord& node) {
    std::memcpy(slots + std::size_t{index} * sizeof(NodeRecord), &node, sizeof node);
}

std::int16_t CNodeArray::ClearNode(std::uint16_t doomedNode) {
    if (!KAVO_CHECK(doomedNode < fNumSlots)) return kGeneralError;
    const bool wasLocked = fLockedArray != nullptr;
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    NodeRecord node = ReadNode(slots, doomedNode);
    // Clearing a free slot is a programming error; the slot stays free.
    if (KAVO_CHECK_TEXT(node.empty != kTrue, "node[doomedNode].empty != kTrue")) {
        UnindexNode(node, doomedNode);
        PushFreeSlot(doomedNode);
    }
    node.empty = kTrue;
    node.reserved = 0;
    node.attributes = 0;
    node.name[0] = '\0';
    node.type[0] = '\0';
    node.id = 0;
    node.data = nullptr;
    WriteNode(slots, doomedNode, node);
    if (!wasLocked) UnlockArray();
    return kNoError;
}

std::int16_t CNodeArray::FindEmptyNode(std::uint16_t* index) {
    *index = fFreeSlots.empty() ? fNumSlots : fFreeSlots.front();
    return kNoError;
}

// The table grows by a copy: the clone is grown and takes the place of the
// old table only when the growth succeeded, so a failure changes nothing.
// The grown slots are cleared as free slots, so that the free-slot search
// finds them and every record is written inside the table.
std::int16_t CNodeArray::GrowArray() {
    if (fArray == nullptr) return kGeneralError;
    const std::uint32_t oldSize = MSGetHandleSize(fArray);
    KAVO_ASSERT(gMSError == kNoError);
    KAVO_ASSERT((oldSize / sizeof(NodeRecord)) == fNumSlots);
    if (std::uint32_t{fNumSlots} + kNodeArrayStep > kMaxSlots) return kCannotGrow;
    if (!ReserveFreeSlots(std::size_t{fNumSlots} + kNodeArrayStep)) return kCannotGrow;

    MSHandle clone = nullptr;
    std::int16_t error = MSCloneHandle(fArray, &clone);
    if (error != kNoError) return error;
    MSHandle grown = clone;
    error = MSGrowHandle(&grown, oldSize + kNodeArrayStep * sizeof(NodeRecord));
    if (error != kNoError) {
        // A failed grow leaves the variable null; the clone itself is intact.
        const std::int16_t anError = MSDisposeHandle(clone);
        KAVO_ASSERT(anError == kNoError);
        (void)anError;
        return error;
    }
    const std::uint16_t firstNew = fNumSlots;
    fNumSlots = static_cast<std::uint16_t>(fNumSlots + kNodeArrayStep);
    error = MSDisposeHandle(fArray);
    KAVO_ASSERT(error == kNoError);
    fArray = grown;
    error = MSFillHandle(fArray, kNodeArrayStep * sizeof(NodeRecord), oldSize, 0);
    KAVO_ASSERT(error == kNoError);
    for (std::uint16_t i = firstNew; i < fNumSlots; ++i) ClearNode(i);
    return kNoError;
}

std::int16_t CNodeArray::AddNode(const char* type, const char* name, std::int32_t id, MSHandle data,
                                 std::uint16_t attributes) {
    if (!KAVO_CHECK(fLockedArray == 0)) return kGeneralError;
    if (!KAVO_CHECK(type != 0) || !KAVO_CHECK(name != 0)) return kGeneralError;
    std::int16_t error = FindByTypeAndName(type, name, nullptr, nullptr, nullptr);
    KAVO_ASSERT(error != kNoError);
    if (fNumNodes + 1 > fNumSlots) {
        error = GrowArray();
        if (error != kNoError) return error;
    }
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    std::uint16_t slot = 0;
    FindEmptyNode(&slot);
    if (!KAVO_CHECK(slot < fNumSlots)) {
        UnlockArray();
        return kGeneralError;
    }
    NodeRecord node;
    std::memset(&node, 0, sizeof node);
    node.empty = 0;
    node.attributes = attributes;
    CopyRecordType(node.type, type);
    CopyRecordName(node.name, name);
    node.id = id;
    node.data = data;
    if (!IndexNode(node, slot)) {
        UnlockArray();
        return kOutOfMemory;
    }
    std::pop_heap(fFreeSlots.begin(), fFreeSlots.end(), std::greater<std::uint16_t>());
    fFreeSlots.pop_back();
    WriteNode(slots, slot, node);
    ++fNumNodes;
    UnlockArray();
    return kNoError;
}

std::int16_t CNodeArray::RemoveNode(std::uint16_t index) {
    const std::int16_t error = ClearNode(index);
    if (error == kNoError && fNumNodes > 0) --fNumNodes;
    return error;
}

std::int16_t CNodeArray::FindByTypeAndName(const char* matchType, const char* matchName, std::int32_t* id,
                                           MSHandle* data, std::uint16_t* index) {
    if (fNumNodes == 0) return kRecordNotFound;
    KAVO_ASSERT(fLockedArray == 0);
    if (!KAVO_CHECK(matchType != 0) || !KAVO_CHECK(matchName != 0)) return kGeneralError;
    std::uint16_t slot = 0;
    if (!LowestSlot(fByName, MakeNameKey(matchType, matchName), &slot)) return kRecordNotFound;
    const bool wasLocked = fLockedArray != nullptr;
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    const NodeRecord node = ReadNode(slots, slot);
    if (!wasLocked) UnlockArray();
    if (id != nullptr) *id = node.id;
    if (data != nullptr) *data = node.data;
    if (index != nullptr) *index = slot;
    return kNoError;
}

std::int16_t CNodeArray::FindByTypeAndID(const char* matchType, char* name, std::int32_t matchID,
                                         MSHandle* data, std::uint16_t* index) {
    if (fNumNodes == 0) return kRecordNotFound;
    KAVO_ASSERT(fLockedArray == 0);
    if (!KAVO_CHECK(matchType != 0)) return kGeneralError;
    std::uint16_t slot = 0;
    if (!LowestSlot(fByID, MakeIDKey(matchType, matchID), &slot)) return kRecordNotFound;
    const bool wasLocked = fLockedArray != nullptr;
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    const NodeRecord node = ReadNode(slots, slot);
    if (!wasLocked) UnlockArray();
    if (name != nullptr) std::memcpy(name, node.name, kNameLength);
    if (data != nullptr) *data = node.data;
    if (index != nullptr) *index = slot;
    return kNoError;
}

std::int16_t CNodeArray::FindByData(char* type, char* name, std::int32_t* id, MSHandle matchData,
                                    std::uint16_t* index) {
    if (fNumNodes == 0) return kRecordNotFound;
    KAVO_ASSERT(fLockedArray == 0);
    if (index != nullptr) *index = kNoSlot;
    std::uint16_t slot = 0;
    if (!LowestSlot(fByData, reinterpret_cast<std::uintptr_t>(matchData), &slot)) return kRecordNotFound;
    const bool wasLocked = fLockedArray != nullptr;
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    const NodeRecord node = ReadNode(slots, slot);
    if (!wasLocked) UnlockArray();
    if (type != nullptr) std::memcpy(type, node.type, kTypeLength);
    if (name != nullptr) std::memcpy(name, node.name, kNameLength);
    if (id != nullptr) *id = node.id;
    if (index != nullptr) *index = slot;
    return kNoError;
}

// Slot 0 trips the first assertion, although it holds a record like any
// other; where the report is dismissed the access runs on. It is kept as it
// stands.
std::int16_t CNodeArray::GetAttributes(std::uint16_t index, std::uint16_t* attributes) {
    KAVO_ASSERT(index != 0);
    if (!KAVO_CHECK(index < fNumSlots) || !KAVO_CHECK(attributes != NULL)) return kGeneralError;
    const bool wasLocked = fLockedArray != nullptr;
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    *attributes = ReadNode(slots, index).attributes;
    if (!wasLocked) UnlockArray();
    return kNoError;
}

std::int16_t CNodeArray::SetAttributes(std::uint16_t index, std::uint16_t attributes) {
    KAVO_ASSERT(index != 0);
    if (!KAVO_CHECK(index < fNumSlots)) return kGeneralError;
    const bool wasLocked = fLockedArray != nullptr;
    unsigned char* slots = LockArray();
    if (slots == nullptr) return kGeneralError;
    NodeRecord node = ReadNode(slots, index);
    node.attributes = attributes;
    WriteNode(slots, index, node);
    if (!wasLocked) UnlockArray();
    return kNoError;
}

// ---------------------------------------------------------------------------
// CRezMap

CRezMap::CRezMap() : fNodeArray(new (std::nothrow) CNodeArray) {
    KAVO_ASSERT(fNodeArray != 0);
}

CRezMap::~CRezMap() {
    if (fNodeArray == nullptr) return;
    unsigned char* slots = fNodeArray->LockArray();
    if (slots != nullptr) {
        for (std::uint16_t i = 0; i < fNodeArray->CountSlots(); ++i) {
            NodeRecord node;
            std::memcpy(&node, slots + std::size_t{i} * sizeof(NodeRecord), sizeof node);
            if (node.empty != 0) continue;
            if (KAVO_CHECK_TEXT(MSValidHandle(node.data), "MSValidHandle((MSHandle)node[i].data)"))
                MSDisposeHandle(node.data);
        }
        fNodeArray->UnlockArray();
    }
    delete fNodeArray;
}

std::int16_t CRezMap::GetRecordByName(const char* theName, const char* theType, MSHandle* theData) {
    if (!KAVO_CHECK(theData != 0)) return kGeneralError;
    *theData = 0;
    if (!KAVO_CHECK(theName != 0) || !KAVO_CHECK(theType != 0) || fNodeArray == nullptr) return kGeneralError;
    return fNodeArray->FindByTypeAndName(theType, theName, nullptr, theData, nullptr);
}

std::int16_t CRezMap::GetRecordByID(std::int32_t theID, const char* theType, MSHandle* theData) {
    if (!KAVO_CHECK(theData != 0)) return kGeneralError;
    *theData = 0;
    if (!KAVO_CHECK(theType != 0) || fNodeArray == nullptr) return kGeneralError;
    return fNodeArray->FindByTypeAndID(theType, nullptr, theID, theData, nullptr);
}

std::int16_t CRezMap::GetRecordInfo(MSHandle theData, char* name, char* type, std::int32_t* id) {
    if (!KAVO_CHECK(theData != 0) || !KAVO_CHECK(name != 0) || !KAVO_CHECK(type != 0) ||
        !KAVO_CHECK(id != 0) || fNodeArray == nullptr)
        return kGeneralError;
    return fNodeArray->FindByData(type, name, id, theData, nullptr);
}

std::int16_t CRezMap::AddRecord(const char* type, const char* name, std::int32_t id, MSHandle data) {
    if (!KAVO_CHECK(MSValidHandle(data))) return kInvalidHandle;
    if (!KAVO_CHECK(type != 0) || !KAVO_CHECK(name != 0) || fNodeArray == nullptr) return kGeneralError;
    return fNodeArray->AddNode(type, name, id, data, 0);
}

std::int16_t CRezMap::RemoveRecordByID(std::int32_t theID, const char* theType) {
    if (!KAVO_CHECK(theType != 0) || fNodeArray == nullptr) return kGeneralError;
    std::uint16_t slot = 0;
    const std::int16_t error = fNodeArray->FindByTypeAndID(theType, nullptr, theID, nullptr, &slot);
    return error != kNoError ? error : fNodeArray->RemoveNode(slot);
}

std::int16_t CRezMap::RemoveRecordByName(const char* theName, const char* theType) {
    if (!KAVO_CHECK(theName != 0) || !KAVO_CHECK(theType != 0) || fNodeArray == nullptr) return kGeneralError;
    std::uint16_t slot = 0;
    const std::int16_t error = fNodeArray->FindByTypeAndName(theType, theName, nullptr, nullptr, &slot);
    return error != kNoError ? error : fNodeArray->RemoveNode(slot);
}

std::int16_t CRezMap::DetachRecord(MSHandle theData) {
    if (fNodeArray == nullptr) return kGeneralError;
    std::uint16_t slot = 0;
    const std::int16_t error = fNodeArray->FindByData(nullptr, nullptr, nullptr, theData, &slot);
    return error != kNoError ? error : fNodeArray->RemoveNode(slot);
}

std::int16_t CRezMap::ReleaseRecord(MSHandle theData) {
    const std::int16_t error = DetachRecord(theData);
    return error != kNoError ? error : MSDisposeHandle(theData);
}

std::int16_t CRezMap::ChangeRecordInfo(MSHandle theData, const char* theType, const char* theName,
                                       std::int32_t theID) {
    if (!KAVO_CHECK(theType != 0) || !KAVO_CHECK(theName != 0) || fNodeArray == nullptr) return kGeneralError;
    char oldType[kTypeLength];
    char oldName[kNameLength];
    std::int32_t oldID = 0;
    std::uint16_t slot = 0;
    std::int16_t error = fNodeArray->FindByData(oldType, oldName, &oldID, theData, &slot);
    if (error != kNoError) return error;
    error = fNodeArray->RemoveNode(slot);
    if (error != kNoError) return error;
    error = fNodeArray->AddNode(theType, theName, theID, theData, 0);
    // Registering again cannot fail for want of room (a slot was just freed)
    // but may for want of memory: the record then keeps its old registration.
    if (error != kNoError) fNodeArray->AddNode(oldType, oldName, oldID, theData, 0);
    return error;
}

std::int16_t CRezMap::GetSizeByID(std::int32_t theID, const char* theType, std::uint32_t* theSize) {
    if (!KAVO_CHECK(theSize != 0)) return kGeneralError;
    MSHandle data = nullptr;
    const std::int16_t error = GetRecordByID(theID, theType, &data);
    if (error != kNoError) return error;
    *theSize = MSGetHandleSize(data);
    return gMSError;
}

std::int16_t CRezMap::GetSizeByName(const char* theName, const char* theType, std::uint32_t* theSize) {
    if (!KAVO_CHECK(theSize != 0)) return kGeneralError;
    MSHandle data = nullptr;
    const std::int16_t error = GetRecordByName(theName, theType, &data);
    if (error != kNoError) return error;
    *theSize = MSGetHandleSize(data);
    return gMSError;
}

std::int16_t CRezMap::ChangePurgeable(MSHandle theData, bool purgeable) {
    if (fNodeArray == nullptr) return kGeneralError;
    std::uint16_t slot = 0;
    std::int16_t error = fNodeArray->FindByData(nullptr, nullptr, nullptr, theData, &slot);
    if (error != kNoError) return error;
    std::uint16_t attributes = 0;
    error = fNodeArray->GetAttributes(slot, &attributes);
    if (!KAVO_CHECK(error == kNoError)) return error;
    attributes = purgeable ? static_cast<std::uint16_t>(attributes | kPurgeableAttribute)
                           : static_cast<std::uint16_t>(attributes & 0xFFFE);
    error = fNodeArray->SetAttributes(slot, attributes);
    KAVO_ASSERT(error == kNoError);
    return error;
}

std::int16_t CRezMap::SetPurgeable(MSHandle theData) {
    return ChangePurgeable(theData, true);
}

std::int16_t CRezMap::ClearPurgeable(MSHandle theData) {
    return ChangePurgeable(theData, false);
}

std::int16_t CRezMap::FreeMemory(std::uint32_t) {
    return kGeneralError;
}

std::int16_t CRezMap::FindRecord(MSHandle theData) {
    if (fNodeArray == nullptr) return kGeneralError;
    return fNodeArray->FindByData(nullptr, nullptr, nullptr, theData, nullptr);
}

bool CRezMap::ContainsRecord(MSHandle theData) {
    return FindRecord(theData) == kNoError;
}
