#ifndef VREC_CORE_CODEC_H
#define VREC_CORE_CODEC_H

#include <string>

class CDateTime;

// Base64 of RFC 4648 with "=" padding and no line breaks.
std::string Base64Encode(const unsigned char* data, int length);
// Lenient decoder: no validation; an invalid character counts as 0 and a "=" inside the
// text restarts the grouping where the padding stood. Adds one to *count per byte.
std::string Base64Decode(const char* text, int length, int* count);

// Frame check sequence of RFC 1662 (CRC-16/X-25).
void Crc16Fcs(const unsigned char* data, int length, unsigned short* result);
// Byte stuffing of RFC 1662: 0x7E -> 7D 5E, 0x7D -> 7D 5D, in place.
void HdlcEscape(std::string& text);
// Its reverse, into `plain`; false when the text ends inside an escape.
bool HdlcUnescape(const std::string& text, std::string* plain);

// "_%d%d%d_%d_%d_%d_%d" of year, month, day, hour, minute, second, millisecond.
std::string logTimeSuffix();
std::string logTimeSuffix(const CDateTime& when);

#endif
