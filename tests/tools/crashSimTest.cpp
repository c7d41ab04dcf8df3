// vrec-modemsim's crash and dump mode, driven by a small Sahara host of the test's own, and
// vrec-inspect --dump on good and damaged dump directories.
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "captureCheck.h"
#include "hdlc.h"
#include "simMemory.h"
#include "testkit.h"

namespace {

using Args = std::vector<std::string>;

uint64_t le(const std::string& bytes, size_t at, size_t size) {
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[at + i])) << (8 * i);
    }
    return value;
}

std::string words(std::initializer_list<uint64_t> values, size_t size = 4) {
    std::string bytes;
    for (const uint64_t value : values) {
        for (size_t i = 0; i < size; ++i) {
            bytes += static_cast<char>(value >> (8 * i));
        }
    }
    return bytes;
}

std::string memory(uint64_t address, size_t size) {
    std::string bytes(size, '\0');
    vtools::simMemoryFill(address, reinterpret_cast<unsigned char*>(&bytes[0]), size);
    return bytes;
}

std::string unhex(const std::string& digits) {
    std::string bytes;
    for (size_t at = 0; at + 1 < digits.size(); at += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return bytes;
}

std::string joined(const Args& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

// Equal bytes, or where they first differ: a failure that reads at a glance.
testing::AssertionResult sameBytes(const std::string& expected, const std::string& got) {
    const auto differ = std::mismatch(expected.begin(), expected.end(), got.begin(), got.end());
    if (differ.first == expected.end() && differ.second == got.end()) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << "expected " << expected.size() << " bytes, got " << got.size()
           << ", first difference at " << (differ.first - expected.begin());
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

struct Region {
    uint64_t address;
    uint64_t length;
    std::string description;
    std::string file;
};

// The host's end of the dump port, as a Sahara host that knows nothing of the simulator.
class Host {
public:
    explicit Host(const std::string& path) { fd = testkit::openRaw(path); }
    ~Host() {
        if (fd != -1) {
            close(fd);
        }
    }
    // Exactly `size` bytes, or what came before the time-out or the hang-up.
    std::string read(size_t size, int timeoutMs = 5000) {
        std::string got;
        while (got.size() < size) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, timeoutMs) <= 0) {
                break;
            }
            std::string buffer(std::min<size_t>(size - got.size(), 65536), '\0');
            const ssize_t n = ::read(fd, &buffer[0], buffer.size());
            if (n <= 0) {
                break;
            }
            got.append(buffer, 0, static_cast<size_t>(n));
        }
        return got;
    }
    void send(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), write(fd, bytes.data(), bytes.size()));
    }
    void helloResp(uint32_t mode = 2, uint32_t status = 0) {
        send(words({2, 0x30, 2, 1, status, mode, 0, 0, 0, 0, 0, 0}));
    }
    void memoryRead(int bits, uint64_t address, uint64_t length) {
        if (bits == 64) {
            send(words({0x11, 0x18}) + words({address, length}, 8));
        } else {
            send(words({0xA, 0x10, address, length}));
        }
    }
    // HELLO, HELLO_RESP, MEMORY_DEBUG(_64) and the table: the regions it lists.
    std::vector<Region> table(int bits) {
        EXPECT_EQ(words({1, 0x30, 2, 1, 0x30, 2, 0, 0, 0, 0, 0, 0}), read(0x30));
        helloResp();
        const std::string debug = read(bits == 64 ? 0x18 : 0x10);
        const size_t field = bits == 64 ? 8 : 4;
        EXPECT_EQ(words({bits == 64 ? 0x10u : 9u, debug.size()}), debug.substr(0, 8));
        EXPECT_EQ(0x08600000u, le(debug, 8, field));
        const uint64_t length = le(debug, 8 + field, field);
        const size_t entry = bits == 64 ? 64 : 52;
        EXPECT_EQ(0u, length % entry);
        memoryRead(bits, 0x08600000, length);
        const std::string table = read(length);
        std::vector<Region> regions;
        for (size_t at = 0; at + entry <= table.size(); at += entry) {
            const std::string names = table.substr(at + 3 * field, 40);
            regions.push_back({le(table, at + field, field), le(table, at + 2 * field, field),
                               names.substr(0, names.find('\0')).substr(0, 20),
                               names.substr(20, names.find('\0', 20) - 20)});
        }
        return regions;
    }
    // A region read in pieces of 64 KiB at the most.
    std::string region(int bits, const Region& region) {
        std::string data;
        while (data.size() < region.length) {
            const uint64_t piece = std::min<uint64_t>(65536, region.length - data.size());
            memoryRead(bits, region.address + data.size(), piece);
            const std::string got = read(piece);
            data += got;
            if (got.size() != piece) {
                break;
            }
        }
        return data;
    }

    int fd = -1;
};

