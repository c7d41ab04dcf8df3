// The capture pipeline against the module simulator: items cut to the byte, a stop that
// stores everything read, a lost port regained without a pause in reading, storage that
// stalls or fills up.
#include <gtest/gtest.h>

#include <unistd.h>

#include <string>
#include <vector>

#include "e2eKit.h"
#include "seqStream.h"

namespace {

using namespace e2e;
using testkit::endsWith;
using testkit::waitFor;

// The simulator's sequence stream of `packets` packets, framed, behind the start answer.
std::string sequenceStream(uint32_t packets) {
    std::string stream = kStartAnswer;
    for (uint32_t seq = 0; seq < packets; ++seq) {
        stream += vtools::frame(vtools::simLogPacket(seq));
    }
    return stream;
}

// The items in `dir` in the order they were written, then the file in progress.
std::string capturedInOrder(const std::string& dir, std::vector<uint64_t>* itemSizes) {
    std::vector<std::pair<int, std::string>> items;
    for (const std::string& name : testkit::listDir(dir)) {
        int number = -1;
        if (sscanf(name.c_str(), "real_logitem_%d_", &number) == 1) {
            items.emplace_back(number, dir + "/" + name);
        }
    }
    std::sort(items.begin(), items.end());
    std::string all;
    for (const auto& item : items) {
        const std::string bytes = testkit::readFile(item.second);
        itemSizes->push_back(bytes.size());
        all += bytes;
    }
    return all + testkit::readFile(dir + "/real_log.bin");
}

// Waits until the module's last packet is stored in `dir`: the simulator ends its stream
// when it has handed the last packet to the terminal, not when vrec has read it.
bool lastPacketStored(const std::string& dir, uint32_t packets) {
    const std::string last = vtools::frame(vtools::simLogPacket(packets - 1));
    for (int waited = 0; waited < 30000; waited += 10) {
        std::vector<uint64_t> sizes;
        const std::string kept = capturedInOrder(dir, &sizes);
        if (endsWith(kept, last) || endsWith(kept, last + kStopAnswer)) {
            return true;
        }
        usleep(10000);
    }
    return false;
}

// Items end at the cycle size to the byte, the total limit keeps exactly the newest part of
// the stream, and a stop leaves everything read in the files.
TEST(Pipeline, ItemsAreExactAndAStopStoresEverything) {
    testkit::isolateNetwork();
    const struct {
        Args args;
        uint32_t packets;  // about 96 bytes each
        size_t items;      // finished items left
    } kCases[] = {
        {{"-d", "./diag", "-c", "1"}, 38000, 3},
        {{"-d", "./diag", "-c", "1", "-t", "3"}, 60000, 2},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        Sim sim({"--rate", "40000", "--total", std::to_string(c.packets)});
        Vrec vrec(sim.path(), c.args);
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        ASSERT_TRUE(lastPacketStored(sim.path(), c.packets));
        EXPECT_EQ(1, vrec.stop());

        const std::string sent = sequenceStream(c.packets);
        std::vector<uint64_t> sizes;
        std::string kept = capturedInOrder(sim.path(), &sizes);
        EXPECT_EQ(c.items, sizes.size());
        for (const uint64_t size : sizes) {
            EXPECT_EQ(kMiB, size);
        }
        // The stop request's answer may or may not have come before the reader ended.
        if (endsWith(kept, kStopAnswer)) {
            kept.resize(kept.size() - kStopAnswer.size());
        }
        ASSERT_GT(kept.size(), c.items * kMiB);
        EXPECT_TRUE(endsWith(sent, kept))
            << "not the stream's tail: " << kept.size() << " of " << sent.size() << " bytes";
        if (c.args.size() == 4) {
            EXPECT_EQ(sent.size(), kept.size());
        }
    }
}

// A lost port is looked for again soon after its first pause, reading resumes as soon as it
// is back (the start set goes out beside it), and nothing the module sent since is missing.
TEST(Pipeline, ReadingResumesSoonAfterTheReturnAndNothingSentSinceIsMissing) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "2000"});
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string log = sim.file("real_log.bin");
    ASSERT_TRUE(waitFor([&] { return fileSize(log) > 10000; }, 5000));
    const size_t descriptors = vrec.descriptors().size();
    for (const int downMs : {500, 3000}) {
        SCOPED_TRACE(downMs);
        const size_t starts = sim.arrived("diag").size();
        sim.control("hangup=diag:" + std::to_string(downMs));
        ASSERT_TRUE(waitFor([&] { return sim.arrived("diag").size() == starts + 1; }, 8000));
        const long hangup = lastEventAt(sim, "event hangup diag");
        const long reopen = lastEventAt(sim, "event reopen diag");
        const long started = lastArrivalAt(sim, "diag");
        ASSERT_GT(hangup, 0);
        ASSERT_GE(reopen, hangup + downMs);
        // The first look comes 2 s after the loss; later ones follow every half second.
        EXPECT_GE(started - hangup, 1999);
        EXPECT_LE(started - reopen, 2500);
        const uint64_t before = fileSize(log);
        EXPECT_TRUE(waitFor([&] { return fileSize(log) > before + 10000; }, 5000));
    }
    EXPECT_EQ(descriptors, vrec.descriptors().size());
    EXPECT_EQ(1, vrec.stop());

    // What was lost is what the port held when it went: at most one cut frame and one run of
    // missing packets per hang-up; everything sent after the return is there, in order.
    std::string report;
    inspect({log}, &report);
    EXPECT_LE(figure(report, " in "), 2) << report;
    EXPECT_LE(figure(report, " good, "), 2) << report;
    EXPECT_EQ(0, figure(report, "bytes outside frames: ")) << report;
    EXPECT_EQ(0, figure(report, "out of order ")) << report;
    EXPECT_EQ(0, figure(report, "damaged ")) << report;
}

