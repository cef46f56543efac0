// The memory system over the global-memory calls.
//
// Every block, handle or pointer, is allocated 4 bytes larger than asked and
// its first 4 bytes hold the logical size in the machine's byte order. A lock
// hands out the block's address + 4, a pointer is the fixed block's address +
// 4. Sizes are always read from the header, never from the system.
//
// Blocks that are grown keep spare room behind their logical end, invisible to
// callers: the element list and the packer grow a few bytes at a time, and a
// reallocation per step would make that quadratic.
#include "MemSys/Win32/Memsys.h"

#include <cstddef>
#include <cstring>

#include "Common/Kavoassert.h"
#include "MemSys/Win32/BlockRegistry.h"
#include "MemSys/Win32/GlobalMem.h"

std::int16_t gMSError = kNoError;

using memsys::BlockKind;
using memsys::GlobalBlock;

namespace {

constexpr std::uint32_t kHeaderSize = 4;

memsys::TBlockRegistry gLiveBlocks;
int gAllocationsBeforeRefusal = -1;

std::int16_t SetError(std::int16_t error) {
    gMSError = error;
    return error;
}

bool SystemRefuses() {
    if (gAllocationsBeforeRefusal < 0) return false;
    if (gAllocationsBeforeRefusal == 0) {
        gAllocationsBeforeRefusal = -1;
        return true;
    }
    --gAllocationsBeforeRefusal;
    return false;
}

GlobalBlock SystemAlloc(bool movable, std::uint32_t dataSize) {
    if (SystemRefuses()) return nullptr;
    return memsys::GlobalAllocBlock(movable, std::size_t{dataSize} + kHeaderSize);
}

GlobalBlock SystemReAlloc(GlobalBlock block, std::size_t dataCapacity) {
    if (SystemRefuses()) return nullptr;
    return memsys::GlobalReAllocBlock(block, dataCapacity + kHeaderSize);
}

// The fixed block behind a pointer, computed without pointer arithmetic on a
// value that may be wild.
GlobalBlock BlockOfPtr(const void* thePtr) {
    return reinterpret_cast<GlobalBlock>(reinterpret_cast<std::uintptr_t>(thePtr) - kHeaderSize);
}

void* PtrOfBlock(GlobalBlock block) { return static_cast<std::uint8_t*>(block) + kHeaderSize; }

std::uint32_t ReadHeader(GlobalBlock block) {
    std::uint32_t size;
    std::memcpy(&size, memsys::GlobalLockBlock(block), sizeof size);
    memsys::GlobalUnlockBlock(block);
    return size;
}

void WriteHeader(GlobalBlock block, std::uint32_t size) {
    std::memcpy(memsys::GlobalLockBlock(block), &size, sizeof size);
    memsys::GlobalUnlockBlock(block);
}

std::size_t CapacityOf(GlobalBlock block) { return memsys::GlobalBlockSize(block) - kHeaderSize; }

// Growth by half again keeps repeated small appends amortised O(1).
std::size_t GrownCapacity(std::size_t capacity, std::uint32_t newSize) {
    const std::size_t spacious = capacity + capacity / 2;
    const std::size_t wanted = spacious > newSize ? spacious : newSize;
    return wanted < kMax_int32 ? wanted : kMax_int32;
}

// A shrink gives memory back only when much of the block would lie idle.
bool WorthReleasing(std::size_t capacity, std::uint32_t newSize) {
    return newSize <= capacity / 2 && capacity - newSize >= 1024;
}

// Sets the logical size of a live block, reallocating when the block's room
// does not fit. Returns the block's new name, or null when the system refused
// (the old block then stays as it was and stays registered).
GlobalBlock SetLogicalSize(GlobalBlock block, std::uint32_t newSize) {
    if (newSize > kMax_int32) return nullptr;
    const std::size_t capacity = CapacityOf(block);
    if (newSize <= capacity && !WorthReleasing(capacity, newSize)) {
        WriteHeader(block, newSize);
        return block;
    }
    const std::size_t target = newSize > capacity ? GrownCapacity(capacity, newSize) : newSize;
    GlobalBlock moved = SystemReAlloc(block, target);
    if (moved == nullptr) return nullptr;
    if (moved != block) {
        // The erase leaves room, so the insert cannot fail.
        const BlockKind kind = gLiveBlocks.Find(block);
        gLiveBlocks.Erase(block);
        gLiveBlocks.Insert(moved, kind);
    }
    WriteHeader(moved, newSize);
    return moved;
}

// Grow and shrink are one operation with two failure codes. The caller's
// variable receives the system's answer at once, so after a failure it is null.
std::int16_t ChangeHandleSize(MSHandle* theHandle, std::uint32_t newSize, std::int16_t failure) {
    *theHandle = SetLogicalSize(*theHandle, newSize);
    if (*theHandle == nullptr) return SetError(failure);
    return SetError(kNoError);
}

// The pointer forms update the caller's variable only on success.
std::int16_t ChangePtrSize(void** thePtr, std::uint32_t newSize, std::int16_t failure) {
    GlobalBlock moved = SetLogicalSize(BlockOfPtr(*thePtr), newSize);
    if (moved == nullptr) return SetError(failure);
    *thePtr = PtrOfBlock(moved);
    return SetError(kNoError);
}

std::int16_t FillBlock(GlobalBlock block, std::uint32_t theAmount, std::uint32_t theOffset,
                       std::uint8_t theByte) {
    const std::uint32_t size = ReadHeader(block);
    if (!KAVO_CHECK_TEXT(std::uint64_t{size} >= std::uint64_t{theAmount} + theOffset,
                         "size >= (theAmount + theOffset)"))
        return SetError(kGeneralError);
    std::memset(memsys::GlobalLockBlock(block) + kHeaderSize + theOffset, theByte, theAmount);
    memsys::GlobalUnlockBlock(block);
    return SetError(kNoError);
}

bool IsRegisteredAs(const void* block, BlockKind kind) {
    return block != nullptr && gLiveBlocks.Find(block) == kind;
}

bool Register(GlobalBlock block, BlockKind kind) {
    if (gLiveBlocks.Insert(block, kind)) return true;
    memsys::GlobalFreeBlock(block);
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Validity

int MSValidHandle(MSHandle theHandle) {
    const bool valid = IsRegisteredAs(theHandle, BlockKind::kHandle);
    SetError(valid ? kNoError : kInvalidHandle);
    return valid;
}

int MSValidPtr(void* thePtr) {
    const bool valid = thePtr != nullptr && IsRegisteredAs(BlockOfPtr(thePtr), BlockKind::kPointer);
    SetError(valid ? kNoError : kInvalidPtr);
    return valid;
}

// ---------------------------------------------------------------------------
// Allocation and release

std::int16_t MSNewHandle(MSHandle* theHandle, std::uint32_t theSize) {
    if (!KAVO_CHECK(theHandle != NULL)) return SetError(kGeneralError);
    *theHandle = nullptr;
    if (!KAVO_CHECK(theSize <= kMax_int32)) return SetError(kOutOfMemory);
    GlobalBlock block = SystemAlloc(true, theSize);
    if (block == nullptr || !Register(block, BlockKind::kHandle)) return SetError(kOutOfMemory);
    WriteHeader(block, theSize);
    *theHandle = block;
    // The block was asked for zeroed, but new bytes read as garbage on purpose.
    const std::int16_t error = MSFillHandle(block, theSize, 0, kNewGarbageByte);
    KAVO_ASSERT(error == kNoError);
    return SetError(error);
}

std::int16_t MSNewPtr(void** thePtr, std::uint32_t theSize) {
    if (!KAVO_CHECK(thePtr != NULL)) return SetError(kGeneralError);
    *thePtr = nullptr;
    std::int16_t error = kNoError;
    if (!KAVO_CHECK(theSize <= kMax_int32)) {
        error = kOutOfMemory;
    } else {
        GlobalBlock block = SystemAlloc(false, theSize);
        if (block == nullptr || !Register(block, BlockKind::kPointer)) {
            error = kOutOfMemory;
        } else {
            WriteHeader(block, theSize);
            *thePtr = PtrOfBlock(block);
        }
    }
    // The fill runs after a failed allocation too, where it reports the null
    // pointer; the result stays the allocation's.
    const std::int16_t fillError = MSFillPtr(*thePtr, theSize, 0, kNewGarbageByte);
    return SetError(error != kNoError ? error : fillError);
}

std::int16_t MSDisposeHandle(MSHandle theHandle) {
    if (!KAVO_CHECK(MSValidHandle(theHandle))) return gMSError;
    gLiveBlocks.Erase(theHandle);
    if (!memsys::GlobalFreeBlock(theHandle)) {
        gLiveBlocks.Insert(theHandle, BlockKind::kHandle);
        return SetError(kCannotFree);
    }
    return SetError(kNoError);
}

std::int16_t MSDisposePtr(void* thePtr) {
    if (!KAVO_CHECK(MSValidPtr(thePtr))) return gMSError;
    GlobalBlock block = BlockOfPtr(thePtr);
    gLiveBlocks.Erase(block);
    if (!memsys::GlobalFreeBlock(block)) {
        gLiveBlocks.Insert(block, BlockKind::kPointer);
        return SetError(kCannotFree);
    }
    return SetError(kNoError);
}

// ---------------------------------------------------------------------------
// Size and locking

std::uint32_t MSGetHandleSize(MSHandle theHandle) {
    if (!KAVO_CHECK(MSValidHandle(theHandle))) {
        SetError(kGeneralError);  // a block that is not live cannot be locked
        return 0;
    }
    SetError(kNoError);
    return ReadHeader(theHandle);
}

std::uint32_t MSGetPtrSize(void* thePtr) {
    if (!KAVO_CHECK(MSValidPtr(thePtr))) return 0;
    SetError(kNoError);
    return ReadHeader(BlockOfPtr(thePtr));
}

std::int16_t MSLockHandle(MSHandle theHandle, void** theAddress) {
    if (!KAVO_CHECK(theAddress != NULL)) return SetError(kGeneralError);
    *theAddress = nullptr;
    if (!KAVO_CHECK(MSValidHandle(theHandle))) return gMSError;
    *theAddress = memsys::GlobalLockBlock(theHandle) + kHeaderSize;
    return SetError(kNoError);
}

std::int16_t MSUnlockHandle(MSHandle theHandle) {
    // The result is the validity check's; the unlock itself reports nothing.
    if (!KAVO_CHECK(MSValidHandle(theHandle))) return gMSError;
    memsys::GlobalUnlockBlock(theHandle);
    return gMSError;
}

int MSHandleIsLocked(MSHandle theHandle) {
    if (!KAVO_CHECK(MSValidHandle(theHandle))) return 0;
    return memsys::GlobalLockCount(theHandle) != 0;
}

// ---------------------------------------------------------------------------
// Resizing

std::int16_t MSGrowHandle(MSHandle* theHandle, std::uint32_t newSize) {
    if (!KAVO_CHECK(theHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidHandle(*theHandle), "MSValidHandle(theHandle)")) return gMSError;
    return ChangeHandleSize(theHandle, newSize, kCannotGrow);
}

std::int16_t MSShrinkHandle(MSHandle* theHandle, std::uint32_t newSize) {
    if (!KAVO_CHECK(theHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidHandle(*theHandle), "MSValidHandle(theHandle)")) return gMSError;
    return ChangeHandleSize(theHandle, newSize, kCannotShrink);
}

std::int16_t MSResizeHandle(MSHandle* theHandle, std::uint32_t newSize) {
    if (!KAVO_CHECK(theHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidHandle(*theHandle), "MSValidHandle(theHandle)")) return gMSError;
    const std::uint32_t size = ReadHeader(*theHandle);
    if (size > newSize) return ChangeHandleSize(theHandle, newSize, kCannotShrink);
    if (size < newSize) return ChangeHandleSize(theHandle, newSize, kCannotGrow);
    return SetError(kNoError);
}

std::int16_t MSGrowPtr(void** thePtr, std::uint32_t newSize) {
    if (!KAVO_CHECK(thePtr != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidPtr(*thePtr), "MSValidPtr(thePtr)")) return gMSError;
    return ChangePtrSize(thePtr, newSize, kCannotGrow);
}

std::int16_t MSShrinkPtr(void** thePtr, std::uint32_t newSize) {
    if (!KAVO_CHECK(thePtr != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidPtr(*thePtr), "MSValidPtr(thePtr)")) return gMSError;
    return ChangePtrSize(thePtr, newSize, kCannotShrink);
}

std::int16_t MSResizePtr(void** thePtr, std::uint32_t newSize) {
    if (!KAVO_CHECK(thePtr != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidPtr(*thePtr), "MSValidPtr(thePtr)")) return gMSError;
    const std::uint32_t size = ReadHeader(BlockOfPtr(*thePtr));
    if (size > newSize) return ChangePtrSize(thePtr, newSize, kCannotShrink);
    if (size < newSize) return ChangePtrSize(thePtr, newSize, kCannotGrow);
    return SetError(kNoError);
}

// ---------------------------------------------------------------------------
// Filling and copying

std::int16_t MSFillHandle(MSHandle theHandle, std::uint32_t theAmount, std::uint32_t theOffset,
                          std::uint8_t theByte) {
    if (!KAVO_CHECK(MSValidHandle(theHandle))) return gMSError;
    return FillBlock(theHandle, theAmount, theOffset, theByte);
}

std::int16_t MSFillPtr(void* thePtr, std::uint32_t theAmount, std::uint32_t theOffset,
                       std::uint8_t theByte) {
    if (!KAVO_CHECK(MSValidPtr(thePtr))) return gMSError;
    return FillBlock(BlockOfPtr(thePtr), theAmount, theOffset, theByte);
}

std::int16_t MSCopyHandleToHandle(MSHandle fromHandle, MSHandle* toHandle) {
    if (!KAVO_CHECK(toHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK(MSValidHandle(fromHandle))) return gMSError;
    if (!KAVO_CHECK_TEXT(MSValidHandle(*toHandle), "MSValidHandle(toHandle)")) return gMSError;
    const std::uint32_t size = ReadHeader(fromHandle);
    if (ReadHeader(*toHandle) != size && MSResizeHandle(toHandle, size) != kNoError)
        return SetError(kDestNotResized);
    void* from = nullptr;
    void* to = nullptr;
    if (MSLockHandle(fromHandle, &from) != kNoError) return SetError(kGeneralError);
    if (MSLockHandle(*toHandle, &to) != kNoError) {
        MSUnlockHandle(fromHandle);
        return SetError(kGeneralError);
    }
    std::memmove(to, from, size);
    std::int16_t error = MSUnlockHandle(*toHandle);
    KAVO_ASSERT(error == kNoError);
    error = MSUnlockHandle(fromHandle);
    KAVO_ASSERT(error == kNoError);
    return SetError(kNoError);
}

std::int16_t MSCopyPtrToHandle(void* from, MSHandle* toHandle) {
    if (!KAVO_CHECK(toHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK(MSValidPtr(from))) return gMSError;
    if (!KAVO_CHECK_TEXT(MSValidHandle(*toHandle), "MSValidHandle(toHandle)")) return gMSError;
    const std::uint32_t size = ReadHeader(BlockOfPtr(from));
    if (MSResizeHandle(toHandle, size) != kNoError) return SetError(kDestNotResized);
    void* to = nullptr;
    const std::int16_t lockError = MSLockHandle(*toHandle, &to);
    if (lockError != kNoError) {
        MSDisposeHandle(*toHandle);
        *toHandle = nullptr;
        return SetError(lockError);
    }
    std::memmove(to, from, size);
    // Two unlocks after one lock: the second finds the count at zero and
    // leaves it there.
    std::int16_t error = MSUnlockHandle(*toHandle);
    KAVO_ASSERT(error == kNoError);
    error = MSUnlockHandle(*toHandle);
    KAVO_ASSERT(error == kNoError);
    return SetError(kNoError);
}

std::int16_t MSCopyBlockToHandle(const void* from, MSHandle* toHandle, std::uint32_t theCount) {
    if (!KAVO_CHECK(toHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK_TEXT(MSValidHandle(*toHandle), "MSValidHandle(toHandle)")) return gMSError;
    if (!KAVO_CHECK(from != NULL || theCount == 0)) return SetError(kGeneralError);
    // A source inside the destination's own block would move with it.
    const auto* fromBytes = static_cast<const std::uint8_t*>(from);
    const std::uint8_t* block = memsys::GlobalLockBlock(*toHandle);
    const bool insideDestination =
        fromBytes >= block && fromBytes < block + memsys::GlobalBlockSize(*toHandle);
    memsys::GlobalUnlockBlock(*toHandle);
    void* scratch = nullptr;
    if (insideDestination) {
        if (MSNewPtr(&scratch, theCount) != kNoError) return SetError(kDestNotResized);
        std::memcpy(scratch, from, theCount);
        fromBytes = static_cast<const std::uint8_t*>(scratch);
    }
    std::int16_t error = MSResizeHandle(toHandle, theCount);
    void* to = nullptr;
    if (error != kNoError) {
        error = kDestNotResized;
    } else if ((error = MSLockHandle(*toHandle, &to)) != kNoError) {
        MSDisposeHandle(*toHandle);
        *toHandle = nullptr;
    } else {
        if (theCount != 0) std::memmove(to, fromBytes, theCount);
        error = MSUnlockHandle(*toHandle);
        KAVO_ASSERT(error == kNoError);
    }
    if (scratch != nullptr) MSDisposePtr(scratch);
    return SetError(error);
}

std::int16_t MSCloneHandle(MSHandle fromHandle, MSHandle* toHandle) {
    if (!KAVO_CHECK(toHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK(MSValidHandle(fromHandle))) return gMSError;
    MSHandle clone = nullptr;
    std::int16_t error = MSNewHandle(&clone, ReadHeader(fromHandle));
    if (error != kNoError) return error;
    error = MSCopyHandleToHandle(fromHandle, &clone);
    if (error != kNoError) {
        MSDisposeHandle(clone);
        return SetError(error);
    }
    *toHandle = clone;
    return SetError(kNoError);
}

std::int16_t MSClonePtr(void* from, void** to) {
    if (!KAVO_CHECK(to != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK(MSValidPtr(from))) return gMSError;
    const std::uint32_t size = ReadHeader(BlockOfPtr(from));
    void* clone = nullptr;
    const std::int16_t error = MSNewPtr(&clone, size);
    if (error != kNoError) return error;
    std::memmove(clone, from, size);
    *to = clone;
    return SetError(kNoError);
}

std::int16_t MSCopyHandleToNewPtr(MSHandle fromHandle, void** to) {
    if (!KAVO_CHECK(to != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK(MSValidHandle(fromHandle))) return SetError(kGeneralError);
    const std::uint32_t size = ReadHeader(fromHandle);
    void* copy = nullptr;
    const std::int16_t error = MSNewPtr(&copy, size);
    if (error != kNoError) return error;
    std::memmove(copy, memsys::GlobalLockBlock(fromHandle) + kHeaderSize, size);
    memsys::GlobalUnlockBlock(fromHandle);
    *to = copy;
    return SetError(kNoError);
}

std::int16_t MSAppendHandleToHandle(MSHandle fromHandle, MSHandle* toHandle) {
    if (!KAVO_CHECK(toHandle != NULL)) return SetError(kGeneralError);
    if (!KAVO_CHECK(MSValidHandle(fromHandle))) return gMSError;
    if (!KAVO_CHECK_TEXT(MSValidHandle(*toHandle), "MSValidHandle(toHandle)")) return gMSError;
    const std::uint32_t fromSize = ReadHeader(fromHandle);
    const std::uint32_t toSize = ReadHeader(*toHandle);
    if (std::uint64_t{fromSize} + toSize > kMax_int32) return SetError(kDestNotResized);
    // Appending a handle to itself: the source is the destination's old bytes.
    const bool self = fromHandle == *toHandle;
    if (MSResizeHandle(toHandle, toSize + fromSize) != kNoError) return SetError(kDestNotResized);
    if (self) fromHandle = *toHandle;
    void* from = nullptr;
    void* to = nullptr;
    if (MSLockHandle(fromHandle, &from) != kNoError) return SetError(kGeneralError);
    if (MSLockHandle(*toHandle, &to) != kNoError) {
        MSUnlockHandle(fromHandle);
        return SetError(kGeneralError);
    }
    std::memmove(static_cast<std::uint8_t*>(to) + toSize, from, fromSize);
    MSUnlockHandle(*toHandle);
    MSUnlockHandle(fromHandle);
    return SetError(kNoError);
}

std::int16_t MSBlockMove(const void* from, void* to, std::uint32_t theCount) {
    if (!KAVO_CHECK((from != NULL && to != NULL) || theCount == 0)) return SetError(kGeneralError);
    if (theCount != 0) std::memmove(to, from, theCount);
    return SetError(kNoError);
}

std::int16_t MSRecoverHandle(void) {
    KAVO_ASSERT_TEXT(false, "FALSE");
    return SetError(kNoError);
}

std::int16_t MSLastError(void) { return gMSError; }

// ---------------------------------------------------------------------------
// Byte order

void MSSwapShort(std::uint16_t* swapThis) {
    if (!KAVO_CHECK(swapThis != NULL)) return;
    *swapThis = static_cast<std::uint16_t>((*swapThis >> 8) | (*swapThis << 8));
}

void MSSwapLong(std::uint32_t* swapThis) {
    if (!KAVO_CHECK(swapThis != NULL)) return;
    const std::uint32_t v = *swapThis;
    *swapThis = (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

namespace memsys {

void RefuseSystemAllocationAfter(int successes) { gAllocationsBeforeRefusal = successes; }

std::size_t CountLiveBlocks() { return gLiveBlocks.Count(); }

}  // namespace memsys
