#include "simMemory.h"

#include <cstring>

namespace vtools {

uint64_t simMemoryWord(uint64_t wordNumber) {
    uint64_t z = wordNumber + 0x9E3779B97F4A7C15ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

unsigned char simMemoryByte(uint64_t address) {
    return static_cast<unsigned char>(simMemoryWord(address >> 3) >> (8 * (address & 7)));
}

void simMemoryFill(uint64_t address, unsigned char* out, size_t size) {
    size_t done = 0;
    // The head up to a word boundary and the tail byte by byte, whole words between.
    while (done < size && ((address + done) & 7) != 0) {
        out[done] = simMemoryByte(address + done);
        ++done;
    }
    for (; size - done >= 8; done += 8) {
        const uint64_t word = simMemoryWord((address + done) >> 3);
        for (unsigned i = 0; i < 8; ++i) {
            out[done + i] = static_cast<unsigned char>(word >> (8 * i));
        }
    }
    for (; done < size; ++done) {
        out[done] = simMemoryByte(address + done);
    }
}

size_t simMemoryMismatch(uint64_t address, const unsigned char* data, size_t size) {
    unsigned char expected[4096];
    for (size_t at = 0; at < size; at += sizeof(expected)) {
        const size_t n = size - at < sizeof(expected) ? size - at : sizeof(expected);
        simMemoryFill(address + at, expected, n);
        if (memcmp(expected, data + at, n) != 0) {
            for (size_t i = 0; i < n; ++i) {
                if (expected[i] != data[at + i]) {
                    return at + i;
                }
            }
        }
    }
    return size;
}

}  // namespace vtools
