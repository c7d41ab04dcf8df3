// vrec-modemsim as a host meets it: through its pseudo-terminals and its control FIFO.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "captureCheck.h"
#include "diagPacket.h"
#include "hdlc.h"
#include "testkit.h"

using testkit::hex;

namespace {

std::string bytes(std::initializer_list<int> values) {
    return std::string(values.begin(), values.end());
}

// Log configuration, operation 3, equipment 1, last item 0, one mask byte.
const std::string kLogMaskSet =
    bytes({0x73, 0, 0, 0, 0x03, 0, 0, 0, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0xA0, 0x81, 0x7E});
const std::string kStopFrames =
    bytes({0x60, 0x00, 0x12, 0x6A, 0x7E, 0x73, 0, 0, 0, 0, 0, 0,    0,    0xDA,
           0x81, 0x7E, 0x7D, 0x5D, 0x05, 0,    0, 0, 0, 0, 0, 0x74, 0x41, 0x7E});

int openPort(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios tio{};
    tcgetattr(fd, &tio);
    cfmakeraw(&tio);
    tcsetattr(fd, TCSANOW, &tio);
    return fd;
}

void writeAll(int fd, const std::string& data) {
    for (size_t done = 0; done < data.size();) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        ASSERT_GT(n, 0);
        done += static_cast<size_t>(n);
    }
}

// Reads until `done` says so, the port hangs up or `timeoutMs` passed.
std::string readUntil(int fd, int timeoutMs,
                      const std::function<bool(const std::string&)>& done = nullptr) {
    std::string got;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!(done && done(got)) && std::chrono::steady_clock::now() < deadline) {
        pollfd pfd{fd, POLLIN, 0};
        char buffer[8192];
        const ssize_t n = poll(&pfd, 1, 10) == 1 ? read(fd, buffer, sizeof(buffer)) : 0;
        if (n < 0 || (n == 0 && pfd.revents != 0)) {
            break;
        }
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

bool answered(const std::string& text) {
    return text.find("\r\nOK\r\n") != std::string::npos ||
           text.find("\r\nERROR\r\n") != std::string::npos;
}

std::string exchange(int fd, const std::string& command) {
    writeAll(fd, command + "\r");
    return readUntil(fd, 3000, answered);
}

std::vector<std::string> goodPackets(const std::string& wire) {
    std::vector<std::string> packets;
    vtools::Deframer deframer;
    deframer.feed(wire.data(), wire.size());
    for (vtools::DeframeStep step; deframer.next(step);) {
        if (step.kind == vtools::DeframeStep::kFrame && step.fcsOk) {
            packets.push_back(step.packet);
        }
    }
    return packets;
}

vtools::CaptureCheck checked(const std::string& wire) {
    vtools::CaptureCheck check;
    check.feed(wire.data(), wire.size());
    check.finish();
    return check;
}

// One simulator run in a directory of its own, with a record file and a control FIFO.
class SimRun {
public:
    explicit SimRun(std::vector<std::string> extra)
        : run(arguments(std::move(extra)), dir.path()), ready(run.waitForOutput("ready\n", 5000)) {}
    ~SimRun() { control("quit"); }
    std::string path(const std::string& name) const { return dir.file(name); }
    void control(const std::string& line) {
        const int fd = open(dir.file("ctl").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd != -1) {
            writeAll(fd, line + "\n");
            close(fd);
        }
    }
    std::string record() { return testkit::readFile(dir.file("record.txt")); }
    bool recorded(const std::string& words, int timeoutMs = 2000) {
        return testkit::waitFor([&] { return record().find(words) != std::string::npos; },
                                timeoutMs);
    }
    // Switches a fault while running, once the simulator has taken it.
    bool fault(const std::string& line) {
        control(line);
        return recorded("fault " + line);
    }

    testkit::TempDir dir;
    testkit::BackgroundRun run;
    bool ready;

private:
    std::vector<std::string> arguments(std::vector<std::string> extra) {
        extra.insert(extra.begin(), {testkit::builtProgram("tools/vrec-modemsim"), "--record",
                                     dir.file("record.txt"), "--control", dir.file("ctl")});
        return extra;
    }
};

}  // namespace

