#include "tests/support/AllocationFaults.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(_WIN32)
#include <malloc.h>
#endif

#if defined(__SANITIZE_ADDRESS__)
#define KAVO_POISON_HEADERS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KAVO_POISON_HEADERS 1
#endif
#endif
#if defined(KAVO_POISON_HEADERS)
#include <sanitizer/asan_interface.h>
#endif

namespace {

// The form of operator new that made a block, kept in the two low bits of
// the header's first word (the system's block has at least the default
// new alignment).
enum TForm : std::uintptr_t { kScalar = 0, kArray = 1, kAlignedScalar = 2, kAlignedArray = 3 };
constexpr std::uintptr_t kFormBits = 3;

// In front of every block: the system's block with its form, then the bytes
// asked for. The block itself starts `front` bytes into the system's block
// (the header rounded up to the alignment) and ends where it ends.
constexpr std::size_t kHeaderBytes = sizeof(std::uintptr_t) + sizeof(std::size_t);
constexpr std::size_t kDefaultAlignment = __STDCPP_DEFAULT_NEW_ALIGNMENT__;
static_assert(kDefaultAlignment > kFormBits, "the form needs the low bits of an aligned address");

// The size a delete names when it names none: no block is this large.
constexpr std::size_t kUnnamed = SIZE_MAX;

std::atomic<std::uint64_t> gCount{0};
std::atomic<long> gSuccessesLeft{-1};
std::atomic<bool> gFailed{false};
std::atomic<std::size_t> gBytes{0};
std::atomic<std::size_t> gPeak{0};
std::atomic<int> gPaused{0};

// Counts the allocation and says whether it may succeed.
bool Permitted() {
    if (gPaused.load(std::memory_order_relaxed) > 0) return true;
    gCount.fetch_add(1, std::memory_order_relaxed);
    long left = gSuccessesLeft.load(std::memory_order_relaxed);
    while (left >= 0) {
        // Reaching -1 disarms: the failure happens once.
        if (gSuccessesLeft.compare_exchange_weak(left, left - 1, std::memory_order_relaxed)) {
            if (left > 0) return true;
            gFailed.store(true, std::memory_order_relaxed);
            return false;
        }
    }
    return true;
}

void AddBytes(std::size_t size) {
    const std::size_t now = gBytes.fetch_add(size, std::memory_order_relaxed) + size;
    std::size_t peak = gPeak.load(std::memory_order_relaxed);
    while (now > peak && !gPeak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
    }
}

void* SystemAllocate(std::size_t bytes, std::size_t alignment) {
#if defined(_WIN32)
    return _aligned_malloc(bytes, alignment);
#else
    void* raw = nullptr;
    return posix_memalign(&raw, alignment, bytes) == 0 ? raw : nullptr;
#endif
}

void SystemFree(void* raw) {
#if defined(_WIN32)
    _aligned_free(raw);
#else
    std::free(raw);
#endif
}

// Only the block is the caller's: under AddressSanitizer a write before it is
// reported as one past the end is.
void PoisonHeader(void* raw, std::size_t front) {
#if defined(KAVO_POISON_HEADERS)
    __asan_poison_memory_region(raw, front);
#else
    (void)raw;
    (void)front;
#endif
}

void UnpoisonHeader(unsigned char* block) {
#if defined(KAVO_POISON_HEADERS)
    __asan_unpoison_memory_region(block - kHeaderBytes, kHeaderBytes);
#else
    (void)block;
#endif
}

void* Allocate(std::size_t size, std::size_t alignment, TForm form) {
    if (!Permitted()) return nullptr;
    if (alignment < kDefaultAlignment) alignment = kDefaultAlignment;
    if ((alignment & (alignment - 1)) != 0 || alignment > SIZE_MAX / 2) return nullptr;
    const std::size_t front = (kHeaderBytes + alignment - 1) / alignment * alignment;
    if (size > SIZE_MAX - front) return nullptr;
    void* raw = SystemAllocate(front + size, alignment);
    if (raw == nullptr) return nullptr;
    unsigned char* block = static_cast<unsigned char*>(raw) + front;
    const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(raw) | form;
    std::memcpy(block - kHeaderBytes, &first, sizeof first);
    std::memcpy(block - sizeof size, &size, sizeof size);
    PoisonHeader(raw, front);
    AddBytes(size);
    return block;
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment, TForm form) {
    void* block = Allocate(size, alignment, form);
    if (block == nullptr) throw std::bad_alloc();
    return block;
}

const char* NewName(TForm form) {
    static const char* const kNames[] = {"operator new", "operator new[]", "aligned operator new",
                                         "aligned operator new[]"};
    return kNames[form];
}

const char* DeleteName(TForm form) {
    static const char* const kNames[] = {"operator delete", "operator delete[]", "aligned operator delete",
                                         "aligned operator delete[]"};
    return kNames[form];
}

[[noreturn]] void Mismatch(const char* what) {
    std::fputs(what, stderr);
    std::fflush(stderr);
    std::abort();
}

// Frees a block after checking that `form` of delete matches the form of new
// that made it and, unless kUnnamed, that `named` is its size.
void Free(void* pointer, TForm form, std::size_t named) {
    if (pointer == nullptr) return;
    auto* block = static_cast<unsigned char*>(pointer);
    UnpoisonHeader(block);
    std::uintptr_t first = 0;
    std::size_t size = 0;
    std::memcpy(&first, block - kHeaderBytes, sizeof first);
    std::memcpy(&size, block - sizeof size, sizeof size);
    const auto made = static_cast<TForm>(first & kFormBits);
    char message[160];
    if (made != form) {
        std::snprintf(message, sizeof message, "allocation faults: a block of %s freed by %s\n",
                      NewName(made), DeleteName(form));
        Mismatch(message);
    }
    if (named != kUnnamed && named != size) {
        std::snprintf(message, sizeof message, "allocation faults: %s of %llu bytes frees a block of %llu\n",
                      DeleteName(form), static_cast<unsigned long long>(named),
                      static_cast<unsigned long long>(size));
        Mismatch(message);
    }
    gBytes.fetch_sub(size, std::memory_order_relaxed);
    SystemFree(reinterpret_cast<void*>(first & ~kFormBits));
}

std::size_t Alignment(std::align_val_t alignment) {
    return static_cast<std::size_t>(alignment);
}

}  // namespace

