#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <tuple>

#include "atService.h"
#include "serialport.h"
#include "srvTestSupport.h"

using testkit::hex;
using testkit::msSince;

namespace {

using Clock = std::chrono::steady_clock;

// Bytes the serial layer has read so far, so that the module side can wait until a part
// of its answer was taken before it sends the next.
std::atomic<size_t> g_bytesRead{0};

ssize_t countingRead(int fd, void* buffer, size_t length) {
    const ssize_t got = ::read(fd, buffer, length);
    g_bytesRead += got > 0 ? static_cast<size_t>(got) : 0;
    return got;
}

// How many bytes wait on the port, once what the module side wrote has arrived.
int bytesWaiting(const testkit::Pty& pty) {
    pollfd pfd{pty.slave(), POLLIN, 0};
    int waiting = -1;
    return poll(&pfd, 1, 2000) == 1 && ioctl(pty.slave(), FIONREAD, &waiting) == 0 ? waiting : 0;
}

class AtServiceTest : public SrvTest {
protected:
    void SetUp() override {
        SrvTest::SetUp();
        AtService::destroy();  // the tunnel, once on, stays on for the object's life
        at = AtService::getInstance();
        g_bytesRead = 0;
        serialSysCalls().read = countingRead;
    }
    void TearDown() override {
        resetSerialSysCalls();
        AtService::destroy();
        SrvTest::TearDown();
    }

    AtService* at = nullptr;
    testkit::Pty pty;
};

TEST_F(AtServiceTest, AnswersOfTheUsualShapes) {
    const std::tuple<const char*, const char*, bool, const char*> rows[] = {
        {"AT^MDON?\r", "AT^MDON?\r\r\n^MDON: 2\r\n\r\nOK\r\n", true, " 2"},  // echo
        {"AT^MDSTORAGE?\r", "\r\n^RSSI: 17\r\n\r\n^BOOT:1,0\r\n\r\n^MDSTORAGE: 0,1\r\n\r\nOKAY",
         true, " 0,1"},  // unsolicited lines first
        {"AT^MDON=9\r", "\r\nERROR\r\n", false, ""}};
    for (const auto& [cmd, answer, ok, expected] : rows) {
        SCOPED_TRACE(hex(answer));
        // The module's answer is waiting before the command goes out.
        pty.writeMaster(answer);
        ASSERT_GT(bytesWaiting(pty), 0);
        std::string response;
        const auto start = Clock::now();
        EXPECT_EQ(ok, at->sendATcmdAndWaitResponse(pty.slave(), cmd, response));
        EXPECT_LT(msSince(start), 1000);  // an ended answer ends the read at once
        EXPECT_EQ(expected, response);
        EXPECT_EQ(cmd, pty.readMaster(strlen(cmd), 1000));
    }

    // An answer split over two reads is joined.
    const std::string first = "\r\n^RSFR: 1,2";
    g_bytesRead = 0;
    std::thread module([&] {
        pty.readMaster(10, 2000);
        pty.writeMaster(first);
        // Only once the first part was taken alone does the rest follow.
        if (testkit::waitFor([&] { return g_bytesRead >= first.size(); })) {
            pty.writeMaster(",3\r\n\r\nOK\r\n");
        }
    });
    std::string response;
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^RSFR=?\r", response));
    module.join();
    EXPECT_EQ(" 1,2,3", response);
}

TEST_F(AtServiceTest, SilenceFailsTheExchangeInTime) {
    std::string response;
    auto start = Clock::now();
    auto exchange = std::async(std::launch::async, [&] {
        return at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON?\r", response);
    });
    if (exchange.wait_for(std::chrono::seconds(8)) != std::future_status::ready) {
        ADD_FAILURE() << "the exchange is still waiting after 8 s";
        pty.closeMaster();  // a hang-up ends any read, so the thread can be joined
    }
    EXPECT_FALSE(exchange.get());
    EXPECT_GE(msSince(start), 4800);
    EXPECT_LT(msSince(start), 6000);
    EXPECT_EQ(1, logCount("read timeout (more then 5000 millisecond)."));
}

TEST_F(AtServiceTest, TunnelFramesCarryTheCommand) {
    at->setDiagTunnel(true, 0);
    // Tunnel header, command id (^MDON's for commands outside the list), 16-bit length, text,
    // check sequence, flag; all escaped.
    const std::string longText = "AT^RSFW=" + std::string(116, 'A') + "\r";  // length 0x7D
    const std::pair<std::string, std::string> rows[] = {
        {"at+trace=1\r\n", "4B C9 E8 FF 00 0C 00 61 74 2B 74 72 61 63 65 3D 31 0D 0A 18 B5 7E"},
        {"AT^MDSTORAGE?\r",
         "4B C9 E8 FF 02 0E 00 41 54 5E 4D 44 53 54 4F 52 41 47 45 3F 0D 03 38 7E"},
        {"AT^MDSL=43\r", "4B C9 E8 FF 01 0B 00 41 54 5E 4D 44 53 4C 3D 34 33 0D FA 7D 5D 7E"},
        {longText, "4B C9 E8 FF 05 7D 5D 00 " + hex(longText) + " 4A B2 7E"}};
    for (const auto& [cmd, wire] : rows) {
        ASSERT_TRUE(at->sendATcmd(pty.slave(), cmd));
        EXPECT_EQ(wire, hex(pty.readMaster((wire.size() + 1) / 3, 1000))) << cmd;
    }

    // What the running Diag stream left in the port, itself looking like an answer, is
    // drained before the command goes out.
    const std::string header("\x4B\xC9\xE8\xFF\x00\x12\x00", 7);
    pty.writeMaster(header + "\r\n^MDON: 7\r\n\r\nOK\r\n");
    ASSERT_GT(bytesWaiting(pty), 0);
    std::string wire;
    std::thread module([&] {
        wire = pty.readMaster(19, 2000);
        pty.writeMaster(header + "\r\n^MDON: 1\r\n\r\nOK\r\n");
    });
    std::string response;
    const auto start = Clock::now();
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON?\r", response));
    module.join();
    EXPECT_LT(msSince(start), 1000);  // reads with no limit don't wait when nothing is there
    EXPECT_EQ("4B C9 E8 FF 00 09 00 41 54 5E 4D 44 4F 4E 3F 0D 98 A7 7E", hex(wire));
    EXPECT_EQ(" 1", response);

    // While the Diag reader owns the port, the answer is left to it, and the stream's bytes
    // go only with the drain.
    at->setDiagTunnel(true, AtService::kTunnelReaderOwnsPort);
    pty.writeMaster("diag stream");
    ASSERT_EQ(11, bytesWaiting(pty));
    response = "untouched";
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON=1\r", response, false, true));
    EXPECT_EQ("untouched", response);
    EXPECT_EQ(11, bytesWaiting(pty));
    EXPECT_EQ("4B C9 E8 FF 00 0A 00 41 54 5E 4D 44 4F 4E 3D 31 0D AF 1E 7E",
              hex(pty.readMaster(20, 1000)));
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON=1\r", response, true, true));
    EXPECT_EQ(20u, pty.readMaster(20, 1000).size());
    pollfd pfd{pty.slave(), POLLIN, 0};
    EXPECT_EQ(0, poll(&pfd, 1, 0));
}

}  // namespace