TEST(Modemsim, DiagRequestsStreamAndStop) {
    SimRun sim({"--diag", "diag", "--pcui", "pcui", "--total", "300"});
    ASSERT_TRUE(sim.ready) << sim.run.output() << sim.run.errors();
    EXPECT_NE(sim.run.output().find("diag: diag -> /dev/pts/"), std::string::npos);
    const int diag = openPort(sim.path("diag"));
    // A damaged request is recorded and not answered; the mask set is answered and starts
    // the stream, which ends at the total.
    writeAll(diag, bytes({0x1D, 0x1C, 0x3A, 0x7E}) + kLogMaskSet);
    const std::string wire = readUntil(
        diag, 5000, [](const std::string& got) { return checked(got).sequence().packets >= 300; });
    const vtools::CaptureCheck check = checked(wire);
    EXPECT_TRUE(check.clean(true));
    EXPECT_EQ(check.sequence().packets, 300u);
    EXPECT_EQ(check.sequence().last, 299u);
    EXPECT_EQ(hex(goodPackets(wire).at(0)), "73 00 00 00 03 00 00 00 00 00 00 00");

    writeAll(diag, kStopFrames);
    const std::vector<std::string> answers = goodPackets(
        readUntil(diag, 3000, [](const std::string& got) { return goodPackets(got).size() >= 3; }));
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(hex(answers[0]), "60 00 00 00 00 00");
    EXPECT_EQ(hex(answers[1]), "73 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(hex(answers[2]), "7D 05 00 00 00 00");
    EXPECT_TRUE(sim.recorded("diag frame 6000\n"));
    for (const char* line :
         {"diag badfcs 1D\n", "diag frame 7300000003000000010000000000000000\n",
          "sim event stream start\n", "sim event stream stop total after 300 packets",
          "diag frame 7300000000000000\n", "diag frame 7D05000000000000\n"}) {
        EXPECT_NE(sim.record().find(line), std::string::npos) << line;
    }
    close(diag);
    sim.control("quit");
    EXPECT_EQ(sim.run.launcherStatus(5000), 0);
    EXPECT_TRUE(sim.run.waitForOutput("stats: total offered"));
    EXPECT_NE(sim.run.output().find("dropped 0 packets 300"), std::string::npos);
}

TEST(Modemsim, ImcTextsAndLossWhenTheHostIsSlow) {
    SimRun sim({"--diag", "diag", "--pcui", "pcui", "--rate", "5000", "--drop-when-full"});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    const int diag = openPort(sim.path("diag"));
    writeAll(diag, ".trace-on4FFFFFFFF.\r\nat+trace=1\r\n");
    ASSERT_TRUE(sim.recorded("sim event stream start"));
    // The host does not read: the terminal fills and the module drops what does not fit.
    usleep(600 * 1000);
    std::string wire = readUntil(diag, 300);
    writeAll(diag, "at+trace=0\r\n");
    ASSERT_TRUE(sim.recorded("sim event stream stop at+trace=0"));
    wire += readUntil(diag, 100);
    const vtools::CaptureCheck check = checked(wire);
    EXPECT_GT(check.sequence().packets, 100u);
    EXPECT_GT(check.sequence().missing, 0u) << "a capture with drops must show the gap";

    sim.control("stats");
    ASSERT_TRUE(sim.run.waitForOutput("stats: total"));
    const std::string out = sim.run.output();
    unsigned long long offered = 0;
    unsigned long long written = 0;
    unsigned long long dropped = 0;
    const size_t at = out.find("stats: diag");
    ASSERT_TRUE(at != std::string::npos &&
                sscanf(out.c_str() + at, "stats: diag offered %llu written %llu dropped %llu",
                       &offered, &written, &dropped) == 3)
        << out;
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(offered, written + dropped);
    EXPECT_NE(sim.record().find("diag text .trace-on4FFFFFFFF.\n"), std::string::npos);
    close(diag);
}

TEST(Modemsim, AtPortTransfersAndFaults) {
    testkit::TempDir files;
    testkit::writeFile(files.file("logsave_1"), "the module's own log, twenty-nine");
    SimRun sim({"--pcui", "pcui", "--diag", "diag", "--files", files.path(), "--piece-size", "8",
                "--cmdlen", "200", "--upload-dir", files.path()});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    const int pcui = openPort(sim.path("pcui"));
    EXPECT_EQ(exchange(pcui, "AT^MDON?"), "AT^MDON?\r\r\n^MDON: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "ATE0"), "ATE0\r\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "AT^CMDLEN?"), "\r\n^CMDLEN: 200\r\n\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "AT^RSFR=?"), "\r\n^RSFR: (\"logsave_1\")\r\n\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "AT^RSFW=\"up.xml\",\"\",123,1,1,\"QUJD\""), "\r\nOK\r\n");
    EXPECT_EQ(testkit::readFile(files.file("up.xml")), "ABC");

    const std::string firstPiece = "\"logsave_1\",\"0\",123,33,8,\"dGhlIG1vZHU=\"";
    EXPECT_TRUE(sim.fault("rsfr-stop=1"));
    EXPECT_NE(exchange(pcui, "AT^RSFR=\"logsave_1\",\"0\"").find(firstPiece), std::string::npos);
    EXPECT_EQ(exchange(pcui, "AT^RSFR=\"logsave_1\",\"0\""), "\r\nERROR\r\n");
    EXPECT_NE(exchange(pcui, "AT^RSFR=\"logsave_1\",\"0\"").find(firstPiece), std::string::npos);
    EXPECT_TRUE(sim.fault("rsfr-stop=0"));
    EXPECT_TRUE(sim.fault("error=^MDSL"));
    EXPECT_EQ(exchange(pcui, "AT^MDSL=1"), "\r\nERROR\r\n");
    EXPECT_TRUE(sim.fault("error="));
    EXPECT_TRUE(sim.fault("unsolicited=^BOOT: 1"));
    EXPECT_EQ(exchange(pcui, "AT^MDSL=1"), "\r\n^BOOT: 1\r\n\r\nOK\r\n");
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
    EXPECT_EQ(exchange(pcui, "AT"), "\r\nOK\r\n");

    close(pcui);
    EXPECT_NE(sim.record().find("pcui at AT^RSFW=\"up.xml\",\"\",123,1,1,\"QUJD\"\n"),
              std::string::npos);
}