struct Sim : testkit::TempDir, testkit::ModemSim {
    explicit Sim(const Args& args) : ModemSim(path(), withHead(args)) {}
    static Args withHead(const Args& args) {
        Args all = {"--diag", "diag", "--pcui", "pcui", "--sysfs", "tree", "--reboot-ms", "200"};
        all.insert(all.end(), args.begin(), args.end());
        return all;
    }
    Args errors() const {
        Args found;
        for (const std::string& line : arrived("dump")) {
            if (line.rfind("error ", 0) == 0) {
                found.push_back(line);
            }
        }
        return found;
    }
    bool event(const std::string& words) const {
        return testkit::waitFor(
            [&] { return record().find("event " + words) != std::string::npos; }, 5000);
    }
    std::string tree(const std::string& relative) const { return file("tree/sys/bus/" + relative); }
};

const std::string kResetResp = words({8, 8});

TEST(CrashSim, MemoryRuleIsFixed) {
    // Bytes of the rule as the documentation states it, computed apart from the code.
    EXPECT_EQ(unhex("ad9748700dfbb4956246f643"), memory(0x880000000 - 3, 12));
    EXPECT_EQ(unhex("20cbddb854e4f86c"), memory(0x80000000, 8));
    const std::string run = memory(0x1000, 4099);
    for (size_t at : {0u, 1u, 7u, 8u, 4098u}) {
        EXPECT_EQ(static_cast<char>(vtools::simMemoryByte(0x1000 + at)), run[at]);
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(run.data());
    EXPECT_EQ(run.size(), vtools::simMemoryMismatch(0x1000, bytes, run.size()));
    std::string changed = run;
    changed[4097] ^= 1;
    EXPECT_EQ(4097u, vtools::simMemoryMismatch(
                         0x1000, reinterpret_cast<const unsigned char*>(changed.data()), 4099));
}

// Started crashed, with an interface no driver holds: the port comes once new_id names
// the device; a 32-bit table; a refused region; RESET still ends the dump.
TEST(CrashSim, UnboundDeviceBoundThroughNewIdWithA32BitTableAndARefusedRegion) {
    Sim sim({"--fault", "crash", "--dump-unbound", "--dump-table", "32", "--dump-regions",
             "1M:A.BIN,4097@0x90000000:B.BIN:second,13:C.BIN", "--fault", "dump-refuse=B.BIN"});
    // The tree as vrec finds and binds it is proven end to end.
    ASSERT_TRUE(sim.event("dump device unbound"));
    testkit::writeFile(sim.tree("usb-serial/drivers/option1/new_id"), "05c6 1234\n");
    ASSERT_TRUE(testkit::waitFor([&] { return !sim.errors().empty(); }, 3000));
    EXPECT_FALSE(exists(sim.file("diag.dump")));
    testkit::writeFile(sim.tree("usb-serial/drivers/option1/new_id"), "05c6 900e\n");
    ASSERT_TRUE(sim.event("dump port"));
    Host host(sim.file("diag.dump"));
    const std::vector<Region> regions = host.table(32);
    ASSERT_EQ(3u, regions.size());
    EXPECT_EQ(0x80000000u, regions[0].address);
    EXPECT_EQ(0x90000000u, regions[1].address);
    EXPECT_EQ("second", regions[1].description);
    EXPECT_EQ("C", regions[2].description);
    EXPECT_TRUE(
        sameBytes(memory(regions[0].address, regions[0].length), host.region(32, regions[0])));
    host.memoryRead(32, regions[1].address, 4096);
    EXPECT_EQ(words({4, 0x10, 0, 0x19}), host.read(16));
    EXPECT_EQ(memory(regions[2].address, 13), host.region(32, regions[2]));
    host.send(words({7, 8}));
    EXPECT_EQ(kResetResp, host.read(8));
    EXPECT_TRUE(sim.event("return"));
    const Args errors = sim.errors();
    ASSERT_EQ(1u, errors.size());
    EXPECT_NE(std::string::npos, errors[0].find("new_id \"05c6 1234\" matches no device"));
    EXPECT_TRUE(sim.event("dump refused region 1"));
}

// What a correct host never sends is recorded, and answered as a module would.
TEST(CrashSim, EveryFaultOfTheHostIsRecorded) {
    Sim sim({"--fault", "crash", "--dump-regions", "64K:A.BIN,100:B.BIN", "--dump-driver",
             "qcserial", "--dump-product", "90db", "--dump-port", "dump", "--tty-base", "4"});
    ASSERT_TRUE(sim.event("dump port"));
    EXPECT_EQ("90db\n", testkit::readFile(sim.tree("usb/devices/1-1/idProduct")));
    EXPECT_TRUE(exists(sim.tree("usb/drivers/qcserial/1-1:1.0/ttyUSB7")));
    EXPECT_FALSE(exists(sim.tree("usb/drivers/option/1-1:1.0")));
    Host host(sim.file("dump"));
    ASSERT_EQ(0x30u, host.read(0x30).size());
    host.memoryRead(64, 0x880000000, 8);  // before HELLO_RESP
    EXPECT_EQ(memory(0x880000000, 8), host.read(8));
    host.helloResp(3);
    EXPECT_EQ(words({4, 0x10, 0, 0x18}), host.read(16));
    host.helloResp();
    EXPECT_EQ(0x18u, host.read(0x18).size());
    host.send(words({5, 8}));  // DONE: no command of a dump
    EXPECT_EQ(words({4, 0x10, 0, 1}), host.read(16));
    host.memoryRead(64, 0x880000000 + 0x10000 - 8, 32);  // past the region's end
    EXPECT_EQ(words({4, 0x10, 0, 0x19}), host.read(16));
    host.memoryRead(64, 0x880000000, 0x10001);  // over 64 KiB
    EXPECT_EQ(words({4, 0x10, 0, 0x1A}), host.read(16));
    host.memoryRead(32, 0x08600000, 8);  // the 32-bit form with a 64-bit table
    EXPECT_EQ(std::string(8, '\0'), host.read(8));
    host.memoryRead(64, 0x880000000, 16);  // can't be told from END_IMAGE_TX
    EXPECT_EQ(memory(0x880000000, 16), host.read(16));
    host.send(words({7, 0xC, 0}));  // RESET with a wrong length
    host.send(words({7, 8}));
    EXPECT_EQ(kResetResp, host.read(8));
    const Args expected = {"MEMORY_READ_64 before HELLO_RESP",
                           "MEMORY_READ_64 before MEMORY_DEBUG",
                           "HELLO_RESP with mode 3, not 2",
                           "DONE: not a command a host sends",
                           "0x20 bytes at 0x88000fff8: not inside the table or one region",
                           "0x10001 bytes at 0x880000000: over 64 KiB",
                           "MEMORY_READ with a 64-bit table",
                           "0x10 bytes at 0x880000000: its answer cannot be told from END_IMAGE_TX",
                           "RESET with length field 0xc, not 0x8"};
    ASSERT_TRUE(testkit::waitFor([&] { return sim.errors().size() >= expected.size(); }));
    const Args errors = sim.errors();
    ASSERT_EQ(expected.size(), errors.size()) << joined(errors);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NE(std::string::npos, errors[i].find(expected[i])) << errors[i];
    }
    const Args received = sim.arrived("dump");
    EXPECT_NE(received.end(), std::find(received.begin(), received.end(),
                                        "sahara MEMORY_READ_64 address=0x88000fff8 length=0x20"));
}

