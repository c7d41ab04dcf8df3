#ifndef VREC_TOOLS_DUMPSETUP_H
#define VREC_TOOLS_DUMPSETUP_H

#include <cstdint>
#include <string>
#include <vector>

namespace vtools {

// One region of the module's memory as its dump table lists it.
struct DumpRegion {
    std::string file;         // the table's file name, at most 20 bytes
    std::string description;  // at most 20 bytes
    uint64_t address = 0;
    uint64_t length = 0;
    bool placed = false;  // the address was given; otherwise placement chooses it
};

// How the module behaves once it has crashed: what its dump mode shows and holds.
struct DumpSetup {
    std::vector<DumpRegion> regions;  // empty until parsed or defaulted
    int tableBits = 64;               // MEMORY_DEBUG_64 and 64-byte entries, or 32
    std::string portPath;             // the dump port's link; empty: the Diag link + ".dump"
    bool unbound = false;             // no driver holds the interface until new_id is written
    std::string driver = "option";    // the driver that holds it: option or qcserial
    std::string product = "900E";     // USB product ID in dump mode (vendor 05C6)
    long rebootMs = 3000;             // from RESET to the normal module's return
};

// The regions when none are given: one over 1 MiB, one of an odd size, one small.
constexpr const char* kDefaultDumpRegions =
    "2M:DDRCS0.BIN:DDR CS0,70001:OCIMEM.BIN:OCIMEM,4K:CODERAM.BIN:CODE RAM";

// Where the region table lies, and where the first region goes when not placed.
constexpr uint64_t kDumpTableAddress = 0x08600000;
constexpr uint64_t kFirstRegion32 = 0x80000000;
constexpr uint64_t kFirstRegion64 = 0x880000000;
constexpr uint64_t kRegionAlign = 0x10000;  // and the least gap between two regions

// Parses "SIZE[@ADDR]:FILE[:DESCRIPTION],..." (see the usage text). False with a message.
bool parseDumpRegions(const std::string& list, std::vector<DumpRegion>* regions,
                      std::string* error);
// Gives every region not placed an address: behind the one before, aligned, with a gap.
// False with a message when a region does not fit the table's width.
bool placeDumpRegions(std::vector<DumpRegion>* regions, int tableBits, std::string* error);
// A size or byte count: decimal or 0x hex, with an optional K, M or G (binary) suffix.
bool parseByteCount(const std::string& text, uint64_t* value);

// After the options: the default regions where none were given, every region placed, the
// dump port's path from `diagLink` where none was given. False with a message.
bool completeDumpSetup(DumpSetup* setup, const std::string& diagLink, std::string* error);

// The --dump-* options by their name without dashes; false with a message.
bool parseDumpOption(const std::string& name, const std::string& value, DumpSetup* setup,
                     std::string* error);

}  // namespace vtools

#endif
