// vrec against the module simulator: the real binaries, a pseudo-terminal per port, the
// simulator's record of what reached the module, and vrec-inspect on what vrec stored.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "diagRequests.h"
#include "hdlc.h"
#include "seqStream.h"
#include "testkit.h"

namespace {

using testkit::BackgroundRun;
using testkit::TempDir;

const std::string kVrec = testkit::builtProgram("vrecCmd/vrec");
const std::string kStopLine = "\nINFO: Stop capturing log.\n";
constexpr uint64_t kMiB = 1 << 20;

// What the command files send: log configuration operation 3 (equipment 1, items 0 to 7),
// which starts the simulator's stream, and operation 0, which ends it. They spare a run the
// 5 seconds of the Qualcomm table.
const std::string kStartRequest("\x73\0\0\0\x03\0\0\0\x01\0\0\0\x07\0\0\0\xFF", 17);
const std::string kStopRequest("\x73\0\0\0\0\0\0\0", 8);
// The module's answers: the request's header and a status of 0.
const std::string kStartAnswer = vtools::frame(kStartRequest.substr(0, 8) + std::string(4, '\0'));
const std::string kStopAnswer = vtools::frame(kStopRequest + std::string(4, '\0'));

template <typename Done>
bool waitFor(Done done, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        usleep(5000);
    }
    return true;
}

