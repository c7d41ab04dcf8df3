// vrec-modemsim as a host meets it: through its pseudo-terminals and its control FIFO.

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "atText.h"
#include "captureCheck.h"
#include "diagPacket.h"
#include "hdlc.h"
#include "testkit.h"

using testkit::hex;

namespace {

using Clock = std::chrono::steady_clock;

std::string bytes(std::initializer_list<int> values) {
    std::string out;
    for (int v : values) {
        out += static_cast<char>(v);
    }
    return out;
}

// Log configuration, operation 3, equipment 1, last item 0, one mask byte.
const std::string kLogMaskSet =
    bytes({0x73, 0, 0, 0, 0x03, 0, 0, 0, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0xA0, 0x81, 0x7E});
const std::string kStopFrames =
    bytes({0x60, 0x00, 0x12, 0x6A, 0x7E, 0x73, 0, 0, 0, 0, 0, 0,    0,    0xDA,
           0x81, 0x7E, 0x7D, 0x5D, 0x05, 0,    0, 0, 0, 0, 0, 0x74, 0x41, 0x7E});

long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

int openPort(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd != -1) {
        termios tio{};
        tcgetattr(fd, &tio);
        cfmakeraw(&tio);
        tcsetattr(fd, TCSANOW, &tio);
    }
    return fd;
}

void writeAll(int fd, const std::string& data) {
    size_t done = 0;
    while (done < data.size()) {
        const ssize_t n = write(fd, data.data() + done, data.size() - done);
        ASSERT_GT(n, 0);
        done += static_cast<size_t>(n);
    }
}

// Reads until `done` says so or `timeoutMs` passed; *hungUp tells of EIO or a hang-up.
template <typename Done>
std::string readUntil(int fd, int timeoutMs, Done done, bool* hungUp = nullptr) {
    std::string got;
    const auto start = Clock::now();
    while (!done(got)) {
        const long left = timeoutMs - msSince(start);
        if (left <= 0) {
            break;
        }
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, static_cast<int>(left)) <= 0) {
            continue;
        }
        char buffer[8192];
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n <= 0) {
            if (hungUp != nullptr) {
                *hungUp = true;
            }
            break;
        }
        got.append(buffer, static_cast<size_t>(n));
    }
    return got;
}

std::string readFor(int fd, int ms) {
    return readUntil(fd, ms, [](const std::string&) { return false; });
}

bool answered(const std::string& text) {
    return text.find("\r\nOK\r\n") != std::string::npos ||
           text.find("\r\nERROR\r\n") != std::string::npos;
}

std::string exchange(int fd, const std::string& command) {
    writeAll(fd, command + "\r");
    return readUntil(fd, 3000, answered);
}

// One simulator run in a directory of its own, with a record file and a control FIFO.
class SimRun {
public:
    explicit SimRun(const std::vector<std::string>& extra) : run(arguments(extra), dir.path()) {
        ready = run.waitForOutput("ready\n", 5000);
    }
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
        const auto start = Clock::now();
        while (record().find(words) == std::string::npos) {
            if (msSince(start) > timeoutMs) {
                return false;
            }
            usleep(5000);
        }
        return true;
    }
    int quit() {
        control("quit");
        return run.launcherStatus(5000);
    }

    testkit::TempDir dir;
    testkit::BackgroundRun run;
    bool ready = false;

private:
    std::vector<std::string> arguments(const std::vector<std::string>& extra) {
        std::vector<std::string> argv = {testkit::builtProgram("tools/vrec-modemsim"), "--record",
                                         dir.file("record.txt"), "--control", dir.file("ctl")};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return argv;
    }
};

// Frames of what came from a Diag port, with the stream counted.
std::vector<std::string> goodPackets(const std::string& wire) {
    std::vector<std::string> packets;
    vtools::Deframer deframer;
    deframer.feed(wire.data(), wire.size());
    vtools::DeframeStep step;
    while (deframer.next(step)) {
        if (step.kind == vtools::DeframeStep::kFrame && step.fcsOk) {
            packets.push_back(step.packet);
        }
    }
    return packets;
}

}  // namespace

