// The operating system's global-memory calls, as the memory system uses them.
//
// On Windows these are GlobalAlloc and its family; elsewhere a portable
// allocator keeps the same contract: movable blocks are named by a stable
// value and may relocate on reallocation, fixed blocks are named by their
// address, each block carries a lock count. Nothing here validates its
// argument: the memory system only passes values it knows to be live.
#ifndef KAVO_MEMSYS_GLOBALMEM_H
#define KAVO_MEMSYS_GLOBALMEM_H

#include <cstddef>
#include <cstdint>

namespace memsys {

using GlobalBlock = void*;

// New block of bytes bytes; movable blocks come zero-filled. Null on failure.
GlobalBlock GlobalAllocBlock(bool movable, std::size_t bytes);
// Reallocates, moving the bytes if need be. Returns the block's new name
// (the same for a movable block) or null on failure, the old block intact.
GlobalBlock GlobalReAllocBlock(GlobalBlock block, std::size_t bytes);
// Frees the block; false when the system refuses.
bool GlobalFreeBlock(GlobalBlock block);
// Address of the block's first byte; movable blocks count the lock.
std::uint8_t* GlobalLockBlock(GlobalBlock block);
// Releases one lock of a movable block; never below zero.
void GlobalUnlockBlock(GlobalBlock block);
std::uint32_t GlobalLockCount(GlobalBlock block);
// Bytes the block holds (at least what was asked for).
std::size_t GlobalBlockSize(GlobalBlock block);

}  // namespace memsys

#endif  // KAVO_MEMSYS_GLOBALMEM_H
