#include "dumpIndex.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

namespace vtools {

namespace {

std::vector<std::string> fields(const std::string& line) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', from)) {
        parts.push_back(line.substr(from, tab - from));
        from = tab + 1;
    }
    parts.push_back(line.substr(from));
    return parts;
}

bool number(const std::string& text, int base, uint64_t* value) {
    if (text.empty()) {
        return false;
    }
    for (const char c : text) {
        const bool digit =
            base == 16 ? (isdigit(static_cast<unsigned char>(c)) != 0 || (c >= 'a' && c <= 'f'))
                       : isdigit(static_cast<unsigned char>(c)) != 0;
        if (!digit) {
            return false;
        }
    }
    errno = 0;
    *value = strtoull(text.c_str(), nullptr, base);
    return errno == 0;
}

bool hexField(const std::string& text, uint64_t* value) {
    return text.size() > 2 && text.compare(0, 2, "0x") == 0 && number(text.substr(2), 16, value);
}

}  // namespace

bool parseDumpIndexLine(const std::string& line, DumpIndexLine* entry, std::string* why) {
    const std::vector<std::string> parts = fields(line);
    if (parts.size() != 7) {
        *why = std::to_string(parts.size()) + " fields, not 7 separated by TAB";
        return false;
    }
    uint64_t n = 0;
    if (!number(parts[0], 10, &n)) {
        *why = "number \"" + parts[0] + "\" is no decimal number";
        return false;
    }
    entry->number = static_cast<unsigned long>(n);
    entry->description = parts[1];
    entry->file = parts[2];
    if (entry->file.empty() || entry->file == "." || entry->file == ".." ||
        entry->file.find('/') != std::string::npos) {
        *why = "file \"" + entry->file + "\" is no plain file name";
        return false;
    }
    if (!hexField(parts[3], &entry->address) || !hexField(parts[4], &entry->length)) {
        *why = "address and length are lower-case hex with 0x";
        return false;
    }
    if (!number(parts[5], 10, &entry->stored)) {
        *why = "stored \"" + parts[5] + "\" is no decimal number";
        return false;
    }
    entry->state = parts[6];
    if (entry->state.empty()) {
        *why = "no state";
        return false;
    }
    return true;
}

DumpIndex parseDumpIndex(const std::string& text) {
    DumpIndex index;
    size_t from = 0;
    for (size_t lineNumber = 1; from < text.size(); ++lineNumber) {
        size_t end = text.find('\n', from);
        if (end == std::string::npos) {
            index.problems.push_back("line " + std::to_string(lineNumber) +
                                     ": the index ends without a line end");
            end = text.size();
        }
        const std::string line = text.substr(from, end - from);
        from = end + 1;
        if (!line.empty() && line[0] == '#') {
            const std::string comment = line.substr(line.size() > 1 && line[1] == ' ' ? 2 : 1);
            index.comments.push_back(comment);
            if (comment.compare(0, 7, "result ") == 0) {
                index.hasResult = true;
                index.result = comment.substr(7);
            }
            continue;
        }
        DumpIndexLine entry;
        std::string why;
        if (!parseDumpIndexLine(line, &entry, &why)) {
            index.problems.push_back("line " + std::to_string(lineNumber) + ": " + why);
            continue;
        }
        index.regions.push_back(entry);
    }
    return index;
}

}  // namespace vtools
