// The Qualcomm start and stop frames, as the program holds them and as a module reads them.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "diagRequests.h"
#include "qualcommTables.h"
#include "testkit.h"

namespace {

using testkit::hex;

std::string frameAt(const FrameTable& table, int i) {
    return std::string(reinterpret_cast<const char*>(table.frame(i)),
                       static_cast<size_t>(table.length(i)));
}

// Rows known from modules in the field, and the whole stop set.
TEST(QualcommTable, KnownRowsAndStopFramesStandByteForByte) {
    const std::map<int, std::string> kStart = {
        {0, "1D 1C 3B 7E"},
        {11, "73 00 00 00 01 00 00 00 61 9D 7E"},
        {46, "60 01 9B 7B 7E"},
        {51, "4B 13 0C 00 01 00 00 00 01 00 00 00 FB 71 7E"},
        {144, "4B 13 0D 00 01 00 00 00 2D 75 7E"},
        {169, "4B 13 04 00 00 00 00 00 00 02 00 00 00 00 00 00 D6 4D 7E"},
        {527, "0C 14 3A 7E"},
    };
    const std::map<int, std::string> kStop = {
        {0, "60 00 12 6A 7E"},
        {1, "73 00 00 00 00 00 00 00 DA 81 7E"},
        {2, "7D 5D 05 00 00 00 00 00 00 74 41 7E"},
    };
    ASSERT_EQ(528, kQualcommStartFrames.count);
    ASSERT_EQ(3, kQualcommStopFrames.count);
    for (const auto& row : kStart) {
        EXPECT_EQ(row.second, hex(frameAt(kQualcommStartFrames, row.first))) << row.first;
    }
    for (const auto& row : kStop) {
        EXPECT_EQ(row.second, hex(frameAt(kQualcommStopFrames, row.first))) << row.first;
    }
}

// The compiled table is the description framed, and it has the shape of the set: the
// commands, the lengths, one flag per frame.
TEST(QualcommTable, CompiledTableIsTheDescriptionFramed) {
    const std::vector<std::string> requests = diagreq::qualcommStartRequests();
    ASSERT_EQ(static_cast<size_t>(kQualcommStartFrames.count), requests.size());
    std::map<int, int> codes;
    size_t shortest = SIZE_MAX;
    size_t longest = 0;
    for (size_t i = 0; i < requests.size(); ++i) {
        const std::string wire = frameAt(kQualcommStartFrames, static_cast<int>(i));
        EXPECT_EQ(hex(diagreq::frame(requests[i])), hex(wire)) << "row " << i;
        EXPECT_EQ(wire.size() - 1, wire.find('\x7E')) << "row " << i;
        shortest = std::min(shortest, wire.size());
        longest = std::max(longest, wire.size());
        ++codes[static_cast<unsigned char>(requests[i][0])];
    }
    EXPECT_EQ(4u, shortest);
    EXPECT_EQ(392u, longest);
    const std::map<int, int> kCodes = {{0x00, 1},   {0x0C, 1},  {0x1C, 1}, {0x1D, 1},
                                       {0x4B, 464}, {0x60, 1},  {0x63, 1}, {0x73, 8},
                                       {0x7C, 1},   {0x7D, 47}, {0x81, 1}, {0x82, 1}};
    EXPECT_EQ(kCodes, codes);
}

}  // namespace
