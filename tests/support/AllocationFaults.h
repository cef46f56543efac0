// An allocation-fault layer for tests, beside the I/O fault layer: a test
// executable that links kavo_allocation_faults has every form of the global
// operator new and delete replaced, so that a test can
//  - make the N-th allocation from now fail (the throwing forms throw
//    std::bad_alloc, the nothrow forms answer null), once, and so walk every
//    allocation of a sequence of operations;
//  - count allocations, and the bytes allocated and not yet freed, with
//    their peak since a mark: how much memory an operation needs.
//
// Every block comes from malloc with a small header in front (the bytes it
// holds and where malloc's block begins), so that the runtime's own checks
// (AddressSanitizer's among them) still see every block, and a read past a
// block's end still lands past the end of malloc's.
//
// One thread at a time, like the library; GoogleTest allocates too, so a
// failure is armed only around the code under test.
#ifndef KAVO_TESTS_SUPPORT_ALLOCATIONFAULTS_H
#define KAVO_TESTS_SUPPORT_ALLOCATIONFAULTS_H

#include <cstddef>
#include <cstdint>

namespace kavotest {

// Allocations made since the last ResetAllocationCount, in every form.
std::uint64_t AllocationCount();
void ResetAllocationCount();

// After `successes` more allocations succeed, the next one fails, once.
// Negative disarms.
void FailAllocationAfter(long successes);
// Whether the armed failure has happened since it was armed.
bool AllocationFailed();

// Bytes allocated and not yet freed; the most there were since the last mark.
std::size_t AllocatedBytes();
std::size_t PeakAllocatedBytes();
void MarkAllocationPeak();

// While one lives, allocations neither count nor fail: for a test's own
// bookkeeping between the calls under test.
class TAllocationPause {
public:
    TAllocationPause();
    ~TAllocationPause();
    TAllocationPause(const TAllocationPause&) = delete;
    TAllocationPause& operator=(const TAllocationPause&) = delete;
};

// Disarms at the end of a scope, whatever happened in it.
class TAllocationFaultScope {
public:
    explicit TAllocationFaultScope(long successes) { FailAllocationAfter(successes); }
    ~TAllocationFaultScope() { FailAllocationAfter(-1); }
    TAllocationFaultScope(const TAllocationFaultScope&) = delete;
    TAllocationFaultScope& operator=(const TAllocationFaultScope&) = delete;
};

}  // namespace kavotest

#endif  // KAVO_TESTS_SUPPORT_ALLOCATIONFAULTS_H
