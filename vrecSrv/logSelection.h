#ifndef VREC_SRV_LOGSELECTION_H
#define VREC_SRV_LOGSELECTION_H

#include <string>
#include <vector>

// Reads a mask file of ready frames, of at most 1 MiB. False with the reason in `error`.
bool loadMaskFile(const std::string& path, std::vector<std::string>* frames, std::string* error);

#endif
