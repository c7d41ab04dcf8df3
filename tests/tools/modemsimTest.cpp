// vrec-modemsim where vrec's own runs do not take it: the driver's receive buffer, AT faults,
// echo, the shared port.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "captureCheck.h"
#include "diagPacket.h"
#include "hdlc.h"
#include "testkit.h"

namespace {

using testkit::bytes;

// The module's end of a port, raw and not blocking.
int openPort(const std::string& path) {
    return testkit::openRaw(path, O_NONBLOCK);
}

void writeAll(int fd, const std::string& data) {
    EXPECT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
}

// Reads until `done` says so or `timeoutMs` passed.
std::string readUntil(int fd, int timeoutMs,
                      const std::function<bool(const std::string&)>& done = nullptr) {
    std::string got;
    testkit::waitFor(
        [&] {
            char buffer[8192];
            const ssize_t n = read(fd, buffer, sizeof(buffer));
            got.append(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
            return done && done(got);
        },
        timeoutMs);
    return got;
}

bool answered(const std::string& text) {
    return text.find("\r\nOK\r\n") != std::string::npos ||
           text.find("\r\nERROR\r\n") != std::string::npos;
}

std::string ask(int fd, const std::string& command) {
    writeAll(fd, command + "\r");
    return readUntil(fd, 3000, answered);
}

bool recorded(const testkit::ModemSim& sim, const std::string& words) {
    return testkit::waitFor([&] { return sim.record().find(words) != std::string::npos; });
}

vtools::CaptureCheck checked(const std::string& wire) {
    vtools::CaptureCheck check;
    check.feed(wire.data(), wire.size());
    check.finish();
    return check;
}

}  // namespace

// The host side of a port, read as fast as bytes come, on a thread of its own.
class FastHost {
public:
    explicit FastHost(int fd) : port(fd), reader([this] { readAll(); }) {}
    ~FastHost() { stop(); }
    // Ends the reading; everything read.
    const std::string& stop() {
        if (reader.joinable()) {
            done = true;
            reader.join();
        }
        return got;
    }
    // Where each read ended in the stream; valid after stop().
    std::vector<size_t> readEnds;

private:
    void readAll() {
        // Ahead of the machine's other work where permitted, as a host that reads fast is.
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), -10);
        std::vector<char> buffer(65536);
        while (!done) {
            pollfd pfd{port, POLLIN, 0};
            const ssize_t n = poll(&pfd, 1, 10) > 0 ? read(port, buffer.data(), buffer.size()) : 0;
            got.append(buffer.data(), static_cast<size_t>(std::max<ssize_t>(n, 0)));
            if (n > 0) {
                readEnds.push_back(got.size());
            }
        }
    }

    const int port;
    std::atomic<bool> done{false};
    std::string got;
    std::thread reader;
};

constexpr unsigned long long kKiB = 1024;

TEST(Modemsim, DriverBufferDropsWholePacketsWhileTheHostDoesNotRead) {
    testkit::TempDir dir;
    testkit::ModemSim sim(dir.path(), {"--diag", "diag", "--drop-when-full", "--byte-rate", "8M",
                                       "--host-buffer", "256K"});
    ASSERT_TRUE(sim.ready);
    const int diag = openPort(dir.file("diag"));
    writeAll(diag, ".trace-on4FFFFFFFF.\r\nat+trace=1\r\n");
    ASSERT_TRUE(recorded(sim, "event stream start"));
    // Unread at 8 MB/s: the receive buffer and the terminal hold what they can, and once
    // well over a MiB was offered, much of it is gone.
    testkit::SimCounts stalled;
    for (int tries = 0; tries < 100 && stalled.offered < 1024 * kKiB; ++tries) {
        usleep(50 * 1000);
        stalled = sim.counts("diag");
    }
    ASSERT_TRUE(stalled.valid);
    EXPECT_LE(stalled.queued, 256 * kKiB);
    EXPECT_LE(stalled.written + stalled.queued, (256 + 128) * kKiB) << "beyond the buffer";
    EXPECT_EQ(stalled.offered, stalled.written + stalled.dropped + stalled.queued);
    EXPECT_GT(stalled.drops, 0u);

    // The host reads again and catches up; the stream stops with nothing dropped at its end.
    FastHost host(diag);
    ASSERT_TRUE(testkit::waitFor([&] { return sim.counts("diag").queued < 64 * kKiB; }, 5000));
    usleep(100 * 1000);
    writeAll(diag, "at+trace=0\r\n");
    ASSERT_TRUE(recorded(sim, "event stream stop at+trace=0"));
    const testkit::SimCounts end = sim.settled("diag");
    const std::string wire = host.stop();
    close(diag);
    ASSERT_TRUE(end.valid);
    EXPECT_EQ(end.offered, end.written + end.dropped);
    EXPECT_EQ(end.queued, 0u);
    EXPECT_EQ(wire.size(), end.written);
    // Dropped packets are missing whole: the capture has gaps, but no cut or damaged frame.
    const vtools::CaptureCheck check = checked(wire);
    EXPECT_TRUE(check.problems(true).size() == 1 && check.sequence().gaps > 0)
        << testkit::hex(wire.substr(0, 64));
    EXPECT_EQ(check.sequence().missing, end.drops);
    EXPECT_EQ(check.sequence().first, 0u);
    EXPECT_EQ(check.sequence().last + 1, check.sequence().packets + check.sequence().missing);
}

