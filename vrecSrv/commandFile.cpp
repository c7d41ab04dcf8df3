#include "commandFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// Goes over the groups of `text` and hands each byte and each group's end to `onByte` and
// `onGroupEnd`: one walk for counting and one for filling.
template <typename OnByte, typename OnGroupEnd>
void walkGroups(const std::string& text, OnByte onByte, OnGroupEnd onGroupEnd) {
    size_t position = 0;
    for (;;) {
        const size_t open = text.find('{', position);
        if (open == std::string::npos) {
            return;
        }
        const size_t close = text.find('}', open);
        if (close == std::string::npos) {
            return;  // an unclosed group ends the text; earlier groups stand
        }
        // The search stays inside the group, so that a text of many groups costs one pass.
        const std::string_view group(text.data() + open + 1, close - open - 1);
        for (size_t at = group.find("0x"); at != std::string_view::npos;
             at = group.find("0x", at + 1)) {
            // The token is up to four characters, cut at the group's end; digits behind the
            // second are not read, and a token without digits gives 0.
            char token[5] = {};
            group.copy(token, 4, at);
            onByte(static_cast<unsigned char>(strtoul(token, nullptr, 16) & 0xFF));
        }
        onGroupEnd();
        position = close + 1;
    }
}

}  // namespace

CommandList CommandList::parse(const std::string& text) {
    size_t byteCount = 0;
    size_t groupCount = 0;
    walkGroups(
        text, [&](unsigned char) { ++byteCount; }, [&] { ++groupCount; });
    CommandList list;
    list.bytes.reserve(byteCount);
    list.ends.reserve(groupCount);
    walkGroups(
        text, [&](unsigned char byte) { list.bytes.push_back(byte); },
        [&] { list.ends.push_back(static_cast<uint32_t>(list.bytes.size())); });
    return list;
}

const unsigned char* CommandList::command(size_t index) const {
    const size_t begin = index == 0 ? 0 : ends[index - 1];
    return bytes.data() + begin;
}

int CommandList::length(size_t index) const {
    const size_t begin = index == 0 ? 0 : ends[index - 1];
    return static_cast<int>(ends[index] - begin);
}

void CommandList::addCommand(const unsigned char* data, size_t size) {
    bytes.insert(bytes.end(), data, data + size);
    ends.push_back(static_cast<uint32_t>(bytes.size()));
}

std::string CommandList::problemWith(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        return errno == ENOENT ? std::string() : path + ": " + strerror(errno);
    }
    if (S_ISREG(info.st_mode) && info.st_size > kFileLimitBytes) {
        return path + ": " + std::to_string(info.st_size) + " bytes, more than the " +
               std::to_string(kFileLimitBytes) + " bytes (1 MiB) a command file may hold";
    }
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return path + ": " + strerror(errno);
    }
    fclose(file);
    return std::string();
}
