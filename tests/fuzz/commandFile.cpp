// "startcmd.txt" and "stopcmd.txt": groups in braces of 0x.. bytes, turned into commands.
#include <algorithm>
#include <map>
#include <vector>

#include "commandFile.h"
#include "diagService.h"
#include "fuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::scratchDir();
    const std::string text = fuzz::text(data, size);
    std::map<int, std::vector<std::string>> groups;
    DiagService::getFileCmds(text, groups);
    // The compact form the program sends from: the same commands, byte for byte, in at
    // most 2.5 bytes of memory per byte of text.
    const CommandList list = CommandList::parse(text);
    if (list.count() != groups.size() || list.footprint() > text.size() * 5 / 2) {
        fuzz::fail("the command list differs in count or takes too much memory");
    }
    size_t index = 0;
    for (const auto& group : groups) {
        std::vector<unsigned char> bytes(group.second.size());
        DiagService::tokensToBytes(group.second, bytes.data());
        if (static_cast<size_t>(list.length(index)) != bytes.size() ||
            !std::equal(bytes.begin(), bytes.end(), list.command(index))) {
            fuzz::fail("the command list differs from the groups");
        }
        ++index;
        for (const std::string& token : group.second) {
            if (token.compare(0, 2, "0x") != 0 || token.size() > 4) {
                fuzz::fail("a byte token that is not 0x and at most two digits");
            }
        }
    }
    return 0;
}
