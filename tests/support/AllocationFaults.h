// An allocation-fault layer for tests, beside the I/O fault layer. A test
// executable that links kavo_allocation_faults has every replaceable form of
// the global operator new and delete replaced (plain, array, nothrow, aligned,
// and the sized and aligned deletes), so that a test can
//  - make the N-th allocation from now fail, once: the throwing forms throw
//    std::bad_alloc, the nothrow forms answer null; by arming N = 0, 1, 2, ...
//    a test fails every allocation of a sequence of operations in turn;
//  - count allocations, and the bytes allocated and not yet freed with their
//    peak since a mark: how much memory an operation needs.
// Executables that do not link it keep the standard operator new.
//
// Every block comes from the C runtime's aligned allocation, posix_memalign
// or on Windows _aligned_malloc (32-bit Windows' malloc aligns to 8 bytes
// only), with the default new alignment or the one asked for, and with a
// header in front: the system's block, the bytes asked for and the form that
// allocated it. The header makes the count portable (no malloc_usable_size or
// _msize needed) and lets each delete check that it frees a block of its own
// family (scalar or array, aligned or not) and, for the sized forms, of the
// size it names; a mismatch is reported on stderr and aborts.
//
// AddressSanitizer: the executable's operator new takes precedence over the
// one in the sanitizer's runtime (which is why kavo_allocation_faults is an
// object library: the runtime defines operator new too, so the linker would
// take no replacement from an archive), and the sanitizer sees every block as
// a posix_memalign and a free; it needs no options. A block ends exactly where
// the system's block ends, so a read or write past the end of a new[] block is
// still a heap-buffer-overflow; the header is poisoned while the block lives,
// so a write before its start is reported too. The sanitizer's own
// alloc-dealloc and new-delete-type mismatch checks never see a pair of
// operators; the checks of the layer described above stand in for them.
//
// Allocations of every thread are counted and can fail, but the counters are
// meant for one thread at a time, like the library. GoogleTest allocates too:
// a test arms a failure only around the code under test, and an allocation
// made while no failure is armed never fails.
#ifndef KAVO_TESTS_SUPPORT_ALLOCATIONFAULTS_H
#define KAVO_TESTS_SUPPORT_ALLOCATIONFAULTS_H

#include <cstddef>
#include <cstdint>

namespace kavotest {

// Allocations made since the last ResetAllocationCount, in every form, except
// those made while a TAllocationPause lives.
std::uint64_t AllocationCount();
void ResetAllocationCount();

// After `successes` more allocations succeed, the next one fails, once; the
// layer is disarmed again by that failure. Negative disarms. Every call, the
// disarming one included, forgets a failure that has happened.
void FailAllocationAfter(long successes);
// Whether the failure armed by the last FailAllocationAfter has happened.
bool AllocationFailed();

// Bytes asked for through operator new and not yet freed, including those
// allocated while paused; the most there were since the last
// MarkAllocationPeak (a mark starts the peak at the bytes held then).
std::size_t AllocatedBytes();
std::size_t PeakAllocatedBytes();
void MarkAllocationPeak();

// While one lives, allocations neither count nor fail: for a test's own
// bookkeeping between the calls under test. Pauses nest.
class TAllocationPause {
public:
    TAllocationPause();
    ~TAllocationPause();
    TAllocationPause(const TAllocationPause&) = delete;
    TAllocationPause& operator=(const TAllocationPause&) = delete;
};

// Arms FailAllocationAfter(successes) for the length of a scope and disarms at
// its end, however the scope is left.
class TAllocationFaultScope {
public:
    explicit TAllocationFaultScope(long successes) { FailAllocationAfter(successes); }
    ~TAllocationFaultScope() { FailAllocationAfter(-1); }
    TAllocationFaultScope(const TAllocationFaultScope&) = delete;
    TAllocationFaultScope& operator=(const TAllocationFaultScope&) = delete;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_SUPPORT_ALLOCATIONFAULTS_H
