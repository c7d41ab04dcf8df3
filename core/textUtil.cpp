#include "textUtil.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

std::string toLowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool startsWith(const std::string& text, const char* prefix) {
    return text.compare(0, strlen(prefix), prefix) == 0;
}

bool isPlainField(const std::string& text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || c == '"' || c == ',' || c == ' ') {
            return false;
        }
    }
    return true;
}

std::string escapeText(const std::string& text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (byte < 0x20 || byte >= 0x7F) {
            char code[8];
            snprintf(code, sizeof(code), "\\x%02X", byte);
            out += code;
        } else {
            out += c;
        }
    }
    return out;
}
