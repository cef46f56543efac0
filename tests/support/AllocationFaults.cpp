#include "tests/support/AllocationFaults.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// The header in front of every block: where malloc's block begins and the
// bytes asked for. Its size keeps the block as aligned as the default new.
constexpr std::size_t kHeader =
    __STDCPP_DEFAULT_NEW_ALIGNMENT__ > 2 * sizeof(void*) ? __STDCPP_DEFAULT_NEW_ALIGNMENT__ : 2 * sizeof(void*);

std::uint64_t gCount = 0;
long gSuccessesLeft = -1;
bool gFailed = false;
std::size_t gBytes = 0;
std::size_t gPeak = 0;
int gPaused = 0;

// Counts the allocation and says whether it may succeed.
bool Permitted() {
    if (gPaused > 0) return true;
    ++gCount;
    if (gSuccessesLeft < 0) return true;
    if (gSuccessesLeft-- > 0) return true;
    gFailed = true;
    return false;
}

void* Allocate(std::size_t size, std::size_t alignment) {
    if (!Permitted()) return nullptr;
    if (size == 0) size = 1;
    // With the default alignment the header simply comes first, so that the
    // block ends where malloc's does; a larger one pads in front.
    const std::size_t front = alignment <= kHeader ? kHeader : kHeader + alignment;
    if (size > SIZE_MAX - front) return nullptr;
    auto* raw = static_cast<unsigned char*>(std::malloc(size + front));
    if (raw == nullptr) return nullptr;
    unsigned char* block = raw + kHeader;
    if (alignment > kHeader) {
        const std::size_t misalignment = reinterpret_cast<std::uintptr_t>(block) % alignment;
        if (misalignment != 0) block += alignment - misalignment;
    }
    std::memcpy(block - 2 * sizeof(void*), &raw, sizeof raw);
    std::memcpy(block - sizeof(void*), &size, sizeof size);
    gBytes += size;
    if (gBytes > gPeak) gPeak = gBytes;
    return block;
}

void Free(void* pointer) {
    if (pointer == nullptr) return;
    auto* block = static_cast<unsigned char*>(pointer);
    void* raw = nullptr;
    std::size_t size = 0;
    std::memcpy(&raw, block - 2 * sizeof(void*), sizeof raw);
    std::memcpy(&size, block - sizeof(void*), sizeof size);
    gBytes -= size;
    std::free(raw);
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment) {
    void* block = Allocate(size, alignment);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

}  // namespace

namespace kavotest {

std::uint64_t AllocationCount() { return gCount; }
void ResetAllocationCount() { gCount = 0; }

void FailAllocationAfter(long successes) {
    gSuccessesLeft = successes < 0 ? -1 : successes;
    gFailed = false;
}

bool AllocationFailed() { return gFailed; }

std::size_t AllocatedBytes() { return gBytes; }
std::size_t PeakAllocatedBytes() { return gPeak; }
void MarkAllocationPeak() { gPeak = gBytes; }

TAllocationPause::TAllocationPause() { ++gPaused; }
TAllocationPause::~TAllocationPause() { --gPaused; }

}  // namespace kavotest

// Every replaceable form, so that no allocation escapes the count and no
// block reaches a deallocation of another family.
void* operator new(std::size_t size) { return AllocateOrThrow(size, 0); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size, 0); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, 0); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return Allocate(size, 0); }
void* operator new(std::size_t size, std::align_val_t alignment) {
    return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(size, static_cast<std::size_t>(alignment));
}

void operator delete(void* pointer) noexcept { Free(pointer); }
void operator delete[](void* pointer) noexcept { Free(pointer); }
void operator delete(void* pointer, const std::nothrow_t&) noexcept { Free(pointer); }
void operator delete[](void* pointer, const std::nothrow_t&) noexcept { Free(pointer); }
void operator delete(void* pointer, std::size_t) noexcept { Free(pointer); }
void operator delete[](void* pointer, std::size_t) noexcept { Free(pointer); }
void operator delete(void* pointer, std::align_val_t) noexcept { Free(pointer); }
void operator delete[](void* pointer, std::align_val_t) noexcept { Free(pointer); }
void operator delete(void* pointer, std::size_t, std::align_val_t) noexcept { Free(pointer); }
void operator delete[](void* pointer, std::size_t, std::align_val_t) noexcept { Free(pointer); }
void operator delete(void* pointer, std::align_val_t, const std::nothrow_t&) noexcept { Free(pointer); }
void operator delete[](void* pointer, std::align_val_t, const std::nothrow_t&) noexcept { Free(pointer); }