namespace kavotest {

std::uint64_t AllocationCount() {
    return gCount.load(std::memory_order_relaxed);
}
void ResetAllocationCount() {
    gCount.store(0, std::memory_order_relaxed);
}

void FailAllocationAfter(long successes) {
    gSuccessesLeft.store(successes < 0 ? -1 : successes, std::memory_order_relaxed);
    gFailed.store(false, std::memory_order_relaxed);
}

bool AllocationFailed() {
    return gFailed.load(std::memory_order_relaxed);
}

std::size_t AllocatedBytes() {
    return gBytes.load(std::memory_order_relaxed);
}
std::size_t PeakAllocatedBytes() {
    return gPeak.load(std::memory_order_relaxed);
}
void MarkAllocationPeak() {
    gPeak.store(gBytes.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

TAllocationPause::TAllocationPause() {
    gPaused.fetch_add(1, std::memory_order_relaxed);
}
TAllocationPause::~TAllocationPause() {
    gPaused.fetch_sub(1, std::memory_order_relaxed);
}

}  // namespace kavotest

// Every replaceable form, so that no allocation escapes the count and no
// block of this layer reaches the runtime's own delete.
void* operator new(std::size_t size) {
    return AllocateOrThrow(size, 0, kScalar);
}
void* operator new[](std::size_t size) {
    return AllocateOrThrow(size, 0, kArray);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size, 0, kScalar);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return Allocate(size, 0, kArray);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return AllocateOrThrow(size, Alignment(alignment), kAlignedScalar);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return AllocateOrThrow(size, Alignment(alignment), kAlignedArray);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(size, Alignment(alignment), kAlignedScalar);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return Allocate(size, Alignment(alignment), kAlignedArray);
}

void operator delete(void* pointer) noexcept {
    Free(pointer, kScalar, kUnnamed);
}
void operator delete[](void* pointer) noexcept {
    Free(pointer, kArray, kUnnamed);
}
void operator delete(void* pointer, const std::nothrow_t&) noexcept {
    Free(pointer, kScalar, kUnnamed);
}
void operator delete[](void* pointer, const std::nothrow_t&) noexcept {
    Free(pointer, kArray, kUnnamed);
}
void operator delete(void* pointer, std::size_t size) noexcept {
    Free(pointer, kScalar, size);
}
void operator delete[](void* pointer, std::size_t size) noexcept {
    Free(pointer, kArray, size);
}
void operator delete(void* pointer, std::align_val_t) noexcept {
    Free(pointer, kAlignedScalar, kUnnamed);
}
void operator delete[](void* pointer, std::align_val_t) noexcept {
    Free(pointer, kAlignedArray, kUnnamed);
}
void operator delete(void* pointer, std::size_t size, std::align_val_t) noexcept {
    Free(pointer, kAlignedScalar, size);
}
void operator delete[](void* pointer, std::size_t size, std::align_val_t) noexcept {
    Free(pointer, kAlignedArray, size);
}
void operator delete(void* pointer, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(pointer, kAlignedScalar, kUnnamed);
}
void operator delete[](void* pointer, std::align_val_t, const std::nothrow_t&) noexcept {
    Free(pointer, kAlignedArray, kUnnamed);
}
