// The Sahara memory-debug exchange on byte arrays: the host's packets against known wire
// bytes, region tables, and whole sessions against a small module played here.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "sahara.h"
#include "testkit.h"

namespace {

using sahara::Session;
using Kind = Session::Event::Kind;

const auto u32 = testkit::le32;

std::string u64(uint64_t value) {
    return u32(static_cast<uint32_t>(value)) + u32(static_cast<uint32_t>(value >> 32));
}

std::string field(const std::string& text) {
    std::string out = text.substr(0, 20);
    out.resize(20, '\0');
    return out;
}

std::string hello(uint32_t mode) {
    std::string out = u32(1) + u32(0x30) + u32(2) + u32(1) + u32(0x30) + u32(mode);
    out.resize(0x30, '\0');
    return out;
}

std::string entry(bool wide, uint64_t address, uint64_t length, const std::string& description,
                  const std::string& name) {
    const std::string numbers =
        wide ? u64(0) + u64(address) + u64(length)
             : u32(0) + u32(static_cast<uint32_t>(address)) + u32(static_cast<uint32_t>(length));
    return numbers + field(description) + field(name);
}

const uint8_t* bytes(const std::string& text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

char memoryByte(uint64_t address) {
    return static_cast<char>((address * 131) ^ (address >> 9));
}

struct FakeRegion {
    uint64_t address;
    uint64_t length;
    std::string description;
    std::string name;
    bool refused = false;
};

// A module in dump mode: answers what the host sends, and keeps the host's requests.
struct FakeModule {
    FakeModule(bool isWide, std::vector<FakeRegion> list) : wide(isWide), regions(std::move(list)) {
        for (const FakeRegion& region : regions) {
            table += entry(wide, region.address, region.length, region.description, region.name);
        }
    }

    std::string answer(const std::string& packet) {
        requests.push_back(packet);
        const uint32_t command = sahara::readU32(bytes(packet));
        if (command == sahara::kHelloResp) {
            return wide ? u32(0x10) + u32(0x18) + u64(kTableAt) + u64(table.size())
                        : u32(0x09) + u32(0x10) + u32(kTableAt) + u32(table.size());
        }
        if (command == sahara::kReset) {
            return u32(0x08) + u32(0x08);
        }
        const uint64_t address =
            wide ? sahara::readU64(bytes(packet) + 8) : sahara::readU32(bytes(packet) + 8);
        const uint64_t length =
            wide ? sahara::readU64(bytes(packet) + 16) : sahara::readU32(bytes(packet) + 12);
        EXPECT_LE(length, sahara::kPieceBytes);
        EXPECT_NE(16u, length);
        if (address >= kTableAt && address + length <= kTableAt + table.size()) {
            return table.substr(address - kTableAt, length);
        }
        for (const FakeRegion& region : regions) {
            if (address >= region.address && address + length <= region.address + region.length) {
                if (region.refused) {
                    return u32(0x04) + u32(0x10) + u32(0) + u32(0x19);
                }
                std::string data;
                for (uint64_t a = address; a < address + length; ++a) {
                    data.push_back(memoryByte(a));
                }
                return data;
            }
        }
        ADD_FAILURE() << "read outside the memory at " << address;
        return u32(0x04) + u32(0x10) + u32(0) + u32(0x19);
    }

    static constexpr uint64_t kTableAt = 0x08600000;
    const bool wide;
    std::vector<FakeRegion> regions;
    std::string table;
    std::vector<std::string> requests;
};

// What the host did in one session: the files it got and how it ended.
struct HostRun {
    std::map<size_t, std::string> files;
    std::vector<Kind> kinds;
    std::string finished = "(not finished)";
};

// Feeds the module's answers to the session in pieces of `step` bytes.
void pump(Session& session, FakeModule& module, std::string input, size_t step, HostRun& run,
          size_t stopAfterRequests = SIZE_MAX) {
    while (!input.empty() && session.phase() != Session::Phase::Finished) {
        const size_t take = std::min(step, input.size());
        const std::string piece = input.substr(0, take);
        input.erase(0, take);
        for (const Session::Event& event : session.feed(bytes(piece), piece.size())) {
            run.kinds.push_back(event.kind);
            if (event.kind == Kind::Send) {
                input += module.answer(event.text);
            } else if (event.kind == Kind::RegionData) {
                run.files[event.region].append(reinterpret_cast<const char*>(event.data),
                                               event.size);
            } else if (event.kind == Kind::Finished) {
                run.finished = event.text;
            }
        }
        if (module.requests.size() >= stopAfterRequests) {
            stopAfterRequests = SIZE_MAX;
            for (const Session::Event& event : session.stop()) {
                run.kinds.push_back(event.kind);
                if (event.kind == Kind::Send) {
                    input += module.answer(event.text);
                }
            }
        }
    }
}

std::string memoryOf(const FakeRegion& region, uint64_t length) {
    std::string out;
    for (uint64_t a = region.address; a < region.address + length; ++a) {
        out.push_back(memoryByte(a));
    }
    return out;
}

TEST(Sahara, HostPacketsHelloAndRegionTablesByteForByte) {
    EXPECT_EQ(
        "02 00 00 00 30 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 00 "
        "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00",
        testkit::hex(sahara::helloResponse()));
    EXPECT_EQ("0A 00 00 00 10 00 00 00 00 00 00 80 00 00 01 00",
              testkit::hex(sahara::memoryRead(0x80000000, 0x10000, false)));
    EXPECT_EQ("11 00 00 00 18 00 00 00 00 00 00 80 08 00 00 00 71 11 01 00 00 00 00 00",
              testkit::hex(sahara::memoryRead(0x880000000, 70001, true)));
    EXPECT_EQ("07 00 00 00 08 00 00 00", testkit::hex(sahara::reset()));

    sahara::Hello parsed;
    const std::string download = hello(0);
    ASSERT_TRUE(sahara::parseHello(bytes(download), download.size(), &parsed));
    EXPECT_EQ(0u, parsed.mode);
    EXPECT_EQ(2u, parsed.version);
    EXPECT_FALSE(sahara::parseHello(bytes(download), 0x2F, &parsed));  // length field disagrees

    // Names: a name of 20 bytes has no NUL; unsafe or repeated names are replaced.
    const std::string table32 = entry(false, 0x80000000, 5, "DDR CS0", "DDRCS0.BIN") +
                                entry(false, 0x80100000, 7, "twenty bytes of desc", "") +
                                entry(false, 0x80200000, 9, "a", "../etc/passwd") +
                                entry(false, 0x80300000, 1, "b", "DDRCS0.BIN") +
                                entry(false, 0x80400000, 2, "c", "a\\b") +
                                entry(false, 0x80500000, 3, "d", "ABCDEFGHIJKLMNOPQRST") +
                                entry(false, 0x80600000, 4, "e", "dump_index.txt") +
                                entry(false, 0x80700000, 4, "f", "region_0.bin");
    std::vector<sahara::Region> regions;
    std::string reason;
    ASSERT_TRUE(sahara::parseTable(bytes(table32), table32.size(), false, &regions, &reason))
        << reason;
    std::vector<std::string> names;
    for (const auto& region : regions) {
        names.push_back(region.fileName);
    }
    EXPECT_EQ((std::vector<std::string>{"DDRCS0.BIN", "region_1.bin", "region_2.bin",
                                        "region_3.bin", "region_4.bin", "ABCDEFGHIJKLMNOPQRST",
                                        "region_6.bin", "region_0.bin"}),
              names);
    EXPECT_EQ("twenty bytes of desc", regions[1].description);

    // Refusals, each with its reason. (Addresses and lengths of both widths stand in the
    // index of the whole sessions below.)
    const std::string table64 = entry(true, 0x880000000, 0x200000, "DDR", "DDR.BIN");
    EXPECT_FALSE(sahara::tableLengthFits((1 << 20) + 64, true, &reason));
    EXPECT_NE(std::string::npos, reason.find("longer than 1048576")) << reason;
    EXPECT_FALSE(sahara::tableLengthFits(0, false, &reason));
    EXPECT_FALSE(sahara::parseTable(bytes(table64), 63, true, &regions, &reason));
    EXPECT_NE(std::string::npos, reason.find("64-byte entries")) << reason;
    const std::string wraps = entry(true, 0xFFFFFFFFFFFFF000, 0x2000, "x", "x");
    EXPECT_FALSE(sahara::parseTable(bytes(wraps), wraps.size(), true, &regions, &reason));
    EXPECT_NE(std::string::npos, reason.find("region 0")) << reason;
    const std::string huge = entry(true, 0, uint64_t{1} << 40, "x", "x");
    EXPECT_FALSE(sahara::parseTable(bytes(huge), huge.size(), true, &regions, &reason));
}

TEST(Sahara, WholeSessionsInPiecesOfAnySizeGiveEveryRegionByteForByte) {
    for (const bool wide : {true, false}) {
        for (const size_t step : {size_t{1}, size_t{7}, size_t{4095}, size_t{1} << 20}) {
            const std::vector<FakeRegion> layout = {
                {0x80000000, 0x20000 + 16, "DDR CS0", "DDRCS0.BIN"},  // ends in a 16-byte piece
                {0x80100000, 70001, "OCIMEM", "OCIMEM.BIN"},          // an odd size
                {0x80200000, 0, "EMPTY", "EMPTY.BIN"},
                {0x80300000, 0x30000, "REFUSED", "REFUSED.BIN", true},  // two reads in flight
                {0x80400000, 5, "TINY", ""},
            };
            FakeModule module(wide, layout);
            Session session(Session::Action::Collect);
            HostRun run;
            pump(session, module, hello(2), step, run);
            SCOPED_TRACE(std::to_string(step) + (wide ? " wide" : " narrow"));
            EXPECT_EQ("", run.finished);
            ASSERT_EQ(layout.size(), session.regions().size());
            EXPECT_EQ(memoryOf(layout[0], layout[0].length), run.files[0]);
            EXPECT_EQ(memoryOf(layout[1], layout[1].length), run.files[1]);
            EXPECT_EQ(0u, run.files.count(2));
            EXPECT_EQ(0u, run.files.count(3));
            EXPECT_EQ(memoryOf(layout[4], 5), run.files[4]);
            EXPECT_EQ("refused 0x19", session.states()[3].state);
            EXPECT_FALSE(session.allComplete());
            EXPECT_EQ("incomplete: regions refused", session.result());
            // The first packet is HELLO_RESP; the last RESET; the region of 0x20010 bytes
            // is read as 0x10000, 0x10000, 8, 8.
            EXPECT_EQ(sahara::helloResponse(), module.requests.front());
            EXPECT_EQ(sahara::reset(), module.requests.back());
            const uint64_t base = layout[0].address;
            const auto asked = [&](uint64_t address, uint64_t length) {
                return std::count(module.requests.begin(), module.requests.end(),
                                  sahara::memoryRead(address, length, wide));
            };
            EXPECT_EQ(1, asked(base + 0x20000, 8));
            EXPECT_EQ(1, asked(base + 0x20008, 8));
            EXPECT_EQ(1, asked(layout[1].address + 0x10000, 70001 - 0x10000));
            const std::string index = session.indexText("T port P");
            EXPECT_EQ(std::string("# vrec memory dump T port P table ") + (wide ? "64" : "32") +
                          "-bit 5 regions\n"
                          "0\tDDR CS0\tDDRCS0.BIN\t0x80000000\t0x20010\t131088\tcomplete\n"
                          "1\tOCIMEM\tOCIMEM.BIN\t0x80100000\t0x11171\t70001\tcomplete\n"
                          "2\tEMPTY\tEMPTY.BIN\t0x80200000\t0x0\t0\tcomplete\n"
                          "3\tREFUSED\tREFUSED.BIN\t0x80300000\t0x30000\t0\trefused 0x19\n"
                          "4\tTINY\tregion_4.bin\t0x80400000\t0x5\t5\tcomplete\n"
                          "# result incomplete: regions refused\n",
                      index);
        }
    }
}

// Modes, hang-ups, storage and the --on-crash actions are proven end to end through vrec
// against the simulator; these endings are seen closer here.
TEST(Sahara, JunkSilenceAStopAndAHugeTableEachEndAsTheyShould) {
    const std::vector<FakeRegion> layout = {{0x80000000, 0x30000, "DDR", "DDR.BIN"},
                                            {0x80100000, 100, "IMEM", "IMEM.BIN"}};
    {
        // Bytes that are no Sahara: no dump port.
        Session session(Session::Action::Collect);
        const std::string junk = "\x7E\x01\x02\x03\xFF\xFF\xFF\xFF";
        const auto& events = session.feed(bytes(junk), junk.size());
        EXPECT_EQ(Kind::NotDump, events.at(0).kind);
        EXPECT_EQ(Session::Phase::Finished, session.phase());
    }
    {
        // Silence in the middle of a region: that region cut, the rest not read, RESET.
        FakeModule module(false, layout);
        Session session(Session::Action::Collect);
        std::string input = hello(2);
        for (int turn = 0; turn < 3; ++turn) {
            for (const auto& event : session.feed(bytes(input), input.size())) {
                if (event.kind == Kind::Send) {
                    input = module.answer(event.text);
                }
            }
        }
        // Half of the first piece comes, then nothing.
        const std::string half = input.substr(0, 0x8000);
        session.feed(bytes(half), half.size());
        std::vector<std::string> sent;
        for (const auto& event : session.abort(sahara::Cause::Silent)) {
            if (event.kind == Kind::Send) {
                sent.push_back(event.text);
            }
        }
        EXPECT_EQ(std::vector<std::string>{sahara::reset()}, sent);
        EXPECT_EQ(0x8000u, session.states()[0].stored);
        EXPECT_EQ("cut: no answer", session.states()[0].state);
        EXPECT_EQ("not read: no answer", session.states()[1].state);
        // Data still under way is passed over; the answer to RESET ends the session.
        const std::string late = input.substr(0x8000, 100) + u32(8) + u32(8);
        const auto& events = session.feed(bytes(late), late.size());
        ASSERT_EQ(1u, events.size());
        EXPECT_EQ(Kind::Finished, events[0].kind);
        EXPECT_EQ("", events[0].text);
        EXPECT_EQ("incomplete: no answer", session.result());
    }
    {
        // A stop in the middle of a piece: the piece comes in whole, then RESET.
        FakeModule module(true, layout);
        Session session(Session::Action::Collect);
        HostRun run;
        pump(session, module, hello(2), 1000, run, 3);
        EXPECT_EQ("", run.finished);
        EXPECT_EQ(sahara::reset(), module.requests.back());
        // HELLO_RESP, the table, the two pieces in flight, RESET.
        EXPECT_EQ(5u, module.requests.size());
        EXPECT_EQ(0x20000u, session.states()[0].stored);
        EXPECT_EQ(memoryOf(layout[0], 0x20000), run.files[0]);
        EXPECT_EQ("cut: stopped", session.states()[0].state);
        EXPECT_EQ("not read: stopped", session.states()[1].state);
    }
    {
        // A table announced longer than 1 MiB: refused, RESET, no read.
        Session session(Session::Action::Collect);
        std::string input = hello(2);
        session.feed(bytes(input), input.size());
        input = u32(0x10) + u32(0x18) + u64(0x08600000) + u64((1 << 20) + 64);
        std::vector<Kind> kinds;
        std::vector<std::string> sent;
        for (const auto& event : session.feed(bytes(input), input.size())) {
            kinds.push_back(event.kind);
            if (event.kind == Kind::Send) {
                sent.push_back(event.text);
            }
        }
        EXPECT_EQ(Kind::TableRefused, kinds.at(0));
        EXPECT_EQ(std::vector<std::string>{sahara::reset()}, sent);
    }
}

}  // namespace
