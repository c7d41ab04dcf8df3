#include "codec.h"

#include <array>
#include <cstdio>

#include "dateTime.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<unsigned char, 128> makeDecodeTable() {
    std::array<unsigned char, 128> table{};
    for (unsigned char i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(kAlphabet[i])] = i;
    }
    return table;
}
constexpr std::array<unsigned char, 128> kDecode = makeDecodeTable();

unsigned sextet(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 128 ? kDecode[byte] : 0u;
}

constexpr std::array<unsigned short, 256> makeCrcTable() {
    std::array<unsigned short, 256> table{};
    for (unsigned i = 0; i < 256; ++i) {
        unsigned v = i;
        for (int bit = 0; bit < 8; ++bit) {
            v = (v & 1u) ? (v >> 1) ^ 0x8408u : v >> 1;
        }
        table[i] = static_cast<unsigned short>(v);
    }
    return table;
}
constexpr std::array<unsigned short, 256> kCrcTable = makeCrcTable();

// The same table extended to eight bytes at a step: row k is the effect of a byte followed
// by k more.
constexpr std::array<std::array<unsigned short, 256>, 8> makeCrcSlices() {
    std::array<std::array<unsigned short, 256>, 8> slices{};
    slices[0] = kCrcTable;
    for (size_t k = 1; k < 8; ++k) {
        for (unsigned i = 0; i < 256; ++i) {
            const unsigned short previous = slices[k - 1][i];
            slices[k][i] =
                static_cast<unsigned short>((previous >> 8) ^ kCrcTable[previous & 0xFF]);
        }
    }
    return slices;
}
constexpr std::array<std::array<unsigned short, 256>, 8> kCrcSlices = makeCrcSlices();

}  // namespace

std::string Base64Encode(const unsigned char* data, int length) {
    std::string out;
    if (data == nullptr || length <= 0) {
        return out;
    }
    out.reserve((static_cast<size_t>(length) + 2) / 3 * 4);
    int i = 0;
    for (; i + 3 <= length; i += 3) {
        const unsigned v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    const int rest = length - i;
    if (rest == 1) {
        const unsigned v = data[i] << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (rest == 2) {
        const unsigned v = (data[i] << 16) | (data[i + 1] << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

std::string Base64Decode(const char* text, int length, int* count) {
    std::string out;
    if (text == nullptr || length <= 0) {
        return out;
    }
    // Characters past the end of the text read as padding, so a truncated group ends
    // early instead of reading past the buffer.
    auto at = [&](int i) { return i < length ? text[i] : '='; };
    auto emit = [&](unsigned value) {
        out += static_cast<char>(value & 0xFF);
        if (count != nullptr) {
            ++*count;
        }
    };
    // One group per four characters of the text. Where padding turns up, the next group
    // starts at the padding itself, so `next` lags behind `pos` from then on.
    int next = 0;
    for (int pos = 0; pos < length; pos += 4) {
        const unsigned a = sextet(at(next));
        const unsigned b = sextet(at(next + 1));
        emit((a << 2) | (b >> 4));
        if (at(next + 2) == '=') {
            next += 2;
            continue;
        }
        const unsigned c = sextet(at(next + 2));
        emit(((b & 0x0F) << 4) | (c >> 2));
        if (at(next + 3) == '=') {
            next += 3;
            continue;
        }
        emit(((c & 0x03) << 6) | sextet(at(next + 3)));
        next += 4;
    }
    return out;
}

void Crc16Fcs(const unsigned char* data, int length, unsigned short* result) {
    unsigned short fcs = 0xFFFF;
    int i = 0;
    for (; data != nullptr && i + 8 <= length; i += 8) {
        const unsigned low = (fcs ^ data[i]) & 0xFF;
        const unsigned high = ((fcs >> 8) ^ data[i + 1]) & 0xFF;
        fcs = kCrcSlices[7][low] ^ kCrcSlices[6][high] ^ kCrcSlices[5][data[i + 2]] ^
              kCrcSlices[4][data[i + 3]] ^ kCrcSlices[3][data[i + 4]] ^ kCrcSlices[2][data[i + 5]] ^
              kCrcSlices[1][data[i + 6]] ^ kCrcSlices[0][data[i + 7]];
    }
    for (; data != nullptr && i < length; ++i) {
        fcs = static_cast<unsigned short>((fcs >> 8) ^ kCrcTable[(fcs ^ data[i]) & 0xFF]);
    }
    if (result != nullptr) {
        *result = static_cast<unsigned short>(~fcs);
    }
}

void HdlcEscape(std::string& text) {
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == 0x7E || byte == 0x7D) {
            out += static_cast<char>(0x7D);
            out += static_cast<char>(byte ^ 0x20);
        } else {
            out += c;
        }
    }
    text.swap(out);
}

bool HdlcUnescape(const std::string& text, std::string* plain) {
    plain->clear();
    plain->reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != static_cast<char>(0x7D)) {
            *plain += text[i];
        } else if (++i < text.size()) {
            *plain += static_cast<char>(text[i] ^ 0x20);
        } else {
            return false;
        }
    }
    return true;
}

std::string logTimeSuffix(const CDateTime& when) {
    char buffer[27] = {};
    snprintf(buffer, sizeof(buffer), "_%d%d%d_%d_%d_%d_%d", when.Year(), when.Month(), when.Day(),
             when.Hour(), when.Minute(), when.Second(), when.Millisecond());
    return buffer;
}

std::string logTimeSuffix() {
    return logTimeSuffix(CDateTime());
}
