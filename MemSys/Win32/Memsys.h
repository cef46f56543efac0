// The memory system: relocatable handles and fixed pointers whose logical
// size travels in a hidden 4-byte header in front of the data.
//
// The exported MS functions are declared in the public header; this header
// adds what the library itself shares. Every function stores its result in
// gMSError and returns it. A value that names no live block (null, wild,
// freed) is refused with kInvalidHandle or kInvalidPtr and an assertion
// report naming the argument; the memory behind it is never touched.
#ifndef KAVO_MEMSYS_MEMSYS_H
#define KAVO_MEMSYS_MEMSYS_H

#include <cstdint>

#include "kavoDVDB.h"

constexpr std::uint8_t kNewGarbageByte = 0xA3;
constexpr std::uint32_t kMax_int32 = 0x7FFFFFFF;

// Result of the last memory-system call.
extern std::int16_t gMSError;

// Reverse the bytes of a value in place. Packed data never needs them; they
// are kept for hosts that swap by hand.
void MSSwapShort(std::uint16_t* swapThis);
void MSSwapLong(std::uint32_t* swapThis);

namespace memsys {

// For tests: the system refuses the allocation or reallocation that comes
// after `successes` more successful ones; a negative value ends the refusals.
void RefuseSystemAllocationAfter(int successes);

// For tests: the number of live handles and pointers.
std::size_t CountLiveBlocks();

}  // namespace memsys

#endif  // KAVO_MEMSYS_MEMSYS_H