// The built-in start table, cut by a hang-up a second in: the rest of it is not tried on
// the dead port, and the whole table goes out again, from its first row, once it is back.
TEST(Pipeline, AStartSetForALostPortEndsAndStartsOverOnTheNewOne) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "1000"}, false);
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    ASSERT_TRUE(waitFor([&] { return sim.arrived("diag").size() >= 60; }, 5000));
    sim.control("hangup=diag:1500");
    const Args table = arrivals(diagreq::qualcommStartRequests());
    const auto afterReopen = [&] {
        std::vector<long> times;
        const Args frames = sim.arrived("diag", &times);
        const long reopen = lastEventAt(sim, "event reopen diag");
        Args since;
        for (size_t i = 0; reopen >= 0 && i < frames.size(); ++i) {
            if (times[i] >= reopen) {
                since.push_back(frames[i]);
            }
        }
        return since;
    };
    ASSERT_TRUE(waitFor([&] { return afterReopen().size() >= table.size(); }, 15000));
    EXPECT_EQ(1, vrec.stop());
    Args expected = table;
    expected.push_back(arrivals(diagreq::qualcommStopRequests())[0]);
    Args got = afterReopen();
    got.resize(std::min(got.size(), expected.size()));
    EXPECT_EQ(expected, got);
}

long residentKiB(const std::string& statusFile) {
    const std::string status = testkit::readFile(statusFile);
    const size_t at = status.find("VmRSS:");
    return at == std::string::npos ? 0 : strtol(status.c_str() + at + 6, nullptr, 10);
}

// A tmpfs of `size` in the test's own mount namespace, under the simulator's directory.
std::string smallDisk(Sim& sim, Mounts& mounts, const char* size) {
    testkit::isolateNetwork();
    const std::string disk = sim.file("disk");
    EXPECT_EQ(0, mkdir(disk.c_str(), 0755));
    mounts.add("tmpfs", disk, "tmpfs", 0, (std::string("size=") + size).c_str());
    return disk;
}

