// The Qualcomm frames as the program holds them; then vrec against the module simulator,
// whose record tells what reached the module, and vrec-inspect on what vrec stored.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <map>
#include <cstdio>
#include <string>
#include <vector>

#include "diagRequests.h"
#include "hdlc.h"
#include "qualcommTables.h"
#include "seqStream.h"
#include "testkit.h"

namespace {

using testkit::endsWith;
using testkit::TempDir;
using testkit::waitFor;
using Args = std::vector<std::string>;

const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
const std::string kStopLine = "\nINFO: Stop capturing log.\n";
constexpr uint64_t kMiB = 1 << 20;

// What the command files send, sparing a run the 5 seconds of the Qualcomm table: log
// configuration operation 3 (equipment 1, items 0 to 7) starts the stream, 0 ends it.
const std::string kStartRequest("\x73\0\0\0\x03\0\0\0\x01\0\0\0\x07\0\0\0\xFF", 17);
const std::string kStopRequest("\x73\0\0\0\0\0\0\0", 8);
// The module's answers: the request's header and a status of 0.
const std::string kStartAnswer = vtools::frame(kStartRequest.substr(0, 8) + std::string(4, '\0'));
const std::string kStopAnswer = vtools::frame(kStopRequest + std::string(4, '\0'));

uint64_t fileSize(const std::string& path) {
    std::error_code error;
    const uint64_t size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

// Requests as the simulator records their arrival: "frame" and hex digits without spaces.
Args arrivals(const Args& requests) {
    Args lines;
    for (const std::string& request : requests) {
        std::string text = testkit::hex(request);
        text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
        lines.push_back("frame " + text);
    }
    return lines;
}
const Args kFileArrivals = arrivals({kStartRequest, kStartRequest, kStopRequest});

void putCommandFiles(const std::string& dir) {
    for (const auto& file : {std::make_pair("/startcmd.txt", kStartRequest),
                             std::make_pair("/stopcmd.txt", kStopRequest)}) {
        std::string text = "{";
        for (const char c : diagreq::frame(file.second)) {
            text += "0x" + testkit::hex(std::string(1, c)) + ",";
        }
        testkit::writeFile(dir + file.first, text + "}\n");
    }
}

Args withHead(Args head, const Args& tail) {
    head.insert(head.end(), tail.begin(), tail.end());
    return head;
}

// The module: vrec-modemsim with a Diag port, in a directory of its own where vrec runs
// too, with the command files unless told otherwise.
struct Sim : TempDir, testkit::ModemSim {
    explicit Sim(const Args& args, bool commandFiles = true)
        : ModemSim(path(), withHead({"--diag", "diag"}, args)) {
        if (commandFiles) {
            putCommandFiles(path());
        }
    }
};

// One capture run of vrec in `cwd`, up and running in the background.
struct Vrec {
    Vrec(const std::string& where, const Args& args)
        : cwd(where),
          run(withHead({kVrec}, args), where),
          up(run.waitForOutput("vrec now is running in the background.", 20000)) {}
    // `vrec -s`, run in `from`; the capture's exit status.
    int stop(const std::string& from = "") {
        std::string out;
        testkit::runToEnd({kVrec, "-s"}, from.empty() ? cwd : from, &out);
        return run.childStatus(15000);
    }
    Args descriptors() {
        const std::string dir = "/proc/" + std::to_string(run.childPid()) + "/fd/";
        Args targets;
        for (const std::string& fd : testkit::listDir(dir)) {
            char target[PATH_MAX] = {};
            targets.push_back(readlink((dir + fd).c_str(), target, PATH_MAX - 1) > 0 ? target : "");
        }
        return targets;
    }

    const std::string cwd;
    testkit::BackgroundRun run;
    const bool up;
};

// vrec-inspect over `files`: its exit status, with its report.
int inspect(const Args& files, std::string* report) {
    return testkit::runToEnd(withHead({testkit::builtProgram("tools/vrec-inspect")}, files), "/",
                             report);
}

// The number behind `label` in an inspect report; -1 when the label is absent.
long long figure(const std::string& report, const std::string& label) {
    const size_t at = report.find(label);
    return at == std::string::npos ? -1 : strtoll(report.c_str() + at + label.size(), nullptr, 10);
}

// Mounts in a mount namespace of this test's own, undone in reverse order at the end,
// before the directories under them are removed.
struct Mounts {
    ~Mounts() {
        for (auto it = targets.rbegin(); it != targets.rend(); ++it) {
            umount2(it->c_str(), MNT_DETACH);
        }
    }
    // False where the process may not have a mount namespace of its own.
    static bool enter() {
        return unshare(CLONE_NEWNS) == 0 &&
               mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }
    bool add(const std::string& source, const std::string& target, const char* type,
             unsigned long flags, const char* data = nullptr) {
        const bool done = mount(source.c_str(), target.c_str(), type, flags, data) == 0;
        EXPECT_TRUE(done) << "mount " << source << " on " << target << ": " << strerror(errno);
        targets.push_back(done ? target : "");
        return done;
    }

    Args targets;
};

// Finished items in `dir` by number; a name of another form fails the test.
std::vector<int> itemNumbers(const std::string& dir) {
    std::vector<int> numbers;
    for (const std::string& name : testkit::listDir(dir)) {
        int n = -1;
        int time[5];  // date, hour, minute, second, millisecond
        int end = 0;
        if (name.rfind("real_logitem_", 0) == 0) {
            EXPECT_TRUE(sscanf(name.c_str(), "real_logitem_%d_%d_%d_%d_%d_%d.bin%n", &n, &time[0],
                               &time[1], &time[2], &time[3], &time[4], &end) == 6 &&
                        end == static_cast<int>(name.size()))
                << name;
            numbers.push_back(n);
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::string frameAt(const FrameTable& table, int i) {
    return std::string(reinterpret_cast<const char*>(table.frame(i)),
                       static_cast<size_t>(table.length(i)));
}

// Rows known from modules in the field and the whole stop set, byte for byte; the rest is
// the requests diagreq builds, framed, with the shape of the set: the commands, the
// lengths, one flag per frame.
TEST(QualcommTable, KnownRowsStopFramesAndTheShapeOfTheSet) {
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

    const std::vector<std::string> requests = diagreq::qualcommStartRequests();
    ASSERT_EQ(528, kQualcommStartFrames.count);
    ASSERT_EQ(528u, requests.size());
    std::map<int, int> codes;
    size_t shortest = SIZE_MAX;
    size_t longest = 0;
    for (size_t i = 0; i < requests.size(); ++i) {
        const std::string wire = frameAt(kQualcommStartFrames, static_cast<int>(i));
        EXPECT_EQ(testkit::hex(diagreq::frame(requests[i])), testkit::hex(wire)) << "row " << i;
        EXPECT_EQ(wire.size() - 1, wire.find('\x7E')) << "row " << i;
        shortest = std::min(shortest, wire.size());
        longest = std::max(longest, wire.size());
        ++codes[static_cast<unsigned char>(requests[i][0])];
    }
    EXPECT_EQ(4u, shortest);
    EXPECT_EQ(392u, longest);
    const std::map<int, int> kCodes = {{0x00, 1},   {0x0C, 1},  {0x1C, 1}, {0x1D, 1},
                                       {0x4B, 464}, {0x60, 1},  {0x63, 1}, {0x73, 8},
                                       {0x7C, 1},   {0x7D, 47}, {0x81, 1}, {0x82, 1}};
    EXPECT_EQ(kCodes, codes);
}

TEST(Capture, TableGoesOutPacedAndTheStopFramesFollowOnStop) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "200"}, false);
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    Args expected = arrivals(diagreq::qualcommStartRequests());
    ASSERT_TRUE(waitFor([&] { return sim.arrived("diag").size() == expected.size(); }, 5000));
    // vrec pauses 10 ms behind each frame, so frame i comes at least 10 * i ms after the
    // first; 50 ms allow for the simulator itself being late to read the first.
    std::vector<long> times;
    sim.arrived("diag", &times);
    for (size_t i = 1; i < times.size(); ++i) {
        EXPECT_GE(times[i] - times[0], static_cast<long>(10 * i) - 50) << "frame " << i;
    }
    EXPECT_EQ(1, vrec.stop());
    EXPECT_TRUE(endsWith(vrec.run.output(), kStopLine)) << vrec.run.output();
    // "frame": every check sequence was good.
    EXPECT_EQ(withHead(expected, arrivals(diagreq::qualcommStopRequests())), sim.arrived("diag"));
    EXPECT_NE(std::string::npos, sim.record().find("event stream stop log configuration 0"));
}

// The capture holds what the module sent, byte for byte, however the run is stopped.
TEST(Capture, LogHoldsExactlyWhatTheModuleSent) {
    testkit::isolateNetwork();
    const std::string replay = std::string(VREC_SHARED_DATA) + "/real-diag-lte.bin";
    std::string stream;
    for (uint32_t seq = 0; seq < 30000; ++seq) {
        stream += vtools::frame(vtools::simLogPacket(seq));
    }
    const struct {
        const char* name;
        Args simArgs;
        bool bySignal;
    } kCases[] = {
        {"stopped by vrec -s", {"--total", "30000"}, false},
        {"stopped by SIGQUIT", {"--total", "30000"}, true},
        {"a phone's stream replayed", {"--replay", replay}, false},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.name);
        const bool replaying = c.simArgs[0] == "--replay";
        if (replaying && !testkit::fileExists(replay)) {
            // The other cases still count; only the replay is left out, and says so.
            printf("[  SKIPPED ] %s is absent: the real Diag stream is not replayed\n",
                   replay.c_str());
            continue;
        }
        Sim sim(c.simArgs);
        Vrec vrec(sim.path(), {"-d", "./diag"});
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const std::string sent = kStartAnswer + (replaying ? testkit::readFile(replay) : stream);
        const std::string log = sim.file("real_log.bin");
        EXPECT_TRUE(waitFor([&] { return fileSize(log) == sent.size(); }, 20000)) << fileSize(log);
        EXPECT_TRUE(testkit::readFile(log) == sent) << "the capture is not what was sent";

        if (c.bySignal) {
            kill(vrec.run.childPid(), SIGQUIT);
        }
        EXPECT_EQ(1, c.bySignal ? vrec.run.childStatus(15000) : vrec.stop());
        EXPECT_TRUE(endsWith(vrec.run.output(), kStopLine)) << vrec.run.output();
        EXPECT_EQ(kFileArrivals.back(), sim.arrived("diag").back());
        // Behind the stream only the answer to the stop request may have come.
        const std::string last = testkit::readFile(log);
        EXPECT_TRUE(last == sent || last == sent + kStopAnswer) << last.size() - sent.size();
        std::string report;
        EXPECT_EQ(0, inspect({log}, &report)) << report;
    }
}

TEST(Capture, ItemsRotateAndTheOldestGoAtTheTotalLimit) {
    testkit::isolateNetwork();
    const struct {
        Args args;
        uint32_t packets;  // about 96 bytes each
        std::vector<int> items;
    } kCases[] = {
        // 5.5 MiB in items of 1 MiB under a total of 3 MiB: items 0 to 2 go on the way.
        {{"-d", "./diag", "-c", "1", "-t", "3"}, 60000, {3, 4}},
        // No total: every item stays.
        {{"-d", "./diag", "-c", "1"}, 38000, {0, 1, 2}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        Sim sim({"--rate", "40000", "--total", std::to_string(c.packets)});
        Vrec vrec(sim.path(), c.args);
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const std::string log = sim.file("real_log.bin");
        const std::string last = vtools::frame(vtools::simLogPacket(c.packets - 1));
        EXPECT_TRUE(waitFor([&] { return endsWith(testkit::readFile(log), last); }, 30000));
        EXPECT_EQ(1, vrec.stop());

        EXPECT_EQ(c.items, itemNumbers(sim.path()));
        Args files = {log};
        for (const std::string& name : testkit::listDir(sim.path())) {
            if (name.compare(0, 13, "real_logitem_") == 0) {
                files.push_back(sim.file(name));
                // An item ends with the chunk that reaches its size, or that reaches the
                // total, which counts the chunks' excess over the items before it.
                EXPECT_GE(fileSize(files.back()), kMiB - 2 * 2048) << name;
                EXPECT_LT(fileSize(files.back()), kMiB + 2048) << name;
            }
        }
        // What is left is the stream's tail, unbroken, to its last packet.
        std::string report;
        EXPECT_EQ(0, inspect(files, &report)) << report;
        EXPECT_EQ(static_cast<long long>(c.packets) - 1, figure(report, ", last ")) << report;
        EXPECT_EQ(c.items[0] == 0, figure(report, ", first ") == 0) << report;
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

// What goes out to start, at the start and again when the port is regained, and to stop.
TEST(Capture, StartSetsGoOutAtStartAndReconnect) {
    testkit::isolateNetwork();
    const std::string trace = "text at+trace=";
    const struct {
        Args args;
        bool commandFiles;
        Args start;  // on the Diag port
        std::string stop;
        Args pcui;
    } kCases[] = {
        {{"-i", "-d", "./diag"}, true, {kFileArrivals[0]}, kFileArrivals[2], {}},
        // The PCUI port is let go after the start, and its name with it: a reconnect can
        // find it again only by discovery, which sees no module here.
        {{"-i", "-p", "./pcui", "-d", "./diag"},
         false,
         {"text .trace-on4" + std::string(32, 'F') + ".", trace + "1"},
         trace + "0",
         {"at AT+XSYSTRACE=0,\"bb_sw=1\",\"bb_sw=sdl:th,tr,st,db,pr,lt,li,gt,ae,mo\",\"oct=4\""}},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::PrintToString(c.args) + (c.commandFiles ? " with files" : ""));
        Sim sim({"--pcui", "pcui", "--rate", "1000"}, c.commandFiles);
        Vrec vrec(sim.path(), c.args);
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const auto arrived = [&] { return sim.arrived("diag").size(); };
        ASSERT_TRUE(waitFor([&] { return arrived() == c.start.size(); }, 5000));
        sim.control("hangup=diag:300");
        EXPECT_TRUE(waitFor([&] { return arrived() == 2 * c.start.size(); }, 8000));
        EXPECT_EQ(1, vrec.stop());
        EXPECT_EQ(withHead(withHead(c.start, c.start), {c.stop}), sim.arrived("diag"));
        EXPECT_EQ(c.pcui, sim.arrived("pcui"));
    }
}

TEST(Capture, LostDiagPortIsRegainedAndTheSameLogGoesOn) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "2000"});
    Vrec vrec(sim.path(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string log = sim.file("real_log.bin");
    ASSERT_TRUE(waitFor([&] { return fileSize(log) > 10000; }, 5000));
    const size_t descriptors = vrec.descriptors().size();
    constexpr size_t kHangups = 3;
    for (size_t i = 1; i <= kHangups; ++i) {
        SCOPED_TRACE(i);
        const uint64_t before = fileSize(log);
        sim.control("hangup=diag:500");
        ASSERT_TRUE(waitFor([&] { return sim.arrived("diag").size() == i + 1; }, 8000));
        // From the hang-up to the start frame on the new port: the 2-second pause before
        // the regain, give or take the record's millisecond and a loaded host.
        std::vector<long> starts;
        std::vector<long> times;
        sim.arrived("diag", &starts);
        const Args events = sim.arrived("sim", &times);
        long gap = starts.back();
        for (size_t e = 0; e < events.size(); ++e) {
            gap = events[e].find("event hangup") == 0 ? starts.back() - times[e] : gap;
        }
        EXPECT_GE(gap, 1999);
        EXPECT_LE(gap, 3500);
        EXPECT_TRUE(waitFor([&] { return fileSize(log) > before + 10000; }, 5000));
    }
    EXPECT_EQ(descriptors, vrec.descriptors().size());
    EXPECT_EQ(1, vrec.stop());

    // One file through it all: the answer to every start is in it. What was lost is what
    // the port held when it went: at most one cut frame and one run of missing packets per
    // hang-up, and nothing else damaged, repeated or out of order.
    const std::string captured = testkit::readFile(log);
    size_t answers = 0;
    for (size_t at = captured.find(kStartAnswer); at != std::string::npos;
         at = captured.find(kStartAnswer, at + 1)) {
        ++answers;
    }
    EXPECT_EQ(kHangups + 1, answers);
    std::string report;
    inspect({log}, &report);
    EXPECT_LE(figure(report, " good, "), static_cast<long long>(kHangups)) << report;
    EXPECT_LE(figure(report, " in "), static_cast<long long>(kHangups)) << report;
    EXPECT_EQ(0, figure(report, "bytes outside frames: ")) << report;
    EXPECT_EQ(0, figure(report, "out of order ")) << report;
    EXPECT_EQ(0, figure(report, "damaged ")) << report;
}

// vrec with no options finds the module through sysfs, with /dev/ttyUSBn names in front of
// the simulator's terminals, and captures onto a small disk until it is full.
TEST(Capture, FindsTheModuleThroughSysfsAndAFullDiskEndsTheCapture) {
    Sim sim({"--pcui", "pcui", "--sysfs", "tree"});
    Mounts mounts;
    if (!Mounts::enter()) {
        GTEST_SKIP() << "no mount namespace of our own (" << strerror(errno)
                     << "): a fake sysfs, /dev and a small disk cannot be put in place";
    }
    testkit::isolateNetwork();
    // A /dev of our own: the terminals the tests need, and the names of the Diag port
    // (interface 1 of the tree) and the PCUI port (2); 0, the modem, has none.
    const std::string dev = sim.file("dev");
    const std::string disk = sim.file("disk");
    for (const std::string& dir : {dev, dev + "/pts", disk}) {
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    }
    testkit::writeFile(dev + "/null", "");
    testkit::writeFile(dev + "/ptmx", "");
    ASSERT_EQ(0, symlink(sim.file("diag").c_str(), (dev + "/ttyUSB1").c_str()));
    ASSERT_EQ(0, symlink(sim.file("pcui").c_str(), (dev + "/ttyUSB2").c_str()));
    // The host may have no USB bus in sysfs to mount over: the tree's bus directory stands in
    // for all of /sys/bus.
    ASSERT_TRUE(mounts.add(sim.file("tree/sys/bus"), "/sys/bus", nullptr, MS_BIND));
    for (const char* name : {"/null", "/pts", "/ptmx"}) {
        ASSERT_TRUE(mounts.add(std::string("/dev") + name, dev + name, nullptr, MS_BIND));
    }
    ASSERT_TRUE(mounts.add(dev, "/dev", nullptr, MS_BIND | MS_REC));
    ASSERT_TRUE(mounts.add("tmpfs", disk, "tmpfs", 0, "size=2m"));

    putCommandFiles(disk);
    Vrec vrec(disk, {});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(
        vrec.run.waitForOutput("\rERROR: error while writing log.the storage may be full.", 20000));
    const auto logOpen = [&] {
        const Args open = vrec.descriptors();
        return std::any_of(open.begin(), open.end(), [](const std::string& target) {
            return endsWith(target, "/real_log.bin");
        });
    };
    EXPECT_TRUE(waitFor([&] { return !logOpen(); }, 5000));
    EXPECT_EQ(1, vrec.stop(sim.path()));
    EXPECT_EQ(arrivals({kStartRequest, kStopRequest}), sim.arrived("diag"));
    EXPECT_TRUE(sim.arrived("pcui").empty());
}

}  // namespace
