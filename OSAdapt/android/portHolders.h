#ifndef VREC_OSADAPT_PORTHOLDERS_H
#define VREC_OSADAPT_PORTHOLDERS_H

#include <sys/types.h>

#include <string>
#include <vector>

// A process that has a port open.
struct PortHolder {
    pid_t pid;
    std::string command;  // the process's name, as the kernel keeps it
};

// The other processes that hold `path` open, found through the descriptor links under /proc.
// This process is left out, and so is one that holds the master side when `path` is a
// pseudo-terminal: that process plays the device rather than competing for its stream.
// Processes whose descriptors may not be read are passed over.
std::vector<PortHolder> OS_ADAPT_FindPortHolders(const std::string& path);

#endif
