// vrec-stallfs: the storage that stalls for the capture tests and the benchmark.
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "testkit.h"

namespace {

using Clock = std::chrono::steady_clock;

// Writes `data` to `fd` whole and says how long that took, in milliseconds.
long timedWrite(int fd, const std::string& data) {
    const auto start = Clock::now();
    EXPECT_EQ(static_cast<ssize_t>(data.size()), write(fd, data.data(), data.size()));
    return testkit::msSince(start);
}

}  // namespace

TEST(Stallfs, WritesStallOnScheduleAndOnRequestAndDataPassesIntact) {
    testkit::StallFs fs({"--every-ms", "400", "--stall-ms", "150"});
    if (!fs.mounted()) {
        GTEST_SKIP() << fs.whyNot();
    }
    const int fd =
        open((fs.dir() + "/log.bin").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ASSERT_NE(-1, fd);
    std::string written;
    std::vector<long> stallEnds;  // ms from the first write
    const auto start = Clock::now();
    for (unsigned block = 0; testkit::msSince(start) < 1300; ++block) {
        const std::string data(16 * 1024, static_cast<char>('a' + block % 26));
        if (timedWrite(fd, data) >= 140) {
            stallEnds.push_back(testkit::msSince(start));
        }
        written += data;
        usleep(2000);
    }
    // A stall every 400 ms: 3 or 4 in 1.3 s, each holding one write until the stall's end.
    ASSERT_GE(stallEnds.size(), 3u);
    ASSERT_LE(stallEnds.size(), 4u);
    for (size_t i = 1; i < stallEnds.size(); ++i) {
        EXPECT_NEAR(400, stallEnds[i] - stallEnds[i - 1], 50) << "stall " << i;
    }

    // One long stall on request, and then none.
    ASSERT_TRUE(fs.control("every 0 0"));
    ASSERT_TRUE(fs.control("stall 600"));
    EXPECT_GE(timedWrite(fd, "held"), 500);
    EXPECT_LT(timedWrite(fd, "free"), 100);
    written += "heldfree";
    ASSERT_EQ(0, close(fd));

    EXPECT_TRUE(testkit::readFile(fs.backing() + "/log.bin") == written);
    EXPECT_TRUE(testkit::readFile(fs.dir() + "/log.bin") == written);
    // Names change as the capture's rotation changes them.
    ASSERT_EQ(0, rename((fs.dir() + "/log.bin").c_str(), (fs.dir() + "/item_1.bin").c_str()));
    EXPECT_EQ(testkit::listDir(fs.backing()), std::vector<std::string>{"item_1.bin"});
    EXPECT_EQ(0, unlink((fs.dir() + "/item_1.bin").c_str()));
    EXPECT_TRUE(testkit::listDir(fs.backing()).empty());
}
