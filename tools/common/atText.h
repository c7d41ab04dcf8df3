#ifndef VREC_TOOLS_ATTEXT_H
#define VREC_TOOLS_ATTEXT_H

#include <string>
#include <vector>

namespace vtools {

// Arguments of an AT command, split at commas outside double quotes. A quoted argument
// comes back without its quotes; `quoted` tells which ones had them.
struct AtArgs {
    std::vector<std::string> values;
    std::vector<bool> quoted;
    bool wellFormed = true;  // false: a quote left open, or text behind a closing quote
};
AtArgs splitAtArgs(const std::string& text);

// Base64 of RFC 4648 as a careful receiver reads it: length a multiple of 4, only the
// alphabet, "=" only as the last one or two characters, unused bits zero.
bool base64DecodeStrict(const std::string& text, std::string* out);

std::string hexBytes(const std::string& bytes);  // "4B13" form, upper case, no blanks

}  // namespace vtools

#endif