uint64_t fileSize(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Requests as the simulator records their arrival: "frame" and hex digits without spaces.
std::vector<std::string> arrivals(const std::vector<std::string>& requests) {
    std::vector<std::string> lines;
    for (const std::string& request : requests) {
        std::string text = testkit::hex(request);
        text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
        lines.push_back("frame " + text);
    }
    return lines;
}
const std::vector<std::string> kFileArrivals =
    arrivals({kStartRequest, kStartRequest, kStopRequest});

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

std::vector<std::string> withProgram(const std::string& program, std::vector<std::string> args) {
    args.insert(args.begin(), program);
    return args;
}

// The module: vrec-modemsim with a Diag port, its record and control FIFO in a directory
// of its own, where vrec runs too, with the command files unless told otherwise.
class Sim {
public:
    explicit Sim(std::vector<std::string> args, bool commandFiles = true) {
        if (commandFiles) {
            putCommandFiles(work.path());
        }
        args.insert(args.begin(), {"--diag", "diag", "--record", "record.txt", "--control", "ctl"});
        run = std::make_unique<BackgroundRun>(
            withProgram(testkit::builtProgram("tools/vrec-modemsim"), args), work.path());
        EXPECT_TRUE(run->waitForOutput("ready\n", 5000)) << run->errors();
    }
    const std::string& dir() const { return work.path(); }
    std::string path(const std::string& name) const { return work.file(name); }
    void control(const std::string& line) {
        // Not blocking: a FIFO with no simulator behind it fails at once.
        const int fd = open(path("ctl").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_NE(-1, fd) << strerror(errno);
        EXPECT_EQ(static_cast<ssize_t>(line.size() + 1),
                  write(fd, (line + "\n").c_str(), line.size() + 1));
        close(fd);
    }
    // What reached `port` ("diag", "pcui"; "sim" for what happened to the module) as
    // "kind data", and when.
    std::vector<std::string> arrived(const std::string& port, std::vector<long>* times = nullptr) {
        std::vector<std::string> lines;
        std::istringstream record(testkit::readFile(path("record.txt")));
        long ms = 0;
        std::string who;
        std::string what;
        while (record >> ms >> who && std::getline(record >> std::ws, what)) {
            if (who == port) {
                lines.push_back(what);
                if (times != nullptr) {
                    times->push_back(ms);
                }
            }
        }
        return lines;
    }
    // Bytes written to the Diag port so far, from a "stats" report.
    uint64_t written() {
        const size_t seen = run->output().size();
        control("stats");
        waitFor([&] { return run->output().find("stats: total", seen) != std::string::npos; },
                5000);
        const std::string out = run->output();
        const size_t at = out.find(" written ", out.find("stats: diag", seen));
        return at == std::string::npos ? 0 : strtoull(out.c_str() + at + 9, nullptr, 10);
    }

    TempDir work;
    std::unique_ptr<BackgroundRun> run;
};

// One capture run of vrec in `cwd`, up and running in the background.
class Vrec {
public:
    Vrec(const std::string& where, const std::vector<std::string>& args)
        : cwd(where), run(withProgram(kVrec, args), where) {
        up = run.waitForOutput("vrec now is running in the background.", 20000);
    }
    // `vrec -s`, run in `from`; the capture's exit status.
    int stop(const std::string& from = "") {
        std::string out;
        testkit::runToEnd({kVrec, "-s"}, from.empty() ? cwd : from, &out);
        return run.childStatus(15000);
    }
    std::vector<std::string> descriptors() {
        const std::string dir = "/proc/" + std::to_string(run.childPid()) + "/fd/";
        std::vector<std::string> targets;
        for (const std::string& fd : testkit::listDir(dir)) {
            char target[PATH_MAX] = {};
            targets.push_back(readlink((dir + fd).c_str(), target, PATH_MAX - 1) > 0 ? target : "");
        }
        return targets;
    }

    const std::string cwd;
    BackgroundRun run;
    bool up = false;
};

// vrec-inspect over `files`: its exit status, with its report.
int inspect(const std::vector<std::string>& files, std::string* report) {
    return testkit::runToEnd(withProgram(testkit::builtProgram("tools/vrec-inspect"), files), "/",
                             report);
}

// The number behind `label` in an inspect report; -1 when the label is absent.
long long figure(const std::string& report, const std::string& label) {
    const size_t at = report.find(label);
    return at == std::string::npos ? -1 : strtoll(report.c_str() + at + label.size(), nullptr, 10);
}

// Mounts in a mount namespace of this test's own, undone in reverse order at the end.
class Mounts {
public:
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
        if (done) {
            targets.push_back(target);
        }
        return done;
    }

private:
    std::vector<std::string> targets;
};

// Finished items in `dir` by number; a name of another form fails the test.
std::vector<int> itemNumbers(const std::string& dir) {
    std::vector<int> numbers;
    for (const std::string& name : testkit::listDir(dir)) {
        int n = -1;
        int time[5];  // date, hour, minute, second, millisecond
        int end = 0;
        if (name.compare(0, 13, "real_logitem_") == 0) {
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

TEST(Capture, TableGoesOutPacedAndTheStopFramesFollowOnStop) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "200"}, false);
    Vrec vrec(sim.dir(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    std::vector<std::string> expected = arrivals(diagreq::qualcommStartRequests());
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
    for (const std::string& stop : arrivals(diagreq::qualcommStopRequests())) {
        expected.push_back(stop);
    }
    EXPECT_EQ(expected, sim.arrived("diag"));  // "frame": every check sequence was good
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
        std::vector<std::string> simArgs;
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
            GTEST_SKIP() << replay << " is absent: the real Diag stream cannot be replayed";
        }
        Sim sim(c.simArgs);
        Vrec vrec(sim.dir(), {"-d", "./diag"});
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const std::string sent = kStartAnswer + (replaying ? testkit::readFile(replay) : stream);
        EXPECT_TRUE(waitFor([&] { return sim.written() == sent.size(); }, 20000)) << sim.written();
        const std::string log = sim.path("real_log.bin");
        EXPECT_TRUE(waitFor([&] { return fileSize(log) == sent.size(); }, 10000)) << fileSize(log);
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
        std::vector<std::string> args;
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
        Vrec vrec(sim.dir(), c.args);
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const std::string log = sim.path("real_log.bin");
        const std::string last = vtools::frame(vtools::simLogPacket(c.packets - 1));
        size_t mostItems = 0;
        EXPECT_TRUE(waitFor(
            [&] {
                mostItems = std::max(mostItems, itemNumbers(sim.dir()).size());
                return endsWith(testkit::readFile(log), last);
            },
            30000));
        EXPECT_LE(mostItems, c.items.size());
        EXPECT_EQ(1, vrec.stop());

        EXPECT_EQ(c.items, itemNumbers(sim.dir()));
        std::vector<std::string> files = {log};
        for (const std::string& name : testkit::listDir(sim.dir())) {
            if (name.compare(0, 13, "real_logitem_") == 0) {
                files.push_back(sim.path(name));
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
    Vrec vrec(sim.dir(), {"-d", "./diag", "-t", "1", "-o", "0", "-r", "200000"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(vrec.run.waitForOutput(
        "\rWARNING: the max log size has reached. Now you can exit.\n", 10000));

    // -o 0: the run's files go into a directory of their own.
    const std::vector<std::string> names = testkit::listDir(sim.dir());
    const auto runDir = std::find_if(names.begin(), names.end(), [](const std::string& name) {
        int time[5];
        int end = 0;
        return sscanf(name.c_str(), "vrec_files_%d_%d_%d_%d_%d%n", &time[0], &time[1], &time[2],
                      &time[3], &time[4], &end) == 5 &&
               end == static_cast<int>(name.size());
    });
    ASSERT_NE(names.end(), runDir);
    EXPECT_FALSE(testkit::fileExists(sim.path("real_log.bin")));
    const uint64_t size = fileSize(sim.path(*runDir + "/real_log.bin"));
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
        std::vector<std::string> args;
        bool commandFiles;
        std::vector<std::string> start;  // on the Diag port
        std::string stop;
        std::vector<std::string> pcui;
    } kCases[] = {
        {{"-q", "-d", "./diag"}, true, {kFileArrivals[0]}, kFileArrivals[2], {}},
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
        Vrec vrec(sim.dir(), c.args);
        ASSERT_TRUE(vrec.up) << vrec.run.output();
        const auto arrived = [&] { return sim.arrived("diag").size(); };
        ASSERT_TRUE(waitFor([&] { return arrived() == c.start.size(); }, 5000));
        sim.control("hangup=diag:300");
        EXPECT_TRUE(waitFor([&] { return arrived() == 2 * c.start.size(); }, 8000));
        EXPECT_EQ(1, vrec.stop());
        std::vector<std::string> diag = c.start;
        diag.insert(diag.end(), c.start.begin(), c.start.end());
        diag.push_back(c.stop);
        EXPECT_EQ(diag, sim.arrived("diag"));
        EXPECT_EQ(c.pcui, sim.arrived("pcui"));
    }
}

TEST(Capture, LostDiagPortIsRegainedAndTheSameLogGoesOn) {
    testkit::isolateNetwork();
    Sim sim({"--rate", "2000"});
    Vrec vrec(sim.dir(), {"-d", "./diag"});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    const std::string log = sim.path("real_log.bin");
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
        const std::vector<std::string> events = sim.arrived("sim", &times);
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

TEST(Capture, FullDiskEndsTheCaptureWithTheFileClosed) {
    Sim sim({});
    Mounts mounts;
    if (!Mounts::enter()) {
        GTEST_SKIP() << "no mount namespace of our own (" << strerror(errno)
                     << "): a small disk cannot be mounted for this test";
    }
    testkit::isolateNetwork();
    const std::string disk = sim.path("disk");
    mkdir(disk.c_str(), 0755);
    ASSERT_TRUE(mounts.add("tmpfs", disk, "tmpfs", 0, "size=2m"));
    putCommandFiles(disk);
    Vrec vrec(disk, {"-d", sim.path("diag")});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(
        vrec.run.waitForOutput("\rERROR: error while writing log.the storage may be full.", 20000));
    EXPECT_TRUE(waitFor(
        [&] {
            const std::vector<std::string> open = vrec.descriptors();
            return std::none_of(open.begin(), open.end(), [](const std::string& target) {
                return endsWith(target, "/real_log.bin");
            });
        },
        5000));
    EXPECT_EQ(1, vrec.stop(sim.dir()));
}

TEST(Discovery, VrecFindsTheDiagPortThroughSysfs) {
    Sim sim({"--pcui", "pcui", "--sysfs", "tree", "--rate", "1000"});
    Mounts mounts;
    if (!Mounts::enter()) {
        GTEST_SKIP() << "no mount namespace of our own (" << strerror(errno)
                     << "): a fake sysfs and /dev cannot be put in place";
    }
    testkit::isolateNetwork();
    // A /dev of our own: the terminals the tests need, and ttyUSBn names in front of the
    // simulator's ports. Interface 1 of its tree is the Diag port; 0, the modem, has none.
    const std::string dev = sim.path("dev");
    const std::string run = sim.path("run");
    for (const std::string& dir : {dev, dev + "/pts", run}) {
        ASSERT_EQ(0, mkdir(dir.c_str(), 0755));
    }
    testkit::writeFile(dev + "/null", "");
    testkit::writeFile(dev + "/ptmx", "");
    ASSERT_EQ(0, symlink(sim.path("diag").c_str(), (dev + "/ttyUSB1").c_str()));
    ASSERT_EQ(0, symlink(sim.path("pcui").c_str(), (dev + "/ttyUSB2").c_str()));
    // The host may have no USB bus in sysfs to mount over: the tree's bus directory stands in
    // for all of /sys/bus.
    ASSERT_TRUE(mounts.add(sim.path("tree/sys/bus"), "/sys/bus", nullptr, MS_BIND));
    for (const char* name : {"/null", "/pts", "/ptmx"}) {
        ASSERT_TRUE(mounts.add(std::string("/dev") + name, dev + name, nullptr, MS_BIND));
    }
    ASSERT_TRUE(mounts.add(dev, "/dev", nullptr, MS_BIND | MS_REC));

    putCommandFiles(run);
    Vrec vrec(run, {});
    ASSERT_TRUE(vrec.up) << vrec.run.output();
    EXPECT_TRUE(waitFor([&] { return !sim.arrived("diag").empty(); }, 5000));
    EXPECT_EQ(1, vrec.stop());
    EXPECT_EQ(arrivals({kStartRequest, kStopRequest}), sim.arrived("diag"));
    EXPECT_TRUE(sim.arrived("pcui").empty());
}

}  // namespace