// The driver hands the terminal whole USB transfers of --transfer bytes: a host that keeps
// up reads transfer by transfer, and the stream's short last transfer still comes.
TEST(Modemsim, TheDriverHandsOverWholeTransfers) {
    testkit::TempDir dir;
    testkit::ModemSim sim(dir.path(), {"--diag", "diag", "--drop-when-full", "--byte-rate", "200k",
                                       "--transfer", "1000", "--total", "1500"});
    ASSERT_TRUE(sim.ready);
    const int diag = openPort(dir.file("diag"));
    FastHost host(diag);
    writeAll(diag, vtools::frame(bytes({0x73, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0})));
    ASSERT_TRUE(recorded(sim, "event stream stop total"));
    const testkit::SimCounts end = sim.settled("diag");
    const std::string wire = host.stop();
    close(diag);
    ASSERT_TRUE(end.valid);
    EXPECT_EQ(0u, end.dropped);
    EXPECT_EQ(wire.size(), end.written);
    EXPECT_TRUE(checked(wire).clean(true));
    // The answer to the request goes first, in a transfer of its own; then the stream.
    ASSERT_GT(host.readEnds.size(), 10u);
    const size_t answer = host.readEnds.front();
    size_t onBoundary = 0;
    for (const size_t endAt : host.readEnds) {
        onBoundary += (endAt - answer) % 1000 == 0 ? 1 : 0;
    }
    // A loaded machine may split a transfer between two reads now and then; reads of a
    // stream that is not cut into transfers end between two only by chance.
    EXPECT_GE(onBoundary * 2, host.readEnds.size())
        << onBoundary << " of " << host.readEnds.size() << " reads ended between transfers";
}

TEST(Modemsim, DriverBufferLosesNothingForAHostThatKeepsReading) {
    testkit::TempDir dir;
    testkit::ModemSim sim(dir.path(), {"--diag", "diag", "--drop-when-full", "--byte-rate", "8M"});
    ASSERT_TRUE(sim.ready);
    const int diag = openPort(dir.file("diag"));
    FastHost host(diag);
    writeAll(diag, vtools::frame(bytes({0x73, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0})));
    ASSERT_TRUE(recorded(sim, "event stream start"));
    usleep(2000 * 1000);
    writeAll(diag, vtools::frame(bytes({0x73, 0, 0, 0, 0, 0, 0, 0})));
    ASSERT_TRUE(recorded(sim, "event stream stop"));
    const testkit::SimCounts end = sim.settled("diag");
    const std::string wire = host.stop();
    close(diag);
    ASSERT_TRUE(end.valid);
    EXPECT_EQ(end.dropped, 0u);
    EXPECT_EQ(end.offered, end.written);
    EXPECT_EQ(wire.size(), end.written);
    // 8 MB/s for 2 s, less what a loaded machine kept the simulator from sending.
    EXPECT_GT(end.written + end.lateMs * 8000, 15'000'000u) << end.lateMs << " ms late";
    const vtools::CaptureCheck check = checked(wire);
    EXPECT_TRUE(check.clean(true)) << check.problems(true).front();

    sim.control("quit");
    EXPECT_EQ(0, sim.run.launcherStatus(5000));
    const testkit::SimCounts last = sim.lastCounts("diag");
    EXPECT_EQ(last.offered, end.offered) << "the counts at exit";
}

