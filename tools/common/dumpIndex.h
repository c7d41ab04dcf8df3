#ifndef VREC_TOOLS_DUMPINDEX_H
#define VREC_TOOLS_DUMPINDEX_H

#include <cstdint>
#include <string>
#include <vector>

namespace vtools {

// One region line of a dump directory's dump_index.txt:
// n TAB description TAB file TAB 0xaddress TAB 0xlength TAB stored TAB state
struct DumpIndexLine {
    unsigned long number = 0;
    std::string description;
    std::string file;
    uint64_t address = 0;
    uint64_t length = 0;
    uint64_t stored = 0;
    std::string state;  // "complete", or why not
    bool complete() const { return state == "complete"; }
};

struct DumpIndex {
    std::vector<DumpIndexLine> regions;
    std::vector<std::string> comments;  // the "#" lines, without the "# "
    bool hasResult = false;
    std::string result;                 // what follows "# result "
    std::vector<std::string> problems;  // lines that are not of the form
};

// Reads the index's text; malformed lines land in `problems` with their line number.
DumpIndex parseDumpIndex(const std::string& text);
bool parseDumpIndexLine(const std::string& line, DumpIndexLine* entry, std::string* why);

}  // namespace vtools

#endif