TEST(Modemsim, SharedPortTunnelsAtCommands) {
    SimRun sim({"--port", "port", "--total", "5"});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    const int port = openPort(sim.path("port"));
    // "AT^MDSL=1\r" under the id of ^MDON is refused; under its own id 1 it is done.
    const std::string header = bytes({0x4B, 0xC9, 0xE8, 0xFF});
    const std::tuple<std::string, unsigned, std::string> rows[] = {
        {bytes({0x00, 0x09, 0x00}) + "AT^MDON?\r" + bytes({0x98, 0xA7, 0x7E}), 0,
         "\r\n^MDON: 0\r\n\r\nOK\r\n"},
        {bytes({0x00, 0x0A, 0x00}) + "AT^MDSL=1\r" + bytes({0xA9, 0xE4, 0x7E}), 0, "\r\nERROR\r\n"},
        {bytes({0x01, 0x0A, 0x00}) + "AT^MDSL=1\r" + bytes({0x04, 0xE1, 0x7E}), 1, "\r\nOK\r\n"}};
    for (const auto& [request, id, answer] : rows) {
        writeAll(port, header + request);
        const std::vector<std::string> packets = goodPackets(readUntil(
            port, 3000, [](const std::string& got) { return !goodPackets(got).empty(); }));
        vtools::TunnelPacket tunnel;
        ASSERT_TRUE(packets.size() == 1 && vtools::parseTunnel(packets[0], &tunnel));
        EXPECT_EQ(tunnel.id, id);
        EXPECT_EQ(tunnel.text, answer);
    }
    // The same port carries the stream.
    writeAll(port, kLogMaskSet);
    const vtools::CaptureCheck check = checked(
        readUntil(port, 3000, [](const std::string& got) { return goodPackets(got).size() >= 6; }));
    EXPECT_EQ(check.sequence().packets, 5u);
    EXPECT_TRUE(check.clean(true));
    EXPECT_TRUE(sim.recorded("port tunnel 1 AT^MDSL=1\\r\n"));
    close(port);
}

TEST(Modemsim, WritesAFakeSysfsTree) {
    testkit::TempDir dir;
    const std::string sim = testkit::builtProgram("tools/vrec-modemsim");
    const std::string option = dir.path() + "/sys/bus/usb/drivers/option/";
    std::string out;
    std::string err;
    ASSERT_EQ(
        testkit::runToEnd({sim, "--sysfs", dir.path(), "--product", "F006", "--tty-base", "3"},
                          dir.path(), &out, &err),
        0)
        << err;
    EXPECT_EQ(testkit::listDir(option).size(), 3u);
    EXPECT_EQ(testkit::readFile(option + "1-1:1.2/modalias"),
              "usb:v7C5ApF006d0000dc00dsc00dp00icFFiscFFipFFin02\n");
    EXPECT_EQ(testkit::readFile(option + "1-1:1.2/bInterfaceProtocol") +
                  testkit::readFile(option + "1-1:1.2/bInterfaceNumber"),
              "FF\n02\n");
    EXPECT_TRUE(testkit::fileExists(option + "1-1:1.2/ttyUSB5"));
    EXPECT_TRUE(testkit::fileExists(dir.path() + "/sys/bus/usb/devices/1-1:1.0/modalias"));

    ASSERT_EQ(testkit::runToEnd({sim, "--sysfs", dir.path(), "--protocol-roles"}, dir.path(), &out),
              0);
    EXPECT_EQ(testkit::readFile(option + "1-1:1.1/bInterfaceProtocol") +
                  testkit::readFile(option + "1-1:1.2/bInterfaceProtocol"),
              "03\n02\n");
    EXPECT_NE(testkit::runToEnd({sim, "--fault", "boom"}, dir.path(), &out, &err), 0);
    EXPECT_NE(err.find("unknown fault boom"), std::string::npos);
}