TEST(Modemsim, EchoStorageAndFaultsOfTheAtPort) {
    testkit::TempDir dir;
    testkit::ModemSim sim(dir.path(), {"--pcui", "pcui", "--diag", "diag", "--upload-dir", "."});
    ASSERT_TRUE(sim.ready);
    const int pcui = openPort(dir.file("pcui"));
    EXPECT_EQ(ask(pcui, "AT^MDSTORAGE=1"), "AT^MDSTORAGE=1\r\r\nOK\r\n");
    EXPECT_EQ(ask(pcui, "ATE0"), "ATE0\r\r\nOK\r\n");
    EXPECT_EQ(ask(pcui, "AT^MDSTORAGE=0"), "\r\nOK\r\n");
    EXPECT_EQ(ask(pcui, "AT^MDSTORAGE?"), "\r\n^MDSTORAGE: 102400\r\n\r\nOK\r\n");
    EXPECT_EQ(ask(pcui, "AT^NOPE"), "\r\nERROR\r\n");
    // An upload starts with piece 1 and goes on in order; "ABC" and "DEF" make the file.
    const std::string upload = "AT^RSFW=\"u.xml\",\"\",123,2,";
    EXPECT_EQ(ask(pcui, upload + "2,\"REVG\""), "\r\nERROR\r\n");
    EXPECT_EQ(ask(pcui, upload + "1,\"QUJD\""), "\r\nOK\r\n");
    EXPECT_EQ(ask(pcui, upload + "2,\"REVG\""), "\r\nOK\r\n");
    EXPECT_EQ(testkit::readFile(dir.file("u.xml")), "ABCDEF");
    EXPECT_TRUE(sim.fault("unsolicited=^BOOT: 1"));
    EXPECT_EQ(ask(pcui, "AT^MDSL=1"), "\r\n^BOOT: 1\r\n\r\nOK\r\n");
    EXPECT_TRUE(sim.fault("unsolicited="));

    EXPECT_TRUE(sim.fault("split=4"));
    writeAll(pcui, "AT^MDON?\r");
    const std::string first =
        readUntil(pcui, 1000, [](const std::string& got) { return !got.empty(); });
    EXPECT_LE(first.size(), 4u);
    EXPECT_EQ(first + readUntil(pcui, 3000,
                                [&](const std::string& got) { return answered(first + got); }),
              "\r\n^MDON: 0\r\n\r\nOK\r\n");
    EXPECT_TRUE(sim.fault("split=0"));
    EXPECT_TRUE(sim.fault("silent=pcui"));
    writeAll(pcui, "AT\r");
    EXPECT_EQ(readUntil(pcui, 300), "");
    EXPECT_TRUE(sim.fault("silent=off"));
    EXPECT_EQ(ask(pcui, "AT"), "\r\nOK\r\n");
    close(pcui);

    const std::pair<std::vector<std::string>, std::string> refused[] = {
        {{"--fault", "boom"}, "unknown fault boom"},
        {{"--diag", "d", "--rate", "5", "--byte-rate", "8M"}, "not both"},
        {{"--diag", "d", "--host-buffer", "12X"}, "bad amount 12X for --host-buffer"}};
    for (const auto& [args, message] : refused) {
        std::vector<std::string> argv{testkit::builtProgram("tools/vrec-modemsim")};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string err;
        EXPECT_EQ(2, testkit::runToEnd(argv, dir.path(), nullptr, &err));
        EXPECT_NE(err.find(message), std::string::npos) << err;
    }
}

TEST(Modemsim, SharedPortTunnelsAtCommandsAndCarriesTheStream) {
    testkit::TempDir dir;
    testkit::ModemSim sim(dir.path(), {"--port", "port", "--total", "5", "--sysfs", "tree",
                                       "--product", "F006", "--tty-base", "3", "--protocol-roles"});
    ASSERT_TRUE(sim.ready);
    const int port = openPort(dir.file("port"));
    // A damaged request is recorded and not answered. "AT^MDSL=1\r" under the id of ^MDON
    // is refused; under its own id 1 it is done.
    writeAll(port, bytes({0x1D, 0x1C, 0x3A, 0x7E}));
    const std::string header = bytes({0x4B, 0xC9, 0xE8, 0xFF});
    const std::tuple<std::string, unsigned, std::string> rows[] = {
        {bytes({0x00, 0x09, 0x00}) + "AT^MDON?\r" + bytes({0x98, 0xA7, 0x7E}), 0,
         "\r\n^MDON: 0\r\n\r\nOK\r\n"},
        {bytes({0x00, 0x0A, 0x00}) + "AT^MDSL=1\r" + bytes({0xA9, 0xE4, 0x7E}), 0, "\r\nERROR\r\n"},
        {bytes({0x01, 0x0A, 0x00}) + "AT^MDSL=1\r" + bytes({0x04, 0xE1, 0x7E}), 1, "\r\nOK\r\n"}};
    for (const auto& [request, id, answer] : rows) {
        writeAll(port, header + request);
        const std::string wire = vtools::frame(vtools::makeTunnel(id, answer));
        EXPECT_EQ(testkit::hex(wire),
                  testkit::hex(readUntil(port, 3000, [&](const std::string& got) {
                      return got.size() >= wire.size();
                  })));
    }
    EXPECT_EQ("badfcs 1D", sim.arrived("port").at(0));
    EXPECT_EQ("tunnel 1 AT^MDSL=1\\r", sim.arrived("port").at(3));
    // Log configuration, operation 3, starts the stream on the same port.
    writeAll(port, vtools::frame(bytes({0x73, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0})));
    const vtools::CaptureCheck check = checked(readUntil(
        port, 3000, [](const std::string& wire) { return checked(wire).goodFrames >= 6; }));
    EXPECT_EQ(check.sequence().packets, 5u);
    EXPECT_TRUE(check.clean(true));
    close(port);

    const std::string iface = dir.file("tree/sys/bus/usb/drivers/option/1-1:1.1/");
    EXPECT_EQ(testkit::readFile(iface + "modalias"),
              "usb:v7C5ApF006d0000dc00dsc00dp00icFFiscFFip03in01\n");
    EXPECT_EQ(testkit::readFile(iface + "bInterfaceProtocol") +
                  testkit::readFile(iface + "bInterfaceNumber"),
              "03\n01\n");
    EXPECT_TRUE(testkit::fileExists(iface + "ttyUSB4"));
}
