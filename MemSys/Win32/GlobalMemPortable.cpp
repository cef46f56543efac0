// Global memory where the Windows calls are not available.
//
// A movable block is named by a small control record that stays put while
// its bytes move on reallocation; the name is the record's address with the
// low bit set, so it is never mistaken for a data address. A fixed block is
// named by the address of its bytes, with its size kept in a hidden prefix in
// front of them. Fixed blocks have no lock count, as on Windows.
//
// The control record of a freed block waits in a queue behind the next few
// thousand frees before its memory can come back as a new record: until
// then the freed handle's value names nothing, so a use after free or a
// double free is refused instead of reaching a new block.
#include "MemSys/Win32/GlobalMem.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace memsys {
namespace {

struct MovableBlock {
    std::uint8_t* fBytes;
    std::size_t fSize;
    std::uint32_t fLockCount;
};

// Keeps the data of a fixed block at the allocator's full alignment.
struct alignas(alignof(std::max_align_t)) FixedPrefix {
    std::size_t fSize;
};

constexpr std::uintptr_t kMovableTag = 1;
constexpr std::size_t kQuarantineLength = 4096;

MovableBlock* gQuarantine[kQuarantineLength];
std::size_t gQuarantineOldest = 0;
std::size_t gQuarantineCount = 0;

void Quarantine(MovableBlock* movable) {
    if (gQuarantineCount < kQuarantineLength) {
        gQuarantine[(gQuarantineOldest + gQuarantineCount++) % kQuarantineLength] = movable;
        return;
    }
    delete gQuarantine[gQuarantineOldest];
    gQuarantine[gQuarantineOldest] = movable;
    gQuarantineOldest = (gQuarantineOldest + 1) % kQuarantineLength;
}

bool IsMovable(GlobalBlock block) { return (reinterpret_cast<std::uintptr_t>(block) & kMovableTag) != 0; }

MovableBlock* AsMovable(GlobalBlock block) {
    return reinterpret_cast<MovableBlock*>(reinterpret_cast<std::uintptr_t>(block) & ~kMovableTag);
}

GlobalBlock NameOf(MovableBlock* movable) {
    return reinterpret_cast<GlobalBlock>(reinterpret_cast<std::uintptr_t>(movable) | kMovableTag);
}

FixedPrefix* PrefixOf(GlobalBlock block) { return static_cast<FixedPrefix*>(block) - 1; }

// malloc(0) may answer null; every block gets at least one byte.
void* AllocateBytes(std::size_t bytes) { return std::malloc(bytes != 0 ? bytes : 1); }

GlobalBlock AllocMovable(std::size_t bytes) {
    auto* movable = new (std::nothrow) MovableBlock{nullptr, bytes, 0};
    if (movable == nullptr) return nullptr;
    movable->fBytes = static_cast<std::uint8_t*>(AllocateBytes(bytes));
    if (movable->fBytes == nullptr) {
        delete movable;
        return nullptr;
    }
    std::memset(movable->fBytes, 0, bytes);
    return NameOf(movable);
}

GlobalBlock AllocFixed(std::size_t bytes) {
    if (bytes > SIZE_MAX - sizeof(FixedPrefix)) return nullptr;
    auto* prefix = static_cast<FixedPrefix*>(AllocateBytes(sizeof(FixedPrefix) + bytes));
    if (prefix == nullptr) return nullptr;
    prefix->fSize = bytes;
    return prefix + 1;
}

}  // namespace

GlobalBlock GlobalAllocBlock(bool movable, std::size_t bytes) {
    return movable ? AllocMovable(bytes) : AllocFixed(bytes);
}

GlobalBlock GlobalReAllocBlock(GlobalBlock block, std::size_t bytes) {
    if (IsMovable(block)) {
        MovableBlock* movable = AsMovable(block);
        void* moved = std::realloc(movable->fBytes, bytes != 0 ? bytes : 1);
        if (moved == nullptr) return nullptr;
        movable->fBytes = static_cast<std::uint8_t*>(moved);
        movable->fSize = bytes;
        return block;
    }
    if (bytes > SIZE_MAX - sizeof(FixedPrefix)) return nullptr;
    void* moved = std::realloc(PrefixOf(block), sizeof(FixedPrefix) + bytes);
    if (moved == nullptr) return nullptr;
    auto* prefix = static_cast<FixedPrefix*>(moved);
    prefix->fSize = bytes;
    return prefix + 1;
}

bool GlobalFreeBlock(GlobalBlock block) {
    if (IsMovable(block)) {
        MovableBlock* movable = AsMovable(block);
        std::free(movable->fBytes);
        movable->fBytes = nullptr;
        Quarantine(movable);
    } else {
        std::free(PrefixOf(block));
    }
    return true;
}

std::uint8_t* GlobalLockBlock(GlobalBlock block) {
    if (!IsMovable(block)) return static_cast<std::uint8_t*>(block);
    MovableBlock* movable = AsMovable(block);
    ++movable->fLockCount;
    return movable->fBytes;
}

void GlobalUnlockBlock(GlobalBlock block) {
    if (!IsMovable(block)) return;
    MovableBlock* movable = AsMovable(block);
    if (movable->fLockCount > 0) --movable->fLockCount;
}

std::uint32_t GlobalLockCount(GlobalBlock block) {
    return IsMovable(block) ? AsMovable(block)->fLockCount : 0;
}

std::size_t GlobalBlockSize(GlobalBlock block) {
    return IsMovable(block) ? AsMovable(block)->fSize : PrefixOf(block)->fSize;
}

}  // namespace memsys
