#ifndef VREC_TOOLS_DUMPCHECK_H
#define VREC_TOOLS_DUMPCHECK_H

#include <string>

// Checks a memory dump directory against its dump_index.txt and, with `simMemory`, every
// stored byte against the simulator's memory rule. Prints a line per region and the
// verdict; returns the exit status: 0 complete and sound, 1 incomplete or a check failed,
// 2 no readable index.
int checkDumpDirectory(const std::string& dir, bool simMemory);

#endif
