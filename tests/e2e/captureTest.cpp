// The Qualcomm frames as the program holds them; then vrec against the module simulator,
// whose record tells what reached the module, and vrec-inspect on what vrec stored.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "diagRequests.h"
#include "e2eKit.h"
#include "hdlc.h"
#include "qualcommTables.h"
#include "seqStream.h"
#include "testkit.h"

namespace {

const bool kFollowsBackgroundRuns = testkit::skipAllWithoutSubreaper();

using namespace e2e;
using testkit::endsWith;
using testkit::waitFor;

std::string frameAt(const FrameTable& table, int i) {
    return std::string(reinterpret_cast<const char*>(table.frame(i)),
                       static_cast<size_t>(table.length(i)));
}

// Rows known from modules in the field and the whole stop set, byte for byte.
TEST(QualcommTable, KnownRowsAndStopFrames) {
    const std::map<int, std::string> kStart = {
        {0, "1D 1C 3B 7E"},
        {11, "73 00 00 00 01 00 00 00 61 9D 7E"},
        {46, "60 01 9B 7B 7E"},
        {51, "4B 13 0C 00 01 00 00 00 01 00 00 00 FB 71 7E"},
        {144, "4B 13 0D 00 01 00 00 00 2D 75 7E"},
        {169, "4B 13 04 00 00 00 00 00 00 02 00 00 00 00 00 00 D6 4D 7E"},
        {527, "0C 14 3A 7E"},
    };
    for (const auto& row : kStart) {
        EXPECT_EQ(row.second, testkit::hex(frameAt(kQualcommStartFrames, row.first))) << row.first;
    }
    ASSERT_EQ(3, kQualcommStopFrames.count);
    EXPECT_EQ("60 00 12 6A 7E", testkit::hex(frameAt(kQualcommStopFrames, 0)));
    EXPECT_EQ("73 00 00 00 00 00 00 00 DA 81 7E", testkit::hex(frameAt(kQualcommStopFrames, 1)));
    EXPECT_EQ("7D 5D 05 00 00 00 00 00 00 74 41 7E", testkit::hex(frameAt(kQualcommStopFrames, 2)));

    // The rest is generated from diagreq's requests, and the run below proves it on the wire.
    EXPECT_EQ(528, kQualcommStartFrames.count);
}

TEST(Capture, TableGoesOutPacedAndTheStopFramesFollowOnStop) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "200"}, false);
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    Args expected = arrivals(diagreq::qualcommStartRequests());
    ASSERT_TRUE(waitFor([&] { return sim.arrived("diag").size() == expected.size(); }, 5000));
    std::vector<long> times;
    sim.arrived("diag", &times);
    expectPaced(times);
    EXPECT_EQ(1, vrec.stop());
    EXPECT_TRUE(endsWith(vrec.run.output(), kStopLine)) << vrec.run.output();
    // "frame": every check sequence was good.
    EXPECT_EQ(withHead(expected, arrivals(diagreq::qualcommStopRequests())), sim.arrived("diag"));
    EXPECT_NE(std::string::npos, sim.record().find("event stream stop log configuration 0"));
}

// One capture of what the simulator sends with `simArgs`, `sent` behind the answer to the
// start request: the log holds it byte for byte, then also after the stop, and it is whole.
void expectCapturedExactly(const Args& simArgs, const std::string& sent, bool bySignal) {
    Sim sim(simArgs);
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string expected = kStartAnswer + sent;
    const std::string log = sim.file("real_log.bin");
    EXPECT_TRUE(waitFor([&] { return fileSize(log) == expected.size(); }, 20000)) << fileSize(log);
    EXPECT_TRUE(testkit::readFile(log) == expected) << "the capture is not what was sent";

    if (bySignal) {
        EXPECT_TRUE(vrec.run.signalChild(SIGQUIT));
    }
    EXPECT_EQ(1, bySignal ? vrec.run.childStatus(15000) : vrec.stop());
    EXPECT_TRUE(endsWith(vrec.run.output(), kStopLine)) << vrec.run.output();
    EXPECT_EQ(kFileArrivals.back(), sim.arrived("diag").back());
    // Behind the stream only the answer to the stop request may have come.
    const std::string last = testkit::readFile(log);
    EXPECT_TRUE(last == expected || last == expected + kStopAnswer)
        << last.size() - expected.size();
    std::string report;
    EXPECT_EQ(0, inspect({log}, &report)) << report;
}

