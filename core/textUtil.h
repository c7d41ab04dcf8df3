#ifndef VREC_CORE_TEXTUTIL_H
#define VREC_CORE_TEXTUTIL_H

#include <string>

// A copy with every ASCII letter in lower case.
std::string toLowerCase(std::string text);
bool startsWith(const std::string& text, const char* prefix);
// Whether `text` can stand in a quoted field of an AT command and in a file name: no quote,
// comma, blank or control character.
bool isPlainField(const std::string& text);
// A printable form of text from outside: \r, \n, \\, other control bytes and bytes beyond
// ASCII as escapes.
std::string escapeText(const std::string& text);

#endif
