#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "atService.h"
#include "serialport.h"
#include "srvTestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

// Bytes the serial layer has read so far, so that the module side can wait until a part
// of its answer was taken before it sends the next.
std::atomic<size_t> g_bytesRead{0};

ssize_t countingRead(int fd, void* buffer, size_t length) {
    const ssize_t got = ::read(fd, buffer, length);
    if (got > 0) {
        g_bytesRead += static_cast<size_t>(got);
    }
    return got;
}

bool waitForBytesRead(size_t total) {
    const auto deadline = Clock::now() + std::chrono::seconds(3);
    while (g_bytesRead < total) {
        if (Clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

long msSince(Clock::time_point start) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Waits until what the module side wrote has reached the port.
bool portHasInput(const testkit::Pty& pty) {
    pollfd pfd{pty.slave(), POLLIN, 0};
    return poll(&pfd, 1, 2000) == 1;
}

int bytesWaiting(const testkit::Pty& pty) {
    int waiting = -1;
    ioctl(pty.slave(), FIONREAD, &waiting);
    return waiting;
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
    struct Row {
        const char* cmd;
        const char* answer;
        bool ok;
        const char* response;
    };
    const Row rows[] = {
        {"AT^MDON?\r", "AT^MDON?\r\r\n^MDON: 2\r\n\r\nOK\r\n", true, " 2"},
        {"AT^MDSTORAGE?\r", "\r\n^RSSI: 17\r\n\r\n^BOOT:1,0\r\n\r\n^MDSTORAGE: 0,1\r\n\r\nOK\r\n",
         true, " 0,1"},
        {"AT^MDON?\r", "\r\n^MDON: 3\r\nOKAY", true, " 3"},
        {"AT^MDON=9\r", "\r\nERROR\r\n", false, ""}};
    for (const Row& row : rows) {
        SCOPED_TRACE(testkit::hex(row.answer));
        // The module's answer is waiting before the command goes out.
        pty.writeMaster(row.answer);
        ASSERT_TRUE(portHasInput(pty));
        const int failures = logCount("AT response isn't correct.");
        std::string response;
        const auto start = Clock::now();
        EXPECT_EQ(row.ok, at->sendATcmdAndWaitResponse(pty.slave(), row.cmd, response));
        EXPECT_LT(msSince(start), 1000);  // an ended answer ends the read at once
        EXPECT_EQ(row.response, response);
        EXPECT_EQ(row.cmd, pty.readMaster(strlen(row.cmd), 1000));
        EXPECT_EQ(failures + (row.ok ? 0 : 1), logCount("AT response isn't correct."));
    }
}

TEST_F(AtServiceTest, AnswerSplitOverReadsIsJoined) {
    const std::string first = "\r\n^RSFR: 1,2";
    std::thread module([&] {
        pty.readMaster(10, 2000);
        pty.writeMaster(first);
        // Only once the first part was taken alone does the rest follow.
        if (waitForBytesRead(first.size())) {
            pty.writeMaster(",3\r\n\r\nOK\r\n");
        }
    });
    std::string response;
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^RSFR=?\r", response));
    module.join();
    EXPECT_EQ(" 1,2,3", response);
}

TEST_F(AtServiceTest, SilentModuleFailsAtTheLimitWithoutHangingTheCaller) {
    std::string response;
    const auto start = Clock::now();
    auto exchange = std::async(std::launch::async, [&] {
        return at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON?\r", response);
    });
    if (exchange.wait_for(std::chrono::seconds(8)) != std::future_status::ready) {
        ADD_FAILURE() << "the exchange is still waiting after 8 s";
        pty.closeMaster();  // a hang-up ends any read, so the thread can be joined
    }
    const long elapsed = msSince(start);
    EXPECT_FALSE(exchange.get());
    EXPECT_GE(elapsed, 4800);
    EXPECT_LT(elapsed, 6000);
    EXPECT_EQ(1, logCount("  WARN  "));
    EXPECT_EQ(1, logCount("read timeout (more then 5000 millisecond)."));
    EXPECT_EQ(1, logCount("Get at response failed."));
}

TEST_F(AtServiceTest, HangUpAfterGoodBytesFailsTheExchange) {
    std::thread module([&] {
        pty.readMaster(9, 2000);
        pty.writeMaster(std::string(100, 'x'));
        waitForBytesRead(100);
        pty.closeMaster();
    });
    std::string response;
    const auto start = Clock::now();
    EXPECT_FALSE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON?\r", response));
    module.join();
    EXPECT_LT(msSince(start), 3000);
    EXPECT_EQ(100u, g_bytesRead.load());
    EXPECT_EQ(1, logCount("OS_ADAPT_Read failed(error: 30001)."));
    EXPECT_EQ(1, logCount("Get at response failed."));
}

TEST_F(AtServiceTest, RefusedCommandsAndFailedWrites) {
    std::string response;
    EXPECT_FALSE(at->sendATcmd(0, "AT\r"));
    EXPECT_FALSE(at->sendATcmdAndWaitResponse(0, "AT\r", response));
    EXPECT_EQ(2, logCount("pcui port is not open."));
    EXPECT_FALSE(at->sendATcmd(pty.slave(), ""));
    EXPECT_FALSE(at->sendATcmdAndWaitResponse(pty.slave(), "", response));
    EXPECT_EQ(2, logCount("at cmd is empty."));
    EXPECT_EQ(0, at->atWrite("", 0, 100));
    EXPECT_EQ(1, logCount("input is invalid."));
    // A handle that isn't open shows as the platform's failed write.
    EXPECT_FALSE(at->sendATcmd(-1, "AT\r"));
    EXPECT_FALSE(at->sendATcmdAndWaitResponse(-1, "AT\r", response));
    EXPECT_EQ(2, logCount("Write data failed(cmd length is 3, but write data length is 0)."));
    EXPECT_EQ("", pty.readMaster(1, 50));  // nothing reached the module
}

TEST_F(AtServiceTest, TunnelFramesCarryTheCommand) {
    at->setDiagTunnel(true, 0);
    ASSERT_TRUE(at->sendATcmd(pty.slave(), "at+trace=1\r\n"));
    EXPECT_EQ("4B C9 E8 FF 00 0C 00 61 74 2B 74 72 61 63 65 3D 31 0D 0A 18 B5 7E",
              testkit::hex(pty.readMaster(22, 1000)));

    // What the running Diag stream left in the port, itself looking like an answer, is
    // drained before the command goes out.
    const std::string header("\x4B\xC9\xE8\xFF\x00\x12\x00", 7);
    pty.writeMaster(header + "\r\n^MDON: 7\r\n\r\nOK\r\n");
    ASSERT_TRUE(portHasInput(pty));
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
    EXPECT_EQ("4B C9 E8 FF 00 09 00 41 54 5E 4D 44 4F 4E 3F 0D 98 A7 7E", testkit::hex(wire));
    EXPECT_EQ(" 1", response);
}

TEST_F(AtServiceTest, TunnelWhileTheDiagReaderOwnsThePort) {
    at->setDiagTunnel(true, AtService::kTunnelReaderOwnsPort);
    pty.writeMaster("diag stream");
    ASSERT_TRUE(portHasInput(pty));
    std::string response = "untouched";
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON=1\r", response, false, true));
    EXPECT_EQ("untouched", response);
    EXPECT_EQ(11, bytesWaiting(pty));  // no answer was read here
    EXPECT_EQ("4B C9 E8 FF 00 0A 00 41 54 5E 4D 44 4F 4E 3D 31 0D AF 1E 7E",
              testkit::hex(pty.readMaster(20, 1000)));
    // With the drain, the stream's bytes go before the command.
    EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), "AT^MDON=1\r", response, true, true));
    EXPECT_EQ(0, bytesWaiting(pty));
    EXPECT_EQ(20u, pty.readMaster(20, 1000).size());
}

TEST_F(AtServiceTest, OneExchangeAtATime) {
    std::string responses[2];
    std::thread callers[2];
    const char* const commands[2] = {"AT^MDON?\r", "AT^MDSL?\r"};
    for (int i = 0; i < 2; ++i) {
        callers[i] = std::thread([&, i] {
            EXPECT_TRUE(at->sendATcmdAndWaitResponse(pty.slave(), commands[i], responses[i]));
        });
    }
    for (int i = 0; i < 2; ++i) {
        const std::string cmd = pty.readMaster(9, 2000);
        if (cmd.size() != 9) {
            ADD_FAILURE() << "command " << i << " did not come: " << testkit::hex(cmd);
            break;
        }
        // While one answer is awaited, no second command may come out.
        EXPECT_EQ("", pty.readMaster(1, 150));
        pty.writeMaster("\r\n" + cmd.substr(2, 5) + ": " + cmd.substr(5, 2) + "\r\n\r\nOK\r\n");
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(" ON", responses[0]);
    EXPECT_EQ(" SL", responses[1]);
}

}  // namespace
