#include "dumpCheck.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

#include "dumpIndex.h"
#include "simMemory.h"

namespace {

const char* const kIndexName = "dump_index.txt";

// The offset of the first byte of the file that is not the memory at `address`; the
// stored size when all are; -1 when the file cannot be read.
long long firstWrongByte(const std::string& path, uint64_t address, uint64_t stored) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return -1;
    }
    std::vector<unsigned char> buffer(1 << 20);
    uint64_t at = 0;
    long long wrong = -1;
    while (at < stored) {
        const size_t n = fread(buffer.data(), 1, buffer.size(), file);
        if (n == 0) {
            break;
        }
        const size_t bad = vtools::simMemoryMismatch(address + at, buffer.data(), n);
        if (bad < n) {
            wrong = static_cast<long long>(at + bad);
            break;
        }
        at += n;
    }
    fclose(file);
    return wrong >= 0 ? wrong : static_cast<long long>(at);
}

std::string hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, value);
    return text;
}

}  // namespace

int checkDumpDirectory(const std::string& dir, bool simMemory) {
    const std::string indexPath = dir + "/" + kIndexName;
    std::ifstream in(indexPath, std::ios::binary);
    if (!in) {
        fprintf(stderr, "vrec-inspect: open(%s) failed: %s\n", indexPath.c_str(), strerror(errno));
        return 2;
    }
    std::ostringstream text;
    text << in.rdbuf();
    const vtools::DumpIndex index = vtools::parseDumpIndex(text.str());

    std::vector<std::string> problems = index.problems;
    std::vector<std::string> incomplete;
    std::set<std::string> files;
    uint64_t storedBytes = 0;
    for (size_t i = 0; i < index.regions.size(); ++i) {
        const vtools::DumpIndexLine& region = index.regions[i];
        const std::string name =
            "region " + std::to_string(region.number) + " (" + region.file + ")";
        std::string line = "region " + std::to_string(region.number) + " " + region.file + " " +
                           hex(region.address) + " " + hex(region.length) + ": stored " +
                           std::to_string(region.stored) + ", " + region.state;
        if (region.number != i) {
            problems.push_back(name + " stands at place " + std::to_string(i));
        }
        if (!files.insert(region.file).second) {
            problems.push_back(name + ": the file is named twice");
        }
        if (region.stored > region.length) {
            problems.push_back(name + ": stored " + std::to_string(region.stored) +
                               " bytes, more than its length " + std::to_string(region.length));
        }
        if (region.complete() && region.stored != region.length) {
            problems.push_back(name + ": complete with " + std::to_string(region.stored) + " of " +
                               std::to_string(region.length) + " bytes");
        }
        if (!region.complete()) {
            incomplete.push_back(std::to_string(region.number));
        }
        storedBytes += region.stored;
        const std::string path = dir + "/" + region.file;
        std::error_code error;
        const bool regular = std::filesystem::is_regular_file(path, error);
        const uint64_t size = regular ? std::filesystem::file_size(path, error) : 0;
        if (!regular) {
            // A region with nothing stored may have no file.
            if (region.stored > 0) {
                problems.push_back(name + ": no file");
            }
        } else if (size != region.stored) {
            problems.push_back(name + ": the file holds " + std::to_string(size) +
                               " bytes, the index says " + std::to_string(region.stored));
        } else if (simMemory) {
            const long long good = firstWrongByte(path, region.address, region.stored);
            if (good < 0) {
                problems.push_back(name + ": the file cannot be read");
            } else if (static_cast<uint64_t>(good) != region.stored) {
                problems.push_back(name + ": byte " + std::to_string(good) + " (address " +
                                   hex(region.address + static_cast<uint64_t>(good)) +
                                   ") is not the module's memory");
            } else {
                line += ", memory ok";
            }
        }
        printf("%s\n", line.c_str());
    }
    if (index.regions.empty()) {
        problems.push_back("the index lists no region");
    }
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
        const std::string name = entry.path().filename().string();
        if (name != kIndexName && files.count(name) == 0) {
            problems.push_back("file " + name + " is not in the index");
        }
    }
    if (!index.hasResult) {
        problems.push_back("no \"# result\" line: the index was not finished");
    } else if ((index.result == "complete") != (incomplete.empty() && !index.regions.empty())) {
        problems.push_back("the result \"" + index.result + "\" does not agree with the regions");
    }
    printf("regions: %zu, %zu complete, %" PRIu64 " bytes stored\n", index.regions.size(),
           index.regions.size() - incomplete.size(), storedBytes);
    for (const std::string& problem : problems) {
        printf("verdict: CORRUPT: %s\n", problem.c_str());
    }
    if (!incomplete.empty()) {
        std::string list;
        for (const std::string& n : incomplete) {
            list += (list.empty() ? "" : ", ") + n;
        }
        printf("verdict: INCOMPLETE: region%s %s not complete\n", incomplete.size() == 1 ? "" : "s",
               list.c_str());
    }
    const bool sound = problems.empty() && incomplete.empty();
    if (sound) {
        printf("verdict: complete\n");
    }
    return sound ? 0 : 1;
}
