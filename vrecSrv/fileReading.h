#ifndef VREC_SRV_FILEREADING_H
#define VREC_SRV_FILEREADING_H

#include <string>

// Reads a whole file of data the user supplies (command files, the logging configuration)
// and says in the diagnostic log why it could not. False when the file is missing, cannot
// be opened, is empty, is larger than `limit` bytes (then nothing is read), or was not read
// whole; `bytes` then holds what was read, if anything.
bool readSuppliedFile(const std::string& path, std::string& bytes, long limit);

#endif