TEST(Modemsim, DiagRequestsStreamAndStop) {
    SimRun sim({"--diag", "diag", "--pcui", "pcui", "--total", "300"});
    ASSERT_TRUE(sim.ready) << sim.run.output() << sim.run.errors();
    EXPECT_NE(sim.run.output().find("diag: diag -> /dev/pts/"), std::string::npos);
    const int diag = openPort(sim.path("diag"));
    ASSERT_NE(diag, -1);

    // A damaged request is recorded and not answered; the mask set is answered and starts
    // the stream, which ends at the total.
    writeAll(diag, bytes({0x1D, 0x1C, 0x3A, 0x7E}) + kLogMaskSet);
    vtools::CaptureCheck check;
    const std::string wire = readUntil(diag, 5000, [&](const std::string& got) {
        vtools::CaptureCheck partial;
        partial.feed(got.data(), got.size());
        return partial.sequence().packets >= 300;
    });
    check.feed(wire.data(), wire.size());
    check.finish();
    EXPECT_TRUE(check.clean(true));
    EXPECT_EQ(check.sequence().packets, 300u);
    EXPECT_EQ(check.sequence().first, 0u);
    EXPECT_EQ(check.sequence().last, 299u);
    const std::vector<std::string> packets = goodPackets(wire);
    ASSERT_FALSE(packets.empty());
    EXPECT_EQ(hex(packets[0]), "73 00 00 00 03 00 00 00 00 00 00 00");

    writeAll(diag, kStopFrames);
    const std::vector<std::string> answers = goodPackets(
        readUntil(diag, 3000, [](const std::string& got) { return goodPackets(got).size() >= 3; }));
    ASSERT_EQ(answers.size(), 3u);
    EXPECT_EQ(hex(answers[0]), "60 00 00 00 00 00");
    EXPECT_EQ(hex(answers[1]), "73 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(hex(answers[2]), "7D 05 00 00 00 00");

    EXPECT_TRUE(sim.recorded("diag frame 6000\n"));
    const std::string record = sim.record();
    EXPECT_NE(record.find("diag badfcs 1D\n"), std::string::npos) << record;
    EXPECT_NE(record.find("diag frame 7300000003000000010000000000000000\n"), std::string::npos);
    EXPECT_NE(record.find("sim event stream start\n"), std::string::npos);
    EXPECT_NE(record.find("sim event stream stop total after 300 packets"), std::string::npos);
    EXPECT_NE(record.find("diag frame 7300000000000000\n"), std::string::npos);
    EXPECT_NE(record.find("diag frame 7D05000000000000\n"), std::string::npos);
    close(diag);
    EXPECT_EQ(sim.quit(), 0);
    EXPECT_TRUE(sim.run.waitForOutput("stats: total offered"));
    const std::string out = sim.run.output();
    EXPECT_NE(out.find("dropped 0 packets 300"), std::string::npos) << out;
}

TEST(Modemsim, ImcTextsAndLossWhenTheHostIsSlow) {
    SimRun sim({"--diag", "diag", "--pcui", "pcui", "--rate", "5000", "--drop-when-full"});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    const int diag = openPort(sim.path("diag"));
    ASSERT_NE(diag, -1);
    writeAll(diag, ".trace-on4FFFFFFFF.\r\nat+trace=1\r\n");
    ASSERT_TRUE(sim.recorded("sim event stream start"));
    // The host does not read: the terminal fills and the module drops what does not fit.
    usleep(600 * 1000);
    std::string wire = readFor(diag, 300);
    writeAll(diag, "at+trace=0\r\n");
    ASSERT_TRUE(sim.recorded("sim event stream stop at+trace=0"));
    wire += readFor(diag, 100);
    vtools::CaptureCheck check;
    check.feed(wire.data(), wire.size());
    check.finish();
    EXPECT_GT(check.sequence().packets, 100u);
    EXPECT_GT(check.sequence().missing, 0u) << "a capture with drops must show the gap";
    EXPECT_FALSE(check.clean(false));

    sim.control("stats");
    ASSERT_TRUE(sim.run.waitForOutput("stats: total"));
    const std::string out = sim.run.output();
    unsigned long long offered = 0;
    unsigned long long written = 0;
    unsigned long long dropped = 0;
    const size_t at = out.find("stats: diag");
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(sscanf(out.c_str() + at, "stats: diag offered %llu written %llu dropped %llu",
                     &offered, &written, &dropped),
              3);
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(offered, written + dropped);
    const std::string record = sim.record();
    EXPECT_NE(record.find("diag text .trace-on4FFFFFFFF.\n"), std::string::npos) << record;
    EXPECT_NE(record.find("diag text at+trace=1\n"), std::string::npos);
    close(diag);
}

TEST(Modemsim, ReplaysACaptureByteForByte) {
    const std::string real = std::string(VREC_SHARED_DATA) + "/real-diag-lte.bin";
    if (!testkit::fileExists(real)) {
        GTEST_SKIP() << "no " << real << ": the shared test data is absent";
    }
    SimRun sim({"--diag", "diag", "--replay", real, "--no-answers"});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    const int diag = openPort(sim.path("diag"));
    ASSERT_NE(diag, -1);
    writeAll(diag, kLogMaskSet);
    const std::string expected = testkit::readFile(real);
    const std::string got = readUntil(
        diag, 10000, [&](const std::string& text) { return text.size() >= expected.size(); });
    EXPECT_EQ(got.size(), expected.size());
    EXPECT_TRUE(got == expected);
    EXPECT_TRUE(sim.recorded("sim event stream stop replay end"));
    close(diag);
}

TEST(Modemsim, AtPortTransfersAndFaults) {
    testkit::TempDir files;
    testkit::writeFile(files.file("logsave_1"), "the module's own log, twenty-nine");
    SimRun sim({"--pcui", "pcui", "--diag", "diag", "--files", files.path(), "--piece-size", "8",
                "--cmdlen", "200", "--upload-dir", files.path()});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    int pcui = openPort(sim.path("pcui"));
    ASSERT_NE(pcui, -1);

    EXPECT_EQ(exchange(pcui, "AT^MDON?"), "AT^MDON?\r\r\n^MDON: 0\r\n\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "ATE0"), "ATE0\r\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "AT^CMDLEN?"), "\r\n^CMDLEN: 200\r\n\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "AT^RSFR=?"), "\r\n^RSFR: (\"logsave_1\")\r\n\r\nOK\r\n");

    // Upload in two pieces ("AB", "C"), then download in pieces of 8 bytes.
    EXPECT_EQ(exchange(pcui, "AT^RSFW=\"up.xml\",\"\",123,2,1,\"QUI=\""), "\r\nOK\r\n");
    EXPECT_EQ(exchange(pcui, "AT^RSFW=\"up.xml\",\"\",123,2,2,\"Qw==\""), "\r\nOK\r\n");
    EXPECT_EQ(testkit::readFile(files.file("up.xml")), "ABC");
    std::string joined;
    std::string position;
    for (int pass = 0; pass < 10 && position != "33"; ++pass) {
        const std::string answer = exchange(pcui, "AT^RSFR=\"logsave_1\",\"0\"");
        const size_t from = answer.find("^RSFR: ");
        ASSERT_NE(from, std::string::npos) << answer;
        const vtools::AtArgs args =
            vtools::splitAtArgs(answer.substr(from + 7, answer.find("\r\n", from) - from - 7));
        ASSERT_EQ(args.values.size(), 6u) << answer;
        EXPECT_EQ(args.values[3], "33");
        position = args.values[4];
        std::string piece;
        ASSERT_TRUE(vtools::base64DecodeStrict(args.values[5], &piece));
        joined += piece;
    }
    EXPECT_EQ(joined, "the module's own log, twenty-nine");

    // Faults switched on and off while running.
    sim.control("error=^MDSL");
    ASSERT_TRUE(sim.recorded("fault error=^MDSL"));
    EXPECT_EQ(exchange(pcui, "AT^MDSL=1"), "\r\nERROR\r\n");
    sim.control("error=");
    sim.control("unsolicited=^BOOT: 1");
    ASSERT_TRUE(sim.recorded("fault unsolicited"));
    EXPECT_EQ(exchange(pcui, "AT^MDSL=1"), "\r\n^BOOT: 1\r\n\r\nOK\r\n");
    sim.control("unsolicited=");
    sim.control("rsfr-stop=1");
    ASSERT_TRUE(sim.recorded("fault rsfr-stop=1"));
    EXPECT_NE(exchange(pcui, "AT^RSFR=\"logsave_1\",\"0\"").find(",33,8,"), std::string::npos);
    EXPECT_EQ(exchange(pcui, "AT^RSFR=\"logsave_1\",\"0\""), "\r\nERROR\r\n");
    sim.control("rsfr-stop=0");

    sim.control("split=4");
    ASSERT_TRUE(sim.recorded("fault split=4"));
    writeAll(pcui, "AT^MDON?\r");
    const std::string first =
        readUntil(pcui, 1000, [](const std::string& got) { return !got.empty(); });
    EXPECT_LE(first.size(), 4u);
    EXPECT_EQ(first + readUntil(pcui, 3000,
                                [&](const std::string& got) { return answered(first + got); }),
              "\r\n^MDON: 0\r\n\r\nOK\r\n");
    sim.control("split=0");

    sim.control("silent=pcui");
    ASSERT_TRUE(sim.recorded("fault silent=pcui"));
    writeAll(pcui, "AT\r");
    EXPECT_EQ(readFor(pcui, 300), "");
    sim.control("silent=off");
    ASSERT_TRUE(sim.recorded("fault silent=off"));
    EXPECT_EQ(exchange(pcui, "AT"), "\r\nOK\r\n");

    // A hang-up: the host's port dies, the path goes and comes back to a working port.
    sim.control("hangup=pcui:300");
    bool hungUp = false;
    readUntil(
        pcui, 2000, [](const std::string&) { return false; }, &hungUp);
    EXPECT_TRUE(hungUp);
    close(pcui);
    ASSERT_TRUE(sim.recorded("sim event reopen pcui", 3000));
    pcui = openPort(sim.path("pcui"));
    ASSERT_NE(pcui, -1);
    EXPECT_EQ(exchange(pcui, "AT"), "AT\r\r\nOK\r\n");  // a new port: echo is back on
    close(pcui);

    const std::string record = sim.record();
    EXPECT_NE(record.find("pcui at AT^RSFW=\"up.xml\",\"\",123,2,1,\"QUI=\"\n"), std::string::npos)
        << record;
    EXPECT_NE(record.find("sim event upload up.xml 3 bytes in 2 pieces"), std::string::npos);
    EXPECT_NE(record.find("sim event hangup pcui for 300 ms"), std::string::npos);
}

TEST(Modemsim, SharedPortTunnelsAtCommands) {
    SimRun sim({"--port", "port", "--total", "5"});
    ASSERT_TRUE(sim.ready) << sim.run.errors();
    const int port = openPort(sim.path("port"));
    ASSERT_NE(port, -1);
    auto tunnelAnswer = [&](const std::string& wire) {
        writeAll(port, wire);
        const std::vector<std::string> packets = goodPackets(readUntil(
            port, 3000, [](const std::string& got) { return !goodPackets(got).empty(); }));
        vtools::TunnelPacket tunnel;
        EXPECT_EQ(packets.size(), 1u);
        EXPECT_TRUE(!packets.empty() && vtools::parseTunnel(packets[0], &tunnel));
        return tunnel;
    };
    // "AT^MDON?\r" under id 0.
    vtools::TunnelPacket answer = tunnelAnswer(bytes({0x4B, 0xC9, 0xE8, 0xFF, 0x00, 0x09, 0x00}) +
                                               "AT^MDON?\r" + bytes({0x98, 0xA7, 0x7E}));
    EXPECT_EQ(answer.id, 0u);
    EXPECT_EQ(answer.text, "\r\n^MDON: 0\r\n\r\nOK\r\n");
    // "AT^MDSL=1\r" under the id of ^MDON is refused; under its own id 1 it is done.
    answer = tunnelAnswer(bytes({0x4B, 0xC9, 0xE8, 0xFF, 0x00, 0x0A, 0x00}) + "AT^MDSL=1\r" +
                          bytes({0xA9, 0xE4, 0x7E}));
    EXPECT_EQ(answer.text, "\r\nERROR\r\n");
    answer = tunnelAnswer(bytes({0x4B, 0xC9, 0xE8, 0xFF, 0x01, 0x0A, 0x00}) + "AT^MDSL=1\r" +
                          bytes({0x04, 0xE1, 0x7E}));
    EXPECT_EQ(answer.id, 1u);
    EXPECT_EQ(answer.text, "\r\nOK\r\n");

    // The same port carries the stream.
    writeAll(port, kLogMaskSet);
    const std::string wire =
        readUntil(port, 3000, [](const std::string& got) { return goodPackets(got).size() >= 6; });
    vtools::CaptureCheck check;
    check.feed(wire.data(), wire.size());
    EXPECT_EQ(check.sequence().packets, 5u);
    EXPECT_TRUE(check.clean(true));
    EXPECT_TRUE(sim.recorded("port tunnel 1 AT^MDSL=1\\r\n"));
    close(port);
}

TEST(Modemsim, WritesAFakeSysfsTree) {
    testkit::TempDir dir;
    std::string out;
    std::string err;
    ASSERT_EQ(testkit::runToEnd({testkit::builtProgram("tools/vrec-modemsim"), "--sysfs",
                                 dir.path(), "--product", "F006", "--tty-base", "3"},
                                dir.path(), &out, &err),
              0)
        << err;
    const std::string option = dir.path() + "/sys/bus/usb/drivers/option/";
    EXPECT_EQ(testkit::listDir(option).size(), 3u);
    EXPECT_EQ(testkit::readFile(option + "1-1:1.2/modalias"),
              "usb:v7C5ApF006d0000dc00dsc00dp00icFFiscFFipFFin02\n");
    EXPECT_EQ(testkit::readFile(option + "1-1:1.2/bInterfaceProtocol"), "FF\n");
    EXPECT_EQ(testkit::readFile(option + "1-1:1.2/bInterfaceNumber"), "02\n");
    EXPECT_TRUE(testkit::fileExists(option + "1-1:1.2/ttyUSB5"));
    EXPECT_TRUE(testkit::fileExists(dir.path() + "/sys/bus/usb/devices/1-1:1.0/modalias"));

    ASSERT_EQ(testkit::runToEnd({testkit::builtProgram("tools/vrec-modemsim"), "--sysfs",
                                 dir.path(), "--protocol-roles"},
                                dir.path(), &out, &err),
              0);
    EXPECT_EQ(testkit::readFile(option + "1-1:1.1/bInterfaceProtocol"), "03\n");
    EXPECT_EQ(testkit::readFile(option + "1-1:1.2/bInterfaceProtocol"), "02\n");
    EXPECT_TRUE(testkit::fileExists(option + "1-1:1.0/ttyUSB0"));
    EXPECT_NE(testkit::runToEnd({testkit::builtProgram("tools/vrec-modemsim"), "--fault", "boom"},
                                dir.path(), &out, &err),
              0);
    EXPECT_NE(err.find("unknown fault boom"), std::string::npos);
}
