#include "atText.h"

namespace vtools {

AtArgs splitAtArgs(const std::string& text) {
    AtArgs args;
    std::string current;
    bool inQuote = false;
    bool wasQuoted = false;
    bool closed = false;  // a quoted argument has ended; only a comma may follow
    for (const char c : text) {
        if (inQuote) {
            if (c == '"') {
                inQuote = false;
                closed = true;
            } else {
                current += c;
            }
        } else if (c == ',') {
            args.values.push_back(current);
            args.quoted.push_back(wasQuoted);
            current.clear();
            wasQuoted = false;
            closed = false;
        } else if (c == '"' && current.empty() && !wasQuoted) {
            inQuote = true;
            wasQuoted = true;
        } else if (closed) {
            args.wellFormed = false;
        } else {
            current += c;
        }
    }
    if (inQuote) {
        args.wellFormed = false;
    }
    args.values.push_back(current);
    args.quoted.push_back(wasQuoted);
    return args;
}

namespace {

int sextet(char c) {
    if (c >= 'A' && c <= 'Z')
        return c - 'A';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 26;
    if (c >= '0' && c <= '9')
        return c - '0' + 52;
    if (c == '+')
        return 62;
    if (c == '/')
        return 63;
    return -1;
}

}  // namespace

bool base64DecodeStrict(const std::string& text, std::string* out) {
    out->clear();
    if (text.size() % 4 != 0) {
        return false;
    }
    for (size_t pos = 0; pos < text.size(); pos += 4) {
        const bool last = pos + 4 == text.size();
        int v[4];
        int pad = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = text[pos + k];
            if (c == '=' && last && k >= 2) {
                v[k] = 0;
                ++pad;
                continue;
            }
            if (pad > 0 || (v[k] = sextet(c)) < 0) {
                return false;
            }
        }
        const unsigned group =
            (static_cast<unsigned>(v[0]) << 18) | (v[1] << 12) | (v[2] << 6) | v[3];
        if ((pad == 1 && (group & 0xFF) != 0) || (pad == 2 && (group & 0xFFFF) != 0)) {
            return false;
        }
        *out += static_cast<char>(group >> 16);
        if (pad < 2)
            *out += static_cast<char>((group >> 8) & 0xFF);
        if (pad < 1)
            *out += static_cast<char>(group & 0xFF);
    }
    return true;
}

std::string hexBytes(const std::string& bytes) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += kDigits[byte >> 4];
        out += kDigits[byte & 0x0F];
    }
    return out;
}

}  // namespace vtools