// The capture holds what the module sent, byte for byte, also when a signal stops it (the
// pipeline's runs stop with vrec -s).
TEST(Capture, LogHoldsExactlyWhatTheModuleSent) {
    testkit::isolateNetwork();
    std::string stream;
    for (uint32_t seq = 0; seq < 30000; ++seq) {
        stream += vtools::frame(vtools::simLogPacket(seq));
    }
    expectCapturedExactly({"--total", "30000"}, stream, true);
}

// Phones' streams replayed: the one that begins with a cut frame has it behind the answer to
// the start request, where the inspector still takes it for the cut frame the stream began
// with.
TEST(Capture, LogHoldsExactlyWhatAPhoneSent) {
    testkit::isolateNetwork();
    for (const std::string& file :
         {std::string(VREC_SOURCE_DIR) + "/examples/real-diag-lte-gsm.bin",
          std::string(VREC_SHARED_DATA) + "/real-diag-lte.bin"}) {
        SCOPED_TRACE(file);
        if (!testkit::fileExists(file)) {
            GTEST_SKIP() << file << " is absent: no such phone's stream to replay";
        }
        expectCapturedExactly({"--replay", file}, testkit::readFile(file), false);
    }
}

TEST(Capture, TotalWithoutCyclesEndsTheCaptureAndReportsComeByTheStep) {
    testkit::isolateNetwork();
    Sim sim({"--total", "16000"});
    Vrec vrec(sim.path(), {"-d", "./diag", "-t", "1", "-o", "0", "-r", "200000"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(vrec.run.waitForOutput(
        "\rWARNING: the max log size has reached. Now you can exit.\n", 10000));

    // -o 0: the run's files go into a directory of their own.
    const Args names = testkit::listDir(sim.path());
    const auto runDir = std::find_if(names.begin(), names.end(), [](const std::string& name) {
        int time[5];
        int end = 0;
        return sscanf(name.c_str(), "vrec_files_%d_%d_%d_%d_%d%n", &time[0], &time[1], &time[2],
                      &time[3], &time[4], &end) == 5 &&
               end == static_cast<int>(name.size());
    });
    ASSERT_NE(names.end(), runDir);
    EXPECT_FALSE(testkit::fileExists(sim.file("real_log.bin")));
    const uint64_t size = fileSize(sim.file(*runDir + "/real_log.bin"));
    EXPECT_GE(size, kMiB);
    EXPECT_LT(size, kMiB + 2048);
    EXPECT_EQ(1, vrec.stop());

    // A report comes with the first chunk that brings more than the step.
    const std::string out = vrec.run.output();
    const std::string label = "INFO: current size of captured log is ... ";
    long long previous = 0;
    int reports = 0;
    for (size_t at = out.find(label); at != std::string::npos; at = out.find(label, at + 1)) {
        const long long reported = strtoll(out.c_str() + at + label.size(), nullptr, 10);
        EXPECT_GT(reported - previous, 200000) << out;
        EXPECT_LE(reported - previous, 200000 + 2048) << out;
        previous = reported;
        ++reports;
    }
    EXPECT_EQ(static_cast<int>(size / 200000), reports) << out;
}

// IMC's start set, at the start and again when the port is regained, and its stop. The
// PCUI port is let go after the start; a reconnect opens it again by the name given with
// -p, for its command. (The command files' set goes out again the same way in the hang-up
// tests.)
TEST(Capture, ImcStartSetGoesOutAtStartAndReconnect) {
    testkit::isolateNetwork();
    const std::string trace = "text at+trace=";
    const std::string sysTrace =
        "at AT+XSYSTRACE=0,\"bb_sw=1\",\"bb_sw=sdl:th,tr,st,db,pr,lt,li,gt,ae,mo\",\"oct=4\"";
    const Args start = {"text .trace-on4" + std::string(32, 'F') + ".", trace + "1"};
    Sim sim({"--pcui", "pcui", "--rate", "1000"}, false);
    Vrec vrec(sim.path(), {"-i", "-p", "./pcui", "-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const auto arrived = [&] { return sim.arrived("diag").size(); };
    ASSERT_TRUE(waitFor([&] { return arrived() == start.size(); }, 5000));
    sim.control("hangup=diag:300");
    EXPECT_TRUE(waitFor([&] { return arrived() == 2 * start.size(); }, 8000));
    EXPECT_EQ(1, vrec.stop());
    EXPECT_EQ(withHead(withHead(start, start), {trace + "0"}), sim.arrived("diag"));
    EXPECT_EQ(Args(2, sysTrace), sim.arrived("pcui"));
}

}  // namespace