// A disk that fills up: reading goes on, what cannot be queued is counted and told, storing
// is tried again, and the capture goes on in the same file once there is room; with a total
// limit the oldest item makes room first and nothing is lost.
TEST(Pipeline, AFullDiskIsSurvived) {
    Sim sim({"--rate", "40000", "--total", "480000"});
    Mounts mounts;
    if (!Mounts::enter()) {
        GTEST_SKIP() << "no mount namespace of our own (" << strerror(errno)
                     << "): a small disk cannot be put in place";
    }
    const std::string disk = smallDisk(sim, mounts, "64m");
    ASSERT_FALSE(HasFailure());
    // Room for 4 MiB of log: the queue of 16 MiB fills a few seconds after the disk.
    testkit::writeFile(disk + "/filler", std::string(60 * kMiB, 'f'));
    Vrec vrec(sim.path(), {"-d", "./diag", "-l", disk});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    ASSERT_TRUE(
        vrec.run.waitForOutput("\rERROR: error while writing log.the storage may be full.", 20000));
    EXPECT_TRUE(vrec.run.waitForOutput("No space left on device", 1000));
    // Once the queue is full (the run holds 16 MiB more than when the disk filled), bytes
    // are lost; a moment later the disk has room again.
    const std::string status = "/proc/" + std::to_string(vrec.run.childPid()) + "/status";
    const long full = residentKiB(status);
    ASSERT_TRUE(waitFor([&] { return residentKiB(status) > full + 14 * 1024; }, 15000));
    usleep(1000000);
    ASSERT_EQ(0, unlink((disk + "/filler").c_str()));
    EXPECT_TRUE(vrec.run.waitForOutput("INFO: the log is stored again since ", 5000));
    ASSERT_TRUE(lastPacketStored(disk, 480000));
    EXPECT_TRUE(vrec.run.waitForOutput(" bytes of log lost from ", 5000)) << vrec.run.output();
    EXPECT_EQ(1, vrec.stop());

    // One file, the stream with one run of packets missing where the queue was full, and
    // the loss told to the byte.
    const std::string sent = sequenceStream(480000);
    std::string stored = testkit::readFile(disk + "/real_log.bin");
    if (endsWith(stored, kStopAnswer)) {
        stored.resize(stored.size() - kStopAnswer.size());
    }
    const std::string out = vrec.run.output();
    const long long told = lossTold(out);
    EXPECT_GT(told, 0) << out;
    EXPECT_EQ(static_cast<long long>(sent.size() - stored.size()), told) << out;
    std::string report;
    inspect({disk + "/real_log.bin"}, &report);
    EXPECT_EQ(1, figure(report, " in ")) << report;
    EXPECT_LE(figure(report, " good, "), 1) << report;
    EXPECT_EQ(479999, figure(report, ", last ")) << report;
    const std::string diagLog = testkit::readFile(sim.file("vrec.log"));
    EXPECT_NE(std::string::npos, diagLog.find("No space left on device"));
    EXPECT_NE(std::string::npos, diagLog.find(std::to_string(told) + " lost"));
}

TEST(Pipeline, AFullDiskMakesRoomByTheOldestItemUnderATotalLimit) {
    Sim sim({"--rate", "40000", "--total", "80000"});
    Mounts mounts;
    if (!Mounts::enter()) {
        GTEST_SKIP() << "no mount namespace of our own (" << strerror(errno)
                     << "): a small disk cannot be put in place";
    }
    const std::string disk = smallDisk(sim, mounts, "8m");
    ASSERT_FALSE(HasFailure());
    // Room for two and a half items: the third cannot be finished without a deletion.
    testkit::writeFile(disk + "/filler", std::string(8 * kMiB - 5 * kMiB / 2, 'f'));
    Vrec vrec(sim.path(), {"-d", "./diag", "-l", disk, "-c", "1", "-t", "3"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    ASSERT_TRUE(lastPacketStored(disk, 80000));
    EXPECT_EQ(1, vrec.stop());
    EXPECT_EQ(std::string::npos, vrec.run.output().find(" bytes of log lost "))
        << vrec.run.output();
    std::vector<uint64_t> sizes;
    std::string kept = capturedInOrder(disk, &sizes);
    if (endsWith(kept, kStopAnswer)) {
        kept.resize(kept.size() - kStopAnswer.size());
    }
    for (const uint64_t size : sizes) {
        EXPECT_EQ(kMiB, size);
    }
    EXPECT_GT(kept.size(), kMiB);
    EXPECT_TRUE(endsWith(sequenceStream(80000), kept)) << "not the stream's tail";
    EXPECT_NE(std::string::npos, testkit::readFile(sim.file("vrec.log")).find("to make room"));
}

}  // namespace
