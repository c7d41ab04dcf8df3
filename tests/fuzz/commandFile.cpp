// "startcmd.txt" and "stopcmd.txt": groups in braces of 0x.. bytes, turned into commands.
#include <map>
#include <vector>

#include "diagService.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::scratchDir();
    const std::string text = fuzz::text(data, size);
    std::map<int, std::vector<std::string>> groups;
    DiagService::getFileCmds(text, groups);
    for (const auto& group : groups) {
        std::vector<unsigned char> bytes(group.second.size());
        DiagService::tokensToBytes(group.second, bytes.data());
        for (const std::string& token : group.second) {
            if (token.compare(0, 2, "0x") != 0 || token.size() > 4) {
                fuzz::fail("a byte token that is not 0x and at most two digits");
            }
        }
    }
    return 0;
}
