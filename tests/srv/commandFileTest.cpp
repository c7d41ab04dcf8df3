// Command files: the compact parser gives the bytes of the group-by-group reading, and its
// memory stays within a small multiple of the text, whatever the text holds.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

#include "commandFile.h"
#include "diagService.h"

namespace {

using Commands = std::vector<std::vector<unsigned char>>;

Commands viaGroups(const std::string& text) {
    std::map<int, std::vector<std::string>> groups;
    DiagService::getFileCmds(text, groups);
    Commands commands;
    for (const auto& group : groups) {
        std::vector<unsigned char> bytes(group.second.size());
        DiagService::tokensToBytes(group.second, bytes.data());
        commands.push_back(bytes);
    }
    return commands;
}

Commands viaList(const CommandList& list) {
    Commands commands;
    for (size_t i = 0; i < list.count(); ++i) {
        commands.emplace_back(list.command(i), list.command(i) + list.length(i));
    }
    return commands;
}

TEST(CommandList, SameBytesAsTheGroupReading) {
    const std::vector<std::string> known = {
        "{0x1D,0x1C,0x3B,0x7E} {0x60,0x00,0x12,0x6A,0x7E}",
        "} {} {0X12 0x1} {0x7e,0x7E} {0x123 0x} {0xg1 0x0x12} {{0x01} {0x02",
        "",
        "{",
        "}",
        "{0",
        "{0x",
        "{0x}",
        "0x12{0x34}0x56",
    };
    for (const std::string& text : known) {
        EXPECT_EQ(viaGroups(text), viaList(CommandList::parse(text))) << text;
    }
    EXPECT_EQ((Commands{{0x1D, 0x1C, 0x3B, 0x7E}, {0x60, 0x00, 0x12, 0x6A, 0x7E}}),
              viaList(CommandList::parse(known[0])));
    // Texts of the characters that matter, in random order.
    std::mt19937 random(21);
    const std::string alphabet = "{}0x1aFX, \n";
    for (int round = 0; round < 3000; ++round) {
        std::string text(random() % 80, ' ');
        for (char& c : text) {
            c = alphabet[random() % alphabet.size()];
        }
        ASSERT_EQ(viaGroups(text), viaList(CommandList::parse(text))) << text;
    }
}

TEST(CommandList, MemoryStaysWithinTwoAndAHalfTimesTheText) {
    const size_t size = CommandList::kFileLimitBytes;
    const auto repeat = [&](const std::string& unit) {
        std::string text;
        while (text.size() + unit.size() <= size) {
            text += unit;
        }
        return text;
    };
    std::mt19937 random(5);
    std::string noise(size, ' ');
    for (char& c : noise) {
        c = "{}0x"[random() % 4];
    }
    // The worst cases: a command per two characters, a byte per two characters, both.
    for (const std::string& text : {repeat("{}"), "{" + repeat("0x") + "}", repeat("{0x}"),
                                    repeat("{0x0x0x0x0x}"), repeat("{0x7E,0x00}"), noise}) {
        const CommandList list = CommandList::parse(text);
        EXPECT_LE(list.footprint(), text.size() * 5 / 2) << text.substr(0, 12);
        // The group reading, far hungrier, only over the first 64 KiB.
        const std::string head = text.substr(0, 64 << 10);
        EXPECT_EQ(viaGroups(head), viaList(CommandList::parse(head))) << text.substr(0, 12);
    }
    EXPECT_EQ(size / 2, CommandList::parse(repeat("{}")).count());
    EXPECT_EQ(size / 2, CommandList::parse("{" + repeat("0x") + "}").length(0));
}

}  // namespace
