// Global memory on Windows: the system's own calls.
#include "MemSys/Win32/GlobalMem.h"

#include <windows.h>

namespace memsys {

GlobalBlock GlobalAllocBlock(bool movable, std::size_t bytes) {
    return movable ? GlobalAlloc(GMEM_MOVEABLE | GMEM_ZEROINIT, bytes) : GlobalAlloc(GMEM_FIXED, bytes);
}

GlobalBlock GlobalReAllocBlock(GlobalBlock block, std::size_t bytes) {
    return GlobalReAlloc(static_cast<HGLOBAL>(block), bytes, GMEM_MOVEABLE);
}

bool GlobalFreeBlock(GlobalBlock block) { return GlobalFree(static_cast<HGLOBAL>(block)) == nullptr; }

std::uint8_t* GlobalLockBlock(GlobalBlock block) {
    return static_cast<std::uint8_t*>(GlobalLock(static_cast<HGLOBAL>(block)));
}

void GlobalUnlockBlock(GlobalBlock block) {
    if (GlobalLockCount(block) > 0) GlobalUnlock(static_cast<HGLOBAL>(block));
}

std::uint32_t GlobalLockCount(GlobalBlock block) {
    return GlobalFlags(static_cast<HGLOBAL>(block)) & GMEM_LOCKCOUNT;
}

std::size_t GlobalBlockSize(GlobalBlock block) { return GlobalSize(static_cast<HGLOBAL>(block)); }

}  // namespace memsys
