// Texts of sysfs as discovery reads them: an interface's modalias, bInterfaceProtocol and
// bInterfaceNumber, and the name of its tty entry. Input: the four, one a line.
#include <cstring>
#include <filesystem>
#include <fstream>

#include "fuzzSupport.h"
#include "portDiscovery.h"

namespace {

void put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string dir = fuzz::scratchDir() + "/device";
    const std::string interfaceDir = dir + "/1-1:1.0";
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    std::filesystem::create_directories(interfaceDir);

    const auto [modalias, afterAlias] = fuzz::splitFirstLine(fuzz::text(data, size));
    const auto [protocol, afterProtocol] = fuzz::splitFirstLine(afterAlias);
    const auto [number, tty] = fuzz::splitFirstLine(afterProtocol);
    put(interfaceDir + "/bInterfaceProtocol", protocol);
    put(interfaceDir + "/bInterfaceNumber", number);
    // An entry name is what a directory can hold: no slash, no NUL, not "." or "..".
    const bool nameFits = !tty.empty() && tty.size() < 200 && tty != "." && tty != ".." &&
                          tty.find_first_of(std::string("/\0", 2)) == std::string::npos;
    if (nameFits) {
        std::filesystem::create_directory(interfaceDir + "/" + tty, ignored);
    }
    PortRecord record{};
    discovery::MactchInterfaceNumber(dir, modalias, "1-1:1.0", &record);
    if (memchr(record.name, '\0', sizeof(record.name)) == nullptr) {
        fuzz::fail("a port name without its terminator");
    }
    return 0;
}