// A table announced long reads as zeros behind its entries; a module in another mode has
// every byte written to it recorded as an error. (The hang-up mid-region is proven end to end
// through vrec, byte for byte against the memory rule.)
TEST(CrashSim, ALongTableAndAModuleInAnotherMode) {
    {
        Sim sim({"--fault", "crash", "--fault", "dump-table-length=200", "--dump-regions",
                 "8:A.BIN,8:B.BIN,8:C.BIN"});
        ASSERT_TRUE(sim.event("dump port"));
        Host host(sim.file("diag.dump"));
        ASSERT_EQ(0x30u, host.read(0x30).size());
        host.helloResp();
        EXPECT_EQ(words({0x10, 0x18}) + words({0x08600000, 200}, 8), host.read(0x18));
        host.memoryRead(64, 0x08600000 + 2 * 64 + 44, 20 + 8);  // the last file name on
        EXPECT_EQ("C.BIN" + std::string(23, '\0'), host.read(28));
        EXPECT_TRUE(sim.errors().empty()) << joined(sim.errors());
    }
    Sim sim({"--fault", "crash", "--fault", "dump-mode=0"});
    ASSERT_TRUE(sim.event("dump port"));
    Host host(sim.file("diag.dump"));
    EXPECT_EQ(words({1, 0x30, 2, 1, 0x30, 0, 0, 0, 0, 0, 0, 0}), host.read(0x30));
    EXPECT_TRUE(sim.errors().empty());
    host.helloResp(0);
    EXPECT_EQ("", host.read(1, 300));
    ASSERT_TRUE(testkit::waitFor([&] { return !sim.errors().empty(); }));
    EXPECT_NE(std::string::npos, sim.errors()[0].find("HELLO has mode 0"));
}

