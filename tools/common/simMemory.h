#ifndef VREC_TOOLS_SIMMEMORY_H
#define VREC_TOOLS_SIMMEMORY_H

#include <cstddef>
#include <cstdint>

namespace vtools {

// The memory of the simulator's crashed module: every byte a function of its address, so
// that a dump of any region can be proven byte for byte without the simulator. A byte is
// one byte (little-endian) of a 64-bit mix of its 8-byte word's number (address >> 3).
uint64_t simMemoryWord(uint64_t wordNumber);
unsigned char simMemoryByte(uint64_t address);
// The `size` bytes from `address` on; addresses past 2^64 wrap.
void simMemoryFill(uint64_t address, unsigned char* out, size_t size);
// The offset of the first byte of `data` that differs from the memory at `address`, or
// `size` when none does.
size_t simMemoryMismatch(uint64_t address, const unsigned char* data, size_t size);

}  // namespace vtools

#endif
