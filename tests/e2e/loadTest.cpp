// The capture under load, run alone so that no other test takes the processor from it: a
// module that never waits (the simulator's model of a USB serial driver) at 8 MB/s, onto
// storage that stalls.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "e2eKit.h"
#include "seqStream.h"

namespace {

using namespace e2e;
using testkit::waitFor;

// The simulator's stream as it begins, cut at `size` bytes; empty when `size` does not fall
// between two packets.
std::string streamOfSize(size_t size) {
    std::string stream = kStartAnswer;
    for (uint32_t seq = 0; stream.size() < size; ++seq) {
        stream += vtools::frame(vtools::simLogPacket(seq));
    }
    return stream.size() == size ? stream : std::string();
}

// Silences the module and waits until everything it delivered has been taken by vrec and
// the log has stopped growing: the counts of what it delivered, or invalid ones.
testkit::SimCounts silenceAndSettle(Sim& sim, const std::string& log) {
    sim.control("silent=diag");
    const testkit::SimCounts counts = sim.settled("diag", 300, 20000);
    uint64_t size = fileSize(log);
    for (int still = 0; counts.valid && still < 50; ++still) {
        usleep(10000);
        if (fileSize(log) != size) {
            size = fileSize(log);
            still = 0;
        }
    }
    return counts;
}

// vrec capturing from a module that never waits, at 8 MB/s, onto storage that stalls as
// `stalls` say; `vrec` is null where FUSE cannot be used.
struct LoadRun {
    explicit LoadRun(const Args& stalls) : storage(stalls) {
        if (storage.mounted()) {
            testkit::isolateNetwork();
            sim = std::make_unique<Sim>(Args{"--drop-when-full", "--byte-rate", "8M"});
            vrec = std::make_unique<Vrec>(sim->path(), Args{"-d", "./diag", "-l", storage.dir()});
        }
    }
    std::string log() const { return storage.backing() + "/real_log.bin"; }

    testkit::StallFs storage;
    std::unique_ptr<Sim> sim;
    std::unique_ptr<Vrec> vrec;
};

// A module that never waits (the simulator's driver model: a 640 KiB receive buffer that
// drops what does not fit) at 8 MB/s, onto storage that stalls 250 ms every second: the
// reader keeps the driver's buffer empty through every stall, and a 10-second capture is
// exactly what the module delivered.
TEST(Pipeline, StorageThatStallsLosesNothing) {
    LoadRun run({"--every-ms", "1000", "--stall-ms", "250"});
    if (!run.vrec) {
        GTEST_SKIP() << run.storage.whyNot();
    }
    Sim& sim = *run.sim;
    Vrec& vrec = *run.vrec;
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string log = run.log();
    usleep(10 * 1000 * 1000);  // the length of the capture: ten stalls
    const testkit::SimCounts counts = silenceAndSettle(sim, log);
    ASSERT_TRUE(counts.valid);
    EXPECT_EQ(0u, counts.dropped) << "the driver's buffer overflowed";
    EXPECT_GT(counts.written, 40 * kMiB) << "the module sent too little to prove anything";
    EXPECT_EQ(1, vrec.stop());
    const std::string stored = testkit::readFile(log);
    EXPECT_EQ(counts.written, stored.size());
    EXPECT_TRUE(stored == streamOfSize(stored.size())) << "the log is not what the module sent";
    EXPECT_EQ(std::string::npos, vrec.run.output().find(" lost ")) << vrec.run.output();
}

// Storage that blocks for longer than the queue lasts: the reader still empties the driver's
// buffer, the loss is told on the terminal and in vrec.log to the byte, and the capture goes
// on afterwards.
TEST(Pipeline, AQueueOverflowIsCountedToTheByteAndTheCaptureGoesOn) {
    LoadRun run({});
    if (!run.vrec) {
        GTEST_SKIP() << run.storage.whyNot();
    }
    Sim& sim = *run.sim;
    Vrec& vrec = *run.vrec;
    testkit::StallFs& storage = run.storage;
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string log = run.log();
    ASSERT_TRUE(waitFor([&] { return fileSize(log) > 4 * kMiB; }, 10000));
    // 5 s of 8 MB/s is more than twice what the queue holds.
    ASSERT_TRUE(storage.control("stall 5000"));
    ASSERT_TRUE(vrec.run.waitForOutput(" bytes of log lost from ", 20000)) << vrec.run.output();
    const uint64_t after = fileSize(log);
    ASSERT_TRUE(waitFor([&] { return fileSize(log) > after + 4 * kMiB; }, 10000));
    const testkit::SimCounts counts = silenceAndSettle(sim, log);
    ASSERT_TRUE(counts.valid);
    EXPECT_EQ(0u, counts.dropped) << "the reader stopped reading";
    EXPECT_EQ(1, vrec.stop());

    const std::string out = vrec.run.output();
    const long long told = lossTold(out);
    EXPECT_GT(told, static_cast<long long>(8 * kMiB)) << out;
    EXPECT_EQ(static_cast<long long>(counts.written - fileSize(log)), told) << out;
    const std::string diagLog = testkit::readFile(sim.file("vrec.log"));
    EXPECT_NE(std::string::npos, diagLog.find("log lost: " + std::to_string(told) + " bytes"));
    EXPECT_NE(std::string::npos, diagLog.find(std::to_string(told) + " lost"));
    std::string report;
    inspect({log}, &report);
    EXPECT_EQ(1, figure(report, " in ")) << report;
}

}  // namespace