// A dump directory written by hand: the inspector finds what is missing, short or wrong.
TEST(InspectDump, FindsMissingShortAndAlteredRegions) {
    testkit::TempDir dir;
    const std::string a = memory(0x80000000, 5000);
    const std::string b = memory(0x80020000, 4097);
    const auto put = [&](const std::string& index, const std::string& fileA,
                         const std::string& fileB) {
        testkit::writeFile(dir.file("A.BIN"), fileA);
        testkit::writeFile(dir.file("B.BIN"), fileB);
        testkit::writeFile(dir.file("dump_index.txt"), index);
    };
    const auto check = [&](bool simMemory, std::string* report) {
        Args argv = {testkit::builtProgram("tools/vrec-inspect"), "--dump", dir.path()};
        if (simMemory) {
            argv.push_back("--sim-memory");
        }
        return testkit::runToEnd(argv, "/", report);
    };
    const std::string lineA = "0\tA\tA.BIN\t0x80000000\t0x1388\t5000\tcomplete\n";
    const std::string lineB = "1\tB\tB.BIN\t0x80020000\t0x1001\t4097\tcomplete\n";
    std::string report;
    put("# head\n" + lineA + lineB + "# result complete\n", a, b);
    EXPECT_EQ(0, check(true, &report)) << report;
    EXPECT_NE(std::string::npos, report.find("verdict: complete")) << report;

    struct Case {
        const char* what;
        std::string index;
        std::string fileB;
        bool simMemory;
        const char* expected;
    };
    std::string altered = b;
    altered[4096] ^= 1;
    const std::string cutB = "1\tB\tB.BIN\t0x80020000\t0x1001\t100\tcut: port hung up\n";
    const Case cases[] = {
        {"short file", lineA + lineB + "# result complete\n", b.substr(0, 4000), false,
         "the file holds 4000 bytes, the index says 4097"},
        {"altered byte", lineA + lineB + "# result complete\n", altered, true,
         "byte 4096 (address 0x80021000) is not the module's memory"},
        {"altered byte unchecked", lineA + lineB + "# result complete\n", altered, false, nullptr},
        {"cut region", lineA + cutB + "# result incomplete: port hung up\n", b.substr(0, 100), true,
         "INCOMPLETE: region 1 not complete"},
        {"complete but short",
         lineA + "1\tB\tB.BIN\t0x80020000\t0x1001\t100\tcomplete\n" + "# result complete\n",
         b.substr(0, 100), false, "complete with 100 of 4097 bytes"},
        {"no result", lineA + lineB, b, false, "no \"# result\" line"},
        {"result disagrees", lineA + cutB + "# result complete\n", b.substr(0, 100), false,
         "does not agree"},
        {"bad line", lineA + "1 B B.BIN 0x80020000 0x1001 4097 complete\n# result complete\n", b,
         false, "line 2: 1 fields"},
        {"numbers", lineA + "2" + lineB.substr(1) + "# result complete\n", b, false,
         "stands at place 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        put(c.index, a, c.fileB);
        const int status = check(c.simMemory, &report);
        if (c.expected == nullptr) {
            EXPECT_EQ(0, status) << report;
        } else {
            EXPECT_EQ(1, status) << report;
            EXPECT_NE(std::string::npos, report.find(c.expected)) << report;
        }
    }
    put(lineA + lineB + "# result complete\n", a, b);
    testkit::writeFile(dir.file("stray.bin"), "x");
    EXPECT_EQ(1, check(false, &report));
    EXPECT_NE(std::string::npos, report.find("file stray.bin is not in the index")) << report;
    unlink(dir.file("dump_index.txt").c_str());
    EXPECT_EQ(2, check(false, &report));
}

}  // namespace
