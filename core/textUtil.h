#ifndef VREC_CORE_TEXTUTIL_H
#define VREC_CORE_TEXTUTIL_H

#include <string>

// A copy with every ASCII letter in lower case.
std::string toLowerCase(std::string text);
bool startsWith(const std::string& text, const char* prefix);

#endif
